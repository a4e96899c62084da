// rtfconv rtf2old: RTF to old-format text.
//
// The old-format text (markup commands framed by 0x01 and 0x02, CR paragraph
// marks) is written as UTF-8, each run of text decoded with the code page of
// the font command in force, so that old2rtf reads it back byte for byte;
// --raw writes the host's 8-bit bytes as the library produces them.
// With --attachments DIR every picture or object handed to the attachment
// filter is saved as DIR/NN.EXT and the text gets the attachment command NN.
#include <CLI/CLI.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "platform/AfxExceptions.h"
#include "platform/ObjBase.h"
#include "platform/WinGdi.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldTextUtf8.h"
#include "rtfconverter/RTFToOld.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

struct Rtf2OldOptions {
    IoOptions io;
    std::size_t cbBuffer = kDefaultReadBuffer;
    std::string source = "stream";
    bool bTableTags = false;
    bool bExact = false;  // the exact bytes, losses included
    std::string attachmentsDir;
    bool bUtf8 = false;
    bool bRaw = false;
    std::string codePage;
    LimitOptions limits;
};

// A read-only stream over the input bytes; it knows how far it was read.
class CInputStream : public IStream {
public:
    explicit CInputStream(std::string_view data) : m_data(data) {}
    ~CInputStream() override = default;
    ULONG AddRef() override { return 1; }
    ULONG Release() override { return 1; }
    HRESULT Read(void* pv, ULONG cb, ULONG* pcbRead) override
    {
        const std::size_t n = std::min<std::size_t>(cb, m_data.size() - m_pos);
        std::memcpy(pv, m_data.data() + m_pos, n);
        m_pos += n;
        if (pcbRead)
            *pcbRead = static_cast<ULONG>(n);
        return n < cb ? S_FALSE : S_OK;
    }
    HRESULT Write(const void*, ULONG, ULONG*) override { return STG_E_ACCESSDENIED; }
    HRESULT Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }

private:
    const std::string_view m_data;
    std::size_t m_pos = 0;
};

// The library's readers tell their read position (BytesConsumed) for
// progress and for the message of a failed conversion.
using CPtrReader = rtf_converter::CRTFPtrImport;
using CStreamReader = rtf_converter::CRTFStreamImport;

// --- attachments

constexpr int kMaxAttachments = 100;  // the command holds two digits

const char* ExtensionOf(long aType)
{
    switch (aType) {
    case AttachmentInfo::AT_PNG: return "png";
    case AttachmentInfo::AT_JPEG: return "jpg";
    case AttachmentInfo::AT_EMF: return "emf";
    case AttachmentInfo::AT_WMF: return "wmf";
    case AttachmentInfo::AT_DIB: return "bmp";
    default: return AttachmentInfo::IsOleType(aType) ? "ole" : "bin";
    }
}

