#include "VQLogger.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

class CStderrSink : public VQLogSink {
public:
    void OnAssert(const char* expr, const char* file, int line) override
    {
        if (Enabled())
            std::fprintf(stderr, "assertion failed: %s (%s:%d)\n", expr, file, line);
    }
    void OnTrace(const char* text) override
    {
        if (Enabled())
            std::fputs(text, stderr);
    }

private:
    static bool Enabled()
    {
        static const bool s_bEnabled = std::getenv("RTFCONV_LOG") != nullptr;
        return s_bEnabled;
    }
};

CStderrSink g_defaultSink;
std::atomic<VQLogSink*> g_pSink{nullptr};

VQLogSink& CurrentSink()
{
    VQLogSink* p = g_pSink.load(std::memory_order_acquire);
    return p ? *p : g_defaultSink;
}

// "dir/RTFParser.cpp" -> "RTFParser", into a caller buffer.
const char* BaseName(const char* path, char* buf, std::size_t cb)
{
    if (!path) return "";
    const char* base = path;
    for (const char* p = path; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;
    std::size_t len = std::strlen(base);
    if (const char* dot = std::strrchr(base, '.')) len = static_cast<std::size_t>(dot - base);
    if (len >= cb) len = cb - 1;
    std::memcpy(buf, base, len);
    buf[len] = '\0';
    return buf;
}

} // namespace

VQLogSink* VQSetLogSink(VQLogSink* pSink)
{
    return g_pSink.exchange(pSink, std::memory_order_acq_rel);
}

void _vqassert_(const char* expr, const char* file, int line)
{
    char base[256];
    CurrentSink().OnAssert(expr ? expr : "", BaseName(file, base, sizeof base), line);
}

void _vqtrace_(const char* format, ...)
{
    char text[1024] = "";
    if (format) {
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
    }
    CurrentSink().OnTrace(text);
}
