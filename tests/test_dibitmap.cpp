// Device-independent bitmaps from packed DIBs and .bmp files, and the quick
// buffer's byte block.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "hostlibs/MFCKVUtils.h"

namespace {

// A packed DIB: header, `nColors` colour-table entries, rows filled with a pattern.
std::vector<BYTE> PackedDib(LONG width, LONG height, WORD bits, DWORD nColors = 0)
{
    BITMAPINFOHEADER h{};
    h.biSize = sizeof h;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = bits;
    h.biClrUsed = nColors;
    std::size_t cbTable = (nColors ? nColors : (bits <= 8 ? 1u << bits : 0)) * sizeof(RGBQUAD);
    std::size_t row = (static_cast<std::size_t>(width) * bits + 31) / 32 * 4;
    std::size_t cbBits = row * static_cast<std::size_t>(height < 0 ? -height : height);
    std::vector<BYTE> dib(sizeof h + cbTable + cbBits);
    std::memcpy(dib.data(), &h, sizeof h);
    for (std::size_t i = sizeof h; i < dib.size(); ++i) dib[i] = static_cast<BYTE>(i * 7);
    return dib;
}

} // namespace

TEST(CDIBitmap, AccessorsOfWellFormedBitmaps)
{
    struct Row {
        LONG width, height;
        WORD bits;
        DWORD nColors;
        DWORD rowBytes, infoLength;
    } rows[] = {
        {100, 50, 24, 0, 300, 40},
        {3, 2, 24, 0, 12, 40},
        {3, -2, 32, 0, 12, 40},          // top-down
        {9, 4, 1, 0, 4, 40 + 2 * 4},     // full 2-entry table
        {5, 5, 8, 16, 8, 40 + 16 * 4},   // biClrUsed shortens the table
        {33, 1, 4, 0, 20, 40 + 16 * 4},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.width << "x" << r.height << "x" << r.bits);
        std::vector<BYTE> dib = PackedDib(r.width, r.height, r.bits, r.nColors);
        dib.push_back(0xEE); // bytes past the bitmap are not taken
        CDIBitmap bmp(dib.data(), dib.size());
        ASSERT_TRUE(bmp.IsValid());
        EXPECT_EQ(bmp.GetBitCount(), r.bits);
        EXPECT_EQ(bmp.DWAlignedBytesPerLine(), r.rowBytes);
        EXPECT_EQ(bmp.GetSize().cx, r.width);
        EXPECT_EQ(bmp.GetSize().cy, r.height < 0 ? -r.height : r.height);
        EXPECT_EQ(bmp.GetInfoLength(), r.infoLength);
        EXPECT_EQ(bmp.GetBitsSize(), r.rowBytes * static_cast<DWORD>(bmp.GetSize().cy));
        EXPECT_EQ(0, std::memcmp(bmp.GetInfo(), dib.data(), r.infoLength));
        EXPECT_EQ(0, std::memcmp(bmp.GetImageBitsPtr(), dib.data() + r.infoLength, bmp.GetBitsSize()));
    }
}

TEST(CDIBitmap, BmpFileRoundTripAndRefusals)
{
    std::vector<BYTE> dib = PackedDib(7, 3, 8);
    CDIBitmap bmp(dib.data(), dib.size());
    std::vector<BYTE> file = bmp.ToBmpFile();
    ASSERT_EQ(file.size(), 14 + dib.size());
    EXPECT_EQ(file[0], 'B');
    EXPECT_EQ(file[1], 'M');

    CDIBitmap fromFile;
    ASSERT_TRUE(fromFile.LoadBmpFile(file.data(), file.size()));
    EXPECT_EQ(fromFile.GetInfoLength(), bmp.GetInfoLength());
    ASSERT_EQ(fromFile.GetBitsSize(), bmp.GetBitsSize());
    EXPECT_EQ(0, std::memcmp(fromFile.GetImageBitsPtr(), bmp.GetImageBitsPtr(), bmp.GetBitsSize()));

    auto refusedDib = [](std::vector<BYTE> d) {
        CDIBitmap b;
        bool ok = b.LoadPackedDib(d.data(), d.size());
        return !ok && !b.IsValid() && b.GetInfo() == nullptr && b.GetBitsSize() == 0 && b.GetSize().cx == 0;
    };
    std::vector<BYTE> truncated = dib;
    truncated.pop_back();
    EXPECT_TRUE(refusedDib(truncated));
    EXPECT_TRUE(refusedDib(PackedDib(0, 3, 24)));
    EXPECT_TRUE(refusedDib(PackedDib(3, 0, 24)));
    EXPECT_TRUE(refusedDib(PackedDib(3, 3, 7)));
    EXPECT_TRUE(refusedDib(std::vector<BYTE>(10, 0)));
    std::vector<BYTE> huge = PackedDib(1, 1, 24);
    LONG hugeWidth = 0x7FFFFFFF;
    std::memcpy(huge.data() + 4, &hugeWidth, 4);
    EXPECT_TRUE(refusedDib(huge));

    CDIBitmap b;
    std::vector<BYTE> badOffset = file;
    badOffset[10] = 0xFF; // bfOffBits beyond the file
    EXPECT_FALSE(b.LoadBmpFile(badOffset.data(), badOffset.size()));
    std::vector<BYTE> notBmp = file;
    notBmp[0] = 'X';
    EXPECT_FALSE(b.LoadBmpFile(notBmp.data(), notBmp.size()));
    EXPECT_FALSE(b.LoadBmpFile(file.data(), 20));
    EXPECT_FALSE(b.LoadBmpFile(nullptr, 0));
    EXPECT_TRUE(b.ToBmpFile().empty());
}

TEST(CSimpleRowBytes, AllocBufferKeepsTheBlockUntilAskedForAnother)
{
    CSimpleRowBytes rb;
    EXPECT_EQ(rb.GetBuffer(), nullptr);
    BYTE* p = rb.AllocBuffer(8192);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(rb.GetBuffer(), p);
    EXPECT_EQ(rb.GetBufferSize(), 8192u);
    p[8191] = 1;
    EXPECT_NE(rb.AllocBuffer(16), nullptr);
    EXPECT_EQ(rb.GetBufferSize(), 16u);
}
