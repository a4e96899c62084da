#include <rtfconverter/RtfToText.h>

#include <cstdio>
#include <cstring>

int main()
{
    static const char rtf[] = "{\\rtf1 Hello\\par}";
    const unsigned long cb = sizeof rtf - 1;
    rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(reinterpret_cast<const unsigned char*>(rtf), cb);
    char buf[64];
    bool bMore = true;
    const unsigned long n = reader.Read(buf, buf + sizeof buf, bMore);
    return n == 6 && std::memcmp(buf, "Hello\r", 6) == 0 && !bMore ? 0 : 1;
}
