#include "rtfconverter/Utf8ToRTF.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "hostlibs/MFCKVUtils.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/OldToRTF.h"

namespace rtf_converter {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
// What DecodeUtf8 gives for a byte that starts no well-formed sequence.
constexpr char32_t kInvalid = 0xFFFFFFFF;
constexpr int kWesternCodePage = 1252;
// Room for the header, font table and colour table in front of the body.
constexpr int kcbHeadRoom = 4096;
// The longest piece written for one byte or character of the text (or a
// pair of two-byte characters, at most twice "\u2047?" or "\'hh\'hh"): a
// character beyond U+FFFF, as two \uN? ("\u-10240?\u-9216?").
constexpr std::size_t kcbLongestPiece = 17;

using byte_scan::IsUtf8TrailByte;

// Decodes the UTF-8 sequence at p, which ends before `end`, and advances
// past it. A byte that does not start a well-formed sequence (overlong,
// surrogate, beyond U+10FFFF, cut short) is kInvalid and is passed alone.
char32_t DecodeAnyUtf8(const unsigned char*& p, const unsigned char* end)
{
    const unsigned char b = *p;
    std::ptrdiff_t cch = 0;
    char32_t cp = 0, minimum = 0;
    if ((b & 0xE0) == 0xC0) { cch = 2; cp = b & 0x1F; minimum = 0x80; }
    else if ((b & 0xF0) == 0xE0) { cch = 3; cp = b & 0x0F; minimum = 0x800; }
    else if ((b & 0xF8) == 0xF0) { cch = 4; cp = b & 0x07; minimum = 0x10000; }
    else { ++p; return kInvalid; }
    if (end - p < cch) {  // cut short by the end
        ++p;
        return kInvalid;
    }
    for (std::ptrdiff_t k = 1; k < cch; ++k) {
        if (!IsUtf8TrailByte(p[k])) {
            ++p;
            return kInvalid;
        }
        cp = cp << 6 | (p[k] & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++p;
        return kInvalid;
    }
    p += cch;
    return cp;
}

// The same, the well-formed two- and three-byte sequences of most scripts
// decoded inline; everything else, errors included, by DecodeAnyUtf8.
inline char32_t DecodeUtf8(const unsigned char*& p, const unsigned char* end)
{
    const unsigned char b = *p;
    const std::ptrdiff_t cbLeft = end - p;
    if (b >= 0xC2 && b <= 0xDF && cbLeft >= 2 && IsUtf8TrailByte(p[1])) {
        const char32_t cp = static_cast<char32_t>((b & 0x1F) << 6 | (p[1] & 0x3F));
        p += 2;
        return cp;
    }
    if ((b & 0xF0) == 0xE0 && cbLeft >= 3 && IsUtf8TrailByte(p[1]) && IsUtf8TrailByte(p[2])) {
        const char32_t cp = static_cast<char32_t>((b & 0x0F) << 12 | (p[1] & 0x3F) << 6 | (p[2] & 0x3F));
        if (cp >= 0x800 && (cp < 0xD800 || cp > 0xDFFF)) {
            p += 3;
            return cp;
        }
    }
    return DecodeAnyUtf8(p, end);
}

// What a character other than ASCII is written as: its bytes in the page,
// escaped so that the RTF is 7-bit ASCII and reads the same whatever
// encoding a program takes it for, or else \uN (a character beyond U+FFFF
// as its UTF-16 surrogate pair, each half with its own fallback; \uN takes
// a signed 16-bit N). Returns the piece's length.
std::size_t MakeCharacterPiece(const CCodePage* pPage, char32_t cp, char* piece)
{
    static const char kDigits[] = "0123456789abcdef";
    char* p = piece;
    unsigned char bytes[2];
    const int n = pPage ? pPage->Encode(cp, bytes) : 0;
    for (int k = 0; k < n; ++k) {
        // "\'hh", lowercase as the writers have always written it.
        *p++ = '\\';
        *p++ = '\'';
        *p++ = kDigits[bytes[k] >> 4];
        *p++ = kDigits[bytes[k] & 15];
    }
    if (n > 0) return static_cast<std::size_t>(p - piece);
    auto putUnicodeWord = [&p](int value) {
        *p++ = '\\';
        *p++ = 'u';
        p = std::to_chars(p, p + 6, value).ptr;
        *p++ = '?';
    };
    if (cp > 0xFFFF) {
        const char32_t v = cp - 0x10000;
        putUnicodeWord(static_cast<int>(0xD800 + (v >> 10)) - 65536);
        putUnicodeWord(static_cast<int>(0xDC00 + (v & 0x3FF)) - 65536);
    } else {
        putUnicodeWord(cp > 0x7FFF ? static_cast<int>(cp) - 65536 : static_cast<int>(cp));
    }
    return static_cast<std::size_t>(p - piece);
}

// The document as it is made: pieces written at a running pointer into one
// block, which is handed on when the next piece might not fit. Only runs of
// text are long; every other piece is at most kcbLongestPiece.
class CBlock {
public:
    explicit CBlock(std::size_t cb) : m_pBegin(new char[cb]), m_p(m_pBegin.get()), m_pEnd(m_p + cb) {}

    std::size_t Size() const { return static_cast<std::size_t>(m_p - m_pBegin.get()); }
    // From the block's end, kept as a pointer: every byte written may, as
    // far as the compiler knows, have changed the members, which are read
    // again after each, so the fewer the cheaper.
    std::size_t Room() const { return static_cast<std::size_t>(m_pEnd - m_p); }
    const char* Begin() const { return m_pBegin.get(); }
    void Clear() { m_p = m_pBegin.get(); }
    // Where the next byte goes, for a caller that writes in place, and the
    // count it wrote there.
    char* Cursor() { return m_p; }
    void Advance(std::size_t cb) { m_p += cb; }

    // The caller has made sure of the room.
    void Put(const void* p, std::size_t cb)
    {
        std::memcpy(m_p, p, cb);
        m_p += cb;
    }
    void Put(char ch) { *m_p++ = ch; }

private:
    std::unique_ptr<char[]> m_pBegin;
    char* m_p;
    char* m_pEnd;
};

// Where a piece was written: what follows it in the text, and in the block.
struct Written {
    const unsigned char* next;
    char* out;
};

#if RTFCONV_SCAN_SSE2
// A run of characters past ASCII, and its pieces.
constexpr std::size_t kcbRunPiece = 32;
struct RunEntry {
    // The run's bytes, first byte lowest, each past ASCII, so that the
    // key tells its length; 0, never a run, marks an empty entry.
    std::uint64_t key;
    unsigned char cb;
    char piece[kcbRunPiece];
};
constexpr unsigned kcRunsLog2 = 10;
constexpr std::size_t kcRuns = std::size_t(1) << kcRunsLog2;
// Never written (only read, through pointers to const); not const itself,
// so that it takes no room in the program file.
RunEntry s_noRuns[kcRuns];
#endif

// The pieces of the characters met lately, so that a text in one script
// looks each of its letters up in the code page once, not at every
// occurrence. A table indexed by a hash of the character's bytes as they
// stand in the text: a character met again is known by one load and one
// comparison, without decoding it, as only well-formed sequences are kept.
// Two characters of two bytes each, as the letters of most alphabets past
// ASCII are, have a table of their own, so that a word of them takes half
// the lookups: a pair not met lately is made of the pieces of its two
// characters, which the pairs, however many a language has, never push out.
class CCharacterPieces {
public:
    // The longest piece an entry holds, one move of 16 bytes: every piece
    // but that of a character beyond U+FFFF, which is rare and is made anew.
    static constexpr std::size_t kcbEntryPiece = 16;
    struct Entry {
        // The sequences' bytes, first byte lowest (their first byte tells
        // how many); 0, never a sequence, marks an empty entry.
        std::uint32_t key = 0;
        unsigned char cb = 0;
        char piece[kcbEntryPiece] = {};
    };

    // For the text that starts at pText.
    CCharacterPieces(const CCodePage* pPage, [[maybe_unused]] const unsigned char* pText)
        : m_pPage(pPage), m_characters(new Entry[kcEntries]), m_pairs(new Entry[kcEntries])
    {
#if RTFCONV_SCAN_SSE2
        m_pText = pText;
#endif
    }

    // Writes the piece of the character at p (a byte from 0x80 up), or of
    // it and the next, at `out`, which has room for kcbPutRoom, and
    // returns where it ends, in the text (one byte past a byte that starts
    // no well-formed sequence) and in the block.
    Written Put(const unsigned char* p, const unsigned char* end, char* out)
    {
        if (end - p < 4) return PutDecoded(p, end, out);  // too near the end for one load
        return PutFar(p, end, out);
    }
    // The same, at least four bytes before the end.
    Written PutFar(const unsigned char* p, const unsigned char* end, char* out)
    {
        const std::uint32_t word = WordAt(p);
        // Lead bytes of two-byte sequences at 0 and 2.
        if ((word & 0x00E000E0) == 0x00C000C0) {
            const Entry& pair = m_pairs[SlotOf(word)];
            if (pair.key != word) return PutNewPair(p, end, out, word);
            std::memcpy(out, pair.piece, kcbEntryPiece);  // whole, padding and all, for speed: the room is there
            return {p + 4, out + pair.cb};
        }
        return PutCharacter(p, end, out, word);
    }
#if RTFCONV_SCAN_SSE2
    // The pieces of the characters past ASCII that follow one another from
    // p, as far as eight bytes: a word of them, such as three accented
    // letters or a few of another alphabet, known by one load and one
    // comparison, where character by character takes a step of the caller's
    // each. Only bytes past ASCII: a key that took in the tabs and line ends
    // around them would meet too many combinations to be met again. At least
    // kcbRunReach bytes before the end; `out` has room for kcbRunPiece and
    // for the pieces of the bytes taken.
    Written PutRun(const unsigned char* p, const unsigned char* end, char* out)
    {
        // Given up: character by character and pair by pair.
        if (m_bRunsGivenUp) return PutFar(p, end, out);
        // The key's bytes, first byte lowest on this little-endian processor.
        std::uint64_t word;
        std::memcpy(&word, p, sizeof word);
        // A character alone, the byte after it ASCII, as most are in a
        // language written mostly in ASCII: its own entry, found sooner.
        if ((word & kAfterFirst[p[0] >> 4]) == 0) return PutCharacter(p, end, out, static_cast<std::uint32_t>(word));
        const std::uint64_t ascii = ~word & 0x8080808080808080u;
        if (ascii == 0) return PutLongRun(p, end, out, word);
        // The bytes before the first ASCII one: below the top bit of that
        // byte's lowest bit.
        const std::uint64_t key = word & (((ascii & (0 - ascii)) >> 7) - 1);
        const std::size_t cbKey = static_cast<std::size_t>(__builtin_ctzll(ascii)) / 8;
        const RunEntry& run = m_runs[RunSlotOf(key)];
        if (run.key != key) return PutNewRun(p, end, out, key, cbKey);
        std::memcpy(out, run.piece, kcbRunPiece);
        // The run's length from its bytes, not from its entry: the next stop
        // is looked for at once, before the entry is loaded.
        return {p + cbKey, out + run.cb};
    }
    // The longest run PutRun takes, and how far it reads: the byte after it.
    static constexpr std::size_t kcbRunKey = 8;
    static constexpr std::size_t kcbRunReach = kcbRunKey + 1;
#endif

private:
    // The four bytes at p, first byte lowest, put together byte by byte, the
    // same on any processor; compilers make one load of it.
    static std::uint32_t WordAt(const unsigned char* p)
    {
        return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[3]) << 24;
    }
    // The piece of the one character at p, whose first four bytes are `word`.
    Written PutCharacter(const unsigned char* p, const unsigned char* end, char* out, std::uint32_t word)
    {
        // The sequence's bytes by the first byte's high half, 8 to F: a byte
        // that starts no sequence never has an entry, whatever it keeps.
        static constexpr std::uint32_t kKeep[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF,
                                                    0xFFFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF};
        // A kept sequence's length, from its first byte: the next stop is
        // looked for at once, before the entry is loaded.
        static constexpr unsigned char kLength[16] = {1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 3, 4};
        const std::uint32_t key = word & kKeep[p[0] >> 4];
        const Entry& entry = m_characters[SlotOf(key)];
        if (entry.key != key) return PutNew(p, end, out, key);
        std::memcpy(out, entry.piece, kcbEntryPiece);
        return {p + kLength[p[0] >> 4], out + entry.cb};
    }
    // The top bits of the key times an odd number picked, among many tried,
    // for putting the letters of the Latin, Greek, Cyrillic and Arabic
    // alphabets, the common punctuation and runs of ideographs or Hangul in
    // slots apart: one multiplication where a fold of the bits that differ
    // would take several steps.
    static std::size_t SlotOf(std::uint32_t key) { return (key * 0x70D07EBBu) >> (32 - kcEntriesLog2); }

#if RTFCONV_SCAN_SSE2
    // A run of characters keyed by its first kcbRunKey bytes or fewer: so many
    // that no character is cut, so that a long run in one script has its
    // keys start where its characters do, and meets them again.
    static std::size_t KeyLengthOfLongRun(const unsigned char* p)
    {
        std::size_t cb = kcbRunKey;
        while (cb > 1 && IsUtf8TrailByte(p[cb])) --cb;
        return cb;
    }
    // The top bit of the byte after the character whose first byte has
    // this high half, 8 to F (one byte for one that starts no sequence).
    static constexpr std::uint64_t kAfterFirst[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0x8000, 0x8000, 0x8000, 0x8000,
                                                      0x800000, 0x800000, 0x80000000, 0x8000000000};
    // The key's first n bytes, for n from 1 to kcbRunKey.
    static constexpr std::uint64_t kKeyMasks[kcbRunKey + 1] = {0, 0xFF, 0xFFFF, 0xFFFFFF, 0xFFFFFFFF, 0xFFFFFFFFFF,
                                                                0xFFFFFFFFFFFF, 0xFFFFFFFFFFFFFF, ~std::uint64_t(0)};
    static std::size_t RunSlotOf(std::uint64_t key)
    {
        return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15u) >> (64 - kcRunsLog2));
    }
    Written PutNewRun(const unsigned char* p, const unsigned char* end, char* out, std::uint64_t key,
                      std::size_t cbKey);
    // A run of eight bytes or more, rarer: out of line.
    [[gnu::noinline]] Written PutLongRun(const unsigned char* p, const unsigned char* end, char* out,
                                         std::uint64_t word)
    {
        const std::size_t cbKey = KeyLengthOfLongRun(p);
        const std::uint64_t key = word & kKeyMasks[cbKey];
        const RunEntry& run = m_runs[RunSlotOf(key)];
        if (run.key != key) return PutNewRun(p, end, out, key, cbKey);
        std::memcpy(out, run.piece, kcbRunPiece);
        return {p + cbKey, out + run.cb};
    }
