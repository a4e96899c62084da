// RTF to old-format text: commands in front of text, formatting, tables of
// fonts and colours, fields, tables, numbering and the output protocol.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "rtfconverter/RTFToOld.h"
#include "test_rtf_to_old_helpers.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::Cmd;
using rtfconv_test::ImportOptions;
using rtfconv_test::ImportResult;
using rtfconv_test::ImportSource;
using rtfconv_test::OldText;
using rtfconv_test::PullOldText;

namespace {

struct OldRow {
    const char* what;
    std::string rtf;
    std::string old;
};

const std::string kDefaultFont = Cmd("F---:-");

// The first numbering command of old-format text.
CNumberCmd FirstNumberCmd(const std::string& old)
{
    const std::size_t start = old.find("\x01" "CN:");
    if (start == std::string::npos)
        return CNumberCmd(CString(""));
    return CNumberCmd(CString(old.substr(start, old.find('\x02', start) + 1 - start).c_str()));
}

std::string Numbered(const std::string& pn, const std::string& text)
{
    return "\\pard{\\*\\pn" + pn + "}" + text + "\\par ";
}

} // namespace

TEST(RtfToOld, CommandsStandInFrontOfTheTextTheyGovern)
{
    const OldRow rows[] = {
        {"default formatting gives bare text", "{\\rtf1 abc}", "abc"},
        {"centred Arial paragraph", "{\\rtf1\\ansi{\\fonttbl{\\f0\\fswiss Arial;}}\\pard\\qc\\f0\\fs24 Hi\\par}",
         Cmd("LC000000") + Cmd("F12-:Arial") + "Hi\r"},
        {"bold on and off", "{\\rtf1 \\b x\\b0 y}", Cmd("F---B:-") + "x" + kDefaultFont + "y"},
        {"a change undone before text gives nothing", "{\\rtf1 {\\b}z\\i\\i0 w}", "zw"},
        {"group end restores formatting", "{\\rtf1 {\\b a}b}", Cmd("F---B:-") + "a" + kDefaultFont + "b"},
        {"reserved bytes become spaces", "{\\rtf1 a\\'01b\\'17c\x02" "d\\'03}", "a b c d "},
        {"paragraph, line and tab", "{\\rtf1 a\\line b\\tab c\\par}", "a\nb\tc\r"},
        {"typographic quotes", "{\\rtf1 \\lquote a\\rquote}", "\x91" "a\x92"},
        {"only 0 turns a style off", "{\\rtf1 \\b-1 a\\b2\\b0 b}", Cmd("F---B:-") + "a" + kDefaultFont + "b"},
        {"super and sub are independent", "{\\rtf1 \\super\\sub x}", Cmd("F---Ss:-") + "x"},
        {"sizes in half-points", "{\\rtf1 \\fs x\\fs25 y\\fs0 z\\fs210 w}",
         Cmd("F12-:-") + "xy" + Cmd("F00-:-") + "z" + Cmd("F05-:-") + "w"},
        {"colours to the nearest palette letter",
         "{\\rtf1{\\colortbl;\\red200\\green10\\blue10;\\red128\\green128\\blue0;}\\cf1 a\\cf2 b\\cb1 c\\cf0 d}",
         Cmd("F--J:-") + "a" + Cmd("F--D:-") + "b" + Cmd("F--Dj:-") + "c" + Cmd("F---j:-") + "d"},
        {"\\pard drops the background without a command of its own",
         "{\\rtf1{\\colortbl;\\red200\\green10\\blue10;}\\cb1 a\\pard b\\b c}",
         Cmd("F---j:-") + "ab" + Cmd("F---B:-") + "c"},
        {"margins and indent", "{\\rtf1 \\qc\\li1440\\ri720\\fi-360 a}", Cmd("LC100050-025") + "a"},
        {"missing margin parameter clamps", "{\\rtf1 \\li x}", Cmd("LL999000") + "x"},
        {"duplicate tab stop dropped", "{\\rtf1 \\tx720\\tx720 a}", Cmd("LL000000050 ") + "a"},
        {"leader for the next stop only", "{\\rtf1 \\tldot\\tx1440\\tx2880 a}", Cmd("LL000000100.200 ") + "a"},
        {"stops kept in order", "{\\rtf1 \\tx2880\\tx1440 a}", Cmd("LL000000100 200 ") + "a"},
        {"bar tab clears the stops", "{\\rtf1 \\tx720\\tb a}", "a"},
        {"layout goes out at the next paragraph start", "{\\rtf1 a\\qc b\\par c}", "ab\r" + Cmd("LC000000") + "c"},
        {"empty paragraph carries its layout", "{\\rtf1 \\qc\\par}", Cmd("LC000000") + "\r"},
        {"field result is ordinary text", "{\\rtf1 {\\field{\\*\\fldinst PAGE}{\\fldrslt \\b 3}}x}",
         Cmd("F---B:-") + "3" + kDefaultFont + "x"},
        {"hidden style text dropped", "{\\rtf1 {\\stylesheet{\\s1 Heading;}}{\\info{\\title T}}t}", "t"},
    };
    for (const OldRow& row : rows)
        EXPECT_EQ(OldText(row.rtf), row.old) << row.what;
}

