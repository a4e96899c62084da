#include "rtfconverter/OldTextUtf8.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/ObjBase.h"
#include "platform/WinGdi.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"

namespace rtf_converter {

namespace {

// Where a byte that no character stands for goes, and comes back from.
constexpr char32_t kByteEscapeFirst = 0xF000;
constexpr char32_t kByteEscapeLast = 0xF0FF;
constexpr char32_t kReplacement = 0xFFFD;

const CCodePage& PageOrFallback(int codePage)
{
    const CCodePage* pPage = CCodePage::Get(codePage);
    return pPage ? *pPage : CCodePage::Fallback();
}

// The page of a font command's character set; the default page for the ANSI
// and default sets and for sets no page is known for.
const CCodePage& PageOfCharset(int charset, const CCodePage& defaultPage)
{
    const int codePage = CodePageOfCharset(charset);
    const CCodePage* pPage = codePage ? CCodePage::Get(codePage) : nullptr;
    return pPage ? *pPage : defaultPage;
}

// A font command's attribute field gives its character set as one byte from
// 0xC0 to 0xD2.
constexpr unsigned char kFirstCharsetCode = 0xC0;
constexpr unsigned char kLastCharsetCode = 0xD2;

// The character set a charset code names, as the font command reads it.
int CharsetOfCode(unsigned char code)
{
    static const auto s_charsets = [] {
        std::array<int, kLastCharsetCode - kFirstCharsetCode + 1> charsets{};
        for (std::size_t k = 0; k < charsets.size(); ++k) {
            const std::string cmd = std::string("\x01" "F---") + static_cast<char>(kFirstCharsetCode + k) + ":-\x02";
            charsets[k] = CFontCmd(CString(cmd.data(), static_cast<int>(cmd.size()))).GetCharset();
        }
        return charsets;
    }();
    return s_charsets[code - kFirstCharsetCode];
}

// A font command reads its character set from the first charset code after
// its size and colour (and before its face separator).
bool IsCharsetCodeAt(std::size_t offset, unsigned char b)
{
    return offset >= static_cast<std::size_t>(CFontCmd::posAttributes) && b >= kFirstCharsetCode && b <= kLastCharsetCode;
}

// The character set of a font command's bytes up to its face separator.
int CharsetOfFontHead(std::string_view head)
{
    for (std::size_t k = CFontCmd::posAttributes; k < head.size() && head[k] != CFontCmd::chFaceSeparator; ++k)
        if (IsCharsetCodeAt(k, static_cast<unsigned char>(head[k]))) return CharsetOfCode(static_cast<unsigned char>(head[k]));
    return DEFAULT_CHARSET;
}

// No byte is of this class: a scan for its stops alone.
struct NoBytes {
    static bool Holds(char) { return false; }
#if RTFCONV_SCAN_SSE2
    static __m128i Holds(__m128i) { return _mm_setzero_si128(); }
#endif
};

// The first ch from `from` on, or the end. The bytes looked for are a few
// dozen bytes away, inside a command or a word: the scan is inline, a block
// at a time, rather than a call into the C library.
std::size_t FindOrEnd(std::string_view s, char ch, std::size_t from)
{
    return from >= s.size() ? s.size() : from + byte_scan::LengthBeforeClassOr<NoBytes>(s.data() + from, s.size() - from, ch);
}

#if RTFCONV_SCAN_SSE2
// The loops of both ways that take the common steps of a text (ASCII text,
// font commands met before) write through a cursor into room made ahead,
// 16 bytes a step.

// The block at p copied to w; returns the mask (bit i for byte i) of its
// bytes past ASCII (its top bit is its mask bit) and those equal to
// `stops`'s byte, the first of which ends the ASCII copied; 0 when there are
// none.
inline std::uint64_t CopyBlockAsciiStops(const char* p, char* w, __m128i stops)
{
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(w), v);
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(v, _mm_cmpeq_epi8(v, stops))));
}

inline std::size_t FirstStop(std::uint64_t stops) { return static_cast<std::size_t>(__builtin_ctzll(stops)); }

// The whole blocks of ASCII from p on copied to w, both moved past them,
// while p is before `limit`: a run of text longer than a block in a loop of
// its own. Returns the stops of the block that ends the run, 0 when it
// reached `limit`. The block at p is read when p is before `limit`.
inline std::uint64_t CopyAsciiBlocks(const char*& p, char*& w, const char* limit, __m128i stops)
{
    std::uint64_t stopped;
    while ((stopped = CopyBlockAsciiStops(p, w, stops)) == 0) {
        p += 16;
        w += 16;
        if (p >= limit) break;
    }
    return stopped;
}

// The same for a run of text of any length, a word between two commands as
// often as a paragraph: its first block alone, then two blocks a step while
// p is before `limit`, which the two blocks at p may pass by 31 bytes. The
// stops returned are those of the block that ends the run, or of the two
// (the second's from bit 16 on).
inline std::uint64_t CopyAsciiTextBlocks(const char*& p, char*& w, const char* limit, __m128i stops)
{
    const std::uint64_t stopped = CopyBlockAsciiStops(p, w, stops);
    if (stopped != 0) return stopped;
    for (p += 16, w += 16; p < limit; p += 32, w += 32) {
        const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(w), v0);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(w + 16), v1);
        const __m128i stops0 = _mm_or_si128(v0, _mm_cmpeq_epi8(v0, stops));
        const __m128i stops1 = _mm_or_si128(v1, _mm_cmpeq_epi8(v1, stops));
        if (_mm_movemask_epi8(_mm_or_si128(stops0, stops1)) != 0)
            return static_cast<unsigned>(_mm_movemask_epi8(stops0)) | static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(stops1))) << 16;
    }
    return 0;
}

// A command at p other than a font command, all ASCII up to its 0x02 (a
// layout command, a hyperlink), is the same bytes both ways: copied 16 bytes
// a step as its end is looked for. False, with nothing done but stores past
// the cursor, when a byte past ASCII comes first (the command's bytes, or a
// comment's text, are then worked out) or its end is not found in the blocks
// from before `limit` on, which must be readable and the room at w hold.
bool CopyAsciiCommand(const char*& p, char*& w, const char* limit)
{
    const __m128i commandEnds = byte_scan::Splat(CDocCmd::chCmdEnd);
    for (std::size_t n = 0; p + n < limit; n += 16) {
        const std::uint64_t stops = CopyBlockAsciiStops(p + n, w + n, commandEnds);
        if (stops == 0) continue;
        const std::size_t k = FirstStop(stops);
        if (p[n + k] != CDocCmd::chCmdEnd) return false;
        p += n + k + 1;
        w += n + k + 1;
        return true;
    }
    return false;
}
#endif

// --- UTF-8

