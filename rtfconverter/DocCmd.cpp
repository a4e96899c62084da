#include "rtfconverter/DocCmd.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

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

int CDocCmd::operator==(const char* psz) const { return m_cmd == CString(psz); }

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
            // Nothing after an exact match is nearer, and a tie keeps it:
            // documents mostly name the palette's own colours.
            if (distance == 0)
                break;
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

// Per byte: whether it may stand in the attribute field (a flag letter, a
// background letter or a charset code); validation asks for each attribute of
// every command copied.
struct AttributeLetterTable {
    bool allowed[256] = {};
    constexpr AttributeLetterTable()
    {
        for (const char* p = kFlagLetters; *p; ++p)
            allowed[static_cast<unsigned char>(*p)] = true;
        for (int b = 'a'; b <= 'p'; ++b)
            allowed[b] = true;
        for (int b = kFirstCharsetCode; b <= kLastCharsetCode; ++b)
            allowed[b] = true;
    }
};
constexpr AttributeLetterTable kAttributeLetters;

bool IsAttributeLetter(char ch) { return kAttributeLetters.allowed[static_cast<unsigned char>(ch)]; }

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
    if (len < iFntCmdLenMin) return false;
    // Every index read below is at most len, where the terminating NUL stands
    // for what At gives past the end.
    const char* p = m_cmd.GetString();
    if (p[1] != 'F') return false;
    // The size is "--" or starts with a digit; its second byte is deliberately
    // not examined, so "5-" and "5x" pass as they always have.
    if (!(p[posPoints] == chDefault && p[posPoints + 1] == chDefault) && !IsDigit(p[posPoints])) return false;
    if (!IsFontColorLetter(p[posColor])) return false;
    int i = posAttributes;
    for (; i < len && p[i] != chFaceSeparator; ++i)
        if (!IsAttributeLetter(p[i])) return false;
    if (i >= len) return false;
    if (p[i + 1] == chDefault) return true;
    // The text ends with 0x02 (the base rule), which lies after the separator.
    return true;
}

// Every reading and editing of the attributes starts here, several times per
// formatting change. The length report measures the text up to a NUL; a text
// whose first bytes hold none passes it, and is not measured. The separator is
// a few bytes after the colour, and is looked for byte by byte.
// Whether one of the eight bytes at p is NUL, tested as one word: no
// library call for the check made at every reading of the attributes.
static bool HasNulByte(const char* p)
{
    static_assert(CFontCmd::iFntCmdLenMin == 8, "the check reads one 64-bit word");
    std::uint64_t w;
    std::memcpy(&w, p, sizeof w);
    return ((w - 0x0101010101010101u) & ~w & 0x8080808080808080u) != 0;
}

// Reports a command too short to be one, as every look for its separator does.
void CFontCmd::CheckMinimumLength() const
{
    const char* pFontCmd = m_cmd.GetString();
    VQASSERT(pFontCmd);
    if (GetLength() < iFntCmdLenMin || HasNulByte(pFontCmd))
        VQASSERT(lstrlen(pFontCmd) >= iFntCmdLenMin);
}

int CFontCmd::FindFaceSeparator() const
{
    CheckMinimumLength();
    const char* pFontCmd = m_cmd.GetString();
    const int len = GetLength();
    for (int i = posAttributes; i < len; ++i)
        if (pFontCmd[i] == chFaceSeparator) return i;
    return -1;
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
    // Backwards, so that a deletion leaves the bytes still to visit in place.
    for (int i = colon - 1; i >= posAttributes; --i)
        if (isRemoved(At(i))) m_cmd.Delete(i, 1);
}

// Whether removing the attributes isRemoved holds for and then appending
// `appended` (nothing when 0) would give the text back as it is, so that the
// edit can be skipped: readers set the same character set and flags over and
// over. Only a text long enough for FindFaceSeparator's check answers yes, so
// a skipped edit is one that would have reported nothing either.
template <class Pred>
bool CFontCmd::AttributesUnchangedBy(Pred isRemoved, char appended) const
{
    if (lstrlen(m_cmd.GetString()) < iFntCmdLenMin) return false;
    const int colon = m_cmd.Find(chFaceSeparator, posAttributes);
    if (colon < 0) return true; // the edit finds no attribute field
    int count = 0;
    for (int i = posAttributes; i < colon; ++i)
        if (isRemoved(At(i))) ++count;
    if (appended == '\0') return count == 0;
    return isRemoved(appended) && count == 1 && At(colon - 1) == appended;
}

void CFontCmd::AppendAttribute(char letter)
{
    const int colon = FindFaceSeparator();
    if (colon >= 0) m_cmd.Insert(colon, letter);
}

