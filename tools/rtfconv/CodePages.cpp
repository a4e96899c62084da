// Code pages, converted with glibc's iconv.
#include "tools/rtfconv/ToolCommon.h"

#include "rtfconverter/CodePages.h"
#include "rtfconverter/Utf8ToRTF.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <iconv.h>

namespace rtfconv {


namespace {

constexpr const char* kUtf8 = "UTF-8";
constexpr char kReplacementUtf8[] = "\xEF\xBF\xBD"; // U+FFFD

bool IconvKnows(const std::string& name)
{
    // Most documents name the Western page; glibc's iconv always has it, and
    // asking would load its module for a check alone.
    if (name == "CP1252") return true;
    const iconv_t cd = ::iconv_open(kUtf8, name.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) return false;
    ::iconv_close(cd);
    return true;
}

bool AllDigits(const std::string& s)
{
    return !s.empty() && s.size() < 10 && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}


// Bytes in a UTF-8 sequence from its lead byte (1 for a stray byte).
std::size_t Utf8SequenceLength(unsigned char lead)
{
    if (lead >= 0xF0 && lead <= 0xF4) return 4;
    if (lead >= 0xE0) return lead <= 0xEF ? 3 : 1;
    if (lead >= 0xC2) return 2;
    return 1;
}

} // namespace

std::string IconvCodePageName(const std::string& codePage)
{
    const std::string name = AllDigits(codePage) ? rtf_converter::IconvNameOfCodePage(std::stoi(codePage)) : codePage;
    return IconvKnows(name) ? name : std::string();
}

bool IsCodePageNumber(const std::string& codePage)
{
    return AllDigits(codePage) && codePage.size() <= 5;
}

int CodePageNumberOf(const std::string& codePage)
{
    if (IsCodePageNumber(codePage))
        return std::stoi(codePage);
    return codePage.empty() ? 0 : rtf_converter::CodePageOfIconvName(codePage);
}

bool IsLibraryCodePage(const std::string& codePage)
{
    return codePage.empty() || rtf_converter::CCodePage::Get(CodePageNumberOf(codePage)) != nullptr;
}

std::size_t FindInvalidUtf8(std::string_view text)
{
    const std::size_t at = rtf_converter::FindInvalidUtf8(text.data(), text.size());
    return at == text.size() ? std::string_view::npos : at;
}

std::string ConvertToUtf8(std::string_view text, const std::string& fromEncoding)
{
    const iconv_t cd = ::iconv_open(kUtf8, fromEncoding.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) throw ToolError(exitUsage, "unknown encoding: " + fromEncoding);
    struct CIconvCloser {
        iconv_t cd;
        ~CIconvCloser() { ::iconv_close(cd); }
    } closer{cd};
    std::string out(text.size() * 4 + 16, '\0');
    char* pIn = const_cast<char*>(text.data()); // iconv does not write through it
    std::size_t cbIn = text.size();
    char* pOut = &out[0];
    std::size_t cbOut = out.size();
    if (::iconv(cd, &pIn, &cbIn, &pOut, &cbOut) == static_cast<std::size_t>(-1))
        throw ToolError(exitConversionFailed, "not valid " + fromEncoding + " at byte offset " +
                                                  std::to_string(static_cast<std::size_t>(pIn - text.data())));
    out.resize(out.size() - cbOut);
    return out;
}

unsigned long FindAnsiCodePage(std::string_view rtf)
{
    constexpr std::string_view keyword = "\\ansicpg";
    const std::size_t at = rtf.find(keyword);
    if (at == std::string_view::npos) return 0;
    unsigned long number = 0;
    for (std::size_t i = at + keyword.size(); i < rtf.size() && rtf[i] >= '0' && rtf[i] <= '9'; ++i) {
        number = number * 10 + static_cast<unsigned long>(rtf[i] - '0');
        if (number > 0xFFFFFF) return 0; // no code page is that large
    }
    return number;
}

std::string ResolveRtfCodePage(const ToolContext& ctx, const std::string& codePageOption, std::string_view rtf,
                               const std::string& inputName)
{
    if (!codePageOption.empty()) {
        std::string name = IconvCodePageName(codePageOption);
        if (name.empty()) throw ToolError(exitUsage, "unknown code page: " + codePageOption);
        return name;
    }
    const unsigned long number = FindAnsiCodePage(rtf);
    if (number == 0) return "CP1252";
    std::string name = IconvCodePageName(std::to_string(number));
    if (name.empty()) {
        PrintWarning(ctx, DisplayName(inputName) + ": code page " + std::to_string(number) +
                              " is not supported, reading the text as 1252");
        return "CP1252";
    }
    return name;
}

CCodePageToUtf8::CCodePageToUtf8(const std::string& iconvName) : m_cd(::iconv_open(kUtf8, iconvName.c_str()))
{
    if (m_cd == reinterpret_cast<void*>(-1)) throw ToolError(exitUsage, "unknown code page: " + iconvName);
}

CCodePageToUtf8::~CCodePageToUtf8() { ::iconv_close(static_cast<iconv_t>(m_cd)); }

void CCodePageToUtf8::Convert(const char* p, std::size_t cb, std::string& out)
{
    if (m_pending.empty()) {
        ConvertRun(p, cb, out);
        return;
    }
    // Rare: a multi-byte character was cut by the previous piece's end.
    std::string joined;
    joined.swap(m_pending);
    joined.append(p, cb);
    ConvertRun(joined.data(), joined.size(), out);
}

void CCodePageToUtf8::ConvertRun(const char* p, std::size_t cb, std::string& out)
{
    char* pIn = const_cast<char*>(p); // iconv does not write through it
    std::size_t cbIn = cb;
    while (cbIn > 0) {
        // Four UTF-8 bytes per input byte is more than any 8-bit or DBCS code page needs.
        const std::size_t cbOld = out.size();
        out.resize(cbOld + cbIn * 4 + 16);
        char* pOut = &out[cbOld];
        std::size_t cbOut = out.size() - cbOld;
        const std::size_t result = ::iconv(static_cast<iconv_t>(m_cd), &pIn, &cbIn, &pOut, &cbOut);
        out.resize(out.size() - cbOut);
        if (result != static_cast<std::size_t>(-1)) break;
        if (errno == EINVAL) { // an incomplete character at the end
            m_pending.assign(pIn, cbIn);
            break;
        }
        if (errno == EILSEQ) { // a byte the code page does not define
            out += kReplacementUtf8;
            ++pIn;
            --cbIn;
        }
        // E2BIG cannot happen with the room given above, but would just loop.
    }
}

void CCodePageToUtf8::Finish(std::string& out)
{
    if (!m_pending.empty()) out += kReplacementUtf8;
    m_pending.clear();
}

std::string Utf8ToCodePage(std::string_view utf8, const std::string& iconvName, bool bLossy)
{
    const iconv_t cd = ::iconv_open(iconvName.c_str(), kUtf8);
    if (cd == reinterpret_cast<iconv_t>(-1)) throw ToolError(exitUsage, "unknown code page: " + iconvName);
    struct CIconvCloser {
        iconv_t cd;
        ~CIconvCloser() { ::iconv_close(cd); }
    } closer{cd};
    std::string out(utf8.size() + 16, '\0');
    char* pIn = const_cast<char*>(utf8.data());
    std::size_t cbIn = utf8.size();
    std::size_t cbWritten = 0;
    while (cbIn > 0) {
        char* pOut = &out[cbWritten];
        std::size_t cbOut = out.size() - cbWritten;
        const std::size_t result = ::iconv(cd, &pIn, &cbIn, &pOut, &cbOut);
        cbWritten = out.size() - cbOut;
        if (result != static_cast<std::size_t>(-1)) break;
        if (errno == E2BIG) {
            out.resize(out.size() * 2);
            continue;
        }
        // EILSEQ, or EINVAL for a sequence cut by the end of the text.
        const std::size_t at = static_cast<std::size_t>(pIn - utf8.data());
        if (!bLossy) {
            const auto itAt = utf8.begin() + static_cast<std::ptrdiff_t>(at);
            const std::size_t line = static_cast<std::size_t>(std::count(utf8.begin(), itAt, '\n')) + 1;
            const std::size_t lastNewline = at == 0 ? std::string_view::npos : utf8.rfind('\n', at - 1);
            const std::size_t from = lastNewline == std::string_view::npos ? 0 : lastNewline + 1;
            std::size_t column = 1;
            for (std::size_t i = from; i < at; ++i)
                if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80) ++column;
            throw ToolError(exitConversionFailed, "line " + std::to_string(line) + ", column " +
                                                      std::to_string(column) + ": character not in code page " +
                                                      iconvName + " (use --lossy to replace it with ?)");
        }
        if (cbWritten == out.size()) out.resize(out.size() * 2);
        out[cbWritten++] = '?';
        const std::size_t cbSkip = std::min(cbIn, Utf8SequenceLength(static_cast<unsigned char>(*pIn)));
        pIn += cbSkip;
        cbIn -= cbSkip;
    }
    out.resize(cbWritten);
    return out;
}

} // namespace rtfconv
