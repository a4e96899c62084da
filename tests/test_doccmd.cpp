// Markup command framing (CDocCmd), the font command, the palette and the GDI
// unit helpers they use.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "hostlibs/MFCKVUtils.h"
#include "platform/WinGdi.h"
#include "rtfconverter/DocCmd.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::CRecordingLogSink;

namespace {

// Frames a body as a markup command: 0x01 body 0x02.
CString Cmd(const std::string& body) { return CString(("\x01" + body + "\x02").c_str()); }

LOGFONT ArialBase()
{
    LOGFONT lf;
    InitDefaultScreenFont(lf, "Arial", 10, 96);
    return lf;
}

} // namespace

// ---------------------------------------------------------------------------
// Framing
// ---------------------------------------------------------------------------

TEST(DocCmdFraming, SetCmdDerivesTypeAndModeFromTheBaseRule)
{
    struct Row {
        const char* label;
        CString text;
        CDocCmd::CmdTypes type;
        CDocCmd::CmdModes mode;
    };
    const Row rows[] = {
        {"two bytes 01 02 are a valid base command", CString("\x01\x02"), CDocCmd::none, CDocCmd::single},
        {"one byte is not", CString("\x01"), CDocCmd::none, CDocCmd::undefined},
        {"empty", CString(""), CDocCmd::none, CDocCmd::undefined},
        {"no closing byte", CString("\x01" "F---:-"), CDocCmd::none, CDocCmd::undefined},
        {"unknown letter", Cmd("Xyz"), CDocCmd::none, CDocCmd::single},
        {"font", Cmd("F---:-"), CDocCmd::font, CDocCmd::single},
        {"attachment", Cmd("A07"), CDocCmd::attachment, CDocCmd::single},
        {"comment", Cmd("CH:x"), CDocCmd::comment, CDocCmd::single},
        {"layout", Cmd("LL000000"), CDocCmd::layout, CDocCmd::single},
        {"print", Cmd("P1"), CDocCmd::print, CDocCmd::single},
    };
    for (const Row& row : rows) {
        CDocCmd cmd;
        cmd.SetCmd(row.text);
        EXPECT_TRUE(cmd.IsType(row.type)) << row.label;
        CDocCmd probe;
        probe.SetMode(CDocCmd::group);
        probe = cmd; // assignment re-derives, and so leaves group mode
        EXPECT_FALSE(probe.IsGroupMode()) << row.label;
        EXPECT_EQ(cmd.IsValidCmd(), row.mode == CDocCmd::single) << row.label;
        EXPECT_TRUE(cmd == row.text) << row.label;
        EXPECT_EQ(row.text.GetLength(), cmd.GetLength()) << row.label;
    }
}

TEST(DocCmdFraming, ModeOnlyTakesTheThreeValuesAndSetCmdLeavesGroup)
{
    CDocCmd cmd;
    cmd.SetCmd(Cmd("P1"));
    cmd.SetMode(CDocCmd::group);
    EXPECT_TRUE(cmd.IsGroupMode());
    cmd.SetMode(static_cast<CDocCmd::CmdModes>(3));
    cmd.SetMode(static_cast<CDocCmd::CmdModes>(-1));
    EXPECT_TRUE(cmd.IsGroupMode());
    cmd.SetCmd(Cmd("P0"));
    EXPECT_FALSE(cmd.IsGroupMode());
}

TEST(DocCmdFraming, EqualityComparesTextsOnly)
{
    CDocCmd a, b;
    a.SetCmd(Cmd("F---:-"));
    CFontCmd defaulted; // same text, but kind none
    EXPECT_TRUE(a == defaulted);
    EXPECT_FALSE(a != defaulted);
    EXPECT_FALSE(defaulted.IsType(CDocCmd::font));
    b.SetCmd(Cmd("F---:a"));
    EXPECT_TRUE(a != b);
    EXPECT_FALSE(a == "\x01" "f---:-" "\x02"); // case-sensitive
}

