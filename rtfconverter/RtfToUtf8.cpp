#include "rtfconverter/RtfToUtf8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <typeinfo>

#include "platform/WinTypes.h"
#include "rtfconverter/ByteScan.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/KeywordIndex.h"

namespace rtf_converter {

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr int kWesternCodePage = 1252;
constexpr int kMacRomanCodePage = 10000;

inline bool IsHighSurrogate(char32_t cp) { return cp >= 0xD800 && cp <= 0xDBFF; }
inline bool IsLowSurrogate(char32_t cp) { return cp >= 0xDC00 && cp <= 0xDFFF; }

// Code points that must not reach the text; the 8-bit converter replaces the
// same bytes, which frame markup commands in old-format text.
inline bool IsReservedCodePoint(char32_t cp) { return cp <= 0x03 || cp == 0x17; }

// Control characters other than TAB: a person's text has none (line ends come
// from the paragraph keywords), so \'0d, stray C1 codes and the like are dropped.
inline bool IsDroppedControl(char32_t cp) { return (cp < 0x20 && cp != '\t') || (cp >= 0x7F && cp < 0xA0); }

// Null: the document's page, for the default character set and for those no
// page is known for. The ANSI set is the caller's (see FillFontCharset).
const CCodePage* PageOfCharset(int charset)
{
    const int codePage = CodePageOfCharset(charset);
    return codePage ? CCodePage::Get(codePage) : nullptr;
}

bool IsAsciiSpace(char ch) { return ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r'; }

} // namespace

// --- the reader's own keywords

namespace {

constexpr bool KeywordLess(const char* a, const char* b)
{
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b);
}

template <typename Row, std::size_t N>
constexpr bool IsSortedByKeyword(const Row (&rows)[N])
{
    for (std::size_t i = 1; i < N; ++i)
        if (!KeywordLess(rows[i - 1].szKeyword, rows[i].szKeyword))
            return false;
    return true;
}

} // namespace

const CRTFToUTF8Parser::UnicodeKeyword* CRTFToUTF8Parser::UnicodeKeywordRows(std::size_t& cRows)
{
    typedef CRTFToUTF8Parser P;
    // What the core's keyword table does not know, or knows only as a byte
    // for 8-bit text. Sorted by keyword (byte order).
    static constexpr UnicodeKeyword s_rows[] = {
        {"\n", &P::ApplyEscapedLineBreak, 0, false},     // a backslash before a line break
        {"\r", &P::ApplyEscapedLineBreak, 0, false},     // is a paragraph mark
        {"-", &P::InsertCharacter, 0, false},              // optional hyphen: invisible
        {"_", &P::InsertCharacter, 0x2011, false},         // non-breaking hyphen
        {"af", &P::SetAssociatedFont, 0, false},
        {"ansi", &P::SetDocumentCodePage, 1252, false},
        {"ansicpg", &P::SetDocumentCodePage, 0, false},
        {"bin", &P::SkipBinary, 0, true},
        {"bullet", &P::InsertCharacter, 0x2022, false},
        {"cpg", &P::SetFontCodePage, 0, false},
        {"dbch", &P::SetCharacterClass, classDbch, false},
        {"emdash", &P::InsertCharacter, 0x2014, false},
        {"emspace", &P::InsertCharacter, 0x2003, false},
        {"endash", &P::InsertCharacter, 0x2013, false},
        {"enspace", &P::InsertCharacter, 0x2002, false},
        {"footer", &P::BeginHeaderOrFooter, 0, false},
        {"footerf", &P::BeginHeaderOrFooter, 0, false},
        {"footerl", &P::BeginHeaderOrFooter, 0, false},
        {"footerr", &P::BeginHeaderOrFooter, 0, false},
        {"footnote", &P::BeginFootnote, 0, false},
        {"header", &P::BeginHeaderOrFooter, 0, false},
        {"headerf", &P::BeginHeaderOrFooter, 0, false},
        {"headerl", &P::BeginHeaderOrFooter, 0, false},
        {"headerr", &P::BeginHeaderOrFooter, 0, false},
        {"hich", &P::SetCharacterClass, classHich, false},
        {"intbl", &P::SetInTable, 0, false},
        {"ldblquote", &P::InsertCharacter, 0x201C, false},
        // Destinations that writers give without \*: list definitions, the
        // text for readers that know no nested tables, index and contents
        // entries.
        {"list", &P::SkipDestination, 0, false},
        {"listoverridetable", &P::SkipDestination, 0, false},
        {"listtable", &P::SkipDestination, 0, false},
        {"loch", &P::SetCharacterClass, classLoch, false},
        {"lquote", &P::InsertCharacter, 0x2018, false},
        {"ltrmark", &P::InsertCharacter, 0x200E, false},
        {"mac", &P::SetDocumentCodePage, 10000, false},
        {"nestcell", &P::ApplyNestedCell, 0, false},
        {"nestrow", &P::ApplyNestedRow, 0, false},
        // Known, so that {\*\nesttableprops ...} is read: it ends a nested
        // row, and some writers put the row's cells in it too.
        {"nesttableprops", &P::InsertCharacter, 0, false},
        {"nonesttables", &P::SkipDestination, 0, false},
        {"page", &P::ApplyPageBreak, 0, false},
        {"pc", &P::SetDocumentCodePage, 437, false},
        {"pca", &P::SetDocumentCodePage, 850, false},
        {"pnf", &P::SetNumberingFont, 0, false},
        {"qmspace", &P::InsertCharacter, 0x2005, false},
        {"rdblquote", &P::InsertCharacter, 0x201D, false},
        {"rquote", &P::InsertCharacter, 0x2019, false},
        {"rtlmark", &P::InsertCharacter, 0x200F, false},
        {"rxe", &P::SkipDestination, 0, false},
        {"sect", &P::ApplySectionBreak, 0, false},
        {"tc", &P::SkipDestination, 0, false},
        {"tcn", &P::SkipDestination, 0, false},
        {"txe", &P::SkipDestination, 0, false},
        {"u", &P::InsertUnicode, 0, false},
        {"uc", &P::SetUnicodeSkip, 0, false},
        {"ud", &P::ReadUnicodeAlternative, 0, true},
        {"upr", &P::SkipAnsiAlternative, 0, false},
        {"v", &P::SetHidden, 0, false},
        {"xe", &P::SkipDestination, 0, false},
        {"zwj", &P::InsertCharacter, 0x200D, false},
        {"zwnj", &P::InsertCharacter, 0x200C, false},
        {"~", &P::InsertCharacter, 0x00A0, false},         // non-breaking space
    };
    static_assert(IsSortedByKeyword(s_rows), "the keyword rows must stay sorted");
    cRows = sizeof s_rows / sizeof s_rows[0];
    return s_rows;
}

