// An index from control words to small numbers, built once from keyword
// tables that stay data. Inside the library only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "rtfconverter/RTFParser.h"

// For the readers' keyword dispatch: a rare case kept out of line, where
// inlined it would cost every call of the caller its saved registers.
#if defined(__GNUC__)
#define RTFCONV_OUT_OF_LINE __attribute__((noinline))
#else
#define RTFCONV_OUT_OF_LINE
#endif

namespace rtf_converter {

// Whether a handler's keyword (the word its table row was found by) is sz:
// handlers shared by many keywords ask this for every one of them, so the
// few bytes are compared inline rather than by a library call.
inline bool IsKeyword(const void* pKeyword, const char* sz)
{
    const char* p = static_cast<const char*>(pKeyword);
    while (*p != '\0' && *p == *sz) {
        ++p;
        ++sz;
    }
    return *p == *sz;
}

#if defined(__BYTE_ORDER__)
#define RTFCONV_LITTLE_ENDIAN (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)
#elif defined(_WIN32)
#define RTFCONV_LITTLE_ENDIAN 1  // every Windows target
#else
#error "the keyword heads need the byte order"
#endif

// A control word as a lookup wants it: its text, its length and its first
// eight bytes as one number (in the order memcpy puts them there), zero past
// the end of the word. The tokenizer makes one as it reads the word, so that
// a lookup of a word it read needs no pass over the word's bytes at all.
// Everything here works at compile time too, so that the core's index is
// built by the compiler and a lookup needs no test that it has been built.
struct KeywordKey {
    const char* sz = nullptr;
    std::size_t cch = 0;
    std::uint64_t head = 0;

    // The head of a word of cch bytes from the 8 bytes at its start, as
    // memcpy puts them into a number (bytes past the word are masked off,
    // whatever they are).
    static constexpr std::uint64_t HeadOf(std::uint64_t first8, std::size_t cch) { return first8 & HeadMask(cch); }
    // The head of a one-byte word.
    static constexpr std::uint64_t HeadOfByte(char ch) { return ByteAt(ch, 0); }

    // From any NUL-terminated text: measured and packed byte by byte, reading
    // nothing past its NUL.
    static constexpr KeywordKey FromText(const char* sz)
    {
        KeywordKey key;
        key.sz = sz;
        for (; sz[key.cch] != '\0'; ++key.cch)
            if (key.cch < 8)
                key.head |= ByteAt(sz[key.cch], key.cch);
        return key;
    }

    // Whether the bytes past the eighth, which the heads leave out, are the
    // same in two words of len bytes; control words are short, so a loop
    // beats a library call.
    static constexpr bool SameTail(const char* a, const char* b, std::size_t len)
    {
        for (std::size_t i = 8; i < len; ++i)
            if (a[i] != b[i])
                return false;
        return true;
    }
    // The top cBits bits of a multiplicative hash of the head and the
    // length: they depend on every byte of the head, and the length tells
    // apart words that share their first eight bytes.
    static constexpr unsigned HashBits(const KeywordKey& key, unsigned cBits)
    {
        return static_cast<unsigned>(((key.head + key.cch) * 0x9E3779B97F4A7C15ull) >> (64 - cBits));
    }

private:
    // Byte i of 8 where memcpy puts it within a number.
    static constexpr std::uint64_t ByteAt(char ch, std::size_t i)
    {
        const std::uint64_t b = static_cast<unsigned char>(ch);
        return RTFCONV_LITTLE_ENDIAN ? b << (8 * i) : b << (8 * (7 - i));
    }
    // The bytes of a word shorter than 8 within the number.
    static constexpr std::uint64_t HeadMask(std::size_t cch)
    {
        if (cch >= 8)
            return ~std::uint64_t(0);
        if (RTFCONV_LITTLE_ENDIAN)
            return (std::uint64_t(1) << (8 * cch)) - 1;
        return cch == 0 ? 0 : ~std::uint64_t(0) << (8 * (8 - cch));
    }
};

// Open addressing over 512 slots. A word is entered under its first number
// only, so a later row with the same word stays unreachable, as a first-match
// scan of the rows leaves it.
//
// Most control words of a document are in no table, so a miss must be cheap:
// a slot is told apart by the word's first eight bytes and its length, two
// compares, before any byte past the eighth is looked at.
class CKeywordIndex {
public:
    static constexpr int maxNumber = 254;

    // Enters szKeyword (1 to 255 bytes, kept by pointer) as `number` unless
    // it is in already, or the number is out of range.
    constexpr void Add(const char* szKeyword, int number)
    {
        const KeywordKey key = KeywordKey::FromText(szKeyword);
        if (number < 0 || number > maxNumber || key.cch == 0 || key.cch > 255 || Find(key) >= 0)
            return;
        unsigned slot = Hash(key);
        while (m_slots[slot].szKeyword)
            ++slot;
        m_slots[slot] = {szKeyword, key.head, static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(key.cch)};
    }

    // The number of szKeyword; -1 when it is not in.
    constexpr int Find(const char* szKeyword) const { return Find(KeywordKey::FromText(szKeyword)); }

