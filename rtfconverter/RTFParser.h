// CRTFParser: the resumable RTF tokenizer at the root of every reader.
//
// The tokenizer pulls the RTF one byte at a time from a character source that
// the derived reader supplies, recognises groups, control words, control
// symbols and plain characters, and hands each to a virtual operation. It
// knows nothing of what a keyword means (see CBaseRTFParser).
//
// Character source contract (implemented by each concrete reader):
//   long Get(char& ch)       next byte into ch and advance; negative HRESULT
//                            when no byte could be read. A failed read may
//                            leave ch unchanged.
//   void MarkBacktrack(int n) mark = read position - n.
//   void Backtrack(int n)    n == -1: read position = mark; otherwise move the
//                            read position back n bytes. Every byte from the
//                            mark to the read position must stay available.
//
// Sink contract (declared by each converter family, not here):
//   bool Put(char ch)        false, writing nothing, when the buffer is full.
//   bool Put(const CString&) all or nothing: needs room for the text and a
//                            NUL; advances by the length only.
//   GetCBWritten()           bytes written into the current buffer.
//
// Resumption: ParseChar and keyword handlers return false only when the sink
// refused output. ParseChar then calls Backtrack(1) itself; for a keyword,
// Parse rewinds to its backslash. Parse returns with bMore true, the caller
// drains its buffer and calls again, and parsing continues exactly there.
// Nothing is buffered inside the parser.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>

#include "rtfconverter/ReadLimits.h"

namespace rtf_converter {

struct KeywordKey;
class CByteCursor;

class RTFCONV_API CRTFParser {
public:
    // The parameter value of a control word that has none, and the result of
    // a hexadecimal escape that is not two hex digits.
    static constexpr int noParam = 0x7FFFFFFF;
    // A control word keeps at most this many letters.
    static constexpr int maxKeywordLength = 30;

    // bMore comes back true when parsing stopped because the output was
    // refused, false when it ended (end of input, the outermost group closed,
    // or the document did not begin with '{').
    void Parse(bool& bMore);

    // The caps on what the document may make the reader allocate; set them
    // before the first Read. GetLimitsReached() has a ReadLimitKind bit for
    // each limit the document has met.
    // Counts below 1 count as 1.
    void SetLimits(const ReadLimits& limits);
    const ReadLimits& GetLimits() const { return m_limits; }
    unsigned GetLimitsReached() const { return m_limitsReached; }

protected:
    CRTFParser() = default;
    CRTFParser(const CRTFParser&) = default;
    CRTFParser& operator=(const CRTFParser&) = default;
    // Not virtual: readers are never deleted through this base.
    ~CRTFParser() = default;

    virtual void Init();
    virtual bool PushRtfState();
    virtual bool PopRtfState();
    virtual bool InitBuffer() = 0;
    virtual long Get(char& ch) = 0;
    virtual void MarkBacktrack(int n) = 0;
    virtual void Backtrack(int n) = 0;
    virtual bool ParseChar(char ch) = 0;
    virtual bool TranslateKeyword(const char* szKeyword, int param) = 0;

    // Runs of ordinary bytes, taken in one step instead of one Get and one
    // ParseChar each. A source that holds its bytes in memory offers the ones
    // ahead of the read position (RunAhead) and steps over them (SkipAhead);
    // the parser cuts the offer at the first byte that means something to it
    // (backslash, braces, CR, LF, NUL) and hands the rest to ParseRun. The
    // braces, line breaks and control words are read from the offer too (a
    // word when it lies wholly inside it), and so are the two digits of a
    // \'hh escape (ParseHexParam). What a source offers must therefore be
    // exactly the bytes its Get would deliver next: a reader that changes
    // what Get delivers offers nothing (returns null), and a source that
    // offers nothing keeps the byte-by-byte protocol unchanged.
    virtual const char* RunAhead(std::size_t& cb) const;
    virtual void SkipAhead(std::size_t cb);
    // The bytes [p, p + cb) are the next ones at the read position, not read
    // yet. Takes them as Get and ParseChar calls would, leaving the read
    // position after the bytes taken; false when the output refused one (the
    // read position is then before it). The default does exactly that byte
    // by byte until the read position leaves the run (a ParseChar may read
    // bytes itself): a reader that overrides ParseChar and not ParseRun
    // behaves as before. A reader overriding ParseRun to copy runs in bulk must keep
    // it equivalent to its ParseChar, and a class derived from such a reader
    // that overrides ParseChar must override ParseRun too (calling this one).
    // A reader that drops the run may step over more than cb bytes, up to
    // the next byte that means something other than a line break
    // (SkipDroppedBytes).
    virtual bool ParseRun(const char* p, std::size_t cb);

    // The stock in-memory cursor a reader reads through, when the reader's
    // class is exactly one of ours whose RunAhead, SkipAhead and
    // MarkBacktrack only move that cursor: the parse loop then moves it
    // itself, sparing three calls per control word. Null by default, and a
    // stock reader returns null for any class derived from it, which so gets
    // every call as before. Asked once per Parse.
    virtual CByteCursor* StockCursor();

