#include "rtfconverter/PictureFormats.h"

#include <climits>
#include <cstdint>
#include <cstring>

#include "rtfconverter/DocCmd.h"

namespace rtf_converter {

namespace {

// Twips per pixel at the 96 pixels per inch pictures without a resolution
// are shown at.
const long kTwipsPerPixel = 15;
// A WMF file's placeable header: its key, length and bounds.
const std::uint32_t kPlaceableKey = 0x9AC6CDD7;
const std::size_t kPlaceableHeaderSize = 22;
// The record that sets a metafile's window extent.
const unsigned kMetaSetWindowExt = 0x020C;

std::uint32_t BigEndian32(const unsigned char* p)
{
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 | p[3];
}
unsigned BigEndian16(const unsigned char* p) { return unsigned(p[0]) << 8 | p[1]; }
std::uint32_t LittleEndian32(const unsigned char* p)
{
    return std::uint32_t(p[3]) << 24 | std::uint32_t(p[2]) << 16 | std::uint32_t(p[1]) << 8 | p[0];
}
unsigned LittleEndian16(const unsigned char* p) { return unsigned(p[1]) << 8 | p[0]; }
long SignedLittleEndian16(const unsigned char* p) { return static_cast<std::int16_t>(LittleEndian16(p)); }
long long SignedLittleEndian32(const unsigned char* p) { return static_cast<std::int32_t>(LittleEndian32(p)); }

// Headers hold sizes the RTF reader takes as int; a malformed header's
// extremes are cut there.
long Clamped(long long n) { return n < 0 ? 0 : n > INT_MAX ? INT_MAX : static_cast<long>(n); }

void SetPixelSize(PictureDescription& out, long long width, long long height)
{
    out.width = Clamped(width);
    out.height = Clamped(height);
    out.widthTwips = Clamped(width * kTwipsPerPixel);
    out.heightTwips = Clamped(height * kTwipsPerPixel);
}

void SetTwipsSize(PictureDescription& out, long long widthTwips, long long heightTwips)
{
    out.widthTwips = Clamped(widthTwips);
    out.heightTwips = Clamped(heightTwips);
    out.width = Clamped(widthTwips * 2540 / 1440);
    out.height = Clamped(heightTwips * 2540 / 1440);
}

bool DescribePng(const unsigned char* p, std::size_t cb, PictureDescription& out)
{
    static const unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (cb < 8 || std::memcmp(p, kSignature, 8) != 0) return false;
    if (cb >= 24 && std::memcmp(p + 12, "IHDR", 4) == 0) SetPixelSize(out, BigEndian32(p + 16), BigEndian32(p + 20));
    return true;
}

// The frame header (SOFn) holds the size; the markers before it are skipped
// by their lengths.
bool DescribeJpeg(const unsigned char* p, std::size_t cb, PictureDescription& out)
{
    if (cb < 2 || p[0] != 0xFF || p[1] != 0xD8) return false;
    std::size_t i = 2;
    while (i + 4 <= cb) {
        if (p[i] != 0xFF) return true;
        const unsigned char marker = p[i + 1];
        if (marker == 0xFF) {
            ++i; // fill byte
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {
            i += 2; // markers without a length
            continue;
        }
        const unsigned length = BigEndian16(p + i + 2);
        const bool bFrame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (bFrame) {
            if (i + 9 <= cb) SetPixelSize(out, BigEndian16(p + i + 7), BigEndian16(p + i + 5));
            return true;
        }
        if (length < 2) return true;
        i += 2 + length;
    }
    return true;
}

// rclFrame, the picture's frame in hundredths of a millimetre; " EMF" at
// offset 40 marks the header.
bool DescribeEmf(const unsigned char* p, std::size_t cb, PictureDescription& out)
{
    if (cb < 44 || LittleEndian32(p) != 1 || std::memcmp(p + 40, " EMF", 4) != 0) return false;
    const long long width = SignedLittleEndian32(p + 32) - SignedLittleEndian32(p + 24);
    const long long height = SignedLittleEndian32(p + 36) - SignedLittleEndian32(p + 28);
    out.width = Clamped(width);
    out.height = Clamped(height);
    out.widthTwips = Clamped(width * 1440 / 2540);
    out.heightTwips = Clamped(height * 1440 / 2540);
    return true;
}

// RTF holds a WMF without the placeable header of a .wmf file; that header
// gives the bounds. Without it the window extent is the only size there is.
// A metafile header: its type (1 in memory, 2 on disk) and its size in words, 9.
bool IsMetafileHeader(const unsigned char* p, std::size_t cb)
{
    return cb >= 18 && (LittleEndian16(p) == 1 || LittleEndian16(p) == 2) && LittleEndian16(p + 2) == 9;
}

bool DescribeWmf(const unsigned char* p, std::size_t cb, PictureDescription& out)
{
    if (cb >= kPlaceableHeaderSize && LittleEndian32(p) == kPlaceableKey) {
        if (!IsMetafileHeader(p + kPlaceableHeaderSize, cb - kPlaceableHeaderSize)) return false;
        out.cbSkipped = kPlaceableHeaderSize;
        const unsigned unitsPerInch = LittleEndian16(p + 14);
        if (unitsPerInch == 0) return true;
        const long long width = SignedLittleEndian16(p + 10) - SignedLittleEndian16(p + 6);
        const long long height = SignedLittleEndian16(p + 12) - SignedLittleEndian16(p + 8);
        SetTwipsSize(out, width * 1440 / unitsPerInch, height * 1440 / unitsPerInch);
        return true;
    }
    if (!IsMetafileHeader(p, cb)) return false;
    std::size_t i = 18;
    while (i + 10 <= cb) {
        const std::uint64_t cbRecord = std::uint64_t(LittleEndian32(p + i)) * 2;
        if (LittleEndian16(p + i + 4) == kMetaSetWindowExt) {
            out.width = Clamped(SignedLittleEndian16(p + i + 8));
            out.height = Clamped(SignedLittleEndian16(p + i + 6));
            return true;
        }
        if (cbRecord < 6 || cbRecord > cb - i) return true;
        i += static_cast<std::size_t>(cbRecord);
    }
    return true;
}

} // namespace

bool DescribePicture(long aType, const unsigned char* p, std::size_t cb, PictureDescription& out)
{
    struct Format {
        long aType;
        const char* pszWord;
        bool (*describe)(const unsigned char*, std::size_t, PictureDescription&);
    };
    static const Format kFormats[] = {
        {AttachmentInfo::AT_PNG, "\\pngblip", DescribePng},
        {AttachmentInfo::AT_JPEG, "\\jpegblip", DescribeJpeg},
        {AttachmentInfo::AT_EMF, "\\emfblip", DescribeEmf},
        {AttachmentInfo::AT_WMF, "\\wmetafile8", DescribeWmf},
    };
    out = PictureDescription();
    for (const Format& format : kFormats) {
        if (format.aType != aType) continue;
        out.pszFormatWord = format.pszWord;
        if (format.describe(p, cb, out)) return true;
        out = PictureDescription();
        return false;
    }
    return false;
}

} // namespace rtf_converter
