// UTF-8 text to RTF, losing no character.
//
//     CUTF8TextToRTF writer;
//     writer.SetCodePage(1251);          // 1252 unless set
//     writer.Convert(pszUtf8, nullptr);  // Arial 10 when no font is given
//     CString rtf = writer.Export();
//
// or, for a large text, the document handed on block by block as it is made:
//
//     writer.WriteDocument(pText, cbText, nullptr,
//                          [&](const char* p, std::size_t cb, std::size_t) { fwrite(p, 1, cb, f); });
//
// The sibling of the 8-bit plain-text writer, with the same document shape
// (one font, the automatic colour), for text as Linux writes it:
//   - characters of the chosen code page are written as their bytes, each
//     byte above 0x7F (and both bytes of a double-byte character, whose trail
//     byte may be a backslash or a brace) as a \'hh escape, so that the RTF
//     is 7-bit ASCII; \, { and } are escaped;
//   - a byte-order mark at the start is dropped;
//   - every other character is \uN with a ? fallback under \uc1 (a pair of
//     \uN for a character beyond U+FFFF); a byte that is not UTF-8 is U+FFFD;
//   - LF, CR LF and a lone CR end a paragraph (\par), and a final line end
//     does not add an empty paragraph; TAB is \tab; byte 0x17 is dropped.
// The header declares \ansicpgN and the font the matching \fcharsetN, so that
// UTF-8 text -> RTF -> UTF-8 text (CRTFToUTF8Parser) gives back the text, line
// ends as LF and the bytes 0x01 to 0x03, which readers turn into spaces, aside.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>
#include <functional>

#include "platform/AfxString.h"
#include "platform/WinGdi.h"

namespace rtf_converter {

class CCodePage;

// The offset of the first byte of [pText, pText + cb) that is not part of
// well-formed UTF-8 (overlong forms, surrogates and values beyond U+10FFFF
// are not; a sequence cut by the end is not); cb when every byte is. A NUL is
// an ASCII byte like any other here.
RTFCONV_API std::size_t FindInvalidUtf8(const char* pText, std::size_t cb);

class RTFCONV_API CUTF8TextToRTF {
public:
    CUTF8TextToRTF();
    CUTF8TextToRTF(const CUTF8TextToRTF&) = default;
    CUTF8TextToRTF& operator=(const CUTF8TextToRTF&) = default;
    ~CUTF8TextToRTF() = default;

    // The code page whose characters are written as bytes; one that iconv
    // does not know, or Symbol, gives 1252. Before Convert.
    void SetCodePage(int codePage);

    // The sizes of the blocks WriteDocument hands on.
    static constexpr std::size_t kcbLeastBlock = std::size_t(16) << 10;
    static constexpr std::size_t kcbDefaultBlock = std::size_t(64) << 10;
    static constexpr std::size_t kcbMostBlock = std::size_t(256) << 10;
    // The size of the blocks WriteDocument hands on (a short text's one
    // block is smaller), kept within [kcbLeastBlock, kcbMostBlock]. A block
    // is fresh memory until it is first filled, whose pages cost more than
    // converting the bytes they hold: where the document goes to memory or
    // to a pipe, small blocks are faster. A file system, though, takes a
    // few large writes faster than many small ones: a sink that writes to a
    // file gains from the largest.
    void SetBlockSize(std::size_t cb);
    // Builds the body for the zero-terminated UTF-8 text (null reads as
    // empty) in the font pBaseFont, or Arial 10 at the screen's resolution
    // when null. A second call replaces the body and the font of the first.
    void Convert(const char* pszText, const LOGFONT* pBaseFont);
    // The whole document. Only after Convert.
    CString Export() const;
    // The same document, made in the body's own memory rather than in a copy
    // of it (for a large text the copy, and the fresh pages it touches, cost
    // more than the conversion). Uses the body up: Convert again before the
    // next export. Empty when memory runs out, as Export is.
    [[nodiscard]] CString TakeDocument();

    // Receives the document from WriteDocument: each block in order, with the
    // number of the text's bytes converted so far (for progress, or to let go
    // of the text behind). It may throw to stop the writer.
    using BlockSink = std::function<void(const char* p, std::size_t cb, std::size_t cbTextDone)>;
    // The document of [pText, pText + cbText) (a NUL ends the text there, as
    // the end of Convert's string does) in the font pBaseFont, the same bytes
    // as Convert then Export, handed to `sink` as it is made, in blocks of at
    // most the block size, the head first: neither the body nor the document
    // is ever held whole. Keeps no body: Export needs a Convert afterwards.
    void WriteDocument(const char* pText, std::size_t cbText, const LOGFONT* pBaseFont, const BlockSink& sink);

protected:
    CString GetHeader() const;
    CString GetFontTable() const;
    CString GetColorTable() const;

private:
    void ChooseFont(const LOGFONT* pBaseFont);
    void WriteBody(const char* pText, std::size_t cbText, const CString& head, const BlockSink& sink) const;

    const CCodePage* m_pPage;
    LOGFONT m_logFont;
    CString m_csBuffer;
    std::size_t m_cbBlock = kcbDefaultBlock;
};

} // namespace rtf_converter
