// The code-page tables against a decoder that asks iconv one byte or pair at
// a time from the initial state: the tables are built many pairs to a call, or
// compiled in (1252), and must hold exactly what a byte or pair decoded on its
// own gives, for every page the library builds, every single byte, every lead
// and every trail byte; the encoding must give each character its first form
// in byte order, and nothing for the characters the page lacks.
#include <gtest/gtest.h>

#include <iconv.h>

#include <cerrno>
#include <map>
#include <string>

#include "rtfconverter/CodePages.h"

using rtf_converter::CCodePage;

namespace {

// The pages the library's tables name: Windows, OEM, Macintosh (some of them
// read through the Windows pages of the same standard), ISO and KOI8. Those
// iconv does not know are skipped by Get returning null.
constexpr int kPages[] = {
    437,   850,   874,   932,   936,   949,   950,   1250,  1251,  1252,  1253,  1254,  1255,
    1256,  1257,  1258,  1361,  10000, 10001, 10002, 10003, 10004, 10005, 10006, 10007, 10008,
    10017, 10021, 10029, 10079, 10081, 20127, 20866, 21866, 28591, 28592, 28593, 28594, 28595,
    28596, 28597, 28598, 28599, 28603, 28605,
};

// What iconv makes of a byte alone, besides a character.
constexpr char32_t kIncomplete = 0xFFFFFFFE;

// The character of one or two bytes the slow way: a fresh state, the bytes
// alone, the first character of what comes out (after asking for any held
// back); kIncomplete when iconv waits for more, invalidPair for anything else
// it refuses or leaves unfinished.
char32_t ReferenceCharacter(iconv_t cd, const unsigned char* pb, std::size_t cb)
{
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    unsigned char in[2] = {pb[0], cb > 1 ? pb[1] : static_cast<unsigned char>(0)};
    char* pIn = reinterpret_cast<char*>(in);
    std::size_t cbIn = cb;
    unsigned char out[32];
    char* pOut = reinterpret_cast<char*>(out);
    std::size_t cbOut = sizeof out;
    if (iconv(cd, &pIn, &cbIn, &pOut, &cbOut) == static_cast<std::size_t>(-1))
        return errno == EINVAL ? kIncomplete : CCodePage::invalidPair;
    if (cbIn != 0)
        return CCodePage::invalidPair;
    if (sizeof out - cbOut < 4)
        iconv(cd, nullptr, nullptr, &pOut, &cbOut);
    if (sizeof out - cbOut < 4)
        return CCodePage::invalidPair;
    return static_cast<char32_t>(out[0]) | static_cast<char32_t>(out[1]) << 8
        | static_cast<char32_t>(out[2]) << 16 | static_cast<char32_t>(out[3]) << 24;
}

char32_t ReferencePair(iconv_t cd, unsigned char lead, unsigned char trail)
{
    const unsigned char pair[2] = {lead, trail};
    const char32_t cp = ReferenceCharacter(cd, pair, 2);
    return cp == kIncomplete ? CCodePage::invalidPair : cp;
}

// The Macintosh bytes the library reads otherwise than the Windows page of
// the same standard, which iconv knows them by.
bool HasByteOverrides(int codePage) { return codePage == 10001 || codePage == 10081; }

// Asserts every single byte and pair of the page against the reference and
// fills the reference encoding: each character other than ASCII with its
// first bytes.
void CheckBytes(const CCodePage& page, int codePage, std::map<char32_t, unsigned>& encoding, int& nLeads)
{
    const iconv_t cd = iconv_open("UTF-32LE", rtf_converter::IconvNameOfCodePage(codePage).c_str());
    EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1)) << codePage;
    if (cd == reinterpret_cast<iconv_t>(-1))
        return;
    for (unsigned b = 0; b < 256; ++b) {
        const unsigned char byte = static_cast<unsigned char>(b);
        const char32_t expected = ReferenceCharacter(cd, &byte, 1);
        const bool bDefined = expected != kIncomplete && expected != CCodePage::invalidPair;
        if (!HasByteOverrides(codePage)) {
            ASSERT_EQ(page.IsLeadByte(byte), expected == kIncomplete) << codePage << " " << b;
            ASSERT_EQ(page.Single(byte), bDefined ? expected : U'\uFFFD') << codePage << " " << b;
        }
        if (b >= 0x80 && !page.IsLeadByte(byte) && page.Single(byte) != 0xFFFD)
            encoding.emplace(page.Single(byte), b);
    }
    for (unsigned lead = 0; lead < 256; ++lead) {
        const unsigned char l = static_cast<unsigned char>(lead);
        if (!page.IsLeadByte(l)) {
            EXPECT_EQ(page.Pair(l, 0x40), CCodePage::invalidPair) << codePage << " " << lead;
            continue;
        }
        ++nLeads;
        for (unsigned trail = 0; trail < 256; ++trail) {
            const unsigned char t = static_cast<unsigned char>(trail);
            const char32_t expected = ReferencePair(cd, l, t);
            ASSERT_EQ(page.Pair(l, t), expected) << codePage << " " << lead << " " << trail;
            if (expected != CCodePage::invalidPair && expected != 0xFFFD)
                encoding.emplace(expected, lead << 8 | trail);
        }
    }
    iconv_close(cd);
}

void CheckEncoding(const CCodePage& page, int codePage, const std::map<char32_t, unsigned>& encoding)
{
    for (const auto& form : encoding) {
        unsigned char out[2] = {};
        const int n = page.Encode(form.first, out);
        const unsigned bytes = n == 1 ? out[0] : static_cast<unsigned>(out[0] << 8 | out[1]);
        ASSERT_EQ(n, form.second < 0x100 ? 1 : 2) << codePage << " U+" << std::hex << form.first;
        ASSERT_EQ(bytes, form.second) << codePage << " U+" << std::hex << form.first;
    }
    // Every other character of the planes in use, and the free-slot marker,
    // has no bytes.
    for (char32_t cp = 0x80; cp < 0x30000; ++cp) {
        unsigned char out[2];
        if (encoding.count(cp) != 0)
            continue;
        ASSERT_EQ(page.Encode(cp, out), 0) << codePage << " U+" << std::hex << cp;
    }
    unsigned char out[2];
    EXPECT_EQ(page.Encode(CCodePage::invalidPair, out), 0) << codePage;
    EXPECT_EQ(page.Encode(0x10FFFF, out), 0) << codePage;
}

} // namespace

TEST(CodePageTables, EveryByteAndPairAndEncodingMatchesDecodingOneAtATime)
{
    int nPages = 0;
    int nLeads = 0;
    std::size_t nCharacters = 0;
    for (int codePage : kPages) {
        const CCodePage* pPage = CCodePage::Get(codePage);
        if (!pPage)
            continue;
        ++nPages;
        std::map<char32_t, unsigned> encoding;
        CheckBytes(*pPage, codePage, encoding, nLeads);
        if (HasFatalFailure())
            return;
        CheckEncoding(*pPage, codePage, encoding);
        if (HasFatalFailure())
            return;
        nCharacters += encoding.size();
    }
    // The double-byte pages were among them, or the pairs were never tried.
    EXPECT_GE(nPages, 30);
    EXPECT_GE(nLeads, 5 * 100);
    EXPECT_GE(nCharacters, 4u * 15000);
}
