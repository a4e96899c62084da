#include <gtest/gtest.h>

#include <dirent.h>

#include <string>
#include <vector>

#include "rtfconverter/CodePages.h"
#include "rtfconverter/RtfToUtf8.h"
#include "test_util.h"

using rtf_converter::CBytePtrRTFToUTF8PtrParser;
using rtf_converter::CRTFToUTF8Parser;

namespace {

struct Options {
    std::size_t cbBuffer = 1 << 16;
    CRTFToUTF8Parser::Newline newline = CRTFToUTF8Parser::newlineLF;
    int codePage = 0;
    bool bHeaders = false;
};

// Converts with Read calls of cbBuffer bytes until bMore comes back false.
std::string ToUtf8(const std::string& rtf, const Options& options = Options())
{
    unsigned long cb = static_cast<unsigned long>(rtf.size());
    CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()), cb);
    reader.SetNewline(options.newline);
    reader.SetCodePage(options.codePage);
    reader.SetHeaders(options.bHeaders);
    std::vector<char> buf(options.cbBuffer);
    std::string out;
    bool bMore = true;
    for (int cCalls = 0; bMore; ++cCalls) {
        if (cCalls > 1000000) {
            ADD_FAILURE() << "no progress";
            break;
        }
        const unsigned long n = reader.Read(buf.data(), buf.data() + buf.size(), bMore);
        EXPECT_LE(n, buf.size());
        out.append(buf.data(), n);
    }
    return out;
}

bool IsValidUtf8(const std::string& s)
{
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char b = static_cast<unsigned char>(s[i]);
        const int cch = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
        if (cch == 0 || i + cch > s.size())
            return false;
        for (int k = 1; k < cch; ++k)
            if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80)
                return false;
        i += cch;
    }
    return true;
}

struct Row {
    const char* label;
    std::string rtf;
    std::string utf8;
};

// The text ends with a newline whenever it has any; the rows leave it out.
std::string WithFinalNewline(const std::string& text)
{
    return text.empty() || text.back() == '\n' ? text : text + "\n";
}

void ExpectRows(const std::vector<Row>& rows)
{
    for (const Row& row : rows)
        EXPECT_EQ(ToUtf8(row.rtf), WithFinalNewline(row.utf8)) << row.label << ": " << row.rtf;
}

} // namespace

TEST(RtfToUtf8, SingleByteCodePagesFromAnsicpg)
{
    ExpectRows({
        {"1250", R"({\rtf1\ansi\ansicpg1250 \'8a\'b9\'9c\'f8})", "Šąśř"},
        {"1251", R"({\rtf1\ansi\ansicpg1251 \'cf\'f0\'e8\'e2\'e5\'f2})", "Привет"},
        {"1252", R"({\rtf1\ansi\ansicpg1252 \'80\'e9\'9f})", "€éŸ"},
        {"1252 undefined byte", R"({\rtf1\ansi\ansicpg1252 a\'81b})", "a\uFFFDb"},
        {"1252 by default", R"({\rtf1 \'e9})", "é"},
        {"1253", R"({\rtf1\ansi\ansicpg1253 \'c1\'e1\'a2})", "ΑαΆ"},
        {"1254", R"({\rtf1\ansi\ansicpg1254 \'f0\'dd\'fe})", "ğİş"},
        {"874", R"({\rtf1\ansi\ansicpg874 \'a1\'e0})", "กเ"},
        {"10000", R"({\rtf1\mac\ansicpg10000 \'8e\'a5\'d2})", "é•“"},
        {"\\mac alone", R"({\rtf1\mac \'8e})", "é"},
        {"raw 8-bit bytes", "{\\rtf1\\ansi\\ansicpg1251 \xcf\xf0}", "Пр"},
        {"unknown page keeps 1252", R"({\rtf1\ansi\ansicpg99999 \'e9})", "é"},
    });
}

