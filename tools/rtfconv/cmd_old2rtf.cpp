// rtfconv old2rtf: old-format text to RTF.
//
// The old-format text is the host's 8-bit format and is read as it is, unless
// --utf8 says it is UTF-8 (then it is converted to the code page first). With
// --attachments DIR each attachment command NN is answered from DIR: NN.ole
// an embedded object, NN.link a linked object (each with NN.bmp as its
// picture when present), NN.bmp alone a bitmap picture, no file a placeholder.
// Without it attachments are left out, as the library does without a filter.
#include <CLI/CLI.hpp>

#include <cstring>
#include <memory>
#include <string>

#include "hostlibs/MFCKVUtils.h"
#include "platform/ObjBase.h"
#include "rtfconverter/DocCmd.h"
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
    bool bLossy = false;
};

// What the attachment filter needs to answer from a folder.
struct AttachmentFolder {
    const ToolContext* pCtx;
    std::string dir;
    std::string inputName;
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

std::string StreamBytes(IStream* p)
{
    HGLOBAL h = nullptr;
    STATSTG st;
    if (GetHGlobalFromStream(p, &h) != S_OK || p->Stat(&st, STATFLAG_NONAME) != S_OK)
        throw ToolError(exitConversionFailed, "the RTF could not be read back from memory");
    std::string bytes(static_cast<const char*>(GlobalLock(h)), static_cast<std::size_t>(st.cbSize.QuadPart));
    GlobalUnlock(h);
    return bytes;
}

void ConvertOldToRtf(const ToolContext& ctx, const Old2RtfOptions& options, CConversion& conversion)
{
    std::string text = conversion.Data();
    if (options.bUtf8)
        text = Utf8ToCodePage(text, IconvCodePageName(options.codePage.empty() ? "1252" : options.codePage),
                              options.bLossy);
    const std::size_t nul = text.find('\0');
    if (nul != std::string::npos)
        PrintWarning(ctx, DisplayName(conversion.Name()) + ": a NUL byte at offset " + std::to_string(nul) +
                              " ends the text there");

    LOGFONT lf;
    const bool bFont = options.font.GetLogFont(lf);
    CComPtr<IStream> out;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &out))) throw ToolError(exitConversionFailed, "out of memory");
    rtf_converter::COldToRTF writer(*out);
    AttachmentFolder folder{&ctx, options.attachmentDir, conversion.Name()};
    if (!options.attachmentDir.empty()) writer.SetAttachmentFilter(AnswerFromFolder, &folder, nullptr);
    if (FAILED(writer.Convert(text.c_str(), bFont ? &lf : nullptr)))
        throw ToolError(exitConversionFailed, "the conversion to RTF failed");
    conversion.ReportConsumed(conversion.Data().size());
    conversion.Out().Write(StreamBytes(out));
}

} // namespace

void RegisterOld2Rtf(CLI::App& app, ToolContext& ctx)
{
    CLI::App* cmd = app.add_subcommand("old2rtf", "old-format text to RTF");
    cmd->footer("The old-format text is read as the host's 8-bit bytes; --utf8 reads UTF-8 and converts it to\n"
                "the code page (--codepage, default 1252) first.\n"
                "--attachments DIR answers attachment command NN from DIR: NN.ole an embedded object,\n"
                "NN.link a linked object (each with NN.bmp as its picture when present), NN.bmp alone a\n"
                "picture, no file a placeholder. Without it attachments are left out.");
    auto options = std::make_shared<Old2RtfOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, InputKind::OldFormatText);
    AddFontOption(*cmd, options->font);
    cmd->add_option("--attachments", options->attachmentDir, "Answer attachment commands from the files of DIR")
        ->check(CLI::Validator(CLI::ExistingDirectory).description(""))
        ->type_name("DIR");
    CLI::Option* utf8 = cmd->add_flag("--utf8", options->bUtf8, "The input is UTF-8, not 8-bit old-format text");
    cmd->add_option("--codepage", options->codePage, "Code page of the old-format text for --utf8 (default 1252)")
        ->type_name("CP")
        ->needs(utf8);
    cmd->add_flag("--lossy", options->bLossy, "With --utf8, write '?' for characters the code page cannot hold")
        ->needs(utf8);

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        // Wrong usage is reported before any file is read.
        try {
            LOGFONT lf;
            options->font.GetLogFont(lf);
            if (options->bUtf8 && !options->codePage.empty() && IconvCodePageName(options->codePage).empty())
                throw ToolError(exitUsage, "unknown code page: " + options->codePage);
        } catch (const ToolError& e) {
            PrintError(e.what());
            return e.Code();
        }
        return RunConversions(ctx, options->io, ".rtf",
                              [&ctx, options](CConversion& conversion) { ConvertOldToRtf(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
