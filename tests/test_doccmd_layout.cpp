// The layout command: margins, first-line indent, justification and tab stops.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rtfconverter/DocCmd.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::CRecordingLogSink;

namespace {

CString Cmd(const std::string& body) { return CString(("\x01" + body + "\x02").c_str()); }

TabDescription Tab(double position, char leader)
{
    TabDescription tab;
    tab.m_position = position;
    tab.m_leader = leader;
    return tab;
}

} // namespace

TEST(LayoutCmd, Validity)
{
    struct Row {
        std::string body;
        bool valid;
    };
    const Row rows[] = {
        {"LL000000", true},
        {"LC123456", true},
        {"LR999999", true},
        {"LX000000", false},
        {"LL00a000", false},
        {"LL00000", false},            // too short
        {"LL000000150.", true},        // one tab at 1.50 with dots
        {"LL00000015", false},         // incomplete tab group
        {"LL0000001x0.", false},       // tab position not digits
        {"LL000000150\x01", true},     // the leader byte is not checked
        {"LL000000+050", true},
        {"LL000000-999", true},
        {"LL000000+05", false},
        {"LL000000+0a0", false},
        {"LL000000+050150.300_", true},
        {"LL000000+050150.3", false},
        {std::string("LL000000\x02x", 10), false}, // closing byte at 9 but longer
        {"FL000000", false},
    };
    for (const Row& row : rows) {
        CLayoutCmd cmd(Cmd(row.body));
        EXPECT_EQ(row.valid, cmd.IsValidCmd()) << row.body;
        EXPECT_EQ(row.valid, cmd.IsType(CDocCmd::layout)) << row.body;
    }
}

TEST(LayoutCmd, DefaultCommand)
{
    CRecordingLogSink log;
    CLayoutCmd cmd;
    EXPECT_TRUE(cmd == CLayoutCmd::DefaultCmd);
    EXPECT_TRUE(cmd.IsType(CDocCmd::layout));
    EXPECT_TRUE(cmd.IsLeft());
    EXPECT_EQ(0.0, cmd.GetLeftMargin());
    EXPECT_EQ(0.0, cmd.GetRightMargin());
    CString indent;
    cmd.GetFirstLineIndent(indent);
    EXPECT_STREQ("0.00", indent);
    CTabArray tabs;
    TabDescription stale = Tab(1.0, ' ');
    tabs.Add(stale); // GetTabs resizes the array
    EXPECT_EQ(0, cmd.GetTabs(tabs));
    EXPECT_EQ(0, tabs.GetSize());
    EXPECT_TRUE(log.asserts.empty());
}

TEST(LayoutCmd, MarginsAreClampedRoundedAndStoredAsDigits)
{
    CLayoutCmd cmd;
    cmd.SetLeftMargin(12.0);
    cmd.SetRightMargin(1.256);
    EXPECT_TRUE(cmd == Cmd("LL999126"));
    cmd.SetLeftMargin(-1.0);
    EXPECT_TRUE(cmd == Cmd("LL000126"));
    EXPECT_DOUBLE_EQ(1.26, cmd.GetRightMargin());
    CString text;
    cmd.GetRightMargin(text);
    EXPECT_STREQ("1.26", text);

    cmd.SetLeftMargin("12.5"); // the point is ignored: 1.25
    EXPECT_TRUE(cmd == Cmd("LL125126"));
    cmd.SetRightMargin("7");   // fewer digits keep the rest
    EXPECT_TRUE(cmd == Cmd("LL125726"));

    CRecordingLogSink log;
    CLayoutCmd layout(Cmd("LL123456"));
    layout.SetLeftMargin("1x5");
    EXPECT_TRUE(layout == Cmd("LL153456"));
    EXPECT_EQ(std::vector<std::string>{"false@DocCmd"}, log.AssertTexts());

    layout.Center();
    EXPECT_TRUE(layout.IsCenter());
    layout.Right();
    EXPECT_TRUE(layout.IsRight() && !layout.IsLeft());
}