// Each keyword is looked up once, in one index over both tables: the
// reader's own rows under their numbers, then the core's rows under theirs
// plus the number of own rows (a word in both is the reader's own). The
// first look holds every word the index holds, under the same number.
struct CRTFToUTF8Parser::CKeywordTables {
    CKeywordLookup lookup;
    // Until the document's first word, which TranslateRareKeyword notes.
    CKeywordFirstLook beforeFirstWord;
    std::size_t cOwnRows = 0;
    // By number: m_pNoEffect.
    unsigned char noEffect[CKeywordIndex::maxNumber + 1] = {};

    CKeywordTables()
    {
        const UnicodeKeyword* rows = UnicodeKeywordRows(cOwnRows);
        for (std::size_t row = 0; row < cOwnRows; ++row) {
            lookup.Add(rows[row].szKeyword, static_cast<int>(row));
            noEffect[row] = NoEffectOfOwnRow(rows[row]);
        }
        for (int row = 0; row < cCmds; ++row)
            lookup.Add(s_Cmds[row].szKeyword, static_cast<int>(cOwnRows) + row);
        MarkCoreWordsWithoutEffect();
        // \* is a destination's mark only at a group's start: a rare case.
        lookup.firstLook.AskIndexFor("*");
        beforeFirstWord.AskIndexForAll();
    }
    static const CKeywordTables& Get()
    {
        static const CKeywordTables s_tables;
        return s_tables;
    }

    // As DispatchNumber has it: inside a skipped destination only the rows
    // marked for it are honoured, and a typographic keyword of no character
    // writes nothing.
    static unsigned char NoEffectOfOwnRow(const UnicodeKeyword& row)
    {
        const bool bNoEffect = row.pfnHandler == &CRTFToUTF8Parser::InsertCharacter && row.cp == 0;
        return static_cast<unsigned char>((bNoEffect ? noEffectOutsideSkip : 0) | (row.bInSkip ? 0 : noEffectInSkip));
    }
    // Outside a skipped destination, the words of the core's table whose
    // handlers this reader overrides to do nothing (see "keywords that have
    // no effect on the text" below, which must stay in step with this list;
    // \lquote, \rquote and \bin are the reader's own words, whose core rows
    // are never reached), and the paragraph properties, for which only \pard
    // does something (ApplyParCommand). Inside one, no row of the core's
    // table is honoured.
    void MarkCoreWordsWithoutEffect()
    {
        static constexpr const char* s_wordsWithoutEffect[] = {
            "qr", "qc", "ql", "li", "fi", "ri", "tx", "tb", "tldot", "tlhyph", "tlul", "tleq",  // ApplyParCommand, all but \pard
            "b", "ul", "i", "strike", "super", "sub", "cchs",                           // ApplyCharCommand
            "fnil", "froman", "fswiss", "fmodern", "fscript", "fdecor", "ftech", "fbidi",  // FillFontFamily
            "fs",                                                                      // ApplyFontSize
            "red", "green", "blue",                                                    // FillColorTable
            "cf",                                                                      // ApplyColorCommand
            "cb", "chcfpat", "cfpat",                                                  // ApplyBKColorCommand
            ";",                                                                       // ProcessSpecial
            "pngblip", "jpegblip", "emfblip", "wmetafile", "dibitmap", "objemb", "objlink",  // SetPictureType
            "objdata",                                                                 // ObjectData
            "trowd",                                                                   // ApplyStartRowCommand
            "lastrow",                                                                 // ApplyLastRowCommand
            "field",                                                                   // FieldInit
        };
        for (std::size_t number = cOwnRows; number < cOwnRows + cCmds; ++number)
            noEffect[number] = noEffectInSkip;
        // Looked up, not compared with every row; a word of the reader's own
        // would keep its own row's verdict.
        for (const char* szKeyword : s_wordsWithoutEffect) {
            const int number = lookup.index.Find(szKeyword);
            if (number >= static_cast<int>(cOwnRows))
                noEffect[number] |= noEffectOutsideSkip;
        }
    }
};

const CKeywordIndex& CRTFToUTF8Parser::KeywordIndex(std::size_t& cOwnRows)
{
    const CKeywordTables& tables = CKeywordTables::Get();
    cOwnRows = tables.cOwnRows;
    return tables.lookup.index;
}

const CRTFToUTF8Parser::UnicodeKeyword* CRTFToUTF8Parser::FindUnicodeKeyword(const char* szKeyword)
{
    std::size_t cOwnRows = 0;
    const int number = KeywordIndex(cOwnRows).Find(szKeyword);
    std::size_t cRows = 0;
    return number >= 0 && static_cast<std::size_t>(number) < cOwnRows ? &UnicodeKeywordRows(cRows)[number] : nullptr;
}

// --- life cycle

CRTFToUTF8Parser::CRTFToUTF8Parser()
{
    const CKeywordTables& tables = CKeywordTables::Get();
    m_pKeywordIndex = &tables.lookup.index;
    m_pFirstLook = &tables.beforeFirstWord;
    m_cOwnKeywords = static_cast<int>(tables.cOwnRows);
    m_pNoEffect = tables.noEffect;
}

void CRTFToUTF8Parser::SetNewline(Newline newline)
{
    static const char* const s_szNewlines[] = {"\n", "\r\n", "\r"};
    const char* sz = s_szNewlines[newline == newlineCRLF ? 1 : newline == newlineCR ? 2 : 0];
    m_cchNewline = static_cast<int>(std::strlen(sz));
    std::memcpy(m_szNewline, sz, static_cast<std::size_t>(m_cchNewline) + 1);
}

void CRTFToUTF8Parser::SetCodePage(int codePage)
{
    m_forcedCodePage = codePage;
}

