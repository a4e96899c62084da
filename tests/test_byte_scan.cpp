// The one byte scanner: every byte that stops a scan, at every place in and
// across the 16-byte steps, and the bytes that must not stop it.
#include <gtest/gtest.h>

#include <string>

#include "rtfconverter/ByteScan.h"

namespace byte_scan = rtf_converter::byte_scan;

namespace {

// Bytes that stop no scan: printable ASCII but the specials, DEL, and the
// bytes from 0x80 up (which LengthBeforeControlOr passes).
std::string Plain(std::size_t n)
{
    const char kPlain[] = "az AZ09~\x7F\x80\xE9\xFF";
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += kPlain[i % (sizeof kPlain - 1)];
    return s;
}

} // namespace

TEST(ByteScan, ControlBytesAndStopsAtEveryPlace)
{
    struct Row {
        char stop;
        bool bStopsWithSpecials;
        bool bStopsWithout;
    } rows[] = {
        {'\0', true, true}, {'\x01', true, true}, {'\x1F', true, true}, {'\r', true, true},
        {'\\', true, false}, {'{', true, false},   {'}', true, false},    {' ', false, false},
        {'\x7F', false, false},
    };
    const std::string plain = Plain(40);
    for (const Row& row : rows) {
        for (std::size_t at = 0; at < plain.size(); ++at) {
            SCOPED_TRACE(std::to_string(static_cast<unsigned char>(row.stop)) + " at " + std::to_string(at));
            std::string s = plain;
            s[at] = row.stop;
            // The scan is also bounded by its count: bytes past it are never looked at.
            for (std::size_t cb : {at, at + 1, s.size()}) {
                const std::size_t whenStops = std::min(at, cb);
                EXPECT_EQ(byte_scan::LengthBeforeControlOr(s.data(), cb, '\\', '{', '}'),
                          row.bStopsWithSpecials ? whenStops : cb);
                EXPECT_EQ(byte_scan::LengthBeforeControlOr(s.data(), cb), row.bStopsWithout ? whenStops : cb);
            }
        }
    }
}

TEST(ByteScan, NothingToStopAt)
{
    for (std::size_t n = 0; n <= 48; ++n) {
        const std::string s = Plain(n);
        EXPECT_EQ(byte_scan::LengthBeforeControlOr(s.data(), n, '\\', '{', '}'), n);
    }
}
