#include "rtfconverter/RtfToText.h"

#include <algorithm>
#include <cstring>

#include "hostlibs/VQLogger.h"
#include "platform/WinTypes.h"

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
        // A pending skip or a paragraph number still due: byte by byte.
        if (m_bSkipNextChar || m_bParagraphStart)
            break;
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
        SkipAhead(cb);
        return true;
    default:
        SkipAhead(cb);
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

std::size_t CRTFToPlainTextPtrParser::PutText(const char* p, std::size_t cb)
{
    const std::size_t n = std::min(cb, Room());
    for (std::size_t i = 0; i < n; ++i)
        m_pCur[i] = IsReservedByte(p[i]) ? ' ' : p[i];
    m_pCur += n;
    return n;
}

unsigned long CRTFToPlainTextPtrParser::GetCBWritten() const { return static_cast<unsigned long>(Written()); }

// --- the byte-pointer source

CBytePtrRTFToPlainTextPtrParser::CBytePtrRTFToPlainTextPtrParser(const unsigned char* pData, const unsigned long& cbData)
    : CByteCursor(pData, cbData)
{
}

long CBytePtrRTFToPlainTextPtrParser::Get(char& ch) { return ReadByte(ch); }
void CBytePtrRTFToPlainTextPtrParser::MarkBacktrack(int n) { MarkBack(n); }
void CBytePtrRTFToPlainTextPtrParser::Backtrack(int n) { StepBack(n); }
const char* CBytePtrRTFToPlainTextPtrParser::RunAhead(std::size_t& cb) const { return BytesAhead(cb); }
void CBytePtrRTFToPlainTextPtrParser::SkipAhead(std::size_t cb) { StepAhead(cb); }

} // namespace rtf_converter
