// Pulls plain text out of RTF with the byte-pointer reader, the way a host does.
#pragma once

#include <string>
#include <vector>

namespace rtfconv_test {

struct PullResult {
    std::string text;
    bool bStalled = false;  // a Read returned nothing with more to come
    std::vector<unsigned long> counts;  // bytes returned by each Read
};

// Converts `rtf` with output buffers of `cbBuffer` bytes. Stops at the first
// call that makes no progress (a string longer than the buffer allows).
PullResult PullPlainText(const std::string& rtf, std::size_t cbBuffer);

// One call with a buffer larger than anything the document can produce.
std::string PlainText(const std::string& rtf);

} // namespace rtfconv_test
