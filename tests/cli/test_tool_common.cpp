// Unit tests of the tool's shared machinery: what the command-line scripts
// cannot reach (a reader that never progresses, a write abandoned half-way,
// multi-byte characters cut between pieces, UTF-8 to code page errors).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <unistd.h>

#include "tools/rtfconv/ToolCommon.h"
#include "tools/rtfconv/Usage.h"

using namespace rtfconv;

namespace {

// A reader that writes `text` but refuses (returns 0, more to come) every
// buffer smaller than `cbNeeded`, as the plain-text reader does with a
// paragraph's number text.
struct CRefusingReader {
    std::string text;
    std::size_t cbNeeded;
    std::size_t pos = 0;
    unsigned long Read(char* pBegin, char* pEnd, bool& bMore)
    {
        const std::size_t cbRoom = static_cast<std::size_t>(pEnd - pBegin);
        bMore = true;
        if (cbRoom < cbNeeded) return 0;
        const std::size_t cb = std::min(cbRoom, text.size() - pos);
        std::memcpy(pBegin, text.data() + pos, cb);
        pos += cb;
        bMore = pos < text.size();
        return static_cast<unsigned long>(cb);
    }
};

std::string PullText(CRefusingReader& reader, std::size_t cbBuffer)
{
    std::string out;
    PullAll(reader, cbBuffer, [&](char* p, std::size_t cb) { out.append(p, cb); }, [] {});
    return out;
}

std::string ToUtf8(const std::string& codePage, const std::vector<std::string>& pieces)
{
    CCodePageToUtf8 converter(IconvCodePageName(codePage));
    std::string out;
    for (const std::string& piece : pieces) converter.Convert(piece.data(), piece.size(), out);
    converter.Finish(out);
    return out;
}

std::string FileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> DirEntries(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace

TEST(PullAll, GrowsTheBufferUntilTheReaderProgresses)
{
    CRefusingReader reader{std::string(1000, 'n'), 300};
    EXPECT_EQ(PullText(reader, 1), std::string(1000, 'n'));
    CRefusingReader fits{"abcdefghij", 1};
    EXPECT_EQ(PullText(fits, 3), "abcdefghij");
}

TEST(PullAll, FailsPast16MiBInsteadOfLoopingForever)
{
    CRefusingReader reader{"never", kMaxReadBuffer + 1};
    try {
        PullText(reader, kDefaultReadBuffer);
        FAIL() << "no error";
    } catch (const ToolError& e) {
        EXPECT_EQ(e.Code(), exitConversionFailed);
        EXPECT_NE(std::string(e.what()).find("16 MiB"), std::string::npos) << e.what();
    }
}

TEST(CodePages, NamesAndTheDocumentsAnsiCodePage)
{
    const struct {
        const char* given;
        const char* iconvName;
    } names[] = {
        {"1252", "CP1252"}, {"1251", "CP1251"},  {"932", "CP932"},      {"65001", "UTF-8"},
        {"20866", "KOI8-R"}, {"koi8-r", "koi8-r"}, {"nosuchpage", ""}, {"99999", ""},
    };
    for (const auto& row : names) EXPECT_EQ(IconvCodePageName(row.given), row.iconvName) << row.given;

    const struct {
        const char* rtf;
        unsigned long codePage;
    } docs[] = {
        {"{\\rtf1\\ansi\\ansicpg1251\\deff0 x}", 1251},
        {"{\\rtf1\\ansi x}", 0},
        {"{\\rtf1\\ansi\\ansicpg x}", 0},
        {"{\\rtf1\\ansicpg99999999999999999999 x}", 0},
    };
    for (const auto& row : docs) EXPECT_EQ(FindAnsiCodePage(row.rtf), row.codePage) << row.rtf;
}

TEST(CodePageToUtf8, ConvertsPieceByPiece)
{
    const struct {
        const char* label;
        const char* codePage;
        std::vector<std::string> pieces;
        std::string utf8;
    } rows[] = {
        {"cp1252 letters and the euro", "1252", {"caf\xE9 \x80"}, "caf\xC3\xA9 \xE2\x82\xAC"},
        {"cp1252 undefined byte", "1252", {"a\x81z"}, "a\xEF\xBF\xBDz"},
        {"cp1251", "1251", {"\xCF\xF0", "\xE8"}, "\xD0\x9F\xD1\x80\xD0\xB8"},
        {"cp932 character cut between pieces", "932", {"x\x82", "\xA0y"}, "x\xE3\x81\x82y"},
        {"cp932 character cut by the end", "932", {"x\x82"}, "x\xEF\xBF\xBD"},
        {"UTF-8 page with a stray byte", "65001", {"\xC3", "\xA9\xFF"}, "\xC3\xA9\xEF\xBF\xBD"},
    };
    for (const auto& row : rows) EXPECT_EQ(ToUtf8(row.codePage, row.pieces), row.utf8) << row.label;
}

TEST(Utf8ToCodePage, NamesLineAndColumnUnlessLossy)
{
    EXPECT_EQ(Utf8ToCodePage("\xD0\x9F\xD1\x80\xD0\xB8", "CP1251", false), "\xCF\xF0\xE8");
    // U+00E9 has no place in cp1251; the column counts characters, not bytes.
    const std::string text = "ab\n\xD0\x9F" "c\xC3\xA9z";
    try {
        Utf8ToCodePage(text, "CP1251", false);
        FAIL() << "no error";
    } catch (const ToolError& e) {
        EXPECT_EQ(e.Code(), exitConversionFailed);
        EXPECT_NE(std::string(e.what()).find("line 2, column 3"), std::string::npos) << e.what();
    }
    EXPECT_EQ(Utf8ToCodePage(text, "CP1251", true), "ab\n\xCF" "c?z");
    EXPECT_EQ(Utf8ToCodePage("a\xFF" "b", "CP1252", true), "a?b");
}

TEST(Output, ReplacesTheTargetOnlyOnCommit)
{
    std::string dir = testing::TempDir() + "rtfconv_output_XXXXXX";
    ASSERT_NE(::mkdtemp(&dir[0]), nullptr);
    const std::string target = dir + "/out.txt";
    std::ofstream(target) << "OLD";

    {
        COutput abandoned(target);
        abandoned.Write("half of a new text");
        // Leaves scope without Commit, as when a conversion throws.
    }
    EXPECT_EQ(FileText(target), "OLD");
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"out.txt"});

