#include "tools/rtfconv/FontOption.h"

#include <CLI/CLI.hpp>

#include <cstring>

#include "hostlibs/MFCKVUtils.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

// A decimal number in [lo, hi], or a usage error naming the part.
int ParseNumber(const std::string& text, int lo, int hi, const std::string& what)
{
    bool bDigits = !text.empty() && text.size() <= 4 && text.find_first_not_of("0123456789") == std::string::npos;
    int n = bDigits ? std::stoi(text) : -1;
    if (n < lo || n > hi)
        throw ToolError(exitUsage, "--font: " + what + " must be a number from " + std::to_string(lo) + " to " +
                                       std::to_string(hi) + ", not '" + text + "'");
    return n;
}

} // namespace

bool FontOption::GetLogFont(LOGFONT& lf) const
{
    if (text.empty()) return false;
    const std::size_t colon1 = text.find(':');
    const std::string face = text.substr(0, colon1);
    int points = 10;
    int charset = -1;
    if (colon1 != std::string::npos) {
        const std::size_t colon2 = text.find(':', colon1 + 1);
        points = ParseNumber(text.substr(colon1 + 1, colon2 - colon1 - 1), 1, 99, "POINTS");
        if (colon2 != std::string::npos) charset = ParseNumber(text.substr(colon2 + 1), 0, 255, "CHARSET");
    }
    if (face.empty() || face.size() >= LF_FACESIZE)
        throw ToolError(exitUsage, "--font: FACE must have 1 to " + std::to_string(LF_FACESIZE - 1) + " bytes");

    HDC hdc = GetDC(nullptr);
    const int logPixelsY = GetDeviceCaps(hdc, LOGPIXELSY);
    ReleaseDC(nullptr, hdc);
    InitDefaultScreenFont(lf, face.c_str(), points, logPixelsY);
    if (charset >= 0) lf.lfCharSet = static_cast<BYTE>(charset);
    return true;
}

void AddFontOption(CLI::App& cmd, FontOption& font)
{
    cmd.add_option("--font", font.text,
                   "Base font FACE[:POINTS[:CHARSET]], e.g. 'Times New Roman:12' or 'Arial:10:204' "
                   "(default: Arial 10)")
        ->type_name("FONT");
}

} // namespace rtfconv
