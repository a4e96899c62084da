// The writer side of the Unicode pair: UTF-8 text to RTF, and back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "rtfconverter/ByteScan.h"

#include "rtfconverter/CodePages.h"
#include "rtfconverter/RtfToUtf8.h"
#include "rtfconverter/Utf8ToRTF.h"

using rtf_converter::CBytePtrRTFToUTF8PtrParser;
using rtf_converter::CUTF8TextToRTF;
using rtf_converter::FindInvalidUtf8;

namespace {

LOGFONT ArialTenPoints()
{
    LOGFONT lf = {};
    lf.lfHeight = -13;  // 10 points at 96 pixels per inch
    lf.lfPitchAndFamily = 0x22;
    std::strcpy(lf.lfFaceName, "Arial");
    return lf;
}

std::string ToRtf(const std::string& text, int codePage)
{
    CUTF8TextToRTF writer;
    writer.SetCodePage(codePage);
    const LOGFONT lf = ArialTenPoints();
    writer.Convert(text.c_str(), &lf);
    const CString rtf = writer.Export();
    return std::string(rtf.GetString(), static_cast<std::size_t>(rtf.GetLength()));
}

// What follows the body's opening keywords, up to the closing brace.
std::string Body(const std::string& rtf)
{
    const std::string start = "\\cf0 ";
    const std::size_t pos = rtf.find(start);
    return pos == std::string::npos ? rtf : rtf.substr(pos + start.size(), rtf.size() - pos - start.size() - 1);
}

std::string ToUtf8(const std::string& rtf)
{
    unsigned long cb = static_cast<unsigned long>(rtf.size());
    CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()), cb);
    std::string out;
    char buf[256];
    bool bMore = true;
    while (bMore)
        out.append(buf, reader.Read(buf, buf + sizeof buf, bMore));
    return out;
}

// The document WriteDocument hands on in blocks of cbBlock (0: the default
// size), checking the blocks as they come.
std::string Written(const char* pText, std::size_t cbText, int codePage, std::size_t cbBlock = 0)
{
    CUTF8TextToRTF writer;
    writer.SetCodePage(codePage);
    if (cbBlock) writer.SetBlockSize(cbBlock);
    const std::size_t cbMost = std::clamp(cbBlock ? cbBlock : CUTF8TextToRTF::kcbDefaultBlock,
                                          CUTF8TextToRTF::kcbLeastBlock, CUTF8TextToRTF::kcbMostBlock);
    const LOGFONT lf = ArialTenPoints();
    std::string rtf;
    std::size_t cbDoneBefore = 0;
    writer.WriteDocument(pText, cbText, &lf, [&](const char* p, std::size_t cb, std::size_t cbTextDone) {
        EXPECT_GT(cb, 0u);
        EXPECT_LE(cb, cbMost);
        EXPECT_GE(cbTextDone, cbDoneBefore);
        EXPECT_LE(cbTextDone, cbText);
        cbDoneBefore = cbTextDone;
        rtf.append(p, cb);
    });
    return rtf;
}

