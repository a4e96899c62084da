// RTF to UTF-8 text, pulled by the caller in buffers of its own size.
//
//     CBytePtrRTFToUTF8PtrParser reader(rtf, cbRtf);
//     bool bMore = true;
//     while (bMore) {
//         unsigned long n = reader.Read(buf, buf + sizeof buf, bMore);
//         consume(buf, n);
//     }
//
// A sibling of the 8-bit plain-text converter on the same reader core, which
// it leaves as it is: this reader adds what the core's keyword table does not
// know. Every character comes out as UTF-8:
//   \uN            the character N (signed 16 bits; a surrogate pair gives one
//                  character, an unpaired surrogate U+FFFD), after which the
//                  \ucN fallback is skipped: N plain characters or \'hh
//                  escapes (any other control word but \u counts as one
//                  too); a brace or the next \u ends the skipping, and \uc
//                  is scoped to its group.
//   \'hh, 8-bit    decoded in the code page of the current font's \fcharset
//                  or \cpg (\fcharset0 is 1252 whatever the document's page;
//                  the Mac sets are the Mac pages), or else of the document
//                  (\ansicpg, \mac, \pc, \pca; 1252 when none is given). In a
//                  \hich or \dbch run the font is the one named for it (\af
//                  or \f after the keyword). Double-byte pages (932, 936, 949,
//                  950, 10001, ...) pair a lead byte with the next byte.
//                  Symbol and the dingbat fonts, known by name (or
//                  \fcharset2), give the characters their glyphs show (also
//                  for \uN of U+F020 to U+F0FF, the codes Windows shows a
//                  symbol font's glyphs under). A byte the page does not
//                  define gives U+FFFD.
//   \upr, \ud      the Unicode alternative is read, the 8-bit one skipped.
//   \emdash ...    the typographic characters of RTF (see the keyword table).
// Paragraph marks (\par, \sect, \row, and a backslash before a line break,
// as TextEdit writes them) and \line, \page give the newline chosen with
// SetNewline (LF by default); \tab gives TAB, and \cell a TAB between the
// cells of a row (none after its last). The text ends with a newline. Hidden
// text (\v), field instructions, pictures, objects, the document's tables and
// its headers and footers (unless SetHeaders) are left out; a field gives its
// result. A footnote leaves a marker ([1], [2], ...) where it stands, and its
// text follows the body's, each note on its own line after its marker.
// Paragraph numbers are the text the document gives them in \pntext and
// \listtext; a paragraph numbered only by a \pn group gets the number the
// group describes, as the 8-bit converter writes it. \* marks an optional
// destination only directly after '{', as RTF has it. Control characters
// other than TAB and the newline never reach the text.
//
// Input that is a sequence of groups rather than one {\rtf ...} document (an
// RTF fragment) is read group after group to its end.
//
// A character's bytes are put all or nothing, so any output buffer of at
// least 4 bytes works, and the output is the same for every buffer size.
// With a smaller buffer a 4-byte character can never be written: Read then
// returns 0 with bMore true for as long as it is called.
#pragma once
#include "rtfconverter/Export.h"

#include <string>
#include <unordered_map>

#include "rtfconverter/BaseRTFParser.h"
#include "rtfconverter/ReaderPlumbing.h"

namespace rtf_converter {

// A code page's decoding tables (rtfconverter/CodePages.h).
class CCodePage;

class RTFCONV_API CRTFToUTF8Parser : protected CBaseRTFParser, protected COutputWindow {
public:
    enum Newline { newlineLF, newlineCRLF, newlineCR };

    // Converts into [pBegin, pEnd) and returns the number of bytes written;
    // bMore true means call again for the rest. No NUL is written or counted.
    unsigned long Read(char* pBegin, char* pEnd, bool& bMore);

    // What paragraph marks, \line and \page become. Set before the first Read.
    void SetNewline(Newline newline);
    // Decodes text of the document's own code page (fonts of the ANSI and
    // default character sets) in codePage instead, whatever \ansicpg says.
    // 0 restores the document's choice. Set before the first Read.
    void SetCodePage(int codePage);
    // Keeps the text of headers and footers, where the document has them.
    // Off by default: they repeat on every page and interrupt the body.
    void SetHeaders(bool bHeaders);