TEST(RtfToOld, CharacterFilterSeesTextButNotControlBytes)
{
    ImportOptions options;
    options.pfnCharFilter = [](char& ch) {
        if (ch >= 'a' && ch <= 'z')
            ch = static_cast<char>(ch - 'a' + 'A');
        else if (ch == '\x91')
            ch = '`';
    };
    EXPECT_EQ(OldText("{\\rtf1 ab\\tab c\\lquote{\\*\\fldinst x}\\par}", options), "AB\tC`\r");
}

TEST(RtfToOld, FontAndColourTables)
{
    const OldRow rows[] = {
        {"faces and character sets by number",
         "{\\rtf1{\\fonttbl{\\f0\\fswiss\\fcharset204 Arial;}{\\f1\\froman Times New Roman;}{\\f2 Cour; }}"
         "\\f1 a\\f0 b\\f2 c}",
         Cmd("F---:Times New Roman") + "a" + Cmd("F---\xCA:Arial") + "b" + Cmd("F---:Cour ") + "c"},
        {"default font only through \\plain", "{\\rtf1\\deff1{\\fonttbl{\\f0 A;}{\\f1 B;}}x\\plain y}",
         "x" + Cmd("F---:B") + "y"},
        {"framing bytes in a face name go out as they are", "{\\rtf1{\\fonttbl{\\f0 A\\'02B;}}\\f0 x}",
         "\x01" "F---:A\x02" "B\x02" "x"},
        {"a later definition wins", "{\\rtf1{\\fonttbl{\\f0 A;}}{\\fonttbl{\\f0 Z;}}\\f0 x}", Cmd("F---:Z") + "x"},
        {"colour bytes keep their low 8 bits; a missing one is 255",
         "{\\rtf1{\\colortbl\\red256\\green\\blue0;}\\cf0 x}", Cmd("F--K:-") + "x"},
        // The second table's colours overwrite the first one's entries from
        // index 0 while its count restarts.
        {"a second colour table", "{\\rtf1{\\colortbl;\\red255\\green0\\blue0;}{\\colortbl\\red0\\green0\\blue255;}"
         "\\cf1 a\\cf0 b}", Cmd("F--J:-") + "a" + Cmd("F--M:-") + "b"},
    };
    for (const OldRow& row : rows)
        EXPECT_EQ(OldText(row.rtf), row.old) << row.what;

    rtfconv_test::CRecordingLogSink log;
    EXPECT_EQ(OldText("{\\rtf1{\\colortbl;;;}\\f7\\cf4 x}"), "x");
    EXPECT_EQ(log.traces, std::vector<std::string>{"GetFontNum: wrong font number!(rds=0)\n"});
    EXPECT_EQ(log.AssertTexts(), std::vector<std::string>{"idxColor < m_nColorEntries@RTFToOld"});
}

TEST(RtfToOld, TableIndexMinusOneLeavesReadAsFrameworkException)
{
    const char* inputs[] = {
        "{\\rtf1{\\colortbl;}\\cf-1 x}",
        "{\\rtf1 \\cb-1 x}",
        "{\\rtf1 \\red5 x}",
        "{\\rtf1{\\fonttbl\\fswiss A;}x}",
        "{\\rtf1{\\fonttbl\\fcharset0}x}",
        "{\\rtf1{\\fonttbl Arial}x}",
    };
    for (const char* rtf : inputs)
        EXPECT_THROW(OldText(rtf), CInvalidArgException) << rtf;
}

