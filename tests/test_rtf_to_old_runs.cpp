// The importer takes runs of ordinary bytes in bulk. Whatever the source and
// the buffer size, its output, the attachments it hands over and the limits it
// meets must be those of the byte-by-byte reading, which a reader whose
// source offers no runs still does.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <dirent.h>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "rtfconverter/RTFToOld.h"
#include "test_rtf_to_old_helpers.h"

namespace {

using rtf_converter::CRTFPtrImport;
using rtf_converter::CRTFStreamImport;
using rtfconv_test::AttachmentLog;
using rtfconv_test::CTestReadStream;
using rtfconv_test::RecordingAttachmentFilter;

// The sources as they are: runs offered.
using CRunReader = CRTFPtrImport;

// A source offering nothing ahead: every byte through Get and ParseChar, as
// the reader read before it took runs.
template <class TReader>
class CWithoutRuns : public TReader {
public:
    using TReader::TReader;

protected:
    const char* RunAhead(std::size_t& cb) const override
    {
        cb = 0;
        return nullptr;
    }
};

using CByteReader = CWithoutRuns<CRunReader>;

// A derived reader that opts out of bulk runs as the header says, by handing
// them back to the byte-by-byte default; it upper-cases what ParseChar sees.
class CUpperCaseReader : public CRunReader {
public:
    using CRTFPtrImport::CRTFPtrImport;

protected:
    bool ParseChar(char ch) override
    {
        return CRunReader::ParseChar(ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 'a' + 'A') : ch);
    }
    bool ParseRun(const char* p, std::size_t cb) override { return CRTFParser::ParseRun(p, cb); }
};

using CStreamRunReader = CRTFStreamImport;

// (The stream source's \bin data differs from the pointer source's, so each
// source is held to its own.)
using CStreamByteReader = CWithoutRuns<CStreamRunReader>;

struct Options {
    bool bLossless = false;
    bool bTableTags = false;
    bool bAttachments = false;
    void (*pfnFilter)(char&) = nullptr;
    rtf_converter::ReadLimits limits;
};

struct Outcome {
    std::vector<std::string> reads;  // the bytes of each Read call
    std::vector<std::string> attachments;  // each one's type, size and data
    unsigned limitsReached = 0;
    long cUnrepresentable = 0;
    std::string thrown;
};

bool operator==(const Outcome& a, const Outcome& b)
{
    return a.reads == b.reads && a.attachments == b.attachments && a.limitsReached == b.limitsReached &&
           a.cUnrepresentable == b.cUnrepresentable && a.thrown == b.thrown;
}

std::ostream& operator<<(std::ostream& os, const Outcome& o)
{
    std::string all;
    for (const std::string& r : o.reads)
        all += r + "|";
    return os << o.reads.size() << " reads \"" << all << "\", " << o.attachments.size() << " attachments, limits "
              << o.limitsReached << ", unrepresentable " << o.cUnrepresentable << ", thrown \"" << o.thrown << "\"";
}

// Pulls with buffers of cb bytes, doubled after a call that made no progress
// in the input (as the tool does), up to 1 MiB.
template <class TReader>
Outcome Pull(TReader& reader, std::size_t cb, const Options& options)
{
    AttachmentLog log;
    reader.SetLossless(options.bLossless);
    reader.SetPasteWithTableTags(options.bTableTags);
    reader.SetLimits(options.limits);
    if (options.bAttachments)
        reader.SetAttachmentFilter(RecordingAttachmentFilter, &log, nullptr);
    if (options.pfnFilter)
        reader.SetFilter(options.pfnFilter);
    Outcome outcome;
    std::vector<char> buffer(cb);
    std::size_t cbConsumedBefore = 0;
    bool bMore = true;
    try {
        while (bMore) {
            const int n = reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
            outcome.reads.emplace_back(buffer.data(), static_cast<std::size_t>(n));
            if (bMore && reader.BytesConsumed() <= cbConsumedBefore) {
                if (buffer.size() >= (std::size_t(1) << 20))
                    break;
                buffer.resize(buffer.size() * 2);
            }
            cbConsumedBefore = reader.BytesConsumed();
        }
    } catch (const CException& e) {
        outcome.thrown = e.GetErrorText();
    }
    for (const rtfconv_test::SeenAttachment& seen : log.seen)
        outcome.attachments.push_back(std::to_string(seen.aType) + "/" + std::to_string(seen.dwDataSize) + "/" +
                                      seen.data);
    outcome.limitsReached = reader.GetLimitsReached();
    outcome.cUnrepresentable = reader.GetUnrepresentableCount();
    return outcome;
}

