// RTF to old-format text with SetLossless(true), each case beside the
// exact bytes it replaces: what the exact conversion loses is kept.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/AfxExceptions.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/RTFToOld.h"
#include "old_to_rtf_helpers.h"
#include "rtfconverter/RtfToUtf8.h"
#include "test_rtf_to_old_helpers.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::Cmd;
using rtfconv_test::ImportOptions;
using rtfconv_test::ImportSource;
using rtfconv_test::OldText;
using rtfconv_test::PullOldText;

namespace {

const char* const kThrows = "<throws>";

struct ModesRow {
    const char* what;
    std::string rtf;
    std::string exact;     // kThrows: the framework exception leaves Read
    std::string lossless;
    bool bTableTags = false;
};

ImportOptions Lossless(bool bLossless, ImportSource source = ImportSource::Ptr)
{
    ImportOptions options;
    options.bLossless = bLossless;
    options.source = source;
    return options;
}

void ExpectBothModes(const ModesRow& row)
{
    for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
        ImportOptions exact = Lossless(false, source);
        ImportOptions lossless = Lossless(true, source);
        exact.bTableTags = lossless.bTableTags = row.bTableTags;
        if (row.exact == kThrows)
            EXPECT_THROW(OldText(row.rtf, exact), CException) << row.what;
        else
            EXPECT_EQ(OldText(row.rtf, exact), row.exact) << "exact: " << row.what;
        EXPECT_EQ(OldText(row.rtf, lossless), row.lossless) << "lossless: " << row.what;
    }
}

std::string Hyperlink(const std::string& text, const std::string& target)
{
    return Cmd("CH:" + text + "\x03" + target);
}

// Pulls with buffers of exactly cb bytes, never grown, as a host with a fixed
// buffer does.
template <class TReader>
std::string PullFixedFrom(TReader& reader, std::size_t cb, bool bLossless)
{
    reader.SetLossless(bLossless);
    std::vector<char> buf(cb);
    std::string out;
    bool bMore = true;
    for (int cCalls = 0; bMore && cCalls < 2000000; ++cCalls) {
        const int n = reader.Read(buf.data(), buf.data() + buf.size(), bMore);
        out.append(buf.data(), static_cast<std::size_t>(n));
    }
    EXPECT_FALSE(bMore) << "no end with a buffer of " << cb;
    return out;
}

std::string PullFixed(const std::string& rtf, std::size_t cb, bool bLossless,
                      ImportSource source = ImportSource::Ptr)
{
    if (source == ImportSource::Ptr) {
        CRTFPtrImport reader(rtf.c_str());
        return PullFixedFrom(reader, cb, bLossless);
    }
    rtfconv_test::CTestReadStream stream(rtf);
    CRTFStreamImport reader(&stream);
    return PullFixedFrom(reader, cb, bLossless);
}

std::vector<std::string> HyperlinkCommands(const std::string& old)
{
    std::vector<std::string> links;
    for (std::size_t at = old.find("\x01" "CH:"); at != std::string::npos; at = old.find("\x01" "CH:", at + 1))
        links.push_back(old.substr(at, old.find('\x02', at) + 1 - at));
    return links;
}

} // namespace