TEST(RtfToOld, HyperlinksAndFields)
{
    const std::string click = "{\\fldrslt click}}";
    const OldRow rows[] = {
        {"quoted target", "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK \\'22readme.txt\\'22}" + click + "}",
         Cmd("CH:click\x03readme.txt")},
        {"javascript alone is refused", "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK JavaScript}" + click + "}", ""},
        {"target without a full stop is refused", "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK #top}" + click + "}", ""},
        {"longer javascript target passes", "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK javascript:x.y()}" + click + "}",
         Cmd("CH:click\x03javascript:x.y()")},
        {"HYPERLINK without its space: display text as collected",
         "{\\rtf1 {\\field{\\*\\fldinst HYPERLINKx}{\\fldrslt \\b c}}d}",
         Cmd("F---B:-") + "c" + kDefaultFont + "d"},
        {"pntext inside the display text is skipped",
         "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK a.b}{\\fldrslt {\\pntext 1.}c}}}", Cmd("CH:c\x03" "a.b")},
    };
    for (const OldRow& row : rows)
        EXPECT_EQ(OldText(row.rtf), row.old) << row.what;

    {
        rtfconv_test::CRecordingLogSink log;
        EXPECT_EQ(OldText("{\\rtf1 {\\field{\\*\\fldinst HYPERLINK }" + click + "x}"), "x");
        EXPECT_EQ(log.AssertTexts(), std::vector<std::string>{"len > 0@RTFToOld"});
    }

    // Bold display text carries its font command inside the hyperlink; the
    // text after the field needs none, since the last font really sent is
    // the default one. A paragraph's layout is owed when the display text is
    // collected, and so stands inside the command too.
    const OldRow links[] = {
        {"bold display text", "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK \"a.b\"}{\\fldrslt \\b bold}} after}",
         Cmd("F---B:-") + "bold"},
        {"layout of the paragraph", "{\\rtf1 \\qc{\\field{\\*\\fldinst HYPERLINK a.b}{\\fldrslt c}} after}",
         Cmd("LC000000") + "c"},
    };
    for (const OldRow& row : links) {
        CCommentCmd link(ot_Hyperlink);
        link.SetData(row.old.c_str(), 0);
        link.SetData("a.b", 1);
        EXPECT_EQ(OldText(row.rtf), std::string(link.GetCmd()) + " after") << row.what;
    }
}

// What a hyperlink's target and text lose: commands and control bytes, a
// trailing 0x17; text without a byte below a space comes back as it was.
struct CMarkupStripper : CRTFImport {
    using CRTFImport::StripMarkup;
};

TEST(RtfToOld, StripMarkupDropsCommandsAndControlBytesOnly)
{
    const std::pair<const char*, const char*> cases[] = {
        {"", ""},
        {"www.example.com", "www.example.com"},
        {"a\tb", "a\tb"},
        {"x\x01" "F12\x02y", "xy"},
        {"ctl\x05z\x1f", "ctl z "},
        {"end\x17", "end"},
        {"\x17", ""},
        {"\x17x", " x"},
        {"a\x01" "bc", "a"},
        {"a\x01" "b\x02\x17", "a"},
    };
    for (const auto& c : cases) {
        CString s(c.first);
        CMarkupStripper::StripMarkup(s);
        EXPECT_EQ(std::string(s.GetString()), c.second) << c.first;
    }
}

TEST(RtfToOld, TablesAsTagsOrParagraphMarksAndTabs)
{
    const std::string rtf = "{\\rtf1\\trowd\\intbl a\\cell b\\cell\\row\\lastrow}";
    EXPECT_EQ(OldText(rtf), "a\tb\t\r");
    ImportOptions tags;
    tags.bTableTags = true;
    EXPECT_EQ(OldText(rtf, tags), Cmd("CT:StartRow") + Cmd("CT:StartRow") + "a" + Cmd("CT:EndCell") + "b" +
                                      Cmd("CT:EndCell") + Cmd("CT:EndRow") + Cmd("CT:LastRow"));
}

