// RTF to plain text on arbitrary bytes. Besides the sanitizers' checks, the
// output must not depend on the size of the caller's buffer: a 7-byte buffer
// forces a resumption at almost every token, and must give the same text as
// one large buffer.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_util.h"
#include "rtfconverter/RtfToText.h"

namespace {

std::string ConvertToText(const std::uint8_t* data, std::size_t size, std::size_t cbBuffer)
{
    const unsigned long cbData = static_cast<unsigned long>(size);
    rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(data, cbData);
    return rtfconv_fuzz::ReadAll(reader, cbBuffer);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string small = ConvertToText(data, size, 7);
    const std::string large = ConvertToText(data, size, 64 * 1024);
    FUZZ_CHECK(small == large, "the text differs between a 7-byte and a 64 KiB buffer");
    return 0;
}