    // The caps on what a document may make the reader allocate (ReadLimits.h).
    using CRTFParser::SetLimits;
    using CRTFParser::GetLimits;
    using CRTFParser::GetLimitsReached;

protected:
    CRTFToUTF8Parser();
    CRTFToUTF8Parser(const CRTFToUTF8Parser&) = default;
    CRTFToUTF8Parser& operator=(const CRTFToUTF8Parser&) = default;
    ~CRTFToUTF8Parser() = default;

    // The raw bytes after \binN: skips n bytes, NULs included (pDest is
    // always null here). Negative when the input ended first.
    virtual long Get(int n, unsigned char* pDest) = 0;
    using CBaseRTFParser::Get;
    // True when no byte is left to read (or a NUL ended the text).
    virtual bool AtEndOfInput() const = 0;

    // --- the core's operations
    void Init() override;
    bool PushRtfState() override;
    bool PopRtfState() override;
    bool InitBuffer() override;
    bool ParseChar(char ch) override;
    // Printable ASCII of the body written a run at a time, hidden text and
    // dropped destinations (pictures' hex data among them) passed over whole;
    // everything else byte by byte (see CRTFParser).
    bool ParseRun(const char* p, std::size_t cb) override;
    bool TranslateKeyword(const char* szKeyword, int param) override;
    CBaseRTFParserSave* CreateSave() override;

    bool AttachmentHandler() override;
    bool FieldInit(const void* pKeyword, int param) override;
    bool FieldResult(const void* pKeyword, int param) override;
    bool InitAttachment(const void* pKeyword, int param) override;
    bool ObjectResult(const void* pKeyword, int param) override;
    bool EndGroupAction(RDS rdsOld, RDS rdsNew) override;
    bool InitPNCommand(const void* pKeyword, int param) override;
    bool ApplyParCommand(const void* pKeyword, int param) override;
    bool ApplyCRCommand(const void* pKeyword, int param) override;
    bool ApplyNLCommand(const void* pKeyword, int param) override;
    bool ApplyTabCommand(const void* pKeyword, int param) override;
    bool ApplyEndRowCommand(const void* pKeyword, int param) override;
    bool ApplyEndCellCommand(const void* pKeyword, int param) override;
    bool FillFontFamily(const void* pKeyword, int param) override;
    bool FillFontCharset(const void* pKeyword, int param) override;
    bool GetFontNum(const void* pKeyword, int param) override;
    bool ApplyFontSize(const void* pKeyword, int param) override;
    bool FillColorTable(const void* pKeyword, int param) override;
    bool ApplyColorCommand(const void* pKeyword, int param) override;
    bool ApplyBKColorCommand(const void* pKeyword, int param) override;
    bool GetDefaultFontNum(const void* pKeyword, int param) override;
    bool ProcessSpecial(const void* pKeyword, int param) override;
    bool InsertSpecialChar(const void* pKeyword, int param) override;
    bool GetBinary(const void* pKeyword, int param) override;
    bool ApplyCharCommand(const void* pKeyword, int param) override;
    bool ApplyPlainCommand(const void* pKeyword, int param) override;
    bool SkipCharacters(const void* pKeyword, int param) override;
    bool ApplyStartRowCommand(const void* pKeyword, int param) override;
    bool ApplyLastRowCommand(const void* pKeyword, int param) override;
    bool SetPictureType(const void* pKeyword, int param) override;
    bool ObjectData(const void* pKeyword, int param) override;

    // A row of the reader's own keyword table, sorted by keyword.
    typedef bool (CRTFToUTF8Parser::*PFNUNICODEHANDLER)(char32_t cp, int param);
    struct UnicodeKeyword {
        const char* szKeyword;
        PFNUNICODEHANDLER pfnHandler;
        char32_t cp;     // the character a typographic keyword stands for
        bool bInSkip;    // also honoured inside a skipped destination
    };
    static const UnicodeKeyword* FindUnicodeKeyword(const char* szKeyword);
    // The rows, sorted by keyword.
    static const UnicodeKeyword* UnicodeKeywordRows(std::size_t& cRows);
    // One index over the rows and the core's keyword table; numbers from
    // cOwnRows up are the core's rows plus cOwnRows.
    static const CKeywordIndex& KeywordIndex(std::size_t& cOwnRows);

