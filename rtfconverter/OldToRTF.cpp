#include "rtfconverter/OldToRTF.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <string_view>
#include <type_traits>

#include "hostlibs/KVBase.h"
#include "hostlibs/VQLogger.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/PictureFormats.h"

namespace rtf_converter {

DWORD COldToRTF::s_dwBufferSize = 0x2000;

namespace {

// --- shared formatting ---------------------------------------------------------

// Family words by the high nibble of lfPitchAndFamily; the rest are "fnil ".
const char* const kFamilyWords[16] = {
    "fnil ", "froman ", "fswiss ", "fmodern ", "fscript ", "fdecor ", "fnil ", "fnil ",
    "fnil ", "fnil ",   "fnil ",   "fnil ",    "fnil ",    "fnil ",   "fnil ", "fnil ",
};

// The family of a numbering symbol font, and its character set (SYMBOL_CHARSET).
const char* const kBulletFontFamily = "fnil ";
const int kBulletFontCharset = 2;

// --- the scan ---------------------------------------------------------------------

// What ConvertText does with each byte of the text.
enum ByteClass : unsigned char {
    bcPlain,     // joins the pending run
    bcEnd,       // 0: end of text
    bcCmdStart,  // 1: a markup command starts
    bcStrayEnd,  // 2: a command end without a start
    bcDropped,   // 0x17: never reaches the RTF
    bcTab,       // 9
    bcLineFeed,  // 10
    bcReturn,    // 13
    bcEscaped,   // \ { }: written after a backslash
};

struct ByteClassTable {
    ByteClass cls[256];
    constexpr ByteClassTable() : cls()
    {
        for (ByteClass& c : cls) c = bcPlain;
        cls[0x00] = bcEnd;
        cls[0x01] = bcCmdStart;
        cls[0x02] = bcStrayEnd;
        cls[0x17] = bcDropped;
        cls[0x09] = bcTab;
        cls[0x0A] = bcLineFeed;
        cls[0x0D] = bcReturn;
        cls[static_cast<unsigned char>('\\')] = bcEscaped;
        cls[static_cast<unsigned char>('{')] = bcEscaped;
        cls[static_cast<unsigned char>('}')] = bcEscaped;
    }
};
constexpr ByteClassTable kByteClass;

// The lossless scan leaves the RTF specials in the runs: the run writer
// escapes them itself, so that a double-byte character whose trail byte is a
// backslash or a brace stays one character.
struct RunByteClassTable : ByteClassTable {
    constexpr RunByteClassTable()
    {
        cls[static_cast<unsigned char>('\\')] = bcPlain;
        cls[static_cast<unsigned char>('{')] = bcPlain;
        cls[static_cast<unsigned char>('}')] = bcPlain;
    }
};
constexpr RunByteClassTable kRunByteClass;

// The control bytes that stop a run, by the writer, found by one signed
// compare: a byte with its top bit flipped (for the default writer, which
// lets the bytes from 0x80 up pass, so that the compare is an unsigned one)
// below the writer's limit (0x20 flipped too; for the lossless writer, which
// escapes them, the bytes from 0x80 up are below 0x20 as signed bytes).
struct alignas(16) RunControlStops {
    unsigned char flip[2][16];
    unsigned char limit[2][16];
    constexpr RunControlStops() : flip(), limit()
    {
        for (int i = 0; i < 16; ++i) {
            flip[0][i] = 0x80;
            limit[0][i] = 0x20 ^ 0x80;
            limit[1][i] = 0x20;
        }
    }
};
constexpr RunControlStops kRunControlStops;

#if RTFCONV_SCAN_SSE2
// The bytes of a block a run stops at, as a mask (bit i for byte i): the
// control bytes of the writer (see RunControlStops) and the RTF specials.
struct RunStops {
    __m128i flip;
    __m128i limit;
    explicit RunStops(bool bLossless)
        : flip(_mm_load_si128(reinterpret_cast<const __m128i*>(kRunControlStops.flip[bLossless ? 1 : 0]))),
          limit(_mm_load_si128(reinterpret_cast<const __m128i*>(kRunControlStops.limit[bLossless ? 1 : 0])))
    {
    }
    unsigned In(__m128i block) const
    {
        const __m128i stops = _mm_or_si128(_mm_or_si128(_mm_cmplt_epi8(_mm_xor_si128(block, flip), limit), byte_scan::Is(block, '\\')),
                                           _mm_or_si128(byte_scan::Is(block, '{'), byte_scan::Is(block, '}')));
        return static_cast<unsigned>(_mm_movemask_epi8(stops));
    }
    unsigned At(const char* p) const { return In(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))); }
};
#endif

// Past the plain bytes from p up to pEnd: the scan stops at control bytes
// (every byte it acts on but the specials is one) and at the RTF specials;
// for the lossless writer, which escapes them within its runs, at the bytes
// above 0x7F too. A control byte that is plain text stops it too; the scan
// passes it by itself. A long run is read two blocks a round, after a first
// block alone for the short ones between commands.
const char* SkipPlainBytes(const char* p, const char* pEnd, bool bLossless)
{
#if RTFCONV_SCAN_SSE2
    const RunStops stops(bLossless);
    if (pEnd - p >= 16) {
        if (const unsigned mask = stops.At(p)) return p + __builtin_ctz(mask);
        p += 16;
        for (; pEnd - p >= 32; p += 32) {
            const unsigned mask = stops.At(p) | stops.At(p + 16) << 16;
            if (mask != 0) return p + __builtin_ctz(mask);
        }
        if (pEnd - p >= 16) {
            if (const unsigned mask = stops.At(p)) return p + __builtin_ctz(mask);
            p += 16;
        }
    }
#endif
    // As signed bytes, the control bytes and those from 0x80 up are below 0x20.
    const unsigned char flip = bLossless ? 0 : 0x80;
    const signed char limit = static_cast<signed char>(bLossless ? 0x20 : 0x20 ^ 0x80);
    for (; p < pEnd; ++p) {
        const char ch = *p;
        if (static_cast<signed char>(static_cast<unsigned char>(ch) ^ flip) < limit || ch == '\\' || ch == '{' || ch == '}') break;
    }
    return p;
}

// The bytes the lossless writer escapes within a run of text.
bool IsEscapedInRun(char ch)
{
    return static_cast<unsigned char>(ch) > 0x7F || ch == '\\' || ch == '{' || ch == '}';
}

// The control word (with its blank) for a plain-text control byte, in a
// block of 8 bytes that can be copied whole.
struct ControlWord {
    char text[8];
    int n;
};
constexpr ControlWord kControlWords[] = {{"\\tab ", 5}, {"\\line ", 6}, {"\\par ", 5}};
static_assert(bcLineFeed == bcTab + 1 && bcReturn == bcTab + 2, "the words by byte class");
const ControlWord& ControlWordOf(ByteClass c) { return kControlWords[c - bcTab]; }

// --- layout ----------------------------------------------------------------------

struct TabLeaderWord {
    char leader;
    const char* pszWord;
};
constexpr TabLeaderWord kTabLeaderWords[] = {
    {'-', "\\tlhyph"},
    {'.', "\\tldot"},
    {'=', "\\tleq"},
    {'_', "\\tlul"},
};

const char* TabLeaderWord(char leader)
{
    for (const auto& w : kTabLeaderWords)
        if (w.leader == leader) return w.pszWord;
    return "";
}

// Inches to twips, truncated toward zero. Valid commands hold at most 9.99
// inches; the clamp only keeps texts that slipped past validation (whose
// digits the decimal conversion may read as exponents) inside an int.
int InchesToTwips(double inches)
{
    double twips = std::trunc(inches * 1440.0);
    if (!(twips > INT_MIN)) return twips != twips ? 0 : INT_MIN;
    if (twips > INT_MAX) return INT_MAX;
    return static_cast<int>(twips);
}

// A valid numbering command holds a tab width of at most 9.99 inches, four
// blanks per inch; a malformed width field must not turn into millions of blanks.
const int kMaxNumberTabBlanks = 40;

// --- attachments -----------------------------------------------------------------

struct HexPairTable {
    char pair[256][2];
    constexpr HexPairTable() : pair()
    {
        const char digits[] = "0123456789abcdef";
        for (int i = 0; i < 256; ++i) {
            pair[i][0] = digits[i >> 4];
            pair[i][1] = digits[i & 15];
        }
    }
};
constexpr HexPairTable kHexPairs;

// The RTF for the byte at p that the lossless writer does not write as it
// is, written at out (at most kcbMaxEscape bytes, counted in nOut): a byte
// above 0x7F as \'hh, in a double-byte font a lead byte and the byte after
// it (when that one is in the same run) as one character, the trail byte
// escaped with it even when it is a backslash or a brace; an RTF special
// behind a backslash. Returns the bytes of p it took.
constexpr std::size_t kcbMaxEscape = 8;
int EscapeKeepingByte(const CCodePage* pPage, const char* p, bool bNextInRun, char* out, std::size_t& nOut)
{
    auto addHex = [&out, &nOut](unsigned char b) {
        *out++ = '\\';
        *out++ = '\'';
        *out++ = kHexPairs.pair[b][0];
        *out++ = kHexPairs.pair[b][1];
        nOut += 4;
    };
    const unsigned char b = static_cast<unsigned char>(p[0]);
    if (bNextInRun && pPage && pPage->IsLeadByte(b) && pPage->Pair(b, static_cast<unsigned char>(p[1])) != CCodePage::invalidPair) {
        addHex(b);
        addHex(static_cast<unsigned char>(p[1]));
        return 2;
    }
    if (b > 0x7F) {
        addHex(b);
        return 1;
    }
    out[0] = '\\';
    out[1] = static_cast<char>(b);
    nOut += 2;
    return 1;
}

// Releases the stream and deletes the bitmap the filter handed over if the
// writing of an attachment is cut short by an exception; on the normal path the
// writers have released them already.
class CAttachmentOwnership {
public:
    explicit CAttachmentOwnership(AttachmentInfo& info) : m_info(info) {}
    ~CAttachmentOwnership()
    {
        if (!m_bUnwinding) return;
        if (m_info.pStm) m_info.pStm->Release();
        m_info.pStm = nullptr;
        if (AttachmentInfo::IsOleType(m_info.aType)) {
            delete m_info.m_pDIBitmap;
            m_info.m_pDIBitmap = nullptr;
        }
    }
    void Done() { m_bUnwinding = false; }
    CAttachmentOwnership(const CAttachmentOwnership&) = delete;
    CAttachmentOwnership& operator=(const CAttachmentOwnership&) = delete;

private:
    AttachmentInfo& m_info;
    bool m_bUnwinding = true;
};

// Appends a control word and its decimal parameter ("\fs" and 24 give
// "\fs24"). Control words are the bulk of what commands write; this keeps
// printf formatting off that path.
template <class TWords, std::size_t N>
void AppendWord(TWords& s, const char (&word)[N], long long n)
{
    char digits[24];
    const std::to_chars_result r = std::to_chars(digits, digits + sizeof digits, n);
    s.Append(word, static_cast<int>(N - 1));
    s.Append(digits, static_cast<int>(r.ptr - digits));
}

