// The writer's lossless option: each case in both modes, the specified bytes
// with the option off and what the option keeps with it on; pictures through
// the writer and the importer; failed writes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "old_to_rtf_helpers.h"
#include "rtfconverter/PictureFormats.h"
#include "test_rtf_to_old_helpers.h"

using namespace rtfconv_test;
using rtf_converter::COldToRTF;

namespace {

const std::string S = "\x03";
const char kShiftJis = '\xCB';  // the font command's code of SHIFTJIS_CHARSET
const char kRussian = '\xCA';   // RUSSIAN_CHARSET

std::string Convert(const std::string& text, bool bLossless, long* pResult = nullptr, FilterScript* pScript = nullptr)
{
    return OldToRtfInMode(text, bLossless, pResult, pScript);
}

const std::string kStart = "\\pard\\f0\\fs20\\cf1 ";
const std::string kGothic = "{\\f1\\fcharset128\\fswiss MS Gothic;}";
const std::string kTimes = "{\\f1\\fcharset0\\fswiss Times New Roman;}";

struct BothModes {
    const char* name;
    std::string text;
    std::string extraFonts;     // the font table entries after the base font, both modes
    std::string exactBody;      // after "\pard\f0\fs20\cf1 "
    std::string losslessBody;
    std::string losslessFonts;  // when the lossless table differs
};

std::vector<BothModes> Cases()
{
    const std::string gothic = Cmd(std::string("F---") + kShiftJis + ":MS Gothic");
    const std::string owedFontLink = "See " + Cmd("CH:" + Cmd("F---B:Times New Roman").substr(0, 22) + S + "http://x.org/") +
                                     "the site\x02 now.";
    return {
        {"bytes above 0x7F", "caf\xE9 na\xEFve", "", "caf\xE9 na\xEFve\\par }", "caf\\'e9 na\\'efve\\par }", ""},
        {"RTF specials", "a\\b{c}", "", "a\\\\b\\{c\\}\\par }", "a\\\\b\\{c\\}\\par }", ""},
        {"double-byte trail bytes", gothic + "\x8B\x7B\x83\x6A\x95\x5C", kGothic,
         "\\f1\\cf1 \x8B\\{\x83j\x95\\\\\\par }", "\\f1\\cf1 \\'8b\\'7b\\'83\\'6a\\'95\\'5c\\par }", ""},
        {"a lead byte without its trail", gothic + "\x8B\rx", kGothic, "\\f1\\cf1 \x8B\\par x\\par }",
         "\\f1\\cf1 \\'8b\\par x\\par }", ""},
        {"the character set reaches \\fcharset", Cmd(std::string("F---") + kRussian + ":-") + "\xCF\xF0\xE8",
         "{\\f1\\fcharset204\\fswiss Arial;}", "\\f1\\cf1 \xCF\xF0\xE8\\par }", "\\f1\\cf1 \\'cf\\'f0\\'e8\\par }", ""},
        {"a plain hyperlink", "Go " + Cmd("CH:the site" + S + "http://x.org/a b") + ".", "",
         "Go \\ul{\\field{\\*\\fldinst{HYPERLINK http://x.org/a b}}{\\fldrslt the site}}\\ul0 .\\par }",
         "Go {\\field{\\*\\fldinst{HYPERLINK \"http://x.org/a b\"}}{\\fldrslt{\\ul the site}}}.\\par }", ""},
        {"a hyperlink's owed font command", owedFontLink, "",
         "See \\ul{\\field{\\*\\fldinst{HYPERLINK http://x.org/}}{\\fldrslt \x01" "F---B:Times New Roman}}\\ul0 the site now.\\par }",
         "See {\\field{\\*\\fldinst{HYPERLINK \"http://x.org/\"}}{\\fldrslt{\\ul \\f1\\cf1\\b\\ul0 the site}}} now.\\par }",
         kTimes},
        {"a hyperlink with balanced font commands", "A " + Cmd("CH:" + Cmd("F---I:-") + "x\xE9" + S + "u") + "b", "",
         "A \\ul{\\field{\\*\\fldinst{HYPERLINK }}{\\fldrslt \x01" "F---I:-}}\\ul0 x\xE9" + S + "ub\\par }",
         "A {\\field{\\*\\fldinst{HYPERLINK \"u\"}}{\\fldrslt{\\ul \\cf1\\ul0\\i x\\'e9}}}b\\par }", ""},
        {"the character state around a hyperlink",
         Cmd("F---B:-") + "x" + Cmd("CH:" + Cmd("F---I:-") + "y" + S + "u") + Cmd("F---BI:-") + "z" + Cmd("F---U:-") + "w", "",
         "\\cf1\\b x\\ul{\\field{\\*\\fldinst{HYPERLINK }}{\\fldrslt \x01" "F---I:-}}\\ul0 y" + S + "u\\i z\\b0\\ul\\i0 w\\par }",
         "\\cf1\\b x{\\field{\\*\\fldinst{HYPERLINK \"u\"}}{\\fldrslt{\\ul \\b0\\ul0\\i y}}}\\i z\\b0\\ul\\i0 w\\par }", ""},
        {"table tags", "Top\r" + Cmd("CT:StartRow") + Cmd("CT:StartRow") + "A" + Cmd("CT:EndCell") + Cmd("CT:StartRow") +
                           "B" + Cmd("CT:EndCell") + Cmd("CT:EndRow") + "End",
         "", "Top\\par StartRowStartRowAEndCellStartRowBEndCellEndRowEnd\\par }",
         "Top\\par \\trowd\\trgaph108\\cellx4680\\cellx9360\\pard\\intbl A\\cell B\\cell \\row \\pard End\\par }", ""},
        {"a table row keeps the paragraph's layout", Cmd("LC000000") + Cmd("CT:StartRow") + "A" + Cmd("CT:EndCell") +
                                                         Cmd("LR000000") + "B" + Cmd("CT:EndCell") + Cmd("CT:EndRow"),
         "", "\\pard\\qc StartRowAEndCell\\pard\\qr BEndCellEndRow\\par }",
         "\\pard\\qc \\trowd\\trgaph108\\cellx4680\\cellx9360\\pard\\qc\\intbl A\\cell \\pard\\qr\\intbl B\\cell \\row \\pard\\qr \\par }",
         ""},
        {"a row the text ends in", Cmd("CT:StartRow") + "A" + Cmd("CT:EndCell") + "B", "",
         "StartRowAEndCellB\\par }", "\\trowd\\trgaph108\\cellx9360\\pard\\intbl A\\cell B\\row \\pard \\par }", ""},
        {"a bullet", Cmd("CN:\xB7" + S + S + "q" + S + S + "Symbol") + "Item", "{\\f1\\fcharset2\\fnil Symbol;}",
         "\\f1 \xB7 \\f0 Item\\par }", "\\f1 \\'b7 \\f0 Item\\par }", ""},
        {"cells and rows outside a row", "a" + Cmd("CT:EndCell") + "b" + Cmd("CT:EndRow") + Cmd("CT:StartRow") + "c", "",
         "aEndCellbEndRowStartRowc\\par }", "a\\tab b\\par c\\par }", ""},
    };
}

TEST(OldToRTFLossless, EachCaseInBothModes)
{
    for (const BothModes& c : Cases()) {
        SCOPED_TRACE(c.name);
        long hr = -1;
        EXPECT_EQ(Convert(c.text, false, &hr), DocumentAround(kStart + c.exactBody, c.extraFonts));
        EXPECT_EQ(hr, S_OK);
        const std::string fonts = c.losslessFonts.empty() ? c.extraFonts : c.losslessFonts;
        const std::string lossless = Convert(c.text, true, &hr);
        EXPECT_EQ(lossless, DocumentAround(kStart + c.losslessBody, fonts));
        EXPECT_EQ(hr, S_OK);
        EXPECT_TRUE(ReadsBalanced(lossless));
    }
}

TEST(OldToRTFLossless, OffByDefault)
{
    CComPtr<IStream> out;
    ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    COldToRTF writer(*out);
    EXPECT_FALSE(writer.IsLossless());
    writer.SetLossless(true);
    EXPECT_TRUE(writer.IsLossless());
}

// The exact writer reports success whatever the stream does; the lossless one
// reports the first failed write, wherever it falls.
TEST(OldToRTFLossless, FailedWritesAreReported)
{
    const LOGFONT lf = ArialTen();
    for (int nFail = 1; nFail <= 6; ++nFail) {
        for (bool bLossless : {false, true}) {
            SCOPED_TRACE(std::to_string(nFail) + (bLossless ? " lossless" : " exact"));
            CFailingStream out(nFail, nFail);
            COldToRTF writer(out);
            writer.SetLossless(bLossless);
            const long hr = writer.Convert("Hello", &lf);
            if (nFail <= 5 && bLossless) EXPECT_EQ(hr, STG_E_MEDIUMFULL);
            else EXPECT_EQ(hr, S_OK);
        }
    }
}

// --- pictures

std::string Bytes(std::initializer_list<int> bytes)
{
    std::string s;
    for (int b : bytes) s += static_cast<char>(b);
    return s;
}

std::string LittleEndian(unsigned long n, int cb)
{
    std::string s;
    for (int i = 0; i < cb; ++i) s += static_cast<char>((n >> (8 * i)) & 0xFF);
    return s;
}

std::string Png(unsigned width, unsigned height)
{
    std::string s = Bytes({0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 0, 0, 0, 13}) + "IHDR";
    for (unsigned n : {width, height})
        for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>((n >> shift) & 0xFF);
    return s + Bytes({8, 2, 0, 0, 0, 0x12, 0x34, 0x56, 0x78}) + std::string("\0\0\0\0IEND", 8);
}

std::string Jpeg(unsigned width, unsigned height)
{
    // SOI, an APP0 segment to be skipped, then SOF0 with the size.
    return Bytes({0xFF, 0xD8, 0xFF, 0xE0, 0, 4, 'J', 'F', 0xFF, 0xC0, 0, 11, 8, int(height >> 8), int(height & 0xFF),
                  int(width >> 8), int(width & 0xFF), 1, 1, 0x11, 0, 0xFF, 0xD9});
}

std::string Emf(long frameRight, long frameBottom)
{
    std::string s = LittleEndian(1, 4) + LittleEndian(108, 4) + std::string(16, '\0'); // rclBounds
    s += LittleEndian(0, 4) + LittleEndian(0, 4) + LittleEndian(static_cast<unsigned long>(frameRight), 4) +
         LittleEndian(static_cast<unsigned long>(frameBottom), 4);
    return s + " EMF" + std::string(64, '\x01');
}

// A WMF without a placeable header: the 18-byte header, SETWINDOWEXT (y 300, x 400), EOF.
std::string Wmf()
{
    return LittleEndian(1, 2) + LittleEndian(9, 2) + LittleEndian(0x300, 2) + LittleEndian(19, 4) + LittleEndian(0, 2) +
           LittleEndian(5, 4) + LittleEndian(0, 2) + LittleEndian(5, 4) + LittleEndian(0x020C, 2) + LittleEndian(300, 2) +
           LittleEndian(400, 2) + LittleEndian(3, 4) + LittleEndian(0, 2);
}

std::string Placeable(const std::string& wmf)
{
    // Bounds 0,0 to 1440,720 at 1440 units per inch: one inch by half an inch.
    return LittleEndian(0x9AC6CDD7, 4) + LittleEndian(0, 2) + LittleEndian(0, 4) + LittleEndian(1440, 2) +
           LittleEndian(720, 2) + LittleEndian(1440, 2) + LittleEndian(0, 4) + LittleEndian(0, 2) + wmf;
}

struct PictureCase {
    const char* name;
    LONG aType;
    std::string data;
    std::string opening;      // what the lossless writer opens the picture with
    std::string importedData; // what the importer hands back
};

std::vector<PictureCase> PictureCases()
{
    const std::string wmf = Wmf();
    return {
        {"png", AttachmentInfo::AT_PNG, Png(640, 480), "{\\pict\\pngblip\\picw640\\pich480\\picwgoal9600\\pichgoal7200 ",
         Png(640, 480)},
        {"jpeg", AttachmentInfo::AT_JPEG, Jpeg(300, 200), "{\\pict\\jpegblip\\picw300\\pich200\\picwgoal4500\\pichgoal3000 ",
         Jpeg(300, 200)},
        {"emf", AttachmentInfo::AT_EMF, Emf(2540, 1270), "{\\pict\\emfblip\\picw2540\\pich1270\\picwgoal1440\\pichgoal720 ",
         Emf(2540, 1270)},
        {"wmf", AttachmentInfo::AT_WMF, wmf, "{\\pict\\wmetafile8\\picw400\\pich300 ", wmf},
        {"placeable wmf", AttachmentInfo::AT_WMF, Placeable(wmf),
         "{\\pict\\wmetafile8\\picw2540\\pich1270\\picwgoal1440\\pichgoal720 ", wmf},
    };
}

TEST(OldToRTFLossless, PicturesInTheirOwnFormat)
{
    for (const PictureCase& c : PictureCases()) {
        SCOPED_TRACE(c.name);
        FilterScript script;
        FilterAnswer answer;
        answer.aType = c.aType;
        answer.oleData = c.data;
        script.answers = {answer};
        const std::string text = "a" + Cmd("A00") + "b";

        EXPECT_EQ(Convert(text, false, nullptr, &script), DocumentAround(kStart + "ab\\par }"));
        const std::string rtf = Convert(text, true, nullptr, &script);
        EXPECT_EQ(rtf, DocumentAround(kStart + "a" + c.opening + Hex(c.importedData.data(), c.importedData.size()) +
                                      "}b\\par }"));
        for (IStream* p : script.streams) EXPECT_EQ(p->Release(), 0u); // the writer released its reference

        // The importer hands the same bytes back, of the same kind.
        AttachmentLog log;
        ImportOptions options;
        options.pAttachments = &log;
        OldText(rtf, options);
        ASSERT_EQ(log.seen.size(), 1u);
        EXPECT_EQ(log.seen[0].aType, c.aType);
        EXPECT_EQ(log.seen[0].data, c.importedData);
    }
}

// Data that is not the picture it claims to be is left out: a word processor
// may refuse the whole document for it.
TEST(OldToRTFLossless, PicturesThatAreNotTheirFormatAreLeftOut)
{
    const std::vector<std::pair<LONG, std::string>> answers = {
        {AttachmentInfo::AT_PNG, std::string(64, '\0')}, {AttachmentInfo::AT_JPEG, "JFIF"},
        {AttachmentInfo::AT_EMF, Emf(1, 1).substr(0, 40) + "EMF?"}, {AttachmentInfo::AT_WMF, "\x01\x00\x08\x00"},
        {AttachmentInfo::AT_WMF, Placeable("\x01\x00\x08\x00" + std::string(20, 'x'))},
    };
    for (const auto& answer : answers) {
        FilterScript script;
        FilterAnswer a;
        a.aType = answer.first;
        a.oleData = answer.second;
        script.answers = {a};
        EXPECT_EQ(Convert("a" + Cmd("A00") + "b", true, nullptr, &script), DocumentAround(kStart + "ab\\par }"));
        for (IStream* p : script.streams) EXPECT_EQ(p->Release(), 0u);
    }
}

// Headers cut short anywhere are read no further than their end.
TEST(OldToRTFLossless, PictureHeadersCutShort)
{
    for (const PictureCase& c : PictureCases()) {
        for (std::size_t n = 0; n < c.data.size(); ++n) {
            const std::vector<unsigned char> bytes(c.data.begin(), c.data.begin() + static_cast<std::ptrdiff_t>(n));
            rtf_converter::PictureDescription d;
            if (rtf_converter::DescribePicture(c.aType, bytes.data(), bytes.size(), d)) {
                EXPECT_LE(d.cbSkipped, n);
            }
        }
    }
    rtf_converter::PictureDescription d;
    EXPECT_FALSE(rtf_converter::DescribePicture(AttachmentInfo::AT_DIB, nullptr, 0, d));
}

} // namespace

