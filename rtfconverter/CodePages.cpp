#include "rtfconverter/CodePages.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>
#include <new>

#include "rtfconverter/DingbatFonts.h"

namespace rtf_converter {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// --- the Symbol font

// What the Symbol font shows for each byte, as Unicode characters: the Adobe
// Symbol encoding as the Unicode consortium publishes it
// (MAPPINGS/VENDORS/ADOBE/symbol.txt), with the standard characters for the
// bracket and arrow extension pieces (U+239B-U+23AE, U+23AF, U+23D0) where that
// table has Adobe private-use codes, the serif and sans-serif forms of (R),
// (C) and TM both as the plain signs, and 0xA0 the euro sign that later
// versions of the font carry. 0: the font defines nothing there.
constexpr char16_t kSymbol20To7F[0x60] = {
    0x0020, 0x0021, 0x2200, 0x0023, 0x2203, 0x0025, 0x0026, 0x220B,  // 0x20
    0x0028, 0x0029, 0x2217, 0x002B, 0x002C, 0x2212, 0x002E, 0x002F,  // 0x28
    0x0030, 0x0031, 0x0032, 0x0033, 0x0034, 0x0035, 0x0036, 0x0037,  // 0x30
    0x0038, 0x0039, 0x003A, 0x003B, 0x003C, 0x003D, 0x003E, 0x003F,  // 0x38
    0x2245, 0x0391, 0x0392, 0x03A7, 0x0394, 0x0395, 0x03A6, 0x0393,  // 0x40
    0x0397, 0x0399, 0x03D1, 0x039A, 0x039B, 0x039C, 0x039D, 0x039F,  // 0x48
    0x03A0, 0x0398, 0x03A1, 0x03A3, 0x03A4, 0x03A5, 0x03C2, 0x03A9,  // 0x50
    0x039E, 0x03A8, 0x0396, 0x005B, 0x2234, 0x005D, 0x22A5, 0x005F,  // 0x58
    0xF8E5, 0x03B1, 0x03B2, 0x03C7, 0x03B4, 0x03B5, 0x03C6, 0x03B3,  // 0x60
    0x03B7, 0x03B9, 0x03D5, 0x03BA, 0x03BB, 0x03BC, 0x03BD, 0x03BF,  // 0x68
    0x03C0, 0x03B8, 0x03C1, 0x03C3, 0x03C4, 0x03C5, 0x03D6, 0x03C9,  // 0x70
    0x03BE, 0x03C8, 0x03B6, 0x007B, 0x007C, 0x007D, 0x223C, 0,       // 0x78
};
constexpr char16_t kSymbolA0ToFF[0x60] = {
    0x20AC, 0x03D2, 0x2032, 0x2264, 0x2044, 0x221E, 0x0192, 0x2663,  // 0xA0
    0x2666, 0x2665, 0x2660, 0x2194, 0x2190, 0x2191, 0x2192, 0x2193,  // 0xA8
    0x00B0, 0x00B1, 0x2033, 0x2265, 0x00D7, 0x221D, 0x2202, 0x2022,  // 0xB0
    0x00F7, 0x2260, 0x2261, 0x2248, 0x2026, 0x23D0, 0x23AF, 0x21B5,  // 0xB8
    0x2135, 0x2111, 0x211C, 0x2118, 0x2297, 0x2295, 0x2205, 0x2229,  // 0xC0
    0x222A, 0x2283, 0x2287, 0x2284, 0x2282, 0x2286, 0x2208, 0x2209,  // 0xC8
    0x2220, 0x2207, 0x00AE, 0x00A9, 0x2122, 0x220F, 0x221A, 0x22C5,  // 0xD0
    0x00AC, 0x2227, 0x2228, 0x21D4, 0x21D0, 0x21D1, 0x21D2, 0x21D3,  // 0xD8
    0x25CA, 0x2329, 0x00AE, 0x00A9, 0x2122, 0x2211, 0x239B, 0x239C,  // 0xE0
    0x239D, 0x23A1, 0x23A2, 0x23A3, 0x23A7, 0x23A8, 0x23A9, 0x23AA,  // 0xE8
    0,      0x232A, 0x222B, 0x2320, 0x23AE, 0x2321, 0x239E, 0x239F,  // 0xF0
    0x23A0, 0x23A4, 0x23A5, 0x23A6, 0x23AB, 0x23AC, 0x23AD, 0,       // 0xF8
};

// Control bytes stay themselves; a byte the font leaves undefined gives the
// private-use code U+F000 + byte under which Windows shows a symbol font's
// glyph.
char32_t SymbolCharacter(unsigned b)
{
    char16_t cp = 0;
    if (b < 0x20)
        return b;
    if (b < 0x80)
        cp = kSymbol20To7F[b - 0x20];
    else if (b >= 0xA0)
        cp = kSymbolA0ToFF[b - 0xA0];
    return cp ? cp : 0xF000 + b;
}

// --- Western (1252)

// The page of nearly every document and the one a reader or writer starts
// from: compiled in, so that a conversion in it never loads iconv's modules
// (two shared objects, a good part of a short run). 0x00-0x7F and 0xA0-0xFF
// are the same numbers in Unicode; this is the rest as glibc's CP1252 reads
// it, U+FFFD for the five bytes it leaves undefined. A test holds the table
// to iconv's.
constexpr int kWesternCodePage = 1252;
constexpr char16_t kWestern80To9F[0x20] = {
    0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 0x80
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD,  // 0x88
    0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 0x90
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178,  // 0x98
};

char32_t WesternCharacter(unsigned b)
{
    return b >= 0x80 && b < 0xA0 ? kWestern80To9F[b - 0x80] : b;
}

// --- iconv

// iconv's names for the code pages it does not know as "CP<number>". The
// double-byte Macintosh pages are read as the Windows pages of the same
// standards (Shift-JIS, Big5, KS C 5601, GB 2312), with the few single bytes
// where the Mac differs in kMacOverrides; Mac Turkish is Mac Roman but for
// six letters.
struct CodePageName {
    int codePage;
    const char* szIconvName;
};
constexpr CodePageName kIconvNames[] = {
    {874, "WINDOWS-874"}, {10000, "MACINTOSH"}, {10001, "CP932"}, {10002, "CP950"},
    {10003, "CP949"}, {10007, "MAC-CYRILLIC"}, {10008, "CP936"}, {10017, "MACUKRAINIAN"},
    {10029, "MAC-CENTRALEUROPE"}, {10079, "MAC-IS"}, {10081, "MACINTOSH"},
    {20127, "ANSI_X3.4-1968"}, {20866, "KOI8-R"}, {21866, "KOI8-U"},
    {28591, "ISO-8859-1"}, {28592, "ISO-8859-2"}, {28593, "ISO-8859-3"}, {28594, "ISO-8859-4"},
    {28595, "ISO-8859-5"}, {28596, "ISO-8859-6"}, {28597, "ISO-8859-7"}, {28598, "ISO-8859-8"},
    {28599, "ISO-8859-9"}, {28603, "ISO-8859-13"}, {28605, "ISO-8859-15"}, {65001, "UTF-8"},
};

struct ByteOverride {
    int codePage;
    unsigned char b;
    char32_t cp;
};
constexpr ByteOverride kMacOverrides[] = {
    {10001, 0x80, 0x005C}, {10001, 0xA0, 0x00A0}, {10001, 0xFD, 0x00A9}, {10001, 0xFE, 0x2122},
    {10001, 0xFF, 0x2026},
    {10081, 0xDA, 0x011E}, {10081, 0xDB, 0x011F}, {10081, 0xDC, 0x0130}, {10081, 0xDD, 0x0131},
    {10081, 0xDE, 0x015E}, {10081, 0xDF, 0x015F},
};

// Pages whose characters take more than two bytes; CCodePage reads one or two.
bool IsWiderThanTwoBytes(int codePage) { return codePage == 65001; }

// One conversion descriptor from a code page to UTF-32LE, converting one
// character at a time from the initial state.
class CIconvDecoder {
public:
    enum Result { resChar, resInvalid, resIncomplete };

