#include "platform/WinGdi.h"

#include <atomic>

// The screen context is a single token; only its identity matters.
struct HDC__ {
    int unused;
};

namespace {

HDC__ g_screenDC{0};

constexpr int kDefaultLogPixels = 96;
std::atomic<int> g_logPixelsY{kDefaultLogPixels};

// The default scheme of current Windows desktops, indexed by COLOR_*.
constexpr COLORREF kClassicSysColors[COLOR_COUNT] = {
    RGB(200, 200, 200), // COLOR_SCROLLBAR
    RGB(0, 0, 0),       // COLOR_BACKGROUND
    RGB(153, 180, 209), // COLOR_ACTIVECAPTION
    RGB(191, 205, 219), // COLOR_INACTIVECAPTION
    RGB(240, 240, 240), // COLOR_MENU
    RGB(255, 255, 255), // COLOR_WINDOW
    RGB(100, 100, 100), // COLOR_WINDOWFRAME
    RGB(0, 0, 0),       // COLOR_MENUTEXT
    RGB(0, 0, 0),       // COLOR_WINDOWTEXT
    RGB(0, 0, 0),       // COLOR_CAPTIONTEXT
    RGB(180, 180, 180), // COLOR_ACTIVEBORDER
    RGB(244, 247, 252), // COLOR_INACTIVEBORDER
    RGB(171, 171, 171), // COLOR_APPWORKSPACE
    RGB(0, 120, 215),   // COLOR_HIGHLIGHT
    RGB(255, 255, 255), // COLOR_HIGHLIGHTTEXT
    RGB(240, 240, 240), // COLOR_BTNFACE
    RGB(160, 160, 160), // COLOR_BTNSHADOW
    RGB(109, 109, 109), // COLOR_GRAYTEXT
    RGB(0, 0, 0),       // COLOR_BTNTEXT
    RGB(0, 0, 0),       // COLOR_INACTIVECAPTIONTEXT
    RGB(255, 255, 255), // COLOR_BTNHIGHLIGHT
    RGB(105, 105, 105), // COLOR_3DDKSHADOW
    RGB(227, 227, 227), // COLOR_3DLIGHT
    RGB(0, 0, 0),       // COLOR_INFOTEXT
    RGB(255, 255, 225), // COLOR_INFOBK
    RGB(0, 0, 0),       // 25: not assigned
    RGB(0, 102, 204),   // COLOR_HOTLIGHT
    RGB(185, 209, 234), // COLOR_GRADIENTACTIVECAPTION
    RGB(215, 228, 242), // COLOR_GRADIENTINACTIVECAPTION
    RGB(0, 120, 215),   // COLOR_MENUHILIGHT
    RGB(240, 240, 240), // COLOR_MENUBAR
};

// Atomic entries, so that a host changing its scheme from one thread never
// tears a colour read by a conversion in another.
struct SysColorTable {
    std::atomic<COLORREF> colors[COLOR_COUNT];
    SysColorTable() { Reset(); }
    void Reset()
    {
        for (int i = 0; i < COLOR_COUNT; ++i) colors[i].store(kClassicSysColors[i], std::memory_order_relaxed);
    }
};

SysColorTable& SysColors()
{
    static SysColorTable s_table;
    return s_table;
}

bool IsSysColorIndex(int index) { return index >= 0 && index < COLOR_COUNT; }

} // namespace

HDC GetDC(HWND) { return &g_screenDC; }

int ReleaseDC(HWND, HDC) { return 1; }

int GetDeviceCaps(HDC, int index)
{
    switch (index) {
    case LOGPIXELSX: return kDefaultLogPixels;
    case LOGPIXELSY: return g_logPixelsY.load(std::memory_order_relaxed);
    default: return 0;
    }
}

void SetScreenLogPixelsY(int dpi) { g_logPixelsY.store(dpi >= 1 ? dpi : kDefaultLogPixels, std::memory_order_relaxed); }

BOOL CDC::Attach(HDC hDC)
{
    if (!hDC) return FALSE;
    m_hDC = hDC;
    return TRUE;
}

HDC CDC::Detach()
{
    HDC h = m_hDC;
    m_hDC = nullptr;
    return h;
}

int CDC::GetDeviceCaps(int index) const { return ::GetDeviceCaps(m_hDC, index); }

COLORREF GetSysColor(int index)
{
    return IsSysColorIndex(index) ? SysColors().colors[index].load(std::memory_order_relaxed) : 0;
}

BOOL SetSysColors(int cElements, const int* lpaElements, const COLORREF* lpaRgbValues)
{
    if (cElements > 0 && (!lpaElements || !lpaRgbValues)) return FALSE;
    for (int i = 0; i < cElements; ++i)
        if (IsSysColorIndex(lpaElements[i]))
            SysColors().colors[lpaElements[i]].store(lpaRgbValues[i], std::memory_order_relaxed);
    return TRUE;
}

void ResetSysColors() { SysColors().Reset(); }
