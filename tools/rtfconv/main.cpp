// rtfconv: converts between RTF, plain text and the host's old-format text.
#include <CLI/CLI.hpp>

#include <cstdio>

#include "hostlibs/VQLogger.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/ToolCommon.h"
#include "tools/rtfconv/Usage.h"

#ifndef RTFCONV_VERSION
#define RTFCONV_VERSION "unknown"
#endif
#ifndef RTFCONV_LIBRARY_VERSION
#define RTFCONV_LIBRARY_VERSION "unknown"
#endif

namespace {

constexpr char kVersion[] = "rtfconv " RTFCONV_VERSION " (library rtfconverter " RTFCONV_LIBRARY_VERSION ")";

// --generate man|bash|zsh: the documents built from the option definitions.
int PrintGenerated(const CLI::App& app, const std::string& what)
{
    const std::string text = what == "man"    ? rtfconv::ManPage(app, RTFCONV_VERSION)
                             : what == "bash" ? rtfconv::BashCompletion(app)
                                              : rtfconv::ZshCompletion(app);
    std::fwrite(text.data(), 1, text.size(), stdout);
    return std::fflush(stdout) == 0 ? rtfconv::exitOk : rtfconv::exitIoError;
}

} // namespace

int main(int argc, char** argv)
{
    rtfconv::InstallSignalCleanup();
    rtfconv::ToolContext ctx;
    CLI::App app{"Converts rich text between RTF, plain text and old-format text.", "rtfconv"};
    app.set_version_flag("--version", kVersion, "Print the version of the tool and of the library, and exit");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.footer(std::string("Run 'rtfconv COMMAND --help' for the options of a command, 'man rtfconv' for the whole "
                           "story.\n") +
               rtfconv::kEncodingStory +
               "\nExit status: 0 success, 1 conversion failed or input of the wrong kind, 2 wrong usage, 3 input "
               "unreadable or output not writable.");
    rtfconv::AddVerbosityOptions(app, ctx);
    std::string generate;
    app.add_option("--generate", generate, "Print the man page or a completion script (used by the build)")
        ->check(CLI::IsMember({"man", "bash", "zsh"}))
        ->group(""); // hidden

    rtfconv::RegisterRtf2Txt(app, ctx);
    rtfconv::RegisterRtf2Old(app, ctx);
    rtfconv::RegisterOld2Rtf(app, ctx);
    rtfconv::RegisterTxt2Rtf(app, ctx);
    rtfconv::RegisterShow(app, ctx);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return rtfconv::ReportUsageError(app, e);
    }
    if (!generate.empty()) return PrintGenerated(app, generate);
    if (!ctx.action) return rtfconv::ReportMissingCommand(app);
    rtfconv::InstallLogSink(ctx);
    const int status = ctx.action();
    VQSetLogSink(nullptr);
    return status;
}
