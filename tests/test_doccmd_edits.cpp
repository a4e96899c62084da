// Font and layout command edits as the importer makes them at every
// formatting change: each must leave exactly the text the plain edit gives,
// whether it changes the text or leaves it as it is.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "rtfconverter/DocCmd.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::CRecordingLogSink;

namespace {

CString Cmd(const std::string& body) { return CString(("\x01" + body + "\x02").c_str()); }

std::string Printed(double inches)
{
    char text[64];
    std::snprintf(text, sizeof text, "%01.2f", inches);
    return text;
}

// Every value the importer gives (twips / 1440, from \li, \ri and \fi) and the
// values at and next to the ties of two decimals.
std::vector<double> InchValues()
{
    std::vector<double> values;
    for (int twips = -15000; twips <= 15000; ++twips)
        values.push_back(twips / 1440.0);
    for (int hundredths = -1000; hundredths <= 1000; ++hundredths) {
        const double tie = (hundredths + 0.5) / 100.0;
        values.push_back(tie);
        values.push_back(std::nextafter(tie, 0.0));
        values.push_back(std::nextafter(tie, 20.0));
        values.push_back(hundredths / 100.0);
    }
    const double specials[] = {0.0, -0.0, 1e-300, -1e-300, 0.125, 0.025, 9.99, 9.994999, 9.995, 9.999, -9.995, 10.0};
    values.insert(values.end(), std::begin(specials), std::end(specials));
    return values;
}

} // namespace

TEST(LayoutCmdEdits, MarginsAndIndentsAreWhatPrintfMakesOfEveryValue)
{
    for (double inches : InchValues()) {
        // The setters clamp before they format; the text setters take the
        // same digits as printf writes them.
        const double margin = inches < 0.0 ? 0.0 : inches > 9.99 ? 9.99 : inches;
        const double indent = inches < -9.99 ? -9.99 : inches > 9.99 ? 9.99 : inches;

        CLayoutCmd byValue, byText;
        byValue.SetLeftMargin(inches);
        byText.SetLeftMargin(Printed(margin).c_str());
        byValue.SetRightMargin(-inches);
        byText.SetRightMargin(Printed(-inches < 0.0 ? 0.0 : -inches > 9.99 ? 9.99 : -inches).c_str());
        byValue.SetFirstLineIndent(inches);
        byText.SetFirstLineIndent(Printed(indent).c_str());
        ASSERT_EQ(byText.GetCmd(), byValue.GetCmd()) << Printed(inches) << " " << inches;

        CNumberCmd width, widthByText;
        width.SetTabWidth(std::fabs(inches));
        std::string digits = Printed(std::fabs(inches));
        digits.erase(digits.find('.'), 1);
        const bool bWritten = std::fabs(inches) > 0.0 && std::fabs(inches) < 10.0 && std::fabs(inches) != 0.25;
        widthByText.SetData(CString(bWritten ? digits.c_str() : ""), CNumberCmd::fldTabWidth);
        ASSERT_EQ(widthByText.GetCmd(), width.GetCmd()) << inches;
    }
}

TEST(LayoutCmdEdits, PinnedTexts)
{
    struct Row {
        int leftTwips, rightTwips, indentTwips;
        const char* expected;
    };
    const Row rows[] = {
        {0, 0, 0, "LL000000"},
        {720, 0, -360, "LL050000-025"},  // 0.25 is 360 twips exactly
        {36, 36, 36, "LL003003+003"},    // 0.025 in is stored a hair above the tie
        {1440, 14400, 14400, "LL100999+999"},
        {-5, 20000, -20000, "LL000999-999"},
        {7, 0, -7, "LL000000"},          // both round to zero: no indent field
    };
    for (const Row& row : rows) {
        CLayoutCmd cmd;
        cmd.SetLeftMargin(row.leftTwips / 1440.0);
        cmd.SetRightMargin(row.rightTwips / 1440.0);
        cmd.SetFirstLineIndent(row.indentTwips / 1440.0);
        EXPECT_EQ(Cmd(row.expected), cmd.GetCmd()) << row.expected;
    }
    CLayoutCmd nan;
    nan.SetLeftMargin(std::numeric_limits<double>::quiet_NaN());  // no digits: left as it was
    EXPECT_EQ(Cmd("LL000000"), nan.GetCmd());
}

