// Inputs read whole, and outputs that replace their target only on success,
// even when the tool is interrupted.
#include "tools/rtfconv/ToolCommon.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rtfconv {

namespace {

std::string ErrnoText() { return std::strerror(errno); }

} // namespace

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
// Cleanup on signals.
//
// The temporary files being written are listed in a fixed table that the
// signal handler can walk: it may only touch lock-free atomics and call
// async-signal-safe functions (unlink, raise). Whoever empties a slot owns
// its path: the handler takes a path by exchanging it out and never frees it
// (the process is ending), so it can never read a path being freed.

namespace {

constexpr int kcTempSlots = 4096; // every -j worker's output and attachment, with room to spare
std::atomic<char*> g_tempPaths[kcTempSlots];

// Lists `path` for removal on a signal; the slot, or -1 when the table is full
// (the file is then left to the usual cleanup only).
int ListTemporaryFile(const std::string& path)
{
    char* copy = ::strdup(path.c_str());
    if (!copy) return -1;
    for (int i = 0; i < kcTempSlots; ++i) {
        char* expected = nullptr;
        if (g_tempPaths[i].compare_exchange_strong(expected, copy)) return i;
    }
    std::free(copy);
    return -1;
}

void UnlistTemporaryFile(int slot)
{
    if (slot >= 0) std::free(g_tempPaths[slot].exchange(nullptr));
}

extern "C" void RemoveTemporaryFilesAndDie(int signalNumber)
{
    for (std::atomic<char*>& slot : g_tempPaths) {
        if (char* path = slot.exchange(nullptr)) ::unlink(path);
    }
    // Dying of the signal itself, rather than exiting, tells a calling shell
    // that the run was interrupted (a loop over files stops too).
    std::signal(signalNumber, SIG_DFL);
    std::raise(signalNumber);
}

} // namespace

void InstallSignalCleanup()
{
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction current {};
        if (::sigaction(signalNumber, nullptr, &current) != 0 || current.sa_handler == SIG_IGN) continue;
        struct sigaction cleanup {};
        cleanup.sa_handler = RemoveTemporaryFilesAndDie;
        sigemptyset(&cleanup.sa_mask);
        // While one signal cleans up, the others wait: the table is walked once.
        sigaddset(&cleanup.sa_mask, SIGINT);
        sigaddset(&cleanup.sa_mask, SIGTERM);
        sigaddset(&cleanup.sa_mask, SIGHUP);
        ::sigaction(signalNumber, &cleanup, nullptr);
    }
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

// The file `path` names once its symbolic links are followed (a dangling link
// names the file it would create), so that replacing the file writes through
// the link instead of replacing the link. As many links as the kernel follows.
std::string FollowLinks(std::string path)
{
    constexpr int kcMaxLinks = 40;
    for (int i = 0; i < kcMaxLinks; ++i) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
        std::string link(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 4095) + 1, '\0');
        const ssize_t cch = ::readlink(path.c_str(), &link[0], link.size());
        if (cch < 0 || static_cast<std::size_t>(cch) >= link.size()) return path; // changed under us: let open() judge
        link.resize(static_cast<std::size_t>(cch));
        std::string dir, base;
        SplitPath(path, dir, base);
        path = link[0] == '/' ? link : dir + "/" + link;
    }
    return path; // a loop: open() reports it
}

bool IsDirectory(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

} // namespace

COutput::COutput(const std::string& path)
{
    if (path.empty() || path == "-") {
        m_pFile = stdout;
        m_displayName = "standard output";
        return;
    }
    m_target = FollowLinks(path);
    m_displayName = path;
    struct stat st {};
    const bool bExists = ::stat(m_target.c_str(), &st) == 0;
    if (bExists && S_ISDIR(st.st_mode)) {
        errno = EISDIR;
        Fail("cannot write");
    }
    if (bExists && !S_ISREG(st.st_mode)) {
        // A device or a pipe (/dev/null, a FIFO): there is no file to replace.
        m_pFile = std::fopen(m_target.c_str(), "wb");
        if (!m_pFile) Fail("cannot write");
        return;
    }
    std::string dir, base;
    SplitPath(m_target, dir, base);
    m_tempPath = dir + "/." + base + ".XXXXXX";
    const int fd = ::mkstemp(&m_tempPath[0]);
    if (fd < 0) {
        m_tempPath.clear();
        Fail("cannot write");
    }
    m_tempSlot = ListTemporaryFile(m_tempPath);
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
    Forget();
}

// The temporary file is no business of the signal handler any more: renamed
// or removed.
void COutput::Forget()
{
    UnlistTemporaryFile(m_tempSlot);
    m_tempSlot = -1;
}

void COutput::Fail(const char* what) const
{
    const std::string reason = ErrnoText();
    // A folder removed while we write (an output folder cleaned up mid-run)
    // shows only as "No such file or directory", which points at the file.
    std::string dir, base;
    SplitPath(m_target, dir, base);
    if (!m_target.empty() && !IsDirectory(dir))
        throw ToolError(exitIoError, std::string(what) + " " + m_displayName + ": the folder " + dir + " does not exist");
    throw ToolError(exitIoError, std::string(what) + " " + m_displayName + ": " + reason);
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
    Forget();
}

} // namespace rtfconv
