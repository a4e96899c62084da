// The generated benchmark inputs, loaded once per process.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

namespace rtfconv_bench {

// The three documents make_bench.sh writes.
constexpr const char* kTextHeavy = "text-heavy.rtf";
constexpr const char* kMarkupHeavy = "markup-heavy.rtf";
constexpr const char* kPictureHeavy = "picture-heavy.rtf";

// The bytes of `name` in $RTFCONV_BENCH_DATA, or else in the compiled-in
// bench/data. Null when the file is missing or empty; *pWhy then says how to
// generate it.
const std::string* LoadInput(const char* name, std::string* pWhy);

// LoadInput, or the benchmark skipped with the reason.
inline const std::string* LoadInputOrSkip(benchmark::State& state, const char* name)
{
    std::string why;
    const std::string* input = LoadInput(name, &why);
    if (!input)
        state.SkipWithError(why.c_str());
    return input;
}

// Converts `input` with a byte-pointer text reader (constructed on the bytes
// and their count, pulled with Read) in 64 KiB buffers, once per iteration;
// reports MB/s of RTF and the size of the text.
template <class TReader>
void PullText(benchmark::State& state, const std::string& input)
{
    std::vector<char> buffer(64 * 1024);
    unsigned long cbText = 0;
    for (auto _ : state) {
        const unsigned long cbInput = static_cast<unsigned long>(input.size());
        TReader reader(reinterpret_cast<const unsigned char*>(input.data()), cbInput);
        cbText = 0;
        bool bMore = true;
        while (bMore)
            cbText += reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input.size()));
    state.counters["text_bytes"] = static_cast<double>(cbText);
}

} // namespace rtfconv_bench
