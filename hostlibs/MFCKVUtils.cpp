#include "MFCKVUtils.h"

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