TEST(RtfToUtf8, FontCharsetSelectsThePage)
{
    const std::string fonts = R"({\fonttbl{\f0\fswiss\fcharset0 Arial;}{\f1\fcharset204 Arial Cyr;}{\f2\fcharset161 Arial Greek;}{\f3\fcharset2 Symbol;}{\f4\fcharset128 MS Mincho;}})";
    ExpectRows({
        {"charset over ansicpg", R"({\rtf1\ansi\ansicpg1252)" + fonts + R"(\f1 \'cf{\f2 \'e1}\'cf\f0 \'e9})", "ПαПé"},
        {"\\plain returns to the default font", R"({\rtf1\ansi\deff1)" + fonts + R"(\'cf\f2 \'e1\plain \'cf})", "ПαП"},
        {"a font entry's \\cpg", R"({\rtf1\ansi{\fonttbl{\f5\cpg1253 X;}}\f5 \'e1})", "α"},
        {"Symbol", R"({\rtf1\ansi)" + fonts + R"({\f3 \'b7 a\'d4\'f0}})", "• α™\uF0F0"},
        {"Symbol private-use \\u", R"({\rtf1\ansi)" + fonts + R"({\f3 \u-3913?}\u-3913?})", "•\uF0B7"},
        {"Symbol bullet of a list", R"({\rtf1\ansi)" + fonts + R"({\pntext\f3\'b7\tab}Item\par})", "•\tItem\n"},
        {"ANSI fonts follow the document page", R"({\rtf1\ansi\ansicpg1252)" + fonts + R"(\f1 \'cf\f0 \'cf})", "ПÏ"},
    });
    Options cyrillic;
    cyrillic.codePage = 1251;
    EXPECT_EQ(ToUtf8(R"({\rtf1\ansi\ansicpg1252 \'cf)" + fonts + R"(\f2 \'e1})", cyrillic), "Пα\n");
}

TEST(RtfToUtf8, DoubleByteCodePages)
{
    ExpectRows({
        {"932", R"({\rtf1\ansi\ansicpg932 \'82\'a0\'83\'5c})", "あソ"},
        {"936", R"({\rtf1\ansi\ansicpg936 \'d6\'d0\'ce\'c4})", "中文"},
        {"949", R"({\rtf1\ansi\ansicpg949 \'c7\'d1})", "한"},
        {"950", R"({\rtf1\ansi\ansicpg950 \'a4\'a4})", "中"},
        {"by \\fcharset128", R"({\rtf1\ansi{\fonttbl{\f1\fcharset128 M;}}a{\f1 \'82\'a0}b})", "aあb"},
        {"raw bytes", "{\\rtf1\\ansi\\ansicpg932 \x82\xa0!}", "あ!"},
        {"single-byte katakana", R"({\rtf1\ansi\ansicpg932 \'b1})", "ｱ"},
        {"invalid trail is read alone", R"({\rtf1\ansi\ansicpg932 \'82!})", "\uFFFD!"},
        {"lead before \\par", R"({\rtf1\ansi\ansicpg932 \'82\par x})", "\uFFFD\nx"},
        {"lead at the end", R"({\rtf1\ansi\ansicpg932 x\'82})", "x\uFFFD"},
    });
}

TEST(RtfToUtf8, UnicodeAndItsFallback)
{
    ExpectRows({
        {"\\uc0", R"({\rtf1\uc0\u8212 x})", "—x"},
        {"\\uc1 escape", R"({\rtf1\uc1\u8212\'97x})", "—x"},
        {"\\uc1 by default", R"({\rtf1\u8212?x})", "—x"},
        {"\\uc1 plain", R"({\rtf1\uc1\u945 ax})", "αx"},
        {"\\uc2 double-byte", R"({\rtf1\ansicpg932\uc2\u12354\'82\'a0x})", "あx"},
        {"\\uc2 plain", R"({\rtf1\uc2\u945 abx})", "αx"},
        {"keyword counts as one", R"({\rtf1\uc1\u8220\ldblquote x})", "“x"},
        {"words of no effect count as one each", R"({\rtf1\uc2\u233\brdrs\fs20 ab})", "éab"},
        {"\\uc ends with its group", R"({\rtf1\uc2{\uc0\u8212 a}\u8212 ab c})", "—a— c"},
        {"a brace ends the skipping", R"({\rtf1\uc3\u8212{x}})", "—x"},
        {"negative", R"({\rtf1\u-191?})", "ａ"},
        {"surrogate pair", R"({\rtf1\u-10179?\u-8704?})", "😀"},
        {"pair with its fallback after it", R"({\rtf1\uc2\u55357\u56832??x})", "😀x"},
        {"unpaired high", R"({\rtf1\u-10179?x})", "\uFFFDx"},
        {"unpaired low", R"({\rtf1 a\u-8704?b})", "a\uFFFDb"},
        {"high at the end", R"({\rtf1 a\u-10179?})", "a\uFFFD"},
        {"out of range", R"({\rtf1\u-70000?x})", "\uFFFDx"},
        {"\\upr takes \\ud", R"({\rtf1 a{\upr{\'e9t\'e9}{\*\ud{\uc0\u233 t\u233 }}}b})", "aétéb"},
        {"reserved control code", R"({\rtf1 a\u2?b})", "a b"},
    });
}