// The control words of one font command, gathered on the stack (or in the
// quick buffer, when it has room for the most a command writes) and written
// with one AddToBuffer: a font command comes every few words of text. The
// most a command writes ("\\f", "\\fs", "\\cf", "\\cb" and "\\chcbpat" with
// 20-digit numbers, six attribute words, the blank) is under 200 bytes.
class CWordBuffer {
public:
    static constexpr std::size_t kcbWords = 256;

    CWordBuffer() : m_p(m_bytes) {}
    // Gathers the words in the kcbWords bytes at pOut instead (on the stack
    // when it is null).
    explicit CWordBuffer(char* pOut) : m_p(pOut ? pOut : m_bytes) {}
    CWordBuffer(const CWordBuffer&) = delete;
    CWordBuffer& operator=(const CWordBuffer&) = delete;

    void Append(const char* p, int n)
    {
        std::memcpy(m_p + m_n, p, static_cast<std::size_t>(n));
        m_n += n;
    }
    void Append(const char* psz) { Append(psz, static_cast<int>(std::strlen(psz))); }
    // The first n of the cbBlock bytes at p, copied as one block of fixed
    // size (a few moves, not a call); the words of one command stay far
    // enough from the end for the block to fit.
    template <std::size_t cbBlock>
    void AppendBlock(const char* p, int n)
    {
        static_assert(cbBlock <= kcbWords - 200, "the block fits behind the longest words");
        std::memcpy(m_p + m_n, p, cbBlock);
        m_n += n;
    }
    const char* Data() const { return m_p; }
    int Size() const { return m_n; }

private:
    char m_bytes[kcbWords];
    char* m_p;
    int m_n = 0;
};

CString FaceNameOf(const LOGFONT& lf)
{
    // lfFaceName need not be terminated when it is full.
    return CString(lf.lfFaceName, static_cast<int>(strnlen(lf.lfFaceName, LF_FACESIZE)));
}

} // namespace

long long HalfPoints(int points) { return 2LL * points; }

CString GetFamilyWord(const LOGFONT& lf) { return kFamilyWords[(lf.lfPitchAndFamily & 0xF0) >> 4]; }

CString FormatColorEntry(COLORREF cr)
{
    CString s;
    s.Format("\\red%d\\green%d\\blue%d;", GetRValue(cr), GetGValue(cr), GetBValue(cr));
    return s;
}

CString FormatSingleFontTable(int charset, const LOGFONT& lf)
{
    CString s;
    s.Format("{\\fonttbl{\\f0\\fcharset%d\\", charset);
    s += GetFamilyWord(lf);
    s.Append(lf.lfFaceName, static_cast<int>(strnlen(lf.lfFaceName, LF_FACESIZE)));
    s += ";}}";
    return s;
}

CString FormatWindowTextColorTable()
{
    return CString("{\\colortbl;") + FormatColorEntry(GetSysColor(COLOR_WINDOWTEXT)) + "}";
}

CString AssembleDocument(const CString& header, const CString& fonts, const CString& colors, const CString& body)
{
    CString s;
    try {
        s.Preallocate(header.GetLength() + fonts.GetLength() + colors.GetLength() + body.GetLength());
        s += header;
        s += fonts;
        s += colors;
        s += body;
    } catch (const std::bad_alloc&) {
        s.Empty();
    }
    return s;
}

// =================================================================================
// The object, Convert and the scan
// =================================================================================

COldToRTF::COldToRTF(IStream& out)
    : m_csHeader(szRtfDocumentHeader), m_pDataBuffer(new char[nDataBufSize + 1]), m_pOutStream(&out)
{
}

COldToRTF::~COldToRTF() = default;

void COldToRTF::SetAttachmentFilter(AttachmentFilter filter, void* param1, void* param2)
{
    m_pfnAttachmentFilter = filter;
    m_pFilterParam1 = param1;
    m_pFilterParam2 = param2;
}

long COldToRTF::Convert(const char* pszText, const LOGFONT* pBaseFont)
{
    long hr = E_FAIL;
    try {
        m_pszText = pszText ? pszText : "";
        const std::size_t cchText = std::strlen(m_pszText);
        m_hrFirstOutFailure = S_OK;
        m_csLayoutWords.Empty();
        m_nRowCells = m_nRowCellsEnded = 0;
        m_pNoCellsBefore = nullptr;
        ClearCommandCaches();
        InitBuffer();
        ReserveBody(cchText);
        InitBaseFont(pBaseFont);
        ResetParagraphAttributes();

        m_fontTable.SetSize(1, 10);
        FontTableStruct& base = m_fontTable[0];
        base.nFontNumber = 0;
        base.csFaceName = FaceNameOf(m_logFont);
        base.csFamily = GetFamilyWord(m_logFont);
        base.nCharset = m_logFont.lfCharSet;
        m_inForce.nPoints = PixY2Pts(m_logFont.lfHeight);

        m_colorTable.SetSize(1, 10);
        m_colorTable[0] = 0;
        m_crDefaultText = GetSysColor(COLOR_WINDOWTEXT);
        m_inForce.nColor = static_cast<int>(m_crDefaultText);
        const INT_PTR nDefaultColorIndex = m_colorTable.GetSize();
        m_colorTable.Add(m_crDefaultText);

        CString start;
        start.Format("\\pard\\f0\\fs%lld\\cf%d ", HalfPoints(m_inForce.nPoints), static_cast<int>(nDefaultColorIndex));
        AddToBuffer(start);
        ConvertText(m_pszText, m_pszText + cchText);
        AddToBuffer('}');
        FlushBuffer();
        hr = ResultKeepingWriteFailures();
    } catch (...) {
        hr = E_FAIL;
    }
    ClearCommandCaches();
    return hr;
}

void COldToRTF::InitBaseFont(const LOGFONT* pBaseFont)
{
    if (pBaseFont) {
        m_logFont = *pBaseFont;
        return;
    }
    CDC dc;
    dc.Attach(GetDC(nullptr));
    int logPixelsY = dc.GetDeviceCaps(LOGPIXELSY);
    ReleaseDC(nullptr, dc.Detach());
    InitDefaultScreenFont(m_logFont, "Arial", 10, logPixelsY);
}

void COldToRTF::ResetParagraphAttributes()
{
    m_attributes = 0;
    m_inForce.nPoints = -1;
    // The colour value itself, not its table index: the first font command
    // therefore always writes an explicit \cf.
    m_inForce.nColor = static_cast<int>(m_crDefaultText);
    m_inForce.nBackColor = 0;
    m_inForce.nFont = 0;
}

void COldToRTF::ConvertText(const char* pszText, const char* pTextEnd)
{
    const char* p = pszText;
    const char* pRun = p;    // start of the pending run of plain characters
    unsigned char chLast = 0; // the last plain character, for the final paragraph mark
    // Characters shown so far, as an editor counts them. Kept unsigned so that
    // texts beyond 2 GB wrap instead of overflowing; the writers see it as int.
    unsigned nTextPos = 0;

    // Appends the pending run; its last byte becomes the last plain character.
    // The lossless writer's escapes are written as the scan meets them, so
    // what is left of its run is written as it is, as the default writer
    // writes every run.
    auto flushRun = [&]() {
        int n = static_cast<int>(p - pRun);
        if (n > 0) {
            AddTextBytesToBuffer(pRun, n, pTextEnd);
            chLast = static_cast<unsigned char>(p[-1]);
            nTextPos += static_cast<unsigned>(n);
        }
    };

    const ByteClassTable& classes = m_bLossless ? kRunByteClass : kByteClass;
    const char* const pEnd = pTextEnd;

    // Lossless: the run up to p goes out as it is, then the bytes from p on
    // that the run writer escapes, up to the first it writes as it is. So the
    // run is read once, not scanned for its commands and again for its escapes.
    auto flushRunAndEscapes = [&]() {
        const CCodePage* pPage = PageOfCurrentFont();
        if (p > pRun) AddTextBytesToBuffer(pRun, static_cast<int>(p - pRun), pTextEnd);
        char escapes[256];
        std::size_t nEscapes = 0;
        while (IsEscapedInRun(*p)) {
            if (nEscapes + kcbMaxEscape > sizeof escapes) {
                AddToBuffer(escapes, static_cast<int>(nEscapes));
                nEscapes = 0;
            }
            // A double-byte character is one only with both its bytes in the run.
            const bool bNextInRun = classes.cls[static_cast<unsigned char>(p[1])] == bcPlain;
            p += EscapeKeepingByte(pPage, p, bNextInRun, escapes + nEscapes, nEscapes);
        }
        AddToBuffer(escapes, static_cast<int>(nEscapes));
        chLast = static_cast<unsigned char>(p[-1]);
        nTextPos += static_cast<unsigned>(p - pRun);
        pRun = p;
    };

    // The scan is called from one place, so that it is compiled into the loop.
    for (;; ++p) {
        p = SkipPlainBytes(p, pEnd, m_bLossless);
        const ByteClass c = classes.cls[static_cast<unsigned char>(*p)];
        if (c == bcPlain) {
            if (m_bLossless && IsEscapedInRun(*p)) {
                flushRunAndEscapes();
                --p; // the scan goes on from the byte after the escapes
            }
            continue;
        }
        flushRun();
        // A font command, the most frequent by far, adds nothing to the text
        // position; one met before is written before the choice of the rest.
        if (c == bcCmdStart && p[1] == CDocCmd::font) {
            // A short run before the command mostly means short runs after
            // it, text in many fonts, which the loop of runs and font
            // commands takes; after a long one, text in few fonts, the scan
            // goes on without the cost of entering it.
            const bool bShortRunBefore = static_cast<std::size_t>(p - pRun) <= kcbShortRun;
            if (const char* pAfter = AddRememberedFontCmd(p, pEnd)) {
                pRun = pAfter;
                p = (bShortRunBefore ? AddRunsAndRememberedFontCmds(pRun, pEnd, chLast, nTextPos) : pAfter) - 1;
                // Every command sets it again before it is read: the end of
                // the last one here or of a line mark after it serve alike.
                m_pAfterCommand = pRun;
                continue;
            }
        }
        switch (c) {
        case bcEnd:
            CloseOpenTableRow();
            if (chLast != 13) AddToBuffer("\\par ", 5);
            return;
        case bcTab:
        case bcLineFeed:
        case bcReturn: {
            // Copied as its block where the quick buffer has that room, not in a call.
            const ControlWord& word = ControlWordOf(c);
            if (m_cbQuickBuffer - m_dwQuickBufferPosition > sizeof word.text) {
                std::memcpy(m_body.End() + m_dwQuickBufferPosition, word.text, sizeof word.text);
                m_dwQuickBufferPosition += static_cast<DWORD>(word.n);
            } else {
                AddToBuffer(word.text, word.n);
            }
            chLast = static_cast<unsigned char>(*p);
            ++nTextPos;
            pRun = p + 1;
            break;
        }
        case bcEscaped:
            AddToBuffer('\\');
            pRun = p; // the character itself is written with the next run
            break;
        case bcStrayEnd:
            VQASSERT(0);
            pRun = p + 1;
            break;
        case bcDropped:
            pRun = p + 1;
            break;
        case bcCmdStart: {
            const char* ptr = FindCommandEnd(p, pEnd);
            if (*ptr == '\0') return; // an unterminated command ends the text
            ++ptr;
            VQASSERT(ptr[-1] == CDocCmd::chCmdEnd);
            m_pAfterCommand = ptr;
            const int nPos = static_cast<int>(nTextPos);
            int nAdvance = 0;
            // Font and layout commands, the most frequent, are mostly ones met before
            // and need no string of their own.
            if (p[1] == CDocCmd::font) {
                nAdvance = AddFontCmdToBuffer(p, static_cast<int>(ptr - p));
            } else if (p[1] == CDocCmd::layout) {
                nAdvance = AddLayoutCmdToBuffer(p, static_cast<int>(ptr - p));
            } else if (p[1] == CDocCmd::comment) {
                nAdvance = AddCommentCmdToBuffer(p, static_cast<int>(ptr - p), nPos);
            } else {
                const CString cmd(p, static_cast<int>(ptr - p));
                switch (p[1]) {
                case CDocCmd::attachment: nAdvance = AddOleCmdToBuffer(cmd, nPos); break;
                case CDocCmd::comment: nAdvance = AddCommentCmdToBuffer(cmd, nPos); break;
                case CDocCmd::print: nAdvance = AddPrintCmdToBuffer(cmd); break;
                default: VQASSERT(0); break;
                }
            }
            nTextPos += static_cast<unsigned>(nAdvance);
            p = ptr - 1;
            pRun = ptr;
            break;
        }
        case bcPlain:
            break;
        }
    }
}

