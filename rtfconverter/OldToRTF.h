// Old-format text to RTF.
//
// COldToRTF scans the old-format text once. Plain text is copied in runs with
// the RTF specials escaped; each markup command is decoded with its command
// class and turned into RTF control words. The font and colour tables can only
// be printed once the whole body has been seen, so the body is kept in a
// private block of memory first, and at the end the header, the tables and
// the stylesheet are written to the caller's stream with the body behind, in
// one write:
//
//     {\rtf1\ansi\deff0\deflang1024{\fonttbl...}{\colortbl;...}{\stylesheet...}
//     \pard\f0\fs20\cf1 body...}
//
// Every byte of the body passes through a quick buffer of s_dwBufferSize bytes
// on its way to the private block (see AddToBuffer). The quick buffer is the
// room just behind the body: what it takes is written where the body keeps
// it, and flushing it only moves the body's end.
//
// SetLossless(true) keeps what those specified bytes lose (off by default, so
// that hosts get the bytes they rely on): each kept thing is written by a
// function named for it, called at the one point where it leaves the
// specified path (the "Lossless writing" section of OldToRTF.cpp).
#pragma once
#include "rtfconverter/Export.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>

#include "hostlibs/MFCKVUtils.h"
#include "platform/AfxColl.h"
#include "platform/AfxString.h"
#include "platform/ObjBase.h"
#include "platform/WinGdi.h"
#include "platform/WinTypes.h"

struct AttachmentInfo;
class CDIBitmap;

namespace rtf_converter {

class CCodePage;
class CCommentCmd;
class CFontCmd;
class CLayoutCmd;

// The opening of every document the writers produce.
constexpr const char* szRtfDocumentHeader = "{\\rtf1\\ansi\\deff0\\deflang1024";

// The font-table family word of a font, with its trailing blank ("fswiss "),
// from the family nibble of lfPitchAndFamily.
RTFCONV_API CString GetFamilyWord(const LOGFONT& lf);
// A colour-table entry: "\redR\greenG\blueB;".
RTFCONV_API CString FormatColorEntry(COLORREF cr);
// The tables of a document in a single font and the automatic colour, as the
// plain-text writers produce it: "{\fonttbl{\f0\fcharsetN\family Face;}}"
// and "{\colortbl;" with the window text colour "}".
RTFCONV_API CString FormatSingleFontTable(int charset, const LOGFONT& lf);
RTFCONV_API CString FormatWindowTextColorTable();
// header + fonts + colours + body in one allocation; empty when memory runs
// out, as the plain-text writers' Export promises.
RTFCONV_API CString AssembleDocument(const CString& header, const CString& fonts, const CString& colors, const CString& body);
// Twice a point size, as RTF counts font sizes in half-points; wide enough
// for any LOGFONT height a caller may pass.
RTFCONV_API long long HalfPoints(int points);

class RTFCONV_API COldToRTF {
public:
    // The writer's attachment filter: the command's text position, the command,
    // the record to fill, and the two values given to SetAttachmentFilter.
    typedef bool (*AttachmentFilter)(int nTextPos, const CString& cmd, AttachmentInfo& info, void* pParam1, void* pParam2);

    // One font of the font table.
    struct FontTableStruct {
        int nFontNumber = 0;
        CString csFaceName;
        CString csFamily; // family word with its trailing blank
        int nCharset = 0;
    };

    static const int nDataBufSize = 16384;

    // The caller keeps `out` alive for the object's lifetime; no reference is taken.
    explicit COldToRTF(IStream& out);
    ~COldToRTF();
    COldToRTF(const COldToRTF&) = delete;
    COldToRTF& operator=(const COldToRTF&) = delete;

    // Converts the zero-terminated old-format text (null reads as empty) and
    // writes the whole document to the output stream. pBaseFont null means
    // Arial 10 at the screen's resolution. S_OK, or E_FAIL when anything
    // raised during the conversion.
    long Convert(const char* pszText, const LOGFONT* pBaseFont);

    // A null filter leaves attachments out of the RTF.
    void SetAttachmentFilter(AttachmentFilter filter, void* param1, void* param2);
    // Lossless writing, off by default so that the class writes its specified
    // bytes. When on: every byte above 0x7F is written as \'hh and a double-byte
    // font's lead and trail bytes as one character; a hyperlink's display text
    // keeps its font commands as formatting; table tag commands make a table;
    // pictures answered as PNG, JPEG, EMF or WMF are written as pictures; and
    // Convert fails when a write to the output stream fails.
    void SetLossless(bool bLossless) { m_bLossless = bLossless; }
    [[nodiscard]] bool IsLossless() const { return m_bLossless; }

