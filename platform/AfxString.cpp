#include "AfxString.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "AfxExceptions.h"

namespace {

int CompareBytes(const char* a, const char* b, bool bFoldCase)
{
    const unsigned char* pa = reinterpret_cast<const unsigned char*>(a);
    const unsigned char* pb = reinterpret_cast<const unsigned char*>(b ? b : "");
    for (;; ++pa, ++pb) {
        unsigned ca = *pa, cb = *pb;
        if (bFoldCase) {
            if (ca >= 'A' && ca <= 'Z') ca += 'a' - 'A';
            if (cb >= 'A' && cb <= 'Z') cb += 'a' - 'A';
        }
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) return 0;
    }
}

bool IsSpace(char ch) { return ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n' || ch == '\v' || ch == '\f'; }

} // namespace

char CString::GetAt(int nIndex) const
{
    if (nIndex < 0 || nIndex >= GetLength())
        AfxThrowInvalidArgException();
    return m_str[static_cast<std::size_t>(nIndex)];
}

void CString::SetAt(int nIndex, char ch)
{
    if (nIndex < 0 || nIndex >= GetLength())
        AfxThrowInvalidArgException();
    m_str[static_cast<std::size_t>(nIndex)] = ch;
}

int CString::Compare(const char* psz) const { return CompareBytes(m_str.c_str(), psz, false); }
int CString::CompareNoCase(const char* psz) const { return CompareBytes(m_str.c_str(), psz, true); }

int CString::Find(char ch, int nStart) const
{
    if (nStart < 0 || nStart >= GetLength()) return -1;
    std::size_t pos = m_str.find(ch, static_cast<std::size_t>(nStart));
    return pos == std::string::npos ? -1 : static_cast<int>(pos);
}

int CString::Find(const char* pszSub, int nStart) const
{
    if (!pszSub || nStart < 0 || nStart > GetLength()) return -1;
    std::size_t pos = m_str.find(pszSub, static_cast<std::size_t>(nStart));
    return pos == std::string::npos ? -1 : static_cast<int>(pos);
}

int CString::ReverseFind(char ch) const
{
    std::size_t pos = m_str.rfind(ch);
    return pos == std::string::npos ? -1 : static_cast<int>(pos);
}

int CString::FindOneOf(const char* pszCharSet) const
{
    if (!pszCharSet) return -1;
    std::size_t pos = m_str.find_first_of(pszCharSet);
    return pos == std::string::npos ? -1 : static_cast<int>(pos);
}

int CString::Replace(char chOld, char chNew)
{
    int n = 0;
    for (char& c : m_str)
        if (c == chOld) { c = chNew; ++n; }
    return n;
}

int CString::Replace(const char* pszOld, const char* pszNew)
{
    if (!pszOld || !*pszOld) return 0;
    const std::size_t oldLen = std::strlen(pszOld);
    const std::string repl = pszNew ? pszNew : "";
    std::string out;
    int n = 0;
    std::size_t from = 0;
    for (std::size_t pos; (pos = m_str.find(pszOld, from, oldLen)) != std::string::npos; from = pos + oldLen) {
        out.append(m_str, from, pos - from);
        out += repl;
        ++n;
    }
    if (n) {
        out.append(m_str, from, std::string::npos);
        m_str.swap(out);
    }
    return n;
}

int CString::Insert(int nIndex, char ch)
{
    std::size_t at = static_cast<std::size_t>(std::clamp(nIndex, 0, GetLength()));
    m_str.insert(at, 1, ch);
    return GetLength();
}

int CString::Insert(int nIndex, const char* psz)
{
    std::size_t at = static_cast<std::size_t>(std::clamp(nIndex, 0, GetLength()));
    if (psz) m_str.insert(at, psz);
    return GetLength();
}

int CString::Delete(int nIndex, int nCount)
{
    if (nIndex < 0) nIndex = 0;
    if (nCount > 0 && nIndex < GetLength())
        m_str.erase(static_cast<std::size_t>(nIndex), static_cast<std::size_t>(std::min(nCount, GetLength() - nIndex)));
    return GetLength();
}

CString CString::Mid(int nFirst) const { return Mid(nFirst, GetLength()); }

CString CString::Mid(int nFirst, int nCount) const
{
    nFirst = std::clamp(nFirst, 0, GetLength());
    nCount = std::clamp(nCount, 0, GetLength() - nFirst);
    return CString(m_str.data() + nFirst, nCount);
}

CString CString::Left(int nCount) const { return Mid(0, nCount); }

CString CString::Right(int nCount) const
{
    nCount = std::clamp(nCount, 0, GetLength());
    return Mid(GetLength() - nCount, nCount);
}

CString& CString::MakeUpper()
{
    for (char& c : m_str)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return *this;
}

CString& CString::MakeLower()
{
    for (char& c : m_str)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return *this;
}

CString& CString::TrimLeft()
{
    std::size_t n = 0;
    while (n < m_str.size() && IsSpace(m_str[n])) ++n;
    m_str.erase(0, n);
    return *this;
}

CString& CString::TrimRight()
{
    while (!m_str.empty() && IsSpace(m_str.back())) m_str.pop_back();
    return *this;
}

CString& CString::Trim() { return TrimRight().TrimLeft(); }

void CString::FormatV(const char* pszFormat, va_list args)
{
    m_str.clear();
    AppendFormatV(pszFormat, args);
}

void CString::AppendFormatV(const char* pszFormat, va_list args)
{
    if (!pszFormat) return;
    char small[256];
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(small, sizeof small, pszFormat, copy);
    va_end(copy);
    if (n < 0) return;
    if (static_cast<std::size_t>(n) < sizeof small) {
        m_str.append(small, static_cast<std::size_t>(n));
        return;
    }
    std::vector<char> big(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(big.data(), big.size(), pszFormat, args);
    m_str.append(big.data(), static_cast<std::size_t>(n));
}

void CString::Format(const char* pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    FormatV(pszFormat, args);
    va_end(args);
}

void CString::AppendFormat(const char* pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    AppendFormatV(pszFormat, args);
    va_end(args);
}

char* CString::GetBuffer(int nMinBufLength)
{
    if (nMinBufLength > GetLength())
        m_str.resize(static_cast<std::size_t>(nMinBufLength));
    return &m_str[0];
}

char* CString::GetBufferSetLength(int nNewLength)
{
    m_str.resize(static_cast<std::size_t>(std::max(nNewLength, 0)));
    return &m_str[0];
}

void CString::ReleaseBuffer(int nNewLength)
{
    if (nNewLength < 0)
        m_str.resize(std::strlen(m_str.c_str()));
    else
        m_str.resize(static_cast<std::size_t>(std::min(nNewLength, GetLength())));
}
