// The control word read from the bytes a source offers, against the same word
// read byte by byte; the readers' read position; ReadAll.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "platform/ObjBase.h"
#include "rtfconverter/BaseRTFParser.h"
#include "rtfconverter/KeywordIndex.h"
#include "rtfconverter/RTFToOld.h"
#include "rtfconverter/ReaderPlumbing.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"
#include "test_util.h"

using namespace rtf_converter;

namespace {

// Records characters, keywords as "\kw(param)" and groups as "{" "}". Its
// source offers the bytes ahead in windows of a chosen size (0: none), so a
// control word can be made to straddle the window's end. With `refuseFirst`
// every keyword is refused the first time it is met, as a full output
// buffer refuses it; a refused keyword leaves no trace.
class CWindowReader : public CBaseRTFParser {
public:
    CWindowReader(const std::string& rtf, std::size_t cbWindow, bool refuseFirst)
        : m_rtf(rtf), m_cbWindow(cbWindow), m_refuseFirst(refuseFirst)
    {
    }

    std::string Run()
    {
        for (bool bMore = true; bMore && m_cParse < 10000; ++m_cParse)
            Parse(bMore);
        return m_events + "@" + std::to_string(m_pos);
    }

protected:
    bool InitBuffer() override { return true; }
    long Get(char& ch) override
    {
        if (m_pos >= m_rtf.size()) return -1;
        ch = m_rtf[m_pos++];
        return ch == '\0' ? -1 : 0;
    }
    void MarkBacktrack(int n) override { m_mark = m_pos - static_cast<std::size_t>(n); }
    void Backtrack(int n) override { m_pos = n == -1 ? m_mark : m_pos - static_cast<std::size_t>(n); }
    const char* RunAhead(std::size_t& cb) const override
    {
        cb = std::min(m_cbWindow, m_rtf.size() - m_pos);
        return m_cbWindow ? m_rtf.data() + m_pos : nullptr;
    }
    void SkipAhead(std::size_t cb) override { m_pos += cb; }
    bool ParseChar(char ch) override
    {
        m_events += ch;
        return true;
    }
    bool TranslateKeyword(const char* szKeyword, int param) override
    {
        if (m_refuseFirst && m_refusedAt != m_pos) {
            m_refusedAt = m_pos;
            return false;
        }
        m_events += "\\";
        m_events += szKeyword;
        if (param != noParam) m_events += "(" + std::to_string(param) + ")";
        m_events += "@" + std::to_string(m_pos);  // where the word left the read position
        return CBaseRTFParser::TranslateKeyword(szKeyword, param);
    }
    RTFCONV_TEST_RECORD_GROUPS(m_events)

    RTFCONV_TEST_BASE_PARSER_HANDLERS

private:
    std::string m_rtf;
    std::size_t m_cbWindow;
    bool m_refuseFirst;
    std::size_t m_pos = 0, m_mark = 0;
    std::size_t m_refusedAt = std::string::npos;
    int m_cParse = 0;
    std::string m_events;
};

std::string Events(const std::string& rtf, std::size_t cbWindow, bool refuseFirst = false)
{
    return CWindowReader(rtf, cbWindow, refuseFirst).Run();
}

// Every shape of control word the tokenizer knows, its quirks included.
const std::string kWords[] = {
    "{\\par x}",
    "{\\fs24 x}",
    "{\\fs24x}",
    "{\\li-360 x}",
    "{\\li-360x\\ri-0}",
    "{\\b\\i x}",
    "{\\fs- x}",
    "{\\fs-x}",
    "{\\fs-}",
    "{\\fs4294967297 }",
    "{\\fs2147483647 x}",
    "{\\fs-2147483649x}",
    "{\\fs99999999999999999999 x}",
    "{\\par}",
    "{\\~\\-\\_x\\*\\ud}",
    "{\\\\\\{\\}}",
    "{a\\\rb\\\nc}",
    "{\\'41\\'4g\\'zz\\'e9}",
    "{\\abcdefghijklmnopqrstuvwxyzabcdefghi}",
    "{\\abcdefghijklmnopqrstuvwxyzabcd}",
    "{\\abcdefghijklmnopqrstuvwxyzabc}",
    "{\\abcdefghijklmnopqrstuvwxyzab1 }",
    "{\\pa",
    "{\\fs12",
    "{\\fs-",
    "{a\\",
    std::string("{\\par\0x}", 8),
    std::string("{\\fs12\0x}", 9),
    std::string("{\\fs-\0x}", 8),
    std::string("{\\\0x}", 5),
    "{\\rtf1\\ansi{\\fonttbl{\\f0\\fswiss Arial;}}\\pard\\plain\\f0\\fs20 Hello\\par\r\n}",
};

} // namespace