#endif
    Written PutNew(const unsigned char* p, const unsigned char* end, char* out, std::uint32_t key);
    Written PutNewPair(const unsigned char* p, const unsigned char* end, char* out, std::uint32_t word);
    Written PutDecoded(const unsigned char* p, const unsigned char* end, char* out) const;

    static constexpr unsigned kcEntriesLog2 = 9;
    static constexpr std::size_t kcEntries = std::size_t(1) << kcEntriesLog2;
    const CCodePage* m_pPage;
    std::unique_ptr<Entry[]> m_characters;
    std::unique_ptr<Entry[]> m_pairs;
#if RTFCONV_SCAN_SSE2
    // Looked up in an empty table until the first run is kept, so that a
    // short text, or one without runs, costs no allocation for them.
    const RunEntry* m_runs = s_noRuns;
    std::unique_ptr<RunEntry[]> m_keptRuns;
    const unsigned char* m_pText = nullptr;
    std::size_t m_cRunsMissed = 0;
    bool m_bRunsGivenUp = false;
#endif
};

// A character not met lately, or not well formed: kept when its piece fits an entry.
Written CCharacterPieces::PutNew(const unsigned char* p, const unsigned char* end, char* out, std::uint32_t key)
{
    const unsigned char* next = p;
    const char32_t cp = DecodeUtf8(next, end);
    if (cp == kInvalid) return PutDecoded(p, end, out);
    const std::size_t cb = MakeCharacterPiece(m_pPage, cp, out);
    if (cb <= kcbEntryPiece) {
        Entry& entry = m_characters[SlotOf(key)];
        entry.key = key;
        entry.cb = static_cast<unsigned char>(cb);
        std::memcpy(entry.piece, out, cb);
    }
    return {next, out + cb};
}

