// Helpers shared by the fuzz targets.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "rtfconverter/ReaderPlumbing.h"

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

// Pulls the whole output of a reader, starting with a buffer of cbBuffer
// bytes. A Read that makes no progress while more is to come is not stuck:
// the next put is a string longer than the buffer (a paragraph number), and
// the buffer grows then, as the command-line tool's does; only past 16 MiB is
// a reader that makes no progress a fault.
template <class Reader>
void ReadAllInto(Reader& reader, std::string& out, std::size_t cbBuffer)
{
    const rtf_converter::ReadResult result =
        rtf_converter::ReadAll(reader, [&](const char* p, std::size_t cb) { out.append(p, cb); }, cbBuffer);
    FUZZ_CHECK(result != rtf_converter::ReadResult::overrun, "Read reports more bytes than the buffer holds");
    FUZZ_CHECK(result != rtf_converter::ReadResult::stalled, "Read makes no progress even with a large buffer");
}

template <class Reader>
std::string ReadAll(Reader& reader, std::size_t cbBuffer)
{
    std::string out;
    ReadAllInto(reader, out, cbBuffer);
    return out;
}

} // namespace rtfconv_fuzz