TEST(DocCmdFraming, TextOfAnInvalidCommandIsReportedAndStillReturned)
{
    CRecordingLogSink log;
    CDocCmd cmd;
    cmd.SetCmd("abc");
    const char* text = cmd;
    EXPECT_STREQ("abc", text);
    ASSERT_EQ(1u, log.asserts.size());
    EXPECT_EQ("IsValidCmd()@DocCmd", log.AssertTexts()[0]);
}

// ---------------------------------------------------------------------------
// Font command
// ---------------------------------------------------------------------------

TEST(FontCmd, Validity)
{
    struct Row {
        const char* body;
        bool valid;
    };
    const Row rows[] = {
        {"F---:-", true},
        {"F12JBIUXSsp\xCA:Arial", true},
        {"F5-A:-", true},  // index 3 of the size is never examined
        {"F5xA:-", true},
        {"F-5A:-", false},
        {"Fx5A:-", false},
        {"F12Q:-", false}, // colour beyond P
        {"F12Y:-", true},
        {"F12Z:-", true},
        {"F12AQ:-", false}, // attribute Q
        {"F12Aq:-", false}, // background beyond p
        {"F12A\xD3:-", false},
        {"F12A-", false},  // no colon
        {"F12A:", false},  // too short
        {"G---:-", false},
        {"F12A:Arial:Bold", true},
    };
    for (const Row& row : rows) {
        CFontCmd cmd(Cmd(row.body));
        EXPECT_EQ(row.valid, cmd.IsValidCmd()) << row.body;
        EXPECT_EQ(row.valid, cmd.IsType(CDocCmd::font)) << row.body;
    }
}

TEST(FontCmd, DefaultCommandReadsTheBaseFont)
{
    const LOGFONT base = ArialBase();
    CFontCmd cmd;
    EXPECT_FALSE(cmd.IsType(CDocCmd::font));
    EXPECT_TRUE(CFontCmd::s_defaultCmd.IsType(CDocCmd::font));
    EXPECT_TRUE(cmd == CFontCmd::s_defaultCmd);
    EXPECT_EQ(10, cmd.GetPoints(base));
    EXPECT_TRUE(cmd.IsDefaultColor());
    EXPECT_TRUE(cmd.IsDefaultBackColor());
    EXPECT_FALSE(cmd.IsBold() || cmd.IsItalic() || cmd.IsUnderline() || cmd.IsStrikeout() || cmd.IsSuperscript() || cmd.IsSubscript());
    EXPECT_EQ(DEFAULT_CHARSET, cmd.GetCharset());
    CString face;
    EXPECT_STREQ("Arial", cmd.GetFaceName(face, base));
}

TEST(FontCmd, FlagSetAgainMovesToTheEnd)
{
    CFontCmd cmd(Cmd("F12J:Arial"));
    cmd.SetBold(1);
    cmd.SetItalic(1);
    cmd.SetBackColor('p', 0);
    EXPECT_TRUE(cmd == Cmd("F12JBIp:Arial"));
    cmd.SetBold(1);
    EXPECT_TRUE(cmd == Cmd("F12JIpB:Arial"));
    cmd.SetBackColor('c', 0);
    cmd.SetItalic(0);
    EXPECT_TRUE(cmd == Cmd("F12JBc:Arial"));
    EXPECT_EQ('c', cmd.GetBackColor());
    cmd.SetBackColor('d', 1);
    EXPECT_TRUE(cmd == Cmd("F12JB:Arial"));

    CFontCmd doubled(Cmd("F12JBUB:-"));
    doubled.SetBold(0); // every occurrence goes
    EXPECT_TRUE(doubled == Cmd("F12JU:-"));
}

TEST(FontCmd, PointsAndColourEdits)
{
    struct Row {
        int points, bDefault;
        const char* expected;
    };
    const Row rows[] = {{105, 0, "F05-:-"}, {7, 0, "F07-:-"}, {99, 0, "F99-:-"}, {12, 1, "F---:-"}};
    for (const Row& row : rows) {
        CFontCmd cmd;
        cmd.SetPoints(row.points, row.bDefault);
        EXPECT_TRUE(cmd == Cmd(row.expected)) << row.points;
    }
    const LOGFONT base = ArialBase();
    EXPECT_EQ(5, CFontCmd(Cmd("F5-A:-")).GetPoints(base));

    const struct {
        char letter;
        int bDefault;
        char stored;
    } colours[] = {{'a', 0, 'P'}, {'0', 0, 'A'}, {'Y', 0, 'Y'}, {'Z', 0, 'Z'}, {'J', 0, 'J'}, {'J', 1, '-'}, {'\xC0', 0, 'A'}};
    for (const auto& c : colours) {
        CFontCmd cmd;
        cmd.SetColor(c.letter, c.bDefault);
        EXPECT_EQ(c.stored, cmd.GetColor()) << c.letter;
    }
}