// The text grows by its last byte, and the bytes from `at` on move up one
// over it: a general insertion's bookkeeping is paid at every flag set.
void CFontCmd::InsertAttributeAt(std::size_t at, char letter)
{
    const std::size_t len = static_cast<std::size_t>(GetLength());
    m_cmd += m_cmd.GetString()[len - 1];
    char* p = m_cmd.GetBuffer();
    std::memmove(p + at + 1, p + at, len - 1 - at);
    p[at] = letter;
}

// Removes the attributes isRemoved holds for and appends `appended` (nothing
// when 0) in one pass over the text, with the separator looked for once: the
// readers edit the command at every formatting change. It leaves the text to
// the edit made step by step (returning false) wherever a step would report
// (a text too short, before or after the removal) or would measure the text
// otherwise than by its length (a NUL inside it), so that the reports stay
// as they are.
template <class Pred>
bool CFontCmd::EditAttributesInOnePass(Pred isRemoved, char appended)
{
    const std::string& text = m_cmd.str();
    const std::size_t len = text.size();
    if (len < static_cast<std::size_t>(iFntCmdLenMin) || std::strlen(text.c_str()) != len) return false;
    // The attributes are counted in the pass that finds the separator
    // ending them: most edits find they change nothing, and stop here.
    std::size_t colon = posAttributes;
    std::size_t count = 0;
    for (; colon < len && text[colon] != chFaceSeparator; ++colon)
        if (isRemoved(text[colon])) ++count;
    if (colon == len) return true; // no attribute field to edit
    if (appended == '\0' ? count == 0 : isRemoved(appended) && count == 1 && text[colon - 1] == appended) return true;
    if (appended != '\0' && len - count < static_cast<std::size_t>(iFntCmdLenMin)) return false;
    char* p = m_cmd.GetBuffer();
    std::size_t kept = posAttributes;
    for (std::size_t i = posAttributes; i < colon; ++i)
        if (!isRemoved(p[i])) p[kept++] = p[i];
    if (appended != '\0') {
        if (kept == colon) {
            InsertAttributeAt(colon, appended);
            return true;
        }
        p[kept++] = appended;
    }
    if (kept < colon) m_cmd.Delete(static_cast<int>(kept), static_cast<int>(colon - kept));
    return true;
}