TEST(RtfToUtf8, KeywordsAndDestinations)
{
    ExpectRows({
        {"typography", R"({\rtf1\emdash\endash\bullet\lquote\rquote\ldblquote\rdblquote\~\_\-.})", "—–•‘’“”\u00A0‑."},
        {"paragraph, line, tab, cell, row", R"({\rtf1 a\par b\line c\tab d\cell e\row f})", "a\nb\nc\td\te\nf"},
        {"page and section breaks", R"({\rtf1 a\par\page b\sect c})", "a\n\nb\nc"},
        {"hidden text", R"({\rtf1 a{\v hidden\par}b\v c\v0 d})", "abd"},
        {"\\plain ends hidden text", R"({\rtf1 a\v b\plain c})", "ac"},
        {"field result only", R"({\rtf1 {\field{\*\fldinst HYPERLINK "x"}{\fldrslt link}}.})", "link."},
        {"picture and object", R"({\rtf1 a{\pict\pngblip 0a0b}{\object{\*\objdata 01}{\result{r}}}b})", "ab"},
        {"\\bin data is skipped", std::string("{\\rtf1 a{\\*\\blip\\bin4 ") + std::string("}{\\\0", 4) + "}b}", "ab"},
        {"tables of the document", R"({\rtf1{\fonttbl{\f0 Arial;}}{\colortbl;\red1;}{\stylesheet{\s1 H;}}{\info{\title T}}x})", "x"},
        {"\\par in the info group", R"({\rtf1{\info\par}x})", "x"},
        // A word in neither table ends what \* began, and only that.
        {"\\* then an unknown word", R"({\rtf1 a{\*\unknown x}b\brdrs c})", "abc"},
        {"\\* then a word of the core's", R"({\rtf1 a{\*\fs20 x}b})", "axb"},
        {"\\* then a word of the reader's", R"({\rtf1 a{\*\emdash x}b})", "a—xb"},
        {"\\* inside a group means nothing", R"({\rtf1 a\*\unknown b{\*\unknown\*\fs20 z}c})", "abc"},
        {"\\* after a word in no table or of no effect", R"({\rtf1 a{\brdrs\*\unknown x}{\b\*\unknown y}{\ql\*\unknown z}{\*\qc w}b})", "axyzwb"},
        {"words in a skipped destination", R"({\rtf1 a{\*\unknown{\*\other y}\fs20\emdash z}b})", "ab"},
        // \'hh: the escape is a word of the core's, and its digits, when
        // either is missing, text.
        {"\\* then a hex escape", R"({\rtf1 a{\*\'41 x}b})", "aA xb"},
        {"a hex escape ends the group's start", R"({\rtf1 a{\'41\*\unknown x}b})", "aAxb"},
        {"a hex escape as the first word", R"({\'41\rtf1 b})", "Ab"},
        {"hex: a digit missing leaves both as text", R"({\rtf1 a\'4y\'g1})", "a4yg1"},
        {"hex: both digits at the input's end", R"({\rtf1 a\'41)", "aA"},
        {"hex: one digit at the input's end is padded", R"({\rtf1 a\'4)", "aD"},
    });
}

