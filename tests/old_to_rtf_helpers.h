// Helpers for the tests of the RTF writers: documents in strings, streams that
// fail on demand, attachment filters with scripted answers.
#pragma once

#include <climits>
#include <string>
#include <vector>

#include "platform/ObjBase.h"
#include "platform/WinGdi.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldToRTF.h"

namespace rtfconv_test {

// Arial 10 at 96 dpi, the given character set, variable pitch and swiss family.
LOGFONT ArialTen(BYTE charset = 0);

// The bytes of a memory stream from offset 0.
std::string StreamBytes(IStream* p);

// Converts old-format text and returns the document (and the result code).
std::string OldToRtf(const std::string& text, const LOGFONT* pFont, long* pResult = nullptr,
                     rtf_converter::COldToRTF::AttachmentFilter filter = nullptr, void* p1 = nullptr,
                     void* p2 = nullptr);

struct FilterScript;
// The same with the lossless option as given, ArialTen() as the base font and
// the scripted filter when a script is given.
std::string OldToRtfInMode(const std::string& text, bool bLossless, long* pResult = nullptr,
                           FilterScript* pScript = nullptr);

// The document around `body` for ArialTen(), a black window text and the given
// extra font-table entries and colour entries (after the default colour).
std::string DocumentAround(const std::string& body, const std::string& extraFonts = "",
                           const std::string& extraColors = "");

// A stream that keeps what is written into it, except that it rejects the
// writes numbered nFailFrom to nFailTo (counted from 1); 0 never rejects.
class CFailingStream : public IStream {
public:
    explicit CFailingStream(int nFailFrom, int nFailTo = INT_MAX) : m_nFailFrom(nFailFrom), m_nFailTo(nFailTo) {}
    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override { return --m_cRef; } // lives on the test's stack
    HRESULT Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) override;
    HRESULT Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    ~CFailingStream() override = default;

    std::string bytes;
    int nWrites = 0;

private:
    int m_nFailFrom;
    int m_nFailTo;
    ULONG m_cRef = 1;
};

// One scripted answer of an attachment filter.
struct FilterAnswer {
    bool bResult = true;
    LONG aType = AttachmentInfo::AT_PLACEHOLDER;
    std::string oleData;           // a memory stream with these bytes when not empty
    std::vector<BYTE> packedDib;   // a bitmap when not empty
};

// What the scripted filter saw and handed over.
struct FilterScript {
    std::vector<FilterAnswer> answers; // used in turn; the last one repeats
    std::vector<int> positions;        // nTextPos of each call
    std::vector<std::string> commands; // the command of each call
    std::vector<IStream*> streams;     // streams handed over (the script keeps a reference)
    int nCalls = 0;
};

// The filter for FilterScript (param1); param2 must be the address of the script too.
bool ScriptedFilter(int nTextPos, const CString& cmd, AttachmentInfo& info, void* param1, void* param2);

// A packed 24-bit DIB of the given size with a recognisable pattern.
std::vector<BYTE> SmallDib(LONG width, LONG height);

// Lower-case hexadecimal of the bytes.
std::string Hex(const void* p, std::size_t n);

// Plain text of an RTF document through the library's RTF reader.
std::string RtfToPlainText(const std::string& rtf);
// Whether the library's RTF reader consumes the whole document and ends with
// the outermost group closed.
bool ReadsBalanced(const std::string& rtf);

} // namespace rtfconv_test
