#include "MFCKVUtils.h"

#include <cstdlib>

namespace {

constexpr int kAlphaMaxLetters = 19;

struct RomanDigit {
    int value;
    const char* text;
};

constexpr RomanDigit kRomanDigits[] = {
    {1000, "M"}, {900, "CM"}, {500, "D"}, {400, "CD"}, {100, "C"}, {90, "XC"},
    {50, "L"},   {40, "XL"},  {10, "X"},  {9, "IX"},   {5, "V"},   {4, "IV"}, {1, "I"},
};

} // namespace

void AlphaFormat(char* pszOut, int n, int bUpper)
{
    if (!pszOut) return;
    char* p = pszOut;
    if (n >= 1) {
        const char letter = static_cast<char>((bUpper ? 'A' : 'a') + (n - 1) % 26);
        int repeat = (n - 1) / 26 + 1;
        if (repeat > kAlphaMaxLetters) repeat = kAlphaMaxLetters;
        while (repeat-- > 0) *p++ = letter;
    }
    *p = '\0';
}

int BuildRomanNumber(char*& pszOut, int n)
{
    if (!pszOut || n < 1 || n > 3999) return 0;
    for (const RomanDigit& d : kRomanDigits)
        for (; n >= d.value; n -= d.value)
            for (const char* t = d.text; *t; ++t) *pszOut++ = *t;
    *pszOut = '\0';
    return 1;
}

// --- Font, unit and number-text helpers of the markup commands -------------

namespace {

constexpr int kPointsPerInch = 72;

int ScreenLogPixelsY()
{
    HDC hdc = GetDC(nullptr);
    const int dpi = GetDeviceCaps(hdc, LOGPIXELSY);
    ReleaseDC(nullptr, hdc);
    return dpi > 0 ? dpi : 96;
}

// Rounds num / den to the nearest integer, halves away from zero (num >= 0, den > 0).
long long RoundedQuotient(long long num, long long den) { return (num + den / 2) / den; }

struct KnownFace {
    const char* face;
    BYTE pitchAndFamily;
    BYTE charSet;
};

constexpr KnownFace kKnownFaces[] = {
    {"Arial", VARIABLE_PITCH | FF_SWISS, ANSI_CHARSET},
    {"Helvetica", VARIABLE_PITCH | FF_SWISS, ANSI_CHARSET},
    {"Tahoma", VARIABLE_PITCH | FF_SWISS, ANSI_CHARSET},
    {"Verdana", VARIABLE_PITCH | FF_SWISS, ANSI_CHARSET},
    {"Times New Roman", VARIABLE_PITCH | FF_ROMAN, ANSI_CHARSET},
    {"Courier New", FIXED_PITCH | FF_MODERN, ANSI_CHARSET},
    {"Symbol", VARIABLE_PITCH | FF_DECORATIVE, SYMBOL_CHARSET},
    {"WingDings", VARIABLE_PITCH | FF_DECORATIVE, SYMBOL_CHARSET},
};

bool SameFaceName(const char* a, const char* b)
{
    for (; *a && *b; ++a, ++b) {
        char ca = *a, cb = *b;
        if (ca >= 'A' && ca <= 'Z') ca = static_cast<char>(ca - 'A' + 'a');
        if (cb >= 'A' && cb <= 'Z') cb = static_cast<char>(cb - 'A' + 'a');
        if (ca != cb) return false;
    }
    return *a == *b;
}

} // namespace

int Pts2PixY(int points)
{
    const long long magnitude = RoundedQuotient(std::llabs(static_cast<long long>(points)) * ScreenLogPixelsY(), kPointsPerInch);
    return static_cast<int>(points < 0 ? magnitude : -magnitude);
}

int PixY2Pts(int pixels)
{
    return static_cast<int>(RoundedQuotient(std::llabs(static_cast<long long>(pixels)) * kPointsPerInch, ScreenLogPixelsY()));
}

void SetPrecisionAndQualityInLOGFONT(LOGFONT& lf)
{
    lf.lfOutPrecision = OUT_TT_PRECIS;
    lf.lfClipPrecision = CLIP_DEFAULT_PRECIS;
    lf.lfQuality = PROOF_QUALITY;
}

void InitDefaultScreenFont(LOGFONT& lf, const char* pszFace, int points, int dpi)
{
    lf = LOGFONT{};
    if (dpi <= 0) dpi = 96;
    lf.lfHeight = static_cast<LONG>(-RoundedQuotient(std::llabs(static_cast<long long>(points)) * dpi, kPointsPerInch));
    lf.lfWeight = FW_NORMAL;
    lf.lfCharSet = ANSI_CHARSET;
    lf.lfPitchAndFamily = DEFAULT_PITCH | FF_DONTCARE;
    SetPrecisionAndQualityInLOGFONT(lf);
    if (!pszFace) return;
    for (int i = 0; i < LF_FACESIZE - 1 && pszFace[i]; ++i) lf.lfFaceName[i] = pszFace[i];
    for (const KnownFace& known : kKnownFaces) {
        if (SameFaceName(known.face, lf.lfFaceName)) {
            lf.lfPitchAndFamily = known.pitchAndFamily;
            lf.lfCharSet = known.charSet;
            break;
        }
    }
}

DWORD Str2DWORD(const char* psz)
{
    DWORD value = 0;
    if (!psz) return 0;
    for (; *psz >= '0' && *psz <= '9'; ++psz) value = value * 10u + static_cast<DWORD>(*psz - '0');
    return value;
}
