// CBaseRTFParser: the RTF reader framework on top of the tokenizer.
//
// It owns the keyword table s_Cmds, which binds each known control word or
// symbol to a virtual handler; the destination state m_rds, which tells a
// derived reader where the characters it receives belong; a stack of saved
// group states, pushed at '{' and popped at '}'; and the paragraph-numbering
// state. A derived reader changes what a keyword does by overriding the
// handler the table names: the table holds pointers to virtual members, so a
// call through a row reaches the most derived override. Every default handler
// returns true; a handler returns false only when the sink refused output.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>
#include <new>

#include "rtfconverter/RTFNumbering.h"
#include "rtfconverter/RTFParser.h"

namespace rtf_converter {

class CKeywordIndex;
struct KeywordKey;
class CKeywordFirstLook;
struct CKeywordLookup;

// Destination states. Handlers compare them by value.
enum RDS {
    rdsNorm = 0,          // document text
    rdsField = 1,         // inside a field, outside instruction and result
    rdsFieldInst = 2,     // field instruction
    rdsHyperlink = 3,     // visible text of a hyperlink
    rdsSkip = 4,          // ignored up to the end of the group
    rdsFontTable = 5,
    rdsColorTable = 6,
    rdsStyleSheet = 7,
    rdsRevTable = 8,
    rdsInfo = 9,
    rdsPNCommand = 10,    // paragraph-numbering group
    rdsPNText = 11,
    rdsPNTextBefore = 12,
    rdsPNTextAfter = 13,
    rdsPicture = 14,
    rdsObject = 15,
    rdsHidden = 16,
};

class RTFCONV_API CBaseRTFParser : public CRTFParser {
public:
    // One saved group state. A reader that saves more per group derives its
    // own record and allocates it in its CreateSave override.
    //
    // Records are shared between copies of a reader (a copy continues from
    // the same open groups), so each carries a count of the references to it:
    // one from every reader whose m_pSave points at it and one from the record
    // above it. The last reference releases it.
    class CBaseRTFParserSave {
    public:
        CBaseRTFParserSave() = default;
        virtual ~CBaseRTFParserSave() = default;
        CBaseRTFParserSave(const CBaseRTFParserSave&) = delete;
        CBaseRTFParserSave& operator=(const CBaseRTFParserSave&) = delete;

        CBaseRTFParserSave* pNext = nullptr;  // the record below on the stack
        RDS rds = rdsNorm;                    // m_rds when the group opened
        unsigned cRef = 1;

        // Records come and go with every group: each thread keeps a few of
        // those it freed, of the sizes it uses, for the next ones, so that a
        // group costs no trip to the heap. A derived record is allocated
        // through these too.
        static void* operator new(std::size_t cb);
        static void* operator new(std::size_t cb, const std::nothrow_t&) noexcept;
        static void operator delete(void* p, std::size_t cb) noexcept;
        // For a record whose constructor threw after a nothrow new.
        static void operator delete(void* p, const std::nothrow_t&) noexcept;
        // A record aligned beyond what the heap gives anyway is not kept.
        static void* operator new(std::size_t cb, std::align_val_t align);
        static void* operator new(std::size_t cb, std::align_val_t align, const std::nothrow_t&) noexcept;
        static void operator delete(void* p, std::size_t cb, std::align_val_t align) noexcept;
        static void operator delete(void* p, std::align_val_t align, const std::nothrow_t&) noexcept;
    };

    typedef bool (CBaseRTFParser::*PFNHANDLER)(const void* pKeyword, int param);
    struct tagCMDASSN {
        const char* szKeyword;  // without the backslash
        PFNHANDLER pfnHandler;
    };
    static constexpr int cCmds = 90;

protected:
    CBaseRTFParser() = default;
    CBaseRTFParser(const CBaseRTFParser& other);
    CBaseRTFParser& operator=(const CBaseRTFParser& other);
    // Not virtual (readers are not deleted through this base); releases the
    // records of groups still open.
    ~CBaseRTFParser();

    // The keyword table: 90 rows, unsorted, first match wins.
    static const tagCMDASSN s_Cmds[cCmds];

