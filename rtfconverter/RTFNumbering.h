// Paragraph numbering as RTF readers see it: the numbering collected from a
// {\*\pn ...} group, the running paragraph number with its restart rule, and
// the rendering of the current paragraph's number text.
#pragma once
#include "rtfconverter/Export.h"

#include "platform/AfxString.h"

namespace rtf_converter {

// The reader's own numbering kinds, set by the pn* keywords. They are not the
// numbering command's type codes (nt_None ...), which number styles otherwise.
enum NumberingType {
    pntNone = 0,         // no numbering
    pntDecimal = 1,      // \pndec
    pntLowerLetter = 2,  // \pnlcltr
    pntUpperLetter = 3,  // \pnucltr
    pntUpperRoman = 4,   // \pnucrm
    pntLowerRoman = 5,   // \pnlcrm
    pntBullet = 6,       // \pnlvlblt: only the texts before and after show
};

class RTFCONV_API CNumberingInfo {
public:
    CNumberingInfo() = default;
    CNumberingInfo(const CNumberingInfo&) = default;
    CNumberingInfo& operator=(const CNumberingInfo&) = default;
    // Moved, not copied, where a reader hands its numbering on (a \pn group's
    // end, every \pard): the texts then change hands without a copy.
    CNumberingInfo(CNumberingInfo&&) noexcept = default;
    CNumberingInfo& operator=(CNumberingInfo&&) noexcept = default;
    ~CNumberingInfo() = default;

    void Clear();

    int GetLevel() const { return m_level; }
    void SetLevel(int level) { m_level = level; }
    int GetStartNum() const { return m_startNum; }
    void SetStartNum(int startNum) { m_startNum = startNum; }
    NumberingType GetNumberingType() const { return m_numberingType; }
    void SetNumberingType(NumberingType type) { m_numberingType = type; }
    bool GetNumberingOn() const { return m_numberingType != pntNone; }

    CString GetTextBefore() const { return m_textBefore; }
    CString GetTextAfter() const { return m_textAfter; }
    // The texts themselves, for a reader that only looks at them.
    const CString& TextBefore() const { return m_textBefore; }
    const CString& TextAfter() const { return m_textAfter; }
    void SetTextBefore(const char* psz) { m_textBefore = psz; }
    void SetTextAfter(const char* psz) { m_textAfter = psz; }
    void AppendTextBefore(const char* psz) { m_textBefore += psz; }
    void AppendTextAfter(const char* psz) { m_textAfter += psz; }
    void AppendCharBefore(char ch) { m_textBefore += ch; }
    void AppendCharAfter(char ch) { m_textAfter += ch; }

private:
    int m_level = 0;
    int m_startNum = 0;
    CString m_textBefore;
    CString m_textAfter;
    NumberingType m_numberingType = pntNone;
};

// True when a list does not continue from `a` to `b`: the start numbers, the
// kinds, or the texts (compared without regard to case) differ. The level is
// not compared.
RTFCONV_API bool IsNumberingChanged(const CNumberingInfo& a, const CNumberingInfo& b);

class RTFCONV_API CNumberingState {
public:
    const CNumberingInfo& GetCurrentInfo() const { return m_current; }

    // At the end of a \pn group. The count restarts at the new start number
    // only when the numbering differs from the one in force before the last
    // \pard, so a list goes on counting while each paragraph repeats it.
    void SetCurrentInfo(const CNumberingInfo& info);
    void SetCurrentInfo(CNumberingInfo&& info);

    // At \pard: the current numbering becomes the previous one and the
    // paragraph starts without numbering. The counter is kept.
    void ResetParagraph();

    // Renders (level - 1) TABs, text before, number, text after, TAB and NUL
    // at p, advancing p up to the NUL's end, within cbSize bytes. On a text
    // that does not fit, returns false with what was written so far.
    bool FormatNumberingString(char*& p, unsigned cbSize) const;

    int m_number = 0;           // running paragraph number
    CNumberingInfo m_current;   // numbering of the current paragraph
    CNumberingInfo m_previous;  // numbering in force before the last \pard
};

} // namespace rtf_converter
