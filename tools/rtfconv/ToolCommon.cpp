#include "tools/rtfconv/ToolCommon.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <filesystem>
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

void AddIoOptions(CLI::App& cmd, IoOptions& io, const std::string& inputKind)
{
    cmd.add_option("INPUT", io.inputs, inputKind + " to convert; - (the default) reads standard input")
        ->type_name("FILE");
    CLI::Option* output = cmd.add_option(
        "-o,--output", io.outputFile,
        "Write to FILE instead of standard output; FILE is replaced only when the conversion succeeds");
    output->type_name("FILE");
    CLI::Option* outputDir = cmd.add_option(
        "--output-dir", io.outputDir,
        "Write each output into DIR, named after its input with the new extension (needed for several inputs)");
    outputDir->type_name("DIR");
    output->excludes(outputDir);
    cmd.add_option("-j,--jobs", io.jobs, "Convert N files at once (default: the number of cores)")
        ->type_name("N")
        ->check(CLI::Range(1u, 1024u));
    cmd.add_flag("--progress", io.bProgress,
                 "Draw a progress bar on stderr (automatic on a terminal for inputs over 8 MiB)");
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
                   "default: the document's \\ansicpgN, else 1252")
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

// Converts one input; returns its exit status after reporting any failure.
int ConvertOne(const std::string& input, const std::string& outputPath, CProgressMeter& progress,
               const ConvertFn& convert)
{
    try {
        const std::string data = ReadInput(input);
        if (input == "-") progress.AddTotal(data.size()); // files were counted up front
        COutput out(outputPath);
        CConversion conversion(input, data, out, progress);
        convert(conversion);
        conversion.ReportConsumed(data.size());
        out.Commit();
        return exitOk;
    } catch (const ToolError& e) {
        PrintError(DisplayName(input) + ": " + e.what());
        return e.Code();
    } catch (const CException& e) {
        PrintError(DisplayName(input) + ": conversion failed: " + e.GetErrorText());
    } catch (const std::bad_alloc&) {
        PrintError(DisplayName(input) + ": conversion failed: out of memory");
    } catch (const std::exception& e) {
        PrintError(DisplayName(input) + ": conversion failed: " + e.what());
    } catch (...) {
        // Whatever it was, it must not end a worker thread (and the process) unreported.
        PrintError(DisplayName(input) + ": conversion failed: unknown exception");
    }
    return exitConversionFailed;
}

// The size of a regular file, for the progress bar; 0 when unknown yet.
std::uint64_t FileSize(const std::string& path)
{
    std::error_code error;
    if (path == "-" || !std::filesystem::is_regular_file(path, error)) return 0;
    const std::uintmax_t cb = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<std::uint64_t>(cb);
}

} // namespace

int RunConversions(const ToolContext& ctx, const IoOptions& io, const std::string& outputExtension,
                   const ConvertFn& convert)
{
    const std::vector<std::string> inputs = io.inputs.empty() ? std::vector<std::string>{"-"} : io.inputs;
    std::vector<std::string> outputs;
    if (io.outputDir.empty()) {
        if (inputs.size() > 1) {
            PrintError("several inputs need --output-dir DIR");
            return exitUsage;
        }
        outputs.push_back(io.outputFile);
    } else {
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
    }

    const CProgressMeter::Mode mode =
        io.bProgress ? CProgressMeter::Mode::On : (ctx.bQuiet ? CProgressMeter::Mode::Off : CProgressMeter::Mode::Auto);
    CProgressMeter progress(mode);
    for (const std::string& input : inputs) progress.AddTotal(FileSize(input));

    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t cJobs = std::min<std::size_t>(io.jobs == 0 ? cores : io.jobs, inputs.size());
    std::atomic<std::size_t> next{0};
    std::atomic<int> worst{exitOk};
    auto work = [&] {
        for (std::size_t i = next++; i < inputs.size(); i = next++) {
            const int status = ConvertOne(inputs[i], outputs[i], progress, convert);
            int seen = worst.load();
            while (status > seen && !worst.compare_exchange_weak(seen, status)) {
            }
        }
    };
    std::vector<std::thread> helpers;
    for (std::size_t j = 1; j < cJobs; ++j) helpers.emplace_back(work);
    work();
    for (std::thread& helper : helpers) helper.join();
    progress.Finish();
    return worst.load();
}

// ---------------------------------------------------------------------------
// The pull buffer.

void CPullBuffer::GrowAfterNoProgress()
{
    if (m_bytes.size() >= kMaxReadBuffer)
        throw ToolError(exitConversionFailed, "no progress: the reader wrote nothing into a 16 MiB buffer");
    m_bytes.resize(std::min(m_bytes.size() * 2, kMaxReadBuffer));
}

} // namespace rtfconv
