#include "test_util.h"

#include <fstream>
#include <iterator>

namespace rtfconv_test {

std::string ReadFileBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace rtfconv_test
