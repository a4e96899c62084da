// The command classes on the converters' paths: the writer decodes one command
// object per markup command it meets, the importer edits its font and layout
// commands for every formatting change and builds numbering commands.
#include <benchmark/benchmark.h>

#include "hostlibs/MFCKVUtils.h"
#include "rtfconverter/DocCmd.h"

using namespace rtf_converter;

namespace {

const CString kFontText("\x01" "F12JBIc\xCA:Times New Roman" "\x02");
const CString kLayoutText("\x01" "LC100050-025150.300_450 600-" "\x02");

void BM_FontCmdDecode(benchmark::State& state)
{
    LOGFONT base;
    InitDefaultScreenFont(base, "Arial", 10, 96);
    for (auto _ : state) {
        CFontCmd cmd(kFontText);
        LOGFONT lf;
        benchmark::DoNotOptimize(cmd.GetLogFont(lf, base));
        benchmark::DoNotOptimize(ColorCharToRGB(cmd.GetColor()));
        benchmark::DoNotOptimize(BackColorCharToRGB(cmd.GetBackColor()));
        benchmark::DoNotOptimize(cmd.IsSuperscript() || cmd.IsSubscript());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FontCmdDecode);

void BM_FontCmdEdit(benchmark::State& state)
{
    for (auto _ : state) {
        CFontCmd cmd;
        cmd.SetPoints(12, 0);
        cmd.SetColor('J', 0);
        cmd.SetBold(1);
        cmd.SetItalic(1);
        cmd.SetBackColor('c', 0);
        cmd.SetCharset(RUSSIAN_CHARSET);
        cmd.SetFaceName("Times New Roman");
        benchmark::DoNotOptimize(cmd.GetLength());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FontCmdEdit);

void BM_LayoutCmdDecode(benchmark::State& state)
{
    CTabArray tabs;
    for (auto _ : state) {
        CLayoutCmd cmd(kLayoutText);
        benchmark::DoNotOptimize(cmd.GetLeftMargin() + cmd.GetRightMargin() + cmd.GetFirstLineIndent());
        benchmark::DoNotOptimize(cmd.GetTabs(tabs));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LayoutCmdDecode);

void BM_NumberCmdBuild(benchmark::State& state)
{
    int n = 0;
    for (auto _ : state) {
        CNumberCmd cmd;
        cmd.SetNumType(nt_UpperRoman);
        cmd.SetNumber(++n % 4000, 0);
        benchmark::DoNotOptimize(cmd.GetLength());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NumberCmdBuild);

} // namespace
