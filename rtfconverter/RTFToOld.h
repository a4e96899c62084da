// RTF to old-format text, pulled by the host in buffers of its own size.
//
//     CRTFPtrImport reader(rtfText);            // or CRTFStreamImport(pStream)
//     reader.SetFilter(MyCharFilter);           // optional
//     reader.SetAttachmentFilter(MyAttachmentFilter, pUser1, pUser2);
//     reader.SetPasteWithTableTags(true);
//     bool bMore = true;
//     while (bMore) {
//         int n = reader.Read(buf, buf + sizeof buf, bMore);
//         consume(buf, n);                      // not NUL-terminated
//     }
//
// Formatting reaches the text as markup commands in front of the text they
// govern: a layout command at the first output of a paragraph whose layout
// differs from the last one sent, a numbering command for numbered
// paragraphs, a font command in front of the first output after a change of
// character formatting. Every buffer after the first begins with the complete
// current layout and font commands, so that each can be read on its own.
//
// Sink (CRTFImportToPtr):
//   Put(char)             false, writing nothing, when the buffer is full; a
//                         character may fill the last byte.
//   Put(const CString&)   all or nothing, and only with room for the text and
//                         one NUL (which the next put overwrites). A command
//                         of n bytes is therefore refused with n bytes left.
// Sources:
//   CRTFPtrImport         a NUL-terminated text; the NUL ends the input.
//   CRTFStreamImport      an IStream read in 10240-byte blocks; 30 bytes of
//                         history survive each refill so that a control word
//                         split by a refill can be read again.
//   Get(n, p)             the block read of \binN: copies n bytes to p, or
//                         skips them when p is null; negative at the end of
//                         input. The stream source copies only the bytes that
//                         crossed a refill and skips the rest.
// Both sources offer the bytes ahead of the read position as runs (RunAhead,
// SkipAhead), which the reader takes in bulk in ParseRun. A class derived from
// either that overrides ParseChar or Get must override ParseRun too; calling
// CRTFParser::ParseRun there gives the byte-by-byte protocol back.
//
// Framework exceptions leave Read: an invalid-argument exception for a colour
// or font table entry at index -1 (a negative \cf, \red before \colortbl, a
// font family before the first \f; not in the lossless reading), an OLE
// exception when an attachment stream fails.
//
// SetLossless(true) keeps what the behaviour above loses (off by default, so
// that the bytes stay those hosts rely on):
//   - a hyperlink or attachment command that does not fit the room left in the
//     buffer is held and written at the start of the next Read (in pieces,
//     when a whole buffer cannot take it);
//   - bad colour and font table indexes are traced and ignored, never raised;
//   - \uN (with \ucN), \ansicpg, \mac, \pc, \pca and every \fcharset decide
//     the character set of the font command; a character the text's code page
//     cannot hold goes out in a font command whose character set can, and only
//     characters no Windows code page holds become '?'
//     (GetUnrepresentableCount);
//   - a hyperlink's display text holds characters only, links to bookmarks keep
//     their text and nested fields each keep their own;
//   - \bin in skipped groups, \nestcell, \nestrow, {\nonesttables}, \nosupersub,
//     \sub and \super ending each other, \~ \- \_ \endash \emdash \bullet
//     \ldblquote \rdblquote, and a backslash before CR or LF (a paragraph mark)
//     are read as word processors read them;
//   - with table tags, each row gets one StartRow tag.
#pragma once
#include "rtfconverter/Export.h"

#include <array>
#include <cstddef>
#include <vector>

#include "platform/AfxColl.h"
#include "platform/AfxString.h"
#include "platform/ObjBase.h"
#include "platform/WinTypes.h"
#include "rtfconverter/BaseRTFParser.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/ReaderPlumbing.h"

namespace rtf_converter {

class CCodePage;

class RTFCONV_API CRTFImport : public CBaseRTFParser {
public:
    typedef void (*PFNCHARFILTER)(char& ch);
    // Receives the filled record and an empty string; returns true with the
    // text to stand in the attachment's place, false to drop the attachment.
    typedef bool (*PFNATTACHMENTFILTER)(AttachmentInfo& info, CString& text, void* p1, void* p2);

