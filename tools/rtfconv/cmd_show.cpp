// rtfconv show: old-format text as a readable listing.
//
// Each markup command is shown as «...» without its framing bytes, byte 0x03
// (the data-field separator of comment commands) as '|', and control bytes
// other than CR, LF and TAB as \xHH. The listing is UTF-8 with LF paragraph
// marks. The input is UTF-8 by default, as rtf2old writes it; --raw reads the
// host's 8-bit bytes, each run of text in the code page of the font command
// in force (--codepage outside any). --explain follows each command with what
// it means, decoded with the library's command classes.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldTextUtf8.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

using namespace rtf_converter;

struct ShowOptions {
    IoOptions io;
    std::string codePage;
    bool bRaw = false;
    bool bUtf8 = false;
    bool bExplain = false;
};

constexpr char kCmdStart = '\x01';
constexpr char kCmdEnd = '\x02';
constexpr char kDataSeparator = '\x03';
constexpr char kOpenMark[] = "\xC2\xAB";  // «
constexpr char kCloseMark[] = "\xC2\xBB"; // »

// Bytes that stand for themselves in the listing; the rest are escaped.
bool IsShownAsIs(unsigned char b) { return (b >= 0x20 && b != 0x7F) || b == '\t' || b == '\n' || b == '\r'; }

// ---------------------------------------------------------------------------
// Explanations

struct NamedValue {
    int value;
    const char* name;
};

constexpr NamedValue kCharsetNames[] = {
    {ANSI_CHARSET, "ANSI"},          {DEFAULT_CHARSET, "default"},     {SYMBOL_CHARSET, "Symbol"},
    {MAC_CHARSET, "Mac"},            {SHIFTJIS_CHARSET, "Shift-JIS"},  {HANGEUL_CHARSET, "Hangeul"},
    {JOHAB_CHARSET, "Johab"},        {GB2312_CHARSET, "GB2312"},       {CHINESEBIG5_CHARSET, "Big5"},
    {GREEK_CHARSET, "Greek"},        {TURKISH_CHARSET, "Turkish"},     {VIETNAMESE_CHARSET, "Vietnamese"},
    {HEBREW_CHARSET, "Hebrew"},      {ARABIC_CHARSET, "Arabic"},       {BALTIC_CHARSET, "Baltic"},
    {RUSSIAN_CHARSET, "Russian"},    {THAI_CHARSET, "Thai"},           {EASTEUROPE_CHARSET, "East European"},
    {OEM_CHARSET, "OEM"},
};

constexpr NamedValue kNumberingTypeNames[] = {
    {nt_Decimal, "1."},     {nt_DecimalParen, "1)"},     {nt_UpperRoman, "I."},         {nt_UpperLetter, "A."},
    {nt_LowerLetterParen, "a)"}, {nt_LowerLetterBoth, "(a)"}, {nt_LowerRoman, "i."},    {nt_DecimalBoth, "(1)"},
    {nt_LowerRomanBoth, "(i)"}, {nt_Bullet1, "bullet 1"}, {nt_Bullet2, "bullet 2"},     {nt_Bullet3, "bullet 3"},
    {nt_Bullet4, "bullet 4"}, {nt_Bullet5, "bullet 5"},   {nt_Bullet6, "bullet 6"},     {nt_Bullet7, "bullet 7"},
};

constexpr NamedValue kLeaderNames[] = {{'.', "dots"}, {'-', "hyphens"}, {'_', "underline"}, {'=', "double line"}};

template <std::size_t N>
std::string NameOf(const NamedValue (&table)[N], int value, const std::string& fallback)
{
    for (const NamedValue& entry : table)
        if (entry.value == value) return entry.name;
    return fallback;
}

struct FlagName {
    bool (CFontCmd::*isSet)() const;
    const char* name;
};

constexpr FlagName kFontFlags[] = {
    {&CFontCmd::IsBold, "bold"},           {&CFontCmd::IsItalic, "italic"},           {&CFontCmd::IsUnderline, "underline"},
    {&CFontCmd::IsStrikeout, "strikeout"}, {&CFontCmd::IsSuperscript, "superscript"}, {&CFontCmd::IsSubscript, "subscript"},
};

class CPartList {
public:
    void Add(const std::string& part) { m_text += (m_text.empty() ? "" : ", ") + part; }
    const std::string& Text() const { return m_text; }

private:
    std::string m_text;
};

std::string Inches(double inches)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.2f in", inches);
    return text;
}

std::string ColourName(char letter)
{
    if (letter == 'Y') return "markup inserted colour";
    if (letter == 'Z') return "markup deleted colour";
    return GetPaletteColorName(letter - 'A');
}