TEST(KeywordFastPath, EveryWindowGivesTheWordsOfTheByteByBytePath)
{
    for (const std::string& rtf : kWords) {
        const std::string expected = Events(rtf, 0);
        for (std::size_t cbWindow = 1; cbWindow <= rtf.size() + 1; ++cbWindow)
            EXPECT_EQ(Events(rtf, cbWindow), expected) << rtf << " window " << cbWindow;
    }
}

TEST(KeywordFastPath, PinnedOutcomes)
{
    // What both paths give, so that a change to both is seen too.
    const std::pair<std::string, std::string> rows[] = {
        {"{\\fs24x}", "{\\fs(24)@6x}@8"},
        {"{\\li-360 x}", "{\\li(-360)@9x}@11"},
        {"{\\fs-x}", "{\\fs@5x}@7"},
        {"{\\fs2147483647 x}", "{\\fs@14 x}@17"},
        {"{\\\\\\{\\}}", "{\\{}}@8"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Events(row.first, 0), row.second) << row.first;
        EXPECT_EQ(Events(row.first, 64), row.second) << row.first;
    }
}

TEST(KeywordFastPath, RefusedKeywordIsReadAgainFromItsBackslash)
{
    for (const std::string& rtf : kWords) {
        const std::string expected = Events(rtf, 0);
        EXPECT_EQ(Events(rtf, 0, true), expected) << rtf;
        for (std::size_t cbWindow : {std::size_t(1), std::size_t(3), std::size_t(7), rtf.size()})
            EXPECT_EQ(Events(rtf, cbWindow, true), expected) << rtf << " window " << cbWindow;
    }
}

namespace {

std::vector<std::string> CorpusDocuments()
{
    std::vector<std::string> names;
    if (DIR* dir = opendir(RTFCONV_CORPUS_DIR)) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    std::vector<std::string> documents;
    for (const std::string& name : names)
        documents.push_back(rtfconv_test::ReadFileBytes(std::string(RTFCONV_CORPUS_DIR) + "/" + name));
    return documents;
}

const unsigned char* Bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// The readers with a source that offers nothing: the byte-by-byte protocol.
template <class TReader>
class CNoRuns : public TReader {
public:
    CNoRuns(const std::string& rtf, const unsigned long& cb) : TReader(Bytes(rtf), cb) {}

protected:
    const char* RunAhead(std::size_t& cb) const override
    {
        cb = 0;
        return nullptr;
    }
};

template <class TReader>
std::string ReadText(TReader& reader, std::size_t cbBuffer)
{
    std::string text;
    const ReadResult result = ReadAll(reader, [&](const char* p, std::size_t cb) { text.append(p, cb); }, cbBuffer);
    return result == ReadResult::complete ? text : text + "<stopped>";
}

template <class TReader>
void ExpectSameTextWithoutRuns(const std::string& rtf, std::size_t cbBuffer)
{
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    TReader withRuns(Bytes(rtf), cb);
    CNoRuns<TReader> withoutRuns(rtf, cb);
    EXPECT_EQ(ReadText(withRuns, cbBuffer), ReadText(withoutRuns, cbBuffer)) << rtf.substr(0, 80);
    EXPECT_EQ(withRuns.BytesConsumed(), withoutRuns.BytesConsumed());
}

} // namespace

TEST(KeywordFastPath, ReadersGiveTheSameTextWhenTheSourceOffersNoRuns)
{
    for (const std::string& rtf : CorpusDocuments()) {
        for (std::size_t cbBuffer : {std::size_t(4), std::size_t(61), std::size_t(65536)}) {
            ExpectSameTextWithoutRuns<CBytePtrRTFToPlainTextPtrParser>(rtf, cbBuffer);
            ExpectSameTextWithoutRuns<CBytePtrRTFToUTF8PtrParser>(rtf, cbBuffer);
        }
    }
}