void COldToRTF::ReplaceSpecSymbols(CString& s)
{
    s.Replace("\\", "\\\\");
    s.Replace("{", "\\{");
    s.Replace("}", "\\}");
}

CString COldToRTF::GetStylesheet() const
{
    CString s;
    s.Format("{\\stylesheet{\\f0\\fs%lld Normal;}}", HalfPoints(PixY2Pts(m_logFont.lfHeight)));
    return s;
}

// =================================================================================
// Output buffers
// =================================================================================

namespace {

// The body is held to what a memory stream holds: a longer one fails the
// conversion as writing it to a memory stream did.
constexpr std::uint64_t kcbMaxBody = 0xFFFFFFFFu;

} // namespace

COldToRTF::CBodyBytes::~CBodyBytes() { std::free(m_p); }

bool COldToRTF::CBodyBytes::Restart(std::size_t cbRoom)
{
    m_cb = 0;
    if (m_p && cbRoom <= m_cbRoom) return true;
    std::free(m_p);
    m_p = nullptr;
    m_cbRoom = 0;
    return MakeRoom(cbRoom);
}

bool COldToRTF::CBodyBytes::MakeRoom(std::size_t cbMore)
{
    if (m_p && cbMore <= m_cbRoom - m_cb) return true;
    if (cbMore > SIZE_MAX / 2 - m_cb) return false;
    const std::size_t cbNewRoom = std::max({m_cb + cbMore, m_cbRoom * 2, std::size_t(4096)});
    // Not zeroed: every byte of the body is written before it is read.
    void* const p = GrowBlock(m_p, cbNewRoom);
    if (!p) return false;
    m_p = static_cast<char*>(p);
    m_cbRoom = cbNewRoom;
    return true;
}

void COldToRTF::CBodyBytes::Append(const char* p, std::size_t cb)
{
    if (cb == 0) return;
    std::memcpy(m_p + m_cb, p, cb);
    m_cb += cb;
}

void COldToRTF::RaiseBodyError(const char* pszWhat, HRESULT hRes)
{
    VQASSERT(SUCCEEDED(hRes));
    CString text;
    text.Format("%s: %x", pszWhat, static_cast<unsigned>(hRes));
    VQTRACE("%s", text.GetString());
    CKVWException::RaiseError(text, nullptr, nullptr, -1);
}

void COldToRTF::InitBuffer()
{
    m_cbQuickBuffer = s_dwBufferSize;
    m_dwQuickBufferPosition = 0;
    if (!m_body.Restart(m_cbQuickBuffer)) {
        m_cbQuickBuffer = 0;
        throw std::bad_alloc();
    }
}

// The body is roughly as long as the text: room for that much, and a quarter
// more, is made at once, so that it seldom has to grow. Only a hint: the
// pages are not touched until written, and without the room the body simply
// grows as it goes.
void COldToRTF::ReserveBody(std::size_t cchText)
{
    const std::size_t cbHint = cchText + cchText / 4;
    if (cbHint < kcbMaxBody) (void)m_body.MakeRoom(cbHint + m_cbQuickBuffer);
}

long COldToRTF::FlushQuickBuffer()
{
    if (m_dwQuickBufferPosition == 0) return 0;
    if (!m_body.IsOpen()) {
        VQASSERT(m_body.IsOpen());
        return E_FAIL;
    }
    const char* const pszWhat = "FlushQuickBuffer error";
    if (m_body.Size() + m_dwQuickBufferPosition > kcbMaxBody) RaiseBodyError(pszWhat, STG_E_MEDIUMFULL);
    m_body.Extend(m_dwQuickBufferPosition);
    m_dwQuickBufferPosition = 0;
    if (!m_body.MakeRoom(m_cbQuickBuffer)) RaiseBodyError(pszWhat, E_OUTOFMEMORY);
    return S_OK;
}

// The rare path of AddToBuffer: kept out of line wherever AddToBuffer is
// compiled in, so that the quick path stays small.
[[gnu::noinline]] void COldToRTF::AddToBufferDirect(const char* p, int n)
{
    // Negative counts come from no caller; they would read before p.
    if (n < 0) {
        VQASSERT(n >= 0);
        return;
    }
    HRESULT hRes = FlushQuickBuffer();
    if (FAILED(hRes)) {
        VQASSERT(SUCCEEDED(hRes));
        return;
    }
    if (!m_body.IsOpen()) {
        VQASSERT(m_body.IsOpen());
        return;
    }
    const char* const pszWhat = "Error during conversion to RTF";
    const std::size_t cb = static_cast<std::size_t>(n);
    if (m_body.Size() + cb > kcbMaxBody) RaiseBodyError(pszWhat, STG_E_MEDIUMFULL);
    // The quick buffer's room stays behind what is appended.
    if (!m_body.MakeRoom(cb + m_cbQuickBuffer)) RaiseBodyError(pszWhat, E_OUTOFMEMORY);
    m_body.Append(p, cb);
}

HRESULT COldToRTF::WriteToOutStream(const CString& s)
{
    return NoteOutWrite(m_pOutStream->Write(s.GetString(), static_cast<ULONG>(s.GetLength()), nullptr));
}

HRESULT COldToRTF::NoteOutWrite(HRESULT hr)
{
    if (FAILED(hr) && SUCCEEDED(m_hrFirstOutFailure)) m_hrFirstOutFailure = hr;
    return hr;
}

long COldToRTF::FlushBuffer()
{
    HRESULT hr = WriteToOutStream(m_csHeader);
    if (SUCCEEDED(hr)) hr = WriteToOutStream(GetFontTable());
    if (SUCCEEDED(hr)) hr = WriteToOutStream(GetColorTable());
    if (SUCCEEDED(hr)) hr = WriteToOutStream(GetStylesheet());

    if (!m_body.IsOpen()) {
        VQASSERT(m_body.IsOpen());
        return hr;
    }
    hr = FlushQuickBuffer();
    if (FAILED(hr)) {
        VQASSERT(SUCCEEDED(hr));
        return hr;
    }
    if (m_body.Size() == 0) return hr;

    // The whole body in one write, from where it lies.
    ULARGE_INTEGER cbRead, cbWritten;
    cbRead.QuadPart = m_body.Size();
    ULONG cbOut = 0;
    hr = NoteOutWrite(m_pOutStream->Write(m_body.Data(), static_cast<ULONG>(m_body.Size()), &cbOut));
    cbWritten.QuadPart = cbOut;
    if (FAILED(hr)) {
        VQASSERT(SUCCEEDED(hr));
        return hr;
    }
    VQASSERT(0 < cbRead.QuadPart);
    VQASSERT(0 < cbWritten.QuadPart);
    VQASSERT(cbRead.QuadPart == cbWritten.QuadPart);
    return hr;
}

// =================================================================================
// Fonts and colours
// =================================================================================

int COldToRTF::AddToFontTableIfNecessary(const LOGFONT& lf)
{
    const CString csFaceName = FaceNameOf(lf);
    const char* const pszFamily = kFamilyWords[(lf.lfPitchAndFamily & 0xF0) >> 4];
    for (INT_PTR i = 0; i < m_fontTable.GetSize(); ++i) {
        const FontTableStruct& entry = m_fontTable[i];
        if (entry.csFaceName == csFaceName && entry.csFamily == pszFamily && entry.nCharset == lf.lfCharSet)
            return static_cast<int>(i);
    }
    FontTableStruct fts;
    fts.nFontNumber = ++m_nFontCount;
    fts.csFaceName = csFaceName;
    fts.csFamily = pszFamily;
    fts.nCharset = lf.lfCharSet;
    return static_cast<int>(m_fontTable.Add(fts));
}

int COldToRTF::AddToFontTableIfNecessary(const CFontCmd& cmd)
{
    LOGFONT lf;
    cmd.GetLogFont(lf, m_logFont);
    return AddToFontTableIfNecessary(lf);
}

void COldToRTF::SetFontNumber(FontTableStruct& fts)
{
    fts.nFontNumber = -1;
    for (INT_PTR i = 0; i < m_fontTable.GetSize(); ++i) {
        const FontTableStruct& entry = m_fontTable[i];
        if (entry.csFaceName == fts.csFaceName && entry.csFamily == fts.csFamily && entry.nCharset == fts.nCharset) {
            fts.nFontNumber = static_cast<int>(i);
            return;
        }
    }
    // The count serves as the index here; on a fresh object it is the end of
    // the table.
    ++m_nFontCount;
    m_fontTable.SetSize(m_nFontCount + 1, 10);
    FontTableStruct& entry = m_fontTable[m_nFontCount];
    entry.nFontNumber = m_nFontCount;
    entry.csFaceName = fts.csFaceName;
    entry.csFamily = fts.csFamily;
    entry.nCharset = fts.nCharset;
    fts.nFontNumber = m_nFontCount;
}

int COldToRTF::AddToColorTableIfNecessary(COLORREF cr)
{
    for (INT_PTR i = m_colorTable.GetSize() - 1; i >= 1; --i)
        if (m_colorTable[i] == cr) return static_cast<int>(i);
    return static_cast<int>(m_colorTable.Add(cr));
}

CString COldToRTF::GetFontTable() const
{
    CString s("{\\fonttbl");
    for (INT_PTR i = 0; i < m_fontTable.GetSize(); ++i) {
        const FontTableStruct& entry = m_fontTable[i];
        s.AppendFormat("{\\f%d\\fcharset%d\\", entry.nFontNumber, entry.nCharset);
        s += entry.csFamily;
        s += entry.csFaceName;
        s += ";}";
    }
    s += '}';
    return s;
}

CString COldToRTF::GetColorTable() const
{
    CString s("{\\colortbl;");
    for (INT_PTR i = 1; i < m_colorTable.GetSize(); ++i) s += FormatColorEntry(m_colorTable[i]);
    s += '}';
    return s;
}

