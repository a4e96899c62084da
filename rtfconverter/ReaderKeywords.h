// The stock readers' keyword work for a word the tokenizer read, inlined
// into the parse loop that runs for exactly those readers: the base reader's
// row for the word and the UTF-8 reader's number for it, with the words that
// do nothing passed over. Kept apart from the index, which knows no reader.
// Inside the library only.
#pragma once

#include "rtfconverter/BaseRTFParser.h"
#include "rtfconverter/KeywordIndex.h"
#include "rtfconverter/RtfToUtf8.h"

namespace rtf_converter {

inline int CBaseRTFParser::TokenWordRow(const KeywordKey& key) const
{
    // Inside a skipped destination nothing is looked up: neither \' escapes
    // nor \bin counts are honoured there, and \* is not marked.
    if (m_rds == rdsSkip)
        return passOver;
    // A word in no row (most words of a document) only ends a pending \*.
    const int row = s_keywordLookup.FindTokenWord(key);
    return row < 0 && !m_bOptionalDest ? passOver : row;
}

inline bool CBaseRTFParser::TranslateTokenWordKey(const KeywordKey& key, int param)
{
    const int row = TokenWordRow(key);
    return row == passOver || DispatchRow(row, key.sz, param);
}

inline int CRTFToUTF8Parser::TokenWordNumber(const KeywordKey& key)
{
    // A word met while a \uN fallback is being skipped counts as a
    // fallback character: a rare case.
    if (m_cchUnicodeSkip > 0)
        return CKeywordFirstLook::askIndex;
    const int number = m_pFirstLook->Find(key);
    // A word in neither table (most words of a document) only ends a
    // pending \*; so do the words whose handlers do nothing here (\b, \fs,
    // \cf, ...), and inside a skipped destination nearly every word.
    if (m_bOptionalDest || number == CKeywordFirstLook::askIndex)
        return number;
    if (number == -1 || (m_pNoEffect[number] & (m_rds == rdsSkip ? noEffectInSkip : noEffectOutsideSkip))) {
        m_bAtGroupStart = false;
        return passOver;
    }
    return number;
}

inline bool CRTFToUTF8Parser::TakesHexEscapeRow(const KeywordKey& key)
{
    const int number = TokenWordNumber(key);
    if (number < m_cOwnKeywords || m_rds == rdsSkip)
        return false;
    if (s_Cmds[number - m_cOwnKeywords].pfnHandler != &CRTFToUTF8Parser::ProcessSpecialChar)
        return false;
    m_bAtGroupStart = false;
    return true;
}

} // namespace rtf_converter