// Each row starts from a text, makes one edit and names the text it must
// give; the edits that find their result already in place included.
TEST(FontCmdEdits, EditsGiveTheirTextWhetherOrNotItChanges)
{
    struct Row {
        const char* start;
        void (*edit)(CFontCmd&);
        const char* expected;
    };
    const Row rows[] = {
        {"F12-\xC0:Arial", [](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, "F12-\xC0:Arial"},
        {"F12-\xC0" "B:Arial", [](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, "F12-B\xC0:Arial"},
        {"F12-\xC0\xC0:Arial", [](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, "F12-\xC0:Arial"},
        {"F12-\xCA:Arial", [](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, "F12-\xC0:Arial"},
        {"F12-:Arial", [](CFontCmd& c) { c.SetCharset(DEFAULT_CHARSET); }, "F12-:Arial"},
        {"F12-\xC0:Arial", [](CFontCmd& c) { c.SetCharset(DEFAULT_CHARSET); }, "F12-:Arial"},
        {"F12-IB:-", [](CFontCmd& c) { c.SetBold(1); }, "F12-IB:-"},
        {"F12-BI:-", [](CFontCmd& c) { c.SetBold(1); }, "F12-IB:-"},
        {"F12-BIB:-", [](CFontCmd& c) { c.SetBold(1); }, "F12-IB:-"},
        {"F12-I:-", [](CFontCmd& c) { c.SetBold(0); }, "F12-I:-"},
        {"F12-Bc:-", [](CFontCmd& c) { c.SetBackColor('c', 0); }, "F12-Bc:-"},
        {"F12-cB:-", [](CFontCmd& c) { c.SetBackColor('c', 0); }, "F12-Bc:-"},
        {"F12-B:-", [](CFontCmd& c) { c.SetBackColor('c', 1); }, "F12-B:-"},
        {"F12-B:-", [](CFontCmd& c) { c.SetBackColor('Z', 0); }, "F12-BZ:-"},  // not a background: appended
        {"F12-BcS:-", [](CFontCmd& c) { c.SetBackColor('d', 0); }, "F12-BSd:-"},
        {"F12-cBc:-", [](CFontCmd& c) { c.SetBackColor('c', 0); }, "F12-Bc:-"},
        {"F12-B\xC0I:Arial", [](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, "F12-BI\xC0:Arial"},
        {"F12-BIU:-", [](CFontCmd& c) { c.SetItalic(0); }, "F12-BU:-"},
        {"F12-:-", [](CFontCmd& c) { c.SetUnderline(1); }, "F12-U:-"},
        {"F12-\xC0UB\xC0:-", [](CFontCmd& c) { c.SetCharset(DEFAULT_CHARSET); }, "F12-UB:-"},
        {"F12-:Arial", [](CFontCmd& c) { c.SetFaceName("Arial"); }, "F12-:Arial"},
        {"F12-:Arial", [](CFontCmd& c) { c.SetFaceName("Arial Black"); }, "F12-:Arial Black"},
        {"F12-:Arial Black", [](CFontCmd& c) { c.SetFaceName("Arial"); }, "F12-:Arial"},
        {"F12-:Arial", [](CFontCmd& c) { c.SetFaceName("Arial\x02x"); }, "F12-:Arial\x02x"},
        {"F12-:Arial", [](CFontCmd& c) { c.SetFaceName(nullptr); }, "F12-:-"},
        {"F12-:-", [](CFontCmd& c) { c.SetFaceName(""); }, "F12-:-"},
        // A name taken from the command's own text.
        {"F12-:Arial", [](CFontCmd& c) { c.SetFaceName(c.GetCmd().GetString() + 7); }, "F12-:rial\x02"},
        {"F12-:Arial", [](CFontCmd& c) { c.SetFaceName(c.GetCmd().GetString() + 12); }, "F12-:-"},
    };
    for (const Row& row : rows) {
        CRecordingLogSink log;
        CFontCmd cmd(Cmd(row.start));
        row.edit(cmd);
        EXPECT_EQ(Cmd(row.expected), cmd.GetCmd()) << row.start << " -> " << row.expected;
        EXPECT_TRUE(log.asserts.empty()) << row.start;
    }
}

// A text too short for a font command is reported by every step of an edit
// that looks for the face separator, and left as it is.
TEST(FontCmdEdits, ShortTextsAreReportedByEachStep)
{
    struct Row {
        void (*edit)(CFontCmd&);
        std::size_t reports;
    };
    const Row rows[] = {
        {[](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, 2},  // removing, appending
        {[](CFontCmd& c) { c.SetCharset(DEFAULT_CHARSET); }, 1},
        {[](CFontCmd& c) { c.SetBold(1); }, 2},                // looking, appending
        {[](CFontCmd& c) { c.SetBold(0); }, 1},
        {[](CFontCmd& c) { c.SetBackColor('c', 0); }, 2},
        {[](CFontCmd& c) { c.SetFaceName("Arial"); }, 1},
    };
    for (const Row& row : rows) {
        CFontCmd cmd(Cmd("F12"));
        CRecordingLogSink log;
        row.edit(cmd);
        EXPECT_EQ(Cmd("F12"), cmd.GetCmd());
        EXPECT_EQ(row.reports, log.asserts.size());
    }
}

// Edits whose steps would measure the text as too short (once the removal
// has shortened it) or only up to a NUL inside it report as each step does.
TEST(FontCmdEdits, TextsShortOnlyAfterRemovalOrCutByNulAreReportedByEachStep)
{
    struct Row {
        std::string start;
        void (*edit)(CFontCmd&);
        std::string expected;
        std::size_t reports;
    };
    const Row rows[] = {
        {"F12-BB:", [](CFontCmd& c) { c.SetBold(1); }, "F12-B:", 1},                     // appending
        {"F12-\xC0\xC0:", [](CFontCmd& c) { c.SetCharset(ANSI_CHARSET); }, "F12-\xC0:", 1},
        {"F12-BB:", [](CFontCmd& c) { c.SetBold(0); }, "F12-:", 0},
        {std::string("F12-B\0I:-", 9), [](CFontCmd& c) { c.SetItalic(0); }, std::string("F12-B\0:-", 8), 2},
        {std::string("F12-B\0:-", 8), [](CFontCmd& c) { c.SetItalic(1); }, std::string("F12-B\0I:-", 9), 2},
        // A reading reports a NUL among the first eight bytes, the last of
        // them included, and none after them.
        {std::string("F12-B\xC0\0:-", 10), [](CFontCmd& c) { EXPECT_EQ(ANSI_CHARSET, c.GetCharset()); },
         std::string("F12-B\xC0\0:-", 10), 1},
        {std::string("F12-BI\xC0\0:-", 11), [](CFontCmd& c) { EXPECT_EQ(ANSI_CHARSET, c.GetCharset()); },
         std::string("F12-BI\xC0\0:-", 11), 0},
    };
    for (const Row& row : rows) {
        const std::string start = "\x01" + row.start + "\x02";
        CFontCmd cmd(CString(start.data(), static_cast<int>(start.size())));
        CRecordingLogSink log;
        row.edit(cmd);
        EXPECT_EQ("\x01" + row.expected + "\x02", cmd.GetCmd().str()) << row.start;
        EXPECT_EQ(row.reports, log.asserts.size()) << row.start;
    }
}
