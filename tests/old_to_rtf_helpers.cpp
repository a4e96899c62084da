#include "old_to_rtf_helpers.h"

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "rtfconverter/RtfToText.h"

namespace rtfconv_test {

LOGFONT ArialTen(BYTE charset)
{
    LOGFONT lf{};
    lf.lfHeight = -13;
    lf.lfWeight = FW_NORMAL;
    lf.lfCharSet = charset;
    lf.lfPitchAndFamily = VARIABLE_PITCH | FF_SWISS;
    std::strcpy(lf.lfFaceName, "Arial");
    return lf;
}

std::string StreamBytes(IStream* p)
{
    HGLOBAL h = nullptr;
    STATSTG st;
    if (GetHGlobalFromStream(p, &h) != S_OK || p->Stat(&st, STATFLAG_NONAME) != S_OK) return "<not a memory stream>";
    std::string s(static_cast<const char*>(GlobalLock(h)), static_cast<std::size_t>(st.cbSize.QuadPart));
    GlobalUnlock(h);
    return s;
}

namespace {

std::string ConvertedInMode(const std::string& text, const LOGFONT* pFont, bool bLossless, long* pResult,
                            rtf_converter::COldToRTF::AttachmentFilter filter, void* p1, void* p2)
{
    CComPtr<IStream> out;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &out), S_OK);
    rtf_converter::COldToRTF writer(*out);
    writer.SetLossless(bLossless);
    writer.SetAttachmentFilter(filter, p1, p2);
    long hr = writer.Convert(text.c_str(), pFont);
    if (pResult) *pResult = hr;
    return StreamBytes(out);
}

} // namespace

std::string OldToRtf(const std::string& text, const LOGFONT* pFont, long* pResult,
                     rtf_converter::COldToRTF::AttachmentFilter filter, void* p1, void* p2)
{
    return ConvertedInMode(text, pFont, false, pResult, filter, p1, p2);
}

std::string OldToRtfInMode(const std::string& text, bool bLossless, long* pResult, FilterScript* pScript)
{
    const LOGFONT lf = ArialTen();
    return ConvertedInMode(text, &lf, bLossless, pResult, pScript ? ScriptedFilter : nullptr, pScript, pScript);
}

std::string DocumentAround(const std::string& body, const std::string& extraFonts, const std::string& extraColors)
{
    return "{\\rtf1\\ansi\\deff0\\deflang1024{\\fonttbl{\\f0\\fcharset0\\fswiss Arial;}" + extraFonts +
           "}{\\colortbl;\\red0\\green0\\blue0;" + extraColors + "}{\\stylesheet{\\f0\\fs20 Normal;}}" + body;
}

HRESULT CFailingStream::Write(const void* pv, ULONG cb, ULONG* pcbWritten)
{
    ++nWrites;
    if (pcbWritten) *pcbWritten = 0;
    if (m_nFailFrom != 0 && nWrites >= m_nFailFrom && nWrites <= m_nFailTo) return STG_E_MEDIUMFULL;
    bytes.append(static_cast<const char*>(pv), cb);
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
}

bool ScriptedFilter(int nTextPos, const CString& cmd, AttachmentInfo& info, void* param1, void* param2)
{
    auto* script = static_cast<FilterScript*>(param1);
    EXPECT_EQ(param1, param2);
    EXPECT_EQ(info.pStm, nullptr);
    EXPECT_TRUE(info.csExtra.IsEmpty());
    script->positions.push_back(nTextPos);
    script->commands.emplace_back(cmd.GetString(), static_cast<std::size_t>(cmd.GetLength()));
    const FilterAnswer& a = script->answers[std::min<std::size_t>(script->nCalls, script->answers.size() - 1)];
    ++script->nCalls;
    info.aType = a.aType;
    info.m_pDIBitmap = nullptr;
    if (!a.oleData.empty()) {
        IStream* pStm = nullptr;
        EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &pStm), S_OK);
        pStm->Write(a.oleData.data(), static_cast<ULONG>(a.oleData.size()), nullptr);
        pStm->AddRef(); // the script's own reference, to see the writer release its one
        script->streams.push_back(pStm);
        info.pStm = pStm;
    }
    if (!a.packedDib.empty()) info.m_pDIBitmap = new CDIBitmap(a.packedDib.data(), a.packedDib.size());
    if (!a.bResult) {
        // A declining filter hands nothing over.
        if (info.pStm) info.pStm->Release();
        info.pStm = nullptr;
        delete info.m_pDIBitmap;
        info.m_pDIBitmap = nullptr;
    }
    return a.bResult;
}

std::vector<BYTE> SmallDib(LONG width, LONG height)
{
    BITMAPINFOHEADER h{};
    h.biSize = sizeof h;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = 24;
    std::size_t row = (static_cast<std::size_t>(width) * 24 + 31) / 32 * 4;
    std::vector<BYTE> dib(sizeof h + row * static_cast<std::size_t>(height));
    std::memcpy(dib.data(), &h, sizeof h);
    for (std::size_t i = sizeof h; i < dib.size(); ++i) dib[i] = static_cast<BYTE>(i * 13 + 1);
    return dib;
}

std::string Hex(const void* p, std::size_t n)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        BYTE b = static_cast<const BYTE*>(p)[i];
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

namespace {

// The reader, with a view of the groups it left open.
class CGroupProbe : public rtf_converter::CBytePtrRTFToPlainTextPtrParser {
public:
    CGroupProbe(const std::string& rtf, const unsigned long& cb)
        : CBytePtrRTFToPlainTextPtrParser(reinterpret_cast<const unsigned char*>(rtf.data()), cb), m_cb(cb)
    {
    }
    std::string ReadAll()
    {
        std::string text;
        const auto result = rtf_converter::ReadAll(*this, [&](const char* p, std::size_t cb) { text.append(p, cb); }, 4096);
        EXPECT_EQ(result, rtf_converter::ReadResult::complete);
        return text;
    }
    bool Balanced() const { return m_cGroup == 0 && BytesConsumed() == m_cb; }

private:
    unsigned long m_cb;
};

} // namespace

std::string RtfToPlainText(const std::string& rtf)
{
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    CGroupProbe reader(rtf, cb);
    return reader.ReadAll();
}

bool ReadsBalanced(const std::string& rtf)
{
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    CGroupProbe reader(rtf, cb);
    reader.ReadAll();
    return reader.Balanced();
}

} // namespace rtfconv_test