namespace {

// The character attributes of the font writer, in the order their words are
// written.
// A control word short enough to be copied as a block of fixed size.
struct ShortWord {
    char text[16];
    unsigned char n;
};
constexpr ShortWord MakeShortWord(const char* psz)
{
    ShortWord w{};
    for (; psz[w.n] != '\0'; ++w.n) w.text[w.n] = psz[w.n];
    return w;
}

struct AttributeWord {
    bool (CFontCmd::*isOn)() const;
    ShortWord on;
    ShortWord off;
};
constexpr AttributeWord kAttributeWords[] = {
    {&CFontCmd::IsBold, MakeShortWord("\\b"), MakeShortWord("\\b0")},
    {&CFontCmd::IsUnderline, MakeShortWord("\\ul"), MakeShortWord("\\ul0")},
    {&CFontCmd::IsItalic, MakeShortWord("\\i"), MakeShortWord("\\i0")},
    {&CFontCmd::IsStrikeout, MakeShortWord("\\strike"), MakeShortWord("\\strike0")},
    {&CFontCmd::IsSuperscript, MakeShortWord("\\super"), MakeShortWord("\\nosupersub")},
    {&CFontCmd::IsSubscript, MakeShortWord("\\sub"), MakeShortWord("\\nosupersub")},
};

} // namespace

// Adds the command's font and colours to the tables when they are new there.
COldToRTF::FontCmdMeaning COldToRTF::ParseFontCmd(const CString& sFontCmd)
{
    const CFontCmd cmd(sFontCmd);
    FontCmdMeaning meaning;
    meaning.nFont = AddToFontTableIfNecessary(cmd);
    meaning.nPoints = cmd.GetPoints(m_logFont);
    meaning.nColor = cmd.IsDefaultColor() ? 1 : AddToColorTableIfNecessary(ColorCharToRGB(cmd.GetColor()));
    const char backLetter = cmd.GetBackColor();
    meaning.nBackColor = backLetter ? AddToColorTableIfNecessary(BackColorCharToRGB(backLetter)) : 0;
    for (std::size_t k = 0; k < std::size(kAttributeWords); ++k) meaning.bAttributes[k] = (cmd.*kAttributeWords[k].isOn)();
    return meaning;
}

// Each text has two slots, chosen by two parts of its hash: two commands that
// share one slot seldom share the other, so commands that alternate do not
// keep pushing each other out. A new text takes its first slot when that is
// free, else its second.
template <class TMeaning>
typename COldToRTF::CCommandCache<TMeaning>::Slot& COldToRTF::CCommandCache<TMeaning>::SlotOf(const char* p, std::size_t n,
                                                                                                bool& bHeld)
{
    if (!m_slots) m_slots.reset(new Slot[nSlots]);
    const std::uint64_t h = byte_scan::HashOf(p, n);
    Slot& first = m_slots[h % nSlots];
    bHeld = Holds(first, p, n);
    if (bHeld) return first;
    Slot& second = m_slots[(h >> 32) % nSlots];
    bHeld = Holds(second, p, n);
    if (bHeld || !first.text.empty()) return second;
    return first;
}

template <class TMeaning>
void COldToRTF::CCommandCache<TMeaning>::Clear()
{
    if (!m_slots) return;
    for (std::size_t k = 0; k < nSlots; ++k) m_slots[k].text.clear();
}

void COldToRTF::ClearCommandCaches()
{
    m_rememberedFontCmds.reset();
    m_fontCmdCache.Clear();
    m_layoutCmdCache.Clear();
    m_numberCmdCache.Clear();
}

COldToRTF::FontCmdWords COldToRTF::WordsOfMeaning(const FontCmdMeaning& meaning) const
{
    FontCmdWords words;
    words.parts.nFont = meaning.nFont;
    words.parts.nPoints = meaning.nPoints;
    words.parts.nColor = meaning.nColor;
    words.parts.nBackColor = meaning.nBackColor;
    CWordBuffer text;
    std::size_t k = 0;
    auto endWord = [&]() {
        const std::size_t begin = k == 0 ? 0 : words.wordBegin[k - 1] + words.wordLength[k - 1];
        words.wordBegin[k] = static_cast<unsigned char>(begin);
        words.wordLength[k] = static_cast<unsigned char>(static_cast<std::size_t>(text.Size()) - begin);
        words.bLongWords = words.bLongWords || words.wordLength[k] > FontCmdWords::kcbShortWordBlock;
        ++k;
    };
    AppendWord(text, "\\f", m_fontTable[meaning.nFont].nFontNumber);
    endWord();
    AppendWord(text, "\\fs", HalfPoints(meaning.nPoints));
    endWord();
    AppendWord(text, "\\cf", meaning.nColor);
    endWord();
    AppendWord(text, "\\cb", meaning.nBackColor);
    endWord();
    AppendWord(text, "\\chcbpat", meaning.nBackColor);
    endWord();
    static_assert(FontCmdWords::wordFirstAttribute + std::size(kAttributeWords) == FontCmdWords::nWords, "a word for each attribute");
    for (std::size_t a = 0; a < std::size(kAttributeWords); ++a) {
        if (meaning.bAttributes[a]) words.attributes |= static_cast<unsigned char>(1u << a);
        const ShortWord& word = meaning.bAttributes[a] ? kAttributeWords[a].on : kAttributeWords[a].off;
        text.Append(word.text, word.n);
        endWord();
    }
    // "\f" 13, "\fs" 15, "\cf" and "\cb" 14, "\chcbpat" 19 bytes with the
    // longest numbers, and the attribute words at most 11 each.
    static_assert(sizeof words.bytes >= 13 + 15 + 14 + 14 + 19 + 6 * 11 + FontCmdWords::kcbWordBlock, "room for the longest numbers");
    std::memcpy(words.bytes, text.Data(), static_cast<std::size_t>(text.Size()));
    return words;
}

int COldToRTF::AddFontCmdToBuffer(const CString& sFontCmd)
{
    const char font = CDocCmd::font;
    VQASSERT(font == sFontCmd[1]);
    return AddFontCmdToBuffer(sFontCmd.GetString(), sFontCmd.GetLength());
}

// The command's bytes, 0x01 'F' to 0x02.
//
// Once a command's font and colours are in the tables, the same text finds
// the same entries again (entries are only ever appended, never changed, and
// never twice for one font or colour), so its meaning and words can be
// remembered. Not those of a command too short to be one: reading it reports
// so, every time.
int COldToRTF::AddFontCmdToBuffer(const char* pFontCmd, int nFontCmd)
{
    if (nFontCmd < CFontCmd::iFntCmdLenMin) {
        AddFontWords(WordsOfFontCmd(pFontCmd, nFontCmd));
        return 0;
    }
    AddFontWords(CachedFontWords(pFontCmd, static_cast<std::size_t>(nFontCmd)));
    return 0;
}

// The words of a command at least iFntCmdLenMin bytes long, read once.
const COldToRTF::FontCmdWords& COldToRTF::CachedFontWords(const char* pFontCmd, std::size_t cbFontCmd)
{
    bool bHeld = false;
    auto& slot = m_fontCmdCache.SlotOf(pFontCmd, cbFontCmd, bHeld);
    if (!bHeld) {
        slot.text.clear(); // a parse that throws leaves no half-made entry
        slot.meaning = WordsOfFontCmd(pFontCmd, static_cast<int>(cbFontCmd));
        slot.text.assign(pFontCmd, cbFontCmd);
    }
    return slot.meaning;
}

// A command met for the first time in its slot, kept there by its key: the
// rare path, out of line so that the path of a command met again keeps few
// registers to save.
[[gnu::noinline]] void COldToRTF::RememberFontCmd(RememberedFontCmd& slot, const char* pCmd, std::size_t cb,
                                                  const std::uint64_t (&source)[kFontCmdLookWords])
{
    slot.words = CachedFontWords(pCmd, cb);
    std::memcpy(slot.source, source, sizeof source);
    slot.cb = static_cast<unsigned char>(cb);
    slot.ownBytes = (std::uint64_t(1) << cb) - 1;
}

// The font command at pCmd in the text, met there before nearly always:
// known by the kcbFontCmdLook bytes from its start, which also give its end
// (see RememberedFontCmdAt). Every font command of a text met again that the
// loop of runs and font commands does not take passes here: it is compiled
// into the scan's loop, and the writing of its words into it, so that such
// a command costs no call, no frame of its own and no registers saved and
// restored. Returns what follows the command, or null, with nothing
// written, for a command the look does not take: one too near the end of
// the text to read the block, one longer than the block, or one too short
// to be cached.
[[gnu::flatten, gnu::always_inline]] inline const char* COldToRTF::AddRememberedFontCmd(const char* pCmd, const char* pTextEnd)
{
#if RTFCONV_SCAN_SSE2
    // The text's NUL is at pTextEnd: the block from pCmd stays before it.
    if (static_cast<std::size_t>(pTextEnd - pCmd) < kcbFontCmdLook) return nullptr;
    if (!m_rememberedFontCmds) m_rememberedFontCmds.reset(new RememberedFontCmd[std::size_t(1) << kRememberedFontCmdBits]());
    const RememberedFontCmd* const pSlot = RememberedFontCmdAt(m_rememberedFontCmds.get(), pCmd);
    if (!pSlot) return nullptr;
    AddFontWords(pSlot->words);
    return pCmd + pSlot->cb;
#else
    (void)pCmd;
    (void)pTextEnd;
    return nullptr;
#endif
}

#if RTFCONV_SCAN_SSE2

// The slot of the font command at pCmd, whose first kcbFontCmdLook bytes
// are readable, holding the command once this returns; null for a command
// the look does not take (no end among those bytes, or too short to be
// cached). A command met again is known without a scan for its end: its
// first block, cut at a 0x02 within it, picks its slot (a command's first
// bytes are its attributes, size and the start of its face, so that the
// commands of a text mostly take different slots), and the bytes from pCmd
// equal to the slot's command up to its 0x02 are that command, its first
// 0x02 the end of both. An empty slot's command has one byte, 0, which no
// command starts with.
[[gnu::always_inline]] inline const COldToRTF::RememberedFontCmd* COldToRTF::RememberedFontCmdAt(RememberedFontCmd* slots, const char* pCmd)
{
    constexpr std::size_t kBlocks = byte_scan::CommandLook::kBlocks;
    static_assert(kBlocks == 3 && kcbFontCmdLook <= 64, "the bytes of the look are one word");
    __m128i block[kBlocks];
    for (std::size_t k = 0; k < kBlocks; ++k) block[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pCmd + 16 * k));
    const std::uint64_t h = byte_scan::HashOfBlock(byte_scan::ThroughFirst(block[0], CDocCmd::chCmdEnd));
    RememberedFontCmd& slot = slots[static_cast<std::size_t>(h >> (64 - kRememberedFontCmdBits))];
    auto sameBytes = [&slot, &block](std::size_t k) {
        const __m128i held = _mm_loadu_si128(reinterpret_cast<const __m128i*>(slot.source + 2 * k));
        return static_cast<std::uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(held, block[k])))) << (16 * k);
    };
    // Most commands end within the first two blocks; a longer one's own
    // bytes in the third keep the first compare from taking it.
    std::uint64_t same = sameBytes(0) | sameBytes(1);
    if ((slot.ownBytes & ~same) == 0) return &slot;
    same |= sameBytes(2);
    if ((slot.ownBytes & ~same) == 0) return &slot;
    const byte_scan::CommandLook look = byte_scan::LookAtCommand(pCmd, CDocCmd::chCmdEnd, kcbFontCmdLook);
    if (look.cb < static_cast<std::size_t>(CFontCmd::iFntCmdLenMin)) return nullptr;  // also no end in the look
    std::uint64_t source[kFontCmdLookWords];
    for (std::size_t k = 0; k < kBlocks; ++k) _mm_storeu_si128(reinterpret_cast<__m128i*>(source + 2 * k), look.key[k]);
    RememberFontCmd(slot, pCmd, look.cb, source);
    return &slot;
}
#endif