TEST(KeywordFastPath, RunsOfEveryKindGiveTheTextOfTheByteByBytePath)
{
    const std::string filler(40, 'x');
    const std::string rows[] = {
        // Reserved bytes at the edges of 16-byte blocks.
        "{\\rtf1 \x01" + filler + "\x17" + filler.substr(0, 14) + "\x02\x03" + filler + "\x01}",
        // 8-bit bytes inside long runs of ASCII, in the document's page and
        // in a symbol font.
        "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}{\\f1\\fcharset2 Symbol;}}\\f0 " + filler + "\xe9t\xe9" + filler +
            "\x7f\x80 {\\f1 " + filler + "abc}\\par}",
        // Lead and trail bytes of a double-byte page.
        "{\\rtf1\\ansi\\ansicpg932 " + filler + "\x82\xa0" + filler + "\x82}",
        // Skipped destinations and hex data in lines.
        "{\\rtf1 a{\\*\\unknown " + filler + "\r\n" + filler + "}{\\pict\\pngblip 0102\r\n0304\n\r0506}b\\par}",
        // Runs of one byte between words, after a \uN fallback and a
        // paragraph number, and in numbering texts: a stock reader's loop
        // hands each run whole, first byte and all, to ParseRun.
        "{\\rtf1\\pard{\\*\\pn\\pnlvl2\\pnstart3\\pndec{\\pntxtb [}{\\pntxta ]}}a\\b b\\b0 c\\u233 de\\'41f\r\ng"
        "{\\pntext h}i\\par\\pard j}",
        // A \* left pending by a group's end hides the rest of the group
        // of the next word in no table; one a known word follows does not.
        "{\\rtf1 a{\\*}{b\\zzz c}d{\\*\\b e}f{\\*\\yyy g}h\\par}",
    };
    for (const std::string& rtf : rows)
        for (std::size_t cbBuffer = 1; cbBuffer <= rtf.size() + 4; cbBuffer += 3) {
            ExpectSameTextWithoutRuns<CBytePtrRTFToPlainTextPtrParser>(rtf, cbBuffer);
            ExpectSameTextWithoutRuns<CBytePtrRTFToUTF8PtrParser>(rtf, cbBuffer);
        }

    CBytePtrRTFToPlainTextPtrParser text(Bytes(rows[0]), static_cast<unsigned long>(rows[0].size()));
    EXPECT_EQ(ReadText(text, 64), " " + filler + " " + filler.substr(0, 14) + "  " + filler + " ");
    CBytePtrRTFToPlainTextPtrParser optional(Bytes(rows[5]), static_cast<unsigned long>(rows[5].size()));
    EXPECT_EQ(ReadText(optional, 64), "abdefh\r");
    CBytePtrRTFToUTF8PtrParser utf8(Bytes(rows[1]), static_cast<unsigned long>(rows[1].size()));
    // In the symbol font x is a xi, a b c are alpha beta chi.
    std::string xis;
    for (std::size_t i = 0; i < filler.size(); ++i)
        xis += "\xCE\xBE";
    EXPECT_EQ(ReadText(utf8, 64).substr(filler.size()),
              "\xC3\xA9t\xC3\xA9" + filler + "\xE2\x82\xAC " + xis + "\xCE\xB1\xCE\xB2\xCF\x87\n");
}

namespace {

// The offsets BytesConsumed gives after each Read with a buffer of cbBuffer.
template <class TReader>
std::vector<std::size_t> ConsumedAfterEachRead(TReader& reader, std::size_t cbBuffer)
{
    std::vector<char> buffer(cbBuffer);
    std::vector<std::size_t> consumed;
    for (bool bMore = true; bMore && consumed.size() < 1000;) {
        reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        consumed.push_back(reader.BytesConsumed());
    }
    return consumed;
}

IStream* StreamOf(const std::string& bytes)
{
    IStream* pStream = nullptr;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &pStream), S_OK);
    pStream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
    LARGE_INTEGER zero{};
    pStream->Seek(zero, STREAM_SEEK_SET, nullptr);
    return pStream;
}

} // namespace

