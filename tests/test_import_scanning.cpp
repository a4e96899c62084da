// The importer's quick paths against what they stand for: the byte scanner
// that finds the end of plain text, the lossless rows found through a
// two-byte filter, and the UTF-8 of long font commands in pieces.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "old_text_utf8_reference.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/OldTextUtf8.h"
#include "test_rtf_to_old_helpers.h"

using namespace rtf_converter;

namespace {

std::size_t NaiveLengthBeforeLowOr(const char* p, std::size_t cb, unsigned char below, bool bStopAtHigh, char stop)
{
    std::size_t n = 0;
    for (; n < cb; ++n) {
        const unsigned char b = static_cast<unsigned char>(p[n]);
        if (b < below || (bStopAtHigh && b >= 0x80) || p[n] == stop)
            break;
    }
    return n;
}

} // namespace

TEST(ByteScan, LengthBeforeLowOrStopsWhereAByteByByteLoopStops)
{
    // Every window of a buffer that holds stops rarely, so that runs cross the
    // 16-byte blocks, at every alignment.
    std::mt19937 random(7);
    std::string bytes(200, 'x');
    for (char& ch : bytes) {
        const unsigned r = random() % 64;
        ch = r == 0 ? '\x01' : r == 1 ? '\x17' : r == 2 ? '\x80' : r == 3 ? '\xFF' : r == 4 ? '\x04' : r == 5 ? '\x03' : 'a';
    }
    const unsigned char belows[] = {0, 1, 4, 0x20, 0x80};
    for (unsigned char below : belows)
        for (bool bHigh : {false, true})
            for (std::size_t start = 0; start < 40; ++start)
                for (std::size_t cb = 0; start + cb <= bytes.size(); cb += 3) {
                    const char* p = bytes.data() + start;
                    ASSERT_EQ(byte_scan::LengthBeforeLowOr(p, cb, below, bHigh, '\x17'),
                              NaiveLengthBeforeLowOr(p, cb, below, bHigh, '\x17'))
                        << int(below) << " " << bHigh << " " << start << "+" << cb;
                }
}

namespace {

// Every lossless row beside words that begin as rows do and are not rows
// (\lin, \fs, \fi, \ul, \ulnone, \trleft), in both readings.
const char kRowsDocument[] =
    "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fcharset0 Arial;}{\\f1\\fcharset204 Cyr;}}\\uc1 "
    "a\\u8364?b\\~c\\-d\\_e\\endash f\\emdash g\\bullet h\\lquote i\\rquote j\\ldblquote k\\rdblquote l"
    "\\enspace m\\emspace n\\qmspace o{\\super p\\sub q\\nosupersub r}\\f1 s\\plain t"
    "{\\field{\\*\\fldinst HYPERLINK \"http://x.y/\"}{\\fldrslt link}}\\li720\\lin720\\fi-360\\fs20\\ul u\\ulnone"
    "\\trowd\\trleft5\\cellx100\\intbl v\\nestcell w\\nestrow\\cell\\row {\\*\\nonesttables x}"
    "{\\*\\nesttableprops y}{\\list z}{\\listoverride 1}{\\tc 2}{\\xe 3}{\\*\\unknown {\\bin2 }}}}";

const char kPagesDocument[] = "{\\rtf1\\mac \\'8e\\pca \\'82\\pc \\'82 \\ansi \\'e9\\par}";

std::string Font(const std::string& head, const std::string& face) { return rtfconv_test::Cmd("F---" + head + ":" + face); }

} // namespace

TEST(ImportLosslessRows, EveryRowIsFoundAndTheWordsBesideThemAreNot)
{
    using rtfconv_test::Cmd;
    struct Row {
        const char* rtf;
        bool bLossless;
        std::string expected;
    };
    const std::string arial = Font("\xC0", "Arial");
    const std::string tail = Font("\xCA", "Cyr") + "s" + Font("\xC0", "Arial") + "t" + Cmd("CH:link\x03http://x.y/") +
                             Cmd("F10-\xC0U:Arial") + "uv";
    const Row rows[] = {
        {kRowsDocument, true,
         arial + "a\x80" "b\xA0" "c\xAD" "d-e\x96" "f\x97g\x95h\x91i\x92j\x93k\x94l m n o" + Font("\xC0S", "Arial") + "p" +
             Font("\xC0s", "Arial") + "q" + arial + "r" + tail + "\tw\r" + Cmd("LL050000-025") + "\t\ry"},
        {kRowsDocument, false,
         "a?bcdefgh\x91i\x92jklmno" + Font("S", "-") + "p" + Font("Ss", "-") + "qr" + tail + "w\t\r" +
             Cmd("LL050000-025") + "z123"},
        {kPagesDocument, true, Font("\xC8", "-") + "\x8e" + Font("\xC0", "-") + "\xE9\xE9 " + Font("", "-") + "\xE9\r"},
        {kPagesDocument, false, "\x8e\x82\x82 \xE9\r"},
    };
    for (const Row& row : rows) {
        rtfconv_test::ImportOptions options;
        options.bLossless = row.bLossless;
        EXPECT_EQ(rtfconv_test::OldText(row.rtf, options), row.expected) << row.rtf << (row.bLossless ? " lossless" : " exact");
    }
}