// After a font command met before, ending at pRun: the text of a document
// in many fonts is mostly a run of a few plain bytes, then another such
// command, a tab, line feed or paragraph mark, or a byte written escaped (an
// RTF special; for the lossless writer a byte from 0x80 up, as in a word
// with an accent). Each such step is written here in a loop of its own,
// which keeps the place it writes at in a register and checks the room once
// a step for the most a step writes: the run is found and copied as one
// block of kcbShortRun bytes, a command known by its first bytes (see
// RememberedFontCmdAt) and its words, the mark's word or the escape written
// behind the run. A step it does not take is left to the scan: a longer
// run, one with another byte the scan acts on, another command, too little
// text left for the blocks or too little room in the quick buffer. Returns where the scan goes on, with
// pRun the start of the run pending there: the bytes between are plain, so
// that the block looked at is not scanned again. The runs' last byte and
// their lengths go to chLast and nTextPos, as the scan counts them.
[[gnu::always_inline]] inline const char* COldToRTF::AddRunsAndRememberedFontCmds(const char*& pRun, const char* pTextEnd,
                                                                                 unsigned char& chLast, unsigned& nTextPos)
{
    const char* p = pRun;
#if RTFCONV_SCAN_SSE2
    // The most a step writes: a run's block, then a command's words.
    constexpr std::size_t kcbStep = kcbShortRun + CWordBuffer::kcbWords;
    static_assert(kcbMaxEscape <= CWordBuffer::kcbWords, "an escape writes less than a command");
    static_assert(kcbShortRun == 16, "a run is one block");
    // The text's NUL is at pTextEnd: a run's block and the look from a
    // command within it stay before it up to the last step's start.
    constexpr std::size_t kcbTextStep = kcbShortRun + kcbFontCmdLook;
    if (static_cast<std::size_t>(pTextEnd - p) < kcbTextStep || m_cbQuickBuffer - m_dwQuickBufferPosition <= kcbStep) return p;
    const char* const pLastStep = pTextEnd - kcbTextStep;
    // The bytes a run stops at, as SkipPlainBytes finds them.
    const RunStops stops(m_bLossless);
    __m128i run = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    unsigned mask = stops.In(run);
    // A long run after the command, text in few fonts, is the scan's at once,
    // before the loop takes its place and state.
    if (mask == 0) return p + kcbShortRun;
    // The place written at, the character state in force and the slots stay
    // in registers or on the stack through the loop, and go back to the
    // members when it ends: the words are written through a char pointer,
    // which would otherwise have them all read again after every write.
    char* const pQuick = m_body.End();
    char* pOut = pQuick + m_dwQuickBufferPosition;
    char* const pLastOut = pQuick + (m_cbQuickBuffer - kcbStep - 1);
    CharacterParts partsInForce = m_inForce;
    unsigned char attributesInForce = m_attributes;
    RememberedFontCmd* const slots = m_rememberedFontCmds.get();
    for (;;) {
        const std::size_t cbRun = static_cast<std::size_t>(__builtin_ctz(mask));
        const char* const pStop = p + cbRun;
        const ByteClass c = kByteClass.cls[static_cast<unsigned char>(*pStop)];
        // What follows the run: a font command met before (the most
        // frequent, asked for first), a line mark, or a byte written escaped
        // (an RTF special; for the lossless writer a byte from 0x80 up).
        const bool bMark = c == bcTab || c == bcLineFeed || c == bcReturn;
        const RememberedFontCmd* pSlot = nullptr;
        if (c == bcCmdStart && pStop[1] == CDocCmd::font) {
            pSlot = RememberedFontCmdAt(slots, pStop);
            if (!pSlot) {
                p = pStop;
                break;
            }
        } else if (!bMark && c != bcEscaped && static_cast<unsigned char>(*pStop) <= 0x7F) {
            p = pStop;
            break;
        }
        // The run, then what follows it.
        _mm_storeu_si128(reinterpret_cast<__m128i*>(pOut), run);
        pOut += cbRun;
        nTextPos += static_cast<unsigned>(cbRun);
        if (cbRun > 0) chLast = static_cast<unsigned char>(pStop[-1]);
        if (pSlot) {
            pOut += WriteFontWords(pSlot->words, partsInForce, attributesInForce, pOut);
            p = pRun = pStop + pSlot->cb;
        } else if (bMark) {
            const ControlWord& word = ControlWordOf(c);
            std::memcpy(pOut, word.text, sizeof word.text);
            pOut += word.n;
            chLast = static_cast<unsigned char>(*pStop);
            ++nTextPos;
            p = pRun = pStop + 1;
        } else {
            // An escaped byte, as the scan writes it: the default writer
            // puts a backslash before the special, which then starts the
            // next run; the lossless one escapes the byte, or a double-byte
            // character, in the current font's page (see flushRunAndEscapes).
            int nTaken = 1;
            if (m_bLossless) {
                m_inForce = partsInForce;
                const bool bNextInRun = kRunByteClass.cls[static_cast<unsigned char>(pStop[1])] == bcPlain;
                std::size_t cbEscape = 0;
                nTaken = EscapeKeepingByte(PageOfCurrentFont(), pStop, bNextInRun, pOut, cbEscape);
                pOut += cbEscape;
            } else {
                pOut[0] = '\\';
                pOut[1] = *pStop;
                pOut += 2;
            }
            nTextPos += static_cast<unsigned>(nTaken);
            chLast = static_cast<unsigned char>(pStop[nTaken - 1]);
            p = pRun = pStop + nTaken;
        }
        if (p > pLastStep || pOut > pLastOut) break;
        run = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        mask = stops.In(run);
        if (mask == 0) {
            p += kcbShortRun;
            break;
        }
    }
    m_dwQuickBufferPosition = static_cast<DWORD>(pOut - pQuick);
    m_inForce = partsInForce;
    m_attributes = attributesInForce;
#else
    (void)pTextEnd;
    (void)chLast;
    (void)nTextPos;
#endif
    return p;
}

// Reading a command is the rare path: kept out of line, so that a command
// met again is handled in a small frame, without room for a CString and the
// words.
[[gnu::noinline]] COldToRTF::FontCmdWords COldToRTF::WordsOfFontCmd(const char* pFontCmd, int nFontCmd)
{
    return WordsOfMeaning(ParseFontCmd(CString(pFontCmd, nFontCmd)));
}

// The words of what differs from the character state in force, which
// becomes the command's. Compiled into each of its few callers, the scan's
// loop among them (see AddRememberedFontCmd).
[[gnu::always_inline]] inline void COldToRTF::AddFontWords(const FontCmdWords& w)
{
    // Where the quick buffer has room for the most a command writes, the
    // words are gathered where AddToBuffer would copy them.
    const bool bInPlace = m_cbQuickBuffer - m_dwQuickBufferPosition > CWordBuffer::kcbWords;
    char spare[CWordBuffer::kcbWords];
    CharacterParts partsInForce = m_inForce;
    unsigned char attributesInForce = m_attributes;
    const std::size_t cbWords = WriteFontWords(w, partsInForce, attributesInForce, bInPlace ? m_body.End() + m_dwQuickBufferPosition : spare);
    m_inForce = partsInForce;
    m_attributes = attributesInForce;
    if (bInPlace) m_dwQuickBufferPosition += static_cast<DWORD>(cbWords);
    else if (cbWords > 0) AddToBuffer(spare, static_cast<int>(cbWords));
}

namespace {

// Bit k set for each of the four parts of the character state that differ
// (COldToRTF::CharacterParts, aligned for one load each).
template <class TParts>
unsigned DifferingParts(const TParts& a, const TParts& b)
{
#if RTFCONV_SCAN_SSE2
    const __m128i same = _mm_cmpeq_epi32(_mm_load_si128(reinterpret_cast<const __m128i*>(&a)), _mm_load_si128(reinterpret_cast<const __m128i*>(&b)));
    return ~static_cast<unsigned>(_mm_movemask_ps(_mm_castsi128_ps(same))) & 15u;
#else
    return unsigned(a.nFont != b.nFont) | unsigned(a.nPoints != b.nPoints) << 1 | unsigned(a.nColor != b.nColor) << 2 |
           unsigned(a.nBackColor != b.nBackColor) << 3;
#endif
}

} // namespace

// The words of what differs from the character state in force, which
// becomes the command's, with their blank, written in the
// CWordBuffer::kcbWords bytes at pWords, which may take blocks past the
// count; their count, 0 when nothing changes. The parts in force are
// compared with the command's at once, and the words that change found by
// one mask, whose bits are in the order the words are written.
[[gnu::always_inline]] inline std::size_t COldToRTF::WriteFontWords(const FontCmdWords& w, CharacterParts& partsInForce,
                                                                     unsigned char& attributesInForce, char* pWords)
{
    static_assert(std::size(kAttributeWords) <= 8, "one bit of the attributes in force per attribute word");
    static_assert(kAttributeWords[1].isOn == &CFontCmd::IsUnderline && kUnderlineBit == 1u << 1, "the underline's bit");
    static_assert(FontCmdWords::wordBack == 3 && FontCmdWords::wordBackPattern == 4 && FontCmdWords::wordFirstAttribute == 5,
                  "the mask's bits: four parts, the back colour's second word, the attributes");
    const unsigned parts = DifferingParts(w.parts, partsInForce);
    unsigned changed = parts | (parts & 8u) << 1 | static_cast<unsigned>(w.attributes ^ attributesInForce) << FontCmdWords::wordFirstAttribute;
    partsInForce = w.parts;
    attributesInForce = w.attributes;
    if (changed == 0) return 0;
    // Every word's block and then the blank fit in the room the words are
    // gathered in.
    static_assert(sizeof w.bytes + 1 <= CWordBuffer::kcbWords, "the blocks of every word fit in the words' room");
    std::size_t cbWords = 0;
    auto copyWords = [&](auto cbBlock) {
        for (; changed != 0; changed &= changed - 1) {
            const int k = __builtin_ctz(changed);
            std::memcpy(pWords + cbWords, w.bytes + w.wordBegin[k], decltype(cbBlock)::value);
            cbWords += w.wordLength[k];
        }
    };
    if (w.bLongWords) copyWords(std::integral_constant<std::size_t, FontCmdWords::kcbWordBlock>());
    else copyWords(std::integral_constant<std::size_t, FontCmdWords::kcbShortWordBlock>());
    pWords[cbWords++] = ' ';
    return cbWords;
}

// =================================================================================
// Layout, print and comment commands
// =================================================================================