namespace {

// A host's reader that watches the keyword calls: every word reaches
// TranslateKeyword, and every word of the core's table its handler, as they
// did before the reader resolved words itself.
class CWatchedKeywords : public CBytePtrRTFToUTF8PtrParser {
public:
    explicit CWatchedKeywords(const std::string& rtf)
        : CBytePtrRTFToUTF8PtrParser(reinterpret_cast<const unsigned char*>(rtf.data()),
                                     static_cast<unsigned long>(rtf.size()))
    {
    }
    std::vector<std::string> words;
    std::vector<int> fontSizes;
    int cFonts = 0;

protected:
    bool TranslateKeyword(const char* szKeyword, int param) override
    {
        words.push_back(szKeyword);
        return CBytePtrRTFToUTF8PtrParser::TranslateKeyword(szKeyword, param);
    }
    bool ApplyFontSize(const void* pKeyword, int param) override
    {
        fontSizes.push_back(param);
        return CBytePtrRTFToUTF8PtrParser::ApplyFontSize(pKeyword, param);
    }
    bool GetFontNum(const void* pKeyword, int param) override
    {
        ++cFonts;
        return CBytePtrRTFToUTF8PtrParser::GetFontNum(pKeyword, param);
    }
};

} // namespace

TEST(RtfToUtf8, ADerivedReaderGetsEveryKeywordCall)
{
    const std::string rtf = R"({\rtf1{\fonttbl{\f0 Arial;}}\f0\fs24\brdrs a{\*\unknown\fs30 x}\emdash{\fs18 b}\u233?\'41\par})";
    CWatchedKeywords watched(rtf);
    // Room for all the text: no word is refused and read again.
    std::vector<char> buf(64);
    std::string out;
    bool bMore = true;
    for (int cCalls = 0; bMore && cCalls < 1000; ++cCalls)
        out.append(buf.data(), watched.Read(buf.data(), buf.data() + buf.size(), bMore));
    EXPECT_EQ(out, ToUtf8(rtf));
    EXPECT_EQ(out, "a—béA\n");
    const std::vector<std::string> words = {"rtf", "fonttbl", "f", "f", "fs", "brdrs", "*", "unknown", "fs",
                                            "emdash", "fs", "u", "'", "par"};
    EXPECT_EQ(watched.words, words);
    // Not the one in the skipped destination.
    EXPECT_EQ(watched.fontSizes, (std::vector<int>{24, 18}));
    EXPECT_EQ(watched.cFonts, 2);
}

// What word processors make of RTF, each as the smallest document showing it.
TEST(RtfToUtf8, ReadsAsWordProcessorsDo)
{
    ExpectRows({
        {"backslash LF and CR LF end paragraphs", "{\\rtf1\\ansi one\\\ntwo\\\r\nthree\\par four}", "one\ntwo\nthree\nfour"},
        {"\\* inside a group is no destination", R"({\rtf1 {\loch\f2\i0\*\cs7 The quick}})", "The quick"},
        {"\\* after '{' still is", R"({\rtf1 a{\*\foo hidden}b})", "ab"},
        {"\\* after '{' and a known keyword", R"({\rtf1 a{\*\fldinst x}b})", "ab"},
        {"a fragment: every top-level group", "{\\pard A\\par}\n{\\pard B\\par}\n{C}", "A\nB\nC"},
        {"a document: its group only", R"({\rtf1 a}{b})", "a"},
        {"a stray '}' between groups", R"({a}}{b})", "ab"},
        {"footnote after the body", R"({\rtf1 Has a {\super\chftn}{\footnote\pard{\super\chftn} The note.}note.\par})",
         "Has a [1]note.\n\n[1]  The note.\n"},
        {"numbered footnotes, a paragraph in one", R"({\rtf1 a{\*\footnote x\par y}b{\footnote z}})", "a[1]b[2]\n\n[1] x\ny\n[2] z\n"},
        {"headers and footers left out", R"({\rtf1 {\header Head\par}{\footerl Foot}Body\par})", "Body"},
        {"destinations written without \\*", R"({\rtf1 a{\xe entry}{\tc toc}{\listtable{\list{\listname L;}}}{\nonesttables dup}b})", "ab"},
        {"cells: no TAB after a row's last", R"({\rtf1 a\cell b\cell\row c})", "a\tb\nc"},
        {"an empty cell", R"({\rtf1 a\cell\cell b\cell\row})", "a\t\tb"},
        {"a cell's last paragraph mark", R"({\rtf1\trowd{\pard\intbl A\par}\cell{\pard\intbl B\par C\par}\cell\row})", "A\tB\nC"},
        {"nested cells", R"({\rtf1\pard\intbl a\nestcell b\nestcell{\*\nesttableprops\nestrow}c\cell\row})", "a\tb\nc"},
        {"nested cells inside their row's properties", R"({\rtf1 x{\*\nesttableprops\trowd y\nestcell\nestrow}z})", "xy\nz"},
        {"text ends with a newline", R"({\rtf1 a\par})", "a"},
        {"empty document", R"({\rtf1 })", ""},
        {"control characters dropped", R"({\rtf1 a\'04\'08b\'7f\'0dc\u128?d})", "abcd"},
        {"numbers of \\pn groups", R"({\rtf1\pard{\*\pn\pnlvl1\pnstart1\pndec{\pntxta .}}A\par\pard{\*\pn\pnlvl1\pnstart1\pndec{\pntxta .}}B\par})",
         "1.\tA\n2.\tB"},
        {"\\pntext gives the number once", R"({\rtf1\pard{\pntext 1.\tab}{\*\pn\pnlvl1\pnstart1\pndec{\pntxta .}}A\par})", "1.\tA"},
        {"a bullet in the \\pnf font", R"({\rtf1{\fonttbl{\f1\fcharset2 Symbol;}}\pard{\*\pn\pnlvlblt\pnf1{\pntxtb\'b7}}X\par})", "•\tX"},
    });
}

