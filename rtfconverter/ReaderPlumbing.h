// What every reader needs around its parser: the caller's output buffer, the
// bytes in memory it reads from, and a loop that reads a reader to its end.
//
//     CBytePtrRTFToUTF8PtrParser reader(rtf, cbRtf);
//     std::string text;
//     if (ReadAll(reader, [&](const char* p, std::size_t cb) { text.append(p, cb); }) != ReadResult::complete)
//         ...;  // a piece of the output did not fit in 16 MiB
#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <vector>

#include "platform/WinTypes.h"

namespace rtf_converter {

// The caller's buffer [m_pBegin, m_pEnd), written from m_pCur on.
class COutputWindow {
protected:
    void OpenWindow(char* pBegin, char* pEnd)
    {
        m_pBegin = m_pCur = pBegin;
        m_pEnd = pEnd;
    }
    // False, writing nothing, when the buffer is full.
    bool PutByte(char ch)
    {
        if (m_pCur == m_pEnd)
            return false;
        *m_pCur++ = ch;
        return true;
    }
    // All or nothing, and only with room for the text and a NUL after it:
    // the NUL is written but not counted, so the next put overwrites it.
    bool PutTerminated(const char* p, std::size_t len)
    {
        if (len >= Room())
            return false;
        std::memcpy(m_pCur, p, len);
        m_pCur[len] = '\0';
        m_pCur += len;
        return true;
    }
    // As many of the bytes as there is room for; how many that was.
    std::size_t PutAsMuchAsFits(const char* p, std::size_t cb)
    {
        const std::size_t n = cb < Room() ? cb : Room();
        if (n > 0) // m_pCur is null while no buffer has been given
            std::memcpy(m_pCur, p, n);
        m_pCur += n;
        return n;
    }
    std::size_t Room() const { return static_cast<std::size_t>(m_pEnd - m_pCur); }
    std::size_t Written() const { return static_cast<std::size_t>(m_pCur - m_pBegin); }

    char* m_pBegin = nullptr;
    char* m_pEnd = nullptr;
    char* m_pCur = nullptr;
};

// The caller's bytes, read front to back with rewinds. A NUL ends the text:
// reading it fails but steps over it, as reading any byte does, so that a
// rewind by the bytes read comes out right. At the end a read fails and
// stays where it is.
class CByteCursor {
public:
    CByteCursor(const unsigned char* pData, unsigned long cbData)
        : m_pData(pData), m_cbData(pData ? cbData : 0), m_pRead(pData), m_pMark(nullptr)
    {
    }

    // The bytes read so far (a NUL that ended the text among them).
    std::size_t BytesConsumed() const { return static_cast<std::size_t>(m_pRead - m_pData); }

protected:
    // The parse loop moves the cursor of a stock reader itself (StockCursor).
    friend class CRTFParser;

    long ReadByte(char& ch)
    {
        if (AtEnd())
            return E_UNEXPECTED;
        ch = static_cast<char>(*m_pRead++);
        return ch != '\0' ? S_OK : E_UNEXPECTED;
    }
    // Copies n bytes to pDest (skips them when it is null), NULs included;
    // fails, having taken what there is, when fewer are left or n < 0.
    long ReadBlock(int n, unsigned char* pDest)
    {
        const std::size_t cbLeft = CbLeft();
        const std::size_t cb = n <= 0 ? 0 : (static_cast<std::size_t>(n) < cbLeft ? static_cast<std::size_t>(n) : cbLeft);
        if (pDest && cb)
            std::memcpy(pDest, m_pRead, cb);
        m_pRead += cb;
        return n >= 0 && cb == static_cast<std::size_t>(n) ? S_OK : E_UNEXPECTED;
    }
    // The tokenizer never steps back over bytes it has not read; the clamps
    // keep a derived reader that does within the caller's bytes all the same.
    void MarkBack(int n) { m_pMark = m_pRead - ClampBack(n); }
    void StepBack(int n)
    {
        if (n == -1)
            m_pRead = m_pMark ? m_pMark : m_pData;
        else
            m_pRead -= ClampBack(n);
    }
    const char* BytesAhead(std::size_t& cb) const
    {
        cb = CbLeft();
        return reinterpret_cast<const char*>(m_pRead);
    }
    void StepAhead(std::size_t cb) { m_pRead += cb < CbLeft() ? cb : CbLeft(); }
    bool AtEnd() const { return m_pRead == m_pData + m_cbData; }

