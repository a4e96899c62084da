// RTF to old-format text on arbitrary bytes, through both sources and two
// buffer sizes, with an attachment filter that accepts everything and reads
// what it is handed. Besides the sanitizers' checks: no call may run without
// progress past the largest buffer, and the framework exceptions that the
// importer lets out of Read (bad table indexes, stream failures) are the only
// ones allowed.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "platform/AfxExceptions.h"
#include "rtfconverter/RTFToOld.h"

namespace {

bool AcceptingFilter(AttachmentInfo& info, CString& text, void* pCount, void*)
{
    int& count = *static_cast<int*>(pCount);
    if (info.pStm) {
        STATSTG stat;
        FUZZ_CHECK(info.pStm->Stat(&stat, STATFLAG_NONAME) >= 0, "Stat fails on an attachment stream");
        FUZZ_CHECK(stat.cbSize.QuadPart == info.dwDataSize, "the stream size differs from dwDataSize");
        HGLOBAL hGlobal = nullptr;
        GetHGlobalFromStream(info.pStm, &hGlobal);
        const unsigned char* p = static_cast<const unsigned char*>(GlobalLock(hGlobal));
        unsigned sum = 0;
        for (DWORD i = 0; i < info.dwDataSize; ++i)
            sum += p[i];
        GlobalUnlock(hGlobal);
        (void)sum;
    }
    text.Format("\x01" "A%02d" "\x02", count++ % 100);
    return true;
}

// The readers with their read position made visible: every buffer after the
// first begins with the re-sent layout and font commands, so progress is
// judged by the input consumed, not by the bytes written.
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

template <class TReader>
std::string ReadAllOld(TReader& reader, std::size_t cbBuffer)
{
    int count = 0;
    reader.SetAttachmentFilter(AcceptingFilter, &count, nullptr);
    reader.SetPasteWithTableTags(cbBuffer % 2 == 0);
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
                FUZZ_CHECK(buffer.size() < rtfconv_fuzz::kMaxReadBuffer, "Read makes no progress even with a large buffer");
                buffer.resize(buffer.size() * 2);
            }
            cbConsumedBefore = cbConsumed;
        }
    } catch (const CException&) {
        // A colour or font entry at index -1: the library's contract.
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (std::size_t cbBuffer : {std::size_t(63), std::size_t(64 * 1024)}) {
        CPtrReader ptrReader(text.c_str());
        ReadAllOld(ptrReader, cbBuffer);

        IStream* pStream = nullptr;
        FUZZ_CHECK(CreateStreamOnHGlobal(nullptr, TRUE, &pStream) >= 0, "no memory stream");
        ULONG cbWritten = 0;
        pStream->Write(data, static_cast<ULONG>(size), &cbWritten);
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        pStream->Seek(zero, STREAM_SEEK_SET, nullptr);
        {
            CStreamReader streamReader(pStream);
            ReadAllOld(streamReader, cbBuffer);
        }
        pStream->Release();
    }
    return 0;
}
