// GDI and USER as the library sees them: the logical font record, character-set
// and font-family constants, the bitmap file structures, the screen's device
// context (for its vertical resolution) and the system colour scheme.
//
// The screen is a fixed virtual one: 96 pixels per inch vertically unless the
// host says otherwise through SetScreenLogPixelsY. System colours are the
// classic Windows scheme; a host or a test replaces entries with SetSysColors
// (as on Windows) and restores the classic scheme with ResetSysColors.
#pragma once
#include "rtfconverter/Export.h"

#include "WinTypes.h"

// --- Logical font -----------------------------------------------------------

#define LF_FACESIZE 32

struct LOGFONTA {
    LONG lfHeight;
    LONG lfWidth;
    LONG lfEscapement;
    LONG lfOrientation;
    LONG lfWeight;
    BYTE lfItalic;
    BYTE lfUnderline;
    BYTE lfStrikeOut;
    BYTE lfCharSet;
    BYTE lfOutPrecision;
    BYTE lfClipPrecision;
    BYTE lfQuality;
    BYTE lfPitchAndFamily;
    char lfFaceName[LF_FACESIZE];
};
typedef LOGFONTA LOGFONT;

#define FW_DONTCARE 0
#define FW_THIN 100
#define FW_LIGHT 300
#define FW_NORMAL 400
#define FW_MEDIUM 500
#define FW_SEMIBOLD 600
#define FW_BOLD 700
#define FW_HEAVY 900

#define ANSI_CHARSET 0
#define DEFAULT_CHARSET 1
#define SYMBOL_CHARSET 2
#define MAC_CHARSET 77
#define SHIFTJIS_CHARSET 128
#define HANGEUL_CHARSET 129
#define HANGUL_CHARSET 129
#define JOHAB_CHARSET 130
#define GB2312_CHARSET 134
#define CHINESEBIG5_CHARSET 136
#define GREEK_CHARSET 161
#define TURKISH_CHARSET 162
#define VIETNAMESE_CHARSET 163
#define HEBREW_CHARSET 177
#define ARABIC_CHARSET 178
#define BALTIC_CHARSET 186
#define RUSSIAN_CHARSET 204
#define THAI_CHARSET 222
#define EASTEUROPE_CHARSET 238
#define OEM_CHARSET 255

#define DEFAULT_PITCH 0
#define FIXED_PITCH 1
#define VARIABLE_PITCH 2

#define FF_DONTCARE (0 << 4)
#define FF_ROMAN (1 << 4)
#define FF_SWISS (2 << 4)
#define FF_MODERN (3 << 4)
#define FF_SCRIPT (4 << 4)
#define FF_DECORATIVE (5 << 4)

#define OUT_DEFAULT_PRECIS 0
#define OUT_STRING_PRECIS 1
#define OUT_CHARACTER_PRECIS 2
#define OUT_STROKE_PRECIS 3
#define OUT_TT_PRECIS 4
#define OUT_DEVICE_PRECIS 5
#define OUT_RASTER_PRECIS 6
#define OUT_TT_ONLY_PRECIS 7
#define OUT_OUTLINE_PRECIS 8

#define CLIP_DEFAULT_PRECIS 0
#define CLIP_CHARACTER_PRECIS 1
#define CLIP_STROKE_PRECIS 2

#define DEFAULT_QUALITY 0
#define DRAFT_QUALITY 1
#define PROOF_QUALITY 2
#define NONANTIALIASED_QUALITY 3
#define ANTIALIASED_QUALITY 4
#define CLEARTYPE_QUALITY 5

// --- Bitmaps, laid out as in a .bmp file (little-endian, packed) -------------

#define BI_RGB 0L
#define BI_RLE8 1L
#define BI_RLE4 2L
#define BI_BITFIELDS 3L

#pragma pack(push, 2)
struct BITMAPFILEHEADER {
    WORD bfType;
    DWORD bfSize;
    WORD bfReserved1;
    WORD bfReserved2;
    DWORD bfOffBits;
};
#pragma pack(pop)