namespace {

std::string Repeat(const std::string& s, int n)
{
    std::string r;
    for (int i = 0; i < n; ++i) r += s;
    return r;
}

// Malformed commands in numbers: each mode writes a document every RTF reader
// reads to its end, in time linear in the text.
TEST(OldToRTFLossless, MalformedCommandsInNumbers)
{
    const int n = 20000;
    const std::vector<std::pair<const char*, std::string>> texts = {
        {"nested starts without ends", Repeat("\x01" "CH:\x01" "F", n)},
        {"three levels", Repeat("\x01" "CH:\x01" "F\x01" "F\x02x\x02y\x02", n)},
        {"owed fonts without display ends", Repeat("\x01" "CH:\x01" "F---:-\x03u\x02text", n)},
        {"row starts without cells", Repeat(Cmd("CT:StartRow"), n) + Cmd("CT:EndRow")},
        {"row starts and ends without cells", Repeat(Cmd("CT:StartRow") + "x" + Cmd("CT:EndRow"), n)},
        {"cells without rows", Repeat(Cmd("CT:EndCell") + Cmd("CT:EndRow"), n)},
        {"a row start at the end", "a" + Cmd("CT:StartRow")},
        {"a cut comment", "a\x01" "C"},
        {"a cut hyperlink", "a\x01" "CH"},
    };
    for (const auto& text : texts) {
        SCOPED_TRACE(text.first);
        for (bool bLossless : {false, true}) {
            long hr = -1;
            const std::string rtf = Convert(text.second, bLossless, &hr);
            EXPECT_EQ(hr, S_OK);
            EXPECT_TRUE(ReadsBalanced(rtf));
        }
    }
}

} // namespace

