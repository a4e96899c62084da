// Scans for the first byte of a kind, 16 bytes a step where the processor has
// SSE2 (every x86-64 one), a byte a step elsewhere; hashes short texts eight
// bytes a step; and finds the first byte that is not UTF-8, 32 bytes a step
// where the processor has AVX2. Inside the library only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__) && (defined(__GNUC__) || defined(__clang__))
#include <emmintrin.h>
#define RTFCONV_SCAN_SSE2 1
#endif

// The AVX2 code is compiled for its own functions only, and chosen at run
// time: the rest of the library keeps to what every x86-64 processor has.
#if RTFCONV_SCAN_SSE2 && defined(__x86_64__)
#include <immintrin.h>
#define RTFCONV_SCAN_AVX2 1
#if defined(__has_include)
#if __has_include(<sys/platform/x86.h>)
#include <sys/platform/x86.h>
#define RTFCONV_SCAN_GLIBC_CPU_FEATURES 1
#endif
#endif
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

#if RTFCONV_SCAN_SSE2
// The bytes of a block outside lo..hi (two ASCII bytes) or equal to one of
// `stops`. Signed, the bytes from 0x80 up are below lo too.
template <class... Stops>
__m128i OutOfRangeIn(__m128i v, char lo, char hi, Stops... stops)
{
    __m128i stopped = _mm_or_si128(_mm_cmplt_epi8(v, Splat(lo)), _mm_cmpgt_epi8(v, Splat(hi)));
    ((stopped = _mm_or_si128(stopped, Is(v, stops))), ...);
    return stopped;
}
#endif

template <class... Stops>
bool IsOutOfRange(char ch, char lo, char hi, Stops... stops)
{
    const unsigned char b = static_cast<unsigned char>(ch);
    return b < static_cast<unsigned char>(lo) || b > static_cast<unsigned char>(hi) || ((ch == stops) || ...);
}

// The number of bytes of [p, p + cb) before the first one outside lo..hi
// (two ASCII bytes) or equal to one of `stops`.
template <class... Stops>
std::size_t InRangeLengthBefore(const char* p, std::size_t cb, char lo, char hi, Stops... stops)
{
#if RTFCONV_SCAN_SSE2
    auto blockStops = [=](__m128i v) { return OutOfRangeIn(v, lo, hi, stops...); };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return LengthBefore(p, cb, blockStops, [=](char ch) { return IsOutOfRange(ch, lo, hi, stops...); });
}

// The same bytes copied to `out`, 16 a step as they are scanned, so that a
// run is read once: `out` receives up to 15 bytes more than the count
// (never more than cb in all), which the caller writes over.
template <class... Stops>
std::size_t CopyInRangeBefore(char* out, const char* p, std::size_t cb, char lo, char hi, Stops... stops)
{
    std::size_t n = 0;
#if RTFCONV_SCAN_SSE2
    for (; cb - n >= 16; n += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + n));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + n), v);
        const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(OutOfRangeIn(v, lo, hi, stops...)));
        if (mask != 0)
            return n + static_cast<std::size_t>(__builtin_ctz(mask));
    }
#endif
    for (; n < cb && !IsOutOfRange(p[n], lo, hi, stops...); ++n)
        out[n] = p[n];
    return n;
}

// Classes of bytes the scans below stop at besides their stops: Holds tells
// for one byte, and for 16 at once as a mask (the top bit of each byte).
struct HighBytes {
    static bool Holds(char ch) { return static_cast<unsigned char>(ch) >= 0x80; }
#if RTFCONV_SCAN_SSE2
    // A byte's top bit is its mask bit: the bytes from 0x80 up are marked as they are.
    static __m128i Holds(__m128i v) { return v; }
#endif
};

struct ControlBytes {
    static bool Holds(char ch) { return static_cast<unsigned char>(ch) < 0x20; }
#if RTFCONV_SCAN_SSE2
    // Unsigned, a byte is at most 0x1F when the smaller of it and 0x1F is itself.
    static __m128i Holds(__m128i v) { return _mm_cmpeq_epi8(_mm_min_epu8(v, Splat(0x1F)), v); }
#endif
};

