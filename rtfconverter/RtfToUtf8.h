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
//   \'hh, 8-bit    decoded in the code page of the current font's \fcharset,
//                  or of the document (\ansicpg, \mac, \pc, \pca; 1252 when
//                  none is given). Double-byte pages (932, 936, 949, 950, ...)
//                  pair a lead byte with the next byte. \fcharset2 (Symbol)
//                  gives the characters the Symbol font shows (also for
//                  \uN of U+F020 to U+F0FF, the codes Windows shows a symbol
//                  font's glyphs under). A byte the page does not define
//                  gives U+FFFD.
//   \upr, \ud      the Unicode alternative is read, the 8-bit one skipped.
//   \emdash ...    the typographic characters of RTF (see the keyword table).
// Paragraph marks (\par, \sect, \row) and \line, \page give the newline chosen
// with SetNewline (LF by default); \tab and \cell give TAB. Hidden text (\v),
// field instructions, pictures, objects and the document's tables are left
// out; a field gives its result. Paragraph numbers are the text the document
// gives them in \pntext and \listtext: writers put it before every numbered
// paragraph for readers that do not lay out lists, so a number is not also
// generated from the \pn group, as the 8-bit converter does.
//
// A character's bytes are put all or nothing, so any output buffer of at
// least 4 bytes works, and the output is the same for every buffer size.
// With a smaller buffer a 4-byte character can never be written: Read then
// returns 0 with bMore true for as long as it is called.
#pragma once

#include <unordered_map>

#include "rtfconverter/BaseRTFParser.h"

namespace rtf_converter {

// A code page's decoding tables (rtfconverter/CodePages.h).
class CCodePage;

class CRTFToUTF8Parser : protected CBaseRTFParser {
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

    // --- the core's operations
    void Init() override;
    bool PushRtfState() override;
    bool PopRtfState() override;
    bool InitBuffer() override;
    bool ParseChar(char ch) override;
    bool TranslateKeyword(const char* szKeyword, int param) override;
    CBaseRTFParserSave* CreateSave() override;

    bool AttachmentHandler() override;
    bool FieldInit(const void* pKeyword, int param) override;
    bool FieldResult(const void* pKeyword, int param) override;
    bool InitAttachment(const void* pKeyword, int param) override;
    bool ObjectResult(const void* pKeyword, int param) override;
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

private:
    // What a group keeps of its own and gives back at its '}'.
    struct GroupState {
        int iFont = -1;                  // \fN in force; -1: the default font
        const CCodePage* pPage = nullptr; // its page; null: the document's
        int cchUnicodeFallback = 1;      // \ucN
        bool bHidden = false;            // \v
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
    void SelectFont(int iFont);
    bool FontTableHasRoom(int fontNum);

    // Decodes one byte of text in the current page and writes what it gives.
    bool DecodeByte(unsigned char b);
    // Writes a character after any pending lead byte or high surrogate (as
    // U+FFFD). False when refused.
    bool EmitCodePoint(char32_t cp);
    // \uN's character; a high surrogate waits for the low one.
    bool EmitUnicode(char32_t cp);
    bool EmitControl(const char* pch, int cch);
    bool EmitNewline() { return EmitControl(m_szNewline, m_cchNewline); }
    // A lead byte or high surrogate still waiting for its partner becomes
    // U+FFFD.
    bool FlushPending();
    // Writes the UTF-8 bytes of cp, all or nothing.
    bool PutCodePoint(char32_t cp);
    bool PutBytes(const char* pch, int cch);
    // A keyword other than \u met while a \uN fallback is being skipped
    // counts as one fallback character; a \'hh escape's digits go with it.
    bool SkipFallbackKeyword(const char* szKeyword);

    char* m_pBegin = nullptr;
    char* m_pEnd = nullptr;
    char* m_pCur = nullptr;

    GroupState m_state;
    std::unordered_map<int, const CCodePage*> m_fonts;  // \fN -> page; null: the document's
    int m_iFontEntry = -1;            // the font table entry being read
    int m_iDefaultFont = 0;           // \deffN
    const CCodePage* m_pDocPage = nullptr;
    int m_forcedCodePage = 0;         // SetCodePage; 0: none

    int m_cchUnicodeSkip = 0;         // fallback characters still to skip
    unsigned char m_chLeadByte = 0;   // a double-byte lead byte waiting; 0: none
    char32_t m_highSurrogate = 0;     // a \u high surrogate waiting; 0: none
    int m_cGroupUpr = 0;              // depth of the \upr group being read; 0: none
    RDS m_rdsBeforeUpr = rdsNorm;
    bool m_bParseEnded = false;

    char m_szNewline[3] = "\n";
    int m_cchNewline = 1;
};

class CBytePtrRTFToUTF8PtrParser : public CRTFToUTF8Parser {
public:
    // The bytes are not copied: they must stay valid and unchanged for the
    // object's life. A NUL byte in text ends the input early, as it does for
    // the 8-bit converter; inside \bin data it does not.
    CBytePtrRTFToUTF8PtrParser(const unsigned char* pData, const unsigned long& cbData);
    CBytePtrRTFToUTF8PtrParser(const CBytePtrRTFToUTF8PtrParser&) = default;
    CBytePtrRTFToUTF8PtrParser& operator=(const CBytePtrRTFToUTF8PtrParser&) = default;
    ~CBytePtrRTFToUTF8PtrParser() = default;

protected:
    long Get(char& ch) override;
    long Get(int n, unsigned char* pDest) override;
    void MarkBacktrack(int n) override;
    void Backtrack(int n) override;

    const unsigned char* m_pData;
    unsigned long m_cbData;
    const unsigned char* m_pRead;
    const unsigned char* m_pMark;

private:
    long ClampBack(int n) const;
};

} // namespace rtf_converter