    // --- handlers of the reader's own keywords
    bool InsertCharacter(char32_t cp, int param);
    bool InsertUnicode(char32_t cp, int param);
    bool SetUnicodeSkip(char32_t cp, int param);
    bool SetDocumentCodePage(char32_t cp, int param);
    bool SetFontCodePage(char32_t cp, int param);
    bool SetHidden(char32_t cp, int param);
    bool SkipAnsiAlternative(char32_t cp, int param);
    bool ReadUnicodeAlternative(char32_t cp, int param);
    bool ApplyPageBreak(char32_t cp, int param);
    bool ApplySectionBreak(char32_t cp, int param);
    bool SkipBinary(char32_t cp, int param);
    bool ApplyEscapedLineBreak(char32_t cp, int param);
    bool ApplyNestedCell(char32_t cp, int param);
    bool SetInTable(char32_t cp, int param);
    bool ApplyNestedRow(char32_t cp, int param);
    bool BeginFootnote(char32_t cp, int param);
    bool BeginHeaderOrFooter(char32_t cp, int param);
    bool SkipDestination(char32_t cp, int param);
    bool SetCharacterClass(char32_t cp, int param);
    bool SetAssociatedFont(char32_t cp, int param);
    bool SetNumberingFont(char32_t cp, int param);

private:
    // What a group keeps of its own and gives back at its '}'.
    // Which font a byte of text is in: Word gives each run the fonts of the
    // low ASCII, high ANSI and double-byte characters (\loch, \hich, \dbch,
    // each with \af or \f), and the one named last is the run's.
    enum CharacterClass : unsigned char { classNone, classLoch, classHich, classDbch };
    struct GroupState {
        int iFont = -1;                  // \fN in force; -1: the default font
        int iFontHich = -1;              // the high-ANSI font; -1: \fN's
        int iFontDbch = -1;              // the double-byte font; -1: \fN's
        const CCodePage* pPage = nullptr; // the page of the font in use; null: the document's
        int cchUnicodeFallback = 1;      // \ucN
        CharacterClass charClass = classNone;
        bool bHidden = false;            // \v
        bool bFootnote = false;          // text goes to the footnotes
    };
    class CUTF8Save : public CBaseRTFParserSave {
    public:
        GroupState state;
    };

    // The destinations whose characters are text: the document, fields and
    // their results, hyperlinks, and the number text of \pntext and \listtext.
    static constexpr unsigned textDestinations =
        1u << rdsNorm | 1u << rdsField | 1u << rdsHyperlink | 1u << rdsPNCommand;
    bool IsTextDestination() const { return (textDestinations >> (m_rds & 31)) & 1u; }
    bool IsVisibleText() const { return !m_state.bHidden && IsTextDestination(); }
    const CCodePage& CurrentPage() const { return *(m_state.pPage ? m_state.pPage : m_pDocPage); }
    const CCodePage* PageOfFont(int iFont) const;
    // Enters the page of font iFont; every change of m_fonts goes through here.
    void SetFontPage(int iFont, const CCodePage* pPage);
    void SelectFont(int iFont);
    // The page of the font the current character class names.
    void UpdatePage();
    // The font table entry whose name is complete: a dingbat font's name
    // decides its characters.
    void EndFontEntry();
    void AddToFontName(char ch);
    // Remembers the last byte written to the caller's buffer.
    void NoteLastByte();
    // Writes the first bytes of [p, p + cb) that are printable ASCII in the
    // current page, as ParseChar would, and returns how many; none while a
    // character is pending or something is owed.
    std::size_t CopyPrintableText(const char* p, std::size_t cb);
    // True when the page decodes printable ASCII as itself (the Windows and
    // Mac pages do; symbol fonts do not).
    bool KeepsPrintableAscii(const CCodePage& page);

    // Owed before the next visible text: the TAB between two cells, the
    // generated number of a paragraph. False when refused.
    bool BeforeText();
    bool IsTextOwed() const { return m_bCellTabOwed || m_bTableNewlineOwed || m_bParagraphStart || m_state.bFootnote || !m_owed.empty(); }
    // Appends the number text of a paragraph numbered by a \pn group alone.
    void OweParagraphNumber();
    // Writes what is owed; false while some of it is refused.
    bool PayOwed();
    // At the end of the document: its last newline, then the footnotes.
    bool FinishText();
    bool FontTableHasRoom(int fontNum);