    explicit CIconvDecoder(const std::string& name) : m_cd(iconv_open("UTF-32LE", name.c_str())) {}
    ~CIconvDecoder()
    {
        if (IsOpen())
            iconv_close(m_cd);
    }
    CIconvDecoder(const CIconvDecoder&) = delete;
    CIconvDecoder& operator=(const CIconvDecoder&) = delete;

    bool IsOpen() const { return m_cd != reinterpret_cast<iconv_t>(-1); }

    Result Decode(const unsigned char* pb, std::size_t cb, char32_t& cp)
    {
        iconv(m_cd, nullptr, nullptr, nullptr, nullptr);
        char* pIn = const_cast<char*>(reinterpret_cast<const char*>(pb));
        std::size_t cbIn = cb;
        unsigned char out[32];
        char* pOut = reinterpret_cast<char*>(out);
        std::size_t cbOut = sizeof out;
        if (iconv(m_cd, &pIn, &cbIn, &pOut, &cbOut) == static_cast<std::size_t>(-1))
            return errno == EINVAL ? resIncomplete : resInvalid;
        if (cbIn != 0)
            return resInvalid;
        // Pages that combine a letter with a following accent (1258) hold
        // the letter back until they see what follows: only when no character
        // has come out is it asked for. (The next call starts from the
        // initial state whatever this one leaves, and tables are built a
        // character at a time, so one call fewer counts.)
        if (sizeof out - cbOut < 4)
            iconv(m_cd, nullptr, nullptr, &pOut, &cbOut);
        if (sizeof out - cbOut < 4)
            return resInvalid;
        cp = CharacterAt(out);
        return resChar;
    }

