// Comment commands (references, hyperlinks, table tags), numbering commands,
// print and attachment commands.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "rtfconverter/DocCmd.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::CRecordingLogSink;

namespace {

CString Cmd(const std::string& body) { return CString(("\x01" + body + "\x02").c_str()); }

using Reports = std::vector<std::string>;

} // namespace

// ---------------------------------------------------------------------------
// Comment command
// ---------------------------------------------------------------------------

TEST(CommentCmd, ValidityAndConstructionPaths)
{
    struct Row {
        const char* body;
        bool valid;
    };
    const Row rows[] = {
        {"CH:abc", true}, {"XH:abc", true}, // index 1 is not examined
        {"CR:", true},    {"CN:", true},     {"CT:EndRow", true},
        {"C?:", false},   {"CH-abc", false}, {"CH", false},
    };
    for (const Row& row : rows) {
        CCommentCmd cmd(Cmd(row.body).GetString(), -1);
        EXPECT_EQ(row.valid, cmd.IsValidCmd()) << row.body;
    }

    CRecordingLogSink log;
    CCommentCmd fromString(Cmd("CH:abc"));
    EXPECT_FALSE(fromString.IsType(CDocCmd::comment)); // assigned without SetCmd
    CCommentCmd copied(fromString);
    EXPECT_TRUE(copied.IsType(CDocCmd::comment));
    CCommentCmd assigned;
    assigned = fromString;
    EXPECT_TRUE(assigned.IsType(CDocCmd::comment));
    CCommentCmd bySubtype(ot_Table);
    EXPECT_TRUE(bySubtype == Cmd("CT:"));
    EXPECT_TRUE(bySubtype.IsValidCmd());
    EXPECT_FALSE(bySubtype.IsType(CDocCmd::comment)); // inherits none from the default text
    EXPECT_TRUE(log.asserts.empty());

    CCommentCmd defaulted;
    EXPECT_TRUE(defaulted == CCommentCmd::DefaultCmd);
    EXPECT_FALSE(defaulted.IsValidCmd());
    defaulted.SetType(ot_Reference);
    EXPECT_EQ('R', defaulted.GetType());
    EXPECT_TRUE(log.asserts.empty());
}

TEST(CommentCmd, PointerConstructorTakesUpToTheEndByte)
{
    CRecordingLogSink log;
    const char text[] = "\x01" "CH:a" "\x02" "tail";
    EXPECT_TRUE(CCommentCmd(text, -1) == Cmd("CH:a"));
    EXPECT_TRUE(log.asserts.empty());

    CCommentCmd cut(text, 3);
    EXPECT_TRUE(cut == "\x01" "CH");
    EXPECT_EQ((Reports{"end == ptr[-1]@DocCmd", "IsValidCmd()@DocCmd"}), log.AssertTexts());

    log.asserts.clear();
    CCommentCmd none(nullptr, 0);
    EXPECT_EQ(0, none.GetLength());
    EXPECT_EQ((Reports{"NULL != lpsz && len@DocCmd", "IsValidCmd()@DocCmd"}), log.AssertTexts());

    log.asserts.clear();
    CCommentCmd unterminated("\x01" "CH:abc", -1); // to the end of the string
    EXPECT_TRUE(unterminated == "\x01" "CH:abc");
    EXPECT_EQ((Reports{"end == ptr[-1]@DocCmd", "IsValidCmd()@DocCmd"}), log.AssertTexts());
}

