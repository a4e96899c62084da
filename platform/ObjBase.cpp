#include "platform/ObjBase.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace {

// What a global memory handle points at. The block's bytes are all zeroed
// or written; the room allocated beyond them is neither, so that a stream
// growing by small writes neither zeroes what it is about to write nor copies
// its bytes on every growth.
struct GlobalBlock {
    BYTE* pBytes = nullptr; // malloc'ed, never null once made: an empty block has an address too
    std::size_t cb = 0;     // what GlobalSize says
    std::size_t cbRoom = 0; // allocated
    int nLocks = 0;

    GlobalBlock() = default;
    GlobalBlock(const GlobalBlock&) = delete;
    GlobalBlock& operator=(const GlobalBlock&) = delete;
    ~GlobalBlock() { std::free(pBytes); }

    // Room for `cbNeeded` bytes, at least doubling: appends cost amortised
    // constant time, and realloc moves a large block's pages, not its bytes.
    bool MakeRoom(std::size_t cbNeeded)
    {
        if (cbNeeded <= cbRoom && pBytes) return true;
        const std::size_t cbNewRoom = std::max({cbNeeded, cbRoom * 2, std::size_t(64)});
        void* const p = GrowBlock(pBytes, cbNewRoom);
        if (!p) return false;
        pBytes = static_cast<BYTE*>(p);
        cbRoom = cbNewRoom;
        return true;
    }

    // Sets the size. The bytes it adds below `cbZeroTo` are zeroed; those
    // above it the caller is about to write.
    bool Resize(std::size_t cbNew, std::size_t cbZeroTo)
    {
        if (!MakeRoom(cbNew)) return false;
        if (cbNew > cb && cbZeroTo > cb) std::memset(pBytes + cb, 0, std::min(cbNew, cbZeroTo) - cb);
        cb = cbNew;
        return true;
    }
};

GlobalBlock* BlockFromHandle(HGLOBAL h) { return static_cast<GlobalBlock*>(h); }

// A stream over a global memory block. The logical size is kept apart from
// the block's size so that GlobalSize may exceed the stream, as on Windows.
class CHGlobalStream final : public IStream {
public:
    CHGlobalStream(GlobalBlock* pBlock, bool bDeleteOnRelease)
        : m_pBlock(pBlock), m_cbSize(pBlock->cb), m_bDeleteOnRelease(bDeleteOnRelease)
    {
    }

    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override
    {
        ULONG cRef = --m_cRef;
        if (cRef == 0) delete this;
        return cRef;
    }

    HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) override
    {
        if (pcbRead) *pcbRead = 0;
        if (!pv && cb) return STG_E_INVALIDPOINTER;
        ULONG n = static_cast<ULONG>(std::min<std::uint64_t>(cb, Remaining()));
        if (n) std::memcpy(pv, m_pBlock->pBytes + m_pos, n);
        m_pos += n;
        if (pcbRead) *pcbRead = n;
        return S_OK;
    }

    HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) override
    {
        if (pcbWritten) *pcbWritten = 0;
        if (!pv && cb) return STG_E_INVALIDPOINTER;
        if (cb == 0) return S_OK;
        std::uint64_t end = m_pos + cb;
        if (end > m_cbSize) {
            // Only a gap left by a seek past the end is zeroed.
            HRESULT hr = Resize(end, m_pos);
            if (FAILED(hr)) return hr;
        }
        std::memcpy(m_pBlock->pBytes + m_pos, pv, cb);
        m_pos = end;
        if (pcbWritten) *pcbWritten = cb;
        return S_OK;
    }

    HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* pNewPos) override
    {
        std::int64_t base;
        switch (origin) {
        case STREAM_SEEK_SET: base = 0; break;
        case STREAM_SEEK_CUR: base = static_cast<std::int64_t>(m_pos); break;
        case STREAM_SEEK_END: base = static_cast<std::int64_t>(m_cbSize); break;
        default: return STG_E_INVALIDFUNCTION;
        }
        // Positions are limited to 32 bits, as a memory stream's block is.
        constexpr std::int64_t nMaxPos = std::numeric_limits<DWORD>::max();
        if (move.QuadPart > nMaxPos || move.QuadPart < -nMaxPos) return STG_E_INVALIDFUNCTION;
        std::int64_t pos = base + move.QuadPart;
        if (pos < 0 || pos > nMaxPos) return STG_E_INVALIDFUNCTION;
        m_pos = static_cast<std::uint64_t>(pos);
        if (pNewPos) pNewPos->QuadPart = m_pos;
        return S_OK;
    }

    HRESULT SetSize(ULARGE_INTEGER newSize) override
    {
        if (newSize.QuadPart > std::numeric_limits<DWORD>::max()) return STG_E_MEDIUMFULL;
        return Resize(newSize.QuadPart, newSize.QuadPart);
    }

    HRESULT CopyTo(IStream* pDest, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) override
    {
        if (pcbRead) pcbRead->QuadPart = 0;
        if (pcbWritten) pcbWritten->QuadPart = 0;
        if (!pDest) return STG_E_INVALIDPOINTER;
        ULONG n = static_cast<ULONG>(std::min<std::uint64_t>(cb.QuadPart, Remaining()));
        const BYTE* pSource = m_pBlock->pBytes + m_pos;
        // Copying into itself may grow (and move) the very block being read.
        std::vector<BYTE> copy;
        if (pDest == this && n) {
            copy.assign(pSource, pSource + n);
            pSource = copy.data();
        }
        m_pos += n;
        if (pcbRead) pcbRead->QuadPart = n;
        ULONG cbWritten = 0;
        HRESULT hr = n ? pDest->Write(pSource, n, &cbWritten) : S_OK;
        if (pcbWritten) pcbWritten->QuadPart = cbWritten;
        return hr;
    }

    HRESULT Stat(STATSTG* pStat, DWORD /*grfStatFlag*/) override
    {
        if (!pStat) return STG_E_INVALIDPOINTER;
        *pStat = STATSTG{};
        pStat->type = STGTY_STREAM;
        pStat->cbSize.QuadPart = m_cbSize;
        return S_OK;
    }

    HGLOBAL Handle() const { return m_pBlock; }

private:
    ~CHGlobalStream() override
    {
        if (m_bDeleteOnRelease) GlobalFree(m_pBlock);
    }

    std::uint64_t Remaining() const { return m_pos < m_cbSize ? m_cbSize - m_pos : 0; }

    // Sets the logical size; the block grows as needed and shrinks with the
    // stream. Added bytes below `cbZeroTo` are zeroed.
    HRESULT Resize(std::uint64_t cbNew, std::uint64_t cbZeroTo)
    {
        if (cbNew > std::numeric_limits<DWORD>::max()) return STG_E_MEDIUMFULL;
        if (!m_pBlock->Resize(static_cast<std::size_t>(cbNew), static_cast<std::size_t>(cbZeroTo)))
            return E_OUTOFMEMORY;
        m_cbSize = cbNew;
        return S_OK;
    }

    std::atomic<ULONG> m_cRef{1};
    GlobalBlock* m_pBlock;
    std::uint64_t m_cbSize;
    std::uint64_t m_pos = 0;
    bool m_bDeleteOnRelease;
};

} // namespace

namespace {

// The large pages of x86-64 and of most other 64-bit systems. Only a block
// spanning whole large pages can use them; smaller ones are left alone.
constexpr std::uintptr_t kcbLargePage = std::uintptr_t(2) << 20;
// What malloc keeps in front of a block it maps on its own, and more.
constexpr std::uintptr_t kcbBookkeeping = 4096;

#if defined(__linux__) && defined(MADV_HUGEPAGE)
// Asks for a large page at once over the small ones already there (the
// kernel's number, which older C library headers lack).
constexpr int kMadviseCollapse = 25;

// Unless the system's administrator turned large pages off: a collapse is
// done whatever the system's setting, where the advice is not.
bool LargePagesAllowed()
{
    static const bool s_bAllowed = [] {
        std::FILE* f = std::fopen("/sys/kernel/mm/transparent_hugepage/enabled", "r");
        if (!f) return false;
        char setting[128] = {};
        const std::size_t cb = std::fread(setting, 1, sizeof setting - 1, f);
        std::fclose(f);
        return cb > 0 && !std::strstr(setting, "[never]");
    }();
    return s_bAllowed;
}
#endif

} // namespace

