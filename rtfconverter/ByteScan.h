// Scans for the first byte of a kind, 16 bytes a step where the processor has
// SSE2 (every x86-64 one), a byte a step elsewhere. Inside the library only.
#pragma once

#include <cstddef>

#if defined(__SSE2__) && (defined(__GNUC__) || defined(__clang__))
#include <emmintrin.h>
#define RTFCONV_SCAN_SSE2 1
#endif

namespace rtf_converter {
namespace byte_scan {

#if RTFCONV_SCAN_SSE2
typedef __m128i Block;
inline __m128i Splat(char ch) { return _mm_set1_epi8(ch); }
inline __m128i Is(__m128i v, char ch) { return _mm_cmpeq_epi8(v, Splat(ch)); }
#endif

// The number of bytes of [p, p + cb) before the first one isStop(byte) holds
// for; blockStops(block) gives the same answer for 16 bytes at once, as a mask
// of the bytes it holds for (bit i for byte i).
template <class TBlockStops, class TStop>
std::size_t LengthBefore(const char* p, std::size_t cb, TBlockStops&& blockStops, TStop&& isStop)
{
    std::size_t n = 0;
#if RTFCONV_SCAN_SSE2
    for (; cb - n >= 16; n += 16) {
        const unsigned mask = static_cast<unsigned>(
            _mm_movemask_epi8(blockStops(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + n)))));
        if (mask != 0)
            return n + static_cast<std::size_t>(__builtin_ctz(mask));
    }
#else
    (void)blockStops;
#endif
    while (n < cb && !isStop(p[n]))
        ++n;
    return n;
}

// Printable ASCII: 0x20 to 0x7E.
inline bool IsPrintableAscii(char ch)
{
    const unsigned char b = static_cast<unsigned char>(ch);
    return b >= 0x20 && b < 0x7F;
}

inline std::size_t PrintableAsciiLength(const char* p, std::size_t cb)
{
#if RTFCONV_SCAN_SSE2
    // Signed, the bytes from 0x80 up are below 0x20 too.
    auto blockStops = [](__m128i v) { return _mm_or_si128(_mm_cmplt_epi8(v, Splat(0x20)), Is(v, 0x7F)); };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return LengthBefore(p, cb, blockStops, [](char ch) { return !IsPrintableAscii(ch); });
}

// The number of ASCII bytes of [p, p + cb) before the first byte from 0x80 up
// or equal to one of `stops`.
template <class... Stops>
std::size_t AsciiLengthBefore(const char* p, std::size_t cb, Stops... stops)
{
#if RTFCONV_SCAN_SSE2
    // A byte's top bit is its mask bit: the bytes from 0x80 up stop as they are.
    auto blockStops = [=](__m128i v) {
        __m128i acc = v;
        ((acc = _mm_or_si128(acc, Is(v, stops))), ...);
        return acc;
    };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return LengthBefore(p, cb, blockStops,
                        [=](char ch) { return static_cast<unsigned char>(ch) >= 0x80 || ((ch == stops) || ...); });
}

// The number of bytes of [p, p + cb) before the first one below `below` (as
// an unsigned byte, `below` at most 0x80), equal to one of `stops`, or, with
// bStopAtHigh, from 0x80 up.
template <class... Stops>
std::size_t LengthBeforeLowOr(const char* p, std::size_t cb, unsigned char below, bool bStopAtHigh, Stops... stops)
{
#if RTFCONV_SCAN_SSE2
    const __m128i highMask = Splat(bStopAtHigh ? '\x80' : '\0');
    const __m128i lowest = Splat(static_cast<char>(below - 1));
    auto blockStops = [=](__m128i v) {
        // min(v, below - 1) == v: v is below `below`, compared unsigned. With
        // `below` 0 nothing is below it.
        __m128i acc = below ? _mm_cmpeq_epi8(_mm_min_epu8(v, lowest), v) : _mm_setzero_si128();
        acc = _mm_or_si128(acc, _mm_and_si128(v, highMask));
        ((acc = _mm_or_si128(acc, Is(v, stops))), ...);
        return acc;
    };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return LengthBefore(p, cb, blockStops, [=](char ch) {
        const unsigned char b = static_cast<unsigned char>(ch);
        return b < below || (bStopAtHigh && b >= 0x80) || ((ch == stops) || ...);
    });
}

} // namespace byte_scan
} // namespace rtf_converter