    // Kept for the caller; the conversion does not read it.
    void SetBackgroundColor(unsigned int color) { m_nBackgroundColor = color; }
    unsigned int GetBackgroundColor() const { return m_nBackgroundColor; }

protected:
    // The capacity of the quick buffer. A derived class or the host may change
    // it before a conversion starts, never during one.
    static DWORD s_dwBufferSize;
    static unsigned long GetQuickBufferSize() { return s_dwBufferSize; }
    unsigned long GetQuickBufferPosition() const { return m_dwQuickBufferPosition; }

    // --- output buffers ---
    // Invariant: m_dwQuickBufferPosition < s_dwBufferSize, or both are 0. A
    // block that does not fit strictly into the free space is written straight
    // to the private body after the quick buffer has been flushed.
    void InitBuffer();
    long FlushQuickBuffer();
    long FlushBuffer();
    // The free space is measured against the size InitBuffer made room for,
    // s_dwBufferSize as it was then; a size changed in mid-conversion against
    // the rule above could otherwise overrun the room.
    void AddToBuffer(const char* p, int n)
    {
        if (n >= 0 && static_cast<std::size_t>(n) < m_cbQuickBuffer - m_dwQuickBufferPosition) {
            CopyToQuickBuffer(p, static_cast<DWORD>(n));
            return;
        }
        AddToBufferDirect(p, n);
    }
    void AddToBuffer(char c) { AddToBuffer(&c, 1); }
    void AddToBuffer(const CString& s) { AddToBuffer(s.GetString(), s.GetLength()); }

    // --- the scan and the per-command writers ---
    void ConvertText(const char* pszText) { ConvertText(pszText, pszText + std::strlen(pszText)); }
    static void ReplaceSpecSymbols(CString& s);
    void ResetParagraphAttributes();
    CString GetStylesheet() const;

    int AddFontCmdToBuffer(const CString& sFontCmd);
    int AddLayoutCmdToBuffer(const CString& sLayoutCmd);
    int AddPrintCmdToBuffer(const CString& sPrintCmd);
    int AddCommentCmdToBuffer(const CString& scmd, int nTextPos);
    int AddOleCmdToBuffer(const CString& cmd, int nTextPos);

    // --- fonts and colours ---
    int AddToFontTableIfNecessary(const LOGFONT& lf);
    int AddToFontTableIfNecessary(const CFontCmd& cmd);
    void SetFontNumber(FontTableStruct& fts);
    int AddToColorTableIfNecessary(COLORREF cr);
    CString GetFontTable() const;
    CString GetColorTable() const;

    // --- attachments ---
    int AddOleToBuffer(AttachmentInfo& info);
    int AddDibToBuffer(const CDIBitmap& dib);
    int AddOleResultToBuffer(const CDIBitmap& dib);
    void AddDataToBuffer(const unsigned char* p, unsigned long n);
    // Kept for derived writers; the conversion writes files and pictures only
    // through the kinds of AddOleToBuffer.
    int AddFileToBuffer(AttachmentInfo& info);
    int AddPictureToBuffer(AttachmentInfo& info);

private:
    // What a font command sets: its entries in the font and colour tables,
    // its size and its attributes, in the order the font writer writes them.
    struct FontCmdMeaning {
        int nFont = 0;
        int nPoints = 0;
        int nColor = 0;
        int nBackColor = 0;
        bool bAttributes[6] = {};
    };
    // The meanings of the commands met last, by the hash of their text: a
    // document repeats a few font and layout commands many times. Valid for
    // one conversion; a fixed number of slots, so that a text of ever new
    // commands takes no more memory.
    template <class TMeaning>
    class CCommandCache {
    public:
        struct Slot {
            std::string text;
            TMeaning meaning;
        };
        // The slot for the text; bHeld tells whether it holds the text's
        // meaning, else the caller fills it.
        Slot& SlotOf(const char* p, std::size_t n, bool& bHeld);
        void Clear();

