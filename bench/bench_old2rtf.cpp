// Old-format text to RTF and plain text to RTF throughput, on generated texts
// of several sizes:
// - prose: long paragraphs of words with an occasional brace or backslash,
//   a font change per paragraph;
// - markup: a font, layout, hyperlink or number command every few words;
// - pictures: short paragraphs each with a 64x64 24-bit picture (12 KB of
//   pixels, 24 KB of hexadecimal) handed over by the attachment filter.
// The bytes counted are those of the input text; rtf_bytes_per_second counts
// the document written.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "hostlibs/MFCKVUtils.h"
#include "platform/ObjBase.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldToRTF.h"
#include "rtfconverter/PlainTextToRTF.h"

namespace {

const char* const kWords[] = {"the", "quick", "brown", "fox", "jumps", "over", "a", "lazy", "dog", "caf\xE9",
                               "{note}", "path\\name", "rich", "text", "converter", "writes", "every", "byte"};
constexpr std::size_t kWordCount = sizeof kWords / sizeof kWords[0];

std::string Cmd(const std::string& body) { return "\x01" + body + "\x02"; }

enum class Kind { Prose, Markup, Pictures };

std::string GenerateOldText(Kind kind, std::size_t cbTarget)
{
    static const std::string markup[] = {
        Cmd("F12JB:Times New Roman"), Cmd("F---:-"), Cmd("F10MIp:Arial"), Cmd("LC050100-025200."),
        Cmd("CH:link\x03http://example.com/a"), Cmd("CN:1.\x03\x03" "A\x03\x03"), Cmd("F08-U\xCA:Courier New")};
    std::string text;
    text.reserve(cbTarget + 256);
    std::uint32_t seed = 12345;
    auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
    for (std::size_t n = 0; text.size() < cbTarget; ++n) {
        const std::size_t nWords = kind == Kind::Pictures ? 8 : 120;
        if (kind == Kind::Prose) text += markup[n % 3];
        for (std::size_t w = 0; w < nWords; ++w) {
            if (kind == Kind::Markup && w % 4 == 0) text += markup[next() % 7];
            text += kWords[next() % kWordCount];
            text += w + 1 == nWords ? "." : " ";
        }
        if (kind == Kind::Pictures) text += Cmd("A04");
        text += "\r";
    }
    return text;
}

std::vector<BYTE> Picture()
{
    BITMAPINFOHEADER h{};
    h.biSize = sizeof h;
    h.biWidth = 64;
    h.biHeight = 64;
    h.biPlanes = 1;
    h.biBitCount = 24;
    std::vector<BYTE> dib(sizeof h + 64 * 64 * 3);
    std::memcpy(dib.data(), &h, sizeof h);
    for (std::size_t i = sizeof h; i < dib.size(); ++i) dib[i] = static_cast<BYTE>(i * 31);
    return dib;
}

bool PictureFilter(int, const CString&, AttachmentInfo& info, void* pDib, void*)
{
    const auto& dib = *static_cast<const std::vector<BYTE>*>(pDib);
    info.aType = AttachmentInfo::AT_OLE_PICTURE;
    info.m_pDIBitmap = new CDIBitmap(dib.data(), dib.size());
    return true;
}

void OldToRtf(benchmark::State& state, Kind kind)
{
    const std::string text = GenerateOldText(kind, static_cast<std::size_t>(state.range(0)));
    std::vector<BYTE> dib = Picture();
    LOGFONT lf{};
    InitDefaultScreenFont(lf, "Arial", 10, 96);
    std::uint64_t cbRtf = 0;
    for (auto _ : state) {
        CComPtr<IStream> out;
        CreateStreamOnHGlobal(nullptr, TRUE, &out);
        rtf_converter::COldToRTF writer(*out);
        writer.SetAttachmentFilter(PictureFilter, &dib, nullptr);
        if (writer.Convert(text.c_str(), &lf) != S_OK) state.SkipWithError("Convert failed");
        STATSTG st;
        out->Stat(&st, STATFLAG_NONAME);
        cbRtf = st.cbSize.QuadPart;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
    state.counters["rtf_bytes"] = static_cast<double>(cbRtf);
    state.counters["rtf_bytes_per_second"] =
        benchmark::Counter(static_cast<double>(cbRtf) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void PlainTextToRtf(benchmark::State& state)
{
    std::string text = GenerateOldText(Kind::Prose, static_cast<std::size_t>(state.range(0)));
    for (char& c : text)
        if (c == '\x01' || c == '\x02') c = '\t'; // plain text has no markup commands
    LOGFONT lf{};
    InitDefaultScreenFont(lf, "Arial", 10, 96);
    std::size_t cbRtf = 0;
    for (auto _ : state) {
        rtf_converter::CPlainTextToRTF writer;
        writer.Convert(text.c_str(), &lf);
        CString rtf = writer.Export();
        cbRtf = static_cast<std::size_t>(rtf.GetLength());
        benchmark::DoNotOptimize(rtf.GetString());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
    state.counters["rtf_bytes"] = static_cast<double>(cbRtf);
}

} // namespace

BENCHMARK_CAPTURE(OldToRtf, prose, Kind::Prose)->Arg(64 << 10)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldToRtf, markup, Kind::Markup)->Arg(64 << 10)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldToRtf, pictures, Kind::Pictures)->Arg(16 << 10)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainTextToRtf)->Arg(64 << 10)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
