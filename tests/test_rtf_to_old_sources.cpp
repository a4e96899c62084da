// RTF to old-format text: pictures, objects and placeholders through the
// attachment filter; the pointer and stream sources and their guards.
#include <gtest/gtest.h>

#include <dirent.h>

#include <string>
#include <vector>

#include "rtfconverter/RTFToOld.h"
#include "test_rtf_to_old_helpers.h"
#include "test_util.h"

using namespace rtf_converter;
using rtfconv_test::AttachmentLog;
using rtfconv_test::Cmd;
using rtfconv_test::ImportOptions;
using rtfconv_test::ImportResult;
using rtfconv_test::ImportSource;
using rtfconv_test::OldText;
using rtfconv_test::PullOldText;

namespace {

std::string Hex(const std::string& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char b : bytes) {
        hex += digits[b >> 4];
        hex += digits[b & 15];
    }
    return hex;
}

std::string WithAttachments(const std::string& rtf, AttachmentLog& log, ImportSource source = ImportSource::Ptr)
{
    ImportOptions options;
    options.pAttachments = &log;
    options.source = source;
    return OldText(rtf, options);
}

// PNG and JPEG signatures, and a bitmap header size that Windows defines.
bool HasSignatureOfItsKind(const rtfconv_test::SeenAttachment& a)
{
    switch (a.aType) {
    case AttachmentInfo::AT_PNG:
        return a.data.compare(0, 8, "\x89PNG\r\n\x1a\n") == 0;
    case AttachmentInfo::AT_JPEG:
        return a.data.compare(0, 3, "\xff\xd8\xff") == 0;
    case AttachmentInfo::AT_DIB: {
        if (a.data.size() < 40)
            return false;
        const unsigned char size = static_cast<unsigned char>(a.data[0]);
        return (size == 12 || size == 40 || size == 56 || size == 108 || size == 124) && a.data.compare(1, 3, std::string(3, '\0')) == 0;
    }
    default:
        return true;
    }
}

} // namespace

TEST(RtfToOldAttachments, PicturesOfEveryKindReachTheFilter)
{
    struct Row {
        const char* keyword;
        long aType;
    };
    const Row rows[] = {
        {"\\pngblip", AttachmentInfo::AT_PNG},   {"\\jpegblip", AttachmentInfo::AT_JPEG},
        {"\\dibitmap0", AttachmentInfo::AT_DIB}, {"\\wmetafile8", AttachmentInfo::AT_WMF},
        {"\\emfblip", AttachmentInfo::AT_EMF},   {"\\macpict", AttachmentInfo::AT_NONE},
        {"\\objemb", AttachmentInfo::AT_NONE},   {"", AttachmentInfo::AT_NONE},
    };
    for (const Row& row : rows) {
        AttachmentLog log;
        EXPECT_EQ(WithAttachments(std::string("{\\rtf1 a{\\pict") + row.keyword + "\\picw10 89504E47}b}", log),
                  "a" + Cmd("A00") + "b")
            << row.keyword;
        ASSERT_EQ(log.seen.size(), 1u) << row.keyword;
        EXPECT_EQ(log.seen[0].aType, row.aType) << row.keyword;
        EXPECT_EQ(log.seen[0].dwDataSize, 4u);
        EXPECT_EQ(log.seen[0].data, "\x89PNG");
        EXPECT_EQ(log.seen[0].streamSize, 4u);
        EXPECT_EQ(log.seen[0].position, 4u);
    }
    EXPECT_EQ(OldText("{\\rtf1 a{\\pict\\pngblip 89504E47}b}"), "ab") << "no filter";

    // Data across the staging buffer's size, and a second picture counted
    // from zero in a stream of its own.
    std::string big;
    for (int i = 0; i < 16385; ++i)
        big += static_cast<char>(i * 7);
    AttachmentLog log;
    WithAttachments("{\\rtf1 {\\pict\\jpegblip " + Hex(big) + "}{\\pict\\pngblip 00}}", log);
    ASSERT_EQ(log.seen.size(), 2u);
    EXPECT_EQ(log.seen[0].dwDataSize, 16385u);
    EXPECT_TRUE(log.seen[0].data == big);
    EXPECT_EQ(log.seen[1].dwDataSize, 1u);
    EXPECT_EQ(log.seen[1].data, std::string(1, '\0'));
}

