// The first implementation of the old-format text codec, kept as the
// reference the streaming one is compared with: it decodes the whole UTF-8
// text into characters before encoding any, which makes its rules easy to
// read and its output the one to match byte for byte.
#include "old_text_utf8_reference.h"

#include <vector>

#include "platform/WinGdi.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"

namespace rtfconv_test {

using namespace rtf_converter;

namespace {

// Where a byte that no character stands for goes, and comes back from.
constexpr char32_t kByteEscapeFirst = 0xF000;
constexpr char32_t kByteEscapeLast = 0xF0FF;
constexpr char32_t kReplacement = 0xFFFD;

const CCodePage& PageOrFallback(int codePage)
{
    const CCodePage* pPage = CCodePage::Get(codePage);
    return pPage ? *pPage : CCodePage::Fallback();
}

// The page of a font command's character set; the default page for the ANSI
// and default sets and for sets no page is known for.
const CCodePage& PageOfCharset(int charset, const CCodePage& defaultPage)
{
    const int codePage = CodePageOfCharset(charset);
    const CCodePage* pPage = codePage ? CCodePage::Get(codePage) : nullptr;
    return pPage ? *pPage : defaultPage;
}

// The character set of a font command's bytes (up to its face separator at least).
int CharsetOfFontCommand(const std::string& head)
{
    return CFontCmd(CString(head.data(), static_cast<int>(head.size())) + "-\x02").GetCharset();
}

// The end of the command starting at `start` (the index of its 0x02, or the
// text's length when it has none), as the writers frame commands.
std::size_t CommandEnd(const std::string& s, std::size_t start)
{
    const std::size_t end = s.find(CDocCmd::chCmdEnd, start + 1);
    return end == std::string::npos ? s.size() : end;
}

// The index just past a font command's face separator (the first ':' after
// the colour), or `end` when there is none.
std::size_t FaceStart(const std::string& s, std::size_t start, std::size_t end)
{
    const std::size_t colon = s.find(CFontCmd::chFaceSeparator, start + CFontCmd::posAttributes);
    return colon < end ? colon + 1 : end;
}

// --- UTF-8

// One character of UTF-8 at s[i], advancing i; a byte that does not begin a
// well-formed sequence (overlong, surrogate, past U+10FFFF, cut short) is
// returned as kInvalid with i past that one byte.
constexpr char32_t kInvalid = 0xFFFFFFFF;
char32_t NextUtf8(const std::string& s, std::size_t& i)
{
    const unsigned char b = static_cast<unsigned char>(s[i]);
    int nTrail = 0;
    char32_t cp = 0;
    char32_t min = 0;
    if (b < 0x80) {
        ++i;
        return b;
    } else if (b >= 0xC2 && b <= 0xDF) {
        nTrail = 1, cp = b & 0x1F, min = 0x80;
    } else if (b >= 0xE0 && b <= 0xEF) {
        nTrail = 2, cp = b & 0x0F, min = 0x800;
    } else if (b >= 0xF0 && b <= 0xF4) {
        nTrail = 3, cp = b & 0x07, min = 0x10000;
    } else {
        ++i;
        return kInvalid;
    }
    if (s.size() - i <= static_cast<std::size_t>(nTrail)) {
        ++i;
        return kInvalid;
    }
    for (int k = 1; k <= nTrail; ++k) {
        const unsigned char t = static_cast<unsigned char>(s[i + k]);
        if ((t & 0xC0) != 0x80) {
            ++i;
            return kInvalid;
        }
        cp = cp << 6 | (t & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return kInvalid;
    }
    i += static_cast<std::size_t>(nTrail) + 1;
    return cp;
}

// --- decoding

// True when the bytes encode back to themselves: only then is the character
// a faithful name for them.
bool EncodesBackTo(const CCodePage& page, char32_t cp, unsigned char b0, int nBytes, unsigned char b1 = 0)
{
    if (cp == kReplacement || cp == CCodePage::invalidPair || cp < 0x80) return false;
    unsigned char bytes[2] = {0, 0};
    return page.Encode(cp, bytes) == nBytes && bytes[0] == b0 && (nBytes == 1 || bytes[1] == b1);
}

void DecodeText(const std::string& s, std::size_t begin, std::size_t end, const CCodePage& page, std::string& out)
{
    for (std::size_t i = begin; i < end; ++i) {
        const unsigned char b = static_cast<unsigned char>(s[i]);
        if (b < 0x80) {
            out += static_cast<char>(b);
            continue;
        }
        if (page.IsLeadByte(b) && i + 1 < end) {
            const unsigned char trail = static_cast<unsigned char>(s[i + 1]);
            const char32_t cp = page.Pair(b, trail);
            if (EncodesBackTo(page, cp, b, 2, trail)) {
                AppendUtf8(out, cp);
                ++i;
                continue;
            }
        }
        const char32_t cp = page.IsLeadByte(b) ? kReplacement : page.Single(b);
        AppendUtf8(out, EncodesBackTo(page, cp, b, 1) ? cp : kByteEscapeFirst + b);
    }
}

// Bytes that are not text: each one its own character.
void DecodeBytes(const std::string& s, std::size_t begin, std::size_t end, std::string& out)
{
    for (std::size_t i = begin; i < end; ++i) AppendUtf8(out, static_cast<unsigned char>(s[i]));
}

// --- encoding

void EncodeCharacter(char32_t cp, const CCodePage& page, std::string& out, OldTextFromUtf8Counts& counts)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
        return;
    }
    unsigned char bytes[2];
    const int n = page.Encode(cp, bytes);
    if (n > 0) {
        out.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(n));
    } else if (cp >= kByteEscapeFirst && cp <= kByteEscapeLast) {
        out += static_cast<char>(cp - kByteEscapeFirst);
    } else {
        out += '?';
        ++counts.nUnencodable;
    }
}

