#include "tools/rtfconv/ToolCommon.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <set>
#include <thread>

#include "hostlibs/VQLogger.h"
#include "platform/AfxExceptions.h"

namespace rtfconv {

std::mutex& StderrMutex()
{
    static std::mutex s_mutex;
    return s_mutex;
}

std::string DisplayName(const std::string& input) { return input == "-" ? "<stdin>" : input; }

void PrintError(const std::string& message)
{
    std::lock_guard<std::mutex> lock(StderrMutex());
    std::fprintf(stderr, "rtfconv: %s\n", message.c_str());
}

void PrintWarning(const ToolContext& ctx, const std::string& message)
{
    if (!ctx.bQuiet) PrintError("warning: " + message);
}

// ---------------------------------------------------------------------------
// Logging: the library reports through a process-wide sink, so every thread's
// reports meet here and are serialised with our own messages.

namespace {

class CStderrLogSink : public VQLogSink {
public:
    void OnAssert(const char* expr, const char* file, int line) override
    {
        std::lock_guard<std::mutex> lock(StderrMutex());
        std::fprintf(stderr, "rtfconv: assertion \"%s\" failed (%s, line %d)\n", expr, file, line);
    }
    void OnTrace(const char* text) override
    {
        // Traces carry their own line end, or none.
        std::size_t cb = std::strlen(text);
        while (cb > 0 && (text[cb - 1] == '\n' || text[cb - 1] == '\r')) --cb;
        std::lock_guard<std::mutex> lock(StderrMutex());
        std::fprintf(stderr, "rtfconv: trace: %.*s\n", static_cast<int>(cb), text);
    }
};

class CSilentLogSink : public VQLogSink {
public:
    void OnAssert(const char*, const char*, int) override {}
    void OnTrace(const char*) override {}
};

} // namespace

void InstallLogSink(const ToolContext& ctx)
{
    static CStderrLogSink s_stderrSink;
    static CSilentLogSink s_silentSink;
    // Without either flag the default sink stays: silent unless RTFCONV_LOG is set.
    if (ctx.bVerbose)
        VQSetLogSink(&s_stderrSink);
    else if (ctx.bQuiet)
        VQSetLogSink(&s_silentSink);
}

void AddVerbosityOptions(CLI::App& app, ToolContext& ctx)
{
    CLI::Option* quiet = app.add_flag("-q,--quiet", ctx.bQuiet, "Print nothing but errors");
    CLI::Option* verbose =
        app.add_flag("-v,--verbose", ctx.bVerbose, "Show the library's assertion reports and traces on stderr");
    quiet->excludes(verbose);
}

void SetCommandAction(CLI::App& cmd, ToolContext& ctx, std::function<int()> run)
{
    cmd.callback([&ctx, run = std::move(run)] { ctx.action = run; });
}

// ---------------------------------------------------------------------------
// Options.

namespace {

const char* InputsHelp(InputKind kind)
{
    switch (kind) {
    case InputKind::Rtf: return "RTF files";
    case InputKind::OldFormatText: return "Old-format text files";
    case InputKind::PlainText: return "Text files";
    }
    return "Files";
}

} // namespace

void AddIoOptions(CLI::App& cmd, IoOptions& io, InputKind kind)
{
    io.kind = kind;
    cmd.add_option("INPUT", io.inputs,
                   std::string(InputsHelp(kind)) + " to convert; - (the default) reads standard input")
        ->type_name("FILE");
    CLI::Option* output = cmd.add_option(
        "-o,--output", io.outputFile,
        "Write to FILE instead of standard output; FILE (or the file a link names) is replaced only when the "
        "conversion succeeds");
    output->type_name("FILE");
    CLI::Option* outputDir = cmd.add_option(
        "--output-dir", io.outputDir,
        "Write each output into DIR, named after its input with the new extension; without it several inputs "
        "are written one after another");
    outputDir->type_name("DIR");
    output->excludes(outputDir);
    cmd.add_option("-j,--jobs", io.jobs,
                   "Threads to use: N files at once with --output-dir, two for one large old2rtf input; "
                   "1 keeps one (default: the number of cores)")
        ->type_name("N")
        ->check(CLI::Range(1u, 1024u));
    cmd.add_flag("--progress", io.bProgress,
                 "Draw a progress bar on stderr (automatic on a terminal for inputs over 50 MB or over 100 files)");
    cmd.add_flag("--force", io.bForce, "Read an input even when it does not look like the kind the command reads");
}

const char* const kEncodingStory =
    "Text for people is UTF-8 with LF line ends on every command, read and written; --raw gives the "
    "host's 8-bit bytes instead (the document's code page, CR paragraph marks), exactly as the library "
    "reads and writes them, and --utf8 names the default.";

void AddEncodingOptions(CLI::App& cmd, bool& bRaw, bool& bUtf8, const std::string& rawMeans)
{
    CLI::Option* raw = cmd.add_flag("--raw", bRaw, rawMeans);
    CLI::Option* utf8 = cmd.add_flag("--utf8", bUtf8, "UTF-8 with LF line ends (the default)");
    raw->excludes(utf8);
}

void AddBufferOption(CLI::App& cmd, std::size_t& cbBuffer)
{
    cmd.add_option("--buffer", cbBuffer,
                   "Size of the buffer handed to each Read call (default 65536; grown when a call cannot progress)")
        ->type_name("N")
        ->check(CLI::Range(std::size_t(1), kMaxReadBuffer));
}

void AddCodePageOption(CLI::App& cmd, std::string& codePage)
{
    CLI::Validator knownCodePage(
        [](std::string& value) {
            return IconvCodePageName(value).empty() ? "unknown code page: " + value : std::string();
        },
        "");
    cmd.add_option("--codepage", codePage,
                   "Code page of the 8-bit text, a Windows number (1251) or an iconv name (KOI8-R); "
                   "default: an RTF input's own \\ansicpgN, else 1252")
        ->type_name("CP")
        ->check(knownCodePage);
}

// ---------------------------------------------------------------------------
// The driver.

namespace {

std::string OutputNameInDir(const std::string& input, const std::string& dir, const std::string& extension)
{
    const std::string base = input == "-" ? "stdin" : std::filesystem::path(input).stem().string();
    return dir + "/" + base + extension;
}

// Runs `step`, reporting a failure as one line "rtfconv: NAME: why" (no NAME
// when empty); returns the exit status. Nothing escapes: a worker thread must
// not end the process.
template <class TStep>
int Reported(const std::string& name, TStep&& step)
{
    const std::string prefix = name.empty() ? std::string() : name + ": ";
    try {
        step();
        return exitOk;
    } catch (const ToolError& e) {
        PrintError(prefix + e.what());
        return e.Code();
    } catch (const CException& e) {
        PrintError(prefix + "conversion failed: " + e.GetErrorText());
    } catch (const std::bad_alloc&) {
        PrintError(prefix + "conversion failed: out of memory");
    } catch (const std::exception& e) {
        PrintError(prefix + "conversion failed: " + e.what());
    } catch (...) {
        PrintError(prefix + "conversion failed: unknown exception");
    }
    return exitConversionFailed;
}

// Reads `input`, checks its kind and converts it into `out`.
void ConvertInto(const IoOptions& io, const std::string& input, COutput& out, CProgressMeter& progress,
                 const ConvertFn& convert)
{
    CInputBytes bytes(input);
    const std::string_view data = bytes.View();
    if (input == "-") progress.AddBytes(data.size()); // files were measured up front
    if (!io.bForce) CheckInputKind(io.kind, data);
    CConversion conversion(input, bytes, out, progress);
    convert(conversion);
    if (bytes.Shrank())
        throw ToolError(exitIoError, "cannot read: the file was cut short while it was converted");
    conversion.ReportConsumed(data.size());
}

// The size of a regular file, for the progress bar; 0 when unknown yet.
std::uint64_t FileSize(const std::string& path)
{
    std::error_code error;
    if (path == "-" || !std::filesystem::is_regular_file(path, error)) return 0;
    const std::uintmax_t cb = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<std::uint64_t>(cb);
}

// The statuses of the inputs, in their order: the worst is the exit status,
// and with several inputs the ones that failed are named once more at the end,
// where they cannot scroll away among the others' messages.
int Summarise(const std::vector<std::string>& inputs, const std::vector<int>& statuses)
{
    std::string failed;
    std::size_t cFailed = 0;
    int worst = exitOk;
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        if (statuses[i] == exitOk) continue;
        worst = std::max(worst, statuses[i]);
        failed += (cFailed++ == 0 ? "" : ", ") + DisplayName(inputs[i]);
    }
    if (cFailed > 0 && inputs.size() > 1)
        PrintError(std::to_string(cFailed) + " of " + std::to_string(inputs.size()) + " inputs failed: " + failed);
    return worst;
}

// Without --output-dir every input goes, in turn, to the one output: standard
// output or -o FILE (replaced only when every input converted).
int ConvertIntoOneOutput(const IoOptions& io, const std::vector<std::string>& inputs, CProgressMeter& progress,
                         const ConvertFn& convert)
{
    std::unique_ptr<COutput> out;
    const int openStatus = Reported("", [&] { out = std::make_unique<COutput>(io.outputFile); });
    if (openStatus != exitOk) return openStatus;
    std::vector<int> statuses(inputs.size(), exitOk);
    for (std::size_t i = 0; i < inputs.size(); ++i) {
        statuses[i] = Reported(DisplayName(inputs[i]), [&] { ConvertInto(io, inputs[i], *out, progress, convert); });
        progress.FileDone();
    }
    int status = Summarise(inputs, statuses);
    if (status == exitOk) status = Reported("", [&] { out->Commit(); });
    return status;
}

// With --output-dir each input has an output of its own, -j at a time; one
// that fails leaves the others alone.
int ConvertEachIntoDir(const IoOptions& io, const std::string& outputExtension, const std::vector<std::string>& inputs,
                       CProgressMeter& progress, const ConvertFn& convert)
{
    std::vector<std::string> outputs;
    std::set<std::string> names;
    for (const std::string& input : inputs) {
        outputs.push_back(OutputNameInDir(input, io.outputDir, outputExtension));
        if (!names.insert(outputs.back()).second) {
            PrintError("two inputs would both be written to " + outputs.back());
            return exitUsage;
        }
    }
    std::error_code error;
    std::filesystem::create_directories(io.outputDir, error);
    if (error) {
        PrintError(io.outputDir + ": cannot create the output folder: " + error.message());
        return exitIoError;
    }

    std::vector<int> statuses(inputs.size(), exitOk);
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t cJobs = std::min<std::size_t>(io.jobs == 0 ? cores : io.jobs, inputs.size());
    std::atomic<std::size_t> next{0};
    auto work = [&] {
        for (std::size_t i = next++; i < inputs.size(); i = next++) {
            statuses[i] = Reported(DisplayName(inputs[i]), [&] {
                // The output first: a folder that cannot be written is found
                // before a long input is read.
                COutput out(outputs[i]);
                ConvertInto(io, inputs[i], out, progress, convert);
                out.Commit();
            });
            progress.FileDone();
        }
    };
    std::vector<std::thread> helpers;
    for (std::size_t j = 1; j < cJobs; ++j) helpers.emplace_back(work);
    work();
    for (std::thread& helper : helpers) helper.join();
    return Summarise(inputs, statuses);
}

} // namespace