TEST(RtfToOldAttachments, ObjectsAcceptedAndRejected)
{
    const std::string rtf = "{\\rtf1 {\\object\\objemb{\\*\\objdata 0102}{\\result{\\pict\\dibitmap 0A0B}}}x}";
    AttachmentLog accepted;
    EXPECT_EQ(WithAttachments(rtf, accepted), Cmd("A00") + "x");
    ASSERT_EQ(accepted.seen.size(), 1u);
    EXPECT_EQ(accepted.seen[0].aType, AttachmentInfo::AT_OLE_EMBEDDED);
    EXPECT_EQ(accepted.seen[0].data, "\x01\x02");

    // A rejected object's presentation is offered instead.
    AttachmentLog rejected;
    rejected.accept = {false};
    EXPECT_EQ(WithAttachments(rtf, rejected), Cmd("A01") + "x");
    ASSERT_EQ(rejected.seen.size(), 2u);
    EXPECT_EQ(rejected.seen[1].aType, AttachmentInfo::AT_DIB);
    EXPECT_EQ(rejected.seen[1].data, "\x0a\x0b");

    AttachmentLog linked;
    WithAttachments("{\\rtf1 {\\object\\objlink\\pngblip{\\*\\objdata 01}}}", linked);
    ASSERT_EQ(linked.seen.size(), 1u);
    EXPECT_EQ(linked.seen[0].aType, AttachmentInfo::AT_OLE_LAST);
}

TEST(RtfToOldAttachments, PlaceholderDropsTheCharacterAfterIt)
{
    AttachmentLog log;
    EXPECT_EQ(WithAttachments("{\\rtf1 a\\objattph x b}", log), "a" + Cmd("A00") + " b");
    ASSERT_EQ(log.seen.size(), 1u);
    EXPECT_EQ(log.seen[0].aType, AttachmentInfo::AT_PLACEHOLDER);
    EXPECT_FALSE(log.seen[0].bHasStream);

    AttachmentLog refusing;
    refusing.accept = {false};
    EXPECT_EQ(WithAttachments("{\\rtf1 a\\objattph x}", refusing), "ax");
    EXPECT_EQ(OldText("{\\rtf1 a\\objattph x}"), "ax");
    AttachmentLog braced;
    EXPECT_EQ(WithAttachments("{\\rtf1 a\\objattph{x}}", braced), "a" + Cmd("A00") + "x");
}

TEST(RtfToOldAttachments, BinaryData)
{
    AttachmentLog ptr;
    EXPECT_EQ(WithAttachments("{\\rtf1 {\\pict\\pngblip\\bin4 AB}D}z}", ptr), Cmd("A00") + "z");
    ASSERT_EQ(ptr.seen.size(), 1u);
    EXPECT_EQ(ptr.seen[0].data, "AB}D");

    // The stream source skips the bytes that lie within its read buffer: the
    // attachment gets the count but not the bytes.
    AttachmentLog stream;
    EXPECT_EQ(WithAttachments("{\\rtf1 {\\pict\\pngblip\\bin4 AB}D}z}", stream, ImportSource::Stream), Cmd("A00") + "z");
    ASSERT_EQ(stream.seen.size(), 1u);
    EXPECT_EQ(stream.seen[0].dwDataSize, 4u);
    EXPECT_NE(stream.seen[0].data, "AB}D");

    // Binary data that fills the staging buffer to its end, then hex data.
    AttachmentLog full;
    WithAttachments("{\\rtf1 {\\pict\\pngblip\\bin16384 " + std::string(16384, 'x') + "41}}", full);
    ASSERT_EQ(full.seen.size(), 1u);
    EXPECT_TRUE(full.seen[0].data == std::string(16384, 'x') + "A");

    // Outside a picture the bytes are skipped by both sources.
    for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
        ImportOptions options;
        options.source = source;
        EXPECT_EQ(OldText("{\\rtf1 a\\bin3 {}}b}", options), "ab");
    }
}

TEST(RtfToOldAttachments, UndecodableHexDataIsDroppedNotReadForever)
{
    struct Row {
        const char* what;
        const char* data;
        std::string bytes;
    };
    const Row rows[] = {
        {"odd digit before the brace", "895", "\x89"},
        {"space between pairs", "89 50", "\x89\x50"},
        {"line break inside a pair", "8\r\n950", "\x95"},
        {"letters that are not hex", "zz41", "A"},
    };
    for (const Row& row : rows) {
        for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
            rtfconv_test::CRecordingLogSink sink;
            AttachmentLog log;
            EXPECT_EQ(WithAttachments(std::string("{\\rtf1 {\\pict\\pngblip ") + row.data + "}x}", log, source),
                      Cmd("A00") + "x")
                << row.what;
            ASSERT_EQ(log.seen.size(), 1u) << row.what;
            EXPECT_EQ(log.seen[0].data, row.bytes) << row.what;
            ASSERT_FALSE(sink.asserts.empty()) << row.what;
            EXPECT_EQ(sink.AssertTexts()[0], "0@RTFToOld") << row.what;
        }
    }
}

