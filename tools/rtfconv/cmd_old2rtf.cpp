// rtfconv old2rtf: old-format text to RTF.
//
// The old-format text is read as UTF-8 and its text turned into the bytes of
// the code page of the font command in force (rtf2old writes it so); --raw
// reads the host's 8-bit bytes as they are. The writer keeps what the
// document holds (the library's lossless option) unless --exact asks for the
// library's specified bytes. With --attachments DIR each attachment command
// NN is answered from DIR: NN.ole an embedded object, NN.link a linked object
// (each with NN.bmp as its picture when present), NN.png, NN.jpg, NN.emf or
// NN.wmf a picture of that format (not with --exact), NN.bmp alone a bitmap
// picture, no file a placeholder. Without it attachments are left out, as the
// library does without a filter.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "hostlibs/MFCKVUtils.h"
#include "platform/ObjBase.h"
#include "rtfconverter/CodePages.h"
#include "rtfconverter/DocCmd.h"
#include "rtfconverter/OldTextUtf8.h"
#include "rtfconverter/OldToRTF.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/FontOption.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

struct Old2RtfOptions {
    IoOptions io;
    FontOption font;
    std::string attachmentDir;
    std::string codePage;
    bool bUtf8 = false;
    bool bRaw = false;
    bool bLossy = false;
    bool bExact = false;
};

// What the attachment filter needs to answer from a folder.
struct AttachmentFolder {
    const ToolContext* pCtx;
    std::string dir;
    std::string inputName;
    bool bPictureFormats;  // the writer embeds PNG, JPEG, EMF and WMF answers
};

// The picture files rtf2old --attachments writes, in the order they are looked for.
struct PictureFile {
    const char* szExtension;
    LONG aType;
};
constexpr PictureFile kPictureFiles[] = {
    {".png", AttachmentInfo::AT_PNG},
    {".jpg", AttachmentInfo::AT_JPEG},
    {".emf", AttachmentInfo::AT_EMF},
    {".wmf", AttachmentInfo::AT_WMF},
};

// The bytes of a file; false when there is no such regular file or it cannot be read.
bool ReadFileIfPresent(const std::string& path, std::string& bytes)
{
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    bytes.clear();
    char buf[65536];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) bytes.append(buf, n);
    const bool bOk = !std::ferror(f);
    std::fclose(f);
    return bOk;
}

IStream* NewStreamWith(const std::string& bytes)
{
    IStream* p = nullptr;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &p))) return nullptr;
    if (FAILED(p->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr))) {
        p->Release();
        return nullptr;
    }
    return p;
}

// The bitmap of NN.bmp, or null when there is none (a file that is not a
// bitmap is reported and ignored).
CDIBitmap* LoadBitmapIfPresent(const AttachmentFolder& folder, const std::string& path)
{
    std::string bytes;
    if (!ReadFileIfPresent(path, bytes)) return nullptr;
    auto pBitmap = std::make_unique<CDIBitmap>();
    if (!pBitmap->LoadBmpFile(bytes.data(), bytes.size())) {
        PrintWarning(*folder.pCtx, DisplayName(folder.inputName) + ": " + path + " is not a bitmap we can embed; ignored");
        return nullptr;
    }
    return pBitmap.release();
}

// The first picture file NN.png, NN.jpg, NN.emf or NN.wmf there is.
bool FindPictureFile(const std::string& base, LONG& aType, std::string& bytes)
{
    for (const PictureFile& file : kPictureFiles) {
        if (ReadFileIfPresent(base + file.szExtension, bytes)) {
            aType = file.aType;
            return true;
        }
    }
    return false;
}

