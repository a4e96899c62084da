// The rtfconv commands. Each command lives in its own file cmd_NAME.cpp and
// exposes one registration function, called by main() in the order the
// commands appear in --help:
//
//     void RegisterNAME(CLI::App& app, ToolContext& ctx)
//     {
//         CLI::App* cmd = app.add_subcommand("NAME", "What it does");
//         auto options = std::make_shared<NameOptions>();
//         AddVerbosityOptions(*cmd, ctx);
//         AddIoOptions(*cmd, options->io);
//         ... options of its own ...
//         SetCommandAction(*cmd, ctx, [&ctx, options] {
//             return RunConversions(ctx, options->io, ".ext", [&](CConversion& c) { ... });
//         });
//     }
//
// The shared machinery (inputs, atomic outputs, the pull loop, code pages,
// progress) is in ToolCommon.h.
#pragma once

namespace CLI {
class App;
}

namespace rtfconv {

struct ToolContext;

void RegisterRtf2Txt(CLI::App& app, ToolContext& ctx);
void RegisterRtf2Old(CLI::App& app, ToolContext& ctx);
void RegisterOld2Rtf(CLI::App& app, ToolContext& ctx);
void RegisterTxt2Rtf(CLI::App& app, ToolContext& ctx);
void RegisterShow(CLI::App& app, ToolContext& ctx);

} // namespace rtfconv