    // Decodes one byte of text in the current page and writes what it gives.
    bool DecodeByte(unsigned char b);
    // Writes a character after any pending lead byte or high surrogate (as
    // U+FFFD). False when refused.
    bool EmitCodePoint(char32_t cp);
    // \uN's character; a high surrogate waits for the low one.
    bool EmitUnicode(char32_t cp);
    bool EmitControl(const char* pch, int cch);
    bool EmitNewline();
    // The TAB after a cell that is not its row's last.
    bool PayCellTab();
    // The paragraph mark in a table cell, once text follows it in the cell.
    bool PayTableNewline();
    // A lead byte or high surrogate still waiting for its partner becomes
    // U+FFFD.
    bool FlushPending();
    // Writes the UTF-8 bytes of cp, all or nothing.
    bool PutCodePoint(char32_t cp);
    bool PutBytes(const char* pch, int cch);
    // The parse loop of the stock reader (CByteCursor::KeywordWork) does
    // TranslateKeyword's work for the words it reads itself: it asks
    // TokenWordNumber for the word's number, and passes over a word that
    // gives passOver (with nothing pending, a word in neither table, or one
    // whose work has no effect here: TranslateKeyword would only note that
    // the group's start is past, which TokenWordNumber has done); any other
    // number goes to TranslateNumberedKeyword.
    // (TokenWordNumber is defined with the key, in ReaderKeywords.h.)
    friend class CRTFParser;
    static constexpr int passOver = -3;
    inline int TokenWordNumber(const KeywordKey& key);
    // Whether the word of the key, a \', goes to the core's row for it and
    // that row's handler runs (TranslateNumberedKeyword, DispatchNumber): the
    // loop then takes the escape itself, the group's start past as for any
    // word. False, with the key's work left to do, when not.
    inline bool TakesHexEscapeRow(const KeywordKey& key);
    // TranslateKeyword once the first look has given the word's number
    // (CKeywordFirstLook::askIndex: the rare cases decide).
    bool TranslateNumberedKeyword(int number, const char* szKeyword, int param);
    // TranslateKeyword's rare cases: the document's first word, \*, a word
    // met while a \uN fallback is being skipped, and a word the first look
    // leaves to the index.
    bool TranslateRareKeyword(const char* szKeyword, int param, bool bAtGroupStart);
    // A word looked up in the index over both tables and handed to its handler.
    bool DispatchKeyword(const char* szKeyword, int param);
    // A word whose number the lookup gave (-1: in neither table) handed to
    // its handler, as the core would outside a skipped destination.
    inline bool DispatchNumber(int number, const char* szKeyword, int param);
    // A keyword other than \u met while a \uN fallback is being skipped
    // counts as one fallback character; a \'hh escape's digits go with it.
    bool SkipFallbackKeyword(const char* szKeyword);

    // The index over both tables, and the direct-mapped table a word's number
    // is looked for in first (RtfToUtf8.cpp).
    struct CKeywordTables;
    // KeywordIndex, its number of own rows and its first look, held here so
    // that a keyword's lookup needs no test that they have been built.
    const CKeywordIndex* m_pKeywordIndex = nullptr;
    const CKeywordFirstLook* m_pFirstLook = nullptr;
    int m_cOwnKeywords = 0;
    // By the index's number, where the stock reader's work for the word,
    // with no \* pending, has no effect but to note that the group's start
    // is past (TokenWordNumber): outside a skipped destination, inside one.
    enum : unsigned char { noEffectOutsideSkip = 1, noEffectInSkip = 2 };
    const unsigned char* m_pNoEffect = nullptr;

    // The font table entry being read: its name, and whether it is done.
    std::string m_fontName;
    bool m_bFontNameDone = false;

    // Text written to the caller's buffer comes after what is owed.
    std::string m_owed;
    std::size_t m_iOwed = 0;
    std::string m_footnotes;          // "[n] text" of each footnote
    int m_cFootnotes = 0;
    char m_chLast = 0;                // the last byte of the body's text; 0: none yet