// A pair not met lately: its characters one by one, and the pair kept when
// both are well formed (their pieces, at most 8 bytes each, fit an entry).
// Never more than the pair: the callers' room is for one piece.
Written CCharacterPieces::PutNewPair(const unsigned char* p, const unsigned char* end, char* out, std::uint32_t word)
{
    const Written first = PutCharacter(p, end, out, word);
    if (first.next != p + 2) return first;
    const unsigned char* const q = first.next;
    const Written second = end - q < 4 ? PutDecoded(q, end, first.out) : PutCharacter(q, end, first.out, WordAt(q));
    if (second.next != p + 4) return second;
    Entry& pair = m_pairs[SlotOf(word)];
    pair.key = word;
    pair.cb = static_cast<unsigned char>(second.out - out);
    std::memcpy(pair.piece, out, pair.cb);
    return second;
}

Written CCharacterPieces::PutDecoded(const unsigned char* p, const unsigned char* end, char* out) const
{
    const char32_t cp = DecodeUtf8(p, end);
    return {p, out + MakeCharacterPiece(m_pPage, cp == kInvalid ? kReplacement : cp, out)};
}

// The longest piece of a two-byte character: "\'hh\'hh" or "\u2047?".
constexpr std::size_t kcbLongestTwoBytePiece = 8;
// How far past where it starts one character's (or one pair's) piece is
// written: pieces are copied whole from the caches, and the second of a
// pair that is not kept yet is copied so after the first.
constexpr std::size_t kcbPutRoom = kcbLongestTwoBytePiece + CCharacterPieces::kcbEntryPiece;
static_assert(kcbPutRoom >= kcbLongestPiece, "room for a piece made anew");

