#include "rtfconverter/RTFParser.h"

#include <cstring>
#include <initializer_list>

#include "hostlibs/VQLogger.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/ReaderKeywords.h"
#include "rtfconverter/ReaderPlumbing.h"
#include "rtfconverter/RtfToUtf8.h"

namespace rtf_converter {

namespace {

inline bool IsAsciiLetter(char ch) { return static_cast<unsigned char>((ch | 0x20) - 'a') < 26; }
inline bool IsAsciiDigit(char ch) { return static_cast<unsigned char>(ch - '0') < 10; }
inline bool IsLineBreak(char ch) { return ch == '\r' || ch == '\n'; }

// The bytes that end a run of ordinary bytes: the ones the parse loop treats
// itself, and NUL, which ends the input of the byte-pointer sources.
struct CRunStopTable {
    bool stop[256] = {};
    constexpr CRunStopTable()
    {
        stop[static_cast<unsigned char>('\\')] = true;
        stop[static_cast<unsigned char>('{')] = true;
        stop[static_cast<unsigned char>('}')] = true;
        stop[static_cast<unsigned char>('\r')] = true;
        stop[static_cast<unsigned char>('\n')] = true;
        stop[0] = true;
    }
};
constexpr CRunStopTable kRunStops;

std::size_t OrdinaryRunLength(const char* p, std::size_t cb)
{
#if RTFCONV_SCAN_SSE2
    using byte_scan::Is;
    auto blockStops = [](__m128i v) {
        return _mm_or_si128(_mm_or_si128(_mm_or_si128(Is(v, '\\'), Is(v, '{')), _mm_or_si128(Is(v, '}'), Is(v, '\r'))),
                            _mm_or_si128(Is(v, '\n'), Is(v, '\0')));
    };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return byte_scan::LengthBefore(p, cb, blockStops,
                                   [](char ch) { return kRunStops.stop[static_cast<unsigned char>(ch)]; });
}

// The bytes that end a run the reader drops, line breaks and all: the ones
// that open or close a group or start a control word, and NUL.
std::size_t DroppedRunLength(const char* p, std::size_t cb)
{
#if RTFCONV_SCAN_SSE2
    using byte_scan::Is;
    auto blockStops = [](__m128i v) {
        return _mm_or_si128(_mm_or_si128(Is(v, '\\'), Is(v, '{')), _mm_or_si128(Is(v, '}'), Is(v, '\0')));
    };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return byte_scan::LengthBefore(p, cb, blockStops, [](char ch) {
        return ch == '\\' || ch == '{' || ch == '}' || ch == '\0';
    });
}

// A control word read straight from bytes in memory, as ParseRtfKeyword
// would read it through Get.
// Its text goes into a buffer of cbKeywordBuffer bytes: room for the longest
// word and its NUL, and for the 32 bytes the letters are copied in.
constexpr std::size_t cbKeywordBuffer = CRTFParser::maxKeywordLength + 2;
static_assert(cbKeywordBuffer >= 32, "a word's letters are copied 32 bytes at a time");
// The rest is numbers, apart from the text so that they stay in registers
// until the key is made from them where it is handed on. The key's head is
// made from the bytes as they were scanned (read back from the text, just
// written a piece at a time, the processor would wait for the writes to
// land).
struct KeywordAhead {
    std::uint64_t head;
    std::size_t cch;
    int param;
};

#if RTFCONV_SCAN_SSE2
// How many bytes of the block lead it that are ASCII letters (16 when all
// are). Folded to lower case and moved so that the letters are the 26
// lowest signed bytes, they are told apart by one compare.
inline std::size_t LeadingLetters(__m128i v)
{
    using byte_scan::Splat;
    const __m128i moved = _mm_add_epi8(_mm_or_si128(v, Splat(0x20)), Splat(static_cast<char>(0x80 - 'a')));
    const unsigned letters = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmplt_epi8(moved, Splat(-128 + 26))));
    return static_cast<std::size_t>(__builtin_ctz(~letters));  // bit 16 of ~letters is set
}
#endif

#if RTFCONV_SCAN_SSE2
// The second block of a word of 16 letters or more, which few words reach:
// out of line, so that the first block's constants are used once, from
// memory, rather than kept in registers for it.
RTFCONV_OUT_OF_LINE std::size_t CopyLettersPastSixteen(const char* p, char* szKeyword)
{
    const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(szKeyword + 16), hi);
    return LeadingLetters(hi);
}
#endif