void CRTFToUTF8Parser::SetHeaders(bool bHeaders)
{
    m_bHeaders = bHeaders;
}

void CRTFToUTF8Parser::Init()
{
    if (m_bContinuing) {
        // The next top-level group of a fragment: the document goes on, only
        // the core's per-document state starts again.
        const bool bParagraphStart = m_bParagraphStart;
        CBaseRTFParser::Init();
        m_bParagraphStart = bParagraphStart;
        return;
    }
    m_state = GroupState();
    m_fonts.clear();
    std::fill(std::begin(m_smallFontPages), std::end(m_smallFontPages), nullptr);
    m_iFontEntry = -1;
    m_iDefaultFont = 0;
    m_pDocPage = CCodePage::Get(m_forcedCodePage ? m_forcedCodePage : kWesternCodePage);
    if (!m_pDocPage)
        m_pDocPage = CCodePage::Get(kWesternCodePage);
    if (!m_pDocPage)
        m_pDocPage = &CCodePage::Fallback();
    m_pAnsiPage = m_pDocPage;
    m_cchUnicodeSkip = 0;
    m_chLeadByte = 0;
    m_highSurrogate = 0;
    m_cGroupUpr = 0;
    CBaseRTFParser::Init();
}

unsigned long CRTFToUTF8Parser::Read(char* pBegin, char* pEnd, bool& bMore)
{
    OpenWindow(pBegin, pEnd);
    while (!m_bParseEnded) {
        Parse(bMore);
        if (bMore) {
            NoteLastByte();
            return static_cast<unsigned long>(Written());
        }
        // The core stops where the outermost group closes: a document ends
        // there, a fragment goes on with its next group. Each Parse call reads
        // at least one byte, so this ends with the input.
        if (m_bRtfDocument || AtEndOfInput()) {
            m_bParseEnded = true;
        } else {
            m_bContinuing = true;
            m_bStarted = false;
        }
    }
    bMore = !FinishText();
    NoteLastByte();
    return static_cast<unsigned long>(Written());
}

void CRTFToUTF8Parser::NoteLastByte()
{
    if (m_pCur > m_pBegin)
        m_chLast = m_pCur[-1];
}

bool CRTFToUTF8Parser::FinishText()
{
    // A lead byte or high surrogate the document ended without completing.
    m_state.bFootnote = false;
    m_bCellTabOwed = false;
    m_bTableNewlineOwed = false;
    if (m_bBodyEnded)
        return PayOwed();
    if (!FlushPending())
        return false;
    NoteLastByte();
    if (m_chLast && m_chLast != '\n' && m_chLast != '\r' && !EmitNewline())
        return false;
    m_bBodyEnded = true;
    if (!m_footnotes.empty()) {
        if (m_footnotes.back() != '\n' && m_footnotes.back() != '\r')
            m_footnotes.append(m_szNewline, static_cast<std::size_t>(m_cchNewline));
        m_owed.append(m_szNewline, static_cast<std::size_t>(m_cchNewline));
        m_owed += m_footnotes;
        m_footnotes.clear();
    }
    return PayOwed();
}

bool CRTFToUTF8Parser::InitBuffer() { return true; }

// --- groups

CBaseRTFParser::CBaseRTFParserSave* CRTFToUTF8Parser::CreateSave()
{
    CUTF8Save* pSave = new (std::nothrow) CUTF8Save;
    if (pSave)
        pSave->state = m_state;
    return pSave;
}

bool CRTFToUTF8Parser::PushRtfState()
{
    m_cchUnicodeSkip = 0;  // a brace ends a \uN fallback
    m_bAtGroupStart = true;
    return CBaseRTFParser::PushRtfState();
}

bool CRTFToUTF8Parser::PopRtfState()
{
    m_cchUnicodeSkip = 0;
    m_bAtGroupStart = false;
    // A '}' between the groups of a fragment closes nothing.
    if (m_cGroup < 1)
        return true;
    if (!m_pSave)
        return CBaseRTFParser::PopRtfState();  // reports the underflow

    // Every record on the stack comes from CreateSave above.
    const GroupState saved = static_cast<CUTF8Save*>(m_pSave)->state;
    const bool bFontTableEnds = m_rds == rdsFontTable && m_pSave->rds != rdsFontTable;
    const bool bFootnoteEnds = m_state.bFootnote && !saved.bFootnote;
    if (m_rds == rdsFontTable)
        EndFontEntry();
    const bool bOk = CBaseRTFParser::PopRtfState();
    m_state = saved;
    // Text before any \f is in the default font, whose character set the
    // font table has only now told.
    if (bFontTableEnds)
        SelectFont(m_state.iFont);
    if (bFootnoteEnds && !m_footnotes.empty() && m_footnotes.back() != '\n' && m_footnotes.back() != '\r')
        m_footnotes.append(m_szNewline, static_cast<std::size_t>(m_cchNewline));
    if (m_cGroup < m_cGroupUpr)
        m_cGroupUpr = 0;  // the \upr group has ended
    return bOk;
}

// --- dispatch

bool CRTFToUTF8Parser::TranslateKeyword(const char* szKeyword, int param)
{
    // A word met while a \uN fallback is being skipped is a rare case.
    const KeywordKey* pKey = m_cchUnicodeSkip > 0 ? nullptr : TokenWordKey(szKeyword);
    return TranslateNumberedKeyword(pKey ? m_pFirstLook->Find(*pKey) : CKeywordFirstLook::askIndex, szKeyword, param);
}

// The word's handler called from here: the common case saves no registers
// and makes no call but the handler's. The rare cases other than a \uN
// fallback, the document's first word and \*, are words the first look
// leaves to the index.
bool CRTFToUTF8Parser::TranslateNumberedKeyword(int number, const char* szKeyword, int param)
{
    const bool bAtGroupStart = m_bAtGroupStart;
    m_bAtGroupStart = false;
    if (number == CKeywordFirstLook::askIndex)
        return TranslateRareKeyword(szKeyword, param, bAtGroupStart);
    return DispatchNumber(number, szKeyword, param);
}

