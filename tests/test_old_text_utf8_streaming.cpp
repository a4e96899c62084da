// The one-pass old-format text codec against the whole-text reference, on
// the corpus and on random and malformed text, and the decoder fed in pieces
// against the one-call form.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "old_text_utf8_reference.h"
#include "rtfconverter/OldTextUtf8.h"
#include "test_rtf_to_old_helpers.h"
#include "test_util.h"

using namespace rtfconv_test;
using rtf_converter::COldTextUtf8Decoder;
using rtf_converter::OldTextFromUtf8;
using rtf_converter::OldTextFromUtf8Counts;
using rtf_converter::OldTextFromUtf8Options;
using rtf_converter::OldTextToUtf8;

namespace {

const int kDefaultPages[] = {1252, 1251, 932};

void ExpectSameAsReference(const std::string& text, int defaultCodePage)
{
    SCOPED_TRACE("default page " + std::to_string(defaultCodePage));
    EXPECT_EQ(OldTextToUtf8(text, defaultCodePage), ReferenceOldTextToUtf8(text, defaultCodePage));
    OldTextFromUtf8Counts counts, expectedCounts;
    EXPECT_EQ(OldTextFromUtf8(text, defaultCodePage, &counts), ReferenceOldTextFromUtf8(text, defaultCodePage, &expectedCounts));
    EXPECT_EQ(counts.nUnencodable, expectedCounts.nUnencodable);
    EXPECT_EQ(counts.nInvalid, expectedCounts.nInvalid);
}

// The decoder fed `text` in pieces of the given sizes (the last one repeated).
std::string DecodeInPieces(const std::string& text, int defaultCodePage, const std::vector<std::size_t>& sizes)
{
    COldTextUtf8Decoder decoder(defaultCodePage);
    std::string out;
    std::size_t at = 0;
    for (std::size_t k = 0; at < text.size(); ++k) {
        const std::size_t n = std::min(sizes[std::min(k, sizes.size() - 1)], text.size() - at);
        decoder.Feed(std::string_view(text).substr(at, n), out);
        at += n;
    }
    decoder.Feed(std::string_view(), out);
    decoder.Finish(out);
    return out;
}

// Texts built from the pieces the codec treats apart: framing bytes, font and
// comment commands with charset codes and face separators, lead and trail
// bytes, characters no page or only some pages hold, the characters standing
// for bytes, and bytes that are not UTF-8.
std::string RandomText(std::mt19937& rng)
{
    static const std::vector<std::string> kFragments = {
        "\x01", "\x02", "F", "C", "H", "P1", ":", "-", "F---", "F12-B", "\xCA", "\xCB", "\xC3", "\xC0", "\xCC",
        "\x82", "\x95\x5C", "\x81", "\xE0", "\xFF", "word ", "\r", "\x03", std::string(1, '\0'),
        "\xD0\x96", "\xE8\xA1\xA8", "\xC3\xA9", "\xF0\x9F\x98\x80", "\xEF\x82\x81", "\xEF\xBB\xBF",
        "\xE0\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xC3\x8A", "\x01" "F---\xCA:-\x02", "\x01" "F---\xCB:Face\x02",
        "\x01" "F12-B:Arial\x02", "\x01" "CH:", "\x01" "L1\x02",
    };
    std::uniform_int_distribution<std::size_t> count(0, 24), pick(0, kFragments.size() - 1), byte(0, 255);
    std::string s;
    for (std::size_t n = count(rng); n > 0; --n) {
        const std::size_t k = pick(rng);
        s += k == 0 && byte(rng) < 32 ? std::string(1, static_cast<char>(byte(rng))) : kFragments[k];
    }
    return s;
}

// What the importer makes of a document; some of the corpus it refuses.
std::string OldTextOrEmpty(const std::string& rtf, bool bLossless)
{
    ImportOptions options;
    options.bLossless = bLossless;
    try {
        return OldText(rtf, options);
    } catch (...) {
        return std::string();
    }
}

} // namespace