// The head masks of words of 0 to 32 bytes, looked up rather than computed:
// one operand instead of a shift made from the length and a test for words
// of eight bytes and more.
struct CHeadMasks {
    std::uint64_t mask[33] = {};
    constexpr CHeadMasks()
    {
        for (std::size_t cch = 0; cch < 33; ++cch)
            mask[cch] = KeywordKey::HeadOf(~std::uint64_t(0), cch);
    }
};
constexpr CHeadMasks kHeadMasks;

// Copies the letters at p into szKeyword, their key's head into head, and
// returns how many lead the window, stopping at cchMax (the last byte of the
// window, or the length limit): one more than the limit allows, or letters up
// to the window's last byte, tell the caller to leave the word to the
// byte-by-byte path.
inline std::size_t CopyLettersAhead(const char* p, std::size_t cb, char* szKeyword, std::uint64_t& head)
{
#if RTFCONV_SCAN_SSE2
    // With 32 bytes in the window, two blocks hold every word the limit
    // allows and the byte after it; most words end in the first.
    if (cb >= 32) {
        const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(szKeyword), lo);
        std::size_t cch = LeadingLetters(lo);
        if (cch == 16)
            cch += CopyLettersPastSixteen(p, szKeyword);
        head = static_cast<std::uint64_t>(_mm_cvtsi128_si64(lo)) & kHeadMasks.mask[cch];
        return cch;
    }
#endif
    std::memset(szKeyword, 0, 8);  // the key's bytes past a short word
    const std::size_t cchMax = cb <= CRTFParser::maxKeywordLength ? cb - 1 : CRTFParser::maxKeywordLength;
    std::size_t i = 0;
    while (i < cchMax && IsAsciiLetter(p[i])) {
        szKeyword[i] = p[i];
        ++i;
    }
    std::memcpy(&head, szKeyword, sizeof head);
    head = KeywordKey::HeadOf(head, i);
    return i < cchMax || !IsAsciiLetter(p[i]) ? i : i + 1;
}

// Parses the word at p from [p, p + cb), whose cch letters CopyLettersAhead
// has copied into szKeyword and whose head it has made (at least one), and
// returns the bytes it takes, its delimiting space included. Only the common shapes
// are taken here: a word with its parameter and delimiter wholly inside the
// window and followed by an ordinary byte. Whatever meets one of the
// tokenizer's quirks (a NUL, the end of the input, a word at the length
// limit, a '-' without digits, a parameter that comes out as noParam) is
// left to ParseRtfKeyword, so that its result cannot differ: 0 then.
inline std::size_t ScanWordAhead(const char* p, std::size_t cb, std::size_t cch, char* szKeyword, KeywordAhead& kw)
{
    std::size_t i = cch;
    if (i > CRTFParser::maxKeywordLength || i >= cb || p[i] == '\0')
        return 0;
    szKeyword[i] = '\0';
    kw.cch = i;
    kw.param = CRTFParser::noParam;

    const bool bNegative = p[i] == '-';
    if (bNegative && (i + 1 == cb || !IsAsciiDigit(p[i + 1])))
        return 0;
    i += bNegative ? 1 : 0;
    if (IsAsciiDigit(p[i])) {
        unsigned uValue = 0;  // wraps as ParseParam's does
        for (; i < cb && IsAsciiDigit(p[i]); ++i)
            uValue = uValue * 10u + static_cast<unsigned>(p[i] - '0');
        if (i == cb || p[i] == '\0')
            return 0;
        kw.param = static_cast<int>(bNegative ? 0u - uValue : uValue);
        if (kw.param == CRTFParser::noParam)
            return 0;
    }
    return i + (p[i] == ' ' ? 1 : 0);
}

} // namespace

namespace {
// An object of its own, so that its address is no literal's.
const char s_szNoTokenWord[1] = {};
} // namespace

const KeywordKey CRTFParser::s_noTokenWord{s_szNoTokenWord, 0, 0};

void CRTFParser::Init()
{
    m_bStarted = true;
    m_cGroup = 0;
    m_cUnsavedGroups = 0;
}

bool CRTFParser::PushRtfState()
{
    ++m_cGroup;
    return true;
}

bool CRTFParser::PopRtfState()
{
    --m_cGroup;
    return true;
}

CByteCursor* CRTFParser::StockCursor() { return nullptr; }