void AdviseLargePages(void* p, std::size_t cb)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    // A block that begins just past a boundary, or ends just before one
    // (malloc's bookkeeping, as for a block of LargeBlockSize), is advised
    // to the boundary: that large page is almost all its own.
    const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t begin = (at + kcbLargePage - kcbBookkeeping) & ~(kcbLargePage - 1);
    const std::uintptr_t end = (at + cb + kcbBookkeeping) & ~(kcbLargePage - 1);
    if (!p || end <= begin) return;
    // Advice only: a system without large pages refuses it, and nothing changes.
    (void)::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    // Advice counts from the next page fault on, and malloc has already
    // written its bookkeeping into the first large page as a small page:
    // without a collapse, the rest of it would come a small page at a time.
    if (begin < at && LargePagesAllowed())
        (void)::madvise(reinterpret_cast<void*>(begin), kcbLargePage, kMadviseCollapse);
#else
    (void)p;
    (void)cb;
#endif
}

// malloc serves a large block from a mapping of its own, at most a page
// longer than the block, and the system places a mapping whose length is a
// whole number of large pages on a large-page boundary (moved or not). The
// extra room is address space only until written.
std::size_t LargeBlockSize(std::size_t cb)
{
    if (cb < kcbLargePage || cb > SIZE_MAX - 2 * kcbLargePage) return cb;
    return ((cb + kcbBookkeeping + kcbLargePage - 1) & ~(kcbLargePage - 1)) - kcbBookkeeping;
}

void* GrowBlock(void* p, std::size_t cbNew)
{
    const std::size_t cbRequest = LargeBlockSize(cbNew);
    void* const pNew = std::realloc(p, cbRequest);
    if (pNew) AdviseLargePages(pNew, cbRequest);
    return pNew;
}

HGLOBAL GlobalAlloc(UINT /*flags*/, std::size_t size)
{
    GlobalBlock* pBlock = new (std::nothrow) GlobalBlock;
    if (!pBlock || !pBlock->Resize(size, size)) {
        delete pBlock;
        return nullptr;
    }
    return pBlock;
}

HGLOBAL GlobalFree(HGLOBAL hMem)
{
    delete BlockFromHandle(hMem);
    return nullptr;
}

void* GlobalLock(HGLOBAL hMem)
{
    GlobalBlock* pBlock = BlockFromHandle(hMem);
    if (!pBlock) return nullptr;
    ++pBlock->nLocks;
    return pBlock->pBytes; // an empty block's too is a usable, distinct address
}

BOOL GlobalUnlock(HGLOBAL hMem)
{
    GlobalBlock* pBlock = BlockFromHandle(hMem);
    if (!pBlock || pBlock->nLocks == 0) return FALSE;
    return --pBlock->nLocks > 0 ? TRUE : FALSE;
}

std::size_t GlobalSize(HGLOBAL hMem)
{
    GlobalBlock* pBlock = BlockFromHandle(hMem);
    return pBlock ? pBlock->cb : 0;
}

HRESULT CreateStreamOnHGlobal(HGLOBAL hGlobal, BOOL fDeleteOnRelease, IStream** ppstm)
{
    if (!ppstm) return E_INVALIDARG;
    *ppstm = nullptr;
    bool bNewBlock = hGlobal == nullptr;
    if (bNewBlock) {
        hGlobal = GlobalAlloc(GMEM_MOVEABLE, 0);
        if (!hGlobal) return E_OUTOFMEMORY;
    }
    try {
        *ppstm = new CHGlobalStream(BlockFromHandle(hGlobal), fDeleteOnRelease != FALSE);
    } catch (const std::bad_alloc&) {
        if (bNewBlock) GlobalFree(hGlobal);
        return E_OUTOFMEMORY;
    }
    return S_OK;
}

HRESULT GetHGlobalFromStream(IStream* pstm, HGLOBAL* phglobal)
{
    if (!phglobal) return E_INVALIDARG;
    *phglobal = nullptr;
    auto* pMemoryStream = dynamic_cast<CHGlobalStream*>(pstm);
    if (!pMemoryStream) return E_INVALIDARG;
    *phglobal = pMemoryStream->Handle();
    return S_OK;
}
