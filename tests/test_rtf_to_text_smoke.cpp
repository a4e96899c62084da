#include <gtest/gtest.h>

#include <string>

#include "rtfconverter/RtfToText.h"

using rtf_converter::CBytePtrRTFToPlainTextPtrParser;

TEST(Smoke, HelloWorld)
{
    const std::string rtf = "{\\rtf1\\ansi Hello\\par World}";
    unsigned long cb = rtf.size();
    CBytePtrRTFToPlainTextPtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()), cb);
    char buf[256];
    bool bMore = true;
    unsigned long n = reader.Read(buf, buf + sizeof buf, bMore);
    EXPECT_FALSE(bMore);
    EXPECT_EQ(std::string(buf, n), "Hello\rWorld");
}
