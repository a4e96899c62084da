#include "tools/rtfconv/ToolCommon.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>
#include <set>
#include <thread>

#include <fcntl.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include "hostlibs/VQLogger.h"
#include "platform/AfxExceptions.h"

namespace rtfconv {

namespace {

std::mutex g_stderrMutex;

std::string ErrnoText() { return std::strerror(errno); }

std::string DisplayName(const std::string& input) { return input == "-" ? "<stdin>" : input; }

} // namespace

void PrintError(const std::string& message)
{
    std::lock_guard<std::mutex> lock(g_stderrMutex);
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
        std::lock_guard<std::mutex> lock(g_stderrMutex);
        std::fprintf(stderr, "rtfconv: assertion \"%s\" failed (%s, line %d)\n", expr, file, line);
    }
    void OnTrace(const char* text) override
    {
        // Traces carry their own line end, or none.
        std::size_t cb = std::strlen(text);
        while (cb > 0 && (text[cb - 1] == '\n' || text[cb - 1] == '\r')) --cb;
        std::lock_guard<std::mutex> lock(g_stderrMutex);
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
// Input.

namespace {

std::string ReadAllFrom(int fd, std::size_t cbExpected)
{
    std::string data;
    data.reserve(cbExpected);
    constexpr std::size_t cbChunk = 1 << 16;
    for (;;) {
        const std::size_t cbOld = data.size();
        data.resize(cbOld + cbChunk);
        const ssize_t cbRead = ::read(fd, &data[cbOld], cbChunk);
        if (cbRead < 0 && errno == EINTR) {
            data.resize(cbOld);
            continue;
        }
        if (cbRead < 0) throw ToolError(exitIoError, "cannot read: " + ErrnoText());
        data.resize(cbOld + static_cast<std::size_t>(cbRead));
        if (cbRead == 0) return data;
    }
}

// Closes a descriptor on every way out.
struct CFdCloser {
    int fd;
    ~CFdCloser() { ::close(fd); }
};

} // namespace

std::string ReadInput(const std::string& path)
{
    if (path == "-") return ReadAllFrom(STDIN_FILENO, 0);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw ToolError(exitIoError, "cannot read: " + ErrnoText());
    CFdCloser closer{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw ToolError(exitIoError, "cannot read: " + ErrnoText());
    if (S_ISDIR(st.st_mode)) throw ToolError(exitIoError, "cannot read: is a directory");
    return ReadAllFrom(fd, S_ISREG(st.st_mode) ? static_cast<std::size_t>(st.st_size) : 0);
}

// ---------------------------------------------------------------------------
// Output.

namespace {

// The mode a new file gets: 0666 less the umask. Read once: umask() can only
// be read by setting it, which must not race with other threads.
mode_t NewFileMode()
{
    static const mode_t s_mode = [] {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        return static_cast<mode_t>(0666 & ~mask);
    }();
    return s_mode;
}

void SplitPath(const std::string& path, std::string& dir, std::string& base)
{
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        dir = ".";
        base = path;
    } else {
        dir = slash == 0 ? "/" : path.substr(0, slash);
        base = path.substr(slash + 1);
    }
}

} // namespace

COutput::COutput(const std::string& path)
{
    if (path.empty() || path == "-") {
        m_pFile = stdout;
        m_displayName = "standard output";
        return;
    }
    m_target = path;
    m_displayName = path;
    struct stat st {};
    const bool bExists = ::stat(path.c_str(), &st) == 0;
    if (bExists && S_ISDIR(st.st_mode)) {
        errno = EISDIR;
        Fail("cannot write");
    }
    if (bExists && !S_ISREG(st.st_mode)) {
        // A device or a pipe (/dev/null, a FIFO): there is no file to replace.
        m_pFile = std::fopen(path.c_str(), "wb");
        if (!m_pFile) Fail("cannot write");
        return;
    }
    std::string dir, base;
    SplitPath(path, dir, base);
    m_tempPath = dir + "/." + base + ".XXXXXX";
    const int fd = ::mkstemp(&m_tempPath[0]);
    if (fd < 0) {
        m_tempPath.clear();
        Fail("cannot write");
    }
    // mkstemp creates 0600; the result should look like any file we write.
    ::fchmod(fd, bExists ? (st.st_mode & 07777) : NewFileMode());
    m_pFile = ::fdopen(fd, "wb");
    if (!m_pFile) {
        ::close(fd);
        Fail("cannot write");
    }
    std::setvbuf(m_pFile, nullptr, _IOFBF, 1 << 16);
}

COutput::~COutput()
{
    if (m_pFile && m_pFile != stdout) std::fclose(m_pFile);
    if (!m_bCommitted && !m_tempPath.empty()) ::unlink(m_tempPath.c_str());
}

void COutput::Fail(const char* what) const
{
    throw ToolError(exitIoError, std::string(what) + " " + m_displayName + ": " + ErrnoText());
}

void COutput::Write(const char* p, std::size_t cb)
{
    if (cb > 0 && std::fwrite(p, 1, cb, m_pFile) != cb) Fail("cannot write");
}

void COutput::Commit()
{
    if (m_pFile == stdout) {
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) Fail("cannot write");
        m_bCommitted = true;
        return;
    }
    std::FILE* pFile = m_pFile;
    m_pFile = nullptr;
    if (std::fclose(pFile) != 0) Fail("cannot write");
    if (!m_tempPath.empty() && ::rename(m_tempPath.c_str(), m_target.c_str()) != 0) Fail("cannot write");
    m_bCommitted = true;
}

// ---------------------------------------------------------------------------
// Progress.

void CProgressMeter::AddTotal(std::uint64_t cb)
{
    const std::uint64_t cbTotal = m_cbTotal.fetch_add(cb) + cb;
    const bool bShow = m_mode == Mode::On ||
                       (m_mode == Mode::Auto && cbTotal > cbAutoThreshold && ::isatty(STDERR_FILENO));
    if (bShow) m_bActive.store(true);
}

void CProgressMeter::MaybeDraw()
{
    std::unique_lock<std::mutex> lock(m_drawMutex, std::try_to_lock);
    if (!lock.owns_lock()) return; // another thread is drawing right now
    const auto now = std::chrono::steady_clock::now();
    if (m_bDrawn && now - m_lastDraw < std::chrono::milliseconds(100)) return;
    m_lastDraw = now;
    Draw();
}

void CProgressMeter::Draw()
{
    constexpr int cchBar = 30;
    const std::uint64_t cbTotal = m_cbTotal.load();
    const std::uint64_t cbDone = std::min(m_cbDone.load(), cbTotal);
    const int percent = cbTotal == 0 ? 100 : static_cast<int>(cbDone * 100 / cbTotal);
    char bar[cchBar + 1];
    const int cchFilled = percent * cchBar / 100;
    std::memset(bar, '#', static_cast<std::size_t>(cchFilled));
    std::memset(bar + cchFilled, '.', static_cast<std::size_t>(cchBar - cchFilled));
    bar[cchBar] = '\0';
    constexpr double cbMiB = 1024.0 * 1024.0;
    std::lock_guard<std::mutex> lock(g_stderrMutex);
    std::fprintf(stderr, "\r[%s] %3d%%  %.1f / %.1f MiB", bar, percent, static_cast<double>(cbDone) / cbMiB,
                 static_cast<double>(cbTotal) / cbMiB);
    std::fflush(stderr);
    m_bDrawn = true;
}

void CProgressMeter::Finish()
{
    std::lock_guard<std::mutex> lock(m_drawMutex);
    if (!m_bDrawn) return;
    m_cbDone.store(m_cbTotal.load());
    Draw();
    std::lock_guard<std::mutex> errLock(g_stderrMutex);
    std::fputc('\n', stderr);
    m_bDrawn = false;
}

// ---------------------------------------------------------------------------
// The driver.

namespace {

std::string OutputNameInDir(const std::string& input, const std::string& dir, const std::string& extension)
{
    std::string base = "stdin";
    if (input != "-") {
        std::string inputDir;
        SplitPath(input, inputDir, base);
        const std::size_t dot = base.find_last_of('.');
        if (dot != std::string::npos && dot > 0) base.erase(dot);
    }
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
    }
    return exitConversionFailed;
}

std::uint64_t FileSize(const std::string& path)
{
    struct stat st {};
    if (path == "-" || ::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    return static_cast<std::uint64_t>(st.st_size);
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

// ---------------------------------------------------------------------------
// Code pages.

namespace {

// Windows code pages whose iconv name is not simply "CP" and the number.
struct WindowsCodePage {
    unsigned long number;
    const char* iconvName;
};
constexpr WindowsCodePage kWindowsCodePages[] = {
    {874, "WINDOWS-874"},    {10000, "MACINTOSH"},   {10001, "SHIFT_JIS"},   {10029, "MAC-CENTRALEUROPE"},
    {20127, "ASCII"},        {20866, "KOI8-R"},      {21866, "KOI8-U"},      {28591, "ISO-8859-1"},
    {28592, "ISO-8859-2"},   {28593, "ISO-8859-3"},  {28594, "ISO-8859-4"},  {28595, "ISO-8859-5"},
    {28596, "ISO-8859-6"},   {28597, "ISO-8859-7"},  {28598, "ISO-8859-8"},  {28599, "ISO-8859-9"},
    {28603, "ISO-8859-13"},  {28605, "ISO-8859-15"}, {65001, "UTF-8"},
};

constexpr const char* kUtf8 = "UTF-8";
constexpr char kReplacementUtf8[] = "\xEF\xBF\xBD"; // U+FFFD

bool IconvKnows(const std::string& name)
{
    const iconv_t cd = ::iconv_open(kUtf8, name.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return false;
    ::iconv_close(cd);
    return true;
}

bool AllDigits(const std::string& s)
{
    return !s.empty() && s.size() < 10 && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string IconvNameForNumber(unsigned long number)
{
    for (const WindowsCodePage& cp : kWindowsCodePages)
        if (cp.number == number) return cp.iconvName;
    return "CP" + std::to_string(number);
}

// Bytes in a UTF-8 sequence from its lead byte (1 for a stray byte).
std::size_t Utf8SequenceLength(unsigned char lead)
{
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    if (lead >= 0xE0) return lead <= 0xEF ? 3 : 1;
    if (lead >= 0xC2) return 2;
    return 1;
}

} // namespace

std::string IconvCodePageName(const std::string& codePage)
{
    const std::string name = AllDigits(codePage) ? IconvNameForNumber(std::stoul(codePage)) : codePage;
    return IconvKnows(name) ? name : std::string();
}

unsigned long FindAnsiCodePage(const std::string& rtf)
{
    static const std::string keyword = "\\ansicpg";
    const std::size_t at = rtf.find(keyword);
    if (at == std::string::npos) return 0;
    unsigned long number = 0;
    for (std::size_t i = at + keyword.size(); i < rtf.size() && rtf[i] >= '0' && rtf[i] <= '9'; ++i) {
        number = number * 10 + static_cast<unsigned long>(rtf[i] - '0');
        if (number > 0xFFFFFF) return 0; // no code page is that large
    }
    return number;
}

std::string ResolveRtfCodePage(const ToolContext& ctx, const std::string& codePageOption, const std::string& rtf,
                               const std::string& inputName)
{
    if (!codePageOption.empty()) {
        std::string name = IconvCodePageName(codePageOption);
        if (name.empty()) throw ToolError(exitUsage, "unknown code page: " + codePageOption);
        return name;
    }
    const unsigned long number = FindAnsiCodePage(rtf);
    if (number == 0) return "CP1252";
    std::string name = IconvCodePageName(std::to_string(number));
    if (name.empty()) {
        PrintWarning(ctx, DisplayName(inputName) + ": code page " + std::to_string(number) +
                              " is not supported, reading the text as 1252");
        return "CP1252";
    }
    return name;
}

CCodePageToUtf8::CCodePageToUtf8(const std::string& iconvName) : m_cd(::iconv_open(kUtf8, iconvName.c_str()))
{
    if (m_cd == reinterpret_cast<void*>(-1)) throw ToolError(exitUsage, "unknown code page: " + iconvName);
}

CCodePageToUtf8::~CCodePageToUtf8() { ::iconv_close(static_cast<iconv_t>(m_cd)); }

void CCodePageToUtf8::Convert(const char* p, std::size_t cb, std::string& out)
{
    if (m_pending.empty()) {
        ConvertRun(p, cb, out);
        return;
    }
    // Rare: a multi-byte character was cut by the previous piece's end.
    std::string joined;
    joined.swap(m_pending);
    joined.append(p, cb);
    ConvertRun(joined.data(), joined.size(), out);
}

void CCodePageToUtf8::ConvertRun(const char* p, std::size_t cb, std::string& out)
{
    char* pIn = const_cast<char*>(p); // iconv does not write through it
    std::size_t cbIn = cb;
    while (cbIn > 0) {
        // Four UTF-8 bytes per input byte is more than any 8-bit or DBCS code page needs.
        const std::size_t cbOld = out.size();
        out.resize(cbOld + cbIn * 4 + 16);
        char* pOut = &out[cbOld];
        std::size_t cbOut = out.size() - cbOld;
        const std::size_t result = ::iconv(static_cast<iconv_t>(m_cd), &pIn, &cbIn, &pOut, &cbOut);
        out.resize(out.size() - cbOut);
        if (result != static_cast<std::size_t>(-1)) break;
        if (errno == EINVAL) { // an incomplete character at the end
            m_pending.assign(pIn, cbIn);
            break;
        }
        if (errno == EILSEQ) { // a byte the code page does not define
            out += kReplacementUtf8;
            ++pIn;
            --cbIn;
        }
        // E2BIG cannot happen with the room given above, but would just loop.
    }
}

void CCodePageToUtf8::Finish(std::string& out)
{
    if (!m_pending.empty()) out += kReplacementUtf8;
    m_pending.clear();
}

std::string Utf8ToCodePage(const std::string& utf8, const std::string& iconvName, bool bLossy)
{
    const iconv_t cd = ::iconv_open(iconvName.c_str(), kUtf8);
    if (cd == reinterpret_cast<iconv_t>(-1)) throw ToolError(exitUsage, "unknown code page: " + iconvName);
    struct CIconvCloser {
        iconv_t cd;
        ~CIconvCloser() { ::iconv_close(cd); }
    } closer{cd};
    std::string out(utf8.size() + 16, '\0');
    char* pIn = const_cast<char*>(utf8.data());
    std::size_t cbIn = utf8.size();
    std::size_t cbWritten = 0;
    while (cbIn > 0) {
        char* pOut = &out[cbWritten];
        std::size_t cbOut = out.size() - cbWritten;
        const std::size_t result = ::iconv(cd, &pIn, &cbIn, &pOut, &cbOut);
        cbWritten = out.size() - cbOut;
        if (result != static_cast<std::size_t>(-1)) break;
        if (errno == E2BIG) {
            out.resize(out.size() * 2);
            continue;
        }
        // EILSEQ, or EINVAL for a sequence cut by the end of the text.
        const std::size_t at = static_cast<std::size_t>(pIn - utf8.data());
        if (!bLossy) {
            const auto itAt = utf8.begin() + static_cast<std::ptrdiff_t>(at);
            const std::size_t line = static_cast<std::size_t>(std::count(utf8.begin(), itAt, '\n')) + 1;
            const std::size_t lastNewline = at == 0 ? std::string::npos : utf8.rfind('\n', at - 1);
            const std::size_t from = lastNewline == std::string::npos ? 0 : lastNewline + 1;
            std::size_t column = 1;
            for (std::size_t i = from; i < at; ++i)
                if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) ++column;
            throw ToolError(exitConversionFailed, "line " + std::to_string(line) + ", column " +
                                                      std::to_string(column) + ": character not in code page " +
                                                      iconvName + " (use --lossy to replace it with ?)");
        }
        if (cbWritten == out.size()) out.resize(out.size() * 2);
        out[cbWritten++] = '?';
        const std::size_t cbSkip = std::min(cbIn, Utf8SequenceLength(static_cast<unsigned char>(*pIn)));
        pIn += cbSkip;
        cbIn -= cbSkip;
    }
    out.resize(cbWritten);
    return out;
}

} // namespace rtfconv