// The stock cursor, moved by the parse loop itself. Its bytes end where its
// data ends, which stays put while a Parse lasts (only a stock reader's own
// construction or assignment sets it), so the end is taken once.
class CRTFParser::CCursorSource {
public:
    explicit CCursorSource(CByteCursor& cursor) : m_cursor(cursor) {}
    // Null only with 0 bytes (a cursor over no data).
    const char* Ahead(std::size_t& cb) const
    {
        const char* p = reinterpret_cast<const char*>(m_cursor.m_pRead);
        cb = static_cast<std::size_t>(End() - p);
        return p;
    }
    // Never past the end, whatever cb says.
    void Skip(std::size_t cb)
    {
        const std::size_t cbLeft = static_cast<std::size_t>(End() - reinterpret_cast<const char*>(m_cursor.m_pRead));
        m_cursor.m_pRead += cb < cbLeft ? cb : cbLeft;
    }
    // cb bytes of the offer Ahead last made, with no handler run since: all
    // of them are there, so the end needs no second look.
    void SkipOffered(std::size_t cb) { m_cursor.m_pRead += cb; }
    void MarkHere() { m_cursor.m_pMark = m_cursor.m_pRead; }
    // The stock reader's Get only steps over the byte it gives, so the loop
    // reads the first byte of a run of text itself too.
    static constexpr bool bReadsText = true;
    bool TakesWholeRuns() const { return m_cursor.m_bTakesWholeRuns; }
    static constexpr CByteCursor::KeywordWork keywordWork = CByteCursor::KeywordWork::reader;
    // A stock reader's handlers never open or close a group: its group
    // count changes only at the braces the loop reads.
    static constexpr bool bGroupsAtBracesOnly = true;

private:
    // Read afresh each time, never kept: a stream reader refills its buffer
    // in place inside a handler (a ParseChar reading ahead, a Get at the
    // buffer's end), and its cursor then spans other bytes.
    const char* End() const { return reinterpret_cast<const char*>(m_cursor.m_pData) + m_cursor.m_cbData; }

    CByteCursor& m_cursor;
};

// The stock cursor of a reader whose TranslateKeyword the loop knows
// (CByteCursor::m_keywordWork): a loop of its own for each, with that work
// for the words it reads inlined, keeps the other readers' loop as it was.
class CRTFParser::CBaseKeywordsSource : public CCursorSource {
public:
    using CCursorSource::CCursorSource;
    static constexpr CByteCursor::KeywordWork keywordWork = CByteCursor::KeywordWork::baseReader;
};

class CRTFParser::CUtf8KeywordsSource : public CCursorSource {
public:
    using CCursorSource::CCursorSource;
    static constexpr CByteCursor::KeywordWork keywordWork = CByteCursor::KeywordWork::utf8Reader;
};

// Any other source, through its virtual handlers.
class CRTFParser::CHandlerSource {
public:
    explicit CHandlerSource(CRTFParser& parser) : m_parser(parser) {}
    // Nothing offered comes back as 0 bytes too, whatever the reader's
    // RunAhead left in cb, so that the loops over structure test cb alone.
    const char* Ahead(std::size_t& cb) const
    {
        const char* p = m_parser.RunAhead(cb);
        if (!p)
            cb = 0;
        return p;
    }
    void Skip(std::size_t cb) { m_parser.SkipAhead(cb); }
    void SkipOffered(std::size_t cb) { Skip(cb); }
    void MarkHere() { m_parser.MarkBacktrack(0); }
    // A run's first byte goes through Get, as a derived reader overriding it
    // expects.
    static constexpr bool bReadsText = false;
    static constexpr bool TakesWholeRuns() { return false; }
    static constexpr CByteCursor::KeywordWork keywordWork = CByteCursor::KeywordWork::reader;
    // A derived reader's handler may do anything to the group count.
    static constexpr bool bGroupsAtBracesOnly = false;

private:
    CRTFParser& m_parser;
};

inline const char* CRTFParser::SourceAhead(std::size_t& cb)
{
    return m_cursor.p ? CCursorSource(*m_cursor.p).Ahead(cb) : CHandlerSource(*this).Ahead(cb);
}

inline void CRTFParser::SourceSkip(std::size_t cb)
{
    if (m_cursor.p)
        CCursorSource(*m_cursor.p).Skip(cb);
    else
        CHandlerSource(*this).Skip(cb);
}