Outcome ByteByByte(const std::string& rtf, std::size_t cb, const Options& options)
{
    CByteReader reader(rtf.c_str());
    return Pull(reader, cb, options);
}

Outcome WithRuns(const std::string& rtf, std::size_t cb, const Options& options)
{
    CRunReader reader(rtf.c_str());
    return Pull(reader, cb, options);
}

Outcome FromStream(const std::string& rtf, std::size_t cb, const Options& options)
{
    CTestReadStream stream(rtf);
    CStreamRunReader reader(&stream);
    return Pull(reader, cb, options);
}

Outcome FromStreamByteByByte(const std::string& rtf, std::size_t cb, const Options& options)
{
    CTestReadStream stream(rtf);
    CStreamByteReader reader(&stream);
    return Pull(reader, cb, options);
}

void UpperCase(char& ch)
{
    if (ch >= 'a' && ch <= 'z')
        ch = static_cast<char>(ch - 'a' + 'A');
}

// Documents at the places where a run must stop or hand a byte over.
const char* const kDocuments[] = {
    // paragraphs, formatting changes, reserved bytes and high bytes in text
    "{\\rtf1\\ansi{\\fonttbl{\\f0\\fswiss Arial;}{\\f1\\froman\\fcharset204 Times;}}"
    "{\\colortbl;\\red255\\green0\\blue0;}\\pard\\qc plain text run\\par\\pard\\li720 more \\b bold\\b0  and"
    " \\f1 cyrillic \xe0\xe1\xe2 bytes\\f0  back\x01\x02\x03\x17 reserved\\par}",
    // a hyperlink field whose display text is collected, and an ordinary field
    "{\\rtf1{\\field{\\*\\fldinst HYPERLINK \"http://example.com/a\"}{\\fldrslt link text here}} after"
    "{\\field{\\*\\fldinst PAGE}{\\fldrslt 12}} end\\par}",
    // a picture: spaces, an odd digit before the brace, line breaks in pairs
    "{\\rtf1 before{\\pict\\pngblip\\picw10 89504E47 0d0A1a0a\r\n0000000D49\n48445\r\n2ZZ12 3}after\\par}",
    // an object with its result, a placeholder whose character is skipped
    "{\\rtf1 x{\\object\\objemb{\\*\\objdata 01050000020000000b}{\\result pres text}}y\\objattph Z tail\\par}",
    // a placeholder's skipped character first in a paragraph, a font change due
    "{\\rtf1\\pard x\\b\\objattph Zbold after the placeholder\\par}",
    // skipped and hidden destinations, stylesheet, info, \\* groups
    "{\\rtf1{\\stylesheet{\\s1 Heading 1;}}{\\info{\\title The title}{\\author Me}}"
    "{\\*\\unknown skipped words}{\\v hidden words}\\v0 shown{\\*\\generator gen;}text\\par}",
    // numbering text and a list
    "{\\rtf1\\pard{\\pntext\\f0 1.\\tab}{\\*\\pn\\pnlvlbody\\pndec\\pnstart1{\\pntxta .}}item one\\par"
    "{\\pntext 2.\\tab}item two\\par\\pard plain\\par}",
    // a table
    "{\\rtf1\\trowd\\cellx1000\\cellx2000\\intbl cell one\\cell cell two\\cell\\row after\\par}",
    // unicode, escapes and code pages (the lossless reading reads them)
    "{\\rtf1\\ansi\\ansicpg1251\\uc1 caf\\'e9 \\u8212\\'97 dash \\u20013 ? han {\\f0\\fcharset128 \\'82\\'a0 kana}"
    " \\ldblquote q\\rdblquote\\par}",
    // a document cut off inside a picture, inside text
    "{\\rtf1 start{\\pict\\wmetafile8 0102030",
    "{\\rtf1 unterminated text without a closing brace",
    // \\bin data inside a picture
    "{\\rtf1{\\pict\\dibitmap0 \\bin4 \x01\x02{}ab01}done\\par}",
    // font entries met again under other formatting, in groups, after \\plain,
    // a background that \\pard removes, the last entry's character set set
    // again after its use, and an entry defined again
    "{\\rtf1\\deff0{\\fonttbl{\\f0 Arial;}{\\f1\\fcharset161 A Greek Face Of Some Length;}{\\f9 Nine;}}"
    "{\\colortbl;\\red0\\green0\\blue255;}\\plain\\f1 a{\\b\\f0 b{\\i\\f1 c}\\f9 d}\\f1 e\\plain\\f0 f"
    "\\cb1\\highlight1 g\\pard h\\plain\\f1\\b i\\f0 j\\b0\\f1 k\\plain\\f9 n\\fcharset238\\plain\\f9 o"
    "{\\fonttbl{\\f1 Other;}}\\f1 l\\plain\\f1 m\\par}",
    // groups that change nothing, only the font, only the layout, or both
    // after an inner group restored its own; a font table whose end applies
    // the default font inside a group; a hyperlink in a group of its own
    "{\\rtf1\\deff0{\\fonttbl{\\f0 Arial;}{\\f1 Courier;}}\\pard\\li720\\f1 a{b}{{\\i c}d{\\pard\\qc e\\par}f"
    "\\fi360\\b g}h{{\\fonttbl{\\f2 Two;}}i}j{\\pard k{\\tx720\\tb l}\\par}m{\\ul{\\field{\\*\\fldinst"
    " HYPERLINK \"http://x.y\"}{\\fldrslt{\\b n}}}o}p\\par}",
};

