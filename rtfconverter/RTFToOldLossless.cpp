// The lossless reading of CRTFImport (SetLossless): each function here is
// the one point where a behaviour leaves the exact path, named for what
// it keeps. With the option off none of them runs.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "hostlibs/VQLogger.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/KeywordIndex.h"
#include "rtfconverter/RTFToOld.h"

namespace rtf_converter {

namespace {

// The first bytes are compared inline: most words tested differ there.
inline bool KeywordIs(const void* pKeyword, const char* psz)
{
    const char* szKeyword = static_cast<const char*>(pKeyword);
    return szKeyword[0] == psz[0] && std::strcmp(szKeyword, psz) == 0;
}

inline bool IsAsciiLetter(char ch) { return static_cast<unsigned char>((ch | 0x20) - 'a') < 26; }
inline bool IsAsciiDigit(char ch) { return static_cast<unsigned char>(ch - '0') < 10; }

constexpr char32_t kReplacement = 0xFFFD;
constexpr int kAnsiCharset = 0;
constexpr int kDefaultCharset = 1;
constexpr int kSymbolCharset = 2;

// How the bytes of text in a font of each RTF character set reach the old
// format: the code page they are written in, and the font command's
// character set that carries them as they are (-1: none does, they are
// converted through Unicode). The Mac double-byte sets carry their bytes in
// the Windows set of the same script, whose page they extend.
struct RtfCharset {
    int rtfCharset;
    int fontCharset;
    int codePage;
};
constexpr RtfCharset kRtfCharsets[] = {
    {0, 0, 1252},     {2, 2, CCodePage::symbol},
    {77, 77, 10000},  {78, 128, 932},   {79, 129, 949},   {80, 134, 936},  {81, 136, 950},
    {82, 130, 1361},  {83, -1, 10005},  {84, -1, 10004},  {85, -1, 10006}, {86, -1, 10081},
    {87, -1, 10021},  {88, -1, 10029},  {89, -1, 10007},  {128, 128, 932}, {129, 129, 949},
    {130, 130, 1361}, {134, 134, 936},  {136, 136, 950},  {161, 161, 1253}, {162, 162, 1254},
    {163, 163, 1258}, {177, 177, 1255}, {178, 178, 1256}, {179, 178, 1256}, {180, 178, 1256},
    {181, 177, 1255}, {186, 186, 1257}, {204, 204, 1251}, {222, 222, 874}, {238, 238, 1250},
    {254, -1, 437},   {255, 255, 850},
};

const RtfCharset* FindRtfCharset(int rtfCharset)
{
    for (const RtfCharset& row : kRtfCharsets)
        if (row.rtfCharset == rtfCharset)
            return &row;
    return nullptr;
}

// The Windows character sets a character may be placed in when the text's own
// page lacks it, in the order they are tried.
struct WindowsCharset {
    int charset;
    int codePage;
};
constexpr WindowsCharset kWindowsCharsets[] = {
    {0, 1252},   {238, 1250}, {204, 1251}, {161, 1253}, {162, 1254}, {177, 1255}, {178, 1256},
    {186, 1257}, {163, 1258}, {222, 874},  {128, 932},  {134, 936},  {129, 949},  {136, 950},
};

// The pages of kWindowsCharsets, looked up once.
const CCodePage* WindowsPage(std::size_t i)
{
    static const std::vector<const CCodePage*> s_pages = [] {
        std::vector<const CCodePage*> pages;
        for (const WindowsCharset& row : kWindowsCharsets)
            pages.push_back(CCodePage::Get(row.codePage));
        return pages;
    }();
    return s_pages[i];
}

// The code page of the bytes that follow a font command of this set.
int CodePageOfFontCharset(int charset)
{
    if (charset == kAnsiCharset || charset == kDefaultCharset)
        return 1252;
    const RtfCharset* pRow = FindRtfCharset(charset);
    return pRow ? pRow->codePage : 1252;
}

// The Windows character set of a document's code page; -1 when none has it.
int WindowsCharsetOfCodePage(int codePage)
{
    for (const WindowsCharset& row : kWindowsCharsets)
        if (row.codePage == codePage)
            return row.charset;
    if (codePage == 10000)
        return 77;
    return -1;
}

// What the special-character words stand for. \_ (non-breaking hyphen) and
// the fixed-width spaces have no place in any Windows code page: they are
// written as the hyphen and the space they show.
struct SpecialChar {
    const char* szKeyword;
    char32_t cp;
};
constexpr SpecialChar kSpecialChars[] = {
    {"~", 0x00A0},      {"-", 0x00AD},      {"_", '-'},         {"endash", 0x2013},
    {"emdash", 0x2014}, {"bullet", 0x2022}, {"lquote", 0x2018}, {"rquote", 0x2019},
    {"ldblquote", 0x201C}, {"rdblquote", 0x201D}, {"enspace", ' '}, {"emspace", ' '},
    {"qmspace", ' '},
};

// The hyperlink target of an instruction "HYPERLINK target [switches]": the
// first word, or the quoted text; empty for a link to a bookmark (\l).
CString HyperlinkTarget(const CString& inst)
{
    const char* p = inst.GetString() + std::strlen("HYPERLINK");
    while (*p == ' ')
        ++p;
    if (p[0] == '\\' && p[1] == 'l')
        return CString();
    const char chEnd = *p == '"' ? '"' : ' ';
    if (*p == '"')
        ++p;
    const char* pEnd = std::strchr(p, chEnd);
    return pEnd ? CString(p, static_cast<int>(pEnd - p)) : CString(p);
}

} // namespace

// ============================================================================
// Keywords the core's table does not know, or reads otherwise
// ============================================================================

namespace {

// The lossless rows, found through the core's keyword index: most control
// words are in no row, and the index turns them away cheaply.
//
// Before the index a word is tried by its first two bytes alone, which turn
// away nearly every word of a document (\brdrs, \cellx, \pard, \fs, \cf ...)
// for a table read: the index would first have to measure the word.
template <class Row, std::size_t cCapacity>
class CLosslessKeywordTable {
public:
    static constexpr std::size_t kCapacity = cCapacity;
    // The caller's rows are counted against the capacity where they are made.
    void Add(const Row& row)
    {
        m_rows[m_cRows] = row;
        m_index.Add(row.szKeyword, static_cast<int>(m_cRows));
        const unsigned bit = FirstBytesBit(row.szKeyword);
        m_firstBytes[bit / 64] |= std::uint64_t(1) << (bit % 64);
        ++m_cRows;
    }
    const Row* Find(const char* szKeyword) const { return MayHold(szKeyword) ? FindInIndex(szKeyword) : nullptr; }
    // False for nearly every word that is in no row; true for every word in one.
    bool MayHold(const char* szKeyword) const
    {
        const unsigned bit = FirstBytesBit(szKeyword);
        return (m_firstBytes[bit / 64] & (std::uint64_t(1) << (bit % 64))) != 0;
    }
    // Out of line, so that the words turned away cost the caller no saved
    // registers.
    RTFCONV_OUT_OF_LINE const Row* FindInIndex(const char* szKeyword) const
    {
        return RowAt(m_index.Find(szKeyword));
    }
    // For the word the tokenizer has just read, whose key it made: the word is
    // not measured again.
    const Row* FindInIndex(const KeywordKey& key) const { return RowAt(m_index.Find(key)); }
    // The rows, in their order.
    const Row* begin() const { return m_rows; }
    const Row* end() const { return m_rows + m_cRows; }

private:
    const Row* RowAt(int i) const { return i < 0 ? nullptr : &m_rows[static_cast<std::size_t>(i)]; }