TEST(CommentCmd, DataFields)
{
    CCommentCmd link(ot_Hyperlink);
    link.SetData("Home", 0);
    link.SetData("xx://a/b", 1);
    EXPECT_TRUE(link == Cmd("CH:Home\x03xx://a/b"));
    EXPECT_STREQ("xx://a/b", link.GetData(1));

    CCommentCmd tag(Cmd("CT:"));
    tag.SetData("x", 3);
    EXPECT_TRUE(tag == Cmd("CT:\x03\x03\x03x"));
    EXPECT_STREQ("", tag.GetData(1));
    EXPECT_STREQ("x", tag.GetData(3));
    EXPECT_STREQ("", tag.GetData(5));
    tag.SetData("middle", 2); // an existing field is replaced in place
    tag.SetData("", 3);
    EXPECT_TRUE(tag == Cmd("CT:\x03\x03middle\x03"));
    tag.SetData("EndCell", 0);
    EXPECT_STREQ("EndCell", tag.GetData(0));
    EXPECT_TRUE(tag == Cmd("CT:EndCell\x03\x03middle\x03"));

    CRecordingLogSink log;
    EXPECT_STREQ("", tag.GetData(-1));
    tag.SetData("y", -2);
    EXPECT_TRUE(tag == Cmd("CT:EndCell\x03\x03middle\x03"));
    EXPECT_EQ((Reports{"n >= 0@DocCmd", "n >= 0@DocCmd"}), log.AssertTexts());

    // A text without its closing byte: fields are still found inside it.
    log.asserts.clear();
    CCommentCmd open(CString("\x01" "CH:a"));
    EXPECT_STREQ("a", open.GetData(0));
    EXPECT_STREQ("", open.GetData(1));
    open.SetData("b", 2);
    EXPECT_TRUE(open == "\x01" "CH:a\x03\x03" "b");
}

TEST(CommentCmd, Descriptions)
{
    struct Row {
        char subtype;
        const char* text;
        const char* target;
        int bDetailed;
        const char* expected;
    };
    const Row rows[] = {
        {'H', "Home", "xx://a/b", 1, "Home (xx://a/b)"},
        {'H', "a/b", "xx://a/b", 1, "a/b"},       // the protocol does not count
        {'H', "http://a/b", "xx://a/b", 1, "http://a/b"},
        {'H', "Home", "xx://a/b", 0, "Home"},
        {'R', "Intro", "doc:Intro", 1, "Intro"},
        {'R', "Chapter", "doc:Intro", 1, "Chapter [doc:Intro]"},
        {'R', "Intro", "Intro", 1, "Intro"},
        {'R', "intro", "Intro", 1, "intro [Intro]"}, // case-sensitive
        {'R', "Chapter", "", 1, "Chapter"},
        {'R', "Chapter", "doc:Intro", 0, "Chapter"},
        {'T', "StartRow", "x", 1, "StartRow"},
    };
    for (const Row& row : rows) {
        CCommentCmd cmd(Cmd(std::string("C") + row.subtype + ":"));
        cmd.SetData(row.text, 0);
        if (*row.target) cmd.SetData(row.target, 1);
        EXPECT_STREQ(row.expected, cmd.GetDescription(row.bDetailed)) << row.text << " / " << row.target;
    }
    EXPECT_STREQ("note:abc", CCommentCmd::RemoveProtocol("note:abc"));
    EXPECT_STREQ("a://b", CCommentCmd::RemoveProtocol("http://a://b"));
}

// ---------------------------------------------------------------------------
// Numbering command
// ---------------------------------------------------------------------------