TEST(BytesConsumed, GrowsWithEachReadAndStopsWhereTheDocumentEnds)
{
    // 20 bytes of document, then bytes no reader reads.
    const std::string rtf = "{\\rtf1 Hello, world}trailing";
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    // "Hell" ends at byte 11, "o, w" at 15, "orld" at 19, and the same call
    // reads the closing brace; the UTF-8 text's last newline needs a call of
    // its own.
    CBytePtrRTFToPlainTextPtrParser text(Bytes(rtf), cb);
    EXPECT_EQ(ConsumedAfterEachRead(text, 4), (std::vector<std::size_t>{11, 15, 20}));
    CBytePtrRTFToUTF8PtrParser utf8(Bytes(rtf), cb);
    EXPECT_EQ(ConsumedAfterEachRead(utf8, 4), (std::vector<std::size_t>{11, 15, 20, 20}));
    CRTFPtrImport old(rtf.c_str());
    EXPECT_EQ(ConsumedAfterEachRead(old, 65536), std::vector<std::size_t>{20});

    // The stream source tells it too, though it reads ahead in blocks.
    IStream* pStream = StreamOf(rtf);
    {
        CRTFStreamImport stream(pStream);
        EXPECT_EQ(ConsumedAfterEachRead(stream, 65536), std::vector<std::size_t>{20});
    }
    pStream->Release();
}

TEST(BytesConsumed, ANulEndsTheTextAndCountsAsRead)
{
    const std::string rtf("{\\rtf1 ab\0cd}", 13);
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    CBytePtrRTFToPlainTextPtrParser text(Bytes(rtf), cb);
    EXPECT_EQ(ReadText(text, 64), "ab");
    EXPECT_EQ(text.BytesConsumed(), 10u);
    // The UTF-8 reader passes over a byte-order mark before the RTF.
    const std::string withBom = "\xEF\xBB\xBF{\\rtf1 ab}";
    CBytePtrRTFToUTF8PtrParser utf8(Bytes(withBom), static_cast<unsigned long>(withBom.size()));
    EXPECT_EQ(utf8.BytesConsumed(), 3u);
    EXPECT_EQ(ReadText(utf8, 64), "ab\n");
    EXPECT_EQ(utf8.BytesConsumed(), withBom.size());
}

namespace {

// Old-format text without its markup commands (0x01 up to 0x02).
std::string WithoutCommands(const std::string& old)
{
    std::string text;
    bool bInCommand = false;
    for (char ch : old) {
        if (ch == '\x01' || ch == '\x02')
            bInCommand = ch == '\x01';
        else if (!bInCommand)
            text += ch;
    }
    return text;
}

} // namespace

TEST(ReadAll, EveryBufferSizeGivesTheSameText)
{
    const std::string rtf =
        "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}{\\pntext 1.\\tab}{\\*\\pn\\pnlvlbody\\pndec}"
        "\\pard Caf\\'e9 \\u8364? {\\pict\\pngblip 0102\r\n0304}au revoir\\par}";
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    CBytePtrRTFToPlainTextPtrParser text0(Bytes(rtf), cb);
    CBytePtrRTFToUTF8PtrParser utf80(Bytes(rtf), cb);
    CRTFPtrImport old0(rtf.c_str());
    const std::string expectedText = ReadText(text0, 65536);
    const std::string expectedUtf8 = ReadText(utf80, 65536);
    const std::string expectedOld = ReadText(old0, 65536);
    EXPECT_NE(WithoutCommands(expectedOld).find("au revoir"), std::string::npos);
    EXPECT_NE(expectedText.find("au revoir"), std::string::npos);
    EXPECT_NE(expectedUtf8.find("Caf\xC3\xA9 \xE2\x82\xAC"), std::string::npos);
    for (std::size_t cbBuffer = 1; cbBuffer <= rtf.size(); ++cbBuffer) {
        CBytePtrRTFToPlainTextPtrParser text(Bytes(rtf), cb);
        EXPECT_EQ(ReadText(text, cbBuffer), expectedText) << cbBuffer;
        CBytePtrRTFToUTF8PtrParser utf8(Bytes(rtf), cb);
        EXPECT_EQ(ReadText(utf8, cbBuffer), expectedUtf8) << cbBuffer;
        // Every buffer of old-format text begins with the re-sent commands:
        // the characters between the commands are compared.
        CRTFPtrImport old(rtf.c_str());
        EXPECT_EQ(WithoutCommands(ReadText(old, cbBuffer)), WithoutCommands(expectedOld)) << cbBuffer;
        EXPECT_EQ(old.BytesConsumed(), old0.BytesConsumed()) << cbBuffer;
    }
}

