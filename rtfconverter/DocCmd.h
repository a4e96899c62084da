// Markup commands of old-format text, the colour palette, tab stops and the
// attachment record exchanged with the host.
//
// A markup command is the run of bytes from a byte 0x01 to the first following
// byte 0x02; the byte after the 0x01 is the type letter:
//
//     0x01 'F' "12JB:Arial" 0x02     font          CFontCmd
//     0x01 'L' "C100050"... 0x02     layout        CLayoutCmd
//     0x01 'C' "H:text" 0x03 ... 0x02  comment     CCommentCmd (CNumberCmd for 'N')
//     0x01 'P' '1' 0x02              print         CPrintCmd
//     0x01 'A' "07" 0x02             attachment    CAttachmentCmd
//
// A command object is a value whose whole state is its text plus the kind and
// mode derived when the text was set. Nothing here throws or refuses input:
// texts are stored as given, inconsistencies are reported through VQLogger's
// assertion report and the operation goes on with the text as it is.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>

#include "hostlibs/VQLogger.h"
#include "platform/AfxColl.h"
#include "platform/AfxObject.h"
#include "platform/AfxString.h"
#include "platform/ObjBase.h"
#include "platform/WinGdi.h"
#include "platform/WinTypes.h"

// The host utility library's bitmap; only pointers to it travel here.
class CDIBitmap;

namespace rtf_converter {

// ============================================================================
// CDocCmd: the framing shared by every markup command.
// ============================================================================

class RTFCONV_API CDocCmd : public CObject {
public:
    // The value of each kind is its type letter.
    enum CmdTypes : int { none = 0, attachment = 'A', comment = 'C', font = 'F', layout = 'L', print = 'P' };
    // single: the text was valid when set; undefined: not validated or invalid;
    // group: set only by the host, left again by the next SetCmd.
    enum CmdModes : int { undefined = 0, single = 1, group = 2 };

    static constexpr char chCmdStart = '\x01';
    static constexpr char chCmdEnd = '\x02';

    CDocCmd() = default;
    CDocCmd(const CDocCmd&) = default;
    // Tag of a command made with no text, neither valid nor of a kind: a
    // slot that a copy fills before it is used, made at no cost.
    struct Unfilled {};
    ~CDocCmd() override;

    void Serialize(CArchive&) override;
    void AssertValid() const override;
    void Dump(CDumpContext&) const override;
    // Base rule: at least one byte, first byte 0x01, last byte 0x02.
    virtual bool IsValidCmd() const;
    virtual const CString& GetCmd() const;

    // Stores the text, then derives mode and type through the most derived
    // IsValidCmd.
    void SetCmd(const CString& cmd);
    CDocCmd& operator=(const CDocCmd& rCmd);
    CDocCmd& operator=(const char* psz);
    // Takes rCmd's text, kind and mode as they are, without the report of an
    // invalid source that a copy of a font command makes: for a reader whose
    // commands are valid as it builds them.
    // (Inline: the readers copy their commands at nearly every change of
    // formatting.)
    void CopyUnchecked(const CDocCmd& rCmd)
    {
        m_cmd = rCmd.m_cmd;
        m_type = rCmd.m_type;
        m_mode = rCmd.m_mode;
    }

    // Texts compared byte for byte; kind and mode do not take part.
    int operator==(const CDocCmd& rCmd) const { return m_cmd == rCmd.m_cmd; }
    int operator==(const char* psz) const;
    int operator==(const CString& s) const { return m_cmd == s; }
    int operator!=(const CDocCmd& rCmd) const { return !(m_cmd == rCmd.m_cmd); }
    int operator!=(const char* psz) const { return !(*this == psz); }
    int operator!=(const CString& s) const { return !(m_cmd == s); }

    operator const char*() const
    {
        VQASSERT(IsValidCmd());
        return m_cmd;
    }