TEST(NumberCmd, DefaultTextAndTypeLetters)
{
    CNumberCmd cmd;
    EXPECT_TRUE(cmd == Cmd("CN:\x03\x03\x03"));
    EXPECT_TRUE(cmd.IsType(CDocCmd::comment));
    EXPECT_DOUBLE_EQ(0.25, cmd.GetTabWidth());

    cmd.SetNumType(nt_LowerLetterBoth);
    cmd.SetNumber(28, 0);
    EXPECT_TRUE(cmd == Cmd("CN:(bb)\x03\x03" "F\x03\x03\x03\x03\x03\x03" "28"));

    struct Row {
        int type;
        int readBack;
        const char* letter;
        const char* font;
    };
    const Row rows[] = {
        {nt_None, nt_None, "", ""},        {nt_Decimal, nt_Decimal, "A", ""},
        {15, 15, "O", ""},                 {16, nt_None, "`", "Symbol"}, // 16 does not read back
        {nt_Bullet1, nt_Bullet1, "a", "Symbol"}, {nt_Bullet2, nt_Bullet2, "b", "WingDings"},
        {nt_Bullet7, nt_Bullet7, "g", "WingDings"}, {nt_Last, nt_Last, "h", "Symbol"},
    };
    for (const Row& row : rows) {
        cmd.SetNumType(row.type);
        EXPECT_EQ(row.readBack, cmd.GetNumType()) << row.type;
        EXPECT_STREQ(row.letter, cmd.GetData(CNumberCmd::fldType)) << row.type;
        EXPECT_STREQ(row.font, cmd.GetData(CNumberCmd::fldBulletFont)) << row.type;
    }

    CRecordingLogSink log;
    cmd.SetNumType(25);
    EXPECT_EQ(nt_Last, cmd.GetNumType());
    EXPECT_EQ(Reports{"nType >= nt_None && nType <= nt_Last@DocCmd"}, log.AssertTexts());
}

TEST(NumberCmd, NumberTexts)
{
    struct Row {
        int type, number;
        const char* text;
    };
    const Row rows[] = {
        {nt_Decimal, 12, "12."},          {nt_DecimalParen, 12, "12)"},   {nt_DecimalBoth, 3, "(3)"},
        {nt_Decimal, 0, "0."},
        {nt_UpperLetter, 1, "A."},        {nt_UpperLetter, 26, "Z."},     {nt_UpperLetter, 27, "AA."},
        {nt_UpperLetter, 53, "AAA."},     {nt_UpperLetter, 260, "ZZZZZZZZZZ."}, {nt_UpperLetter, 261, "*."},
        {nt_LowerLetterParen, 2, "b)"},   {nt_LowerLetterBoth, 28, "(bb)"},
        {nt_UpperRoman, 1994, "MCMXCIV."}, {nt_UpperRoman, 4, "IV."},     {nt_UpperRoman, 9999, "MMMMMMMMMCMXCIX."},
        {nt_UpperRoman, 10000, "*."},     {nt_LowerRoman, 48, "xlviii."}, {nt_LowerRomanBoth, 9, "(ix)"},
        {nt_Bullet1, 5, "\xB7"},          {nt_Bullet2, 5, "\x57"},        {nt_Bullet3, 5, "\x9F"},
        {nt_Bullet4, 5, "\x71"},          {nt_Bullet5, 5, "\x76"},        {nt_Bullet6, 5, "\xD8"},
        {nt_Bullet7, 5, "\xFC"},          {nt_None, 5, ""},
    };
    for (const Row& row : rows) EXPECT_STREQ(row.text, CNumberCmd::FormatNumber(row.number, row.type)) << row.type << " " << row.number;

    CRecordingLogSink log;
    EXPECT_STREQ("", CNumberCmd::FormatNumber(1, 12));
    EXPECT_STREQ("", CNumberCmd::FormatNumber(1, 99));
    EXPECT_EQ((Reports{"0@DocCmd", "0@DocCmd"}), log.AssertTexts());
}