void CRTFParser::Parse(bool& bMore)
{
    bMore = false;
    m_cursor.p = StockCursor();
    if (m_bStarted) {
        VQASSERT(m_cGroup > 0);
        InitBuffer();
    } else {
        Init();
    }
    MarkBacktrack(0);

    for (;;) {
        const Step step = ParseStructure();
        if (step == Step::refused) {
            bMore = true;
            return;
        }
        if (step == Step::ended)
            return;
        char ch = 0;
        if (Get(ch) < 0)
            return;
        bMore = !ParseByte(ch);
        // Runs after every byte, CR and LF included: the document must open
        // with '{' as its very first byte, and nothing after the outermost
        // '}' is read.
        if (m_cGroup < 1 || bMore)
            return;
    }
}

CRTFParser::Step CRTFParser::ParseStructure()
{
    using Work = CByteCursor::KeywordWork;
    if (!m_cursor.p)
        return ParseStructureAhead(CHandlerSource(*this));
    switch (m_cursor.p->m_keywordWork) {
    case Work::baseReader:
        return ParseStructureAhead(CBaseKeywordsSource(*m_cursor.p));
    case Work::utf8Reader:
        return ParseStructureAhead(CUtf8KeywordsSource(*m_cursor.p));
    case Work::reader:
        break;
    }
    return ParseStructureAhead(CCursorSource(*m_cursor.p));
}

bool CRTFParser::ParseByte(char ch)
{
    switch (ch) {
    case '\n':
    case '\r':
        return true;
    case '\\':
        m_bSkipNextChar = false;
        MarkBacktrack(1);
        if (!ParseKeyword()) {
            Backtrack(-1);
            return false;
        }
        return true;
    case '{':
        m_bSkipNextChar = false;
        OpenGroup();
        return true;
    case '}':
        m_bSkipNextChar = false;
        CloseGroup();
        return true;
    default:
        return ParseChar(ch) && ParseOrdinaryRun();
    }
}

// The bytes that shape the document, one after another, taken from the
// source's offer without a Get each: what ParseByte does with them, the read
// position moved as Get would have moved it. NUL is left to Get, and so is
// text unless the source is a stock reader's cursor
// (CCursorSource::bReadsText).
template <class TSource>
CRTFParser::Step CRTFParser::ParseStructureAhead(TSource source)
{
    // Outside the outermost group the loop stops after every byte: there
    // (the document's first byte) Get and ParseByte take it. Inside, when
    // only the braces change the group count, only a '}' can end the
    // document, and the count is tested after that alone.
    static_assert(!TSource::bReadsText || TSource::bGroupsAtBracesOnly, "text is read here only inside the document");
    if (TSource::bGroupsAtBracesOnly && m_cGroup < 1)
        return Step::other;
    for (;;) {
        std::size_t cb = 0;
        const char* p = source.Ahead(cb);
        if (cb == 0)
            return Step::other;
        switch (p[0]) {
        case '\n':
        case '\r': {
            // Outside the outermost group the loop stops after every byte.
            std::size_t cbBreaks = 1;
            if (m_cGroup >= 1)
                while (cbBreaks < cb && IsLineBreak(p[cbBreaks]))
                    ++cbBreaks;
            source.SkipOffered(cbBreaks);
            break;
        }
        case '{':
            source.SkipOffered(1);
            m_bSkipNextChar = false;
            OpenGroup();
            break;
        case '}':
            source.SkipOffered(1);
            m_bSkipNextChar = false;
            CloseGroup();
            if (m_cGroup < 1)
                return Step::ended;
            break;
        case '\\':
            m_bSkipNextChar = false;
            source.MarkHere();
            if (!ParseKeywordAhead(source, p + 1, cb - 1, 1)) {
                Backtrack(-1);
                return Step::refused;
            }
            break;
        case '\0':
            return Step::other;
        default:
            // What ParseByte does with a byte of text, its Get spared (inside
            // the outermost group, which the stock source is in here).
            if (!TSource::bReadsText)
                return Step::other;
            if (!ParseTextAhead(source, p, cb))
                return Step::refused;
            break;
        }
        if (!TSource::bGroupsAtBracesOnly && m_cGroup < 1)
            return Step::ended;
    }
}

