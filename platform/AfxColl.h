// The framework's dynamic array. Every indexed access outside 0 .. size-1 raises
// CInvalidArgException, as the framework does in its checked builds; the
// converters rely on that to turn bad table indexes into an exception rather
// than a stray memory access.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "AfxExceptions.h"
#include "WinTypes.h"

typedef std::ptrdiff_t INT_PTR;

template <class TYPE, class ARG_TYPE = const TYPE&>
class CArray {
public:
    CArray() = default;

    INT_PTR GetSize() const { return static_cast<INT_PTR>(m_data.size()); }
    INT_PTR GetCount() const { return GetSize(); }
    INT_PTR GetUpperBound() const { return GetSize() - 1; }
    bool IsEmpty() const { return m_data.empty(); }

    void SetSize(INT_PTR nNewSize, INT_PTR nGrowBy = -1)
    {
        (void)nGrowBy;
        if (nNewSize < 0)
            AfxThrowInvalidArgException();
        m_data.resize(static_cast<std::size_t>(nNewSize));
    }

    INT_PTR Add(ARG_TYPE newElement)
    {
        m_data.push_back(newElement);
        return GetSize() - 1;
    }

    void InsertAt(INT_PTR nIndex, ARG_TYPE newElement, INT_PTR nCount = 1)
    {
        if (nIndex < 0 || nCount < 0)
            AfxThrowInvalidArgException();
        if (nIndex > GetSize())
            SetSize(nIndex);
        m_data.insert(m_data.begin() + nIndex, static_cast<std::size_t>(nCount), TYPE(newElement));
    }

    void RemoveAt(INT_PTR nIndex, INT_PTR nCount = 1)
    {
        if (nIndex < 0 || nCount < 0 || nIndex + nCount > GetSize())
            AfxThrowInvalidArgException();
        m_data.erase(m_data.begin() + nIndex, m_data.begin() + nIndex + nCount);
    }

    void RemoveAll() { m_data.clear(); }

    const TYPE& GetAt(INT_PTR nIndex) const { return m_data[Checked(nIndex)]; }
    TYPE& GetAt(INT_PTR nIndex) { return m_data[Checked(nIndex)]; }
    void SetAt(INT_PTR nIndex, ARG_TYPE newElement) { m_data[Checked(nIndex)] = newElement; }
    TYPE& ElementAt(INT_PTR nIndex) { return m_data[Checked(nIndex)]; }
    const TYPE& ElementAt(INT_PTR nIndex) const { return m_data[Checked(nIndex)]; }
    TYPE& operator[](INT_PTR nIndex) { return m_data[Checked(nIndex)]; }
    const TYPE& operator[](INT_PTR nIndex) const { return m_data[Checked(nIndex)]; }

    TYPE* GetData() { return m_data.empty() ? nullptr : m_data.data(); }
    const TYPE* GetData() const { return m_data.empty() ? nullptr : m_data.data(); }

    void Copy(const CArray& src) { m_data = src.m_data; }
    INT_PTR Append(const CArray& src)
    {
        INT_PTR old = GetSize();
        m_data.insert(m_data.end(), src.m_data.begin(), src.m_data.end());
        return old;
    }

private:
    std::size_t Checked(INT_PTR nIndex) const
    {
        if (nIndex < 0 || nIndex >= GetSize())
            AfxThrowInvalidArgException();
        return static_cast<std::size_t>(nIndex);
    }

    std::vector<TYPE> m_data;
};

class CDWordArray : public CArray<DWORD, DWORD> {};