// The number of bytes of [p, p + cb) before the first one of TClass or equal
// to one of `stops`.
template <class TClass, class... Stops>
std::size_t LengthBeforeClassOr(const char* p, std::size_t cb, Stops... stops)
{
#if RTFCONV_SCAN_SSE2
    auto blockStops = [=](__m128i v) {
        __m128i acc = TClass::Holds(v);
        ((acc = _mm_or_si128(acc, Is(v, stops))), ...);
        return acc;
    };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return LengthBefore(p, cb, blockStops, [=](char ch) { return TClass::Holds(ch) || ((ch == stops) || ...); });
}

// The number of ASCII bytes of [p, p + cb) before the first byte from 0x80 up
// or equal to one of `stops`.
template <class... Stops>
std::size_t AsciiLengthBefore(const char* p, std::size_t cb, Stops... stops)
{
    return LengthBeforeClassOr<HighBytes>(p, cb, stops...);
}

// The number of bytes of [p, p + cb) before the first control byte (below
// 0x20) or one of `stops`; the bytes from 0x80 up pass.
template <class... Stops>
std::size_t LengthBeforeControlOr(const char* p, std::size_t cb, Stops... stops)
{
    return LengthBeforeClassOr<ControlBytes>(p, cb, stops...);
}

// A hash of [p, p + n) for tables of remembered commands, which are a few
// dozen bytes long: eight bytes a step.
inline std::size_t HashOf(const char* p, std::size_t n)
{
    constexpr std::uint64_t kMultiplier = 0xff51afd7ed558ccdull;
    std::uint64_t h = 0x9e3779b97f4a7c15ull ^ n;
    auto mix = [&h](std::uint64_t word) {
        h = (h ^ word) * kMultiplier;
        h ^= h >> 32;
    };
    std::size_t i = 0;
    for (; n - i >= 8; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, p + i, 8);
        mix(word);
    }
    if (i < n) {
        // The last eight bytes, some of them hashed already: one load rather
        // than a copy of the few left.
        std::uint64_t word = 0;
        if (n >= 8) std::memcpy(&word, p + n - 8, 8);
        else
            for (std::size_t k = 0; k < n; ++k) word |= std::uint64_t(static_cast<unsigned char>(p[k])) << (8 * k);
        mix(word);
    }
    return static_cast<std::size_t>(h ^ (h >> 29));
}

// The number of ASCII bytes of [p, p + cb) before the first from 0x80 up,
// taken 64 bytes a step while they are all ASCII, as most text is.
inline std::size_t AsciiLength(const char* p, std::size_t cb)
{
    std::size_t n = 0;
#if RTFCONV_SCAN_SSE2
    for (; cb - n >= 64; n += 64) {
        const __m128i* const q = reinterpret_cast<const __m128i*>(p + n);
        const __m128i acc = _mm_or_si128(_mm_or_si128(_mm_loadu_si128(q), _mm_loadu_si128(q + 1)),
                                         _mm_or_si128(_mm_loadu_si128(q + 2), _mm_loadu_si128(q + 3)));
        if (_mm_movemask_epi8(acc) != 0)
            break;
    }
#endif
    return n + AsciiLengthBefore(p + n, cb - n);
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

// Two words, each times its own odd number, summed: the top bits of the sum
// depend on every bit of both, so that they pick a slot of a table.
inline std::uint64_t HashOfWords(std::uint64_t lo, std::uint64_t hi)
{
    return lo * 0x9e3779b97f4a7c15ull + hi * 0xff51afd7ed558ccdull;
}

// The same for one word (two folded into one by the caller), in one multiply.
inline std::uint64_t HashOfWord(std::uint64_t word) { return HashOfWords(word, 0); }

#if RTFCONV_SCAN_SSE2
// The block with the bytes past its first chEnd zeroed, or the whole block
// when chEnd is not among its first 15 bytes: the first block of a short
// command cut as the command's key is, which picks its slot in a memo.
inline __m128i ThroughFirst(__m128i block, char chEnd)
{
    // 16 bytes 0xFF then 16 zero: from 15 - i on, the mask that keeps the
    // first i + 1 bytes.
    static constexpr struct KeepMasks {
        unsigned char bytes[32];
        constexpr KeepMasks() : bytes() { for (std::size_t i = 0; i < 16; ++i) bytes[i] = 0xFF; }
    } kKeep{};
    const unsigned ends = static_cast<unsigned>(_mm_movemask_epi8(Is(block, chEnd))) | 0x8000u;
    const unsigned last = static_cast<unsigned>(__builtin_ctz(ends));
    return _mm_and_si128(block, _mm_loadu_si128(reinterpret_cast<const __m128i*>(kKeep.bytes + 15 - last)));
}

inline std::uint64_t HashOfBlock(__m128i block)
{
    return HashOfWords(static_cast<std::uint64_t>(_mm_cvtsi128_si64(block)),
                       static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(block, block))));
}