// Text that puts every kind of piece at every offset around the writer's
// block edges, runs of `cbFill` letters between the pieces, and its body in
// code page 1252, made piece by piece.
struct PiecesText {
    std::string text;
    std::string body;
};
PiecesText PiecesAmongRuns(std::size_t cbTotal, std::size_t cbFill)
{
    static const struct {
        const char* text;
        const char* rtf;
    } pieces[] = {
        {"\\", "\\\\"}, {"{", "\\{"}, {"}", "\\}"}, {"\t", "\\tab "}, {"\n", "\\par "}, {"\r\n", "\\par "},
        {"\r", "\\par "}, {"\x17", ""}, {"\x01", "\x01"}, {"\x7f", "\x7f"}, {"\xc3\xa9", "\\'e9"},
        {"\xd0\x9f", "\\u1055?"}, {"\xef\xbd\xb1", "\\u-143?"}, {"\xf0\x9f\x98\x80", "\\u-10179?\\u-8704?"},
        {"\xff", "\\u-3?"},
        // A word of characters, then sequences that start as one met before
        // does and are not well formed: each of their bytes is U+FFFD.
        {"\xc3\xa9\xd0\x9f\xe2\x80\x94\xc3\xa9", "\\'e9\\u1055?\\'97\\'e9"}, {"\xc3\xa9\xc3!", "\\'e9\\u-3?!"},
        {"\xe2\x80!", "\\u-3?\\u-3?!"}, {"\xc0\xa9!", "\\u-3?\\u-3?!"}, {"\xed\xa0\x80!", "\\u-3?\\u-3?\\u-3?!"},
        {"\xf4\x90\x80\x80!", "\\u-3?\\u-3?\\u-3?\\u-3?!"},
        // Words longer than eight bytes, one with a character across the
        // eighth; one with a byte that starts no sequence amid well-formed
        // ones; a word of three letters and a bullet, each with a tab.
        {"\xce\xb1\xce\xb2\xce\xb3\xe2\x80\x94\xce\xb1", "\\u945?\\u946?\\u947?\\'97\\u945?"},
        {"\xce\xb1\xce\xb2\xce\xb3\xce\xb4\xce\xb5", "\\u945?\\u946?\\u947?\\u948?\\u949?"},
        {"\xc3\xa9\xc3\xc3\xa9", "\\'e9\\u-3?\\'e9"}, {"\xc3\xa4\xc3\xb6\xc3\xbc\t", "\\'e4\\'f6\\'fc\\tab "},
        {"\xe2\x80\xa2\t", "\\'95\\tab "},
        // A lead and eight trail bytes, first not well formed, then well
        // formed with the same lead: nothing of the first is kept for it.
        {"\xe0\x80\x80\x80\x80\x80\x80\x80\x80!", "\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?!"},
        {"\xe0\xa0\x80\x80\x80\x80\x80\x80\x80!", "\\u2048?\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?\\u-3?!"},
    };
    PiecesText made;
    for (std::size_t i = 0; made.text.size() < cbTotal; ++i) {
        const std::string fill(cbFill, static_cast<char>('a' + i % 26));
        const auto& piece = pieces[i % (sizeof pieces / sizeof *pieces)];
        made.text += fill + piece.text;
        made.body += fill + piece.rtf;
    }
    return made;
}

// The offset of the first byte that starts no well-formed sequence, found
// a byte at a time from the ranges each lead byte allows its second byte.
std::size_t FirstInvalidByteByByte(const std::string& text)
{
    const std::size_t cb = text.size();
    for (std::size_t i = 0; i < cb;) {
        const unsigned char b = static_cast<unsigned char>(text[i]);
        if (b < 0x80) {
            ++i;
            continue;
        }
        std::size_t cbSequence = 0;
        unsigned char lo = 0x80, hi = 0xBF;
        if (b >= 0xC2 && b <= 0xDF) cbSequence = 2;
        else if (b == 0xE0) cbSequence = 3, lo = 0xA0;
        else if (b == 0xED) cbSequence = 3, hi = 0x9F;
        else if (b >= 0xE1 && b <= 0xEF) cbSequence = 3;
        else if (b == 0xF0) cbSequence = 4, lo = 0x90;
        else if (b == 0xF4) cbSequence = 4, hi = 0x8F;
        else if (b >= 0xF1 && b <= 0xF3) cbSequence = 4;
        else return i;
        if (cb - i < cbSequence) return i;
        const unsigned char second = static_cast<unsigned char>(text[i + 1]);
        if (second < lo || second > hi) return i;
        for (std::size_t k = 2; k < cbSequence; ++k)
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) return i;
        i += cbSequence;
    }
    return cb;
}