// One character of UTF-8 at s[i], advancing i; a byte that does not begin a
// well-formed sequence (overlong, surrogate, past U+10FFFF, cut short) is
// returned as kInvalid with i past that one byte.
constexpr char32_t kInvalid = 0xFFFFFFFF;
char32_t NextUtf8(std::string_view s, std::size_t& i)
{
    const unsigned char b = static_cast<unsigned char>(s[i]);
    int nTrail = 0;
    char32_t cp = 0;
    char32_t min = 0;
    if (b < 0x80) {
        ++i;
        return b;
    } else if (b >= 0xC2 && b <= 0xDF) {
        nTrail = 1, cp = b & 0x1F, min = 0x80;
    } else if (b >= 0xE0 && b <= 0xEF) {
        nTrail = 2, cp = b & 0x0F, min = 0x800;
    } else if (b >= 0xF0 && b <= 0xF4) {
        nTrail = 3, cp = b & 0x07, min = 0x10000;
    } else {
        ++i;
        return kInvalid;
    }
    if (s.size() - i <= static_cast<std::size_t>(nTrail)) {
        ++i;
        return kInvalid;
    }
    for (int k = 1; k <= nTrail; ++k) {
        const unsigned char t = static_cast<unsigned char>(s[i + k]);
        if ((t & 0xC0) != 0x80) {
            ++i;
            return kInvalid;
        }
        cp = cp << 6 | (t & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return kInvalid;
    }
    i += static_cast<std::size_t>(nTrail) + 1;
    return cp;
}

// --- decoding

// True when the bytes encode back to themselves: only then is the character
// a faithful name for them.
bool EncodesBackTo(const CCodePage& page, char32_t cp, unsigned char b0, int nBytes, unsigned char b1 = 0)
{
    if (cp == kReplacement || cp == CCodePage::invalidPair || cp < 0x80) return false;
    unsigned char bytes[2] = {0, 0};
    return page.Encode(cp, bytes) == nBytes && bytes[0] == b0 && (nBytes == 1 || bytes[1] == b1);
}

// --- encoding

// A page's bytes for a character are a look-up in its map, and a text uses
// few characters past ASCII, many times each, in few pages: the answers last
// met are kept, in slots chosen by the character and the page.
class CEncodingMemo {
public:
    int Encode(const CCodePage& page, char32_t cp, unsigned char bytes[2])
    {
        const std::uintptr_t pageKey = reinterpret_cast<std::uintptr_t>(&page) >> 4;
        Answer& answer = m_answers[(cp ^ pageKey * 31) % kSlots];
        if (answer.pPage != &page || answer.cp != cp) {
            answer.n = page.Encode(cp, answer.bytes);
            answer.pPage = &page;
            answer.cp = cp;
        }
        bytes[0] = answer.bytes[0];
        bytes[1] = answer.bytes[1];
        return answer.n;
    }

private:
    struct Answer {
        const CCodePage* pPage = nullptr;
        char32_t cp = 0;
        int n = 0;
        unsigned char bytes[2] = {0, 0};
    };
    static constexpr std::size_t kSlots = 256;
    std::array<Answer, kSlots> m_answers;
};

// The bytes in one page of the characters past ASCII most texts use, found
// by the character alone: those of two bytes of UTF-8 (U+0080 to U+07FF, the
// accented letters of the Latin, Greek and Cyrillic scripts) and the
// punctuation of U+2000 to U+20FF (dashes, quotes, bullets, the euro sign).
// Each is worked out the first time it is met. The table is made when the
// first one is.
class CCommonCharacters {
public:
    explicit CCommonCharacters(const CCodePage& page) : m_page(page) {}
    const CCodePage& Page() const { return m_page; }

    static constexpr char32_t kFirstPunctuation = 0x2000;
    static constexpr char32_t kLastPunctuation = 0x20FF;

    // Stores the page's bytes for cp (U+0080 to U+07FF) at w, two bytes
    // whatever their count; returns their count, 0 when the page holds no
    // bytes for cp.
    std::size_t Put(char32_t cp, char* w, CEncodingMemo& memo) { return PutAt(cp - kFirst, cp, w, memo); }
    // The same for cp from U+2000 to U+20FF.
    std::size_t PutPunctuation(char32_t cp, char* w, CEncodingMemo& memo)
    {
        return PutAt(kTwoByteCount + (cp - kFirstPunctuation), cp, w, memo);
    }

private:
    static constexpr char32_t kFirst = 0x80;
    static constexpr std::size_t kTwoByteCount = 0x800 - kFirst;
    static constexpr std::size_t kCount = kTwoByteCount + (kLastPunctuation - kFirstPunctuation + 1);
    struct Entry {
        unsigned char bytes[2];
        unsigned char n;       // 0: none, or not known yet
        unsigned char bKnown;
    };
    std::size_t PutAt(std::size_t index, char32_t cp, char* w, CEncodingMemo& memo)
    {
        const Entry* pEntry = &m_pEntries[index];
        if (pEntry->n == 0) {
            if (pEntry->bKnown) return 0;
            pEntry = &WorkOut(index, cp, memo);
        }
        std::memcpy(w, pEntry->bytes, 2);
        return pEntry->n;
    }
    const Entry& WorkOut(std::size_t index, char32_t cp, CEncodingMemo& memo)
    {
        if (m_entries.empty()) {
            m_entries.resize(kCount);
            m_pEntries = m_entries.data();
        }
        Entry& entry = m_entries[index];
        const int n = memo.Encode(m_page, cp, entry.bytes);
        entry.n = static_cast<unsigned char>(n > 0 ? n : 0);
        entry.bKnown = 1;
        return entry;
    }

    static constexpr Entry kNoneKnown[kCount] = {};
    const CCodePage& m_page;
    std::vector<Entry> m_entries;
    const Entry* m_pEntries = kNoneKnown;  // nothing known until the table is made
};

// The encoded text, written through a cursor into the string's own bytes: it
// is mostly short pieces (a command, a word), and appending each to the
// string would cost a call and a check of its capacity of its own. The
// string is lengthened a step at a time just ahead of the cursor (resize
// zeroes what it adds: so each page is touched as it is written, not all
// at once beforehand) and cut to what was written when the sink goes.
class COutBytes {
public:
    explicit COutBytes(std::string& s) : m_s(s), m_n(s.size()) {}
    ~COutBytes() { m_s.resize(m_n); }
    COutBytes(const COutBytes&) = delete;
    COutBytes& operator=(const COutBytes&) = delete;

    std::size_t Size() const { return m_n; }
    std::string_view View(std::size_t from) const { return std::string_view(m_s.data() + from, m_n - from); }
    std::string_view View(std::size_t from, std::size_t cb) const { return std::string_view(m_s.data() + from, cb); }

    void Append(const char* p, std::size_t cb)
    {
        if (m_s.size() - m_n < cb) Grow(cb);
        if (cb) std::memcpy(&m_s[m_n], p, cb);
        m_n += cb;
    }
    void Append(std::string_view s) { Append(s.data(), s.size()); }
    // The first cb of the cbBlock bytes at p, copied as one block of fixed
    // size (a few moves, not a call); the room behind the cursor takes it.
    template <std::size_t cbBlock>
    void AppendBlock(const char* p, std::size_t cb)
    {
        if (m_s.size() - m_n < cbBlock) Grow(cbBlock);
        std::memcpy(&m_s[m_n], p, cbBlock);
        m_n += cb;
    }
    void Push(char ch)
    {
        if (m_s.size() == m_n) Grow(1);
        m_s[m_n++] = ch;
    }
    // Room for cb bytes at the cursor, for a loop that writes through a
    // cursor of its own and gives back where it stopped.
    char* Room(std::size_t cb)
    {
        if (m_s.size() - m_n < cb) Grow(cb);
        return &m_s[m_n];
    }
    void Commit(const char* cursor) { m_n = static_cast<std::size_t>(cursor - m_s.data()); }
    // Copies the ASCII bytes of [p, p + cb) before `stop` in the same scan
    // that finds where they end; returns how many there were. The scan
    // stores whole blocks, so it goes through the room there is, a window
    // at a time.
    std::size_t AppendAsciiBefore(const char* p, std::size_t cb, char stop)
    {
        std::size_t n = 0;
        for (;;) {
            if (m_s.size() == m_n) Grow(1);
            const std::size_t cbWindow = std::min(cb - n, m_s.size() - m_n);
            const std::size_t k = byte_scan::CopyInRangeBefore(&m_s[m_n], p + n, cbWindow, '\0', '\x7F', stop);
            m_n += k;
            n += k;
            if (k < cbWindow || n == cb) return n;
        }
    }

    // The same for a run that is mostly a few bytes long (the text between
    // two commands): its first block is looked at before any window is.
    std::size_t AppendShortAsciiBefore(const char* p, std::size_t cb, char stop)
    {
        if (cb < kcbBlock || m_s.size() - m_n < kcbBlock) return AppendAsciiBefore(p, cb, stop);
        const std::size_t n = byte_scan::CopyInRangeBefore(&m_s[m_n], p, kcbBlock, '\0', '\x7F', stop);
        m_n += n;
        return n < kcbBlock ? n : n + AppendAsciiBefore(p + n, cb - n, stop);
    }

private:
    static constexpr std::size_t kcbBlock = 16;
    // Small enough to be zeroed in the cache just before it is written.
    static constexpr std::size_t kcbStep = 1024;
    void Grow(std::size_t cbMore) { m_s.resize(m_n + std::max(cbMore, kcbStep)); }

    std::string& m_s;
    std::size_t m_n;
};

// Writes cp in the page when the page holds it (ASCII and the characters
// that stand for bytes included); false, writing nothing, when it does not.
bool EncodeIfHeld(CEncodingMemo& memo, char32_t cp, const CCodePage& page, COutBytes& out)
{
    if (cp < 0x80) {
        out.Push(static_cast<char>(cp));
        return true;
    }
    unsigned char bytes[2];
    const int n = memo.Encode(page, cp, bytes);
    if (n == 1) {
        out.Push(static_cast<char>(bytes[0]));
        return true;
    }
    if (n > 0) {
        out.Append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(n));
        return true;
    }
    if (cp >= kByteEscapeFirst && cp <= kByteEscapeLast) {
        out.Push(static_cast<char>(cp - kByteEscapeFirst));
        return true;
    }
    return false;
}

bool CanEncode(const CCodePage& page, char32_t cp)
{
    unsigned char bytes[2];
    return cp < 0x80 || page.Encode(cp, bytes) > 0 || (cp >= kByteEscapeFirst && cp <= kByteEscapeLast);
}