int COldToRTF::AddLayoutCmdToBuffer(const CString& sLayoutCmd)
{
    const char layout = CDocCmd::layout;
    VQASSERT(sLayoutCmd[1] == layout);
    return AddLayoutCmdToBuffer(sLayoutCmd.GetString(), sLayoutCmd.GetLength());
}

// The words of a valid command are a function of its text alone and are
// remembered; an invalid one is read again each time, as reading it reports
// so every time.
int COldToRTF::AddLayoutCmdToBuffer(const char* pLayoutCmd, int nLayoutCmd)
{
    const std::size_t cb = static_cast<std::size_t>(nLayoutCmd);
    bool bHeld = false;
    auto& slot = m_layoutCmdCache.SlotOf(pLayoutCmd, cb, bHeld);
    if (bHeld) {
        m_csLayoutWords = slot.meaning;
    } else {
        const CLayoutCmd cmd(CString(pLayoutCmd, nLayoutCmd));
        m_csLayoutWords = LayoutWordsOf(cmd);
        slot.text.clear();
        if (cmd.IsValidCmd()) {
            slot.meaning = m_csLayoutWords;
            slot.text.assign(pLayoutCmd, cb);
        }
    }
    CWordBuffer words;
    // Only a lossless table row is ever open: its paragraphs stay in the row.
    if (m_nRowCells > 0) words.Append("\\intbl", 6);
    words.Append(" ", 1);
    AddToBuffer(m_csLayoutWords);
    AddToBuffer(words.Data(), words.Size());
    return 0;
}

CString COldToRTF::LayoutWordsOf(const CLayoutCmd& cmd)
{
    CString words("\\pard");
    if (cmd.IsCenter()) words += "\\qc";
    else if (cmd.IsRight()) words += "\\qr";
    int li = InchesToTwips(cmd.GetLeftMargin());
    if (li > 0) AppendWord(words, "\\li", li);
    int ri = InchesToTwips(cmd.GetRightMargin());
    if (ri > 0) AppendWord(words, "\\ri", ri);
    int fi = InchesToTwips(cmd.GetFirstLineIndent());
    if (fi != 0) AppendWord(words, "\\fi", fi);

    CTabArray tabs;
    cmd.GetTabs(tabs);
    for (INT_PTR i = 0; i < tabs.GetSize(); ++i) {
        words += TabLeaderWord(tabs[i].m_leader);
        AppendWord(words, "\\tx", InchesToTwips(tabs[i].m_position));
    }
    return words;
}

int COldToRTF::AddPrintCmdToBuffer(const CString& sPrintCmd)
{
    const char print = CDocCmd::print;
    VQASSERT(sPrintCmd[1] == print);
    if (CPrintCmd(sPrintCmd).IsEject()) AddToBuffer("\\pagebb ", 8);
    return 0;
}

int COldToRTF::AddCommentCmdToBuffer(const CString& scmd, int /*nTextPos*/)
{
    const char comment = CDocCmd::comment;
    VQASSERT(scmd[1] == comment);

    const CCommentCmd cmd(scmd);
    switch (cmd.GetType()) {
    case ot_Hyperlink:
    case ot_Reference:
        if (m_bLossless) return AddHyperlinkKeepingDisplayFormatting(scmd.GetString(), scmd.GetLength());
        return AddHyperlinkToBuffer(scmd.GetString(), scmd.GetLength());
    case ot_Table:
        if (m_bLossless) return AddTableTagKeepingTable(cmd, m_pAfterCommand);
        return AddDescriptionToBuffer(cmd);
    case ot_Numbering:
        return AddNumberToBuffer(scmd.GetString(), scmd.GetLength());
    default:
        return AddDescriptionToBuffer(cmd);
    }
}

// Hyperlinks (for the lossless writer) and numbering, most of a document's
// comment commands, are written from the command's bytes where they lie. A
// command that reading it would report as malformed goes the way of the
// others, through a string and the command class, and is reported there.
int COldToRTF::AddCommentCmdToBuffer(const char* pCmd, int nCmd, int nTextPos)
{
    const bool bWellFormed = nCmd > CCommentCmd::idxText && pCmd[0] == CDocCmd::chCmdStart &&
                             pCmd[nCmd - 1] == CDocCmd::chCmdEnd && pCmd[CCommentCmd::idxSeparator] == CCommentCmd::chTextSeparator;
    const int type = bWellFormed ? static_cast<unsigned char>(pCmd[CCommentCmd::idxType]) : -1;
    if (type == ot_Hyperlink || type == ot_Reference)
        return m_bLossless ? AddHyperlinkKeepingDisplayFormatting(pCmd, nCmd) : AddHyperlinkToBuffer(pCmd, nCmd);
    if (type == ot_Numbering) return AddNumberToBuffer(pCmd, nCmd);
    return AddCommentCmdToBuffer(CString(pCmd, nCmd), nTextPos);
}

int COldToRTF::AddDescriptionToBuffer(const CCommentCmd& cmd)
{
    CString desc = cmd.GetDescription(1);
    if (desc.GetLength() < 1) return 0;
    AddToBuffer(desc);
    return desc.GetLength();
}

// The text position advances by the length of the escaped address, not of the
// shown text: callers count hyperlinks that way.
namespace {

// No byte is of this class: a scan for its stops alone.
struct NoBytes {
    static bool Holds(char) { return false; }
#if RTFCONV_SCAN_SSE2
    static __m128i Holds(__m128i) { return _mm_setzero_si128(); }
#endif
};

// What ReplaceSpecSymbols makes of the text's length: the specials, which
// few texts hold, are found a block at a time.
std::size_t EscapedLength(std::string_view s)
{
    std::size_t n = s.size();
    for (std::size_t i = 0;; ++i, ++n) {
        i += byte_scan::LengthBeforeClassOr<NoBytes>(s.data() + i, s.size() - i, '\\', '{', '}');
        if (i == s.size()) return n;
    }
}

// Field n of a comment command's bytes (its data fields start at idxText,
// end at a 0x03, and the first 0x02 ends them all), as CCommentCmd::GetData
// reads it: empty when the command has fewer fields.
std::string_view CommentDataField(const char* pCmd, int nCmd, int n)
{
    const char* p = pCmd + std::min(nCmd, static_cast<int>(CCommentCmd::idxText));
    const char* const pEnd = pCmd + nCmd;
    auto fieldEnd = [pEnd](const char* q) {
        return q + byte_scan::LengthBeforeClassOr<NoBytes>(q, static_cast<std::size_t>(pEnd - q), CCommentCmd::chDataSeparator,
                                                            CDocCmd::chCmdEnd);
    };
    for (; n > 0; --n) {
        p = fieldEnd(p);
        if (p == pEnd || *p == CDocCmd::chCmdEnd) return {};
        ++p; // over the separator
    }
    return std::string_view(p, static_cast<std::size_t>(fieldEnd(p) - p));
}

} // namespace

// The text with ReplaceSpecSymbols's escapes, written without a copy of it.
// Returns the length written.
std::size_t COldToRTF::AddToBufferEscapingSpecials(std::string_view s)
{
    std::size_t cbEscapes = 0;
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t n = byte_scan::LengthBeforeClassOr<NoBytes>(s.data() + i, s.size() - i, '\\', '{', '}');
        AddToBuffer(s.data() + i, static_cast<int>(n));
        i += n;
        if (i == s.size()) break;
        const char escaped[2] = {'\\', s[i++]};
        AddToBuffer(escaped, 2);
        ++cbEscapes;
    }
    return s.size() + cbEscapes;
}

// A hyperlink or reference command's bytes (within the text or a string):
// its display text (field 0) and target (field 1), escaped, in a field.
int COldToRTF::AddHyperlinkToBuffer(const char* pCmd, int nCmd)
{
    const std::string_view display = CommentDataField(pCmd, nCmd, 0);
    const std::string_view target = CommentDataField(pCmd, nCmd, 1);
    // The underline around the field is not part of the tracked character state.
    static const char kOpening[] = "\\ul{\\field{\\*\\fldinst{HYPERLINK ";
    static const char kAfterTarget[] = "}}{\\fldrslt ";
    static const char kClosing[] = "}}\\ul0 ";
    AddToBuffer(kOpening, static_cast<int>(sizeof kOpening - 1));
    const std::size_t cbTarget = AddToBufferEscapingSpecials(target);
    AddToBuffer(kAfterTarget, static_cast<int>(sizeof kAfterTarget - 1));
    AddToBufferEscapingSpecials(display);
    AddToBuffer(kClosing, static_cast<int>(sizeof kClosing - 1));
    return static_cast<int>(cbTarget);
}

// A numbering command's bullet font is added to the table the first time it
// is met and found there again after, so all but the current font's word is
// a function of the command's text.
COldToRTF::NumberMeaning COldToRTF::MeaningOfNumberCmd(const CString& scmd)
{
    const CNumberCmd cmd(scmd);
    NumberMeaning meaning;
    const CString csFace = cmd.GetData(CNumberCmd::fldBulletFont);
    if (!csFace.IsEmpty()) {
        FontTableStruct fts;
        fts.csFaceName = csFace;
        fts.csFamily = kBulletFontFamily;
        fts.nCharset = kBulletFontCharset;
        SetFontNumber(fts);
        meaning.nBulletFont = fts.nFontNumber;
    }
    CString desc = cmd.GetData(CNumberCmd::fldText);
    double blanks = std::trunc(cmd.GetTabWidth() * 4.0);
    int nBlanks = blanks > kMaxNumberTabBlanks ? kMaxNumberTabBlanks : blanks > 0 ? static_cast<int>(blanks) : 0;
    desc += CString(' ', nBlanks);
    meaning.csText = desc;
    meaning.nAdvance = cmd.GetLength();
    return meaning;
}

int COldToRTF::AddNumberToBuffer(const CString& scmd) { return AddNumberToBuffer(scmd.GetString(), scmd.GetLength()); }

// A command met before is known by its bytes: only a new one is read.
int COldToRTF::AddNumberToBuffer(const char* pCmd, int nCmd)
{
    const std::size_t cb = static_cast<std::size_t>(nCmd);
    bool bHeld = false;
    auto& slot = m_numberCmdCache.SlotOf(pCmd, cb, bHeld);
    if (!bHeld) {
        slot.text.clear(); // a parse that throws leaves no half-made entry
        slot.meaning = MeaningOfNumberCmd(CString(pCmd, nCmd));
        slot.text.assign(pCmd, cb);
    }
    const NumberMeaning& meaning = slot.meaning;
    auto addFontWord = [this](int nFontNumber) {
        CWordBuffer word;
        AppendWord(word, "\\f", nFontNumber);
        word.Append(" ", 1);
        AddToBuffer(word.Data(), word.Size());
    };
    if (meaning.nBulletFont >= 0) addFontWord(meaning.nBulletFont);
    VQASSERT(0 < meaning.csText.GetLength());
    AddTextRun(meaning.csText.GetString(), meaning.csText.GetLength());
    if (meaning.nBulletFont >= 0) addFontWord(m_fontTable[m_inForce.nFont].nFontNumber);
    return meaning.nAdvance;
}

// =================================================================================
// Attachments
// =================================================================================