// A short command known by its bytes: the first 48 bytes from its start taken
// in one look, its end byte found among them, and the bytes past that end
// zeroed, so that the look is the command's key, kept as it is for comparing
// a command met again without a scan for its end. The old-format writer keeps
// the font commands of a text this way.
struct CommandLook {
    static constexpr std::size_t kcbLook = 48;
    static constexpr std::size_t kBlocks = kcbLook / 16;
    __m128i key[kBlocks];
    std::size_t cb = 0;  // with its end byte; 0: no end byte among the first cbMax
};

// The look at the command at p, whose first CommandLook::kcbLook bytes must
// be readable, ending at the first chEnd among its first cbMax bytes.
inline CommandLook LookAtCommand(const char* p, char chEnd, std::size_t cbMax)
{
    constexpr std::size_t kcbLook = CommandLook::kcbLook;
    static_assert(kcbLook < 64, "the ends of a look are one word");
    CommandLook look;
    __m128i v[CommandLook::kBlocks];
    std::uint64_t ends = 0;
    for (std::size_t k = 0; k < CommandLook::kBlocks; ++k) {
        v[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k));
        ends |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(Is(v[k], chEnd)))) << (16 * k);
    }
    ends &= (std::uint64_t(1) << cbMax) - 1;
    if (ends == 0) return look;
    look.cb = static_cast<std::size_t>(__builtin_ctzll(ends)) + 1;
    // kcbLook bytes 0xFF then as many 0: from kcbLook - cb on, the mask that
    // keeps the first cb bytes.
    static constexpr struct KeepMask {
        unsigned char bytes[2 * kcbLook];
        constexpr KeepMask() : bytes() { for (std::size_t i = 0; i < kcbLook; ++i) bytes[i] = 0xFF; }
    } kKeep{};
    for (std::size_t k = 0; k < CommandLook::kBlocks; ++k) {
        const __m128i keep = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kKeep.bytes + kcbLook - look.cb + 16 * k));
        look.key[k] = _mm_and_si128(v[k], keep);
    }
    return look;
}
#endif

// UTF-8 well-formedness: overlong forms, surrogates, values beyond U+10FFFF
// and sequences cut short (by the end too) are not well formed.

inline bool IsUtf8TrailByte(unsigned char b) { return (b & 0xC0) == 0x80; }

