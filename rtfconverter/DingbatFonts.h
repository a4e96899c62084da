// The characters that dingbat fonts show, for the Unicode reader: their fonts
// hold pictures under the bytes of text, and RTF gives those bytes (or
// U+F000 + byte) with the font's name.
#pragma once
#include "rtfconverter/Export.h"

namespace rtf_converter {

enum DingbatFont { dingbatNone, dingbatWingdings, dingbatWingdings2, dingbatWingdings3, dingbatWebdings };

// The dingbat font a font table entry names (case and surrounding blanks do
// not matter); dingbatNone for any other name, Symbol included (see
// CodePages.cpp).
RTFCONV_API DingbatFont DingbatFontOfName(const char* szName);

// The character the font shows for byte b; 0 where the table gives none.
RTFCONV_API char32_t DingbatCharacter(DingbatFont font, unsigned char b);

} // namespace rtf_converter