// The character sets a character the page in force cannot hold is written
// in, in the order they are tried.
constexpr int kFallbackCharsets[] = {
    EASTEUROPE_CHARSET, RUSSIAN_CHARSET, GREEK_CHARSET,   TURKISH_CHARSET,     HEBREW_CHARSET,
    ARABIC_CHARSET,     BALTIC_CHARSET,  VIETNAMESE_CHARSET, THAI_CHARSET,     SHIFTJIS_CHARSET,
    GB2312_CHARSET,     HANGEUL_CHARSET, CHINESEBIG5_CHARSET,
};

// The first fallback set whose page holds cp; 0 (ANSI, never a fallback) when none does.
int CharsetHolding(char32_t cp)
{
    for (int charset : kFallbackCharsets) {
        const CCodePage* pPage = CCodePage::Get(CodePageOfCharset(charset));
        if (pPage && CanEncode(*pPage, cp)) return charset;
    }
    return ANSI_CHARSET;
}

// The font command in force (the base font's when none is) with another
// character set; empty when the command is too malformed to carry one.
std::string FontCommandWithCharset(const std::string& fontInForce, int charset)
{
    CFontCmd cmd(fontInForce.empty() ? CString(CFontCmd::s_defaultCmd.GetCmd())
                                     : CString(fontInForce.data(), static_cast<int>(fontInForce.size())));
    cmd.SetCharset(charset);
    if (cmd.GetCharset() != charset) return std::string();
    return std::string(cmd.GetCmd().GetString(), static_cast<std::size_t>(cmd.GetCmd().GetLength()));
}

// UTF-8 to old-format text in one pass over the bytes. Runs of ASCII are
// copied as they are; the framing bytes and the face separator are ASCII, so
// they are found among the bytes without decoding the characters before them.
class CUtf8ToOldEncoder {
public:
    CUtf8ToOldEncoder(std::string_view in, int defaultCodePage, std::string& out)
        : m_in(in), m_defaultPage(PageOrFallback(defaultCodePage)), m_pPage(&m_defaultPage), m_out(out),
          m_nFontMemo(FontMemoSizeFor(in.size())), m_fontMemo(new FontCommandEncoding[m_nFontMemo]()),
          m_fontMemoShift(64 - Log2(m_nFontMemo))
    {
        if (m_in.substr(0, 3) == "\xEF\xBB\xBF") m_pos = 3; // a byte-order mark is not text
    }

    OldTextFromUtf8Counts Run()
    {
        (void)RunUntil(std::string_view::npos);
        return m_counts;
    }

    // Encodes on until a step ends at `stop` (true: the encoding can go on
    // from there in the state StateHere() gives) or to the end of the text
    // (false: it went past `stop` inside a step, or `stop` is not before the
    // end). The steps of the text from m_pos on, and so its bytes, are
    // decided by m_pos and that state alone, wherever the steps before
    // ended: the text outside commands is taken a character or a block at a
    // time, and a command whole.
    bool RunUntil(std::size_t stop)
    {
        m_stop = stop;
        while (m_pos < m_in.size()) {
            if (m_pos == stop) return true;
            EncodeKnownSteps();
            if (m_pos == m_in.size()) break;
            if (m_pos == stop) return true;
            if (m_in[m_pos] != CDocCmd::chCmdStart) EncodeTextOutsideCommands();
            else EncodeCommand();
        }
        return false;
    }

    // All that decides the bytes of the text still to come, besides the
    // text: the page in force and the font command in force (the memos are
    // caches, whose answers are the same whatever they hold).
    struct State {
        const CCodePage* pPage = nullptr;
        bool bFontInForce = false;
        std::string fontInForce;
        bool operator==(const State& other) const
        {
            return pPage == other.pPage && bFontInForce == other.bFontInForce && fontInForce == other.fontInForce;
        }
    };
    State StateHere() const { return State{m_pPage, m_bFontInForce, FontInForce()}; }

    // Starts at `at` as the encoding would go on there after the font
    // command at `fontAt` (npos: none), its bytes written first: for the
    // second part of a text cut in two, where the command in force before
    // the cut is only a guess. Nothing is counted for the command.
    void StartAfterFontCommand(std::size_t fontAt, std::size_t at)
    {
        if (fontAt < m_in.size()) {
            m_pos = fontAt;
            EncodeFontCommand(FindOrEnd(m_in, CDocCmd::chCmdEnd, fontAt + 1));
            m_counts = OldTextFromUtf8Counts();
        }
        m_pos = at;
    }

    std::size_t OutputSize() const { return m_out.Size(); }
    const OldTextFromUtf8Counts& Counts() const { return m_counts; }

private:
    // Most text between commands is ASCII: it is copied in the one scan that
    // finds the next command, and the end of the text is looked for only
    // when a character past ASCII needs it.
    void EncodeTextOutsideCommands()
    {
        m_pos += m_out.AppendShortAsciiBefore(m_in.data() + m_pos, m_in.size() - m_pos, CDocCmd::chCmdStart);
        if (m_pos < m_in.size() && m_in[m_pos] != CDocCmd::chCmdStart)
            EncodeRange(FindOrEnd(m_in, CDocCmd::chCmdStart, m_pos), Region::textOutsideCommands);
    }

    enum class Region { bytes, text, textOutsideCommands };

    void EncodeCommand()
    {
        const std::size_t start = m_pos;
        const std::size_t end = FindOrEnd(m_in, CDocCmd::chCmdEnd, start + 1);
        const char type = start + 1 < m_in.size() ? m_in[start + 1] : '\0';
        if (type == CDocCmd::font) {
            EncodeFontCommand(end);
            return;
        }
        if (type == CDocCmd::comment) {
            EncodeRange(end, Region::text);
        } else {
            EncodeRange(end, Region::bytes);
        }
        if (end < m_in.size()) m_out.Push(CDocCmd::chCmdEnd);
        m_pos = end + 1;
    }