// Writes the pieces of a word of characters past ASCII, the first at p, while
// the room for the longest piece lasts, and returns what follows them.
const unsigned char* PutOtherCharacters(CCharacterPieces& pieces, const unsigned char* p, const unsigned char* end,
                                        CBlock& block)
{
    char* out = block.Cursor();
    char* const outLast = out + (block.Room() - kcbPutRoom);
    do {
        const Written written = pieces.Put(p, end, out);
        p = written.next;
        out = written.out;
    } while (p < end && *p >= 0x80 && out <= outLast);
    block.Advance(static_cast<std::size_t>(out - block.Cursor()));
    return p;
}

// What each ASCII byte that ends a run of printable ASCII is written as: a
// line end or a tab as its keyword, \ { and } escaped, 0x17 (never part of
// the host's text) as nothing, | ~ DEL and the other controls as they are.
// Eight bytes an entry, copied whole. CR and NUL, whose handling depends
// on more than the byte, are marked `rare`, so that the other stops take
// one test rather than one for each.
struct StopPiece {
    char text[6];
    bool rare;
    unsigned char cb;
};
constexpr struct StopPieces {
    StopPiece pieces[128];
    constexpr StopPieces() : pieces()
    {
        for (int b = 0; b < 128; ++b) pieces[b] = {{static_cast<char>(b)}, false, 1};
        pieces[0x00] = {{}, true, 0};  // the end of the text, as for a C string
        pieces[0x09] = {{'\\', 't', 'a', 'b', ' '}, false, 5};
        pieces[0x0A] = {{'\\', 'p', 'a', 'r', ' '}, false, 5};
        pieces[0x0D] = {{'\\', 'p', 'a', 'r', ' '}, true, 5};  // an LF after it is skipped
        pieces[0x17] = {{}, false, 0};
        for (const char ch : {'\\', '{', '}'}) pieces[static_cast<int>(ch)] = {{'\\', ch}, false, 2};
    }
} kStopPieces;

