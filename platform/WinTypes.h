// Basic Windows scalar types, result codes and colour macros, as the library's
// Windows-born interfaces spell them. Sizes are fixed so that behaviour (wrapping
// arithmetic, sign of HRESULTs) is the same as on the original platform.
#pragma once

#include <cstddef>
#include <cstdint>

typedef int BOOL;
typedef std::uint8_t BYTE;
typedef std::uint16_t WORD;
typedef std::uint32_t DWORD;
typedef std::int32_t LONG;
typedef std::uint32_t ULONG;
typedef unsigned int UINT;
typedef std::int32_t HRESULT;
typedef DWORD COLORREF;
typedef const char* LPCSTR;
typedef char* LPSTR;
typedef void* LPVOID;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

union LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    std::int64_t QuadPart;
};

union ULARGE_INTEGER {
    struct {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    std::uint64_t QuadPart;
};

// A width and height, as GDI reports sizes in pixels.
struct SIZE {
    LONG cx;
    LONG cy;
};

constexpr COLORREF RGB(BYTE r, BYTE g, BYTE b)
{
    return static_cast<COLORREF>(r) | (static_cast<COLORREF>(g) << 8) | (static_cast<COLORREF>(b) << 16);
}
constexpr BYTE GetRValue(COLORREF c) { return static_cast<BYTE>(c & 0xFF); }
constexpr BYTE GetGValue(COLORREF c) { return static_cast<BYTE>((c >> 8) & 0xFF); }
constexpr BYTE GetBValue(COLORREF c) { return static_cast<BYTE>((c >> 16) & 0xFF); }

constexpr bool SUCCEEDED(HRESULT hr) { return hr >= 0; }
constexpr bool FAILED(HRESULT hr) { return hr < 0; }

// Written as casts of the 32-bit pattern so that the values are negative, as on
// Windows, even where they are widened into a 64-bit long.
#define RTFCONV_HRESULT(x) (static_cast<HRESULT>(static_cast<std::uint32_t>(x)))
#define S_OK RTFCONV_HRESULT(0x00000000u)
#define S_FALSE RTFCONV_HRESULT(0x00000001u)
#define E_FAIL RTFCONV_HRESULT(0x80004005u)
#define E_UNEXPECTED RTFCONV_HRESULT(0x8000FFFFu)
#define E_POINTER RTFCONV_HRESULT(0x80004003u)
#define E_NOTIMPL RTFCONV_HRESULT(0x80004001u)
#define E_OUTOFMEMORY RTFCONV_HRESULT(0x8007000Eu)
#define E_INVALIDARG RTFCONV_HRESULT(0x80070057u)
#define STG_E_INVALIDFUNCTION RTFCONV_HRESULT(0x80030001u)
#define STG_E_INVALIDPOINTER RTFCONV_HRESULT(0x80030009u)
#define STG_E_MEDIUMFULL RTFCONV_HRESULT(0x80030070u)
#define STG_E_WRITEFAULT RTFCONV_HRESULT(0x8003001Du)
#define STG_E_READFAULT RTFCONV_HRESULT(0x8003001Eu)
#define STG_E_ACCESSDENIED RTFCONV_HRESULT(0x80030005u)