    // How a run of pairs decoded in one call ended: every pair read, a pair
    // iconv refused (invalid as a pair of its own), or output that cannot be
    // told apart pair by pair, whose pairs are then decoded one at a time.
    enum RunEnd { runAll, runInvalid, runUnsure };
    struct PairRun {
        std::size_t cPairs;  // the pairs decoded, one character each
        RunEnd end;
    };

    // Back to the initial state.
    void Reset() { iconv(m_cd, nullptr, nullptr, nullptr, nullptr); }

    // Decodes nPairs two-byte sequences in one call, the character of each
    // into out, so that a trail table takes a call per invalid pair rather
    // than two calls per pair. Where iconv gives each pair read exactly one
    // character and stops, if at all, at the start of a pair, the pairs read
    // are the characters Decode gives them one at a time (pages that hold a
    // character back or give a pair two come out with the counts unequal, and
    // are left to Decode). A page whose pairs left a state behind would read
    // differently here; no page the library builds does, and a test holds
    // every table to Decode's pairs.
    PairRun DecodePairs(const unsigned char* pb, std::size_t nPairs, char32_t* out)
    {
        char* pIn = const_cast<char*>(reinterpret_cast<const char*>(pb));
        std::size_t cbIn = 2 * nPairs;
        // Room for two characters a pair: more than one a pair is unsure anyway.
        unsigned char buffer[256 * 2 * 4];
        char* pOut = reinterpret_cast<char*>(buffer);
        std::size_t cbOut = std::min(sizeof buffer, 2 * 4 * nPairs);
        const bool bAll = iconv(m_cd, &pIn, &cbIn, &pOut, &cbOut) != static_cast<std::size_t>(-1);
        const int error = errno;
        const std::size_t cbRead = 2 * nPairs - cbIn;
        const std::size_t cbWritten = static_cast<std::size_t>(reinterpret_cast<unsigned char*>(pOut) - buffer);
        if (cbRead % 2 != 0 || cbWritten != cbRead / 2 * 4)
            return {0, runUnsure};
        for (std::size_t i = 0; i < cbRead / 2; ++i)
            out[i] = CharacterAt(buffer + 4 * i);
        if (bAll)
            return {cbRead / 2, cbIn == 0 ? runAll : runUnsure};
        return {cbRead / 2, error == EILSEQ || error == EINVAL ? runInvalid : runUnsure};
    }

private:
    static char32_t CharacterAt(const unsigned char* p)
    {
        return static_cast<char32_t>(p[0]) | static_cast<char32_t>(p[1]) << 8 | static_cast<char32_t>(p[2]) << 16
            | static_cast<char32_t>(p[3]) << 24;
    }