std::vector<Options> ModesToCompare()
{
    std::vector<Options> modes;
    for (bool bLossless : {false, true}) {
        Options options;
        options.bLossless = bLossless;
        options.bAttachments = true;
        modes.push_back(options);
        options.bTableTags = true;
        options.pfnFilter = UpperCase;
        modes.push_back(options);
        options = Options();
        options.bLossless = bLossless;
        options.limits.maxFieldText = 5;
        options.limits.maxAttachmentBytes = 3;
        modes.push_back(options);
    }
    return modes;
}

TEST(ImportRuns, EveryDocumentEveryBufferSizeAsByteByByte)
{
    const std::vector<std::size_t> sizes = {1, 2, 3, 5, 7, 8, 13, 17, 31, 64, 65536};
    int cCases = 0;
    for (const char* doc : kDocuments) {
        const std::string rtf = doc;
        for (const Options& options : ModesToCompare()) {
            for (std::size_t cb : sizes) {
                const Outcome expected = ByteByByte(rtf, cb, options);
                SCOPED_TRACE(rtf + " at " + std::to_string(cb) + (options.bLossless ? " lossless" : " exact"));
                EXPECT_EQ(WithRuns(rtf, cb, options), expected);
                EXPECT_EQ(FromStream(rtf, cb, options), FromStreamByteByByte(rtf, cb, options));
                ++cCases;
            }
        }
    }
    EXPECT_EQ(cCases, 14 * 6 * 11);
}

TEST(ImportRuns, BytesARunCannotCopyAtEveryOffset)
{
    // Reserved bytes (0x01-0x03, 0x17) become spaces; in the lossless reading
    // non-ASCII bytes take the character set path. Their neighbours (0x04,
    // 0x16, 0x18, 0x7F) are copied. Each at every offset of a 20-byte run,
    // so at every place within the words the scan reads.
    const unsigned char kBytes[] = {0x01, 0x03, 0x04, 0x16, 0x17, 0x18, 0x7F, 0x80, 0xE9, 0xFF};
    for (unsigned char b : kBytes) {
        for (std::size_t offset = 0; offset < 20; ++offset) {
            std::string run(20, 'x');
            run[offset] = static_cast<char>(b);
            const std::string rtf = "{\\rtf1 a" + run + "\\par}";
            for (bool bLossless : {false, true}) {
                Options options;
                options.bLossless = bLossless;
                EXPECT_EQ(WithRuns(rtf, 65536, options), ByteByByte(rtf, 65536, options))
                    << int(b) << " at " << offset << (bLossless ? " lossless" : " exact");
            }
        }
    }
}