namespace {

// A reader that never moves: it writes what its buffer takes of a piece that
// never fits, or nothing at all.
struct CStuckReader {
    bool bWritesCommands = false;  // as the old-format readers re-send theirs
    long cbReported = 0;           // > 0: reports this many bytes whatever it wrote
    int cCalls = 0;
    std::size_t cbLargest = 0;
    long Read(char* pBegin, char* pEnd, bool& bMore)
    {
        ++cCalls;
        cbLargest = std::max(cbLargest, static_cast<std::size_t>(pEnd - pBegin));
        bMore = true;
        if (cbReported > 0)
            return cbReported;
        return bWritesCommands ? 1 : 0;
    }
    std::size_t BytesConsumed() const { return 0; }
};

// ReadAll knows the old-format readers by their base class.
class CResendingReader : public CRTFPtrImport {
public:
    CResendingReader() : CRTFPtrImport("") {}
    long Read(char* pBegin, char* pEnd, bool& bMore) { return stuck.Read(pBegin, pEnd, bMore); }
    std::size_t BytesConsumed() const { return 0; }

    CStuckReader stuck;
};

} // namespace

TEST(ReadAll, AReaderThatCannotProgressIsStoppedAt16MiB)
{
    CStuckReader silent;
    std::size_t cbHanded = 0;
    EXPECT_EQ(ReadAll(silent, [&](const char*, std::size_t cb) { cbHanded += cb; }, 1000), ReadResult::stalled);
    EXPECT_EQ(silent.cbLargest, cbLargestReadBuffer);
    EXPECT_EQ(cbHanded, 0u);

    // An old-format reader that writes its re-sent commands and nothing more
    // makes no progress either.
    CResendingReader resending;
    resending.stuck.bWritesCommands = true;
    EXPECT_EQ(ReadAll(resending, [&](const char*, std::size_t cb) { cbHanded += cb; }, 1 << 20), ReadResult::stalled);
    EXPECT_EQ(resending.stuck.cCalls, 5);  // 1, 2, 4, 8 and 16 MiB
    EXPECT_EQ(cbHanded, 5u);

    CStuckReader overrunning;
    overrunning.cbReported = 65;
    EXPECT_EQ(ReadAll(overrunning, [](const char*, std::size_t) {}, 64), ReadResult::overrun);
    EXPECT_EQ(overrunning.cCalls, 1);
}

namespace {

// The readers with a source that offers at most cbWindow bytes at a time, so
// that a picture, a hidden run or a control word meets the offer's end at
// every offset.
template <class TReader>
class CNarrowWindow : public TReader {
public:
    CNarrowWindow(const std::string& rtf, std::size_t cbWindow)
        : TReader(Bytes(rtf), static_cast<unsigned long>(rtf.size())), m_cbWindow(cbWindow)
    {
    }

protected:
    const char* RunAhead(std::size_t& cb) const override
    {
        const char* p = TReader::RunAhead(cb);
        cb = std::min(cb, m_cbWindow);
        return p;
    }

private:
    std::size_t m_cbWindow;
};

// Dropped bytes in lines: picture data, a destination nobody knows, hidden
// text; a NUL inside them ends the input.
const std::string kDroppedRows[] = {
    "{\\rtf1 a{\\pict\\pngblip 0102\r\n0304\n\r\n0506\r\n}b\\par}",
    "{\\rtf1 a{\\*\\unknown x\r\ny\\par z{\\b w}\r\n}b{\\*\\other\r\n\r\n}c}",
    "{\\rtf1 a{\\v hidden\r\ntext\\par more}b\\par}",
    std::string("{\\rtf1 a{\\pict 0102\r\n03\0 04}b}", 31),
    "{\\rtf1 a{\\info{\\title t\r\nu}}{\\stylesheet{\\s1 x\r\n;}}b}",
};

} // namespace