int COldToRTF::AddOleCmdToBuffer(const CString& cmd, int nTextPos)
{
    const char attachment = CDocCmd::attachment;
    VQASSERT(cmd[1] == attachment);
    if (!m_pfnAttachmentFilter) return 0;

    AttachmentInfo info;
    info.pStm = nullptr;
    if (!m_pfnAttachmentFilter(nTextPos, cmd, info, m_pFilterParam1, m_pFilterParam2)) return 0;

    CAttachmentOwnership ownership(info);
    if (info.aType == AttachmentInfo::AT_PLACEHOLDER) AddToBuffer("\\objattph\\'20", 13);
    else if (AttachmentInfo::IsOleType(info.aType)) AddOleToBuffer(info);
    else if (m_bLossless) AddPictureKeepingItsFormat(info);
    if (info.pStm) {
        info.pStm->Release();
        info.pStm = nullptr;
    }
    ownership.Done();
    return 0;
}

int COldToRTF::AddOleToBuffer(AttachmentInfo& info)
{
    VQASSERT(info.aType >= AttachmentInfo::AT_OLE_FIRST && info.aType <= AttachmentInfo::AT_OLE_LAST);
    if (info.aType == AttachmentInfo::AT_OLE_PICTURE) {
        VQASSERT(info.m_pDIBitmap);
        if (info.m_pDIBitmap) AddDibToBuffer(*info.m_pDIBitmap);
    } else if (AttachmentInfo::IsOleType(info.aType)) {
        VQASSERT(info.pStm != NULL);
        STATSTG stat;
        HGLOBAL hGlobal = nullptr;
        if (info.pStm && info.pStm->Stat(&stat, STATFLAG_NONAME) == S_OK &&
            GetHGlobalFromStream(info.pStm, &hGlobal) == S_OK) {
            const void* pData = GlobalLock(hGlobal);
            if (pData == NULL) {
                VQASSERT(pData != NULL);
            } else {
                // The block holds the stream from offset 0 and is never shorter.
                unsigned long cb = static_cast<DWORD>(stat.cbSize.QuadPart);
                if (cb > GlobalSize(hGlobal)) cb = static_cast<unsigned long>(GlobalSize(hGlobal));
                AddToBuffer(info.aType == AttachmentInfo::AT_OLE_LAST ? CString("{\\object\\objlink{\\*\\objdata ")
                                                                      : CString("{\\object\\objemb{\\*\\objdata "));
                AddDataToBuffer(static_cast<const unsigned char*>(pData), cb);
                AddToBuffer('}');
                GlobalUnlock(hGlobal);
                if (info.m_pDIBitmap) AddOleResultToBuffer(*info.m_pDIBitmap);
                AddToBuffer('}');
            }
        }
        if (info.pStm) info.pStm->Release();
        info.pStm = nullptr;
    }
    delete info.m_pDIBitmap;
    info.m_pDIBitmap = nullptr;
    return 0;
}

int COldToRTF::AddDibToBuffer(const CDIBitmap& dib) { return AddPictureGroup(dib, "{\\pict", "}"); }

int COldToRTF::AddOleResultToBuffer(const CDIBitmap& dib) { return AddPictureGroup(dib, "{\\result{\\pict", "}}"); }

int COldToRTF::AddPictureGroup(const CDIBitmap& dib, const char* pszOpening, const char* pszClosing)
{
    const SIZE size = dib.GetSize();
    CString opening(pszOpening);
    opening.AppendFormat("\\dibitmap0\\wbmbitspixel%d\\wbmplanes1\\wbmwidthbytes%lu\\picw%ld\\pich%ld ",
                         dib.GetBitCount(), static_cast<unsigned long>(dib.DWAlignedBytesPerLine()),
                         static_cast<long>(size.cx), static_cast<long>(size.cy));
    AddToBuffer(opening);
    AddDataToBuffer(reinterpret_cast<const unsigned char*>(dib.GetInfo()), dib.GetInfoLength());
    AddDataToBuffer(dib.GetImageBitsPtr(), dib.GetBitsSize());
    AddToBuffer(pszClosing, static_cast<int>(std::strlen(pszClosing)));
    return 0;
}

// Full blocks of digits take the same way as any other append: with the
// default quick buffer they are larger than it and go straight to the stream.
void COldToRTF::AddDataToBuffer(const unsigned char* p, unsigned long n)
{
    char* const pDigits = m_pDataBuffer.get();
    int nFill = 0;
    for (unsigned long i = 0; i < n; ++i) {
        const char* pair = kHexPairs.pair[p[i]];
        pDigits[nFill] = pair[0];
        pDigits[nFill + 1] = pair[1];
        nFill += 2;
        if (nFill == nDataBufSize) {
            AddToBuffer(pDigits, nFill);
            nFill = 0;
        }
    }
    if (nFill) AddToBuffer(pDigits, nFill);
}

int COldToRTF::AddFileToBuffer(AttachmentInfo& /*info*/) { return 0; }

int COldToRTF::AddPictureToBuffer(AttachmentInfo& info) { return AddFileToBuffer(info); }

// =================================================================================
// Lossless writing
// =================================================================================
//
// Each function below is where the lossless writer leaves the specified path;
// with the option off every one of them does what the specified writer does.

COldToRTF::CharacterState COldToRTF::SaveCharacterState() { return CharacterStateMembers(); }

void COldToRTF::RestoreCharacterState(const CharacterState& state) { CharacterStateMembers() = state; }

long COldToRTF::ResultKeepingWriteFailures() const { return m_bLossless ? m_hrFirstOutFailure : S_OK; }

void COldToRTF::AddTextRun(const char* p, int n)
{
    if (m_bLossless) return AddTextKeepingEveryByte(p, n);
    AddToBuffer(p, n);
}

void COldToRTF::AddTextKeepingEveryByte(const char* p, int n)
{
    EscapeKeepingEveryByte(p, n, [this](const char* pEscaped, std::size_t cb) { AddToBuffer(pEscaped, static_cast<int>(cb)); });
}

// The page of the current font's character set, looked up again only when
// the set changes: the lookup takes the process-wide lock of the page table.
const CCodePage* COldToRTF::PageOfCurrentFont() const
{
    const int charset = m_inForce.nFont >= 0 && m_inForce.nFont < m_fontTable.GetSize() ? m_fontTable[m_inForce.nFont].nCharset : 0;
    if (charset != m_nPageCharset) {
        m_pPageOfCharset = CCodePage::Get(CodePageOfCharset(charset));
        m_nPageCharset = charset;
    }
    return m_pPageOfCharset;
}

namespace {

// The end of the run of bytes the lossless writer writes as they are (ASCII
// but the RTF specials) from p[i].
int PlainRunEnd(const char* p, int i, int n)
{
    return i >= n ? i : i + static_cast<int>(byte_scan::AsciiLengthBefore(p + i, static_cast<std::size_t>(n - i), '\\', '{', '}'));
}

} // namespace

// Bytes above 0x7F as \'hh, so that no reader guesses their code page from
// anything but the font; in a double-byte font a lead byte and its trail byte
// as one character, the trail byte escaped with it even when it is a
// backslash or a brace. Runs of plain bytes go to `append` as they are, the
// escapes through a small block of their own.
template <class Append>
void COldToRTF::EscapeKeepingEveryByte(const char* p, int n, Append&& append) const
{
    const CCodePage* pPage = PageOfCurrentFont();
    char escapes[256];
    std::size_t nEscapes = 0;
    auto flushEscapes = [&] {
        if (nEscapes) append(escapes, nEscapes);
        nEscapes = 0;
    };
    for (int i = 0; i < n;) {
        const int runEnd = PlainRunEnd(p, i, n);
        if (runEnd > i) {
            flushEscapes();
            append(p + i, static_cast<std::size_t>(runEnd - i));
            i = runEnd;
            continue;
        }
        if (nEscapes + kcbMaxEscape > sizeof escapes) flushEscapes();
        i += EscapeKeepingByte(pPage, p + i, i + 1 < n, escapes + nEscapes, nEscapes);
    }
    flushEscapes();
}

const char* COldToRTF::FindCommandEnd(const char* pCmd) const
{
    if (m_bLossless && pCmd[1] == CDocCmd::comment) return FindCommandEndKeepingNestedCommands(pCmd);
    const char* ptr = pCmd + 1;
    while (*ptr != CDocCmd::chCmdEnd && *ptr != '\0') ++ptr;
    return ptr;
}

// The text holds no NUL before its end: the command ends at the first 0x02,
// found a block at a time, or at the end of the text.
const char* COldToRTF::FindCommandEnd(const char* pCmd, const char* pTextEnd) const
{
    if (m_bLossless && pCmd[1] == CDocCmd::comment) return FindCommandEndKeepingNestedCommands(pCmd, pTextEnd);
    return FirstCommandEndOrTextEnd(pCmd + 1, pTextEnd);
}

const char* COldToRTF::FirstCommandEndOrTextEnd(const char* p, const char* pTextEnd)
{
    const void* pEnd = std::memchr(p, CDocCmd::chCmdEnd, static_cast<std::size_t>(pTextEnd - p));
    return pEnd ? static_cast<const char*>(pEnd) : pTextEnd;
}

// Hyperlinks written by older importers hold the font commands of their
// display text inside the comment command, in one of two shapes:
//   - balanced: the comment ends at the 0x02 that closes the last command
//     opened in it;
//   - a font command owed when the display text began, cut short by the
//     separator: 0x01 'C' 'H' ':' 0x01 'F'... 0x03 target 0x02 display 0x02.
// Without either shape the command ends where the specified writer ends it.
const char* COldToRTF::FindCommandEndKeepingNestedCommands(const char* pCmd) const
{
    HyperlinkParts parts;
    if (ParseOwedFontHyperlink(pCmd, parts)) return parts.pEnd;
    // One level of nesting is all a hyperlink holds. Stopping at a second
    // level also keeps the scans linear in the text: no command can start in
    // what a scan that gives up has passed over.
    int depth = 1;
    for (const char* ptr = pCmd + 1; *ptr != '\0'; ++ptr) {
        if (*ptr == CDocCmd::chCmdStart) {
            if (++depth > 2) break;
        } else if (*ptr == CDocCmd::chCmdEnd && --depth == 0) {
            return ptr;
        }
    }
    const char* ptr = pCmd + 1;
    while (*ptr != CDocCmd::chCmdEnd && *ptr != '\0') ++ptr;
    return ptr;
}

namespace {

// The bytes a scan of a comment command acts on are all below 4: its
// framing bytes and its field separator (and the NUL that ends the text).
// The bytes between are passed over a block at a time.
const char* SkipToFramingByte(const char* p, const char* pEnd, unsigned char below)
{
    return p + byte_scan::LengthBeforeLowOr(p, static_cast<std::size_t>(pEnd - p), below, false);
}

} // namespace

// The same for a command that starts before pTextEnd, the text's NUL.
const char* COldToRTF::FindCommandEndKeepingNestedCommands(const char* pCmd, const char* pTextEnd) const
{
    HyperlinkParts parts;
    if (ParseOwedFontHyperlink(pCmd, parts)) return parts.pEnd;
    int depth = 1;
    for (const char* ptr = SkipToFramingByte(pCmd + 1, pTextEnd, 3); ptr < pTextEnd; ptr = SkipToFramingByte(ptr + 1, pTextEnd, 3)) {
        if (*ptr == CDocCmd::chCmdStart) {
            if (++depth > 2) break;
        } else if (--depth == 0) { // a 0x02
            return ptr;
        }
    }
    return FirstCommandEndOrTextEnd(pCmd + 1, pTextEnd);
}