// Writes the piece for the byte at p, an ASCII one that ends a run of printable
// ASCII, at `out` (which has room for a StopPiece) and returns what
// follows it: CR LF is one line end.
inline const unsigned char* PutStop(const unsigned char* p, const unsigned char* end, char*& out)
{
    const StopPiece& piece = kStopPieces.pieces[*p];
    std::memcpy(out, &piece, sizeof piece);  // whole, the length after the text written over next
    out += piece.cb;
    return p + 1 + (*p == 0x0D && end - p > 1 && p[1] == 0x0A);
}

#if RTFCONV_SCAN_SSE2
// A run not met lately: its characters one by one, and the run kept when
// its pieces depend on the key's bytes alone: not when the key ends inside
// a character or holds a byte that starts no well-formed sequence (whose
// piece the bytes past the key may decide).
// Out of line: inlined, it crowds the registers of the dense steps.
[[gnu::noinline]] Written CCharacterPieces::PutNewRun(const unsigned char* p, const unsigned char* end, char* out,
                                                      std::uint64_t key, std::size_t cbKey)
{
    // In a language written in letters past ASCII, most runs are a part of
    // a word met once, which costs more to keep than it saves: past one
    // miss every kcbTextPerMiss bytes, runs are given up for the rest of the
    // text, which is written character by character and pair by pair.
    constexpr std::size_t kcFreeMisses = 256, kcbTextPerMiss = 256;
    if (++m_cRunsMissed > kcFreeMisses && m_cRunsMissed * kcbTextPerMiss > static_cast<std::size_t>(p - m_pText))
        m_bRunsGivenUp = true;
    const unsigned char* const keyEnd = p + cbKey;
    const unsigned char* q = p;
    char* o = out;
    bool keep = true;
    while (q < keyEnd) {
        // A pair only when it ends inside the key.
        const Written written = keyEnd - q >= 4 ? PutFar(q, end, o) : PutCharacter(q, end, o, WordAt(q));
        keep = keep && written.next != q + 1;
        q = written.next;
        o = written.out;
    }
    const std::size_t cb = static_cast<std::size_t>(o - out);
    if (keep && q == keyEnd && cb <= kcbRunPiece) {
        if (!m_keptRuns) {
            // Only the keys need a value: a piece is read after its key matches.
            m_keptRuns.reset(new RunEntry[kcRuns]);
            for (std::size_t k = 0; k < kcRuns; ++k) m_keptRuns[k].key = 0;
            m_runs = m_keptRuns.get();
        }
        RunEntry& run = m_keptRuns[RunSlotOf(key)];
        run.key = key;
        run.cb = static_cast<unsigned char>(cb);
        std::memcpy(run.piece, out, cb);
    }
    return {q, o};
}

