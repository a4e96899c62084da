// The host's logging library: assertion reports and traces.
//
// Both entry points always return; nothing aborts. Reports go to a replaceable
// sink. The default sink is silent unless the environment variable RTFCONV_LOG
// is set, in which case it writes to standard error, so that a command-line
// tool stays quiet on malformed input.
#pragma once
#include "rtfconverter/Export.h"

struct RTFCONV_API VQLogSink {
    virtual void OnAssert(const char* expr, const char* file, int line) = 0;
    virtual void OnTrace(const char* text) = 0;
    virtual ~VQLogSink() = default;
};

// Installs `pSink` (null restores the default sink) and returns the previous
// sink (null when it was the default). The sink is process-wide; replacing it
// while other threads log is not synchronised with their reports in flight.
RTFCONV_API VQLogSink* VQSetLogSink(VQLogSink* pSink);

// Reports a failed assertion. `file` may be a path: the sink receives its base
// name without folders and extension ("DocCmd" for "src/DocCmd.cpp").
RTFCONV_API void _vqassert_(const char* expr, const char* file, int line);

// Formats a trace printf-style and hands it to the sink.
RTFCONV_API void _vqtrace_(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

// The library reports through these so that the expression text is the one
// written in the source, e.g. VQASSERT(m_cGroup > 0) reports "m_cGroup > 0".
#define VQASSERT(expr)                                   \
    do {                                                 \
        if (!(expr))                                     \
            ::_vqassert_(#expr, __FILE__, __LINE__);     \
    } while (0)
#define VQTRACE(...) ::_vqtrace_(__VA_ARGS__)