std::string ExplainFont(const CString& text)
{
    CFontCmd cmd(text);
    if (!cmd.IsValidCmd()) return "invalid font command";
    LOGFONT none{};
    CPartList parts;
    if (cmd.GetCmd()[CFontCmd::posPoints] != CFontCmd::chDefault) parts.Add(std::to_string(cmd.GetPoints(none)) + " pt");
    if (!cmd.IsDefaultColor()) parts.Add("colour " + ColourName(cmd.GetColor()));
    if (!cmd.IsDefaultBackColor()) parts.Add(std::string("background ") + GetPaletteColorName(cmd.GetBackColor() - 'a'));
    for (const FlagName& flag : kFontFlags)
        if ((cmd.*flag.isSet)()) parts.Add(flag.name);
    if (cmd.GetCharset() != DEFAULT_CHARSET) parts.Add("charset " + NameOf(kCharsetNames, cmd.GetCharset(), "?"));
    CString face;
    cmd.GetFaceName(face, none);
    if (!face.IsEmpty()) parts.Add(std::string("face ") + face.GetString());
    return parts.Text().empty() ? "font as the base font" : "font " + parts.Text();
}

std::string ExplainLayout(const CString& text)
{
    CLayoutCmd cmd(text);
    if (!cmd.IsValidCmd()) return "invalid layout command";
    CPartList parts;
    parts.Add(cmd.IsCenter() ? "centred" : cmd.IsRight() ? "right-aligned" : "left-aligned");
    if (cmd.GetLeftMargin() != 0.0) parts.Add("left margin " + Inches(cmd.GetLeftMargin()));
    if (cmd.GetRightMargin() != 0.0) parts.Add("right margin " + Inches(cmd.GetRightMargin()));
    if (cmd.GetFirstLineIndent() != 0.0) parts.Add("first line " + Inches(cmd.GetFirstLineIndent()));
    CTabArray tabs;
    for (int i = 0, n = cmd.GetTabs(tabs); i < n; ++i) {
        const std::string leader = NameOf(kLeaderNames, tabs[i].m_leader, "");
        parts.Add("tab " + Inches(tabs[i].m_position) + (leader.empty() ? "" : " " + leader));
    }
    return "layout " + parts.Text();
}

std::string ExplainNumbering(const CString& text)
{
    CNumberCmd cmd(text);
    const int type = cmd.GetNumType();
    if (type == nt_None) return "numbering off";
    CPartList parts;
    parts.Add("style " + NameOf(kNumberingTypeNames, type, std::to_string(type)));
    if (cmd.GetLevel() > 0) parts.Add("level " + std::to_string(cmd.GetLevel()));
    parts.Add(std::string("text \"") + cmd.GetData(0).GetString() + "\"");
    return "numbering " + parts.Text();
}

std::string ExplainComment(const CString& text)
{
    CCommentCmd cmd(text);
    if (!cmd.IsValidCmd()) return "invalid comment command";
    const std::string description = cmd.GetDescription(TRUE).GetString();
    switch (cmd.GetType()) {
    case ot_Hyperlink: return "hyperlink " + description;
    case ot_Reference: return "reference " + description;
    case ot_Table: return "table " + description;
    default: return ExplainNumbering(text);
    }
}

std::string ExplainPrint(const CString& text)
{
    CPrintCmd cmd(text);
    if (!cmd.IsValidCmd()) return "invalid print command";
    if (cmd.IsEject()) return "page eject";
    return cmd == CPrintCmd::s_offCmd ? "printing off" : "printing on";
}

std::string ExplainAttachment(const CString& text)
{
    const bool bDigits = text.GetLength() == CAttachmentCmd::CmdLength && text[CAttachmentCmd::posIndex] >= '0' &&
                         text[CAttachmentCmd::posIndex] <= '9' && text[CAttachmentCmd::posIndex + 1] >= '0' &&
                         text[CAttachmentCmd::posIndex + 1] <= '9';
    if (!bDigits) return "invalid attachment command";
    return "attachment " + std::string(text.Mid(CAttachmentCmd::posIndex, CAttachmentCmd::lenIndex).GetString());
}

// `text` is one whole command, framing bytes included.
std::string Explain(const CString& text)
{
    switch (text.GetLength() > 1 ? text[1] : '\0') {
    case CDocCmd::font: return ExplainFont(text);
    case CDocCmd::layout: return ExplainLayout(text);
    case CDocCmd::comment: return ExplainComment(text);
    case CDocCmd::print: return ExplainPrint(text);
    case CDocCmd::attachment: return ExplainAttachment(text);
    default: return "unknown command";
    }
}

// ---------------------------------------------------------------------------
// The listing

class CListing {
public:
    explicit CListing(COutput& out) : m_out(out) {}

    // UTF-8 text: paragraph marks (CR) become LF.
    void Text(const char* p, std::size_t cb)
    {
        m_run.assign(p, cb);
        for (char& ch : m_run)
            if (ch == '\r') ch = '\n';
        m_out.Write(m_run);
    }
    void Text(const std::string& s) { Text(s.data(), s.size()); }