    private:
        static bool Holds(const Slot& slot, const char* p, std::size_t n)
        {
            return slot.text.size() == n && SameBytes(slot.text.data(), p, n);
        }
        // Commands are a few dozen bytes: compared eight at a time, the last
        // eight overlapping those before, rather than in a call.
        static bool SameBytes(const char* a, const char* b, std::size_t n)
        {
            if (n < 8) return std::memcmp(a, b, n) == 0;
            std::uint64_t differ = 0;
            auto compareWordAt = [&](std::size_t i) {
                std::uint64_t x, y;
                std::memcpy(&x, a + i, 8);
                std::memcpy(&y, b + i, 8);
                differ |= x ^ y;
            };
            for (std::size_t i = 0; i + 8 < n; i += 8) compareWordAt(i);
            compareWordAt(n - 8);
            return differ == 0;
        }
        static constexpr std::size_t nSlots = 512;
        std::unique_ptr<Slot[]> m_slots;
    };
    // The four numbered parts of the character state, side by side so that
    // a font command's are compared with those in force at once.
    struct alignas(16) CharacterParts {
        int nFont = 0;
        int nPoints = 0;
        int nColor = 0;
        int nBackColor = 0;
    };
    // A font command's meaning with the control words that set each part of
    // it, worked out once per command text: most font commands change a word
    // or two, and those are copied, not formatted again.
    struct FontCmdWords {
        // The words in the order the font writer writes them, by the bit of
        // the mask of what changes: the four parts (the back colour as two
        // words, which change together), then the attribute words.
        enum Word { wordFont, wordPoints, wordColor, wordBack, wordBackPattern, wordFirstAttribute, nWords = wordFirstAttribute + 6 };
        CharacterParts parts;
        unsigned char attributes = 0;  // bit k: attribute word k on
        // Where each word starts in bytes, and its length: at most 19 bytes
        // ("\chcbpat" and ten digits), copied as a block of kcbWordBlock,
        // or of kcbShortWordBlock when none is longer (the back colour's
        // words are, only with a table of a hundred million colours).
        unsigned char wordBegin[nWords] = {};
        unsigned char wordLength[nWords] = {};
        bool bLongWords = false;
        static constexpr std::size_t kcbWordBlock = 32;
        static constexpr std::size_t kcbShortWordBlock = 16;
        // The words back to back, at most 141 bytes, with room for the last
        // to be copied as a block.
        char bytes[141 + kcbWordBlock] = {};
    };
    // What a numbering command writes but for the current font: the number of
    // its bullet font (-1: none), its text with the blanks of its tab, and the
    // text positions it takes.
    struct NumberMeaning {
        int nBulletFont = -1;
        CString csText;
        int nAdvance = 0;
    };
    FontCmdWords WordsOfMeaning(const FontCmdMeaning& meaning) const;
    FontCmdWords WordsOfFontCmd(const char* pFontCmd, int nFontCmd);
    int AddFontCmdToBuffer(const char* pFontCmd, int nFontCmd);
    const FontCmdWords& CachedFontWords(const char* pFontCmd, std::size_t cbFontCmd);
    const char* AddRememberedFontCmd(const char* pCmd, const char* pTextEnd);
    const char* AddRunsAndRememberedFontCmds(const char*& pRun, const char* pTextEnd, unsigned char& chLast, unsigned& nTextPos);
    void AddFontWords(const FontCmdWords& words);
    static std::size_t WriteFontWords(const FontCmdWords& words, CharacterParts& partsInForce, unsigned char& attributesInForce,
                                      char* pWords);
    FontCmdMeaning ParseFontCmd(const CString& sFontCmd);
    void ClearCommandCaches();
    int AddLayoutCmdToBuffer(const char* pLayoutCmd, int nLayoutCmd);
    static CString LayoutWordsOf(const CLayoutCmd& cmd);

    // The body written so far, in one growing block of memory, with room
    // kept behind it for the quick buffer. Grows by at least doubling (a
    // large block is moved by remapping its pages, not by copying them).
    class CBodyBytes {
    public:
        CBodyBytes() = default;
        ~CBodyBytes();
        CBodyBytes(const CBodyBytes&) = delete;
        CBodyBytes& operator=(const CBodyBytes&) = delete;