    // Called for each plain text character before output; may change it.
    void SetFilter(PFNCHARFILTER pfnFilter) { m_pfnFilter = pfnFilter; }
    void SetAttachmentFilter(PFNATTACHMENTFILTER pfnFilter, void* p1, void* p2);
    // Table rows and cells as table tag commands instead of paragraph marks
    // and tabs. May be called before or between Read calls.
    void SetPasteWithTableTags(bool bTags) { m_bPasteWithTableTags = bTags; }
    // Keeps what the exact conversion loses (see above). Set it before the
    // first Read.
    void SetLossless(bool bLossless) { m_bLossless = bLossless; }
    [[nodiscard]] bool IsLossless() const { return m_bLossless; }
    // Lossless only: characters that no Windows code page holds and that were
    // written as '?'.
    [[nodiscard]] long GetUnrepresentableCount() const { return m_cUnrepresentable; }

    // One font table entry.
    struct FontTableStruct {
        int FontNum = 0;      // N of \fN
        CString FontName;     // collected character by character
        int FontFamily = 0;   // recorded, not carried into font commands
        int FontCharset = 1;  // \fcharsetN; DEFAULT_CHARSET until set
    };
    // One colour table entry. An automatic entry names no colour.
    struct RTFCOLOR {
        BYTE bAutomatic = 1;
        BYTE red = 0;
        BYTE green = 0;
        BYTE blue = 0;
    };

    // Size of the staging buffer that attachment data passes through on its
    // way into the attachment stream.
    static constexpr int nDataBufSize = 16384;

    CRTFImport(const CRTFImport&) = delete;
    CRTFImport& operator=(const CRTFImport&) = delete;
    // Releases the attachment stream still held and the staging buffer.
    virtual ~CRTFImport();

protected:
    CRTFImport() = default;

    // The per-group save record: the destination (base) plus the paragraph
    // layout and character formatting in force when the group opened.
    class CRTFImportSave : public CBaseRTFParserSave {
    public:
        CRTFImportSave() = default;
        // A record of the reader's state as it is (CreateSave): built as a
        // copy, it needs neither the default commands nor their assignment.
        explicit CRTFImportSave(const CRTFImport& reader)
            : m_layoutCmd(reader.m_layoutCmd),
              m_fontCmd(reader.m_fontCmd),
              m_nFontCharset(reader.m_nFontCharset),
              m_nUnicodeSkip(reader.m_nUnicodeSkip),
              m_bHoldsState(true)
        {
        }

        // A stock reader's record (CRTFImport::CreateSave): the commands are
        // saved only before the group first changes them, which most groups
        // never do; until then the reader's own are the group's opening ones.
        struct LazyCommands {};
        CRTFImportSave(const CRTFImport& reader, LazyCommands)
            : m_layoutCmd(CDocCmd::Unfilled()),
              m_fontCmd(CDocCmd::Unfilled()),
              m_nFontCharset(reader.m_nFontCharset),
              m_nUnicodeSkip(reader.m_nUnicodeSkip),
              m_bHoldsState(true),
              m_bLayoutSaved(false),
              m_bFontSaved(false)
        {
        }

        CLayoutCmd m_layoutCmd;
        CFontCmd m_fontCmd;
        // Used by the lossless reading only.
        int m_nFontCharset = 1;
        int m_nUnicodeSkip = 1;
        // Filled when made; PushRtfState fills the others.
        bool m_bHoldsState = false;
        // m_layoutCmd, m_fontCmd hold the group's opening commands. Always so
        // but in a stock reader's record.
        bool m_bLayoutSaved = true;
        bool m_bFontSaved = true;
    };

