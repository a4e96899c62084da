#include "rtfconverter/ReadLimits.h"

namespace rtf_converter {

const char* ReadLimitName(ReadLimitKind kind)
{
    switch (kind) {
    case limitDepth: return "group depth";
    case limitAttachment: return "attachment size";
    case limitFontEntries: return "font table entries";
    case limitFontName: return "font name length";
    case limitColorEntries: return "colour table entries";
    case limitFieldText: return "field text length";
    case limitNumberingText: return "numbering text length";
    }
    return "unknown";
}

} // namespace rtf_converter
