// What an input looks like, from its first bytes: each command reads one kind
// of input, and an input of another kind would convert "successfully" into
// nonsense (a .docx read as RTF gives "P"), so the driver refuses it and says
// what it looks like instead.
#include "tools/rtfconv/ToolCommon.h"

#include <algorithm>
#include <cstring>

namespace rtfconv {

namespace {

// Formats recognised by their leading bytes. `bText` marks the formats that
// are text, which a text-reading command may still take.
struct Signature {
    const char* magic;
    std::size_t cbMagic;
    const char* looksLike;
    bool bText;
};

#define RTFCONV_MAGIC(literal) literal, sizeof(literal) - 1
constexpr Signature kSignatures[] = {
    {RTFCONV_MAGIC("%PDF-"), "PDF", false},
    {RTFCONV_MAGIC("\xD0\xCF\x11\xE0\xA1\xB1\x1A\xE1"), "a Word .doc", false}, // OLE compound file
    {RTFCONV_MAGIC("PK\x03\x04"), "ZIP", false},                              // refined by ZipLooksLike
    {RTFCONV_MAGIC("PK\x05\x06"), "ZIP", false},                              // an empty archive
    {RTFCONV_MAGIC("\x89PNG\r\n\x1A\n"), "a PNG image", false},
    {RTFCONV_MAGIC("\xFF\xD8\xFF"), "a JPEG image", false},
    {RTFCONV_MAGIC("GIF87a"), "a GIF image", false},
    {RTFCONV_MAGIC("GIF89a"), "a GIF image", false},
    {RTFCONV_MAGIC("II*\0"), "a TIFF image", false},
    {RTFCONV_MAGIC("MM\0*"), "a TIFF image", false},
    {RTFCONV_MAGIC("\x7F" "ELF"), "a program", false},
    {RTFCONV_MAGIC("\x1F\x8B"), "gzip-compressed data", false},
    {RTFCONV_MAGIC("\xFF\xFE"), "UTF-16 text", true},
    {RTFCONV_MAGIC("\xFE\xFF"), "UTF-16 text", true},
};
#undef RTFCONV_MAGIC

constexpr char kUtf8Bom[] = "\xEF\xBB\xBF";

// Only the beginning is judged: enough to see past any header, and a 2 GB
// input costs no more to look at than a small one.
constexpr std::size_t kcbSniff = 64 * 1024;

// Whether `data` holds the bytes [p, p + cb) at `pos`; an input shorter than
// that does not (a 4-byte file asked for a header at offset 6).
bool StartsWith(std::string_view data, std::size_t pos, const char* p, std::size_t cb)
{
    return pos <= data.size() && data.size() - pos >= cb && std::memcmp(data.data() + pos, p, cb) == 0;
}

bool Contains(std::string_view data, const char* text)
{
    return data.find(text) != std::string_view::npos;
}

// A ZIP archive is most often an office document; its member names say which.
std::string ZipLooksLike(std::string_view data)
{
    if (Contains(data, "word/")) return "a Word .docx";
    if (Contains(data, "mimetypeapplication/vnd.oasis.opendocument")) return "an OpenDocument file";
    return "ZIP";
}

// A BMP header holds two reserved 16-bit zeros at offset 6; text that happens
// to begin with "BM" does not.
bool IsBitmap(std::string_view data)
{
    return StartsWith(data, 0, "BM", 2) && StartsWith(data, 6, "\0\0\0\0", 4);
}

// After an optional UTF-8 byte-order mark and white space, RTF begins with a
// group that opens with a control word or symbol: "{\rtf1" for a document,
// "{\" for a fragment.
bool IsRtf(std::string_view data)
{
    std::size_t pos = StartsWith(data, 0, kUtf8Bom, 3) ? 3 : 0;
    while (pos < data.size() && (data[pos] == ' ' || data[pos] == '\t' || data[pos] == '\r' || data[pos] == '\n')) ++pos;
    return StartsWith(data, pos, "{\\", 2);
}

// Bytes that text does not hold. The old-format framing bytes 0x01-0x03, form
// feeds, and the escape of terminal colours are text here.
bool IsBinaryByte(unsigned char b)
{
    return (b < 0x20 && std::strchr("\x01\x02\x03\t\n\r\f\x1B", b) == nullptr) || b == 0x7F;
}

// Binary data holds NULs among many bytes that text does not. Old-format
// text may carry other control bytes of the host's, and a stray NUL in a long
// text (which the old-format writer warns about) leaves it text.
bool IsMostlyText(std::string_view head)
{
    if (head.find('\0') == std::string_view::npos) return true;
    const std::size_t cBinary = static_cast<std::size_t>(
        std::count_if(head.begin(), head.end(), [](char ch) { return IsBinaryByte(static_cast<unsigned char>(ch)); }));
    return cBinary * 100 <= head.size();
}

// A markup command: 0x01, then within a command's length, 0x02.
bool HasMarkupCommand(std::string_view head)
{
    constexpr std::size_t kcchLongestCommand = 512;
    for (std::size_t start = head.find('\x01'); start != std::string_view::npos; start = head.find('\x01', start + 1)) {
        const std::size_t end = head.find('\x02', start + 1);
        if (end != std::string_view::npos && end - start <= kcchLongestCommand) return true;
    }
    return false;
}

} // namespace

InputLook LookAt(std::string_view data)
{
    InputLook look;
    if (data.empty()) {
        look.bText = true;
        look.looksLike = "empty";
        return look;
    }
    if (IsRtf(data)) {
        look.bRtf = look.bText = true;
        look.looksLike = "RTF";
        return look;
    }
    for (const Signature& signature : kSignatures) {
        if (StartsWith(data, 0, signature.magic, signature.cbMagic)) {
            look.bText = signature.bText;
            look.looksLike = std::strcmp(signature.looksLike, "ZIP") == 0 ? ZipLooksLike(data) : signature.looksLike;
            return look;
        }
    }
    if (IsBitmap(data)) {
        look.looksLike = "a BMP image";
        return look;
    }
    const std::string_view head = data.substr(0, kcbSniff);
    look.bText = IsMostlyText(head);
    look.bOldFormat = look.bText && HasMarkupCommand(head);
    look.looksLike = !look.bText ? "binary data" : look.bOldFormat ? "old-format text" : "plain text";
    return look;
}

namespace {

struct KindRule {
    InputKind kind;
    const char* name;
    bool (*accepts)(const InputLook&);
};

constexpr KindRule kKindRules[] = {
    {InputKind::Rtf, "RTF", [](const InputLook& look) { return look.bRtf; }},
    {InputKind::OldFormatText, "old-format text", [](const InputLook& look) { return look.bText && !look.bRtf; }},
    {InputKind::PlainText, "plain text",
     [](const InputLook& look) { return look.bText && !look.bRtf && !look.bOldFormat; }},
};

} // namespace

void CheckInputKind(InputKind kind, std::string_view data)
{
    for (const KindRule& rule : kKindRules) {
        if (rule.kind != kind) continue;
        const InputLook look = LookAt(data);
        if (!rule.accepts(look))
            throw ToolError(exitConversionFailed,
                            std::string("not ") + rule.name +
                                (look.looksLike == "empty" ? " (it is empty)" : " (looks like " + look.looksLike + ")"));
        return;
    }
}

} // namespace rtfconv
