// The readers' limits: each at, just below and just above its value. Within a
// limit the output is the one of the default limits; past it the reader does
// what ReadLimits.h promises, which each test states as an equivalent input
// read without the limit, and sets the limit's bit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rtfconverter/RTFToOld.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"
#include "test_rtf_to_old_helpers.h"

namespace {

using rtf_converter::ReadLimits;
using rtfconv_test::AttachmentLog;
using rtfconv_test::CTestReadStream;

enum class Reader { Old, OldStream, Text, Utf8 };
const Reader kAllReaders[] = {Reader::Old, Reader::OldStream, Reader::Text, Reader::Utf8};

struct Result {
    std::string text;
    unsigned reached = 0;
};

template <class TReader>
Result PullAll(TReader& reader, const ReadLimits& limits, AttachmentLog* pLog = nullptr)
{
    reader.SetLimits(limits);
    if constexpr (std::is_base_of<rtf_converter::CRTFImport, TReader>::value) {
        if (pLog)
            reader.SetAttachmentFilter(rtfconv_test::RecordingAttachmentFilter, pLog, nullptr);
    }
    Result result;
    std::vector<char> buffer(1 << 16);
    bool bMore = true;
    while (bMore) {
        const auto cb = reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        result.text.append(buffer.data(), static_cast<std::size_t>(cb));
    }
    result.reached = reader.GetLimitsReached();
    return result;
}

Result Read(Reader kind, const std::string& rtf, const ReadLimits& limits = ReadLimits(), AttachmentLog* pLog = nullptr)
{
    const auto* pBytes = reinterpret_cast<const unsigned char*>(rtf.data());
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    switch (kind) {
    case Reader::Old: {
        rtf_converter::CRTFPtrImport reader(rtf.c_str());
        return PullAll(reader, limits, pLog);
    }
    case Reader::OldStream: {
        CTestReadStream stream(rtf);
        rtf_converter::CRTFStreamImport reader(&stream);
        return PullAll(reader, limits, pLog);
    }
    case Reader::Text: {
        rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(pBytes, cb);
        return PullAll(reader, limits);
    }
    case Reader::Utf8: {
        rtf_converter::CBytePtrRTFToUTF8PtrParser reader(pBytes, cb);
        return PullAll(reader, limits);
    }
    }
    return Result();
}

std::string Repeat(const std::string& s, int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += s;
    return out;
}

// A document whose innermost group, at `depth`, turns on bold and hidden text
// and then skips itself: after its '}' the text "after" is plain and visible
// again, unless the group saved nothing. With bBraces false the innermost
// group's braces are left out, which is what a group past the limit amounts to.
std::string NestedDocument(int depth, bool bBraces = true)
{
    const std::string inner = "\\b\\v x\\*\\foo skipped";
    return "{\\rtf1 a" + Repeat("{b", depth - 2) + (bBraces ? "{" + inner + "}" : inner) + "after" +
           Repeat("}", depth - 2) + "end}";
}

TEST(ReadLimits, GroupDepthAtBelowAndAbove)
{
    constexpr int kLimit = 6;
    ReadLimits limits;
    limits.maxDepth = kLimit;
    for (Reader reader : kAllReaders) {
        for (int depth : {kLimit - 1, kLimit}) {
            SCOPED_TRACE(depth);
            const Result limited = Read(reader, NestedDocument(depth), limits);
            EXPECT_EQ(limited.text, Read(reader, NestedDocument(depth)).text);
            EXPECT_EQ(limited.reached, 0u);
        }
        const Result above = Read(reader, NestedDocument(kLimit + 1), limits);
        EXPECT_EQ(above.text, Read(reader, NestedDocument(kLimit + 1, false)).text);
        EXPECT_NE(above.text, Read(reader, NestedDocument(kLimit + 1)).text);
        EXPECT_EQ(above.reached, unsigned(rtf_converter::limitDepth));
    }
}

TEST(ReadLimits, GroupsPastTheDepthLimitStillBalanceTheBraces)
{
    ReadLimits limits;
    limits.maxDepth = 1;
    // Nothing after the outermost group's '}' is read, however deep the
    // groups inside it were.
    const std::string rtf = "{a" + Repeat("{", 100) + "b" + Repeat("}", 100) + "c}never";
    EXPECT_EQ(Read(Reader::Text, rtf, limits).text, "abc");
    EXPECT_EQ(Read(Reader::Utf8, rtf, limits).text, "abc");
    EXPECT_EQ(Read(Reader::Old, rtf, limits).text, "abc");
}

TEST(ReadLimits, AttachmentSizeAtBelowAndAbove)
{
    constexpr std::size_t kLimit = 16385;  // one staging buffer and a byte
    ReadLimits limits;
    limits.maxAttachmentBytes = kLimit;
    struct Row {
        std::size_t cb;
        bool bBin;
    };
    for (const Row& row : {Row{kLimit - 1, false}, Row{kLimit, false}, Row{kLimit + 1, false}, Row{kLimit, true},
                           Row{kLimit + 1, true}}) {
        SCOPED_TRACE(std::to_string(row.cb) + (row.bBin ? " bin" : " hex"));
        const std::string data = row.bBin ? "\\bin" + std::to_string(row.cb) + " " + std::string(row.cb, 'Z')
                                          : Repeat("5a", static_cast<int>(row.cb));
        const std::string rtf = "{\\rtf1 before{\\pict\\pngblip " + data + "}after}";
        for (Reader reader : {Reader::Old, Reader::OldStream}) {
            if (row.bBin && reader == Reader::OldStream)
                continue;  // that source copies \bin data only in part
            AttachmentLog log;
            const Result result = Read(reader, rtf, limits, &log);
            if (row.cb <= kLimit) {
                ASSERT_EQ(log.seen.size(), 1u);
                EXPECT_EQ(log.seen[0].data, std::string(row.cb, 'Z'));
                EXPECT_EQ(result.reached, 0u);
                EXPECT_EQ(result.text, "before" + rtfconv_test::Cmd("A00") + "after");
            } else {
                EXPECT_TRUE(log.seen.empty());
                EXPECT_EQ(result.reached, unsigned(rtf_converter::limitAttachment));
                EXPECT_EQ(result.text, "beforeafter");
            }
        }
    }
}

TEST(ReadLimits, AnObjectTooLargeGivesWayToItsResultPicture)
{
    ReadLimits limits;
    limits.maxAttachmentBytes = 2;
    AttachmentLog log;
    const Result result =
        Read(Reader::Old, "{\\rtf1 {\\object\\objemb{\\*\\objdata 010203}{\\result{\\pict\\pngblip 0405}}}x}", limits, &log);
    ASSERT_EQ(log.seen.size(), 1u);
    EXPECT_EQ(log.seen[0].aType, AttachmentInfo::AT_PNG);
    EXPECT_EQ(log.seen[0].data, "\x04\x05");
    EXPECT_EQ(result.text, rtfconv_test::Cmd("A00") + "x");
}

// Rows: a document with the limit at `limit`, and the document it must read
// like without limits (the same one when the limit is not reached).
struct EquivalenceRow {
    const char* name;
    int limit;
    std::string rtf;
    std::string equivalent;
    unsigned reached;
};

void ExpectEquivalent(Reader reader, const EquivalenceRow& row, int ReadLimits::*pField)
{
    SCOPED_TRACE(row.name);
    ReadLimits limits;
    limits.*pField = row.limit;
    const Result limited = Read(reader, row.rtf, limits);
    EXPECT_EQ(limited.text, Read(reader, row.equivalent).text);
    EXPECT_EQ(limited.reached, row.reached);
}

const std::string kThreeFonts = "{\\fonttbl{\\f0 Arial;}{\\f1 Times;}{\\f2 Courier;}}";
const std::string kTwoFonts = "{\\fonttbl{\\f0 Arial;}{\\f1 Times;}}";

TEST(ReadLimits, FontEntriesAtBelowAndAbove)
{
    const std::string text = "\\f2 x\\f1 y}";
    const std::vector<EquivalenceRow> rows = {
        {"above", 2, "{\\rtf1" + kThreeFonts + text, "{\\rtf1" + kTwoFonts + text, rtf_converter::limitFontEntries},
        {"at", 3, "{\\rtf1" + kThreeFonts + text, "{\\rtf1" + kThreeFonts + text, 0},
        {"below", 4, "{\\rtf1" + kThreeFonts + text, "{\\rtf1" + kThreeFonts + text, 0},
    };
    for (const EquivalenceRow& row : rows)
        ExpectEquivalent(Reader::Old, row, &ReadLimits::maxFontEntries);
}

TEST(ReadLimits, FontEntriesOfTheUtf8Reader)
{
    // \f1 is Cyrillic: past the limit it is unknown and \'cf is read in the
    // document's page instead.
    const std::string fonts = "{\\fonttbl{\\f0 A;}{\\f1\\fcharset204 C;}}";
    const std::string text = "{\\f1 \\'cf}}";
    const std::vector<EquivalenceRow> rows = {
        {"above", 1, "{\\rtf1" + fonts + text, "{\\rtf1{\\fonttbl{\\f0 A;}}" + text, rtf_converter::limitFontEntries},
        {"at", 2, "{\\rtf1" + fonts + text, "{\\rtf1" + fonts + text, 0},
    };
    for (const EquivalenceRow& row : rows)
        ExpectEquivalent(Reader::Utf8, row, &ReadLimits::maxFontEntries);
    EXPECT_EQ(Read(Reader::Utf8, "{\\rtf1" + fonts + text).text, "\xD0\x9F");
}

TEST(ReadLimits, FontNameLengthAtBelowAndAbove)
{
    const std::string text = "\\f0 x}";
    const std::vector<EquivalenceRow> rows = {
        {"above", 5, "{\\rtf1{\\fonttbl{\\f0 Arial2;}}" + text, "{\\rtf1{\\fonttbl{\\f0 Arial;}}" + text,
         rtf_converter::limitFontName},
        {"at", 6, "{\\rtf1{\\fonttbl{\\f0 Arial2;}}" + text, "{\\rtf1{\\fonttbl{\\f0 Arial2;}}" + text, 0},
        {"below", 7, "{\\rtf1{\\fonttbl{\\f0 Arial2;}}" + text, "{\\rtf1{\\fonttbl{\\f0 Arial2;}}" + text, 0},
    };
    for (const EquivalenceRow& row : rows)
        ExpectEquivalent(Reader::Old, row, &ReadLimits::maxFontNameLength);
}

TEST(ReadLimits, ColourEntriesAtBelowAndAbove)
{
    // \colortbl makes the automatic entry 0, each ';' the entry that the
    // values after it fill: this table has four.
    const std::string table = "{\\colortbl;\\red255;\\blue255;}";
    const std::string text = "\\cf1 a\\cf2 b\\cf3 c}";
    const std::vector<EquivalenceRow> rows = {
        {"above", 3, "{\\rtf1" + table + text, "{\\rtf1{\\colortbl;\\red255;\\blue255}" + text,
         rtf_converter::limitColorEntries},
        {"at", 4, "{\\rtf1" + table + text, "{\\rtf1" + table + text, 0},
        {"below", 5, "{\\rtf1" + table + text, "{\\rtf1" + table + text, 0},
    };
    for (const EquivalenceRow& row : rows)
        ExpectEquivalent(Reader::Old, row, &ReadLimits::maxColorEntries);
}

TEST(ReadLimits, FieldTextAtBelowAndAbove)
{
    auto field = [](const std::string& inst, const std::string& shown) {
        return "{\\rtf1 {\\field{\\*\\fldinst " + inst + "}{\\fldrslt " + shown + "}}x}";
    };
    const std::vector<EquivalenceRow> rows = {
        // The instruction "HYPERLINK \"a.bc\"" has 16 bytes.
        {"instruction above", 15, field("HYPERLINK \"a.bc\"", "go"), field("HYPERLINK \"a.bc", "go"),
         rtf_converter::limitFieldText},
        {"instruction at", 16, field("HYPERLINK \"a.bc\"", "go"), field("HYPERLINK \"a.bc\"", "go"), 0},
        {"instruction below", 17, field("HYPERLINK \"a.bc\"", "go"), field("HYPERLINK \"a.bc\"", "go"), 0},
        // The display text is 17 bytes, the instruction 13.
        {"display text above", 16, field("HYPERLINK a.b", "0123456789abcdefg"),
         field("HYPERLINK a.b", "0123456789abcdef"), rtf_converter::limitFieldText},
        {"display text at", 17, field("HYPERLINK a.b", "0123456789abcdefg"),
         field("HYPERLINK a.b", "0123456789abcdefg"), 0},
    };
    for (const EquivalenceRow& row : rows)
        ExpectEquivalent(Reader::Old, row, &ReadLimits::maxFieldText);
}

TEST(ReadLimits, NumberingTextAtBelowAndAbove)
{
    auto numbered = [](const std::string& before) {
        return "{\\rtf1{\\pn\\pnlvl3\\pndec{\\pntxtb " + before + "}}x\\par y\\par}";
    };
    const std::vector<EquivalenceRow> rows = {
        {"above", 4, numbered("ABCDE"), numbered("ABCD"), rtf_converter::limitNumberingText},
        {"at", 5, numbered("ABCDE"), numbered("ABCDE"), 0},
        {"below", 6, numbered("ABCDE"), numbered("ABCDE"), 0},
    };
    for (Reader reader : {Reader::Old, Reader::Text})
        for (const EquivalenceRow& row : rows)
            ExpectEquivalent(reader, row, &ReadLimits::maxNumberingText);
    // The level's indent, the text before and the number, per paragraph.
    EXPECT_EQ(Read(Reader::Text, numbered("ABCDE")).text, "\t\tABCDE0\tx\r\t\tABCDE1\ty\r");

    // A markup command (here a table tag) that the cut would split goes as a
    // whole.
    auto withTableTags = [](const std::string& rtf, const ReadLimits& limits) {
        rtf_converter::CRTFPtrImport reader(rtf.c_str());
        reader.SetPasteWithTableTags(true);
        return PullAll(reader, limits);
    };
    ReadLimits limits;
    limits.maxNumberingText = 3;
    const Result cut = withTableTags(numbered("A\\cell B"), limits);
    EXPECT_EQ(cut.text, withTableTags(numbered("A"), ReadLimits()).text);
    EXPECT_EQ(cut.reached, unsigned(rtf_converter::limitNumberingText));
}

TEST(ReadLimits, EachKindIsNamedAndLimitsBelowOneCountAsOne)
{
    for (auto kind : {rtf_converter::limitDepth, rtf_converter::limitAttachment, rtf_converter::limitFontEntries,
                      rtf_converter::limitFontName, rtf_converter::limitColorEntries, rtf_converter::limitFieldText,
                      rtf_converter::limitNumberingText})
        EXPECT_STRNE(rtf_converter::ReadLimitName(kind), "unknown");

    ReadLimits limits;
    limits.maxDepth = 0;
    limits.maxColorEntries = -5;
    limits.maxFieldText = -1;
    rtf_converter::CRTFPtrImport reader("{a{b}c}");
    reader.SetLimits(limits);
    EXPECT_EQ(reader.GetLimits().maxDepth, 1);
    EXPECT_EQ(reader.GetLimits().maxColorEntries, 1);
    EXPECT_EQ(reader.GetLimits().maxFieldText, 0);
    EXPECT_EQ(PullAll(reader, reader.GetLimits()).text, "abc");
}

} // namespace
