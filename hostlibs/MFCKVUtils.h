// The host's user-interface utility library: number texts for list numbering,
// and (as the converters need them) font, unit and bitmap helpers.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>
#include <memory>
#include <vector>

#include "../platform/WinGdi.h"
#include "../platform/WinTypes.h"

// Writes the letter form of n into pszOut (room for 20 chars with the NUL):
// 1 "a" ... 26 "z", then the letter repeated as list numbering does: 27 "aa",
// 28 "bb", ... 52 "zz", 53 "aaa". Capitals when bUpper is non-zero. Values
// below 1 give an empty text; repetition stops at 19 letters.
RTFCONV_API void AlphaFormat(char* pszOut, int n, int bUpper);

// Writes the roman numeral of n in capitals at pszOut (room for 40 chars with
// the NUL) and leaves pszOut at the terminating NUL; returns non-zero. Values
// outside 1..3999 are refused: 0 is returned and nothing is written.
RTFCONV_API int BuildRomanNumber(char*& pszOut, int n);

// --- Font, unit and number-text helpers of the markup commands -------------

// Point size to a LOGFONT height at the screen's vertical resolution:
// -round(points * dpi / 72), negative as GDI spells a character height.
RTFCONV_API int Pts2PixY(int points);
// LOGFONT height (either sign) to a point size: round(|pixels| * 72 / dpi).
// The two round-trip every size from 1 to 99 points.
RTFCONV_API int PixY2Pts(int pixels);
// Output precision, clipping precision and quality of the fonts the host creates.
RTFCONV_API void SetPrecisionAndQualityInLOGFONT(LOGFONT& lf);
// A clear LOGFONT for `pszFace` at `points` on a screen of `dpi` pixels per inch,
// ANSI character set, regular weight; the pitch and family of a few well-known
// faces are filled in, others are left DEFAULT_PITCH | FF_DONTCARE.
RTFCONV_API void InitDefaultScreenFont(LOGFONT& lf, const char* pszFace, int points, int dpi);
// Leading decimal digits of psz as an unsigned number (wrapping as DWORD);
// 0 for a null or empty text or one that does not start with a digit.
RTFCONV_API DWORD Str2DWORD(const char* psz);

// --- Byte blocks and device-independent bitmaps of the RTF writer -----------

// A byte block of fixed capacity, reallocated only when asked for: the RTF
// writer's quick buffer.
class RTFCONV_API CSimpleRowBytes {
public:
    // A block of nSize bytes (previous contents are dropped); raises
    // std::bad_alloc when memory runs out.
    BYTE* AllocBuffer(std::size_t nSize);
    // The block of the last AllocBuffer, null before the first.
    BYTE* GetBuffer() const { return m_pBytes.get(); }
    std::size_t GetBufferSize() const { return m_nSize; }

private:
    std::unique_ptr<BYTE[]> m_pBytes;
    std::size_t m_nSize = 0;
};

// A device-independent bitmap held as one packed DIB: the BITMAPINFO (header,
// then bit masks or colour table) followed by the pixel rows.
//
// Only well-formed bitmaps are taken: a BITMAPINFOHEADER (or a larger header
// version), a positive width, a non-zero height, 1, 4, 8, 16, 24 or 32 bits per
// pixel, and the colour table and rows all present in the given bytes. A
// refused source leaves the object empty (IsValid() false, all sizes 0).
class RTFCONV_API CDIBitmap {
public:
    CDIBitmap() = default;
    // From a packed DIB of cbData bytes, as in the clipboard's CF_DIB.
    CDIBitmap(const void* pPackedDib, std::size_t cbData);
    virtual ~CDIBitmap() = default;

    // From a packed DIB; false (and empty) when it is not well formed.
    bool LoadPackedDib(const void* pPackedDib, std::size_t cbData);
    // From the bytes of a .bmp file (BITMAPFILEHEADER, info, rows at bfOffBits).
    bool LoadBmpFile(const void* pFileBytes, std::size_t cbData);
    // The bytes of a .bmp file showing this bitmap; empty when not valid.
    std::vector<BYTE> ToBmpFile() const;

    bool IsValid() const { return !m_packed.empty(); }
    int GetBitCount() const;
    // Bytes per pixel row, rounded up to a multiple of 4 as DIB rows are stored.
    DWORD DWAlignedBytesPerLine() const;
    // Width and height in pixels (height positive also for top-down bitmaps).
    SIZE GetSize() const;
    // The BITMAPINFO and its length (header, masks and colour table).
    const BITMAPINFO* GetInfo() const;
    DWORD GetInfoLength() const { return m_cbInfo; }
    // The pixel rows and their length in bytes.
    const BYTE* GetImageBitsPtr() const;
    DWORD GetBitsSize() const { return m_cbBits; }

private:
    const BITMAPINFOHEADER* Header() const;

    std::vector<BYTE> m_packed;
    DWORD m_cbInfo = 0;
    DWORD m_cbBits = 0;
};