    int GetLength() const { return m_cmd.GetLength(); }
    bool IsType(CmdTypes type) const { return m_type == type; }
    void SetMode(CmdModes mode);
    bool IsGroupMode() const { return m_mode == group; }

protected:
    // The byte at index i, or 0 past the end: readers never index out of the text.
    char At(int i) const { return i >= 0 && i < m_cmd.GetLength() ? m_cmd.GetString()[i] : '\0'; }
    // Writes the byte at index i when the text has one.
    void PutAt(int i, char ch)
    {
        if (i >= 0 && i < m_cmd.GetLength()) m_cmd.SetAt(i, ch);
    }

    CString m_cmd;
    CmdTypes m_type = none;
    CmdModes m_mode = undefined;
};

// ============================================================================
// Font command and colour palette
// ============================================================================
//
//     index 0     0x01
//     index 1     'F'
//     index 2-3   point size, two digits, or "--" for the base font's size
//     index 4     text colour: 'A'..'P' palette, '-' default, 'Y'/'Z' markup colours
//     5 .. s-1    attribute letters: B I U X S s, 'a'..'p' background, 0xC0..0xD2 charset
//     s           ':' (the first colon after index 4)
//     s+1 ..      face name, or '-' for the base font's face
//     last        0x02

enum FontCmdMasks {
    fcmPoints = 0x001,
    fcmColor = 0x002,
    fcmFaceName = 0x004,
    fcmBold = 0x008,
    fcmItalic = 0x010,
    fcmUnderline = 0x020,
    fcmStrikeout = 0x040,
    fcmSuperscript = 0x080,
    fcmSubscript = 0x100,
    fcmCharset = 0x200,
    fcmBackColor = 0x400,
    fcmAll = 0x7FF,
};

class RTFCONV_API CFontCmd : public CDocCmd {
public:
    static constexpr int iFntCmdLenMin = 8;
    static constexpr int posPoints = 2;
    static constexpr int posColor = 4;
    static constexpr int posAttributes = 5;
    static constexpr char chFaceSeparator = ':';
    static constexpr char chDefault = '-';
    static constexpr int nMaxFaceNameLen = 32;

    // 0x01 "F---:-" 0x02; its own kind is font, its mode single.
    static const CFontCmd s_defaultCmd;

    // The default text with mode single and kind none (not through SetCmd).
    CFontCmd();
    CFontCmd(const CFontCmd&) = default;
    explicit CFontCmd(Unfilled) {}
    CFontCmd(const CString& cmd);
    // Inline, as every group record's commands end with it.
    ~CFontCmd() override = default;

    // Copies text, kind and mode as they are, after reporting an invalid source.
    CFontCmd& operator=(const CFontCmd& rCmd);
    using CDocCmd::operator=;

    bool IsValidCmd() const override;

    int GetPoints(const LOGFONT& base) const;
    char GetColor() const;
    int IsDefaultColor() const;
    char GetBackColor() const;
    int IsDefaultBackColor() const;
    bool IsBold() const;
    bool IsItalic() const;
    bool IsUnderline() const;
    bool IsStrikeout() const;
    bool IsSuperscript() const;
    bool IsSubscript() const;
    int GetCharset() const;
    CString& GetFaceName(CString& out, const LOGFONT& base) const;
    // Fills `out` from the command over `base`; returns the point size.
    int GetLogFont(LOGFONT& out, const LOGFONT& base) const;