// The old-format text the importer makes of every corpus document (exact and
// lossless), its UTF-8, and the RTF bytes themselves as text of neither kind.
TEST(OldTextUtf8Streaming, CorpusMatchesTheReference)
{
    const std::vector<std::string> files = CorpusRtfFiles();
    ASSERT_GT(files.size(), 50u);
    std::size_t nImported = 0;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const std::string rtf = ReadFileBytes(file);
        for (const std::string& old : {OldTextOrEmpty(rtf, false), OldTextOrEmpty(rtf, true)}) {
            nImported += old.empty() ? 0 : 1;
            ExpectSameAsReference(old, 1252);
            ExpectSameAsReference(ReferenceOldTextToUtf8(old, 1252), 1252);
            EXPECT_EQ(DecodeInPieces(old, 1252, {7}), OldTextToUtf8(old, 1252));
        }
        ExpectSameAsReference(rtf, 932);
    }
    EXPECT_GT(nImported, files.size());
}

// The same font commands again and again, with bytes that are not UTF-8 and
// characters past 0xFF among their bytes, and with face names in their own
// character set: each time written and counted alike.
TEST(OldTextUtf8Streaming, RepeatedFontCommandsMatchTheReference)
{
    const std::string commands[] = {
        "\x01" "F12-B\xC3\x8A:\xD0\x96\xD0\xB0\x02", "\x01" "F12-\xE2\x82\xAC\xFF:Face\x02",
        "\x01" "F---\xC3\x8B:\xE8\xA1\xA8\xF0\x9F\x98\x80\x02", "\x01" "F---:-\x02",
    };
    std::string text;
    for (int round = 0; round < 3; ++round)
        for (const std::string& command : commands) text += command + "\xD0\x96x\xE8\xA1\xA8 ";
    // Commands around the longest one remembered (40 bytes from 0x01 to the
    // 0x02 included) and longer, in ASCII and with a face name in the page's
    // own letters, whose bytes are fewer than its UTF-8; the first two the
    // same but for their last character, past the 32nd byte.
    for (int round = 0; round < 3; ++round)
        for (std::size_t n : {29u, 30u, 31u, 32u, 33u, 55u, 56u}) {
            text += "\x01" "F12-\xC3\x8A:" + std::string(n, 'f') + "\x02y";
            text += "\x01" "F12-\xC3\x8A:" + std::string(n - 1, 'f') + "\xD0\x96\x02y";
            text += "\x01" "F---\xC3\x8A:" + std::string(n - n / 2 * 2, 'g');
            for (std::size_t k = 0; k < n / 2; ++k) text += "\xD0\x96";
            text += "\x02z";
        }
    for (int page : kDefaultPages) ExpectSameAsReference(text, page);
}

// Font commands the decoder remembers, met again: commands alike in their
// first eight bytes and different after them (one face a prefix of the
// other), a command shorter than eight bytes with different text after it,
// and a face in another page's letters between text of the default page;
// whole, and in pieces of every size, as the reference decodes them.
TEST(OldTextUtf8Streaming, FontCommandsMetAgainDecodeAsTheFirstTime)
{
    const std::string commands[] = {
        "\x01" "F11-\xC0:Calibri\x02", "\x01" "F11-\xC0:Cambria\x02", "\x01" "F11-\xC0:Calibri Light\x02",
        "\x01" "F---:-\x02", "\x01" "F11-\xCC:\xC0\xE0\x02", "\x01" "F11-\xCB:\x82\x6C\x95\x02",
    };
    std::string text;
    for (int round = 0; round < 3; ++round)
        for (const std::string& command : commands) text += command + (round == 1 ? "\xE0\x95\x5C" : "a\xC0");
    for (int page : kDefaultPages) {
        SCOPED_TRACE(page);
        const std::string expected = ReferenceOldTextToUtf8(text, page);
        EXPECT_EQ(OldTextToUtf8(text, page), expected);
        for (std::size_t size = 1; size <= text.size(); ++size)
            EXPECT_EQ(DecodeInPieces(text, page, {size}), expected) << "pieces of " << size;
    }
}

