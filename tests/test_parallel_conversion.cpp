// Conversions on several threads at once: what the readers and writers share
// (the keyword index, the code-page tables that are built the first time a
// page, a lead byte or an encoding is needed, the lossless reading's keyword
// tables, built at its first use) is built once and read safely by every
// thread. Each thread's output must equal the one a single thread gives
// afterwards; under ThreadSanitizer (`make tsan`) the same runs also check
// that no access races. Each test runs in a fresh process under ctest, so the
// threads, not an earlier test, build the shared tables.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "rtfconverter/RTFToOld.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"
#include "rtfconverter/Utf8ToRTF.h"

namespace {

constexpr int kThreads = 4;

// Documents in single-byte and double-byte pages, with lead bytes that each
// need a trail table, and a Symbol font.
const std::vector<std::string> kDocuments = {
    "{\\rtf1\\ansi\\ansicpg1251 \\'cf\\'f0\\'e8\\'e2\\'e5\\'f2\\par x}",
    "{\\rtf1\\ansi\\ansicpg932 \\'82\\'a0\\'83\\'41\\'88\\'9f\\'e0\\'40\\par}",
    "{\\rtf1\\ansi\\ansicpg936 \\'b0\\'a1\\'c4\\'e3\\'ba\\'c3}",
    "{\\rtf1\\ansi\\ansicpg949 \\'b0\\'a1\\'c7\\'d1}",
    "{\\rtf1\\ansi\\ansicpg950 \\'a4\\'a4\\'a4\\'e5}",
    "{\\rtf1{\\fonttbl{\\f0 Arial;}{\\f1\\fcharset2 Symbol;}{\\f2\\fcharset161 G;}}\\f1 abg\\f2 \\'e1\\u8364?\\par}",
    "{\\rtf1{\\pn\\pnlvl3\\pndec{\\pntxtb (}}\\b x\\par {\\field{\\*\\fldinst HYPERLINK a.b}{\\fldrslt go}}}",
};

// UTF-8 texts for the writer, each with its page.
struct WriterCase {
    int codePage;
    std::string text;
};
const std::vector<WriterCase> kWriterCases = {
    {932, "\xE3\x81\x82\xE3\x82\xA2\xE4\xBA\x9C"},
    {936, "\xE4\xBD\xA0\xE5\xA5\xBD"},
    {1251, "\xD0\x9F\xD1\x80\xD0\xB8"},
    {1253, "\xCE\xB1\xCE\xB2"},
};

// Every reader's Read loop, with a small buffer so that each resumes often.
template <class TReader>
std::string PullAll(TReader& reader)
{
    std::string out;
    char buf[64];
    for (bool bMore = true; bMore;)
        out.append(buf, static_cast<std::size_t>(reader.Read(buf, buf + sizeof buf, bMore)));
    return out;
}

std::string Utf8Text(const std::string& rtf)
{
    rtf_converter::CBytePtrRTFToUTF8PtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()),
                                                    static_cast<unsigned long>(rtf.size()));
    return PullAll(reader);
}

std::string PlainText(const std::string& rtf)
{
    rtf_converter::CBytePtrRTFToPlainTextPtrParser reader(reinterpret_cast<const unsigned char*>(rtf.data()),
                                                         static_cast<unsigned long>(rtf.size()));
    return PullAll(reader);
}

std::string OldText(const std::string& rtf, bool bLossless)
{
    rtf_converter::CRTFPtrImport reader(rtf.c_str());
    reader.SetLossless(bLossless);
    return PullAll(reader);
}

std::string WriterRtf(const WriterCase& c)
{
    rtf_converter::CUTF8TextToRTF writer;
    writer.SetCodePage(c.codePage);
    writer.Convert(c.text.c_str(), nullptr);
    const CString doc = writer.Export();
    return std::string(doc.GetString(), static_cast<std::size_t>(doc.GetLength()));
}

// Everything one thread converts, in one string per conversion.
std::vector<std::string> ConvertAll()
{
    std::vector<std::string> outputs;
    for (const std::string& rtf : kDocuments) {
        outputs.push_back(Utf8Text(rtf));
        outputs.push_back(PlainText(rtf));
        outputs.push_back(OldText(rtf, false));
        outputs.push_back(OldText(rtf, true));
    }
    for (const WriterCase& c : kWriterCases)
        outputs.push_back(WriterRtf(c));
    return outputs;
}

TEST(ParallelConversion, ThreadsShareTheKeywordIndexAndCodePageTables)
{
    std::vector<std::vector<std::string>> results(kThreads);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&results, &ready, i] {
            // Start together, so that the first uses of the shared tables meet.
            ++ready;
            while (ready.load() < kThreads)
                std::this_thread::yield();
            results[static_cast<std::size_t>(i)] = ConvertAll();
        });
    }
    for (std::thread& t : threads)
        t.join();

    const std::vector<std::string> reference = ConvertAll();
    ASSERT_EQ(reference.size(), kDocuments.size() * 4 + kWriterCases.size());
    EXPECT_EQ(reference[0], "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82\nx\n");
    for (const std::vector<std::string>& result : results)
        EXPECT_EQ(result, reference);
}

} // namespace