    // --- the reader core's virtual operations
    void Init() override;
    bool PushRtfState() override;
    bool PopRtfState() override;
    bool InitBuffer() override;
    bool ParseChar(char ch) override;
    bool TranslateKeyword(const char* szKeyword, int param) override;
    bool EndGroupAction(RDS rdsOld, RDS rdsNew) override;
    bool FillFontFamily(const void* pKeyword, int param) override;
    bool FillFontCharset(const void* pKeyword, int param) override;
    bool GetFontNum(const void* pKeyword, int param) override;
    bool ApplyFontSize(const void* pKeyword, int param) override;
    bool AttachmentHandler() override;
    bool InitColorTable(const void* pKeyword, int param) override;
    bool FillColorTable(const void* pKeyword, int param) override;
    bool ApplyColorCommand(const void* pKeyword, int param) override;
    bool ApplyBKColorCommand(const void* pKeyword, int param) override;
    bool InitPNCommand(const void* pKeyword, int param) override;
    bool FieldInit(const void* pKeyword, int param) override;
    bool FieldResult(const void* pKeyword, int param) override;
    bool GetDefaultFontNum(const void* pKeyword, int param) override;
    bool ProcessSpecial(const void* pKeyword, int param) override;
    bool ProcessSpecialChar(const void* pKeyword, int param) override;
    bool InsertSpecialChar(const void* lpv, int param) override;
    bool GetBinary(const void* pKeyword, int param) override;
    bool ApplyCharCommand(const void* pKeyword, int param) override;
    bool ApplyTabCommand(const void* pKeyword, int param) override;
    bool ApplyPlainCommand(const void* pKeyword, int param) override;
    bool ApplyParCommand(const void* pKeyword, int param) override;
    bool SkipCharacters(const void* pKeyword, int param) override;
    bool ApplyCRCommand(const void* pKeyword, int param) override;
    bool ApplyNLCommand(const void* pKeyword, int param) override;
    bool ApplyStartRowCommand(const void* pKeyword, int param) override;
    bool ApplyEndRowCommand(const void* pKeyword, int param) override;
    bool ApplyLastRowCommand(const void* pKeyword, int param) override;
    bool ApplyEndCellCommand(const void* pKeyword, int param) override;
    bool InitAttachment(const void* pKeyword, int param) override;
    bool SetPictureType(const void* pKeyword, int param) override;
    bool ObjectData(const void* pKeyword, int param) override;
    bool ObjectResult(const void* pKeyword, int param) override;
    CBaseRTFParserSave* CreateSave() override;
    // Runs of ordinary bytes (RTFParser.h), taken as ParseChar takes them one
    // by one: text a run at a time wherever nothing is owed in front of it,
    // picture and object hex decoded pair after pair, skipped destinations
    // passed over whole. Every other byte still goes through ParseChar.
    bool ParseRun(const char* p, std::size_t cb) override;

    // --- the sink and the block read, supplied by the derived classes
    virtual bool Put(char ch) = 0;
    virtual bool Put(const CString& s) = 0;
    // As many of the cb bytes as fit, in order, each as Put(char) would put
    // it; returns how many. The default puts them one at a time.
    virtual std::size_t PutRun(const char* p, std::size_t cb);
    virtual long Get(int n, unsigned char* pDest) = 0;
    bool m_bInputExhausted = false;  // a byte read failed: the input ended
    virtual int GetCBWritten() const = 0;
    // Refuses every further put until the next Read: what comes after output
    // that is held must not overtake it.
    virtual void CloseBuffer() = 0;
    using CBaseRTFParser::Get;

    // The single path of text characters to the output, with the layout,
    // numbering, held-back and font commands they are owed in front.
    bool Append(char ch);
    // The same for a markup command built by a handler.
    bool Append(const CString& s);
    bool AppendNumberingCommand();
    bool FillNumberCmd(CNumberCmd& cmd);
    const CString& NumberCmdText();
    void FillFontName(char ch);
    CRTFImportSave* GetSave() { return static_cast<CRTFImportSave*>(m_pSave); }
    const RTFCOLOR* ColorEntry(int param);
    int Read(bool& bMore);

    // Removes markup commands from s and turns control bytes other than TAB
    // into spaces; a trailing 0x17 is dropped.
    static void StripMarkup(CString& s);

    PFNCHARFILTER m_pfnFilter = nullptr;
    PFNATTACHMENTFILTER m_pfnAttachmentFilter = nullptr;
    void* m_pFilterParam1 = nullptr;
    void* m_pFilterParam2 = nullptr;
    CArray<FontTableStruct, const FontTableStruct&> m_FontTable;
    int m_nLastFont = -1;      // entry being or last defined; -1: none
    CArray<RTFCOLOR, RTFCOLOR&> m_ColorTable;
    int m_nColorEntries = 0;   // entries of the current colour table
    CString m_strFieldInst;
    CString m_strFieldResult;  // display text of a hyperlink field
    CFontCmd m_fontAtField;    // last font sent when the field began
    CString* m_pRedirect = nullptr;  // when set, output is collected here
    CLayoutCmd m_lastLayoutCmd;      // last layout command sent
    CLayoutCmd m_layoutCmd;          // current paragraph layout
    char m_chTabLeader = ' ';        // leader of the next \tx; space: none
    CFontCmd m_lastFontCmd;          // last font command sent
    CFontCmd m_fontCmd;              // current character formatting
    bool m_bFontChanged = false;
    CString m_strPending;            // held-back numbering text
    // Numbering command texts already built, for kind, number and level.
    struct NumberCmdMemo {
        int code = -1;  // -1: none
        int number = 0;
        int level = 0;
        CString text;
    };
    static constexpr int cNumberCmdMemos = 16;
    std::array<NumberCmdMemo, cNumberCmdMemos> m_numberCmdMemo;
    int m_nNextNumberCmdMemo = 0;
    int m_nDefaultFont = -1;         // \deffN; -1: none
    AttachmentInfo m_attachmentInfo;
    BYTE* m_pBuffer = nullptr;       // nDataBufSize bytes, on first use
    int m_nBufferPos = 0;
    BOOL m_bObjectInserted = FALSE;
    bool m_bPasteWithTableTags = false;
    // Where commands go while a hyperlink's display text is collected; the
    // characters go to m_pRedirect.
    CString* m_pRedirectCommands = nullptr;

