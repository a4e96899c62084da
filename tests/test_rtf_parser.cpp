// The tokenizer and the keyword dispatch, seen through a reader that records
// every event the core hands down.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "rtfconverter/BaseRTFParser.h"
#include "test_util.h"

using namespace rtf_converter;

namespace {

// Records characters as themselves, keywords as "\kw(param)" ("\kw" without a
// parameter) and groups as "{" and "}"; unknown keywords are recorded too.
class CRecordingReader : public CBaseRTFParser {
public:
    explicit CRecordingReader(const std::string& rtf) : m_rtf(rtf) {}

    std::string Run()
    {
        bool bMore = true;
        Parse(bMore);
        return m_events;
    }

    RDS Destination() const { return m_rds; }
    int Depth() const { return m_cGroup; }
    using CBaseRTFParser::FindKeyword;
    using CBaseRTFParser::s_Cmds;

    std::vector<RDS> rdsAtChar;  // destination in force at each character

protected:
    bool InitBuffer() override { return true; }
    long Get(char& ch) override
    {
        if (m_pos >= m_rtf.size()) return -1;
        ch = m_rtf[m_pos++];
        return 0;
    }
    void MarkBacktrack(int n) override { m_mark = m_pos - static_cast<std::size_t>(n); }
    void Backtrack(int n) override { m_pos = n == -1 ? m_mark : m_pos - static_cast<std::size_t>(n); }
    bool ParseChar(char ch) override
    {
        m_events += ch;
        rdsAtChar.push_back(m_rds);
        return true;
    }
    bool TranslateKeyword(const char* szKeyword, int param) override
    {
        m_events += "\\";
        m_events += szKeyword;
        if (param != noParam) m_events += "(" + std::to_string(param) + ")";
        return CBaseRTFParser::TranslateKeyword(szKeyword, param);
    }
    RTFCONV_TEST_RECORD_GROUPS(m_events)
    bool EndGroupAction(RDS rdsOld, RDS rdsNew) override
    {
        endGroups.push_back({rdsOld, rdsNew});
        return CBaseRTFParser::EndGroupAction(rdsOld, rdsNew);
    }

    RTFCONV_TEST_BASE_PARSER_HANDLERS

public:
    std::vector<std::pair<RDS, RDS>> endGroups;

private:
    std::string m_rtf;
    std::size_t m_pos = 0, m_mark = 0;
    std::string m_events;
};

std::string Events(const std::string& rtf)
{
    CRecordingReader reader(rtf);
    return reader.Run();
}

struct TokenRow {
    const char* what;
    std::string rtf;
    std::string events;
};

} // namespace

TEST(Tokenizer, ControlWordParameterOutcomes)
{
    const TokenRow rows[] = {
        {"space delimits, consumed", "{\\par x}", "{\\parx}"},
        {"digits then space", "{\\fs24 x}", "{\\fs(24)x}"},
        {"digits then a byte read again", "{\\fs24x}", "{\\fs(24)x}"},
        {"negative number", "{\\li-360 x}", "{\\li(-360)x}"},
        {"other byte read again", "{\\b\\i x}", "{\\b\\ix}"},
        {"minus then space: space read again", "{\\fs- x}", "{\\fs x}"},
        {"minus then other byte: minus lost", "{\\fs-x}", "{\\fsx}"},
        {"32-bit wrap", "{\\fs4294967297 }", "{\\fs(1)}"},
        {"closing brace after keyword", "{\\par}", "{\\par}"},
        {"control symbols", "{\\~\\-\\_x}", "{\\~(0)\\-(0)\\_(0)x}"},
        {"escaped specials are characters", "{\\\\\\{\\}}", "{\\{}}"},
        {"backslash then CR is a symbol", "{a\\\rb}", "{a\\\r(0)b}"},
        {"hex escape", "{\\'41}", "{\\'(0)A}"},
        {"hex escape lower case", "{\\'e9}", "{\\'(0)\xe9}"},
        {"hex escape half valid: both read again", "{\\'4g}", "{\\'(0)4g}"},
        {"hex escape invalid first", "{\\'zz}", "{\\'(0)zz}"},
        {"hex escape 00 gives nothing", "{\\'00x}", "{\\'(0)x}"},
        {"CR and LF ignored", "{a\r\nb}", "{ab}"},
        {"parse ends at the outermost brace", "{a}b", "{a}"},
        {"must open with a brace", "x{a}", "x"},
        {"leading CR LF ends at once", "\r\n{a}", ""},
        {"backslash at end dropped", "{a\\", "{a"},
    };
    for (const TokenRow& row : rows)
        EXPECT_EQ(Events(row.rtf), row.events) << row.what;
}