TEST(DroppedBytes, EveryWindowAndBufferGivesTheTextOfTheByteByBytePath)
{
    for (const std::string& rtf : kDroppedRows) {
        const unsigned long cb = static_cast<unsigned long>(rtf.size());
        for (std::size_t cbBuffer : {std::size_t(1), std::size_t(2), std::size_t(7), std::size_t(64)}) {
            CNoRuns<CBytePtrRTFToPlainTextPtrParser> textRef(rtf, cb);
            CNoRuns<CBytePtrRTFToUTF8PtrParser> utf8Ref(rtf, cb);
            const std::string expectedText = ReadText(textRef, cbBuffer);
            const std::string expectedUtf8 = ReadText(utf8Ref, cbBuffer);
            for (std::size_t cbWindow = 1; cbWindow <= rtf.size(); ++cbWindow) {
                CNarrowWindow<CBytePtrRTFToPlainTextPtrParser> text(rtf, cbWindow);
                EXPECT_EQ(ReadText(text, cbBuffer), expectedText) << rtf << " window " << cbWindow;
                EXPECT_EQ(text.BytesConsumed(), textRef.BytesConsumed()) << rtf << " window " << cbWindow;
                CNarrowWindow<CBytePtrRTFToUTF8PtrParser> utf8(rtf, cbWindow);
                EXPECT_EQ(ReadText(utf8, cbBuffer), expectedUtf8) << rtf << " window " << cbWindow;
            }
        }
    }
}

TEST(DroppedBytes, PinnedText)
{
    // What both paths give, so that a change to both is seen too.
    const std::pair<std::string, std::string> rows[] = {
        {kDroppedRows[0], "ab\r"},
        {kDroppedRows[1], "abc"},
        {kDroppedRows[3], "a"},
        {kDroppedRows[4], "ab"},
    };
    for (const auto& row : rows) {
        CBytePtrRTFToPlainTextPtrParser text(Bytes(row.first), static_cast<unsigned long>(row.first.size()));
        EXPECT_EQ(ReadText(text, 64), row.second) << row.first;
    }
    // The NUL inside the picture is where the reading stopped.
    CBytePtrRTFToPlainTextPtrParser text(Bytes(kDroppedRows[3]), static_cast<unsigned long>(kDroppedRows[3].size()));
    (void)ReadText(text, 64);
    EXPECT_EQ(text.BytesConsumed(), kDroppedRows[3].find('\0') + 1);
}

TEST(ParseLoop, NothingIsReadBeforeTheFirstGroupOrAfterTheLastOne)
{
    // The document must open with '{' as its first byte; the loop stops
    // after any other first byte, and after the outermost '}'.
    const std::pair<std::string, std::size_t> rows[] = {
        {"\r\n{\\rtf1 x}", 1},
        {"x{\\rtf1 y}", 1},
        {"{a}\r\n{b}", 3},
        {"{a}}}", 3},
        {"{\\rtf1 {\\b a}\r\n}\r\n", 16},
    };
    for (const auto& row : rows) {
        for (std::size_t cbWindow : {std::size_t(1), std::size_t(2), row.first.size()}) {
            CNarrowWindow<CBytePtrRTFToPlainTextPtrParser> text(row.first, cbWindow);
            (void)ReadText(text, 64);
            EXPECT_EQ(text.BytesConsumed(), row.second) << row.first << " window " << cbWindow;
        }
    }
}

namespace {

// Hands the core another word than the one it read: its own spelling of a
// paragraph mark, and a tab for \par. The core must look up the word it is
// given, not the one the tokenizer read.
class CRespellingReader : public CBytePtrRTFToPlainTextPtrParser {
public:
    CRespellingReader(const std::string& rtf)
        : CBytePtrRTFToPlainTextPtrParser(Bytes(rtf), static_cast<unsigned long>(rtf.size()))
    {
    }

protected:
    bool TranslateKeyword(const char* szKeyword, int param) override
    {
        const std::string word = szKeyword;
        if (word == "paragraph")
            return CBytePtrRTFToPlainTextPtrParser::TranslateKeyword("par", param);
        if (word == "par")
            return CBytePtrRTFToPlainTextPtrParser::TranslateKeyword("tab", param);
        // Reads the word right after it first, then has the core take this
        // one as it was given (the tokenizer's buffer).
        std::size_t cbAhead = 0;
        const char* pAhead = RunAhead(cbAhead);
        char ch = 0;
        if (word == "line" && cbAhead > 0 && pAhead[0] == '\\') {
            if (Get(ch) < 0 || !ParseKeyword())
                return false;
            return CBytePtrRTFToPlainTextPtrParser::TranslateKeyword(szKeyword, param);
        }
        // A copy of the word: the same word at another address.
        return CBytePtrRTFToPlainTextPtrParser::TranslateKeyword(word.c_str(), param);
    }
};

} // namespace