    constexpr int Find(const KeywordKey& key) const
    {
        if (key.cch - 1 > 254)  // 0 wraps round: no word of 1 to 255 bytes
            return -1;
        return FindTokenWord(key);
    }

    // Find for a key the tokenizer made (TokenWordKey), whose length is 1 to
    // CRTFParser::maxKeywordLength already.
    constexpr int FindTokenWord(const KeywordKey& key) const
    {
        // An empty slot has length 0, which no word has: it ends the probe
        // after a compare that fails.
        for (const Slot* s = &m_slots[Hash(key)];; ++s) {
            if (s->head == key.head && s->len == key.cch && KeywordKey::SameTail(s->szKeyword, key.sz, key.cch))
                return s->number;
            if (!s->szKeyword)
                return -1;
        }
    }

private:
    static constexpr unsigned cHashBits = 9;
    static constexpr unsigned cSlots = 1u << cHashBits;  // well above the rows of any table
    // A probe runs on from its slot up to an empty one, never back to the
    // first: past the last slot a hash gives there is room for every word
    // the index can hold and one empty slot more.
    static constexpr unsigned cSlotsPastHashes = maxNumber + 2;

    struct Slot {
        const char* szKeyword = nullptr;  // null: an empty slot
        std::uint64_t head = 0;
        std::uint8_t number = 0;
        std::uint8_t len = 0;
    };

    static constexpr unsigned Hash(const KeywordKey& key) { return KeywordKey::HashBits(key, cHashBits); }

    Slot m_slots[cSlots + cSlotsPastHashes] = {};
};

// Where a word's number is looked for first: one byte for each value of a
// 12-bit hash of the word's key, naming the one word entered under it, or
// none, or several (rare: then the index tells). Most control words of a
// document are in no table (borders, cell and paragraph properties): an
// empty byte, or a word of another key, turns one away with a multiply and a
// load or two, and a word that is in finds its number as quickly, where a
// probe of the index follows slots and compares keys.
class CKeywordFirstLook {
public:
    static constexpr int askIndex = -2;

    // Enters szKeyword as `number`, the index's number of it (-1: the index
    // refused it, which then answers for the word). A word entered again
    // keeps its number.
    constexpr void Add(const char* szKeyword, int number)
    {
        const KeywordKey key = KeywordKey::FromText(szKeyword);
        std::uint8_t& entry = m_entries[SlotOf(key)];
        if (entry == 0 && number >= 0 && number < several - 1) {
            entry = static_cast<std::uint8_t>(number + 1);
            m_keys[number] = key;
        } else if (entry == 0 || (entry != several && !IsKey(m_keys[entry - 1], key))) {
            entry = several;  // a number out of range, or a second word here
        }
    }
    // Sends the word to the index (and a reader's rare cases) always.
    constexpr void AskIndexFor(const char* szKeyword) { m_entries[SlotOf(KeywordKey::FromText(szKeyword))] = several; }
    constexpr void AskIndexForAll()
    {
        for (std::uint8_t& entry : m_entries)
            entry = several;
    }
    // The number of the word of this key; -1 when it is in no table;
    // askIndex when only the index can tell.
    constexpr int Find(const KeywordKey& key) const
    {
        const unsigned entry = m_entries[SlotOf(key)];
        if (entry == 0)
            return -1;
        if (entry == several)
            return askIndex;
        return IsKey(m_keys[entry - 1], key) ? static_cast<int>(entry) - 1 : -1;
    }

private:
    static constexpr unsigned cHashBits = 12;  // some 150 words fill one slot in 27
    static constexpr std::uint8_t several = 255;

    static constexpr unsigned SlotOf(const KeywordKey& key) { return KeywordKey::HashBits(key, cHashBits); }
    static constexpr bool IsKey(const KeywordKey& entered, const KeywordKey& key)
    {
        return entered.head == key.head && entered.cch == key.cch && KeywordKey::SameTail(entered.sz, key.sz, key.cch);
    }

    std::uint8_t m_entries[1u << cHashBits] = {};  // 0: no word; n: number n - 1
    KeywordKey m_keys[several - 1] = {};           // by number
};

// A keyword table's index and its first look, filled together: the first
// look holds every word the index holds, under the same number.
struct CKeywordLookup {
    CKeywordIndex index;
    CKeywordFirstLook firstLook;

    constexpr void Add(const char* szKeyword, int number)
    {
        index.Add(szKeyword, number);
        // Under the number the index gives it, whatever the index made of
        // the row: a word it refused goes to the index again.
        firstLook.Add(szKeyword, index.Find(szKeyword));
    }
    // CKeywordIndex::FindTokenWord, the first look asked first.
    constexpr int FindTokenWord(const KeywordKey& key) const
    {
        const int number = firstLook.Find(key);
        return number != CKeywordFirstLook::askIndex ? number : index.FindTokenWord(key);
    }
};

inline const KeywordKey* CRTFParser::TokenWordKey(const char* szKeyword) const
{
    return m_tokenWord.pKey->sz == szKeyword ? m_tokenWord.pKey : nullptr;
}

} // namespace rtf_converter
