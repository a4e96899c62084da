// Every converter's output on real documents, pinned as hashes: the corpus and
// small deterministic versions of the benchmark inputs, read with output
// buffers from 1 byte up and written with quick buffers from 1 byte up, in the
// exact and the lossless forms. Any change in what comes out, at any buffer
// boundary, shows here as a changed row.
//
// Rows live in tests/data/output_hashes.tsv. RTFCONV_RECORD_HASHES=1 rewrites
// the file from the current build instead of comparing (after a deliberate
// output change only).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ObjBase.h"
#include "rtfconverter/OldTextUtf8.h"
#include "rtfconverter/OldToRTF.h"
#include "rtfconverter/PlainTextToRTF.h"
#include "rtfconverter/RTFToOld.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"
#include "rtfconverter/Utf8ToRTF.h"
#include "old_to_rtf_helpers.h"
#include "test_util.h"

namespace {

using rtfconv_test::ReadFileBytes;

const std::size_t kReadBufferSizes[] = {1, 7, 64, 65536};
const DWORD kQuickBufferSizes[] = {1, 17, 8192};
// A reader that returns nothing this many times in a row with more to come is
// stuck (a character longer than the buffer); what it gave so far is hashed.
const int kMaxEmptyReads = 16;

std::string Fnv1a64(const std::string& bytes)
{
    std::uint64_t h = 0xcbf29ce484222325ull;
    for (unsigned char c : bytes) {
        h ^= c;
        h *= 0x100000001b3ull;
    }
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
}

// No reader writes more than this for its input: past it, the output is
// hashed as it stands and marked.
const std::size_t kMaxOutputPerInputByte = 16;

// Pulls everything out of any reader with a Read(begin, end, bMore).
template <class Reader>
std::string PullAll(Reader& reader, std::size_t cbBuffer, std::size_t cbInput)
{
    std::vector<char> buffer(cbBuffer);
    std::string out;
    bool bMore = true;
    int cEmpty = 0;
    while (bMore && cEmpty < kMaxEmptyReads) {
        if (out.size() > kMaxOutputPerInputByte * cbInput + 65536)
            return out + "<runaway>";
        long n = reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        out.append(buffer.data(), static_cast<std::size_t>(std::max(n, 0L)));
        cEmpty = n > 0 ? 0 : cEmpty + 1;
    }
    return out + (bMore ? "<stalled>" : "");
}

std::string PlainText(const std::string& rtf, std::size_t cb)
{
    unsigned long cbRtf = static_cast<unsigned long>(rtf.size());
    rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()), cbRtf);
    return PullAll(reader, cb, rtf.size());
}

std::string Utf8Text(const std::string& rtf, std::size_t cb)
{
    unsigned long cbRtf = static_cast<unsigned long>(rtf.size());
    rtf_converter::CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()), cbRtf);
    return PullAll(reader, cb, rtf.size());
}

std::string OldText(const std::string& rtf, std::size_t cb, bool bLossless)
{
    rtf_converter::CRTFPtrImport reader(rtf.c_str());
    reader.SetLossless(bLossless);
    return PullAll(reader, cb, rtf.size());
}

std::string OldTextFromStream(const std::string& rtf, bool bLossless)
{
    CComPtr<IStream> pStream;  // released on every way out, a throwing reader's too
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &pStream), S_OK);
    ULONG cbWritten = 0;
    pStream->Write(rtf.data(), static_cast<ULONG>(rtf.size()), &cbWritten);
    LARGE_INTEGER zero{};
    pStream->Seek(zero, STREAM_SEEK_SET, nullptr);
    rtf_converter::CRTFStreamImport reader(pStream);
    reader.SetLossless(bLossless);
    return PullAll(reader, 65536, rtf.size());
}

// Sets the writer's quick-buffer size for the conversions in its scope.
class CQuickBufferSize : public rtf_converter::COldToRTF {
public:
    explicit CQuickBufferSize(DWORD cb) : COldToRTF(Unused()), m_cbSaved(s_dwBufferSize) { s_dwBufferSize = cb; }
    ~CQuickBufferSize() { s_dwBufferSize = m_cbSaved; }
    CQuickBufferSize(const CQuickBufferSize&) = delete;
    CQuickBufferSize& operator=(const CQuickBufferSize&) = delete;

private:
    static IStream& Unused()
    {
        static rtfconv_test::CFailingStream stream(0);
        return stream;
    }
    DWORD m_cbSaved;
};

std::string OldToRtf(const std::string& oldText, DWORD cbQuick, bool bLossless)
{
    CQuickBufferSize size(cbQuick);
    rtfconv_test::CFailingStream out(0);  // never fails: keeps every write
    rtf_converter::COldToRTF writer(out);
    writer.SetLossless(bLossless);
    LOGFONT font = rtfconv_test::ArialTen();
    const long hr = writer.Convert(oldText.c_str(), &font);
    return out.bytes + (hr == S_OK ? "" : "<failed>");
}

std::string PlainToRtf(const std::string& text)
{
    rtf_converter::CPlainTextToRTF writer;
    writer.Convert(text.c_str(), nullptr);
    return std::string(writer.Export());
}

std::string Utf8ToRtf(const std::string& text)
{
    rtf_converter::CUTF8TextToRTF writer;
    writer.Convert(text.c_str(), nullptr);
    return std::string(writer.Export());
}