        // Empty, with room for cbRoom bytes; false when memory runs out.
        bool Restart(std::size_t cbRoom);
        // Room for cbMore bytes behind the body; false when memory runs out.
        bool MakeRoom(std::size_t cbMore);
        char* End() const { return m_p + m_cb; }
        const char* Data() const { return m_p; }
        std::size_t Size() const { return m_cb; }
        // The next cb bytes behind the body, written in place, become body.
        void Extend(std::size_t cb) { m_cb += cb; }
        void Append(const char* p, std::size_t cb);
        bool IsOpen() const { return m_p != nullptr; }

    private:
        char* m_p = nullptr; // malloc'ed
        std::size_t m_cb = 0;
        std::size_t m_cbRoom = 0;
    };

    void CopyToQuickBuffer(const char* p, DWORD n)
    {
        if (n) {
            std::memcpy(m_body.End() + m_dwQuickBufferPosition, p, n);
            m_dwQuickBufferPosition += n;
        }
    }
    void AddToBufferDirect(const char* p, int n);
    // The bytes from p in the text that ends at pTextEnd. Those between two
    // commands are mostly a few: they are copied as one block of
    // kcbShortRun bytes, not in a call, where the text and the quick buffer
    // both have that room.
    static constexpr std::size_t kcbShortRun = 16;
    void AddTextBytesToBuffer(const char* p, int n, const char* pTextEnd)
    {
        if (n >= 0 && static_cast<std::size_t>(n) <= kcbShortRun && static_cast<std::size_t>(pTextEnd - p) >= kcbShortRun &&
            m_cbQuickBuffer - m_dwQuickBufferPosition > kcbShortRun) {
            std::memcpy(m_body.End() + m_dwQuickBufferPosition, p, kcbShortRun);
            m_dwQuickBufferPosition += static_cast<DWORD>(n);
            return;
        }
        AddToBuffer(p, n);
    }
    void ConvertText(const char* pszText, const char* pTextEnd);
    void ReserveBody(std::size_t cchText);
    [[noreturn]] static void RaiseBodyError(const char* pszWhat, HRESULT hr);
    HRESULT WriteToOutStream(const CString& s);
    HRESULT NoteOutWrite(HRESULT hr);
    void InitBaseFont(const LOGFONT* pBaseFont);
    int AddHyperlinkToBuffer(const char* pCmd, int nCmd);
    std::size_t AddToBufferEscapingSpecials(std::string_view s);
    int AddDescriptionToBuffer(const CCommentCmd& cmd);
    int AddNumberToBuffer(const CString& cmd);
    int AddNumberToBuffer(const char* pCmd, int nCmd);
    NumberMeaning MeaningOfNumberCmd(const CString& scmd);
    int AddPictureGroup(const CDIBitmap& dib, const char* pszOpening, const char* pszClosing);

    // --- lossless writing: each function keeps what the specified bytes lose
    // The character state the font writer tracks, which a group of the RTF
    // (a hyperlink's display text) changes only inside itself.
    typedef std::tuple<CharacterParts, unsigned char> CharacterState;
    std::tuple<CharacterParts&, unsigned char&> CharacterStateMembers() { return std::tie(m_inForce, m_attributes); }
    CharacterState SaveCharacterState();
    void RestoreCharacterState(const CharacterState& state);
    void AddTextRun(const char* p, int n);
    void AddTextKeepingEveryByte(const char* p, int n);
    template <class Append>
    void EscapeKeepingEveryByte(const char* p, int n, Append&& append) const;
    const CCodePage* PageOfCurrentFont() const;
    const char* FindCommandEnd(const char* pCmd) const;
    // The same, for a command that starts before pTextEnd, the text's NUL.
    const char* FindCommandEnd(const char* pCmd, const char* pTextEnd) const;
    const char* FindCommandEndKeepingNestedCommands(const char* pCmd) const;
    const char* FindCommandEndKeepingNestedCommands(const char* pCmd, const char* pTextEnd) const;
    static const char* FirstCommandEndOrTextEnd(const char* p, const char* pTextEnd);
    // A hyperlink's display text (its font commands whole) and target.
    // The parts are the command's own bytes, not copies of them.
    struct HyperlinkParts {
        // A font command owed when the display text began: its bytes before
        // the 0x02 the separator cut off; empty in the other shapes.
        std::string_view owedFontHead;
        std::string_view display; // after the owed font command, if any
        std::string_view target;
        const char* pEnd = nullptr; // the 0x02 that ends the command
    };
    static bool ParseOwedFontHyperlink(const char* pCmd, HyperlinkParts& parts);
    // A comment command's bytes, 0x01 'C' to 0x02; within the text or a string.
    int AddCommentCmdToBuffer(const char* pCmd, int nCmd, int nTextPos);
    int AddHyperlinkKeepingDisplayFormatting(const char* pCmd, int nCmd);
    void AddDisplayTextKeepingFormatting(std::string_view display);
    void AddOwedFontCmdToBuffer(std::string_view head);
    int AddTableTagKeepingTable(const CCommentCmd& cmd, const char* pAfterCmd);
    void StartTableRow(const char* pAfterCmd);
    void EndTableCell();
    void EndTableRow();
    void CloseOpenTableRow();
    void AddPictureKeepingItsFormat(AttachmentInfo& info);
    long ResultKeepingWriteFailures() const;