int RunConversions(const ToolContext& ctx, const IoOptions& io, const std::string& outputExtension,
                   const ConvertFn& convert)
{
    const std::vector<std::string> inputs = io.inputs.empty() ? std::vector<std::string>{"-"} : io.inputs;
    const CProgressMeter::Mode mode =
        io.bProgress ? CProgressMeter::Mode::On : (ctx.bQuiet ? CProgressMeter::Mode::Off : CProgressMeter::Mode::Auto);
    CProgressMeter progress(mode, inputs.size() > 1 ? CProgressMeter::Unit::Files : CProgressMeter::Unit::Bytes);
    progress.AddFiles(inputs.size());
    progress.AddBytes(FileSize(inputs[0]));

    const int status = io.outputDir.empty() ? ConvertIntoOneOutput(io, inputs, progress, convert)
                                            : ConvertEachIntoDir(io, outputExtension, inputs, progress, convert);
    progress.Finish();
    return status;
}

// ---------------------------------------------------------------------------
// The pull buffer.

void CPullBuffer::GrowAfterNoProgress()
{
    if (m_cb >= kMaxReadBuffer)
        throw ToolError(exitConversionFailed, "no progress: the reader wrote nothing into a 16 MiB buffer");
    m_cb = std::min(m_cb * 2, kMaxReadBuffer);
    m_bytes.reset(new char[m_cb]);
}

} // namespace rtfconv