    // --- the lossless reading (RTFToOldLossless.cpp)
    struct LosslessKeyword;
    struct OpenField {
        CString outerInst;      // the enclosing field's instruction
        int resultStart = 0;    // where this field's display text begins
        bool bOuterCollects = false;
        int depth = 0;          // group depth of the field's group
    };
    bool m_bLossless = false;
    long m_cUnrepresentable = 0;
    int m_nDocCodePage = 1252;   // \ansicpg, \mac, \pc, \pca
    int m_nFontCharset = 1;      // \fcharset of the current font
    int m_nUnicodeSkip = 1;      // \ucN
    char32_t m_highSurrogate = 0;
    int m_chLeadByte = -1;       // a double-byte character's first byte
    int m_nPlacedCharset = -1;   // set by a character the text's page lacks
    int m_nTextCodePage = 0;
    const CCodePage* m_pTextPage = nullptr;
    bool m_bInRow = false;       // StartRow written for the current row
    std::vector<OpenField> m_openFields;
    CString m_strHeld;           // output that did not fit
    bool m_bHeldSplit = false;   // part of m_strHeld has been written
    bool m_bInputEnded = false;  // parsing ended with output still held
    // A fragment (top-level groups without {\rtf around them) is read group
    // after group; the state of the document goes on between the groups.
    bool m_bFirstKeywordSeen = false;
    bool m_bRtfDocument = false;
    bool m_bContinuing = false;
    bool m_bAtGroupStart = false;  // nothing read yet since the last '{'

    void ParseFragmentGroups(bool& bMore);
    bool KeepsStateBetweenGroups();