    iconv_t m_cd;
};

} // namespace

std::string IconvNameOfCodePage(int codePage)
{
    for (const CodePageName& name : kIconvNames)
        if (name.codePage == codePage)
            return name.szIconvName;
    char sz[16];
    std::snprintf(sz, sizeof sz, "CP%d", codePage);
    return sz;
}

int CodePageOfIconvName(const std::string& name)
{
    std::string upper;
    for (char ch : name)
        upper += static_cast<char>(ch >= 'a' && ch <= 'z' ? ch - 'a' + 'A' : ch);
    // The first page of a name is its own (10000 before the Mac pages read
    // as MACINTOSH); "CP" names are their numbers (932, not 10001).
    for (const CodePageName& row : kIconvNames)
        if (upper == row.szIconvName && upper.compare(0, 2, "CP") != 0)
            return row.codePage;
    for (const char* szPrefix : {"CP", "WINDOWS-", "IBM"}) {
        const std::size_t cch = std::strlen(szPrefix);
        if (upper.compare(0, cch, szPrefix) != 0 || upper.size() == cch || upper.size() > cch + 5)
            continue;
        int number = 0;
        for (std::size_t i = cch; i < upper.size(); ++i) {
            if (upper[i] < '0' || upper[i] > '9')
                return 0;
            number = number * 10 + (upper[i] - '0');
        }
        return number;
    }
    return 0;
}

int CCodePage::DingbatPageOfFontName(const char* szName)
{
    const DingbatFont font = DingbatFontOfName(szName);
    if (font != dingbatNone)
        return dingbatBase + font;
    while (*szName == ' ')
        ++szName;
    return std::strncmp(szName, "Symbol", 6) == 0 && (szName[6] == '\0' || szName[6] == ' ') ? symbol : 0;
}

// --- code pages

const CCodePage* CCodePage::Get(int codePage)
{
    static std::mutex s_mutex;
    // Pages iconv does not know are kept as null, so that they are asked for once.
    static std::map<int, std::unique_ptr<CCodePage>> s_pages;

    const bool bDingbats = codePage > dingbatBase && codePage <= dingbatBase + dingbatWebdings;
    if (codePage <= 0 || (codePage > 0xFFFF && !bDingbats) || IsWiderThanTwoBytes(codePage))
        return nullptr;
    // A reader asks for the same page character after character; pages live
    // as long as the process and are never replaced, so the one this thread
    // last got needs no lock.
    thread_local int t_lastCodePage = 0;
    thread_local const CCodePage* t_pLastPage = nullptr;
    if (codePage == t_lastCodePage)
        return t_pLastPage;
    std::lock_guard<std::mutex> lock(s_mutex);
    auto it = s_pages.find(codePage);
    if (it == s_pages.end())
        it = s_pages.emplace(codePage, Build(codePage)).first;
    t_lastCodePage = codePage;
    t_pLastPage = it->second.get();
    return t_pLastPage;
}

const CCodePage& CCodePage::Fallback()
{
    static const std::unique_ptr<CCodePage> s_pLatin1 = [] {
        std::unique_ptr<CCodePage> p(new CCodePage);
        for (unsigned b = 0; b < 256; ++b)
            p->m_single[b] = b;
        return p;
    }();
    return *s_pLatin1;
}

