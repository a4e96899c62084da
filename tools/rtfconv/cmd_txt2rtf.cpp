// rtfconv txt2rtf: plain text to RTF.
//
// By default the text is for people: UTF-8, read strictly (invalid UTF-8 is an
// error naming its byte offset; --from names another encoding, and UTF-16
// with a byte-order mark is recognised), with each line end (LF, CR LF or CR)
// a paragraph mark, written losslessly: characters of the code page
// (--codepage, default 1252) as \'hh escapes, every other one as \uN, so the
// RTF is 7-bit ASCII. With --lossy, or a code page the library does not know,
// the text is converted to the code page first and written by the 8-bit
// writer ('?' for what the page cannot hold), its bytes above 0x7F escaped
// as well. --raw takes the input's bytes as they are: the 8-bit writer turns
// CR into a paragraph mark and LF into a line break.
#include <CLI/CLI.hpp>

#include <memory>
#include <string>
#include <string_view>

#include "rtfconverter/PlainTextToRTF.h"
#include "rtfconverter/Utf8ToRTF.h"
#include "tools/rtfconv/Commands.h"
#include "tools/rtfconv/FontOption.h"
#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

struct Txt2RtfOptions {
    IoOptions io;
    FontOption font;
    std::string codePage;
    bool bRaw = false;
    bool bUtf8 = false;
    bool bLossy = false;
    std::string from;
};

constexpr char kDefaultCodePage[] = "1252";

// LF and CR LF become the library's paragraph mark, CR (in place: the text
// only shrinks).
void LineEndsToParagraphMarks(std::string& text)
{
    std::size_t cbKept = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
        text[cbKept++] = text[i] == '\n' ? '\r' : text[i];
    }
    text.resize(cbKept);
}

bool UsesUnicodeWriter(const Txt2RtfOptions& options)
{
    return !options.bRaw && !options.bLossy && IsLibraryCodePage(options.codePage);
}

// The input as UTF-8, followed by a NUL: the input itself when it is UTF-8
// already (it must be, unless --from names its encoding or it begins with a
// UTF-16 byte-order mark), else its conversion, kept in `converted`.
std::string_view InputAsUtf8(const Txt2RtfOptions& options, const CConversion& conversion, std::string& converted)
{
    const std::string_view data = conversion.Data();
    if (!options.from.empty() ||
        (data.size() >= 2 && ((data[0] == '\xFF' && data[1] == '\xFE') || (data[0] == '\xFE' && data[1] == '\xFF')))) {
        converted = ConvertToUtf8(data, options.from.empty() ? "UTF-16" : options.from);
        return converted;
    }
    const std::size_t invalid = FindInvalidUtf8(data);
    if (invalid != std::string_view::npos)
        throw ToolError(exitConversionFailed, "not UTF-8 at byte offset " + std::to_string(invalid) +
                                                  " (use --from latin1, or another encoding, to read it)");
    return std::string_view(conversion.Terminated(), data.size());
}

// The 8-bit writer keeps bytes above 0x7F as they are; escaped, the RTF is
// 7-bit ASCII. Its header and escapes are ASCII, so every such byte is text.
// Runs of ASCII go out as they are.
void WriteEscapingEightBitBytes(const CString& rtf, COutput& out)
{
    static const char s_hex[] = "0123456789abcdef";
    const char* p = rtf.GetString();
    const char* const end = p + rtf.GetLength();
    while (p < end) {
        const char* const run = p;
        while (p < end && static_cast<unsigned char>(*p) < 0x80) ++p;
        out.Write(run, static_cast<std::size_t>(p - run));
        if (p == end) break;
        const unsigned char b = static_cast<unsigned char>(*p++);
        const char escape[] = {'\\', '\'', s_hex[b >> 4], s_hex[b & 0xF]};
        out.Write(escape, sizeof escape);
    }
}

// Writes the document as it is made, block by block, so that neither it nor
// its body is ever held whole. When the text is the input itself, the input
// behind the writer is reported done as it goes, which lets its pages go.
void WriteUtf8TextAsRtf(const Txt2RtfOptions& options, std::string_view text, bool bTextIsInput, const LOGFONT* pFont,
                        CConversion& conversion)
{
    rtf_converter::CUTF8TextToRTF writer;
    writer.SetCodePage(options.codePage.empty() ? std::stoi(kDefaultCodePage) : CodePageNumberOf(options.codePage));
    if (conversion.Out().GoesToFile()) writer.SetBlockSize(rtf_converter::CUTF8TextToRTF::kcbMostBlock);
    writer.WriteDocument(text.data(), text.size(), pFont,
                         [&conversion, bTextIsInput](const char* p, std::size_t cb, std::size_t cbTextDone) {
                             conversion.Out().WriteBlock(p, cb);
                             if (bTextIsInput) conversion.ReportConsumed(cbTextDone);
                         });
    conversion.ReportConsumed(conversion.Data().size());
}