bool CanEncode(const CCodePage& page, char32_t cp)
{
    unsigned char bytes[2];
    return cp < 0x80 || page.Encode(cp, bytes) > 0 || (cp >= kByteEscapeFirst && cp <= kByteEscapeLast);
}

// The character sets a character the page in force cannot hold is written
// in, in the order they are tried.
constexpr int kFallbackCharsets[] = {
    EASTEUROPE_CHARSET, RUSSIAN_CHARSET, GREEK_CHARSET,   TURKISH_CHARSET,     HEBREW_CHARSET,
    ARABIC_CHARSET,     BALTIC_CHARSET,  VIETNAMESE_CHARSET, THAI_CHARSET,     SHIFTJIS_CHARSET,
    GB2312_CHARSET,     HANGEUL_CHARSET, CHINESEBIG5_CHARSET,
};

// The first fallback set whose page holds cp; 0 (ANSI, never a fallback) when none does.
int CharsetHolding(char32_t cp)
{
    for (int charset : kFallbackCharsets) {
        const CCodePage* pPage = CCodePage::Get(CodePageOfCharset(charset));
        if (pPage && CanEncode(*pPage, cp)) return charset;
    }
    return ANSI_CHARSET;
}

// The font command in force (the base font's when none is) with another
// character set; empty when the command is too malformed to carry one.
std::string FontCommandWithCharset(const std::string& fontInForce, int charset)
{
    CFontCmd cmd(fontInForce.empty() ? CString(CFontCmd::s_defaultCmd.GetCmd())
                                     : CString(fontInForce.data(), static_cast<int>(fontInForce.size())));
    cmd.SetCharset(charset);
    if (cmd.GetCharset() != charset) return std::string();
    return std::string(cmd.GetCmd().GetString(), static_cast<std::size_t>(cmd.GetCmd().GetLength()));
}

void EncodeByte(char32_t cp, std::string& out, OldTextFromUtf8Counts& counts)
{
    if (cp <= 0xFF) {
        out += static_cast<char>(cp);
    } else {
        out += '?';
        ++counts.nUnencodable;
    }
}

// The characters of a UTF-8 text, each with the byte it began at; bytes that
// are not UTF-8 are kept as themselves (marked invalid).
struct Character {
    char32_t cp;
    bool bInvalid;
};
std::vector<Character> Characters(const std::string& utf8, OldTextFromUtf8Counts& counts)
{
    std::vector<Character> chars;
    chars.reserve(utf8.size());
    std::size_t i = 0;
    if (utf8.compare(0, 3, "\xEF\xBB\xBF") == 0) i = 3; // a byte-order mark is not text
    while (i < utf8.size()) {
        const std::size_t at = i;
        const char32_t cp = NextUtf8(utf8, i);
        if (cp == kInvalid) {
            ++counts.nInvalid;
            chars.push_back({static_cast<unsigned char>(utf8[at]), true});
        } else {
            chars.push_back({cp, false});
        }
    }
    return chars;
}

} // namespace