void PutLittleEndian(std::string& out, unsigned long value, int cb)
{
    for (int i = 0; i < cb; ++i)
        out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

std::uint32_t ReadLittleEndian(const std::string& bytes, std::size_t pos, int cb)
{
    std::uint32_t value = 0;
    for (int i = cb - 1; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[pos + static_cast<std::size_t>(i)]);
    return value;
}

// A packed DIB (header, colour table, bits) becomes a .bmp file by a file
// header in front, which says where the bits begin.
std::string BitmapFileHeader(const std::string& dib)
{
    std::uint32_t cbHeader = 40, bitCount = 24, compression = 0, clrUsed = 0;
    if (dib.size() >= 40) {
        cbHeader = ReadLittleEndian(dib, 0, 4);
        bitCount = ReadLittleEndian(dib, 14, 2);
        compression = ReadLittleEndian(dib, 16, 4);
        clrUsed = ReadLittleEndian(dib, 32, 4);
    }
    std::uint64_t cColors = clrUsed != 0 ? clrUsed : (bitCount <= 8 ? (1u << bitCount) : 0);
    std::uint64_t cbColors = cColors * 4;
    if (compression == BI_BITFIELDS && cbHeader == 40)
        cbColors += 12;
    const std::uint64_t offBits = std::min<std::uint64_t>(14 + std::uint64_t(cbHeader) + cbColors, 14 + dib.size());
    std::string header = "BM";
    PutLittleEndian(header, static_cast<unsigned long>(14 + dib.size()), 4);
    PutLittleEndian(header, 0, 4);
    PutLittleEndian(header, static_cast<unsigned long>(offBits), 4);
    return header;
}

std::string StreamBytes(IStream* pStm, DWORD cb)
{
    HGLOBAL hGlobal = nullptr;
    if (!pStm || FAILED(GetHGlobalFromStream(pStm, &hGlobal)))
        return std::string();
    const char* p = static_cast<const char*>(GlobalLock(hGlobal));
    std::string bytes(p ? p : "", p ? std::min<std::size_t>(cb, GlobalSize(hGlobal)) : 0);
    GlobalUnlock(hGlobal);
    return bytes;
}

struct AttachmentSaver {
    const ToolContext* pCtx;
    std::string dir;
    int count = 0;
    bool bWarned = false;
};

bool SaveAttachment(AttachmentInfo& info, CString& text, void* pSaver, void*)
{
    AttachmentSaver& saver = *static_cast<AttachmentSaver*>(pSaver);
    if (info.aType == AttachmentInfo::AT_PLACEHOLDER)
        return false;  // nothing to save; the placeholder character stays
    if (saver.count >= kMaxAttachments) {
        if (!saver.bWarned)
            PrintWarning(*saver.pCtx, "more than 100 attachments: the rest are dropped");
        saver.bWarned = true;
        return false;
    }
    char name[16];
    std::snprintf(name, sizeof name, "%02d.%s", saver.count, ExtensionOf(info.aType));
    const std::string bytes = StreamBytes(info.pStm, info.dwDataSize);
    COutput out(saver.dir + "/" + name);
    if (info.aType == AttachmentInfo::AT_DIB)
        out.Write(BitmapFileHeader(bytes));
    out.Write(bytes);
    out.Commit();
    // The attachment command's own layout: 0x01 'A', two digits, 0x02.
    text.Format("\x01" "A%02d" "\x02", saver.count);
    ++saver.count;
    return true;
}

// --- the pull loop

template <class TReader, class TConsume>
void PullOldText(TReader& reader, std::size_t cbBuffer, CConversion& conversion, TConsume&& consume)
{
    CPullBuffer buffer(cbBuffer);
    std::size_t cbConsumedBefore = 0;
    bool bMore = true;
    while (bMore) {
        std::size_t cb = 0;
        try {
            cb = static_cast<std::size_t>(reader.Read(buffer.Begin(), buffer.End(), bMore));
        } catch (const CException& e) {
            throw ToolError(exitConversionFailed, std::string(e.GetErrorText()) + " at byte offset " +
                                                      std::to_string(reader.BytesConsumed()));
        }
        conversion.ReportConsumed(reader.BytesConsumed());
        if (cb > buffer.Size())
            throw ToolError(exitConversionFailed, "the reader reported more bytes than its buffer holds");
        if (cb > 0)
            consume(buffer.Begin(), cb);
        // Every buffer after the first begins with the re-sent layout and
        // font commands, so a call can write bytes without getting anywhere.
        // Progress is judged by the input instead: a call that ends where the
        // previous one did could not fit what was due, and the buffer grows.
        const std::size_t cbConsumed = reader.BytesConsumed();
        if (bMore && cbConsumed <= cbConsumedBefore)
            buffer.GrowAfterNoProgress();
        cbConsumedBefore = cbConsumed;
    }
}

// With several inputs each one's attachments go to a folder of their own in
// DIR, named after the input, so that their numbers do not collide.
std::string AttachmentsDirFor(const Rtf2OldOptions& options, const std::string& inputName)
{
    if (options.attachmentsDir.empty() || options.io.inputs.size() <= 1)
        return options.attachmentsDir;
    std::string stem = inputName.substr(inputName.find_last_of('/') + 1);
    stem = stem.substr(0, stem.find_last_of('.'));
    const std::string dir = options.attachmentsDir + "/" + (stem.empty() ? "stdin" : stem);
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST)
        throw ToolError(exitIoError, "cannot create " + dir + ": " + std::strerror(errno));
    return dir;
}

// The folder --attachments names, created with its parents when missing.
bool CreateAttachmentsDir(const std::string& dir)
{
    if (dir.empty())
        return true;
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (!ec && std::filesystem::is_directory(dir, ec))
        return true;
    PrintError("--attachments: cannot create the folder " + dir + (ec ? ": " + ec.message() : std::string()));
    return false;
}

// The code page of text outside font commands with a character set: the
// host's ANSI code page, --codepage or 1252, as old2rtf reads it back; the
// document's own page reaches the text through the font commands' sets.
int OldTextCodePage(const Rtf2OldOptions& options)
{
    return options.codePage.empty() ? 1252 : std::stoi(options.codePage);
}

// Tells, once per input, how many characters no Windows code page holds and
// so became '?'.
void WarnOfUnrepresentable(const ToolContext& ctx, const CConversion& conversion, long count)
{
    if (count > 0)
        PrintWarning(ctx, conversion.Name() + ": " + std::to_string(count) +
                              (count == 1 ? " character" : " characters") + " that no Windows code page holds became '?'");
}