TEST(RtfToOldSources, PointerSourceStopsAtItsTerminator)
{
    // Exactly sized, so that a read past the NUL would be caught by the
    // address sanitizer; after the NUL lies more RTF that must not be seen.
    struct Row {
        const char* what;
        std::string rtf;
        std::string old;
    };
#define BYTES(s) std::string(s, sizeof(s) - 1)
    const Row rows[] = {
        {"NUL after a control word", BYTES("{\\rtf1 a\\b\0 c}"), "a"},
        {"NUL inside a number", BYTES("{\\rtf1 a\\fs2\0" "4 c}"), "a"},
        {"bin past the end", BYTES("{\\rtf1 a\\bin99 b\0c}"), "a"},
        {"negative bin", BYTES("{\\rtf1 a\\bin-5 b}"), "a"},
        {"bin in a picture past the end", BYTES("{\\rtf1 a{\\pict\\bin99 b\0c}}"), "a"},
        {"hex escape cut by the end", BYTES("{\\rtf1 a\\'4"), "a4"},
        {"control word cut by the end", BYTES("{\\rtf1 a\\pa"), "a"},
    };
#undef BYTES
    for (const Row& row : rows) {
        std::vector<char> text(row.rtf.begin(), row.rtf.end());
        text.push_back('\0');
        CRTFPtrImport reader(text.data());
        char buf[256];
        bool bMore = true;
        const int n = reader.Read(buf, buf + sizeof buf, bMore);
        EXPECT_FALSE(bMore) << row.what;
        EXPECT_EQ(std::string(buf, static_cast<std::size_t>(n)), row.old) << row.what;
    }
}

TEST(RtfToOldSources, StreamRefillsAndHistory)
{
    // A document of exactly two blocks: one further read returns nothing.
    std::string rtf = "{\\rtf1 ";
    while (rtf.size() < 2 * 10240)
        rtf += (rtf.size() % 50 == 0) ? "\\par " : "x";
    rtf.resize(2 * 10240);  // unclosed, so that the end of input ends it
    rtfconv_test::CTestReadStream stream(rtf);
    CRTFStreamImport reader(&stream);
    std::string fromStream;
    std::vector<char> buf(100000);
    bool bMore = true;
    while (bMore)
        fromStream.append(buf.data(), static_cast<std::size_t>(reader.Read(buf.data(), buf.data() + buf.size(), bMore)));
    EXPECT_EQ(stream.cReads, 3);
    EXPECT_EQ(fromStream, OldText(rtf));

    // Control words split by a refill are read again correctly when the
    // output fills just after them: both sources agree at every buffer size.
    std::string words = "{\\rtf1 ";
    for (int i = 0; words.size() < 30000; ++i)
        words += (i % 3 == 0) ? "\\b word\\b0  \\par " : (i % 3 == 1) ? "{\\i it}\\tab " : "\\'e9\\fs20 z\\line ";
    words += "}";
    for (std::size_t cb : {24, 25, 31, 64}) {
        ImportOptions ptr;
        ptr.cbBuffer = cb;
        ImportOptions stream2 = ptr;
        stream2.source = ImportSource::Stream;
        const ImportResult a = PullOldText(words, ptr);
        const ImportResult b = PullOldText(words, stream2);
        EXPECT_EQ(a.cGrowths, 0);
        EXPECT_TRUE(a.text == b.text) << "buffer " << cb;
    }
}

TEST(RtfToOldSources, CorpusConvertsWithBothSourcesAndBufferSizes)
{
    DIR* dir = opendir(RTFCONV_CORPUS_DIR);
    ASSERT_NE(dir, nullptr);
    std::vector<std::string> files;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".rtf") == 0)
            files.push_back(std::string(RTFCONV_CORPUS_DIR) + "/" + name);
    }
    closedir(dir);
    ASSERT_FALSE(files.empty());

    for (const std::string& file : files) {
        const std::string rtf = rtfconv_test::ReadFileBytes(file);
        for (ImportSource source : {ImportSource::Ptr, ImportSource::Stream}) {
            for (std::size_t cb : {64, 65536}) {
                AttachmentLog log;
                ImportOptions options;
                options.source = source;
                options.cbBuffer = cb;
                options.pAttachments = &log;
                try {
                    EXPECT_FALSE(PullOldText(rtf, options).bStalled) << file;
                } catch (const CException&) {
                    // A malformed table may raise out of Read; that is the
                    // library's contract.
                }
                // The stream source delivers \bin data incompletely by design.
                if (source == ImportSource::Ptr) {
                    for (const rtfconv_test::SeenAttachment& a : log.seen)
                        EXPECT_TRUE(HasSignatureOfItsKind(a)) << file << " attachment type " << a.aType;
                }
            }
        }
    }
}
