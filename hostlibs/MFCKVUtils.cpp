#include "MFCKVUtils.h"

#include <cstdlib>
#include <cstring>

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

// --- Byte blocks and device-independent bitmaps of the RTF writer -----------

BYTE* CSimpleRowBytes::AllocBuffer(std::size_t nSize)
{
    if (!m_pBytes || nSize != m_nSize) {
        m_pBytes.reset(new BYTE[nSize ? nSize : 1]);
        m_nSize = nSize;
    }
    return m_pBytes.get();
}

namespace {

constexpr WORD kBmpFileType = 0x4D42; // "BM"
// Larger than any picture a host exchanges; keeps the size arithmetic below
// 32 bits whatever the header claims.
constexpr std::uint64_t kMaxDibBytes = 0x40000000u;

bool IsSupportedBitCount(WORD bits)
{
    switch (bits) {
    case 1: case 4: case 8: case 16: case 24: case 32: return true;
    default: return false;
    }
}

std::uint64_t AlignedRowBytes(std::uint64_t width, WORD bits) { return (width * bits + 31) / 32 * 4; }

std::uint64_t AbsHeight(LONG height) { return height < 0 ? 0 - static_cast<std::int64_t>(height) : height; }

// Length of header, masks and colour table; 0 when the header is unusable.
std::uint64_t InfoLength(const BITMAPINFOHEADER& h)
{
    std::uint64_t cb = h.biSize;
    if (h.biSize == sizeof(BITMAPINFOHEADER) && h.biCompression == BI_BITFIELDS) cb += 3 * sizeof(DWORD);
    std::uint64_t nColors = h.biClrUsed;
    if (nColors == 0 && h.biBitCount <= 8) nColors = std::uint64_t(1) << h.biBitCount;
    return cb + nColors * sizeof(RGBQUAD);
}

// Length of the pixel rows; compressed rows are as long as the header says.
std::uint64_t BitsLength(const BITMAPINFOHEADER& h)
{
    if (h.biCompression == BI_RLE8 || h.biCompression == BI_RLE4) return h.biSizeImage;
    return AlignedRowBytes(static_cast<std::uint64_t>(h.biWidth), h.biBitCount) * AbsHeight(h.biHeight);
}

// The header at p if it describes a bitmap we take, else false.
bool ReadUsableHeader(const BYTE* p, std::size_t cb, BITMAPINFOHEADER& h)
{
    if (cb < sizeof(BITMAPINFOHEADER)) return false;
    std::memcpy(&h, p, sizeof h);
    return h.biSize >= sizeof(BITMAPINFOHEADER) && h.biSize <= cb && h.biWidth > 0 && h.biHeight != 0 &&
           h.biHeight != INT32_MIN && IsSupportedBitCount(h.biBitCount) && h.biClrUsed <= 256 * 256;
}

} // namespace

CDIBitmap::CDIBitmap(const void* pPackedDib, std::size_t cbData) { LoadPackedDib(pPackedDib, cbData); }

bool CDIBitmap::LoadPackedDib(const void* pPackedDib, std::size_t cbData)
{
    m_packed.clear();
    m_cbInfo = m_cbBits = 0;
    const BYTE* p = static_cast<const BYTE*>(pPackedDib);
    BITMAPINFOHEADER h;
    if (!p || !ReadUsableHeader(p, cbData, h)) return false;
    std::uint64_t cbInfo = InfoLength(h), cbBits = BitsLength(h);
    if (cbInfo + cbBits > kMaxDibBytes || cbInfo + cbBits > cbData) return false;
    m_packed.assign(p, p + cbInfo + cbBits);
    m_cbInfo = static_cast<DWORD>(cbInfo);
    m_cbBits = static_cast<DWORD>(cbBits);
    return true;
}

bool CDIBitmap::LoadBmpFile(const void* pFileBytes, std::size_t cbData)
{
    m_packed.clear();
    m_cbInfo = m_cbBits = 0;
    const BYTE* p = static_cast<const BYTE*>(pFileBytes);
    BITMAPFILEHEADER fh;
    if (!p || cbData < sizeof fh) return false;
    std::memcpy(&fh, p, sizeof fh);
    BITMAPINFOHEADER h;
    if (fh.bfType != kBmpFileType || !ReadUsableHeader(p + sizeof fh, cbData - sizeof fh, h)) return false;
    std::uint64_t cbInfo = InfoLength(h), cbBits = BitsLength(h);
    if (cbInfo + cbBits > kMaxDibBytes || sizeof fh + cbInfo > cbData) return false;
    if (fh.bfOffBits < sizeof fh + cbInfo || fh.bfOffBits > cbData || cbBits > cbData - fh.bfOffBits) return false;
    m_packed.reserve(static_cast<std::size_t>(cbInfo + cbBits));
    m_packed.assign(p + sizeof fh, p + sizeof fh + cbInfo);
    m_packed.insert(m_packed.end(), p + fh.bfOffBits, p + fh.bfOffBits + cbBits);
    m_cbInfo = static_cast<DWORD>(cbInfo);
    m_cbBits = static_cast<DWORD>(cbBits);
    return true;
}

std::vector<BYTE> CDIBitmap::ToBmpFile() const
{
    std::vector<BYTE> file;
    if (!IsValid()) return file;
    BITMAPFILEHEADER fh{};
    fh.bfType = kBmpFileType;
    fh.bfOffBits = static_cast<DWORD>(sizeof fh + m_cbInfo);
    fh.bfSize = static_cast<DWORD>(sizeof fh + m_packed.size());
    file.resize(sizeof fh + m_packed.size());
    std::memcpy(file.data(), &fh, sizeof fh);
    std::memcpy(file.data() + sizeof fh, m_packed.data(), m_packed.size());
    return file;
}

const BITMAPINFOHEADER* CDIBitmap::Header() const
{
    return IsValid() ? reinterpret_cast<const BITMAPINFOHEADER*>(m_packed.data()) : nullptr;
}

int CDIBitmap::GetBitCount() const { return IsValid() ? Header()->biBitCount : 0; }

DWORD CDIBitmap::DWAlignedBytesPerLine() const
{
    const BITMAPINFOHEADER* h = Header();
    return h ? static_cast<DWORD>(AlignedRowBytes(static_cast<std::uint64_t>(h->biWidth), h->biBitCount)) : 0;
}

SIZE CDIBitmap::GetSize() const
{
    const BITMAPINFOHEADER* h = Header();
    if (!h) return SIZE{0, 0};
    return SIZE{h->biWidth, static_cast<LONG>(AbsHeight(h->biHeight))};
}

const BITMAPINFO* CDIBitmap::GetInfo() const
{
    return IsValid() ? reinterpret_cast<const BITMAPINFO*>(m_packed.data()) : nullptr;
}

const BYTE* CDIBitmap::GetImageBitsPtr() const { return IsValid() ? m_packed.data() + m_cbInfo : nullptr; }
