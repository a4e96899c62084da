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

constexpr char kDescription[] = "Converts rich text between RTF, plain text and old-format text.";
constexpr char kVersion[] = "rtfconv " RTFCONV_VERSION " (library rtfconverter " RTFCONV_LIBRARY_VERSION ")";

struct Command {
    const char* name;
    void (*registerCommand)(CLI::App&, rtfconv::ToolContext&);
};

// In the order --help lists them.
constexpr Command kCommands[] = {
    {"rtf2txt", rtfconv::RegisterRtf2Txt}, {"rtf2old", rtfconv::RegisterRtf2Old},
    {"old2rtf", rtfconv::RegisterOld2Rtf}, {"txt2rtf", rtfconv::RegisterTxt2Rtf},
    {"show", rtfconv::RegisterShow},
};

// Defining a command's options costs more than the conversion of a small file,
// so a run that names its command first (`rtfconv rtf2txt ...`, as every
// script does) defines that command alone: what follows the command's name is
// parsed by that command, and its messages name no other. Anything else
// (--help, a misspelt command, tool options first) sees them all.
// `rtfconv --version` alone, which scripts and package checks run to see the
// tool is there, needs none of them.
constexpr char kOnlyVersion[] = "\n--version";

void RegisterCommands(CLI::App& app, rtfconv::ToolContext& ctx, const std::string& firstArgument)
{
    if (firstArgument == kOnlyVersion)
        return;
    for (const Command& command : kCommands) {
        if (firstArgument == command.name) {
            command.registerCommand(app, ctx);
            return;
        }
    }
    for (const Command& command : kCommands) command.registerCommand(app, ctx);
}

// The tool's options and commands; onlyCommand as RegisterCommands takes it.
void DefineTool(CLI::App& app, rtfconv::ToolContext& ctx, std::string& generate, const std::string& onlyCommand)
{
    app.set_version_flag("--version", kVersion, "Print the version of the tool and of the library, and exit");
    app.require_subcommand(0, 1);
    app.fallthrough();
    app.footer(std::string("Run 'rtfconv COMMAND --help' for the options of a command, 'man rtfconv' for the whole "
                           "story.\n") +
               rtfconv::kEncodingStory +
               "\nExit status: 0 success, 1 conversion failed or input of the wrong kind, 2 wrong usage, 3 input "
               "unreadable or output not writable.");
    rtfconv::AddVerbosityOptions(app, ctx);
    app.add_option("--generate", generate, "Print the man page or a completion script (used by the build)")
        ->check(CLI::IsMember({"man", "bash", "zsh"}))
        ->group(""); // hidden
    RegisterCommands(app, ctx, onlyCommand);
}

// The tool's options and commands, defined once a run and needed until it
// ends: never destroyed, as the system takes back their memory at exit at
// once, where ~App would free them one node at a time (some 25,000
// instructions, a twentieth of a short run). Held by a static pointer, so
// that leak checkers see them still reachable.
CLI::App& ToolApp()
{
    static CLI::App* const s_pApp = new CLI::App{kDescription, "rtfconv"};
    return *s_pApp;
}

// --generate man|bash|zsh: the documents built from the option definitions,
// always from the whole tool, whichever command the run named.
int PrintGenerated(const std::string& what)
{
    rtfconv::ToolContext ctx;
    CLI::App app{kDescription, "rtfconv"};
    std::string generate;
    DefineTool(app, ctx, generate, "");
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
    CLI::App& app = ToolApp();
    std::string generate;
    const std::string firstArgument = argc > 1 ? argv[1] : "";
    DefineTool(app, ctx, generate, argc == 2 && firstArgument == "--version" ? kOnlyVersion : firstArgument);

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
    if (!generate.empty()) return PrintGenerated(generate);
    if (!ctx.action) return rtfconv::ReportMissingCommand(app);
    rtfconv::InstallLogSink(ctx);
    const int status = ctx.action();
    VQSetLogSink(nullptr);
    return status;
}