    void SetPoints(int points, int bDefault);
    void SetColor(char letter, int bDefault);
    void SetBackColor(char letter, int bDefault);
    void SetBold(int bOn);
    void SetItalic(int bOn);
    void SetUnderline(int bOn);
    void SetStrikeout(int bOn);
    void SetSuperscript(int bOn);
    void SetSubscript(int bOn);
    void SetCharset(int charset);
    void SetFaceName(const char* pszFaceName);
    void SetDefault(FontCmdMasks mask);

private:
    int FindFaceSeparator() const;
    void CheckMinimumLength() const;
    bool HasAttribute(char letter) const;
    void SetFlag(char letter, int bOn);
    template <class Pred>
    void RemoveAttributes(Pred isRemoved);
    template <class Pred>
    bool AttributesUnchangedBy(Pred isRemoved, char appended) const;
    void AppendAttribute(char letter);
    template <class Pred>
    bool EditAttributesInOnePass(Pred isRemoved, char appended);
    // Inserts letter at index at, below the length (the separator's index).
    void InsertAttributeAt(std::size_t at, char letter);
};

// The COLORREF of a text colour letter ('A'..'P', 'Y', 'Z'; '-' and others give 0).
RTFCONV_API COLORREF ColorCharToRGB(char letter);
// The COLORREF of a background letter ('a'..'p'; others give 0).
RTFCONV_API COLORREF BackColorCharToRGB(char letter);
// The palette index (0..15) nearest to a colour; ties keep the lower index.
RTFCONV_API int FindNearestColor(int red, int green, int blue);

constexpr int nPaletteColors = 16;
// Palette entry `index` (0..15) and its display name; index out of range gives
// 0 and "".
RTFCONV_API COLORREF GetPaletteColor(int index);
RTFCONV_API const char* GetPaletteColorName(int index);

// One element of the host's colour scheme. A palette index of 16 means the
// element follows its system colour.
struct ColorSchemeEntry {
    const char* name;
    int defaultIndex;
    int currentIndex;
    int sysColorIndex;
    int flag;
};
constexpr int nSchemeNoPaletteColor = 16;
// The scheme rows in their stored order.
RTFCONV_API const ColorSchemeEntry* GetColorScheme(int& count);
// The colour an element shows: its palette colour, or its system colour when
// it has none. Unknown names give 0.
RTFCONV_API COLORREF GetColorSchemeColor(const char* name);

// ============================================================================
// Layout command and tab stops
// ============================================================================
//
//     index 0      0x01
//     index 1      'L'
//     index 2      justification 'L', 'C', 'R'
//     index 3-5    left margin ddd = d.dd inches
//     index 6-8    right margin ddd
//     index 9-12   optional first-line indent '+' or '-' then ddd
//     then         tab stops, four bytes each: ddd position and a leader byte
//     last         0x02

struct TabDescription {
    double m_position = 0.0; // inches from the left, strictly between 0 and 10
    char m_leader = ' ';     // ' ', '.', '-', '_' or '='
};

typedef CArray<TabDescription, TabDescription&> CTabArray;

class RTFCONV_API CLayoutCmd : public CDocCmd {
public:
    static constexpr int posJustify = 2;
    static constexpr int posLeftMargin = 3;
    static constexpr int posRightMargin = 6;
    static constexpr int posFirstLineIndent = 9;
    static constexpr int posEndMin = 9;
    static constexpr int CmdLengthMin = 10;
    static constexpr int lenMargin = 3;
    static constexpr int lenIndent = 4;
    static constexpr int lenTab = 4;

    // 0x01 "LL000000" 0x02.
    static const CString DefaultCmd;

    CLayoutCmd();
    CLayoutCmd(const CLayoutCmd&) = default;
    explicit CLayoutCmd(Unfilled) {}
    CLayoutCmd(const CString& cmd);
    ~CLayoutCmd() override = default;

    // Copies text, kind and mode as they are.
    CLayoutCmd& operator=(const CLayoutCmd& rCmd);
    CLayoutCmd& operator=(const CString& cmd);

    bool IsValidCmd() const override;

    void Left();
    void Center();
    void Right();
    int IsLeft() const;
    int IsCenter() const;
    int IsRight() const;

    double GetLeftMargin() const;
    double GetRightMargin() const;
    void GetLeftMargin(CString& out) const;
    void GetRightMargin(CString& out) const;
    void SetLeftMargin(double inches);
    void SetRightMargin(double inches);
    void SetLeftMargin(const char* psz);
    void SetRightMargin(const char* psz);

    double GetFirstLineIndent() const;
    void GetFirstLineIndent(CString& out) const;
    void SetFirstLineIndent(double inches);
    void SetFirstLineIndent(const char* psz);

