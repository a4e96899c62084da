// Stands in for libFuzzer where it is not available (g++, or the option
// off): runs LLVMFuzzerTestOneInput once over each file named on the command
// line, and over every file of each directory named, so that the targets stay
// built and their corpora and findings replay as tests.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fs = std::filesystem;

namespace {

// Hidden files (.gitkeep) are not inputs.
bool IsInput(const fs::path& path)
{
    return path.filename().string().rfind('.', 0) != 0;
}

bool CollectInputs(const char* arg, std::vector<fs::path>& inputs)
{
    std::error_code ec;
    const fs::path path(arg);
    if (fs::is_directory(path, ec)) {
        std::vector<fs::path> files;
        for (const fs::directory_entry& entry : fs::directory_iterator(path, ec))
            if (entry.is_regular_file(ec) && IsInput(entry.path()))
                files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        inputs.insert(inputs.end(), files.begin(), files.end());
        return !ec;
    }
    if (fs::is_regular_file(path, ec)) {
        inputs.push_back(path);
        return true;
    }
    std::fprintf(stderr, "replay: no such file or directory: %s\n", arg);
    return false;
}

// An exactly sized heap copy, as libFuzzer hands over, so that the sanitizers
// see a read one byte past the input.
bool RunOne(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", path.string().c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[bytes.size()]);
    if (!bytes.empty())
        std::memcpy(copy.get(), bytes.data(), bytes.size());
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", path.string().c_str(), bytes.size());
    LLVMFuzzerTestOneInput(copy.get(), bytes.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE_OR_DIR...\n", argv[0]);
        return 2;
    }
    std::vector<fs::path> inputs;
    bool bOk = true;
    for (int i = 1; i < argc; ++i)
        bOk = CollectInputs(argv[i], inputs) && bOk;
    for (const fs::path& input : inputs)
        bOk = RunOne(input) && bOk;
    std::fprintf(stderr, "replay: %zu input(s)\n", inputs.size());
    return bOk ? 0 : 1;
}
