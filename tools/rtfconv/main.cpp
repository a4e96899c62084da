// rtfconv: converts between RTF, plain text and the host's old-format text.
#include <CLI/CLI.hpp>

#include "hostlibs/VQLogger.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/ToolCommon.h"

#ifndef RTFCONV_VERSION
#define RTFCONV_VERSION "unknown"
#endif

namespace {

// Help and --version end the run successfully; every other parse error is
// wrong usage.
int ExitForParseError(const CLI::App& app, const CLI::ParseError& e)
{
    const int cliStatus = app.exit(e);
    return cliStatus == static_cast<int>(CLI::ExitCodes::Success) ? rtfconv::exitOk : rtfconv::exitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    rtfconv::ToolContext ctx;
    CLI::App app{"Converts rich text between RTF, plain text and old-format text.", "rtfconv"};
    app.set_version_flag("--version", std::string("rtfconv ") + RTFCONV_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.footer("Run 'rtfconv COMMAND --help' for the options of a command.\n"
               "Exit status: 0 success, 1 conversion failed, 2 wrong usage, 3 input unreadable or output not writable.");
    rtfconv::AddVerbosityOptions(app, ctx);

    rtfconv::RegisterRtf2Txt(app, ctx);
    rtfconv::RegisterRtf2Old(app, ctx);
    rtfconv::RegisterOld2Rtf(app, ctx);
    rtfconv::RegisterTxt2Rtf(app, ctx);
    rtfconv::RegisterShow(app, ctx);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return ExitForParseError(app, e);
    }
    if (!ctx.action) return rtfconv::exitUsage;
    rtfconv::InstallLogSink(ctx);
    const int status = ctx.action();
    VQSetLogSink(nullptr);
    return status;
}