TEST(RtfToOldLossless, HyperlinksThatDoNotFitAreHeldForTheNextBuffer)
{
    std::string rtf = "{\\rtf1{\\fonttbl{\\f0 Arial;}}\\f0 ";
    for (int i = 0; i < 300; ++i)
        rtf += "See {\\field{\\*\\fldinst HYPERLINK \"http://example.org/" + std::to_string(i) +
               "\"}{\\fldrslt {\\ul link " + std::to_string(i) + "}}} now.\\par ";
    rtf += "}";
    const std::vector<std::string> all = HyperlinkCommands(PullFixed(rtf, 65536, true));
    ASSERT_EQ(all.size(), 300u);

    std::vector<std::size_t> sizes;
    for (std::size_t cb = 1; cb <= 64; ++cb)
        sizes.push_back(cb);
    for (std::size_t cb = 128; cb <= 65536; cb *= 2)
        sizes.push_back(cb);
    sizes.push_back(200);
    for (std::size_t cb : sizes) {
        EXPECT_EQ(HyperlinkCommands(PullFixed(rtf, cb, true)), all) << "buffer " << cb;
        EXPECT_EQ(HyperlinkCommands(PullFixed(rtf, cb, true, ImportSource::Stream)), all) << "stream, buffer " << cb;
    }

    // The exact conversion drops what does not fit.
    EXPECT_LT(HyperlinkCommands(PullFixed(rtf, 200, false)).size(), 300u);
    EXPECT_LT(HyperlinkCommands(PullFixed(rtf, 4096, false)).size(), 300u);
    EXPECT_EQ(HyperlinkCommands(PullFixed(rtf, 65536, false)).size(), 300u);
}

TEST(RtfToOldLossless, HeldOutputAtTheEndOfTheInputStillComesOut)
{
    const std::string rtf = "{\\rtf1 abcdef{\\field{\\*\\fldinst HYPERLINK \"http://a.org\"}{\\fldrslt x}}}";
    const std::string whole = "abcdef" + Hyperlink("x", "http://a.org");
    EXPECT_EQ(PullFixed(rtf, 64, true), whole);
    // Six letters fill the buffer: the command goes whole into the next one,
    // behind the layout and font it is due under.
    const std::string split = PullFixed(rtf, 6, true);
    EXPECT_EQ(split.substr(0, 6), "abcdef");
    EXPECT_EQ(HyperlinkCommands(split), std::vector<std::string>{Hyperlink("x", "http://a.org")});
    EXPECT_EQ(PullFixed(rtf, 6, false), "abcdef");
}

TEST(RtfToOldLossless, BadTableIndexesAreIgnored)
{
    const ModesRow rows[] = {
        {"font entry -1 (two spaces before the first font)", "{\\rtf1{\\fonttbl  {\\f0 Arial;}}\\f0 x\\par}",
         kThrows, Cmd("F---:Arial") + "x\r"},
        {"negative colour", "{\\rtf1{\\colortbl;\\red255\\green0\\blue0;}a\\cf-1 b\\cb-1 c}", kThrows, "abc"},
        {"colour past the table", "{\\rtf1{\\colortbl;\\red255\\green0\\blue0;}a\\cf99 b\\cf1 c}", "ab" + Cmd("F--J:-") + "c",
         "ab" + Cmd("F--J:-") + "c"},
        {"colour component before the table", "{\\rtf1 \\red5 x}", kThrows, "x"},
        {"family before the first font", "{\\rtf1{\\fonttbl\\fswiss A;}x}", kThrows, "x"},
        {"character set before the first font", "{\\rtf1{\\fonttbl\\fcharset0}x}", kThrows, "x"},
    };
    for (const ModesRow& row : rows)
        ExpectBothModes(row);

    rtfconv_test::CRecordingLogSink log;
    EXPECT_EQ(OldText("{\\rtf1 a\\cf-1 b}", Lossless(true)), "ab");
    EXPECT_EQ(log.traces, std::vector<std::string>{"RTFToOld: colour table entry -1 does not exist; ignored\n"});
}

