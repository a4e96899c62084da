// Differential: the importer's pointer and stream sources give the same
// old-format text. Three kinds of input are left out because the sources are
// meant to differ there: a NUL byte ends the pointer source's text but is an
// ordinary byte to the stream; the stream copies \bin data only where it
// crossed a refill of its read buffer; and at the end of input the pointer
// source reads a NUL where the stream leaves the last byte, so a control word
// or escape cut by the end is read differently.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_import.h"

namespace {

// The attachments' text stands in for them in both outputs.
bool NumberingFilter(AttachmentInfo&, CString& text, void* pCount, void*)
{
    int& count = *static_cast<int*>(pCount);
    text.Format("\x01" "A%02d" "\x02", count++ % 100);
    return true;
}

// One large buffer: a resumption rewinds the stream source only as far as its
// short history allows, by design, so small buffers are the other targets'
// business.
template <class TReader>
std::string Convert(TReader& reader)
{
    int count = 0;
    reader.SetAttachmentFilter(NumberingFilter, &count, nullptr);
    return rtfconv_fuzz::ImportAll(reader, 1u << 20);
}

bool EndsInsideControlWord(const std::string& text)
{
    const std::size_t backslash = text.rfind('\\');
    if (backslash == std::string::npos)
        return false;
    for (std::size_t i = backslash + 1; i < text.size(); ++i) {
        const char ch = text[i];
        const bool bWordByte = (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
                               ch == '-' || ch == '\'';
        if (!bWordByte)
            return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.find('\0') != std::string::npos || text.find("\\bin") != std::string::npos ||
        EndsInsideControlWord(text))
        return 0;

    rtf_converter::CRTFPtrImport ptrReader(text.c_str());
    const std::string fromPtr = Convert(ptrReader);

    IStream* pStream = rtfconv_fuzz::StreamOver(data, size);
    std::string fromStream;
    {
        rtf_converter::CRTFStreamImport streamReader(pStream);
        fromStream = Convert(streamReader);
    }
    pStream->Release();
    FUZZ_CHECK(fromPtr == fromStream, "the pointer and stream sources give different text");
    return 0;
}
