// The library in one call: RTF, plain text and old-format text converted
// between standard strings. This header shows standard types only; the
// converter classes and the platform types they are written against stay
// behind it.
//
//     #include <rtfconverter/rtfconverter.hpp>
//
//     std::string text = rtf_converter::rtf_to_text(rtf);           // UTF-8, LF line ends
//     std::string rtf  = rtf_converter::text_to_rtf("Grüße, Ελλάδα"); // losing no character
//
// Malformed RTF is not a failure: it converts as the readers convert it, and
// a NUL byte outside \bin data ends the document. What cannot be converted
// raises ConversionError, which tells the byte offset of the input where the
// conversion stopped and why. Options that make no sense (an unknown code
// page) raise std::invalid_argument. Every function may be called from any
// number of threads at once.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "rtfconverter/Export.h"

namespace rtf_converter {

// A conversion that could not be done: what() is the sentence followed by the
// offset, as in "the text holds a NUL byte, which RTF cannot carry (at byte
// offset 12)"; reason() is the sentence alone.
class RTFCONV_API ConversionError : public std::runtime_error {
public:
    ConversionError(std::size_t offset, const std::string& reason);

    // The byte offset in the input at which the conversion stopped.
    std::size_t offset() const noexcept { return m_offset; }
    const std::string& reason() const noexcept { return m_reason; }

private:
    std::size_t m_offset;
    std::string m_reason;
};

// ---------------------------------------------------------------------------
// RTF to plain text.

enum class Newline { lf, crlf, cr };

struct TextOptions {
    // The code page of the document's own 8-bit text, in place of its
    // \ansicpgN; 0 keeps the document's (1252 when it names none).
    int codepage = 0;
    // What paragraph marks, \line and \page become.
    Newline newline = Newline::lf;
    // The 8-bit converter's bytes exactly, as hosts of the converter classes
    // get them: no decoding, CR ends a paragraph, LF a \line. `codepage` and
    // `newline` do not apply.
    bool exact = false;
};

// The text of an RTF document: UTF-8 decoded from \uN, \ansicpgN and each
// font's character set. Hidden text, field instructions, pictures and objects
// are left out; a field gives its result.
[[nodiscard]] RTFCONV_API std::string rtf_to_text(std::string_view rtf, const TextOptions& options = {});

// The same text handed to `sink` piece by piece, for documents whose text
// should not be held whole.
RTFCONV_API void rtf_to_text(std::string_view rtf, const TextOptions& options,
                             const std::function<void(std::string_view piece)>& sink);

// The same text pulled in buffers of the caller's size:
//
//     rtf_converter::TextReader reader(rtf);
//     char buf[65536];
//     while (std::size_t n = reader.read(buf, sizeof buf))
//         consume(buf, n);
//
// The RTF is not copied: it must stay valid and unchanged while the reader is used.
class RTFCONV_API TextReader {
public:
    explicit TextReader(std::string_view rtf, const TextOptions& options = {});
    ~TextReader();
    TextReader(TextReader&&) noexcept;
    TextReader& operator=(TextReader&&) noexcept;

    // Writes up to `size` bytes of text into `buffer` and returns their
    // number, 0 only once the text has ended. Any size from 1 works; a UTF-8
    // character may be split between two calls.
    [[nodiscard]] std::size_t read(char* buffer, std::size_t size);
    // True once read() has nothing more to give.
    [[nodiscard]] bool done() const;
    // The input bytes read so far.
    [[nodiscard]] std::size_t offset() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// ---------------------------------------------------------------------------
// Plain text to RTF.

struct RtfOptions {
    // Characters of this code page are written as themselves, every other
    // one as \uN, so that rtf_to_text gives the text back.
    int codepage = 1252;
    // The document's font; empty: Arial. Its size in points.
    std::string font_face;
    int font_points = 10;
    // The 8-bit writer, as hosts of the converter classes get it: the bytes
    // as they are (no UTF-8), CR ends a paragraph, LF breaks a line.
    // `codepage` does not apply.
    bool exact = false;
};

// A document in one font holding the UTF-8 text, each line (ended by LF,
// CR LF or CR) a paragraph. A NUL byte raises ConversionError.
[[nodiscard]] RTFCONV_API std::string text_to_rtf(std::string_view utf8, const RtfOptions& options = {});

// ---------------------------------------------------------------------------
// Old-format text: the host's 8-bit rich text, each piece of formatting a
// markup command between the bytes 0x01 and 0x02. Pictures and objects travel
// beside it, and the attachment command NN in the text refers to the NNth.

struct Attachment {
    // "png", "jpeg", "emf", "wmf", "dib" (a packed device-independent
    // bitmap), "object" (an embedded object's data), "link" (a linked
    // object's data), "picture" (a bitmap alone, in `data` or `picture`),
    // "placeholder" (nothing).
    std::string kind;
    std::vector<std::byte> data;
    // What an object shows in its place, as a packed DIB or a .bmp file's
    // bytes; optional, and only written by old_to_rtf.
    std::vector<std::byte> picture;
};

struct OldText {
    std::string text;                     // 8-bit, as the host stores it
    std::vector<Attachment> attachments;  // attachment command NN: attachments[NN]
};

struct OldOptions {
    // Table rows and cells as table tag commands instead of paragraph marks and tabs.
    bool table_tags = false;
    // The converter's bytes as hosts of the converter classes get them;
    // false (the default) asks for the form that loses nothing.
    bool exact = false;
    // Decides for each picture or object whether it is kept; none keeps all.
    // At most 100 are kept, as the command numbers them with two digits.
    std::function<bool(const Attachment&)> keep_attachment;
};

// RTF to old-format text, with the pictures and objects it holds.
[[nodiscard]] RTFCONV_API OldText rtf_to_old(std::string_view rtf, const OldOptions& options = {});

struct OldToRtfOptions {
    std::string font_face;  // the base font; empty: Arial
    int font_points = 10;
    // As OldOptions::exact.
    bool exact = false;
    // Answers attachment command NN in place of attachments[NN]; nullopt
    // leaves the attachment out. "object" and "link" are written with their
    // picture, "picture" and "dib" as the bitmap; other kinds are left out.
    std::function<std::optional<Attachment>(int index)> attachment_source;
};

// Old-format text to RTF. Attachment command NN is answered from
// attachments[NN] (or options.attachment_source); none leaves it out. A NUL
// byte raises ConversionError.
[[nodiscard]] RTFCONV_API std::string old_to_rtf(std::string_view old, const std::vector<Attachment>& attachments = {},
                                                 const OldToRtfOptions& options = {});

} // namespace rtf_converter