    static constexpr unsigned cBits = 4096;
    // A bit for the word's first byte and the one after it (NUL for a word of
    // one byte, and nothing read past it); words sharing a bit are told apart
    // by the index.
    static unsigned FirstBytesBit(const char* sz)
    {
        const unsigned first = static_cast<unsigned char>(sz[0]);
        const unsigned second = first ? static_cast<unsigned char>(sz[1]) : 0u;
        return ((first << 5) ^ second) & (cBits - 1);
    }

    Row m_rows[cCapacity] = {};
    std::size_t m_cRows = 0;
    CKeywordIndex m_index;
    std::uint64_t m_firstBytes[cBits / 64] = {};
};

} // namespace

struct CRTFImport::LosslessKeyword {
    const char* szKeyword;
    bool (CRTFImport::*pfnHandler)(const void* pKeyword, int param);
    bool bInSkipped;  // honoured inside skipped groups too

    using Table = CLosslessKeywordTable<LosslessKeyword, 48>;
    // The rows, only after PrepareTables.
    static const Table& Rows() { return s_table; }

    // What takes a word of the lossless reading: its lossless row, which
    // goes first, and the core's row (-1: none).
    struct Word {
        int coreRow;
        const LosslessKeyword* pLossless;
    };
    // For a word the tokenizer read, one probe for both tables; null when
    // neither holds the word. Only after PrepareTables.
    static const Word* FindTokenWord(const KeywordKey& key)
    {
        const int i = s_words.index.FindTokenWord(key);
        return i < 0 ? nullptr : &s_words.words[static_cast<std::size_t>(i)];
    }
    // Fills the rows and the words of both tables the first time any reader
    // on any thread asks (a function-local static: once, and what it wrote
    // is there for every thread that asks after it). Each reader asks at its
    // first control word, before it looks up any word, and the lookup of a
    // text that is not the tokenizer's word asks again.
    //
    // Filled at the first lossless reading rather than when the library
    // loads, and not by the compiler either: most processes that link the
    // library never read RTF losslessly, and tables of pointers built by the
    // compiler would be relocated in every one of them, a page written for
    // every few pointers.
    static void PrepareTables()
    {
        static const bool s_bFilled = FillTables();
        (void)s_bFilled;
    }

private:
    static bool FillTables();
    // The rows; a member, so that they may name the reader's protected
    // handlers. Empty, and zeros in the image, until PrepareTables.
    static Table s_table;