// Long texts: runs of ASCII longer than the steps the output grows by, runs
// of characters the page in force cannot hold (each of which makes the text
// longer), and more distinct font commands than a short text remembers, each
// met again after the others.
TEST(OldTextUtf8Streaming, LongTextsMatchTheReference)
{
    std::mt19937 rng(7);
    std::string randomRuns;
    for (int n = 0; n < 400; ++n) randomRuns += RandomText(rng);
    std::string foreignRuns, manyFonts;
    for (int n = 0; n < 2000; ++n) foreignRuns += "a\xD0\x96" + std::string(static_cast<std::size_t>(n % 5), 'b');
    for (int round = 0; round < 3; ++round)
        for (int k = 0; k < 300; ++k)
            manyFonts += "\x01" "F" + std::to_string(10 + k % 50) + "-\xC3\x8A:Face" + std::to_string(k) + "\x02\xD0\x96 ";
    // Font commands met again, in two pages, with characters of two and
    // three bytes between them that the page in force holds and does not,
    // bytes that only look like such characters (overlong, a surrogate,
    // cut short), and other commands in ASCII and not.
    std::string knownSteps;
    const std::string kBetween[] = {"ab", "\xC3\xA9", "\xE2\x82\xAC", "\xD0\x96", "\xE0\x81\x81", "\xED\xA0\x80",
                                    "\xC3", "\xE2\x82", "\xC0\xAF", "\xEF\x82\x81", "\xF0\x9F\x98\x80", std::string(20, 'c'),
                                    "\x01" "L1\x02", "\x01" "CH:" + std::string(40, 'h') + "\x03" "http://x\x02", "\x01" "CH:\xC3\xA9\x02", "\x01" "L\xC3\xA9\x02"};
    for (const char* charset : {"\xC3\x80", "\xC3\x8A"})
        for (int round = 0; round < 3; ++round)
            for (const std::string& between : kBetween) knownSteps += "\x01" "F11-" + std::string(charset) + ":Calibri\x02" + between + "x";
    const std::string texts[] = {
        randomRuns,
        knownSteps,
        std::string(5000, 'a') + "\xE2\x82\xAC" + std::string(3000, 'b') + "\x01" "CH:" + std::string(2500, 'c') + "\x02",
        foreignRuns,
        manyFonts,
    };
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.size());
        for (int page : kDefaultPages) ExpectSameAsReference(text, page);
    }
    EXPECT_GT(OldTextFromUtf8(foreignRuns, 1252).size(), foreignRuns.size());
}

TEST(OldTextUtf8Streaming, RandomAndMalformedTextMatchesTheReference)
{
    std::mt19937 rng(20261123);
    for (int n = 0; n < 4000; ++n) {
        const std::string text = RandomText(rng);
        SCOPED_TRACE(::testing::PrintToString(text));
        for (int page : kDefaultPages) ExpectSameAsReference(text, page);
        if (HasFailure()) break;
    }
}

// A command or a double-byte character cut anywhere between two pieces, and
// pieces of every size from 1, decode as the whole text does.
TEST(OldTextUtf8Streaming, EverySplitDecodesAsTheWholeText)
{
    std::mt19937 rng(11);
    std::vector<std::string> texts = {
        "\x01" "F---\xCB:\x82\x6C\x82\x72\x02\x95\x5C\x91\x77\x95\x01P1\x02\x95",
        "\x01" "F---\xCA:Face\x02\xE0\x01" "CH:\xE0\x03http://x/\x02\x01" "F---:-\x02\xE0",
        "\x01" "F12-\xC3\xCA" "B:\xCB\x02\x82\x01" "A\xFF\x02\x01",
    };
    for (int n = 0; n < 300; ++n) texts.push_back(RandomText(rng));
    for (const std::string& text : texts) {
        SCOPED_TRACE(::testing::PrintToString(text));
        for (int page : kDefaultPages) {
            const std::string whole = OldTextToUtf8(text, page);
            for (std::size_t cut = 0; cut <= text.size(); ++cut)
                EXPECT_EQ(DecodeInPieces(text, page, {cut, text.size()}), whole) << "cut at " << cut;
            for (std::size_t size = 1; size <= 9; ++size)
                EXPECT_EQ(DecodeInPieces(text, page, {size}), whole) << "pieces of " << size;
        }
        if (HasFailure()) break;
    }
}

