// RTF to old-format text throughput on the generated documents, through the
// pointer source and the stream source, with an attachment filter that
// accepts every picture. Compare with RtfToText and the byte scans of
// bench_rtf2txt.cpp, which read the same inputs.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_data.h"
#include "rtfconverter/RTFToOld.h"

using rtf_converter::CRTFImportToPtr;
using rtf_converter::CRTFPtrImport;
using rtf_converter::CRTFStreamImport;

namespace {

constexpr std::size_t kReadBuffer = 64 * 1024;

bool AcceptAttachment(AttachmentInfo&, CString& text, void*, void*)
{
    text = "\x01" "A00" "\x02";
    return true;
}

long long PullAll(CRTFImportToPtr& reader, std::vector<char>& buffer, bool bLossless)
{
    reader.SetAttachmentFilter(AcceptAttachment, nullptr, nullptr);
    reader.SetLossless(bLossless);
    long long cbOld = 0;
    bool bMore = true;
    while (bMore)
        cbOld += reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
    benchmark::DoNotOptimize(buffer.data());
    return cbOld;
}

void RtfToOldPtr(benchmark::State& state, const char* name, bool bLossless)
{
    std::string why;
    const std::string* input = rtfconv_bench::LoadInput(name, &why);
    if (!input) {
        state.SkipWithError(why.c_str());
        return;
    }
    std::vector<char> buffer(kReadBuffer);
    long long cbOld = 0;
    for (auto _ : state) {
        CRTFPtrImport reader(input->c_str());
        cbOld = PullAll(reader, buffer, bLossless);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input->size()));
    state.counters["old_bytes"] = static_cast<double>(cbOld);
}

void RtfToOldStream(benchmark::State& state, const char* name, bool bLossless)
{
    std::string why;
    const std::string* input = rtfconv_bench::LoadInput(name, &why);
    if (!input) {
        state.SkipWithError(why.c_str());
        return;
    }
    IStream* pStream = nullptr;
    if (CreateStreamOnHGlobal(nullptr, TRUE, &pStream) < 0) {
        state.SkipWithError("no memory stream");
        return;
    }
    ULONG cbWritten = 0;
    pStream->Write(input->data(), static_cast<ULONG>(input->size()), &cbWritten);
    std::vector<char> buffer(kReadBuffer);
    long long cbOld = 0;
    for (auto _ : state) {
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        pStream->Seek(zero, STREAM_SEEK_SET, nullptr);
        CRTFStreamImport reader(pStream);
        cbOld = PullAll(reader, buffer, bLossless);
    }
    pStream->Release();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input->size()));
    state.counters["old_bytes"] = static_cast<double>(cbOld);
}

} // namespace

// Exact, as the library reads by default, and lossless, as the tool does.
BENCHMARK_CAPTURE(RtfToOldPtr, text_heavy, rtfconv_bench::kTextHeavy, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldPtr, markup_heavy, rtfconv_bench::kMarkupHeavy, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldPtr, picture_heavy, rtfconv_bench::kPictureHeavy, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldStream, text_heavy, rtfconv_bench::kTextHeavy, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldStream, markup_heavy, rtfconv_bench::kMarkupHeavy, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldStream, picture_heavy, rtfconv_bench::kPictureHeavy, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldPtr, text_heavy_lossless, rtfconv_bench::kTextHeavy, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldPtr, markup_heavy_lossless, rtfconv_bench::kMarkupHeavy, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldPtr, picture_heavy_lossless, rtfconv_bench::kPictureHeavy, true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldStream, text_heavy_lossless, rtfconv_bench::kTextHeavy, true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldStream, markup_heavy_lossless, rtfconv_bench::kMarkupHeavy, true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToOldStream, picture_heavy_lossless, rtfconv_bench::kPictureHeavy, true)
    ->Unit(benchmark::kMillisecond);
