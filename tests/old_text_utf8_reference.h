// The first, whole-text implementation of the old-format text codec: the
// reference the streaming codec must match on every input.
#pragma once
#include <string>

#include "rtfconverter/OldTextUtf8.h"

namespace rtfconv_test {

std::string ReferenceOldTextToUtf8(const std::string& oldText, int defaultCodePage);
std::string ReferenceOldTextFromUtf8(const std::string& utf8, int defaultCodePage,
                                     rtf_converter::OldTextFromUtf8Counts* pCounts = nullptr);

} // namespace rtfconv_test
