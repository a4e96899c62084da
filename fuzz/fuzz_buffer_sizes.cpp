// Differential: every reader gives the same output for any two sizes of the
// caller's buffer. The last three bytes of the input choose the sizes (1 to
// 4096 and 1 to 256), so that a real document, whose last bytes follow its
// outermost group and are never read, is a seed as it is. A reader that cannot put what is due into
// a buffer gets a doubled one, as the command-line tool does.
//
// The importer begins every buffer after the first with the current layout
// and font commands, so its outputs are compared without markup commands:
// the text must be the same. Inputs with a field result are left out there,
// since the text of a field result that does not fit is dropped by design.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_import.h"
#include "fuzz/fuzz_util.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"

namespace {

// The text of old-format output: each markup command, 0x01 up to its 0x02,
// removed.
std::string WithoutCommands(const std::string& old)
{
    std::string text;
    bool bInCommand = false;
    for (char ch : old) {
        if (ch == '\x01')
            bInCommand = true;
        else if (bInCommand)
            bInCommand = ch != '\x02';
        else
            text += ch;
    }
    return text;
}

std::string PlainText(const std::string& rtf, std::size_t cbBuffer)
{
    rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()),
                                                         static_cast<unsigned long>(rtf.size()));
    return rtfconv_fuzz::ReadAll(reader, cbBuffer);
}

std::string Utf8Text(const std::string& rtf, std::size_t cbBuffer)
{
    rtf_converter::CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()),
                                                    static_cast<unsigned long>(rtf.size()));
    return rtfconv_fuzz::ReadAll(reader, cbBuffer);
}

std::string PtrImportText(const std::string& rtf, std::size_t cbBuffer)
{
    rtf_converter::CRTFPtrImport reader(rtf.c_str());
    return WithoutCommands(rtfconv_fuzz::ImportAll(reader, cbBuffer));
}

std::string StreamImportText(const std::string& rtf, std::size_t cbBuffer)
{
    IStream* pStream = rtfconv_fuzz::StreamOver(reinterpret_cast<const std::uint8_t*>(rtf.data()), rtf.size());
    std::string text;
    {
        rtf_converter::CRTFStreamImport reader(pStream);
        text = WithoutCommands(rtfconv_fuzz::ImportAll(reader, cbBuffer));
    }
    pStream->Release();
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 3)
        return 0;
    const std::uint8_t* pSizes = data + size - 3;
    const std::size_t cbFirst = 1 + (std::size_t(pSizes[0]) << 8 | pSizes[1]) % 4096;
    const std::size_t cbSecond = 1 + std::size_t(pSizes[2]);
    const std::string rtf(reinterpret_cast<const char*>(data), size);

    FUZZ_CHECK(PlainText(rtf, cbFirst) == PlainText(rtf, cbSecond), "plain text differs between buffer sizes");
    FUZZ_CHECK(Utf8Text(rtf, cbFirst) == Utf8Text(rtf, cbSecond), "UTF-8 text differs between buffer sizes");
    if (rtf.find("fldrslt") != std::string::npos)
        return 0;
    FUZZ_CHECK(PtrImportText(rtf, cbFirst) == PtrImportText(rtf, cbSecond),
               "the pointer importer's text differs between buffer sizes");
    FUZZ_CHECK(StreamImportText(rtf, cbFirst) == StreamImportText(rtf, cbSecond),
               "the stream importer's text differs between buffer sizes");
    return 0;
}
