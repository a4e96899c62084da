// Old-format text to RTF: documents byte for byte, state across paragraphs,
// buffer boundaries, attachments and failing streams.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "old_to_rtf_helpers.h"
#include "test_util.h"

using namespace rtfconv_test;
using rtf_converter::COldToRTF;

namespace {

const std::string F = "\x01";  // command start
const std::string E = "\x02";  // command end
const std::string S = "\x03";  // data separator

std::string Cmd(const std::string& body) { return F + body + E; }

std::string Repeated(const std::string& s, int n)
{
    std::string all;
    while (n-- > 0) all += s;
    return all;
}

// The body of the document for `text` (after the stylesheet), with the extra
// tables expected; fails the test when the front does not match.
std::string BodyOf(const std::string& doc, const std::string& extraFonts = "", const std::string& extraColors = "")
{
    std::string front = DocumentAround("", extraFonts, extraColors);
    EXPECT_EQ(doc.substr(0, front.size()), front);
    return doc.size() >= front.size() ? doc.substr(front.size()) : doc;
}

// Gives tests the protected building blocks and the quick-buffer size.
class CTestWriter : public COldToRTF {
public:
    explicit CTestWriter(IStream& out) : COldToRTF(out) {}
    using COldToRTF::AddDataToBuffer;
    using COldToRTF::AddToBuffer;
    using COldToRTF::FlushQuickBuffer;
    using COldToRTF::GetQuickBufferPosition;
    using COldToRTF::GetQuickBufferSize;
    using COldToRTF::InitBuffer;
    using COldToRTF::ReplaceSpecSymbols;
    static void SetQuickBufferSize(DWORD n) { s_dwBufferSize = n; }
};

// Restores the quick-buffer size however the test ends.
struct QuickBufferSize {
    explicit QuickBufferSize(DWORD n) : m_old(static_cast<DWORD>(CTestWriter::GetQuickBufferSize()))
    {
        CTestWriter::SetQuickBufferSize(n);
    }
    ~QuickBufferSize() { CTestWriter::SetQuickBufferSize(m_old); }
    DWORD m_old;
};

std::string Convert(const std::string& text, long* pResult = nullptr)
{
    LOGFONT lf = ArialTen();
    return OldToRtf(text, &lf, pResult);
}

} // namespace

TEST(OldToRTF, DocumentAssemblyOfTheExample)
{
    LOGFONT lf = ArialTen(204);
    long hr = -1;
    EXPECT_EQ(OldToRtf("Hi", &lf, &hr),
              "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset204\\fswiss Arial;}}"
              "{\\colortbl;\\red0\\green0\\blue0;}{\\stylesheet{\\f0\\fs20 Normal;}}\\pard\\f0\\fs20\\cf1 Hi\\par }");
    EXPECT_EQ(hr, S_OK);

    // Without a base font: Arial 10 at the screen's resolution.
    EXPECT_EQ(OldToRtf("", nullptr), DocumentAround("\\pard\\f0\\fs20\\cf1 \\par }"));
    lf.lfHeight = -16; // 12 points
    lf.lfPitchAndFamily = FF_ROMAN;
    std::strcpy(lf.lfFaceName, "Times");
    EXPECT_EQ(OldToRtf("", &lf),
              "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset204\\froman Times;}}"
              "{\\colortbl;\\red0\\green0\\blue0;}{\\stylesheet{\\f0\\fs24 Normal;}}\\pard\\f0\\fs24\\cf1 \\par }");
}

