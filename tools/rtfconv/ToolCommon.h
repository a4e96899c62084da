// Machinery shared by the rtfconv commands: options every command has, input
// and output files, the pull loop over the library's readers, code pages and
// the progress bar.
//
// Sources: ToolCommon.cpp (options, logging, the driver), Files.cpp (inputs
// and outputs, cleanup on signals), InputKind.cpp (what an input looks like),
// Usage.cpp (usage errors, the man page and shell completion from the option
// definitions), Progress.cpp, CodePages.cpp.
//
// A command registers its subcommand with the Add*Options helpers below, and
// its action converts one input with a ConvertFn that RunConversions calls
// once per input (in parallel with -j): the driver reads the input, opens the
// output (standard output, -o FILE or DIR/NAME.EXT, always written through a
// temporary file renamed on success), reports failures as one line naming the
// file, and returns the exit status.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "rtfconverter/ReadLimits.h"

namespace CLI {
class App;
}

namespace rtfconv {

// The tool's exit statuses.
enum ExitCode : int {
    exitOk = 0,
    exitConversionFailed = 1,
    exitUsage = 2,
    exitIoError = 3,
};

// Raised by the shared machinery and the commands; the driver prints
// "rtfconv: NAME: what()" and exits with `Code()`.
class ToolError : public std::runtime_error {
public:
    ToolError(int code, const std::string& what) : std::runtime_error(what), m_code(code) {}
    int Code() const { return m_code; }

private:
    int m_code;
};

// Options of the tool itself, shared by every command.
struct ToolContext {
    bool bQuiet = false;   // -q: no warnings, no automatic progress bar, no library reports
    bool bVerbose = false; // -v: the library's assertion reports and traces on stderr
    // The action of the command given on the command line, set by its callback.
    std::function<int()> action;
};

// Adds -q and -v to `app` (the tool or one command).
void AddVerbosityOptions(CLI::App& app, ToolContext& ctx);
// Makes `run` the tool's action when `cmd` is the command given.
void SetCommandAction(CLI::App& cmd, ToolContext& ctx, std::function<int()> run);
// Installs the library's log sink for -q / -v; call once, before converting.
void InstallLogSink(const ToolContext& ctx);

// Prints "rtfconv: message" on stderr (one line), unless -q for warnings.
void PrintError(const std::string& message);
void PrintWarning(const ToolContext& ctx, const std::string& message);
// Held while writing to stderr, so that the lines of several threads never mix.
std::mutex& StderrMutex();
// An input's name for messages: "<stdin>" for "-".
std::string DisplayName(const std::string& input);

// ---------------------------------------------------------------------------
// Inputs and outputs.

// The kind of input a command reads. Each command declares its own; the
// driver refuses an input that looks like something else (unless --force).
enum class InputKind {
    Rtf,           // begins, after a BOM and white space, with "{\"
    OldFormatText, // the host's 8-bit text, markup commands or not
    PlainText,     // text (UTF-8, an 8-bit page, or UTF-16 with a BOM)
};

// What the first bytes of an input say it is.
struct InputLook {
    bool bRtf = false;
    bool bOldFormat = false; // text holding markup commands (0x01 ... 0x02)
    bool bText = false;      // text of any kind, RTF and old-format text included
    std::string looksLike;   // for messages: "RTF", "a Word .docx", "PDF", "plain text", "empty"...
};
InputLook LookAt(std::string_view data);
// Throws ToolError(exitConversionFailed) "not RTF (looks like PDF)" when
// `data` is not of the kind `kind`.
void CheckInputKind(InputKind kind, std::string_view data);

struct IoOptions {
    std::vector<std::string> inputs; // "-" is standard input; none means "-"
    std::string outputFile;          // -o; empty or "-" is standard output
    std::string outputDir;           // --output-dir
    unsigned jobs = 0;               // -j; 0 is the number of cores
    bool bProgress = false;          // --progress
    bool bForce = false;             // --force: read an input that does not look like `kind`
    InputKind kind = InputKind::Rtf;
};

// Adds INPUT..., -o, --output-dir, -j, --progress and --force to `cmd`, for
// inputs of the kind `kind`.
void AddIoOptions(CLI::App& cmd, IoOptions& io, InputKind kind);

// Adds --raw and --utf8 (which exclude each other) to `cmd`, with the same
// words on every command: `rawMeans` says what --raw does there.
void AddEncodingOptions(CLI::App& cmd, bool& bRaw, bool& bUtf8, const std::string& rawMeans);
// The tool's one account of text encodings, for --help and the man page.
extern const char* const kEncodingStory;

constexpr std::size_t kDefaultReadBuffer = 65536;
constexpr std::size_t kMaxReadBuffer = std::size_t(16) << 20;
// Adds --buffer N (1 .. 16 MiB) to `cmd`.
void AddBufferOption(CLI::App& cmd, std::size_t& cbBuffer);

// ---------------------------------------------------------------------------
// The readers' limits on what a document may make them allocate (Limits.cpp).

struct LimitOptions {
    rtf_converter::ReadLimits limits;
    const ToolContext* pCtx = nullptr; // for -q
};
// Adds --max-depth, --max-attachment, --max-fonts, --max-font-name,
// --max-colors, --max-field-text and --max-numbering-text to `cmd`.
void AddLimitOptions(CLI::App& cmd, const ToolContext& ctx, LimitOptions& options);
// Prints one warning for each kind of limit in `reached` (ReadLimitKind bits),
// naming the input.
void WarnLimitsReached(const LimitOptions& options, unsigned reached, const std::string& inputName);

// Gives a library reader the limits and, once the reader is done with (or has
// failed), warns about the limits it reached. Declare it right after the
// reader, so that it goes before it.
template <class TReader>
class CReaderLimits {
public:
    CReaderLimits(TReader& reader, const LimitOptions& options, const std::string& inputName)
        : m_reader(reader), m_options(options), m_inputName(inputName)
    {
        m_reader.SetLimits(m_options.limits);
    }
    ~CReaderLimits()
    {
        try {
            WarnLimitsReached(m_options, m_reader.GetLimitsReached(), m_inputName);
        } catch (...) {
            // A warning that cannot be printed is not worth ending the run for.
        }
    }
    CReaderLimits(const CReaderLimits&) = delete;
    CReaderLimits& operator=(const CReaderLimits&) = delete;

private:
    TReader& m_reader;
    const LimitOptions& m_options;
    const std::string& m_inputName;
};

// The bytes of one input, for as long as it is converted: a regular file is
// mapped (private), standard input, pipes and files without a size are read
// into memory. A NUL follows the bytes, for the writers that take
// NUL-terminated text; a NUL among them ends such text early, as before.
// Throws ToolError(exitIoError).
class CInputBytes {
public:
    explicit CInputBytes(const std::string& path); // "-": standard input
    ~CInputBytes();
    CInputBytes(const CInputBytes&) = delete;
    CInputBytes& operator=(const CInputBytes&) = delete;

