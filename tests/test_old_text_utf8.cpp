// Old-format text to UTF-8 and back: known texts, every byte and every
// double-byte character of the Windows code pages back to itself, and the
// same characters through the lossless writer and the importer.
#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "old_to_rtf_helpers.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/OldTextUtf8.h"
#include "test_rtf_to_old_helpers.h"

using namespace rtfconv_test;
using rtf_converter::OldTextFromUtf8;
using rtf_converter::OldTextFromUtf8Counts;
using rtf_converter::OldTextToUtf8;

namespace {

// The font command's code of each character set, with the set's code page.
struct CharsetCode {
    char code;
    int codePage;
};
const CharsetCode kSingleByteSets[] = {
    {'\xC0', 1252}, {'\xC1', 1257}, {'\xC4', 1250}, {'\xC6', 1253}, {'\xC8', 10000}, {'\xC9', 850},
    {'\xCA', 1251}, {'\xCC', 42},   {'\xCD', 1254}, {'\xCE', 1258}, {'\xD0', 1256},  {'\xD1', 1255},
    {'\xD2', 874},
};
const CharsetCode kDoubleByteSets[] = {
    {'\xCB', 932}, {'\xC5', 936}, {'\xC7', 949}, {'\xC2', 950}, {'\xCF', 1361},
};

std::string FontCmd(char code, const std::string& face = "Face") { return Cmd(std::string("F---") + code + ":" + face); }

// Every byte but NUL and the command framing, once.
std::string EveryByte()
{
    std::string s;
    for (int b = 3; b < 256; ++b) s += static_cast<char>(b);
    return s;
}

// Every lead byte of the page with every trail byte from 0x20.
std::string EveryPair(int codePage)
{
    const rtf_converter::CCodePage* pPage = rtf_converter::CCodePage::Get(codePage);
    std::string s;
    if (!pPage) return s;
    for (int lead = 0x80; lead < 256; ++lead) {
        if (!pPage->IsLeadByte(static_cast<unsigned char>(lead))) continue;
        for (int trail = 0x20; trail < 256; ++trail) {
            s += static_cast<char>(lead);
            s += static_cast<char>(trail);
        }
    }
    return s;
}

void ExpectRoundTrip(const std::string& old, int defaultCodePage)
{
    const std::string utf8 = OldTextToUtf8(old, defaultCodePage);
    OldTextFromUtf8Counts counts;
    EXPECT_EQ(OldTextFromUtf8(utf8, defaultCodePage, &counts), old);
    EXPECT_EQ(counts.nUnencodable, 0u);
    EXPECT_EQ(counts.nInvalid, 0u);
}

struct Known {
    const char* name;
    std::string old;
    int defaultCodePage;
    std::string utf8;
};

TEST(OldTextUtf8, KnownTexts)
{
    const std::string S = "\x03";
    const std::vector<Known> rows = {
        {"the default page", "caf\xE9 \x80", 1252, "caf\xC3\xA9 \xE2\x82\xAC"},
        {"another default page", "\xCF\xF0\xE8", 1251, "\xD0\x9F\xD1\x80\xD0\xB8"},
        {"a font command's character set", FontCmd('\xCA') + "\xCF\xF0\xE8", 1252,
         "\x01" "F---\xC3\x8A:Face\x02\xD0\x9F\xD1\x80\xD0\xB8"},
        {"Shift-JIS with a backslash trail byte and a face name", FontCmd('\xCB', "\x82\x6C\x82\x72") + "\x95\x5C\x91\x77",
         1252, "\x01" "F---\xC3\x8B:\xEF\xBC\xAD\xEF\xBC\xB3\x02\xE8\xA1\xA8\xE5\xB1\xA4"},
        {"back to the default page", FontCmd('\xCA') + "\xE0" + Cmd("F---:-") + "\xE0", 1252,
         "\x01" "F---\xC3\x8A:Face\x02\xD0\xB0\x01" "F---:-\x02\xC3\xA0"},
        {"hyperlink text in the page in force", FontCmd('\xCA') + Cmd("CH:\xE0" + S + "http://x/"), 1252,
         "\x01" "F---\xC3\x8A:Face\x02\x01" "CH:\xD0\xB0\x03http://x/\x02"},
        {"an undefined byte", "\x81", 1252, "\xEF\x82\x81"},
        {"a lead byte before a command", FontCmd('\xCB') + "\x95" + Cmd("P1"), 1252,
         "\x01" "F---\xC3\x8B:Face\x02\xEF\x82\x95\x01P1\x02"},
        {"the symbol font", FontCmd('\xCC') + "a\xB7", 1252, "\x01" "F---\xC3\x8C:Face\x02" "a\xE2\x80\xA2"},
        {"an unterminated command", "\x01" "F---\xCA:\xE0", 1252, "\x01" "F---\xC3\x8A:\xD0\xB0"},
    };
    for (const Known& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(OldTextToUtf8(row.old, row.defaultCodePage), row.utf8);
        ExpectRoundTrip(row.old, row.defaultCodePage);
    }
}

TEST(OldTextUtf8, EveryByteOfEverySingleBytePage)
{
    for (const CharsetCode& set : kSingleByteSets) {
        SCOPED_TRACE(set.codePage);
        ASSERT_NE(rtf_converter::CCodePage::Get(set.codePage), nullptr);
        ExpectRoundTrip(FontCmd(set.code) + EveryByte(), 1252);
        if (set.codePage != 42) ExpectRoundTrip(EveryByte(), set.codePage);
    }
}

TEST(OldTextUtf8, EveryCharacterOfEveryDoubleBytePage)
{
    for (const CharsetCode& set : kDoubleByteSets) {
        SCOPED_TRACE(set.codePage);
        const std::string pairs = EveryPair(set.codePage);
        ASSERT_GT(pairs.size(), 1000u);
        ExpectRoundTrip(FontCmd(set.code) + pairs, 1252);
    }
}

// A character the page in force cannot hold is written in the font command in
// force with a character set that holds it; what no page holds becomes '?',
// counted; bytes that are not UTF-8 pass through, counted.
TEST(OldTextUtf8, WhatThePageInForceCannotHold)
{
    const std::string russian = Cmd("F---\xCA:-"), base = Cmd("F---:-");
    const std::string bold = Cmd("F12-B:Arial"), boldRussian = Cmd("F12-B\xCA:Arial");
    struct Row {
        const char* name;
        std::string utf8, old;
        std::size_t nUnencodable, nInvalid;
    };
    const std::vector<Row> rows = {
        {"a run of Cyrillic", "x\xD0\x96\xD0\x96y", "x" + russian + "\xC6\xC6" + base + "y", 0, 0},
        {"in the font in force", bold + "\xD0\x96", bold + boldRussian + "\xC6" + bold, 0, 0},
        {"Japanese", "\xE8\xA1\xA8", Cmd("F---\xCB:-") + "\x95\x5C" + base, 0, 0},
        {"in the font's own set", Cmd("F---\xC3\x8A:-") + "\xD0\x96", russian + "\xC6", 0, 0},
        {"no page holds it", "\xEF\xBB\xBFx\xF0\x9F\x98\x80y", "x?y", 1, 0},
        {"inside a hyperlink", Cmd("CH:\xD0\x96"), Cmd("CH:?"), 1, 0},
        {"not UTF-8", "a\xE9" "b\xC3", "a\xE9" "b\xC3", 0, 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OldTextFromUtf8Counts counts;
        EXPECT_EQ(OldTextFromUtf8(row.utf8, 1252, &counts), row.old);
        EXPECT_EQ(counts.nUnencodable, row.nUnencodable);
        EXPECT_EQ(counts.nInvalid, row.nInvalid);
    }
}

// The font command in force is the one met last, whether its bytes were
// worked out or remembered from an earlier meeting, and it stays so across
// the command written after a run in another character set.
TEST(OldTextUtf8, TheFontInForceMetAgain)
{
    const std::string bold = Cmd("F12-B:Arial"), boldRussian = Cmd("F12-B\xCA:Arial");
    const std::string italic = Cmd("F12-I:Arial"), italicRussian = Cmd("F12-I\xCA:Arial");
    struct Row {
        const char* name;
        std::string utf8, old;
    } rows[] = {
        {"remembered", bold + "a" + italic + "b" + bold + "\xD0\x96", bold + "a" + italic + "b" + bold + boldRussian + "\xC6" + bold},
        {"two runs after one command", bold + "\xD0\x96x\xD0\x96", bold + boldRussian + "\xC6" + bold + "x" + boldRussian + "\xC6" + bold},
        {"the last of several", bold + italic + bold + italic + "\xD0\x96", bold + italic + bold + italic + italicRussian + "\xC6" + italic},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(OldTextFromUtf8(row.utf8, 1252), row.old);
    }
}

// A font command met again is known by its first bytes up to its 0x02: those
// of every length around the most it is remembered for, met again far from
// the end of the text and near it, each followed by text of its own page
// and by text of every length up to the next, come back as they were.
TEST(OldTextUtf8, FontCommandsOfEveryLengthMetAgain)
{
    for (std::size_t cbFace = 20; cbFace <= 40; ++cbFace) {
        const std::string russian = Cmd("F12-B\xCA:" + std::string(cbFace, 'f'));
        const std::string plain = Cmd("F12-I:" + std::string(cbFace, 'g'));
        std::string old;
        for (std::size_t cbText : {0, 1, 15, 16, 17, 47, 48, 60}) old += russian + "\xC6" + std::string(cbText, 'x') + plain + "y";
        for (const std::string& cmd : {russian, plain, russian}) old += cmd + "\xC6";
        SCOPED_TRACE(cbFace);
        OldTextFromUtf8Counts counts;
        EXPECT_EQ(OldTextFromUtf8(OldTextToUtf8(old, 1252), 1252, &counts), old);
        EXPECT_EQ(counts.nUnencodable + counts.nInvalid, 0u);
    }
}

// One character in two pages with different bytes (the euro sign: 0x80 in
// 1252, 0x88 in 1251), met again and again as the font commands alternate:
// each run gets the bytes of its own page. And text between commands in its
// shapes: ASCII to the end, ASCII up to a command, a NUL, ASCII then more.
TEST(OldTextUtf8, TheSameCharacterInPagesTakenInTurn)
{
    // A font command's character set code is one byte, U+00C0 and up in UTF-8.
    const std::string russian = Cmd("F---\xCA:-"), ansi = Cmd("F---\xC0:-");
    const std::string russianUtf8 = Cmd("F---\xC3\x8A:-"), ansiUtf8 = Cmd("F---\xC3\x80:-");
    const std::string euro = "\xE2\x82\xAC";
    std::string alternatingUtf8, alternatingOld;
    for (int k = 0; k < 300; ++k) {
        alternatingUtf8 += russianUtf8 + euro + "r" + ansiUtf8 + euro + euro;
        alternatingOld += russian + "\x88r" + ansi + "\x80\x80";
    }
    struct Row {
        const char* name;
        std::string utf8, old;
    } rows[] = {
        {"alternating pages", alternatingUtf8, alternatingOld},
        {"ASCII to the end", russianUtf8 + "abc", russian + "abc"},
        {"ASCII up to a command", "abc" + ansiUtf8 + euro, "abc" + ansi + "\x80"},
        {"a NUL in the text", std::string("a\0b", 3) + euro, std::string("a\0b\x80", 4)},
        {"ASCII then the page's characters", russianUtf8 + "ab" + euro + "\xD0\x96" "c", russian + "ab\x88\xC6" "c"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OldTextFromUtf8Counts counts;
        EXPECT_EQ(OldTextFromUtf8(row.utf8, 1252, &counts), row.old);
        EXPECT_EQ(counts.nUnencodable, 0u);
        EXPECT_EQ(OldTextToUtf8(row.old, 1252), row.utf8);
    }
}

// Far from the end of the text, where characters past ASCII and font
// commands are taken a block at a time: each piece, a font command (short
// ones, whose slot among those remembered the text after them helps choose,
// and a longer one) with a letter that differs from one meeting to the next
// and characters held or not by the page (the first and the accented
// letters of two bytes, the punctuation of U+2000 to U+20FF, those just
// outside them, bytes that are not UTF-8, in text and in comment
// commands), gives the bytes and counts it
// gives alone, met again and again in a long text.
TEST(OldTextUtf8, PiecesMetAgainFarFromTheEnd)
{
    const std::string base = Cmd("F---:-"), ansi = Cmd("F---\xC3\x80:-"), russian = Cmd("F---\xC3\x8A:-");
    const std::string arial = Cmd("F12-B\xC3\x80:Arial");
    const std::pair<std::string, std::string> pieces[] = {
        {base, "caf\xC3\xA9 "},
        {ansi, "\xD0\x96\xD0\x96 x"},
        {russian, "\xD0\x96" "a\xC3\xA9"},
        {arial, "\xE2\x80\x93\xE2\x82\xAC\xE2\x80\x90"},
        {base, "\xC2\x80\xDF\xBF\xE2\x83\xBF\xE2\x84\x80"},
        {ansi, "\xE0\x80\x80" "a\xE2\x80" "b"},
        {ansi, Cmd("CN:\xC2\xB7\x03\x03" "a") + "t"},
        {russian, Cmd("CH:\xD0\x96\xE2\x80\xA2\x03http://a") + Cmd("CH:\xD0\x96\xC3\xA4\x03x")},
    };
    std::string utf8, old;
    OldTextFromUtf8Counts alone;
    for (std::size_t k = 0; k < 600; ++k) {
        const auto& piece = pieces[k % std::size(pieces)];
        const std::string one = piece.first + static_cast<char>('a' + k % 23) + piece.second;
        OldTextFromUtf8Counts counts;
        old += OldTextFromUtf8(one, 1252, &counts);
        alone.nUnencodable += counts.nUnencodable;
        alone.nInvalid += counts.nInvalid;
        utf8 += one;
    }
    OldTextFromUtf8Counts counts;
    EXPECT_EQ(OldTextFromUtf8(utf8, 1252, &counts), old);
    EXPECT_EQ(counts.nUnencodable, alone.nUnencodable);
    EXPECT_EQ(counts.nInvalid, alone.nInvalid);
    EXPECT_GT(alone.nUnencodable, 0u);
    EXPECT_GT(alone.nInvalid, 0u);
}

// The bytes of every page through the lossless writer and the importer: the
// text the importer gives back holds the same bytes.
std::string TextOutsideCommands(const std::string& old)
{
    std::string text;
    for (std::size_t i = 0; i < old.size(); ++i) {
        if (old[i] == '\x01') {
            const std::size_t end = old.find('\x02', i);
            if (end == std::string::npos) break;
            i = end;
        } else {
            text += old[i];
        }
    }
    return text;
}

std::string ThroughWriterAndImporter(const std::string& old)
{
    CComPtr<IStream> out;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    rtf_converter::COldToRTF writer(*out);
    writer.SetLossless(true);
    const LOGFONT lf = ArialTen();
    EXPECT_EQ(writer.Convert(old.c_str(), &lf), S_OK);
    return OldText(StreamBytes(out));
}

TEST(OldTextUtf8, EveryCharacterThroughTheWriterAndTheImporter)
{
    // The control bytes below 0x20 are the format's own (tab, paragraph,
    // line, dropped 0x17) or not text.
    std::string printable;
    for (int b = 0x20; b < 256; ++b)
        if (b != 0x7F) printable += static_cast<char>(b);
    std::vector<std::pair<char, std::string>> texts;
    for (const CharsetCode& set : kSingleByteSets) texts.emplace_back(set.code, printable);
    for (const CharsetCode& set : kDoubleByteSets) texts.emplace_back(set.code, EveryPair(set.codePage));
    for (const auto& text : texts) {
        SCOPED_TRACE(static_cast<int>(static_cast<unsigned char>(text.first)));
        const std::string back = TextOutsideCommands(ThroughWriterAndImporter(FontCmd(text.first) + text.second + "\r"));
        EXPECT_EQ(back, text.second + "\r");
    }
}

} // namespace
