// Inputs read whole, and outputs that replace their target only on success.
#include "tools/rtfconv/ToolCommon.h"

#include <cerrno>
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

} // namespace rtfconv