// The end of the well-formed sequences of characters other than ASCII from
// p on: the first ASCII byte, the end, or the first byte that starts no
// well-formed sequence. The two- and three-byte sequences of most scripts
// are checked first, without putting their values together.
inline const unsigned char* SkipWellFormedUtf8Word(const unsigned char* p, const unsigned char* end)
{
    while (p < end) {
        const unsigned char b = *p;
        const std::ptrdiff_t cbLeft = end - p;
        if (b < 0x80) return p;
        if (b >= 0xC2 && b <= 0xDF) {
            if (cbLeft < 2 || !IsUtf8TrailByte(p[1])) return p;
            p += 2;
        } else if ((b & 0xF0) == 0xE0) {
            if (cbLeft < 3 || !IsUtf8TrailByte(p[1]) || !IsUtf8TrailByte(p[2])) return p;
            // After E0 a second byte below A0 makes an overlong form; after
            // ED one from A0 up, a surrogate.
            if ((b == 0xE0 && p[1] < 0xA0) || (b == 0xED && p[1] >= 0xA0)) return p;
            p += 3;
        } else if (b >= 0xF0 && b <= 0xF4) {
            if (cbLeft < 4 || !IsUtf8TrailByte(p[1]) || !IsUtf8TrailByte(p[2]) || !IsUtf8TrailByte(p[3])) return p;
            // After F0 a second byte below 90 makes an overlong form; after
            // F4 one from 90 up, a value beyond U+10FFFF.
            if ((b == 0xF0 && p[1] < 0x90) || (b == 0xF4 && p[1] >= 0x90)) return p;
            p += 4;
        } else {
            return p;  // a trail byte, C0, C1 or F5 up: no sequence starts so
        }
    }
    return p;
}

// The number of ASCII bytes from p on. Where words of other characters are
// frequent the gaps between them are short: one look at the next 16 bytes
// finds most of them for less than the long scan costs to start.
inline std::size_t AsciiGapLength(const unsigned char* p, const unsigned char* end)
{
    const std::size_t cbLeft = static_cast<std::size_t>(end - p);
    const char* const pch = reinterpret_cast<const char*>(p);
#if RTFCONV_SCAN_SSE2
    if (cbLeft >= 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pch));
        const unsigned high = static_cast<unsigned>(_mm_movemask_epi8(block));
        if (high != 0) return static_cast<std::size_t>(__builtin_ctz(high));
        return 16 + AsciiLength(pch + 16, cbLeft - 16);
    }
#endif
    return AsciiLength(pch, cbLeft);
}

// The offset of the first byte of [p, p + cb) that is not part of
// well-formed UTF-8, cb when every byte is: a gap of ASCII, then a word of
// other characters, and so on. Any processor.
inline std::size_t FindInvalidUtf8ByWords(const char* pText, std::size_t cb)
{
    const unsigned char* const begin = reinterpret_cast<const unsigned char*>(pText);
    const unsigned char* const end = begin + cb;
    const unsigned char* p = begin;
    for (;;) {
        p += AsciiGapLength(p, end);
        if (p == end) return cb;
        p = SkipWellFormedUtf8Word(p, end);
        if (p < end && *p >= 0x80) return static_cast<std::size_t>(p - begin);
    }
}

