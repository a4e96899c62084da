// Pulls old-format text out of RTF with either importer source, the way a
// host does, and records what the attachment filter is handed.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "rtfconverter/RTFToOld.h"

namespace rtfconv_test {

enum class ImportSource { Ptr, Stream };

// One call of the attachment filter, as the importer handed it over.
struct SeenAttachment {
    long aType = 0;
    unsigned long dwDataSize = 0;
    std::string data;                  // the stream's bytes
    unsigned long long streamSize = 0;
    unsigned long long position = 0;   // the stream's seek position
    bool bHasStream = false;
};

// Accepts (or refuses, per call) and answers with an attachment command
// numbered by the call.
struct AttachmentLog {
    std::vector<SeenAttachment> seen;
    std::vector<bool> accept;  // per call; calls beyond the list accept
};
bool RecordingAttachmentFilter(AttachmentInfo& info, CString& text, void* pLog, void*);

struct ImportOptions {
    ImportSource source = ImportSource::Ptr;
    std::size_t cbBuffer = 65536;
    bool bTableTags = false;
    AttachmentLog* pAttachments = nullptr;
    void (*pfnCharFilter)(char&) = nullptr;
    bool bLossless = false;
};

struct ImportResult {
    std::string text;
    std::vector<std::string> buffers;  // the bytes of each Read
    int cGrowths = 0;       // buffers doubled because what was due did not fit
    bool bStalled = false;  // no progress even with a 16 MiB buffer
    long cUnrepresentable = 0;  // lossless: characters written as '?'
};

// Pulls with buffers of options.cbBuffer bytes, doubled (as the command-line
// tool does) after a call that ends where the previous one did.
ImportResult PullOldText(const std::string& rtf, const ImportOptions& options = ImportOptions());
std::string OldText(const std::string& rtf, const ImportOptions& options = ImportOptions());

// A markup command from its body: 0x01 body 0x02.
std::string Cmd(const std::string& body);

// A read-only IStream over bytes that counts its Read calls.
class CTestReadStream : public IStream {
public:
    explicit CTestReadStream(std::string bytes) : m_bytes(std::move(bytes)) {}
    ~CTestReadStream() override = default;
    ULONG AddRef() override { return 1; }
    ULONG Release() override { return 1; }
    HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) override;
    HRESULT Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }


    int cReads = 0;

private:
    std::string m_bytes;
    std::size_t m_pos = 0;
};

} // namespace rtfconv_test
