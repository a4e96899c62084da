// rtfconv rtf2txt: RTF to plain text.
//
// By default the text is for people: the library's CR paragraph marks become
// LF (a \line is LF already) and the 8-bit text is converted from the code
// page to UTF-8. --raw writes the library's bytes exactly.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

#include "rtfconverter/RtfToText.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

struct Rtf2TxtOptions {
    IoOptions io;
    std::size_t cbBuffer = kDefaultReadBuffer;
    std::string codePage;
    bool bRaw = false;
    bool bUtf8 = false;
    bool bLossy = false;
};

// The library's reader, with its read position made visible for the progress bar.
class CPlainTextReader : public rtf_converter::CBytePtrRTFToPlainTextPtrParser {
public:
    using CBytePtrRTFToPlainTextPtrParser::CBytePtrRTFToPlainTextPtrParser;
    std::size_t BytesConsumed() const { return static_cast<std::size_t>(m_pRead - m_pData); }
};

void ConvertRtfToText(const ToolContext& ctx, const Rtf2TxtOptions& options, CConversion& conversion)
{
    const std::string& rtf = conversion.Data();
    const unsigned long cbRtf = rtf.size();
    // The reader carries the whole group-state stack: keep it off the stack.
    auto reader = std::make_unique<CPlainTextReader>(reinterpret_cast<const unsigned char*>(rtf.data()), cbRtf);
    auto reportProgress = [&] { conversion.ReportConsumed(reader->BytesConsumed()); };

    if (options.bRaw) {
        PullAll(*reader, options.cbBuffer, [&](char* p, std::size_t cb) { conversion.Out().Write(p, cb); },
                reportProgress);
        return;
    }
    CCodePageToUtf8 toUtf8(ResolveRtfCodePage(ctx, options.codePage, rtf, conversion.Name()));
    std::string utf8;
    auto writeUtf8 = [&](char* p, std::size_t cb) {
        std::replace(p, p + cb, '\r', '\n');
        utf8.clear();
        toUtf8.Convert(p, cb, utf8);
        conversion.Out().Write(utf8);
    };
    PullAll(*reader, options.cbBuffer, writeUtf8, reportProgress);
    utf8.clear();
    toUtf8.Finish(utf8);
    conversion.Out().Write(utf8);
}

} // namespace

void RegisterRtf2Txt(CLI::App& app, ToolContext& ctx)
{
    CLI::App* cmd = app.add_subcommand("rtf2txt", "RTF to plain text");
    cmd->footer("Paragraphs end with LF and the text is UTF-8, converted from the document's code page;\n"
                "--raw writes the library's own bytes instead (8-bit text, CR paragraph marks).");
    auto options = std::make_shared<Rtf2TxtOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, "RTF files");
    AddBufferOption(*cmd, options->cbBuffer);
    AddCodePageOption(*cmd, options->codePage);
    CLI::Option* raw =
        cmd->add_flag("--raw", options->bRaw, "Write the library's bytes exactly: 8-bit text, CR paragraph marks");
    CLI::Option* utf8 = cmd->add_flag("--utf8", options->bUtf8, "Write UTF-8 with LF line ends (the default)");
    raw->excludes(utf8);
    cmd->add_flag("--lossy", options->bLossy,
                  "Accepted for symmetry with txt2rtf; no effect here, since every byte has a UTF-8 form "
                  "(undefined bytes become U+FFFD)");

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        return RunConversions(ctx, options->io, ".txt",
                              [&ctx, options](CConversion& conversion) { ConvertRtfToText(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