// Every byte the scan and the run writer stop at, at every place in runs of
// plain bytes longer than the eight taken at a time, in both modes.
TEST(OldToRTFLossless, SpecialBytesAtEveryPlaceInARun)
{
    struct Row {
        std::string byte, exact, lossless;
    } rows[] = {
        {"\\", "\\\\", "\\\\"},      {"{", "\\{", "\\{"},         {"}", "\\}", "\\}"},
        {"\t", "\\tab ", "\\tab "},  {"\n", "\\line ", "\\line "}, {"\x17", "", ""},
        {"\xE9", "\xE9", "\\'e9"},   {"\x7F", "\x7F", "\x7F"},    {"\x1F", "\x1F", "\x1F"},
        {"\r", "\\par ", "\\par "},
    };
    const std::string plain = "abcdefghijklmnopqrstu";
    for (const Row& row : rows) {
        for (std::size_t at = 0; at <= plain.size(); ++at) {
            SCOPED_TRACE(::testing::PrintToString(row.byte) + " at " + std::to_string(at));
            const std::string before = plain.substr(0, at), after = plain.substr(at);
            const std::string end = row.byte == "\r" && after.empty() ? "}" : "\\par }";
            EXPECT_EQ(Convert(before + row.byte + after, false), DocumentAround(kStart + before + row.exact + after + end));
            EXPECT_EQ(Convert(before + row.byte + after, true), DocumentAround(kStart + before + row.lossless + after + end));
        }
    }
}

