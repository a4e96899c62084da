// The one-call API. This file includes nothing of the library but
// rtfconverter.hpp, and declares the names the platform stand-ins use: were
// any of them visible through the header, it would not compile.
struct SIZE {
    double width;
};
struct CString;
struct IStream;
typedef long long BOOL;
constexpr int TRUE = 2;
constexpr int FALSE = 3;
constexpr int S_OK = 4;
constexpr int FW_BOLD = 5;
constexpr int RGB = 6;

#include "rtfconverter/rtfconverter.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using rtf_converter::ConversionError;

const std::string kDocument = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\f0 {\\pntext 1.\\tab}Hello {\\b bold} caf\\'e9\\par "
                              "\\u945?\\line second\\par}";

std::string ReadAll(rtf_converter::TextReader& reader, std::size_t cbBuffer)
{
    std::string text;
    std::string buffer(cbBuffer, '\0');
    while (std::size_t cb = reader.read(buffer.data(), buffer.size()))
        text.append(buffer, 0, cb);
    return text;
}

TEST(RtfConverterApi, TextIsUtf8WithTheChosenLineEnds)
{
    struct Row {
        rtf_converter::Newline newline;
        const char* text;
    } rows[] = {
        {rtf_converter::Newline::lf, "1.\tHello bold caf\xc3\xa9\n\xce\xb1\nsecond\n"},
        {rtf_converter::Newline::crlf, "1.\tHello bold caf\xc3\xa9\r\n\xce\xb1\r\nsecond\r\n"},
        {rtf_converter::Newline::cr, "1.\tHello bold caf\xc3\xa9\r\xce\xb1\rsecond\r"},
    };
    for (const Row& row : rows) {
        rtf_converter::TextOptions options;
        options.newline = row.newline;
        EXPECT_EQ(rtf_converter::rtf_to_text(kDocument, options), row.text);
    }
}

TEST(RtfConverterApi, ExactTextIsTheEightBitConvertersBytes)
{
    rtf_converter::TextOptions options;
    options.exact = true;
    EXPECT_EQ(rtf_converter::rtf_to_text(kDocument, options), "1.\tHello bold caf\xe9\r?\nsecond\r");
}

TEST(RtfConverterApi, ReaderGivesTheSameTextForEveryBufferSize)
{
    for (bool bExact : {false, true}) {
        rtf_converter::TextOptions options;
        options.exact = bExact;
        const std::string whole = rtf_converter::rtf_to_text(kDocument, options);
        for (std::size_t cb = 1; cb <= 64; ++cb) {
            rtf_converter::TextReader reader(kDocument, options);
            EXPECT_EQ(ReadAll(reader, cb), whole) << "buffer of " << cb << (bExact ? ", exact" : "");
            EXPECT_TRUE(reader.done());
            EXPECT_EQ(reader.offset(), kDocument.size());
        }
    }
}

TEST(RtfConverterApi, SinkReceivesTheWholeText)
{
    std::string text;
    rtf_converter::rtf_to_text(kDocument, {}, [&text](std::string_view piece) { text.append(piece); });
    EXPECT_EQ(text, rtf_converter::rtf_to_text(kDocument));
}

TEST(RtfConverterApi, CorpusTextIsTheSameInSmallReads)
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(RTFCONV_CORPUS_DIR)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        rtf_converter::TextReader reader(bytes);
        EXPECT_EQ(ReadAll(reader, 7), rtf_converter::rtf_to_text(bytes)) << entry.path();
        ++count;
    }
    EXPECT_GT(count, 100);
}

TEST(RtfConverterApi, TextToRtfRoundTrips)
{
    const char* texts[] = {"plain", "Gr\xc3\xbc\xc3\x9f" "e\n\xce\xb1\xce\xb2", "\xf0\x9f\x98\x80 {braces} \\", ""};
    for (int codePage : {1252, 1251, 932}) {
        for (const char* text : texts) {
            rtf_converter::RtfOptions options;
            options.codepage = codePage;
            // Text read from RTF always ends its last line.
            std::string expected = text;
            if (!expected.empty() && expected.back() != '\n')
                expected += '\n';
            EXPECT_EQ(rtf_converter::rtf_to_text(rtf_converter::text_to_rtf(text, options)), expected) << codePage;
        }
    }
}