void CFontCmd::SetFlag(char letter, int bOn)
{
    if (EditAttributesInOnePass([letter](char ch) { return ch == letter; }, bOn ? letter : '\0')) return;
    if (AttributesUnchangedBy([letter](char ch) { return ch == letter; }, bOn ? letter : '\0')) return;
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

// Asked at nearly every change of formatting: the attributes are read in the
// same pass that looks for the separator ending them (a charset code is
// never the separator), not after it.
int CFontCmd::GetCharset() const
{
    CheckMinimumLength();
    const char* p = m_cmd.GetString();  // every index below the length lies in the text
    const int len = GetLength();
    for (int i = posAttributes; i < len && p[i] != chFaceSeparator; ++i)
        if (IsCharsetCode(p[i])) return kCharsetCodes[static_cast<unsigned char>(p[i]) - kFirstCharsetCode].charset;
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
    if (EditAttributesInOnePass(IsBackColorLetter, letter && !bDefault ? letter : '\0')) return;
    if (AttributesUnchangedBy(IsBackColorLetter, letter && !bDefault ? letter : '\0')) return;
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
    // DEFAULT_CHARSET is written as the absence of a code, as is any charset
    // the table does not know.
    const char code = charset == DEFAULT_CHARSET ? '\0' : static_cast<char>(CharsetToCode(charset));
    if (EditAttributesInOnePass(IsCharsetCode, code)) return;
    if (AttributesUnchangedBy(IsCharsetCode, code)) return;
    RemoveAttributes(IsCharsetCode);
    if (code) AppendAttribute(code);
}

void CFontCmd::SetFaceName(const char* pszFaceName)
{
    const int colon = FindFaceSeparator();
    if (colon < 0) return;
    // A name taken from this very text is copied before the text changes.
    // Nearly always the name lies elsewhere, and nothing is copied.
    const std::less<const char*> before;
    const char* pText = m_cmd.GetString();
    CString copied;
    if (!before(pszFaceName, pText) && before(pszFaceName, pText + GetLength() + 1)) {
        copied = pszFaceName;
        if (!copied.IsEmpty()) pszFaceName = copied.GetString();
    }
    const char* pszFace = (pszFaceName && *pszFaceName) ? pszFaceName : "-";
    const std::size_t cchFace = std::strlen(pszFace);
    // The same face again (a reader sets it at every font change) leaves the
    // text alone; another replaces the tail in place.
    const std::size_t cchTail = static_cast<std::size_t>(GetLength() - (colon + 1));
    const char* pTail = m_cmd.GetString() + colon + 1;
    if (cchTail == cchFace + 1 && std::memcmp(pTail, pszFace, cchFace) == 0 && pTail[cchFace] == chCmdEnd) return;
    m_cmd.Delete(colon + 1, GetLength() - (colon + 1));
    m_cmd += pszFace;
    m_cmd += chCmdEnd;
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

// ============================================================================
// CLayoutCmd
// ============================================================================

namespace {

constexpr char kJustifyLetters[] = "CLR";
constexpr char kJustifyLeft = 'L';
constexpr char kJustifyCenter = 'C';
constexpr char kJustifyRight = 'R';
constexpr char kIndentPlus = '+';
constexpr char kIndentMinus = '-';
constexpr double kMaxInches = 9.99;

bool IsIndentSign(char ch) { return ch == kIndentPlus || ch == kIndentMinus; }

// Three digits d1 d2 d3 read as the text "d1.d2d3".
CString InchesText(char d1, char d2, char d3)
{
    const char text[] = {d1, '.', d2, d3, '\0'};
    return CString(text);
}

// "%01.2f" of a value whose hundredths are not near a tie, worked out without
// printf: the reader sets margins and indents for nearly every paragraph. The
// product v * 100 is off from the exact one by well under 1e-9 hundredths for
// |v| < 10, so a fraction further than that from one half rounds the same way
// as printf's exact rounding; a value at or near a tie (36 twips is 0.025 in,
// stored a hair above it) and anything out of range go to printf.
bool FormatInchesQuickly(double inches, CString& text)
{
    const double magnitude = std::fabs(inches);
    if (!(magnitude < 10.0))
        return false;  // NaN, infinities and values with two integer digits
    const double hundredths = magnitude * 100.0;
    const double whole = std::floor(hundredths);
    const double fraction = hundredths - whole;
    if (std::fabs(fraction - 0.5) < 1e-6)
        return false;
    const int value = static_cast<int>(whole) + (fraction > 0.5 ? 1 : 0);  // 0 .. 1000
    if (value >= 1000)
        return false;
    char digits[6];
    char* p = digits;
    if (std::signbit(inches))
        *p++ = '-';  // printf keeps the sign of a negative value, even one rounded to zero
    *p++ = static_cast<char>('0' + value / 100);
    *p++ = '.';
    *p++ = static_cast<char>('0' + value / 10 % 10);
    *p++ = static_cast<char>('0' + value % 10);
    text = CString(digits, static_cast<int>(p - digits));
    return true;
}

CString FormatInches(double inches)
{
    CString text;
    if (!FormatInchesQuickly(inches, text))
        text.Format(kInchesFormat, inches);
    return text;
}

} // namespace

const CString CLayoutCmd::DefaultCmd(kDefaultLayoutCmdText);

CLayoutCmd::CLayoutCmd() { SetCmd(CString(kDefaultLayoutCmdText)); }

CLayoutCmd::CLayoutCmd(const CString& cmd) { SetCmd(cmd); }


CLayoutCmd& CLayoutCmd::operator=(const CLayoutCmd& rCmd)
{
    m_cmd = rCmd.m_cmd;
    m_type = rCmd.m_type;
    m_mode = rCmd.m_mode;
    return *this;
}

CLayoutCmd& CLayoutCmd::operator=(const CString& cmd)
{
    SetCmd(cmd);
    return *this;
}

bool CLayoutCmd::IsValidCmd() const
{
    const int len = GetLength();
    if (!CDocCmd::IsValidCmd() || len < CmdLengthMin) return false;
    if (At(1) != 'L' || !IsOneOf(At(posJustify), kJustifyLetters)) return false;
    for (int i = posLeftMargin; i < posFirstLineIndent; ++i)
        if (!IsDigit(At(i))) return false;
    if (At(posEndMin) == chCmdEnd) return len == CmdLengthMin;
    int tabs = posFirstLineIndent;
    if (IsIndentSign(At(posFirstLineIndent))) {
        for (int i = posFirstLineIndent + 1; i < posFirstLineIndent + lenIndent; ++i)
            if (!IsDigit(At(i))) return false;
        tabs = posFirstLineIndent + lenIndent;
        if (tabs == len - 1) return true;
    }
    // Tab stops: three digits and a leader byte, which is not checked.
    int i = tabs;
    for (; i < len - 1; i += lenTab) {
        if (i + lenTab > len - 1) return false;
        for (int j = i; j < i + lenMargin; ++j)
            if (!IsDigit(At(j))) return false;
    }
    return At(i) == chCmdEnd;
}

void CLayoutCmd::ReportIfInvalid() const { VQASSERT(IsValidCmd()); }

bool CLayoutCmd::HasIndentField() const { return IsIndentSign(At(posFirstLineIndent)); }

int CLayoutCmd::TabsStart() const { return HasIndentField() ? posFirstLineIndent + lenIndent : posFirstLineIndent; }

void CLayoutCmd::SetJustify(char letter)
{
    ReportIfInvalid();
    PutAt(posJustify, letter);
}

void CLayoutCmd::Left() { SetJustify(kJustifyLeft); }
void CLayoutCmd::Center() { SetJustify(kJustifyCenter); }
void CLayoutCmd::Right() { SetJustify(kJustifyRight); }

int CLayoutCmd::IsLeft() const
{
    ReportIfInvalid();
    return At(posJustify) == kJustifyLeft;
}

int CLayoutCmd::IsCenter() const
{
    ReportIfInvalid();
    return At(posJustify) == kJustifyCenter;
}

int CLayoutCmd::IsRight() const
{
    ReportIfInvalid();
    return At(posJustify) == kJustifyRight;
}

void CLayoutCmd::GetMarginStr(CString& out, int bLeft) const
{
    const int pos = bLeft ? posLeftMargin : posRightMargin;
    out = InchesText(At(pos), At(pos + 1), At(pos + 2));
}

void CLayoutCmd::SetMarginStr(const char* psz, int bLeft)
{
    if (!psz) return;
    const int pos = bLeft ? posLeftMargin : posRightMargin;
    // Digits fill the field in order wherever the point stands: "12.5" is 1.25.
    int taken = 0;
    for (; *psz && taken < lenMargin; ++psz) {
        if (IsDigit(*psz))
            PutAt(pos + taken++, *psz);
        else if (*psz != '.')
            VQASSERT(false);
    }
}

void CLayoutCmd::SetMarginValue(double inches, int bLeft)
{
    ReportIfInvalid();
    if (inches < 0.0)
        inches = 0.0;
    else if (inches > kMaxInches)
        inches = kMaxInches;
    // Most paragraphs set their margins to zero, whose text needs no
    // formatting; -0.0 is left to printf, which writes its sign.
    if (inches == 0.0 && !std::signbit(inches)) {
        SetMarginStr("0.00", bLeft);
        return;
    }
    SetMarginStr(FormatInches(inches), bLeft);
}

double CLayoutCmd::GetLeftMargin() const
{
    CString text;
    GetLeftMargin(text);
    return std::atof(text);
}

double CLayoutCmd::GetRightMargin() const
{
    CString text;
    GetRightMargin(text);
    return std::atof(text);
}

void CLayoutCmd::GetLeftMargin(CString& out) const
{
    ReportIfInvalid();
    GetMarginStr(out, TRUE);
}

void CLayoutCmd::GetRightMargin(CString& out) const
{
    ReportIfInvalid();
    GetMarginStr(out, FALSE);
}

void CLayoutCmd::SetLeftMargin(double inches) { SetMarginValue(inches, TRUE); }
void CLayoutCmd::SetRightMargin(double inches) { SetMarginValue(inches, FALSE); }

void CLayoutCmd::SetLeftMargin(const char* psz)
{
    ReportIfInvalid();
    SetMarginStr(psz, TRUE);
}

void CLayoutCmd::SetRightMargin(const char* psz)
{
    ReportIfInvalid();
    SetMarginStr(psz, FALSE);
}

double CLayoutCmd::GetFirstLineIndent() const
{
    CString text;
    GetFirstLineIndent(text);
    return std::atof(text);
}

void CLayoutCmd::GetFirstLineIndent(CString& out) const
{
    ReportIfInvalid();
    if (!HasIndentField()) {
        out = "0.00";
        return;
    }
    const int pos = posFirstLineIndent;
    out = InchesText(At(pos + 1), At(pos + 2), At(pos + 3));
    if (At(pos) == kIndentMinus) out = '-' + out;
}

void CLayoutCmd::SetFirstLineIndent(double inches)
{
    if (inches < -kMaxInches)
        inches = -kMaxInches;
    else if (inches > kMaxInches)
        inches = kMaxInches;
    SetFirstLineIndent(FormatInches(inches).GetString());
}

void CLayoutCmd::SetFirstLineIndent(const char* psz)
{
    ReportIfInvalid();
    char field[lenIndent + 1] = {kIndentPlus, '0', '0', '0', '\0'};
    int taken = 0;
    bool bSignSeen = false;
    bool bNonZero = false;
    for (; psz && *psz && taken < lenMargin; ++psz) {
        const char ch = *psz;
        if (IsIndentSign(ch)) {
            // Only a sign in front of the digits counts.
            if (!bSignSeen && taken == 0) {
                field[0] = ch;
                bSignSeen = true;
            } else {
                VQASSERT(FALSE);
            }
        } else if (IsDigit(ch)) {
            field[1 + taken++] = ch;
            bNonZero = bNonZero || ch != '0';
        } else if (ch != '.') {
            VQASSERT(false);
        }
    }
    // A zero indent is always written as no field at all, whatever its sign.
    if (bNonZero) {
        if (HasIndentField()) {
            for (int i = 0; i < lenIndent; ++i) PutAt(posFirstLineIndent + i, field[i]);
        } else {
            m_cmd.Insert(posFirstLineIndent, field);
        }
    } else if (HasIndentField()) {
        m_cmd.Delete(posFirstLineIndent, lenIndent);
    }
}

int CLayoutCmd::GetTabs(CTabArray& tabs) const
{
    ReportIfInvalid();
    const int start = TabsStart();
    const int count = std::max(0, (GetLength() - start - 1) / lenTab);
    tabs.SetSize(count);
    for (int i = 0; i < count; ++i) {
        const int pos = start + i * lenTab;
        TabDescription& tab = tabs[i];
        tab.m_position = std::atof(InchesText(At(pos), At(pos + 1), At(pos + 2)));
        tab.m_leader = At(pos + lenMargin);
    }
    return count;
}

void CLayoutCmd::SetTabs(const CTabArray& tabs)
{
    ReportIfInvalid();
    CString tabText;
    for (INT_PTR i = 0; i < tabs.GetSize(); ++i) {
        if (!VQCHECK(tabs[i].m_position > 0.0 && tabs[i].m_position < 10.0)) continue;
        // Truncated, not rounded: 1.15 (114.999... hundredths) is stored as 114.
        tabText.AppendFormat("%03d", static_cast<int>(tabs[i].m_position * 100.0));
        tabText += tabs[i].m_leader;
    }
    CString edited = m_cmd.Left(TabsStart());
    edited += tabText;
    edited += chCmdEnd;
    m_cmd = edited;
}

// ============================================================================
// CCommentCmd
// ============================================================================

namespace {

constexpr char kCommentSubtypes[] = "RHNT";
constexpr char kProtocolSeparator[] = "://";

} // namespace

const CString CCommentCmd::DefaultCmd(kDefaultCommentCmdText);

CCommentCmd::CCommentCmd() { SetCmd(CString(kDefaultCommentCmdText)); }

CCommentCmd::CCommentCmd(OTHERCMD_TYPE type)
{
    SetCmd(CString(kDefaultCommentCmdText));
    PutAt(idxType, static_cast<char>(type));
    VQASSERT(IsValidCmd());
}

CCommentCmd::CCommentCmd(const CString& cmd)
{
    m_cmd = cmd;
    VQASSERT(IsValidCmd());
}

CCommentCmd::CCommentCmd(const char* lpsz, int len)
{
    VQASSERT(NULL != lpsz && len);
    if (lpsz && len) {
        if (len < 0) {
            // Up to and including the first end byte, or the whole string.
            const char* end = std::strchr(lpsz, chCmdEnd);
            len = end ? static_cast<int>(end - lpsz) + 1 : static_cast<int>(std::strlen(lpsz));
        }
        if (len > 0) {
            const char end = chCmdEnd;
            const char* ptr = lpsz + len;
            VQASSERT(end == ptr[-1]);
        }
        m_cmd = CString(lpsz, len);
    }
    VQASSERT(IsValidCmd());
}

CCommentCmd::CCommentCmd(const CCommentCmd& rCmd) : CDocCmd()
{
    SetCmd(rCmd.m_cmd);
    VQASSERT(IsValidCmd());
}

CCommentCmd::~CCommentCmd() = default;

CCommentCmd& CCommentCmd::operator=(const CCommentCmd& rCmd)
{
    if (this != &rCmd) SetCmd(rCmd.m_cmd);
    return *this;
}

bool CCommentCmd::IsValidCmd() const
{
    // The type letter at index 1 is deliberately not examined.
    return CDocCmd::IsValidCmd() && IsOneOf(At(idxType), kCommentSubtypes) && At(idxSeparator) == chTextSeparator;
}

int CCommentCmd::GetType() const { return static_cast<unsigned char>(At(idxType)); }

void CCommentCmd::SetType(OTHERCMD_TYPE type)
{
    PutAt(idxType, static_cast<char>(type));
    VQASSERT(IsValidCmd());
}

bool CCommentCmd::FindField(int n, int& start, int& end, int& separatorsFound) const
{
    const int len = GetLength();
    int i = idxText;
    separatorsFound = 0;
    for (; separatorsFound < n; ++separatorsFound) {
        while (i < len && At(i) != chDataSeparator && At(i) != chCmdEnd) ++i;
        if (i >= len || At(i) == chCmdEnd) {
            start = end = std::min(i, len);
            return false;
        }
        ++i; // over the separator
    }
    if (i > len) {
        start = end = len;
        return false;
    }
    start = end = i;
    while (end < len && At(end) != chDataSeparator && At(end) != chCmdEnd) ++end;
    return true;
}

CString CCommentCmd::GetData(int n) const
{
    if (!VQCHECK(n >= 0)) return CString();
    int start = 0, end = 0, separators = 0;
    return FindField(n, start, end, separators) ? m_cmd.Mid(start, end - start) : CString();
}

void CCommentCmd::SetData(const CString& data, int n)
{
    VQASSERT(IsValidCmd());
    if (!VQCHECK(n >= 0)) return;
    int start = 0, end = 0, separators = 0;
    // The missing fields are created empty, in front of the closing byte.
    const int cMissing = FindField(n, start, end, separators) ? 0 : n - separators;
    // Built in one string: a hyperlink sets two fields of a command that
    // holds its whole display text.
    const char* p = m_cmd.GetString();
    CString edited;
    edited.Preallocate(start + std::max(cMissing, 0) + data.GetLength() + (GetLength() - end));
    edited.Append(p, start);
    if (cMissing > 0) edited += CString(chDataSeparator, cMissing);
    edited += data;
    edited.Append(p + end, GetLength() - end);
    m_cmd = std::move(edited);
    VQASSERT(IsValidCmd());
}

CString CCommentCmd::RemoveProtocol(const CString& address)
{
    const int pos = address.Find(kProtocolSeparator);
    return pos < 0 ? address : address.Mid(pos + static_cast<int>(sizeof kProtocolSeparator) - 1);
}

CString CCommentCmd::GetDescription(int bDetailed) const
{
    const CString text = GetData(0);
    const CString target = GetData(1);
    switch (GetType()) {
    case ot_Hyperlink:
        // Addresses that differ only in their protocol are not worth showing.
        if (bDetailed && RemoveProtocol(text) != RemoveProtocol(target)) return text + " (" + target + ")";
        return text;
    case ot_Reference:
        if (bDetailed && !target.IsEmpty()) {
            const int colon = target.Find(':');
            const CString name = colon < 0 ? target : target.Mid(colon + 1);
            if (name != text) return text + " [" + target + "]";
        }
        return text;
    default:
        return text;
    }
}

// ============================================================================
// CNumberCmd
// ============================================================================

namespace {

enum NumberStyle { nsNone, nsDecimal, nsLetter, nsRoman, nsBullet };

struct NumberFormat {
    NumberStyle style;
    const char* prefix;
    const char* suffix;
    bool bLower;
    unsigned char bullet;
    const char* bulletFont;
};

constexpr char kSymbolFont[] = "Symbol";
constexpr char kWingDingsFont[] = "WingDings";

// Indexed by numbering type, nt_None to nt_Last.
constexpr NumberFormat kNumberFormats[nt_Last + 1] = {
    {nsNone, "", "", false, 0, ""},                   // nt_None
    {nsDecimal, "", ".", false, 0, ""},               // nt_Decimal
    {nsDecimal, "", ")", false, 0, ""},               // nt_DecimalParen
    {nsRoman, "", ".", false, 0, ""},                 // nt_UpperRoman
    {nsLetter, "", ".", false, 0, ""},                // nt_UpperLetter
    {nsLetter, "", ")", true, 0, ""},                 // nt_LowerLetterParen
    {nsLetter, "(", ")", true, 0, ""},                // nt_LowerLetterBoth
    {nsRoman, "", ".", true, 0, ""},                  // nt_LowerRoman
    {nsDecimal, "(", ")", false, 0, ""},              // nt_DecimalBoth
    {nsRoman, "(", ")", true, 0, ""},                 // nt_LowerRomanBoth
    {nsNone, "", "", false, 0, ""},                   // 10
    {nsNone, "", "", false, 0, ""},                   // 11
    {nsNone, "", "", false, 0, ""},                   // 12
    {nsNone, "", "", false, 0, ""},                   // 13
    {nsNone, "", "", false, 0, ""},                   // 14
    {nsNone, "", "", false, 0, ""},                   // 15
    {nsNone, "", "", false, 0, kSymbolFont},          // 16
    {nsBullet, "", "", false, 0xB7, kSymbolFont},     // nt_Bullet1
    {nsBullet, "", "", false, 0x57, kWingDingsFont},  // nt_Bullet2
    {nsBullet, "", "", false, 0x9F, kWingDingsFont},  // nt_Bullet3
    {nsBullet, "", "", false, 0x71, kWingDingsFont},  // nt_Bullet4
    {nsBullet, "", "", false, 0x76, kWingDingsFont},  // nt_Bullet5
    {nsBullet, "", "", false, 0xD8, kWingDingsFont},  // nt_Bullet6
    {nsBullet, "", "", false, 0xFC, kWingDingsFont},  // nt_Bullet7
    {nsNone, "", "", false, 0, kSymbolFont},          // nt_Last
};

// Types 1 to 15 are written as 0x40 + type ('A'..'O'), 16 to 24 as 0x50 + type
// (0x60, then 'a'..'h'); the reader takes 'A'..'Z' and 'a'..'z' back, so 16
// does not survive the round trip.
constexpr int kUpperTypeBase = 0x40;
constexpr int kLowerTypeBase = 0x50;
constexpr int kFirstLowerType = 16;
constexpr int kFirstBulletType = nt_Bullet1;
constexpr double kDefaultTabWidth = 0.25;
constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
constexpr int kLetterCount = 26;
constexpr int kMaxLetterRepeat = 10; // letters beyond 260 are shown as '*'
constexpr int kMaxRomanNumber = 9999;
constexpr char kNumberOverflow[] = "*";
constexpr int kMaxLevel = 9;

// Roman digits as patterns over a unit ('1'), a five ('5') and a ten ('X') letter.
constexpr const char* kRomanDigitPatterns[10] = {"", "1", "11", "111", "15", "5", "51", "511", "5111", "1X"};
struct RomanPlace {
    int value;
    char unit, five, ten;
};
constexpr RomanPlace kRomanPlaces[] = {{100, 'C', 'D', 'M'}, {10, 'X', 'L', 'C'}, {1, 'I', 'V', 'X'}};

bool IsNumberingType(int nType) { return nType >= nt_None && nType <= nt_Last; }

CString LetterNumber(int n)
{
    if (n < 1) return CString(kNumberOverflow); // no letter stands for 0
    const int m = n - 1;
    if (m / kLetterCount >= kMaxLetterRepeat) return CString(kNumberOverflow);
    return CString(kLetters[m % kLetterCount], m / kLetterCount + 1);
}

CString RomanNumber(int n)
{
    if (n < 0 || n > kMaxRomanNumber) return CString(kNumberOverflow);
    CString text('M', n / 1000);
    for (const RomanPlace& place : kRomanPlaces) {
        for (const char* p = kRomanDigitPatterns[(n / place.value) % 10]; *p; ++p)
            text += *p == '1' ? place.unit : *p == '5' ? place.five : place.ten;
    }
    return text;
}

} // namespace

const CString CNumberCmd::DefaultNumberCmd(kDefaultNumberCmdText);

CNumberCmd::CNumberCmd()
{
    SetCmd(CString(kDefaultNumberCmdText));
    SetTabWidth(kDefaultTabWidth);
}

CNumberCmd::CNumberCmd(const CString& cmd) { m_cmd = cmd; }

CNumberCmd::~CNumberCmd() = default;

CString CNumberCmd::FormatNumber(int number, int type)
{
    if (type == nt_None) return CString();
    if (!IsNumberingType(type)) {
        VQASSERT(0);
        return CString();
    }
    const NumberFormat& format = kNumberFormats[type];
    CString body;
    switch (format.style) {
    case nsDecimal: body.Format("%d", number); break;
    case nsLetter: body = LetterNumber(number); break;
    case nsRoman: body = RomanNumber(number); break;
    case nsBullet: return CString(static_cast<char>(format.bullet));
    case nsNone: VQASSERT(0); return CString();
    }
    if (format.bLower) body.MakeLower();
    return format.prefix + body + format.suffix;
}

int CNumberCmd::GetNumType() const
{
    const CString field = GetData(fldType);
    const char letter = field.IsEmpty() ? '\0' : field.GetAt(0);
    if (IsInRange(letter, 'A', 'Z')) return letter - kUpperTypeBase;
    if (IsInRange(letter, 'a', 'z')) return letter - kLowerTypeBase;
    return nt_None;
}

void CNumberCmd::SetNumType(int nType)
{
    if (!VQCHECK(nType >= nt_None && nType <= nt_Last)) return;
    if (nType == nt_None) {
        SetData(CString(), fldType);
        SetData(CString(), fldBulletFont);
        return;
    }
    const int base = nType < kFirstLowerType ? kUpperTypeBase : kLowerTypeBase;
    SetData(CString(static_cast<char>(base + nType)), fldType);
    SetData(CString(kNumberFormats[nType].bulletFont), fldBulletFont);
}

double CNumberCmd::GetTabWidth() const
{
    CString field = GetData(fldTabWidth);
    if (field.IsEmpty()) return kDefaultTabWidth;
    field.Insert(1, '.');
    return std::atof(field);
}

void CNumberCmd::SetTabWidth(double tabWidth)
{
    VQASSERT(tabWidth >= 0.0 && tabWidth < 10.0);
    CString field;
    // The default width, zero and anything out of range are all written empty.
    if (tabWidth > 0.0 && tabWidth < 10.0 && tabWidth != kDefaultTabWidth) {
        field = FormatInches(tabWidth);
        field.Replace(".", "");
    }
    SetData(field, fldTabWidth);
}

int CNumberCmd::GetLevel() const
{
    const CString field = GetData(fldLevel);
    if (field.IsEmpty()) return 0;
    int level = field.GetAt(0) - '0';
    if (!VQCHECK(level >= 0 && level <= 9)) level = std::clamp(level, 0, kMaxLevel);
    return level;
}

int CNumberCmd::GetListKind() const
{
    const CString field = GetData(fldLevel);
    if (field.GetLength() < 2) return mlt_None;
    const int mType = field.GetAt(1) - kUpperTypeBase;
    return VQCHECK(mType > mlt_None && mType < mlt_Last) ? mType : mlt_None;
}

int CNumberCmd::GetNumber(int level) const
{
    if (!VQCHECK(level >= 0 && level <= 9)) level = std::clamp(level, 0, kMaxLevel);
    if (level == 0) level = GetLevel();
    const int field = level > 0 ? fldFirstNumber + level - 1 : fldFirstNumber;
    return static_cast<int>(Str2DWORD(GetData(field)));
}

void CNumberCmd::SetNumber(int number, int level)
{
    VQASSERT(number >= 0);
    if (!VQCHECK(level >= 0 && level <= 9)) level = std::clamp(level, 0, kMaxLevel);
    const int nType = GetNumType();
    VQASSERT(nType != nt_None);
    CString text;
    if (nType < kFirstLowerType && number >= 1) text.Format("%d", number);
    if (level == 0) level = GetLevel();
    // Bullets keep their number in the first number field whatever the level.
    const int field = (level > 0 && nType < kFirstBulletType) ? fldFirstNumber + level - 1 : fldFirstNumber;
    SetData(text, field);
    UpdateText();
}

void CNumberCmd::UpdateText()
{
    const int nType = GetNumType();
    const int level = GetLevel();
    CString text;
    if (GetListKind() == mlt_Multilevel) {
        for (int k = 1; k <= std::max(level, 1); ++k) text += FormatNumber(GetNumber(k), nType);
    } else {
        text = FormatNumber(GetNumber(level), nType);
    }
    SetData(text.Left(nMaxText), fldText);
}

// ============================================================================
// CPrintCmd
// ============================================================================

const char* const CPrintCmd::s_onCmd = kPrintOnText;
const char* const CPrintCmd::s_offCmd = kPrintOffText;
const char* const CPrintCmd::s_ejectCmd = kPrintEjectText;
const int CPrintCmd::s_nEjectLen = static_cast<int>(sizeof kPrintEjectText) - 1;

namespace {
constexpr char kPrintStates[] = "01E";
}

CPrintCmd::CPrintCmd() { SetCmd(CString(kPrintOnText)); }

CPrintCmd::CPrintCmd(const CString& cmd) { SetCmd(cmd); }

CPrintCmd::~CPrintCmd() = default;

CPrintCmd& CPrintCmd::operator=(const CPrintCmd& rCmd)
{
    if (this != &rCmd) SetCmd(rCmd.m_cmd);
    return *this;
}

bool CPrintCmd::IsValidCmd() const
{
    return CDocCmd::IsValidCmd() && GetLength() == s_nEjectLen && At(1) == 'P' && IsOneOf(At(2), kPrintStates);
}

void CPrintCmd::On() { m_cmd = kPrintOnText; }
void CPrintCmd::Off() { m_cmd = kPrintOffText; }
void CPrintCmd::Eject() { m_cmd = kPrintEjectText; }
int CPrintCmd::IsEject() const { return m_cmd == kPrintEjectText; }

// ============================================================================
// CAttachmentCmd
// ============================================================================

const char* const CAttachmentCmd::lpszFormat = "\x01" "A%02.2d" "\x02";

CAttachmentCmd::~CAttachmentCmd() = default;

CAttachmentCmd& CAttachmentCmd::operator=(const CAttachmentCmd& rCmd)
{
    if (this != &rCmd) SetCmd(rCmd.m_cmd);
    return *this;
}

} // namespace rtf_converter