RTFCONV_OUT_OF_LINE bool CRTFToUTF8Parser::TranslateRareKeyword(const char* szKeyword, int param, bool bAtGroupStart)
{
    // \* marks an optional destination only as the first thing in a group;
    // elsewhere it is meaningless, and the core would hide the rest of the
    // group at the next keyword it does not know.
    if (szKeyword[0] == '*' && szKeyword[1] == '\0' && !bAtGroupStart)
        return true;
    if (!m_bFirstKeywordSeen) {
        m_bFirstKeywordSeen = true;
        m_pFirstLook = &CKeywordTables::Get().lookup.firstLook;
        m_bRtfDocument = m_cGroup == 1 && std::strcmp(szKeyword, "rtf") == 0;
    }
    // A \u ends the fallback before it: some writers give a surrogate pair's
    // fallback only after its second half.
    if (m_cchUnicodeSkip > 0) {
        if (std::strcmp(szKeyword, "u") != 0)
            return SkipFallbackKeyword(szKeyword);
        m_cchUnicodeSkip = 0;
    }
    return DispatchKeyword(szKeyword, param);
}

// The index over both tables gives the word's row in either.
// Out of line: TranslateKeyword's common case is a word the first look finds.
RTFCONV_OUT_OF_LINE bool CRTFToUTF8Parser::DispatchKeyword(const char* szKeyword, int param)
{
    const KeywordKey* pKey = TokenWordKey(szKeyword);
    return DispatchNumber(pKey ? m_pKeywordIndex->Find(*pKey) : m_pKeywordIndex->Find(szKeyword), szKeyword, param);
}

inline bool CRTFToUTF8Parser::DispatchNumber(int number, const char* szKeyword, int param)
{
    // A word in neither table (most words of a document) or in the core's:
    // what CBaseRTFParser::TranslateKeyword does with it, without a second
    // lookup. A word in neither does nothing unless \* is pending, which is
    // rare, so that is asked first.
    if (number < 0)
        return !m_bOptionalDest || m_rds == rdsSkip || DispatchRow(-1, szKeyword, param);
    if (number >= m_cOwnKeywords)
        return m_rds == rdsSkip || DispatchRow(number - m_cOwnKeywords, szKeyword, param);
    std::size_t cRows = 0;
    const UnicodeKeyword& row = UnicodeKeywordRows(cRows)[number];
    if (m_rds == rdsSkip && !row.bInSkip)
        return true;
    m_bOptionalDest = false;
    return (this->*row.pfnHandler)(row.cp, param);
}

bool CRTFToUTF8Parser::SkipFallbackKeyword(const char* szKeyword)
{
    --m_cchUnicodeSkip;
    if (szKeyword[0] == '\'' && szKeyword[1] == '\0')
        ParseHexParam('\0');
    return true;
}

// --- characters

bool CRTFToUTF8Parser::ParseRun(const char* p, std::size_t cb)
{
    // The bytes of a \uN fallback being skipped, and one a pending skip
    // drops, lead the run (the parse loop hands a run whole, first byte and
    // all): they go as ParseChar takes them, the rest of the run as any run.
    while (m_cchUnicodeSkip > 0 || (m_bSkipNextChar && IsTextDestination() && m_cGroup > 0)) {
        if (!CBaseRTFParser::ParseRun(p, 1))
            return false;
        ++p;
        if (--cb == 0)
            return true;
    }
    m_bAtGroupStart = false;
    if (!IsTextDestination()) {
        // The destinations that collect their bytes take them one by one.
        if (m_rds == rdsFontTable || m_rds == rdsPNTextBefore || m_rds == rdsPNTextAfter)
            return CBaseRTFParser::ParseRun(p, cb);
        if (m_rds == rdsStyleSheet || m_rds == rdsRevTable || m_rds == rdsInfo || m_rds == rdsPNText)
            m_bSkipNextChar = false;
        SkipDroppedBytes(p, cb);
        return true;
    }
    if (m_bSkipNextChar || m_cGroup == 0)
        return CBaseRTFParser::ParseRun(p, cb);
    if (m_state.bHidden) {
        SkipDroppedBytes(p, cb);
        return true;
    }
    // ParseChar's quickest case over as many bytes as it holds for, each
    // other byte through ParseChar itself, stepped over as Get steps over it.
    std::size_t n = 0;
    for (;;) {
        const std::size_t cbCopied = CopyPrintableText(p + n, cb - n);
        SkipAhead(cbCopied);
        n += cbCopied;
        if (n == cb)
            return true;
        SkipAhead(1);
        if (!ParseChar(p[n]))
            return false;
        ++n;
    }
}

std::size_t CRTFToUTF8Parser::CopyPrintableText(const char* p, std::size_t cb)
{
    if (m_chLeadByte || m_highSurrogate || IsTextOwed())
        return 0;
    const CCodePage& page = CurrentPage();
    const std::size_t cbMax = std::min(cb, Room());
    std::size_t n = 0;
    if (KeepsPrintableAscii(page)) {
        n = byte_scan::PrintableAsciiLength(p, cbMax);
        std::memcpy(m_pCur, p, n);
        m_pCur += n;
    }
    for (; n < cbMax; ++n) {
        const unsigned char b = static_cast<unsigned char>(p[n]);
        if (page.IsLeadByte(b))
            break;
        const char32_t cp = page.Single(b);
        if (cp < 0x20 || cp >= 0x7F)
            break;
        *m_pCur++ = static_cast<char>(cp);
    }
    return n;
}

bool CRTFToUTF8Parser::KeepsPrintableAscii(const CCodePage& page)
{
    if (m_asciiVerdicts[m_iAsciiVerdict].pPage == &page)
        return m_asciiVerdicts[m_iAsciiVerdict].bKeeps;
    for (std::size_t i = 0; i < cAsciiVerdicts; ++i) {
        if (m_asciiVerdicts[i].pPage == &page) {
            m_iAsciiVerdict = i;
            return m_asciiVerdicts[i].bKeeps;
        }
    }
    bool bKeeps = true;
    for (unsigned b = 0x20; b < 0x7F && bKeeps; ++b)
        bKeeps = !page.IsLeadByte(static_cast<unsigned char>(b)) && page.Single(static_cast<unsigned char>(b)) == b;
    m_iAsciiVerdict = m_cAsciiJudged++ % cAsciiVerdicts;
    m_asciiVerdicts[m_iAsciiVerdict] = {&page, bKeeps};
    return bKeeps;
}