    // A font command's bytes are a function of its UTF-8 alone (its face name
    // is written in the page its own character set names), and a document
    // repeats a few font commands many times: the last ones met are kept.
    //
    // A command is kept as whole words with its 0x02, the bytes past the
    // 0x02 zeroed, and so are its bytes: one met again is known by a fixed
    // number of word compares, which also compare the lengths (the first
    // 0x02 ends both), and written by a fixed number of word stores. Its
    // bytes are never longer than its UTF-8 (a character of two or more
    // bytes becomes at most two). A command whose encoding counted bad
    // characters is not kept: it is rare, and its counts are then added
    // again by encoding it again.
    //
    // Thirty-two bytes hold a command with its size, colour, attributes and
    // a face name of some twenty letters: nearly every one. They are two
    // blocks, each compared and stored in one step; a longer command is
    // encoded afresh each time.
    static constexpr std::size_t kFontMemoWords = 4;
    static constexpr std::size_t kMaxMemoCommand = kFontMemoWords * 8;
    using MemoWords = std::array<std::uint64_t, kFontMemoWords>;
    // Aligned so that a slot's source is compared block by block as it lies.
    struct alignas(16) FontCommandEncoding {
        MemoWords source{};
        MemoWords bytes{};
        const CCodePage* pPage = nullptr;
        CCommonCharacters* pCommon = nullptr;  // of pPage
        std::size_t cbBytes = 0;   // with the 0x02
        std::size_t cbSource = 0;  // with the 0x02
        std::uint64_t pad[3] = {};  // to 128 bytes: a slot is found by a shift
        // A bit for each byte of the source, which a command met again must
        // have the same: it then ends at the same 0x02, the source's only
        // one. An empty slot asks for a first byte 0, which no command has
        // (they start with 0x01).
        std::uint64_t sourceBits = 1;
    };
    static_assert(sizeof(FontCommandEncoding) == 128, "a slot is found by a shift");
    static unsigned Log2(std::size_t powerOfTwo)
    {
        unsigned n = 0;
        while (powerOfTwo >> n > 1) ++n;
        return n;
    }
    // A slot per kilobyte of text, a power of two from 64 to 4096: a long
    // document uses thousands of font commands, a short one a few.
    static std::size_t FontMemoSizeFor(std::size_t cbText)
    {
        std::size_t n = 64;
        while (n < 4096 && n * 1024 < cbText) n *= 2;
        return n;
    }
    // For each length, the words that keep its first bytes and zero the rest.
    static constexpr std::array<MemoWords, kMaxMemoCommand + 1> kKeepFirst = [] {
        std::array<MemoWords, kMaxMemoCommand + 1> keep{};
        for (std::size_t cb = 0; cb <= kMaxMemoCommand; ++cb)
            for (std::size_t i = 0; i < cb; ++i) keep[cb][i / 8] |= std::uint64_t(0xFF) << (8 * (i % 8));
        return keep;
    }();
    // The k-th word of the command at p, cb bytes long, as the memo keeps it.
    static std::uint64_t MemoWordAt(const char* p, std::size_t cb, std::size_t k)
    {
        std::uint64_t word;
        std::memcpy(&word, p + 8 * k, 8);
        return word & kKeepFirst[cb][k];
    }
    // Whether the memo can keep the command at m_pos, its 0x02 at `end`: it
    // is not too long, not cut short by the end of the text, and not so near
    // that end that its words would be read past it.
    bool IsMemoCommand(std::size_t end) const
    {
        return end < m_in.size() && end + 1 - m_pos <= kMaxMemoCommand && m_in.size() - m_pos >= kMaxMemoCommand;
    }
    // The slot of a command is chosen by its first kcbFontMemoKey bytes as
    // they lie (size, colour, attributes and the face's first letters, which
    // tell the commands of a text apart nearly always), read as two words
    // that overlap, so that a command met again is found before its end is
    // and without cutting its bytes at it. A shorter command (a face name of
    // a letter or two) is chosen by the bytes after it too: it is found
    // again only when they are the same, and encoded again when they are
    // not, which gives the same bytes.
    static constexpr std::size_t kcbFontMemoKey = 14;
    static_assert(kcbFontMemoKey >= 8 && kcbFontMemoKey <= kMaxMemoCommand, "the key's words lie within the bytes a memo command may read");
    FontCommandEncoding& FontMemoSlotAt(const char* p) const
    {
        std::uint64_t first;
        std::uint64_t last;
        std::memcpy(&first, p, 8);
        std::memcpy(&last, p + kcbFontMemoKey - 8, 8);
        return m_fontMemo[static_cast<std::size_t>(byte_scan::HashOfWord(first ^ last) >> m_fontMemoShift)];
    }
    static bool Holds(const FontCommandEncoding& memo, const char* p, std::size_t cb)
    {
        std::uint64_t differ = 0;
        for (std::size_t k = 0; k < kFontMemoWords; ++k) differ |= MemoWordAt(p, cb, k) ^ memo.source[k];
        return differ == 0;
    }
#if RTFCONV_SCAN_SSE2
    // The memo's encoding of the font command at p, a command met before,
    // most of a document's commands; null for any other. Its bytes are
    // compared with the memo's as far as the memo's 0x02 (the memo keeps no
    // longer command), without a scan for its own end first; the
    // kMaxMemoCommand bytes from p must be readable.
    const FontCommandEncoding* RememberedFontCommandAt(const char* p) const
    {
        static_assert(kMaxMemoCommand == 32, "the memo's words in two blocks");
        const FontCommandEncoding& memo = FontMemoSlotAt(p);
        const __m128i* const held = reinterpret_cast<const __m128i*>(memo.source.data());
        const auto sameBits = [](const char* pBlock, const __m128i* pHeld) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pBlock));
            return static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_load_si128(pHeld)))));
        };
        const std::uint64_t same = sameBits(p, held) | sameBits(p + 16, held + 1) << 16;
        return (memo.sourceBits & ~same) == 0 ? &memo : nullptr;
    }

    // Its two bytes compared as one.
    static bool IsFontCommandAt(const char* p)
    {
        static constexpr char kFontStart[2] = {CDocCmd::chCmdStart, CDocCmd::font};
        return std::memcmp(p, kFontStart, sizeof kFontStart) == 0;
    }

    // A character of two or three bytes that the page holds, written as its
    // bytes (one or two: never more than its UTF-8); false, with nothing
    // done, for any other, which EncodeRange takes. The three bytes from p
    // must be readable.
    bool EncodeHeldCharacter(const char*& p, char*& w, CCommonCharacters& common)
    {
        const unsigned char b0 = static_cast<unsigned char>(p[0]);
        const unsigned char b1 = static_cast<unsigned char>(p[1]);
        if ((b1 & 0xC0) != 0x80) return false;
        if (b0 >= 0xC2 && b0 <= 0xDF) {
            const std::size_t n = common.Put(static_cast<char32_t>((b0 & 0x1F) << 6 | (b1 & 0x3F)), w, m_encodingMemo);
            if (n == 0) return false;
            w += n;
            p += 2;
            return true;
        }
        if (b0 < 0xE0 || b0 > 0xEF || (static_cast<unsigned char>(p[2]) & 0xC0) != 0x80) return false;
        const char32_t cp = static_cast<char32_t>((b0 & 0x0F) << 12 | (b1 & 0x3F) << 6 | (static_cast<unsigned char>(p[2]) & 0x3F));
        const std::size_t cb = 3;
        if (cp >= CCommonCharacters::kFirstPunctuation && cp <= CCommonCharacters::kLastPunctuation) {
            const std::size_t n = common.PutPunctuation(cp, w, m_encodingMemo);
            if (n == 0) return false;
            w += n;
            p += cb;
            return true;
        }
        // Overlong, or a surrogate: not UTF-8, which Next counts.
        if (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        unsigned char bytes[2];
        const int n = m_encodingMemo.Encode(common.Page(), cp, bytes);
        if (n <= 0) return false;
        w[0] = static_cast<char>(bytes[0]);
        w[1] = static_cast<char>(bytes[1]);
        w += n;
        p += cb;
        return true;
    }

    // A comment command at p (a numbering, a hyperlink) whose text past
    // ASCII the page in force holds: its ASCII copied as CopyAsciiCommand
    // does, and those characters written as in text. False, with p and w as
    // they were, at anything else (a character the page does not hold,
    // which becomes '?', counted; bytes that are not UTF-8; its end not
    // found in the blocks from before `limit` on).
    bool CopyHeldComment(const char*& p, char*& w, const char* limit, CCommonCharacters& common)
    {
        if (p[1] != CDocCmd::comment) return false;
        const __m128i commandEnds = byte_scan::Splat(CDocCmd::chCmdEnd);
        const char* q = p;
        char* v = w;
        while (q < limit) {
            const std::uint64_t stops = CopyBlockAsciiStops(q, v, commandEnds);
            if (stops == 0) {
                q += 16;
                v += 16;
                continue;
            }
            q += FirstStop(stops);
            v += FirstStop(stops);
            if (*q == CDocCmd::chCmdEnd) {
                p = q + 1;
                w = v + 1;
                return true;
            }
            if (!EncodeHeldCharacter(q, v, common)) return false;
        }
        return false;
    }

    // Nearly all of a document is a few letters of text, mostly ASCII,
    // between two font commands met before. One loop takes those through
    // cursors of its own: the state it changes (the page in force, the font
    // command in force) is kept in locals, which its stores through a char
    // cursor would otherwise make the compiler reload at every step, and the
    // output's room is made once per chunk of input rather than at each
    // step; a command that is all ASCII is copied as it is. It stops, on a
    // character or command boundary, at anything else (a character the page
    // in force does not hold as it is or that is not UTF-8, another command
    // with bytes past ASCII, a font command not in the memo, the last bytes
    // of the text, which its block reads would pass), for the steps below.
    //
    // No step writes more bytes than it reads (a remembered command's bytes
    // are never more than its UTF-8, the memo keeps no other), though its
    // block stores reach up to kcbStepStore bytes past its cursor: room for
    // the chunk and that many more holds every step of the chunk. The room
    // is zeroed as the string grows: a chunk no larger than the string's
    // own step keeps that a small block in the cache, not a long fill.
    static constexpr std::size_t kcbChunk = 1024;
    static constexpr std::size_t kcbStepStore = 64;
    void EncodeKnownSteps()
    {
        // The most a step reads: two blocks of text, and the bytes of the
        // remembered command it ends at, which is taken without going round
        // the loop again.
        constexpr std::size_t kcbLook = 32 + kMaxMemoCommand;
        static_assert(kcbStepStore >= 31 + kMaxMemoCommand, "every store of a step fits, a command begun past a chunk's limit too");
        if (m_in.size() - m_pos <= kcbLook) return;
        const char* const begin = m_in.data();
        // A look at or past the text's end less kcbLook reads past the
        // text; none starts at or past the stop either, while the encoding
        // is short of it: so text before a command at the stop, and a
        // command ending there, end the steps there.
        const std::size_t lastAt = m_in.size() - kcbLook;
        if (m_pos < m_stop && m_stop < lastAt) TakeKnownSteps<true>(begin + m_stop);
        else TakeKnownSteps<false>(begin + lastAt);
    }

    // The loop of EncodeKnownSteps, up to `last`, which is the stop when
    // bStopAhead. A remembered font command the text before it ends at is
    // taken at the limit of a chunk or past it, unless the stop is ahead:
    // it is read within kcbLook of the blocks of text begun before the
    // limit, and its bytes fit the room past the chunk's, after which the
    // chunk ends.
    template <bool bStopAhead>
    void TakeKnownSteps(const char* const last)
    {
        const char* const begin = m_in.data();
        const char* p = begin + m_pos;
        // The page in force is the last remembered command's, or the one
        // in force before the first.
        CCommonCharacters& commonBefore = CommonCharactersOf(*m_pPage);
        std::size_t fontAt = 0;
        std::size_t cbFont = 0;
        bool bFont = false;
        // The last remembered command of a chunk and where it went: the
        // font command in force, worked out once the chunk is done.
        const FontCommandEncoding* pFontMemo = nullptr;
        char* fontOut = nullptr;
        const __m128i commandStarts = byte_scan::Splat(CDocCmd::chCmdStart);
        bool bStopped = false;
        while (!bStopped && p < last) {
            const char* const limit = static_cast<std::size_t>(last - p) > kcbChunk ? p + kcbChunk : last;
            const std::size_t at = m_out.Size();
            char* const w0 = m_out.Room(static_cast<std::size_t>(limit - p) + kcbStepStore);
            char* w = w0;
            while (p < limit) {
                // Text up to a byte past ASCII or a command (a command at p
                // stops the first block at once): the word after a font
                // command is taken without a test of the byte it starts at.
                const std::uint64_t stops = CopyAsciiTextBlocks(p, w, limit, commandStarts);
                if (stops == 0) continue;
                p += FirstStop(stops);
                w += FirstStop(stops);
                // Another command at the limit is the next chunk's, or past
                // the stop: the loop's test ends the chunk.
                if (IsFontCommandAt(p)) {
                    if (bStopAhead && p >= limit) continue;
                    const FontCommandEncoding* const pMemo = RememberedFontCommandAt(p);
                    if (!pMemo) {
                        bStopped = true;
                        break;
                    }
                    pFontMemo = pMemo;
                    fontOut = w;
                    std::memcpy(w, pMemo->bytes.data(), kMaxMemoCommand);
                    w += pMemo->cbBytes;
                    p += pMemo->cbSource;
                    continue;
                }
                if (*p != CDocCmd::chCmdStart) {
                    if (EncodeHeldCharacter(p, w, pFontMemo ? *pFontMemo->pCommon : commonBefore)) continue;
                    bStopped = true;
                    break;
                }
                if (p >= limit) continue;
                if (CopyAsciiCommand(p, w, limit)) continue;
                if (CopyHeldComment(p, w, limit, pFontMemo ? *pFontMemo->pCommon : commonBefore)) continue;
                bStopped = true;
                break;
            }
            if (fontOut) {
                fontAt = at + static_cast<std::size_t>(fontOut - w0);
                cbFont = pFontMemo->cbBytes - 1;
                bFont = true;
                fontOut = nullptr;
            }
            m_out.Commit(w);
        }
        m_pos = static_cast<std::size_t>(p - begin);
        if (pFontMemo) m_pPage = pFontMemo->pPage;
        if (bFont) SetFontInForce(fontAt, cbFont);
    }
#else
    void EncodeKnownSteps() {}
#endif

    // The font command from m_pos to its 0x02 at `end` (or the end of the
    // text), with its 0x02.
    void EncodeFontCommand(std::size_t end)
    {
        const char* const pSource = m_in.data() + m_pos;
        const std::size_t cbSource = end + 1 - m_pos;
        FontCommandEncoding* const pMemo = IsMemoCommand(end) ? &FontMemoSlotAt(pSource) : nullptr;
        if (pMemo && Holds(*pMemo, pSource, cbSource)) {
            SetFontInForce(m_out.Size(), pMemo->cbBytes - 1);
            m_out.AppendBlock<kMaxMemoCommand>(reinterpret_cast<const char*>(pMemo->bytes.data()), pMemo->cbBytes);
            m_pPage = pMemo->pPage;
            m_pos = end + 1;
            return;
        }
        const OldTextFromUtf8Counts countsBefore = m_counts;
        const std::size_t face = FaceStart(m_pos, end);
        const std::size_t headStart = m_out.Size();
        EncodeRange(face, Region::bytes);
        m_pPage = &PageOfCharset(CharsetOfFontHead(m_out.View(headStart)), m_defaultPage);
        EncodeRange(end, Region::text);
        SetFontInForce(headStart, m_out.Size() - headStart);
        if (end < m_in.size()) m_out.Push(CDocCmd::chCmdEnd);
        m_pos = end + 1;
        const std::string_view bytes = m_out.View(headStart);
        const bool bCounted = m_counts.nInvalid != countsBefore.nInvalid || m_counts.nUnencodable != countsBefore.nUnencodable;
        // A command's bytes are never more than its UTF-8: EncodeKnownSteps
        // counts on it for the room it makes.
        if (!pMemo || bCounted || bytes.size() > kMaxMemoCommand || bytes.size() > cbSource) return;
        for (std::size_t k = 0; k < kFontMemoWords; ++k) pMemo->source[k] = MemoWordAt(pSource, cbSource, k);
        pMemo->bytes = MemoWords{};
        std::memcpy(pMemo->bytes.data(), bytes.data(), bytes.size());
        pMemo->cbBytes = bytes.size();
        pMemo->cbSource = cbSource;
        pMemo->sourceBits = (std::uint64_t(1) << cbSource) - 1;
        pMemo->pPage = m_pPage;
        pMemo->pCommon = &CommonCharactersOf(*m_pPage);
    }

    CCommonCharacters& CommonCharactersOf(const CCodePage& page)
    {
        for (const auto& pChars : m_common)
            if (&pChars->Page() == &page) return *pChars;
        m_common.push_back(std::make_unique<CCommonCharacters>(page));
        return *m_common.back();
    }

    // The font command in force is the last one written: where its bytes
    // are in the output is kept, not a copy of them.
    void SetFontInForce(std::size_t at, std::size_t cb)
    {
        m_fontInForceAt = at;
        m_cbFontInForce = cb;
        m_bFontInForce = true;
    }

    // Its bytes with their 0x02; empty before the first font command.
    std::string FontInForce() const
    {
        if (!m_bFontInForce) return std::string();
        return std::string(m_out.View(m_fontInForceAt, m_cbFontInForce)) + CDocCmd::chCmdEnd;
    }

    // Just past the face separator: the first ':' from the font command's
    // attributes on, counted in characters; `end` when there is none.
    std::size_t FaceStart(std::size_t start, std::size_t end) const
    {
        std::size_t i = start;
        for (int k = 0; k < CFontCmd::posAttributes && i < end; ++k) (void)NextUtf8(m_in, i);
        if (i >= end) return end;
        const std::size_t colon = FindOrEnd(m_in.substr(0, end), CFontCmd::chFaceSeparator, i);
        return colon < end ? colon + 1 : end;
    }

    // The next character, or kInvalid for a byte that is not UTF-8, which is
    // then written as it is and counted.
    char32_t Next(bool& bInvalid)
    {
        const std::size_t at = m_pos;
        // Most characters past ASCII in a text are two bytes long: those are
        // read here, the rest by NextUtf8.
        const unsigned char b = static_cast<unsigned char>(m_in[at]);
        if (b >= 0xC2 && b <= 0xDF && at + 1 < m_in.size() && (static_cast<unsigned char>(m_in[at + 1]) & 0xC0) == 0x80) {
            bInvalid = false;
            m_pos = at + 2;
            return static_cast<char32_t>((b & 0x1F) << 6 | (static_cast<unsigned char>(m_in[at + 1]) & 0x3F));
        }
        const char32_t cp = NextUtf8(m_in, m_pos);
        bInvalid = cp == kInvalid;
        if (bInvalid) {
            ++m_counts.nInvalid;
            return static_cast<unsigned char>(m_in[at]);
        }
        return cp;
    }

    void CopyAsciiRun(std::size_t end)
    {
        m_pos += m_out.AppendAsciiBefore(m_in.data() + m_pos, end - m_pos, '\0');
    }

    void Unencodable()
    {
        m_out.Push('?');
        ++m_counts.nUnencodable;
    }

    // The characters up to end: each one byte (what is past 0xFF becomes
    // '?'), or text in the page in force. Outside commands a run of
    // characters the page in force cannot hold is written in the font command
    // in force with a character set whose page holds them, and the command in
    // force follows it again; inside them such a character becomes '?'.
    void EncodeRange(std::size_t end, Region region)
    {
        while (m_pos < end) {
            CopyAsciiRun(end);
            if (m_pos >= end) break;
            bool bInvalid = false;
            const char32_t cp = Next(bInvalid);
            if (bInvalid) m_out.Push(static_cast<char>(cp));
            else if (region == Region::bytes && cp <= 0xFF) m_out.Push(static_cast<char>(cp));
            else if (region != Region::bytes && EncodeIfHeld(m_encodingMemo, cp, *m_pPage, m_out)) continue;
            else if (region == Region::textOutsideCommands) EncodeForeignRun(cp, end);
            else Unencodable();
        }
    }

    void EncodeForeignRun(char32_t first, std::size_t end)
    {
        const int charset = CharsetHolding(first);
        const std::string fontInForce = FontInForce();
        const std::string switched = charset == ANSI_CHARSET ? std::string() : FontCommandWithCharset(fontInForce, charset);
        if (switched.empty()) {
            Unencodable();
            return;
        }
        const CCodePage& page = PageOfCharset(charset, m_defaultPage);
        m_out.Append(switched);
        (void)EncodeIfHeld(m_encodingMemo, first, page, m_out);
        while (m_pos < end) {
            std::size_t next = m_pos;
            const char32_t cp = NextUtf8(m_in, next);
            if (cp == kInvalid || CanEncode(*m_pPage, cp) || !CanEncode(page, cp)) break;
            (void)EncodeIfHeld(m_encodingMemo, cp, page, m_out);
            m_pos = next;
        }
        if (fontInForce.empty()) m_out.Append(CFontCmd::s_defaultCmd.GetCmd().GetString(), static_cast<std::size_t>(CFontCmd::s_defaultCmd.GetCmd().GetLength()));
        else m_out.Append(fontInForce);
    }

    std::string_view m_in;
    std::size_t m_pos = 0;
    std::size_t m_stop = std::string_view::npos;  // where RunUntil stops; npos: nowhere
    const CCodePage& m_defaultPage;
    const CCodePage* m_pPage;
    COutBytes m_out;
    std::size_t m_fontInForceAt = 0;
    std::size_t m_cbFontInForce = 0;
    bool m_bFontInForce = false;
    OldTextFromUtf8Counts m_counts;
    std::size_t m_nFontMemo;
    std::unique_ptr<FontCommandEncoding[]> m_fontMemo;
    unsigned m_fontMemoShift;  // of a hash, to the bits that pick a slot
    CEncodingMemo m_encodingMemo;
    std::vector<std::unique_ptr<CCommonCharacters>> m_common;  // one for each page met, of the few a text uses
};

} // namespace