TEST(NumberCmd, SetNumberWritesTheLevelFieldAndRebuildsTheText)
{
    CNumberCmd cmd;
    cmd.SetNumType(nt_UpperRoman);
    cmd.SetNumber(1994, 0);
    EXPECT_STREQ("MCMXCIV.", cmd.GetData(0));
    EXPECT_EQ(1994, cmd.GetNumber(0));

    CNumberCmd zero;
    zero.SetNumType(nt_Decimal);
    zero.SetNumber(0, 0);
    EXPECT_STREQ("", zero.GetData(CNumberCmd::fldFirstNumber));
    EXPECT_STREQ("0.", zero.GetData(0));

    // Multilevel lists join the numbers of every level up to the command's own.
    CNumberCmd multi;
    multi.SetNumType(nt_Decimal);
    multi.SetData("3B", CNumberCmd::fldLevel);
    EXPECT_EQ(3, multi.GetLevel());
    EXPECT_EQ(mlt_Multilevel, multi.GetListKind());
    multi.SetNumber(2, 1);
    multi.SetNumber(7, 2);
    multi.SetNumber(4, 0); // level 0: the command's own level, 3
    EXPECT_STREQ("2.7.4.", multi.GetData(0));
    EXPECT_STREQ("7", multi.GetData(CNumberCmd::fldFirstNumber + 1));
    multi.SetData("3A", CNumberCmd::fldLevel); // simple: only its own level
    multi.UpdateText();
    EXPECT_STREQ("4.", multi.GetData(0));

    // Bullets keep their number in the first number field at any level.
    CNumberCmd bullet;
    bullet.SetNumType(nt_Bullet3);
    bullet.SetData("2A", CNumberCmd::fldLevel);
    bullet.SetNumber(5, 2);
    EXPECT_STREQ("", bullet.GetData(CNumberCmd::fldFirstNumber + 1));
    EXPECT_STREQ("\x9F", bullet.GetData(0));

    CRecordingLogSink log;
    CNumberCmd untyped;
    untyped.SetNumber(-1, 12);
    EXPECT_EQ((Reports{"number >= 0@DocCmd", "level >= 0 && level <= 9@DocCmd", "nType != nt_None@DocCmd"}), log.AssertTexts());
}

TEST(NumberCmd, TabWidthLevelAndKindFields)
{
    CNumberCmd cmd;
    cmd.SetTabWidth(0.5);
    EXPECT_STREQ("050", cmd.GetData(CNumberCmd::fldTabWidth));
    EXPECT_DOUBLE_EQ(0.5, cmd.GetTabWidth());
    cmd.SetTabWidth(1.256);
    EXPECT_STREQ("126", cmd.GetData(CNumberCmd::fldTabWidth));
    cmd.SetTabWidth(0.25);
    EXPECT_STREQ("", cmd.GetData(CNumberCmd::fldTabWidth));

    CRecordingLogSink log;
    cmd.SetTabWidth(12.0);
    EXPECT_STREQ("", cmd.GetData(CNumberCmd::fldTabWidth));
    EXPECT_EQ(Reports{"tabWidth >= 0.0 && tabWidth < 10.0@DocCmd"}, log.AssertTexts());

    log.asserts.clear();
    cmd.SetData("xE", CNumberCmd::fldLevel);
    EXPECT_EQ(9, cmd.GetLevel()); // clamped
    EXPECT_EQ(mlt_None, cmd.GetListKind());
    EXPECT_EQ((Reports{"level >= 0 && level <= 9@DocCmd", "mType > mlt_None && mType < mlt_Last@DocCmd"}), log.AssertTexts());

    CNumberCmd reader(Cmd("CN:1.\x03\x03" "A"));
    EXPECT_FALSE(reader.IsType(CDocCmd::comment)); // read as it is, without SetCmd
    EXPECT_EQ(nt_Decimal, reader.GetNumType());
    EXPECT_EQ(0, reader.GetLevel());
}

// ---------------------------------------------------------------------------
// Print and attachment commands
// ---------------------------------------------------------------------------

TEST(PrintCmd, StatesAndValidity)
{
    const struct {
        const char* body;
        bool valid;
    } rows[] = {{"P1", true}, {"P0", true}, {"PE", true}, {"PX", false}, {"P10", false}, {"Q1", false}};
    for (const auto& row : rows) EXPECT_EQ(row.valid, CPrintCmd(Cmd(row.body)).IsValidCmd()) << row.body;

    CPrintCmd cmd;
    EXPECT_TRUE(cmd == CPrintCmd::s_onCmd);
    EXPECT_TRUE(cmd.IsType(CDocCmd::print));
    EXPECT_FALSE(cmd.IsEject());
    cmd.Eject();
    EXPECT_TRUE(cmd.IsEject());
    cmd.Off();
    EXPECT_TRUE(cmd == Cmd("P0"));
    EXPECT_EQ(4, CPrintCmd::s_nEjectLen);

    CPrintCmd other(Cmd("PX"));
    other.On(); // the text only: kind and mode stay as derived
    EXPECT_FALSE(other.IsType(CDocCmd::print));
    other = cmd;
    EXPECT_TRUE(other.IsType(CDocCmd::print));
}