TEST(RtfToOld, NumberingCommands)
{
    // A \pn group after \pntext discards the literal number text.
    const std::string bullet = OldText("{\\rtf1\\pard{\\pntext\\f1\\'B7\\tab}{\\*\\pn\\pnlvlblt{\\pntxtb\\'B7}}text}");
    CNumberCmd expected;
    expected.SetNumType(nt_Bullet1);
    expected.SetNumber(0, 0);
    EXPECT_EQ(bullet, std::string(expected.GetCmd()) + "text");

    EXPECT_EQ(OldText("{\\rtf1\\pard{\\pntext 1.\\tab}text}"), "1.\ttext");
    EXPECT_EQ(OldText("{\\rtf1\\pard{\\pntext\\b 1.\\tab}text}"), Cmd("F---B:-") + "1.\t" + kDefaultFont + "text");
    // Before \pard the groups only leave their literal text.
    EXPECT_EQ(OldText("{\\rtf1{\\*\\pn\\pndec}{\\pntext 1.}\\pard x}"), "1.x");

    struct TypeRow {
        const char* pn;
        int type;
        const char* assertion;
    };
    const TypeRow types[] = {
        {"\\pndec{\\pntxtb (}{\\pntxta )}", nt_DecimalBoth, nullptr},
        {"\\pndec{\\pntxta )}", nt_DecimalParen, nullptr},
        {"\\pndec{\\pntxta .}", nt_Decimal, nullptr},
        {"\\pndec", nt_Decimal, "_T(\".\") == ns.GetCurrentInfo().GetTextAfter()@RTFToOld"},
        {"\\pndec{\\pntxtb (}{\\pntxta .}", nt_DecimalBoth, "_T(\")\") == ns.GetCurrentInfo().GetTextAfter()@RTFToOld"},
        {"\\pnlcltr{\\pntxta )}", nt_LowerLetterParen, nullptr},
        {"\\pnlcltr{\\pntxta .}", nt_LowerLetterParen, nullptr},
        {"\\pnlcltr{\\pntxtb (}{\\pntxta )}", nt_LowerLetterBoth, nullptr},
        {"\\pnucltr{\\pntxta )}", nt_UpperLetter, nullptr},
        {"\\pnucrm", nt_UpperRoman, nullptr},
        {"\\pnlcrm", nt_LowerRoman, nullptr},
    };
    for (const TypeRow& row : types) {
        rtfconv_test::CRecordingLogSink log;
        const std::string old = OldText("{\\rtf1" + Numbered(std::string("\\pnlvl1\\pnstart1") + row.pn, "x") + "}");
        const CNumberCmd cmd = FirstNumberCmd(old);
        EXPECT_EQ(cmd.GetNumType(), row.type) << row.pn;
        EXPECT_EQ(cmd.GetNumber(1), 1) << row.pn;
        std::vector<std::string> assertions;
        if (row.assertion)
            assertions.push_back(row.assertion);
        EXPECT_EQ(log.AssertTexts(), assertions) << row.pn;
    }

    // The count goes on while the numbering repeats, and restarts when the
    // start number or a text changes (not when only its case changes).
    struct CountRow {
        const char* second;
        int number;
    };
    const CountRow counts[] = {
        {"\\pnlvl1\\pnstart1\\pndec{\\pntxta .}", 2},
        {"\\pnlvl1\\pnstart5\\pndec{\\pntxta .}", 5},
        {"\\pnlvl1\\pnstart1\\pndec{\\pntxta )}", 1},
        {"\\pnlvl1\\pnstart1\\pnlcltr{\\pntxta .}", 1},
    };
    for (const CountRow& row : counts) {
        const std::string old =
            OldText("{\\rtf1" + Numbered("\\pnlvl1\\pnstart1\\pndec{\\pntxta .}", "A") + Numbered(row.second, "B") + "}");
        const std::size_t b = old.find("\rB") == std::string::npos ? old.find('\r') + 1 : old.find("\rB") + 1;
        EXPECT_EQ(FirstNumberCmd(old.substr(b)).GetNumber(1), row.number) << row.second;
    }
}

