// Old-format text to RTF and plain text to RTF throughput, on generated texts
// of several sizes:
// - prose: long paragraphs of words with an occasional brace or backslash,
//   a font change per paragraph;
// - markup: a font, layout, hyperlink or number command every few words;
// - pictures: short paragraphs each with a 64x64 24-bit picture (12 KB of
//   pixels, 24 KB of hexadecimal) handed over by the attachment filter.
// The bytes counted are those of the input text; rtf_bytes_per_second counts
// the document written. The writer runs in both modes; the old-format text
// codec (UTF-8 to the host's bytes and back, whole and in 64 KiB pieces) on
// the same texts.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "hostlibs/MFCKVUtils.h"
#include "platform/ObjBase.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldTextUtf8.h"
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

void OldToRtf(benchmark::State& state, Kind kind, bool bLossless)
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
        writer.SetLossless(bLossless);
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

// The host's bytes of the text from its UTF-8, as old2rtf reads it.
void OldTextFromUtf8(benchmark::State& state, Kind kind)
{
    const std::string utf8 =
        rtf_converter::OldTextToUtf8(GenerateOldText(kind, static_cast<std::size_t>(state.range(0))), 1252);
    for (auto _ : state) {
        std::string old = rtf_converter::OldTextFromUtf8(utf8, 1252);
        benchmark::DoNotOptimize(old.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(utf8.size()));
}

// The UTF-8 of the host's bytes, as rtf2old writes it: whole, or fed in the
// pieces a reader's buffer gives.
void OldTextToUtf8(benchmark::State& state, Kind kind, bool bInPieces)
{
    const std::string old = GenerateOldText(kind, static_cast<std::size_t>(state.range(0)));
    const std::size_t cbPiece = 64 << 10;
    for (auto _ : state) {
        if (!bInPieces) {
            std::string utf8 = rtf_converter::OldTextToUtf8(old, 1252);
            benchmark::DoNotOptimize(utf8.data());
            continue;
        }
        rtf_converter::COldTextUtf8Decoder decoder(1252);
        std::string utf8;
        for (std::size_t at = 0; at < old.size(); at += cbPiece) {
            utf8.clear();
            decoder.Feed(std::string_view(old).substr(at, cbPiece), utf8);
            benchmark::DoNotOptimize(utf8.data());
        }
        decoder.Finish(utf8);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(old.size()));
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

BENCHMARK_CAPTURE(OldToRtf, prose, Kind::Prose, false)->Arg(64 << 10)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldToRtf, markup, Kind::Markup, false)->Arg(64 << 10)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldToRtf, pictures, Kind::Pictures, false)->Arg(16 << 10)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldToRtf, prose_lossless, Kind::Prose, true)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldToRtf, markup_lossless, Kind::Markup, true)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldTextFromUtf8, prose, Kind::Prose)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldTextFromUtf8, markup, Kind::Markup)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldTextToUtf8, prose, Kind::Prose, false)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldTextToUtf8, markup, Kind::Markup, false)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(OldTextToUtf8, markup_pieces, Kind::Markup, true)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainTextToRtf)->Arg(64 << 10)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
