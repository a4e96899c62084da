// Old-format text to RTF on arbitrary bytes, with a filter that answers every
// attachment kind (declines, placeholders, objects with and without pictures,
// pictures, links, unknown kinds) as the command's index selects. Besides the
// sanitizers' checks:
// - the document reads back through our RTF reader, which consumes all of it
//   and ends at group depth 0;
// - a 7-byte quick buffer gives the same document as the default one.
// Face names, number texts and table descriptions reach the RTF unescaped, as
// the writer is meant to copy them, so the input's \ { } inside markup
// commands other than hyperlinks are replaced before the group check.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_util.h"
#include "hostlibs/MFCKVUtils.h"
#include "platform/ObjBase.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldToRTF.h"
#include "rtfconverter/RtfToText.h"

namespace {

class CSmallBufferWriter : public rtf_converter::COldToRTF {
public:
    explicit CSmallBufferWriter(IStream& out) : COldToRTF(out) {}
    static DWORD Swap(DWORD n)
    {
        DWORD old = s_dwBufferSize;
        s_dwBufferSize = n;
        return old;
    }
};

// Reads a document to its end and reports whether all of it was consumed
// with the outermost group closed.
class CGroupProbe : public rtf_converter::CBytePtrRTFToPlainTextPtrParser {
public:
    CGroupProbe(const unsigned char* p, const unsigned long& cb) : CBytePtrRTFToPlainTextPtrParser(p, cb), m_cb(cb) {}
    bool ReadsBalanced()
    {
        rtfconv_fuzz::ReadAll(*this, 4096);
        return m_cGroup == 0 && BytesConsumed() == m_cb;
    }

private:
    unsigned long m_cb;
};

std::vector<BYTE> TinyDib()
{
    BITMAPINFOHEADER h{};
    h.biSize = sizeof h;
    h.biWidth = 3;
    h.biHeight = 2;
    h.biPlanes = 1;
    h.biBitCount = 24;
    std::vector<BYTE> dib(sizeof h + 24, 0x5A);
    std::memcpy(dib.data(), &h, sizeof h);
    return dib;
}

IStream* StreamWith(const char* text)
{
    IStream* p = nullptr;
    if (CreateStreamOnHGlobal(nullptr, TRUE, &p) == S_OK) p->Write(text, static_cast<ULONG>(std::strlen(text)), nullptr);
    return p;
}

bool AnswerEveryKind(int, const CString& cmd, AttachmentInfo& info, void*, void*)
{
    static const std::vector<BYTE> dib = TinyDib();
    const int selector = cmd.GetLength() > 3 ? static_cast<unsigned char>(cmd.GetString()[3]) % 10 : 0;
    switch (selector) {
    case 0: return false;
    case 1: info.aType = AttachmentInfo::AT_PLACEHOLDER; return true;
    case 2: info.aType = AttachmentInfo::AT_OLE_FIRST; info.pStm = StreamWith("first"); return true;
    case 3:
        info.aType = AttachmentInfo::AT_OLE_EMBEDDED;
        info.pStm = StreamWith("embedded");
        info.m_pDIBitmap = new CDIBitmap(dib.data(), dib.size());
        return true;
    case 4: info.aType = AttachmentInfo::AT_OLE_PICTURE; info.m_pDIBitmap = new CDIBitmap(dib.data(), dib.size()); return true;
    case 5: info.aType = AttachmentInfo::AT_OLE_LAST; info.pStm = StreamWith("link"); return true;
    case 6: info.aType = AttachmentInfo::AT_OLE_PICTURE; return true;   // no bitmap: reported
    case 7: info.aType = AttachmentInfo::AT_OLE_EMBEDDED; return true;  // no stream: reported
    case 8: info.aType = 11; info.pStm = StreamWith("unknown"); return true;
    default: info.aType = AttachmentInfo::AT_DIB; return true;
    }
}

// Replaces \ { } inside every markup command except hyperlinks and references.
std::string WithoutUnescapedSpecials(std::string text)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\x01') continue;
        std::size_t end = text.find('\x02', i + 1);
        if (end == std::string::npos) break;
        const bool bLink = end > i + 2 && text[i + 1] == 'C' && (text[i + 2] == 'H' || text[i + 2] == 'R');
        if (!bLink)
            for (std::size_t j = i + 1; j < end; ++j)
                if (text[j] == '\\' || text[j] == '{' || text[j] == '}') text[j] = '_';
        i = end;
    }
    return text;
}

std::string Convert(const std::string& text, long& hr)
{
    CComPtr<IStream> out;
    if (CreateStreamOnHGlobal(nullptr, TRUE, &out) != S_OK) return {};
    CSmallBufferWriter writer(*out);
    writer.SetAttachmentFilter(AnswerEveryKind, nullptr, nullptr);
    hr = writer.Convert(text.c_str(), nullptr);
    HGLOBAL h = nullptr;
    STATSTG st;
    if (GetHGlobalFromStream(out, &h) != S_OK || out->Stat(&st, STATFLAG_NONAME) != S_OK) return {};
    std::string doc(static_cast<const char*>(GlobalLock(h)), static_cast<std::size_t>(st.cbSize.QuadPart));
    GlobalUnlock(h);
    return doc;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text = WithoutUnescapedSpecials(std::string(reinterpret_cast<const char*>(data), size));
    long hr = -1;
    const std::string doc = Convert(text, hr);
    FUZZ_CHECK(hr == S_OK, "Convert failed");

    const unsigned long cb = static_cast<unsigned long>(doc.size());
    CGroupProbe probe(reinterpret_cast<const unsigned char*>(doc.data()), cb);
    FUZZ_CHECK(probe.ReadsBalanced(), "the document does not read back with balanced groups");

    const DWORD old = CSmallBufferWriter::Swap(7);
    long hrSmall = -1;
    const std::string docSmall = Convert(text, hrSmall);
    CSmallBufferWriter::Swap(old);
    FUZZ_CHECK(hrSmall == S_OK && docSmall == doc, "a 7-byte quick buffer gives another document");
    return 0;
}
