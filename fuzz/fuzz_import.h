// The importer under the fuzz targets: a stream over the input, and the pull
// loop that turns the importer's exceptions into a mark in the text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "platform/AfxExceptions.h"
#include "rtfconverter/RTFToOld.h"

namespace rtfconv_fuzz {

// A memory stream holding the bytes, positioned at their start; the caller
// releases it.
inline IStream* StreamOver(const std::uint8_t* data, std::size_t size)
{
    IStream* pStream = nullptr;
    FUZZ_CHECK(CreateStreamOnHGlobal(nullptr, TRUE, &pStream) >= 0, "no memory stream");
    ULONG cbWritten = 0;
    pStream->Write(data, static_cast<ULONG>(size), &cbWritten);
    LARGE_INTEGER zero;
    zero.QuadPart = 0;
    pStream->Seek(zero, STREAM_SEEK_SET, nullptr);
    return pStream;
}

// Pulls the whole old-format text with buffers of cbBuffer bytes (every
// buffer after the first begins with the re-sent layout and font commands,
// so ReadAll judges progress by the input consumed). The framework
// exceptions that the importer lets out of Read (bad table indexes, stream
// failures) end the text with "<exception>".
template <class TReader>
std::string ImportAll(TReader& reader, std::size_t cbBuffer)
{
    std::string out;
    try {
        ReadAllInto(reader, out, cbBuffer);
    } catch (const CException&) {
        out += "<exception>";
    }
    return out;
}

} // namespace rtfconv_fuzz