// Finish ends one text: the decoder then starts the next one afresh, in the
// default page, with nothing left over.
TEST(OldTextUtf8Streaming, FinishStartsOver)
{
    COldTextUtf8Decoder decoder(1252);
    std::string first, second;
    decoder.Feed("\x01" "F---\xCA:-\x02\xE0\x01" "CH:\x82", first);
    decoder.Finish(first);
    EXPECT_EQ(first, OldTextToUtf8("\x01" "F---\xCA:-\x02\xE0\x01" "CH:\x82", 1252));
    decoder.Feed("\xE0", second);
    decoder.Finish(second);
    EXPECT_EQ(second, "\xC3\xA0");
}

// --- UTF-8 to old-format text in two parts on two threads. The suite's name
// puts these among the tests run under the thread checker.

namespace {

// The text encoded in two parts cut at `at` (0: where the encoder chooses)
// must give the one-part bytes and counts; returns whether the second
// part's bytes were used.
bool ExpectSameInTwoParts(const std::string& utf8, std::size_t at, int defaultCodePage = 1252)
{
    OldTextFromUtf8Counts whole, parts;
    const std::string expected = OldTextFromUtf8(utf8, defaultCodePage, &whole);
    OldTextFromUtf8Options options;
    options.nThreads = 2;
    options.splitAt = at;
    bool bUsed = true;
    options.pbSplitUsed = &bUsed;
    EXPECT_EQ(OldTextFromUtf8(utf8, defaultCodePage, options, &parts), expected) << "cut at " << at;
    EXPECT_EQ(parts.nUnencodable, whole.nUnencodable) << "cut at " << at;
    EXPECT_EQ(parts.nInvalid, whole.nInvalid) << "cut at " << at;
    return bUsed;
}

// Whether `at` starts a command that is not inside another one.
bool StartsCommandOutsideCommands(const std::string& text, std::size_t at)
{
    const std::size_t lastStart = at == 0 ? std::string::npos : text.rfind('\x01', at - 1);
    const std::size_t lastEnd = at == 0 ? std::string::npos : text.rfind('\x02', at - 1);
    return text[at] == '\x01' && (lastStart == std::string::npos || (lastEnd != std::string::npos && lastEnd > lastStart));
}

} // namespace