// The lossless writer escapes a run's bytes as its scan meets them: a
// double-byte character stays one whatever its trail byte, but only with both
// its bytes in the run; escapes longer than the block they gather in; the
// plain bytes between escapes as they are.
TEST(OldToRTFLossless, EscapesAtTheEdgesOfRuns)
{
    const std::string gothic = Cmd(std::string("F---") + kShiftJis + ":MS Gothic");
    const std::string e9s(100, '\xE9'), e9Escapes = Repeat("\\'e9", 100);
    struct Row {
        const char* name;
        std::string text, body;
    } rows[] = {
        {"a trail byte that is a special", gothic + "a\x95\\b", "\\f1\\cf1 a\\'95\\'5cb"},
        {"a trail byte that is a brace", gothic + "\x8B{\x8B}", "\\f1\\cf1 \\'8b\\'7b\\'8b\\'7d"},
        {"a trail byte above 0x7F", gothic + "\x82\xA0z", "\\f1\\cf1 \\'82\\'a0z"},
        {"a lead byte before a tab", gothic + "\x82\tz", "\\f1\\cf1 \\'82\\tab z"},
        {"a lead byte before a command", gothic + "\x82" + gothic + "\x82\x60", "\\f1\\cf1 \\'82\\'82\\'60"},
        {"a lead byte at the end", gothic + "ab\x82", "\\f1\\cf1 ab\\'82"},
        {"a lead byte before a plain control byte", gothic + "\x82\x03z", "\\f1\\cf1 \\'82\x03z"},
        {"a single-byte font keeps lead bytes single", "\x82\x60\\", "\\'82`\\\\"},
        {"escapes longer than their block", "x" + e9s + "y" + e9s, "x" + e9Escapes + "y" + e9Escapes},
        {"pairs past the block's end", gothic + Repeat("\x82\xA0", 65) + "!",
         "\\f1\\cf1 " + Repeat("\\'82\\'a0", 65) + "!"},
        {"specials and high bytes in turn", "\\\xE9{\xE9}", "\\\\\\'e9\\{\\'e9\\}"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string fonts = row.text.compare(0, 1, "\x01") == 0 ? kGothic : "";
        EXPECT_EQ(Convert(row.text, true), DocumentAround(kStart + row.body + "\\par }", fonts));
    }
}