TEST(ImportRuns, PictureHexIsDecodedAsPairs)
{
    // "0d0A1a0a": either case; the space, the line breaks and the 'Z' between
    // digits each drop a digit as the byte-by-byte decoder does; the lone
    // digit before the brace is dropped.
    const std::string rtf = "{\\rtf1{\\pict\\pngblip 89504E47 0d0A1a0a\r\nff\n0Z12 3}\\par}";
    Options options;
    options.bAttachments = true;
    const Outcome outcome = WithRuns(rtf, 65536, options);
    ASSERT_EQ(outcome.attachments.size(), 1u);
    const std::string bytes = "\x89\x50\x4e\x47\x0d\x0a\x1a\x0a\xff\x12";
    EXPECT_EQ(outcome.attachments[0], std::to_string(AttachmentInfo::AT_PNG) + "/10/" + bytes);
}

TEST(ImportRuns, RunsLongerThanTheStreamBlockAndTheBuffer)
{
    // Text and hex data crossing the stream source's 10240-byte blocks and
    // many output buffers, the hex digits at odd and even offsets of a block;
    // the pictures fill the 16384-byte staging buffer several times, and
    // with the smaller limit are dropped after it has gone to the stream once.
    std::string text, hex;
    for (int i = 0; i < 30000; ++i)
        text += static_cast<char>('a' + i % 26);
    for (int i = 0; i < 80001; ++i) {
        static const char kDigits[] = "0123456789abcdef";
        hex += kDigits[(i * 7) % 16];
    }
    for (const std::string& rtf : {"{\\rtf1 " + text + "\\par}", "{\\rtf1 x{\\pict\\emfblip " + hex + "}y}",
                                   "{\\rtf1 xx{\\pict\\emfblip " + hex + "}y}"}) {
        for (std::size_t maxAttachment : {std::size_t(1) << 20, std::size_t(20000)}) {
            Options options;
            options.bLossless = maxAttachment < 30000;
            options.bAttachments = true;
            options.limits.maxAttachmentBytes = maxAttachment;
            for (std::size_t cb : {std::size_t(7), std::size_t(4096), std::size_t(65536)}) {
                const Outcome expected = ByteByByte(rtf, cb, options);
                const Outcome outcome = WithRuns(rtf, cb, options);
                EXPECT_EQ(outcome, expected) << cb;
                const bool bDropped = (outcome.limitsReached & rtf_converter::limitAttachment) != 0;
                EXPECT_EQ(bDropped, maxAttachment < 30000 && rtf.find("pict") != std::string::npos) << cb;
                EXPECT_EQ(FromStream(rtf, cb, options), FromStreamByteByByte(rtf, cb, options)) << cb;
            }
        }
    }
}

TEST(ImportRuns, HyperlinkTextAndInstructionStopAtTheFieldTextLimit)
{
    const std::string rtf =
        "{\\rtf1{\\field{\\*\\fldinst HYPERLINK \"http://example.com/\"}{\\fldrslt abcdefghij}}\\par}";
    Options options;
    options.limits.maxFieldText = 30;
    const Outcome expected = ByteByByte(rtf, 65536, options);
    const Outcome outcome = WithRuns(rtf, 65536, options);
    EXPECT_EQ(outcome, expected);
    EXPECT_NE(outcome.limitsReached & rtf_converter::limitFieldText, 0u);
    options.limits.maxFieldText = 1000;
    EXPECT_EQ(WithRuns(rtf, 65536, options).limitsReached & rtf_converter::limitFieldText, 0u);
}

TEST(ImportRuns, ADerivedReaderThatHandsRunsBackSeesEveryByte)
{
    const std::string rtf = "{\\rtf1 some text, {\\b bold} text\\par}";
    CUpperCaseReader reader(rtf.c_str());
    const Outcome outcome = Pull(reader, 65536, Options());
    std::string all;
    for (const std::string& r : outcome.reads)
        all += r;
    EXPECT_NE(all.find("SOME TEXT, "), std::string::npos) << all;
    EXPECT_NE(all.find("BOLD"), std::string::npos) << all;
    EXPECT_EQ(all.find("text"), std::string::npos) << all;
}

