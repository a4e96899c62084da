// The host's user-interface utility library: number texts for list numbering,
// and (as the converters need them) font, unit and bitmap helpers.
#pragma once

#include "platform/WinGdi.h"
#include "platform/WinTypes.h"

// Writes the letter form of n into pszOut (room for 20 chars with the NUL):
// 1 "a" ... 26 "z", then the letter repeated as list numbering does: 27 "aa",
// 28 "bb", ... 52 "zz", 53 "aaa". Capitals when bUpper is non-zero. Values
// below 1 give an empty text; repetition stops at 19 letters.
void AlphaFormat(char* pszOut, int n, int bUpper);

// Writes the roman numeral of n in capitals at pszOut (room for 40 chars with
// the NUL) and leaves pszOut at the terminating NUL; returns non-zero. Values
// outside 1..3999 are refused: 0 is returned and nothing is written.
int BuildRomanNumber(char*& pszOut, int n);

// --- Font, unit and number-text helpers of the markup commands -------------

// Point size to a LOGFONT height at the screen's vertical resolution:
// -round(points * dpi / 72), negative as GDI spells a character height.
int Pts2PixY(int points);
// LOGFONT height (either sign) to a point size: round(|pixels| * 72 / dpi).
// The two round-trip every size from 1 to 99 points.
int PixY2Pts(int pixels);
// Output precision, clipping precision and quality of the fonts the host creates.
void SetPrecisionAndQualityInLOGFONT(LOGFONT& lf);
// A clear LOGFONT for `pszFace` at `points` on a screen of `dpi` pixels per inch,
// ANSI character set, regular weight; the pitch and family of a few well-known
// faces are filled in, others are left DEFAULT_PITCH | FF_DONTCARE.
void InitDefaultScreenFont(LOGFONT& lf, const char* pszFace, int points, int dpi);
// Leading decimal digits of psz as an unsigned number (wrapping as DWORD);
// 0 for a null or empty text or one that does not start with a digit.
DWORD Str2DWORD(const char* psz);