    int GetTabs(CTabArray& tabs) const;
    void SetTabs(const CTabArray& tabs);

private:
    void GetMarginStr(CString& out, int bLeft) const;
    void SetMarginStr(const char* psz, int bLeft);
    void SetMarginValue(double inches, int bLeft);
    void SetJustify(char letter);
    bool HasIndentField() const;
    int TabsStart() const;
    void ReportIfInvalid() const;
};

// ============================================================================
// Comment, numbering, print and attachment commands
// ============================================================================
//
// Comment command: 0x01 'C' subtype ':' field0 [0x03 field1 [0x03 field2 ...]] 0x02

// Comment subtypes; the value is the subtype letter.
enum OTHERCMD_TYPE {
    ot_Reference = 'R',
    ot_Hyperlink = 'H',
    ot_Numbering = 'N',
    ot_Table = 'T',
};

// Numbering types of the numbering command (not the reader's NumberingType codes).
enum NumTypes {
    nt_None = 0,
    nt_Decimal = 1,          // 1.
    nt_DecimalParen = 2,     // 1)
    nt_UpperRoman = 3,       // I.
    nt_UpperLetter = 4,      // A.
    nt_LowerLetterParen = 5, // a)
    nt_LowerLetterBoth = 6,  // (a)
    nt_LowerRoman = 7,       // i.
    nt_DecimalBoth = 8,      // (1)
    nt_LowerRomanBoth = 9,   // (i)
    nt_Bullet1 = 17,         // 0xB7 in Symbol
    nt_Bullet2 = 18,         // 0x57 in WingDings
    nt_Bullet3 = 19,         // 0x9F in WingDings
    nt_Bullet4 = 20,         // 0x71 in WingDings
    nt_Bullet5 = 21,         // 0x76 in WingDings
    nt_Bullet6 = 22,         // 0xD8 in WingDings
    nt_Bullet7 = 23,         // 0xFC in WingDings
    nt_Last = 24,
};

// List kinds of a numbering command; only multilevel changes the number text.
enum MultiLevelTypes {
    mlt_None = 0,
    mlt_Simple = 1,
    mlt_Multilevel = 2,
    mlt_Hybrid = 3,
    mlt_Last = 4,
};

class RTFCONV_API CCommentCmd : public CDocCmd {
public:
    static constexpr int idxType = 2;
    static constexpr int idxSeparator = 3;
    static constexpr int idxText = 4;
    static constexpr char chTextSeparator = ':';
    static constexpr char chDataSeparator = '\x03';

    // 0x01 "C?:" 0x02: invalid until a subtype is set.
    static const CString DefaultCmd;

    CCommentCmd();
    explicit CCommentCmd(OTHERCMD_TYPE type);
    CCommentCmd(const CString& cmd);
    // len -1: up to and including the first 0x02, or to the end of the string.
    CCommentCmd(const char* p, int len);
    CCommentCmd(const CCommentCmd& rCmd);
    ~CCommentCmd() override;

    CCommentCmd& operator=(const CCommentCmd& rCmd);
    using CDocCmd::operator=;

    // Base rule, subtype R/H/N/T at index 2, ':' at index 3; index 1 not examined.
    bool IsValidCmd() const override;

    int GetType() const;
    void SetType(OTHERCMD_TYPE type);
    CString GetData(int n) const;
    // Replaces field n, creating missing empty fields before it.
    void SetData(const CString& data, int n);
    CString GetDescription(int bDetailed) const;
    static CString RemoveProtocol(const CString& address);

protected:
    // Start and end (index of the 0x03 or 0x02 after it) of field n; false when
    // the command has fewer fields. `separatorsFound` tells how many of the n
    // separators were passed.
    bool FindField(int n, int& start, int& end, int& separatorsFound) const;
};

// Paragraph numbering: a comment command with subtype 'N'. Fields: 0 number
// text, 2 type letter, 3 tab width ddd, 4 bullet font, 7 level digit and list
// kind letter, 8.. the numbers of levels 1 to 9.
class RTFCONV_API CNumberCmd : public CCommentCmd {
public:
    static constexpr int fldText = 0;
    static constexpr int fldType = 2;
    static constexpr int fldTabWidth = 3;
    static constexpr int fldBulletFont = 4;
    static constexpr int fldLevel = 7;
    static constexpr int fldFirstNumber = 8;
    static constexpr int nMaxText = 512;