    bool TranslateLosslessKeyword(const char* szKeyword, int param, bool& bResult);
    // The pieces of TranslateLosslessKeyword: the bookkeeping of every word
    // and the turning away inline, the rest out of line.
    inline bool NoteLosslessWord(const char* szKeyword);
    void NoteFirstKeyword(const char* szKeyword);
    bool TranslateFirstKeyword(const char* szKeyword, int param);
    const LosslessKeyword* LosslessRowFor(const char* szKeyword) const;
    bool TranslateLosslessCandidate(const char* szKeyword, int param);
    bool RunLosslessKeyword(const LosslessKeyword& row, const char* szKeyword, int param);
    bool AppendTextKeepingCharset(char ch);
    bool AppendUnicode(char32_t cp);
    bool AppendInCharset(const unsigned char* pb, int cb, int charset);
    bool AppendTwoByteCharacter(const unsigned char pb[2]);
    bool AppendAscii(char ch);
    void UseCharset(int charset);
    int TextCharset() const;
    int CodePageOfText() const;
    const CCodePage* TextPage();
    void SkipUnicodeFallback();
    void SkipControlWordOfFallback();
    void ReportIgnored(const char* pszWhat, int index);
    FontTableStruct* FontEntryBeingDefined();
    RTFCOLOR* ColorEntryBeingDefined();
    void ApplyDefaultFontKeepingCharset();
    void OpenFieldKeepingOuter();
    void EndGroupKeepingFieldsAndFonts(RDS rdsOld, RDS rdsNew);
    void EndFieldsClosedHere();
    void EndFieldKeepingItsText(const OpenField& field);
    void AppendOrHold(const CString& s);
    bool PutOrHold(const CString& s);
    void HoldOutput(const CString& s);
    bool WriteHeldOutput();
    // Lossless keyword handlers.
    bool ReadUnicodeChar(const void* pKeyword, int param);
    bool SetUnicodeSkip(const void* pKeyword, int param);
    bool SetDocumentCodePage(const void* pKeyword, int param);
    bool InsertUnicodeSpecial(const void* pKeyword, int param);
    bool SwitchSuperSub(const void* pKeyword, int param);
    bool SkipBinaryEvenWhenSkipping(const void* pKeyword, int param);
    bool ApplyStartRowOnce(const void* pKeyword, int param);
    bool ApplyEndRowOfRow(const void* pKeyword, int param);
    bool FieldInitKeepingOuter(const void* pKeyword, int param);
    bool FieldResultKeepingMarkupOut(const void* pKeyword, int param);
    bool GetFontNumKeepingCharset(const void* pKeyword, int param);
    bool ApplyPlainKeepingCharset(const void* pKeyword, int param);
    bool IgnoreDestination(const void* pKeyword, int param);
    bool ReadDestinationAsText(const void* pKeyword, int param);

private:
    // Steps shared by both Append operations: the paragraph-start commands,
    // the held-back text and the font command.
    bool AppendOwedCommands();
    // Sends s to the redirect string or the sink.
    bool Emit(const CString& s);
    bool InTextDestination() const;
    bool DropsTextEndingSkip() const;
    bool InNumberingDestination() const
    {
        return m_rds == rdsPNCommand || m_rds == rdsPNTextBefore || m_rds == rdsPNTextAfter;
    }
    bool PutCommentCmd(int type, const char* pszData);
    // The pieces of ParseRun.
    bool ParseTextRun(const char* p, std::size_t cb);
    bool TextOwesNothing() const;
    std::size_t PlainTextLength(const char* p, std::size_t cb) const;
    std::size_t WriteTextRun(const char* p, std::size_t cb);
    void CollectFieldText(CString& text, const char* p, std::size_t cb);
    bool ParseAttachmentRun(const char* p, std::size_t cb);
    std::size_t DecodeHexPairs(const char* p, std::size_t cb);
    void StoreAttachmentByte(BYTE b);
    void WriteFullAttachmentBuffer();
    bool ParseAttachmentData(char ch);
    void DropUndecodableHexByte();
    void WriteAttachmentBuffer(int cb);
    void EndAttachment(RDS rdsOld);
    void EndField();
    void InsertTabStop(int param);
    bool LayoutEditLeavesText(int pos, const char* pszField) const;
    enum LayoutMeasure { leftMargin, firstLineIndent, rightMargin, cLayoutMeasures };
    void EditLayoutMeasure(LayoutMeasure measure, int twips);
    // What EditLayoutMeasure last made of a layout text, for each measure.
    struct LayoutEditMemo {
        bool bMade = false;
        int twips = 0;
        CString before;
        CLayoutCmd after{CDocCmd::Unfilled()};
    };
    std::array<LayoutEditMemo, cLayoutMeasures> m_layoutEditMemo;
    int FindFontEntry(int fontNum) const;
    bool AddAutomaticColorEntry();
    void ReleaseAttachmentStream();
    // The checks of the reader's limits (ReadLimits.h).
    bool FontTableHasRoom();
    bool FieldTextHasRoom(const CString& text, std::size_t cbMore);
    bool RedirectHasRoom(std::size_t cbMore);
    bool AttachmentHasRoom(int cb);

    bool m_bAttachmentDropped = false;  // past the size limit
    // The object is exactly CRTFStreamImport or CRTFPtrImport, whose virtuals
    // are all this library's own; set at each Read.
    bool m_bStockReader = false;
    // A stock reader's record of the innermost open group, which saves the
    // commands before their first change; null when none is open, and for
    // every other reader. A stock reader changes m_layoutCmd and m_fontCmd
    // only through LayoutCmdToChange and FontCmdToChange, but for the restore
    // at '}' (which gives back what the enclosing group opened with).
    CRTFImportSave* m_pLazySave = nullptr;
    CLayoutCmd& LayoutCmdToChange()
    {
        if (m_pLazySave && !m_pLazySave->m_bLayoutSaved)
            SaveLayoutCmdForGroup();
        return m_layoutCmd;
    }
    CFontCmd& FontCmdToChange()
    {
        if (m_pLazySave && !m_pLazySave->m_bFontSaved)
            SaveFontCmdForGroup();
        return m_fontCmd;
    }
    void SaveLayoutCmdForGroup();
    void SaveFontCmdForGroup();
    void RestoreCommands(const CRTFImportSave& save);
    void CopyFontCmd(CFontCmd& to, const CFontCmd& from);
    void ApplyFontEntry(int i);
    // The work of \plain and of \f outside the tables; each returns the font
    // table entry it applied (-1: none), which the lossless reading takes
    // the character set from.
    int ApplyPlainFont();
    int ApplyFontNumber(int FontNumber);
    // What ApplyFontEntry last made of a font command with an entry, for the
    // entries and commands of each slot.
    struct FontEntryMemo {
        CString before;  // empty, as no command is, until first made
        CString face;
        int charset = 0;
        CFontCmd after;
    };
    static constexpr unsigned cFontEntryMemoBits = 5;
    std::array<FontEntryMemo, std::size_t(1) << cFontEntryMemoBits> m_fontEntryMemo;
    static std::size_t FontEntryMemoSlot(int i, const CString& cmd);
};

class RTFCONV_API CRTFImportToPtr : public CRTFImport, protected COutputWindow {
public:
    // Converts into [b, e) and returns the number of bytes written; bMore
    // true means: call again, with the buffer drained, for the rest.
    int Read(char* b, char* e, bool& bMore);

protected:
    CRTFImportToPtr() = default;

