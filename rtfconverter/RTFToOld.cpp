#include "rtfconverter/RTFToOld.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <typeinfo>
#include <utility>

#include "hostlibs/VQLogger.h"
#include "rtfconverter/ByteScan.h"

// The assertion texts of the numbering styles name the text macro of the
// string literals they compare with.
#ifndef _T
#define _T(x) x
#endif

namespace rtf_converter {

namespace {

// Bytes that must never reach old-format text: 0x01 to 0x03 frame markup
// commands there.
inline bool IsReservedByte(char ch)
{
    const unsigned char b = static_cast<unsigned char>(ch);
    return b <= 0x03 || b == 0x17;
}

inline bool IsHexDigit(char ch)
{
    return (ch >= '0' && ch <= '9') || (ch >= 'A' && ch <= 'F') || (ch >= 'a' && ch <= 'f');
}

// Per byte: the value of a hex digit (0..15), or -1.
struct CHexDigitTable {
    signed char value[256] = {};
    constexpr CHexDigitTable()
    {
        for (int b = 0; b < 256; ++b)
            value[b] = -1;
        for (int d = 0; d < 10; ++d)
            value['0' + d] = static_cast<signed char>(d);
        for (int d = 0; d < 6; ++d) {
            value['A' + d] = static_cast<signed char>(10 + d);
            value['a' + d] = static_cast<signed char>(10 + d);
        }
    }
};
constexpr CHexDigitTable kHexDigits;

inline int HexDigitValue(char ch) { return kHexDigits.value[static_cast<unsigned char>(ch)]; }

// Decodes up to cPairs pairs of hex digits into pOut; stops at the first pair
// that is not two digits. Returns the pairs decoded.
std::size_t DecodeHex(const char* p, std::size_t cPairs, BYTE* pOut)
{
    std::size_t k = 0;
    for (; k < cPairs; ++k) {
        const int hi = HexDigitValue(p[2 * k]);
        const int lo = HexDigitValue(p[2 * k + 1]);
        if ((hi | lo) < 0)
            break;
        pOut[k] = static_cast<BYTE>(hi * 16 + lo);
    }
    return k;
}

// The first bytes are compared inline: most words tested differ there.
inline bool KeywordIs(const void* pKeyword, const char* psz)
{
    const char* szKeyword = static_cast<const char*>(pKeyword);
    return szKeyword[0] == psz[0] && std::strcmp(szKeyword, psz) == 0;
}

// A style keyword turns its style off only with an explicit 0.
inline int IsStyleOn(int param) { return param == CRTFParser::noParam || param != 0 ? 1 : 0; }

inline double TwipsToInches(int twips) { return twips / 1440.0; }

// \b \i \ul \strike \super \sub: the font command setter of each, in the
// order the keywords are tested.
struct CharStyleKeyword {
    const char* szKeyword;
    void (CFontCmd::*pfnSetter)(int bOn);
};
const CharStyleKeyword kCharStyleKeywords[] = {
    {"b", &CFontCmd::SetBold},
    {"i", &CFontCmd::SetItalic},
    {"ul", &CFontCmd::SetUnderline},
    {"strike", &CFontCmd::SetStrikeout},
    {"super", &CFontCmd::SetSuperscript},
    {"sub", &CFontCmd::SetSubscript},
};

// Font family codes of the font table; \fnil, \fswiss and anything else: 0.
struct FontFamilyKeyword {
    const char* szKeyword;
    int family;
};
const FontFamilyKeyword kFontFamilyKeywords[] = {
    {"froman", 1}, {"fmodern", 3}, {"fscript", 4}, {"fdecor", 5}, {"ftech", 6}, {"fbidi", 7},
};

// Tab leaders that apply to the next \tx.
struct TabLeaderKeyword {
    const char* szKeyword;
    char chLeader;
};
const TabLeaderKeyword kTabLeaderKeywords[] = {
    {"tldot", '.'}, {"tlhyph", '-'}, {"tlul", '_'}, {"tleq", '='},
};

// Picture and object kinds, and the destination in which each is honoured.
struct AttachmentTypeKeyword {
    const char* szKeyword;
    RDS rds;
    LONG aType;
};
const AttachmentTypeKeyword kAttachmentTypeKeywords[] = {
    {"pngblip", rdsPicture, AttachmentInfo::AT_PNG},
    {"jpegblip", rdsPicture, AttachmentInfo::AT_JPEG},
    {"dibitmap", rdsPicture, AttachmentInfo::AT_DIB},
    {"wmetafile", rdsPicture, AttachmentInfo::AT_WMF},
    {"emfblip", rdsPicture, AttachmentInfo::AT_EMF},
    {"objemb", rdsObject, AttachmentInfo::AT_OLE_EMBEDDED},
    {"objlink", rdsObject, AttachmentInfo::AT_OLE_LAST},
};

// The layout \pard sets, checked once here rather than at every paragraph:
// a copy of it is what setting its text gives.
const CLayoutCmd kDefaultLayout;

// The field instruction prefixes of a hyperlink: the result is collected
// after the word, the target taken after the word and its space.
const char szHyperlink[] = "HYPERLINK";
const int cchHyperlink = 9;
const char szHyperlinkPrefix[] = "HYPERLINK ";
const int cchHyperlinkPrefix = 10;

} // namespace

// ============================================================================
// Set-up and life cycle
// ============================================================================

void CRTFImport::SetAttachmentFilter(PFNATTACHMENTFILTER pfnFilter, void* p1, void* p2)
{
    m_pfnAttachmentFilter = pfnFilter;
    m_pFilterParam1 = p1;
    m_pFilterParam2 = p2;
}

CRTFImport::~CRTFImport()
{
    ReleaseAttachmentStream();
    delete[] m_pBuffer;
}

void CRTFImport::ReleaseAttachmentStream()
{
    if (m_attachmentInfo.pStm) {
        IStream* pStm = m_attachmentInfo.pStm;
        m_attachmentInfo.pStm = nullptr;
        pStm->Release();
    }
}

void CRTFImport::Init()
{
    if (KeepsStateBetweenGroups())
        return;
    CBaseRTFParser::Init();
    // The font and colour arrays are deliberately not emptied: only their
    // counters restart.
    m_nLastFont = -1;
    m_nColorEntries = 0;
    m_chTabLeader = ' ';
    m_pLazySave = nullptr;  // the records went with the base's
}

CBaseRTFParser::CBaseRTFParserSave* CRTFImport::CreateSave()
{
    if (m_bStockReader)
        return new (std::nothrow) CRTFImportSave(*this, CRTFImportSave::LazyCommands());
    return new (std::nothrow) CRTFImportSave(*this);
}

bool CRTFImport::PushRtfState()
{
    m_bAtGroupStart = true;
    if (!CBaseRTFParser::PushRtfState())
        return false;
    CRTFImportSave* pSave = GetSave();
    if (!pSave) {
        VQASSERT(pSave);
        return true;
    }
    if (m_bStockReader)
        m_pLazySave = pSave;
    if (pSave->m_bHoldsState)
        return true;
    pSave->m_layoutCmd = m_layoutCmd;
    pSave->m_fontCmd = m_fontCmd;
    pSave->m_nFontCharset = m_nFontCharset;
    pSave->m_nUnicodeSkip = m_nUnicodeSkip;
    return true;
}

bool CRTFImport::PopRtfState()
{
    m_bAtGroupStart = false;
    CRTFImportSave* pSave = GetSave();
    if (!pSave) {
        VQASSERT(pSave);
    } else {
        RestoreCommands(*pSave);
        m_bFontChanged = true;
        m_nFontCharset = pSave->m_nFontCharset;
        m_nUnicodeSkip = pSave->m_nUnicodeSkip;
        // What the end of the group changes (EndGroupAction) stays in the
        // enclosing group, whose record saves first.
        if (m_bStockReader)
            m_pLazySave = static_cast<CRTFImportSave*>(pSave->pNext);
    }
    return CBaseRTFParser::PopRtfState();
}

// A record of the innermost group that has not saved a command yet: the
// reader's is the one the group opened with (an inner group restored its
// own), the one to restore at '}'.
void CRTFImport::SaveLayoutCmdForGroup()
{
    m_pLazySave->m_layoutCmd.CopyUnchecked(m_layoutCmd);
    m_pLazySave->m_bLayoutSaved = true;
}

void CRTFImport::SaveFontCmdForGroup()
{
    m_pLazySave->m_fontCmd.CopyUnchecked(m_fontCmd);
    m_pLazySave->m_bFontSaved = true;
}

// Most groups leave the commands as they found them. The stock readers build
// only valid commands, so the check a font command's copy makes would report
// nothing there; and their commands of the same text are in the same kind and
// mode (a font command's none and single, a layout command's layout and
// single), so one still equal to the saved one is not copied. A derived
// reader may set any command, and keeps the copies and their reports.
void CRTFImport::RestoreCommands(const CRTFImportSave& save)
{
    if (m_bStockReader) {
        if (save.m_bLayoutSaved && m_layoutCmd != save.m_layoutCmd)
            m_layoutCmd.CopyUnchecked(save.m_layoutCmd);
        if (save.m_bFontSaved && m_fontCmd != save.m_fontCmd)
            m_fontCmd.CopyUnchecked(save.m_fontCmd);
        return;
    }
    m_layoutCmd = save.m_layoutCmd;
    m_fontCmd = save.m_fontCmd;
}

// The font command sent, at every change of formatting: unchecked where
// RestoreCommands says why.
void CRTFImport::CopyFontCmd(CFontCmd& to, const CFontCmd& from)
{
    if (m_bStockReader)
        to.CopyUnchecked(from);
    else
        to = from;
}

// Each buffer after the first begins with the complete current layout and
// font, so that it can be interpreted on its own. This also covers a command
// that was recorded as sent but did not fit into the previous buffer.
bool CRTFImport::InitBuffer()
{
    // Only the lossless reading holds output back; it goes out first.
    if (!m_strHeld.IsEmpty() && !WriteHeldOutput())
        return false;
    if (!Put(m_layoutCmd.GetCmd()))
        return false;
    if (!Put(m_fontCmd.GetCmd()))
        return false;
    m_bFontChanged = false;
    m_lastLayoutCmd = m_layoutCmd;
    m_lastFontCmd = m_fontCmd;
    return true;
}

int CRTFImport::Read(bool& bMore)
{
    // Output held at the end of the input is all that is left to write.
    if (m_bInputEnded) {
        bMore = !WriteHeldOutput();
        return GetCBWritten();
    }
    m_bStockReader = typeid(*this) == typeid(CRTFStreamImport) || typeid(*this) == typeid(CRTFPtrImport);
    Parse(bMore);
    if (m_bLossless)
        ParseFragmentGroups(bMore);
    if (!bMore && !m_strHeld.IsEmpty()) {
        m_bInputEnded = true;
        bMore = true;
    }
    return GetCBWritten();
}

// ============================================================================
// Output
// ============================================================================

bool CRTFImport::Emit(const CString& s)
{
    if (m_pRedirectCommands) {
        if (FieldTextHasRoom(*m_pRedirectCommands, static_cast<std::size_t>(s.GetLength())))
            *m_pRedirectCommands += s;
        return true;
    }
    return Put(s);
}

bool CRTFImport::AppendOwedCommands()
{
    if (!InNumberingDestination()) {
        if (m_bParagraphStart && m_layoutCmd.GetCmd() != m_lastLayoutCmd.GetCmd()) {
            m_lastLayoutCmd = m_layoutCmd;
            if (!Emit(m_lastLayoutCmd.GetCmd()))
                return false;
        }
        if (m_bParagraphStart && m_numbering.GetCurrentInfo().GetNumberingOn()) {
            if (!AppendNumberingCommand())
                return false;  // still at the paragraph start: built again
        }
        m_bParagraphStart = false;
        if (!m_strPending.IsEmpty()) {
            if (!Emit(m_strPending))
                return false;
            m_strPending.Empty();
        }
    }
    if (m_bFontChanged && m_fontCmd.GetCmd() != m_lastFontCmd.GetCmd()) {
        CopyFontCmd(m_lastFontCmd, m_fontCmd);
        if (m_rds == rdsPNCommand)
            m_strPending += m_fontCmd.GetCmd();
        else if (!Emit(m_fontCmd.GetCmd()))
            return false;
    }
    m_bFontChanged = false;
    return true;
}

bool CRTFImport::Append(char ch)
{
    if (IsReservedByte(ch))
        ch = ' ';
    // Inside a paragraph with unchanged formatting nothing is owed: the
    // usual case, kept to three tests per character.
    if ((m_bParagraphStart || m_bFontChanged || !m_strPending.IsEmpty()) && !AppendOwedCommands())
        return false;
    switch (m_rds) {
    case rdsPNCommand:
        m_strPending += ch;
        return true;
    case rdsPNTextBefore:
        m_pnInfo.AppendCharBefore(ch);
        return true;
    case rdsPNTextAfter:
        m_pnInfo.AppendCharAfter(ch);
        return true;
    default:
        if (m_pRedirect) {
            if (RedirectHasRoom(1))
                *m_pRedirect += ch;
            return true;
        }
        return Put(ch);
    }
}

bool CRTFImport::Append(const CString& s)
{
    if (s.IsEmpty())
        return true;
    if (!AppendOwedCommands())
        return false;
    switch (m_rds) {
    case rdsPNCommand:
        m_strPending += s;
        return true;
    case rdsPNTextBefore:
        m_pnInfo.AppendTextBefore(s);
        return true;
    case rdsPNTextAfter:
        m_pnInfo.AppendTextAfter(s);
        return true;
    default:
        return Emit(s);
    }
}

// ============================================================================
// Characters
// ============================================================================

// The destinations whose characters are text of the document.
bool CRTFImport::InTextDestination() const
{
    switch (m_rds) {
    case rdsNorm:
    case rdsField:
    case rdsHyperlink:
    case rdsPNCommand:
    case rdsPNTextBefore:
    case rdsPNTextAfter:
        return true;
    default:
        return false;
    }
}

bool CRTFImport::ParseChar(char ch)
{
    m_bAtGroupStart = false;
    if (InTextDestination()) {
        if (m_bSkipNextChar) {
            m_bSkipNextChar = false;
            return true;
        }
        if (m_pfnFilter)
            m_pfnFilter(ch);
        if (!(m_bLossless ? AppendTextKeepingCharset(ch) : Append(ch))) {
            Backtrack(1);
            return false;
        }
        return true;
    }
    switch (m_rds) {
    case rdsFieldInst:
        if (FieldTextHasRoom(m_strFieldInst, 1))
            m_strFieldInst += ch;
        return true;
    case rdsFontTable:
        FillFontName(ch);
        return true;
    case rdsColorTable:
        if (ch == ';' && AddAutomaticColorEntry())
            ++m_nColorEntries;
        return true;
    case rdsPicture:
    case rdsObject:
        return ParseAttachmentData(ch);
    default:
        if (DropsTextEndingSkip())
            m_bSkipNextChar = false;
        return true;
    }
}

// The destinations whose characters are dropped and end a pending skip; the
// others that drop theirs leave the skip pending.
bool CRTFImport::DropsTextEndingSkip() const
{
    return m_rds == rdsStyleSheet || m_rds == rdsRevTable || m_rds == rdsInfo || m_rds == rdsPNText;
}

bool CRTFImport::InsertSpecialChar(const void* lpv, int)
{
    VQASSERT(NULL != lpv);
    if (!lpv)
        return true;
    char ch;
    if (KeywordIs(lpv, "lquote"))
        ch = '\x91';
    else if (KeywordIs(lpv, "rquote"))
        ch = '\x92';
    else
        return true;
    if (m_pfnFilter)
        m_pfnFilter(ch);
    return Append(ch);
}

bool CRTFImport::ProcessSpecialChar(const void* pKeyword, int param)
{
    if (m_bSkipNextChar) {
        m_bSkipNextChar = false;
        return true;
    }
    return CBaseRTFParser::ProcessSpecialChar(pKeyword, param);
}

bool CRTFImport::ProcessSpecial(const void*, int) { return true; }
bool CRTFImport::SkipCharacters(const void*, int) { return true; }

// ============================================================================
// Runs of ordinary bytes
// ============================================================================

bool CRTFImport::ParseRun(const char* p, std::size_t cb)
{
    m_bAtGroupStart = false;
    switch (m_rds) {
    case rdsNorm:
    case rdsField:
    case rdsHyperlink:
        return ParseTextRun(p, cb);
    case rdsFieldInst:
        CollectFieldText(m_strFieldInst, p, cb);
        SkipAhead(cb);
        return true;
    case rdsPicture:
    case rdsObject:
        return ParseAttachmentRun(p, cb);
    case rdsFontTable:
    case rdsColorTable:
    case rdsPNCommand:
    case rdsPNTextBefore:
    case rdsPNTextAfter:
        // The tables and the numbering text: short, and read byte by byte.
        return CRTFParser::ParseRun(p, cb);
    default:
        // Dropped, as ParseChar drops them.
        if (DropsTextEndingSkip())
            m_bSkipNextChar = false;
        SkipAhead(cb);
        return true;
    }
}

// The bytes ParseChar would write as they are go out a run at a time; each
// other byte (a pending skip, a filter, commands owed at a paragraph start or
// after a formatting change, a reserved or non-ASCII byte) takes the per-byte
// path, after which the bulk path may go on.
bool CRTFImport::ParseTextRun(const char* p, std::size_t cb)
{
    std::size_t i = 0;
    while (i < cb) {
        if (TextOwesNothing()) {
            const std::size_t cbPlain = PlainTextLength(p + i, cb - i);
            const std::size_t cbTaken = WriteTextRun(p + i, cbPlain);
            SkipAhead(cbTaken);
            i += cbTaken;
            if (cbTaken < cbPlain)
                return false;  // the buffer is full before the byte at i
            if (i == cb)
                return true;
        }
        // In a text destination ParseChar reads no byte beyond its own.
        if (!CRTFParser::ParseRun(p + i, 1))
            return false;
        ++i;
    }
    return true;
}

// What Append and the lossless AppendAscii check before they put a byte.
bool CRTFImport::TextOwesNothing() const
{
    return !m_bSkipNextChar && !m_pfnFilter && !m_bParagraphStart && !m_bFontChanged && m_strPending.IsEmpty() &&
           m_chLeadByte < 0;
}

std::size_t CRTFImport::PlainTextLength(const char* p, std::size_t cb) const
{
    // Up to the first reserved byte (below 0x04, or 0x17) or, for the
    // lossless reading, the first byte above ASCII.
    return byte_scan::LengthBeforeLowOr(p, cb, 0x04, m_bLossless, '\x17');
}

// Returns how many bytes were taken: fewer than cb only when the buffer
// filled up.
std::size_t CRTFImport::WriteTextRun(const char* p, std::size_t cb)
{
    if (!m_pRedirect)
        return PutRun(p, cb);
    CollectFieldText(*m_pRedirect, p, cb);
    return cb;
}

// As many bytes as the field text limit leaves room for; the rest is dropped,
// as FieldTextHasRoom drops them one by one.
void CRTFImport::CollectFieldText(CString& text, const char* p, std::size_t cb)
{
    const std::size_t cchText = static_cast<std::size_t>(text.GetLength());
    const std::size_t limit = static_cast<std::size_t>(m_limits.maxFieldText);
    const std::size_t cbRoom = cchText < limit ? limit - cchText : 0;
    const std::size_t cbKept = cb < cbRoom ? cb : cbRoom;
    text.Append(p, static_cast<int>(cbKept));
    if (cbKept < cb)
        NoteLimitReached(limitFieldText);
}

std::size_t CRTFImport::PutRun(const char* p, std::size_t cb)
{
    std::size_t n = 0;
    while (n < cb && Put(p[n]))
        ++n;
    return n;
}

// Whole pairs of hex digits are decoded here. A pair that is not two digits
// goes to the per-byte path, which drops its first byte; a digit at the end of
// the run waits for the byte after it, so it is left to the parse loop.
bool CRTFImport::ParseAttachmentRun(const char* p, std::size_t cb)
{
    if (!m_bAttachmentDropped && (!m_attachmentInfo.pStm || !m_pBuffer))
        return CRTFParser::ParseRun(p, cb);  // reads each byte alone
    std::size_t i = 0;
    for (;;) {
        if (m_bAttachmentDropped) {
            SkipAhead(cb - i);
            return true;
        }
        const std::size_t cbDecoded = DecodeHexPairs(p + i, cb - i);
        SkipAhead(cbDecoded);
        i += cbDecoded;
        if (m_bAttachmentDropped)
            continue;
        if (cb - i < 2)
            return true;
        // The undecodable pair lies within the run: one byte is taken.
        if (!CRTFParser::ParseRun(p + i, 1))
            return false;
        ++i;
    }
}

// Decodes the pairs of hex digits at p; returns the bytes taken, a multiple of
// two, stopping early when the attachment is dropped.
std::size_t CRTFImport::DecodeHexPairs(const char* p, std::size_t cb)
{
    std::size_t i = 0;
    while (i + 1 < cb && !m_bAttachmentDropped) {
        WriteFullAttachmentBuffer();
        const std::size_t cFree = static_cast<std::size_t>(nDataBufSize - m_nBufferPos);
        const std::size_t cPairs = std::min((cb - i) / 2, cFree);
        const std::size_t cDecoded = DecodeHex(p + i, cPairs, m_pBuffer + m_nBufferPos);
        m_nBufferPos += static_cast<int>(cDecoded);
        i += 2 * cDecoded;
        WriteFullAttachmentBuffer();
        if (cDecoded < cPairs)
            break;
    }
    return i;
}

// ============================================================================
// Character formatting
// ============================================================================

bool CRTFImport::ApplyCharCommand(const void* pKeyword, int param)
{
    for (const CharStyleKeyword& k : kCharStyleKeywords) {
        if (KeywordIs(pKeyword, k.szKeyword)) {
            (FontCmdToChange().*k.pfnSetter)(IsStyleOn(param));
            m_bFontChanged = true;
            return true;
        }
    }
    if (KeywordIs(pKeyword, "cchs")) {
        FontCmdToChange().SetCharset(param == noParam ? 1 : param);
        m_bFontChanged = true;
    }
    return true;
}

bool CRTFImport::ApplyPlainCommand(const void*, int)
{
    ApplyPlainFont();
    return true;
}

// Returns the default font's entry, -1 when there is none.
int CRTFImport::ApplyPlainFont()
{
    FontCmdToChange().SetDefault(fcmAll);
    const int i = m_nDefaultFont >= 0 ? FindFontEntry(m_nDefaultFont) : -1;
    if (i >= 0)
        ApplyFontEntry(i);
    m_bFontChanged = true;
    return i;
}

// A slot for the entry and the command's first eight bytes (size, colour,
// attributes, the face's first letters) and length, which tell most commands
// apart; the texts decide.
std::size_t CRTFImport::FontEntryMemoSlot(int i, const CString& cmd)
{
    std::uint64_t head = 0;  // a stock reader's commands hold at least 8 bytes
    if (cmd.GetLength() >= CFontCmd::iFntCmdLenMin)
        std::memcpy(&head, cmd.GetString(), sizeof head);
    const std::uint64_t key = head + (static_cast<std::uint64_t>(i) << 56) + static_cast<std::uint64_t>(cmd.GetLength());
    // The top bits of the product depend on every bit of the key.
    return static_cast<std::size_t>((key * 0x9E3779B97F4A7C15u) >> (64 - cFontEntryMemoBits));
}

// The face and character set of font table entry i put into the current font
// command. The same few commands meet the same entries paragraph after
// paragraph, so a stock reader keeps what each entry last made of which text
// (its commands are valid, and the edits then report nothing: a result taken
// again is all they do).
void CRTFImport::ApplyFontEntry(int i)
{
    const FontTableStruct& entry = m_FontTable[i];
    FontCmdToChange();
    if (!m_bStockReader) {
        m_fontCmd.SetFaceName(entry.FontName);
        m_fontCmd.SetCharset(entry.FontCharset);
        return;
    }
    FontEntryMemo& memo = m_fontEntryMemo[FontEntryMemoSlot(i, m_fontCmd.GetCmd())];
    if (memo.charset == entry.FontCharset && memo.before == m_fontCmd.GetCmd() && memo.face == entry.FontName) {
        m_fontCmd.CopyUnchecked(memo.after);
        return;
    }
    memo.before = m_fontCmd.GetCmd();
    m_fontCmd.SetFaceName(entry.FontName);
    m_fontCmd.SetCharset(entry.FontCharset);
    memo.face = entry.FontName;
    memo.charset = entry.FontCharset;
    memo.after.CopyUnchecked(m_fontCmd);
}

bool CRTFImport::ApplyFontSize(const void*, int param)
{
    if (m_rds == rdsPNText)
        return true;
    const int halfPoints = param == noParam ? 24 : param;
    FontCmdToChange().SetPoints(halfPoints / 2, 0);
    m_bFontChanged = true;
    return true;
}

// The colour-table entry a \cf or \cb parameter names (0 when it has none);
// null, after the assertion, past the end of the table. A negative index
// raises the framework's invalid-argument exception.
const CRTFImport::RTFCOLOR* CRTFImport::ColorEntry(int param)
{
    const int idxColor = param == noParam ? 0 : param;
    if (!(idxColor < m_nColorEntries)) {
        VQASSERT(idxColor < m_nColorEntries);
        return nullptr;
    }
    if (m_bLossless && (idxColor < 0 || idxColor >= m_ColorTable.GetSize())) {
        ReportIgnored("colour table entry", idxColor);
        return nullptr;
    }
    return &m_ColorTable[idxColor];
}

bool CRTFImport::ApplyColorCommand(const void*, int param)
{
    const RTFCOLOR* pColor = ColorEntry(param);
    if (!pColor)
        return true;
    if (pColor->bAutomatic) {
        if (!m_fontCmd.IsDefaultColor()) {
            FontCmdToChange().SetDefault(fcmColor);
            m_bFontChanged = true;
        }
        return true;
    }
    const int index = FindNearestColor(pColor->red, pColor->green, pColor->blue);
    if (index >= 0) {
        FontCmdToChange().SetColor(static_cast<char>('A' + index), 0);
        m_bFontChanged = true;
    }
    return true;
}

bool CRTFImport::ApplyBKColorCommand(const void*, int param)
{
    const RTFCOLOR* pColor = ColorEntry(param);
    if (!pColor)
        return true;
    if (pColor->bAutomatic) {
        if (m_fontCmd.GetBackColor() != 0) {
            FontCmdToChange().SetDefault(fcmBackColor);
            m_bFontChanged = true;
        }
        return true;
    }
    const int index = FindNearestColor(pColor->red, pColor->green, pColor->blue);
    if (index >= 0) {
        FontCmdToChange().SetBackColor(static_cast<char>('a' + index), 0);
        m_bFontChanged = true;
    }
    return true;
}

// ============================================================================
// Font and colour tables
// ============================================================================

int CRTFImport::FindFontEntry(int fontNum) const
{
    for (int i = m_nLastFont; i >= 0; --i) {
        if (m_FontTable[i].FontNum == fontNum)
            return i;
    }
    return -1;
}

bool CRTFImport::GetFontNum(const void*, int param)
{
    if (m_rds == rdsFontTable) {
        if (!FontTableHasRoom())
            return true;
        ++m_nLastFont;
        m_FontTable.SetSize(m_nLastFont + 1, 10);
        FontTableStruct& entry = m_FontTable[m_nLastFont];
        entry.FontNum = param;
        entry.FontCharset = 1;
        entry.FontFamily = 0;
        return true;
    }
    if (m_rds == rdsPNText)
        return true;
    ApplyFontNumber(param);
    return true;
}

// \f outside the font table and the numbering text. Returns the entry,
// -1 when there is none.
int CRTFImport::ApplyFontNumber(int FontNumber)
{
    const int i = FindFontEntry(FontNumber);
    if (i < 0) {
        VQTRACE("GetFontNum: wrong font number!(rds=%d)\n", static_cast<int>(m_rds));
        return -1;
    }
    VQASSERT(m_FontTable[i].FontNum == FontNumber);
    ApplyFontEntry(i);
    m_bFontChanged = true;
    return i;
}

bool CRTFImport::FillFontFamily(const void* pKeyword, int)
{
    int family = 0;
    for (const FontFamilyKeyword& k : kFontFamilyKeywords) {
        if (KeywordIs(pKeyword, k.szKeyword)) {
            family = k.family;
            break;
        }
    }
    if (FontTableStruct* pEntry = FontEntryBeingDefined())
        pEntry->FontFamily = family;
    return true;
}

bool CRTFImport::FillFontCharset(const void*, int param)
{
    VQASSERT(m_rds == rdsFontTable);
    if (FontTableStruct* pEntry = FontEntryBeingDefined())
        pEntry->FontCharset = param;
    return true;
}

void CRTFImport::FillFontName(char ch)
{
    if (ch == ';')
        return;
    FontTableStruct* pEntry = FontEntryBeingDefined();
    if (!pEntry)
        return;
    CString& name = pEntry->FontName;
    // Each group saves the font command, face name included.
    if (WithinLimit(static_cast<std::size_t>(name.GetLength()) + 1,
                    static_cast<std::size_t>(m_limits.maxFontNameLength), limitFontName))
        name += ch;
}

// Past the limit an entry's group is skipped, its name and character set with
// it; in a table without a group per entry that is the rest of the table.
bool CRTFImport::FontTableHasRoom()
{
    if (WithinLimit(static_cast<std::size_t>(m_nLastFont) + 2, static_cast<std::size_t>(m_limits.maxFontEntries),
                    limitFontEntries))
        return true;
    m_rds = rdsSkip;
    return false;
}

// The field instruction and a hyperlink's display text are collected in
// memory until the field ends.
bool CRTFImport::FieldTextHasRoom(const CString& text, std::size_t cbMore)
{
    return WithinLimit(static_cast<std::size_t>(text.GetLength()) + cbMore,
                       static_cast<std::size_t>(m_limits.maxFieldText), limitFieldText);
}

bool CRTFImport::RedirectHasRoom(std::size_t cbMore)
{
    return FieldTextHasRoom(*m_pRedirect, cbMore);
}

bool CRTFImport::GetDefaultFontNum(const void*, int param)
{
    m_nDefaultFont = param;
    return true;
}

bool CRTFImport::InitColorTable(const void* pKeyword, int param)
{
    CBaseRTFParser::InitColorTable(pKeyword, param);
    // A second table restarts the count but appends: its colours overwrite
    // the first table's entries from index 0 while its semicolons add new
    // entries at the end.
    AddAutomaticColorEntry();
    m_nColorEntries = 1;
    return true;
}

bool CRTFImport::AddAutomaticColorEntry()
{
    // Past the limit the rest of the table is skipped, so that its colour
    // values do not land on the last entry kept.
    if (!WithinLimit(static_cast<std::size_t>(m_ColorTable.GetSize()) + 1,
                     static_cast<std::size_t>(m_limits.maxColorEntries), limitColorEntries)) {
        m_rds = rdsSkip;
        return false;
    }
    RTFCOLOR automatic;
    m_ColorTable.Add(automatic);
    return true;
}

bool CRTFImport::FillColorTable(const void* pKeyword, int param)
{
    RTFCOLOR* pColor = ColorEntryBeingDefined();
    if (!pColor)
        return true;
    RTFCOLOR& color = *pColor;
    const BYTE value = static_cast<BYTE>(param & 0xFF);
    if (KeywordIs(pKeyword, "red"))
        color.red = value;
    else if (KeywordIs(pKeyword, "green"))
        color.green = value;
    else
        color.blue = value;
    color.bAutomatic = 0;
    return true;
}

// ============================================================================
// Paragraph formatting, paragraph marks, line breaks and tabs
// ============================================================================

bool CRTFImport::ApplyParCommand(const void* pKeyword, int param)
{
    CBaseRTFParser::ApplyParCommand(pKeyword, param);

    if (KeywordIs(pKeyword, "pard")) {
        // Most paragraphs start from the default layout already.
        if (!m_bStockReader || m_layoutCmd != kDefaultLayout)
            LayoutCmdToChange() = kDefaultLayout;
        m_chTabLeader = ' ';
        // No m_bFontChanged: the removed background reaches the output only
        // with the next font change. A stock reader's command, valid and in
        // mode single, is left as it is when it has no background.
        if (!m_bStockReader || m_fontCmd.GetBackColor() != '\0')
            FontCmdToChange().SetDefault(fcmBackColor);
    } else if (KeywordIs(pKeyword, "ql")) {
        if (!LayoutEditLeavesText(CLayoutCmd::posJustify, "L"))
            LayoutCmdToChange().Left();
    } else if (KeywordIs(pKeyword, "qc")) {
        LayoutCmdToChange().Center();
    } else if (KeywordIs(pKeyword, "qr")) {
        LayoutCmdToChange().Right();
    } else if (KeywordIs(pKeyword, "li")) {
        if (param != 0 || !LayoutEditLeavesText(CLayoutCmd::posLeftMargin, "000"))
            EditLayoutMeasure(leftMargin, param);
    } else if (KeywordIs(pKeyword, "fi")) {
        EditLayoutMeasure(firstLineIndent, param);
    } else if (KeywordIs(pKeyword, "ri")) {
        if (param != 0 || !LayoutEditLeavesText(CLayoutCmd::posRightMargin, "000"))
            EditLayoutMeasure(rightMargin, param);
    } else if (m_rds != rdsPNCommand) {
        for (const TabLeaderKeyword& k : kTabLeaderKeywords) {
            if (KeywordIs(pKeyword, k.szKeyword)) {
                m_chTabLeader = k.chLeader;
                return true;
            }
        }
        if (KeywordIs(pKeyword, "tx")) {
            InsertTabStop(param);
        } else if (KeywordIs(pKeyword, "tb")) {
            // A bar tab clears the paragraph's tab stops instead of adding one.
            LayoutCmdToChange().SetTabs(CTabArray());
            m_chTabLeader = ' ';
        }
    }
    return true;
}

// A margin or the first line's indent, in twips. Paragraph after paragraph
// sets the same measures over the same layout: a stock reader keeps what each
// edit last made of which text (its commands are valid, so an edit reports
// nothing, and a result taken again is all it does).
void CRTFImport::EditLayoutMeasure(LayoutMeasure measure, int twips)
{
    static constexpr void (CLayoutCmd::*kSetters[])(double) = {
        &CLayoutCmd::SetLeftMargin, &CLayoutCmd::SetFirstLineIndent, &CLayoutCmd::SetRightMargin};
    const auto pfnSet = kSetters[measure];
    if (!m_bStockReader) {
        (LayoutCmdToChange().*pfnSet)(TwipsToInches(twips));
        return;
    }
    LayoutEditMemo& memo = m_layoutEditMemo[measure];
    if (memo.bMade && memo.twips == twips && memo.before == m_layoutCmd.GetCmd()) {
        if (memo.after != memo.before)
            LayoutCmdToChange().CopyUnchecked(memo.after);
        return;
    }
    memo.before = m_layoutCmd.GetCmd();
    memo.twips = twips;
    (LayoutCmdToChange().*pfnSet)(TwipsToInches(twips));
    memo.after.CopyUnchecked(m_layoutCmd);
    memo.bMade = true;
}

// Most paragraphs set a left justification and margins of zero over the
// same of \pard. A stock reader's layout command is valid, so the check each
// edit makes reports nothing, and an edit that would write the bytes already
// there is left out. (The compare stops at the text's NUL at the latest.)
bool CRTFImport::LayoutEditLeavesText(int pos, const char* pszField) const
{
    if (!m_bStockReader)
        return false;
    const char* pCmd = m_layoutCmd.GetCmd().GetString() + pos;
    for (; *pszField; ++pszField, ++pCmd)
        if (*pCmd != *pszField)
            return false;
    return true;
}

void CRTFImport::InsertTabStop(int param)
{
    CTabArray tabs;
    m_layoutCmd.GetTabs(tabs);

    TabDescription tab;
    tab.m_position = TwipsToInches(param);
    tab.m_leader = m_chTabLeader;
    m_chTabLeader = ' ';

    INT_PTR i = 0;
    while (i < tabs.GetSize() && tabs[i].m_position < tab.m_position)
        ++i;
    if (i < tabs.GetSize() && tabs[i].m_position == tab.m_position)
        return;  // a duplicate stop is dropped, its leader too
    tabs.InsertAt(i, tab);
    LayoutCmdToChange().SetTabs(tabs);
}

bool CRTFImport::ApplyCRCommand(const void* pKeyword, int param)
{
    const bool bOk = Append('\r');
    if (!bOk) {
        // Fires at every full buffer at a paragraph end; the core re-reads
        // \par in the next call.
        VQASSERT(bOk);
        return false;
    }
    const bool bResult = CBaseRTFParser::ApplyCRCommand(pKeyword, param);
    m_strPending.Empty();
    return bResult;
}

bool CRTFImport::ApplyNLCommand(const void*, int) { return Append('\n'); }
bool CRTFImport::ApplyTabCommand(const void*, int) { return Append('\t'); }

// ============================================================================
// Fields and hyperlinks
// ============================================================================

bool CRTFImport::FieldInit(const void* pKeyword, int param)
{
    if (m_rds != rdsSkip) {
        m_strFieldInst.Empty();
        m_strFieldResult.Empty();
        m_fontAtField = m_lastFontCmd;
    }
    return CBaseRTFParser::FieldInit(pKeyword, param);
}

bool CRTFImport::FieldResult(const void*, int)
{
    if (m_rds == rdsSkip)
        return true;
    if (m_strFieldInst.Left(cchHyperlink) != szHyperlink) {
        m_rds = rdsNorm;  // the result of any other field is ordinary text
        return true;
    }
    m_rds = rdsHyperlink;
    m_pRedirect = m_pRedirectCommands = &m_strFieldResult;
    return true;
}

bool CRTFImport::EndGroupAction(RDS rdsOld, RDS rdsNew)
{
    CBaseRTFParser::EndGroupAction(rdsOld, rdsNew);
    if (m_bLossless)
        EndGroupKeepingFieldsAndFonts(rdsOld, rdsNew);
    else if (rdsOld == rdsField && rdsNew != rdsField)
        EndField();
    if ((rdsOld == rdsPicture || rdsOld == rdsObject) && m_attachmentInfo.pStm && m_pBuffer)
        EndAttachment(rdsOld);
    return true;
}

void CRTFImport::EndField()
{
    m_pRedirect = m_pRedirectCommands = nullptr;
    if (m_strFieldInst.IsEmpty() || m_strFieldInst.Left(cchHyperlinkPrefix) != szHyperlinkPrefix) {
        // Empty for ordinary fields; for an instruction such as "HYPERLINKx"
        // the collected display text goes out as it is.
        Put(m_strFieldResult);
        return;
    }

    StripMarkup(m_strFieldInst);
    CString target = m_strFieldInst.Mid(cchHyperlinkPrefix);
    const int len = target.GetLength();
    if (!(len > 0)) {
        VQASSERT(len > 0);
        return;
    }

    // The font commands produced while the display text was collected never
    // reached the output: what was last sent is the font of the field's start.
    // (The group's end restored it already; a stock reader's record may not
    // hold it, and need not.)
    CRTFImportSave* pSave = GetSave();
    if (!pSave)
        VQASSERT(pSave);
    else if (!m_bStockReader)
        m_fontCmd = pSave->m_fontCmd;
    m_lastFontCmd = m_fontAtField;
    m_bFontChanged = true;

    if (target[0] == '"' && target[len - 1] == '"')
        target = len >= 2 ? target.Mid(1, len - 2) : CString();
    StripMarkup(target);

    // Eleven characters against the ten-letter word: only a target that is
    // exactly "javascript" (in any case) is refused here.
    if (target.Left(11).CompareNoCase("javascript") == 0)
        return;
    if (target.Find('.') < 0)
        return;

    CCommentCmd cmd(ot_Hyperlink);
    cmd.SetData(m_strFieldResult, 0);
    cmd.SetData(target, 1);
    Append(cmd.GetCmd());
}

void CRTFImport::StripMarkup(CString& s)
{
    const int len = s.GetLength();
    const char* p = s.GetString();
    // Most texts (link targets, display texts) hold no byte below a space,
    // and nothing here changes them.
    if (byte_scan::LengthBeforeLowOr(p, static_cast<std::size_t>(len), 0x20, false) == static_cast<std::size_t>(len))
        return;
    const bool bTrailing17 = p[len - 1] == '\x17';
    // Written into a block of the input's length, which the output never
    // exceeds, and measured once at the end.
    CString out;
    char* pOut = out.GetBufferSetLength(len);
    int cchOut = 0;
    for (int i = 0; i < len; ++i) {
        const unsigned char b = static_cast<unsigned char>(p[i]);
        if (b == 0x01) {
            while (i + 1 < len && p[i + 1] != '\x02')
                ++i;
            ++i;  // the closing 0x02, or past the end
        } else if (b < 0x20 && b != 0x09) {
            pOut[cchOut++] = ' ';
        } else {
            pOut[cchOut++] = static_cast<char>(b);
        }
    }
    if (bTrailing17 && cchOut > 0)
        --cchOut;
    out.ReleaseBuffer(cchOut);
    s = std::move(out);
}

// ============================================================================
// Tables
// ============================================================================

bool CRTFImport::PutCommentCmd(int type, const char* pszData)
{
    CCommentCmd cmd(static_cast<OTHERCMD_TYPE>(type));
    cmd.SetData(pszData, 0);
    return Append(cmd.GetCmd());
}

bool CRTFImport::ApplyStartRowCommand(const void*, int)
{
    return m_bPasteWithTableTags ? PutCommentCmd(ot_Table, "StartRow") : true;
}

bool CRTFImport::ApplyEndRowCommand(const void* pKeyword, int param)
{
    return m_bPasteWithTableTags ? PutCommentCmd(ot_Table, "EndRow") : ApplyCRCommand(pKeyword, param);
}

bool CRTFImport::ApplyLastRowCommand(const void*, int)
{
    return m_bPasteWithTableTags ? PutCommentCmd(ot_Table, "LastRow") : true;
}

bool CRTFImport::ApplyEndCellCommand(const void* pKeyword, int param)
{
    return m_bPasteWithTableTags ? PutCommentCmd(ot_Table, "EndCell") : ApplyTabCommand(pKeyword, param);
}

// ============================================================================
// Pictures, objects and attachments
// ============================================================================

bool CRTFImport::InitAttachment(const void* pKeyword, int)
{
    m_attachmentInfo.aType = AttachmentInfo::AT_NONE;
    m_attachmentInfo.nReserved1 = -1;
    m_attachmentInfo.nReserved2 = -1;
    m_attachmentInfo.csExtra.Empty();
    ReleaseAttachmentStream();
    m_attachmentInfo.dwDataSize = 0;
    m_bAttachmentDropped = false;

    if (KeywordIs(pKeyword, "objattph"))
        return AttachmentHandler();

    if (KeywordIs(pKeyword, "object")) {
        m_rds = rdsObject;
        m_attachmentInfo.aType = AttachmentInfo::AT_OLE_EMBEDDED;
        m_bObjectInserted = FALSE;
    } else {
        m_rds = rdsPicture;
    }

    const HRESULT hr = CreateStreamOnHGlobal(nullptr, TRUE, &m_attachmentInfo.pStm);
    if (FAILED(hr))
        AfxThrowOleException(hr);
    VQASSERT(NULL != m_attachmentInfo.pStm);

    if (!m_pBuffer) {
        m_pBuffer = new (std::nothrow) BYTE[nDataBufSize]();
        VQASSERT(m_pBuffer != NULL);
    }
    m_nBufferPos = 0;
    return true;
}

bool CRTFImport::AttachmentHandler()
{
    if (!m_pfnAttachmentFilter)
        return true;
    m_attachmentInfo.aType = AttachmentInfo::AT_PLACEHOLDER;
    CString text;
    if (!m_pfnAttachmentFilter(m_attachmentInfo, text, m_pFilterParam1, m_pFilterParam2))
        return true;
    // The placeholder character that follows \objattph is dropped.
    m_bSkipNextChar = true;
    return Put(text);
}

bool CRTFImport::SetPictureType(const void* pKeyword, int)
{
    VQASSERT(m_rds == rdsPicture || m_rds == rdsObject);
    for (const AttachmentTypeKeyword& k : kAttachmentTypeKeywords) {
        if (KeywordIs(pKeyword, k.szKeyword)) {
            if (m_rds == k.rds)
                m_attachmentInfo.aType = k.aType;
            break;
        }
    }
    return true;
}

bool CRTFImport::ObjectData(const void*, int)
{
    VQASSERT(m_rds == rdsObject);
    return true;
}

bool CRTFImport::ObjectResult(const void*, int)
{
    VQASSERT(m_rds == rdsObject);
    // An inserted object's presentation is skipped; a rejected object's stays
    // in rdsObject, so that a picture in it is offered to the filter instead.
    if (m_bObjectInserted)
        m_rds = rdsSkip;
    return true;
}

bool CRTFImport::ParseAttachmentData(char ch)
{
    if (m_bAttachmentDropped)
        return true;
    VQASSERT(m_attachmentInfo.pStm != NULL);
    VQASSERT(m_pBuffer != NULL);
    if (!m_attachmentInfo.pStm || !m_pBuffer)
        return true;

    const int value = ParseHexParam(ch);
    if (value == noParam) {
        VQASSERT(0);
        DropUndecodableHexByte();
        return true;
    }
    StoreAttachmentByte(static_cast<BYTE>(value));
    return true;
}

void CRTFImport::StoreAttachmentByte(BYTE b)
{
    WriteFullAttachmentBuffer();
    m_pBuffer[m_nBufferPos++] = b;
    WriteFullAttachmentBuffer();
}

// A full buffer goes to the stream at once. (\bin data may also have filled
// it to its last byte and left it so.)
void CRTFImport::WriteFullAttachmentBuffer()
{
    if (m_nBufferPos >= nDataBufSize) {
        WriteAttachmentBuffer(m_nBufferPos);
        m_nBufferPos = 0;
    }
}

// The hex decoder un-reads a pair it cannot decode, down to its first byte:
// a non-hex byte (a space, a line break inside a pair) or a lone digit before
// the closing brace would come back here on every attempt and the conversion
// would never advance. Stepping over that first byte drops it; whatever
// followed is read again and handled as usual.
void CRTFImport::DropUndecodableHexByte()
{
    char chDropped = 0;
    Get(chDropped);
}

void CRTFImport::WriteAttachmentBuffer(int cb)
{
    if (!AttachmentHasRoom(cb))
        return;
    ULONG cbWritten = 0;
    const HRESULT hr = m_attachmentInfo.pStm->Write(m_pBuffer, static_cast<ULONG>(cb), &cbWritten);
    if (FAILED(hr))
        AfxThrowOleException(hr);
    m_attachmentInfo.dwDataSize += cbWritten;
}

bool CRTFImport::GetBinary(const void*, int param)
{
    int n = param;
    if ((m_rds == rdsPicture || m_rds == rdsObject) && m_attachmentInfo.pStm && m_pBuffer) {
        while (n > 0) {
            if (m_nBufferPos >= nDataBufSize) {
                WriteAttachmentBuffer(m_nBufferPos);
                m_nBufferPos = 0;
            }
            const int cbFree = nDataBufSize - m_nBufferPos;
            const int chunk = n < cbFree ? n : cbFree;
            // A source fails only at the end of its input. Refusing the
            // keyword would have it read again in every later call, ending
            // the same way each time; the conversion ends here instead.
            if (Get(chunk, m_pBuffer + m_nBufferPos) < 0)
                return true;
            m_nBufferPos += chunk;
            n -= chunk;
        }
        return true;
    }
    // As above: a count past the end of input ends the conversion.
    Get(n, nullptr);
    return true;
}

// The decoded data is held in memory until the attachment ends: past the
// limit the attachment is dropped, and the rest of its data with it.
bool CRTFImport::AttachmentHasRoom(int cb)
{
    if (m_bAttachmentDropped)
        return false;
    if (WithinLimit(std::size_t(m_attachmentInfo.dwDataSize) + static_cast<std::size_t>(cb),
                    m_limits.maxAttachmentBytes, limitAttachment))
        return true;
    ReleaseAttachmentStream();
    m_bAttachmentDropped = true;
    return false;
}

void CRTFImport::EndAttachment(RDS rdsOld)
{
    if (m_nBufferPos > 0)
        WriteAttachmentBuffer(m_nBufferPos);
    if (m_bAttachmentDropped)
        return;

    ULARGE_INTEGER size;
    size.QuadPart = m_attachmentInfo.dwDataSize;
    const HRESULT hr = m_attachmentInfo.pStm->SetSize(size);
    if (FAILED(hr))
        AfxThrowOleException(hr);

    if (m_pfnAttachmentFilter) {
        CString text;
        if (m_pfnAttachmentFilter(m_attachmentInfo, text, m_pFilterParam1, m_pFilterParam2)) {
            // Straight to the sink: no owed command precedes it and no
            // redirection applies. Text that does not fit is lost.
            if (PutOrHold(text) && rdsOld == rdsObject)
                m_bObjectInserted = TRUE;
        }
    }
    ReleaseAttachmentStream();
}

// ============================================================================
// Numbering
// ============================================================================

bool CRTFImport::InitPNCommand(const void* pKeyword, int param)
{
    // The numbering group that comes last before the paragraph's text
    // decides: a \pn group discards the literal text of a \pntext before it.
    if (m_rds != rdsHyperlink)
        m_strPending.Empty();
    return CBaseRTFParser::InitPNCommand(pKeyword, param);
}

namespace {

// The numbering command's type for the current numbering; -1 leaves the
// command's type as it is.
int NumberCmdType(const CNumberingState& ns)
{
    const CString textBefore = ns.GetCurrentInfo().GetTextBefore();
    const CString textAfter = ns.GetCurrentInfo().GetTextAfter();
    switch (ns.GetCurrentInfo().GetNumberingType()) {
    case pntDecimal:
        if (textBefore == "(") {
            VQASSERT(_T(")") == ns.GetCurrentInfo().GetTextAfter());
            return nt_DecimalBoth;
        }
        if (textAfter == ")")
            return nt_DecimalParen;
        VQASSERT(_T(".") == ns.GetCurrentInfo().GetTextAfter());
        return nt_Decimal;
    case pntLowerLetter:
        if (textBefore == "(") {
            VQASSERT(_T(")") == ns.GetCurrentInfo().GetTextAfter());
            return nt_LowerLetterBoth;
        }
        return nt_LowerLetterParen;
    case pntUpperLetter:
        return nt_UpperLetter;
    case pntUpperRoman:
        return nt_UpperRoman;
    case pntLowerRoman:
        return nt_LowerRoman;
    case pntBullet:
        return nt_Bullet1;
    default:
        VQASSERT(FALSE);
        return -1;
    }
}

} // namespace

// Free so that both numbering operations share it; `ns` names the state in
// the assertion texts. `code` is NumberCmdType's answer for ns.
static void BuildNumberCmd(const CNumberingState& ns, int code, CNumberCmd& cmd)
{
    if (code >= 0)
        cmd.SetNumType(code);

    const int type = cmd.GetNumType();
    if (type >= 1 && type <= 15)
        cmd.SetNumber(ns.m_number, ns.GetCurrentInfo().GetLevel());
    else if (type > 16)
        cmd.SetNumber(0, 0);
}

static bool BuildNumberCmd(const CNumberingState& ns, CNumberCmd& cmd)
{
    const bool bRes = ns.GetCurrentInfo().GetNumberingOn();
    if (!bRes) {
        VQASSERT(bRes);
        return false;
    }
    BuildNumberCmd(ns, NumberCmdType(ns), cmd);
    return true;
}

bool CRTFImport::FillNumberCmd(CNumberCmd& cmd)
{
    const bool bRes = m_numbering.GetCurrentInfo().GetNumberingOn();
    if (!bRes) {
        VQASSERT(bRes);
        return false;
    }
    return BuildNumberCmd(m_numbering, cmd);
}

// Every numbered paragraph asks for a command, and building one takes a dozen
// string edits, while a document's lists go through the same few numbers
// again and again. The texts are kept for the values whose building reports
// nothing (a known kind, a number from 0 up, a level from 0 to 9); any other
// is built each time, with its reports.
const CString& CRTFImport::NumberCmdText()
{
    const int code = NumberCmdType(m_numbering);
    const int number = m_numbering.m_number;
    const int level = m_numbering.GetCurrentInfo().GetLevel();
    const bool bKept = code > nt_None && code < nt_Last && number >= 0 && level >= 0 && level <= 9;
    if (bKept) {
        for (const NumberCmdMemo& memo : m_numberCmdMemo)
            if (memo.code == code && memo.number == number && memo.level == level)
                return memo.text;
    }
    CNumberCmd cmd;
    BuildNumberCmd(m_numbering, code, cmd);
    const CString text = cmd.GetCmd();
    NumberCmdMemo& memo = m_numberCmdMemo[m_nNextNumberCmdMemo];
    if (bKept)
        m_nNextNumberCmdMemo = (m_nNextNumberCmdMemo + 1) % cNumberCmdMemos;
    memo = {bKept ? code : -1, number, level, text};
    return memo.text;
}

bool CRTFImport::AppendNumberingCommand()
{
    const bool bRes = m_numbering.GetCurrentInfo().GetNumberingOn();
    if (!bRes) {
        VQASSERT(bRes);
        const bool bOk = false;
        VQASSERT(bOk);
        return false;
    }
    const CString& cmd = NumberCmdText();
    if (m_pRedirectCommands) {
        // As the command's text conversion gives it: up to a NUL, which a
        // built command never holds.
        const char* pszCmd = cmd.GetString();
        if (FieldTextHasRoom(*m_pRedirectCommands, std::strlen(pszCmd)))
            *m_pRedirectCommands += pszCmd;
        return true;
    }
    return Put(cmd);
}

// ============================================================================
// CRTFImportToPtr: the caller's buffer
// ============================================================================

int CRTFImportToPtr::Read(char* b, char* e, bool& bMore)
{
    VQASSERT(NULL != b && NULL != e);
    if (!b || !e || e < b)
        e = b = nullptr;  // nothing can be written: every put is refused
    OpenWindow(b, e);
    return CRTFImport::Read(bMore);
}

// A character may fill the last byte; a string needs one byte more room than
// its length, for the copy's NUL, which the next put overwrites.
bool CRTFImportToPtr::Put(char ch) { return PutByte(ch); }

bool CRTFImportToPtr::Put(const CString& s)
{
    return PutTerminated(s.GetString(), static_cast<std::size_t>(s.GetLength()));
}

int CRTFImportToPtr::GetCBWritten() const { return static_cast<int>(Written()); }

std::size_t CRTFImportToPtr::PutRun(const char* p, std::size_t cb) { return PutAsMuchAsFits(p, cb); }

// ============================================================================
// CRTFPtrImport: a NUL-terminated text
// ============================================================================

CRTFPtrImport::CRTFPtrImport(const char* text)
    : m_pStart(text ? text : ""), m_cchText(std::strlen(m_pStart))
{
}

// The NUL ends the input. A read there, or after it, fails with a NUL in ch
// and still moves the position on, as reading the terminator would; so the
// tokenizer's counted rewinds come out right, while nothing past the
// terminator is touched.
long CRTFPtrImport::Get(char& ch)
{
    if (m_ichCur >= m_cchText) {
        m_bInputExhausted = true;
        ++m_ichCur;
        ch = '\0';
        return E_UNEXPECTED;
    }
    ch = m_pStart[m_ichCur++];
    return S_OK;
}

// A block that reaches past the terminator (or a negative count) fails as the
// stream source does: what is there is copied and the input ends.
long CRTFPtrImport::Get(int n, unsigned char* pDest)
{
    const std::size_t cchLeft = m_ichCur < m_cchText ? m_cchText - m_ichCur : 0;
    if (n < 0 || static_cast<std::size_t>(n) > cchLeft) {
        if (pDest && cchLeft)
            std::memcpy(pDest, m_pStart + m_ichCur, cchLeft);
        if (m_ichCur < m_cchText)
            m_ichCur = m_cchText;
        return E_UNEXPECTED;
    }
    if (pDest && n)
        std::memcpy(pDest, m_pStart + m_ichCur, static_cast<std::size_t>(n));
    m_ichCur += static_cast<std::size_t>(n);
    return S_OK;
}

void CRTFPtrImport::MarkBacktrack(int n)
{
    const std::size_t back = n < 0 ? 0 : static_cast<std::size_t>(n);
    m_ichMark = back < m_ichCur ? m_ichCur - back : 0;
}

void CRTFPtrImport::Backtrack(int n)
{
    if (n == -1) {
        m_ichCur = m_ichMark;
        return;
    }
    const std::size_t back = n < 0 ? 0 : static_cast<std::size_t>(n);
    m_ichCur = back < m_ichCur ? m_ichCur - back : 0;
}

// Nothing is offered once a read has failed at the terminator: the reads
// past it must stay counted one by one.
const char* CRTFPtrImport::RunAhead(std::size_t& cb) const
{
    cb = m_ichCur < m_cchText ? m_cchText - m_ichCur : 0;
    return cb ? m_pStart + m_ichCur : nullptr;
}

void CRTFPtrImport::SkipAhead(std::size_t cb)
{
    const std::size_t cchLeft = m_ichCur < m_cchText ? m_cchText - m_ichCur : 0;
    m_ichCur += cb < cchLeft ? cb : cchLeft;
}

// ============================================================================
// CRTFStreamImport: an IStream through a read buffer with history
// ============================================================================

CRTFStreamImport::CRTFStreamImport(IStream* pStream) : CByteCursor(nullptr, 0), m_pStream(pStream)
{
    m_pBase = m_strBuffer.GetBufferSetLength(nReadBufferSize);
    VQASSERT(NULL != m_pBase);
    m_pCur = m_pMark = m_pEnd = m_pBase;
}

// Only this very class: one derived from it may read m_pCur itself, or have
// replaced any of the operations.
CByteCursor* CRTFStreamImport::StockCursor()
{
    TakeFromCursor();
    m_bCursorLive = typeid(*this) == typeid(CRTFStreamImport);
    GiveToCursor();
    return m_bCursorLive ? this : nullptr;
}

void CRTFStreamImport::TakeFromCursor()
{
    if (!m_bCursorLive)
        return;
    m_pCur = m_pBase + (m_pRead - m_pData);
    m_pMark = m_pBase + (CByteCursor::m_pMark - m_pData);
}

// The cursor spans the whole read buffer, history included, so that its
// rewinds stop where this class's own do.
void CRTFStreamImport::GiveToCursor()
{
    if (!m_bCursorLive)
        return;
    m_pData = reinterpret_cast<const unsigned char*>(m_pBase);
    m_cbData = static_cast<unsigned long>(m_pEnd - m_pBase);
    m_pRead = m_pData + (m_pCur - m_pBase);
    CByteCursor::m_pMark = m_pData + (m_pMark - m_pBase);
}

long CRTFStreamImport::Get(char& ch)
{
    if (m_bCursorLive && m_pRead < m_pData + m_cbData) {
        ch = static_cast<char>(*m_pRead++);
        return S_OK;
    }
    TakeFromCursor();
    if (m_pCur >= m_pEnd) {
        const long hr = ReadNewBuffer();
        if (hr < 0) {
            m_bInputExhausted = true;
            GiveToCursor();
            return hr;
        }
    }
    ch = *m_pCur++;
    GiveToCursor();
    return S_OK;
}

long CRTFStreamImport::ReadNewBuffer()
{
    if (m_bEof)
        return E_UNEXPECTED;
    return RefillBuffer();
}

long CRTFStreamImport::RefillBuffer()
{
    char* pKeep = m_pCur - nHistorySize > m_pBase ? m_pCur - nHistorySize : m_pBase;
    const std::ptrdiff_t shift = pKeep - m_pBase;
    if (shift > 0)
        std::memmove(m_pBase, pKeep, nHistorySize);
    m_pCur -= shift;
    // A mark within the kept history moves with it; an older one is lost and
    // a rewind then goes to the refill point.
    if (m_pMark > pKeep)
        m_pMark -= shift;
    else
        m_pMark = m_pCur;

    ULONG cbRead = 0;
    if (m_pStream)
        m_pStream->Read(m_pCur, nBlockSize, &cbRead);  // only the count matters
    if (cbRead > static_cast<ULONG>(nBlockSize))
        cbRead = nBlockSize;
    if (cbRead < static_cast<ULONG>(nBlockSize))
        m_bEof = true;
    m_pEnd = m_pCur + cbRead;
    m_cbStreamRead += cbRead;
    if (cbRead == 0)
        return E_UNEXPECTED;
    return S_OK;
}

// Bytes that lie wholly in the read buffer are skipped, not copied; only the
// bytes that cross a refill reach pDest. That is how this source delivers
// \bin data.
long CRTFStreamImport::Get(int n, unsigned char* pDest)
{
    TakeFromCursor();
    const long hr = GetBlock(n, pDest);
    GiveToCursor();
    return hr;
}

long CRTFStreamImport::GetBlock(int n, unsigned char* pDest)
{
    if (n < 0) {
        // A negative count would move the read position backwards, out of
        // the buffer: the input ends here instead.
        m_pCur = m_pEnd;
        m_bEof = true;
        return E_UNEXPECTED;
    }
    std::size_t cbLeft = static_cast<std::size_t>(n);
    while (cbLeft > static_cast<std::size_t>(m_pEnd - m_pCur)) {
        const std::size_t cbAvail = static_cast<std::size_t>(m_pEnd - m_pCur);
        if (pDest && cbAvail) {
            std::memcpy(pDest, m_pCur, cbAvail);
            pDest += cbAvail;
        }
        cbLeft -= cbAvail;
        m_pCur = m_pEnd;
        if (m_bEof)
            return E_UNEXPECTED;
        if (RefillBuffer() < 0)
            return E_UNEXPECTED;
    }
    m_pCur += cbLeft;
    return S_OK;
}

void CRTFStreamImport::MarkBacktrack(int n)
{
    TakeFromCursor();
    m_pMark = n > m_pCur - m_pBase ? m_pBase : m_pCur - n;
    GiveToCursor();
}

// Clamped to the buffer: after reads that failed at the end of the stream the
// tokenizer may rewind by more bytes than it actually took.
void CRTFStreamImport::Backtrack(int n)
{
    TakeFromCursor();
    if (n == -1)
        m_pCur = m_pMark;
    else
        m_pCur = n > m_pCur - m_pBase ? m_pBase : m_pCur - n;
    GiveToCursor();
}

const char* CRTFStreamImport::RunAhead(std::size_t& cb) const
{
    const char* pCur = ReadPosition();
    cb = pCur < m_pEnd ? static_cast<std::size_t>(m_pEnd - pCur) : 0;
    return pCur;
}

// Taken after every run of text: a live cursor spans the read buffer as
// GiveToCursor left it, so the skip moves its read position alone.
void CRTFStreamImport::SkipAhead(std::size_t cb)
{
    if (m_bCursorLive)
        m_pRead += cb;
    else
        m_pCur += cb;
}

} // namespace rtf_converter
