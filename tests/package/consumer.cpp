// A host of the installed library: every public header included, every
// converter called once, through the classes and through the one-call API.
#include <rtfconverter/BaseRTFParser.h>
#include <rtfconverter/CodePages.h>
#include <rtfconverter/DocCmd.h>
#include <rtfconverter/Export.h>
#include <rtfconverter/OldToRTF.h>
#include <rtfconverter/PlainTextToRTF.h>
#include <rtfconverter/RTFNumbering.h>
#include <rtfconverter/RTFParser.h>
#include <rtfconverter/RTFToOld.h>
#include <rtfconverter/RtfToText.h>
#include <rtfconverter/RtfToUtf8.h>
#include <rtfconverter/Utf8ToRTF.h>
#include <rtfconverter/hostlibs/KVBase.h>
#include <rtfconverter/hostlibs/MFCKVUtils.h>
#include <rtfconverter/hostlibs/VQLogger.h>
#include <rtfconverter/platform/AfxColl.h>
#include <rtfconverter/platform/AfxExceptions.h>
#include <rtfconverter/platform/AfxObject.h>
#include <rtfconverter/platform/AfxString.h>
#include <rtfconverter/platform/ObjBase.h>
#include <rtfconverter/platform/WinGdi.h>
#include <rtfconverter/platform/WinTypes.h>
#include <rtfconverter/rtfconverter.hpp>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

int g_failures = 0;

void Expect(bool bOk, const char* what)
{
    if (!bOk) {
        std::fprintf(stderr, "consumer: %s failed\n", what);
        ++g_failures;
    }
}

template <class TReader>
std::string PullAll(TReader& reader)
{
    std::string out;
    char buf[256];
    for (bool bMore = true; bMore;)
        out.append(buf, static_cast<std::size_t>(reader.Read(buf, buf + sizeof buf, bMore)));
    return out;
}

const char kRtf[] = "{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}\\f0 Hello {\\b bold} caf\\'e9\\par}";

void ConverterClasses()
{
    const unsigned long cb = sizeof kRtf - 1;
    rtf_converter::CBytePtrRTFToPlainTextPtrParser text(reinterpret_cast<const unsigned char*>(kRtf), cb);
    Expect(PullAll(text) == "Hello bold caf\xe9\r", "RTF to 8-bit text");

    rtf_converter::CBytePtrRTFToUTF8PtrParser utf8(reinterpret_cast<const unsigned char*>(kRtf), cb);
    Expect(PullAll(utf8) == "Hello bold caf\xc3\xa9\n", "RTF to UTF-8 text");

    rtf_converter::CRTFPtrImport import(kRtf);
    Expect(PullAll(import).find("bold") != std::string::npos, "RTF to old-format text");

    CComPtr<IStream> out;
    Expect(SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, &out)), "CreateStreamOnHGlobal");
    rtf_converter::COldToRTF writer(*out);
    Expect(writer.Convert("old text", nullptr) == S_OK, "old-format text to RTF");

    rtf_converter::CPlainTextToRTF plain;
    plain.Convert("plain\rtext", nullptr);
    Expect(std::strstr(plain.Export(), "plain\\par") != nullptr, "8-bit text to RTF");

    rtf_converter::CUTF8TextToRTF unicode;
    unicode.Convert("\xce\xb1", nullptr);
    Expect(std::strstr(unicode.Export(), "\\u945?") != nullptr, "UTF-8 text to RTF");
}

void OneCallApi()
{
    Expect(rtf_converter::rtf_to_text(kRtf) == "Hello bold caf\xc3\xa9\n", "rtf_to_text");
    Expect(rtf_converter::rtf_to_text(rtf_converter::text_to_rtf("\xce\xb1\xce\xb2\n")) == "\xce\xb1\xce\xb2\n",
           "text_to_rtf");
    const rtf_converter::OldText old = rtf_converter::rtf_to_old(kRtf);
    Expect(rtf_converter::rtf_to_text(rtf_converter::old_to_rtf(old.text, old.attachments)).find("bold") !=
               std::string::npos,
           "rtf_to_old and old_to_rtf");
}

} // namespace

int main()
{
    ConverterClasses();
    OneCallApi();
    return g_failures == 0 ? 0 : 1;
}
