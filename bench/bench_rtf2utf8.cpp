// RTF to UTF-8 text beside RTF to 8-bit text: on the generated documents, and
// on two documents made here whose text is all escapes, the Unicode reader's
// costliest case (\uN with fallbacks, and \'hh in a Cyrillic font).
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_data.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"

using rtf_converter::CBytePtrRTFToPlainTextPtrParser;
using rtf_converter::CBytePtrRTFToUTF8PtrParser;

namespace {

constexpr std::size_t kReadBuffer = 64 * 1024;
constexpr int kParagraphs = 20000;

const char* const kUnicodeEscapes = "unicode-escapes";
const char* const kCyrillicHex = "cyrillic-hex";

// "Привет, мир" ten times per paragraph, as Word writes text outside the
// document's code page, or as \'hh in a Cyrillic font.
std::string MakeEscapedDocument(bool bUnicode)
{
    static const int s_word[] = {1055, 1088, 1080, 1074, 1077, 1090, 44, 32, 1084, 1080, 1088, 32};
    std::string rtf = "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fswiss\\fcharset0 Arial;}{\\f1\\fswiss\\fcharset204 Arial;}}\n";
    rtf += bUnicode ? "\\uc1\\pard " : "\\pard\\f1 ";
    char sz[16];
    for (int i = 0; i < kParagraphs; ++i) {
        for (int k = 0; k < 10; ++k) {
            for (int cp : s_word) {
                if (cp < 128)
                    rtf += static_cast<char>(cp);
                else if (bUnicode)
                    rtf += (std::snprintf(sz, sizeof sz, "\\u%d?", cp), sz);
                else
                    rtf += (std::snprintf(sz, sizeof sz, "\\'%02x", cp - 1040 + 0xC0), sz);
            }
        }
        rtf += "\\par\n";
    }
    return rtf + "}";
}

const std::string* InputOrSkip(benchmark::State& state, const char* name)
{
    static const std::string s_unicode = MakeEscapedDocument(true);
    static const std::string s_cyrillic = MakeEscapedDocument(false);
    if (name == kUnicodeEscapes)
        return &s_unicode;
    if (name == kCyrillicHex)
        return &s_cyrillic;
    std::string why;
    const std::string* input = rtfconv_bench::LoadInput(name, &why);
    if (!input)
        state.SkipWithError(why.c_str());
    return input;
}

template <class Reader>
void Convert(benchmark::State& state, const char* name)
{
    const std::string* input = InputOrSkip(state, name);
    if (!input)
        return;
    std::vector<char> buffer(kReadBuffer);
    unsigned long cbText = 0;
    for (auto _ : state) {
        const unsigned long cbInput = static_cast<unsigned long>(input->size());
        Reader reader(reinterpret_cast<const unsigned char*>(input->data()), cbInput);
        cbText = 0;
        bool bMore = true;
        while (bMore)
            cbText += reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input->size()));
    state.counters["text_bytes"] = static_cast<double>(cbText);
}

void RtfToUtf8(benchmark::State& state, const char* name) { Convert<CBytePtrRTFToUTF8PtrParser>(state, name); }
void RtfToText8(benchmark::State& state, const char* name) { Convert<CBytePtrRTFToPlainTextPtrParser>(state, name); }

} // namespace

BENCHMARK_CAPTURE(RtfToUtf8, text_heavy, rtfconv_bench::kTextHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToUtf8, markup_heavy, rtfconv_bench::kMarkupHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToUtf8, picture_heavy, rtfconv_bench::kPictureHeavy)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToUtf8, unicode_escapes, kUnicodeEscapes)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToUtf8, cyrillic_hex, kCyrillicHex)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToText8, unicode_escapes, kUnicodeEscapes)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(RtfToText8, cyrillic_hex, kCyrillicHex)->Unit(benchmark::kMillisecond);
