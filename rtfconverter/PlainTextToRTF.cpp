#include "rtfconverter/PlainTextToRTF.h"

#include <cstring>
#include <new>

#include "hostlibs/MFCKVUtils.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/OldToRTF.h"

namespace rtf_converter {

namespace {

// Bytes that end a run of plain text; everything else is copied as it is.
struct RunEndTable {
    bool isEnd[256];
    constexpr RunEndTable() : isEnd()
    {
        const unsigned char ends[] = {0x00, 0x09, 0x0A, 0x0D, 0x17, '\\', '{', '}'};
        for (unsigned char c : ends) isEnd[c] = true;
    }
};
constexpr RunEndTable kRunEnd;

} // namespace

CPlainTextToRTF::CPlainTextToRTF() : m_pszText(nullptr), m_logFont(), m_csHeader(szRtfDocumentHeader) {}

void CPlainTextToRTF::Convert(const char* pszText, const LOGFONT* pBaseFont)
{
    m_pszText = pszText ? pszText : "";
    if (pBaseFont) {
        m_logFont = *pBaseFont;
    } else {
        HDC hdc = GetDC(nullptr);
        int logPixelsY = GetDeviceCaps(hdc, LOGPIXELSY);
        ReleaseDC(nullptr, hdc);
        InitDefaultScreenFont(m_logFont, "Arial", 10, logPixelsY);
    }
    m_csBuffer.Format("\\pard\\f0\\fs%lld\\cf%d ", HalfPoints(PixY2Pts(m_logFont.lfHeight)), 0);
    ConvertText(m_pszText);
    AddToBuffer('}');
}

void CPlainTextToRTF::ConvertText(const char* pszText)
{
    const char* p = pszText;
    const char* const pEnd = pszText + std::strlen(pszText);
    const char* pRun = p;
    unsigned char chLast = 0;
    for (;; ++p) {
        // Printable ASCII up to 'z' but the backslash never ends a run: such
        // bytes are passed 16 at a time, the others looked up in the table.
        p += byte_scan::InRangeLengthBefore(p, static_cast<std::size_t>(pEnd - p), 0x20, 'z', '\\');
        const unsigned char ch = static_cast<unsigned char>(*p);
        if (!kRunEnd.isEnd[ch]) continue;
        AddToBuffer(pRun, static_cast<int>(p - pRun));
        if (p > pRun) chLast = static_cast<unsigned char>(p[-1]);
        pRun = p + 1;
        switch (ch) {
        case 0x00:
            if (chLast != 0x0D) AddToBuffer("\\par ", 5);
            return;
        case 0x09: AddToBuffer("\\tab ", 5); break;
        case 0x0A: AddToBuffer("\\line ", 6); break;
        case 0x0D: AddToBuffer("\\par ", 5); break;
        case 0x17: continue; // dropped, and not the last byte seen
        default:             // \ { }: the character follows its backslash in the next run
            AddToBuffer('\\');
            pRun = p;
            continue;
        }
        chLast = ch;
    }
}

CString CPlainTextToRTF::GetFontTable() const { return FormatSingleFontTable(m_logFont.lfCharSet, m_logFont); }

CString CPlainTextToRTF::GetColorTable() const { return FormatWindowTextColorTable(); }

CString CPlainTextToRTF::Export() const
{
    try {
        return AssembleDocument(m_csHeader, GetFontTable(), GetColorTable(), m_csBuffer);
    } catch (const std::bad_alloc&) {
        return CString();
    }
}

} // namespace rtf_converter