bool CRTFToUTF8Parser::ParseChar(char ch)
{
    m_bAtGroupStart = false;
    if (m_cchUnicodeSkip > 0) {
        --m_cchUnicodeSkip;
        return true;
    }
    if (!IsTextDestination()) {
        // As in the 8-bit converter: these tables consume a pending skip,
        // the other destinations leave it pending.
        if (m_rds == rdsStyleSheet || m_rds == rdsRevTable || m_rds == rdsInfo || m_rds == rdsPNText)
            m_bSkipNextChar = false;
        else if (m_rds == rdsFontTable)
            AddToFontName(ch);
        else if (m_rds == rdsPNTextBefore)
            m_pnInfo.AppendCharBefore(ch);
        else if (m_rds == rdsPNTextAfter)
            m_pnInfo.AppendCharAfter(ch);
        return true;
    }
    if (m_bSkipNextChar) {
        m_bSkipNextChar = false;
        return true;
    }
    if (m_state.bHidden)
        return true;
    // Blanks before the document are not text.
    if (m_cGroup == 0 && m_chLast == 0 && m_pCur == m_pBegin && IsAsciiSpace(ch))
        return true;

    // Most text is single bytes with nothing waiting to be completed or owed
    // before it: they are written here, ASCII the quickest.
    const unsigned char b = static_cast<unsigned char>(ch);
    const CCodePage& page = CurrentPage();
    if (!m_chLeadByte && !m_highSurrogate && !IsTextOwed() && !page.IsLeadByte(b)) {
        const char32_t cp = page.Single(b);
        if (cp < 0x80) {
            if (cp >= 0x20 && cp != 0x7F && m_pCur != m_pEnd) {
                *m_pCur++ = static_cast<char>(cp);
                return true;
            }
        } else if (cp >= 0xA0) {
            char sz[4];
            const int cch = EncodeUtf8(cp, sz);
            if (m_pEnd - m_pCur >= cch) {
                std::memcpy(m_pCur, sz, static_cast<std::size_t>(cch));
                m_pCur += cch;
                return true;
            }
        }
    }
    if (!DecodeByte(b)) {
        Backtrack(1);
        return false;
    }
    return true;
}

bool CRTFToUTF8Parser::DecodeByte(unsigned char b)
{
    if (!BeforeText())
        return false;
    const CCodePage& page = CurrentPage();
    if (m_chLeadByte) {
        const char32_t cp = page.Pair(m_chLeadByte, b);
        if (cp != CCodePage::invalidPair) {
            if (!PutCodePoint(cp))
                return false;
            m_chLeadByte = 0;
            return true;
        }
        // b does not complete the lead byte: the lead byte alone is
        // undefined, and b is read on its own.
        if (!FlushPending())
            return false;
    }
    if (page.IsLeadByte(b)) {
        if (!FlushPending())
            return false;
        m_chLeadByte = b;
        return true;
    }
    return EmitCodePoint(page.Single(b));
}

bool CRTFToUTF8Parser::EmitCodePoint(char32_t cp)
{
    if (IsReservedCodePoint(cp))
        cp = ' ';
    else if (IsDroppedControl(cp))
        return FlushPending();
    return FlushPending() && BeforeText() && PutCodePoint(cp);
}

bool CRTFToUTF8Parser::EmitUnicode(char32_t cp)
{
    if (!BeforeText())
        return false;
    if (IsHighSurrogate(cp)) {
        if (!FlushPending())
            return false;
        m_highSurrogate = cp;
        return true;
    }
    if (!IsLowSurrogate(cp))
        return EmitCodePoint(cp);
    if (!m_highSurrogate)
        return EmitCodePoint(kReplacement);
    const char32_t full = 0x10000 + ((m_highSurrogate - 0xD800) << 10) + (cp - 0xDC00);
    if (!PutCodePoint(full))
        return false;
    m_highSurrogate = 0;
    return true;
}

bool CRTFToUTF8Parser::EmitControl(const char* pch, int cch)
{
    return FlushPending() && PutBytes(pch, cch);
}

bool CRTFToUTF8Parser::EmitNewline()
{
    return PayTableNewline() && PayCellTab() && EmitControl(m_szNewline, m_cchNewline);
}

bool CRTFToUTF8Parser::PayTableNewline()
{
    if (!m_bTableNewlineOwed)
        return true;
    m_bTableNewlineOwed = false;
    if (EmitControl(m_szNewline, m_cchNewline))
        return true;
    m_bTableNewlineOwed = true;
    return false;
}

bool CRTFToUTF8Parser::PayCellTab()
{
    if (!m_bCellTabOwed)
        return true;
    if (!EmitControl("\t", 1))
        return false;
    m_bCellTabOwed = false;
    return true;
}

bool CRTFToUTF8Parser::BeforeText()
{
    if (!PayTableNewline() || !PayCellTab())
        return false;
    if (m_bParagraphStart) {
        m_bParagraphStart = false;
        if (!m_bNumberTextGiven && !m_state.bFootnote && m_numbering.GetCurrentInfo().GetNumberingOn())
            OweParagraphNumber();
    }
    return true;
}

void CRTFToUTF8Parser::OweParagraphNumber()
{
    // The core renders the number as 8-bit text: its texts before and after
    // are bytes of the \pnf font (a bullet is often Symbol's \'b7).
    char sz[512];
    char* p = sz;
    m_numbering.FormatNumberingString(p, sizeof sz);
    sz[sizeof sz - 1] = '\0';
    const CCodePage* pPage = m_iNumberFont >= 0 ? PageOfFont(m_iNumberFont) : m_state.pPage;
    const CCodePage& page = pPage ? *pPage : *m_pDocPage;
    for (const unsigned char* q = reinterpret_cast<const unsigned char*>(sz); *q; ++q) {
        char32_t cp = page.Single(*q);
        if (page.IsLeadByte(*q) && q[1]) {
            cp = page.Pair(q[0], q[1]);
            ++q;
            if (cp == CCodePage::invalidPair)
                cp = kReplacement;
        }
        if (!IsDroppedControl(cp) || cp == '\t')
            AppendUtf8(m_owed, cp);
    }
}

