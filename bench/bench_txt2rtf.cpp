// UTF-8 text to RTF throughput, on generated texts of 8 MB:
// - latin: English prose with an accented word, a brace or a tab now and then;
// - cyrillic: Russian prose, two bytes a letter, most of them in code page 1251
//   or not (\'hh or \uN, as the page chosen says);
// - dense: short cells between tabs, bullets and line ends, as a table dumped to
//   text is.
// The document made as a whole (Convert, Export), handed on block by block
// (WriteDocument), and the UTF-8 check the tool makes first (and the check
// any processor can run). The bytes counted are those of the text.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "rtfconverter/ByteScan.h"
#include "rtfconverter/Utf8ToRTF.h"

namespace {

enum class Script { Latin, Cyrillic, Dense };

std::string GenerateText(Script script, std::size_t cbTarget)
{
    static const char* const latin[] = {"the", "quick", "brown", "fox", "jumps", "over", "a", "lazy", "dog",
                                        "caf\xC3\xA9", "{note}", "path\\name", "na\xC3\xAFve", "text\t", "\xE2\x80\x94"};
    static const char* const cyrillic[] = {"\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82", "\xD0\xBC\xD0\xB8\xD1\x80",
                                           "\xD1\x82\xD0\xB5\xD0\xBA\xD1\x81\xD1\x82", "\xD0\xB8", "\xC2\xAB\xD0\xB4\xD0\xB0\xC2\xBB"};
    static const char* const dense[] = {"1.\t", "\xE2\x80\xA2\t", "\xC3\xA4\xC3\xB6\xC3\xBC", "\xCE\xB1\xCE\xB2", "ab", "\t"};
    const char* const* words = script == Script::Latin ? latin : script == Script::Cyrillic ? cyrillic : dense;
    const std::size_t nWords = script == Script::Latin ? 15 : script == Script::Cyrillic ? 5 : 6;
    std::string text;
    text.reserve(cbTarget + 64);
    std::uint32_t seed = 12345;
    for (std::size_t n = 1; text.size() < cbTarget; ++n) {
        seed = seed * 1103515245u + 12345u;
        text += words[(seed >> 16) % nWords];
        text += n % (script == Script::Dense ? 8 : 90) == 0 ? "\n" : " ";
    }
    return text;
}

const std::string& Text(Script script)
{
    static const std::string texts[] = {GenerateText(Script::Latin, 8 << 20), GenerateText(Script::Cyrillic, 8 << 20),
                                        GenerateText(Script::Dense, 8 << 20)};
    return texts[static_cast<int>(script)];
}

void Utf8ToRtfWhole(benchmark::State& state, Script script, int codePage)
{
    const std::string& text = Text(script);
    for (auto _ : state) {
        rtf_converter::CUTF8TextToRTF writer;
        writer.SetCodePage(codePage);
        writer.Convert(text.c_str(), nullptr);
        const CString rtf = writer.TakeDocument();
        benchmark::DoNotOptimize(rtf.GetString());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

void Utf8ToRtfBlocks(benchmark::State& state, Script script, int codePage)
{
    const std::string& text = Text(script);
    std::size_t cbRtf = 0;
    for (auto _ : state) {
        rtf_converter::CUTF8TextToRTF writer;
        writer.SetCodePage(codePage);
        writer.WriteDocument(text.data(), text.size(), nullptr,
                             [&cbRtf](const char* p, std::size_t cb, std::size_t) {
                                 benchmark::DoNotOptimize(p);
                                 cbRtf += cb;
                             });
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
    state.counters["rtf_bytes"] = static_cast<double>(cbRtf / state.iterations());
}

void Utf8Check(benchmark::State& state, Script script)
{
    const std::string& text = Text(script);
    for (auto _ : state)
        benchmark::DoNotOptimize(rtf_converter::FindInvalidUtf8(text.data(), text.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

// The check every processor can run, which the 32-byte one leaves the
// offset of a fault to.
void Utf8CheckByWords(benchmark::State& state, Script script)
{
    const std::string& text = Text(script);
    for (auto _ : state)
        benchmark::DoNotOptimize(rtf_converter::byte_scan::FindInvalidUtf8ByWords(text.data(), text.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * text.size()));
}

} // namespace

BENCHMARK_CAPTURE(Utf8ToRtfWhole, latin, Script::Latin, 1252)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8ToRtfBlocks, latin, Script::Latin, 1252)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8ToRtfBlocks, cyrillic_1251, Script::Cyrillic, 1251)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8ToRtfBlocks, cyrillic_1252, Script::Cyrillic, 1252)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8ToRtfBlocks, dense, Script::Dense, 1252)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8Check, latin, Script::Latin)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8Check, cyrillic, Script::Cyrillic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8Check, dense, Script::Dense)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8CheckByWords, cyrillic, Script::Cyrillic)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Utf8CheckByWords, dense, Script::Dense)->Unit(benchmark::kMillisecond);
