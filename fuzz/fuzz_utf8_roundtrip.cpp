// UTF-8 text -> RTF -> UTF-8 text gives the text back. The first input byte
// chooses the writer's code page, the rest is made valid UTF-8 (each byte
// that does not begin a well-formed sequence becomes U+FFFD, NULs are left
// out: the writer takes a zero-terminated text). What readers and writers
// change on purpose is applied to the expected text: line ends become LF,
// byte 0x17 is dropped, bytes 0x01 to 0x03 become spaces.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_util.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/RtfToUtf8.h"
#include "rtfconverter/Utf8ToRTF.h"

namespace {

constexpr int kCodePages[] = {1252, 1250, 1251, 1253, 1254, 1255, 1256, 1257, 1258, 874, 10000, 932, 936, 949, 950, 437};

void AppendUtf8(std::uint32_t cp, std::string& out) { rtf_converter::AppendUtf8(out, cp); }

// The code points of arbitrary bytes read as UTF-8, without NULs.
std::u32string DecodeLeniently(const std::uint8_t* p, std::size_t cb)
{
    std::u32string cps;
    for (std::size_t i = 0; i < cb;) {
        const std::uint8_t b = p[i];
        std::size_t cch = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
        std::uint32_t cp = cch == 1 ? b : cch == 2 ? (b & 0x1F) : cch == 3 ? (b & 0x0F) : (b & 0x07);
        static const std::uint32_t s_minimum[] = {0, 0, 0x80, 0x800, 0x10000};
        bool bOk = cch != 0 && i + cch <= cb;
        for (std::size_t k = 1; bOk && k < cch; ++k) {
            bOk = (p[i + k] & 0xC0) == 0x80;
            cp = cp << 6 | (p[i + k] & 0x3F);
        }
        bOk = bOk && cp >= s_minimum[cch] && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
        if (!bOk) {
            cp = 0xFFFD;
            cch = 1;
        }
        if (cp != 0)
            cps += static_cast<char32_t>(cp);
        i += cch;
    }
    return cps;
}

std::string Expected(const std::u32string& cps)
{
    std::string out;
    for (std::size_t i = 0; i < cps.size(); ++i) {
        const char32_t cp = cps[i];
        if (cp == 0x0D) {
            out += '\n';
            if (i + 1 < cps.size() && cps[i + 1] == 0x0A)
                ++i;
        } else if (cp == 0x17) {
            continue;
        } else if (cp <= 0x03) {
            out += ' ';
        } else {
            AppendUtf8(cp, out);
        }
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const int codePage = kCodePages[data[0] % (sizeof kCodePages / sizeof kCodePages[0])];
    const std::u32string cps = DecodeLeniently(data + 1, size - 1);
    std::string text;
    for (char32_t cp : cps)
        AppendUtf8(cp, text);

    rtf_converter::CUTF8TextToRTF writer;
    writer.SetCodePage(codePage);
    LOGFONT lf = {};
    lf.lfHeight = -13;
    writer.Convert(text.c_str(), &lf);
    const CString rtf = writer.Export();

    const unsigned long cbRtf = static_cast<unsigned long>(rtf.GetLength());
    rtf_converter::CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.GetString()), cbRtf);
    const std::string back = rtfconv_fuzz::ReadAll(reader, 4);
    FUZZ_CHECK(back == Expected(cps), "UTF-8 text -> RTF -> UTF-8 text changed the text");
    return 0;
}