TEST(RtfToOldLossless, UnicodeAndCharacterSets)
{
    const ModesRow rows[] = {
        {"\\u with its fallback skipped", "{\\rtf1 K\\u220?CHE}", "K?CHE", "K\xDC" "CHE"},
        {"\\uc2 skips two, a control word counting one", "{\\rtf1\\uc2 a\\u252\\'fc\\'fcb\\uc1\\u246\\par c}",
         "a\xFC\xFC" "b\r" "c", "a\xFC" "b\xF6" "c"},
        {"a negative \\u is above 32767", "{\\rtf1 \\u-3913?}", "?", "?"},
        {"Cyrillic in a 1252 document goes into RUSSIAN_CHARSET",
         "{\\rtf1\\ansi\\ansicpg1252 \\u1055?\\u1088?\\u1080? K\\u220?}", "??? K?",
         Cmd("F---\xCA:-") + "\xCF\xF0\xE8 K" + Cmd("F---:-") + "\xDC"},
        {"Japanese in a 1252 document goes into SHIFTJIS_CHARSET", "{\\rtf1 \\u12354?}", "?",
         Cmd("F---\xCB:-") + "\x82\xA0"},
        {"\\ansicpg decides the set of a font without \\fcharset",
         "{\\rtf1\\ansi\\ansicpg1251{\\fonttbl{\\f0 Arial;}}\\f0 \\'cf\\'f0}", Cmd("F---:Arial") + "\xCF\xF0",
         Cmd("F---\xCA:Arial") + "\xCF\xF0"},
        {"an ANSI font in a 1251 document stays ANSI",
         "{\\rtf1\\ansi\\ansicpg1251{\\fonttbl{\\f0\\fcharset0 Arial;}}\\f0 \\'e9}", Cmd("F---\xC0:Arial") + "\xE9",
         Cmd("F---\xC0:Arial") + "\xE9"},
        {"\\fcharset78 (Mac Japanese) carried as Shift-JIS", "{\\rtf1{\\fonttbl{\\f0\\fcharset78 Osaka;}}\\f0 \\'82\\'a0}",
         Cmd("F---:Osaka") + "\x82\xA0", Cmd("F---\xCB:Osaka") + "\x82\xA0"},
        {"\\fcharset256 is the document's", "{\\rtf1\\ansicpg1253{\\fonttbl{\\f0\\fcharset256 A;}}\\f0 \\'e1}",
         Cmd("F---:A") + "\xE1", Cmd("F---\xC6:A") + "\xE1"},
        {"\\pc text converted from code page 437", "{\\rtf1\\pc \\'82}", "\x82", Cmd("F---\xC0:-") + "\xE9"},
        {"\\pca text converted from code page 850", "{\\rtf1\\pca \\'9b}", "\x9B", Cmd("F---\xC0:-") + "\xF8"},
        {"\\mac text in MAC_CHARSET", "{\\rtf1\\mac \\'8e}", "\x8E", Cmd("F---\xC8:-") + "\x8E"},
        {"text outside any \\f is in the default font", "{\\rtf1\\deff0{\\fonttbl{\\f0\\fcharset204 Arial;}}\\'cf}",
         "\xCF", Cmd("F---\xCA:Arial") + "\xCF"},
        {"a Symbol font's private-use characters", "{\\rtf1{\\fonttbl{\\f0\\fcharset2 Symbol;}}\\f0 \\u-3999?}",
         Cmd("F---\xCC:Symbol") + "?", Cmd("F---\xCC:Symbol") + "a"},
        {"a double-byte character split by no buffer", "{\\rtf1\\ansicpg932{\\fonttbl{\\f0\\fcharset128 MS;}}\\f0 \\'93\\'fa}",
         Cmd("F---\xCB:MS") + "\x93\xFA", Cmd("F---\xCB:MS") + "\x93\xFA"},
    };
    for (const ModesRow& row : rows)
        ExpectBothModes(row);
}

TEST(RtfToOldLossless, CharactersNoWindowsCodePageHoldsAreCounted)
{
    const std::string rtf = "{\\rtf1 a\\u-10179?\\u-8704?b\\u8364?}";  // U+1F600, then the euro sign
    const rtfconv_test::ImportResult result = PullOldText(rtf, Lossless(true));
    EXPECT_EQ(result.text, "a?b\x80");
    EXPECT_EQ(result.cUnrepresentable, 1);
    EXPECT_EQ(PullOldText(rtf, Lossless(false)).cUnrepresentable, 0);
}

