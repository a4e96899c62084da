// The picture formats the lossless writer embeds as they are: which RTF
// picture word each takes and the size its header gives.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>

namespace rtf_converter {

struct PictureDescription {
    const char* pszFormatWord = "";  // "\pngblip", "\jpegblip", "\emfblip" or "\wmetafile8"
    std::size_t cbSkipped = 0;       // leading bytes that are not part of the RTF picture data
    // \picw and \pich: pixels for PNG and JPEG, hundredths of a millimetre for
    // metafiles; 0 when the header does not tell.
    long width = 0;
    long height = 0;
    // \picwgoal and \pichgoal in twips; 0 when the header does not tell.
    long widthTwips = 0;
    long heightTwips = 0;
};

// Describes `cb` bytes of a picture of the attachment kind `aType` (AT_PNG,
// AT_JPEG, AT_EMF, AT_WMF); false for any other kind and for bytes that do
// not begin as that format does (a word processor may refuse the whole
// document for one such picture). A header too short to give the size leaves
// the sizes 0.
RTFCONV_API bool DescribePicture(long aType, const unsigned char* p, std::size_t cb, PictureDescription& out);

} // namespace rtf_converter
