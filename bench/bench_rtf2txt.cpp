// RTF to plain text throughput on the generated documents, beside two byte
// scans of the same bytes that bound what any reader pulling one byte at a
// time can reach.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_data.h"
#include "rtfconverter/RtfToText.h"

using rtf_converter::CBytePtrRTFToPlainTextPtrParser;

namespace {

using rtfconv_bench::LoadInputOrSkip;

const unsigned char* Bytes(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

void RtfToText(benchmark::State& state, const char* name)
{
    if (const std::string* input = LoadInputOrSkip(state, name))
        rtfconv_bench::PullText<CBytePtrRTFToPlainTextPtrParser>(state, *input);
}

// The reader's own byte source, pulled through its virtual Get as the
// tokenizer does, counting the bytes that start tokens.
class CByteScan : public CBytePtrRTFToPlainTextPtrParser {
public:
    using CBytePtrRTFToPlainTextPtrParser::CBytePtrRTFToPlainTextPtrParser;

    unsigned long CountDelimiters()
    {
        unsigned long count = 0;
        char ch = 0;
        while (Get(ch) >= 0)
            count += ch == '{' || ch == '}' || ch == '\\';
        return count;
    }
};

void ByteScanVirtualGet(benchmark::State& state, const char* name)
{
    const std::string* input = LoadInputOrSkip(state, name);
    if (!input)
        return;
    for (auto _ : state) {
        const unsigned long cbInput = static_cast<unsigned long>(input->size());
        CByteScan scan(Bytes(*input), cbInput);
        benchmark::DoNotOptimize(scan.CountDelimiters());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input->size()));
}

// The same count as a plain loop over the bytes: the compiler may unroll
// and vectorise it, so it is the ceiling for any byte-at-a-time reader.
void ByteScanPlainLoop(benchmark::State& state, const char* name)
{
    const std::string* input = LoadInputOrSkip(state, name);
    if (!input)
        return;
    for (auto _ : state) {
        unsigned long count = 0;
        for (const char ch : *input)
            count += ch == '{' || ch == '}' || ch == '\\';
        benchmark::DoNotOptimize(count);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input->size()));
}

} // namespace

BENCHMARK_CAPTURE(RtfToText, text_heavy, rtfconv_bench::kTextHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToText, markup_heavy, rtfconv_bench::kMarkupHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToText, picture_heavy, rtfconv_bench::kPictureHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ByteScanVirtualGet, text_heavy, rtfconv_bench::kTextHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ByteScanVirtualGet, markup_heavy, rtfconv_bench::kMarkupHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ByteScanVirtualGet, picture_heavy, rtfconv_bench::kPictureHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ByteScanPlainLoop, text_heavy, rtfconv_bench::kTextHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ByteScanPlainLoop, markup_heavy, rtfconv_bench::kMarkupHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ByteScanPlainLoop, picture_heavy, rtfconv_bench::kPictureHeavy)->Unit(benchmark::kMillisecond);