TEST(RtfToUtf8, CharacterSetsOfFonts)
{
    const std::string dingbats = R"({\fonttbl{\f1\fcharset2 Wingdings;}{\f2\fcharset2 Symbol;}{\f3\fcharset0 Wingdings 2;}{\f4\fcharset2 Webdings;}})";
    ExpectRows({
        {"Wingdings bullet by \\u", R"({\rtf1)" + dingbats + R"({\f1\u-3929?}{\f2\u-3929?})", "▪\u2663"},
        {"Wingdings bytes", R"({\rtf1)" + dingbats + R"({\f1 \'fc\'d8J})", "✔⮚☺"},
        {"Wingdings 2 whatever its charset", R"({\rtf1)" + dingbats + R"({\f3 P})", "✓"},
        {"a picture without a character", R"({\rtf1)" + dingbats + R"({\f4 \'ff})", "\uF0FF"},
        {"\\hich run in a Latin font of a 932 document",
         R"({\rtf1\ansi\ansicpg932{\fonttbl{\f0\fcharset0 Century;}{\f1\fcharset128 Mincho;}}\loch\af0\dbch\af1\hich\f0 \'93x\'94})", "“x”"},
        {"\\dbch run", R"({\rtf1\ansi{\fonttbl{\f0\fcharset0 Century;}{\f1\fcharset128 Mincho;}}\f0\hich\af0\loch\af0\dbch\af1 \'82\'a0})", "あ"},
        {"Mac Japanese", R"({\rtf1\mac\ansicpg10001{\fonttbl{\f0\fcharset78 Hira;}}\f0 \'82\'a8\'fd})", "お©"},
        {"Mac Roman by charset", R"({\rtf1\ansi{\fonttbl{\f0\fcharset77 Times;}}\f0 \'8e})", "é"},
        {"Mac Turkish", R"({\rtf1\ansi{\fonttbl{\f0\fcharset86 Times;}}\f0 \'da\'8e})", "Ğé"},
        {"no-break space of a Latin font in a 950 document", R"({\rtf1\ansi\ansicpg950{\fonttbl{\f3\fcharset0 Courier;}}{\f3\'a0}})", "\u00A0"},
        {"KOI8-R by number", R"({\rtf1\ansi\ansicpg20866 \'f0})", "П"},
        // Fonts are looked up directly below 64, by hashing from there up.
        {"fonts on both sides of 64, a default one of them",
         R"({\rtf1\deff64{\fonttbl{\f63\fcharset204 A;}{\f64\fcharset161 B;}{\f-1\fcharset238 C;}}\'e1\f63\'e1\f64\'e1\f-1\'e1\plain\'e1})",
         "αбααα"},
        {"a font entered again starts in the document's page",
         R"({\rtf1{\fonttbl{\f1\fcharset204 A;}{\f70\fcharset204 B;}{\f1 A;}{\f70 B;}}\f1\'e1\f70\'e1})", "áá"},
    });
}