TEST(OldToRTF, PlainTextScan)
{
    struct Row {
        const char* name;
        std::string text, body;
        std::vector<std::string> asserts;
    } rows[] = {
        {"empty", "", "\\par }", {}},
        {"trailing CR gives one paragraph mark", "A\r", "A\\par }", {}},
        {"commands after the CR add none", "A\r" + Cmd("F---:-"), "A\\par \\cf1 }", {}},
        {"specials escaped", "a{b}\\c", "a\\{b\\}\\\\c\\par }", {}},
        {"CR LF", "A\r\nB", "A\\par \\line B\\par }", {}},
        {"tab", "a\tb", "a\\tab b\\par }", {}},
        {"0x17 dropped", "a\x17" "b", "ab\\par }", {}},
        {"stray command end dropped", "a\x02" "b", "ab\\par }", {"0@OldToRTF"}},
        {"unterminated command", "ab\x01" "F12", "ab}", {}},
        {"unknown type letter", "a" + Cmd("Xyz") + "b", "ab\\par }", {"0@OldToRTF"}},
        {"high and control bytes raw", "\xE9\x05\x7F\xFF", "\xE9\x05\x7F\xFF\\par }", {}},
        {"backslash pair", "\\\\", "\\\\\\\\\\par }", {}},
        // Far enough from the end for the writer's loop of short runs and
        // font commands met again, which writes the marks after a run too.
        {"runs and marks between font commands met again",
         Cmd("F---:-") + "ab" + Cmd("F---B:-") + "\t" + Cmd("F---:-") + "c\r" + Cmd("F---B:-") + "d\n" + Cmd("F---:-") +
             "{" + Cmd("F---B:-") + "\r" + Repeated(Cmd("F---:-") + Cmd("F---B:-"), 6),
         "\\cf1 ab\\b \\tab \\b0 c\\par \\b d\\line \\b0 \\{\\b \\par " + Repeated("\\b0 \\b ", 6) + "}",
         {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        CRecordingLogSink log;
        EXPECT_EQ(BodyOf(Convert(r.text)), "\\pard\\f0\\fs20\\cf1 " + r.body);
        EXPECT_EQ(log.AssertTexts(), r.asserts);
    }
}

TEST(OldToRTF, FontCommands)
{
    const std::string red = "\\red255\\green0\\blue0;";
    const std::string white = "\\red255\\green255\\blue255;";
    struct Row {
        const char* name;
        std::string text, body, fonts, colors;
    } rows[] = {
        {"first command makes the colour explicit", Cmd("F---:-") + "x", "\\cf1 x\\par }", "", ""},
        {"repeat writes nothing", Cmd("F---:-") + Cmd("F---:-") + "x", "\\cf1 x\\par }", "", ""},
        {"size colour bold italic", Cmd("F12JBI:Arial") + "x", "\\fs24\\cf2\\b\\i x\\par }", "", red},
        {"black maps to the default entry", Cmd("F--A:-") + "x", "\\cf1 x\\par }", "", ""},
        {"new face", Cmd("F---:Times New Roman") + "x" + Cmd("F---:-") + "y", "\\f1\\cf1 x\\f0 y\\par }",
         "{\\f1\\fcharset0\\fswiss Times New Roman;}", ""},
        {"face differing only in case", Cmd("F---:arial") + "x", "\\f1\\cf1 x\\par }",
         "{\\f1\\fcharset0\\fswiss arial;}", ""},
        {"same face, other charset", Cmd("F---\xCA:-") + "x", "\\f1\\cf1 x\\par }",
         "{\\f1\\fcharset204\\fswiss Arial;}", ""},
        {"sizes share an entry", Cmd("F08-:Courier") + Cmd("F14-:Courier") + "x", "\\f1\\fs16\\cf1 \\fs28 x\\par }",
         "{\\f1\\fcharset0\\fswiss Courier;}", ""},
        {"background on and off", Cmd("F---p:-") + "x" + Cmd("F---:-") + "y",
         "\\cf1\\cb2\\chcbpat2 x\\cb0\\chcbpat0 y\\par }", "", white},
        {"superscript to subscript", Cmd("F---S:-") + "x" + Cmd("F---s:-") + "y",
         "\\cf1\\super x\\nosupersub\\sub y\\par }", "", ""},
        {"all attributes in order", "x" + Cmd("F---sSXIUB:-") + "y" + Cmd("F---:-"),
         "x\\cf1\\b\\ul\\i\\strike\\super\\sub y\\b0\\ul0\\i0\\strike0\\nosupersub\\nosupersub \\par }", "", ""},
        {"colours found again", Cmd("F--J:-") + Cmd("F--M:-") + Cmd("F--J:-"), "\\cf2 \\cf3 \\cf2 \\par }", "",
         red + "\\red0\\green0\\blue255;"},
        {"state runs across paragraphs", Cmd("F--JB:-") + "a\r" + Cmd("F--JB:-") + "b", "\\cf2\\b a\\par b\\par }", "",
         red},
    };
    // Followed by text at least a look long, each command is also written
    // the way one met again far from the end of the text is.
    const std::string tail(48, 't');
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(BodyOf(Convert(r.text), r.fonts, r.colors), "\\pard\\f0\\fs20\\cf1 " + r.body);
        const std::string bodyWithTail = r.body.substr(0, r.body.size() - 6) + tail + "\\par }";
        EXPECT_EQ(BodyOf(Convert(r.text + tail), r.fonts, r.colors), "\\pard\\f0\\fs20\\cf1 " + bodyWithTail);
    }
}

TEST(OldToRTF, WindowTextColourIsTheInitialColourValue)
{
    // With a window text of 0x000001 the colour value equals index 1, so the
    // first default font command has nothing to write.
    const int index = COLOR_WINDOWTEXT;
    const COLORREF almostBlack = 0x000001;
    SetSysColors(1, &index, &almostBlack);
    LOGFONT lf = ArialTen();
    std::string doc = OldToRtf(Cmd("F---:-") + "x", &lf);
    ResetSysColors();
    EXPECT_NE(doc.find("{\\colortbl;\\red1\\green0\\blue0;}"), std::string::npos);
    EXPECT_NE(doc.find("\\pard\\f0\\fs20\\cf1 x\\par }"), std::string::npos);
}

TEST(OldToRTF, LayoutAndPrintCommands)
{
    struct Row {
        const char* name;
        std::string cmd, words;
    } rows[] = {
        {"example", "LC050000-025200.", "\\pard\\qc\\li720\\fi-360\\tldot\\tx2880 "},
        {"default", "LL000000", "\\pard "},
        {"right aligned, right margin", "LR000125", "\\pard\\qr\\ri1800 "},
        {"0.7 inch truncates", "LL070000", "\\pard\\li1007 "},
        {"positive indent", "LL000000+100", "\\pard\\fi1440 "},
        {"leaders", "LL000000100 150-200_250=300.", "\\pard\\tx1440\\tlhyph\\tx2160\\tlul\\tx2880\\tleq\\tx3600\\tldot\\tx4320 "},
        {"eject", "PE", "\\pagebb "},
        {"print on", "P1", ""},
        {"print off", "P0", ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        CRecordingLogSink log;
        EXPECT_EQ(BodyOf(Convert("a" + Cmd(r.cmd) + "b")), "\\pard\\f0\\fs20\\cf1 a" + r.words + "b\\par }");
        EXPECT_TRUE(log.asserts.empty());
    }
}

TEST(OldToRTF, CommentCommands)
{
    struct Row {
        const char* name;
        std::string cmd, written, fonts;
    } rows[] = {
        {"hyperlink", "CH:Home" + S + "xx://a/b", "\\ul{\\field{\\*\\fldinst{HYPERLINK xx://a/b}}{\\fldrslt Home}}\\ul0 ", ""},
        {"reference", "CR:Intro" + S + "doc:Intro", "\\ul{\\field{\\*\\fldinst{HYPERLINK doc:Intro}}{\\fldrslt Intro}}\\ul0 ", ""},
        {"escaped texts", "CH:a{b}" + S + "c:\\d", "\\ul{\\field{\\*\\fldinst{HYPERLINK c:\\\\d}}{\\fldrslt a\\{b\\}}}\\ul0 ", ""},
        {"specials alone", "CH:\\" + S + "{}", "\\ul{\\field{\\*\\fldinst{HYPERLINK \\{\\}}}{\\fldrslt \\\\}}\\ul0 ", ""},
        {"no target", "CH:shown", "\\ul{\\field{\\*\\fldinst{HYPERLINK }}{\\fldrslt shown}}\\ul0 ", ""},
        {"fields after the target", "CH:a" + S + "t" + S + "u", "\\ul{\\field{\\*\\fldinst{HYPERLINK t}}{\\fldrslt a}}\\ul0 ", ""},
        {"number", "CN:1." + S + S + "A" + S + S, "1. ", ""},
        {"number with wider tab", "CN:(ii)" + S + S + "I" + S + "050", "(ii)  ", ""},
        {"bullet", "CN:\xB7" + S + S + "q" + S + S + "Symbol", "\\f1 \xB7 \\f0 ", "{\\f1\\fcharset2\\fnil Symbol;}"},
        {"table tag", "CT:StartRow", "StartRow", ""},
        {"empty table tag", "CT:", "", ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(BodyOf(Convert(Cmd(r.cmd) + "z"), r.fonts), "\\pard\\f0\\fs20\\cf1 " + r.written + "z\\par }");
    }

    // A bullet switches back to the font in force, not to the base font.
    EXPECT_EQ(BodyOf(Convert(Cmd("F---:Times") + Cmd("CN:\xB7" + S + S + "q" + S + S + "Symbol") + "x"),
                     "{\\f1\\fcharset0\\fswiss Times;}{\\f2\\fcharset2\\fnil Symbol;}"),
              "\\pard\\f0\\fs20\\cf1 \\f1\\cf1 \\f2 \xB7 \\f1 x\\par }");
}

// Hyperlinks and numbers are written from their bytes where they lie in the
// text; one the comment command finds malformed is still read as one and
// reported, in both modes, and a well-formed one is not.
TEST(OldToRTF, CommentCommandsReportedWhenMalformed)
{
    struct Row {
        const char* name;
        std::string cmd;
        bool bMalformed;
    } rows[] = {
        {"hyperlink", "CH:a" + S + "x://b", false},
        {"reference", "CR:a" + S + "doc:b", false},
        {"number", "CN:1." + S + S + "A" + S + S, false},
        {"hyperlink without its colon", "CHa" + S + "x://b", true},
        {"number without its colon", "CN-1." + S + S + "A" + S + S, true},
        {"hyperlink with nothing", "CH", true},
    };
    for (bool bLossless : {false, true}) {
        for (const Row& r : rows) {
            SCOPED_TRACE(std::string(r.name) + (bLossless ? ", lossless" : ""));
            CRecordingLogSink log;
            OldToRtfInMode("a" + Cmd(r.cmd) + "b", bLossless);
            EXPECT_EQ(log.asserts.empty(), !r.bMalformed);
        }
    }
}

TEST(OldToRTF, TextPositionsSeenByTheFilter)
{
    FilterScript script;
    script.answers.push_back({});
    LOGFONT lf = ArialTen();
    // Hyperlinks count their escaped address, numbers their whole command,
    // table tags their description, attachments and font commands nothing.
    const std::string number = Cmd("CN:1." + S + S + "A" + S + S);
    std::string text = "ab\r" + Cmd("A00") + "c\td" + Cmd("A01") + Cmd("CH:x" + S + "a{b") + Cmd("A02") + number +
                       Cmd("A03") + Cmd("CT:EndRow") + Cmd("F12-:-") + Cmd("A04");
    OldToRtf(text, &lf, nullptr, ScriptedFilter, &script, &script);
    const int nNumber = static_cast<int>(number.size());
    EXPECT_EQ(script.positions, (std::vector<int>{3, 6, 10, 10 + nNumber, 16 + nNumber}));
    EXPECT_EQ(script.commands[1], Cmd("A01"));

    // Runs and marks written among font commands met again count as the scan counts them.
    FilterScript marks;
    marks.answers.push_back({});
    const std::string fonts = Repeated(Cmd("F---:-") + Cmd("F---B:-"), 6);
    OldToRtf(Cmd("F---:-") + "ab" + Cmd("F---B:-") + "\t" + Cmd("F---:-") + "c\r" + Cmd("F---B:-") + "d\n" + Cmd("A00") +
                 fonts + "e" + fonts + Cmd("A01"),
             &lf, nullptr, ScriptedFilter, &marks, &marks);
    EXPECT_EQ(marks.positions, (std::vector<int>{7, 8}));
}

TEST(OldToRTF, AttachmentsOfEveryKindAndAnswer)
{
    const std::vector<BYTE> dib = SmallDib(2, 1);
    const std::string dibHex = Hex(dib.data(), dib.size());
    const std::string pict = "{\\pict\\dibitmap0\\wbmbitspixel24\\wbmplanes1\\wbmwidthbytes8\\picw2\\pich1 " + dibHex + "}";
    const std::string result =
        "{\\result{\\pict\\dibitmap0\\wbmbitspixel24\\wbmplanes1\\wbmwidthbytes8\\picw2\\pich1 " + dibHex + "}}";
    const std::string ole("\x00\xAB\xFF", 3);
    struct Row {
        const char* name;
        FilterAnswer answer;
        std::string written;
        std::vector<std::string> asserts;
    } rows[] = {
        {"declined", {false, AttachmentInfo::AT_OLE_EMBEDDED, ole, dib}, "", {}},
        {"placeholder", {true, AttachmentInfo::AT_PLACEHOLDER, "", {}}, "\\objattph\\'20", {}},
        {"first OLE kind, no picture", {true, AttachmentInfo::AT_OLE_FIRST, ole, {}}, "{\\object\\objemb{\\*\\objdata 00abff}}", {}},
        {"embedded with picture", {true, AttachmentInfo::AT_OLE_EMBEDDED, ole, dib},
         "{\\object\\objemb{\\*\\objdata 00abff}" + result + "}", {}},
        {"picture", {true, AttachmentInfo::AT_OLE_PICTURE, "", dib}, pict, {}},
        {"picture without bitmap", {true, AttachmentInfo::AT_OLE_PICTURE, "", {}}, "", {"info.m_pDIBitmap@OldToRTF"}},
        {"linked", {true, AttachmentInfo::AT_OLE_LAST, "link", dib},
         "{\\object\\objlink{\\*\\objdata 6c696e6b}" + result + "}", {}},
        {"linked without stream", {true, AttachmentInfo::AT_OLE_LAST, "", {}}, "", {"info.pStm != NULL@OldToRTF"}},
        {"unknown kind with stream", {true, 11, ole, {}}, "", {}},
        {"picture kind of the importer", {true, AttachmentInfo::AT_DIB, ole, {}}, "", {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        FilterScript script;
        script.answers.push_back(r.answer);
        CRecordingLogSink log;
        LOGFONT lf = ArialTen();
        std::string doc = OldToRtf("a" + Cmd("A07") + "b", &lf, nullptr, ScriptedFilter, &script, &script);
        EXPECT_EQ(BodyOf(doc), "\\pard\\f0\\fs20\\cf1 a" + r.written + "b\\par }");
        EXPECT_EQ(log.AssertTexts(), r.asserts);
        EXPECT_EQ(script.commands, std::vector<std::string>{Cmd("A07")});
        // The writer released its reference on every stream it took over.
        for (IStream* p : script.streams) EXPECT_EQ(p->Release(), 0u);
    }

    // Without a filter nothing is written.
    EXPECT_EQ(BodyOf(Convert("a" + Cmd("A07") + "b")), "\\pard\\f0\\fs20\\cf1 ab\\par }");
}

TEST(OldToRTF, HexadecimalDataBlocks)
{
    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    CTestWriter writer(*out);
    writer.InitBuffer();
    std::vector<unsigned char> data(8193);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i);
    // 8192 bytes make one full block of 16384 digits, straight to the stream.
    writer.AddDataToBuffer(data.data(), 8192);
    EXPECT_EQ(writer.GetQuickBufferPosition(), 0u);
    // 8193 bytes: a full block and a final block of two digits in the quick buffer.
    writer.AddDataToBuffer(data.data(), 8193);
    EXPECT_EQ(writer.GetQuickBufferPosition(), 2u);
    writer.AddDataToBuffer(data.data(), 0);
    EXPECT_EQ(writer.GetQuickBufferPosition(), 2u);
}

TEST(OldToRTF, QuickBufferBoundaries)
{
    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    QuickBufferSize size(64);
    CTestWriter writer(*out);
    writer.InitBuffer();
    std::string block(64, 'x');
    writer.AddToBuffer(block.data(), 10);
    EXPECT_EQ(writer.GetQuickBufferPosition(), 10u);
    writer.AddToBuffer(block.data(), 53); // one less than the free space: copied
    EXPECT_EQ(writer.GetQuickBufferPosition(), 63u);
    writer.AddToBuffer('y'); // exactly the free space: flushed, then written directly
    EXPECT_EQ(writer.GetQuickBufferPosition(), 0u);
    writer.AddToBuffer(block.data(), 64); // the whole capacity never fits
    EXPECT_EQ(writer.GetQuickBufferPosition(), 0u);
    EXPECT_EQ(writer.FlushQuickBuffer(), 0);
}

TEST(OldToRTF, SmallQuickBuffersGiveTheSameDocument)
{
    // A 100 KB body with every kind of command.
    std::string text;
    for (int i = 0; text.size() < 100000; ++i) {
        text += "Paragraph " + std::to_string(i) + " with {braces} and \\ backslash\t";
        text += Cmd(i % 2 ? "F12JB:Times" : "F---:-") + "bold " + Cmd("LC050000-025200.");
        text += Cmd("CH:link" + S + "http://x/" + std::to_string(i)) + Cmd("CN:1." + S + S + "A" + S + S);
        if (i % 7 == 0) text += Cmd("PE");
        text += "\r\n";
    }
    LOGFONT lf = ArialTen();
    std::string reference;
    {
        QuickBufferSize size(1 << 20);
        reference = OldToRtf(text, &lf);
    }
    EXPECT_GT(reference.size(), text.size());
    // Around 256 free bytes the font words switch between being gathered in
    // the quick buffer and on the stack.
    for (DWORD n : {8192u, 4096u, 300u, 258u, 257u, 256u, 17u, 1u, 0u}) {
        SCOPED_TRACE(n);
        QuickBufferSize size(n);
        EXPECT_EQ(OldToRtf(text, &lf), reference);
    }
}

TEST(OldToRTF, FailingStreams)
{
    LOGFONT lf = ArialTen();
    const std::string body = "\\pard\\f0\\fs20\\cf1 Hi\\par }";
    {
        // Every write rejected: nothing arrives, and Convert still reports success.
        CFailingStream out(1);
        COldToRTF writer(out);
        CRecordingLogSink log;
        EXPECT_EQ(writer.Convert("Hi", &lf), S_OK);
        EXPECT_EQ(out.bytes, "");
        EXPECT_EQ(log.AssertTexts(), std::vector<std::string>{"SUCCEEDED(hr)@OldToRTF"});
    }
    {
        // The header rejected, the rest accepted: the tables are skipped and the
        // body is copied behind nothing.
        CFailingStream out(1, 1);
        COldToRTF writer(out);
        EXPECT_EQ(writer.Convert("Hi", &lf), S_OK);
        EXPECT_EQ(out.bytes, body);
    }
    {
        // The stylesheet rejected: header and tables are there, the body follows.
        CFailingStream out(4, 4);
        COldToRTF writer(out);
        EXPECT_EQ(writer.Convert("Hi", &lf), S_OK);
        std::string doc = DocumentAround(body);
        EXPECT_EQ(out.bytes, doc.substr(0, doc.find("{\\stylesheet")) + body);
    }
    {
        // An exception in the middle of the scan: E_FAIL and the caller's
        // stream untouched; what the filter handed over is not leaked.
        CFailingStream out(0);
        COldToRTF writer(out);
        writer.SetAttachmentFilter(
            [](int, const CString&, AttachmentInfo&, void*, void*) -> bool { throw std::runtime_error("host"); },
            nullptr, nullptr);
        EXPECT_EQ(writer.Convert(("a" + Cmd("A00") + "b").c_str(), &lf), E_FAIL);
        EXPECT_EQ(out.bytes, "");
    }
}

TEST(OldToRTF, ReplaceSpecSymbolsAndBackgroundColour)
{
    CString s("a\\{b}");
    CTestWriter::ReplaceSpecSymbols(s);
    EXPECT_EQ(s, "a\\\\\\{b\\}");
    CFailingStream out(0);
    COldToRTF writer(out);
    EXPECT_EQ(writer.GetBackgroundColor(), 16u);
    writer.SetBackgroundColor(3);
    EXPECT_EQ(writer.GetBackgroundColor(), 3u);
}

TEST(OldToRTF, SecondConvertOnOneObject)
{
    // One object serves one conversion: a second one releases the first private
    // stream only once, and its font numbers go on from the first conversion's.
    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    LOGFONT lf = ArialTen();
    COldToRTF writer(*out);
    const std::string text = Cmd("F---:Times") + "x";
    ASSERT_EQ(writer.Convert(text.c_str(), &lf), S_OK);
    const std::string first = StreamBytes(out);
    EXPECT_EQ(first, DocumentAround("\\pard\\f0\\fs20\\cf1 \\f1\\cf1 x\\par }", "{\\f1\\fcharset0\\fswiss Times;}"));
    ASSERT_EQ(writer.Convert(text.c_str(), &lf), S_OK);
    EXPECT_EQ(StreamBytes(out).substr(first.size()),
              DocumentAround("\\pard\\f0\\fs20\\cf1 \\f2\\cf1 x\\par }", "{\\f2\\fcharset0\\fswiss Times;}"));
}

TEST(OldToRTF, ExtremeBaseFontHeight)
{
    // The largest heights a caller can pass still give a well-formed size word.
    LOGFONT lf = ArialTen();
    lf.lfHeight = INT32_MIN;
    std::string doc = OldToRtf(Cmd("F---B:-") + "x", &lf);
    EXPECT_NE(doc.find("{\\stylesheet{\\f0\\fs3221225472 Normal;}}\\pard\\f0\\fs3221225472\\cf1 \\cf1\\b x"),
              std::string::npos);
}

// A font command written again gives the words its meaning and the state
// call for, however many other commands came between: with more distinct
// commands than the writer remembers, the second and third rounds of the
// same commands write the same RTF, and the first round differs only before
// its first text.
TEST(OldToRTF, ManyDistinctFontCommandsRepeated)
{
    std::string round;
    for (int k = 0; k < 100; ++k) {
        const std::string attributes = k % 3 == 0 ? "B" : k % 3 == 1 ? "IUp" : "";
        round += Cmd("F" + std::to_string(10 + k % 40) + static_cast<char>('A' + k % 16) + attributes + ":Face" +
                     std::to_string(k % 7)) + "x";
    }
    const std::string body = Convert(round + "|" + round + "|" + round + "|");
    const std::size_t first = body.find("\\pard\\f0\\fs20\\cf1 ");
    const std::size_t bar1 = body.find('|'), bar2 = body.find('|', bar1 + 1), bar3 = body.find('|', bar2 + 1);
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(bar3, std::string::npos);
    const std::string round1 = body.substr(first, bar1 - first), round2 = body.substr(bar1 + 1, bar2 - bar1 - 1),
                      round3 = body.substr(bar2 + 1, bar3 - bar2 - 1);
    EXPECT_EQ(round2, round3);
    EXPECT_EQ(round1.substr(round1.find('x')), round2.substr(round2.find('x')));
    EXPECT_NE(round2.find("\\f7\\fs22\\cf"), std::string::npos);
    EXPECT_NE(body.find("{\\f7\\fcharset0\\fswiss Face6;}"), std::string::npos);
}

// A font command met again is known by its bytes up to its 0x02, its slot
// by its first 16: two commands of every length around the 48 bytes looked
// at, differing only in a letter in the middle of their faces, or one face
// the other lengthened by a letter (the same bytes up to the shorter one's
// 0x02), met again far from the end of the text and near it, each switch
// to their own font, in both modes.
TEST(OldToRTF, FontCommandsDifferingInTheMiddleMetAgain)
{
    // Faces of up to 32 letters are read; attribute letters said again
    // lengthen the head past the look.
    for (const std::string attributes : {"", "BUIBUIBUIBUIBUIBUI"}) {
        for (std::size_t cbFace = 1; cbFace <= 32; ++cbFace) {
            std::string face(cbFace, 'f');
            face[cbFace / 2] = 'a';
            const std::string a = Cmd("F---" + attributes + ":" + face);
            face[cbFace / 2] = 'b';
            const std::string middle = Cmd("F---" + attributes + ":" + face);
            face[cbFace / 2] = 'a';
            const std::string lengthened = Cmd("F---" + attributes + ":" + face + "g");
            const std::string pad(60, 'p');
            for (const std::string& b : {middle, lengthened}) {
                if (b.size() > a.size() && cbFace >= 31) continue;  // a face keeps 31 letters
                for (bool bLossless : {false, true}) {
                    SCOPED_TRACE(attributes + " " + std::to_string(cbFace) + (b == middle ? "" : ", lengthened") +
                                 (bLossless ? ", lossless" : ""));
                    const std::string doc = OldToRtfInMode(a + "x" + b + "y" + pad + a + "x" + b + "y" + a + "z", bLossless);
                    EXPECT_NE(doc.find(" x\\f2 y" + pad + "\\f1 x\\f2 y\\f1 z\\par }"), std::string::npos) << doc;
                }
            }
        }
    }
}

// What one conversion learnt of its font commands is not carried into the
// next, whose tables start afresh.
TEST(OldToRTF, SecondConvertForgetsTheFirstsFontCommands)
{
    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    LOGFONT lf = ArialTen();
    COldToRTF writer(*out);
    ASSERT_EQ(writer.Convert((Cmd("F---:Times") + "x" + Cmd("F---:Courier") + "y").c_str(), &lf), S_OK);
    const std::string first = StreamBytes(out);
    ASSERT_EQ(writer.Convert((Cmd("F---:Courier") + "y").c_str(), &lf), S_OK);
    EXPECT_EQ(StreamBytes(out).substr(first.size()),
              DocumentAround("\\pard\\f0\\fs20\\cf1 \\f3\\cf1 y\\par }", "{\\f3\\fcharset0\\fswiss Courier;}"));
}

// A numbering command met again writes its bullet font's number as the first
// time and switches back to whatever font is in force then; a second
// conversion finds its bullet font afresh (the count of fonts runs on from
// the first conversion, so the Symbol font gets a new number).
TEST(OldToRTF, NumberingCommandsMetAgain)
{
    const std::string bullet = Cmd("CN:\xB7" + S + S + "q" + S + S + "Symbol");
    EXPECT_EQ(BodyOf(Convert(Cmd("F---:Times") + bullet + "x" + Cmd("F---:-") + bullet + "y" + bullet),
                     "{\\f1\\fcharset0\\fswiss Times;}{\\f2\\fcharset2\\fnil Symbol;}"),
              "\\pard\\f0\\fs20\\cf1 \\f1\\cf1 \\f2 \xB7 \\f1 x\\f0 \\f2 \xB7 \\f0 y\\f2 \xB7 \\f0 \\par }");

    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    LOGFONT lf = ArialTen();
    COldToRTF writer(*out);
    ASSERT_EQ(writer.Convert((Cmd("F---:Times") + bullet + "x").c_str(), &lf), S_OK);
    const std::size_t nFirst = StreamBytes(out).size();
    ASSERT_EQ(writer.Convert((bullet + "y").c_str(), &lf), S_OK);
    const std::string second = StreamBytes(out).substr(nFirst);
    EXPECT_NE(second.find("{\\f3\\fcharset2\\fnil Symbol;}"), std::string::npos) << second;
    EXPECT_NE(second.find("\\cf1 \\f3 \xB7 \\f0 y\\par }"), std::string::npos) << second;
}

// A font command too short to be one is reported each time it is read, the
// second time as the first.
TEST(OldToRTF, ShortFontCommandReportedEveryTime)
{
    for (const std::string& cmd : {Cmd("F"), Cmd("F12"), Cmd("F12-:")}) {
        SCOPED_TRACE(::testing::PrintToString(cmd));
        std::size_t nOnce = 0;
        {
            CRecordingLogSink log;
            Convert(cmd + "x");
            nOnce = log.AssertTexts().size();
        }
        CRecordingLogSink log;
        Convert(cmd + "x" + cmd + "y" + cmd);
        EXPECT_GT(nOnce, 0u);
        EXPECT_EQ(log.AssertTexts().size(), 3 * nOnce);
    }
}
