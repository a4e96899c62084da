// Differential: the 8-bit and the UTF-8 plain-text readers give the same text
// for an ASCII-only document, line ends and tabs apart: the 8-bit one ends
// paragraphs with CR where the other puts LF, and it writes the breaks and
// tabs of every destination (a \par in the font table, say) where the other
// writes only those of the text. Only documents that begin with "{\rtf", hold
// ASCII without control characters, name no symbol font and use only the
// control words both read alike take part: the UTF-8 reader reads much else its
// own way (fragments group after group, footnotes after the body, headers left
// out, \* only after '{', generated list numbers, Unicode and code pages).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_util.h"
#include "rtfconverter/RtfToText.h"
#include "rtfconverter/RtfToUtf8.h"

namespace {

// The control words both readers read alike; a document with any other is
// left out, since the UTF-8 reader reads many words its own way.
const char* const kWordsReadAlike[] = {
    "rtf", "deff", "deflang", "lang", "fonttbl", "fnil", "froman", "fswiss", "fmodern", "f", "fs",
    "colortbl", "red", "green", "blue", "cf", "cb", "stylesheet", "s", "info", "title", "author",
    "plain", "pard", "par", "line", "tab", "b", "i", "ul", "ulnone", "strike", "qc", "ql", "qr", "qj",
    "li", "ri", "fi", "sb", "sa", "trowd", "cellx", "intbl", "cell", "row",
};

// Font names whose bytes the UTF-8 reader maps to the characters their glyphs show.
const char* const kSymbolFontNames[] = {"Symbol", "Wingdings", "Webdings"};

bool IsReadAlike(const std::string& word)
{
    for (const char* sz : kWordsReadAlike)
        if (word == sz)
            return true;
    return false;
}

bool IsLetter(char ch) { return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z'); }
bool IsHighHexDigit(char ch) { return (ch >= '8' && ch <= '9') || (ch >= 'a' && ch <= 'f') || (ch >= 'A' && ch <= 'F'); }

// True when the document is ASCII and uses nothing the readers read apart.
bool ReadAlike(const std::string& rtf)
{
    if (rtf.compare(0, 5, "{\\rtf") != 0)
        return false;
    for (const char* sz : kSymbolFontNames)
        if (rtf.find(sz) != std::string::npos)
            return false;
    for (std::size_t i = 0; i < rtf.size(); ++i) {
        const char ch = rtf[i];
        if (ch == '\0' || static_cast<unsigned char>(ch) >= 0x80)
            return false;
        // The UTF-8 reader drops control characters other than TAB and LF.
        if (static_cast<unsigned char>(ch) < 0x20 && ch != '\t' && ch != '\r' && ch != '\n')
            return false;
        if (ch != '\\' || i + 1 >= rtf.size())
            continue;
        const char next = rtf[i + 1];
        if (next == '\'' && i + 2 < rtf.size() && IsHighHexDigit(rtf[i + 2]))
            return false;
        if (next == '-' || next == '_' || next == '~')
            return false;
        if (next == '*' && (i == 0 || rtf[i - 1] != '{'))
            return false;
        std::size_t end = i + 1;
        while (end < rtf.size() && IsLetter(rtf[end]) && end - (i + 1) < 30)
            ++end;
        const std::string word = rtf.substr(i + 1, end - (i + 1));
        if (!word.empty() && !IsReadAlike(word))
            return false;
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