TEST(LayoutCmd, FirstLineIndentField)
{
    CLayoutCmd cmd;
    cmd.SetFirstLineIndent(-0.5);
    EXPECT_TRUE(cmd == Cmd("LL000000-050"));
    CString text;
    cmd.GetFirstLineIndent(text);
    EXPECT_STREQ("-0.50", text);
    EXPECT_DOUBLE_EQ(-0.5, cmd.GetFirstLineIndent());
    cmd.SetFirstLineIndent(1.25); // overwritten in place
    EXPECT_TRUE(cmd == Cmd("LL000000+125"));
    cmd.GetFirstLineIndent(text);
    EXPECT_STREQ("1.25", text); // no plus sign
    cmd.SetFirstLineIndent(0.0);
    EXPECT_TRUE(cmd == Cmd("LL000000"));
    cmd.SetFirstLineIndent(-20.0);
    EXPECT_TRUE(cmd == Cmd("LL000000-999"));
    cmd.SetFirstLineIndent("-0.00"); // zero never keeps a sign
    EXPECT_TRUE(cmd == Cmd("LL000000"));

    // The indent goes in front of existing tab stops and leaves them alone.
    CLayoutCmd tabbed(Cmd("LL000000150."));
    tabbed.SetFirstLineIndent("0.75");
    EXPECT_TRUE(tabbed == Cmd("LL000000+075150."));
    tabbed.SetFirstLineIndent("0");
    EXPECT_TRUE(tabbed == Cmd("LL000000150."));

    CRecordingLogSink log;
    CLayoutCmd signs;
    signs.SetFirstLineIndent("1-2x3");
    EXPECT_TRUE(signs == Cmd("LL000000+123"));
    EXPECT_EQ((std::vector<std::string>{"FALSE@DocCmd", "false@DocCmd"}), log.AssertTexts());
}

TEST(LayoutCmd, TabStops)
{
    CLayoutCmd cmd(Cmd("LC100050+025150.300_"));
    CTabArray tabs;
    ASSERT_EQ(2, cmd.GetTabs(tabs));
    EXPECT_DOUBLE_EQ(1.5, tabs[0].m_position);
    EXPECT_EQ('.', tabs[0].m_leader);
    EXPECT_DOUBLE_EQ(3.0, tabs[1].m_position);
    EXPECT_EQ('_', tabs[1].m_leader);
    EXPECT_THROW(tabs[2], CInvalidArgException);

    // Replaced in array order, unsorted; the indent field stays.
    CTabArray replacement;
    TabDescription t1 = Tab(4.0, '-'), t2 = Tab(1.15, ' '), t3 = Tab(4.0, '-');
    replacement.Add(t1);
    replacement.Add(t2);
    replacement.Add(t3);
    cmd.SetTabs(replacement);
    // 1.15 * 100 is 114.999..., truncated to 114.
    EXPECT_TRUE(cmd == Cmd("LC100050+025400-114 400-"));

    CRecordingLogSink log;
    CLayoutCmd plain;
    CTabArray ranged;
    TabDescription zero = Tab(0.0, ' '), mid = Tab(1.5, '.'), ten = Tab(10.0, ' ');
    ranged.Add(zero);
    ranged.Add(mid);
    ranged.Add(ten);
    plain.SetTabs(ranged);
    EXPECT_TRUE(plain == Cmd("LL000000150."));
    const std::string report = "tabs[i].m_position > 0.0 && tabs[i].m_position < 10.0@DocCmd";
    EXPECT_EQ((std::vector<std::string>{report, report}), log.AssertTexts());

    plain.SetTabs(CTabArray());
    EXPECT_TRUE(plain == CLayoutCmd::DefaultCmd);
}

TEST(LayoutCmd, AssignmentAndReports)
{
    CRecordingLogSink log;
    CLayoutCmd invalid(Cmd("LL00000015"));
    CLayoutCmd copy;
    copy = invalid; // verbatim, no check
    EXPECT_FALSE(copy.IsType(CDocCmd::layout));
    EXPECT_TRUE(log.asserts.empty());
    copy = CString(Cmd("LR000000"));
    EXPECT_TRUE(copy.IsType(CDocCmd::layout));

    CTabArray tabs;
    EXPECT_EQ(0, invalid.GetTabs(tabs));
    EXPECT_EQ(std::vector<std::string>{"IsValidCmd()@DocCmd"}, log.AssertTexts());

    // Editing a text far too short for its fields stays inside it.
    CLayoutCmd stub(CString("\x01" "L"));
    stub.SetLeftMargin(1.0);
    stub.SetFirstLineIndent(0.5);
    stub.SetTabs(tabs);
    stub.GetTabs(tabs);
    EXPECT_EQ(0, tabs.GetSize());
}