TEST(FontCmd, CharsetCodes)
{
    const LOGFONT base = ArialBase();
    CFontCmd cmd(Cmd("F10A\xC6:-"));
    EXPECT_EQ(GREEK_CHARSET, cmd.GetCharset());
    cmd.SetCharset(RUSSIAN_CHARSET);
    EXPECT_TRUE(cmd == Cmd("F10A\xCA:-"));
    cmd.SetCharset(THAI_CHARSET);
    EXPECT_TRUE(cmd == Cmd("F10A\xD2:-"));
    cmd.SetCharset(ANSI_CHARSET);
    EXPECT_TRUE(cmd == Cmd("F10A\xC0:-"));
    cmd.SetCharset(DEFAULT_CHARSET);
    EXPECT_TRUE(cmd == Cmd("F10A:-"));
    cmd.SetCharset(42); // unknown: written as the default
    EXPECT_TRUE(cmd == Cmd("F10A:-"));

    // Every character set of the table reads back as itself.
    const int charsets[] = {0, 186, 136, 238, 134, 161, 129, 77, 255, 204, 128, 2, 162, 163, 130, 178, 177, 222};
    for (int cs : charsets) {
        cmd.SetCharset(cs);
        EXPECT_EQ(cs, cmd.GetCharset()) << cs;
    }

    LOGFONT base2 = base;
    base2.lfCharSet = HEBREW_CHARSET;
    LOGFONT out;
    CFontCmd(Cmd("F10A:-")).GetLogFont(out, base2);
    EXPECT_EQ(HEBREW_CHARSET, out.lfCharSet);
    CFontCmd(Cmd("F10A\xC3:-")).GetLogFont(out, base2); // code of DEFAULT_CHARSET
    EXPECT_EQ(HEBREW_CHARSET, out.lfCharSet);
}

TEST(FontCmd, FaceNames)
{
    const LOGFONT base = ArialBase();
    CString face;
    const std::string name32(32, 'n'), name33(33, 'n');
    EXPECT_STREQ(name32.c_str(), CFontCmd(Cmd("F10A:" + name32)).GetFaceName(face, base));
    EXPECT_STREQ("", CFontCmd(Cmd("F10A:" + name33)).GetFaceName(face, base));

    CFontCmd cmd(Cmd("F10A:Arial"));
    cmd.SetFaceName("");
    EXPECT_TRUE(cmd == Cmd("F10A:-"));
    cmd.SetFaceName("Courier New");
    EXPECT_TRUE(cmd == Cmd("F10A:Courier New"));
    cmd.SetFaceName(nullptr);
    EXPECT_TRUE(cmd == Cmd("F10A:-"));

    LOGFONT out;
    CFontCmd(Cmd("F10A:" + name32)).GetLogFont(out, base); // bounded copy
    EXPECT_EQ(std::string(31, 'n'), out.lfFaceName);
}