std::unique_ptr<CCodePage> CCodePage::Build(int codePage)
{
    std::unique_ptr<CCodePage> p(new (std::nothrow) CCodePage);
    if (!p)
        return p;
    p->m_number = codePage;
    if (codePage == symbol) {
        for (unsigned b = 0; b < 256; ++b)
            p->m_single[b] = SymbolCharacter(b);
        return p;
    }
    if (codePage > dingbatBase) {
        // A picture the table has no character for keeps the private-use code
        // Windows shows it under.
        const DingbatFont font = static_cast<DingbatFont>(codePage - dingbatBase);
        for (unsigned b = 0; b < 256; ++b) {
            const char32_t cp = DingbatCharacter(font, static_cast<unsigned char>(b));
            p->m_single[b] = cp ? cp : 0xF000 + b;
        }
        return p;
    }

    p->m_iconvName = IconvNameOfCodePage(codePage);
    if (codePage == kWesternCodePage) {
        for (unsigned b = 0; b < 256; ++b)
            p->m_single[b] = WesternCharacter(b);
        return p;
    }
    CIconvDecoder decoder(p->m_iconvName);
    if (!decoder.IsOpen())
        return nullptr;
    for (unsigned b = 0; b < 256; ++b) {
        const unsigned char byte = static_cast<unsigned char>(b);
        char32_t cp = kReplacement;
        switch (decoder.Decode(&byte, 1, cp)) {
        case CIconvDecoder::resChar:
            p->m_single[b] = cp;
            break;
        case CIconvDecoder::resIncomplete:
            p->m_bLead[b] = true;
            p->m_single[b] = kReplacement;
            break;
        case CIconvDecoder::resInvalid:
            p->m_single[b] = kReplacement;
            break;
        }
    }
    for (const ByteOverride& row : kMacOverrides) {
        if (row.codePage == codePage) {
            p->m_single[row.b] = row.cp;
            p->m_bLead[row.b] = false;
        }
    }
    return p;
}

char32_t CCodePage::Pair(unsigned char lead, unsigned char trail) const
{
    if (!m_bLead[lead])
        return invalidPair;
    const char32_t* trails = TrailTable(lead);
    return trails ? trails[trail] : invalidPair;
}

const char32_t* CCodePage::TrailTable(unsigned char lead) const
{
    std::call_once(m_trailOnce[lead], [this, lead] { BuildTrailTable(lead); });
    return m_trail[lead].get();
}

void CCodePage::BuildTrailTable(unsigned char lead) const
{
    std::unique_ptr<char32_t[]> table(new (std::nothrow) char32_t[256]);
    CIconvDecoder decoder(m_iconvName);
    if (!table || !decoder.IsOpen())
        return;
    unsigned char pairs[2 * 256];
    for (unsigned trail = 0; trail < 256; ++trail) {
        pairs[2 * trail] = lead;
        pairs[2 * trail + 1] = static_cast<unsigned char>(trail);
    }
    // The pairs in runs up to the next invalid one, from the state the one
    // before leaves (the initial state: iconv refuses a pair before reading
    // any of it); once a run is unsure, the rest a pair at a time.
    decoder.Reset();
    std::size_t trail = 0;
    while (trail < 256) {
        const CIconvDecoder::PairRun run = decoder.DecodePairs(pairs + 2 * trail, 256 - trail, table.get() + trail);
        trail += run.cPairs;
        if (run.end == CIconvDecoder::runInvalid)
            table[trail++] = invalidPair;
        else if (run.end == CIconvDecoder::runUnsure)
            break;
    }
    for (; trail < 256; ++trail) {
        char32_t cp = 0;
        table[trail] = decoder.Decode(pairs + 2 * trail, 2, cp) == CIconvDecoder::resChar ? cp : invalidPair;
    }
    m_trail[lead] = std::move(table);
}

// The slot of cp in an open-addressed table of a power of two slots: the one
// holding it, or the free one where it belongs. The table is never full (at
// most half its slots are used), so the probe ends.
std::size_t CCodePage::EncodingSlotOf(const std::vector<EncodingSlot>& slots, char32_t cp)
{
    const std::size_t mask = slots.size() - 1;
    const std::uint32_t hash = static_cast<std::uint32_t>(cp) * 0x9E3779B1u;
    std::size_t i = (hash ^ hash >> 16) & mask;
    while (slots[i].cp != cp && slots[i].cp != invalidPair)
        i = (i + 1) & mask;
    return i;
}