TEST(KeywordLookup, TheCoreLooksUpTheWordItIsGiven)
{
    const std::string rtf = "{\\rtf1 a\\paragraph b\\par c\\line d\\'41\\tab e}";
    for (std::size_t cbBuffer : {std::size_t(1), std::size_t(64)}) {
        CRespellingReader reader(rtf);
        EXPECT_EQ(ReadText(reader, cbBuffer), "a\rb\tc\nd\x41\te") << cbBuffer;
    }
    // A word read inside another's handler: each is looked up as itself.
    const std::string nestedRtf = "{\\rtf1 a\\line\\tab b\\line\\line\\qc c}";
    CRespellingReader nested(nestedRtf);
    EXPECT_EQ(ReadText(nested, 64), "a\t\nb\n\nc");
}

namespace {

// Reaches the core's keyword table; never instantiated.
class CTestTable : public CBaseRTFParser {
public:
    static const CKeywordIndex& Index() { return KeywordIndex(); }
    // The core's lookup, first look and all, filled as the core fills it.
    static CKeywordLookup Lookup()
    {
        CKeywordLookup lookup;
        for (int row = 0; row < cCmds; ++row)
            lookup.Add(s_Cmds[row].szKeyword, row);
        return lookup;
    }
    static int FindLinear(const char* szKeyword)
    {
        for (int row = 0; row < cCmds; ++row)
            if (std::strcmp(s_Cmds[row].szKeyword, szKeyword) == 0)
                return row;
        return -1;
    }
};

} // namespace

TEST(KeywordLookup, KeysMadeFromScannedBytesFindWhatTheTextFinds)
{
    // Words of every length around the eight bytes a key holds, in and out
    // of the table, differing from a word in it only past the eighth byte,
    // only in length, or only in case.
    const char* const words[] = {"b", "f", "fs", "pn", "pnlvl", "pnlvlblt", "pnlvlblx", "pnlvlb", "pnlvlbltt",
                                 "stylesheet", "stylesheex", "stylesheets", "colortbl", "colortb", "COLORTBL",
                                 "'", "*", ";", "x", "abcdefghijklmnopqrstuvwxyzabcd"};
    const CKeywordIndex& index = CTestTable::Index();
    const CKeywordLookup lookup = CTestTable::Lookup();
    for (const char* word : words) {
        const std::size_t cch = std::strlen(word);
        // The scanner's buffer: the word, its NUL, then bytes of the input.
        char padded[40];
        std::memset(padded, 'q', sizeof padded);
        std::memcpy(padded, word, cch + 1);
        std::uint64_t first8 = 0;
        std::memcpy(&first8, padded, sizeof first8);
        const KeywordKey key{padded, cch, KeywordKey::HeadOf(first8, cch)};
        EXPECT_EQ(index.Find(key), index.Find(word)) << word;
        EXPECT_EQ(index.Find(key), CTestTable::FindLinear(word)) << word;
        EXPECT_EQ(lookup.FindTokenWord(key), CTestTable::FindLinear(word)) << word;
    }
}

