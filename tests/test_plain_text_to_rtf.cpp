// Plain text to RTF.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "rtfconverter/PlainTextToRTF.h"

using rtf_converter::CPlainTextToRTF;

namespace {

LOGFONT Font(const char* face, LONG height, BYTE charset, BYTE pitchAndFamily)
{
    LOGFONT lf{};
    lf.lfHeight = height;
    lf.lfCharSet = charset;
    lf.lfPitchAndFamily = pitchAndFamily;
    std::strncpy(lf.lfFaceName, face, LF_FACESIZE - 1);
    return lf;
}

std::string Export(const std::string& text, const LOGFONT* pFont)
{
    CPlainTextToRTF writer;
    writer.Convert(text.c_str(), pFont);
    CString doc = writer.Export();
    return std::string(doc.GetString(), static_cast<std::size_t>(doc.GetLength()));
}

const char* const kArialFront =
    "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}}{\\colortbl;\\red0\\green0\\blue0;}"
    "\\pard\\f0\\fs20\\cf0 ";

} // namespace

TEST(PlainTextToRTF, DocumentOfTheExample)
{
    LOGFONT lf = Font("Arial", -13, 0, VARIABLE_PITCH | FF_SWISS);
    EXPECT_EQ(Export("a{b}\tc\r\nd", &lf),
              "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}}"
              "{\\colortbl;\\red0\\green0\\blue0;}\\pard\\f0\\fs20\\cf0 a\\{b\\}\\tab c\\par \\line d\\par }");
    // Without a font: Arial 10 at the screen's resolution.
    EXPECT_EQ(Export("", nullptr), std::string(kArialFront) + "\\par }");
}

TEST(PlainTextToRTF, Bodies)
{
    struct Row {
        const char* name;
        std::string text, body;
    } rows[] = {
        {"empty", "", "\\par }"},
        {"trailing CR", "x\r", "x\\par }"},
        {"trailing CR LF", "x\r\n", "x\\par \\line \\par }"},
        {"specials", "\\{}", "\\\\\\{\\}\\par }"},
        {"0x17 vanishes", "a\x17" "b", "ab\\par }"},
        {"0x17 is not the last byte seen", "a\r\x17", "a\\par }"},
        {"high byte stays", "\xE9", "\xE9\\par }"},
        {"other control bytes copied", "\x01\x02\x03", "\x01\x02\x03\\par }"},
        {"brace after CR", "\r}", "\\par \\}\\par }"},
    };
    LOGFONT lf = Font("Arial", -13, 0, VARIABLE_PITCH | FF_SWISS);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(Export(r.text, &lf), kArialFront + r.body);
    }
}

TEST(PlainTextToRTF, FontTableFamiliesAndReconversion)
{
    struct Row {
        BYTE pitchAndFamily;
        const char* word;
    } rows[] = {
        {0x00, "fnil"}, {0x11, "froman"}, {0x22, "fswiss"}, {0x31, "fmodern"},
        {0x40, "fscript"}, {0x50, "fdecor"}, {0x60, "fnil"}, {0xF2, "fnil"},
    };
    for (const Row& r : rows) {
        LOGFONT lf = Font("Face", -16, 204, r.pitchAndFamily);
        EXPECT_EQ(Export("", &lf), std::string("{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset204\\") + r.word +
                                       " Face;}}{\\colortbl;\\red0\\green0\\blue0;}\\pard\\f0\\fs24\\cf0 \\par }");
    }

    // A second Convert replaces body and font; Export repeats itself.
    CPlainTextToRTF writer;
    LOGFONT first = Font("First", -13, 0, 0);
    LOGFONT second = Font("Second", -13, 0, 0);
    writer.Convert("one", &first);
    writer.Convert("two", &second);
    CString doc = writer.Export();
    EXPECT_EQ(writer.Export(), doc);
    EXPECT_NE(std::string(doc).find("Second;}"), std::string::npos);
    EXPECT_EQ(std::string(doc).find("one"), std::string::npos);
    CPlainTextToRTF copy(writer);
    EXPECT_EQ(copy.Export(), doc);
}
