// --font FACE[:POINTS[:CHARSET]], the base font of old2rtf and txt2rtf.
#pragma once

#include <string>

#include "platform/WinGdi.h"

namespace CLI {
class App;
}

namespace rtfconv {

struct FontOption {
    std::string text; // as given; empty means the library's default font
    // The LOGFONT of `text` at the screen's resolution; false when `text` is
    // empty. Throws ToolError(exitUsage) when it is malformed.
    bool GetLogFont(LOGFONT& lf) const;
};

// Adds --font to `cmd`.
void AddFontOption(CLI::App& cmd, FontOption& font);

} // namespace rtfconv
