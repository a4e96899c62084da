// Windows code pages for the Unicode reader and writer: decoding tables built
// at run time, one per page, shared by every reader and writer in the process:
// Western (1252) and the Symbol font's characters (which iconv does not know)
// from tables compiled in, every other page from glibc's iconv.
#pragma once
#include "rtfconverter/Export.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace rtf_converter {

// The decoding of one code page: a table of the single bytes, which bytes
// lead a two-byte character (932, 936, 949, 950, 1361), and, for each lead
// byte, a table of its trail bytes, built the first time the lead byte is
// met; and the encoding, built from the decoding the first time it is asked
// for. Immutable once built, except for those lazily built tables, each under
// its own once-flag, so that any number of threads share a page.
class RTFCONV_API CCodePage {
public:
    // The number Windows gives the code page of symbol fonts.
    static constexpr int symbol = 42;
    // Numbers beyond every code page for the dingbat fonts' characters
    // (DingbatFonts.h): symbol + 0x10000 + the font's DingbatFont value.
    static constexpr int dingbatBase = 0x10000;
    static constexpr char32_t invalidPair = 0xFFFFFFFF;

    // Null when neither iconv nor this unit knows the page.
    static const CCodePage* Get(int codePage);
    // ISO 8859-1, for a reader left without even 1252 (no memory for it).
    static const CCodePage& Fallback();

    int GetNumber() const { return m_number; }
    // Symbol and the dingbat fonts: their bytes are pictures, not letters.
    bool IsSymbol() const { return m_number == symbol || m_number > dingbatBase; }
    // The page of a font table entry's name when it is Symbol or a dingbat
    // font, whatever its \fcharset says; 0 for every other name.
    static int DingbatPageOfFontName(const char* szName);
    bool IsLeadByte(unsigned char b) const { return m_bLead[b]; }
    // A byte's character; U+FFFD where the page defines none.
    char32_t Single(unsigned char b) const { return m_single[b]; }
    // The character of a lead and a trail byte; invalidPair when the trail
    // byte does not complete the lead byte.
    char32_t Pair(unsigned char lead, unsigned char trail) const;
    // The bytes of a character other than ASCII in this page: their number
    // (1 or 2) with the bytes in out, or 0 when the page has none for it. The
    // bytes always decode to cp again.
    int Encode(char32_t cp, unsigned char out[2]) const;

    CCodePage() = default;
    CCodePage(const CCodePage&) = delete;
    CCodePage& operator=(const CCodePage&) = delete;

private:
    static std::unique_ptr<CCodePage> Build(int codePage);
    void BuildTrailTable(unsigned char lead) const;
    void BuildEncoding() const;
    const char32_t* TrailTable(unsigned char lead) const;

    // One slot of the encoding: a character and its bytes (lead << 8 | trail,
    // or the single byte), or cp == invalidPair where the slot is free.
    struct EncodingSlot {
        char32_t cp;
        unsigned short bytes;
    };
    static std::size_t EncodingSlotOf(const std::vector<EncodingSlot>& slots, char32_t cp);

    int m_number = 0;
    std::string m_iconvName;
    char32_t m_single[256] = {};
    bool m_bLead[256] = {};
    mutable std::once_flag m_trailOnce[256];
    mutable std::unique_ptr<char32_t[]> m_trail[256];
    mutable std::once_flag m_encodingOnce;
    // Open addressing, a power of two slots at most half full, so that a
    // page of some twenty thousand pairs is built without an allocation per
    // character.
    mutable std::vector<EncodingSlot> m_encoding;
};

// The name iconv knows a Windows code page by ("CP" and the number unless a
// table says otherwise). The one list of names for the library and the tool.
RTFCONV_API std::string IconvNameOfCodePage(int codePage);
// The Windows code page an iconv name stands for (KOI8-R: 20866, CP1251 and
// WINDOWS-1251: 1251; case does not matter); 0 when the name is not one of
// them.
RTFCONV_API int CodePageOfIconvName(const std::string& name);

// The code page of the character set \fcharsetN names; 0 for the ANSI and
// default sets, whose page is the document's, and for unknown sets.
RTFCONV_API int CodePageOfCharset(int charset);
// The \fcharsetN of a code page's fonts; 1 (default) when no set has it.
RTFCONV_API int CharsetOfCodePage(int codePage);

// UTF-8 of one character: cp's bytes into out (room for 4), their count
// returned. What is not a Unicode scalar value (a surrogate, past U+10FFFF)
// is written as U+FFFD.
RTFCONV_API int EncodeUtf8(char32_t cp, char* out);
// The same, appended to a string.
RTFCONV_API void AppendUtf8(std::string& out, char32_t cp);

} // namespace rtf_converter
