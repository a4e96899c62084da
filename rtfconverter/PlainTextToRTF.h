// Plain text to RTF: one font, the automatic colour, the RTF specials escaped
// and TAB, LF and CR turned into \tab, \line and \par.
#pragma once
#include "rtfconverter/Export.h"

#include "platform/AfxString.h"
#include "platform/WinGdi.h"

namespace rtf_converter {

class RTFCONV_API CPlainTextToRTF {
public:
    CPlainTextToRTF();
    CPlainTextToRTF(const CPlainTextToRTF&) = default;
    CPlainTextToRTF& operator=(const CPlainTextToRTF&) = default;
    ~CPlainTextToRTF() = default;

    // Builds the body for the zero-terminated text (null reads as empty) in
    // the font pBaseFont, or Arial 10 at the screen's resolution when null.
    // A second call replaces the body and the font of the first.
    void Convert(const char* pszText, const LOGFONT* pBaseFont);
    // The whole document: header, font table, colour table and body. Only
    // after Convert.
    CString Export() const;

protected:
    void ConvertText(const char* pszText);
    CString GetFontTable() const;
    CString GetColorTable() const;
    void AddToBuffer(const CString& s) { m_csBuffer += s; }
    void AddToBuffer(char c) { m_csBuffer += c; }
    void AddToBuffer(const char* p, int n) { m_csBuffer.Append(p, n); }

private:
    const char* m_pszText;
    LOGFONT m_logFont;
    CString m_csBuffer;
    CString m_csHeader;
};

} // namespace rtf_converter