// --- decoding

COldTextUtf8Decoder::COldTextUtf8Decoder(int defaultCodePage)
    : m_pDefaultPage(&PageOrFallback(defaultCodePage)), m_pPage(m_pDefaultPage)
{
}

void COldTextUtf8Decoder::SetPage(const CCodePage& page)
{
    m_pPage = &page;
}

// Every font command sets the page of its character set, nearly always the
// one the command before set: the last answer is kept.
void COldTextUtf8Decoder::SetPageOfCharset(int charset)
{
    if (charset != m_lastCharset || !m_pLastCharsetPage) {
        m_lastCharset = charset;
        m_pLastCharsetPage = &PageOfCharset(charset < 0 ? DEFAULT_CHARSET : charset, *m_pDefaultPage);
    }
    SetPage(*m_pLastCharsetPage);
}

// The byte that ends the region of text the decoder is in.
char COldTextUtf8Decoder::RegionEnd() const
{
    return m_region == Region::text ? CDocCmd::chCmdStart : CDocCmd::chCmdEnd;
}

// Every byte of old-format text gives at most this many bytes of UTF-8 (a
// character of a page's, a byte's U+F0xx, a pair's character all lie below
// U+10000, but a character of four bytes would fit too); the decoder writes
// through a cursor into room for that many per byte, made once per piece.
constexpr std::size_t kcbUtf8PerByte = 4;