    // The words of both tables under one index: each word once, with the
    // first row of each table that names it, as each table's own lookup
    // gives it.
    struct Words {
        // First, so that a word's place is the table's address plus its
        // offset, one addition fewer for every word looked up.
        Word words[CKeywordIndex::maxNumber + 1] = {};
        CKeywordIndex index;
        std::size_t cWords = 0;
        void Add(const char* szKeyword, int coreRow, const LosslessKeyword* pLossless);
    };
    // Empty, and zeros in the image, until PrepareTables; then read only.
    static Words s_words;
};

using LK = CRTFImport;

CRTFImport::LosslessKeyword::Table CRTFImport::LosslessKeyword::s_table;
CRTFImport::LosslessKeyword::Words CRTFImport::LosslessKeyword::s_words;

bool CRTFImport::LosslessKeyword::FillTables()
{
    // On the stack: held in the image, the rows' pointers would be
    // relocated at every start.
    const LosslessKeyword rows[] = {
        {"\n", &LK::ApplyCRCommand, false},
        {"\r", &LK::ApplyCRCommand, false},
        {"ansi", &LK::SetDocumentCodePage, false},
        {"ansicpg", &LK::SetDocumentCodePage, false},
        {"mac", &LK::SetDocumentCodePage, false},
        {"pc", &LK::SetDocumentCodePage, false},
        {"pca", &LK::SetDocumentCodePage, false},
        {"u", &LK::ReadUnicodeChar, false},
        {"uc", &LK::SetUnicodeSkip, false},
        {"super", &LK::SwitchSuperSub, false},
        {"sub", &LK::SwitchSuperSub, false},
        {"nosupersub", &LK::SwitchSuperSub, false},
        {"bin", &LK::SkipBinaryEvenWhenSkipping, true},
        {"nestcell", &LK::ApplyTabCommand, false},
        {"nestrow", &LK::ApplyCRCommand, false},
        {"nonesttables", &LK::IgnoreDestination, false},
        {"nesttableprops", &LK::ReadDestinationAsText, false},
        // List definitions are never text, even outside their table.
        {"list", &LK::IgnoreDestination, false},
        {"listoverride", &LK::IgnoreDestination, false},
        // Table-of-contents and index entries mark text for fields; they
        // are never shown where they stand.
        {"tc", &LK::IgnoreDestination, false},
        {"xe", &LK::IgnoreDestination, false},
        {"trowd", &LK::ApplyStartRowOnce, false},
        {"intbl", &LK::ApplyStartRowOnce, false},
        {"row", &LK::ApplyEndRowOfRow, false},
        {"field", &LK::FieldInitKeepingOuter, false},
        {"fldrslt", &LK::FieldResultKeepingMarkupOut, false},
        {"f", &LK::GetFontNumKeepingCharset, false},
        {"plain", &LK::ApplyPlainKeepingCharset, false},
    };
    static_assert(std::size(rows) + std::size(kSpecialChars) <= Table::kCapacity, "the table holds every row");
    for (const LosslessKeyword& row : rows)
        s_table.Add(row);
    for (const SpecialChar& special : kSpecialChars)
        s_table.Add({special.szKeyword, &LK::InsertUnicodeSpecial, false});
    for (int row = 0; row < cCmds; ++row)
        s_words.Add(s_Cmds[row].szKeyword, row, nullptr);
    for (const LosslessKeyword& row : s_table)
        s_words.Add(row.szKeyword, -1, s_table.FindInIndex(row.szKeyword));
    return true;
}

// The first row of each table for a word wins, as in each table's own index.
// Both tables together hold fewer words than the index numbers; a word past
// them would be refused by the index and never found.
void CRTFImport::LosslessKeyword::Words::Add(const char* szKeyword, int coreRow, const LosslessKeyword* pLossless)
{
    const int i = index.Find(szKeyword);
    if (i < 0) {
        if (cWords == sizeof words / sizeof words[0])
            return;
        index.Add(szKeyword, static_cast<int>(cWords));
        words[cWords++] = {coreRow, pLossless};
        return;
    }
    Word& word = words[static_cast<std::size_t>(i)];
    if (word.coreRow < 0)
        word.coreRow = coreRow;
    if (!word.pLossless)
        word.pLossless = pLossless;
}

// The core stops where the outermost group closes: a document ends there, a
// fragment goes on with its next group. Each Parse call reads at least one
// byte, so this ends with the input.
void CRTFImport::ParseFragmentGroups(bool& bMore)
{
    while (!bMore && m_cGroup < 1 && !m_bRtfDocument && !m_bInputExhausted) {
        m_bContinuing = true;
        m_bStarted = false;
        Parse(bMore);
    }
}

// The next top-level group of a fragment continues the document: only the
// core's group state starts again, the paragraph and the tables stay.
bool CRTFImport::KeepsStateBetweenGroups()
{
    if (!m_bContinuing)
        return false;
    const bool bParagraphStart = m_bParagraphStart;
    CBaseRTFParser::Init();
    m_bParagraphStart = bParagraphStart;
    return true;
}

// Every control word passes here, and most are in no lossless row: the
// bookkeeping is inline, and one lookup finds the word's row in either table.
bool CRTFImport::TranslateKeyword(const char* szKeyword, int param)
{
    if (m_bLossless) {
        if (!m_bFirstKeywordSeen)
            return TranslateFirstKeyword(szKeyword, param);
        if (!NoteLosslessWord(szKeyword))
            return true;
        // The word the tokenizer hands on (nearly every call) is found in
        // both tables by one probe; what the core's lookup would then do
        // with its row follows.
        const KeywordKey* pKey = TokenWordKey(szKeyword);
        if (!pKey)
            return TranslateLosslessCandidate(szKeyword, param);
        const LosslessKeyword::Word* pWord = LosslessKeyword::FindTokenWord(*pKey);
        if (pWord && pWord->pLossless && (m_rds != rdsSkip || pWord->pLossless->bInSkipped))
            return RunLosslessKeyword(*pWord->pLossless, szKeyword, param);
        if (m_rds == rdsSkip)
            return true;
        return DispatchRow(pWord ? pWord->coreRow : -1, szKeyword, param);
    }
    return CBaseRTFParser::TranslateKeyword(szKeyword, param);
}

bool CRTFImport::TranslateLosslessKeyword(const char* szKeyword, int param, bool& bResult)
{
    if (!NoteLosslessWord(szKeyword))
        return true;
    const LosslessKeyword* pRow = LosslessRowFor(szKeyword);
    if (!pRow)
        return false;
    bResult = RunLosslessKeyword(*pRow, szKeyword, param);
    return true;
}

// False for a \* to be ignored. \* marks an optional destination only as
// the first thing in a group; elsewhere it is meaningless, and the core would
// hide the rest of the group at the next keyword it does not know.
inline bool CRTFImport::NoteLosslessWord(const char* szKeyword)
{
    if (!m_bFirstKeywordSeen)
        NoteFirstKeyword(szKeyword);
    const bool bAtGroupStart = m_bAtGroupStart;
    m_bAtGroupStart = false;
    return !(szKeyword[0] == '*' && szKeyword[1] == '\0' && !bAtGroupStart);
}

void CRTFImport::NoteFirstKeyword(const char* szKeyword)
{
    LosslessKeyword::PrepareTables();
    m_bFirstKeywordSeen = true;
    m_bRtfDocument = m_cGroup == 1 && std::strcmp(szKeyword, "rtf") == 0;
}

RTFCONV_OUT_OF_LINE bool CRTFImport::TranslateFirstKeyword(const char* szKeyword, int param)
{
    NoteFirstKeyword(szKeyword);
    return CRTFImport::TranslateKeyword(szKeyword, param);
}

// The row that takes the word here; null when the core's table does.
const CRTFImport::LosslessKeyword* CRTFImport::LosslessRowFor(const char* szKeyword) const
{
    LosslessKeyword::PrepareTables();
    const LosslessKeyword::Table& table = LosslessKeyword::Rows();
    if (!table.MayHold(szKeyword))
        return nullptr;
    const KeywordKey* pKey = TokenWordKey(szKeyword);
    const LosslessKeyword* pRow = pKey ? table.FindInIndex(*pKey) : table.FindInIndex(szKeyword);
    return pRow && (m_rds != rdsSkip || pRow->bInSkipped) ? pRow : nullptr;
}

// Out of line, for the reason TranslateKeyword gives: a text that is not
// the tokenizer's word.
RTFCONV_OUT_OF_LINE bool CRTFImport::TranslateLosslessCandidate(const char* szKeyword, int param)
{
    const LosslessKeyword* pRow = LosslessRowFor(szKeyword);
    if (!pRow)
        return CBaseRTFParser::TranslateKeyword(szKeyword, param);
    return RunLosslessKeyword(*pRow, szKeyword, param);
}

bool CRTFImport::RunLosslessKeyword(const LosslessKeyword& row, const char* szKeyword, int param)
{
    m_bOptionalDest = false;
    return (this->*row.pfnHandler)(szKeyword, param);
}

// The raw bytes of \binN would otherwise be read as RTF, and a brace among
// them ends the skipped group early. A \bin without a count holds no bytes
// (not all the rest of the input).
bool CRTFImport::SkipBinaryEvenWhenSkipping(const void* pKeyword, int param)
{
    const int cb = param == noParam ? 0 : param;
    if (m_rds != rdsSkip)
        return GetBinary(pKeyword, cb);
    if (cb > 0)
        Get(cb, nullptr);
    return true;
}

bool CRTFImport::IgnoreDestination(const void*, int)
{
    m_rds = rdsSkip;
    return true;
}

// Nested-table writers put the cells' text inside {\*\nesttableprops ...}
// too, and the group ends a nested row: word processors read what it holds.
bool CRTFImport::ReadDestinationAsText(const void*, int)
{
    m_bOptionalDest = false;
    return true;
}

bool CRTFImport::SwitchSuperSub(const void* pKeyword, int param)
{
    const int bOn = param == noParam || param != 0 ? 1 : 0;
    if (KeywordIs(pKeyword, "super")) {
        FontCmdToChange().SetSuperscript(bOn);
        if (bOn)
            m_fontCmd.SetSubscript(0);
    } else if (KeywordIs(pKeyword, "sub")) {
        FontCmdToChange().SetSubscript(bOn);
        if (bOn)
            m_fontCmd.SetSuperscript(0);
    } else {
        FontCmdToChange().SetSuperscript(0);
        m_fontCmd.SetSubscript(0);
    }
    m_bFontChanged = true;
    return true;
}

// One StartRow per row: \intbl repeats in every paragraph of a row, and \trowd
// may stand at its start, at its end, or both.
bool CRTFImport::ApplyStartRowOnce(const void*, int)
{
    if (!m_bPasteWithTableTags || m_bInRow)
        return true;
    if (!PutCommentCmd(ot_Table, "StartRow"))
        return false;
    m_bInRow = true;
    return true;
}

bool CRTFImport::ApplyEndRowOfRow(const void* pKeyword, int param)
{
    if (!ApplyEndRowCommand(pKeyword, param))
        return false;
    m_bInRow = false;
    return true;
}

// ============================================================================
// Character sets and Unicode
// ============================================================================

bool CRTFImport::SetDocumentCodePage(const void* pKeyword, int param)
{
    if (KeywordIs(pKeyword, "ansi"))
        m_nDocCodePage = 1252;
    else if (KeywordIs(pKeyword, "mac"))
        m_nDocCodePage = 10000;
    else if (KeywordIs(pKeyword, "pc"))
        m_nDocCodePage = 437;
    else if (KeywordIs(pKeyword, "pca"))
        m_nDocCodePage = 850;
    else if (param > 0 && param != noParam)
        m_nDocCodePage = param;
    return true;
}

bool CRTFImport::SetUnicodeSkip(const void*, int param)
{
    m_nUnicodeSkip = param == noParam ? 1 : std::max(param, 0);
    return true;
}

// A stock reader's handlers are this library's own: the entry they applied
// is the one looked up again otherwise.
bool CRTFImport::GetFontNumKeepingCharset(const void* pKeyword, int param)
{
    int i = -1;
    if (m_bStockReader && m_rds != rdsFontTable && m_rds != rdsPNText) {
        i = ApplyFontNumber(param);
    } else {
        if (!GetFontNum(pKeyword, param))
            return false;
        if (m_rds == rdsFontTable || m_rds == rdsPNText)
            return true;
        i = FindFontEntry(param);
    }
    if (i >= 0) {
        m_nFontCharset = m_FontTable[i].FontCharset;
        m_nPlacedCharset = -1;
    }
    return true;
}

bool CRTFImport::ApplyPlainKeepingCharset(const void* pKeyword, int param)
{
    int i = -1;
    if (m_bStockReader) {
        i = ApplyPlainFont();
    } else {
        ApplyPlainCommand(pKeyword, param);
        i = m_nDefaultFont >= 0 ? FindFontEntry(m_nDefaultFont) : -1;
    }
    m_nFontCharset = i >= 0 ? m_FontTable[i].FontCharset : kDefaultCharset;
    m_nPlacedCharset = -1;
    return true;
}

// Text outside any \f is in the default font.
void CRTFImport::ApplyDefaultFontKeepingCharset()
{
    const int i = m_nDefaultFont >= 0 ? FindFontEntry(m_nDefaultFont) : -1;
    if (i < 0)
        return;
    FontCmdToChange().SetFaceName(m_FontTable[i].FontName);
    m_fontCmd.SetCharset(m_FontTable[i].FontCharset);
    m_nFontCharset = m_FontTable[i].FontCharset;
    m_bFontChanged = true;
}

// The font command's character set that carries the bytes of the current
// text as they are; -1 when none does and they are converted. A font with no
// character set of its own (default, or one RTF does not define) writes in
// the document's page, which in a 1252 document stays the default set.
int CRTFImport::TextCharset() const
{
    const RtfCharset* pRow = FindRtfCharset(m_nFontCharset);
    if (pRow)
        return pRow->fontCharset;
    if (m_nDocCodePage == 1252)
        return kDefaultCharset;
    return WindowsCharsetOfCodePage(m_nDocCodePage);
}

int CRTFImport::CodePageOfText() const
{
    const RtfCharset* pRow = FindRtfCharset(m_nFontCharset);
    return pRow ? pRow->codePage : m_nDocCodePage;
}

// The page of the text's bytes, kept until the text's code page changes.
const CCodePage* CRTFImport::TextPage()
{
    const int codePage = CodePageOfText();
    if (codePage != m_nTextCodePage) {
        m_nTextCodePage = codePage;
        m_pTextPage = CCodePage::Get(codePage);
    }
    return m_pTextPage;
}

void CRTFImport::UseCharset(int charset)
{
    if (m_fontCmd.GetCharset() == charset)
        return;
    FontCmdToChange().SetCharset(charset);
    m_bFontChanged = true;
}

// ASCII reads the same in every text character set: after a character placed
// in another set it stays there, which saves a font command per space. The
// set is looked at only after a change of formatting.
bool CRTFImport::AppendAscii(char ch)
{
    if (m_bFontChanged && (m_nPlacedCharset < 0 || m_fontCmd.GetCharset() != m_nPlacedCharset)) {
        const int charset = TextCharset();
        UseCharset(charset >= 0 ? charset : kAnsiCharset);
        m_nPlacedCharset = -1;
    }
    return Append(ch);
}

// A text byte (plain or \'hh) in the font command whose character set carries
// the text's code page; a double-byte character goes out whole, so that no
// buffer ends between its two bytes.
bool CRTFImport::AppendTextKeepingCharset(char ch)
{
    const unsigned char b = static_cast<unsigned char>(ch);
    if (m_chLeadByte >= 0) {
        const unsigned char pair[2] = {static_cast<unsigned char>(m_chLeadByte), b};
        if (!AppendTwoByteCharacter(pair))
            return false;
        m_chLeadByte = -1;
        return true;
    }
    if (b < 0x80)
        return AppendAscii(ch);
    const int charset = TextCharset();
    const CCodePage* pPage = TextPage();
    if (charset >= 0) {
        m_nPlacedCharset = -1;
        UseCharset(charset);
        if (pPage && pPage->IsLeadByte(b)) {
            m_chLeadByte = b;
            return true;
        }
        return Append(ch);
    }
    const char32_t cp = pPage ? pPage->Single(b) : kReplacement;
    return AppendUnicode(cp);
}

bool CRTFImport::AppendTwoByteCharacter(const unsigned char pb[2])
{
    if (InNumberingDestination() || m_pRedirect) {
        // Collected in a string: nothing can come between the two bytes.
        if (!Append(static_cast<char>(pb[0])))
            return false;
        return Append(static_cast<char>(pb[1]));
    }
    if ((m_bParagraphStart || m_bFontChanged || !m_strPending.IsEmpty()) && !AppendOwedCommands())
        return false;
    return Put(CString(reinterpret_cast<const char*>(pb), 2));
}

bool CRTFImport::AppendInCharset(const unsigned char* pb, int cb, int charset)
{
    UseCharset(charset);
    return cb == 2 ? AppendTwoByteCharacter(pb) : Append(static_cast<char>(pb[0]));
}

// A character in the text's own character set when its page holds it,
// otherwise in the first Windows set whose page does; '?' (counted) when
// none does.
bool CRTFImport::AppendUnicode(char32_t cp)
{
    if (cp < 0x80)
        return AppendAscii(static_cast<char>(cp));
    unsigned char bytes[2];
    const int textCharset = TextCharset();
    if (textCharset == kSymbolCharset && cp >= 0xF020 && cp <= 0xF0FF) {
        bytes[0] = static_cast<unsigned char>(cp - 0xF000);
        return AppendInCharset(bytes, 1, kSymbolCharset);
    }
    if (textCharset >= 0) {
        const CCodePage* pPage = CCodePage::Get(CodePageOfFontCharset(textCharset));
        const int cb = pPage && cp != kReplacement ? pPage->Encode(cp, bytes) : 0;
        if (cb > 0) {
            m_nPlacedCharset = -1;
            return AppendInCharset(bytes, cb, textCharset);
        }
    }
    for (std::size_t i = 0; i < sizeof kWindowsCharsets / sizeof kWindowsCharsets[0]; ++i) {
        const CCodePage* pPage = WindowsPage(i);
        const int cb = pPage && cp != kReplacement ? pPage->Encode(cp, bytes) : 0;
        if (cb > 0) {
            if (!AppendInCharset(bytes, cb, kWindowsCharsets[i].charset))
                return false;
            m_nPlacedCharset = kWindowsCharsets[i].charset;
            return true;
        }
    }
    if (!AppendAscii('?'))
        return false;
    ++m_cUnrepresentable;
    return true;
}

bool CRTFImport::ReadUnicodeChar(const void*, int param)
{
    // A 16-bit value, written signed above 32767.
    char32_t cp = param == noParam ? U'?' : static_cast<char32_t>(param < 0 ? param + 65536 : param);
    if (cp >= 0xD800 && cp < 0xDC00) {
        m_highSurrogate = cp;  // completed by the \u that follows
        SkipUnicodeFallback();
        return true;
    }
    if (cp >= 0xDC00 && cp < 0xE000)
        cp = m_highSurrogate ? 0x10000 + ((m_highSurrogate - 0xD800) << 10) + (cp - 0xDC00) : kReplacement;
    if (cp > 0x10FFFF)
        cp = kReplacement;

    if (InTextDestination()) {
        if (!AppendUnicode(cp))
            return false;
    } else if (m_rds == rdsFontTable || m_rds == rdsFieldInst) {
        unsigned char bytes[2] = {static_cast<unsigned char>(cp), 0};
        const CCodePage* pPage = CCodePage::Get(m_nDocCodePage);
        const int cb = cp < 0x80 ? 1 : (pPage ? pPage->Encode(cp, bytes) : 0);
        for (int i = 0; i < cb; ++i)
            ParseChar(static_cast<char>(bytes[i]));
    }
    m_highSurrogate = 0;
    SkipUnicodeFallback();
    return true;
}

// Skips the \ucN characters that stand in for a \u character in readers that
// do not know it: plain bytes, \'hh escapes and control words count one each;
// a brace ends the fallback early.
void CRTFImport::SkipUnicodeFallback()
{
    for (int n = m_nUnicodeSkip; n > 0;) {
        char ch = 0;
        if (Get(ch) < 0)
            return;
        if (ch == '{' || ch == '}') {
            Backtrack(1);
            return;
        }
        if (ch == '\r' || ch == '\n')
            continue;
        --n;
        if (ch != '\\' || Get(ch) < 0)
            continue;
        if (ch == '\'') {
            Get(ch);
            Get(ch);
        } else if (IsAsciiLetter(ch)) {
            SkipControlWordOfFallback();
        }
    }
}

// The rest of a control word after its first letter: letters, an optional
// signed number, and the space that delimits it.
void CRTFImport::SkipControlWordOfFallback()
{
    char ch = 0;
    while (Get(ch) >= 0 && IsAsciiLetter(ch)) {
    }
    if (ch == '-' && Get(ch) < 0)
        return;
    while (IsAsciiDigit(ch) && Get(ch) >= 0) {
    }
    if (ch != ' ')
        Backtrack(1);
}

bool CRTFImport::InsertUnicodeSpecial(const void* pKeyword, int)
{
    if (!InTextDestination())
        return true;
    for (const SpecialChar& special : kSpecialChars)
        if (KeywordIs(pKeyword, special.szKeyword))
            return AppendUnicode(special.cp);
    return true;
}

// ============================================================================
// Table indexes out of range
// ============================================================================

void CRTFImport::ReportIgnored(const char* pszWhat, int index)
{
    VQTRACE("RTFToOld: %s %d does not exist; ignored\n", pszWhat, index);
}

// The entry that \fcharset, a family word or a face name character fills.
// Before the first \f of the table this is index -1, which raises unless the
// reading is lossless.
CRTFImport::FontTableStruct* CRTFImport::FontEntryBeingDefined()
{
    if (m_bLossless && (m_nLastFont < 0 || m_nLastFont >= m_FontTable.GetSize())) {
        ReportIgnored("font table entry", m_nLastFont);
        return nullptr;
    }
    return &m_FontTable[m_nLastFont];
}

// The entry \red, \green and \blue fill: index -1 before any \colortbl.
CRTFImport::RTFCOLOR* CRTFImport::ColorEntryBeingDefined()
{
    const int index = m_nColorEntries - 1;
    if (m_bLossless && (index < 0 || index >= m_ColorTable.GetSize())) {
        ReportIgnored("colour table entry", index);
        return nullptr;
    }
    return &m_ColorTable[index];
}

// ============================================================================
// Fields and hyperlinks
// ============================================================================

bool CRTFImport::FieldInitKeepingOuter(const void* pKeyword, int param)
{
    if (m_rds != rdsSkip)
        OpenFieldKeepingOuter();
    return CBaseRTFParser::FieldInit(pKeyword, param);
}

// A field inside another keeps the outer one's instruction aside; its own
// display text continues the outer hyperlink's, if that one is collecting.
void CRTFImport::OpenFieldKeepingOuter()
{
    OpenField field;
    field.outerInst = m_strFieldInst;
    field.bOuterCollects = m_pRedirect != nullptr;
    if (!field.bOuterCollects)
        m_strFieldResult.Empty();
    field.resultStart = m_strFieldResult.GetLength();
    field.depth = m_cGroup;
    m_openFields.push_back(field);
    m_strFieldInst.Empty();
}

// The display text collects the characters only; the formatting commands due
// in front of them go to the output ahead of the hyperlink command.
bool CRTFImport::FieldResultKeepingMarkupOut(const void*, int)
{
    if (m_rds == rdsSkip)
        return true;
    if (m_strFieldInst.Left(9) != "HYPERLINK") {
        m_rds = rdsNorm;
        return true;
    }
    m_rds = rdsHyperlink;
    m_pRedirect = &m_strFieldResult;
    return true;
}

void CRTFImport::EndGroupKeepingFieldsAndFonts(RDS rdsOld, RDS rdsNew)
{
    EndFieldsClosedHere();
    if (rdsOld == rdsFontTable && rdsNew != rdsFontTable)
        ApplyDefaultFontKeepingCharset();
}

// A field ends with the group that opened it, whatever its destination then.
void CRTFImport::EndFieldsClosedHere()
{
    while (!m_openFields.empty() && m_openFields.back().depth >= m_cGroup) {
        const OpenField field = std::move(m_openFields.back());
        m_openFields.pop_back();
        EndFieldKeepingItsText(field);
    }
}

void CRTFImport::EndFieldKeepingItsText(const OpenField& field)
{
    // The texts move out of the reader: they are not needed there again.
    const CString inst = std::move(m_strFieldInst);
    m_strFieldInst = field.outerInst;
    if (field.bOuterCollects)
        return;  // its text stays in the enclosing hyperlink's display text
    m_pRedirect = nullptr;
    const CString text = std::move(m_strFieldResult);
    m_strFieldResult.Empty();
    if (inst.Left(9) != "HYPERLINK" || text.IsEmpty())
        return;  // an ordinary field's result went out as text

    // The hyperlink stands in the formatting of its display text, which is the
    // last font sent; the field's own formatting follows it.
    m_bFontChanged = false;
    CString target = HyperlinkTarget(inst);
    StripMarkup(target);
    if (!target.IsEmpty() && target.Left(11).CompareNoCase("javascript") != 0 && target.Find('.') >= 0) {
        CCommentCmd cmd(ot_Hyperlink);
        cmd.SetData(text, 0);
        cmd.SetData(target, 1);
        AppendOrHold(cmd.GetCmd());
    } else {
        AppendOrHold(text);  // a link to a bookmark: its text stays
    }
    m_bFontChanged = true;
}

// ============================================================================
// Output that does not fit
// ============================================================================

// For output whose handler cannot be run again (a group end has passed).
void CRTFImport::AppendOrHold(const CString& s)
{
    if (!Append(s))
        HoldOutput(s);
}

bool CRTFImport::PutOrHold(const CString& s)
{
    if (Put(s))
        return true;
    if (!m_bLossless)
        return false;
    HoldOutput(s);
    return true;
}

// Held output begins with the layout and font it was due under, and nothing
// else reaches this buffer after it.
void CRTFImport::HoldOutput(const CString& s)
{
    if (m_strHeld.IsEmpty())
        m_strHeld = m_lastLayoutCmd.GetCmd() + m_lastFontCmd.GetCmd();
    m_strHeld += s;
    CloseBuffer();
}

// At the start of a buffer. A buffer too small for all of it takes what fits,
// and the rest goes first into the next.
bool CRTFImport::WriteHeldOutput()
{
    if (!m_bHeldSplit && Put(m_strHeld)) {
        m_strHeld.Empty();
        return true;
    }
    int cbWritten = 0;
    while (cbWritten < m_strHeld.GetLength() && Put(m_strHeld[cbWritten]))
        ++cbWritten;
    m_strHeld.Delete(0, cbWritten);
    m_bHeldSplit = !m_strHeld.IsEmpty();
    return !m_bHeldSplit;
}

} // namespace rtf_converter