// A reader whose ParseRun takes a run from its first byte gets the whole
// run, up to the next byte the loop treats itself (the loop passes over the
// line breaks then, and hands it the next run): ParseRun takes the run as
// its ParseChar would take each byte. Any other reader's ParseChar takes the
// first byte, and ParseRun the rest.
template <class TSource>
inline bool CRTFParser::ParseTextAhead(TSource source, const char* p, std::size_t cb)
{
    if (source.TakesWholeRuns())
        return ParseRun(p, OrdinaryRunLength(p, cb));
    source.SkipOffered(1);
    return ParseChar(p[0]) && ParseOrdinaryRun();
}

const char* CRTFParser::RunAhead(std::size_t& cb) const
{
    cb = 0;
    return nullptr;
}

void CRTFParser::SkipAhead(std::size_t cb)
{
    char ch = 0;
    for (; cb > 0; --cb)
        Get(ch);
}

// Reads the bytes through Get, as the parse loop would: a source that offers
// runs but whose Get differs from its offer still sees its own protocol. A
// ParseChar may read bytes itself (the old-format reader takes a picture's
// hex digits in pairs), so the run ends where the read position leaves its
// bytes, not after cb calls.
bool CRTFParser::ParseRun(const char* p, std::size_t cb)
{
    char ch = 0;
    for (;;) {
        std::size_t cbAhead = 0;
        const char* pRead = RunAhead(cbAhead);
        if (!pRead || pRead < p || pRead >= p + cb)
            return true;
        if (Get(ch) < 0)
            return true;
        if (!ParseChar(ch))
            return false;
    }
}

bool CRTFParser::ParseOrdinaryRun()
{
    // Outside the outermost group the loop stops after every byte: a run
    // would read on past where it stops.
    if (m_cGroup < 1)
        return true;
    for (;;) {
        std::size_t cbAhead = 0;
        const char* p = SourceAhead(cbAhead);
        if (!p)
            return true;
        const std::size_t cbRun = OrdinaryRunLength(p, cbAhead);
        if (cbRun > 0 && !ParseRun(p, cbRun))
            return false;
        // The loop passes over line breaks and nothing else; so the run goes
        // on across them (text and hex data come in lines).
        if (cbRun == cbAhead || !IsLineBreak(p[cbRun]))
            return true;
        if (cbRun > 0 && !(p = SourceAhead(cbAhead)))  // where the run's handler left the read position
            return true;
        std::size_t cbBreaks = 0;
        while (cbBreaks < cbAhead && IsLineBreak(p[cbBreaks]))
            ++cbBreaks;
        if (cbBreaks == 0)
            return true;
        SourceSkip(cbBreaks);
    }
}

void CRTFParser::SkipDroppedBytes(const char* p, std::size_t cb)
{
    std::size_t cbAhead = 0;
    const char* pAhead = SourceAhead(cbAhead);
    if (pAhead == p && cbAhead > cb)
        cb += DroppedRunLength(p + cb, cbAhead - cb);
    SourceSkip(cb);
}

// Each saved group costs a record of the reader's formatting, so a document
// of nothing but '{' would take memory many times its size. Past the depth
// limit groups are counted, which keeps the braces balanced and the end of
// the document where it was, but save nothing: the deepest saved group's
// state serves them, and its '}' restores what they changed.
void CRTFParser::OpenGroup()
{
    const std::size_t cDepth = static_cast<std::size_t>(m_cGroup > 0 ? m_cGroup : 0);
    if (!WithinLimit(cDepth + 1, static_cast<std::size_t>(m_limits.maxDepth), limitDepth)) {
        ++m_cUnsavedGroups;
        ++m_cGroup;
        return;
    }
    PushRtfState();
}

void CRTFParser::CloseGroup()
{
    if (m_cUnsavedGroups > 0) {
        --m_cUnsavedGroups;
        --m_cGroup;
        return;
    }
    PopRtfState();
}

void CRTFParser::SetLimits(const ReadLimits& limits)
{
    m_limits = limits;
    // A document needs its outermost group, and a colour table its automatic
    // entry, whatever the caller asks for; a length is at least 0.
    for (int* pCount : {&m_limits.maxDepth, &m_limits.maxFontEntries, &m_limits.maxColorEntries})
        *pCount = *pCount < 1 ? 1 : *pCount;
    for (int* pLength : {&m_limits.maxFontNameLength, &m_limits.maxFieldText, &m_limits.maxNumberingText})
        *pLength = *pLength < 0 ? 0 : *pLength;
}

bool CRTFParser::WithinLimit(std::size_t cNew, std::size_t limit, ReadLimitKind kind)
{
    if (cNew <= limit)
        return true;
    NoteLimitReached(kind);
    return false;
}