// The stops of the run scan in WriteBody among 16 bytes: those outside
// 0x20..'z', and the backslash. Moved up by 0x60, that range is -128..-38
// as signed bytes: one comparison finds the bytes outside it.
inline unsigned StopsIn(__m128i v)
{
    const __m128i outside = _mm_cmpgt_epi8(_mm_add_epi8(v, _mm_set1_epi8(0x60)), _mm_set1_epi8(-38));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(outside, _mm_cmpeq_epi8(v, _mm_set1_epi8('\\')))));
}

inline void Copy16(char* to, const unsigned char* from)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

// PutDenseText looks at the text this many bytes a step, three blocks of 16.
constexpr std::size_t kcbWindow = 48;

// What follows a stop's piece, up to the next stop: most runs between stops
// are shorter than 32 bytes, so that only a longer one takes a branch of its
// own, where one of 16 would be taken the wrong way often.
inline void Copy32(char* to, const unsigned char* from)
{
    Copy16(to, from);
    Copy16(to + 16, from + 16);
}

// A step takes at most this many bytes of the text: its window, and the
// rest of a run of characters begun at its last byte.
constexpr std::size_t kcbStepText = kcbWindow + CCharacterPieces::kcbRunKey - 1;
// And reads at most this far: 32 bytes are copied from after that run.
constexpr std::size_t kcbStepReach = kcbStepText + 32;
// And writes at most this far: a piece of at most kcbLongestPiece (written
// whole) for each of its bytes, and a run copied after the last.
constexpr std::size_t kcbStepRoom = kcbStepText * kcbLongestPiece + kcbWindow;
// A run's piece, written whole, is for at least two bytes of text.
static_assert(kcbRunPiece <= 2 * kcbLongestPiece, "a run's piece within the room of its bytes");
static_assert(CCharacterPieces::kcbRunReach < kcbStepReach, "a run's key read within a step's reach");
// A block just handed on has room for a step: WriteBody never hands on an empty one.
static_assert(kcbHeadRoom >= kcbStepRoom, "a fresh block's room for a step");
// The first block holds the head (a few hundred bytes) and the room for a step.
static_assert(CUTF8TextToRTF::kcbLeastBlock >= 2 * kcbHeadRoom, "the least block's room for the head");

// Writes the pieces of the text from p on, a window of kcbWindow bytes a
// step, while the text and the block's room last for a step, and returns
// where it stopped: less than a step from the end, at a NUL, or with less
// room than a step needs. Where stops are dense (a tab, a line end or a
// character past ASCII every few bytes) a scan that starts again after each
// costs more than the stop: each step copies its window as it stands, then
// writes each stop of its mask over its own byte and copies the 32 bytes
// after it again behind the piece (the rest of a longer run as well), the
// next stop of the same mask coming next.
[[gnu::always_inline]] inline const unsigned char* PutDenseTextSteps(CCharacterPieces& pieces, const unsigned char* p,
                                                                   const unsigned char* end, CBlock& block)
{
    if (static_cast<std::size_t>(end - p) < kcbStepReach || block.Room() < kcbStepRoom) return p;
    const unsigned char* const pLast = end - kcbStepReach;
    char* out = block.Cursor();
    char* const outLast = out + (block.Room() - kcbStepRoom);
    while (p <= pLast && out <= outLast) {
        // As many steps as surely fit, each taking at most kcbStepText
        // bytes of text and kcbStepRoom of the block: one count to keep.
        std::size_t cSteps = 1 + std::min(static_cast<std::size_t>(pLast - p) / kcbStepText,
                                          static_cast<std::size_t>(outLast - out) / kcbStepRoom);
        do {
            const __m128i* const q = reinterpret_cast<const __m128i*>(p);
            const __m128i v0 = _mm_loadu_si128(q), v1 = _mm_loadu_si128(q + 1), v2 = _mm_loadu_si128(q + 2);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), v0);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), v1);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 32), v2);
            // The stops not yet written, bit 0 for the byte at `done`, the
            // first not yet written, whose 32 bytes are written already.
            std::uint64_t stops = std::uint64_t(StopsIn(v0)) | std::uint64_t(StopsIn(v1)) << 16 |
                                  std::uint64_t(StopsIn(v2)) << 32;
            if (stops == 0) {
                p += kcbWindow;
                out += kcbWindow;
                continue;
            }
            const unsigned char* done = p;
            do {
                const std::size_t cbRun = static_cast<std::size_t>(__builtin_ctzll(stops));
                if (cbRun > 32) Copy16(out + 32, done + 32);
                const unsigned char* next = done + cbRun;
                out += cbRun;
                if (*next >= 0x80) {
                    const Written written = pieces.PutRun(next, end, out);
                    next = written.next;
                    out = written.out;
                } else {
                    const StopPiece& piece = kStopPieces.pieces[*next];
                    std::memcpy(out, &piece, sizeof piece);
                    out += piece.cb;
                    if (piece.rare) {
                        if (*next == 0) {
                            block.Advance(static_cast<std::size_t>(out - block.Cursor()));
                            return next;  // the end of the text, as for a C string
                        }
                        next += next[1] == 0x0A;  // CR LF, one line end
                    }
                    ++next;
                }
                Copy32(out, next);
                stops >>= next - done;  // at most kcbStepText
                done = next;
            } while (stops != 0);
            // The rest of the window is written already, unless the last
            // piece took it all, or it is longer than 32.
            const unsigned char* const windowEnd = p + kcbWindow;
            const std::size_t cbRest = done < windowEnd ? static_cast<std::size_t>(windowEnd - done) : 0;
            if (cbRest > 32) Copy16(out + 32, done + 32);
            out += cbRest;
            p = done + cbRest;
        } while (--cSteps != 0);
    }
    block.Advance(static_cast<std::size_t>(out - block.Cursor()));
    return p;
}

