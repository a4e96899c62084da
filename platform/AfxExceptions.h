// The framework's exception classes and raisers.
//
// Exceptions are C++ exceptions thrown BY VALUE: catch them as
// `const CException&` (or a derived class), or with `catch (...)`. Nothing is
// allocated on the heap for them, so nothing can leak whichever way they are
// caught.
#pragma once
#include "rtfconverter/Export.h"

#include "WinTypes.h"

class RTFCONV_API CException {
public:
    virtual ~CException() = default;
    // A short English description, for messages and logs.
    virtual const char* GetErrorText() const { return "framework exception"; }
};

// Raised on every indexed access outside a collection's bounds, and on invalid
// arguments to framework functions.
class RTFCONV_API CInvalidArgException : public CException {
public:
    const char* GetErrorText() const override { return "invalid argument"; }
};

class RTFCONV_API CMemoryException : public CException {
public:
    const char* GetErrorText() const override { return "out of memory"; }
};

class RTFCONV_API COleException : public CException {
public:
    explicit COleException(HRESULT sc) : m_sc(sc) {}
    const char* GetErrorText() const override { return "OLE failure"; }
    HRESULT m_sc;
};

[[noreturn]] RTFCONV_API void AfxThrowInvalidArgException();
[[noreturn]] RTFCONV_API void AfxThrowMemoryException();
[[noreturn]] RTFCONV_API void AfxThrowOleException(HRESULT sc);
