// Old-format text to RTF: the body block behind the quick buffer (growth past
// the room made from the text's length, the order of quick and direct blocks,
// one write to the output), the remembered layout commands, and the split of
// a hyperlink's fields in the lossless writer.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "old_to_rtf_helpers.h"
#include "test_rtf_to_old_helpers.h"
#include "test_util.h"

using namespace rtfconv_test;
using rtf_converter::COldToRTF;

namespace {

const std::string S = "\x03";
const std::string kStart = "\\pard\\f0\\fs20\\cf1 ";

// The protected building blocks and the quick-buffer size.
class CBodyWriter : public COldToRTF {
public:
    explicit CBodyWriter(IStream& out) : COldToRTF(out) {}
    using COldToRTF::AddToBuffer;
    using COldToRTF::FlushBuffer;
    using COldToRTF::GetQuickBufferPosition;
    using COldToRTF::InitBuffer;
    static DWORD QuickBufferSize() { return s_dwBufferSize; }
    static void SetQuickBufferSize(DWORD n) { s_dwBufferSize = n; }
};

struct QuickBufferSize {
    explicit QuickBufferSize(DWORD n) : m_old(CBodyWriter::QuickBufferSize()) { CBodyWriter::SetQuickBufferSize(n); }
    ~QuickBufferSize() { CBodyWriter::SetQuickBufferSize(m_old); }
    QuickBufferSize(const QuickBufferSize&) = delete;
    QuickBufferSize& operator=(const QuickBufferSize&) = delete;
    DWORD m_old;
};

std::string Convert(const std::string& text, bool bLossless, FilterScript* pScript = nullptr)
{
    long hr = -1;
    const std::string doc = OldToRtfInMode(text, bLossless, &hr, pScript);
    EXPECT_EQ(hr, S_OK);
    return doc;
}

std::string Repeated(const std::string& s, std::size_t n)
{
    std::string out;
    for (std::size_t i = 0; i < n; ++i) out += s;
    return out;
}

} // namespace

// Bodies far longer than their text (every byte escaped, a picture's digits)
// outgrow the room made from the text's length; at every quick-buffer size
// the document is the same, byte for byte.
TEST(OldToRTFBody, BodiesLongerThanTheirText)
{
    const std::string accents(300000, '\xE9');
    const std::string braces = Repeated("{}", 150000);
    struct Row {
        const char* name;
        std::string text;
        bool bLossless;
        std::string body;
    } rows[] = {
        {"every byte escaped", accents, true, Repeated("\\'e9", accents.size()) + "\\par }"},
        {"every special escaped", braces, false, Repeated("\\{\\}", braces.size() / 2) + "\\par }"},
        {"short text, empty body", "", false, "\\par }"},
    };
    for (const Row& row : rows) {
        for (DWORD cbQuick : {0u, 1u, 2u, 17u, 4096u, 8192u, 1u << 20}) {
            SCOPED_TRACE(std::string(row.name) + ", quick buffer " + std::to_string(cbQuick));
            QuickBufferSize size(cbQuick);
            EXPECT_EQ(Convert(row.text, row.bLossless), DocumentAround(kStart + row.body));
        }
    }
}

TEST(OldToRTFBody, PictureDigitsPastTheRoomOfTheText)
{
    FilterScript script;
    FilterAnswer answer;
    answer.aType = AttachmentInfo::AT_OLE_PICTURE;
    answer.packedDib = SmallDib(300, 200); // 180 KB of pixels, twice that of digits
    script.answers = {answer};
    const std::string doc = Convert("a" + Cmd("A00") + "b", false, &script);
    const std::string pixels = Hex(answer.packedDib.data() + sizeof(BITMAPINFOHEADER),
                                   answer.packedDib.size() - sizeof(BITMAPINFOHEADER));
    EXPECT_NE(doc.find(pixels + "}b\\par }"), std::string::npos);
    EXPECT_EQ(doc.substr(doc.size() - 8), "}b\\par }");
}

// Whatever the size of the body, the output gets the header, the three tables
// and then the whole body in one write.
TEST(OldToRTFBody, TheBodyInOneWrite)
{
    for (std::size_t cbText : {std::size_t(1), std::size_t(8191), std::size_t(8192), std::size_t(500000)}) {
        SCOPED_TRACE(cbText);
        CFailingStream out(0);
        COldToRTF writer(out);
        const LOGFONT lf = ArialTen();
        const std::string text(cbText, 'x');
        EXPECT_EQ(writer.Convert(text.c_str(), &lf), S_OK);
        EXPECT_EQ(out.nWrites, 5);
        EXPECT_EQ(out.bytes, DocumentAround(kStart + text + "\\par }"));
    }
}

