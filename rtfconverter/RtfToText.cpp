#include "rtfconverter/RtfToText.h"

#include <algorithm>
#include <cstring>
#include <typeinfo>

#include "hostlibs/VQLogger.h"
#include "platform/WinTypes.h"
#include "rtfconverter/ByteScan.h"

namespace rtf_converter {

namespace {

// Room for a rendered paragraph number, its texts and indentation.
constexpr unsigned kNumberingStringSize = 512;

// Bytes that must never reach plain or old-format text (0x01 to 0x03 frame
// markup commands there).
inline bool IsReservedByte(char ch)
{
    const unsigned char b = static_cast<unsigned char>(ch);
    return b <= 0x03 || b == 0x17;
}

// The offset of the first reserved byte of [p, p + cb); cb when none is.
std::size_t ReservedByteOffset(const char* p, std::size_t cb)
{
#if RTFCONV_SCAN_SSE2
    auto blockStops = [](__m128i v) {
        return _mm_or_si128(_mm_cmpeq_epi8(_mm_min_epu8(v, byte_scan::Splat(0x03)), v), byte_scan::Is(v, 0x17));
    };
#else
    auto blockStops = [](int) { return 0; };
#endif
    return byte_scan::LengthBefore(p, cb, blockStops, IsReservedByte);
}

} // namespace

// --- characters

bool CRTFToPlainTextParser::ParseChar(char ch)
{
    switch (m_rds) {
    case rdsNorm:
    case rdsField:
    case rdsHyperlink:
    case rdsPNCommand:
    case rdsPNTextBefore:
    case rdsPNTextAfter:
        if (m_bSkipNextChar) {
            m_bSkipNextChar = false;
            return true;
        }
        if (!Append(ch)) {
            Backtrack(1);
            return false;
        }
        return true;
    case rdsStyleSheet:
    case rdsRevTable:
    case rdsInfo:
    case rdsPNText:
        m_bSkipNextChar = false;
        return true;
    default:
        return true;  // dropped; a pending skip stays pending
    }
}

bool CRTFToPlainTextParser::ParseRun(const char* p, std::size_t cb)
{
    switch (m_rds) {
    case rdsNorm:
    case rdsField:
    case rdsHyperlink:
        // A pending skip or a paragraph number still due: the first byte
        // goes as ParseChar takes it, which settles them (the parse loop
        // hands a run whole, first byte and all); byte by byte if it has not.
        if (m_bSkipNextChar || m_bParagraphStart) {
            if (!CBaseRTFParser::ParseRun(p, 1))
                return false;
            ++p;
            if (--cb == 0)
                return true;
            if (m_bSkipNextChar || m_bParagraphStart)
                break;
        }
        {
            const std::size_t cbTaken = PutText(p, cb);
            SkipAhead(cbTaken);
            return cbTaken == cb;
        }
    case rdsPNCommand:
    case rdsPNTextBefore:
    case rdsPNTextAfter:
        break;
    case rdsStyleSheet:
    case rdsRevTable:
    case rdsInfo:
    case rdsPNText:
        m_bSkipNextChar = false;
        SkipDroppedBytes(p, cb);
        return true;
    default:
        SkipDroppedBytes(p, cb);
        return true;
    }
    return CBaseRTFParser::ParseRun(p, cb);
}

std::size_t CRTFToPlainTextParser::PutText(const char* p, std::size_t cb)
{
    std::size_t n = 0;
    while (n < cb && Put(IsReservedByte(p[n]) ? ' ' : p[n]))
        ++n;
    return n;
}

bool CRTFToPlainTextParser::StartParagraphOutput()
{
    if (m_rds == rdsPNCommand || InNumberingText())
        return true;
    if (m_bParagraphStart && m_numbering.GetCurrentInfo().GetNumberingOn()) {
        if (!AppendNumberingString())
            return false;  // m_bParagraphStart stays set: the number is due on resume
    }
    m_bParagraphStart = false;
    return true;
}

bool CRTFToPlainTextParser::Append(char ch)
{
    if (IsReservedByte(ch))
        ch = ' ';
    if (!StartParagraphOutput())
        return false;
    switch (m_rds) {
    case rdsPNTextBefore:
        m_pnInfo.AppendCharBefore(ch);
        return true;
    case rdsPNTextAfter:
        m_pnInfo.AppendCharAfter(ch);
        return true;
    default:
        return Put(ch);
    }
}

bool CRTFToPlainTextParser::AppendNumberingString()
{
    // Zeroed and one byte larger than the rendering may use, so that a
    // rendering cut short still leaves a terminated text to write.
    char szNumbering[kNumberingStringSize + 1] = {};
    char* p = szNumbering;
    m_numbering.FormatNumberingString(p, kNumberingStringSize);
    return Put(CString(szNumbering));
}

bool CRTFToPlainTextParser::PutControlByte(char ch)
{
    switch (m_rds) {
    case rdsPNTextBefore:
        m_pnInfo.AppendCharBefore(ch);
        return true;
    case rdsPNTextAfter:
        m_pnInfo.AppendCharAfter(ch);
        return true;
    default:
        return Put(ch);
    }
}

// --- paragraph, line, tab, row and cell

bool CRTFToPlainTextParser::ApplyCRCommand(const void* pKeyword, int param)
{
    const bool bOk = StartParagraphOutput() && PutControlByte('\r');
    if (!bOk) {
        // Fires at every full buffer at a paragraph end; parsing resumes at
        // the keyword.
        VQASSERT(bOk);
        return false;
    }
    return CBaseRTFParser::ApplyCRCommand(pKeyword, param);
}

bool CRTFToPlainTextParser::ApplyNLCommand(const void*, int)
{
    return StartParagraphOutput() && PutControlByte('\n');
}

bool CRTFToPlainTextParser::ApplyTabCommand(const void*, int)
{
    return StartParagraphOutput() && PutControlByte('\t');
}

bool CRTFToPlainTextParser::ApplyEndRowCommand(const void* pKeyword, int param)
{
    return ApplyCRCommand(pKeyword, param);
}

bool CRTFToPlainTextParser::ApplyEndCellCommand(const void* pKeyword, int param)
{
    return ApplyTabCommand(pKeyword, param);
}

// --- destinations

bool CRTFToPlainTextParser::FieldResult(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsNorm;  // a field's result is text
    return true;
}

bool CRTFToPlainTextParser::InitAttachment(const void*, int)
{
    m_rds = rdsPicture;
    return true;
}

bool CRTFToPlainTextParser::ObjectResult(const void*, int)
{
    m_rds = rdsObject;
    return true;
}

// --- keywords that have no effect on plain text

bool CRTFToPlainTextParser::InitBuffer() { return true; }
bool CRTFToPlainTextParser::AttachmentHandler() { return true; }
bool CRTFToPlainTextParser::FieldInit(const void*, int) { return true; }
bool CRTFToPlainTextParser::FillFontFamily(const void*, int) { return true; }
bool CRTFToPlainTextParser::FillFontCharset(const void*, int) { return true; }
bool CRTFToPlainTextParser::GetFontNum(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyFontSize(const void*, int) { return true; }
bool CRTFToPlainTextParser::FillColorTable(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyColorCommand(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyBKColorCommand(const void*, int) { return true; }
bool CRTFToPlainTextParser::GetDefaultFontNum(const void*, int) { return true; }
bool CRTFToPlainTextParser::ProcessSpecial(const void*, int) { return true; }
bool CRTFToPlainTextParser::InsertSpecialChar(const void*, int) { return true; }
// The raw bytes after \binN are read as RTF.
bool CRTFToPlainTextParser::GetBinary(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyCharCommand(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyPlainCommand(const void*, int) { return true; }
bool CRTFToPlainTextParser::SkipCharacters(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyStartRowCommand(const void*, int) { return true; }
bool CRTFToPlainTextParser::ApplyLastRowCommand(const void*, int) { return true; }
bool CRTFToPlainTextParser::SetPictureType(const void*, int) { return true; }
bool CRTFToPlainTextParser::ObjectData(const void*, int) { return true; }

unsigned long CRTFToPlainTextParser::Read(bool& bMore)
{
    Parse(bMore);
    return GetCBWritten();
}

// --- the caller's buffer

unsigned long CRTFToPlainTextPtrParser::Read(char* pBegin, char* pEnd, bool& bMore)
{
    OpenWindow(pBegin, pEnd);
    return CRTFToPlainTextParser::Read(bMore);
}

bool CRTFToPlainTextPtrParser::Put(char ch) { return PutByte(ch); }

bool CRTFToPlainTextPtrParser::Put(const CString& s)
{
    return PutTerminated(s.GetString(), static_cast<std::size_t>(s.GetLength()));
}

// Copied whole; the reserved bytes, which text seldom holds, are then found
// 16 at a time and blanked.
std::size_t CRTFToPlainTextPtrParser::PutText(const char* p, std::size_t cb)
{
    const std::size_t n = std::min(cb, Room());
    std::memcpy(m_pCur, p, n);
    for (std::size_t i = ReservedByteOffset(m_pCur, n); i < n; i += 1 + ReservedByteOffset(m_pCur + i + 1, n - i - 1))
        m_pCur[i] = ' ';
    m_pCur += n;
    return n;
}

unsigned long CRTFToPlainTextPtrParser::GetCBWritten() const { return static_cast<unsigned long>(Written()); }

// --- the byte-pointer source

CBytePtrRTFToPlainTextPtrParser::CBytePtrRTFToPlainTextPtrParser(const unsigned char* pData, const unsigned long& cbData)
    : CByteCursor(pData, cbData)
{
    m_bTakesWholeRuns = true;  // ParseRun puts, drops or refuses from the first byte
    m_keywordWork = KeywordWork::baseReader;
}

long CBytePtrRTFToPlainTextPtrParser::Get(char& ch) { return ReadByte(ch); }
void CBytePtrRTFToPlainTextPtrParser::MarkBacktrack(int n) { MarkBack(n); }
void CBytePtrRTFToPlainTextPtrParser::Backtrack(int n) { StepBack(n); }
const char* CBytePtrRTFToPlainTextPtrParser::RunAhead(std::size_t& cb) const { return BytesAhead(cb); }
void CBytePtrRTFToPlainTextPtrParser::SkipAhead(std::size_t cb) { StepAhead(cb); }

// Only this very class: one derived from it may have replaced any handler.
CByteCursor* CBytePtrRTFToPlainTextPtrParser::StockCursor()
{
    return typeid(*this) == typeid(CBytePtrRTFToPlainTextPtrParser) ? this : nullptr;
}

} // namespace rtf_converter
