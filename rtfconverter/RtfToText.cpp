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
    m_pBegin = m_pCur = pBegin;
    m_pEnd = pEnd;
    return CRTFToPlainTextParser::Read(bMore);
}

bool CRTFToPlainTextPtrParser::Put(char ch)
{
    if (m_pCur == m_pEnd)
        return false;
    *m_pCur++ = ch;
    return true;
}

bool CRTFToPlainTextPtrParser::Put(const CString& s)
{
    // Room for the text and its NUL; the NUL is not counted, so the next put
    // overwrites it.
    const std::size_t len = static_cast<std::size_t>(s.GetLength());
    if (len >= static_cast<std::size_t>(m_pEnd - m_pCur))
        return false;
    std::memcpy(m_pCur, s.GetString(), len + 1);
    m_pCur += len;
    return true;
}

std::size_t CRTFToPlainTextPtrParser::PutText(const char* p, std::size_t cb)
{
    const std::size_t n = std::min(cb, static_cast<std::size_t>(m_pEnd - m_pCur));
    for (std::size_t i = 0; i < n; ++i)
        m_pCur[i] = IsReservedByte(p[i]) ? ' ' : p[i];
    m_pCur += n;
    return n;
}

unsigned long CRTFToPlainTextPtrParser::GetCBWritten() const
{
    return static_cast<unsigned long>(m_pCur - m_pBegin);
}

// --- the byte-pointer source

CBytePtrRTFToPlainTextPtrParser::CBytePtrRTFToPlainTextPtrParser(const unsigned char* pData, const unsigned long& cbData)
    : m_pData(pData), m_cbData(pData ? cbData : 0), m_pRead(pData), m_pMark(nullptr)
{
}

long CBytePtrRTFToPlainTextPtrParser::Get(char& ch)
{
    if (m_pRead == m_pData + m_cbData)
        return E_UNEXPECTED;
    ch = static_cast<char>(*m_pRead++);
    return ch != '\0' ? S_OK : E_UNEXPECTED;
}

// The tokenizer never steps back over bytes it has not read; the clamps keep
// a derived reader that does within the caller's bytes all the same.
void CBytePtrRTFToPlainTextPtrParser::MarkBacktrack(int n)
{
    m_pMark = m_pRead - ClampBack(n);
}

void CBytePtrRTFToPlainTextPtrParser::Backtrack(int n)
{
    if (n == -1)
        m_pRead = m_pMark ? m_pMark : m_pData;
    else
        m_pRead -= ClampBack(n);
}

const char* CBytePtrRTFToPlainTextPtrParser::RunAhead(std::size_t& cb) const
{
    cb = static_cast<std::size_t>(m_pData + m_cbData - m_pRead);
    return reinterpret_cast<const char*>(m_pRead);
}

void CBytePtrRTFToPlainTextPtrParser::SkipAhead(std::size_t cb) { m_pRead += cb; }

long CBytePtrRTFToPlainTextPtrParser::ClampBack(int n) const
{
    const long cbRead = static_cast<long>(m_pRead - m_pData);
    return n < 0 ? 0 : (n > cbRead ? cbRead : n);
}

} // namespace rtf_converter
