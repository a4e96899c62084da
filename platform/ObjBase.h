// COM structured storage as the library uses it: the reference-counted stream
// interface, memory blocks addressed by handle, memory streams over them, and a
// smart pointer for stream references.
//
// A memory stream keeps its bytes in a global memory block from offset 0; the
// block may be larger than the stream (GlobalSize >= stream size). Writing past
// the end grows the block; seeking past the end is allowed and a later write
// fills the gap with zero bytes.
#pragma once
#include "rtfconverter/Export.h"

#include <cstddef>
#include <utility>

#include "WinTypes.h"

// --- global memory blocks ---------------------------------------------------

typedef void* HGLOBAL;

#define GMEM_FIXED 0x0000u
#define GMEM_MOVEABLE 0x0002u
#define GMEM_ZEROINIT 0x0040u
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)

// A new block of `size` bytes (zeroed: this layer never hands out
// uninitialised memory), or null when memory runs out.
RTFCONV_API HGLOBAL GlobalAlloc(UINT flags, std::size_t size);
// Frees the block; returns null on success (as Windows does), the handle when
// it is in use by a stream that still owns it is not checked.
RTFCONV_API HGLOBAL GlobalFree(HGLOBAL hMem);
// The block's bytes; null for a null handle. Each lock must be undone by
// GlobalUnlock; the address stays valid until the block is resized.
RTFCONV_API void* GlobalLock(HGLOBAL hMem);
// FALSE once the lock count reaches zero (as Windows reports it).
RTFCONV_API BOOL GlobalUnlock(HGLOBAL hMem);
// The block's size in bytes; 0 for a null handle.
RTFCONV_API std::size_t GlobalSize(HGLOBAL hMem);

// --- large blocks -------------------------------------------------------------

// std::realloc for a block that may grow large and is filled from front to
// back (a document being made). Where the system can back such a block by
// large pages it is asked to, from its first byte: filling it then costs a
// page fault per large page rather than per small one. A large block gets
// the room of LargeBlockSize(cbNew). Free the block with std::free.
RTFCONV_API void* GrowBlock(void* p, std::size_t cbNew);
// The same request for a block allocated otherwise (a string's reserved
// room); a hint only, that changes nothing of the block's contents.
RTFCONV_API void AdviseLargePages(void* p, std::size_t cb);
// What to ask malloc (or a string's reserve, less its NUL) for, for a block
// of at least cb bytes to be advised as above: a large block in this size
// begins on a large page, so that its first one can be large too. cb itself
// when it is smaller than a large page.
RTFCONV_API std::size_t LargeBlockSize(std::size_t cb);

// --- streams ------------------------------------------------------------------

enum STREAM_SEEK : DWORD {
    STREAM_SEEK_SET = 0,
    STREAM_SEEK_CUR = 1,
    STREAM_SEEK_END = 2
};

enum STATFLAG : DWORD {
    STATFLAG_DEFAULT = 0,
    STATFLAG_NONAME = 1
};

enum STGTY : DWORD {
    STGTY_STORAGE = 1,
    STGTY_STREAM = 2,
    STGTY_LOCKBYTES = 3,
    STGTY_PROPERTY = 4
};

struct STATSTG {
    wchar_t* pwcsName = nullptr; // memory streams have no name
    DWORD type = 0;              // STGTY_*
    ULARGE_INTEGER cbSize{};     // the stream's size in bytes
    DWORD grfMode = 0;
};

// The stream interface. Objects are reference counted: the creator holds one
// reference; AddRef/Release return the new count and the last Release deletes
// the object (hence the protected destructor). Out-parameters of counts and
// positions may be null.
class RTFCONV_API IStream {
public:
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;
    virtual HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) = 0;
    virtual HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) = 0;
    virtual HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* pNewPos) = 0;
    virtual HRESULT SetSize(ULARGE_INTEGER newSize) = 0;
    virtual HRESULT CopyTo(IStream* pDest, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) = 0;
    virtual HRESULT Stat(STATSTG* pStat, DWORD grfStatFlag) = 0;

protected:
    virtual ~IStream() = default;
};

// A memory stream over `hGlobal`, whose current size becomes the stream's
// size; with `hGlobal` null, a new empty growable block. With
// `fDeleteOnRelease` the block is freed with the stream's last Release.
// Returns E_INVALIDARG for a null `ppstm`, E_OUTOFMEMORY when memory runs out.
RTFCONV_API HRESULT CreateStreamOnHGlobal(HGLOBAL hGlobal, BOOL fDeleteOnRelease, IStream** ppstm);
// The block under a stream made by CreateStreamOnHGlobal; E_INVALIDARG for any
// other stream or a null argument.
RTFCONV_API HRESULT GetHGlobalFromStream(IStream* pstm, HGLOBAL* phglobal);

// --- smart pointer ------------------------------------------------------------

// Holds one reference on a COM object. `Release()` resets the pointer first and
// then releases the reference it held, so that the object is never reachable
// through the smart pointer while it is being destroyed and a second Release()
// is harmless. `operator&` hands out the address for creation functions; it
// releases a reference still held, which would otherwise leak.
template <class T>
class CComPtr {
public:
    CComPtr() noexcept = default;
    CComPtr(T* p) noexcept : m_p(p)
    {
        if (m_p) m_p->AddRef();
    }
    CComPtr(const CComPtr& other) noexcept : CComPtr(other.m_p) {}
    CComPtr(CComPtr&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
    ~CComPtr() { Release(); }

    CComPtr& operator=(T* p) noexcept
    {
        if (p) p->AddRef();
        T* pOld = std::exchange(m_p, p);
        if (pOld) pOld->Release();
        return *this;
    }
    CComPtr& operator=(const CComPtr& other) noexcept { return *this = other.m_p; }
    CComPtr& operator=(CComPtr&& other) noexcept
    {
        if (this != &other) {
            Release();
            m_p = std::exchange(other.m_p, nullptr);
        }
        return *this;
    }

    void Release() noexcept
    {
        T* pOld = std::exchange(m_p, nullptr);
        if (pOld) pOld->Release();
    }
    // Takes over a reference the caller already owns.
    void Attach(T* p) noexcept
    {
        Release();
        m_p = p;
    }
    // Gives up the reference without releasing it.
    T* Detach() noexcept { return std::exchange(m_p, nullptr); }

    T** operator&() noexcept
    {
        Release();
        return &m_p;
    }
    T* operator->() const noexcept { return m_p; }
    operator T*() const noexcept { return m_p; }
    bool operator!() const noexcept { return m_p == nullptr; }

private:
    T* m_p = nullptr;
};