bool AnswerFromFolder(int, const CString& cmd, AttachmentInfo& info, void* pFolder, void*)
{
    const auto& folder = *static_cast<const AttachmentFolder*>(pFolder);
    using rtf_converter::CAttachmentCmd;
    if (cmd.GetLength() < CAttachmentCmd::CmdLength) return false;
    const std::string index(cmd.GetString() + CAttachmentCmd::posIndex, CAttachmentCmd::lenIndex);
    const std::string base = folder.dir + "/" + index;

    info.pStm = nullptr;
    info.m_pDIBitmap = nullptr;
    std::string bytes;
    if (ReadFileIfPresent(base + ".ole", bytes)) {
        info.aType = AttachmentInfo::AT_OLE_EMBEDDED;
    } else if (ReadFileIfPresent(base + ".link", bytes)) {
        info.aType = AttachmentInfo::AT_OLE_LAST;
    } else if (folder.bPictureFormats && FindPictureFile(base, info.aType, bytes)) {
        info.pStm = NewStreamWith(bytes);
        return info.pStm != nullptr;
    } else if ((info.m_pDIBitmap = LoadBitmapIfPresent(folder, base + ".bmp")) != nullptr) {
        info.aType = AttachmentInfo::AT_OLE_PICTURE;
        return true;
    } else {
        info.aType = AttachmentInfo::AT_PLACEHOLDER;
        return true;
    }
    info.pStm = NewStreamWith(bytes);
    if (!info.pStm) return false;
    info.m_pDIBitmap = LoadBitmapIfPresent(folder, base + ".bmp");
    return true;
}

// The writer's output stream: what it writes goes straight on to the output,
// not into memory to be copied there afterwards. The writer sees only a
// failed write's HRESULT (and with --exact not even that), so the error
// itself is kept, to be thrown, naming the output, once the writer returns.
class COutputStream final : public IStream {
public:
    explicit COutputStream(COutput& out) : m_out(out) {}
    // Lives on the stack of the conversion, which outlives the writer.
    ULONG AddRef() override { return 2; }
    ULONG Release() override { return 1; }
    HRESULT Read(void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    HRESULT Write(const void* pv, ULONG cb, ULONG* pcbWritten) override
    {
        if (pcbWritten) *pcbWritten = 0;
        if (m_writeError) return STG_E_WRITEFAULT;
        try {
            m_out.Write(static_cast<const char*>(pv), cb);
        } catch (...) {
            m_writeError = std::current_exception();
            return STG_E_WRITEFAULT;
        }
        if (pcbWritten) *pcbWritten = cb;
        return S_OK;
    }
    HRESULT Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return STG_E_INVALIDFUNCTION; }
    HRESULT SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    HRESULT CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    HRESULT Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }

    void ThrowWriteError() const
    {
        if (m_writeError) std::rethrow_exception(m_writeError);
    }

private:
    COutput& m_out;
    std::exception_ptr m_writeError;
};

// The code page of text outside any font command with a character set.
int DefaultCodePage(const Old2RtfOptions& options)
{
    return options.codePage.empty() ? 1252 : std::stoi(options.codePage);
}

// The threads the text of an input may be encoded on: a second core, when
// there is one, for a single input; with several, -j's jobs take the cores.
unsigned EncodingThreads(const IoOptions& io)
{
    if (io.inputs.size() > 1) return 1;
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    return io.jobs == 0 ? cores : std::min(cores, io.jobs);
}

// UTF-8 old-format text as the host's bytes; characters no code page in force
// can hold fail the conversion, or with --lossy become '?' and a warning.
std::string OldTextOfUtf8Input(const ToolContext& ctx, const Old2RtfOptions& options, const CConversion& conversion)
{
    rtf_converter::OldTextFromUtf8Counts counts;
    rtf_converter::OldTextFromUtf8Options encoding;
    encoding.nThreads = EncodingThreads(options.io);
    std::string text = rtf_converter::OldTextFromUtf8(conversion.Data(), DefaultCodePage(options), encoding, &counts);
    const std::string name = DisplayName(conversion.Name());
    if (counts.nInvalid)
        PrintWarning(ctx, name + ": " + std::to_string(counts.nInvalid) +
                              " bytes are not UTF-8 and were taken as they are (--raw reads 8-bit old-format text)");
    if (counts.nUnencodable && !options.bLossy)
        throw ToolError(exitConversionFailed, std::to_string(counts.nUnencodable) +
                                                  " characters have no bytes in the code page of their font "
                                                  "(use --lossy to replace them with ?)");
    if (counts.nUnencodable)
        PrintWarning(ctx, name + ": " + std::to_string(counts.nUnencodable) +
                              " characters have no bytes in the code page of their font and became ?");
    return text;
}

