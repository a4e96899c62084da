// RTF to plain text: outputs, numbering, resumption and malformed input.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>
#include <vector>

#include "rtf_to_text_helpers.h"
#include "test_util.h"

using rtfconv_test::PlainText;
using rtfconv_test::PullPlainText;

namespace {

struct TextRow {
    const char* what;
    std::string rtf;
    std::string text;
};

std::string Numbered(const std::string& pnGroup, const std::string& text)
{
    return "\\pard{\\*\\pn" + pnGroup + "}" + text + "\\par";
}

} // namespace

TEST(RtfToText, CommonConstructs)
{
    const TextRow rows[] = {
        {"paragraphs", "{\\rtf1\\ansi Hello\\par World}", "Hello\rWorld"},
        {"tab and line", "{\\rtf1 a\\tab b\\line c}", "a\tb\nc"},
        {"hex escape", "{\\rtf1 x\\'e9y}", "x\xe9y"},
        {"hex 00 gives nothing", "{\\rtf1 x\\'00y}", "xy"},
        {"hex digits of either case", "{\\rtf1 \\'4A\\'4a}", "JJ"},
        {"hex: a digit missing leaves both as text", "{\\rtf1 x\\'4y\\'g1}", "x4yg1"},
        {"hex: both digits at the input's end", "{\\rtf1 x\\'41", "xA"},
        {"hex: one digit at the input's end is padded", "{\\rtf1 x\\'4", "xD"},
        {"hex ends a pending \\*", "{\\rtf1 {\\*\\'41 b}c}", "A bc"},
        {"font names dropped", "{\\rtf1 {\\fonttbl{\\f0 Arial;}}T}", "T"},
        {"info dropped", "{\\rtf1 {\\info{\\title T}}x}", "x"},
        {"par writes in every destination", "{\\rtf1 {\\info\\par}x}", "\rx"},
        {"cells and rows", "{\\rtf1 a\\cell b\\cell\\row c}", "a\tb\t\rc"},
        {"reserved bytes become spaces", "{\\rtf1 a\x02" "b\x17" "c\x01}", "a b c "},
        {"field result is text", "{\\rtf1 {\\field{\\*\\fldinst HYPERLINK \"x\"}{\\fldrslt link}} after}", "link after"},
        {"pictures and objects dropped",
         "{\\rtf1 a{\\pict\\pngblip 89504e47}b{\\object\\objemb{\\*\\objdata 0102}{\\result r}}c}", "abc"},
        {"escaped specials", "{\\rtf1 \\\\\\{\\}}", "\\{}"},
        {"quotes and unicode words give nothing", "{\\rtf1 \\lquote a\\rquote \\u8364?\\~b}", "a?b"},
        {"bin bytes are read as RTF", "{\\rtf1 \\bin3 a\\par b}", "a\rb"},
        {"NUL ends the input", std::string("{\\rtf1 ab\0cd}", 13), "ab"},
        {"unbalanced: text to the end", "{\\rtf1 {\\b bold", "bold"},
        {"nothing after the outermost group", "{\\rtf1 a}b", "a"},
        {"not starting with a brace", "x{\\rtf1 a}", "x"},
        {"skipped optional destination", "{\\rtf1 {\\*\\generator Foo;}{\\*\\foo {\\b x} y}z}", "z"},
        {"\\* then a word of the core's", "{\\rtf1 a{\\*\\par x}b}", "a\rxb"},
        {"\\* inside a group skips the rest", "{\\rtf1 a{b\\*\\unknown x}c}", "abc"},
        {"stylesheet dropped", "{\\rtf1 {\\stylesheet{\\s1 Heading;}}t}", "t"},
    };
    // Read into a buffer of one byte too: a refused byte is read again,
    // a \'hh whole.
    for (const TextRow& row : rows) {
        EXPECT_EQ(PlainText(row.rtf), row.text) << row.what;
        EXPECT_EQ(PullPlainText(row.rtf, 1).text, row.text) << row.what;
    }
}

