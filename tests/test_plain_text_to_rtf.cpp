// Plain text to RTF.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "rtfconverter/PlainTextToRTF.h"

using rtf_converter::CPlainTextToRTF;

namespace {

LOGFONT Font(const char* face, LONG height, BYTE charset, BYTE pitchAndFamily)
{
    LOGFONT lf{};
    lf.lfHeight = height;
    lf.lfCharSet = charset;
    lf.lfPitchAndFamily = pitchAndFamily;
    std::strncpy(lf.lfFaceName, face, LF_FACESIZE - 1);
    return lf;
}

std::string Export(const std::string& text, const LOGFONT* pFont)
{
    CPlainTextToRTF writer;
    writer.Convert(text.c_str(), pFont);
    CString doc = writer.Export();
    return std::string(doc.GetString(), static_cast<std::size_t>(doc.GetLength()));
}

const char* const kArialFront =
    "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}}{\\colortbl;\\red0\\green0\\blue0;}"
    "\\pard\\f0\\fs20\\cf0 ";

} // namespace

TEST(PlainTextToRTF, DocumentOfTheExample)
{
    LOGFONT lf = Font("Arial", -13, 0, VARIABLE_PITCH | FF_SWISS);
    EXPECT_EQ(Export("a{b}\tc\r\nd", &lf),
              "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}}"
              "{\\colortbl;\\red0\\green0\\blue0;}\\pard\\f0\\fs20\\cf0 a\\{b\\}\\tab c\\par \\line d\\par }");
    // Without a font: Arial 10 at the screen's resolution.
    EXPECT_EQ(Export("", nullptr), std::string(kArialFront) + "\\par }");
}

TEST(PlainTextToRTF, Bodies)
{
    struct Row {
        const char* name;
        std::string text, body;
    } rows[] = {
        {"empty", "", "\\par }"},
        {"trailing CR", "x\r", "x\\par }"},
        {"trailing CR LF", "x\r\n", "x\\par \\line \\par }"},
        {"specials", "\\{}", "\\\\\\{\\}\\par }"},
        {"0x17 vanishes", "a\x17" "b", "ab\\par }"},
        {"0x17 is not the last byte seen", "a\r\x17", "a\\par }"},
        {"high byte stays", "\xE9", "\xE9\\par }"},
        {"other control bytes copied", "\x01\x02\x03", "\x01\x02\x03\\par }"},
        {"brace after CR", "\r}", "\\par \\}\\par }"},
    };
    LOGFONT lf = Font("Arial", -13, 0, VARIABLE_PITCH | FF_SWISS);
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        EXPECT_EQ(Export(r.text, &lf), kArialFront + r.body);
    }
}

TEST(PlainTextToRTF, FontTableFamiliesAndReconversion)
{
    struct Row {
        BYTE pitchAndFamily;
        const char* word;
    } rows[] = {
        {0x00, "fnil"}, {0x11, "froman"}, {0x22, "fswiss"}, {0x31, "fmodern"},
        {0x40, "fscript"}, {0x50, "fdecor"}, {0x60, "fnil"}, {0xF2, "fnil"},
    };
    for (const Row& r : rows) {
        LOGFONT lf = Font("Face", -16, 204, r.pitchAndFamily);
        EXPECT_EQ(Export("", &lf), std::string("{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset204\\") + r.word +
                                       " Face;}}{\\colortbl;\\red0\\green0\\blue0;}\\pard\\f0\\fs24\\cf0 \\par }");
    }

    // A second Convert replaces body and font; Export repeats itself.
    CPlainTextToRTF writer;
    LOGFONT first = Font("First", -13, 0, 0);
    LOGFONT second = Font("Second", -13, 0, 0);
    writer.Convert("one", &first);
    writer.Convert("two", &second);
    CString doc = writer.Export();
    EXPECT_EQ(writer.Export(), doc);
    EXPECT_NE(std::string(doc).find("Second;}"), std::string::npos);
    EXPECT_EQ(std::string(doc).find("one"), std::string::npos);
    CPlainTextToRTF copy(writer);
    EXPECT_EQ(copy.Export(), doc);
}

// Runs are passed 16 bytes at a time: every kind of byte, at every offset
// around those steps and at the end of the text, is still taken for what it
// is.
TEST(PlainTextToRTF, EveryByteAtEveryOffset)
{
    const struct {
        char ch;
        std::string rtf;
    } rows[] = {
        {'\t', "\\tab "}, {'\n', "\\line "}, {'\\', "\\\\"}, {'{', "\\{"}, {'}', "\\}"}, {'\x17', ""},
        {'|', "|"},       {'~', "~"},        {'\x7f', "\x7f"}, {'\x01', "\x01"}, {'\xe9', "\xe9"}, {'z', "z"},
    };
    LOGFONT lf = Font("Arial", -13, 0, VARIABLE_PITCH | FF_SWISS);
    for (const auto& row : rows) {
        for (std::size_t at = 0; at < 40; ++at) {
            for (std::size_t cb : {at + 1, std::size_t(40)}) {
                std::string text(cb, 'a');
                text[at] = row.ch;
                const std::string body = std::string(at, 'a') + row.rtf + std::string(cb - at - 1, 'a') + "\\par }";
                EXPECT_EQ(Export(text, &lf), kArialFront + body) << int(row.ch) << " at " << at << " of " << cb;
            }
        }
    }
    // A CR last ends the text without another paragraph, wherever it falls.
    for (std::size_t at = 0; at < 40; ++at)
        EXPECT_EQ(Export(std::string(at, 'a') + "\r", &lf), kArialFront + std::string(at, 'a') + "\\par }") << at;
}
