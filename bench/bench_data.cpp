#include "bench_data.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>

namespace rtfconv_bench {

namespace {

std::string DataDir()
{
    const char* env = std::getenv("RTFCONV_BENCH_DATA");
    return env && *env ? env : RTFCONV_BENCH_DATA_DIR;
}

} // namespace

const std::string* LoadInput(const char* name, std::string* pWhy)
{
    // Kept for the whole run: the inputs are tens of megabytes, read once.
    static std::map<std::string, std::unique_ptr<std::string>> s_inputs;
    auto it = s_inputs.find(name);
    if (it == s_inputs.end()) {
        const std::string path = DataDir() + "/" + name;
        std::ifstream in(path, std::ios::binary);
        std::unique_ptr<std::string> bytes;
        if (in)
            bytes = std::make_unique<std::string>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        if (bytes && bytes->empty())
            bytes.reset();
        it = s_inputs.emplace(name, std::move(bytes)).first;
    }
    if (!it->second && pWhy)
        *pWhy = DataDir() + "/" + name + " is missing: run `bash bench/make_bench.sh 20` (or `make bench`)";
    return it->second.get();
}

} // namespace rtfconv_bench