    {
        COutput committed(target);
        committed.Write("NEW");
        committed.Commit();
    }
    EXPECT_EQ(FileText(target), "NEW");
    EXPECT_EQ(DirEntries(dir), std::vector<std::string>{"out.txt"});

    ::unlink(target.c_str());
    ::rmdir(dir.c_str());
}

TEST(InputLook, NamesWhatAnInputLooksLike)
{
    using namespace std::string_literals;
    const struct {
        std::string data;
        const char* looksLike;
        bool bRtf, bOldFormat, bText;
    } rows[] = {
        {"{\\rtf1 x}", "RTF", true, false, true},
        {"\xEF\xBB\xBF\r\n\t {\\rtf1 x}", "RTF", true, false, true},
        {"{\\pard x}", "RTF", true, false, true},
        {"{rtf1 x}", "plain text", false, false, true},
        {"\xEF\xBB\xBF", "plain text", false, false, true},
        {"", "empty", false, false, true},
        {"x\x01" "F12JB:Arial\x02y", "old-format text", false, true, true},
        {"x\x01 and never closed", "plain text", false, false, true},
        {"x\x01" + std::string(600, 'a') + "\x02", "plain text", false, false, true},
        {"%PDF-1.4\n", "PDF", false, false, false},
        {"PK\x03\x04....word/document.xml"s, "a Word .docx", false, false, false},
        {"PK\x03\x04....mimetypeapplication/vnd.oasis.opendocument.text"s, "an OpenDocument file", false, false, false},
        {"PK\x05\x06"s + std::string(18, '\0'), "ZIP", false, false, false},
        {"\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1", "a Word .doc", false, false, false},
        {"\xFF\xD8\xFF\xE0", "a JPEG image", false, false, false},
        {"GIF89a", "a GIF image", false, false, false},
        {"BM\x3A\0\0\0\0\0\0\0"s, "a BMP image", false, false, false},
        {"BMW\n", "plain text", false, false, true},
        {"\x7F" "ELF\x02\x01", "a program", false, false, false},
        {"\xFF\xFEh\0i\0"s, "UTF-16 text", false, false, true},
        {"\x01\x00\x00\x00\x05\x00"s, "binary data", false, false, false},
        // One NUL in a long text leaves it text; the old-format writer warns about it.
        {std::string(200, 'a') + '\0' + std::string(200, 'b'), "plain text", false, false, true},
    };
    for (const auto& row : rows) {
        const InputLook look = LookAt(row.data);
        EXPECT_EQ(look.looksLike, row.looksLike) << row.data;
        EXPECT_EQ(look.bRtf, row.bRtf) << row.data;
        EXPECT_EQ(look.bOldFormat, row.bOldFormat) << row.data;
        EXPECT_EQ(look.bText, row.bText) << row.data;
    }
}

