#include "test_util.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace rtfconv_test {

std::string ReadFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> CorpusRtfFiles()
{
    std::vector<std::string> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(RTFCONV_CORPUS_DIR, ec))
        if (entry.path().extension() == ".rtf") files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace rtfconv_test