    // --- virtual operations, in the order of the table of virtual functions
    void Init() override;
    bool PushRtfState() override;
    bool PopRtfState() override;
    bool TranslateKeyword(const char* szKeyword, int param) override;
    virtual bool EndGroupAction(RDS rdsOld, RDS rdsNew);
    virtual bool InitFontTable(const void* pKeyword, int param);
    virtual bool FillFontFamily(const void* pKeyword, int param) = 0;
    virtual bool FillFontCharset(const void* pKeyword, int param) = 0;
    virtual bool GetFontNum(const void* pKeyword, int param) = 0;
    virtual bool ApplyFontSize(const void* pKeyword, int param) = 0;
    virtual bool AttachmentHandler() = 0;
    virtual bool InitColorTable(const void* pKeyword, int param);
    virtual bool FillColorTable(const void* pKeyword, int param) = 0;
    virtual bool ApplyColorCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyBKColorCommand(const void* pKeyword, int param) = 0;
    virtual bool InitPNCommand(const void* pKeyword, int param);
    virtual bool SetParagraphNumberingLevel(const void* pKeyword, int param);
    virtual bool SetParagraphNumberingStart(const void* pKeyword, int param);
    virtual bool SetParagraphNumberingType(const void* pKeyword, int param);
    virtual bool SetParagraphNumberingTxtAfter(const void* pKeyword, int param);
    virtual bool SetParagraphNumberingTxtBefore(const void* pKeyword, int param);
    virtual bool InitPNTxtCommand(const void* pKeyword, int param);
    virtual bool InitStyleSheet(const void* pKeyword, int param);
    virtual bool InitRevTable(const void* pKeyword, int param);
    virtual bool InitInfoGroup(const void* pKeyword, int param);
    virtual bool FieldInit(const void* pKeyword, int param);
    virtual bool FieldInstruction(const void* pKeyword, int param);
    virtual bool FieldResult(const void* pKeyword, int param) = 0;
    virtual bool GetDefaultFontNum(const void* pKeyword, int param) = 0;
    virtual bool ProcessSpecial(const void* pKeyword, int param) = 0;
    virtual bool ProcessSpecialChar(const void* pKeyword, int param);
    virtual bool InsertSpecialChar(const void* pKeyword, int param) = 0;
    virtual bool IgnoreWholeSection(const void* pKeyword, int param);
    virtual bool MarkOptionalSection(const void* pKeyword, int param);
    virtual bool GetBinary(const void* pKeyword, int param) = 0;
    virtual bool IgnoreHidden(const void* pKeyword, int param);
    virtual bool ApplyCharCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyTabCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyPlainCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyParCommand(const void* pKeyword, int param);
    virtual bool SkipCharacters(const void* pKeyword, int param) = 0;
    virtual bool ApplyCRCommand(const void* pKeyword, int param);
    virtual bool ApplyNLCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyStartRowCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyEndRowCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyLastRowCommand(const void* pKeyword, int param) = 0;
    virtual bool ApplyEndCellCommand(const void* pKeyword, int param) = 0;
    virtual bool InitAttachment(const void* pKeyword, int param) = 0;
    virtual bool SetPictureType(const void* pKeyword, int param) = 0;
    virtual bool ObjectData(const void* pKeyword, int param) = 0;
    virtual bool ObjectResult(const void* pKeyword, int param) = 0;
    virtual CBaseRTFParserSave* CreateSave();

    // Reads the two digits of a \'hh escape; the first is `first` unless that
    // is NUL. Returns noParam, with both bytes un-read, when either is not a
    // hex digit.
    int ParseHexParam(char first);
    // 0..15 for '0'-'9', 'A'-'F' and 'a'-'f'; -1 for any other byte, whatever
    // the host's locale says.
    static int HexDigitValue(char ch)
    {
        if (ch >= '0' && ch <= '9') return ch - '0';
        if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
        if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
        return -1;
    }
    // What the row of \' does with the value of its two digits: \'00 produces
    // no character.
    bool TakeHexEscape(int value) { return value == 0 || ParseChar(static_cast<char>(value)); }
    // At the end of a \pn group: the collected numbering becomes current.
    void ApplyParagraphNumbering();
    CString CutNumberingText(const CString& text);

    // The row s_Cmds would match first for szKeyword, or -1 when none does.
    static int FindKeyword(const char* szKeyword);
    // The index FindKeyword looks rows up in.
    static const CKeywordIndex& KeywordIndex();
    // What TranslateKeyword does once FindKeyword has given `row` (outside
    // a skipped destination), for a reader that found the row itself.
    bool TranslateKeywordAt(int row, const char* szKeyword, int param);

    RDS m_rds = rdsNorm;
    RDS m_rdsBeforeHidden = rdsNorm;
    bool m_bOptionalDest = false;
    CNumberingInfo m_pnInfo;
    CNumberingState m_numbering;
    bool m_bParagraphStart = true;
    CBaseRTFParserSave* m_pSave = nullptr;

    // TranslateKeywordAt's work, inline for the readers' keyword dispatch,
    // which runs for every control word.
    bool DispatchRow(int row, const char* szKeyword, int param)
    {
        if (row >= 0) {
            m_bOptionalDest = false;
            return (this->*s_Cmds[row].pfnHandler)(szKeyword, param);
        }
        if (m_bOptionalDest) {
            m_bOptionalDest = false;
            m_rds = rdsSkip;
        }
        return true;
    }

private:
    // True when SetTextBefore(CutNumberingText(text)) would leave the text
    // as it is: within the limit, with no NUL inside.
    bool StaysAsCut(const CString& text) const;
    // The parse loop of a stock reader that keeps this class's
    // TranslateKeyword calls its work for the tokenizer's word directly.
    friend class CRTFParser;
    // The index KeywordIndex returns, with the table a word is looked for in
    // first.
    static const CKeywordLookup s_keywordLookup;
    // TranslateKeyword for the word the tokenizer is handing on, whose key
    // TokenWordKey gives (KeywordIndex.h; these two are in ReaderKeywords.h):
    // the row DispatchRow takes, or passOver when TranslateKeyword would do
    // nothing at all.
    static constexpr int passOver = -2;
    inline int TokenWordRow(const KeywordKey& key) const;
    inline bool TranslateTokenWordKey(const KeywordKey& key, int param);
    // TranslateKeyword for a text that is not the tokenizer's word.
    bool TranslateKeywordText(const char* szKeyword, int param);
    static void AddRefSave(CBaseRTFParserSave* pSave);
    static void ReleaseSave(CBaseRTFParserSave* pSave);
};

} // namespace rtf_converter
