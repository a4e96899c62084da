#include "rtfconverter/RTFParser.h"

#include <cstring>
#include <initializer_list>

#include "hostlibs/VQLogger.h"
#include "rtfconverter/ByteScan.h"

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

// A control word or control symbol read straight from bytes in memory, as
// ParseRtfKeyword would read it through Get.
struct KeywordAhead {
    char szKeyword[CRTFParser::maxKeywordLength + 2];
    int param = CRTFParser::noParam;
    std::size_t cbTaken = 0;     // the bytes after the backslash it takes
    bool bEscapedChar = false;   // \\, \{ or \}: a plain character
};

// Parses the word after a backslash from [p, p + cb). Only the common shapes
// are taken here: a word with its parameter and delimiter wholly inside the
// window and followed by an ordinary byte. Whatever meets one of the
// tokenizer's quirks (a NUL, the end of the input, a word at the length
// limit, a '-' without digits, a parameter that comes out as noParam) is
// left to ParseRtfKeyword, so that its result cannot differ.
bool ScanKeywordAhead(const char* p, std::size_t cb, KeywordAhead& kw)
{
    if (cb == 0 || p[0] == '\0')
        return false;
    if (!IsAsciiLetter(p[0])) {
        kw.szKeyword[0] = p[0];
        kw.szKeyword[1] = '\0';
        kw.param = 0;
        kw.cbTaken = 1;
        kw.bEscapedChar = p[0] == '\\' || p[0] == '{' || p[0] == '}';
        return true;
    }
    // The letters are copied as they are scanned; a word that reaches the
    // length limit or the end of the window is abandoned.
    const std::size_t cchMax = cb <= CRTFParser::maxKeywordLength ? cb - 1 : CRTFParser::maxKeywordLength;
    std::size_t i = 0;
    while (i < cchMax && IsAsciiLetter(p[i])) {
        kw.szKeyword[i] = p[i];
        ++i;
    }
    if (p[i] == '\0' || IsAsciiLetter(p[i]))
        return false;
    kw.szKeyword[i] = '\0';

    const bool bNegative = p[i] == '-';
    if (bNegative && (i + 1 == cb || !IsAsciiDigit(p[i + 1])))
        return false;
    i += bNegative ? 1 : 0;
    if (IsAsciiDigit(p[i])) {
        unsigned uValue = 0;  // wraps as ParseParam's does
        for (; i < cb && IsAsciiDigit(p[i]); ++i)
            uValue = uValue * 10u + static_cast<unsigned>(p[i] - '0');
        if (i == cb || p[i] == '\0')
            return false;
        kw.param = static_cast<int>(bNegative ? 0u - uValue : uValue);
        if (kw.param == CRTFParser::noParam)
            return false;
    }
    kw.cbTaken = i + (p[i] == ' ' ? 1 : 0);
    return true;
}

} // namespace

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

void CRTFParser::Parse(bool& bMore)
{
    bMore = false;
    if (m_bStarted) {
        VQASSERT(m_cGroup > 0);
        InitBuffer();
    } else {
        Init();
    }
    MarkBacktrack(0);

    char ch = 0;
    for (;;) {
        if (Get(ch) < 0)
            return;
        switch (ch) {
        case '\n':
        case '\r':
            break;
        case '\\':
            m_bSkipNextChar = false;
            MarkBacktrack(1);
            if (!ParseKeyword()) {
                Backtrack(-1);
                bMore = true;
            }
            break;
        case '{':
            m_bSkipNextChar = false;
            OpenGroup();
            break;
        case '}':
            m_bSkipNextChar = false;
            CloseGroup();
            break;
        default:
            if (!ParseChar(ch) || !ParseOrdinaryRun())
                bMore = true;
            break;
        }
        // Runs after every byte, CR and LF included: the document must open
        // with '{' as its very first byte, and nothing after the outermost
        // '}' is read.
        if (m_cGroup < 1 || bMore)
            return;
    }
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
        const char* p = RunAhead(cbAhead);
        if (!p)
            return true;
        const std::size_t cbRun = OrdinaryRunLength(p, cbAhead);
        if (cbRun > 0 && !ParseRun(p, cbRun))
            return false;
        // The loop passes over line breaks and nothing else; so the run goes
        // on across them (text and hex data come in lines).
        if (cbRun == cbAhead || !IsLineBreak(p[cbRun]))
            return true;
        if (cbRun > 0 && !(p = RunAhead(cbAhead)))  // where the run's handler left the read position
            return true;
        std::size_t cbBreaks = 0;
        while (cbBreaks < cbAhead && IsLineBreak(p[cbBreaks]))
            ++cbBreaks;
        if (cbBreaks == 0)
            return true;
        SkipAhead(cbBreaks);
    }
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
    KeywordAhead kw;
    if (!p || !ScanKeywordAhead(p, cbAhead, kw))
        return ParseRtfKeyword();
    SkipAhead(kw.cbTaken);
    if (kw.bEscapedChar)
        return ParseChar(kw.szKeyword[0]);
    return TranslateKeyword(kw.szKeyword, kw.param);
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