const unsigned char* PutDenseTextBaseline(CCharacterPieces& pieces, const unsigned char* p, const unsigned char* end,
                                          CBlock& block)
{
    return PutDenseTextSteps(pieces, p, end, block);
}

#if RTFCONV_SCAN_AVX2
// The same steps for a processor with AVX2 and BMI2, chosen when it runs:
// the stops are found and shifted out with one instruction each, not two or
// three, and the vector steps take three operands, with no copies between
// them. Some 4% of the time of a text dense in stops.
__attribute__((target("avx2,bmi,bmi2"))) const unsigned char* PutDenseTextAvx2(CCharacterPieces& pieces,
                                                                             const unsigned char* p,
                                                                             const unsigned char* end, CBlock& block)
{
    return PutDenseTextSteps(pieces, p, end, block);
}
#endif

const unsigned char* PutDenseText(CCharacterPieces& pieces, const unsigned char* p, const unsigned char* end,
                                  CBlock& block)
{
#if RTFCONV_SCAN_AVX2
    if (byte_scan::CanUseAvx2AndBmi2()) return PutDenseTextAvx2(pieces, p, end, block);
#endif
    return PutDenseTextBaseline(pieces, p, end, block);
}
#endif

} // namespace

std::size_t FindInvalidUtf8(const char* pText, std::size_t cb)
{
#if RTFCONV_SCAN_AVX2
    if (byte_scan::CanFindInvalidUtf8ByBlocks()) return byte_scan::FindInvalidUtf8ByBlocks(pText, cb);
#endif
    return byte_scan::FindInvalidUtf8ByWords(pText, cb);
}

CUTF8TextToRTF::CUTF8TextToRTF() : m_pPage(CCodePage::Get(kWesternCodePage)), m_logFont() {}

void CUTF8TextToRTF::SetCodePage(int codePage)
{
    const CCodePage* pPage = CCodePage::Get(codePage);
    m_pPage = pPage && !pPage->IsSymbol() ? pPage : CCodePage::Get(kWesternCodePage);
}

void CUTF8TextToRTF::SetBlockSize(std::size_t cb) { m_cbBlock = std::clamp(cb, kcbLeastBlock, kcbMostBlock); }

void CUTF8TextToRTF::ChooseFont(const LOGFONT* pBaseFont)
{
    if (pBaseFont) {
        m_logFont = *pBaseFont;
    } else {
        HDC hdc = GetDC(nullptr);
        const int logPixelsY = GetDeviceCaps(hdc, LOGPIXELSY);
        ReleaseDC(nullptr, hdc);
        InitDefaultScreenFont(m_logFont, "Arial", 10, logPixelsY);
    }
}

void CUTF8TextToRTF::Convert(const char* pszText, const LOGFONT* pBaseFont)
{
    ChooseFont(pBaseFont);
    const char* const pszBody = pszText ? pszText : "";
    const std::size_t cbText = std::strlen(pszBody);
    m_csBuffer.Empty();
    // The body is at least as long as the text; reserving that once, with
    // room for the document's head, spares the copies of a growing string and
    // lets TakeDocument put the head in front without a new block.
    m_csBuffer.Preallocate(static_cast<int>(std::min<std::size_t>(cbText, INT_MAX / 2)) + kcbHeadRoom);
    WriteBody(pszBody, cbText, CString(),
              [this](const char* p, std::size_t cb, std::size_t) { m_csBuffer.Append(p, static_cast<int>(cb)); });
}

