// The importer under the fuzz targets: both sources with their read position
// made visible, and the pull loop that judges progress by it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "platform/AfxExceptions.h"
#include "rtfconverter/RTFToOld.h"

namespace rtfconv_fuzz {

class CPtrReader : public rtf_converter::CRTFPtrImport {
public:
    using CRTFPtrImport::CRTFPtrImport;
    std::size_t BytesConsumed() const { return m_ichCur < m_cchText ? m_ichCur : m_cchText; }
};

class CStreamReader : public rtf_converter::CRTFStreamImport {
public:
    using CRTFStreamImport::CRTFStreamImport;
    // What the stream gave minus what is still unread in the read buffer.
    std::size_t BytesConsumed() const
    {
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        ULARGE_INTEGER pos;
        pos.QuadPart = 0;
        m_pStream->Seek(zero, STREAM_SEEK_CUR, &pos);
        return static_cast<std::size_t>(pos.QuadPart) - static_cast<std::size_t>(m_pEnd - m_pCur);
    }
};

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

// Pulls the whole old-format text with buffers of cbBuffer bytes. Every
// buffer after the first begins with the re-sent layout and font commands, so
// progress is judged by the input consumed, not by the bytes written: a call
// that ends where the previous one did doubles the buffer. The framework
// exceptions that the importer lets out of Read (bad table indexes, stream
// failures) end the text with "<exception>".
template <class TReader>
std::string ImportAll(TReader& reader, std::size_t cbBuffer)
{
    std::string out;
    std::vector<char> buffer(cbBuffer);
    std::size_t cbConsumedBefore = 0;
    bool bMore = true;
    try {
        while (bMore) {
            char* const pBegin = buffer.data();
            const int cb = reader.Read(pBegin, pBegin + buffer.size(), bMore);
            FUZZ_CHECK(cb >= 0 && static_cast<std::size_t>(cb) <= buffer.size(), "Read reports a bad count");
            out.append(pBegin, static_cast<std::size_t>(cb));
            const std::size_t cbConsumed = reader.BytesConsumed();
            if (bMore && cbConsumed <= cbConsumedBefore) {
                FUZZ_CHECK(buffer.size() < kMaxReadBuffer, "Read makes no progress even with a large buffer");
                buffer.resize(buffer.size() * 2);
            }
            cbConsumedBefore = cbConsumed;
        }
    } catch (const CException&) {
        out += "<exception>";
    }
    return out;
}

} // namespace rtfconv_fuzz