TEST(Tokenizer, LongWordsAndCutOffInput)
{
    // 35 letters: the first 30 form the keyword, the 31st is read again.
    const std::string letters35 = "abcdefghijklmnopqrstuvwxyzabcde";
    EXPECT_EQ(Events("{\\" + letters35 + "fghi}"),
              "{\\abcdefghijklmnopqrstuvwxyzabcdefghi}");

    // Cut off inside a word: the failed reads leave the last letter, so the
    // word is padded to 30 letters and the last letter becomes text.
    EXPECT_EQ(Events("{\\pa"), "{\\p" + std::string(29, 'a') + "a");

    // Cut off inside a parameter: the end of input delimits the number.
    EXPECT_EQ(Events("{\\fs12"), "{\\fs(12)");
}

TEST(Tokenizer, NulAfterKeywordIsPassedOver)
{
    const std::string rtf("{\\par\0x}", 8);
    EXPECT_EQ(Events(rtf), "{\\parx}");
}

TEST(KeywordTable, IndexAgreesWithFirstMatchScan)
{
    auto linear = [](const char* kw) {
        for (int row = 0; row < CBaseRTFParser::cCmds; ++row)
            if (std::strcmp(CRecordingReader::s_Cmds[row].szKeyword, kw) == 0) return row;
        return -1;
    };
    for (int row = 0; row < CBaseRTFParser::cCmds; ++row) {
        const char* kw = CRecordingReader::s_Cmds[row].szKeyword;
        EXPECT_EQ(CRecordingReader::FindKeyword(kw), linear(kw)) << kw;
    }
    for (const char* unknown : {"PAR", "u", "uc", "rtf", "ansi", "sect", "pa", "pardx", "", "\\", "pnlcrmx"})
        EXPECT_EQ(CRecordingReader::FindKeyword(unknown), -1) << unknown;

    // The second "pnlcrm" row is shadowed by the first.
    EXPECT_STREQ(CRecordingReader::s_Cmds[33].szKeyword, "pnlcrm");
    EXPECT_STREQ(CRecordingReader::s_Cmds[34].szKeyword, "pnlcrm");
    EXPECT_EQ(CRecordingReader::FindKeyword("pnlcrm"), 33);
    EXPECT_STREQ(CRecordingReader::s_Cmds[0].szKeyword, "pard");
    EXPECT_STREQ(CRecordingReader::s_Cmds[89].szKeyword, "info");
}

TEST(Destinations, GroupsSaveAndRestoreTheDestination)
{
    struct Row {
        const char* rtf;
        std::vector<RDS> atChars;
    };
    const Row rows[] = {
        {"{a{\\fonttbl b}c}", {rdsNorm, rdsFontTable, rdsNorm}},
        {"{{\\colortbl a}{\\stylesheet b}{\\info c}{\\revtbl d}e}",
         {rdsColorTable, rdsStyleSheet, rdsInfo, rdsRevTable, rdsNorm}},
        // An unknown word after \* skips the whole group, nested groups too.
        {"{{\\*\\foo a{\\b b}c}d}", {rdsSkip, rdsSkip, rdsSkip, rdsNorm}},
        // A known word after \* clears the mark.
        {"{{\\*\\fldinst a}b}", {rdsFieldInst, rdsNorm}},
        // The mark survives text until the next unknown word.
        {"{{\\*a\\foo b}c}", {rdsNorm, rdsSkip, rdsNorm}},
        // Nothing is looked up in a skipped group, not even \fonttbl.
        {"{{\\*\\foo{\\fonttbl a}}b}", {rdsSkip, rdsNorm}},
        // \sbasedon skips the rest of its group.
        {"{{a\\sbasedon b}c}", {rdsNorm, rdsSkip, rdsNorm}},
        // \ssstraux toggles hidden text and restores on the second use.
        {"{{a\\ssstraux b\\ssstraux c}d}", {rdsNorm, rdsHidden, rdsNorm, rdsNorm}},
        {"{{\\field{\\*\\fldinst a}}b}", {rdsFieldInst, rdsNorm}},
        {"{{\\pntxtb a}{\\pntxta b}}", {rdsPNTextBefore, rdsPNTextAfter}},
    };
    for (const Row& row : rows) {
        CRecordingReader reader(row.rtf);
        reader.Run();
        EXPECT_EQ(reader.rdsAtChar, row.atChars) << row.rtf;
        EXPECT_EQ(reader.Depth(), 0) << row.rtf;
        EXPECT_EQ(reader.Destination(), rdsNorm) << row.rtf;
    }
}