#if RTFCONV_SCAN_AVX2
// The 32-byte check: each byte is looked up by its high half, by the low
// half of the byte before it and by the high half of the byte before it, in
// three tables of 16 whose entries are sets of the faults a pair of bytes
// may show; a pair shows those in all three sets. A byte two or three after
// a lead of three or four bytes must be a trail byte, which the pair alone
// does not tell: that is checked apart.
namespace utf8_lookup {

constexpr char kTooShort = 1 << 0;    // a lead, then no trail byte
constexpr char kTooLong = 1 << 1;     // ASCII, then a trail byte
constexpr char kOverlong3 = 1 << 2;   // E0 80..9F
constexpr char kTooLarge = 1 << 3;    // F4 90..BF, F5..FF 80..BF
constexpr char kSurrogate = 1 << 4;   // ED A0..BF
constexpr char kOverlong2 = 1 << 5;   // C0 or C1, then a trail byte
constexpr char kTooLarge1000 = 1 << 6;  // F5..FF 80..8F
constexpr char kOverlong4 = 1 << 6;   // F0 80..8F
constexpr char kTwoTrails = static_cast<char>(1 << 7);  // a trail byte after a trail byte; right only 2 or 3 after a lead
// The faults whose first byte is known by its high half alone.
constexpr char kAnyLow = kTooShort | kTooLong | kTwoTrails;

// A table of 16 in both lanes, for a lookup in each.
__attribute__((target("avx2"))) inline __m256i Twice(char a0, char a1, char a2, char a3, char a4, char a5, char a6,
                                                      char a7, char a8, char a9, char a10, char a11, char a12,
                                                      char a13, char a14, char a15)
{
    return _mm256_setr_epi8(a0, a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, a0, a1, a2, a3, a4,
                            a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15);
}

// The faults among the 32 bytes at q, whose three bytes before are readable:
// nonzero where a fault is seen.
__attribute__((target("avx2"))) inline __m256i Faults(const char* q)
{
    // By the high half of the first byte of a pair.
    const __m256i firstHigh =
        Twice(kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTooLong, kTwoTrails, kTwoTrails,
              kTwoTrails, kTwoTrails, kTooShort | kOverlong2, kTooShort, kTooShort | kOverlong3 | kSurrogate,
              kTooShort | kTooLarge | kTooLarge1000 | kOverlong4);
    // By its low half.
    const __m256i firstLow = Twice(
        kAnyLow | kOverlong3 | kOverlong2 | kOverlong4, kAnyLow | kOverlong2, kAnyLow, kAnyLow, kAnyLow | kTooLarge,
        kAnyLow | kTooLarge | kTooLarge1000, kAnyLow | kTooLarge | kTooLarge1000, kAnyLow | kTooLarge | kTooLarge1000,
        kAnyLow | kTooLarge | kTooLarge1000, kAnyLow | kTooLarge | kTooLarge1000, kAnyLow | kTooLarge | kTooLarge1000,
        kAnyLow | kTooLarge | kTooLarge1000, kAnyLow | kTooLarge | kTooLarge1000,
        kAnyLow | kTooLarge | kTooLarge1000 | kSurrogate, kAnyLow | kTooLarge | kTooLarge1000,
        kAnyLow | kTooLarge | kTooLarge1000);
    // By the high half of the second byte.
    const __m256i secondHigh =
        Twice(kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort, kTooShort,
              kTooLong | kOverlong2 | kTwoTrails | kOverlong3 | kTooLarge1000 | kOverlong4,
              kTooLong | kOverlong2 | kTwoTrails | kOverlong3 | kTooLarge,
              kTooLong | kOverlong2 | kTwoTrails | kSurrogate | kTooLarge,
              kTooLong | kOverlong2 | kTwoTrails | kSurrogate | kTooLarge, kTooShort, kTooShort, kTooShort, kTooShort);
    const __m256i lowHalf = _mm256_set1_epi8(0x0F);
    // Each byte, and the bytes one, two and three before it: a load each,
    // cheaper than moving bytes across the two lanes of a register.
    const __m256i input = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q));
    const __m256i before1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q - 1));
    const __m256i before2 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q - 2));
    const __m256i before3 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q - 3));
    const __m256i pairFaults = _mm256_and_si256(
        _mm256_and_si256(_mm256_shuffle_epi8(firstHigh, _mm256_and_si256(_mm256_srli_epi16(before1, 4), lowHalf)),
                         _mm256_shuffle_epi8(firstLow, _mm256_and_si256(before1, lowHalf))),
        _mm256_shuffle_epi8(secondHigh, _mm256_and_si256(_mm256_srli_epi16(input, 4), lowHalf)));
    // From 0x80 up where two after E0..FF or three after F0..FF: a trail byte
    // due there, which kTwoTrails, set for every trail byte after a trail
    // byte, stands for; anywhere else kTwoTrails is a fault.
    const __m256i thirdOfThree = _mm256_subs_epu8(before2, _mm256_set1_epi8(static_cast<char>(0xE0 - 0x80)));
    const __m256i fourthOfFour = _mm256_subs_epu8(before3, _mm256_set1_epi8(static_cast<char>(0xF0 - 0x80)));
    const __m256i trailDue = _mm256_and_si256(_mm256_or_si256(thirdOfThree, fourthOfFour), _mm256_set1_epi8(kTwoTrails));
    return _mm256_xor_si256(pairFaults, trailDue);
}