TEST(RtfToOldLossless, HyperlinkDisplayTextAndFields)
{
    const ModesRow rows[] = {
        {"a font owed at the link stays out of its display text",
         "{\\rtf1{\\fonttbl{\\f0 Helvetica;}}\\f0{\\field{\\*\\fldinst HYPERLINK \"http://a.org\"}{\\fldrslt pandoc}}}",
         Cmd("F---:Helvetica") + Cmd("CH:" + Cmd("F---:Helvetica").substr(0, 15) + "\x03" "http://a.org") + "pandoc\x02",
         Cmd("F---:Helvetica") + Hyperlink("pandoc", "http://a.org")},
        {"formatted display text, a switch after the target",
         "{\\rtf1{\\field{\\*\\fldinst HYPERLINK \"http://a.org/x\" \\\\o \"tip\"}{\\fldrslt {\\ul link}}} after}",
         Cmd("CH:" + Cmd("F---U:-").substr(0, 8) + "\x03" "http://a.org/x\" \\o \"tip") + "link\x02" " after",
         Cmd("F---U:-") + Hyperlink("link", "http://a.org/x") + Cmd("F---:-") + " after"},
        {"a link to a bookmark keeps its text", "{\\rtf1{\\field{\\*\\fldinst HYPERLINK \"#bm\"}{\\fldrslt text}}}", "",
         "text"},
        {"Word's bookmark link keeps its text", "{\\rtf1{\\field{\\*\\fldinst HYPERLINK \\\\l \"bm\"}{\\fldrslt t.x}}}", "",
         "t.x"},
        {"nested fields keep their own text",
         "{\\rtf1{\\field{\\*\\fldinst HYPERLINK \"http://a.org\"}{\\fldrslt {\\field{\\*\\fldinst PAGE}{\\fldrslt 42}}}}}",
         "4242", Hyperlink("42", "http://a.org")},
        {"a hyperlink inside an ordinary field",
         "{\\rtf1{\\field{\\*\\fldinst REF x}{\\fldrslt a{\\field{\\*\\fldinst HYPERLINK \"b.org\"}{\\fldrslt b}}c}}}",
         "a" + Hyperlink("b", "b.org") + "c" + Hyperlink("b", "b.org"), "a" + Hyperlink("b", "b.org") + "c"},
    };
    for (const ModesRow& row : rows)
        ExpectBothModes(row);
}

TEST(RtfToOldLossless, WordsReadAsWordProcessorsReadThem)
{
    const ModesRow rows[] = {
        {"\\bin inside a skipped group", "{\\rtf1 a{\\*\\foo\\bin3 }}}} b}", "a", "a b"},
        {"\\bin without a count holds no bytes", "{\\rtf1 a{\\*\\foo\\bin}b\\bin c}", "ab", "abc"},
        {"no other word runs inside a skipped group", "{\\rtf1 a{\\*\\foo\\u233\\nestcell\\par\\b\\row x}b}", "ab", "ab"},
        {"nested cells and rows", "{\\rtf1 Deep A\\nestcell Deep B\\nestcell{\\nonesttables FALLBACK}\\nestrow}",
         "Deep ADeep BFALLBACK", "Deep A\tDeep B\t\r"},
        {"\\sub ends \\super, \\nosupersub both", "{\\rtf1 \\super a\\sub b\\nosupersub c}",
         Cmd("F---S:-") + "a" + Cmd("F---Ss:-") + "bc", Cmd("F---S:-") + "a" + Cmd("F---s:-") + "b" + Cmd("F---:-") + "c"},
        {"special characters",
         "{\\rtf1 non\\~breaking 4\\endash 6\\emdash\\bullet\\lquote q\\rquote\\ldblquote d\\rdblquote x\\-y\\_z}",
         "nonbreaking 46\x91q\x92" "dxyz", "non\xA0" "breaking 4\x96" "6\x97\x95\x91q\x92\x93" "d\x94" "x\xAD" "y-z"},
        {"backslash before LF and CR", "{\\rtf1 one\\\ntwo\\\r\nthree}", "onetwothree", "one\rtwo\rthree"},
        {"one StartRow per row", "{\\rtf1 \\trowd\\intbl a\\cell\\pard\\intbl b\\cell\\row}",
         Cmd("CT:StartRow") + Cmd("CT:StartRow") + "a" + Cmd("CT:EndCell") + Cmd("CT:StartRow") + "b" +
             Cmd("CT:EndCell") + Cmd("CT:EndRow"),
         Cmd("CT:StartRow") + "a" + Cmd("CT:EndCell") + "b" + Cmd("CT:EndCell") + Cmd("CT:EndRow"), true},
        {"a fragment: top-level groups without {\\rtf", "{a\\par}\n{\\b b\\par}\r\n{c}", "a\r",
         "a\r" + Cmd("F---B:-") + "b\r" + Cmd("F---:-") + "c"},
        {"\\* inside a group marks nothing", "{\\rtf1 {\\b0\\*\\cs7\\i0 quick} fox}", " fox", "quick fox"},
        {"text in nested-table properties", "{\\rtf1 a{\\*\\nesttableprops\\trowd b\\nestcell\\nestrow} c}", "a c", "ab\t\r c"},
        {"list, TOC and index entries are no text",
         "{\\rtf1 {\\list{\\listname L;}}{\\listoverride\\ls1}a{\\tc{\\v e}}b{\\xe x}c}", "L;aebxc", "abc"},
    };
    for (const ModesRow& row : rows)
        ExpectBothModes(row);
}