    bool m_bAtGroupStart = false;     // nothing read since the last '{'
    bool m_bCellTabOwed = false;
    bool m_bTableNewlineOwed = false;
    bool m_bInTable = false;          // \intbl since the last \pard
    bool m_bNumberTextGiven = false;  // the paragraph has \pntext or \listtext
    bool m_bHeaders = false;
    bool m_bRtfDocument = false;      // the input begins {\rtf: read one group
    bool m_bFirstKeywordSeen = false;
    bool m_bContinuing = false;
    bool m_bBodyEnded = false;        // FinishText has ended the body's text       // Init for the next group of a fragment
    int m_iPnFont = -1;               // \pnf of the \pn group being read
    int m_iNumberFont = -1;           // \pnf of the paragraph's numbering

    GroupState m_state;
    std::unordered_map<int, const CCodePage*> m_fonts;  // \fN -> page; null: the document's
    // The pages of fonts 0 to 63 as m_fonts has them (null where it has none):
    // documents number their fonts from 0, and every \f and \plain asks for
    // one, which here needs no hashing.
    static constexpr int cSmallFonts = 64;
    const CCodePage* m_smallFontPages[cSmallFonts] = {};
    int m_iFontEntry = -1;            // the font table entry being read
    int m_iDefaultFont = 0;           // \deffN
    const CCodePage* m_pDocPage = nullptr;
    const CCodePage* m_pAnsiPage = nullptr;  // \fcharset0: 1252, or the page SetCodePage named
    int m_forcedCodePage = 0;         // SetCodePage; 0: none

    int m_cchUnicodeSkip = 0;         // fallback characters still to skip
    unsigned char m_chLeadByte = 0;   // a double-byte lead byte waiting; 0: none
    char32_t m_highSurrogate = 0;     // a \u high surrogate waiting; 0: none
    int m_cGroupUpr = 0;              // depth of the \upr group being read; 0: none
    RDS m_rdsBeforeUpr = rdsNorm;
    bool m_bParseEnded = false;

    // KeepsPrintableAscii's verdicts on the last pages it judged: a document
    // goes back and forth among the pages of a few fonts, and judging one
    // takes a pass over 95 bytes.
    struct AsciiVerdict {
        const CCodePage* pPage = nullptr;
        bool bKeeps = false;
    };
    static constexpr std::size_t cAsciiVerdicts = 8;
    AsciiVerdict m_asciiVerdicts[cAsciiVerdicts];
    std::size_t m_iAsciiVerdict = 0;  // the one asked last
    std::size_t m_cAsciiJudged = 0;   // the next judged replaces the oldest

    char m_szNewline[3] = "\n";
    int m_cchNewline = 1;
};

class RTFCONV_API CBytePtrRTFToUTF8PtrParser : public CRTFToUTF8Parser, protected CByteCursor {
public:
    // The bytes are not copied: they must stay valid and unchanged for the
    // object's life. A NUL byte in text ends the input early, as it does for
    // the 8-bit converter; inside \bin data it does not. A UTF-8 byte-order
    // mark before the RTF is passed over.
    CBytePtrRTFToUTF8PtrParser(const unsigned char* pData, const unsigned long& cbData);
    CBytePtrRTFToUTF8PtrParser(const CBytePtrRTFToUTF8PtrParser&) = default;
    CBytePtrRTFToUTF8PtrParser& operator=(const CBytePtrRTFToUTF8PtrParser&) = default;
    ~CBytePtrRTFToUTF8PtrParser() = default;

    // The bytes read so far; after the last Read, where the document ended.
    using CByteCursor::BytesConsumed;

protected:
    // The cursor's bytes; a derived reader that changes what Get delivers
    // must offer no runs (RunAhead returning null), see CRTFParser.
    long Get(char& ch) override;
    long Get(int n, unsigned char* pDest) override;
    bool AtEndOfInput() const override;
    void MarkBacktrack(int n) override;
    void Backtrack(int n) override;
    const char* RunAhead(std::size_t& cb) const override;
    void SkipAhead(std::size_t cb) override;
    CByteCursor* StockCursor() override;

    bool m_bNulRead = false;
};

} // namespace rtf_converter