bool CRTFToUTF8Parser::PayOwed()
{
    if (m_owed.empty())
        return true;
    const std::size_t cbRoom = Room();
    const std::size_t cb = std::min(cbRoom, m_owed.size() - m_iOwed);
    std::memcpy(m_pCur, m_owed.data() + m_iOwed, cb);
    m_pCur += cb;
    m_iOwed += cb;
    if (m_iOwed < m_owed.size())
        return false;
    m_owed.clear();
    m_iOwed = 0;
    return true;
}

bool CRTFToUTF8Parser::FlushPending()
{
    if (!m_chLeadByte && !m_highSurrogate)
        return true;
    if (!PutCodePoint(kReplacement))
        return false;
    m_chLeadByte = 0;
    m_highSurrogate = 0;
    return true;
}

bool CRTFToUTF8Parser::PutCodePoint(char32_t cp)
{
    if (cp < 0x80 && !m_state.bFootnote && m_owed.empty()) {
        if (m_pCur == m_pEnd)
            return false;
        *m_pCur++ = static_cast<char>(cp);
        return true;
    }
    char sz[4];
    return PutBytes(sz, EncodeUtf8(cp, sz));
}

bool CRTFToUTF8Parser::PutBytes(const char* pch, int cch)
{
    if (m_state.bFootnote) {
        m_footnotes.append(pch, static_cast<std::size_t>(cch));
        return true;
    }
    if (!PayOwed())
        return false;
    if (m_pEnd - m_pCur < cch)
        return false;
    std::memcpy(m_pCur, pch, static_cast<std::size_t>(cch));
    m_pCur += cch;
    return true;
}

// --- fonts and code pages

const CCodePage* CRTFToUTF8Parser::PageOfFont(int iFont) const
{
    const int iKey = iFont < 0 ? m_iDefaultFont : iFont;
    if (iKey >= 0 && iKey < cSmallFonts)
        return m_smallFontPages[iKey];
    const auto it = m_fonts.find(iKey);
    return it != m_fonts.end() ? it->second : nullptr;
}

void CRTFToUTF8Parser::SetFontPage(int iFont, const CCodePage* pPage)
{
    m_fonts[iFont] = pPage;
    if (iFont >= 0 && iFont < cSmallFonts)
        m_smallFontPages[iFont] = pPage;
}

void CRTFToUTF8Parser::SelectFont(int iFont)
{
    m_state.iFont = iFont;
    m_state.iFontHich = -1;
    m_state.iFontDbch = -1;
    m_state.charClass = classNone;
    m_state.pPage = PageOfFont(iFont);
}

void CRTFToUTF8Parser::UpdatePage()
{
    int iFont = m_state.iFont;
    if (m_state.charClass == classHich && m_state.iFontHich >= 0)
        iFont = m_state.iFontHich;
    else if (m_state.charClass == classDbch && m_state.iFontDbch >= 0)
        iFont = m_state.iFontDbch;
    m_state.pPage = PageOfFont(iFont);
}

bool CRTFToUTF8Parser::GetFontNum(const void*, int param)
{
    if (param == noParam)
        return true;
    if (m_rds == rdsFontTable) {
        if (!FontTableHasRoom(param))
            return true;
        // A new entry, in the document's page until its \fcharset says otherwise.
        EndFontEntry();
        m_iFontEntry = param;
        SetFontPage(param, nullptr);
        m_fontName.clear();
        m_bFontNameDone = false;
        return true;
    }
    // \f after \hich or \dbch is the font of that class of characters too.
    m_state.iFont = param;
    if (m_state.charClass == classHich)
        m_state.iFontHich = param;
    else if (m_state.charClass == classDbch)
        m_state.iFontDbch = param;
    UpdatePage();
    return true;
}

bool CRTFToUTF8Parser::SetCharacterClass(char32_t cp, int)
{
    m_state.charClass = static_cast<CharacterClass>(cp);
    UpdatePage();
    return true;
}

// \afN names the font of the class of characters last named; after \loch
// (or none) it is the font of right-to-left text, which is not this reader's
// concern.
bool CRTFToUTF8Parser::SetAssociatedFont(char32_t, int param)
{
    if (param == noParam || m_rds == rdsFontTable)
        return true;
    if (m_state.charClass == classHich)
        m_state.iFontHich = param;
    else if (m_state.charClass == classDbch)
        m_state.iFontDbch = param;
    UpdatePage();
    return true;
}

// Past the limit a new font number is not entered, and the character set
// that follows it is not given to the entry before.
bool CRTFToUTF8Parser::FontTableHasRoom(int fontNum)
{
    if (m_fonts.count(fontNum) != 0 ||
        WithinLimit(m_fonts.size() + 1, static_cast<std::size_t>(m_limits.maxFontEntries), limitFontEntries))
        return true;
    m_iFontEntry = -1;
    return false;
}

bool CRTFToUTF8Parser::FillFontCharset(const void*, int param)
{
    if (m_rds != rdsFontTable || m_iFontEntry < 0)
        return true;
    // The ANSI set is Western whatever \ansicpg says (a Latin font in a
    // Japanese document is read in 1252), unless the caller named a page.
    SetFontPage(m_iFontEntry, param == 0 ? m_pAnsiPage : PageOfCharset(param));
    return true;
}

void CRTFToUTF8Parser::AddToFontName(char ch)
{
    if (m_iFontEntry < 0 || m_bFontNameDone)
        return;
    if (ch == ';') {
        EndFontEntry();
        return;
    }
    // Only the names of dingbat fonts matter, and they are short.
    if (m_fontName.size() < 32)
        m_fontName += ch;
}

void CRTFToUTF8Parser::EndFontEntry()
{
    if (m_iFontEntry < 0 || m_bFontNameDone)
        return;
    m_bFontNameDone = true;
    // A dingbat font shows its own characters whatever its \fcharset says.
    const int dingbats = CCodePage::DingbatPageOfFontName(m_fontName.c_str());
    if (dingbats)
        SetFontPage(m_iFontEntry, CCodePage::Get(dingbats));
}

bool CRTFToUTF8Parser::SetFontCodePage(char32_t, int param)
{
    if (m_rds == rdsFontTable && m_iFontEntry >= 0) {
        if (const CCodePage* pPage = CCodePage::Get(param))
            SetFontPage(m_iFontEntry, pPage);
    }
    return true;
}

