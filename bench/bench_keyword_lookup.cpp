// Keyword lookup: the hash index of CBaseRTFParser::FindKeyword against the
// linear first-match scan over s_Cmds that it replaces, on the keywords the
// plain-text reader really looks up in a generated document (those inside
// skipped destinations are never looked up, so they are not counted).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bench_data.h"
#include "rtfconverter/RtfToText.h"

using rtf_converter::CBaseRTFParser;
using rtf_converter::CBytePtrRTFToPlainTextPtrParser;

namespace {

// Reaches the protected table; never instantiated.
class CKeywordTable : public CBaseRTFParser {
public:
    using CBaseRTFParser::FindKeyword;
    using CBaseRTFParser::s_Cmds;

    static int FindKeywordLinear(const char* szKeyword)
    {
        for (int row = 0; row < cCmds; ++row)
            if (std::strcmp(s_Cmds[row].szKeyword, szKeyword) == 0)
                return row;
        return -1;
    }
};

// Converts the document and records each keyword as the reader looks it up.
class CKeywordRecorder : public CBytePtrRTFToPlainTextPtrParser {
public:
    using CBytePtrRTFToPlainTextPtrParser::CBytePtrRTFToPlainTextPtrParser;

    std::vector<std::string> keywords;

protected:
    bool TranslateKeyword(const char* szKeyword, int param) override
    {
        if (m_rds != rtf_converter::rdsSkip)
            keywords.emplace_back(szKeyword);
        return CBytePtrRTFToPlainTextPtrParser::TranslateKeyword(szKeyword, param);
    }
};

// The keywords of the first megabytes are mix enough, and keep the working
// set of the benchmark loop in the caches as a reader's would be.
constexpr std::size_t kMixSourceBytes = 2u << 20;

struct KeywordMix {
    std::vector<std::string> keywords;
    double knownShare = 0;
};

bool BuildMix(const std::string& input, KeywordMix& mix)
{
    const unsigned long cb = static_cast<unsigned long>(std::min(input.size(), kMixSourceBytes));
    CKeywordRecorder recorder(reinterpret_cast<const unsigned char*>(input.data()), cb);
    std::vector<char> buffer(64 * 1024);
    bool bMore = true;
    while (bMore)
        recorder.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
    mix.keywords = std::move(recorder.keywords);

    std::size_t known = 0;
    for (const std::string& kw : mix.keywords) {
        const int row = CKeywordTable::FindKeywordLinear(kw.c_str());
        if (row != CKeywordTable::FindKeyword(kw.c_str()))
            return false;  // the index must agree with the scan
        known += row >= 0;
    }
    mix.knownShare = mix.keywords.empty() ? 0 : static_cast<double>(known) / static_cast<double>(mix.keywords.size());
    return !mix.keywords.empty();
}

template <int (*Find)(const char*)>
void KeywordLookup(benchmark::State& state, const char* name)
{
    std::string why;
    const std::string* input = rtfconv_bench::LoadInput(name, &why);
    if (!input) {
        state.SkipWithError(why.c_str());
        return;
    }
    KeywordMix mix;
    if (!BuildMix(*input, mix)) {
        state.SkipWithError("no keywords, or the index and the linear scan disagree");
        return;
    }
    for (auto _ : state) {
        int sum = 0;
        for (const std::string& kw : mix.keywords)
            sum += Find(kw.c_str());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(mix.keywords.size()));
    state.counters["keywords"] = static_cast<double>(mix.keywords.size());
    state.counters["known"] = mix.knownShare;
}

void KeywordIndex(benchmark::State& state, const char* name) { KeywordLookup<CKeywordTable::FindKeyword>(state, name); }
void KeywordLinearScan(benchmark::State& state, const char* name) { KeywordLookup<CKeywordTable::FindKeywordLinear>(state, name); }

} // namespace

BENCHMARK_CAPTURE(KeywordIndex, text_heavy, rtfconv_bench::kTextHeavy)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(KeywordLinearScan, text_heavy, rtfconv_bench::kTextHeavy)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(KeywordIndex, markup_heavy, rtfconv_bench::kMarkupHeavy)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(KeywordLinearScan, markup_heavy, rtfconv_bench::kMarkupHeavy)->Unit(benchmark::kMicrosecond);