TEST(KeywordLookup, WordsSharingAFirstLookSlotAreFoundThroughTheIndex)
{
    // Three words whose keys fall on one slot of the first look: two in the
    // table and one not, found by a search that stops at the first slot
    // three words share.
    std::vector<std::string> names;
    std::vector<std::vector<std::size_t>> bySlot(4096);
    std::vector<std::size_t> same;
    for (std::size_t i = 0; same.empty() && i < 100000; ++i) {
        names.push_back("w" + std::to_string(i));
        std::vector<std::size_t>& slot = bySlot[KeywordKey::HashBits(KeywordKey::FromText(names.back().c_str()), 12)];
        slot.push_back(i);
        if (slot.size() == 3)
            same = slot;
    }
    ASSERT_EQ(same.size(), 3u);
    CKeywordLookup lookup;
    lookup.Add(names[same[0]].c_str(), 7);
    lookup.Add(names[same[1]].c_str(), 9);
    lookup.Add(names[same[0]].c_str(), 8);  // entered again: keeps 7
    EXPECT_EQ(lookup.FindTokenWord(KeywordKey::FromText(names[same[0]].c_str())), 7);
    EXPECT_EQ(lookup.FindTokenWord(KeywordKey::FromText(names[same[1]].c_str())), 9);
    EXPECT_EQ(lookup.FindTokenWord(KeywordKey::FromText(names[same[2]].c_str())), -1);
    EXPECT_EQ(lookup.firstLook.Find(KeywordKey::FromText(names[same[2]].c_str())), CKeywordFirstLook::askIndex);
}

namespace {

// A host's reader derived from a stock one that watches the source handlers
// the parse loop may take over for the stock class itself, Get among them
// (a stock reader's loop reads a run of text itself).
template <class TReader>
class CWatchedSource : public TReader {
public:
    CWatchedSource(const std::string& rtf) : TReader(Bytes(rtf), static_cast<unsigned long>(rtf.size())) {}
    mutable std::size_t cRunAhead = 0;
    std::size_t cSkipAhead = 0;
    std::size_t cMarkBacktrack = 0;
    std::size_t cGet = 0;
    std::string charsParsed;

protected:
    long Get(char& ch) override
    {
        ++cGet;
        return TReader::Get(ch);
    }
    bool ParseChar(char ch) override
    {
        charsParsed += ch;
        return TReader::ParseChar(ch);
    }
    const char* RunAhead(std::size_t& cb) const override
    {
        ++cRunAhead;
        return TReader::RunAhead(cb);
    }
    void SkipAhead(std::size_t cb) override
    {
        ++cSkipAhead;
        TReader::SkipAhead(cb);
    }
    void MarkBacktrack(int n) override
    {
        ++cMarkBacktrack;
        TReader::MarkBacktrack(n);
    }
};

struct WatchedRow {
    std::string rtf;
    std::size_t cWords;
    std::string firstBytes;  // the first byte of each run of text, in order
};

template <class TReader>
void ExpectEveryWordPassesTheHandlers(const WatchedRow& row)
{
    TReader stock(Bytes(row.rtf), static_cast<unsigned long>(row.rtf.size()));
    CWatchedSource<TReader> watched(row.rtf);
    EXPECT_EQ(ReadText(watched, 64), ReadText(stock, 64));
    EXPECT_EQ(watched.BytesConsumed(), stock.BytesConsumed());
    const std::size_t counts[] = {watched.cRunAhead, watched.cSkipAhead, watched.cMarkBacktrack};
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_GE(counts[i], row.cWords) << "handler " << i << " in " << row.rtf;
    // Each run's first byte came through Get and ParseChar, in order (a
    // reader's ParseRun may hand ParseChar more bytes in between).
    EXPECT_GE(watched.cGet, row.firstBytes.size()) << row.rtf;
    std::size_t at = 0;
    for (char ch : row.firstBytes) {
        at = watched.charsParsed.find(ch, at);
        ASSERT_NE(at, std::string::npos) << "'" << ch << "' in " << row.rtf << " got " << watched.charsParsed;
        ++at;
    }
}

} // namespace

TEST(StockSource, AReaderDerivedFromAStockOneGetsEveryHandlerCall)
{
    const WatchedRow rows[] = {
        {"{\\rtf1\\ansi\\b bold\\b0\\par plain\\i it\\i0\\par}", 8, "bpi"},
        {"{\\rtf1{\\fonttbl{\\f0 Arial;}}\\f0\\fs24 a{\\b b}\\par\\pard c\\par}", 9, "Aabc"},
        {"{\\rtf1 x{\\pict\\pngblip 0102\r\n0304}y\\'41\\u233?z}", 5, "x0y"},
    };
    for (const WatchedRow& row : rows) {
        ExpectEveryWordPassesTheHandlers<CBytePtrRTFToPlainTextPtrParser>(row);
        ExpectEveryWordPassesTheHandlers<CBytePtrRTFToUTF8PtrParser>(row);
    }
}