TEST(NearestName, HabitsFirstThenFewestEdits)
{
    EXPECT_EQ(EditDistance("kitten", "sitting"), 3u);
    EXPECT_EQ(EditDistance("", "abc"), 3u);
    EXPECT_EQ(EditDistance("same", "same"), 0u);
    const std::vector<std::string> options = {"-h", "--help", "-q", "--quiet", "-v", "--verbose", "--version"};
    const struct {
        const char* given;
        const char* nearest;
    } rows[] = {
        {"-V", "--version"}, {"-?", "--help"}, {"--usage", "--help"}, {"--verison", "--version"},
        {"--quite", "--quiet"}, {"-x", "-h"},
    };
    for (const auto& row : rows) EXPECT_EQ(NearestName(row.given, options), row.nearest) << row.given;
    EXPECT_EQ(NearestName("-V", {"-v", "-q"}), "-v"); // the habit only where its option exists
    EXPECT_EQ(NearestName("x", {}), "");
}

TEST(ProgressLine, BytesOrFilesWithRateAndTimeLeft)
{
    using Unit = CProgressMeter::Unit;
    const struct {
        Unit unit;
        std::uint64_t done, total;
        double seconds;
        const char* line;
    } rows[] = {
        {Unit::Bytes, 0, 10 << 20, 0.0, "[..............................]   0%  0.0 / 10.0 MiB  0.0 MiB/s  --:-- left"},
        {Unit::Bytes, 4 << 20, 10 << 20, 2.0, "[############..................]  40%  4.0 / 10.0 MiB  2.0 MiB/s  0:03 left"},
        {Unit::Bytes, 10 << 20, 10 << 20, 5.0, "[##############################] 100%  10.0 / 10.0 MiB  2.0 MiB/s  0:05 total"},
        {Unit::Files, 30, 120, 10.0, "[#######.......................]  25%  30 / 120 files  3.0 files/s  0:30 left"},
        {Unit::Files, 1, 5000, 1.0, "[..............................]   0%  1 / 5000 files  1.0 files/s  1:23:19 left"},
        // More reported than expected (an input grew while read): shown as done.
        {Unit::Bytes, 20, 10, 1.0, "[##############################] 100%  0.0 / 0.0 MiB  0.0 MiB/s  0:01 total"},
    };
    for (const auto& row : rows) EXPECT_EQ(ProgressLine(row.unit, row.done, row.total, row.seconds), row.line);
}

TEST(Output, WritesThroughASymbolicLink)
{
    std::string dir = testing::TempDir() + "rtfconv_link_XXXXXX";
    ASSERT_NE(::mkdtemp(&dir[0]), nullptr);
    std::ofstream(dir + "/target.txt") << "OLD";
    ASSERT_EQ(::symlink("target.txt", (dir + "/link").c_str()), 0);
    {
        COutput out(dir + "/link");
        out.Write("NEW");
        out.Commit();
    }
    EXPECT_EQ(FileText(dir + "/target.txt"), "NEW");
    char linkText[64] = {};
    EXPECT_EQ(::readlink((dir + "/link").c_str(), linkText, sizeof linkText - 1), 10);
    EXPECT_EQ(DirEntries(dir), (std::vector<std::string>{"link", "target.txt"}));
    ::unlink((dir + "/link").c_str());
    ::unlink((dir + "/target.txt").c_str());
    ::rmdir(dir.c_str());
}