TEST(FontCmd, LogFontRoundTrip)
{
    LOGFONT base;
    InitDefaultScreenFont(base, "Times New Roman", 10, 96);
    CFontCmd cmd(Cmd("F12JBIUXSsc\xCA:Arial"));
    LOGFONT out;
    EXPECT_EQ(12, cmd.GetLogFont(out, base));
    EXPECT_EQ(Pts2PixY(12), out.lfHeight);
    EXPECT_EQ(FW_BOLD, out.lfWeight);
    EXPECT_EQ(1, out.lfItalic);
    EXPECT_EQ(1, out.lfUnderline);
    EXPECT_EQ(1, out.lfStrikeOut);
    EXPECT_EQ(RUSSIAN_CHARSET, out.lfCharSet);
    EXPECT_EQ(base.lfPitchAndFamily, out.lfPitchAndFamily);
    EXPECT_STREQ("Arial", out.lfFaceName);
    EXPECT_EQ(0, out.lfWidth);

    // Rebuild a command from the record and read it back: same record.
    CFontCmd rebuilt;
    rebuilt.SetPoints(PixY2Pts(out.lfHeight), 0);
    rebuilt.SetBold(out.lfWeight >= FW_BOLD);
    rebuilt.SetItalic(out.lfItalic);
    rebuilt.SetUnderline(out.lfUnderline);
    rebuilt.SetStrikeout(out.lfStrikeOut);
    rebuilt.SetCharset(out.lfCharSet);
    rebuilt.SetFaceName(out.lfFaceName);
    LOGFONT again;
    EXPECT_EQ(12, rebuilt.GetLogFont(again, base));
    EXPECT_EQ(0, std::memcmp(&out, &again, sizeof out));

    // Every size survives points -> height -> points.
    for (int pt = 1; pt <= 99; ++pt) EXPECT_EQ(pt, PixY2Pts(Pts2PixY(pt))) << pt;
    EXPECT_EQ(-13, Pts2PixY(10));
    EXPECT_EQ(10, PixY2Pts(13));
}

TEST(FontCmd, SetDefaultResetsTheMaskedParts)
{
    CFontCmd cmd(Cmd("F12JBIUXSsc\xCA:Arial"));
    cmd.SetDefault(static_cast<FontCmdMasks>(fcmPoints | fcmBold | fcmBackColor | fcmCharset));
    EXPECT_TRUE(cmd == Cmd("F--JIUXSs:Arial"));
    cmd.SetDefault(static_cast<FontCmdMasks>(fcmColor | fcmFaceName | fcmItalic | fcmUnderline | fcmStrikeout | fcmSuperscript | fcmSubscript));
    EXPECT_TRUE(cmd == Cmd("F---:-"));

    CRecordingLogSink log;
    CFontCmd broken(CString("junk"));
    broken.SetDefault(fcmBold);
    EXPECT_TRUE(broken == CFontCmd::s_defaultCmd);
    EXPECT_EQ(std::vector<std::string>{"IsValidCmd()@DocCmd"}, log.AssertTexts());
    CFontCmd all(CString("junk"));
    all.SetDefault(fcmAll); // no report for the whole reset
    EXPECT_TRUE(all == CFontCmd::s_defaultCmd);
    EXPECT_EQ(1u, log.asserts.size());
}

TEST(FontCmd, AssignmentCopiesVerbatimAndReportsAnInvalidSource)
{
    CRecordingLogSink log;
    CFontCmd source; // kind none, mode single
    CFontCmd target(Cmd("F12A:-"));
    target = source;
    EXPECT_FALSE(target.IsType(CDocCmd::font)); // not re-derived
    EXPECT_TRUE(log.asserts.empty());
    CFontCmd invalid(CString("\x01" "F"));
    target = invalid;
    EXPECT_EQ(std::vector<std::string>{"rCmd.IsValidCmd()@DocCmd"}, log.AssertTexts());
    EXPECT_TRUE(target == "\x01" "F");
}

TEST(FontCmd, ShortTextsAreReportedNotOverrun)
{
    CRecordingLogSink log;
    CFontCmd cmd(CString("\x01" "F1"));
    const LOGFONT base = ArialBase();
    EXPECT_FALSE(cmd.IsBold());
    EXPECT_EQ('\0', cmd.GetColor());
    cmd.SetBold(1);
    cmd.SetPoints(12, 0);
    cmd.SetFaceName("Arial");
    LOGFONT out;
    cmd.GetLogFont(out, base);
    EXPECT_TRUE(cmd == "\x01" "F1");
    ASSERT_FALSE(log.asserts.empty());
    EXPECT_EQ("lstrlen(pFontCmd) >= iFntCmdLenMin@DocCmd", log.AssertTexts()[0]);
}

