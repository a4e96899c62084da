// Helpers shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace rtfconv_fuzz {

// A failed property: print why, then abort so that libFuzzer (or the replay
// main) reports the input as a crash.
#define FUZZ_CHECK(cond, what)                                                        \
    do {                                                                              \
        if (!(cond)) {                                                                \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", what, __FILE__, __LINE__); \
            std::abort();                                                             \
        }                                                                             \
    } while (0)

// A Read that returns nothing while more is to come is not stuck: the next
// put is a string longer than the buffer (a paragraph number). The buffer is
// doubled then, as the command-line tool does; only past this size is a
// reader that makes no progress a fault.
constexpr std::size_t kMaxReadBuffer = 16u << 20;

// Pulls the whole output of a reader with the Read(pBegin, pEnd, bMore)
// protocol, starting with a buffer of cbBuffer bytes.
template <class Reader>
std::string ReadAll(Reader& reader, std::size_t cbBuffer)
{
    std::string out;
    std::vector<char> buffer(cbBuffer);
    bool bMore = true;
    while (bMore) {
        char* const pBegin = buffer.data();
        const unsigned long cb = reader.Read(pBegin, pBegin + buffer.size(), bMore);
        FUZZ_CHECK(cb <= buffer.size(), "Read reports more bytes than the buffer holds");
        out.append(pBegin, cb);
        if (cb == 0 && bMore) {
            FUZZ_CHECK(buffer.size() < kMaxReadBuffer, "Read makes no progress even with a large buffer");
            buffer.resize(buffer.size() * 2);
        }
    }
    return out;
}

} // namespace rtfconv_fuzz
