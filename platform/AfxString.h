// CString: the framework's counted string of 8-bit characters.
//
// Bytes are kept exactly as given (the library never converts code pages); the
// string is always NUL-terminated for `GetString()` and `operator const char*`.
// Comparisons are byte-wise on unsigned bytes; CompareNoCase folds ASCII letters
// only, so bytes above 0x7F compare as themselves whatever the locale.
// Out of memory raises std::bad_alloc.
#pragma once
#include "rtfconverter/Export.h"

#include <cstdarg>
#include <string>

class RTFCONV_API CString {
public:
    CString() = default;
    CString(const CString&) = default;
    CString(CString&&) noexcept = default;
    CString(const char* psz) : m_str(psz ? psz : "") {}
    CString(const unsigned char* psz) : CString(reinterpret_cast<const char*>(psz)) {}
    CString(const char* pch, int nLength) : m_str(pch ? pch : "", pch && nLength > 0 ? static_cast<std::size_t>(nLength) : 0) {}
    explicit CString(char ch, int nRepeat = 1) : m_str(nRepeat > 0 ? static_cast<std::size_t>(nRepeat) : 0, ch) {}

    CString& operator=(const CString&) = default;
    CString& operator=(CString&&) noexcept = default;
    CString& operator=(const char* psz) { m_str.assign(psz ? psz : ""); return *this; }
    CString& operator=(char ch) { m_str.assign(1, ch); return *this; }

    int GetLength() const { return static_cast<int>(m_str.size()); }
    bool IsEmpty() const { return m_str.empty(); }
    void Empty() { m_str.clear(); }
    const char* GetString() const { return m_str.c_str(); }
    operator const char*() const { return m_str.c_str(); }

    // Out-of-range indexes raise CInvalidArgException.
    char GetAt(int nIndex) const;
    void SetAt(int nIndex, char ch);
    char operator[](int nIndex) const { return GetAt(nIndex); }

    CString& operator+=(const CString& s) { m_str += s.m_str; return *this; }
    CString& operator+=(const char* psz) { if (psz) m_str += psz; return *this; }
    CString& operator+=(char ch) { m_str += ch; return *this; }
    void Append(const char* pch, int nLength) { if (pch && nLength > 0) m_str.append(pch, static_cast<std::size_t>(nLength)); }
    void AppendChar(char ch) { m_str += ch; }

    friend CString operator+(const CString& a, const CString& b) { CString r(a); r += b; return r; }
    friend CString operator+(const CString& a, const char* b) { CString r(a); r += b; return r; }
    friend CString operator+(const char* a, const CString& b) { CString r(a); r += b; return r; }
    friend CString operator+(const CString& a, char b) { CString r(a); r += b; return r; }
    friend CString operator+(char a, const CString& b) { CString r(a); r += b; return r; }

    // <0, 0, >0 as strcmp on unsigned bytes.
    int Compare(const char* psz) const;
    int CompareNoCase(const char* psz) const;

    friend bool operator==(const CString& a, const CString& b) { return a.m_str == b.m_str; }
    friend bool operator==(const CString& a, const char* b) { return a.Compare(b) == 0; }
    friend bool operator==(const char* a, const CString& b) { return b.Compare(a) == 0; }
    friend bool operator!=(const CString& a, const CString& b) { return !(a == b); }
    friend bool operator!=(const CString& a, const char* b) { return !(a == b); }
    friend bool operator!=(const char* a, const CString& b) { return !(a == b); }
    friend bool operator<(const CString& a, const CString& b) { return a.Compare(b) < 0; }

    // -1 when not found (or when nStart is past the end).
    int Find(char ch, int nStart = 0) const;
    int Find(const char* pszSub, int nStart = 0) const;
    int ReverseFind(char ch) const;
    int FindOneOf(const char* pszCharSet) const;

    // Number of replacements made.
    int Replace(char chOld, char chNew);
    int Replace(const char* pszOld, const char* pszNew);
    // New length. An index past the end appends.
    int Insert(int nIndex, char ch);
    int Insert(int nIndex, const char* psz);
    // New length. Deletes what exists of [nIndex, nIndex + nCount).
    int Delete(int nIndex, int nCount = 1);

    CString Mid(int nFirst) const;
    CString Mid(int nFirst, int nCount) const;
    CString Left(int nCount) const;
    CString Right(int nCount) const;

    CString& MakeUpper();
    CString& MakeLower();
    CString& Trim();
    CString& TrimLeft();
    CString& TrimRight();

    void Format(const char* pszFormat, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    void AppendFormat(const char* pszFormat, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    void FormatV(const char* pszFormat, va_list args);
    void AppendFormatV(const char* pszFormat, va_list args);

    // Gives a writable buffer of at least nMinBufLength characters plus a NUL.
    // ReleaseBuffer(-1) takes the text up to the first NUL; ReleaseBuffer(n)
    // keeps exactly n characters.
    char* GetBuffer(int nMinBufLength = 0);
    char* GetBufferSetLength(int nNewLength);
    void ReleaseBuffer(int nNewLength = -1);
    void Preallocate(int nLength) { if (nLength > 0) m_str.reserve(static_cast<std::size_t>(nLength)); }

    const std::string& str() const { return m_str; }

private:
    std::string m_str;
};
