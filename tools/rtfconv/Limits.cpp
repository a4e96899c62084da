// The tool's side of the readers' limits: one option per limit, and one
// warning per kind of limit a document reached.
#include <CLI/CLI.hpp>

#include <string>

#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

namespace {

using rtf_converter::ReadLimitKind;
using rtf_converter::ReadLimits;

// What the warning says happened once the limit was reached.
struct LimitDescription {
    ReadLimitKind kind;
    const char* szOption;
    const char* szConsequence;
};

constexpr LimitDescription kLimitDescriptions[] = {
    {rtf_converter::limitDepth, "--max-depth", "deeper groups keep the formatting of the group around them"},
    {rtf_converter::limitAttachment, "--max-attachment", "a larger picture or object was dropped"},
    {rtf_converter::limitFontEntries, "--max-fonts", "further font table entries were ignored"},
    {rtf_converter::limitFontName, "--max-font-name", "longer font names were cut"},
    {rtf_converter::limitColorEntries, "--max-colors", "further colour table entries were ignored"},
    {rtf_converter::limitFieldText, "--max-field-text", "longer field instructions or hyperlink texts were cut"},
    {rtf_converter::limitNumberingText, "--max-numbering-text", "longer paragraph number texts were cut"},
};

std::string LimitValue(const ReadLimits& limits, ReadLimitKind kind)
{
    switch (kind) {
    case rtf_converter::limitDepth: return std::to_string(limits.maxDepth);
    case rtf_converter::limitAttachment: return std::to_string(limits.maxAttachmentBytes);
    case rtf_converter::limitFontEntries: return std::to_string(limits.maxFontEntries);
    case rtf_converter::limitFontName: return std::to_string(limits.maxFontNameLength);
    case rtf_converter::limitColorEntries: return std::to_string(limits.maxColorEntries);
    case rtf_converter::limitFieldText: return std::to_string(limits.maxFieldText);
    case rtf_converter::limitNumberingText: return std::to_string(limits.maxNumberingText);
    }
    return std::string();
}

} // namespace

void AddLimitOptions(CLI::App& cmd, const ToolContext& ctx, LimitOptions& options)
{
    options.pCtx = &ctx;
    ReadLimits& limits = options.limits;
    const std::string group = "Limits";
    cmd.add_option("--max-depth", limits.maxDepth, "Groups nested deeper than N save no formatting of their own")
        ->type_name("N")->check(CLI::Range(1, 1 << 30))->capture_default_str()->group(group);
    cmd.add_option("--max-attachment", limits.maxAttachmentBytes,
                   "Drop a picture or object of more than SIZE decoded bytes (suffixes KB, MB, GB: powers of 1024)")
        ->type_name("SIZE")->transform(CLI::AsSizeValue(false))->capture_default_str()->group(group);
    cmd.add_option("--max-fonts", limits.maxFontEntries, "Ignore font table entries beyond N")
        ->type_name("N")->check(CLI::Range(1, 1 << 30))->capture_default_str()->group(group);
    cmd.add_option("--max-font-name", limits.maxFontNameLength, "Cut font names at N bytes")
        ->type_name("N")->check(CLI::Range(0, 1 << 30))->capture_default_str()->group(group);
    cmd.add_option("--max-colors", limits.maxColorEntries, "Ignore colour table entries beyond N")
        ->type_name("N")->check(CLI::Range(1, 1 << 30))->capture_default_str()->group(group);
    cmd.add_option("--max-field-text", limits.maxFieldText,
                   "Cut field instructions and hyperlink texts at N bytes")
        ->type_name("N")->check(CLI::Range(0, 1 << 30))->capture_default_str()->group(group);
    cmd.add_option("--max-numbering-text", limits.maxNumberingText,
                   "Cut the text before or after a paragraph number at N bytes")
        ->type_name("N")->check(CLI::Range(0, 1 << 30))->capture_default_str()->group(group);
}

void WarnLimitsReached(const LimitOptions& options, unsigned reached, const std::string& inputName)
{
    if (!options.pCtx)
        return;
    for (const LimitDescription& d : kLimitDescriptions) {
        if (reached & d.kind)
            PrintWarning(*options.pCtx, DisplayName(inputName) + ": " + rtf_converter::ReadLimitName(d.kind) +
                                            " limit reached (" + d.szOption + " " +
                                            LimitValue(options.limits, d.kind) + "): " + d.szConsequence);
    }
}

} // namespace rtfconv