bool CRTFToUTF8Parser::GetDefaultFontNum(const void*, int param)
{
    if (param != noParam)
        m_iDefaultFont = param;
    return true;
}

// \ansicpgN, or \ansi, \mac, \pc, \pca with their fixed pages.
bool CRTFToUTF8Parser::SetDocumentCodePage(char32_t cp, int param)
{
    if (m_forcedCodePage)
        return true;
    if (const CCodePage* pPage = CCodePage::Get(cp ? static_cast<int>(cp) : param))
        m_pDocPage = pPage;
    // A Macintosh document's Roman fonts are Mac Roman.
    if (cp == kMacRomanCodePage && m_pDocPage->GetNumber() == kMacRomanCodePage)
        m_pAnsiPage = m_pDocPage;
    return true;
}

bool CRTFToUTF8Parser::ApplyPlainCommand(const void*, int)
{
    m_state.bHidden = false;
    SelectFont(-1);
    return true;
}

bool CRTFToUTF8Parser::SetNumberingFont(char32_t, int param)
{
    if (param != noParam)
        m_iPnFont = param;
    return true;
}

// --- \u, \uc, \upr, \ud

bool CRTFToUTF8Parser::InsertUnicode(char32_t, int param)
{
    if (param == noParam)
        return true;
    // A signed 16-bit value; some writers give the unsigned one instead.
    const long value = param < 0 ? static_cast<long>(param) + 65536 : param;
    char32_t cp = value < 0 || value > 0x10FFFF ? kReplacement : static_cast<char32_t>(value);
    // Writers give a symbol font's characters as U+F000 + byte, the codes
    // under which Windows shows its glyphs (Word's list bullet is \u-3913,
    // U+F0B7): in such a font they are the characters the font shows.
    if (cp >= 0xF020 && cp <= 0xF0FF && CurrentPage().IsSymbol())
        cp = CurrentPage().Single(static_cast<unsigned char>(cp & 0xFF));
    if (IsVisibleText() && !EmitUnicode(cp))
        return false;
    m_cchUnicodeSkip = m_state.cchUnicodeFallback;
    return true;
}

bool CRTFToUTF8Parser::SetUnicodeSkip(char32_t, int param)
{
    m_state.cchUnicodeFallback = param == noParam ? 1 : std::max(param, 0);
    return true;
}

// {\upr{8-bit text}{\*\ud{Unicode text}}}: the 8-bit alternative is skipped
// and the \ud group, a direct child, read in the destination \upr found.
bool CRTFToUTF8Parser::SkipAnsiAlternative(char32_t, int)
{
    m_rdsBeforeUpr = m_rds;
    m_cGroupUpr = m_cGroup;
    m_rds = rdsSkip;
    return true;
}

bool CRTFToUTF8Parser::ReadUnicodeAlternative(char32_t, int)
{
    if (m_cGroupUpr > 0 && m_cGroup == m_cGroupUpr + 1 && m_rds == rdsSkip)
        m_rds = m_rdsBeforeUpr;
    return true;
}

// --- characters and breaks

bool CRTFToUTF8Parser::InsertCharacter(char32_t cp, int)
{
    if (cp == 0 || !IsVisibleText())
        return true;
    return EmitCodePoint(cp);
}

bool CRTFToUTF8Parser::SetHidden(char32_t, int param)
{
    m_state.bHidden = param != 0;
    return true;
}

bool CRTFToUTF8Parser::ApplyCRCommand(const void* pKeyword, int param)
{
    // The last paragraph mark of a cell is its end, which \cell gives: a
    // paragraph mark in a table is written only when text follows in the cell.
    if (m_bInTable && IsVisibleText() && IsKeyword(pKeyword, "par")) {
        if (!PayTableNewline())
            return false;
        m_bTableNewlineOwed = true;
    } else if (IsVisibleText() && !EmitNewline()) {
        return false;
    }
    m_bNumberTextGiven = false;
    return CBaseRTFParser::ApplyCRCommand(pKeyword, param);
}

bool CRTFToUTF8Parser::ApplyEscapedLineBreak(char32_t, int)
{
    return ApplyCRCommand("par", noParam);
}

bool CRTFToUTF8Parser::ApplyNLCommand(const void*, int)
{
    return !IsVisibleText() || EmitNewline();
}

bool CRTFToUTF8Parser::ApplyTabCommand(const void*, int)
{
    return !IsVisibleText() || (FlushPending() && BeforeText() && PutBytes("\t", 1));
}

// A row ends its line; its last cell owes no TAB.
bool CRTFToUTF8Parser::ApplyEndRowCommand(const void* pKeyword, int param)
{
    if (IsVisibleText()) {
        m_bCellTabOwed = false;
        m_bTableNewlineOwed = false;
    }
    return ApplyCRCommand(pKeyword, param);
}

// The TAB between two cells is written before the next cell's text, so that
// none follows a row's last cell.
bool CRTFToUTF8Parser::ApplyEndCellCommand(const void*, int)
{
    if (!IsVisibleText())
        return true;
    m_bTableNewlineOwed = false;
    if (!PayCellTab())  // the cell before was empty
        return false;
    m_bCellTabOwed = true;
    return true;
}

bool CRTFToUTF8Parser::SetInTable(char32_t, int)
{
    m_bInTable = true;
    return true;
}

// Only \pard does something here: the stock reader's loop passes over the
// other words of this handler (CKeywordTables::MarkCoreWordsWithoutEffect).
bool CRTFToUTF8Parser::ApplyParCommand(const void* pKeyword, int param)
{
    if (IsKeyword(pKeyword, "pard"))
        m_bInTable = false;
    return CBaseRTFParser::ApplyParCommand(pKeyword, param);
}

bool CRTFToUTF8Parser::ApplyNestedCell(char32_t, int)
{
    return ApplyEndCellCommand("nestcell", noParam);
}

bool CRTFToUTF8Parser::ApplyNestedRow(char32_t, int)
{
    return ApplyEndRowCommand("nestrow", noParam);
}

// A page break ends the line it is in; after a paragraph mark it shows as an
// empty line.
bool CRTFToUTF8Parser::ApplyPageBreak(char32_t, int)
{
    return ApplyNLCommand(nullptr, noParam);
}