    std::string_view View() const { return std::string_view(m_p, m_cb); }
    // The bytes of View(), followed by a NUL.
    const char* Terminated() const { return m_p; }
    // The converter is done with the first `cbConsumed` bytes: the mapped
    // pages behind them no longer need to stay resident.
    void DoneWith(std::size_t cbConsumed);
    // True when the mapped file was cut short while it was read: the bytes
    // past its new end read as zeros, and the conversion must not stand.
    [[nodiscard]] bool Shrank() const;

private:
    static std::size_t MappedSize(std::size_t cb);
    bool Map(int fd, std::size_t cb);
    void ReadAll(int fd, std::size_t cbExpected);

    char* m_p = nullptr;
    std::size_t m_cb = 0;
    struct CFree {
        void operator()(char* p) const;
    };
    std::unique_ptr<char, CFree> m_pRead; // the bytes read, when not mapped (malloc'ed: grown by realloc)
    int m_mapSlot = -1;          // the mapping's entry in the SIGBUS handler's table
    std::size_t m_cbReleased = 0; // mapped pages before this were given back
};

// On SIGINT, SIGTERM and SIGHUP, removes the temporary files of the outputs
// being written and then dies of the signal (exit status 128 + N in a shell).
// A signal the tool was started with ignored stays ignored. Call once, first.
void InstallSignalCleanup();

// An output written to standard output, or to a file through a temporary file
// in the same folder that is renamed over the target by Commit(). A target
// that is a symbolic link is written through: the file it points to is
// replaced and the link stays. Destroyed
// without Commit(), it removes the temporary file: a failed run never leaves a
// half-written target. Write errors throw ToolError(exitIoError).
// Bytes are gathered into blocks, 64 KiB at first and up to kcbOutputBuffer
// later, written straight to the descriptor; a write at least as large as the
// block goes out without a copy.
class COutput {
public:
    explicit COutput(const std::string& path); // "" or "-": standard output
    ~COutput();
    COutput(const COutput&) = delete;
    COutput& operator=(const COutput&) = delete;

