// Inputs the fuzzer found (kept in fuzz/findings/rtf2txt/), with the text
// each must give.
#include <gtest/gtest.h>

#include <string>

#include "rtf_to_text_helpers.h"

namespace {

using rtfconv_test::PlainText;

TEST(FuzzFindings, ParagraphCounterWrapsAroundAtTheLargestInt)
{
    // \pnstart without a parameter starts the list at 2147483647; the next
    // paragraph's number wraps to the smallest int.
    EXPECT_EQ(PlainText("{\\rtf1\\pard{\\*\\pn\\pnstart\\pndec}a\\par b\\par}"),
              "2147483647\ta\r-2147483648\tb\r");
}

} // namespace
