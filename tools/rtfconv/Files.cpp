// Inputs mapped or read whole, and outputs written in large blocks that
// replace their target only on success, even when the tool is interrupted.
#include "tools/rtfconv/ToolCommon.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rtfconv {

namespace {

std::string ErrnoText() { return std::strerror(errno); }

} // namespace

// ---------------------------------------------------------------------------
// Input.
//
// A regular file is mapped rather than read: its pages come in as the
// converter reaches them, no byte is copied, and the pages behind the
// converter are given back as it goes, so a large input costs little
// resident memory. Anything else (standard input, a pipe, a FIFO, a file
// whose size says nothing, such as those of /proc) is read into memory.
//
// The writers take NUL-terminated text, so a NUL always follows the bytes. A
// mapping gets it without a copy: the file is mapped over a reservation one
// byte longer, whose page past the file is anonymous zeros; when the file
// ends inside a page, the NUL is written into our private copy of that page
// (which also keeps bytes appended to the file meanwhile out of sight).
//
// A mapped file that another program truncates while we convert it would
// raise SIGBUS on the first page past its new end. The handler below maps a
// page of zeros there instead and notes it: the converter reads zeros (the
// readers stop at a NUL) and the driver fails the conversion afterwards, so
// that a shrunken input never crashes the tool nor yields a committed output.