    // 0x01 "CN:" 0x02.
    static const CString DefaultNumberCmd;

    CNumberCmd();
    CNumberCmd(const CString& cmd);
    CNumberCmd(const CNumberCmd&) = default;
    ~CNumberCmd() override;
    using CCommentCmd::operator=;

    int GetNumType() const;
    void SetNumType(int nType);
    double GetTabWidth() const;
    void SetTabWidth(double tabWidth);
    int GetLevel() const;
    int GetListKind() const;
    int GetNumber(int level) const;
    void SetNumber(int number, int level);
    void UpdateText();

    // The text of number n in type t ("1.", "(bb)", "MCMXCIV.", a bullet byte);
    // empty for types without a format.
    static CString FormatNumber(int number, int type);
};

// Print command: 0x01 'P' state 0x02, state '1' on, '0' off, 'E' page eject.
class RTFCONV_API CPrintCmd : public CDocCmd {
public:
    static const char* const s_onCmd;
    static const char* const s_offCmd;
    static const char* const s_ejectCmd;
    static const int s_nEjectLen;

    CPrintCmd();
    CPrintCmd(const CString& cmd);
    CPrintCmd(const CPrintCmd&) = default;
    ~CPrintCmd() override;

    CPrintCmd& operator=(const CPrintCmd& rCmd);
    using CDocCmd::operator=;

    bool IsValidCmd() const override;

    void On();
    void Off();
    void Eject();
    int IsEject() const;
};

// Attachment command: 0x01 'A' dd 0x02, dd the attachment's index 00 to 99.
// Built with lpszFormat and read back from the lenIndex digits at posIndex.
class RTFCONV_API CAttachmentCmd : public CDocCmd {
public:
    static constexpr int posIndex = 2;
    static constexpr int lenIndex = 2;
    static constexpr int posEnd = 4;
    static constexpr int CmdLength = 5;
    // 0x01 "A%02.2d" 0x02. Defined out of line: the compiler would warn about
    // the zero flag beside the precision, which is the format as it has always
    // been written.
    static const char* const lpszFormat;

    CAttachmentCmd() = default;
    CAttachmentCmd(const CAttachmentCmd&) = default;
    ~CAttachmentCmd() override;

    CAttachmentCmd& operator=(const CAttachmentCmd& rCmd);
    using CDocCmd::operator=;
};

} // namespace rtf_converter

// ============================================================================
// AttachmentInfo: an object that accompanies old-format text, exchanged with
// the host's attachment filters.
// ============================================================================
//
// The record never releases pStm nor deletes m_pDIBitmap: the writer takes
// both over when its filter returns true (it releases and deletes them after
// writing); the importer keeps pStm and releases it when the next attachment
// starts, so a filter that keeps the data copies it or AddRefs the stream.
struct AttachmentInfo {
    enum AttachmentTypes {
        AT_NONE = 0,
        AT_DIB = 2,           // "dibitmap"
        AT_PNG = 3,           // "pngblip"
        AT_JPEG = 4,          // "jpegblip"
        AT_EMF = 5,           // "emfblip"
        AT_WMF = 6,           // "wmetafile"
        AT_OLE_FIRST = 7,     // first OLE kind, written as an embedded object
        AT_OLE_EMBEDDED = 8,  // "object", "objemb"
        AT_OLE_PICTURE = 9,   // OLE kind whose content is only m_pDIBitmap
        AT_OLE_LAST = 10,     // linked object, "objlink"
        AT_PLACEHOLDER = 12,  // "objattph", no data
    };

    LONG aType = AT_NONE;
    IStream* pStm = nullptr;
    DWORD dwDataSize = 0;
    CString csExtra;
    LONG nReserved1 = -1;
    LONG nReserved2 = -1;
    CDIBitmap* m_pDIBitmap = nullptr;

    static bool IsOleType(LONG type) { return type >= AT_OLE_FIRST && type <= AT_OLE_LAST; }
};