    static constexpr std::size_t kcbOutputBuffer = std::size_t(1) << 20;

    void Write(const char* p, std::size_t cb);
    void Write(std::string_view s) { Write(s.data(), s.size()); }
    // A block the caller has made whole, for a writer that makes its output
    // in blocks of its own: written at once, after what is buffered, and
    // never copied, whatever its size.
    void WriteBlock(const char* p, std::size_t cb);
    // Whether the bytes go to a regular file (a file system takes a few
    // large writes faster than many small ones), not to a pipe, a terminal
    // or a device.
    bool GoesToFile() const;
    void Commit();
    const std::string& Name() const { return m_displayName; }

private:
    [[noreturn]] void Fail(const char* what) const;
    void Forget();
    void Flush();
    void WriteThrough(const char* p, std::size_t cb);

    int m_fd = -1;
    std::unique_ptr<char[]> m_pBuffer; // allocated by the first small write
    std::size_t m_cbBuffered = 0;
    std::size_t m_cbBlock = std::size_t(64) << 10; // grows to kcbOutputBuffer
    std::string m_target;      // empty for standard output; links followed
    std::string m_tempPath;    // empty when writing straight to the target
    int m_tempSlot = -1;       // its entry in the table the signal handler cleans
    std::string m_displayName;
    bool m_bCommitted = false;
};

// ---------------------------------------------------------------------------
// Progress bar on stderr: input bytes for one input, files for a batch, with
// the rate and the time left.

class CProgressMeter {
public:
    enum class Mode { Off, Auto, On };
    enum class Unit { Bytes, Files };
    CProgressMeter(Mode mode, Unit unit) : m_mode(mode), m_unit(unit), m_start(std::chrono::steady_clock::now()) {}
    ~CProgressMeter() { Finish(); }
    CProgressMeter(const CProgressMeter&) = delete;
    CProgressMeter& operator=(const CProgressMeter&) = delete;

    // In Auto mode the bar appears, when stderr is a terminal, once the
    // inputs total more than this, or the batch more files than this.
    static constexpr std::uint64_t cbAutoThreshold = 50'000'000;
    static constexpr std::uint64_t cAutoFiles = 100;

