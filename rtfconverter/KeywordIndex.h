// An index from control words to small numbers, built once from keyword
// tables that stay data. Inside the library only.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rtf_converter {

// Open addressing over 512 slots. A word is entered under its first number
// only, so a later row with the same word stays unreachable, as a first-match
// scan of the rows leaves it.
//
// Most control words of a document are in no table, so a miss must be cheap:
// the hash takes the length and the first and last letters, which the lookup
// has after one pass over the word, and a slot is compared by length before
// its letters are.
class CKeywordIndex {
public:
    static constexpr int maxNumber = 254;

    // Enters szKeyword (1 to 255 bytes, kept by pointer) as `number` unless
    // it is in already, or the number is out of range.
    void Add(const char* szKeyword, int number)
    {
        const std::size_t len = Length(szKeyword);
        if (number < 0 || number > maxNumber || len == 0 || len > 255 || Find(szKeyword) >= 0)
            return;
        unsigned slot = Hash(szKeyword, len);
        while (m_slots[slot].szKeyword)
            slot = (slot + 1) & (cSlots - 1);
        m_slots[slot] = {szKeyword, static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(len)};
    }

    // The number of szKeyword; -1 when it is not in.
    int Find(const char* szKeyword) const
    {
        const std::size_t len = Length(szKeyword);
        if (len == 0 || len > 255)
            return -1;
        for (unsigned slot = Hash(szKeyword, len); m_slots[slot].szKeyword; slot = (slot + 1) & (cSlots - 1)) {
            const Slot& s = m_slots[slot];
            if (s.len == len && SameBytes(s.szKeyword, szKeyword, len))
                return s.number;
        }
        return -1;
    }

private:
    static constexpr unsigned cSlots = 512;  // a power of two, well above the rows of any table

    struct Slot {
        const char* szKeyword;  // null: an empty slot
        std::uint8_t number;
        std::uint8_t len;
    };

    // Control words are short: a loop beats a library call.
    static std::size_t Length(const char* sz)
    {
        std::size_t len = 0;
        while (sz[len] != '\0')
            ++len;
        return len;
    }
    static bool SameBytes(const char* a, const char* b, std::size_t len)
    {
        for (std::size_t i = 0; i < len; ++i)
            if (a[i] != b[i])
                return false;
        return true;
    }
    static unsigned Hash(const char* sz, std::size_t len)
    {
        const unsigned first = static_cast<unsigned char>(sz[0]);
        const unsigned last = static_cast<unsigned char>(sz[len - 1]);
        return (first * 37u + last * 11u + static_cast<unsigned>(len) * 101u) & (cSlots - 1);
    }

    Slot m_slots[cSlots] = {};
};

} // namespace rtf_converter