namespace {

// The index of the first of `stops` at or after p (the terminating NUL when none).
const char* FindFirstOf(const char* p, const char* stops)
{
    while (*p != '\0' && std::strchr(stops, *p) == nullptr) ++p;
    return p;
}

} // namespace

bool COldToRTF::ParseOwedFontHyperlink(const char* pCmd, HyperlinkParts& parts)
{
    static const char kEndOrSeparator[] = {CDocCmd::chCmdEnd, CCommentCmd::chDataSeparator, '\0'};
    static const char kStartOrEnd[] = {CDocCmd::chCmdStart, CDocCmd::chCmdEnd, '\0'};
    for (int i = 1; i < CCommentCmd::idxText; ++i)
        if (pCmd[i] == '\0') return false;
    const char* pFont = pCmd + CCommentCmd::idxText;
    if (pFont[0] != CDocCmd::chCmdStart || pFont[1] != CDocCmd::font) return false;
    const char* pSeparator = FindFirstOf(pFont + 1, kEndOrSeparator);
    if (*pSeparator != CCommentCmd::chDataSeparator) return false;
    const char* pTargetEnd = FindFirstOf(pSeparator + 1, kStartOrEnd);
    if (*pTargetEnd != CDocCmd::chCmdEnd) return false;
    const char* pDisplayEnd = FindFirstOf(pTargetEnd + 1, kStartOrEnd);
    if (*pDisplayEnd != CDocCmd::chCmdEnd) return false;
    parts.owedFontHead = std::string_view(pFont, static_cast<std::size_t>(pSeparator - pFont));
    parts.display = std::string_view(pTargetEnd + 1, static_cast<std::size_t>(pDisplayEnd - (pTargetEnd + 1)));
    parts.target = std::string_view(pSeparator + 1, static_cast<std::size_t>(pTargetEnd - (pSeparator + 1)));
    parts.pEnd = pDisplayEnd;
    return true;
}

namespace {

// The first two fields of a comment command (a hyperlink's display text and
// target), split at the separators outside the commands nested in it.
void SplitFirstTwoCommentFields(const char* pCmd, int nCmd, std::string_view& first, std::string_view& second)
{
    const char* p = pCmd + CCommentCmd::idxText;
    const char* const pEnd = pCmd + nCmd - 1; // the closing 0x02
    const char* pField = p;
    int nField = 0;
    int depth = 0;
    for (; nField < 2; ++p) {
        p = SkipToFramingByte(p, pEnd, 4);
        if (p >= pEnd) break;
        if (*p == CDocCmd::chCmdStart) ++depth;
        else if (*p == CDocCmd::chCmdEnd && depth > 0) --depth;
        else if (*p == CCommentCmd::chDataSeparator && depth == 0) {
            (nField++ == 0 ? first : second) = std::string_view(pField, static_cast<std::size_t>(p - pField));
            pField = p + 1;
        }
    }
    if (nField < 2) (nField == 0 ? first : second) = std::string_view(pField, static_cast<std::size_t>(pEnd - pField));
}

} // namespace

// The display text goes into \fldrslt as text, its font commands as the
// formatting they stand for, in a group of its own so that the character
// state outside the field is what it was before.
//
// The command's bytes may lie within the text: a command that the owed-font
// shape fits there fits it alone too, as the text's scan has ended it at the
// same 0x02; one that does not fit it there does not alone either.
int COldToRTF::AddHyperlinkKeepingDisplayFormatting(const char* pCmd, int nCmd)
{
    if (nCmd <= CCommentCmd::idxText) return 0;
    HyperlinkParts parts;
    if (!ParseOwedFontHyperlink(pCmd, parts)) SplitFirstTwoCommentFields(pCmd, nCmd, parts.display, parts.target);
    const std::string_view target = parts.target;

    static const char kOpening[] = "{\\field{\\*\\fldinst{HYPERLINK \"";
    static const char kAfterTarget[] = "\"}}{\\fldrslt{\\ul ";
    AddToBuffer(kOpening, static_cast<int>(sizeof kOpening - 1));
    AddTextKeepingEveryByte(target.data(), static_cast<int>(target.size()));
    AddToBuffer(kAfterTarget, static_cast<int>(sizeof kAfterTarget - 1));

    const CharacterState outside = SaveCharacterState();
    m_attributes |= kUnderlineBit;
    if (!parts.owedFontHead.empty()) AddOwedFontCmdToBuffer(parts.owedFontHead);
    AddDisplayTextKeepingFormatting(parts.display);
    RestoreCharacterState(outside);
    AddToBuffer("}}}", 3);
    return static_cast<int>(EscapedLength(target));
}

// The display text's runs as text, its font commands as their formatting.
void COldToRTF::AddDisplayTextKeepingFormatting(std::string_view display)
{
    std::size_t run = 0;
    for (std::size_t i = display.find(CDocCmd::chCmdStart); i != std::string_view::npos; i = display.find(CDocCmd::chCmdStart, i + 1)) {
        const std::size_t end = display.find(CDocCmd::chCmdEnd, i);
        if (end == std::string_view::npos) break;
        AddTextKeepingEveryByte(display.data() + run, static_cast<int>(i - run));
        if (display[i + 1] == CDocCmd::font) AddFontCmdToBuffer(display.data() + i, static_cast<int>(end + 1 - i));
        i = end;
        run = end + 1;
    }
    if (run < display.size()) AddTextKeepingEveryByte(display.data() + run, static_cast<int>(display.size() - run));
}

// The owed font command is its head (from its 0x01 on, holding no 0x02, cut
// off by the separator) with the 0x02 it is owed; the display text that
// follows it holds no command.
void COldToRTF::AddOwedFontCmdToBuffer(std::string_view head)
{
    std::string cmd;
    cmd.reserve(head.size() + 1);
    cmd.append(head.data(), head.size());
    cmd += CDocCmd::chCmdEnd;
    AddFontCmdToBuffer(cmd.data(), static_cast<int>(cmd.size()));
}

// Table tag commands become a table row: StartRow opens it with as many
// cells as EndCell tags follow before its EndRow; a StartRow inside an open
// row (importers tag every table paragraph) adds nothing; EndCell and EndRow
// outside a row keep the meaning the importer gives them without tags, a tab
// and a paragraph mark.
int COldToRTF::AddTableTagKeepingTable(const CCommentCmd& cmd, const char* pAfterCmd)
{
    const CString tag = cmd.GetData(0);
    const bool bRowOpen = m_nRowCells > 0;
    if (tag == "StartRow") {
        if (!bRowOpen) StartTableRow(pAfterCmd);
    } else if (tag == "EndCell") {
        if (bRowOpen) EndTableCell();
        else AddToBuffer("\\tab ", 5);
    } else if (tag == "EndRow") {
        if (bRowOpen) EndTableRow();
        else AddToBuffer("\\par ", 5);
    }
    return 0;
}

namespace {

// The text width the cells of a row share: a letter page less its margins.
const int kRowWidthTwips = 9360;

} // namespace

void COldToRTF::StartTableRow(const char* pAfterCmd)
{
    if (!pAfterCmd || (m_pNoCellsBefore && pAfterCmd < m_pNoCellsBefore)) return;
    int nCells = 0;
    bool bRowEnd = false;
    const char* p = std::strchr(pAfterCmd, CDocCmd::chCmdStart);
    for (; p && !bRowEnd; p = std::strchr(p, CDocCmd::chCmdStart)) {
        const char* pEnd = FindCommandEnd(p);
        if (*pEnd == '\0') {
            p = pEnd;
            break;
        }
        if (p[1] == CDocCmd::comment) {
            const CCommentCmd tag(p, static_cast<int>(pEnd + 1 - p));
            if (tag.GetType() == ot_Table) {
                const CString word = tag.GetData(0);
                if (word == "EndCell") ++nCells;
                bRowEnd = word == "EndRow";
            }
        }
        p = pEnd + 1;
    }
    // The StartRow tags up to where a look-ahead found no cell find none
    // either; they are not looked through again, which would take time
    // quadratic in the text.
    if (nCells == 0) {
        m_pNoCellsBefore = p ? p : pAfterCmd + std::strlen(pAfterCmd);
        return;
    }

    CString words("\\trowd\\trgaph108");
    for (int i = 1; i <= nCells; ++i) AppendWord(words, "\\cellx", static_cast<long long>(kRowWidthTwips) * i / nCells);
    words += m_csLayoutWords.IsEmpty() ? CString("\\pard") : m_csLayoutWords;
    words += "\\intbl ";
    AddToBuffer(words);
    m_nRowCells = nCells;
    m_nRowCellsEnded = 0;
}

void COldToRTF::EndTableCell()
{
    AddToBuffer("\\cell ", 6);
    ++m_nRowCellsEnded;
}

// A row ends with all the cells it was opened with.
void COldToRTF::EndTableRow()
{
    for (; m_nRowCellsEnded < m_nRowCells; ++m_nRowCellsEnded) AddToBuffer("\\cell ", 6);
    CString words("\\row ");
    words += m_csLayoutWords.IsEmpty() ? CString("\\pard") : m_csLayoutWords;
    words += ' ';
    AddToBuffer(words);
    m_nRowCells = m_nRowCellsEnded = 0;
}

void COldToRTF::CloseOpenTableRow()
{
    if (m_nRowCells > 0) EndTableRow();
}

// PNG, JPEG, EMF and WMF answers are written as the pictures they are, with
// the size their headers give; data that is not the picture it claims to be
// is left out, as the specified writer leaves out every such answer.
void COldToRTF::AddPictureKeepingItsFormat(AttachmentInfo& info)
{
    if (!info.pStm) return;
    STATSTG stat;
    HGLOBAL hGlobal = nullptr;
    if (info.pStm->Stat(&stat, STATFLAG_NONAME) != S_OK || GetHGlobalFromStream(info.pStm, &hGlobal) != S_OK) return;
    const unsigned char* pData = static_cast<const unsigned char*>(GlobalLock(hGlobal));
    if (!pData) return;
    std::size_t cb = static_cast<std::size_t>(stat.cbSize.QuadPart);
    if (cb > GlobalSize(hGlobal)) cb = GlobalSize(hGlobal);
    PictureDescription picture;
    if (DescribePicture(info.aType, pData, cb, picture) && picture.cbSkipped <= cb) {
        CString opening("{\\pict");
        opening += picture.pszFormatWord;
        if (picture.width > 0 && picture.height > 0) {
            AppendWord(opening, "\\picw", picture.width);
            AppendWord(opening, "\\pich", picture.height);
        }
        if (picture.widthTwips > 0 && picture.heightTwips > 0) {
            AppendWord(opening, "\\picwgoal", picture.widthTwips);
            AppendWord(opening, "\\pichgoal", picture.heightTwips);
        }
        opening += ' ';
        AddToBuffer(opening);
        AddDataToBuffer(pData + picture.cbSkipped, static_cast<unsigned long>(cb - picture.cbSkipped));
        AddToBuffer('}');
    }
    GlobalUnlock(hGlobal);
}

} // namespace rtf_converter