    // The control word after a backslash: read from the bytes the source
    // offers ahead when it offers the whole word, else by ParseRtfKeyword
    // through Get. Both read the same word with the same parameter and leave
    // the read position at the same byte.
    bool ParseKeyword();
    bool ParseRtfKeyword();
    // The lookup key of szKeyword when it is the word the tokenizer is
    // handing to TranslateKeyword right now, which it made while reading the
    // word; null for any other text.
    // (Defined with the key, in the library's KeywordIndex.h.)
    inline const KeywordKey* TokenWordKey(const char* szKeyword) const;
    int ParseParam(char ch);
    // Hands the run of ordinary bytes ahead, if the source offers one, to
    // ParseRun; false when the output refused a byte of it.
    bool ParseOrdinaryRun();
    // For a reader that drops the ordinary bytes [p, p + cb) at the read
    // position, and would drop the line breaks and ordinary bytes after them
    // too: steps over all of them up to the next backslash, brace or NUL the
    // source offers, in one pass (a picture's hex data, line after line).
    void SkipDroppedBytes(const char* p, std::size_t cb);
    // Sets the limit's bit; the first time for each kind, also traces it.
    void NoteLimitReached(ReadLimitKind kind);
    // True when a structure grown to `cNew` stays within `limit`; otherwise
    // notes the limit reached.
    bool WithinLimit(std::size_t cNew, std::size_t limit, ReadLimitKind kind);

    bool m_bStarted = false;
    // One-shot request to drop the next plain character; cleared at every
    // '{', '}' and backslash.
    bool m_bSkipNextChar = false;
    // Number of '{' whose '}' has not been handled yet.
    int m_cGroup = 0;
    ReadLimits m_limits;
    unsigned m_limitsReached = 0;

private:
    // The parse loop's work on the braces, line breaks and control words the
    // source offers in memory, up to a byte it leaves to Get (text, NUL, or
    // nothing offered: `other`), a keyword the output refused, or the end of
    // the outermost group.
    enum class Step { other, refused, ended };
    template <class TSource>
    Step ParseStructureAhead(TSource source);
    // ParseStructureAhead from the source in use for this Parse.
    Step ParseStructure();
    // A run of text at p, first byte and all, from the offer [p, p + cb)
    // (text is read there only from a stock reader's cursor); false when the
    // output refused a byte of it.
    template <class TSource>
    bool ParseTextAhead(TSource source, const char* p, std::size_t cb);
    // The parse loop's work for one byte read through Get; false when the
    // output refused it.
    bool ParseByte(char ch);
    // The control word at p, just after its backslash, from the offer
    // [p, p + cb); by ParseRtfKeyword when it is not wholly inside. The read
    // position is cbBefore bytes before p.
    template <class TSource>
    bool ParseKeywordAhead(TSource source, const char* p, std::size_t cb, std::size_t cbBefore);
    // The word ParseKeywordAhead leaves to ParseRtfKeyword, and the control
    // symbol (or \\, \{, \}) it found: the parts kept off its common path.
    // The symbol is p[0], with the rest of the offer, cb bytes from p.
    bool ParseKeywordThroughGet(std::size_t cbBefore);
    template <class TSource>
    bool ParseSymbolAhead(TSource source, const char* p, std::size_t cb, std::size_t cbBefore);
    // Whether a stock text reader's \' goes to the core's row for it here
    // (ParseSymbolAhead).
    template <class TSource>
    bool TakesHexEscapeRow(TSource source);
    // TranslateKeyword for a word the tokenizer read, with its key; the
    // source tells whether the reader keeps the base reader's.
    template <class TSource>
    bool TranslateTokenWord(TSource source, const KeywordKey& key, int param);
    // '{' and '}': past the depth limit a group is only counted.
    void OpenGroup();
    void CloseGroup();

    // The key of the word the tokenizer hands to TranslateKeyword (the key
    // names the word's text), while the call lasts; s_noTokenWord, which
    // names a text no caller has, the rest of the time, so that a lookup
    // needs no test that there is a key. A copy of a reader starts without
    // one: the key lives in the tokenizer's frame.
    static const KeywordKey s_noTokenWord;
    struct CTokenWord {
        const KeywordKey* pKey = &s_noTokenWord;
        CTokenWord() = default;
        CTokenWord(const CTokenWord&) noexcept {}
        CTokenWord& operator=(const CTokenWord&) noexcept { return *this; }
    };
    CTokenWord m_tokenWord;

    // The parse loop's access to the source: the stock cursor when
    // StockCursor offered one for this Parse (CCursorSource), else the
    // virtual handlers (CHandlerSource). The loops over structure take the
    // one in use as a template argument, so that the stock cursor's is
    // inlined there; the rest ask which one per call.
    class CCursorSource;
    class CBaseKeywordsSource;
    class CUtf8KeywordsSource;
    class CHandlerSource;
    inline const char* SourceAhead(std::size_t& cb);
    inline void SourceSkip(std::size_t cb);
    // StockCursor's answer for the Parse under way; a copy of a reader starts
    // without one (it would point into the original).
    struct CStockCursor {
        CByteCursor* p = nullptr;
        CStockCursor() = default;
        CStockCursor(const CStockCursor&) noexcept {}
        CStockCursor& operator=(const CStockCursor&) noexcept { return *this; }
    };
    CStockCursor m_cursor;

    // Groups open beyond the depth limit, which saved no state.
    int m_cUnsavedGroups = 0;
};

} // namespace rtf_converter
