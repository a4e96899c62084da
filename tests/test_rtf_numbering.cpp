// Number texts and the restart rule of paragraph numbering.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "hostlibs/MFCKVUtils.h"
#include "rtfconverter/RTFNumbering.h"
#include "test_util.h"

using namespace rtf_converter;

namespace {

CNumberingInfo Info(int level, int start, NumberingType type, const char* before = "", const char* after = "")
{
    CNumberingInfo info;
    info.SetLevel(level);
    info.SetStartNum(start);
    info.SetNumberingType(type);
    info.SetTextBefore(before);
    info.SetTextAfter(after);
    return info;
}

// Renders into a buffer of cbSize bytes; the text up to the NUL or the end.
std::pair<bool, std::string> Render(const CNumberingState& state, unsigned cbSize)
{
    std::string buf(cbSize + 1, '\x7f');
    char* p = &buf[0];
    const bool bOk = state.FormatNumberingString(p, cbSize);
    buf.resize(static_cast<std::size_t>(p - buf.data()));
    return {bOk, buf};
}

} // namespace

TEST(Numbering, UtilityNumberTexts)
{
    char text[40];
    const std::pair<int, const char*> letters[] = {{1, "a"}, {26, "z"}, {27, "aa"}, {28, "bb"}, {53, "aaa"}, {0, ""}, {-3, ""}};
    for (const auto& row : letters) {
        AlphaFormat(text, row.first, 0);
        EXPECT_STREQ(text, row.second) << row.first;
    }
    AlphaFormat(text, 27, 1);
    EXPECT_STREQ(text, "AA");
    AlphaFormat(text, 1000000, 0);
    EXPECT_EQ(std::strlen(text), 19u);  // never past the 20-byte buffer

    const std::pair<int, const char*> romans[] = {{1, "I"}, {4, "IV"}, {9, "IX"}, {14, "XIV"}, {1994, "MCMXCIV"}, {3999, "MMMCMXCIX"}};
    for (const auto& row : romans) {
        char* p = text;
        EXPECT_NE(BuildRomanNumber(p, row.first), 0);
        EXPECT_STREQ(text, row.second);
        EXPECT_EQ(p, text + std::strlen(row.second));
    }
    for (int refused : {0, -1, 4000}) {
        char* p = text;
        EXPECT_EQ(BuildRomanNumber(p, refused), 0) << refused;
        EXPECT_EQ(p, text);
    }
}

TEST(Numbering, RestartComparesWithThePreviousParagraph)
{
    CNumberingState state;
    state.SetCurrentInfo(Info(1, 3, pntDecimal, "", "."));
    EXPECT_EQ(state.m_number, 3);
    ++state.m_number;  // \par
    state.ResetParagraph();
    EXPECT_FALSE(state.GetCurrentInfo().GetNumberingOn());

    // Same start, type and texts (whatever the level and case): counting goes on.
    state.SetCurrentInfo(Info(4, 3, pntDecimal, "", "."));
    EXPECT_EQ(state.m_number, 4);
    ++state.m_number;
    state.ResetParagraph();
    state.SetCurrentInfo(Info(1, 3, pntDecimal, "", "."));
    EXPECT_EQ(state.m_number, 5);

    // Compared with the previous paragraph's, not with the current one.
    state.SetCurrentInfo(Info(1, 3, pntDecimal, "", "."));
    EXPECT_EQ(state.m_number, 5);
    state.ResetParagraph();
    state.SetCurrentInfo(Info(1, 3, pntLowerRoman, "", "."));
    EXPECT_EQ(state.m_number, 3);

    // A paragraph without numbering between two alike ends the list.
    state.m_number = 9;
    state.ResetParagraph();
    state.ResetParagraph();
    state.SetCurrentInfo(Info(1, 3, pntLowerRoman, "", "."));
    EXPECT_EQ(state.m_number, 3);
}

TEST(Numbering, RenderingFailsWithAPartialTextWhenRoomRunsOut)
{
    CNumberingState state;
    state.SetCurrentInfo(Info(3, 12, pntDecimal, "(", ")"));
    EXPECT_EQ(Render(state, 512), std::make_pair(true, std::string("\t\t(12)\t\0", 8)));
    // Exactly enough: 2 TABs, "(12)", TAB, NUL.
    EXPECT_EQ(Render(state, 8).first, true);
    EXPECT_EQ(Render(state, 7), std::make_pair(false, std::string("\t\t(12)\t")));
    // A text needs room for its NUL: "(" does not fit in the last byte.
    EXPECT_EQ(Render(state, 3), std::make_pair(false, std::string("\t\t")));
    EXPECT_EQ(Render(state, 1), std::make_pair(false, std::string("\t")));
}

TEST(Numbering, NoNumberingReportsWhenRendered)
{
    rtfconv_test::CRecordingLogSink log;
    CNumberingState state;
    state.SetCurrentInfo(Info(1, 0, pntNone, "", "x"));
    EXPECT_EQ(Render(state, 16).second, std::string("x\t\0", 3));
    EXPECT_EQ(log.AssertTexts(), std::vector<std::string>{"bRes@RTFNumbering"});
}