namespace {

constexpr int kcMapSlots = 2048; // every -j worker's input, with room to spare

struct MappedRange {
    std::atomic<bool> bClaimed{false};
    std::atomic<const char*> pBegin{nullptr};
    std::atomic<std::size_t> cb{0};
    std::atomic<bool> bShrank{false};
};
MappedRange g_mappedInputs[kcMapSlots];
std::size_t g_cbPage = 4096;

extern "C" void ZeroFillShrunkenPage(int signalNumber, siginfo_t* pInfo, void*)
{
    const char* const pFault = static_cast<const char*>(pInfo->si_addr);
    for (MappedRange& range : g_mappedInputs) {
        const char* const pBegin = range.pBegin.load();
        if (!pBegin || pFault < pBegin || pFault >= pBegin + range.cb.load()) continue;
        const std::uintptr_t page = reinterpret_cast<std::uintptr_t>(pFault) & ~(g_cbPage - 1);
        // mmap is a plain system call on Linux, safe in a handler in practice.
        if (::mmap(reinterpret_cast<void*>(page), g_cbPage, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED) {
            range.bShrank.store(true);
            return;
        }
        break;
    }
    // Not ours (or beyond repair): the process ends as it would have.
    std::signal(signalNumber, SIG_DFL);
    std::raise(signalNumber);
}

void InstallShrunkenFileGuard()
{
    static std::once_flag s_once;
    std::call_once(s_once, [] {
        const long cbPage = ::sysconf(_SC_PAGESIZE);
        if (cbPage > 0) g_cbPage = static_cast<std::size_t>(cbPage);
        struct sigaction guard {};
        guard.sa_sigaction = ZeroFillShrunkenPage;
        guard.sa_flags = SA_SIGINFO;
        sigemptyset(&guard.sa_mask);
        ::sigaction(SIGBUS, &guard, nullptr);
    });
}

// Lists a mapping for the SIGBUS handler; the slot, or -1 when the table is
// full (the caller then reads the file instead).
int ListMapping(const char* p, std::size_t cb)
{
    for (int i = 0; i < kcMapSlots; ++i) {
        MappedRange& range = g_mappedInputs[i];
        if (range.bClaimed.exchange(true)) continue;
        // The begin last: the handler looks at a range only once it is set.
        range.cb.store(cb);
        range.bShrank.store(false);
        range.pBegin.store(p);
        return i;
    }
    return -1;
}

// Closes a descriptor on every way out.
struct CFdCloser {
    int fd;
    ~CFdCloser() { ::close(fd); }
};

// After this much more is consumed, the pages behind are given back.
constexpr std::size_t kcbReleaseStep = 8 << 20;

} // namespace

CInputBytes::CInputBytes(const std::string& path)
{
    if (path == "-") {
        ReadAll(STDIN_FILENO, 0);
        return;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw ToolError(exitIoError, "cannot read: " + ErrnoText());
    CFdCloser closer{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw ToolError(exitIoError, "cannot read: " + ErrnoText());
    if (S_ISDIR(st.st_mode)) throw ToolError(exitIoError, "cannot read: is a directory");
    const std::size_t cbFile = S_ISREG(st.st_mode) ? static_cast<std::size_t>(st.st_size) : 0;
    if (cbFile == 0 || !Map(fd, cbFile)) ReadAll(fd, cbFile);
}

CInputBytes::~CInputBytes()
{
    if (m_mapSlot >= 0) {
        // Unlisted first: the handler must never see a range being unmapped.
        g_mappedInputs[m_mapSlot].pBegin.store(nullptr);
        ::munmap(m_p, MappedSize(m_cb));
        g_mappedInputs[m_mapSlot].bClaimed.store(false);
    }
}

void CInputBytes::CFree::operator()(char* p) const { std::free(p); }

std::size_t CInputBytes::MappedSize(std::size_t cb) { return (cb + g_cbPage) & ~(g_cbPage - 1); }

bool CInputBytes::Map(int fd, std::size_t cb)
{
    InstallShrunkenFileGuard();
    void* const pReserved =
        ::mmap(nullptr, MappedSize(cb), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pReserved == MAP_FAILED) return false;
    char* const p = static_cast<char*>(pReserved);
    // The page the file ends in is made writable for its NUL; private, so
    // nothing written reaches the file.
    const std::size_t cbWhole = cb & ~(g_cbPage - 1);
    if (::mmap(pReserved, cb, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd, 0) == MAP_FAILED ||
        (cbWhole < cb && ::mprotect(p + cbWhole, g_cbPage, PROT_READ | PROT_WRITE) != 0)) {
        ::munmap(pReserved, MappedSize(cb));
        return false; // a file system that cannot map: read instead
    }
    // The whole reservation: the NUL's page may be the file's last.
    const int slot = ListMapping(p, MappedSize(cb));
    if (slot < 0) {
        ::munmap(pReserved, MappedSize(cb));
        return false;
    }
    m_p = p;
    m_cb = cb;
    m_mapSlot = slot;
    // Read ahead generously, and each fault maps the pages around it that
    // are in the page cache already. Faulting the pages in ahead of the
    // reader in one call (MADV_POPULATE_READ) was measured no faster, and a
    // fourteenth slower for a reader of pictures: the kernel takes the pages
    // one by one there, where a fault maps them in runs.
    ::madvise(pReserved, cb, MADV_SEQUENTIAL);
    p[cb] = '\0';
    return true;
}

void CInputBytes::ReadAll(int fd, std::size_t cbExpected)
{
    // Room for the NUL, and one byte more than expected, so that the end is
    // seen without growing.
    std::size_t cbCapacity = std::max<std::size_t>(cbExpected + 2, 64 * 1024);
    m_pRead.reset(static_cast<char*>(std::malloc(cbCapacity)));
    if (!m_pRead) throw std::bad_alloc();
    for (;;) {
        if (cbCapacity - m_cb < 2) {
            // Doubling keeps a long pipe's cost linear; realloc of large
            // blocks moves pages rather than bytes, and nothing is zeroed.
            char* const pGrown = static_cast<char*>(std::realloc(m_pRead.get(), cbCapacity * 2));
            if (!pGrown) throw std::bad_alloc();
            (void)m_pRead.release(); // realloc took it over
            m_pRead.reset(pGrown);
            cbCapacity *= 2;
        }
        const ssize_t cbRead = ::read(fd, m_pRead.get() + m_cb, cbCapacity - m_cb - 1);
        if (cbRead < 0 && errno == EINTR) continue;
        if (cbRead < 0) throw ToolError(exitIoError, "cannot read: " + ErrnoText());
        if (cbRead == 0) break;
        m_cb += static_cast<std::size_t>(cbRead);
    }
    m_pRead.get()[m_cb] = '\0';
    m_p = m_pRead.get();
}

void CInputBytes::DoneWith(std::size_t cbConsumed)
{
    if (m_mapSlot < 0) return;
    if (cbConsumed < m_cbReleased + kcbReleaseStep) return;
    const std::size_t cbRelease = std::min(cbConsumed, m_cb) & ~(g_cbPage - 1);
    if (cbRelease <= m_cbReleased) return;
    // The pages stay in the page cache; should a reader look back, they are
    // simply mapped again from the file.
    ::madvise(m_p + m_cbReleased, cbRelease - m_cbReleased, MADV_DONTNEED);
    m_cbReleased = cbRelease;
}

bool CInputBytes::Shrank() const { return m_mapSlot >= 0 && g_mappedInputs[m_mapSlot].bShrank.load(); }

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
        m_fd = STDOUT_FILENO;
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
        m_fd = ::open(m_target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (m_fd < 0) Fail("cannot write");
        return;
    }
    std::string dir, base;
    SplitPath(m_target, dir, base);
    m_tempPath = dir + "/." + base + ".XXXXXX";
    m_fd = ::mkostemp(&m_tempPath[0], O_CLOEXEC);
    if (m_fd < 0) {
        m_tempPath.clear();
        Fail("cannot write");
    }
    m_tempSlot = ListTemporaryFile(m_tempPath);
    // mkstemp creates 0600; the result should look like any file we write.
    ::fchmod(m_fd, bExists ? (st.st_mode & 07777) : NewFileMode());
}

COutput::~COutput()
{
    if (!m_bCommitted && m_tempPath.empty() && m_fd >= 0) {
        // Standard output and devices are streamed: what a failed conversion
        // wrote before it failed still goes out, as it did through stdio.
        try {
            Flush();
        } catch (const ToolError&) {
            // Already failing; the first error is the one reported.
        }
    }
    if (m_fd >= 0 && m_fd != STDOUT_FILENO) ::close(m_fd);
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
    if (cb > m_cbBlock - m_cbBuffered) Flush();
    // A block as large as the buffer gains nothing from a copy.
    if (cb >= m_cbBlock) {
        WriteThrough(p, cb);
        return;
    }
    if (cb == 0) return;
    if (!m_pBuffer) m_pBuffer.reset(new char[kcbOutputBuffer]); // not zeroed: every byte is written before it is read
    std::memcpy(m_pBuffer.get() + m_cbBuffered, p, cb);
    m_cbBuffered += cb;
}

void COutput::WriteBlock(const char* p, std::size_t cb)
{
    Flush();
    WriteThrough(p, cb);
}

bool COutput::GoesToFile() const
{
    struct stat st {};
    return ::fstat(m_fd, &st) == 0 && S_ISREG(st.st_mode);
}

void COutput::Flush()
{
    if (m_cbBuffered == 0) return;
    const std::size_t cb = m_cbBuffered;
    m_cbBuffered = 0; // a failed write is not tried again
    WriteThrough(m_pBuffer.get(), cb);
    // The first blocks are small, so that the output begins to appear (and a
    // full disk shows) early in a long conversion; later ones grow to the
    // whole buffer, so that a large output costs few system calls.
    m_cbBlock = std::min(m_cbBlock * 2, kcbOutputBuffer);
}

void COutput::WriteThrough(const char* p, std::size_t cb)
{
    while (cb > 0) {
        const ssize_t cbWritten = ::write(m_fd, p, cb);
        if (cbWritten < 0 && errno == EINTR) continue;
        if (cbWritten <= 0) {
            if (cbWritten == 0) errno = EIO; // no progress and no reason: do not spin
            Fail("cannot write");
        }
        p += cbWritten;
        cb -= static_cast<std::size_t>(cbWritten);
    }
}

void COutput::Commit()
{
    Flush();
    if (m_fd == STDOUT_FILENO) {
        m_bCommitted = true;
        return;
    }
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0) Fail("cannot write");
    if (!m_tempPath.empty() && ::rename(m_tempPath.c_str(), m_target.c_str()) != 0) Fail("cannot write");
    m_bCommitted = true;
    Forget();
}

} // namespace rtfconv
