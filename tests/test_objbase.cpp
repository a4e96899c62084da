// Memory streams, global memory blocks, the stream smart pointer and the host's
// exception raiser.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include <cstring>
#include <string>

#include "hostlibs/KVBase.h"
#include "platform/ObjBase.h"

namespace {

LARGE_INTEGER Li(std::int64_t v)
{
    LARGE_INTEGER li;
    li.QuadPart = v;
    return li;
}
ULARGE_INTEGER Uli(std::uint64_t v)
{
    ULARGE_INTEGER uli;
    uli.QuadPart = v;
    return uli;
}

std::string StreamBytes(IStream* p)
{
    HGLOBAL h = nullptr;
    EXPECT_EQ(GetHGlobalFromStream(p, &h), S_OK);
    STATSTG st;
    EXPECT_EQ(p->Stat(&st, STATFLAG_NONAME), S_OK);
    std::string s(static_cast<const char*>(GlobalLock(h)), static_cast<std::size_t>(st.cbSize.QuadPart));
    GlobalUnlock(h);
    return s;
}

CComPtr<IStream> NewStream()
{
    CComPtr<IStream> p;
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, &p), S_OK);
    return p;
}

// Counts its life: AddRef/Release/delete, to check the smart pointer.
class CCountingStream : public IStream {
public:
    explicit CCountingStream(int& nDeleted) : m_nDeleted(nDeleted) {}
    ULONG AddRef() override { return ++m_cRef; }
    ULONG Release() override
    {
        ULONG c = --m_cRef;
        if (c == 0) delete this;
        return c;
    }
    HRESULT Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Write(const void*, ULONG, ULONG*) override { return STG_E_WRITEFAULT; }
    HRESULT Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    ULONG m_cRef = 1;

private:
    ~CCountingStream() override { ++m_nDeleted; }
    int& m_nDeleted;
};

} // namespace