TEST(Destinations, EndGroupActionSeesTheEndingAndRestoredDestinations)
{
    CRecordingReader reader("{{\\*\\pn\\pnlvl3{\\pntxtb (}}}");
    rtfconv_test::CRecordingLogSink log;
    reader.Run();
    const std::vector<std::pair<RDS, RDS>> expected = {
        {rdsPNTextBefore, rdsPNCommand}, {rdsPNCommand, rdsNorm}, {rdsNorm, rdsNorm}};
    EXPECT_EQ(reader.endGroups, expected);
    EXPECT_TRUE(log.asserts.empty());
}

TEST(Destinations, AssertionsAndTracesOfTheGroupStack)
{
    rtfconv_test::CRecordingLogSink log;
    {
        // \pndec outside a \pn group stores the type after reporting.
        CRecordingReader reader("{\\pndec x}");
        reader.Run();
    }
    EXPECT_EQ(log.AssertTexts(), std::vector<std::string>{"rdsPNCommand == m_rds@BaseRTFParser"});

    // A reader abandoned with groups open releases their records (checked by
    // LeakSanitizer in the sanitizer build).
    CRecordingReader open("{{{{{a");
    open.Run();
    EXPECT_EQ(open.Depth(), 5);
    CRecordingReader copy(open);  // shares the open records
    EXPECT_EQ(copy.Depth(), 5);
}

namespace {

// Writes a pattern into each of its group records, of cbPayload bytes and
// aligned to `align`, and checks it at the group's '}'. A '!' in the text
// reads `nested` meanwhile, so that records of other sizes come and go while
// this reader's are open.
template <std::size_t cbPayload, std::size_t align>
class CPayloadReader : public CRecordingReader {
public:
    CPayloadReader(const std::string& rtf, unsigned char tag, std::function<void()> nested)
        : CRecordingReader(rtf), m_tag(tag), m_nested(std::move(nested))
    {
    }
    int cCreated = 0, cChecked = 0, cMisaligned = 0, cSpoilt = 0;

protected:
    struct alignas(align) CPayloadSave : CBaseRTFParserSave {
        unsigned char payload[cbPayload];
    };
    unsigned char Pattern(int depth) const { return static_cast<unsigned char>(m_tag + depth); }

    CBaseRTFParserSave* CreateSave() override
    {
        CPayloadSave* pSave = new (std::nothrow) CPayloadSave;
        if (!pSave)
            return nullptr;
        ++cCreated;
        cMisaligned += reinterpret_cast<std::uintptr_t>(pSave) % align != 0 ? 1 : 0;
        std::memset(pSave->payload, Pattern(m_cGroup), cbPayload);
        return pSave;
    }
    bool PopRtfState() override
    {
        const CPayloadSave* pSave = static_cast<const CPayloadSave*>(m_pSave);
        ++cChecked;
        for (unsigned char b : pSave->payload)
            cSpoilt += b != Pattern(m_cGroup - 1) ? 1 : 0;
        return CRecordingReader::PopRtfState();
    }
    bool ParseChar(char ch) override
    {
        if (ch == '!' && m_nested)
            m_nested();
        return CRecordingReader::ParseChar(ch);
    }

private:
    unsigned char m_tag;
    std::function<void()> m_nested;
};

template <std::size_t cbPayload, std::size_t align>
void ExpectRecordsKept(const std::string& rtf, unsigned char tag, std::function<void()> nested)
{
    CPayloadReader<cbPayload, align> reader(rtf, tag, std::move(nested));
    EXPECT_EQ(reader.Run(), Events(rtf)) << cbPayload;
    EXPECT_EQ(reader.cCreated, 4) << cbPayload;
    EXPECT_EQ(reader.cChecked, 4) << cbPayload;
    EXPECT_EQ(reader.cMisaligned, 0) << cbPayload;
    EXPECT_EQ(reader.cSpoilt, 0) << cbPayload;
}

} // namespace

TEST(GroupRecords, EachKeepsItsContentsWhileRecordsOfOtherSizesComeAndGo)
{
    // More sizes than a thread keeps records of, one of them over-aligned,
    // each reader's groups open while the next reader reads its own; twice,
    // the second time from records the first one freed.
    const std::string rtf = "{a{\\b b{c{d!}e}}f}";
    for (int pass = 0; pass < 2; ++pass) {
        ExpectRecordsKept<8, 8>(rtf, 0x10, [&] {
            ExpectRecordsKept<40, 8>(rtf, 0x20, [&] {
                ExpectRecordsKept<24, 64>(rtf, 0x30, [&] {
                    ExpectRecordsKept<200, 8>(rtf, 0x40, [&] {
                        ExpectRecordsKept<1000, 16>(rtf, 0x50, [&] { ExpectRecordsKept<8, 8>(rtf, 0x60, nullptr); });
                    });
                });
            });
        });
    }
}