char* COldTextUtf8Decoder::PutHighByte(unsigned char b, char* out)
{
    HighByte& high = m_high[b - 0x80];
    if (high.pPage != m_pPage) {
        const char32_t cp = m_pPage->IsLeadByte(b) ? kReplacement : m_pPage->Single(b);
        high.n = static_cast<unsigned char>(EncodeUtf8(EncodesBackTo(*m_pPage, cp, b, 1) ? cp : kByteEscapeFirst + b, high.utf8));
        high.pPage = m_pPage;
    }
    // A block of four, of which the first n count: the room behind the
    // cursor takes it.
    std::memcpy(out, high.utf8, sizeof high.utf8);
    return out + high.n;
}

// A lead byte with the byte after it in the same region (-1 when the region
// ends there): the pair when it encodes back to both bytes, else the lead
// byte alone. Returns the number of bytes after the lead byte it took.
std::size_t COldTextUtf8Decoder::DecodeLead(unsigned char lead, int next, char*& out)
{
    if (next >= 0) {
        const unsigned char trail = static_cast<unsigned char>(next);
        const char32_t cp = m_pPage->Pair(lead, trail);
        if (EncodesBackTo(*m_pPage, cp, lead, 2, trail)) {
            out += EncodeUtf8(cp, out);
            return 1;
        }
    }
    out = PutHighByte(lead, out);
    return 0;
}

// Text in the page in force from piece[i] up to the terminator (or the end
// of the piece, a lead byte there waiting for the next piece); returns where
// it stopped.
std::size_t COldTextUtf8Decoder::DecodeTextUntil(std::string_view piece, std::size_t i, char terminator, char*& out)
{
    while (i < piece.size()) {
        // The ASCII is copied in the scan that finds its end.
        const std::size_t cbAscii = byte_scan::CopyInRangeBefore(out, piece.data() + i, piece.size() - i, '\0', '\x7F', terminator);
        out += cbAscii;
        i += cbAscii;
        if (i == piece.size() || piece[i] == terminator) break;
        const unsigned char b = static_cast<unsigned char>(piece[i]);
        if (!m_pPage->IsLeadByte(b)) {
            out = PutHighByte(b, out);
            ++i;
        } else if (i + 1 == piece.size()) {
            m_pendingLead = b;
            return piece.size();
        } else {
            const int next = piece[i + 1] == terminator ? -1 : static_cast<unsigned char>(piece[i + 1]);
            i += 1 + DecodeLead(b, next, out);
        }
    }
    return i;
}

// Bytes that are not text, up to the command's end: each one its own character.
std::size_t COldTextUtf8Decoder::DecodeBytes(std::string_view piece, std::size_t i, char*& out)
{
    while (i < piece.size()) {
        const std::size_t cbAscii = byte_scan::CopyInRangeBefore(out, piece.data() + i, piece.size() - i, '\0', '\x7F', CDocCmd::chCmdEnd);
        out += cbAscii;
        i += cbAscii;
        if (i == piece.size() || piece[i] == CDocCmd::chCmdEnd) break;
        out += EncodeUtf8(static_cast<unsigned char>(piece[i++]), out);
    }
    return i;
}

// A font command's bytes up to its face separator, each its own character;
// the separator sets the page of the face name and of the text after.
std::size_t COldTextUtf8Decoder::DecodeFontHead(std::string_view piece, std::size_t i, char*& out)
{
    // Every font command of the text passes here. ASCII is tested first:
    // only a byte past it can be a character set code. The cursor, the
    // offset and the character set are worked on in locals and stored once,
    // where the head or the piece ends.
    char* w = out;
    const char* const p = piece.data();
    std::size_t offset = m_cmdOffset;
    int headCharset = m_headCharset;
    bool bHeadEnded = false;
    for (; i < piece.size(); ++i, ++offset) {
        const unsigned char b = static_cast<unsigned char>(p[i]);
        if (b >= 0x80) {
            *w++ = static_cast<char>(0xC0 | (b >> 6));
            *w++ = static_cast<char>(0x80 | (b & 0x3F));
            if (headCharset < 0 && IsCharsetCodeAt(offset, b)) headCharset = CharsetOfCode(b);
            continue;
        }
        if (b == static_cast<unsigned char>(CDocCmd::chCmdEnd)) {
            bHeadEnded = true;
            break;
        }
        *w++ = static_cast<char>(b);
        if (b == static_cast<unsigned char>(CFontCmd::chFaceSeparator) &&
            offset >= static_cast<std::size_t>(CFontCmd::posAttributes)) {
            bHeadEnded = true;
            m_region = Region::fontFace;
            ++i;
            break;
        }
    }
    out = w;
    m_cmdOffset = offset;
    m_headCharset = headCharset;
    if (bHeadEnded) SetPageOfCharset(headCharset);
    return i;
}