    bool m_bLossless = false;
    // The current font's character set and its page, as last looked up.
    mutable int m_nPageCharset = -1;
    mutable const CCodePage* m_pPageOfCharset = nullptr;
    // The first failed write to the output stream (S_OK when none).
    HRESULT m_hrFirstOutFailure = S_OK;
    // The words of the last layout command, "\pard..." without the blank: a
    // table row's paragraphs and the paragraph after it start with them.
    CString m_csLayoutWords;
    // The cells of the open table row (0 when no row is open) and how many of
    // them have ended.
    int m_nRowCells = 0;
    int m_nRowCellsEnded = 0;
    // The text after the command being written, for the look-ahead of a table row.
    const char* m_pAfterCommand = nullptr;
    // Where the last look-ahead that found no cell stopped: row starts before
    // it need not look again.
    const char* m_pNoCellsBefore = nullptr;

    CCommandCache<FontCmdWords> m_fontCmdCache;
    // The font commands of the text, known by their first kcbFontCmdLook
    // bytes, their slot picked by the first 16 (see RememberedFontCmdAt).
    static constexpr std::size_t kcbFontCmdLook = 48;
    static constexpr std::size_t kFontCmdLookWords = kcbFontCmdLook / 8;
    struct RememberedFontCmd {
        // The command to its 0x02, the bytes after it zero; all zero in an
        // empty slot, whose one byte 0 no command has (each starts with 0x01).
        std::uint64_t source[kFontCmdLookWords];
        // Bit i: byte i of the source is the command's; its length.
        std::uint64_t ownBytes = 1;
        unsigned char cb = 0;
        FontCmdWords words;
    };
    static constexpr unsigned kRememberedFontCmdBits = 8;
    const RememberedFontCmd* RememberedFontCmdAt(RememberedFontCmd* slots, const char* pCmd);
    void RememberFontCmd(RememberedFontCmd& slot, const char* pCmd, std::size_t cb,
                         const std::uint64_t (&source)[kFontCmdLookWords]);
    std::unique_ptr<RememberedFontCmd[]> m_rememberedFontCmds;
    CCommandCache<NumberMeaning> m_numberCmdCache;
    // A valid layout command's words, "\pard..." without the blank.
    CCommandCache<CString> m_layoutCmdCache;

    CBodyBytes m_body;
    // The quick buffer's capacity, as InitBuffer made room for it.
    std::size_t m_cbQuickBuffer = 0;
    DWORD m_dwQuickBufferPosition = 0;
    CString m_csHeader;
    CArray<FontTableStruct, FontTableStruct&> m_fontTable;
    int m_nFontCount = 0;
    // The font, size, colour and back colour in force: table indexes, the
    // size in points, and before the first font command the colour value
    // itself (see ResetParagraphAttributes).
    CharacterParts m_inForce;
    // The character attributes in force, bit k for the k-th attribute word
    // the font writer writes (bold, underline, italic, strikeout,
    // superscript, subscript): a font command's are compared and taken over
    // at once.
    unsigned char m_attributes = 0;
    static constexpr unsigned char kUnderlineBit = 1u << 1;
    CArray<COLORREF, COLORREF> m_colorTable;
    const char* m_pszText = nullptr;
    LOGFONT m_logFont{};
    COLORREF m_crDefaultText = 0;
    AttachmentFilter m_pfnAttachmentFilter = nullptr;
    void* m_pFilterParam1 = nullptr;
    void* m_pFilterParam2 = nullptr;
    unsigned int m_nBackgroundColor = 16;
    std::unique_ptr<char[]> m_pDataBuffer;
    IStream* m_pOutStream;
};

} // namespace rtf_converter
