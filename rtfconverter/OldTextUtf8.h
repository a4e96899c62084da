// Old-format text as UTF-8, and back.
//
//     std::string utf8 = OldTextToUtf8(oldText, 1252);
//     OldTextFromUtf8Counts counts;
//     std::string oldAgain = OldTextFromUtf8(utf8, 1252, &counts);  // == oldText
//
// Each run of text is decoded with the code page of the character set of the
// font command in force (the default code page before the first one and for
// the ANSI and default character sets); comment commands (hyperlinks,
// references, numbering, table tags) with the same page, a font command's
// face name with the page of its own character set. The framing bytes and
// the ASCII of every command pass through, and the other bytes of layout,
// print and attachment commands and of a font command's attribute field (its
// character set code, 0xC0 to 0xD2) become U+0080 to U+00FF.
//
// The way back is exact: a byte, or a double-byte character, whose character
// does not encode to the same bytes again (bytes a page leaves undefined, the
// second form of a character a page holds twice, a lead byte without its
// trail byte) becomes U+F000 plus the byte, as Windows shows the bytes of a
// symbol font, and turns back into that byte. So every old-format text gives
// back its own bytes. From UTF-8, a run of text the page in force cannot hold
// is written in the font command in force with a character set whose page
// holds it (Cyrillic in RUSSIAN_CHARSET, Japanese in SHIFTJIS_CHARSET, ...),
// followed by the command in force again; what no Windows page holds, and
// what a comment command's page cannot hold, becomes '?', counted.
//
// Old-format text arriving in pieces (from a reader's buffer) is decoded as
// it comes; a command or a double-byte character cut between two pieces
// comes out the same as when the text is whole:
//
//     COldTextUtf8Decoder decoder(1252);
//     std::string utf8;
//     while (...) { decoder.Feed(piece, utf8); write(utf8); utf8.clear(); }
//     decoder.Finish(utf8);
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rtf_converter {

class CCodePage;

RTFCONV_API std::string OldTextToUtf8(std::string_view oldText, int defaultCodePage);

class RTFCONV_API COldTextUtf8Decoder {
public:
    explicit COldTextUtf8Decoder(int defaultCodePage);

    // Appends the UTF-8 of the next piece of old-format text to out; what
    // the piece leaves unfinished (a lead byte) waits for the next piece.
    void Feed(std::string_view piece, std::string& out);
    // Appends what the last piece left unfinished and starts over.
    void Finish(std::string& out);

private:
    // Where in the text the next byte falls.
    enum class Region : unsigned char { text, commandType, fontHead, fontFace, comment, bytes };
    // The UTF-8 of a byte of text >= 0x80 alone in a page, the last one it
    // was worked out for: text often goes back and forth between two pages.
    struct HighByte {
        const CCodePage* pPage;  // null: not worked out yet
        unsigned char n;
        char utf8[4];
    };

    // The decoding steps write through a cursor into room Feed has made,
    // and move it past what they wrote.
    std::size_t DecodeTextUntil(std::string_view piece, std::size_t i, char terminator, char*& out);
    std::size_t DecodeFontHead(std::string_view piece, std::size_t i, char*& out);
    std::size_t DecodeBytes(std::string_view piece, std::size_t i, char*& out);
    std::size_t DecodeLead(unsigned char lead, int next, char*& out);
    // Writes a block of four bytes at out; returns past those that count.
    char* PutHighByte(unsigned char b, char* out);
    void SetPage(const CCodePage& page);
    void SetPageOfCharset(int charset);
    char RegionEnd() const;
    // Font commands decoded whole within one piece, remembered by their
    // bytes (from the type letter through 0x02) with their UTF-8 and the
    // state they leave: the same command met again is appended as it is.
    struct FontCommandMemo {
        static constexpr std::size_t cbMax = 32;
        unsigned char cb = 0;  // 0: empty
        unsigned char cbUtf8 = 0;
        const CCodePage* pPage = nullptr;  // the page of the command's character set, in force after it
        char bytes[cbMax];
        char utf8[3 * cbMax];  // a byte gives at most three bytes of UTF-8
    };
    static constexpr std::size_t cFontCommandMemos = 128;
    static constexpr std::size_t cbFontCommandKey = 8;  // the bytes that choose the slot
    static std::size_t FontCommandSlot(const char* p);
    const FontCommandMemo* RememberedFontCommandAt(const char* p, std::size_t cbLeft) const;
    bool DecodeRememberedFontCommand(std::string_view piece, std::size_t& i, char*& out);
    void PutRememberedFontCommand(const FontCommandMemo& memo, char*& out);
    std::size_t DecodeKnownSteps(std::string_view piece, std::size_t i, char*& out);
    void RememberFontCommand(std::string_view piece, std::size_t start, std::size_t end, std::string_view utf8);

    const CCodePage* m_pDefaultPage;
    const CCodePage* m_pPage;
    Region m_region = Region::text;
    std::size_t m_cmdOffset = 0;  // bytes of the font command before the next one
    int m_headCharset = -1;       // the first character set code of the font command's head; -1: none yet
    int m_pendingLead = -1;       // a lead byte whose trail byte has not come yet; -1: none
    int m_lastCharset = -1;       // SetPageOfCharset's last question and answer
    const CCodePage* m_pLastCharsetPage = nullptr;
    HighByte m_high[128] = {};
    std::vector<FontCommandMemo> m_fontMemo;  // cFontCommandMemos slots, or none yet
    // What a piece gives is written here, then appended to the caller's
    // string in one copy; it grows to the largest piece's need and stays.
    std::vector<char> m_room;
};

struct OldTextFromUtf8Counts {
    std::size_t nUnencodable = 0;  // characters written as '?'
    std::size_t nInvalid = 0;      // bytes that are not UTF-8, passed through as they are
};

RTFCONV_API std::string OldTextFromUtf8(std::string_view utf8, int defaultCodePage, OldTextFromUtf8Counts* pCounts = nullptr);

// The same on more than one thread, for a caller with a core to spare (the
// one-call form above never starts a thread: a host may call it from many
// threads at once). With nThreads >= 2 a text of two to 64 megabytes is
// cut in two just before a command near its middle, and the second part is
// encoded on a thread of its own from the font command in force there, as
// the first part is on the calling thread. The result is the same text and
// counts as above, always: when the first part's encoding reaches the cut
// in another state (a font command it did not expect, the cut inside a
// command), or before the second part has begun (no core was free for it),
// the second part is dropped and the calling thread encodes on to the end.
struct OldTextFromUtf8Options {
    unsigned nThreads = 1;
    // The sizes of text that are cut: below the least, a thread's start, its
    // memo and the copy of the second part cost about what they save; above
    // the most, the second part's own room (half the text) would take more
    // memory than a conversion may beyond its input and output.
    std::size_t cbLeastToSplit = std::size_t(2) << 20;
    std::size_t cbMostToSplit = std::size_t(64) << 20;
    // For tests: the text is cut at this offset whatever its size (0: as
    // above), and the second part is waited for.
    std::size_t splitAt = 0;
    // For tests: set to whether the second part's bytes were used.
    bool* pbSplitUsed = nullptr;
};

RTFCONV_API std::string OldTextFromUtf8(std::string_view utf8, int defaultCodePage, const OldTextFromUtf8Options& options,
                                        OldTextFromUtf8Counts* pCounts = nullptr);

} // namespace rtf_converter
