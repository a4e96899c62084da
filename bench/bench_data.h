// The generated benchmark inputs, loaded once per process.
#pragma once

#include <string>

namespace rtfconv_bench {

// The three documents make_bench.sh writes.
constexpr const char* kTextHeavy = "text-heavy.rtf";
constexpr const char* kMarkupHeavy = "markup-heavy.rtf";
constexpr const char* kPictureHeavy = "picture-heavy.rtf";

// The bytes of `name` in $RTFCONV_BENCH_DATA, or else in the compiled-in
// bench/data. Null when the file is missing or empty; *pWhy then says how to
// generate it.
const std::string* LoadInput(const char* name, std::string* pWhy);

} // namespace rtfconv_bench