struct BITMAPINFOHEADER {
    DWORD biSize;
    LONG biWidth;
    LONG biHeight;
    WORD biPlanes;
    WORD biBitCount;
    DWORD biCompression;
    DWORD biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    DWORD biClrUsed;
    DWORD biClrImportant;
};

struct RGBQUAD {
    BYTE rgbBlue;
    BYTE rgbGreen;
    BYTE rgbRed;
    BYTE rgbReserved;
};

struct BITMAPINFO {
    BITMAPINFOHEADER bmiHeader;
    RGBQUAD bmiColors[1];
};

static_assert(sizeof(BITMAPFILEHEADER) == 14, "BITMAPFILEHEADER must match the .bmp layout");
static_assert(sizeof(BITMAPINFOHEADER) == 40, "BITMAPINFOHEADER must match the .bmp layout");
static_assert(sizeof(RGBQUAD) == 4, "RGBQUAD must match the .bmp layout");

// --- Device contexts ----------------------------------------------------------

typedef struct HWND__* HWND;
typedef struct HDC__* HDC;

#define LOGPIXELSX 88
#define LOGPIXELSY 90

// GetDC(nullptr) gives the screen's context; it never fails. ReleaseDC returns 1.
RTFCONV_API HDC GetDC(HWND hWnd);
RTFCONV_API int ReleaseDC(HWND hWnd, HDC hDC);
// LOGPIXELSX and LOGPIXELSY give the screen resolution; other indexes give 0.
RTFCONV_API int GetDeviceCaps(HDC hDC, int index);
// Changes the screen's vertical resolution (values below 1 restore 96).
RTFCONV_API void SetScreenLogPixelsY(int dpi);

class RTFCONV_API CDC {
public:
    CDC() = default;
    CDC(const CDC&) = delete;
    CDC& operator=(const CDC&) = delete;
    virtual ~CDC() = default;

    BOOL Attach(HDC hDC);
    HDC Detach();
    HDC GetSafeHdc() const { return m_hDC; }
    int GetDeviceCaps(int index) const;

    HDC m_hDC = nullptr;
};

// --- System colours -----------------------------------------------------------

#define COLOR_SCROLLBAR 0
#define COLOR_BACKGROUND 1
#define COLOR_ACTIVECAPTION 2
#define COLOR_INACTIVECAPTION 3
#define COLOR_MENU 4
#define COLOR_WINDOW 5
#define COLOR_WINDOWFRAME 6
#define COLOR_MENUTEXT 7
#define COLOR_WINDOWTEXT 8
#define COLOR_CAPTIONTEXT 9
#define COLOR_ACTIVEBORDER 10
#define COLOR_INACTIVEBORDER 11
#define COLOR_APPWORKSPACE 12
#define COLOR_HIGHLIGHT 13
#define COLOR_HIGHLIGHTTEXT 14
#define COLOR_BTNFACE 15
#define COLOR_BTNSHADOW 16
#define COLOR_GRAYTEXT 17
#define COLOR_BTNTEXT 18
#define COLOR_INACTIVECAPTIONTEXT 19
#define COLOR_BTNHIGHLIGHT 20
#define COLOR_3DDKSHADOW 21
#define COLOR_3DLIGHT 22
#define COLOR_INFOTEXT 23
#define COLOR_INFOBK 24
#define COLOR_HOTLIGHT 26
#define COLOR_GRADIENTACTIVECAPTION 27
#define COLOR_GRADIENTINACTIVECAPTION 28
#define COLOR_MENUHILIGHT 29
#define COLOR_MENUBAR 30
#define COLOR_COUNT 31

// The colour of a user-interface element; 0 for an index outside the scheme.
RTFCONV_API COLORREF GetSysColor(int index);
// Replaces the colours of cElements elements, as on Windows; entries with an
// index outside the scheme are skipped. Returns FALSE on null arrays.
RTFCONV_API BOOL SetSysColors(int cElements, const int* lpaElements, const COLORREF* lpaRgbValues);
// Restores the whole classic scheme.
RTFCONV_API void ResetSysColors();