TEST(RtfToText, ParagraphNumbering)
{
    const std::string dec = "\\pnlvl1\\pnstart1\\pndec{\\pntxta .}";
    const TextRow rows[] = {
        {"a list counts on", "{\\rtf1 " + Numbered(dec, "A") + Numbered(dec, "B") + "}", "1.\tA\r2.\tB\r"},
        {"a new start number restarts",
         "{\\rtf1 " + Numbered(dec, "A") + Numbered("\\pnlvl1\\pnstart5\\pndec{\\pntxta .}", "B") + "}",
         "1.\tA\r5.\tB\r"},
        {"a different text after restarts",
         "{\\rtf1 " + Numbered(dec, "A") + Numbered("\\pnlvl1\\pnstart1\\pndec{\\pntxta )}", "B") + "}",
         "1.\tA\r1)\tB\r"},
        {"texts differing in case continue",
         "{\\rtf1 " + Numbered("\\pnlvl1\\pnstart1\\pndec{\\pntxta x}", "A")
             + Numbered("\\pnlvl1\\pnstart1\\pndec{\\pntxta X}", "B") + "}",
         "1x\tA\r2X\tB\r"},
        {"no start number counts from 0", "{\\rtf1 " + Numbered("\\pnlvl1\\pndec{\\pntxta .}", "A") + "}", "0.\tA\r"},
        {"letters with texts before and after",
         "{\\rtf1 \\par " + Numbered("\\pnlvl1\\pnstart2\\pnlcltr{\\pntxtb (}{\\pntxta )}", "A") + "}", "\r(b)\tA\r"},
        {"upper roman", "{\\rtf1 " + Numbered("\\pnlvl1\\pnstart2\\pnucrm{\\pntxta .}", "A") + "}", "II.\tA\r"},
        {"lower roman", "{\\rtf1 " + Numbered("\\pnlvl1\\pnstart4\\pnlcrm", "A") + "}", "iv\tA\r"},
        {"roman out of range", "{\\rtf1 " + Numbered("\\pnlvl1\\pnstart4000\\pnucrm", "A") + "}", "*\tA\r"},
        {"bullet", "{\\rtf1 " + Numbered("\\pnlvl1\\pnlvlblt{\\pntxtb \\'b7}", "A") + "}", "\xb7\tA\r"},
        {"level 3 indents with two tabs", "{\\rtf1 " + Numbered("\\pnlvl3\\pnstart1\\pndec{\\pntxta .}", "A") + "}",
         "\t\t1.\tA\r"},
        {"level 0 no indent", "{\\rtf1 " + Numbered("\\pnlvl0\\pnstart1\\pndec", "A") + "}", "1\tA\r"},
        {"number written before an empty paragraph's mark",
         "{\\rtf1 " + Numbered(dec, "") + "}", "1.\t\r"},
        {"pntext shown and the number generated too",
         "{\\rtf1 \\pard{\\pntext 1.\\tab}{\\*\\pn" + dec + "}Item\\par}", "1.\t1.\tItem\r"},
        // The \pntext group ends first and applies an empty numbering, which
        // differs from the previous paragraph's, so the count drops to 0.
        {"pntext resets the count",
         "{\\rtf1 " + Numbered(dec, "A") + "\\pard{\\pntext 2.\\tab}{\\*\\pn" + dec + "}B\\par}",
         "1.\tA\r2.\t0.\tB\r"},
    };
    for (const TextRow& row : rows)
        EXPECT_EQ(PlainText(row.rtf), row.text) << row.what;
}

TEST(RtfToText, FullBufferAtParagraphEndReportsAndResumes)
{
    rtfconv_test::CRecordingLogSink log;
    const auto result = PullPlainText("{\\rtf1 ab\\par c}", 2);
    EXPECT_EQ(result.text, "ab\rc");
    EXPECT_EQ(result.counts, (std::vector<unsigned long>{2, 2}));
    ASSERT_FALSE(log.asserts.empty());
    EXPECT_EQ(log.AssertTexts().front(), "bOk@RtfToText");
}

TEST(RtfToText, NumberingStringLongerThanTheBufferNeverFits)
{
    // A string put needs room for its NUL too: "1.\t" needs 4 bytes.
    const std::string rtf = "{\\rtf1 " + Numbered("\\pnlvl1\\pnstart1\\pndec{\\pntxta .}", "A") + "}";
    const auto tiny = PullPlainText(rtf, 3);
    EXPECT_TRUE(tiny.bStalled);
    EXPECT_EQ(tiny.text, "");
    const auto enough = PullPlainText(rtf, 4);
    EXPECT_FALSE(enough.bStalled);
    EXPECT_EQ(enough.text, "1.\tA\r");
}

namespace {

std::vector<std::string> CorpusFiles()
{
    std::vector<std::string> files;
    if (DIR* dir = opendir(RTFCONV_CORPUS_DIR)) {
        while (dirent* e = readdir(dir)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".rtf") == 0)
                files.push_back(std::string(RTFCONV_CORPUS_DIR) + "/" + name);
        }
        closedir(dir);
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

// Any buffer size gives the bytes of one large call, as long as no string put
// is longer than the buffer allows (only paragraph-number strings are).
TEST(RtfToText, ResumptionGivesTheSameBytesForEveryBufferSize)
{
    std::vector<std::pair<std::string, std::string>> docs = {
        {"mixed", "{\\rtf1 {\\fonttbl{\\f0 Arial;}}\\pard Hello \\b world\\b0\\par "
                  "{\\field{\\*\\fldinst HYPERLINK \"u\"}{\\fldrslt link}}\\tab x\\'e9\\line end\\cell\\row}"},
        {"numbered", "{\\rtf1 \\pard{\\*\\pn\\pnlvl2\\pnstart3\\pnlcltr{\\pntxtb [}{\\pntxta ]}}One\\par"
                     "\\pard{\\*\\pn\\pnlvl2\\pnstart3\\pnlcltr{\\pntxtb [}{\\pntxta ]}}Two\\par}"},
    };
    for (const std::string& path : CorpusFiles())
        docs.emplace_back(path, rtfconv_test::ReadFileBytes(path));
    ASSERT_GT(docs.size(), 100u);

    for (const auto& doc : docs) {
        const std::string expected = PlainText(doc.second);
        for (std::size_t cb : {1, 2, 7, 64, 65536}) {
            const auto pulled = PullPlainText(doc.second, cb);
            if (pulled.bStalled) {
                // Only a numbering string can fail to fit; what came before
                // it is right.
                EXPECT_LT(cb, 64u) << doc.first;
                EXPECT_EQ(pulled.text, expected.substr(0, pulled.text.size())) << doc.first << " @" << cb;
                continue;
            }
            EXPECT_EQ(pulled.text, expected) << doc.first << " @" << cb;
        }
    }
}