// The UTF-8 checks: the one FindInvalidUtf8 picks, the words check every
// processor runs, and the 32-byte one where this processor has AVX2.
std::vector<std::size_t (*)(const char*, std::size_t)> Utf8Checks()
{
    std::vector<std::size_t (*)(const char*, std::size_t)> checks = {FindInvalidUtf8,
                                                                     rtf_converter::byte_scan::FindInvalidUtf8ByWords};
#if RTFCONV_SCAN_AVX2
    if (rtf_converter::byte_scan::CanFindInvalidUtf8ByBlocks())
        checks.push_back(rtf_converter::byte_scan::FindInvalidUtf8ByBlocks);
#endif
    return checks;
}

} // namespace

// The document made block by block is the document Convert and Export make,
// whatever falls on the edge of a block.
TEST(Utf8ToRtf, WriteDocumentIsExport)
{
    // One word of two-byte characters, with more pairs of them than are kept.
    std::string letters;
    for (char32_t cp = 0xA0; letters.size() < 300000; cp = cp == 0x7FF ? 0xA0 : cp + 1) {
        char utf8[4];
        letters.append(utf8, rtf_converter::EncodeUtf8(cp, utf8));
    }
    for (const std::string& text : {std::string(), std::string("Caf\xc3\xa9 {\xd0\x9f}\r\n"), std::string("\xef\xbb\xbfx"),
                                    std::string(300000, 'a'), PiecesAmongRuns(1000, 3).text, letters})
        for (int codePage : {1252, 932})
            EXPECT_EQ(Written(text.data(), text.size(), codePage), ToRtf(text, codePage))
                << text.size() << " bytes, code page " << codePage;
    // Every block size, the least and the most asked for outside the range.
    for (std::size_t cbBlock : {std::size_t(1), CUTF8TextToRTF::kcbLeastBlock, CUTF8TextToRTF::kcbMostBlock,
                                CUTF8TextToRTF::kcbMostBlock * 2})
        for (std::size_t cbFill : {0, 1, 5, 15, 16, 17, 33, 47, 100, 1000}) {
            const PiecesText made = PiecesAmongRuns(300000, cbFill);
            const std::string written = Written(made.text.data(), made.text.size(), 1252, cbBlock);
            EXPECT_EQ(written, ToRtf(made.text, 1252)) << cbFill << " between pieces, blocks of " << cbBlock;
            EXPECT_TRUE(Body(written) == made.body) << cbFill << " between pieces, blocks of " << cbBlock;
        }
}