    // Marks and escapes (ASCII or the « » marks).
    void Mark(const std::string& s) { m_out.Write(s); }

private:
    COutput& m_out;
    std::string m_run;
};

std::string EscapedByte(unsigned char b)
{
    if (b == static_cast<unsigned char>(kDataSeparator)) return "|";
    char text[8];
    std::snprintf(text, sizeof text, "\\x%02X", b);
    return text;
}

// Writes [p, end) with the bytes that cannot stand for themselves escaped.
void WriteEscaped(CListing& listing, const char* p, const char* end)
{
    while (p < end) {
        const char* run = p;
        while (p < end && IsShownAsIs(static_cast<unsigned char>(*p))) ++p;
        if (p > run) listing.Text(run, static_cast<std::size_t>(p - run));
        if (p < end) listing.Mark(EscapedByte(static_cast<unsigned char>(*p++)));
    }
}

void WriteListing(const std::string& data, CListing& listing, bool bExplain)
{
    const char* p = data.data();
    const char* const end = p + data.size();
    while (p < end) {
        const char* start = static_cast<const char*>(std::memchr(p, kCmdStart, static_cast<std::size_t>(end - p)));
        if (!start) start = end;
        WriteEscaped(listing, p, start);
        if (start == end) break;
        const char* close = static_cast<const char*>(std::memchr(start, kCmdEnd, static_cast<std::size_t>(end - start)));
        if (!close) {
            // An unterminated command: shown as the bytes it is.
            WriteEscaped(listing, start, end);
            break;
        }
        listing.Mark(kOpenMark);
        WriteEscaped(listing, start + 1, close);
        listing.Mark(kCloseMark);
        if (bExplain) {
            listing.Mark(" ");
            listing.Text(Explain(CString(start, static_cast<int>(close - start + 1))));
            listing.Mark("\n");
        }
        p = close + 1;
    }
}

// The host's 8-bit old-format text as UTF-8, through the library's codec.
std::string Utf8OfRawInput(const ShowOptions& options, const std::string& data)
{
    int codePage = 1252;
    if (!options.codePage.empty()) {
        codePage = CodePageOfIconvName(IconvCodePageName(options.codePage));
        if (codePage == 0) throw ToolError(exitUsage, "unknown code page: " + options.codePage);
    }
    return OldTextToUtf8(data, codePage);
}

// Input that is not UTF-8 is listed as it is, with a hint at --raw.
void WarnOfInvalidUtf8(const ToolContext& ctx, const CConversion& conversion)
{
    OldTextFromUtf8Counts counts;
    (void)OldTextFromUtf8(std::string(conversion.Data()), 1252, &counts);
    if (counts.nInvalid)
        PrintWarning(ctx, DisplayName(conversion.Name()) + ": " + std::to_string(counts.nInvalid) +
                              " bytes are not UTF-8 and are shown as they are (--raw reads 8-bit old-format text)");
}

void ShowOldFormat(const ToolContext& ctx, const ShowOptions& options, CConversion& conversion)
{
    if (!options.bRaw) WarnOfInvalidUtf8(ctx, conversion);
    const std::string text = options.bRaw ? Utf8OfRawInput(options, std::string(conversion.Data())) : std::string(conversion.Data());
    CListing listing(conversion.Out());
    WriteListing(text, listing, options.bExplain);
    conversion.ReportConsumed(conversion.Data().size());
}

} // namespace

void RegisterShow(CLI::App& app, ToolContext& ctx)
{
    CLI::App* cmd = app.add_subcommand("show", "Old-format text as a readable listing");
    cmd->footer("Markup commands are shown as \xC2\xAB...\xC2\xBB without their framing bytes, byte 0x03 as '|', other\n"
                "control bytes except CR, LF and TAB as \\xHH. The listing is UTF-8 with LF paragraph marks.\n"
                "The input is UTF-8, as rtf2old writes it; --raw reads the host's 8-bit bytes, each run of\n"
                "text in the code page of the font command in force (--codepage, default 1252, outside any).");
    auto options = std::make_shared<ShowOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, InputKind::OldFormatText);
    CLI::Option* raw = cmd->add_flag("--raw", options->bRaw, "The input is the host's 8-bit old-format text, not UTF-8");
    cmd->add_flag("--utf8", options->bUtf8, "The input is UTF-8 (the default)")->excludes(raw);
    cmd->add_option("--codepage", options->codePage,
                    "With --raw: Windows code page of text outside font commands with a character set (default 1252)")
        ->type_name("CP")
        ->needs(raw);
    cmd->add_flag("--explain", options->bExplain, "Follow each command with a description of what it does");

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        return RunConversions(ctx, options->io, ".txt",
                              [&ctx, options](CConversion& conversion) { ShowOldFormat(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