TEST(OldTextUtf8Decoder, LongFontCommandHeadsInEveryPieceSize)
{
    // Heads longer than the block the decoder gathers them in, with charset
    // codes (two bytes of UTF-8 each) before and after the block's end.
    std::string attributes;
    for (int i = 0; i < 14; ++i)
        attributes += "BIUXSs";
    const std::string text = "abc\x01" "F12A" + attributes + "\xCB:MS \x83\x53\x83\x56\x02\x82\xA0 kana\x01" "F12A" +
                             attributes.substr(0, 57) + "\xC0\xCA" + attributes + ":Arial\x02\xE9\x01" "F---:-\x02\xE9" +
                             "\x01" "F12A" + attributes + "\x02" "cut head";
    const std::string expected = rtfconv_test::ReferenceOldTextToUtf8(text, 1252);
    EXPECT_EQ(OldTextToUtf8(text, 1252), expected);
    for (std::size_t cbPiece = 1; cbPiece <= text.size(); ++cbPiece) {
        COldTextUtf8Decoder decoder(1252);
        std::string utf8;
        for (std::size_t i = 0; i < text.size(); i += cbPiece)
            decoder.Feed(std::string_view(text).substr(i, cbPiece), utf8);
        decoder.Finish(utf8);
        ASSERT_EQ(utf8, expected) << "pieces of " << cbPiece;
    }
    // The head's bytes are characters of their own; the face and the text
    // after it are in the page of the head's first charset code.
    EXPECT_EQ(expected.substr(0, 8 + attributes.size()), "abc\x01" "F12A" + attributes);
    EXPECT_EQ(expected.substr(8 + attributes.size(), 13), "\xC3\x8B:MS \xE3\x82\xB4\xE3\x82\xB7\x02");
}

// Lists that go through the same numbers again, in other kinds, bullets, and
// numbered paragraphs inside a hyperlink's display text: each command is the
// one built for its own kind, number and level.
TEST(ImportNumbering, ListsThatRepeatTheirNumbersGetTheirOwnCommands)
{
    using rtfconv_test::Cmd;
    const std::string rtf =
        "{\\rtf1{\\*\\pn\\pnlvlbody\\pndec\\pnstart1{\\pntxta .}}a\\par b\\par c\\par"
        "\\pard{\\*\\pn\\pnlvlbody\\pnlcltr\\pnstart1{\\pntxtb (}{\\pntxta )}}d\\par e\\par"
        "\\pard{\\*\\pn\\pnlvlbody\\pndec\\pnstart1{\\pntxta .}}f\\par g\\par"
        "\\pard{\\*\\pn\\pnlvlbody\\pnucrm\\pnstart2{\\pntxta .}}h\\par"
        "\\pard{\\*\\pn\\pnlvlblt{\\pntxtb \\'b7}}i\\par j\\par"
        "\\pard{\\*\\pn\\pnlvlbody\\pndec\\pnstart1{\\pntxta .}}{\\field{\\*\\fldinst HYPERLINK \"http://a.b/\"}"
        "{\\fldrslt k\\par l}}\\par}";
    auto number = [](const std::string& text, char type, char digit) {
        return Cmd("CN:" + text + "\x03\x03" + type + "\x03\x03\x03\x03\x03\x03" + digit);
    };
    const std::string bullet = Cmd("CN:\xB7\x03\x03" "a\x03\x03Symbol\x03\x03\x03\x03");
    const std::string lists = number("1.", 'A', '1') + "a\r" + number("2.", 'A', '2') + "b\r" + number("3.", 'A', '3') +
                              "c\r" + number("(a)", 'F', '1') + "d\r" + number("(b)", 'F', '2') + "e\r" +
                              number("1.", 'A', '1') + "f\r" + number("2.", 'A', '2') + "g\r" +
                              number("II.", 'C', '2') + "h\r" + bullet + "i\r" + bullet + "j\r";
    rtfconv_test::ImportOptions options;
    options.bLossless = true;
    EXPECT_EQ(rtfconv_test::OldText(rtf, options),
              lists + number("1.", 'A', '1') + number("2.", 'A', '2') + Cmd("CH:k\rl\x03http://a.b/") + "\r");
    // The exact reading collects the commands into the display text.
    options.bLossless = false;
    EXPECT_EQ(rtfconv_test::OldText(rtf, options),
              lists + Cmd("CH:\x01" "CN:1.\x03http://a.b/\x03" "A\x03\x03\x03\x03\x03\x03" "1") + "k\r" +
                  number("2.", 'A', '2') + "l\x02\r");
}