namespace {

// Old-format text back to Unicode: each run of text decoded in the code page
// of the character set its font command names.
std::u32string DecodeOldText(const std::string& old)
{
    std::u32string out;
    const CCodePage* pPage = CCodePage::Get(1252);
    for (std::size_t i = 0; i < old.size(); ++i) {
        if (old[i] == '\x01') {
            const std::size_t end = old.find('\x02', i);
            const CFontCmd cmd(CString(old.substr(i, end + 1 - i).c_str()));
            const int charset = cmd.GetCharset();
            pPage = CCodePage::Get(charset == 0 || charset == 1 ? 1252 : CodePageOfCharset(charset));
            i = end;
            continue;
        }
        const unsigned char b = static_cast<unsigned char>(old[i]);
        if (b < 0x80)
            out += b;
        else if (pPage->IsLeadByte(b) && i + 1 < old.size())
            out += pPage->Pair(b, static_cast<unsigned char>(old[++i]));
        else
            out += pPage->Single(b);
    }
    return out;
}

struct CodePageCharset {
    int codePage;
    int charset;
};
const CodePageCharset kWindowsPages[] = {
    {1252, 0},   {1250, 238}, {1251, 204}, {1253, 161}, {1254, 162}, {1255, 177}, {1256, 178},
    {1257, 186}, {1258, 163}, {874, 222},  {932, 128},  {936, 134},  {949, 129},  {950, 136},
};

// Every character other than ASCII that the page holds, with its bytes.
std::vector<std::pair<char32_t, std::string>> CharactersOf(const CCodePage& page)
{
    std::vector<std::pair<char32_t, std::string>> chars;
    for (unsigned b = 0x80; b < 0x100; ++b) {
        const unsigned char lead = static_cast<unsigned char>(b);
        if (!page.IsLeadByte(lead)) {
            if (page.Single(lead) != 0xFFFD)
                chars.emplace_back(page.Single(lead), std::string(1, static_cast<char>(lead)));
            continue;
        }
        for (unsigned t = 0x40; t < 0x100; ++t) {
            const char32_t cp = page.Pair(lead, static_cast<unsigned char>(t));
            if (cp != CCodePage::invalidPair && cp != 0xFFFD)
                chars.emplace_back(cp, std::string{static_cast<char>(lead), static_cast<char>(t)});
        }
    }
    return chars;
}

std::string UnicodeRtf(int codePage, const std::vector<std::pair<char32_t, std::string>>& chars)
{
    std::string rtf = "{\\rtf1\\ansi\\ansicpg" + std::to_string(codePage) + " ";
    for (const auto& c : chars)
        rtf += "\\u" + std::to_string(c.first > 32767 ? static_cast<long>(c.first) - 65536 : c.first) + "?";
    return rtf + "}";
}

} // namespace