// ---------------------------------------------------------------------------
// Palette and scheme
// ---------------------------------------------------------------------------

TEST(Palette, LettersToColours)
{
    EXPECT_EQ(0x0000FFu, ColorCharToRGB('J'));
    EXPECT_EQ(0x0000FFu, ColorCharToRGB('j')); // upper-cased
    EXPECT_EQ(0u, ColorCharToRGB('-'));
    EXPECT_EQ(0u, ColorCharToRGB('Q'));
    EXPECT_EQ(GetPaletteColor(9), ColorCharToRGB('Y'));  // markup inserted: Red
    EXPECT_EQ(GetPaletteColor(8), ColorCharToRGB('Z'));  // markup deleted: Silver
    EXPECT_EQ(0xFFFFFFu, BackColorCharToRGB('p'));
    EXPECT_EQ(0u, BackColorCharToRGB('P'));
    EXPECT_EQ(0u, BackColorCharToRGB('\0'));
    EXPECT_STREQ("Fuchsia", GetPaletteColorName(13));
    EXPECT_STREQ("", GetPaletteColorName(16));

    int rows = 0;
    const ColorSchemeEntry* scheme = GetColorScheme(rows);
    ASSERT_EQ(31, rows);
    EXPECT_STREQ("Calendar Hot Button", scheme[23].name);
    EXPECT_EQ(0, scheme[23].flag);
    EXPECT_EQ(GetSysColor(COLOR_WINDOWTEXT), GetColorSchemeColor("Hypertext Links"));
}

TEST(Palette, FindNearestColorKeepsTheLowerIndexOnTies)
{
    struct Row {
        int r, g, b, index;
    };
    const Row rows[] = {
        {200, 200, 200, 8}, {128, 128, 128, 7}, {0, 0, 0, 0}, {255, 255, 255, 15},
        {0, 0, 255, 12},    // blue
        {255, 0, 0, 9},     // red
        {64, 0, 0, 0},      // Black and Maroon both 64 away: the lower index wins
        {96, 96, 96, 7},    // Gray 96 vs Black 288
        {192, 0, 0, 9},     // Red 63 vs Maroon 64
        {-50, -50, -50, 0}, // out-of-range inputs still give an index
    };
    for (const Row& row : rows) EXPECT_EQ(row.index, FindNearestColor(row.r, row.g, row.b)) << row.r << "," << row.g << "," << row.b;
}

TEST(Platform, SystemColoursCanBeReplaced)
{
    EXPECT_EQ(0x000000u, GetSysColor(COLOR_WINDOWTEXT));
    EXPECT_EQ(0xD77800u, GetSysColor(COLOR_HIGHLIGHT));
    const int index = COLOR_WINDOWTEXT;
    const COLORREF teal = RGB(0, 128, 128);
    EXPECT_TRUE(SetSysColors(1, &index, &teal));
    EXPECT_EQ(teal, GetSysColor(COLOR_WINDOWTEXT));
    EXPECT_EQ(teal, GetColorSchemeColor("Hypertext Links"));
    ResetSysColors();
    EXPECT_EQ(0u, GetSysColor(COLOR_WINDOWTEXT));
    EXPECT_EQ(0u, GetSysColor(99));

    SetScreenLogPixelsY(120);
    EXPECT_EQ(-25, Pts2PixY(15));
    EXPECT_EQ(15, PixY2Pts(-25));
    SetScreenLogPixelsY(0);
    CDC dc;
    dc.Attach(GetDC(nullptr));
    EXPECT_EQ(96, dc.GetDeviceCaps(LOGPIXELSY));
    ReleaseDC(nullptr, dc.Detach());

    LOGFONT lf;
    InitDefaultScreenFont(lf, "Arial", 10, 96);
    EXPECT_EQ(-13, lf.lfHeight);
    EXPECT_EQ(0x22, lf.lfPitchAndFamily);
    InitDefaultScreenFont(lf, "Nowhere Sans", 10, 96);
    EXPECT_EQ(0, lf.lfPitchAndFamily);
    EXPECT_EQ(1994u, Str2DWORD("1994x"));
    EXPECT_EQ(0u, Str2DWORD(""));
}