std::string ReferenceOldTextToUtf8(const std::string& oldText, int defaultCodePage)
{
    const CCodePage& defaultPage = PageOrFallback(defaultCodePage);
    const CCodePage* pPage = &defaultPage;
    std::string out;
    out.reserve(oldText.size() + oldText.size() / 4);
    std::size_t i = 0;
    while (i < oldText.size()) {
        if (oldText[i] != CDocCmd::chCmdStart) {
            std::size_t next = oldText.find(CDocCmd::chCmdStart, i);
            if (next == std::string::npos) next = oldText.size();
            DecodeText(oldText, i, next, *pPage, out);
            i = next;
            continue;
        }
        const std::size_t end = CommandEnd(oldText, i);
        const char type = i + 1 < oldText.size() ? oldText[i + 1] : '\0';
        if (type == CDocCmd::font) {
            const std::size_t face = FaceStart(oldText, i, end);
            DecodeBytes(oldText, i, face, out);
            pPage = &PageOfCharset(CharsetOfFontCommand(oldText.substr(i, face - i)), defaultPage);
            DecodeText(oldText, face, end, *pPage, out);
        } else if (type == CDocCmd::comment) {
            DecodeText(oldText, i, end, *pPage, out);
        } else {
            DecodeBytes(oldText, i, end, out);
        }
        if (end < oldText.size()) out += CDocCmd::chCmdEnd;
        i = end + 1;
    }
    return out;
}

std::string ReferenceOldTextFromUtf8(const std::string& utf8, int defaultCodePage, OldTextFromUtf8Counts* pCounts)
{
    OldTextFromUtf8Counts counts;
    const std::vector<Character> chars = Characters(utf8, counts);
    const CCodePage& defaultPage = PageOrFallback(defaultCodePage);
    const CCodePage* pPage = &defaultPage;
    std::string out;
    out.reserve(utf8.size());

    enum Region { text, bytes };
    auto encodeRange = [&](std::size_t begin, std::size_t end, Region region) {
        for (std::size_t k = begin; k < end; ++k) {
            if (chars[k].bInvalid) out += static_cast<char>(chars[k].cp);
            else if (region == bytes) EncodeByte(chars[k].cp, out, counts);
            else EncodeCharacter(chars[k].cp, *pPage, out, counts);
        }
    };
    auto find = [&](char32_t cp, std::size_t from, std::size_t limit) {
        for (std::size_t k = from; k < limit; ++k)
            if (chars[k].cp == cp && !chars[k].bInvalid) return k;
        return limit;
    };

    // A run of characters the page in force cannot hold is written in the font
    // command in force with a character set whose page holds them, and the
    // command in force follows it again.
    std::string fontInForce;
    auto isForeign = [&](std::size_t k) { return !chars[k].bInvalid && !CanEncode(*pPage, chars[k].cp); };
    auto encodeText = [&](std::size_t begin, std::size_t end) {
        for (std::size_t k = begin; k < end;) {
            const int charset = isForeign(k) ? CharsetHolding(chars[k].cp) : ANSI_CHARSET;
            const std::string switched = charset == ANSI_CHARSET ? std::string() : FontCommandWithCharset(fontInForce, charset);
            if (switched.empty()) {
                encodeRange(k, k + 1, text);
                ++k;
                continue;
            }
            const CCodePage& page = PageOfCharset(charset, defaultPage);
            out += switched;
            for (; k < end && isForeign(k) && CanEncode(page, chars[k].cp); ++k) EncodeCharacter(chars[k].cp, page, out, counts);
            out += fontInForce.empty() ? std::string(CFontCmd::s_defaultCmd.GetCmd().GetString()) : fontInForce;
        }
    };

    std::size_t i = 0;
    while (i < chars.size()) {
        if (chars[i].cp != static_cast<unsigned char>(CDocCmd::chCmdStart) || chars[i].bInvalid) {
            const std::size_t next = find(static_cast<unsigned char>(CDocCmd::chCmdStart), i + 1, chars.size());
            encodeText(i, next);
            i = next;
            continue;
        }
        const std::size_t end = find(static_cast<unsigned char>(CDocCmd::chCmdEnd), i + 1, chars.size());
        const char32_t type = i + 1 < chars.size() ? chars[i + 1].cp : 0;
        if (type == static_cast<unsigned char>(CDocCmd::font)) {
            std::size_t face = find(static_cast<unsigned char>(CFontCmd::chFaceSeparator), i + CFontCmd::posAttributes, end);
            face = face < end ? face + 1 : end;
            const std::size_t headStart = out.size();
            encodeRange(i, face, bytes);
            pPage = &PageOfCharset(CharsetOfFontCommand(out.substr(headStart)), defaultPage);
            encodeRange(face, end, text);
            fontInForce = out.substr(headStart) + CDocCmd::chCmdEnd;
        } else if (type == static_cast<unsigned char>(CDocCmd::comment)) {
            encodeRange(i, end, text);
        } else {
            encodeRange(i, end, bytes);
        }
        if (end < chars.size()) out += CDocCmd::chCmdEnd;
        i = end + 1;
    }
    if (pCounts) *pCounts = counts;
    return out;
}

} // namespace rtfconv_test