// Whether the three bytes before q end in a lead byte wanting a trail byte
// at q or after.
inline bool EndsInLead(const char* q)
{
    return static_cast<unsigned char>(q[-1]) >= 0xC0 || static_cast<unsigned char>(q[-2]) >= 0xE0 ||
           static_cast<unsigned char>(q[-3]) >= 0xF0;
}

} // namespace utf8_lookup

// The offset of the first byte of [p, p + cb) that is not part of
// well-formed UTF-8, cb when every byte is; the same answer as
// FindInvalidUtf8ByWords, for a processor with AVX2. The blocks of 32 are
// checked whole, two at a time; from the last pair seen good the rest, and
// the pair where a fault is seen, are left to FindInvalidUtf8ByWords, which
// tells the offset.
__attribute__((target("avx2"))) inline std::size_t FindInvalidUtf8ByBlocks(const char* p, std::size_t cb)
{
    // The blocks look at the three bytes before them: the first few bytes,
    // up to where a character starts, are left to the words check. Past a
    // fourth trail byte in a row is a fault, which the blocks see.
    if (cb < 64 + 6) return FindInvalidUtf8ByWords(p, cb);
    std::size_t n = 3;
    while (n < 6 && IsUtf8TrailByte(static_cast<unsigned char>(p[n]))) ++n;
    const std::size_t cbHead = FindInvalidUtf8ByWords(p, n);
    if (cbHead < n) return cbHead;
    // Two blocks a step: one test of their faults.
    while (cb - n >= 64) {
        const char* const q = p + n;
        const __m256i both = _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(q)),
                                             _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q + 32)));
        if (_mm256_movemask_epi8(both) == 0 && !utf8_lookup::EndsInLead(q)) {
            // Most text is ASCII: nothing more to check while it lasts.
            for (n += 64; cb - n >= 64; n += 64) {
                const __m256i* const r = reinterpret_cast<const __m256i*>(p + n);
                if (_mm256_movemask_epi8(_mm256_or_si256(_mm256_loadu_si256(r), _mm256_loadu_si256(r + 1))) != 0)
                    break;
            }
            continue;
        }
        const __m256i faults = _mm256_or_si256(utf8_lookup::Faults(q), utf8_lookup::Faults(q + 32));
        if (!_mm256_testz_si256(faults, faults)) break;
        n += 64;
    }
    // [0, n) is well formed but for a sequence the last block's end may cut:
    // the words check starts where the last character before n starts, a
    // trail byte being at most three bytes from its lead.
    std::size_t start = n - 3;
    while (start < n && IsUtf8TrailByte(static_cast<unsigned char>(p[start]))) ++start;
    return start + FindInvalidUtf8ByWords(p + start, cb - start);
}

// Whether this processor can run FindInvalidUtf8ByBlocks; asked once.
// Where the C library tells (glibc 2.33 on), its answer is read from what
// the loader found at start; the compiler's own asks the processor again
// at every process start (a dozen cpuid instructions, each a trap to the
// hypervisor on a virtual machine), for every program that links it.
inline bool CanFindInvalidUtf8ByBlocks()
{
#if RTFCONV_SCAN_GLIBC_CPU_FEATURES
    static const bool bAvx2 = CPU_FEATURE_ACTIVE(AVX2);
#else
    static const bool bAvx2 = __builtin_cpu_supports("avx2");
#endif
    return bAvx2;
}

// Whether this processor has AVX2, BMI1 and BMI2, for code compiled with
// target("avx2,bmi,bmi2"); asked once.
inline bool CanUseAvx2AndBmi2()
{
#if RTFCONV_SCAN_GLIBC_CPU_FEATURES
    static const bool bYes = CPU_FEATURE_ACTIVE(AVX2) && CPU_FEATURE_ACTIVE(BMI1) && CPU_FEATURE_ACTIVE(BMI2);
#else
    static const bool bYes =
        __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
#endif
    return bYes;
}
#endif

} // namespace byte_scan
} // namespace rtf_converter