// Corpus files that showed a fault, by a piece of their text and what must
// not be in it.
TEST(RtfToUtf8, CorpusFilesReadAsWordProcessorsDo)
{
    const struct {
        const char* file;
        const char* piece;
        const char* absent;
    } rows[] = {
        {"rtfpipe__RtfParserTest_6.rtf", "Synth Server Architecture\n", "ArchitectureSuperCollider"},
        {"rtfpipe__RtfParserTest_7.rtf", "says that \u201CThis is just a test\u201D in Japanese.", "\uFFFD"},
        {"rtfpipe__Issue52.rtf", "\u00A0", "\uFFFD"},
        {"rtfpipe__Issue34.rtf", "Гулько", "\uFFFD"},
        {"pandoc__tables.rtf", "Right\tLeft\tCenter\tDefault\n12\t12\t12\t12\n", "Default\t\n"},
        {"pandoc__footnote.rtf", "\n[1] ", "\uFFFD"},
        {"tika__test_list_override.rtf", "", "List1382206859"},
    };
    for (const auto& row : rows) {
        const std::string utf8 = ToUtf8(rtfconv_test::ReadFileBytes(std::string(RTFCONV_CORPUS_DIR) + "/" + row.file));
        EXPECT_NE(utf8.find(row.piece), std::string::npos) << row.file << " lacks " << row.piece;
        EXPECT_EQ(utf8.find(row.absent), std::string::npos) << row.file << " has " << row.absent;
    }
}