// Each page's characters, given as \u in a document of that page, come out in
// its character set with its own bytes; given in a 1252 document, each lands
// in some Windows set whose page reads it back as the same character.
TEST(RtfToOldLossless, EveryCharacterOfEveryWindowsCodePage)
{
    for (const CodePageCharset& row : kWindowsPages) {
        const CCodePage* pPage = CCodePage::Get(row.codePage);
        ASSERT_NE(pPage, nullptr) << row.codePage;
        std::vector<std::pair<char32_t, std::string>> chars = CharactersOf(*pPage);
        // The page's own encoding decides a character that two byte forms
        // give (the first form is written).
        std::vector<std::pair<char32_t, std::string>> unique;
        std::u32string expected;
        std::string bytes;
        for (const auto& c : chars) {
            unsigned char enc[2];
            const int cb = pPage->Encode(c.first, enc);
            if (cb == 0 || std::string(reinterpret_cast<char*>(enc), static_cast<std::size_t>(cb)) != c.second)
                continue;
            unique.push_back(c);
            expected += c.first;
            bytes += c.second;
        }
        ASSERT_GT(unique.size(), 90u) << row.codePage;

        const std::string own = OldText(UnicodeRtf(row.codePage, unique), Lossless(true));
        CFontCmd ownCmd;
        ownCmd.SetCharset(row.charset);
        const std::string ownPrefix = row.codePage == 1252 ? std::string() : ownCmd.GetCmd().GetString();
        EXPECT_EQ(own, ownPrefix + bytes) << "own document, code page " << row.codePage;

        const rtfconv_test::ImportResult result = PullOldText(UnicodeRtf(1252, unique), Lossless(true));
        EXPECT_EQ(DecodeOldText(result.text), expected) << "1252 document, characters of " << row.codePage;
        EXPECT_EQ(result.cUnrepresentable, 0) << row.codePage;
    }
}

namespace {

// Old-format text through the lossless writer, with a base font in the given
// character set.
std::string LosslessRtf(const std::string& old, BYTE charset)
{
    CComPtr<IStream> out;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    COldToRTF writer(*out);
    writer.SetLossless(true);
    const LOGFONT font = rtfconv_test::ArialTen(charset);
    EXPECT_EQ(writer.Convert(old.c_str(), &font), S_OK);
    return rtfconv_test::StreamBytes(out);
}

std::string Utf8Text(const std::string& rtf)
{
    CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()),
                                      static_cast<unsigned long>(rtf.size()));
    std::string text;
    char buf[4096];
    bool bMore = true;
    for (int cCalls = 0; bMore && cCalls < 100000; ++cCalls)
        text.append(buf, reader.Read(buf, buf + sizeof buf, bMore));
    return text;
}

} // namespace

// The whole chain the tool runs for rtf2old, old2rtf and rtf2txt: each
// character of every Windows code page, given as \u in a 1252 document, is
// read back from the re-written RTF as itself, and so are the page's own
// bytes in a document of that page.
TEST(RtfToOldLossless, EveryWindowsCharacterSurvivesTheRoundTrip)
{
    for (const CodePageCharset& row : kWindowsPages) {
        const CCodePage* pPage = CCodePage::Get(row.codePage);
        ASSERT_NE(pPage, nullptr) << row.codePage;
        std::vector<std::pair<char32_t, std::string>> chars = CharactersOf(*pPage);
        std::string expected;
        std::string escaped = "{\\rtf1\\ansi\\ansicpg" + std::to_string(row.codePage) + " ";
        for (const auto& c : chars) {
            // C1 control codes are no text for the UTF-8 reader.
            if (c.first < 0xA0)
                continue;
            AppendUtf8(expected, c.first);
            for (unsigned char b : c.second) {
                static const char kHex[] = "0123456789abcdef";
                escaped += std::string("\\'") + kHex[b >> 4] + kHex[b & 15];
            }
        }
        expected += '\n';
        escaped += "}";
        for (const std::string& rtf : {UnicodeRtf(1252, chars), escaped}) {
            const std::string old = OldText(rtf, Lossless(true));
            const std::string written = LosslessRtf(old, 0);
            EXPECT_EQ(Utf8Text(written), expected) << "code page " << row.codePage << ": " << rtf.substr(0, 40);
        }
    }
}