// The text's end is cbText, or a NUL before it; nothing past it is read: a
// CR LF or a UTF-8 sequence cut by the end is cut in the RTF too.
TEST(Utf8ToRtf, WriteDocumentEndsAtTheTextsEnd)
{
    const struct {
        const char* label;
        std::string text;
        std::size_t cb;
        std::string sameAs;
    } rows[] = {
        {"a NUL ends the text", std::string("ab\0cd", 5), 5, "ab"},
        {"CR LF cut after the CR", "a\r\nb", 2, "a\r"},
        {"a sequence cut by the end", "a\xe2\x82\xac", 3, "a\xe2\x82"},
        {"a byte-order mark cut by the end", "\xef\xbb\xbf", 2, "\xef\xbb"},
        {"nothing", "abc", 0, ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Written(row.text.data(), row.cb, 1252), ToRtf(row.sameAs, 1252)) << row.label;
    EXPECT_EQ(Written(nullptr, 5, 1252), ToRtf("", 1252));
}

// A sink that fails stops the writer: its exception comes out as it is, and
// the writer is ready for the next text.
TEST(Utf8ToRtf, WriteDocumentStopsWhenTheSinkThrows)
{
    const std::string text = PiecesAmongRuns(400000, 10).text;
    CUTF8TextToRTF writer;
    int cBlocks = 0;
    EXPECT_THROW(writer.WriteDocument(text.data(), text.size(), nullptr,
                                      [&](const char*, std::size_t, std::size_t) {
                                          if (++cBlocks == 2) throw std::runtime_error("disk full");
                                      }),
                 std::runtime_error);
    EXPECT_EQ(cBlocks, 2);
    std::string rtf;
    writer.WriteDocument("x", 1, nullptr, [&](const char* p, std::size_t cb, std::size_t) { rtf.append(p, cb); });
    EXPECT_EQ(Body(rtf), "x");
}

// Sequences well formed and not, whole and cut at every length, after
// ASCII or characters of two to four bytes, at every offset of the first
// two steps of the 32-byte check (two blocks a step), and before ASCII,
// another character or the end.
TEST(Utf8ToRtf, FindInvalidUtf8AgreesWithAByteAtATimeCheck)
{
    const std::string sequences[] = {
        "\xc3\xa9", "\xdf\xbf", "\xe0\xa0\x80", "\xe2\x80\xa2", "\xed\x9f\xbf", "\xee\x80\x80",
        "\xef\xbf\xbd", "\xf0\x90\x80\x80", "\xf3\xbf\xbf\xbf", "\xf4\x8f\xbf\xbf",
        // Overlong, surrogates, beyond U+10FFFF, bytes that start nothing.
        "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xf0\x8f\xbf\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
        "\xf4\x90\x80\x80", "\xf4\xbf\xbf\xbf", "\xf5\x80\x80\x80", "\xf8\x88\x80\x80", "\xff", "\x80", "\xbf",
        "\xc3\xc3", "\xe2\x80\x41"};
    const std::string characters = "\xc3\xa4\xe2\x80\xa2\xf0\x9f\x98\x80\xce\xb1\xe4\xb8\xad\xf4\x8f\xbf\xbf";
    const auto checks = Utf8Checks();
    for (std::size_t cbPrefix = 0; cbPrefix < 136; ++cbPrefix) {
        // As many whole characters as fit, after ASCII.
        std::string repeated;
        while (repeated.size() <= cbPrefix) repeated += characters;
        std::size_t cbWord = cbPrefix;
        while ((static_cast<unsigned char>(repeated[cbWord]) & 0xC0) == 0x80) --cbWord;
        const std::string word = std::string(cbPrefix - cbWord, 'x') + repeated.substr(0, cbWord);
        for (const std::string& prefix : {std::string(cbPrefix, 'x'), word})
            for (const std::string& sequence : sequences)
                for (std::size_t cbKept = 1; cbKept <= sequence.size(); ++cbKept)
                    for (const char* suffix : {"", "x", "\xc3\xb6", "xxxxxxxxxxxxxxxxxxxx\xff"}) {
                        const std::string text = prefix + sequence.substr(0, cbKept) + suffix;
                        for (auto check : checks)
                            ASSERT_EQ(check(text.data(), text.size()), FirstInvalidByteByByte(text))
                                << cbPrefix << " " << sequence.size() << " " << cbKept << " " << suffix;
                    }
    }
}

// Long runs of ASCII and of characters of two, three and four bytes, well
// formed, then with a bad byte at every offset; nothing read past the length given.
TEST(Utf8ToRtf, FindInvalidUtf8StopsAtTheEndGiven)
{
    const auto checks = Utf8Checks();
    for (const std::string& unit : {std::string("x"), std::string("\xce\xb1"), std::string("\xe2\x80\xa2"),
                                    std::string("\xf0\x9f\x98\x80"), std::string("a\xc3\xa4\xe4\xb8\xad\xf3\xbf\xbf\xbf")}) {
        std::string run;
        while (run.size() < 200) run += unit;
        for (auto check : checks) ASSERT_EQ(check(run.data(), run.size()), run.size()) << unit;
        for (std::size_t at = 0; at < 140; ++at)
            for (const char bad : {'\x80', '\xbf', '\xc0', '\xc1', '\xf5', '\xff', 'x'}) {
                std::string text = run;
                text[at] = bad;
                for (auto check : checks)
                    ASSERT_EQ(check(text.data(), text.size()), FirstInvalidByteByByte(text))
                        << unit << " " << at << " " << int(bad);
            }
    }
    for (std::size_t at = 0; at < 140; ++at) {
        // A good character cut by the length given, whatever follows it.
        const std::string text = std::string(at, 'x') + "\xe2\x82\xac";
        for (auto check : checks) {
            EXPECT_EQ(check(text.data(), at + 2), at) << at;
            EXPECT_EQ(check(text.data(), at + 3), at + 3) << at;
            EXPECT_EQ(check(text.data(), at), at) << at;
        }
    }
}

// The run scan and copy agree with the byte-by-byte definition for every
// byte at every offset around their 16-byte steps; the copy copies the run
// and writes nothing past the length it is given.
TEST(ByteScan, CopyInRangeBeforeStopsAtTheFirstStop)
{
    using rtf_converter::byte_scan::CopyInRangeBefore;
    using rtf_converter::byte_scan::InRangeLengthBefore;
    for (int b = 0; b < 256; ++b) {
        const char ch = static_cast<char>(b);
        const bool bStop = b < 0x20 || b > 'z' || ch == '\\';
        for (std::size_t at = 0; at < 40; ++at) {
            std::string text(40, 'a');
            for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('0' + i);
            text[at] = ch;
            for (std::size_t cb : {std::size_t(40), at, at + 1}) {
                std::string out(48, '#');
                const std::size_t expected = bStop ? std::min(at, cb) : cb;
                EXPECT_EQ(CopyInRangeBefore(&out[0], text.data(), cb, 0x20, 'z', '\\'), expected) << b << " at " << at;
                EXPECT_EQ(InRangeLengthBefore(text.data(), cb, 0x20, 'z', '\\'), expected) << b << " at " << at;
                EXPECT_EQ(out.substr(0, expected), text.substr(0, expected)) << b << " at " << at;
                EXPECT_EQ(out.substr(cb), std::string(48 - cb, '#')) << b << " at " << at << ", " << cb << " given";
            }
        }
    }
}

// TakeDocument builds in the body's memory what Export copies; the two must
// agree, and the writer must convert afresh afterwards.
TEST(Utf8ToRtf, TakeDocumentIsExport)
{
    const LOGFONT lf = ArialTenPoints();
    const std::string large = std::string(100000, 'a') + "\xc3\xa9{}\\\n" + std::string(5000, '\xd0');
    for (const std::string& text : {std::string(), std::string("Caf\xc3\xa9 {\xd0\x9f}\r\n"), large}) {
        CUTF8TextToRTF writer;
        writer.SetCodePage(1251);
        writer.Convert(text.c_str(), &lf);
        const CString exported = writer.Export();
        const CString taken = writer.TakeDocument();
        EXPECT_STREQ(taken.GetString(), exported.GetString());
        EXPECT_EQ(taken.GetLength(), exported.GetLength());
        writer.Convert("x", &lf);
        EXPECT_EQ(Body(writer.TakeDocument().GetString()), "x");
    }
}

TEST(Utf8ToRtf, WholeDocument)
{
    EXPECT_EQ(ToRtf("Caf\xc3\xa9 {\xd0\x9f}", 1251),
              "{\\rtf1\\ansi\\ansicpg1251\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset204\\fswiss Arial;}}"
              "{\\colortbl;\\red0\\green0\\blue0;}\\uc1\\pard\\f0\\fs20\\cf0 Caf\\u233? \\{\\'cf\\}}");
}

TEST(Utf8ToRtf, CharactersAndLineEnds)
{
    const struct {
        const char* label;
        std::string text;
        int codePage;
        std::string body;
    } rows[] = {
        {"specials", "a\\b{c}", 1252, "a\\\\b\\{c\\}"},
        {"line ends", "a\nb\r\nc\rd\te", 1252, "a\\par b\\par c\\par d\\tab e"},
        {"final line end adds no paragraph", "a\n", 1252, "a\\par "},
        {"empty", "", 1252, ""},
        {"0x17 dropped", "a\x17" "b", 1252, "ab"},
        {"in the page: \\'hh", "\xc3\xa9\xe2\x80\x94", 1252, "\\'e9\\'97"},
        {"byte-order mark dropped", "\xef\xbb\xbfx", 1252, "x"},
        {"outside the page: \\u", "\xd0\x9f", 1252, "\\u1055?"},
        {"above U+7FFF: negative", "\xef\xbd\xb1", 1252, "\\u-143?"},
        {"beyond U+FFFF: a surrogate pair", "\xf0\x9f\x98\x80", 1252, "\\u-10179?\\u-8704?"},
        {"not UTF-8", "a\xff" "b\xc3", 1252, "a\\u-3?b\\u-3?"},
        {"double-byte page", "\xe3\x81\x82\xe3\x82\xbd", 932, "\\'82\\'a0\\'83\\'5c"},
        {"a character the page folds into ASCII", "\xc2\xa5", 932, "\\u165?"},
        {"unknown page writes 1252", "\xc3\xa9", 99999, "\\'e9"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Body(ToRtf(row.text, row.codePage)), row.body) << row.label;
    EXPECT_NE(ToRtf("x", 99999).find("\\ansicpg1252"), std::string::npos);
}

// Characters met again, and many that share a slot of the writer's memo,
// are written as each is alone.
TEST(Utf8ToRtf, EveryCharacterAsItIsAlone)
{
    std::vector<std::string> characters;
    auto add = [&](char32_t first, char32_t last) {
        for (char32_t cp = first; cp <= last; ++cp) {
            char utf8[4];
            characters.emplace_back(utf8, rtf_converter::EncodeUtf8(cp, utf8));
        }
    };
    add(0xA0, 0x7FF);
    add(0x2000, 0x20FF);
    add(0x4E00, 0x51FF);
    add(0x1F600, 0x1F6FF);
    for (int codePage : {1252, 1251, 932}) {
        std::string text, body;
        for (int pass = 0; pass < 2; ++pass)
            for (std::size_t i = 0; i < characters.size(); ++i) {
                // The first pass in order, long runs of characters of each
                // length; the second in another order, a letter between some.
                const std::string& character = characters[pass == 0 ? i : (i * 7919) % characters.size()];
                text += character;
                body += Body(ToRtf(character, codePage));
                if (pass == 1 && i % 5 == 0) {
                    text += 'x';
                    body += 'x';
                }
            }
        EXPECT_TRUE(Body(ToRtf(text, codePage)) == body) << codePage;
    }
}

TEST(Utf8ToRtf, RoundTripGivesTheTextBack)
{
    const std::string text =
        "Plain ASCII \\ {braces} and\ttabs\n"
        "Latin: caf\xc3\xa9 na\xc3\xafve \xc5\x92uvre \xe2\x80\x94 \xe2\x80\x9cquoted\xe2\x80\x9d \xe2\x82\xac\n"
        "Cyrillic: \xd0\x9f\xd1\x80\xd0\xb8\xd0\xb2\xd0\xb5\xd1\x82; Greek: \xce\xb1\xce\xb2\xce\xb3\n"
        "CJK: \xe3\x81\x82\xe3\x82\xbd\xe4\xb8\xad\xe6\x96\x87\xed\x95\x9c\xef\xbd\xb1 \xc2\xa5\n"
        "Emoji: \xf0\x9f\x98\x80 \xf0\xa0\x9c\x8e and U+FFFD \xef\xbf\xbd\n"
        "\n"
        "after an empty line, no final line end (the reader adds one)";
    for (int codePage : {1250, 1251, 1252, 1253, 1254, 874, 10000, 932, 936, 949, 950})
        EXPECT_EQ(ToUtf8(ToRtf(text, codePage)), text + "\n") << codePage;
}
