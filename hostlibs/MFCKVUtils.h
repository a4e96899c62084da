// The host's user-interface utility library: number texts for list numbering,
// and (as the converters need them) font, unit and bitmap helpers.
#pragma once

// Writes the letter form of n into pszOut (room for 20 chars with the NUL):
// 1 "a" ... 26 "z", then the letter repeated as list numbering does: 27 "aa",
// 28 "bb", ... 52 "zz", 53 "aaa". Capitals when bUpper is non-zero. Values
// below 1 give an empty text; repetition stops at 19 letters.
void AlphaFormat(char* pszOut, int n, int bUpper);

// Writes the roman numeral of n in capitals at pszOut (room for 40 chars with
// the NUL) and leaves pszOut at the terminating NUL; returns non-zero. Values
// outside 1..3999 are refused: 0 is returned and nothing is written.
int BuildRomanNumber(char*& pszOut, int n);
