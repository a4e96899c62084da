// What a hostile document may make a reader allocate.
//
// Every structure of a reader that grows with its input is capped, so that
// memory stays in proportion to the smaller of the input and the limits, and
// a nesting of millions of groups costs no more than one of ten thousand. The
// defaults are far above what real documents use: within them a reader's
// output does not change. Beyond a limit the reader degrades as each field
// says, keeps converting, traces the event once through the logger and sets
// the limit's bit in GetLimitsReached().
//
//     ReadLimits limits;                  // the defaults
//     limits.maxDepth = 1000;
//     reader.SetLimits(limits);           // before the first Read
//     ...
//     if (reader.GetLimitsReached() & limitDepth) ...
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>

namespace rtf_converter {

struct ReadLimits {
    // Open groups that save the state of their parent. Deeper groups are
    // still counted, so that the braces balance, but they save nothing: their
    // text, and the text after them up to the end of the deepest saved group,
    // keeps the formatting set inside them.
    int maxDepth = 10000;
    // Decoded bytes of one picture or object. A larger one is dropped, as if
    // the attachment filter had refused it; the text goes on.
    std::size_t maxAttachmentBytes = std::size_t(256) << 20;
    // Entries of the font table. Those beyond it are ignored and the fonts
    // they define are unknown.
    int maxFontEntries = 32768;
    // Bytes of one font name; the rest of the name is dropped.
    int maxFontNameLength = 1024;
    // Entries of the colour table, every table of the document together.
    // Those beyond it are ignored: the rest of the table is skipped.
    int maxColorEntries = 32768;
    // Bytes of a field instruction and of the text a hyperlink shows; the
    // rest of either is dropped.
    int maxFieldText = 1 << 20;
    // Bytes of the text before and of the text after a paragraph number. The
    // number goes out again in front of every numbered paragraph, so a long
    // one would make the output grow with the square of the input; the rest
    // is dropped (a markup command it would cut goes with it).
    int maxNumberingText = 4096;
};

// The bits of GetLimitsReached(), one per field of ReadLimits.
enum ReadLimitKind : unsigned {
    limitDepth = 1u << 0,
    limitAttachment = 1u << 1,
    limitFontEntries = 1u << 2,
    limitFontName = 1u << 3,
    limitColorEntries = 1u << 4,
    limitFieldText = 1u << 5,
    limitNumberingText = 1u << 6,
};

// "group depth", "attachment size", ...: the name of one limit, for messages.
RTFCONV_API const char* ReadLimitName(ReadLimitKind kind);

} // namespace rtf_converter
