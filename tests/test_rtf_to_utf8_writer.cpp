// The writer side of the Unicode pair: UTF-8 text to RTF, and back.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "rtfconverter/RtfToUtf8.h"
#include "rtfconverter/Utf8ToRTF.h"

using rtf_converter::CBytePtrRTFToUTF8PtrParser;
using rtf_converter::CUTF8TextToRTF;

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

} // namespace

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
