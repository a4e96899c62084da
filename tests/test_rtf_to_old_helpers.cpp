#include "test_rtf_to_old_helpers.h"

#include <algorithm>
#include <cstring>

namespace rtfconv_test {

using rtf_converter::CRTFImportToPtr;
using rtf_converter::CRTFPtrImport;
using rtf_converter::CRTFStreamImport;
using rtf_converter::ReadResult;

HRESULT CTestReadStream::Read(void* pv, ULONG cb, ULONG* pcbRead)
{
    ++cReads;
    const std::size_t n = std::min<std::size_t>(cb, m_bytes.size() - m_pos);
    std::memcpy(pv, m_bytes.data() + m_pos, n);
    m_pos += n;
    if (pcbRead)
        *pcbRead = static_cast<ULONG>(n);
    return n < cb ? S_FALSE : S_OK;
}

bool RecordingAttachmentFilter(AttachmentInfo& info, CString& text, void* pLog, void*)
{
    AttachmentLog& log = *static_cast<AttachmentLog*>(pLog);
    SeenAttachment seen;
    seen.aType = info.aType;
    seen.dwDataSize = info.dwDataSize;
    seen.bHasStream = info.pStm != nullptr;
    if (info.pStm) {
        STATSTG stat;
        info.pStm->Stat(&stat, STATFLAG_NONAME);
        seen.streamSize = stat.cbSize.QuadPart;
        LARGE_INTEGER zero;
        zero.QuadPart = 0;
        ULARGE_INTEGER pos;
        info.pStm->Seek(zero, STREAM_SEEK_CUR, &pos);
        seen.position = pos.QuadPart;
        HGLOBAL hGlobal = nullptr;
        GetHGlobalFromStream(info.pStm, &hGlobal);
        const char* p = static_cast<const char*>(GlobalLock(hGlobal));
        seen.data.assign(p, static_cast<std::size_t>(seen.streamSize));
        GlobalUnlock(hGlobal);
    }
    const std::size_t index = log.seen.size();
    log.seen.push_back(seen);
    if (index < log.accept.size() && !log.accept[index])
        return false;
    text.Format("\x01" "A%02d" "\x02", static_cast<int>(index));
    return true;
}

std::string Cmd(const std::string& body) { return "\x01" + body + "\x02"; }

namespace {

template <class TReader>
ImportResult PullWith(TReader& reader, const ImportOptions& options)
{
    reader.SetPasteWithTableTags(options.bTableTags);
    reader.SetLossless(options.bLossless);
    if (options.pAttachments)
        reader.SetAttachmentFilter(RecordingAttachmentFilter, options.pAttachments, nullptr);
    if (options.pfnCharFilter)
        reader.SetFilter(options.pfnCharFilter);

    // Every buffer after the first begins with the re-sent commands, so
    // ReadOnce judges progress by the input consumed.
    ImportResult result;
    std::vector<char> buf(options.cbBuffer);
    for (ReadResult step = ReadResult::more; step == ReadResult::more;) {
        const std::size_t cbBefore = buf.size();
        std::size_t cb = 0;
        step = ReadOnce(reader, buf, cb);
        result.buffers.emplace_back(buf.data(), cb);
        result.text.append(buf.data(), cb);
        result.cGrowths += buf.size() != cbBefore ? 1 : 0;
        result.bStalled = step == ReadResult::stalled;
    }
    result.cUnrepresentable = reader.GetUnrepresentableCount();
    return result;
}

} // namespace

ImportResult PullOldText(const std::string& rtf, const ImportOptions& options)
{
    if (options.source == ImportSource::Ptr) {
        CRTFPtrImport reader(rtf.c_str());
        return PullWith(reader, options);
    }
    CTestReadStream stream(rtf);
    CRTFStreamImport reader(&stream);
    return PullWith(reader, options);
}

std::string OldText(const std::string& rtf, const ImportOptions& options)
{
    return PullOldText(rtf, options).text;
}

} // namespace rtfconv_test