TEST(RtfToOld, StringPutNeedsOneByteMoreThanItsLength)
{
    CRTFPtrImport reader("{\\rtf1 ab\\b c}");
    char buf[64];
    bool bMore = false;
    // "ab" leaves 9 bytes: exactly the length of the bold font command.
    EXPECT_EQ(reader.Read(buf, buf + 11, bMore), 2);
    EXPECT_TRUE(bMore);
    const int n = reader.Read(buf, buf + sizeof buf, bMore);
    EXPECT_FALSE(bMore);
    EXPECT_EQ(std::string(buf, static_cast<std::size_t>(n)), Cmd("LL000000") + Cmd("F---B:-") + "c");

    // A character may fill the last byte; a buffer too small for the re-sent
    // commands still takes text.
    ImportOptions tiny;
    tiny.cbBuffer = 3;
    rtfconv_test::CRecordingLogSink log;
    const ImportResult result = PullOldText("{\\rtf1 abcdef\\par}", tiny);
    EXPECT_EQ(result.buffers, (std::vector<std::string>{"abc", "def", "\r"}));
    // \par reports each full buffer it meets.
    EXPECT_EQ(log.AssertTexts(), std::vector<std::string>{"bOk@RTFToOld"});

    // A numbering command that never fits behind the re-sent commands: each
    // call writes them and nothing else. Judged by the input consumed (a
    // framing byte in the face name would fool a look at the bytes), the
    // caller sees no progress and grows its buffer.
    ImportOptions small;
    small.cbBuffer = 50;
    const ImportResult grown = PullOldText("{\\rtf1{\\fonttbl{\\f0 AAAAAAAAAAAAAAAAAAAA\\'02;}}\\f0 " + std::string(30, 'x') +
                                               "\\par\\pard{\\*\\pn\\pnlvl1\\pnstart1\\pndec{\\pntxta .}}y}",
                                           small);
    EXPECT_FALSE(grown.bStalled);
    EXPECT_EQ(grown.cGrowths, 1);
    EXPECT_EQ(grown.text.back(), 'y');
}

namespace {

// Old-format text as the reader sees it: each text byte together with the
// layout and font in force for it, and each other command by itself.
std::vector<std::string> Interpret(const std::string& old)
{
    std::string layout = Cmd("LL000000");
    std::string font = kDefaultFont;
    std::vector<std::string> events;
    for (std::size_t i = 0; i < old.size(); ++i) {
        if (old[i] == '\x01') {
            const std::size_t end = old.find('\x02', i);
            const std::string cmd = old.substr(i, end + 1 - i);
            i = end;
            if (cmd[1] == 'F')
                font = cmd;
            else if (cmd[1] == 'L')
                layout = cmd;
            else
                events.push_back(cmd);
        } else {
            events.push_back(layout + font + old[i]);
        }
    }
    return events;
}

std::string ResumptionDocument()
{
    std::string rtf = "{\\rtf1\\ansi\\deff0{\\fonttbl{\\f0\\fswiss Arial;}{\\f1\\froman Times;}}"
                      "{\\colortbl;\\red255\\green0\\blue0;\\red0\\green0\\blue255;}";
    for (int i = 0; i < 40; ++i) {
        rtf += "\\pard\\qc\\li720\\tx1440 Title {\\b\\f1 bold} and {\\cf1 red\\i italic}\\par ";
        rtf += "\\pard{\\*\\pn\\pnlvl1\\pnstart1\\pndec{\\pntxta .}}\\fs28 item {\\ul under}\\tab t\\line l\\par ";
        rtf += "\\pard a\\cell b\\cell\\row {\\field{\\*\\fldinst PAGE}{\\fldrslt {\\b 7}}} after\\par ";
        rtf += "\\plain\\'e9\\lquote q\\rquote\\par ";
    }
    return rtf + "}";
}

} // namespace

// Hyperlink and attachment commands are left out: the importer writes them
// once, and one that does not fit the buffer is lost.
TEST(RtfToOld, ResumptionKeepsFormattingAcrossBuffers)
{
    const std::string rtf = ResumptionDocument();
    ImportOptions options;
    const std::string whole = OldText(rtf, options);
    const std::vector<std::string> events = Interpret(whole);

    for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
        for (std::size_t cb : {40, 41, 47, 53, 64, 97, 256}) {
            options.source = source;
            options.cbBuffer = cb;
            const ImportResult result = PullOldText(rtf, options);
            ASSERT_EQ(result.cGrowths, 0) << cb;
            EXPECT_EQ(Interpret(result.text), events) << "buffer " << cb;
            // Every later buffer begins with the complete layout and font.
            for (std::size_t i = 1; i < result.buffers.size(); ++i) {
                const std::string& b = result.buffers[i];
                EXPECT_TRUE(b.compare(0, 2, "\x01L") == 0 && b.find("\x02\x01" "F") != std::string::npos)
                    << "buffer " << cb << " #" << i;
            }
        }
    }
}