void ConvertTextToRtf(const ToolContext& ctx, const Txt2RtfOptions& options, CConversion& conversion)
{
    LOGFONT lf;
    const bool bFont = options.font.GetLogFont(lf);
    std::string converted;
    if (UsesUnicodeWriter(options)) {
        const std::string_view text = InputAsUtf8(options, conversion, converted);
        WriteUtf8TextAsRtf(options, text, converted.empty() && text.data() == conversion.Terminated(),
                           bFont ? &lf : nullptr, conversion);
        return;
    }

    // --raw takes the input as it is; otherwise it becomes the code page's bytes.
    std::string_view text(conversion.Terminated(), conversion.Data().size());
    std::string inCodePage;
    if (!options.bRaw) {
        inCodePage = Utf8ToCodePage(InputAsUtf8(options, conversion, converted),
                                   IconvCodePageName(options.codePage.empty() ? kDefaultCodePage : options.codePage),
                                   options.bLossy);
        LineEndsToParagraphMarks(inCodePage);
        text = inCodePage;
    }
    const std::size_t nul = text.find('\0');
    if (nul != std::string_view::npos)
        PrintWarning(ctx, DisplayName(conversion.Name()) + ": a NUL byte at offset " + std::to_string(nul) +
                              " ends the text there");
    rtf_converter::CPlainTextToRTF writer;
    writer.Convert(text.data(), bFont ? &lf : nullptr);
    const CString rtf = writer.Export();
    conversion.ReportConsumed(conversion.Data().size());
    if (options.bRaw) {
        conversion.Out().Write(rtf.GetString(), static_cast<std::size_t>(rtf.GetLength()));
        return;
    }
    WriteEscapingEightBitBytes(rtf, conversion.Out());
}

} // namespace

void RegisterTxt2Rtf(CLI::App& app, ToolContext& ctx)
{
    CLI::App* cmd = app.add_subcommand("txt2rtf", "plain text to RTF");
    cmd->footer("The text is read as UTF-8 (or --from ENC; UTF-16 with a byte-order mark is recognised, and\n"
                "invalid UTF-8 is an error); each line becomes a paragraph. Characters of the code page\n"
                "(--codepage, default 1252) are written as \\'hh, every other one as \\uN, so no\n"
                "character is lost. With --lossy (or a code page named for iconv) the text is converted to the\n"
                "code page and a character it cannot hold becomes '?'; without --lossy such a character is then\n"
                "an error. --raw takes the bytes as they are: CR ends a paragraph, LF breaks a line.");
    auto options = std::make_shared<Txt2RtfOptions>();
    AddVerbosityOptions(*cmd, ctx);
    AddIoOptions(*cmd, options->io, InputKind::PlainText);
    AddFontOption(*cmd, options->font);
    AddCodePageOption(*cmd, options->codePage);
    CLI::Option* raw = cmd->add_flag("--raw", options->bRaw, "Take the input's bytes as they are (8-bit text)");
    CLI::Option* utf8 = cmd->add_flag("--utf8", options->bUtf8, "Read UTF-8 (the default)");
    raw->excludes(utf8);
    cmd->add_flag("--lossy", options->bLossy, "Write 8-bit RTF with '?' for characters the code page cannot hold");
    cmd->add_option("--from", options->from, "Encoding of the text (any iconv name, e.g. latin1, UTF-16); UTF-8 by default")
        ->excludes(raw);

    SetCommandAction(*cmd, ctx, [&ctx, options] {
        // Wrong usage is reported before any file is read.
        try {
            LOGFONT lf;
            options->font.GetLogFont(lf);
            if (!options->codePage.empty() && IconvCodePageName(options->codePage).empty())
                throw ToolError(exitUsage, "unknown code page: " + options->codePage);
            if (!options->from.empty() && IconvCodePageName(options->from).empty())
                throw ToolError(exitUsage, "unknown encoding: " + options->from);
        } catch (const ToolError& e) {
            PrintError(e.what());
            return e.Code();
        }
        return RunConversions(ctx, options->io, ".rtf",
                              [&ctx, options](CConversion& conversion) { ConvertTextToRtf(ctx, *options, conversion); });
    });
}

} // namespace rtfconv