TEST(AttachmentCmd, FormatIndexAndBaseValidity)
{
    CString text;
    text.Format(CAttachmentCmd::lpszFormat, 7);
    EXPECT_TRUE(text == Cmd("A07"));
    EXPECT_EQ(CAttachmentCmd::CmdLength, text.GetLength());

    CAttachmentCmd cmd;
    cmd = text.GetString();
    EXPECT_TRUE(cmd.IsType(CDocCmd::attachment));
    EXPECT_EQ(7, std::atoi(cmd.GetCmd().Mid(CAttachmentCmd::posIndex, CAttachmentCmd::lenIndex)));
    EXPECT_EQ(CDocCmd::chCmdEnd, cmd.GetCmd()[CAttachmentCmd::posEnd]);

    cmd = "\x01\x02"; // only the base rule applies
    EXPECT_TRUE(cmd.IsValidCmd());
    EXPECT_FALSE(cmd.IsType(CDocCmd::attachment));

    AttachmentInfo info;
    EXPECT_EQ(AttachmentInfo::AT_NONE, info.aType);
    EXPECT_EQ(nullptr, info.pStm);
    EXPECT_TRUE(AttachmentInfo::IsOleType(AttachmentInfo::AT_OLE_PICTURE));
    EXPECT_FALSE(AttachmentInfo::IsOleType(AttachmentInfo::AT_PLACEHOLDER));
}

// ---------------------------------------------------------------------------
// Malformed texts: every accessor of every class stays inside the text.
// ---------------------------------------------------------------------------

TEST(DocCmdRobustness, ArbitraryTextsThroughEveryAccessor)
{
    CRecordingLogSink quiet;
    // Short texts over an alphabet rich in framing bytes, separators, signs and digits.
    const char alphabet[] = "\x01\x02\x03:+-.05AaCFHLNPRTYZpB\xC0\xCA\xD3";
    unsigned state = 12345;
    auto next = [&state] { return (state = state * 1103515245u + 12345u) >> 16; };
    LOGFONT base{};
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        const unsigned len = next() % 24;
        for (unsigned i = 0; i < len; ++i) text += alphabet[next() % (sizeof alphabet - 1)];
        if (next() % 2 && !text.empty()) text[0] = '\x01';
        const CString cs(text.c_str(), static_cast<int>(text.size()));

        CFontCmd font(cs);
        LOGFONT lf;
        CString face;
        font.GetLogFont(lf, base);
        font.GetFaceName(face, base);
        font.GetBackColor();
        font.SetBold(1);
        font.SetCharset(RUSSIAN_CHARSET);
        font.SetBackColor('c', 0);
        font.SetPoints(12, 0);
        font.SetColor('J', 0);
        font.SetFaceName("Arial");
        font.SetDefault(fcmBold);

        CLayoutCmd layout(cs);
        CTabArray tabs;
        layout.GetTabs(tabs);
        layout.GetFirstLineIndent();
        layout.GetLeftMargin();
        layout.SetFirstLineIndent(-1.5);
        layout.SetRightMargin(2.5);
        TabDescription tab;
        tab.m_position = 1.5;
        tabs.Add(tab);
        layout.SetTabs(tabs);
        layout.GetTabs(tabs);

        CNumberCmd number(cs);
        number.GetNumType();
        number.GetListKind();
        number.GetTabWidth();
        number.SetNumType(nt_UpperRoman);
        number.SetNumber(1994, 3);
        CCommentCmd comment(text.c_str(), static_cast<int>(text.size()));
        comment.GetDescription(1);
        comment.SetData("x", 2);

        CPrintCmd print(cs);
        print.IsEject();
    }
    SUCCEED();
}
