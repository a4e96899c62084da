#include "rtfconverter/RTFNumbering.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "hostlibs/MFCKVUtils.h"
#include "hostlibs/VQLogger.h"

namespace rtf_converter {

namespace {

// Room for the longest number text any kind produces (a roman numeral of up
// to 15 letters, a decimal int, or up to 19 letters).
constexpr unsigned kNumberTextSize = 40;

// Copies `text` with its NUL at p when it fits in `room`; advances p by its
// length only, so that the next copy overwrites the NUL.
bool CopyNumberingText(char*& p, unsigned room, const char* text, unsigned len)
{
    if (len >= room)
        return false;
    char* pRes = static_cast<char*>(std::memcpy(p, text, len + 1));
    VQASSERT(pRes);
    if (!pRes)
        return false;
    p += len;
    return true;
}

// The number text of `type` for `number`; false when the kind has none.
bool RenderNumberText(NumberingType type, int number, char (&text)[kNumberTextSize])
{
    text[0] = '\0';
    switch (type) {
    case pntDecimal:
        std::snprintf(text, sizeof text, "%d", number);
        return true;
    case pntLowerLetter:
    case pntUpperLetter:
        AlphaFormat(text, number, type == pntUpperLetter);
        return true;
    case pntUpperRoman:
    case pntLowerRoman: {
        char* p = text;
        if (!BuildRomanNumber(p, number)) {
            std::strcpy(text, "*");
        } else if (type == pntLowerRoman) {
            for (char* q = text; *q; ++q)
                if (*q >= 'A' && *q <= 'Z') *q = static_cast<char>(*q - 'A' + 'a');
        }
        return true;
    }
    case pntNone: {
        // A paragraph without numbering has no number text to render.
        const bool bRes = false;
        VQASSERT(bRes);
        return false;
    }
    case pntBullet:
    default:
        return false;
    }
}

} // namespace

void CNumberingInfo::Clear()
{
    m_level = 0;
    m_startNum = 0;
    m_numberingType = pntNone;
    m_textBefore.Empty();
    m_textAfter.Empty();
}

bool IsNumberingChanged(const CNumberingInfo& a, const CNumberingInfo& b)
{
    return a.GetStartNum() != b.GetStartNum() || a.GetNumberingType() != b.GetNumberingType()
        || a.TextBefore().CompareNoCase(b.TextBefore()) != 0
        || a.TextAfter().CompareNoCase(b.TextAfter()) != 0;
}

void CNumberingState::SetCurrentInfo(const CNumberingInfo& info)
{
    SetCurrentInfo(CNumberingInfo(info));
}

void CNumberingState::SetCurrentInfo(CNumberingInfo&& info)
{
    if (IsNumberingChanged(m_previous, info))
        m_number = info.GetStartNum();
    m_current = std::move(info);
}

namespace {

// What Clear leaves.
bool IsCleared(const CNumberingInfo& info)
{
    return info.GetLevel() == 0 && info.GetStartNum() == 0 && info.GetNumberingType() == pntNone
        && info.TextBefore().IsEmpty() && info.TextAfter().IsEmpty();
}

} // namespace

// Moved: the current numbering is cleared anyway. Most paragraphs are not
// numbered, and with both sides cleared there is nothing to move.
void CNumberingState::ResetParagraph()
{
    if (IsCleared(m_current) && IsCleared(m_previous))
        return;
    m_previous = std::move(m_current);
    m_current.Clear();
}

bool CNumberingState::FormatNumberingString(char*& p, unsigned cbSize) const
{
    const char* const pStart = p;
    auto used = [&] { return static_cast<unsigned>(p - pStart); };
    auto room = [&] { return cbSize - used(); };

    for (int i = 1; i < m_current.GetLevel(); ++i) {
        if (used() >= cbSize)
            return false;
        *p++ = '\t';
    }

    const CString before = m_current.GetTextBefore();
    if (!CopyNumberingText(p, room(), before, static_cast<unsigned>(before.GetLength())))
        return false;

    char number[kNumberTextSize];
    if (RenderNumberText(m_current.GetNumberingType(), m_number, number) && number[0] != '\0') {
        if (!CopyNumberingText(p, room(), number, static_cast<unsigned>(std::strlen(number))))
            return false;
    }

    const CString after = m_current.GetTextAfter();
    if (!CopyNumberingText(p, room(), after, static_cast<unsigned>(after.GetLength())))
        return false;

    if (used() >= cbSize)
        return false;
    *p++ = '\t';
    if (used() >= cbSize)
        return false;
    *p++ = '\0';
    return true;
}

} // namespace rtf_converter