    bool Put(char ch) override;
    bool Put(const CString& s) override;
    int GetCBWritten() const override;
    void CloseBuffer() override { COutputWindow::m_pEnd = COutputWindow::m_pCur; }
    std::size_t PutRun(const char* p, std::size_t cb) override;
};

class RTFCONV_API CRTFPtrImport : public CRTFImportToPtr {
public:
    // The text is not copied: it must outlive the object.
    explicit CRTFPtrImport(const char* text);

    // The bytes of the text read so far; after the last Read, where the
    // document ended.
    std::size_t BytesConsumed() const { return m_ichCur < m_cchText ? m_ichCur : m_cchText; }

protected:
    long Get(char& ch) override;
    long Get(int n, unsigned char* pDest) override;
    void MarkBacktrack(int n) override;
    void Backtrack(int n) override;
    const char* RunAhead(std::size_t& cb) const override;
    void SkipAhead(std::size_t cb) override;

    // Positions are offsets into the text. They may run past its end by the
    // reads that failed there, so that the tokenizer's rewinds stay exact,
    // but no byte beyond the terminating NUL is ever touched.
    const char* m_pStart;
    std::size_t m_cchText;
    std::size_t m_ichCur = 0;
    std::size_t m_ichMark = 0;
};

class RTFCONV_API CRTFStreamImport : public CRTFImportToPtr, private CByteCursor {
public:
    // Reads from the stream's current position. The stream is not owned: it
    // is neither AddRef'd nor released.
    explicit CRTFStreamImport(IStream* pStream);

    static constexpr int nReadBufferSize = 10300;
    static constexpr int nBlockSize = 10240;
    static constexpr int nHistorySize = 30;

    // The bytes of the stream read so far; after the last Read, where the
    // document ended.
    std::size_t BytesConsumed() const { return m_cbStreamRead - static_cast<std::size_t>(m_pEnd - ReadPosition()); }

protected:
    long Get(char& ch) override;
    long Get(int n, unsigned char* pDest) override;
    void MarkBacktrack(int n) override;
    void Backtrack(int n) override;
    // The bytes of the current block: a run never crosses a refill.
    const char* RunAhead(std::size_t& cb) const override;
    void SkipAhead(std::size_t cb) override;
    // This very class lets the parse loop move its read position and mark
    // within the read buffer; a class derived from it gets every call.
    CByteCursor* StockCursor() override;

    long ReadNewBuffer();
    // Keeps the history before the read position and reads the next block.
    long RefillBuffer();

    IStream* m_pStream;
    CString m_strBuffer;  // owns the read buffer's memory
    char* m_pBase = nullptr;
    char* m_pCur = nullptr;
    char* m_pMark = nullptr;
    char* m_pEnd = nullptr;
    bool m_bEof = false;
    std::size_t m_cbStreamRead = 0;  // what the stream has given

private:
    // Once StockCursor has handed the cursor to the parse loop, the read
    // position and the mark live in the cursor: each operation here takes
    // them into m_pCur and m_pMark first and gives them back after.
    const char* ReadPosition() const
    {
        return m_bCursorLive ? reinterpret_cast<const char*>(m_pRead) : m_pCur;
    }
    void TakeFromCursor();
    void GiveToCursor();
    // Get(n, pDest) on m_pCur.
    long GetBlock(int n, unsigned char* pDest);
    bool m_bCursorLive = false;
};

} // namespace rtf_converter