// "converter/variant" -> hash of one input's output.
using HashRows = std::map<std::string, std::string>;

// What `convert` returns; an exception is an outcome of its own.
template <class Convert>
std::string Outcome(Convert&& convert)
{
    try {
        return convert();
    } catch (const std::exception& e) {
        return std::string("<threw ") + e.what() + ">";
    } catch (...) {
        return "<threw>";
    }
}

template <class Convert>
void AddRow(HashRows& rows, const std::string& key, Convert&& convert)
{
    const std::string output = Outcome(convert);
    rows[key] = Fnv1a64(output) + "\t" + std::to_string(output.size());
}

// Every converter and every buffer size on one RTF document; the writers take
// the readers' outputs, as the tool's round trips do.
HashRows HashAllConversions(const std::string& rtf)
{
    HashRows rows;
    for (std::size_t cb : kReadBufferSizes) {
        std::string n = std::to_string(cb);
        AddRow(rows, "rtf2txt-raw/" + n, [&] { return PlainText(rtf, cb); });
        AddRow(rows, "rtf2txt-utf8/" + n, [&] { return Utf8Text(rtf, cb); });
        AddRow(rows, "rtf2old-exact/" + n, [&] { return OldText(rtf, cb, false); });
        AddRow(rows, "rtf2old-lossless/" + n, [&] { return OldText(rtf, cb, true); });
    }
    AddRow(rows, "rtf2old-exact-stream/65536", [&] { return OldTextFromStream(rtf, false); });
    AddRow(rows, "rtf2old-lossless-stream/65536", [&] { return OldTextFromStream(rtf, true); });

    const std::string oldExact = Outcome([&] { return OldText(rtf, 65536, false); });
    const std::string oldLossless = Outcome([&] { return OldText(rtf, 65536, true); });
    for (DWORD cb : kQuickBufferSizes) {
        std::string n = std::to_string(cb);
        AddRow(rows, "old2rtf-exact/" + n, [&] { return OldToRtf(oldExact, cb, false); });
        AddRow(rows, "old2rtf-lossless/" + n, [&] { return OldToRtf(oldLossless, cb, true); });
    }
    AddRow(rows, "old2utf8/1252", [&] { return rtf_converter::OldTextToUtf8(oldLossless, 1252); });
    AddRow(rows, "txt2rtf-raw", [&] { return PlainToRtf(Outcome([&] { return PlainText(rtf, 65536); })); });
    AddRow(rows, "txt2rtf-utf8", [&] { return Utf8ToRtf(Outcome([&] { return Utf8Text(rtf, 65536); })); });
    return rows;
}

std::vector<std::string> RtfFilesIn(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".rtf") == 0) names.push_back(name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

const std::string kHashFile = std::string(RTFCONV_TEST_DATA_DIR) + "/data/output_hashes.tsv";

// file \t converter/variant -> "hash \t length"
std::map<std::string, std::string> LoadRecordedHashes()
{
    std::map<std::string, std::string> recorded;
    std::ifstream in(kHashFile);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::size_t second = line.find('\t', line.find('\t') + 1);
        recorded[line.substr(0, second)] = line.substr(second + 1);
    }
    return recorded;
}

bool Recording()
{
    const char* p = std::getenv("RTFCONV_RECORD_HASHES");
    return p && *p && std::string(p) != "0";
}

// Half-megabyte benchmark inputs, made by bench/make_bench.sh when the tests
// are built (tests/CMakeLists.txt).
std::string BenchDataDir()
{
    const char* p = std::getenv("RTFCONV_HASH_BENCH_DATA");
    return p ? p : RTFCONV_HASH_BENCH_DATA;
}

TEST(OutputHashes, EveryConverterOnEveryDocumentAtEveryBufferSize)
{
    struct Source {
        std::string dir, tag;
    };
    std::vector<Source> sources = {{RTFCONV_CORPUS_DIR, "corpus"}};
    sources.push_back({BenchDataDir(), "bench-0.5mb"});

    const std::map<std::string, std::string> recorded = LoadRecordedHashes();
    std::ostringstream fresh;
    fresh << "# file\tconverter/buffer size\tFNV-1a 64 of the output\toutput length\n";
    int cFiles = 0;
    for (const Source& source : sources) {
        std::vector<std::string> files = RtfFilesIn(source.dir);
        if (source.tag == "bench-0.5mb") {
            EXPECT_EQ(files.size(), 3u) << "make_bench.sh left no inputs in " << source.dir;
        }
        for (const std::string& name : files) {
            const std::string file = source.tag + "/" + name;
            for (const auto& row : HashAllConversions(ReadFileBytes(source.dir + "/" + name))) {
                const std::string key = file + "\t" + row.first;
                fresh << key << "\t" << row.second << "\n";
                if (Recording()) continue;
                auto it = recorded.find(key);
                if (it == recorded.end()) {
                    ADD_FAILURE() << "no recorded hash for " << key;
                } else {
                    EXPECT_EQ(row.second, it->second) << key;
                }
            }
            ++cFiles;
        }
    }
    EXPECT_GT(cFiles, 150);
    if (Recording()) std::ofstream(kHashFile) << fresh.str();
}

} // namespace
