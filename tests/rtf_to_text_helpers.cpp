#include "rtf_to_text_helpers.h"

#include "rtfconverter/RtfToText.h"

namespace rtfconv_test {

PullResult PullPlainText(const std::string& rtf, std::size_t cbBuffer)
{
    const unsigned long cbData = static_cast<unsigned long>(rtf.size());
    rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()), cbData);
    std::vector<char> buffer(cbBuffer);
    PullResult result;
    for (bool bMore = true; bMore;) {
        const unsigned long n = reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
        result.counts.push_back(n);
        result.text.append(buffer.data(), n);
        if (n == 0 && bMore) {
            result.bStalled = true;
            break;
        }
    }
    return result;
}

std::string PlainText(const std::string& rtf)
{
    return PullPlainText(rtf, rtf.size() * 2 + 4096).text;
}

} // namespace rtfconv_test