// A section break ends its paragraph, as the paragraph mark it replaces would.
bool CRTFToUTF8Parser::ApplySectionBreak(char32_t, int)
{
    return ApplyCRCommand("sect", noParam);
}

// The N raw bytes after \binN are data, never RTF, in every destination.
bool CRTFToUTF8Parser::SkipBinary(char32_t, int param)
{
    if (param > 0 && param != noParam)
        Get(param, nullptr);
    return true;
}

// --- destinations

// The marker [n] stays where the footnote stands; the note's text, after the
// same marker, is kept for after the body.
bool CRTFToUTF8Parser::BeginFootnote(char32_t, int)
{
    if (!IsVisibleText() || m_state.bFootnote) {
        m_rds = rdsSkip;
        return true;
    }
    if (!FlushPending() || !BeforeText())
        return false;
    const std::string marker = "[" + std::to_string(++m_cFootnotes) + "]";
    m_owed += marker;
    m_footnotes += marker + " ";
    m_state.bFootnote = true;
    return true;
}

bool CRTFToUTF8Parser::BeginHeaderOrFooter(char32_t, int)
{
    if (!m_bHeaders)
        m_rds = rdsSkip;
    return true;
}

bool CRTFToUTF8Parser::SkipDestination(char32_t, int)
{
    m_rds = rdsSkip;
    return true;
}

bool CRTFToUTF8Parser::InitPNCommand(const void* pKeyword, int param)
{
    // \pntext and \listtext give the paragraph's number as text.
    if (!IsKeyword(pKeyword, "pn") && IsVisibleText())
        m_bNumberTextGiven = true;
    return CBaseRTFParser::InitPNCommand(pKeyword, param);
}

bool CRTFToUTF8Parser::EndGroupAction(RDS rdsOld, RDS rdsNew)
{
    if (rdsOld == rdsPNCommand && rdsNew != rdsPNCommand) {
        m_iNumberFont = m_iPnFont;
        m_iPnFont = -1;
    }
    return CBaseRTFParser::EndGroupAction(rdsOld, rdsNew);
}

bool CRTFToUTF8Parser::FieldResult(const void*, int)
{
    if (m_rds != rdsSkip)
        m_rds = rdsNorm;  // a field's result is text
    return true;
}

bool CRTFToUTF8Parser::InitAttachment(const void*, int)
{
    m_rds = rdsPicture;
    return true;
}

bool CRTFToUTF8Parser::ObjectResult(const void*, int)
{
    m_rds = rdsObject;
    return true;
}

// --- keywords that have no effect on the text
// (The stock reader's loop passes over the words of these handlers without
// calling them: CKeywordTables::MarkCoreWordsWithoutEffect lists them.)

bool CRTFToUTF8Parser::AttachmentHandler() { return true; }
bool CRTFToUTF8Parser::FieldInit(const void*, int) { return true; }
bool CRTFToUTF8Parser::FillFontFamily(const void*, int) { return true; }
bool CRTFToUTF8Parser::ApplyFontSize(const void*, int) { return true; }
bool CRTFToUTF8Parser::FillColorTable(const void*, int) { return true; }
bool CRTFToUTF8Parser::ApplyColorCommand(const void*, int) { return true; }
bool CRTFToUTF8Parser::ApplyBKColorCommand(const void*, int) { return true; }
bool CRTFToUTF8Parser::ProcessSpecial(const void*, int) { return true; }
// \lquote and \rquote are the reader's own keywords; this row of the core's
// table is never reached.
bool CRTFToUTF8Parser::InsertSpecialChar(const void*, int) { return true; }
// \bin is the reader's own keyword (SkipBinary); never reached.
bool CRTFToUTF8Parser::GetBinary(const void*, int) { return true; }
bool CRTFToUTF8Parser::ApplyCharCommand(const void*, int) { return true; }
bool CRTFToUTF8Parser::SkipCharacters(const void*, int) { return true; }
bool CRTFToUTF8Parser::ApplyStartRowCommand(const void*, int) { return true; }
bool CRTFToUTF8Parser::ApplyLastRowCommand(const void*, int) { return true; }
bool CRTFToUTF8Parser::SetPictureType(const void*, int) { return true; }
bool CRTFToUTF8Parser::ObjectData(const void*, int) { return true; }

// --- the byte-pointer source

CBytePtrRTFToUTF8PtrParser::CBytePtrRTFToUTF8PtrParser(const unsigned char* pData, const unsigned long& cbData)
    : CByteCursor(pData, cbData)
{
    m_bTakesWholeRuns = true;  // ParseRun writes, drops or refuses from the first byte
    m_keywordWork = KeywordWork::utf8Reader;
    static const unsigned char s_bom[] = {0xEF, 0xBB, 0xBF};
    if (m_cbData >= sizeof s_bom && std::memcmp(m_pData, s_bom, sizeof s_bom) == 0)
        m_pRead += sizeof s_bom;
}

long CBytePtrRTFToUTF8PtrParser::Get(char& ch)
{
    if (AtEnd())
        return E_UNEXPECTED;
    const long hr = ReadByte(ch);
    m_bNulRead = m_bNulRead || hr < 0;  // the byte read was a NUL
    return hr;
}

bool CBytePtrRTFToUTF8PtrParser::AtEndOfInput() const { return m_bNulRead || AtEnd(); }
long CBytePtrRTFToUTF8PtrParser::Get(int n, unsigned char* pDest) { return ReadBlock(n, pDest); }
void CBytePtrRTFToUTF8PtrParser::MarkBacktrack(int n) { MarkBack(n); }
void CBytePtrRTFToUTF8PtrParser::Backtrack(int n) { StepBack(n); }
const char* CBytePtrRTFToUTF8PtrParser::RunAhead(std::size_t& cb) const { return BytesAhead(cb); }
void CBytePtrRTFToUTF8PtrParser::SkipAhead(std::size_t cb) { StepAhead(cb); }

// Only this very class: one derived from it may have replaced any handler.
CByteCursor* CBytePtrRTFToUTF8PtrParser::StockCursor()
{
    return typeid(*this) == typeid(CBytePtrRTFToUTF8PtrParser) ? this : nullptr;
}

} // namespace rtf_converter