// Real documents: in the lossless reading nothing leaves Read, with either
// source and with small buffers too.
TEST(RtfToOldLossless, CorpusReadsWithoutExceptions)
{
    const std::string dir = RTFCONV_CORPUS_DIR;
    DIR* pDir = opendir(dir.c_str());
    ASSERT_NE(pDir, nullptr);
    int cFiles = 0;
    while (const dirent* pEntry = readdir(pDir)) {
        const std::string name = pEntry->d_name;
        if (name.size() < 4 || name.substr(name.size() - 4) != ".rtf")
            continue;
        std::ifstream in(dir + "/" + name, std::ios::binary);
        std::stringstream data;
        data << in.rdbuf();
        for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
            ImportOptions options = Lossless(true, source);
            options.cbBuffer = source == ImportSource::Ptr ? 65536 : 64;
            EXPECT_NO_THROW(OldText(data.str(), options)) << name;
        }
        ++cFiles;
    }
    closedir(pDir);
    EXPECT_GT(cFiles, 100);
}

// Documents made of the words the lossless reading adds, the words that raise
// in the exact one, and broken pieces: nothing leaves Read and every
// document ends.
TEST(RtfToOldLossless, MalformedInputNeitherThrowsNorStalls)
{
    const char* const tokens[] = {
        "{", "}", "{", "}", "x", " ", "\\'", "\\'e", "\\'82", "\\'a0", "\\u", "\\u-1", "\\u55357", "\\u56832 ",
        "\\uc5 ", "\\uc-3 ", "\\uc", "\\bin", "\\bin2 ", "\\bin-4 ", "\\*\\foo ", "\\field", "{\\*\\fldinst HYPERLINK \"a.b\"}",
        "\\fldrslt ", "\\fldinst ", "\\cf-1 ", "\\cb99 ", "\\red7 ", "{\\colortbl;", "{\\fonttbl ", "\\f0 ", "\\f-2 ",
        "\\fcharset78 ", "\\fcharset128 ", "\\ansicpg932 ", "\\ansicpg0 ", "\\pc ", "\\mac ", "\\deff0 ", "\\plain ",
        "\\nestcell ", "\\nestrow ", "\\nonesttables ", "\\trowd ", "\\intbl ", "\\row ", "\\cell ", "\\super ",
        "\\sub ", "\\nosupersub ", "\\~", "\\_", "\\-", "\\endash ", "\\\n", "\\\r", "\\pict ", "\\pngblip ", "41",
        "\\par ", "\\pntext ", "{\\*\\pn\\pnlvlblt}",
    };
    unsigned seed = 12345;
    auto next = [&seed] { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7FFF; };
    for (int doc = 0; doc < 1500; ++doc) {
        std::string rtf = "{\\rtf1 ";
        for (int n = 0; n < 40; ++n)
            rtf += tokens[next() % (sizeof tokens / sizeof tokens[0])];
        for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
            ImportOptions options = Lossless(true, source);
            options.cbBuffer = 16;
            rtfconv_test::ImportResult result;
            EXPECT_NO_THROW(result = PullOldText(rtf, options)) << rtf;
            EXPECT_FALSE(result.bStalled) << rtf;
        }
    }
}