// The memo slot of the command at p: from its first eight bytes (size,
// colour, attributes and the face's first letters; a short command's byte
// after it too), which tell the commands of a text apart nearly always. The
// memo's bytes say whether the command in the slot is this one.
std::size_t COldTextUtf8Decoder::FontCommandSlot(const char* p)
{
    std::uint64_t w;
    std::memcpy(&w, p, sizeof w);
    // The top bits of the product depend on every byte.
    static_assert(cFontCommandMemos == 128, "seven bits choose the slot");
    return static_cast<std::size_t>((w * 0x9E3779B97F4A7C15u) >> 57);
}

// The memo of the font command whose type letter is at p, with cbLeft bytes
// of the piece from p on; null when it is not remembered. A remembered
// command holds one 0x02, its last byte: the same bytes here are the whole
// command.
const COldTextUtf8Decoder::FontCommandMemo* COldTextUtf8Decoder::RememberedFontCommandAt(const char* p, std::size_t cbLeft) const
{
    if (cbLeft < cbFontCommandKey || m_fontMemo.empty()) return nullptr;
    const FontCommandMemo& memo = m_fontMemo[FontCommandSlot(p)];
    if (memo.cb == 0 || memo.cb > cbLeft) return nullptr;
#if RTFCONV_SCAN_SSE2
    // With the whole of the memo's bytes readable, the first cb of them are
    // compared two blocks at a time rather than in a call.
    static_assert(FontCommandMemo::cbMax == 32, "two blocks hold a remembered command");
    if (cbLeft >= FontCommandMemo::cbMax) {
        std::uint64_t same = 0;
        for (std::size_t k = 0; k < 2; ++k) {
            const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16 * k));
            const __m128i held = _mm_loadu_si128(reinterpret_cast<const __m128i*>(memo.bytes + 16 * k));
            same |= static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(here, held)))) << (16 * k);
        }
        const std::uint64_t first = (std::uint64_t(1) << memo.cb) - 1;
        return (same & first) == first ? &memo : nullptr;
    }
#endif
    return std::memcmp(memo.bytes, p, memo.cb) == 0 ? &memo : nullptr;
}

// The UTF-8 of a remembered command, and the state it leaves.
void COldTextUtf8Decoder::PutRememberedFontCommand(const FontCommandMemo& memo, char*& out)
{
    // Copied as a whole block (a few moves, not a call), of which cbUtf8
    // count: Feed's room holds a block more than the piece can give. Most
    // commands give a short block's worth.
    constexpr std::size_t cbShortBlock = 32;
    if (memo.cbUtf8 <= cbShortBlock) std::memcpy(out, memo.utf8, cbShortBlock);
    else std::memcpy(out, memo.utf8, sizeof memo.utf8);
    out += memo.cbUtf8;
    // The offset and the head's character set matter only inside a font
    // command, and the next one sets them at its start.
    SetPage(*memo.pPage);
    m_region = Region::text;
}

// Every font command of the text passes here: nearly all of them are a few
// commands met again and again. A command is decoded whole from its bytes
// alone (its head from offset 1, its face in the page its head sets), so the
// same bytes give the same UTF-8 and leave the same state. Returns false,
// with nothing done, when the command at piece[i] (its type letter) is not
// remembered; on true, i is past the command's 0x02.
bool COldTextUtf8Decoder::DecodeRememberedFontCommand(std::string_view piece, std::size_t& i, char*& out)
{
    const FontCommandMemo* const pMemo = RememberedFontCommandAt(piece.data() + i, piece.size() - i);
    if (!pMemo) return false;
    PutRememberedFontCommand(*pMemo, out);
    i += pMemo->cb;
    return true;
}

// Nearly all of a text is a few letters between two font commands met
// before: from piece[i], in the text region, one loop takes text up to a
// lead byte of the page in force, the commands the memo holds and the other
// commands that are all ASCII, without
// going through the regions a step at a time; it stops at anything else (a
// lead byte, another command, the last bytes of the piece, which its block
// reads would pass), where Feed's steps go on. Each step writes at most
// kcbUtf8PerByte bytes for each it reads, and a block past that, which
// Feed's room holds.
std::size_t COldTextUtf8Decoder::DecodeKnownSteps(std::string_view piece, std::size_t i, char*& out)
{
#if RTFCONV_SCAN_SSE2
    // A command's first byte, its type letter and the memo's two blocks.
    constexpr std::size_t kcbStepRead = 2 + FontCommandMemo::cbMax;
    if (piece.size() - i < kcbStepRead) return i;
    const char* const begin = piece.data();
    const char* const last = begin + (piece.size() - kcbStepRead);
    const char* p = begin + i;
    char* w = out;
    const __m128i commandStarts = byte_scan::Splat(CDocCmd::chCmdStart);
    while (p < last) {
        if (*p != CDocCmd::chCmdStart) {
            // Text up to a byte past ASCII or a command.
            const std::uint64_t stops = CopyAsciiBlocks(p, w, last, commandStarts);
            if (stops == 0) break;
            p += FirstStop(stops);
            w += FirstStop(stops);
            if (*p == CDocCmd::chCmdStart) continue;
            const unsigned char b = static_cast<unsigned char>(*p);
            if (m_pPage->IsLeadByte(b)) break;
            w = PutHighByte(b, w);
            ++p;
            continue;
        }
        if (p[1] != CDocCmd::font) {
            if (CopyAsciiCommand(p, w, last)) continue;
            break;
        }
        const FontCommandMemo* const pMemo = RememberedFontCommandAt(p + 1, FontCommandMemo::cbMax);
        if (!pMemo) break;
        *w++ = CDocCmd::chCmdStart;
        PutRememberedFontCommand(*pMemo, w);
        p += 1 + pMemo->cb;
    }
    out = w;
    return static_cast<std::size_t>(p - begin);
#else
    (void)piece;
    (void)out;
    return i;
#endif
}

// piece[start, end) is a font command just decoded whole, utf8 what it gave.
void COldTextUtf8Decoder::RememberFontCommand(std::string_view piece, std::size_t start, std::size_t end, std::string_view utf8)
{
    const std::size_t cb = end - start;
    if (piece.size() - start < cbFontCommandKey || cb > FontCommandMemo::cbMax || utf8.size() > sizeof FontCommandMemo::utf8)
        return;
    // Made at the first command remembered: a short text meets few.
    if (m_fontMemo.empty()) m_fontMemo.resize(cFontCommandMemos);
    FontCommandMemo& memo = m_fontMemo[FontCommandSlot(piece.data() + start)];
    memo.cb = static_cast<unsigned char>(cb);
    memo.cbUtf8 = static_cast<unsigned char>(utf8.size());
    memo.pPage = m_pPage;
    std::memcpy(memo.bytes, piece.data() + start, cb);
    std::memcpy(memo.utf8, utf8.data(), utf8.size());
}

void COldTextUtf8Decoder::Feed(std::string_view piece, std::string& out)
{
    if (piece.empty()) return;
    // Room for the most the piece can give, a lead byte left by the piece
    // before, and a remembered command's UTF-8 copied as a block of fixed
    // size. Written through a cursor, appended to out in one copy: the room
    // is zeroed only when it grows, not for every piece as out's would be.
    const std::size_t cbRoom = kcbUtf8PerByte * (piece.size() + 1) + sizeof FontCommandMemo::utf8;
    if (m_room.size() < cbRoom) m_room.resize(cbRoom);
    char* const begin = m_room.data();
    char* w = begin;
    std::size_t i = 0;
    if (m_pendingLead >= 0) {
        const int next = piece[0] == RegionEnd() ? -1 : static_cast<unsigned char>(piece[0]);
        const unsigned char lead = static_cast<unsigned char>(m_pendingLead);
        m_pendingLead = -1;
        i += DecodeLead(lead, next, w);
    }
    // A font command begun in this piece: where its bytes and its UTF-8
    // begin, to be remembered when it ends in the piece too.
    constexpr std::size_t npos = std::string_view::npos;
    std::size_t fontStart = npos;
    const char* fontOut = nullptr;
    while (i < piece.size()) {
        switch (m_region) {
        case Region::text:
            i = DecodeKnownSteps(piece, i, w);
            i = DecodeTextUntil(piece, i, CDocCmd::chCmdStart, w);
            if (i < piece.size()) {
                *w++ = CDocCmd::chCmdStart;
                ++i;
                m_region = Region::commandType;
            }
            continue;
        case Region::commandType:
            if (piece[i] == CDocCmd::font) {
                if (DecodeRememberedFontCommand(piece, i, w)) continue;
                fontStart = i;
                fontOut = w;
                m_region = Region::fontHead;
                m_cmdOffset = 1;
                m_headCharset = -1;
                continue;
            }
            m_region = piece[i] == CDocCmd::comment ? Region::comment : Region::bytes;
            continue;
        case Region::fontHead:
            i = DecodeFontHead(piece, i, w);
            if (m_region == Region::fontFace || i == piece.size()) continue;
            break;
        case Region::fontFace:
        case Region::comment:
            i = DecodeTextUntil(piece, i, CDocCmd::chCmdEnd, w);
            break;
        case Region::bytes:
            i = DecodeBytes(piece, i, w);
            break;
        }
        // At the command's end, or at the end of the piece inside it.
        if (i < piece.size()) {
            *w++ = CDocCmd::chCmdEnd;
            ++i;
            m_region = Region::text;
            if (fontStart != npos) {
                RememberFontCommand(piece, fontStart, i, std::string_view(fontOut, static_cast<std::size_t>(w - fontOut)));
                fontStart = npos;
            }
        }
    }
    out.append(begin, static_cast<std::size_t>(w - begin));
}