void CRTFParser::NoteLimitReached(ReadLimitKind kind)
{
    if (m_limitsReached & kind)
        return;
    m_limitsReached |= kind;
    VQTRACE("RTF reader: %s limit reached\n", ReadLimitName(kind));
}

bool CRTFParser::ParseKeyword()
{
    std::size_t cbAhead = 0;
    const char* p = RunAhead(cbAhead);
    return p ? ParseKeywordAhead(CHandlerSource(*this), p, cbAhead, 0) : ParseRtfKeyword();
}

// The read position is cbBefore bytes before p, the byte after the
// backslash, and moves over them with the word's bytes. The key is made here,
// where the word's length is known and its bytes are padded, for the table
// lookup TranslateKeyword makes (TokenWordKey).
template <class TSource>
inline bool CRTFParser::ParseKeywordAhead(TSource source, const char* p, std::size_t cb, std::size_t cbBefore)
{
    if (cb == 0)
        return ParseKeywordThroughGet(cbBefore);
    // The letters are counted first: no letter is the rare case.
    char szKeyword[cbKeywordBuffer];
    KeywordAhead kw;
    const std::size_t cch = CopyLettersAhead(p, cb, szKeyword, kw.head);
    if (cch == 0)
        return p[0] == '\0' ? ParseKeywordThroughGet(cbBefore) : ParseSymbolAhead(source, p, cb, cbBefore);
    const std::size_t cbTaken = ScanWordAhead(p, cb, cch, szKeyword, kw);
    if (cbTaken == 0)
        return ParseKeywordThroughGet(cbBefore);
    source.SkipOffered(cbBefore + cbTaken);  // within the offer p came from
    const KeywordKey key{szKeyword, kw.cch, kw.head};
    return TranslateTokenWord(source, key, kw.param);
}

bool CRTFParser::ParseKeywordThroughGet(std::size_t cbBefore)
{
    if (cbBefore > 0)
        SourceSkip(cbBefore);
    return ParseRtfKeyword();
}

// Out of line: few words are symbols, and the common path keeps fewer
// registers without it.
// A \'hh with both digits in the offer, read by a stock text reader where
// its word goes to the core's row for it (outside a skipped destination, and
// for the UTF-8 reader outside a \uN fallback too), is what that row does
// (ProcessSpecialChar, which both readers keep), without the handler's
// calls and its second look at the offer; the plain-text reader skips the
// lookup too. Anywhere else the symbol is looked up as any other: in a
// skipped destination the digits are left to the loop as text.
template <class TSource>
RTFCONV_OUT_OF_LINE bool CRTFParser::ParseSymbolAhead(TSource source, const char* p, std::size_t cb, std::size_t cbBefore)
{
    using Work = CByteCursor::KeywordWork;
    const char ch = p[0];
    if constexpr (TSource::keywordWork != Work::reader) {
        if (ch == '\'' && cb >= 3) {
            const int high = CBaseRTFParser::HexDigitValue(p[1]);
            const int low = CBaseRTFParser::HexDigitValue(p[2]);
            if (high >= 0 && low >= 0 && TakesHexEscapeRow(source)) {
                source.SkipOffered(cbBefore + 3);
                auto* pReader = static_cast<CBaseRTFParser*>(this);
                pReader->m_bOptionalDest = false;  // as DispatchRow leaves it for a row's word
                return pReader->TakeHexEscape(high * 16 + low);
            }
        }
    }
    // \* outside a skipped destination marks the group's optional
    // destination for the stock plain-text reader, which keeps the core's
    // row for it (MarkOptionalSection).
    if constexpr (TSource::keywordWork == Work::baseReader) {
        auto* pReader = static_cast<CBaseRTFParser*>(this);
        if (ch == '*' && pReader->m_rds != rdsSkip) {
            source.SkipOffered(cbBefore + 1);
            pReader->m_bOptionalDest = true;
            return true;
        }
    }
    source.SkipOffered(cbBefore + 1);  // the symbol is in the offer
    if (ch == '\\' || ch == '{' || ch == '}')
        return ParseChar(ch);
    const char szSymbol[2] = {ch, '\0'};
    const KeywordKey key{szSymbol, 1, KeywordKey::HeadOfByte(ch)};
    return TranslateTokenWord(source, key, 0);
}