// Blocks taken into the quick buffer and blocks written past it keep their
// order; bytes given before InitBuffer go nowhere, with a report.
TEST(OldToRTFBody, QuickAndDirectBlocksInOrder)
{
    QuickBufferSize size(8);
    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    CBodyWriter writer(*out);
    {
        CRecordingLogSink log;
        writer.AddToBuffer("lost", 4);
        EXPECT_EQ(log.AssertTexts().size(), 1u);
    }
    writer.InitBuffer();
    std::string expected;
    // Into the quick buffer, past it, and whole blocks straight to the body.
    const char* const blocks[] = {"ab", "cdefg", "h", "0123456789", "ij", "klmnopq", "rstuvwx", "y", "z"};
    for (const char* block : blocks) {
        writer.AddToBuffer(block, static_cast<int>(std::strlen(block)));
        expected += block;
    }
    EXPECT_EQ(writer.GetQuickBufferPosition(), 1u);
    writer.FlushBuffer();
    const std::string doc = StreamBytes(out);
    ASSERT_GE(doc.size(), expected.size());
    EXPECT_EQ(doc.substr(doc.size() - expected.size()), expected);
    EXPECT_EQ(doc.find("lost"), std::string::npos);
}

// A valid layout command's words are remembered by its text: many different
// commands, each met several times in one document, give what each gives in
// a document of its own; an invalid one reports every time it is met.
TEST(OldToRTFBody, RememberedLayoutCommands)
{
    std::vector<std::string> commands;
    for (int i = 0; i < 1500; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "L%c%03d%03d%s%03d.", "LCR"[i % 3], i % 1000, (i * 7) % 1000,
                      i % 4 == 0 ? "" : i % 2 ? "+123" : "-045", (i * 13) % 1000);
        commands.push_back(Cmd(std::string(text) + (i % 5 ? "" : "150-")));
    }
    std::string text, body;
    for (int round = 0; round < 3; ++round) {
        for (std::size_t k = 0; k < commands.size(); ++k) {
            const std::string& cmd = commands[(k * 7 + round * 11) % commands.size()];
            const std::string alone = Convert(cmd + "x", false);
            const std::string aloneBody = alone.substr(DocumentAround("").size());
            text += cmd + "x";
            // less the paragraph's start and the final "\par }"
            body += aloneBody.substr(kStart.size(), aloneBody.size() - kStart.size() - 6);
        }
    }
    EXPECT_EQ(Convert(text, false), DocumentAround(kStart + body + "\\par }"));

    const std::string invalid = Cmd("LC05");
    CRecordingLogSink once;
    Convert(invalid, false);
    const std::size_t nReports = once.AssertTexts().size();
    EXPECT_GT(nReports, 0u);
    CRecordingLogSink thrice;
    Convert(invalid + invalid + invalid, false);
    EXPECT_EQ(thrice.AssertTexts().size(), 3 * nReports);
}

// The lossless writer takes a hyperlink's display text and target from the
// first two fields; the text position after it advances by the target's
// escaped length, which the attachment filter sees.
TEST(OldToRTFBody, HyperlinkFieldsInTheLosslessWriter)
{
    struct Row {
        const char* name;
        std::string link;
        std::string field;
        int nAdvance;
    } rows[] = {
        {"no target", Cmd("CH:shown"), "{\\field{\\*\\fldinst{HYPERLINK \"\"}}{\\fldrslt{\\ul shown}}}", 0},
        {"display and target", Cmd("CH:shown" + S + "http://x/"),
         "{\\field{\\*\\fldinst{HYPERLINK \"http://x/\"}}{\\fldrslt{\\ul shown}}}", 9},
        {"a third field is left out", Cmd("CH:shown" + S + "t" + S + "more"),
         "{\\field{\\*\\fldinst{HYPERLINK \"t\"}}{\\fldrslt{\\ul shown}}}", 1},
        {"an empty display", Cmd("CH:" + S + "t"), "{\\field{\\*\\fldinst{HYPERLINK \"t\"}}{\\fldrslt{\\ul }}}", 1},
        {"specials in the target", Cmd("CH:s" + S + "a{b}\\c"),
         "{\\field{\\*\\fldinst{HYPERLINK \"a\\{b\\}\\\\c\"}}{\\fldrslt{\\ul s}}}", 9},
        {"a font command in the display", Cmd("CH:" + Cmd("F---I:-") + "s" + S + "t"),
         "{\\field{\\*\\fldinst{HYPERLINK \"t\"}}{\\fldrslt{\\ul \\cf1\\ul0\\i s}}}", 1},
        // Fields longer than the blocks the scans take, their separators,
        // commands and specials well inside.
        {"long fields", Cmd("CH:a display longer than a block " + Cmd("F---I:-") + "s" + S + "http://example.org/a/long/path{x}/\\y"),
         "{\\field{\\*\\fldinst{HYPERLINK \"http://example.org/a/long/path\\{x\\}/\\\\y\"}}"
         "{\\fldrslt{\\ul a display longer than a block \\cf1\\ul0\\i s}}}",
         39},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        FilterScript script;
        script.answers = {FilterAnswer{}};
        const std::string doc = Convert("ab" + row.link + Cmd("A00") + "c", true, &script);
        EXPECT_EQ(doc, DocumentAround(kStart + "ab" + row.field + "\\objattph\\'20c\\par }"));
        ASSERT_EQ(script.positions.size(), 1u);
        EXPECT_EQ(script.positions[0], 2 + row.nAdvance);
    }
}