void ConvertOldToRtf(const ToolContext& ctx, const Old2RtfOptions& options, CConversion& conversion)
{
    // The raw input is taken as it is, NUL-terminated where it lies.
    const std::string utf8Text = options.bRaw ? std::string() : OldTextOfUtf8Input(ctx, options, conversion);
    // The writer reads the decoded text only: the input's pages can go now,
    // so that the input, the text and the document are never resident at once.
    if (!options.bRaw) conversion.ReleaseInput();
    const std::string_view text = options.bRaw ? conversion.Data() : std::string_view(utf8Text);
    const char* const pszText = options.bRaw ? conversion.Terminated() : utf8Text.c_str();
    const std::size_t nul = text.find('\0');
    if (nul != std::string_view::npos)
        PrintWarning(ctx, DisplayName(conversion.Name()) + ": a NUL byte at offset " + std::to_string(nul) +
                              " ends the text there");

    LOGFONT lf;
    const bool bFont = options.font.GetLogFont(lf);
    COutputStream out(conversion.Out());
    rtf_converter::COldToRTF writer(out);
    writer.SetLossless(!options.bExact);
    AttachmentFolder folder{&ctx, options.attachmentDir, conversion.Name(), writer.IsLossless()};
    if (!options.attachmentDir.empty()) writer.SetAttachmentFilter(AnswerFromFolder, &folder, nullptr);
    const long hr = writer.Convert(pszText, bFont ? &lf : nullptr);
    out.ThrowWriteError();
    if (FAILED(hr)) throw ToolError(exitConversionFailed, "the conversion to RTF failed");
    conversion.ReportConsumed(conversion.Data().size());
}

} // namespace

void RegisterOld2Rtf(CLI::App& app, ToolContext& ctx)
{
    CLI::App* cmd = app.add_subcommand("old2rtf", "old-format text to RTF");
    cmd->footer("The old-format text is read as UTF-8, as rtf2old writes it: each run of text becomes the bytes\n"
                "of the code page of the font command in force (--codepage, default 1252, outside any font\n"
                "command with a character set); --raw reads the host's 8-bit bytes as they are.\n"
                "The RTF keeps what the text holds (bytes above 0x7F as \\'hh, double-byte text, formatted\n"
                "hyperlink text, table tags as tables, PNG/JPEG/EMF/WMF pictures); --exact writes the\n"
                "library's specified bytes instead.\n"
                "--attachments DIR answers attachment command NN from DIR: NN.ole an embedded object,\n"
                "NN.link a linked object (each with NN.bmp as its picture when present), NN.png, NN.jpg,\n"
                "NN.emf or NN.wmf a picture (not with --exact), NN.bmp alone a picture, no file a\n"
                "placeholder. Without it attachments are left out.");
    auto options = std::make_shared<Old2RtfOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, InputKind::OldFormatText);
    AddFontOption(*cmd, options->font);
    cmd->add_option("--attachments", options->attachmentDir, "Answer attachment commands from the files of DIR")
        ->check(CLI::Validator(CLI::ExistingDirectory).description(""))
        ->type_name("DIR");
    CLI::Option* raw = cmd->add_flag("--raw", options->bRaw, "The input is the host's 8-bit old-format text, not UTF-8");
    cmd->add_flag("--utf8", options->bUtf8, "The input is UTF-8 (the default)")->excludes(raw);
    cmd->add_option("--codepage", options->codePage,
                    "Windows code page of UTF-8 text outside font commands with a character set (default 1252)")
        ->type_name("CP")
        ->excludes(raw);
    cmd->add_flag("--lossy", options->bLossy, "Write '?' for characters the code page of their font cannot hold")
        ->excludes(raw);
    cmd->add_flag("--exact", options->bExact, "Write the library's specified bytes, not the lossless RTF");

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        // Wrong usage is reported before any file is read.
        try {
            LOGFONT lf;
            options->font.GetLogFont(lf);
            if (!options->codePage.empty() &&
                (!IsCodePageNumber(options->codePage) || !rtf_converter::CCodePage::Get(std::stoi(options->codePage))))
                throw ToolError(exitUsage, "unknown code page: " + options->codePage + " (give a Windows code page number)");
        } catch (const ToolError& e) {
            PrintError(e.what());
            return e.Code();
        }
        return RunConversions(ctx, options->io, ".rtf",
                              [&ctx, options](CConversion& conversion) { ConvertOldToRtf(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