    // Adds to what is to be done; each counts only for its own unit.
    void AddBytes(std::uint64_t cb)
    {
        if (m_unit == Unit::Bytes) AddTotal(cb);
    }
    void AddFiles(std::uint64_t cFiles)
    {
        if (m_unit == Unit::Files) AddTotal(cFiles);
    }
    // Input bytes converted (counted for the Bytes unit only).
    void Advance(std::uint64_t cb)
    {
        if (m_unit == Unit::Bytes) AdvanceBy(cb);
    }
    // One input done (counted for the Files unit only).
    void FileDone()
    {
        if (m_unit == Unit::Files) AdvanceBy(1);
    }
    void Finish();

private:
    void AddTotal(std::uint64_t c);
    void AdvanceBy(std::uint64_t c)
    {
        if (!m_bActive.load(std::memory_order_relaxed)) return;
        m_done.fetch_add(c, std::memory_order_relaxed);
        MaybeDraw();
    }
    void MaybeDraw();
    void Draw();

    Mode m_mode;
    Unit m_unit;
    std::chrono::steady_clock::time_point m_start;
    std::atomic<bool> m_bActive{false};
    std::atomic<std::uint64_t> m_total{0};
    std::atomic<std::uint64_t> m_done{0};
    std::mutex m_drawMutex;
    std::chrono::steady_clock::time_point m_lastDraw{};
    bool m_bDrawn = false;
    bool m_bFinished = false;
};

// One line of the bar (without the leading CR): "[####......]  40%  2.0 / 5.0 MiB
// 1.0 MiB/s  0:03 left". `seconds` is the time since the start.
std::string ProgressLine(CProgressMeter::Unit unit, std::uint64_t done, std::uint64_t total, double seconds);

// ---------------------------------------------------------------------------
// The conversion driver.

// One input to convert into one output.
class CConversion {
public:
    CConversion(const std::string& name, CInputBytes& input, COutput& out, CProgressMeter& progress)
        : m_name(name), m_input(input), m_out(out), m_progress(progress)
    {
    }
    // The input as named on the command line ("-" for standard input).
    const std::string& Name() const { return m_name; }
    // The input's bytes, and the same followed by a NUL.
    std::string_view Data() const { return m_input.View(); }
    const char* Terminated() const { return m_input.Terminated(); }
    COutput& Out() { return m_out; }
    // The converter has made what it needs of the whole input (decoded it):
    // the mapped pages need not stay resident. Progress is not told.
    void ReleaseInput() { m_input.DoneWith(m_input.View().size()); }
    // Tells the progress bar, and the input, that the first `cbConsumed`
    // input bytes are done.
    void ReportConsumed(std::size_t cbConsumed)
    {
        if (cbConsumed > m_cbReported) {
            m_progress.Advance(cbConsumed - m_cbReported);
            m_cbReported = cbConsumed;
            m_input.DoneWith(cbConsumed);
        }
    }

private:
    const std::string& m_name;
    CInputBytes& m_input;
    COutput& m_out;
    CProgressMeter& m_progress;
    std::size_t m_cbReported = 0;
};

using ConvertFn = std::function<void(CConversion&)>;

// Converts every input of `io` with `convert`; outputs in --output-dir are
// named after their input with `outputExtension` (".txt"). Returns the exit
// status: 0, or the highest status of the inputs that failed.
int RunConversions(const ToolContext& ctx, const IoOptions& io, const std::string& outputExtension,
                   const ConvertFn& convert);

// ---------------------------------------------------------------------------
// The pull loop over a library reader with
//     unsigned long Read(char* pBegin, char* pEnd, bool& bMore).
//
// `consume(char* p, std::size_t cb)` receives each piece written (it may edit
// it in place); `afterRead()` runs after every call, for progress. A call that
// writes nothing while more is to come means the piece due (a paragraph's
// number text, say) does not fit: the buffer is doubled, up to 16 MiB, after
// which the conversion fails rather than loop without progress.

// The growable buffer behind PullAll.
class CPullBuffer {
public:
    // Left unfilled: a reader writes what it reports, and only that is read.
    // Zeroing it would cost every run its pages up front.
    explicit CPullBuffer(std::size_t cb) : m_cb(cb == 0 ? 1 : cb), m_bytes(new char[m_cb]) {}
    char* Begin() { return m_bytes.get(); }
    char* End() { return m_bytes.get() + m_cb; }
    std::size_t Size() const { return m_cb; }
    // Doubles the buffer after a call without progress (what it held is
    // not kept: the call wrote nothing worth keeping); throws past 16 MiB.
    void GrowAfterNoProgress();

private:
    std::size_t m_cb;
    std::unique_ptr<char[]> m_bytes;
};

template <class TReader, class TConsume, class TAfterRead>
void PullAll(TReader& reader, std::size_t cbBuffer, TConsume&& consume, TAfterRead&& afterRead)
{
    CPullBuffer buffer(cbBuffer);
    bool bMore = true;
    while (bMore) {
        const std::size_t cb = reader.Read(buffer.Begin(), buffer.End(), bMore);
        afterRead();
        if (cb > buffer.Size())
            throw ToolError(exitConversionFailed, "the reader reported more bytes than its buffer holds");
        if (cb > 0)
            consume(buffer.Begin(), cb);
        else if (bMore)
            buffer.GrowAfterNoProgress();
    }
}

// ---------------------------------------------------------------------------
// Code pages (glibc iconv).

// Adds --codepage CP to `cmd`.
void AddCodePageOption(CLI::App& cmd, std::string& codePage);

// The iconv name of a code page given as a Windows number ("1251") or by an
// iconv name ("koi8-r"); empty when iconv does not know it.
std::string IconvCodePageName(const std::string& codePage);
// True when `codePage` is a Windows code page number ("1251"), not a name.
bool IsCodePageNumber(const std::string& codePage);
// The Windows number of a --codepage value given by number or by iconv name
// (the library's table); 0 when empty or not a Windows page.
int CodePageNumberOf(const std::string& codePage);
// True when the library's Unicode reader and writer know the page (or none is given).
bool IsLibraryCodePage(const std::string& codePage);
// The offset of the first byte that is not part of valid UTF-8; npos when all is.
std::size_t FindInvalidUtf8(std::string_view text);
// Text of an iconv encoding as UTF-8; a ToolError naming the byte offset of
// the first invalid byte.
std::string ConvertToUtf8(std::string_view text, const std::string& fromEncoding);
// The N of the first \ansicpgN in an RTF document; 0 when there is none.
unsigned long FindAnsiCodePage(std::string_view rtf);
// The iconv name to read an RTF document's text with: `codePageOption` when
// given (unknown: ToolError(exitUsage)), else the document's \ansicpgN when
// iconv knows it, else CP1252.
std::string ResolveRtfCodePage(const ToolContext& ctx, const std::string& codePageOption, std::string_view rtf,
                               const std::string& inputName);

// Converts 8-bit text in a code page to UTF-8, piece by piece. A byte the code
// page does not define becomes U+FFFD; a multi-byte character cut by the end
// of a piece is completed by the next one.
class CCodePageToUtf8 {
public:
    explicit CCodePageToUtf8(const std::string& iconvName);
    ~CCodePageToUtf8();
    CCodePageToUtf8(const CCodePageToUtf8&) = delete;
    CCodePageToUtf8& operator=(const CCodePageToUtf8&) = delete;

    // Appends the UTF-8 of [p, p + cb) to `out`.
    void Convert(const char* p, std::size_t cb, std::string& out);
    // Ends the text: an incomplete character left over becomes U+FFFD.
    void Finish(std::string& out);

private:
    void ConvertRun(const char* p, std::size_t cb, std::string& out);

    void* m_cd; // iconv_t
    std::string m_pending;
};

// Converts UTF-8 text to a code page. A character the code page cannot hold
// (or a byte that is not UTF-8) throws ToolError(exitConversionFailed) naming
// its line and column, unless `bLossy` replaces it with '?'.
std::string Utf8ToCodePage(std::string_view utf8, const std::string& iconvName, bool bLossy);

} // namespace rtfconv
