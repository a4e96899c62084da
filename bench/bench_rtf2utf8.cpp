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
    return rtfconv_bench::LoadInputOrSkip(state, name);
}

template <class Reader>
void Convert(benchmark::State& state, const char* name)
{
    if (const std::string* input = InputOrSkip(state, name))
        rtfconv_bench::PullText<Reader>(state, *input);
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
