// Helpers shared by the test files.
#pragma once

#include <string>
#include <vector>

#include "hostlibs/VQLogger.h"

namespace rtfconv_test {

// Records every assertion and trace while it is installed.
class CRecordingLogSink : public VQLogSink {
public:
    struct Assertion {
        std::string expr, file;
        int line;
    };
    CRecordingLogSink() : m_pPrevious(VQSetLogSink(this)) {}
    ~CRecordingLogSink() override { VQSetLogSink(m_pPrevious); }
    CRecordingLogSink(const CRecordingLogSink&) = delete;
    CRecordingLogSink& operator=(const CRecordingLogSink&) = delete;

    void OnAssert(const char* expr, const char* file, int line) override { asserts.push_back({expr, file, line}); }
    void OnTrace(const char* text) override { traces.emplace_back(text); }

    // "expr@file" of each assertion, in order.
    std::vector<std::string> AssertTexts() const
    {
        std::vector<std::string> out;
        for (const Assertion& a : asserts) out.push_back(a.expr + "@" + a.file);
        return out;
    }

    std::vector<Assertion> asserts;
    std::vector<std::string> traces;

private:
    VQLogSink* m_pPrevious;
};

std::string ReadFileBytes(const std::string& path);
// The paths of the corpus's RTF documents, sorted.
std::vector<std::string> CorpusRtfFiles();

} // namespace rtfconv_test
