#include "rtfconverter/Utf8ToRTF.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "hostlibs/MFCKVUtils.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/OldToRTF.h"

namespace rtf_converter {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr int kWesternCodePage = 1252;
// Room for the header, font table and colour table in front of the body.
constexpr int kcbHeadRoom = 4096;

// ASCII bytes that end a run copied as it is: the end of the text, the line
// and tab controls, the dropped 0x17 and the RTF specials. Bytes above 0x7F
// end it too, as the first of a UTF-8 sequence.
struct RunEndTable {
    bool isEnd[256];
    constexpr RunEndTable() : isEnd()
    {
        const unsigned char ends[] = {0x00, 0x09, 0x0A, 0x0D, 0x17, '\\', '{', '}'};
        for (unsigned char c : ends) isEnd[c] = true;
        for (unsigned c = 0x80; c < 256; ++c) isEnd[c] = true;
    }
};
constexpr RunEndTable kRunEnd;

// Decodes the UTF-8 sequence at p and advances past it. A byte that does not
// start a well-formed sequence (overlong, surrogate, beyond U+10FFFF, cut
// short) is U+FFFD and is passed alone.
char32_t DecodeUtf8(const unsigned char*& p)
{
    const unsigned char b = *p;
    int cch = 0;
    char32_t cp = 0, minimum = 0;
    if ((b & 0xE0) == 0xC0) { cch = 2; cp = b & 0x1F; minimum = 0x80; }
    else if ((b & 0xF0) == 0xE0) { cch = 3; cp = b & 0x0F; minimum = 0x800; }
    else if ((b & 0xF8) == 0xF0) { cch = 4; cp = b & 0x07; minimum = 0x10000; }
    else { ++p; return kReplacement; }
    for (int k = 1; k < cch; ++k) {
        if ((p[k] & 0xC0) != 0x80) {  // a NUL stops here too
            ++p;
            return kReplacement;
        }
        cp = cp << 6 | (p[k] & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++p;
        return kReplacement;
    }
    p += cch;
    return cp;
}

} // namespace

CUTF8TextToRTF::CUTF8TextToRTF() : m_pPage(CCodePage::Get(kWesternCodePage)), m_logFont() {}

void CUTF8TextToRTF::SetCodePage(int codePage)
{
    const CCodePage* pPage = CCodePage::Get(codePage);
    m_pPage = pPage && !pPage->IsSymbol() ? pPage : CCodePage::Get(kWesternCodePage);
}

void CUTF8TextToRTF::Convert(const char* pszText, const LOGFONT* pBaseFont)
{
    if (pBaseFont) {
        m_logFont = *pBaseFont;
    } else {
        HDC hdc = GetDC(nullptr);
        const int logPixelsY = GetDeviceCaps(hdc, LOGPIXELSY);
        ReleaseDC(nullptr, hdc);
        InitDefaultScreenFont(m_logFont, "Arial", 10, logPixelsY);
    }
    m_csBuffer.Format("\\uc1\\pard\\f0\\fs%d\\cf%d ", 2 * PixY2Pts(m_logFont.lfHeight), 0);
    const char* const pszBody = pszText ? pszText : "";
    // The body is at least as long as the text; reserving that once, with
    // room for the document's head, spares the copies of a growing string and
    // lets TakeDocument put the head in front without a new block.
    m_csBuffer.Preallocate(m_csBuffer.GetLength() + static_cast<int>(std::min<std::size_t>(std::strlen(pszBody), INT_MAX / 2)) + kcbHeadRoom);
    ConvertText(pszBody);
    m_csBuffer += '}';
}

void CUTF8TextToRTF::ConvertText(const char* pszText)
{
    const unsigned char* p = reinterpret_cast<const unsigned char*>(pszText);
    // A byte-order mark says the text is UTF-8; it is not part of it.
    if (p[0] == 0xEF && p[1] == 0xBB && p[2] == 0xBF)
        p += 3;
    for (;;) {
        const unsigned char* const pRun = p;
        while (!kRunEnd.isEnd[*p])
            ++p;
        m_csBuffer.Append(reinterpret_cast<const char*>(pRun), static_cast<int>(p - pRun));
        switch (*p) {
        case 0x00:
            return;
        case 0x09:
            m_csBuffer += "\\tab ";
            ++p;
            break;
        case 0x0D:
            if (p[1] == 0x0A)
                ++p;  // CR LF is one line end
            // fall through
        case 0x0A:
            m_csBuffer += "\\par ";
            ++p;
            break;
        case 0x17:
            ++p;  // never part of the host's text
            break;
        case '\\':
        case '{':
        case '}':
            m_csBuffer += '\\';
            m_csBuffer += static_cast<char>(*p++);
            break;
        default:
            AppendCharacter(DecodeUtf8(p));
            break;
        }
    }
}

namespace {

// "\'hh" for a byte, lowercase as the writers have always written it.
void AppendHexEscape(CString& out, unsigned char b)
{
    static const char kDigits[] = "0123456789abcdef";
    const char escape[4] = {'\\', '\'', kDigits[b >> 4], kDigits[b & 15]};
    out.Append(escape, 4);
}

// "\u" with a signed 16-bit value and the '?' fallback.
void AppendUnicodeWord(CString& out, int value)
{
    char sz[16] = {'\\', 'u'};
    char* const pEnd = std::to_chars(sz + 2, sz + sizeof sz - 1, value).ptr;
    *pEnd = '?';
    out.Append(sz, static_cast<int>(pEnd + 1 - sz));
}

} // namespace

void CUTF8TextToRTF::AppendCharacter(char32_t cp)
{
    unsigned char bytes[2];
    // Escaped, so that the RTF is 7-bit ASCII and reads the same whatever
    // encoding a program takes it for.
    const int n = m_pPage ? m_pPage->Encode(cp, bytes) : 0;
    if (n == 0) return AppendUnicode(cp);
    for (int k = 0; k < n; ++k) AppendHexEscape(m_csBuffer, bytes[k]);
}

// \uN takes a signed 16-bit N; a character beyond U+FFFF is its UTF-16
// surrogate pair, each half with its own fallback.
void CUTF8TextToRTF::AppendUnicode(char32_t cp)
{
    if (cp > 0xFFFF) {
        const char32_t v = cp - 0x10000;
        AppendUnicodeWord(m_csBuffer, static_cast<int>(0xD800 + (v >> 10)) - 65536);
        AppendUnicodeWord(m_csBuffer, static_cast<int>(0xDC00 + (v & 0x3FF)) - 65536);
    } else {
        AppendUnicodeWord(m_csBuffer, cp > 0x7FFF ? static_cast<int>(cp) - 65536 : static_cast<int>(cp));
    }
}

CString CUTF8TextToRTF::GetHeader() const
{
    CString s;
    s.Format("{\\rtf1\\ansi\\ansicpg%d\\deff0\\deflang1024", m_pPage ? m_pPage->GetNumber() : kWesternCodePage);
    return s;
}

// The font's character set is the code page's, whatever the base font says:
// readers decode the text's bytes by it.
CString CUTF8TextToRTF::GetFontTable() const
{
    return FormatSingleFontTable(CharsetOfCodePage(m_pPage ? m_pPage->GetNumber() : kWesternCodePage), m_logFont);
}

CString CUTF8TextToRTF::GetColorTable() const { return FormatWindowTextColorTable(); }

CString CUTF8TextToRTF::Export() const
{
    try {
        return AssembleDocument(GetHeader(), GetFontTable(), GetColorTable(), m_csBuffer);
    } catch (const std::bad_alloc&) {
        return CString();
    }
}

CString CUTF8TextToRTF::TakeDocument()
{
    try {
        CString head = GetHeader();
        head += GetFontTable();
        head += GetColorTable();
        m_csBuffer.Insert(0, head.GetString());
        CString document = std::move(m_csBuffer);
        m_csBuffer.Empty();
        return document;
    } catch (const std::bad_alloc&) {
        return CString();
    }
}

} // namespace rtf_converter
