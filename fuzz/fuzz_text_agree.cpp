// Differential: the 8-bit and the UTF-8 plain-text readers give the same text
// for an ASCII-only document, line ends and tabs apart: the 8-bit one ends
// paragraphs with CR where the other puts LF, and it writes the breaks and
// tabs of every destination (a \par in the font table, say) where the other
// writes only those of the text. Left out are the documents
// where the two differ by design: bytes or \'hh escapes beyond ASCII, and the
// control words only the UTF-8 reader knows or reads its own way (\uN,
// typographic characters, code pages and character sets, hidden text, page
// and section breaks, \bin, and the paragraph numbers it takes from \pntext
// rather than generates).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_util.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"

namespace {

const char* const kWordsReadDifferently[] = {
    "ansi", "ansicpg", "bin", "bullet", "cpg", "emdash", "emspace", "endash", "enspace", "fcharset",
    "ldblquote", "listtext", "lquote", "ltrmark", "mac", "page", "pc", "pca", "pn", "pntext",
    "qmspace", "rdblquote", "rquote", "rtlmark", "sect", "u", "uc", "ud", "upr", "v", "zwj", "zwnj",
};

bool IsLetter(char ch) { return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z'); }
bool IsHighHexDigit(char ch) { return (ch >= '8' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F'); }

// True when the document is ASCII and uses nothing the readers read apart.
bool ReadAlike(const std::string& rtf)
{
    for (std::size_t i = 0; i < rtf.size(); ++i) {
        const char ch = rtf[i];
        if (ch == '\0' || static_cast<unsigned char>(ch) >= 0x80)
            return false;
        if (ch != '\\' || i + 1 >= rtf.size())
            continue;
        const char next = rtf[i + 1];
        if (next == '\'' && i + 2 < rtf.size() && IsHighHexDigit(rtf[i + 2]))
            return false;
        if (next == '-' || next == '_' || next == '~')
            return false;
        std::size_t end = i + 1;
        while (end < rtf.size() && IsLetter(rtf[end]) && end - (i + 1) < 30)
            ++end;
        const std::string word = rtf.substr(i + 1, end - (i + 1));
        for (const char* sz : kWordsReadDifferently)
            if (word == sz)
                return false;
        if (word.rfind("pn", 0) == 0)
            return false;  // the whole numbering family
        if (next == '\\')
            ++i;  // an escaped backslash starts no control word
    }
    return true;
}

std::string WithoutBreaksAndTabs(const std::string& text)
{
    std::string out;
    for (char ch : text)
        if (ch != '\r' && ch != '\n' && ch != '\t')
            out += ch;
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string rtf(reinterpret_cast<const char*>(data), size);
    if (!ReadAlike(rtf))
        return 0;
    const auto* pBytes = reinterpret_cast<const unsigned char*>(rtf.data());
    const unsigned long cb = static_cast<unsigned long>(rtf.size());
    rtf_converter::CBytePtrRTFToPlainTextPtrParser eightBit(pBytes, cb);
    rtf_converter::CBytePtrRTFToUTF8PtrParser utf8(pBytes, cb);
    const std::string fromEightBit = WithoutBreaksAndTabs(rtfconv_fuzz::ReadAll(eightBit, 1u << 16));
    const std::string fromUtf8 = WithoutBreaksAndTabs(rtfconv_fuzz::ReadAll(utf8, 1u << 16));
    FUZZ_CHECK(fromEightBit == fromUtf8, "the 8-bit and UTF-8 readers give different text for an ASCII document");
    return 0;
}