template <class TSource>
inline bool CRTFParser::TakesHexEscapeRow(TSource)
{
    if constexpr (TSource::keywordWork == CByteCursor::KeywordWork::utf8Reader) {
        const KeywordKey hexEscape{"'", 1, KeywordKey::HeadOfByte('\'')};
        return static_cast<CRTFToUTF8Parser*>(this)->TakesHexEscapeRow(hexEscape);
    }
    return static_cast<CBaseRTFParser*>(this)->m_rds != rdsSkip;
}

// The key lasts as long as the call. A handler that reads another word
// meanwhile leaves no key behind, so that the outer word is then looked up
// by its text (no reader looks a word up after its handler has run).
// A stock reader whose TranslateKeyword the loop knows (a CBaseRTFParser or
// a CRTFToUTF8Parser, then, as the source says) has that work done here, the
// key set only for a call of a handler: most words call none.
template <class TSource>
inline bool CRTFParser::TranslateTokenWord(TSource, const KeywordKey& key, int param)
{
    using Work = CByteCursor::KeywordWork;
    int number = 0;
    if constexpr (TSource::keywordWork == Work::baseReader) {
        number = static_cast<CBaseRTFParser*>(this)->TokenWordRow(key);
        if (number == CBaseRTFParser::passOver)
            return true;
    } else if constexpr (TSource::keywordWork == Work::utf8Reader) {
        number = static_cast<CRTFToUTF8Parser*>(this)->TokenWordNumber(key);
        if (number == CRTFToUTF8Parser::passOver)
            return true;
    }
    m_tokenWord.pKey = &key;
    bool bOk = true;
    if constexpr (TSource::keywordWork == Work::baseReader)
        bOk = static_cast<CBaseRTFParser*>(this)->DispatchRow(number, key.sz, param);
    else if constexpr (TSource::keywordWork == Work::utf8Reader)
        bOk = static_cast<CRTFToUTF8Parser*>(this)->TranslateNumberedKeyword(number, key.sz, param);
    else
        bOk = TranslateKeyword(key.sz, param);
    m_tokenWord.pKey = &s_noTokenWord;
    return bOk;
}

bool CRTFParser::ParseRtfKeyword()
{
    char ch = 0;
    if (Get(ch) < 0)
        return true; // a backslash at the end of input is dropped

    if (!IsAsciiLetter(ch)) {
        if (ch == '\\' || ch == '{' || ch == '}')
            return ParseChar(ch);
        const char szSymbol[2] = {ch, '\0'};
        return TranslateKeyword(szSymbol, 0);
    }

    // The results of these reads are ignored on purpose: at the end of input
    // a failed read leaves ch as it was, so a word cut off by the end is
    // padded with its last letter up to the length limit.
    char szKeyword[maxKeywordLength + 2];
    int cch = 0;
    while (IsAsciiLetter(ch) && cch < maxKeywordLength) {
        szKeyword[cch++] = ch;
        Get(ch);
    }
    szKeyword[cch] = '\0';

    const int param = ParseParam(ch);
    if (param == noParam && ch != ' ')
        Backtrack(1);
    return TranslateKeyword(szKeyword, param);
}

int CRTFParser::ParseParam(char ch)
{
    if (ch == '\0')
        Get(ch); // a NUL right after a control word is passed over

    bool bNegative = false;
    if (ch == '-') {
        bNegative = true;
        if (Get(ch) < 0)
            return noParam;
    }

    int value = noParam;
    if (IsAsciiDigit(ch)) {
        // 32-bit arithmetic that wraps silently, however many digits follow;
        // done unsigned so that the wrap is defined.
        unsigned uValue = 0;
        bool bEnd = false;
        while (IsAsciiDigit(ch) && !bEnd) {
            uValue = uValue * 10u + static_cast<unsigned>(ch - '0');
            // A failed read may leave the last digit in ch, and the loop
            // would then add it forever at the end of input: there the end
            // delimits the number instead. (A failed read that delivers a
            // byte, such as a NUL, ends the number as any other byte does.)
            bEnd = Get(ch) < 0 && IsAsciiDigit(ch);
        }
        if (bNegative)
            uValue = 0u - uValue;
        value = static_cast<int>(uValue);
        if (bEnd)
            return value;
    }

    if (ch == ' ')
        return value; // the delimiting space is consumed
    if (value == noParam)
        return value;
    Backtrack(1);
    return value;
}

} // namespace rtf_converter