TEST(MemoryStream, WriteSeekReadAndGrowth)
{
    CComPtr<IStream> p = NewStream();
    ULONG n = 99;
    ASSERT_EQ(p->Write("hello", 5, &n), S_OK);
    EXPECT_EQ(n, 5u);
    ASSERT_EQ(p->Write(" world", 6, nullptr), S_OK);

    ULARGE_INTEGER pos;
    ASSERT_EQ(p->Seek(Li(0), STREAM_SEEK_CUR, &pos), S_OK);
    EXPECT_EQ(pos.QuadPart, 11u);
    ASSERT_EQ(p->Seek(Li(-5), STREAM_SEEK_END, &pos), S_OK);
    EXPECT_EQ(pos.QuadPart, 6u);

    char buf[16] = {};
    ASSERT_EQ(p->Read(buf, sizeof buf, &n), S_OK); // a short read is not an error
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(std::string(buf, n), "world");
    ASSERT_EQ(p->Read(buf, 4, &n), S_OK);
    EXPECT_EQ(n, 0u);

    // Overwrite in the middle, then write past the end after a seek: zero gap.
    ASSERT_EQ(p->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(p->Write("J", 1, nullptr), S_OK);
    ASSERT_EQ(p->Seek(Li(13), STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(p->Write("!", 1, nullptr), S_OK);
    EXPECT_EQ(StreamBytes(p), std::string("Jello world\0\0!", 14));

    // Invalid seeks leave the position alone.
    EXPECT_EQ(p->Seek(Li(-1), STREAM_SEEK_SET, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(p->Seek(Li(INT64_MIN), STREAM_SEEK_END, nullptr), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(p->Seek(Li(0), 7, nullptr), STG_E_INVALIDFUNCTION);
    ASSERT_EQ(p->Seek(Li(0), STREAM_SEEK_CUR, &pos), S_OK);
    EXPECT_EQ(pos.QuadPart, 14u);

    // A large body of small writes.
    std::string expected = StreamBytes(p);
    for (int i = 0; i < 100000; ++i) {
        char c = static_cast<char>('a' + i % 26);
        ASSERT_EQ(p->Write(&c, 1, nullptr), S_OK);
        expected += c;
    }
    EXPECT_EQ(StreamBytes(p), expected);
}

TEST(MemoryStream, SetSizeStatAndTheBlockView)
{
    CComPtr<IStream> p = NewStream();
    STATSTG st;
    ASSERT_EQ(p->Stat(&st, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(st.cbSize.QuadPart, 0u);
    EXPECT_EQ(st.type, static_cast<DWORD>(STGTY_STREAM));
    EXPECT_EQ(st.pwcsName, nullptr);

    ASSERT_EQ(p->Write("abcdef", 6, nullptr), S_OK);
    ASSERT_EQ(p->SetSize(Uli(3)), S_OK);
    ASSERT_EQ(p->Stat(&st, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(st.cbSize.QuadPart, 3u);
    EXPECT_EQ(StreamBytes(p), "abc");
    ASSERT_EQ(p->SetSize(Uli(5)), S_OK);
    EXPECT_EQ(StreamBytes(p), std::string("abc\0\0", 5));

    HGLOBAL h = nullptr;
    ASSERT_EQ(GetHGlobalFromStream(p, &h), S_OK);
    EXPECT_GE(GlobalSize(h), 5u);

    EXPECT_EQ(GetHGlobalFromStream(p, nullptr), E_INVALIDARG);
    EXPECT_EQ(GetHGlobalFromStream(nullptr, &h), E_INVALIDARG);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(p->Stat(nullptr, STATFLAG_DEFAULT), STG_E_INVALIDPOINTER);
}

// The block keeps its room when the stream shrinks: growing again, by SetSize
// or by a write past a gap, must show zeros, never the bytes that were there.
TEST(MemoryStream, RegrowingShowsZerosNotOldBytes)
{
    CComPtr<IStream> p = NewStream();
    ASSERT_EQ(p->Write("abcdefgh", 8, nullptr), S_OK);
    ASSERT_EQ(p->SetSize(Uli(2)), S_OK);
    ASSERT_EQ(p->Seek(Li(5), STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(p->Write("X", 1, nullptr), S_OK);
    EXPECT_EQ(StreamBytes(p), std::string("ab\0\0\0X", 6));
    ASSERT_EQ(p->SetSize(Uli(1)), S_OK);
    ASSERT_EQ(p->SetSize(Uli(4)), S_OK);
    EXPECT_EQ(StreamBytes(p), std::string("a\0\0\0", 4));

    HGLOBAL h = GlobalAlloc(GMEM_FIXED, 3);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(std::string(static_cast<const char*>(GlobalLock(h)), GlobalSize(h)), std::string(3, '\0'));
    GlobalUnlock(h);
    GlobalFree(h);
}

TEST(MemoryStream, OverACallersBlock)
{
    HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE, 4);
    ASSERT_NE(h, nullptr);
    std::memcpy(GlobalLock(h), "WXYZ", 4);
    EXPECT_FALSE(GlobalUnlock(h));
    {
        CComPtr<IStream> p;
        ASSERT_EQ(CreateStreamOnHGlobal(h, FALSE, &p), S_OK);
        char buf[4];
        ULONG n = 0;
        ASSERT_EQ(p->Read(buf, 4, &n), S_OK); // the block's size is the stream's size
        EXPECT_EQ(std::string(buf, n), "WXYZ");
        ASSERT_EQ(p->Write("!", 1, nullptr), S_OK);
        HGLOBAL hFromStream = nullptr;
        ASSERT_EQ(GetHGlobalFromStream(p, &hFromStream), S_OK);
        EXPECT_EQ(hFromStream, h);
    }
    // Not deleted on release: the block is still ours.
    EXPECT_EQ(std::string(static_cast<const char*>(GlobalLock(h)), 5), "WXYZ!");
    GlobalUnlock(h);
    EXPECT_EQ(GlobalFree(h), nullptr);
    EXPECT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, nullptr), E_INVALIDARG);
}

TEST(MemoryStream, CopyTo)
{
    CComPtr<IStream> src = NewStream();
    CComPtr<IStream> dst = NewStream();
    ASSERT_EQ(src->Write("0123456789", 10, nullptr), S_OK);
    ASSERT_EQ(src->Seek(Li(2), STREAM_SEEK_SET, nullptr), S_OK);
    ULARGE_INTEGER cbRead, cbWritten;
    ASSERT_EQ(src->CopyTo(dst, Uli(5), &cbRead, &cbWritten), S_OK);
    EXPECT_EQ(cbRead.QuadPart, 5u);
    EXPECT_EQ(cbWritten.QuadPart, 5u);
    EXPECT_EQ(StreamBytes(dst), "23456");
    // More than remains: copies the rest and advances the source.
    ASSERT_EQ(src->CopyTo(dst, Uli(100), &cbRead, nullptr), S_OK);
    EXPECT_EQ(cbRead.QuadPart, 3u);
    EXPECT_EQ(StreamBytes(dst), "23456789");
    ASSERT_EQ(src->CopyTo(dst, Uli(100), &cbRead, &cbWritten), S_OK);
    EXPECT_EQ(cbRead.QuadPart, 0u);

    // Into itself: appends a copy of its own bytes.
    ASSERT_EQ(src->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
    ASSERT_EQ(src->CopyTo(src, Uli(10), nullptr, nullptr), S_OK);
    EXPECT_EQ(StreamBytes(src), "01234567890123456789");

    // A destination that rejects writes passes its failure back.
    int nDeleted = 0;
    auto* pFailing = new CCountingStream(nDeleted);
    ASSERT_EQ(src->Seek(Li(0), STREAM_SEEK_SET, nullptr), S_OK);
    EXPECT_EQ(src->CopyTo(pFailing, Uli(4), &cbRead, &cbWritten), STG_E_WRITEFAULT);
    EXPECT_EQ(cbWritten.QuadPart, 0u);
    EXPECT_EQ(src->CopyTo(nullptr, Uli(4), nullptr, nullptr), STG_E_INVALIDPOINTER);
    pFailing->Release();
    EXPECT_EQ(nDeleted, 1);
}

// A block grown past a large page, and a block advised to use large pages,
// keep every byte they hold.
TEST(MemoryStream, LargeBlocksKeepTheirBytes)
{
    std::size_t cb = 1000;
    char* p = static_cast<char*>(GrowBlock(nullptr, cb));
    ASSERT_NE(p, nullptr);
    for (std::size_t i = 0; i < cb; ++i) p[i] = static_cast<char>(i * 7);
    for (std::size_t cbNew : {std::size_t(3) << 20, std::size_t(9) << 20, std::size_t(5) << 20}) {
        p = static_cast<char*>(GrowBlock(p, cbNew));
        ASSERT_NE(p, nullptr);
        for (std::size_t i = 0; i < std::min(cb, cbNew); i += 4093) ASSERT_EQ(p[i], static_cast<char>(i * 7)) << i;
        for (std::size_t i = cb; i < cbNew; ++i) p[i] = static_cast<char>(i * 7);
        cb = cbNew;
    }
    std::free(p);

    // Written first and advised after, in a string's room of either size:
    // the first large page, taken over at once, keeps what was there.
    for (const std::size_t cbRoom : {std::size_t(5) << 20, LargeBlockSize(std::size_t(5) << 20) - 1}) {
        std::string s;
        s.reserve(cbRoom);
        s.assign(std::size_t(5) << 20, 'q');
        s[12345] = 'r';
        AdviseLargePages(&s[0], s.capacity());
        AdviseLargePages(nullptr, 0);
        EXPECT_EQ(s[12345], 'r');
        EXPECT_EQ(s.find_first_not_of('q'), 12345u);
        EXPECT_EQ(s.find_last_not_of('q'), 12345u);
    }
}

// A large block's size never falls short of what was asked, up to the
// largest sizes, and below a large page stays what was asked.
TEST(MemoryStream, LargeBlockSizeHoldsWhatIsAsked)
{
    const std::size_t cbLarge = std::size_t(2) << 20;
    for (const std::size_t cb : {std::size_t(1), cbLarge - 1, cbLarge, cbLarge + 1, 3 * cbLarge - 4096,
                                 3 * cbLarge - 4095, SIZE_MAX / 2, SIZE_MAX - 2 * cbLarge, SIZE_MAX}) {
        const std::size_t cbBlock = LargeBlockSize(cb);
        EXPECT_GE(cbBlock, cb) << cb;
        EXPECT_LT(cbBlock - cb, cbLarge) << cb;
        EXPECT_TRUE(cb >= cbLarge || cbBlock == cb) << cb;
    }
}

TEST(ComPtr, ReferencesAndResetThenRelease)
{
    int nDeleted = 0;
    auto* pRaw = new CCountingStream(nDeleted);
    {
        CComPtr<IStream> a(pRaw);
        EXPECT_EQ(pRaw->m_cRef, 2u);
        CComPtr<IStream> b = a;
        EXPECT_EQ(pRaw->m_cRef, 3u);
        CComPtr<IStream> c = std::move(b);
        EXPECT_EQ(pRaw->m_cRef, 3u);
        EXPECT_FALSE(b);
        c.Release();
        EXPECT_EQ(static_cast<IStream*>(c), nullptr);
        c.Release(); // a second reset releases nothing
        EXPECT_EQ(pRaw->m_cRef, 2u);
        a = a; // self-assignment keeps the reference
        EXPECT_EQ(pRaw->m_cRef, 2u);
    }
    EXPECT_EQ(nDeleted, 0);
    {
        CComPtr<IStream> owner;
        owner.Attach(pRaw); // takes over our reference
        IStream** pp = &owner; // an empty-out for a creation function releases it
        EXPECT_EQ(*pp, nullptr);
    }
    EXPECT_EQ(nDeleted, 1);
}

TEST(KVBase, RaiseErrorThrows)
{
    try {
        CKVWException::RaiseError("FlushQuickBuffer error: 80004005", nullptr, nullptr, -1);
        FAIL() << "RaiseError returned";
    } catch (const CKVWException& e) {
        EXPECT_EQ(e.GetText(), "FlushQuickBuffer error: 80004005");
        EXPECT_EQ(e.GetFile(), "");
        EXPECT_EQ(e.GetLine(), -1);
    }
}
