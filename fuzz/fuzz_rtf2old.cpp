// RTF to old-format text on arbitrary bytes, through both sources and two
// buffer sizes, with an attachment filter that accepts everything and reads
// what it is handed. Besides the sanitizers' checks: no call may run without
// progress past the largest buffer, and the framework exceptions that the
// importer lets out of Read (bad table indexes, stream failures) are the only
// ones allowed.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_import.h"

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

template <class TReader>
void ImportWithFilter(TReader& reader, std::size_t cbBuffer)
{
    int count = 0;
    reader.SetAttachmentFilter(AcceptingFilter, &count, nullptr);
    reader.SetPasteWithTableTags(cbBuffer % 2 == 0);
    rtfconv_fuzz::ImportAll(reader, cbBuffer);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (std::size_t cbBuffer : {std::size_t(63), std::size_t(64 * 1024)}) {
        rtf_converter::CRTFPtrImport ptrReader(text.c_str());
        ImportWithFilter(ptrReader, cbBuffer);

        IStream* pStream = rtfconv_fuzz::StreamOver(data, size);
        {
            rtf_converter::CRTFStreamImport streamReader(pStream);
            ImportWithFilter(streamReader, cbBuffer);
        }
        pStream->Release();
    }
    return 0;
}