// Cut at every offset: inside a command and a font command, inside a
// character of two, three and four bytes, just after a font command with a
// character set of its own and one met before, in runs the page in force
// cannot hold and no page holds, among bytes that are not UTF-8, in runs long
// enough for the known steps; and in random, malformed text. Every cut before
// a command of a well-formed text is used.
TEST(ParallelConversion, OldTextFromUtf8CutAnywhereGivesTheOnePartText)
{
    const std::string russian = "\x01" "F12-B\xC3\x8A:Arial\x02", japanese = "\x01" "F---\xC3\x8B:\xEF\xBC\xAD\x02";
    std::string wellFormed = "\xEF\xBB\xBF" "abc";
    for (int round = 0; round < 2; ++round)
        wellFormed += russian + "\xD0\x96\xD0\xB0 " + std::string(70, 'x') + "\x01" "P1\x02\xE8\xA1\xA8\xE8\xA1\xA8q" +
                      "\x01" "CH:\xD0\x96\xF0\x9F\x98\x80\x03http://x/\x02\xF0\x9F\x98\x80" "a\xE9" "b\xC3" "c" + japanese +
                      "\xE8\xA1\xA8\xEF\x82\x81 " + std::string(20, 'y') + "\x01" "F---:-\x02\xD0\x96\xC3\xA9" + russian;
    // Font commands met before, each after a few words: taken by the steps
    // that copy text and remembered commands together.
    for (int round = 0; round < 3; ++round) wellFormed += "some words " + russian + "\xD0\xB0 more \x01" "F---:-\x02";
    wellFormed += std::string(60, 'e');
    const std::string malformed = "\x01" "F12-\xC3\x8A:\x01" "F---\xC3\x8B:-\x02\xD0\x96\x01P1" + std::string(80, 'z') +
                                  "\x01" "F---:-\x02\xD0\x96\x01" "F1";
    std::size_t nUsed = 0;
    for (std::size_t at = 1; at < wellFormed.size(); ++at) {
        const bool bUsed = ExpectSameInTwoParts(wellFormed, at);
        nUsed += bUsed ? 1 : 0;
        EXPECT_TRUE(bUsed || !StartsCommandOutsideCommands(wellFormed, at)) << "cut at " << at;
    }
    for (std::size_t at = 1; at < malformed.size(); ++at) ExpectSameInTwoParts(malformed, at);
    EXPECT_GT(nUsed, 20u);
    std::mt19937 rng(5);
    for (int n = 0; n < 150 && !HasFailure(); ++n) {
        const std::string text = RandomText(rng);
        SCOPED_TRACE(::testing::PrintToString(text));
        for (std::size_t at = 1; at < text.size(); ++at) ExpectSameInTwoParts(text, at, kDefaultPages[n % 3]);
    }
}

// The corpus's old-format text as UTF-8, cut before its commands near an
// eighth, a quarter, ... of it and at offsets in between: as one part. A
// text of two megabytes or more is cut by the encoder near its middle,
// before a command, where the second part is used; a shorter one is never
// cut.
TEST(ParallelConversion, OldTextFromUtf8InTwoPartsOnTheCorpus)
{
    const std::vector<std::string> files = CorpusRtfFiles();
    ASSERT_GT(files.size(), 50u);
    const std::size_t cbLarge = std::size_t(2) << 20;
    std::size_t nUsed = 0;
    std::string large;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const std::string utf8 = OldTextToUtf8(OldTextOrEmpty(ReadFileBytes(file), true), 1252);
        for (std::size_t eighth = 1; eighth < 8 && !utf8.empty(); ++eighth) {
            const std::size_t command = utf8.find('\x01', utf8.size() * eighth / 8);
            if (command != std::string::npos && command > 0) nUsed += ExpectSameInTwoParts(utf8, command) ? 1 : 0;
            ExpectSameInTwoParts(utf8, utf8.size() * eighth / 8 + 1);
        }
        EXPECT_FALSE(ExpectSameInTwoParts(utf8, 0));
        large += utf8;
    }
    EXPECT_GT(nUsed, files.size());
    ASSERT_FALSE(large.empty());
    while (large.size() < cbLarge) large += large;
    ExpectSameInTwoParts(large, 0);
    EXPECT_TRUE(ExpectSameInTwoParts(large, large.find('\x01', large.size() / 2)));
    EXPECT_FALSE(ExpectSameInTwoParts(large.substr(0, cbLarge - 1), 0));
    // Nor is one longer than the most that is cut.
    OldTextFromUtf8Options options;
    options.nThreads = 2;
    options.cbMostToSplit = large.size() - 1;
    bool bUsed = true;
    options.pbSplitUsed = &bUsed;
    EXPECT_EQ(OldTextFromUtf8(large, 1252, options), OldTextFromUtf8(large, 1252));
    EXPECT_FALSE(bUsed);
}
