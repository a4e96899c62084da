// Old-format text as UTF-8, and back.
//
//     std::string utf8 = OldTextToUtf8(oldText, 1252);
//     OldTextFromUtf8Counts counts;
//     std::string oldAgain = OldTextFromUtf8(utf8, 1252, &counts);  // == oldText
//
// Each run of text is decoded with the code page of the character set of the
// font command in force (the default code page before the first one and for
// the ANSI and default character sets); comment commands (hyperlinks,
// references, numbering, table tags) with the same page, a font command's
// face name with the page of its own character set. The framing bytes and
// the ASCII of every command pass through, and the other bytes of layout,
// print and attachment commands and of a font command's attribute field (its
// character set code, 0xC0 to 0xD2) become U+0080 to U+00FF.
//
// The way back is exact: a byte, or a double-byte character, whose character
// does not encode to the same bytes again (bytes a page leaves undefined, the
// second form of a character a page holds twice, a lead byte without its
// trail byte) becomes U+F000 plus the byte, as Windows shows the bytes of a
// symbol font, and turns back into that byte. So every old-format text gives
// back its own bytes. From UTF-8, a run of text the page in force cannot hold
// is written in the font command in force with a character set whose page
// holds it (Cyrillic in RUSSIAN_CHARSET, Japanese in SHIFTJIS_CHARSET, ...),
// followed by the command in force again; what no Windows page holds, and
// what a comment command's page cannot hold, becomes '?', counted.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>
#include <string>

namespace rtf_converter {

RTFCONV_API std::string OldTextToUtf8(const std::string& oldText, int defaultCodePage);

struct OldTextFromUtf8Counts {
    std::size_t nUnencodable = 0;  // characters written as '?'
    std::size_t nInvalid = 0;      // bytes that are not UTF-8, passed through as they are
};

RTFCONV_API std::string OldTextFromUtf8(const std::string& utf8, int defaultCodePage, OldTextFromUtf8Counts* pCounts = nullptr);

} // namespace rtf_converter