template <class TReader>
void ConvertWith(TReader& reader, const ToolContext& ctx, const Rtf2OldOptions& options, CConversion& conversion)
{
    const CReaderLimits<TReader> limits(reader, options.limits, conversion.Name());
    reader.SetPasteWithTableTags(options.bTableTags);
    reader.SetLossless(!options.bExact);
    AttachmentSaver saver{&ctx, AttachmentsDirFor(options, conversion.Name())};
    if (!saver.dir.empty())
        reader.SetAttachmentFilter(SaveAttachment, &saver, nullptr);

    if (options.bRaw) {
        PullOldText(reader, options.cbBuffer, conversion,
                    [&](char* p, std::size_t cb) { conversion.Out().Write(p, cb); });
        WarnOfUnrepresentable(ctx, conversion, reader.GetUnrepresentableCount());
        return;
    }
    // A double-byte character or a markup command may straddle two buffers:
    // the decoder carries what one leaves unfinished into the next.
    rtf_converter::COldTextUtf8Decoder decoder(OldTextCodePage(options));
    std::string utf8;
    PullOldText(reader, options.cbBuffer, conversion, [&](char* p, std::size_t cb) {
        utf8.clear();
        decoder.Feed(std::string_view(p, cb), utf8);
        conversion.Out().Write(utf8);
    });
    utf8.clear();
    decoder.Finish(utf8);
    conversion.Out().Write(utf8);
    WarnOfUnrepresentable(ctx, conversion, reader.GetUnrepresentableCount());
}

void ConvertRtfToOld(const ToolContext& ctx, const Rtf2OldOptions& options, CConversion& conversion)
{
    if (options.source == "ptr") {
        // The pointer reader needs a NUL-terminated text; the input has one.
        auto reader = std::make_unique<CPtrReader>(conversion.Terminated());
        ConvertWith(*reader, ctx, options, conversion);
    } else {
        CInputStream stream(conversion.Data());
        auto reader = std::make_unique<CStreamReader>(&stream);
        ConvertWith(*reader, ctx, options, conversion);
    }
}

} // namespace

void RegisterRtf2Old(CLI::App& app, ToolContext& ctx)
{
    CLI::App* cmd = app.add_subcommand("rtf2old", "RTF to old-format text");
    cmd->footer("The old-format text (markup commands framed by 0x01 and 0x02, CR paragraph marks) is written\n"
                "as UTF-8, its text decoded with the code page of the font command in force (--codepage,\n"
                "default 1252, outside any font command with a character set), so that old2rtf reads it back\n"
                "byte for byte; --raw writes the host's 8-bit bytes as the library produces them.\n"
                "--attachments DIR saves pictures and objects as DIR/NN.png|jpg|emf|wmf|bmp|ole|bin\n"
                "(in DIR/NAME/ for each input NAME.rtf when there are several).");
    auto options = std::make_shared<Rtf2OldOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, InputKind::Rtf);
    AddBufferOption(*cmd, options->cbBuffer);
    CLI::Option* codePage =
        cmd->add_option("--codepage", options->codePage,
                        "The host's Windows code page: that of text outside font commands with a character set "
                        "(default 1252)")
            ->type_name("CP");
    AddLimitOptions(*cmd, ctx, options->limits);
    cmd->add_option("--source", options->source, "Read the RTF through the stream reader or the pointer reader")
        ->check(CLI::IsMember({"stream", "ptr"}))
        ->default_str("stream");
    cmd->add_flag("--table-tags", options->bTableTags, "Mark table rows and cells with table tag commands");
    cmd->add_flag("--exact", options->bExact,
                  "Write the exact bytes, losses included: drop hyperlinks that do not fit the buffer, "
                  "ignore \\u and \\ansicpg, stop at bad table indexes");
    cmd->add_option("--attachments", options->attachmentsDir,
                    "Save each picture or object as DIR/NN.EXT (DIR is created when missing) and put attachment "
                    "command NN in the text")
        ->type_name("DIR");
    CLI::Option* raw = cmd->add_flag("--raw", options->bRaw, "Write the host's 8-bit old-format text, not UTF-8");
    cmd->add_flag("--utf8", options->bUtf8, "Write UTF-8 (the default)")->excludes(raw);
    codePage->excludes(raw);

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        if (!options->codePage.empty() &&
            (!IsCodePageNumber(options->codePage) || !rtf_converter::CCodePage::Get(std::stoi(options->codePage)))) {
            PrintError("unknown code page: " + options->codePage + " (give a Windows code page number)");
            return static_cast<int>(exitUsage);
        }
        if (!CreateAttachmentsDir(options->attachmentsDir))
            return static_cast<int>(exitIoError);
        return RunConversions(ctx, options->io, ".old",
                              [&ctx, options](CConversion& conversion) { ConvertRtfToOld(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
