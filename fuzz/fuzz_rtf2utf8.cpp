// RTF to UTF-8 text on arbitrary bytes. Besides the sanitizers' checks: the
// output is valid UTF-8 whatever the input, and it does not depend on the
// size of the caller's buffer, the smallest one the reader promises to serve
// (4 bytes, one character) included.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_util.h"
#include "rtfconverter/RtfToUtf8.h"

namespace {

using rtf_converter::CRTFToUTF8Parser;

std::string ConvertToUtf8(const std::uint8_t* data, std::size_t size, std::size_t cbBuffer,
                          CRTFToUTF8Parser::Newline newline)
{
    const unsigned long cbData = static_cast<unsigned long>(size);
    rtf_converter::CBytePtrRTFToUTF8PtrParser reader(data, cbData);
    reader.SetNewline(newline);
    return rtfconv_fuzz::ReadAll(reader, cbBuffer);
}

bool IsValidUtf8(const std::string& s)
{
    for (std::size_t i = 0; i < s.size();) {
        const unsigned char b = static_cast<unsigned char>(s[i]);
        std::size_t cch = 0;
        std::uint32_t cp = 0;
        if (b < 0x80) { cch = 1; cp = b; }
        else if ((b & 0xE0) == 0xC0) { cch = 2; cp = b & 0x1F; }
        else if ((b & 0xF0) == 0xE0) { cch = 3; cp = b & 0x0F; }
        else if ((b & 0xF8) == 0xF0) { cch = 4; cp = b & 0x07; }
        else return false;
        if (i + cch > s.size())
            return false;
        for (std::size_t k = 1; k < cch; ++k) {
            const unsigned char c = static_cast<unsigned char>(s[i + k]);
            if ((c & 0xC0) != 0x80)
                return false;
            cp = cp << 6 | (c & 0x3F);
        }
        static const std::uint32_t s_minimum[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < s_minimum[cch] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += cch;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string large = ConvertToUtf8(data, size, 64 * 1024, CRTFToUTF8Parser::newlineLF);
    FUZZ_CHECK(IsValidUtf8(large), "the output is not valid UTF-8");
    const std::string small = ConvertToUtf8(data, size, 4, CRTFToUTF8Parser::newlineLF);
    FUZZ_CHECK(small == large, "the text differs between a 4-byte and a 64 KiB buffer");
    const std::string crlf = ConvertToUtf8(data, size, 5, CRTFToUTF8Parser::newlineCRLF);
    FUZZ_CHECK(IsValidUtf8(crlf), "the output with CR LF line ends is not valid UTF-8");
    return 0;
}