// A host's stream reader that watches its source: derived from the stock
// class, it is not read through the parse loop's own cursor, and so must get
// every mark and every offer of bytes ahead.
class CWatchedStreamReader : public CStreamRunReader {
public:
    using CRTFStreamImport::CRTFStreamImport;
    int cMarks = 0;
    int cOffers = 0;

protected:
    void MarkBacktrack(int n) override
    {
        ++cMarks;
        CStreamRunReader::MarkBacktrack(n);
    }
    const char* RunAhead(std::size_t& cb) const override
    {
        ++const_cast<CWatchedStreamReader*>(this)->cOffers;
        return CStreamRunReader::RunAhead(cb);
    }
};

// Each Read's bytes and the read position after it.
template <class TReader>
std::vector<std::string> ReadsAndPositions(TReader& reader, std::size_t cb)
{
    reader.SetLossless(true);
    std::vector<std::string> steps;
    std::vector<char> buffer(cb);
    bool bMore = true;
    while (bMore && steps.size() < 100000) {
        const int n = reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        steps.push_back(std::string(buffer.data(), static_cast<std::size_t>(n)) + "@" +
                        std::to_string(reader.BytesConsumed()));
    }
    return steps;
}

TEST(ImportRuns, TheStockStreamReaderReadsAsADerivedOneThatGetsEveryCall)
{
    std::vector<std::string> docs(std::begin(kDocuments), std::end(kDocuments));
    std::string words;
    for (int i = 0; i < 3000; ++i)
        words += i % 7 == 0 ? "\\b w\\b0 {\\i x}" : "word ";
    docs.push_back("{\\rtf1 " + words + "\\par}");  // crosses the stream's blocks
    for (const std::string& rtf : docs) {
        for (std::size_t cb : {std::size_t(1), std::size_t(9), std::size_t(64), std::size_t(65536)}) {
            CTestReadStream stockStream(rtf), watchedStream(rtf);
            CStreamRunReader stock(&stockStream);
            CWatchedStreamReader watched(&watchedStream);
            SCOPED_TRACE(rtf.substr(0, 60) + " at " + std::to_string(cb));
            const std::vector<std::string> expected = ReadsAndPositions(watched, cb);
            EXPECT_EQ(ReadsAndPositions(stock, cb), expected);
            EXPECT_GE(watched.cMarks, static_cast<int>(expected.size()));
            EXPECT_GT(watched.cOffers, 0);
        }
    }
}

// A host's reader that saves more per group, in a record of its own made the
// default way: the group state must still be saved into it.
class CHostSaveReader : public CRunReader {
public:
    using CRTFPtrImport::CRTFPtrImport;

protected:
    struct CHostSave : CRTFImportSave {
        int cHostData = 0;
    };
    CBaseRTFParserSave* CreateSave() override { return new (std::nothrow) CHostSave; }
};

TEST(ImportRuns, AGroupSavesItsStateIntoAHostsOwnRecord)
{
    const std::string rtf = "{\\rtf1\\pard\\qc a{\\b b{\\pard\\ql\\i c\\par}d}e{\\fs40 f}g\\par}";
    for (bool bLossless : {false, true}) {
        Options options;
        options.bLossless = bLossless;
        CHostSaveReader reader(rtf.c_str());
        const Outcome outcome = Pull(reader, 65536, options);
        EXPECT_EQ(outcome, WithRuns(rtf, 65536, options));
        EXPECT_EQ(outcome, ByteByByte(rtf, 65536, options));
    }
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST(ImportRuns, CorpusAsByteByByte)
{
    const std::string dir = std::string(RTFCONV_CORPUS_DIR);
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".rtf") == 0)
                names.push_back(name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    ASSERT_GT(names.size(), 50u);
    for (const std::string& name : names) {
        const std::string rtf = ReadFile(dir + "/" + name);
        for (bool bLossless : {false, true}) {
            Options options;
            options.bLossless = bLossless;
            options.bAttachments = true;
            // A small buffer for the small files; the large ones at the tool's.
            const std::size_t cb = rtf.size() < 20000 ? 7 : 65536;
            const Outcome expected = ByteByByte(rtf, cb, options);
            EXPECT_EQ(WithRuns(rtf, cb, options), expected) << name << (bLossless ? " lossless" : " exact");
            EXPECT_EQ(FromStream(rtf, cb, options), FromStreamByteByByte(rtf, cb, options)) << name << (bLossless ? " lossless" : " exact");
        }
    }
}

} // namespace
