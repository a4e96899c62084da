// Plain text to RTF on arbitrary bytes. Besides the sanitizers' checks, the
// document reads back through our RTF reader, which consumes all of it and
// ends at group depth 0, to the text written: the input up to its first NUL,
// without 0x17 (which the writer drops), with 0x01 to 0x03 as blanks (which
// the reader never lets through), and a final paragraph mark unless the text
// ends with one.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_util.h"
#include "rtfconverter/PlainTextToRTF.h"
#include "rtfconverter/RtfToText.h"

namespace {

class CGroupProbe : public rtf_converter::CBytePtrRTFToPlainTextPtrParser {
public:
    CGroupProbe(const unsigned char* p, const unsigned long& cb) : CBytePtrRTFToPlainTextPtrParser(p, cb), m_cb(cb) {}
    std::string ReadText() { return rtfconv_fuzz::ReadAll(*this, 4096); }
    bool Balanced() const { return m_cGroup == 0 && BytesConsumed() == m_cb; }

private:
    unsigned long m_cb;
};

std::string ExpectedText(const std::string& input)
{
    std::string text;
    unsigned char last = 0;
    for (const char c : input) {
        const unsigned char b = static_cast<unsigned char>(c);
        if (b == 0) break;
        if (b == 0x17) continue;
        text += b <= 0x03 ? ' ' : c;
        last = b;
    }
    if (last != '\r') text += '\r';
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    rtf_converter::CPlainTextToRTF writer;
    writer.Convert(text.c_str(), nullptr);
    const CString doc = writer.Export();

    const unsigned long cb = static_cast<unsigned long>(doc.GetLength());
    CGroupProbe probe(reinterpret_cast<const unsigned char*>(doc.GetString()), cb);
    const std::string read = probe.ReadText();
    FUZZ_CHECK(probe.Balanced(), "the document does not read back with balanced groups");
    FUZZ_CHECK(read == ExpectedText(text), "the document does not read back to the text");
    return 0;
}