void COldTextUtf8Decoder::Finish(std::string& out)
{
    if (m_pendingLead >= 0) {
        char utf8[kcbUtf8PerByte];
        out.append(utf8, static_cast<std::size_t>(PutHighByte(static_cast<unsigned char>(m_pendingLead), utf8) - utf8));
    }
    m_pendingLead = -1;
    m_region = Region::text;
    SetPage(*m_pDefaultPage);
}

std::string OldTextToUtf8(std::string_view oldText, int defaultCodePage)
{
    std::string out;
    out.reserve(oldText.size() + oldText.size() / 4);
    COldTextUtf8Decoder decoder(defaultCodePage);
    decoder.Feed(oldText, out);
    decoder.Finish(out);
    return out;
}

// --- encoding

namespace {

// Room for the encoded text, which is seldom longer than its UTF-8 (only
// runs in another character set, with their font commands, make it longer).
std::string RoomFor(std::size_t cbUtf8)
{
    std::string out;
    // A large text is written once from front to back: in large pages from
    // its first byte (the string's room is its bytes less the NUL after them).
    out.reserve(LargeBlockSize(cbUtf8 + 1) - 1);
    AdviseLargePages(&out[0], out.capacity());
    return out;
}

// Where a text is cut in two: just before the first command from its middle
// on (or the last before it), where the text outside commands ends and the
// encoding of the command starts afresh; 0: not cut.
std::size_t SplitPoint(std::string_view utf8, const OldTextFromUtf8Options& options)
{
    if (options.nThreads < 2) return 0;
    if (options.splitAt) return options.splitAt < utf8.size() ? options.splitAt : 0;
    // At one megabyte a whole conversion is no faster when the other core is
    // busy part of the time; at two it is.
    if (utf8.size() < options.cbLeastToSplit || utf8.size() > options.cbMostToSplit) return 0;
    const std::size_t middle = utf8.size() / 2;
    std::size_t at = utf8.find(CDocCmd::chCmdStart, middle);
    if (at == std::string_view::npos) at = utf8.rfind(CDocCmd::chCmdStart, middle);
    return at == std::string_view::npos ? 0 : at;
}

// The last font command that starts before `at`: the one in force there,
// unless the text is malformed (which the first part's state then shows);
// npos when there is none.
std::size_t FontCommandBefore(std::string_view utf8, std::size_t at)
{
    for (std::size_t k = at; k-- > 0;) {
        k = utf8.rfind(CDocCmd::chCmdStart, k);
        if (k == std::string_view::npos) break;
        if (k + 1 < utf8.size() && utf8[k + 1] == CDocCmd::font) return k;
    }
    return std::string_view::npos;
}

// The second part of a text cut at `at`, encoded from a guess of the state
// there; its bytes follow those of the guessed font command. The guess is
// handed over under the lock; the rest is the helper's until it is joined.
struct SecondPart {
    std::string bytes;
    std::size_t cbGuess = 0;
    OldTextFromUtf8Counts counts;
    bool bDone = false;  // false: it failed (out of memory), and is not used

    std::mutex lock;
    std::condition_variable guessed;
    CUtf8ToOldEncoder::State guess;
    bool bGuessed = false;  // the guess is set, and the part is being encoded
    bool bFailed = false;   // no guess will come
    bool bDropped = false;  // the caller goes on alone: the part is not begun
};

void EncodeSecondPart(std::string_view utf8, int defaultCodePage, std::size_t at, SecondPart& part) noexcept
{
    try {
        {
            std::lock_guard<std::mutex> hold(part.lock);
            if (part.bDropped) return;
        }
        // The guessed font command's bytes first: a few dozen, seldom more.
        part.bytes = RoomFor(utf8.size() - at + 64);
        CUtf8ToOldEncoder encoder(utf8, defaultCodePage, part.bytes);
        encoder.StartAfterFontCommand(FontCommandBefore(utf8, at), at);
        part.cbGuess = encoder.OutputSize();
        {
            std::lock_guard<std::mutex> hold(part.lock);
            if (part.bDropped) return;
            part.guess = encoder.StateHere();
            part.bGuessed = true;
        }
        part.guessed.notify_one();
        part.counts = encoder.Run();
        part.bDone = true;
    } catch (...) {
        {
            std::lock_guard<std::mutex> hold(part.lock);
            part.bFailed = true;
        }
        part.guessed.notify_one();
    }
}

// Whether the second part is being encoded from a guess equal to the first
// part's state at the cut (null: the first part went past the cut). A
// second part not yet begun when the first is done (no core was free for
// it) is dropped: the calling thread then encodes on alone, rather than
// wait for the helper to take its turn on the same core. A cut forced for
// a test waits for it.
bool SecondPartGoesOnFrom(SecondPart& part, const CUtf8ToOldEncoder::State* pState, bool bWait)
{
    std::unique_lock<std::mutex> hold(part.lock);
    if (pState && bWait) part.guessed.wait(hold, [&part] { return part.bGuessed || part.bFailed; });
    part.bDropped = !part.bGuessed;
    return pState && part.bGuessed && part.guess == *pState;
}

// A thread joined however its scope is left: a running std::thread must
// not be destroyed.
struct CJoined {
    std::thread thread;
    ~CJoined()
    {
        if (thread.joinable()) thread.join();
    }
};

} // namespace

std::string OldTextFromUtf8(std::string_view utf8, int defaultCodePage, OldTextFromUtf8Counts* pCounts)
{
    std::string out = RoomFor(utf8.size());
    const OldTextFromUtf8Counts counts = CUtf8ToOldEncoder(utf8, defaultCodePage, out).Run();
    if (pCounts) *pCounts = counts;
    return out;
}

std::string OldTextFromUtf8(std::string_view utf8, int defaultCodePage, const OldTextFromUtf8Options& options,
                            OldTextFromUtf8Counts* pCounts)
{
    if (options.pbSplitUsed) *options.pbSplitUsed = false;
    const std::size_t at = SplitPoint(utf8, options);
    if (at == 0) return OldTextFromUtf8(utf8, defaultCodePage, pCounts);
    SecondPart second;
    CJoined helper;
    try {
        helper.thread = std::thread(EncodeSecondPart, utf8, defaultCodePage, at, std::ref(second));
    } catch (const std::system_error&) {
        return OldTextFromUtf8(utf8, defaultCodePage, pCounts);  // no thread to be had: one does it all
    }
    std::string out = RoomFor(utf8.size());
    OldTextFromUtf8Counts counts;
    bool bJoin = false;
    {
        CUtf8ToOldEncoder encoder(utf8, defaultCodePage, out);
        const bool bAtSplit = encoder.RunUntil(at);
        const CUtf8ToOldEncoder::State state = bAtSplit ? encoder.StateHere() : CUtf8ToOldEncoder::State();
        bJoin = SecondPartGoesOnFrom(second, bAtSplit ? &state : nullptr, options.splitAt != 0);
        // Alone to the end first: a helper that has begun is joined when
        // it is done, which it then mostly is.
        if (!bJoin) (void)encoder.Run();
        helper.thread.join();
        if (bJoin && !second.bDone) {
            bJoin = false;
            (void)encoder.Run();
        }
        counts = encoder.Counts();
    }
    if (bJoin) {
        out.append(second.bytes, second.cbGuess, std::string::npos);
        counts.nUnencodable += second.counts.nUnencodable;
        counts.nInvalid += second.counts.nInvalid;
    }
    if (options.pbSplitUsed) *options.pbSplitUsed = bJoin;
    if (pCounts) *pCounts = counts;
    return out;
}

} // namespace rtf_converter