void CUTF8TextToRTF::WriteDocument(const char* pText, std::size_t cbText, const LOGFONT* pBaseFont,
                                   const BlockSink& sink)
{
    ChooseFont(pBaseFont);
    m_csBuffer.Empty();
    CString head = GetHeader();
    head += GetFontTable();
    head += GetColorTable();
    WriteBody(pText ? pText : "", pText ? cbText : 0, head, sink);
}

// `head`, then the body: its opening keywords, the text and the closing brace.
void CUTF8TextToRTF::WriteBody(const char* pText, std::size_t cbText, const CString& head, const BlockSink& sink) const
{
    CString opening;
    opening.Format("%s\\uc1\\pard\\f0\\fs%d\\cf%d ", head.GetString(), 2 * PixY2Pts(m_logFont.lfHeight), 0);
    // A short text gets a block to its measure (no character takes more than
    // five bytes a byte of text), so that converting many small texts costs
    // no large allocation each; the head always fits.
    CBlock block(std::min(m_cbBlock, static_cast<std::size_t>(kcbHeadRoom + opening.GetLength()) +
                                         5 * std::min(cbText, m_cbBlock)));
    const unsigned char* const begin = reinterpret_cast<const unsigned char*>(pText);
    CCharacterPieces pieces(m_pPage, begin);
    const unsigned char* const end = begin + cbText;
    const unsigned char* p = begin;
    auto handOn = [&] {
        sink(block.Begin(), block.Size(), static_cast<std::size_t>(p - begin));
        block.Clear();
    };
    // The head is a few hundred bytes (a face name has at most 31), far
    // less than a block.
    block.Put(opening.GetString(), static_cast<std::size_t>(opening.GetLength()));
    // A byte-order mark says the text is UTF-8; it is not part of it.
    if (cbText >= 3 && p[0] == 0xEF && p[1] == 0xBB && p[2] == 0xBF)
        p += 3;
    while (p < end) {
#if RTFCONV_SCAN_SSE2
        // Most of the text; the rest, near the end of the text or of the
        // block's room, or at a NUL, below, a run and a stop at a time.
        p = PutDenseText(pieces, p, end, block);
        // A block is handed on as soon as a step no longer fits: its last
        // few hundred bytes a run and a stop at a time would cost more.
        if (block.Room() < kcbStepRoom && p < end && *p != 0) handOn();
#endif
        // Room for a run and the piece after it.
        if (block.Room() < 2 * kcbPutRoom) handOn();
        const std::size_t cbMost = std::min(static_cast<std::size_t>(end - p), block.Room() - kcbPutRoom);
        // Printable ASCII up to 'z' but the backslash: { | } ~ are rare
        // enough in text to be taken one by one, and one comparison fewer
        // on every 16 bytes pays for that many times over.
        const std::size_t cbRun =
            byte_scan::CopyInRangeBefore(block.Cursor(), reinterpret_cast<const char*>(p), cbMost, 0x20, 'z', '\\');
        block.Advance(cbRun);
        p += cbRun;
        // A run cut short by the room left is taken up after the hand-on.
        if (cbRun == cbMost) continue;
        if (*p >= 0x80)
            p = PutOtherCharacters(pieces, p, end, block);
        else if (*p == 0)
            break;  // the end of the text, as for a C string
        else {
            char* out = block.Cursor();
            p = PutStop(p, end, out);
            block.Advance(static_cast<std::size_t>(out - block.Cursor()));
        }
    }
    if (block.Room() == 0) handOn();
    block.Put('}');
    handOn();
}

CString CUTF8TextToRTF::GetHeader() const
{
    CString s;
    s.Format("{\\rtf1\\ansi\\ansicpg%d\\deff0\\deflang1024", m_pPage ? m_pPage->GetNumber() : kWesternCodePage);
    return s;
}

// The font's character set is the code page's, whatever the base font says:
// readers decode the text's bytes by it.
CString CUTF8TextToRTF::GetFontTable() const
{
    return FormatSingleFontTable(CharsetOfCodePage(m_pPage ? m_pPage->GetNumber() : kWesternCodePage), m_logFont);
}

CString CUTF8TextToRTF::GetColorTable() const { return FormatWindowTextColorTable(); }

CString CUTF8TextToRTF::Export() const
{
    try {
        return AssembleDocument(GetHeader(), GetFontTable(), GetColorTable(), m_csBuffer);
    } catch (const std::bad_alloc&) {
        return CString();
    }
}

CString CUTF8TextToRTF::TakeDocument()
{
    try {
        CString head = GetHeader();
        head += GetFontTable();
        head += GetColorTable();
        m_csBuffer.Insert(0, head.GetString());
        CString document = std::move(m_csBuffer);
        m_csBuffer.Empty();
        return document;
    } catch (const std::bad_alloc&) {
        return CString();
    }
}

} // namespace rtf_converter
