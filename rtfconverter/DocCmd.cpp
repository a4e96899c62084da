#include "rtfconverter/DocCmd.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "hostlibs/MFCKVUtils.h"

// Reports `expr` as VQASSERT does and yields its truth, for checks that also
// decide what happens next.
#define VQCHECK(expr) ((expr) ? true : (::_vqassert_(#expr, __FILE__, __LINE__), false))

namespace rtf_converter {

namespace {

constexpr char kDefaultFontCmdText[] = "\x01" "F---:-" "\x02";
constexpr char kDefaultLayoutCmdText[] = "\x01" "LL000000" "\x02";
constexpr char kDefaultCommentCmdText[] = "\x01" "C?:" "\x02";
constexpr char kDefaultNumberCmdText[] = "\x01" "CN:" "\x02";
constexpr char kPrintOnText[] = "\x01" "P1" "\x02";
constexpr char kPrintOffText[] = "\x01" "P0" "\x02";
constexpr char kPrintEjectText[] = "\x01" "PE" "\x02";

// Both margins and indents are written as "%01.2f" and then stored digit by digit.
constexpr char kInchesFormat[] = "%01.2f";

bool IsDigit(char ch) { return ch >= '0' && ch <= '9'; }
bool IsInRange(char ch, char first, char last) { return ch >= first && ch <= last; }
bool IsOneOf(char ch, const char* set) { return ch != '\0' && std::strchr(set, ch) != nullptr; }

// lstrlen as the kernel spells it, for the font readers' length report.
int lstrlen(const char* psz) { return static_cast<int>(std::strlen(psz)); }

} // namespace

// ============================================================================
// CDocCmd
// ============================================================================

namespace {

constexpr CDocCmd::CmdTypes kKnownCmdTypes[] = {
    CDocCmd::attachment, CDocCmd::comment, CDocCmd::font, CDocCmd::layout, CDocCmd::print,
};

CDocCmd::CmdTypes CmdTypeOfLetter(char letter)
{
    for (CDocCmd::CmdTypes type : kKnownCmdTypes)
        if (letter == static_cast<char>(type)) return type;
    return CDocCmd::none;
}

} // namespace

CDocCmd::~CDocCmd() = default;

// Commands are never serialised or dumped through the framework.
void CDocCmd::Serialize(CArchive&) {}
void CDocCmd::AssertValid() const {}
void CDocCmd::Dump(CDumpContext&) const {}

bool CDocCmd::IsValidCmd() const
{
    const int len = m_cmd.GetLength();
    return len >= 1 && m_cmd.GetString()[0] == chCmdStart && m_cmd.GetString()[len - 1] == chCmdEnd;
}

const CString& CDocCmd::GetCmd() const { return m_cmd; }

void CDocCmd::SetCmd(const CString& cmd)
{
    m_cmd = cmd;
    if (IsValidCmd()) {
        m_mode = single;
        m_type = CmdTypeOfLetter(At(1));
    } else {
        m_mode = undefined;
        m_type = none;
    }
}

CDocCmd& CDocCmd::operator=(const CDocCmd& rCmd)
{
    if (this != &rCmd) SetCmd(rCmd.m_cmd);
    return *this;
}

CDocCmd& CDocCmd::operator=(const char* psz)
{
    SetCmd(CString(psz));
    return *this;
}

int CDocCmd::operator==(const CDocCmd& rCmd) const { return m_cmd == rCmd.m_cmd; }
int CDocCmd::operator==(const char* psz) const { return m_cmd == CString(psz); }
int CDocCmd::operator!=(const CDocCmd& rCmd) const { return !(*this == rCmd); }

void CDocCmd::SetMode(CmdModes mode)
{
    // Compared as unsigned so that negative values are ignored with the rest.
    if (static_cast<unsigned>(mode) <= static_cast<unsigned>(group)) m_mode = mode;
}

// ============================================================================
// Colour palette and scheme
// ============================================================================

namespace {

struct PaletteEntry {
    const char* name;
    COLORREF color;
};

constexpr PaletteEntry kPalette[nPaletteColors] = {
    {"Black", 0x000000},  {"Maroon", 0x000080}, {"Green", 0x008000},   {"Olive", 0x008080},
    {"Navy", 0x800000},   {"Purple", 0x800080}, {"Teal", 0x808000},    {"Gray", 0x808080},
    {"Silver", 0xC0C0C0}, {"Red", 0x0000FF},    {"Lime", 0x00FF00},    {"Yellow", 0x00FFFF},
    {"Blue", 0xFF0000},   {"Fuchsia", 0xFF00FF}, {"Aqua", 0xFFFF00},   {"White", 0xFFFFFF},
};

constexpr ColorSchemeEntry kColorScheme[] = {
    {"Selector Background", 16, 16, COLOR_BTNFACE, 1},
    {"Selector Text", 16, 16, COLOR_BTNTEXT, 1},
    {"Selector Highlight", 16, 16, COLOR_HIGHLIGHT, 1},
    {"Selector Highlight Text", 16, 16, COLOR_HIGHLIGHTTEXT, 1},
    {"Selector Filtered Items", 16, 16, COLOR_GRAYTEXT, 1},
    {"Selector Closed File", 16, 16, COLOR_GRAYTEXT, 1},
    {"Selector Size Bar", 9, 9, COLOR_HIGHLIGHT, 1},
    {"Selector Size Bar Background", 7, 7, COLOR_BTNFACE, 1},
    {"Search Map Boxes", 9, 9, COLOR_HIGHLIGHT, 1},
    {"Search Map Boxes Not Found", 0, 0, COLOR_BTNFACE, 1},
    {"Folder Empty Background", 16, 16, COLOR_BTNFACE, 1},
    {"Folder Empty Text", 16, 16, COLOR_BTNTEXT, 1},
    {"Folder Active Background", 9, 9, COLOR_HIGHLIGHT, 1},
    {"Folder Active Text", 16, 16, COLOR_HIGHLIGHTTEXT, 1},
    {"Calendar Background", 16, 16, COLOR_WINDOW, 1},
    {"Calendar Monthly Text", 16, 16, COLOR_WINDOWTEXT, 1},
    {"Calendar Daily Text", 16, 16, COLOR_GRAYTEXT, 1},
    {"Calendar Highlight", 16, 16, COLOR_HIGHLIGHT, 1},
    {"Calendar Highlight Text", 16, 16, COLOR_HIGHLIGHTTEXT, 1},
    {"Calendar Inactive Highlight", 16, 16, COLOR_INACTIVECAPTION, 1},
    {"Calendar Inactive Highlight Text", 16, 16, COLOR_INACTIVECAPTIONTEXT, 1},
    {"Calendar Button Background", 16, 16, COLOR_BTNFACE, 1},
    {"Calendar Button Outline", 16, 16, COLOR_BTNSHADOW, 1},
    {"Calendar Hot Button", 16, 16, COLOR_HIGHLIGHT, 0},
    {"Calendar Tickler Background", 16, 16, COLOR_WINDOW, 1},
    {"Calendar Holiday", 1, 1, COLOR_HIGHLIGHTTEXT, 1},
    {"Calendar Default Task Color", 16, 16, COLOR_WINDOWTEXT, 1},
    {"Calendar Text Disabled", 16, 16, COLOR_GRAYTEXT, 1},
    {"Markup Mode Deleted Text", 8, 8, COLOR_GRAYTEXT, 1},
    {"Markup Mode Inserted Text", 9, 9, COLOR_HIGHLIGHT, 1},
    {"Hypertext Links", 16, 16, COLOR_WINDOWTEXT, 1},
};
constexpr int kColorSchemeRows = static_cast<int>(sizeof kColorScheme / sizeof kColorScheme[0]);

constexpr char kMarkupInsertedLetter = 'Y';
constexpr char kMarkupDeletedLetter = 'Z';
constexpr char kMarkupInsertedRow[] = "Markup Mode Inserted Text";
constexpr char kMarkupDeletedRow[] = "Markup Mode Deleted Text";

const ColorSchemeEntry* FindSchemeRow(const char* name)
{
    if (!name) return nullptr;
    for (const ColorSchemeEntry& row : kColorScheme)
        if (std::strcmp(row.name, name) == 0) return &row;
    return nullptr;
}

bool IsPaletteIndex(int index) { return index >= 0 && index < nPaletteColors; }

COLORREF SchemePaletteColor(const char* rowName)
{
    const ColorSchemeEntry* row = FindSchemeRow(rowName);
    return row && IsPaletteIndex(row->currentIndex) ? kPalette[row->currentIndex].color : 0;
}

// The furthest two palette colours can be is 3 * 255; the search starts above it.
constexpr int kNearestColorBound = 1000;

} // namespace

COLORREF GetPaletteColor(int index) { return IsPaletteIndex(index) ? kPalette[index].color : 0; }

const char* GetPaletteColorName(int index) { return IsPaletteIndex(index) ? kPalette[index].name : ""; }

const ColorSchemeEntry* GetColorScheme(int& count)
{
    count = kColorSchemeRows;
    return kColorScheme;
}

COLORREF GetColorSchemeColor(const char* name)
{
    const ColorSchemeEntry* row = FindSchemeRow(name);
    if (!row) return 0;
    return IsPaletteIndex(row->currentIndex) ? kPalette[row->currentIndex].color : GetSysColor(row->sysColorIndex);
}

COLORREF ColorCharToRGB(char letter)
{
    if (letter == CFontCmd::chDefault) return 0;
    if (letter == kMarkupInsertedLetter) return SchemePaletteColor(kMarkupInsertedRow);
    if (letter == kMarkupDeletedLetter) return SchemePaletteColor(kMarkupDeletedRow);
    const char upper = IsInRange(letter, 'a', 'z') ? static_cast<char>(letter - 'a' + 'A') : letter;
    return IsInRange(upper, 'A', 'P') ? kPalette[upper - 'A'].color : 0;
}

COLORREF BackColorCharToRGB(char letter) { return IsInRange(letter, 'a', 'p') ? kPalette[letter - 'a'].color : 0; }

int FindNearestColor(int red, int green, int blue)
{
    int nearest = -1;
    int best = kNearestColorBound;
    for (int i = 0; i < nPaletteColors; ++i) {
        const COLORREF c = kPalette[i].color;
        const int distance = std::abs(GetRValue(c) - red) + std::abs(GetGValue(c) - green) + std::abs(GetBValue(c) - blue);
        if (distance < best) {
            best = distance;
            nearest = i;
        }
    }
    return nearest;
}

// ============================================================================
// CFontCmd
// ============================================================================

namespace {

struct CharsetCode {
    int charset;
    unsigned char code;
};

constexpr unsigned char kFirstCharsetCode = 0xC0;
constexpr unsigned char kLastCharsetCode = 0xD2;

// In code order: the code of an entry is kFirstCharsetCode + its index.
constexpr CharsetCode kCharsetCodes[] = {
    {ANSI_CHARSET, 0xC0},       {BALTIC_CHARSET, 0xC1},   {CHINESEBIG5_CHARSET, 0xC2}, {DEFAULT_CHARSET, 0xC3},
    {EASTEUROPE_CHARSET, 0xC4}, {GB2312_CHARSET, 0xC5},   {GREEK_CHARSET, 0xC6},       {HANGEUL_CHARSET, 0xC7},
    {MAC_CHARSET, 0xC8},        {OEM_CHARSET, 0xC9},      {RUSSIAN_CHARSET, 0xCA},     {SHIFTJIS_CHARSET, 0xCB},
    {SYMBOL_CHARSET, 0xCC},     {TURKISH_CHARSET, 0xCD},  {VIETNAMESE_CHARSET, 0xCE},  {JOHAB_CHARSET, 0xCF},
    {ARABIC_CHARSET, 0xD0},     {HEBREW_CHARSET, 0xD1},   {THAI_CHARSET, 0xD2},
};
constexpr std::size_t kCharsetCount = sizeof kCharsetCodes / sizeof kCharsetCodes[0];
static_assert(kCharsetCount == kLastCharsetCode - kFirstCharsetCode + 1, "one entry per charset code");

typedef std::array<CharsetCode, kCharsetCount> CharsetTable;

// The table sorted by character set value, for the reverse lookup. Built on
// first use; a function-local static makes that build safe when the first
// lookups race in several threads.
const CharsetTable& CharsetsByValue()
{
    static const CharsetTable s_sorted = [] {
        CharsetTable sorted;
        std::copy(std::begin(kCharsetCodes), std::end(kCharsetCodes), sorted.begin());
        std::sort(sorted.begin(), sorted.end(), [](const CharsetCode& a, const CharsetCode& b) { return a.charset < b.charset; });
        return sorted;
    }();
    return s_sorted;
}

// The code of a character set, or 0 when the table has none.
unsigned char CharsetToCode(int charset)
{
    const CharsetTable& sorted = CharsetsByValue();
    auto it = std::lower_bound(sorted.begin(), sorted.end(), charset,
        [](const CharsetCode& entry, int value) { return entry.charset < value; });
    return it != sorted.end() && it->charset == charset ? it->code : 0;
}

bool IsCharsetCode(char ch)
{
    const unsigned char b = static_cast<unsigned char>(ch);
    return b >= kFirstCharsetCode && b <= kLastCharsetCode;
}

bool IsBackColorLetter(char ch) { return IsInRange(ch, 'a', 'p'); }

constexpr char kFlagLetters[] = "BIUXSs";
constexpr char kBold = 'B';
constexpr char kItalic = 'I';
constexpr char kUnderline = 'U';
constexpr char kStrikeout = 'X';
constexpr char kSuperscript = 'S';
constexpr char kSubscript = 's';

bool IsAttributeLetter(char ch) { return IsOneOf(ch, kFlagLetters) || IsCharsetCode(ch) || IsBackColorLetter(ch); }

bool IsFontColorLetter(char ch)
{
    return IsInRange(ch, 'A', 'P') || ch == CFontCmd::chDefault || ch == kMarkupInsertedLetter || ch == kMarkupDeletedLetter;
}

// Copies a face name into a LOGFONT record, always terminated.
void CopyFaceName(char (&dest)[LF_FACESIZE], const CString& face)
{
    const int n = std::min(face.GetLength(), LF_FACESIZE - 1);
    std::memcpy(dest, face.GetString(), static_cast<std::size_t>(n));
    dest[n] = '\0';
}

// The face name of a LOGFONT, which need not be terminated.
CString FaceNameOf(const LOGFONT& lf)
{
    int n = 0;
    while (n < LF_FACESIZE && lf.lfFaceName[n]) ++n;
    return CString(lf.lfFaceName, n);
}

} // namespace

const CFontCmd CFontCmd::s_defaultCmd{CString(kDefaultFontCmdText)};

CFontCmd::CFontCmd()
{
    m_cmd = kDefaultFontCmdText;
    m_mode = single;
}

CFontCmd::CFontCmd(const CString& cmd) { SetCmd(cmd); }

CFontCmd::~CFontCmd() = default;

CFontCmd& CFontCmd::operator=(const CFontCmd& rCmd)
{
    VQASSERT(rCmd.IsValidCmd());
    m_cmd = rCmd.m_cmd;
    m_type = rCmd.m_type;
    m_mode = rCmd.m_mode;
    return *this;
}

bool CFontCmd::IsValidCmd() const
{
    if (!CDocCmd::IsValidCmd()) return false;
    const int len = GetLength();
    if (len < iFntCmdLenMin || At(1) != 'F') return false;
    // The size is "--" or starts with a digit; its second byte is deliberately
    // not examined, so "5-" and "5x" pass as they always have.
    if (!(At(posPoints) == chDefault && At(posPoints + 1) == chDefault) && !IsDigit(At(posPoints))) return false;
    if (!IsFontColorLetter(At(posColor))) return false;
    int i = posAttributes;
    for (; i < len && At(i) != chFaceSeparator; ++i)
        if (!IsAttributeLetter(At(i))) return false;
    if (i >= len) return false;
    if (At(i + 1) == chDefault) return true;
    for (int j = i + 1; j < len; ++j)
        if (At(j) == chCmdEnd) return true;
    return false;
}

int CFontCmd::FindFaceSeparator() const
{
    const char* pFontCmd = m_cmd.GetString();
    VQASSERT(pFontCmd);
    VQASSERT(lstrlen(pFontCmd) >= iFntCmdLenMin);
    return m_cmd.Find(chFaceSeparator, posAttributes);
}

bool CFontCmd::HasAttribute(char letter) const
{
    const int colon = FindFaceSeparator();
    const int end = colon < 0 ? GetLength() : colon;
    for (int i = posAttributes; i < end; ++i)
        if (At(i) == letter) return true;
    return false;
}

template <class Pred>
void CFontCmd::RemoveAttributes(Pred isRemoved)
{
    const int colon = FindFaceSeparator();
    if (colon < 0) return; // no attribute field to edit
    CString edited = m_cmd.Left(posAttributes);
    for (int i = posAttributes; i < colon; ++i)
        if (!isRemoved(At(i))) edited += At(i);
    edited += m_cmd.Mid(colon);
    m_cmd = edited;
}

void CFontCmd::AppendAttribute(char letter)
{
    const int colon = FindFaceSeparator();
    if (colon >= 0) m_cmd.Insert(colon, letter);
}

void CFontCmd::SetFlag(char letter, int bOn)
{
    // Removing and appending means a flag set again moves to the end.
    if (HasAttribute(letter)) RemoveAttributes([letter](char ch) { return ch == letter; });
    if (bOn) AppendAttribute(letter);
}

int CFontCmd::GetPoints(const LOGFONT& base) const
{
    if (At(posPoints) == chDefault && At(posPoints + 1) == chDefault) return PixY2Pts(base.lfHeight);
    int points = 0;
    for (int i = posPoints; i < posPoints + 2 && IsDigit(At(i)); ++i) points = points * 10 + (At(i) - '0');
    return points;
}

char CFontCmd::GetColor() const { return At(posColor); }

int CFontCmd::IsDefaultColor() const { return At(posColor) == chDefault; }

char CFontCmd::GetBackColor() const
{
    const int colon = FindFaceSeparator();
    const int end = colon < 0 ? GetLength() : colon;
    for (int i = posAttributes; i < end; ++i)
        if (IsBackColorLetter(At(i))) return At(i);
    return '\0';
}

int CFontCmd::IsDefaultBackColor() const { return GetBackColor() == '\0'; }

bool CFontCmd::IsBold() const { return HasAttribute(kBold); }
bool CFontCmd::IsItalic() const { return HasAttribute(kItalic); }
bool CFontCmd::IsUnderline() const { return HasAttribute(kUnderline); }
bool CFontCmd::IsStrikeout() const { return HasAttribute(kStrikeout); }
bool CFontCmd::IsSuperscript() const { return HasAttribute(kSuperscript); }
bool CFontCmd::IsSubscript() const { return HasAttribute(kSubscript); }

int CFontCmd::GetCharset() const
{
    const int colon = FindFaceSeparator();
    const int end = colon < 0 ? GetLength() : colon;
    for (int i = posAttributes; i < end; ++i)
        if (IsCharsetCode(At(i))) return kCharsetCodes[static_cast<unsigned char>(At(i)) - kFirstCharsetCode].charset;
    return DEFAULT_CHARSET;
}

CString& CFontCmd::GetFaceName(CString& out, const LOGFONT& base) const
{
    out.Empty();
    const int colon = FindFaceSeparator();
    if (colon < 0) return out;
    if (At(colon + 1) == chDefault) {
        out = FaceNameOf(base);
        return out;
    }
    int end = colon + 1;
    while (end < GetLength() && At(end) != chCmdEnd) ++end;
    // An over-long name reads as no name rather than as a truncated one.
    if (end - (colon + 1) <= nMaxFaceNameLen) out = m_cmd.Mid(colon + 1, end - (colon + 1));
    return out;
}

int CFontCmd::GetLogFont(LOGFONT& out, const LOGFONT& base) const
{
    out = LOGFONT{};
    const int points = GetPoints(base);
    out.lfHeight = Pts2PixY(points);
    out.lfWeight = IsBold() ? FW_BOLD : FW_NORMAL;
    out.lfItalic = IsItalic() ? 1 : 0;
    out.lfUnderline = IsUnderline() ? 1 : 0;
    out.lfStrikeOut = IsStrikeout() ? 1 : 0;
    CString face;
    CopyFaceName(out.lfFaceName, GetFaceName(face, base));
    SetPrecisionAndQualityInLOGFONT(out);
    // DEFAULT_CHARSET, whether absent or written as its code, means the base's.
    const int charset = GetCharset();
    out.lfCharSet = charset == DEFAULT_CHARSET ? base.lfCharSet : static_cast<BYTE>(charset);
    out.lfPitchAndFamily = base.lfPitchAndFamily;
    return points;
}

void CFontCmd::SetPoints(int points, int bDefault)
{
    if (bDefault) {
        PutAt(posPoints, chDefault);
        PutAt(posPoints + 1, chDefault);
        return;
    }
    // Only the last two digits fit the field: 105 is stored as "05".
    PutAt(posPoints + 1, static_cast<char>('0' + points % 10));
    PutAt(posPoints, static_cast<char>('0' + (points / 10) % 10));
}

void CFontCmd::SetColor(char letter, int bDefault)
{
    if (bDefault) {
        PutAt(posColor, chDefault);
        return;
    }
    if (letter != kMarkupInsertedLetter && letter != kMarkupDeletedLetter) {
        const signed char c = static_cast<signed char>(letter);
        letter = c < 'A' ? 'A' : c > 'P' ? 'P' : letter;
    }
    PutAt(posColor, letter);
}

void CFontCmd::SetBackColor(char letter, int bDefault)
{
    RemoveAttributes(IsBackColorLetter);
    if (letter && !bDefault) AppendAttribute(letter);
}

void CFontCmd::SetBold(int bOn) { SetFlag(kBold, bOn); }
void CFontCmd::SetItalic(int bOn) { SetFlag(kItalic, bOn); }
void CFontCmd::SetUnderline(int bOn) { SetFlag(kUnderline, bOn); }
void CFontCmd::SetStrikeout(int bOn) { SetFlag(kStrikeout, bOn); }
void CFontCmd::SetSuperscript(int bOn) { SetFlag(kSuperscript, bOn); }
void CFontCmd::SetSubscript(int bOn) { SetFlag(kSubscript, bOn); }

void CFontCmd::SetCharset(int charset)
{
    RemoveAttributes(IsCharsetCode);
    // DEFAULT_CHARSET is written as the absence of a code, as is any charset
    // the table does not know.
    if (charset == DEFAULT_CHARSET) return;
    if (const unsigned char code = CharsetToCode(charset)) AppendAttribute(static_cast<char>(code));
}

void CFontCmd::SetFaceName(const char* pszFaceName)
{
    const int colon = FindFaceSeparator();
    if (colon < 0) return;
    CString edited = m_cmd.Left(colon + 1);
    edited += (pszFaceName && *pszFaceName) ? pszFaceName : "-";
    edited += chCmdEnd;
    m_cmd = edited;
}

void CFontCmd::SetDefault(FontCmdMasks mask)
{
    m_mode = single;
    if ((mask & fcmAll) == fcmAll) {
        m_cmd = kDefaultFontCmdText;
        return;
    }
    VQASSERT(IsValidCmd());
    if (!IsValidCmd()) m_cmd = kDefaultFontCmdText;
    if (mask & fcmPoints) SetPoints(0, TRUE);
    if (mask & fcmColor) SetColor(chDefault, TRUE);
    if (mask & fcmBackColor) SetBackColor('\0', TRUE);
    if (mask & fcmBold) SetBold(FALSE);
    if (mask & fcmItalic) SetItalic(FALSE);
    if (mask & fcmStrikeout) SetStrikeout(FALSE);
    if (mask & fcmUnderline) SetUnderline(FALSE);
    if (mask & fcmSuperscript) SetSuperscript(FALSE);
    if (mask & fcmSubscript) SetSubscript(FALSE);
    if (mask & fcmFaceName) SetFaceName(nullptr);
    if (mask & fcmCharset) SetCharset(DEFAULT_CHARSET);
}

} // namespace rtf_converter