void CCodePage::BuildEncoding() const
{
    // Single bytes first, then pairs in byte order: where a page gives one
    // character two forms, the first is written.
    std::vector<EncodingSlot> forms;
    for (unsigned b = 0x80; b < 256; ++b)
        if (!m_bLead[b] && m_single[b] != kReplacement)
            forms.push_back({m_single[b], static_cast<unsigned short>(b)});
    for (unsigned lead = 0x80; lead < 256; ++lead) {
        const char32_t* trails = m_bLead[lead] ? TrailTable(static_cast<unsigned char>(lead)) : nullptr;
        if (!trails)
            continue;
        for (unsigned trail = 0; trail < 256; ++trail)
            if (trails[trail] != invalidPair && trails[trail] != kReplacement)
                forms.push_back({trails[trail], static_cast<unsigned short>(lead << 8 | trail)});
    }
    std::size_t cSlots = 16;
    while (cSlots < 2 * forms.size())
        cSlots *= 2;
    m_encoding.assign(cSlots, EncodingSlot{invalidPair, 0});
    for (const EncodingSlot& form : forms) {
        EncodingSlot& slot = m_encoding[EncodingSlotOf(m_encoding, form.cp)];
        if (slot.cp == invalidPair)
            slot = form;
    }
}

int CCodePage::Encode(char32_t cp, unsigned char out[2]) const
{
    std::call_once(m_encodingOnce, [this] { BuildEncoding(); });
    // invalidPair marks the free slots: no page has bytes for it.
    if (cp == invalidPair)
        return 0;
    const EncodingSlot& slot = m_encoding[EncodingSlotOf(m_encoding, cp)];
    if (slot.cp != cp)
        return 0;
    if (slot.bytes < 0x100) {
        out[0] = static_cast<unsigned char>(slot.bytes);
        return 1;
    }
    out[0] = static_cast<unsigned char>(slot.bytes >> 8);
    out[1] = static_cast<unsigned char>(slot.bytes & 0xFF);
    return 2;
}

namespace {

// The code page of each \fcharsetN; 0: the document's own page.
struct CharsetPage {
    int charset;
    int codePage;
};
constexpr CharsetPage kCharsetPages[] = {
    {0, 0},        // ANSI: the document's page
    {1, 0},        // default: the document's page
    {2, CCodePage::symbol},
    {77, 10000},   // Macintosh Roman
    {78, 10001},   // Macintosh Japanese
    {79, 10003},   // Macintosh Korean
    {80, 10008},   // Macintosh Simplified Chinese
    {81, 10002},   // Macintosh Traditional Chinese
    {84, 10004},   // Macintosh Arabic
    {83, 10005},   // Macintosh Hebrew
    {85, 10006},   // Macintosh Greek
    {86, 10081},   // Macintosh Turkish
    {87, 10021},   // Macintosh Thai
    {88, 10029},   // Macintosh Central European
    {89, 10007},   // Macintosh Cyrillic
    {128, 932},    // Shift-JIS
    {129, 949},    // Hangul
    {130, 1361},   // Johab
    {134, 936},    // GB 2312
    {136, 950},    // Big5
    {161, 1253},   // Greek
    {162, 1254},   // Turkish
    {163, 1258},   // Vietnamese
    {177, 1255},   // Hebrew
    {178, 1256},   // Arabic
    {186, 1257},   // Baltic
    {204, 1251},   // Cyrillic
    {222, 874},    // Thai
    {238, 1250},   // Central European
    {254, 437},    // PC 437
    {255, 850},    // OEM
};

} // namespace

int CodePageOfCharset(int charset)
{
    for (const CharsetPage& row : kCharsetPages)
        if (row.charset == charset)
            return row.codePage;
    return 0;
}

int CharsetOfCodePage(int codePage)
{
    if (codePage == 1252)
        return 0;  // the ANSI set, whose page is Western wherever the reader is
    for (const CharsetPage& row : kCharsetPages)
        if (row.codePage == codePage && codePage != 0)
            return row.charset;
    return 1;
}

int EncodeUtf8(char32_t cp, char* out)
{
    if (cp < 0x80) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<char>(0xC0 | (cp >> 6));
        out[1] = static_cast<char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        cp = 0xFFFD;
    if (cp < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (cp >> 12));
        out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (cp >> 18));
    out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (cp & 0x3F));
    return 4;
}

void AppendUtf8(std::string& out, char32_t cp)
{
    char sz[4];
    out.append(sz, static_cast<std::size_t>(EncodeUtf8(cp, sz)));
}

} // namespace rtf_converter