namespace {

// A scratch folder removed with everything in it.
struct CScratchDir {
    std::string path = testing::TempDir() + "rtfconv_io_XXXXXX";
    CScratchDir() { EXPECT_NE(::mkdtemp(&path[0]), nullptr); }
    ~CScratchDir()
    {
        for (const std::string& name : DirEntries(path)) ::unlink((path + "/" + name).c_str());
        ::rmdir(path.c_str());
    }
};

// `cb` bytes that show where each lies: a byte's offset cycles through the letters.
std::string Lettered(std::size_t cb)
{
    std::string bytes(cb, '\0');
    for (std::size_t i = 0; i < cb; ++i) bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

} // namespace

// Small files, files ending exactly at a page boundary and beyond it, large
// files: the bytes are the file's, and a NUL follows them.
TEST(InputBytes, HoldsTheFileFollowedByANul)
{
    CScratchDir dir;
    const std::size_t cbPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    for (const std::size_t cb : {std::size_t(0), std::size_t(1), cbPage - 1, cbPage, cbPage + 1, 2 * cbPage,
                                 std::size_t(3) << 20}) {
        const std::string path = dir.path + "/in" + std::to_string(cb);
        const std::string bytes = Lettered(cb);
        std::ofstream(path, std::ios::binary) << bytes;
        CInputBytes input(path);
        EXPECT_EQ(input.View(), bytes) << cb;
        EXPECT_EQ(input.Terminated(), input.View().data()) << cb;
        EXPECT_EQ(input.Terminated()[cb], '\0') << cb;
        input.DoneWith(cb); // pages given back come again from the file
        EXPECT_EQ(input.View(), bytes) << cb;
        EXPECT_FALSE(input.Shrank()) << cb;
    }
    try {
        CInputBytes missing(dir.path + "/missing");
        FAIL() << "no error";
    } catch (const ToolError& e) {
        EXPECT_EQ(e.Code(), exitIoError);
    }
}

// A mapped file cut short under the tool: its lost pages read as zeros, and
// the input says so, instead of the process dying of SIGBUS.
TEST(InputBytes, AFileCutShortReadsAsZerosAndSaysSo)
{
    CScratchDir dir;
    const std::size_t cbPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::string path = dir.path + "/shrinking";
    std::ofstream(path, std::ios::binary) << Lettered(4 * cbPage);
    CInputBytes input(path);
    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(cbPage)), 0);
    EXPECT_EQ(input.View()[cbPage - 1], Lettered(cbPage)[cbPage - 1]);
    EXPECT_EQ(input.View()[3 * cbPage + 5], '\0');
    EXPECT_TRUE(input.Shrank());
}

// Small writes gathered, large ones written through, in any mix: the file
// holds exactly the bytes in their order.
TEST(Output, WritesEveryPieceInOrder)
{
    CScratchDir dir;
    const std::string target = dir.path + "/out";
    const std::string bytes = Lettered(std::size_t(5) << 20);
    const std::size_t pieces[] = {1, 7, 65535, 1, 65536, COutput::kcbOutputBuffer, 3, COutput::kcbOutputBuffer - 1,
                                  std::size_t(2) << 20, 12345};
    {
        COutput out(target);
        std::size_t pos = 0;
        for (std::size_t cb : pieces) {
            out.Write(bytes.data() + pos, cb);
            pos += cb;
        }
        out.Write(std::string_view(bytes).substr(pos));
        out.Commit();
    }
    EXPECT_EQ(FileText(target), bytes);
}

TEST(FindInvalidUtf8, FindsTheFirstBadByteWhereverItLies)
{
    // An invalid byte at every offset around the 8-byte steps of the ASCII scan.
    for (std::size_t at = 0; at < 20; ++at) {
        std::string text = Lettered(24);
        text[at] = '\xFF';
        EXPECT_EQ(FindInvalidUtf8(text), at) << at;
        text[at] = '\xC3'; // a lead byte cut off by the next ASCII byte, or by the end
        EXPECT_EQ(FindInvalidUtf8(text), at) << at;
    }
    const struct {
        std::string text;
        std::size_t invalidAt;
    } rows[] = {
        {"", std::string_view::npos},
        {"plain ASCII text, longer than eight bytes", std::string_view::npos},
        {"caf\xC3\xA9 cr\xC3\xA8me br\xC3\xBBl\xC3\xA9\x65, \xE2\x82\xAC 5, \xF0\x9F\x98\x80!", std::string_view::npos},
        {"abcdefgh\xC3\xA9" "abcdefgh\xC0\xAF", 18},          // an overlong slash after a valid character
        {"abcdefghijklmno\xED\xA0\x80", 15},                   // a surrogate
        {"abcdefghijklmnop\xF4\x90\x80\x80", 16},              // beyond U+10FFFF
        {"abcdefghijklmnop\xE2\x82", 16},                      // cut by the end
        {std::string("abcdefgh\0ijklmnop", 17), std::string_view::npos}, // NUL is ASCII
    };
    for (const auto& row : rows) EXPECT_EQ(FindInvalidUtf8(row.text), row.invalidAt) << row.text;
}