TEST(CodePages, OneTableOfNames)
{
    const struct {
        const char* name;
        int codePage;
    } rows[] = {
        {"KOI8-R", 20866}, {"koi8-r", 20866}, {"CP1251", 1251}, {"windows-1251", 1251}, {"MACINTOSH", 10000},
        {"CP932", 932},    {"ISO-8859-1", 28591}, {"IBM850", 850}, {"nonesuch", 0}, {"CP12x", 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(rtf_converter::CodePageOfIconvName(row.name), row.codePage) << row.name;
        if (row.codePage && row.codePage != 850) {
            EXPECT_EQ(rtf_converter::CodePageOfIconvName(rtf_converter::IconvNameOfCodePage(row.codePage)), row.codePage)
                << row.name;
        }
    }
    EXPECT_EQ(rtf_converter::IconvNameOfCodePage(10001), "CP932");
}

TEST(RtfToUtf8, InputThatIsNotRtf)
{
    ExpectRows({
        {"empty", "", ""},
        {"plain text", " plain text\nmore", "plain textmore"},
        {"DEL alone", "\x7f", ""},
        {"a byte-order mark", "\xef\xbb\xbf{\\rtf1 x}", "x"},
        {"blanks before the document", "  \r\n{\\rtf1 x}", "x"},
        {"binary", std::string("PK\x03\x04\x80\xff{\x01}\\'", 12), "PK \u20AC\u00FF "},
    });
}

TEST(RtfToUtf8, HeadersWhenAsked)
{
    Options options;
    options.bHeaders = true;
    EXPECT_EQ(ToUtf8(R"({\rtf1 {\header Head\par}Body\par})", options), "Head\nBody\n");
}

TEST(RtfToUtf8, NewlineChoice)
{
    const std::string rtf = R"({\rtf1 a\par b\line c})";
    const struct {
        CRTFToUTF8Parser::Newline newline;
        const char* utf8;
    } rows[] = {
        {CRTFToUTF8Parser::newlineLF, "a\nb\nc\n"},
        {CRTFToUTF8Parser::newlineCRLF, "a\r\nb\r\nc\r\n"},
        {CRTFToUTF8Parser::newlineCR, "a\rb\rc\r"},
    };
    for (const auto& row : rows) {
        Options options;
        options.newline = row.newline;
        EXPECT_EQ(ToUtf8(rtf, options), row.utf8) << row.newline;
    }
}

TEST(RtfToUtf8, EveryBufferSizeGivesTheSameOutput)
{
    const std::string rtf =
        R"({\rtf1\ansi\ansicpg1251{\fonttbl{\f1\fcharset128 M;}{\f2\fcharset2 S;}}\'cf\'f0\par)"
        R"({\f1 \'82\'a0\'82}x\u-10179?\u-8704?\uc2\u945 ab{\f2 \'b7}\emdash\page\tab)"
        "\xe9{\\v hid}\\u-10179 q\\'82 end"
        R"(\pard{\*\pn\pnlvl3\pnstart7\pnucrm{\pntxtb (}{\pntxta )}}N\par a\cell b\cell\row)"
        R"(x{\footnote a long footnote text}y{\footnote z}})";
    const std::string whole = ToUtf8(rtf);
    ASSERT_TRUE(IsValidUtf8(whole));
    for (std::size_t cb = 4; cb <= 64; ++cb) {
        for (auto newline : {CRTFToUTF8Parser::newlineLF, CRTFToUTF8Parser::newlineCRLF}) {
            Options options;
            options.cbBuffer = cb;
            options.newline = newline;
            Options big;
            big.newline = newline;
            EXPECT_EQ(ToUtf8(rtf, options), ToUtf8(rtf, big)) << "buffer " << cb;
        }
    }
}

TEST(RtfToUtf8, CorpusGivesValidUtf8)
{
    DIR* pDir = opendir(RTFCONV_CORPUS_DIR);
    ASSERT_NE(pDir, nullptr);
    int cFiles = 0;
    while (dirent* pEntry = readdir(pDir)) {
        const std::string name = pEntry->d_name;
        if (name.size() < 4 || name.compare(name.size() - 4, 4, ".rtf") != 0)
            continue;
        ++cFiles;
        rtfconv_test::CRecordingLogSink sink;
        const std::string rtf = rtfconv_test::ReadFileBytes(std::string(RTFCONV_CORPUS_DIR) + "/" + name);
        Options small;
        small.cbBuffer = 29;
        const std::string utf8 = ToUtf8(rtf);
        EXPECT_TRUE(IsValidUtf8(utf8)) << name;
        const std::size_t control = utf8.find_first_of(std::string("\0\x01\x02\x03\x04\x05\x06\x07\x08\x0b\x0c\x0d\x0e\x0f"
                                                                   "\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f\x7f", 32));
        EXPECT_EQ(control, std::string::npos) << name << ": control character at " << control;
        EXPECT_EQ(ToUtf8(rtf, small), utf8) << name;
    }
    closedir(pDir);
    EXPECT_GT(cFiles, 50);
}

TEST(RtfToUtf8, CorpusFilesWithKnownText)
{
    const struct {
        const char* file;
        const char* utf8;
    } rows[] = {
        {"pandoc__unicode.rtf", "“hi”‘hi’\uF0B7αä\n"},
        {"pandoc__accent.rtf", " le café où on ne fume pas "},
        {"rtf-stream-parser__cpg1200.rtf", "Plain text body: ! < > \" ' € œ ¤ ´ ¼ ½ 𠜎 𩶘 😀\n"},
        {"rtfparserkit__testJapaneseJisEncoding.rtf", "中國"},
        {"rtfparserkit__test874Encoding.rtf", "1. Test Heading\n• Some test text \n• Some more test text"},
        {"striprtf-py__nbsp.rtf", "This is some bold text with non\u00A0breaking\u00A0spaces.\n"},
        {"tika__testRTFIgnoredControlWord.rtf", "The quick brown fox jumps over the lazy dog"},
        {"rtfparserkit__test10001Encoding.rtf", "お読みください\n"},
        {"rtf2xml__no_open_bracket.rtf", "bogus"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(ToUtf8(rtfconv_test::ReadFileBytes(std::string(RTFCONV_CORPUS_DIR) + "/" + row.file)), WithFinalNewline(row.utf8)) << row.file;
}