    const unsigned char* m_pData;
    unsigned long m_cbData;
    const unsigned char* m_pRead;
    const unsigned char* m_pMark;
    // Set by a stock reader whose ParseRun takes at least the first byte of
    // any run it is handed, or refuses it: the parse loop then hands it a
    // run's first byte too, instead of to ParseChar, and never meets a run it
    // would have to hand on again. (The old-format reader leaves a lone hex
    // digit at a run's end for the loop, so it does not set it.)
    bool m_bTakesWholeRuns = false;
    // Whose TranslateKeyword a stock reader keeps, when the parse loop knows
    // it: the loop then does its work for the words it reads without the
    // virtual call, and passes over the words it would do nothing for.
    enum class KeywordWork : unsigned char {
        reader,      // the reader's own, called for every word
        baseReader,  // CBaseRTFParser's
        utf8Reader,  // CRTFToUTF8Parser's
    };
    KeywordWork m_keywordWork = KeywordWork::reader;

private:
    std::size_t CbLeft() const { return static_cast<std::size_t>(m_pData + m_cbData - m_pRead); }
    std::size_t ClampBack(int n) const
    {
        const std::size_t cbRead = BytesConsumed();
        return n < 0 ? 0 : (static_cast<std::size_t>(n) > cbRead ? cbRead : static_cast<std::size_t>(n));
    }
};

class CRTFImportToPtr;

// The readers count what they wrote in int or unsigned long.
template <class T>
constexpr bool IsNegative(T value)
{
    if constexpr (std::is_signed<T>::value)
        return value < 0;
    else
        return (void)value, false;
}

// The most a read buffer grows to.
constexpr std::size_t cbLargestReadBuffer = std::size_t(16) << 20;

enum class [[nodiscard]] ReadResult {
    more,      // a call went well and the reader has more to give
    complete,  // the reader has given everything
    stalled,   // a piece of the output does not fit in cbLargestReadBuffer
    overrun,   // the reader reported more bytes than its buffer holds
};

// One call of reader.Read into `buffer`, whose bytes [0, cb) it fills. A call
// that makes no progress could not fit the piece due (a paragraph's number
// text, a markup command): the buffer doubles then, up to
// cbLargestReadBuffer. Progress is input consumed, or output for the text
// readers; not output for the old-format readers, which begin every buffer
// with re-sent commands.
template <class TReader>
ReadResult ReadOnce(TReader& reader, std::vector<char>& buffer, std::size_t& cb)
{
    constexpr bool bResendsCommands = std::is_base_of<CRTFImportToPtr, TReader>::value;
    if (buffer.empty())
        buffer.resize(1);
    const std::size_t cbBefore = reader.BytesConsumed();
    bool bMore = false;
    const auto cbRead = reader.Read(buffer.data(), buffer.data() + buffer.size(), bMore);
    cb = 0;
    if (IsNegative(cbRead) || static_cast<std::size_t>(cbRead) > buffer.size())
        return ReadResult::overrun;
    cb = static_cast<std::size_t>(cbRead);
    if (!bMore)
        return ReadResult::complete;
    const bool bProgress = reader.BytesConsumed() != cbBefore || (cb > 0 && !bResendsCommands);
    if (!bProgress) {
        if (buffer.size() >= cbLargestReadBuffer)
            return ReadResult::stalled;
        buffer.resize(buffer.size() * 2 < cbLargestReadBuffer ? buffer.size() * 2 : cbLargestReadBuffer);
    }
    return ReadResult::more;
}

// Reads `reader` to its end through a buffer of its own, cbBuffer bytes at
// first (see ReadOnce), handing each piece to sink(const char* p,
// std::size_t cb). Anything but complete means the reading stopped early;
// what came before was handed on.
template <class TReader, class TSink>
ReadResult ReadAll(TReader& reader, TSink&& sink, std::size_t cbBuffer = 65536)
{
    std::vector<char> buffer(cbBuffer == 0 ? 1 : cbBuffer);
    for (;;) {
        std::size_t cb = 0;
        const ReadResult result = ReadOnce(reader, buffer, cb);
        if (cb > 0)
            sink(static_cast<const char*>(buffer.data()), cb);
        if (result != ReadResult::more)
            return result;
    }
}

} // namespace rtf_converter