TEST(RtfConverterApi, ExactRtfIsTheEightBitWriters)
{
    rtf_converter::RtfOptions options;
    options.exact = true;
    options.font_face = "Courier New";
    options.font_points = 12;
    const std::string rtf = rtf_converter::text_to_rtf("a\rb\nc", options);
    EXPECT_NE(rtf.find("Courier New;"), std::string::npos) << rtf;
    EXPECT_NE(rtf.find("\\fs24"), std::string::npos) << rtf;
    EXPECT_NE(rtf.find("a\\par b\\line c"), std::string::npos) << rtf;
}

TEST(RtfConverterApi, OldFormatRoundTripKeepsTextAndAttachments)
{
    const std::string rtf = "{\\rtf1 a{\\pict\\pngblip 89504e47}b\\par}";
    for (bool bExact : {false, true}) {
        rtf_converter::OldOptions options;
        options.exact = bExact;
        const rtf_converter::OldText old = rtf_converter::rtf_to_old(rtf, options);
        ASSERT_EQ(old.attachments.size(), 1u);
        EXPECT_EQ(old.attachments[0].kind, "png");
        EXPECT_EQ(old.attachments[0].data.size(), 4u);
        EXPECT_NE(old.text.find("a\x01" "A00\x02" "b"), std::string::npos);
        EXPECT_EQ(rtf_converter::rtf_to_text(rtf_converter::old_to_rtf(old.text)), "ab\n");
    }
    rtf_converter::OldOptions dropAll;
    dropAll.keep_attachment = [](const rtf_converter::Attachment&) { return false; };
    EXPECT_TRUE(rtf_converter::rtf_to_old(rtf, dropAll).attachments.empty());
}

TEST(RtfConverterApi, AttachmentSourceAnswersCommands)
{
    int asked = -1;
    rtf_converter::OldToRtfOptions options;
    options.attachment_source = [&asked](int index) -> std::optional<rtf_converter::Attachment> {
        asked = index;
        return rtf_converter::Attachment{"object", {std::byte{1}, std::byte{2}}, {}};
    };
    const std::string rtf = rtf_converter::old_to_rtf("x\x01" "A07\x02" "y", {}, options);
    EXPECT_EQ(asked, 7);
    EXPECT_NE(rtf.find("\\objemb{\\*\\objdata 0102}"), std::string::npos) << rtf;
}

TEST(RtfConverterApi, FailuresTellTheOffset)
{
    struct Row {
        const char* label;
        std::function<void()> call;
        std::size_t offset;
    } rows[] = {
        {"NUL in text", [] { (void)rtf_converter::text_to_rtf(std::string("ab\0c", 4)); }, 2},
        {"NUL in old-format text", [] { (void)rtf_converter::old_to_rtf(std::string("\0", 1)); }, 0},
        {"colour index -1 in the exact bytes",
         [] {
             rtf_converter::OldOptions exact;
             exact.exact = true;
             (void)rtf_converter::rtf_to_old("{\\rtf1 \\cf-1 x}", exact);
         },
         13},
    };
    for (const Row& row : rows) {
        try {
            row.call();
            ADD_FAILURE() << row.label << ": no error";
        } catch (const ConversionError& e) {
            EXPECT_EQ(e.offset(), row.offset) << row.label;
            EXPECT_NE(std::string(e.what()).find(e.reason()), std::string::npos) << row.label;
        }
    }
    rtf_converter::TextOptions unknownPage;
    unknownPage.codepage = 99999;
    EXPECT_THROW((void)rtf_converter::rtf_to_text("{\\rtf1 x}", unknownPage), std::invalid_argument);
}

TEST(RtfConverterApi, HeaderShowsNoPlatformName)
{
    // The names declared at the top of this file are ours, not the stand-ins'.
    EXPECT_EQ(TRUE + FALSE + S_OK + FW_BOLD + RGB, 20);
    EXPECT_EQ(sizeof(SIZE), sizeof(double));
    EXPECT_EQ(sizeof(BOOL), sizeof(long long));
}

} // namespace
