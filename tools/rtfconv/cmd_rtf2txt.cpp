// rtfconv rtf2txt: RTF to plain text.
//
// By default the text is for people: UTF-8 from the library's Unicode reader,
// which decodes \uN, \ansicpg and each font's character set, with LF (or
// --newline) line ends. --raw writes the 8-bit converter's bytes exactly. A
// --codepage names a Windows page by number or by iconv name (the library's
// one table); only a page the library does not read is applied by iconv to
// the 8-bit converter's text.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>

#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

struct Rtf2TxtOptions {
    IoOptions io;
    std::size_t cbBuffer = kDefaultReadBuffer;
    std::string codePage;
    std::string newline = "lf";
    bool bRaw = false;
    bool bUtf8 = false;
    bool bLossy = false;
    bool bHeaders = false;
    LimitOptions limits;
};

// The library's readers, which tell their read position for the progress bar.
using CPlainTextReader = rtf_converter::CBytePtrRTFToPlainTextPtrParser;
using CUtf8TextReader = rtf_converter::CBytePtrRTFToUTF8PtrParser;

const char* NewlineText(const std::string& newline)
{
    return newline == "crlf" ? "\r\n" : newline == "cr" ? "\r" : "\n";
}

rtf_converter::CRTFToUTF8Parser::Newline NewlineKind(const std::string& newline)
{
    using rtf_converter::CRTFToUTF8Parser;
    return newline == "crlf" ? CRTFToUTF8Parser::newlineCRLF
        : newline == "cr"    ? CRTFToUTF8Parser::newlineCR
                             : CRTFToUTF8Parser::newlineLF;
}

void ConvertRtfToUtf8(const Rtf2TxtOptions& options, CConversion& conversion)
{
    const std::string_view rtf = conversion.Data();
    const unsigned long cbRtf = rtf.size();
    auto reader = std::make_unique<CUtf8TextReader>(reinterpret_cast<const unsigned char*>(rtf.data()), cbRtf);
    const CReaderLimits<CUtf8TextReader> limits(*reader, options.limits, conversion.Name());
    reader->SetNewline(NewlineKind(options.newline));
    reader->SetCodePage(CodePageNumberOf(options.codePage));
    reader->SetHeaders(options.bHeaders);
    PullAll(*reader, options.cbBuffer, [&](char* p, std::size_t cb) { conversion.Out().Write(p, cb); },
            [&] { conversion.ReportConsumed(reader->BytesConsumed()); });
}

void ConvertRtfToText(const ToolContext& ctx, const Rtf2TxtOptions& options, CConversion& conversion)
{
    const std::string_view rtf = conversion.Data();
    const unsigned long cbRtf = rtf.size();
    // The reader carries the whole group-state stack: keep it off the stack.
    auto reader = std::make_unique<CPlainTextReader>(reinterpret_cast<const unsigned char*>(rtf.data()), cbRtf);
    const CReaderLimits<CPlainTextReader> limits(*reader, options.limits, conversion.Name());
    auto reportProgress = [&] { conversion.ReportConsumed(reader->BytesConsumed()); };

    if (options.bRaw) {
        PullAll(*reader, options.cbBuffer, [&](char* p, std::size_t cb) { conversion.Out().Write(p, cb); },
                reportProgress);
        return;
    }
    // Checks the page and warns about one iconv does not know.
    const std::string iconvName = ResolveRtfCodePage(ctx, options.codePage, rtf, conversion.Name());
    if (IsLibraryCodePage(options.codePage)) {
        ConvertRtfToUtf8(options, conversion);
        return;
    }
    CCodePageToUtf8 toUtf8(iconvName);
    const std::string newline = NewlineText(options.newline);
    std::string utf8;
    auto writeUtf8 = [&](char* p, std::size_t cb) {
        utf8.clear();
        for (const char* q = p; q < p + cb;) {
            const char* cr = std::find_if(q, static_cast<const char*>(p + cb), [](char ch) { return ch == '\r' || ch == '\n'; });
            toUtf8.Convert(q, static_cast<std::size_t>(cr - q), utf8);
            if (cr < p + cb)
                utf8 += newline;
            q = cr < p + cb ? cr + 1 : cr;
        }
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
    cmd->footer("The text is UTF-8, decoded from \\u, \\ansicpg and each font's character set, and lines end\n"
                "with LF (or --newline). Footnotes follow the body, each after its marker [n]; headers and\n"
                "footers are left out unless --headers;\n"
                "--raw writes the library's own bytes instead (8-bit text, CR paragraph marks).");
    auto options = std::make_shared<Rtf2TxtOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, InputKind::Rtf);
    AddBufferOption(*cmd, options->cbBuffer);
    AddCodePageOption(*cmd, options->codePage);
    AddLimitOptions(*cmd, ctx, options->limits);
    CLI::Option* raw =
        cmd->add_flag("--raw", options->bRaw, "Write the library's bytes exactly: 8-bit text, CR paragraph marks");
    CLI::Option* utf8 = cmd->add_flag("--utf8", options->bUtf8, "Write UTF-8 with LF line ends (the default)");
    raw->excludes(utf8);
    CLI::Option* newline = cmd->add_option("--newline", options->newline, "Line ends of the UTF-8 text: lf (default), crlf or cr")
                               ->check(CLI::IsMember({"lf", "crlf", "cr"}));
    raw->excludes(newline);
    CLI::Option* headers =
        cmd->add_flag("--headers", options->bHeaders, "Keep the text of headers and footers, where the document has them");
    raw->excludes(headers);
    cmd->add_flag("--lossy", options->bLossy,
                  "Accepted for symmetry with txt2rtf; no effect here, since every byte has a UTF-8 form "
                  "(undefined bytes become U+FFFD)");

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        return RunConversions(ctx, options->io, ".txt",
                              [&ctx, options](CConversion& conversion) { ConvertRtfToText(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
