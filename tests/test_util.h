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

// The handlers a reader derived from CBaseRTFParser must define, all doing
// nothing, for tests that watch only the tokenizer's events.
#define RTFCONV_TEST_NOOP(name) \
    bool name(const void*, int) override { return true; }
// A test reader's group handlers that note each '{' and '}' in `events`, then
// do what the base parser does.
#define RTFCONV_TEST_RECORD_GROUPS(events) \
    bool PushRtfState() override { events += "{"; return CBaseRTFParser::PushRtfState(); } \
    bool PopRtfState() override { events += "}"; return CBaseRTFParser::PopRtfState(); }

#define RTFCONV_TEST_BASE_PARSER_HANDLERS \
    RTFCONV_TEST_NOOP(FillFontFamily) RTFCONV_TEST_NOOP(FillFontCharset) RTFCONV_TEST_NOOP(GetFontNum) \
    RTFCONV_TEST_NOOP(ApplyFontSize) bool AttachmentHandler() override { return true; } \
    RTFCONV_TEST_NOOP(FillColorTable) RTFCONV_TEST_NOOP(ApplyColorCommand) RTFCONV_TEST_NOOP(ApplyBKColorCommand) \
    RTFCONV_TEST_NOOP(FieldResult) RTFCONV_TEST_NOOP(GetDefaultFontNum) RTFCONV_TEST_NOOP(ProcessSpecial) \
    RTFCONV_TEST_NOOP(InsertSpecialChar) RTFCONV_TEST_NOOP(GetBinary) RTFCONV_TEST_NOOP(ApplyCharCommand) \
    RTFCONV_TEST_NOOP(ApplyTabCommand) RTFCONV_TEST_NOOP(ApplyPlainCommand) RTFCONV_TEST_NOOP(SkipCharacters) \
    RTFCONV_TEST_NOOP(ApplyNLCommand) RTFCONV_TEST_NOOP(ApplyStartRowCommand) RTFCONV_TEST_NOOP(ApplyEndRowCommand) \
    RTFCONV_TEST_NOOP(ApplyLastRowCommand) RTFCONV_TEST_NOOP(ApplyEndCellCommand) RTFCONV_TEST_NOOP(InitAttachment) \
    RTFCONV_TEST_NOOP(SetPictureType) RTFCONV_TEST_NOOP(ObjectData) RTFCONV_TEST_NOOP(ObjectResult)
