// Usage errors, and the documents generated from the option definitions: the
// man page and the bash and zsh completion scripts. They are generated, not
// written, so that they list exactly the commands and options the tool has.
#include "tools/rtfconv/Usage.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <sstream>

#include "tools/rtfconv/ToolCommon.h"

namespace rtfconv {

// ---------------------------------------------------------------------------
// Usage errors.

std::size_t EditDistance(const std::string& a, const std::string& b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t(0));
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

namespace {

// What people type out of habit from other tools, and what it is called here.
struct Habit {
    const char* given;
    const char* meant;
};
constexpr Habit kHabits[] = {
    {"-V", "--version"},
    {"-?", "--help"},
    {"--usage", "--help"},
};

std::string Quoted(const std::string& s) { return "'" + s + "'"; }

} // namespace

std::string NearestName(const std::string& given, const std::vector<std::string>& known)
{
    for (const Habit& habit : kHabits)
        if (given == habit.given && std::find(known.begin(), known.end(), habit.meant) != known.end()) return habit.meant;
    std::string nearest;
    std::size_t best = std::string::npos;
    for (const std::string& name : known) {
        const std::size_t distance = EditDistance(given, name);
        if (distance < best) {
            best = distance;
            nearest = name;
        }
    }
    return nearest;
}

namespace {

// "-o" and "--output" for every named option of `app`, hidden ones left out.
std::vector<std::string> OptionNames(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::Option* opt : app.get_options()) {
        if (opt->get_group().empty()) continue;
        for (const std::string& s : opt->get_snames()) names.push_back("-" + s);
        for (const std::string& l : opt->get_lnames()) names.push_back("--" + l);
    }
    return names;
}

std::vector<const CLI::App*> Commands(const CLI::App& app)
{
    std::vector<const CLI::App*> commands;
    for (const CLI::App* cmd : app.get_subcommands([](const CLI::App*) { return true; })) commands.push_back(cmd);
    return commands;
}

std::string CommandList(const CLI::App& app)
{
    std::string list;
    for (const CLI::App* cmd : Commands(app)) list += (list.empty() ? "" : ", ") + cmd->get_name();
    return list;
}

// The first argument nobody took, without the value of "--name=value".
std::string FirstLeftOver(const CLI::App& app)
{
    const std::vector<std::string> left = app.remaining(true);
    if (left.empty()) return std::string();
    const std::string& first = left.front();
    return first.compare(0, 2, "--") == 0 ? first.substr(0, first.find('=')) : first;
}

} // namespace

int ReportUsageError(const CLI::App& app, const CLI::ParseError& e)
{
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    const CLI::App& cmd = chosen.empty() ? app : *chosen.front();
    const std::string helpHint =
        "see " + Quoted(chosen.empty() ? "rtfconv --help" : "rtfconv " + cmd.get_name() + " --help");
    const std::string leftOver = FirstLeftOver(app);

    if (leftOver.size() > 1 && leftOver[0] == '-') {
        std::vector<std::string> known = OptionNames(cmd);
        if (&cmd != &app) {
            // The tool's own options are accepted after the command too.
            const std::vector<std::string> toolOptions = OptionNames(app);
            known.insert(known.end(), toolOptions.begin(), toolOptions.end());
        }
        PrintError("unknown option " + Quoted(leftOver) + " (did you mean " + Quoted(NearestName(leftOver, known)) +
                   "?); " + helpHint);
    } else if (!leftOver.empty() && chosen.empty()) {
        std::vector<std::string> names;
        for (const CLI::App* command : Commands(app)) names.push_back(command->get_name());
        PrintError("unknown command " + Quoted(leftOver) + " (did you mean " + Quoted(NearestName(leftOver, names)) +
                   "?); the commands are " + CommandList(app));
    } else {
        PrintError(std::string(e.what()) + "; " + helpHint);
    }
    return exitUsage;
}

int ReportMissingCommand(const CLI::App& app)
{
    PrintError("no command given; the commands are " + CommandList(app) + "; see 'rtfconv --help'");
    return exitUsage;
}

// ---------------------------------------------------------------------------
// What every generator needs to know about an option.

namespace {

struct OptionInfo {
    std::vector<std::string> names; // "-o", "--output"
    std::string valueName;          // "FILE"; empty for a flag
    std::vector<std::string> values; // the allowed values, when they are a list
    std::string help;
};

// CLI11 writes a list check after the type name: "TEXT:{lf,crlf,cr}".
void SplitTypeName(const std::string& typeName, std::string& valueName, std::vector<std::string>& values)
{
    const std::size_t brace = typeName.find('{');
    valueName = typeName.substr(0, typeName.find(':'));
    if (brace == std::string::npos) return;
    std::istringstream list(typeName.substr(brace + 1, typeName.find('}', brace) - brace - 1));
    for (std::string value; std::getline(list, value, ',');) values.push_back(value);
    if (valueName == "TEXT") valueName = "WORD";
}

// CLI11 calls a value of no declared type TEXT.
std::string ValueName(const std::string& typeName) { return typeName == "TEXT" ? "VALUE" : typeName; }

std::vector<OptionInfo> NamedOptions(const CLI::App& app)
{
    std::vector<OptionInfo> options;
    for (const CLI::Option* opt : app.get_options()) {
        if (opt->get_group().empty() || !opt->nonpositional()) continue;
        OptionInfo info;
        for (const std::string& s : opt->get_snames()) info.names.push_back("-" + s);
        for (const std::string& l : opt->get_lnames()) info.names.push_back("--" + l);
        if (opt->get_type_size_max() > 0) SplitTypeName(opt->get_type_name(), info.valueName, info.values);
        info.valueName = ValueName(info.valueName);
        info.help = opt->get_description();
        options.push_back(info);
    }
    return options;
}

// The inputs of a command, as its positional argument describes them.
std::string InputsHelp(const CLI::App& cmd)
{
    for (const CLI::Option* opt : cmd.get_options())
        if (!opt->nonpositional()) return opt->get_description();
    return std::string();
}

bool SameOption(const OptionInfo& a, const OptionInfo& b) { return a.names == b.names && a.help == b.help; }

// Options every command has, word for word: the man page lists them once.
std::vector<OptionInfo> CommonOptions(const std::vector<const CLI::App*>& commands)
{
    if (commands.empty()) return {};
    std::vector<OptionInfo> common = NamedOptions(*commands.front());
    for (const CLI::App* cmd : commands) {
        const std::vector<OptionInfo> own = NamedOptions(*cmd);
        common.erase(std::remove_if(common.begin(), common.end(),
                                    [&](const OptionInfo& option) {
                                        return std::none_of(own.begin(), own.end(), [&](const OptionInfo& o) {
                                            return SameOption(o, option);
                                        });
                                    }),
                     common.end());
    }
    return common;
}

bool IsIn(const OptionInfo& option, const std::vector<OptionInfo>& list)
{
    return std::any_of(list.begin(), list.end(), [&](const OptionInfo& o) { return SameOption(o, option); });
}

// A help text wrapped for the terminal, as one line.
std::string Unwrapped(std::string text)
{
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

} // namespace

// ---------------------------------------------------------------------------
// The man page.

namespace {

// Text made safe for roff: backslashes and minus signs escaped, no line
// beginning with a control character, characters beyond ASCII by code point.
std::string Roff(const std::string& text)
{
    std::string out;
    bool bLineStart = true;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (bLineStart && (c == '.' || c == '\'')) out += "\\&";
        bLineStart = c == '\n';
        if (c == '\\') {
            out += "\\e";
        } else if (c == '-') {
            out += "\\-";
        } else if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            // A two- or three-byte UTF-8 sequence (the tool's texts hold no more).
            unsigned long code = 0;
            const int cbTail = c >= 0xE0 ? 2 : 1;
            code = c & (cbTail == 2 ? 0x0F : 0x1F);
            for (int k = 0; k < cbTail && i + 1 < text.size(); ++k)
                code = (code << 6) | (static_cast<unsigned char>(text[++i]) & 0x3F);
            char escape[16];
            std::snprintf(escape, sizeof escape, "\\[u%04lX]", code);
            out += escape;
        }
    }
    return out;
}

std::string RoffOptionItem(const OptionInfo& option)
{
    std::string item = ".TP\n";
    for (std::size_t i = 0; i < option.names.size(); ++i)
        item += (i ? ", " : "") + std::string("\\fB") + Roff(option.names[i]) + "\\fR";
    if (!option.valueName.empty()) item += " \\fI" + Roff(option.valueName) + "\\fR";
    return item + "\n" + Roff(option.help) + "\n";
}

// Sections of prose: the parts of the page no option definition holds.
struct ManSection {
    const char* title;
    const char* roff;
};

constexpr ManSection kDescription = {
    "DESCRIPTION",
    "\\fBrtfconv\\fR converts rich text between RTF, plain text and old\\-format text, the host's 8\\-bit rich "
    "text in which markup commands are framed by the bytes 0x01 and 0x02.\n"
    "It has one command per conversion.\n"
    "Every command reads the files given, or standard input when there is none or for \\fB\\-\\fR, and writes "
    "standard output, \\fB\\-o\\fR \\fIFILE\\fR, or one file per input in \\fB\\-\\-output\\-dir\\fR "
    "\\fIDIR\\fR.\n"
    "Several inputs without \\fB\\-\\-output\\-dir\\fR are written one after another.\n"
    ".PP\n"
    "A file is written through a temporary file in its folder, renamed over the target only when the "
    "conversion succeeded: a failed or interrupted run never leaves a half\\-written file, and a target that "
    "is a symbolic link is replaced through the link.\n"
    ".PP\n"
    "Each command checks that its input is of the kind it reads (RTF, old\\-format text, plain text) and "
    "refuses one that looks like something else, saying what it looks like "
    "(\\(lqnot RTF (looks like a Word .docx)\\(rq); \\fB\\-\\-force\\fR reads it anyway.\n"
    "Malformed RTF is not a failure: it converts as the library converts it.\n"};

constexpr ManSection kAfterCommands[] = {
    {"EXIT STATUS",
     ".TP\n.B 0\nSuccess.\n"
     ".TP\n.B 1\nA conversion failed, or an input is not of the kind the command reads.\n"
     ".TP\n.B 2\nWrong usage: an unknown command or option, or a bad value.\n"
     ".TP\n.B 3\nAn input could not be read or an output not written (a missing file, a full disk, a folder "
     "that vanished).\n"
     ".TP\n.B 130, 143\nInterrupted by SIGINT or SIGTERM; no partial output file is left behind.\n"
     ".PP\n"
     "With several inputs every input is converted even when some fail; the status is the worst of them, "
     "and a last line names the inputs that failed.\n"},
    {"ENVIRONMENT",
     ".TP\n.B RTFCONV_LOG\n"
     "When set, the library's assertion reports and traces are printed on standard error, as "
     "\\fB\\-v\\fR does.\n"},
    {"EXAMPLES",
     ".EX\n"
     "rtfconv rtf2txt report.rtf                # the text, UTF\\-8\n"
     "rtfconv rtf2txt *.rtf | grep \\-i invoice   # several inputs, one after another\n"
     "rtfconv rtf2txt \\-\\-raw report.rtf          # the library's exact 8\\-bit bytes\n"
     "rtfconv rtf2txt \\-\\-output\\-dir out/ \\-j 4 *.rtf\n"
     "rtfconv txt2rtf notes.txt \\-o notes.rtf\n"
     "rtfconv rtf2old doc.rtf \\-o doc.old \\-\\-attachments pics/\n"
     "rtfconv old2rtf doc.old \\-o doc.rtf \\-\\-attachments pics/\n"
     "rtfconv show \\-\\-explain doc.old\n"
     ".EE\n"},
    {"SEE ALSO", "\\fBiconv\\fR(1), \\fBiconv_open\\fR(3)\n"},
};

std::string ManCommandSection(const CLI::App& cmd, const std::vector<OptionInfo>& common)
{
    std::string roff = ".SS \"rtfconv " + cmd.get_name() + " [\\fIOPTIONS\\fR] [\\fIFILE\\fR...]\"\n";
    roff += Roff(cmd.get_description()) + ".\n" + Roff(InputsHelp(cmd)) + ".\n";
    const std::string footer = Unwrapped(cmd.get_footer());
    if (!footer.empty()) roff += ".PP\n" + Roff(footer) + "\n";
    for (const OptionInfo& option : NamedOptions(cmd))
        if (!IsIn(option, common)) roff += RoffOptionItem(option);
    return roff;
}

} // namespace

std::string ManPage(const CLI::App& app, const std::string& version)
{
    const std::vector<const CLI::App*> commands = Commands(app);
    const std::vector<OptionInfo> common = CommonOptions(commands);
    std::string roff = ".\\\" Generated by 'rtfconv --generate man' from the tool's option definitions; do not edit.\n";
    roff += ".TH RTFCONV 1 \"\" \"rtfconv " + Roff(version) + "\" \"User Commands\"\n";
    roff += ".SH NAME\nrtfconv \\- " + Roff("converts rich text between RTF, plain text and old-format text") + "\n";
    roff += ".SH SYNOPSIS\n.B rtfconv\n\\fICOMMAND\\fR [\\fIOPTIONS\\fR] [\\fIFILE\\fR...]\n.br\n"
            ".B rtfconv\n\\fB\\-\\-help\\fR | \\fB\\-\\-version\\fR\n";
    roff += std::string(".SH ") + kDescription.title + "\n" + kDescription.roff;
    roff += ".SH COMMANDS\n";
    for (const CLI::App* cmd : commands) roff += ManCommandSection(*cmd, common);
    roff += ".SH \"OPTIONS OF EVERY COMMAND\"\n";
    for (const OptionInfo& option : common) roff += RoffOptionItem(option);
    roff += ".SH \"OPTIONS OF THE TOOL\"\nGiven before the command.\n";
    for (const OptionInfo& option : NamedOptions(app)) roff += RoffOptionItem(option);
    roff += ".SH \"TEXT ENCODING\"\n" + Roff(kEncodingStory) + "\n";
    for (const ManSection& section : kAfterCommands) roff += std::string(".SH \"") + section.title + "\"\n" + section.roff;
    return roff;
}

// ---------------------------------------------------------------------------
// Shell completion.

namespace {

std::string Joined(const std::vector<std::string>& words)
{
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

std::vector<std::string> AllNames(const std::vector<OptionInfo>& options)
{
    std::vector<std::string> names;
    for (const OptionInfo& option : options) names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

// What completes the value of an option: files, folders, a list of words, or
// nothing (a number, a code page).
enum class ValueKind { None, File, Folder, Words };

ValueKind KindOfValue(const OptionInfo& option)
{
    if (!option.values.empty()) return ValueKind::Words;
    if (option.valueName == "FILE") return ValueKind::File;
    if (option.valueName == "DIR") return ValueKind::Folder;
    return ValueKind::None;
}

std::string BashAction(const OptionInfo& option)
{
    switch (KindOfValue(option)) {
    case ValueKind::File: return "COMPREPLY=($(compgen -f -- \"$cur\"))";
    case ValueKind::Folder: return "COMPREPLY=($(compgen -d -- \"$cur\"))";
    case ValueKind::Words: return "COMPREPLY=($(compgen -W \"" + Joined(option.values) + "\" -- \"$cur\"))";
    case ValueKind::None: break;
    }
    return "COMPREPLY=()";
}

// The branches of the bash function that complete the value of an option
// ("COMMAND:OPTION"), one branch per way of completing.
std::string BashValueCases(const CLI::App& app, const std::vector<const CLI::App*>& commands)
{
    std::vector<std::pair<std::string, std::string>> branches; // action, patterns
    auto add = [&](const std::string& command, const std::vector<OptionInfo>& options) {
        for (const OptionInfo& option : options) {
            if (option.valueName.empty()) continue;
            const std::string action = BashAction(option);
            auto branch = std::find_if(branches.begin(), branches.end(), [&](const auto& b) { return b.first == action; });
            if (branch == branches.end()) branch = branches.insert(branches.end(), {action, std::string()});
            for (const std::string& name : option.names) {
                const std::string pattern = command + ":" + name;
                if (branch->second.find(pattern + "|") == std::string::npos) branch->second += pattern + "|";
            }
        }
    };
    add("", NamedOptions(app));
    for (const CLI::App* cmd : commands) add(cmd->get_name(), NamedOptions(*cmd));
    std::string cases;
    for (const auto& branch : branches) {
        const std::string patterns = branch.second.substr(0, branch.second.size() - 1);
        cases += "    " + patterns + ")\n        " + branch.first + "\n        return ;;\n";
    }
    return cases;
}

} // namespace

std::string BashCompletion(const CLI::App& app)
{
    const std::vector<const CLI::App*> commands = Commands(app);
    std::vector<std::string> names;
    for (const CLI::App* cmd : commands) names.push_back(cmd->get_name());
    std::string script =
        "# bash completion for rtfconv                               -*- shell-script -*-\n"
        "# Generated by 'rtfconv --generate bash' from the tool's option definitions; do not edit.\n"
        "_rtfconv()\n"
        "{\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
        "    local command=\"\" options word\n"
        "    for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
        "        case $word in\n"
        "        " + [&] {
            std::string alternatives;
            for (const std::string& name : names) alternatives += (alternatives.empty() ? "" : "|") + name;
            return alternatives;
        }() + ") command=$word; break ;;\n"
        "        esac\n"
        "    done\n"
        "    case $command:$prev in\n";
    const std::vector<OptionInfo> toolOptions = NamedOptions(app);
    script += BashValueCases(app, commands);
    script += "    esac\n    case $command in\n";
    script += "    \"\") options=\"" + Joined(AllNames(toolOptions)) + "\" ;;\n";
    for (const CLI::App* cmd : commands)
        script += "    " + cmd->get_name() + ") options=\"" + Joined(AllNames(NamedOptions(*cmd))) + "\" ;;\n";
    script +=
        "    esac\n"
        "    if [[ $cur == -* ]]; then\n"
        "        COMPREPLY=($(compgen -W \"$options\" -- \"$cur\"))\n"
        "    elif [ -z \"$command\" ]; then\n"
        "        COMPREPLY=($(compgen -W \"" + Joined(names) + "\" -- \"$cur\"))\n"
        "    else\n"
        "        COMPREPLY=($(compgen -f -- \"$cur\"))\n"
        "    fi\n"
        "}\n"
        "complete -o filenames -F _rtfconv rtfconv\n";
    return script;
}

namespace {

// A help text as a zsh description: its first clause, with the characters
// that _arguments gives a meaning escaped, inside single quotes.
std::string ZshDescription(const std::string& help)
{
    std::string text = help.substr(0, help.find("; "));
    // A clause cut inside its parentheses loses them.
    if (std::count(text.begin(), text.end(), '(') > std::count(text.begin(), text.end(), ')'))
        text = text.substr(0, text.find_last_of('('));
    while (!text.empty() && text.back() == ' ') text.pop_back();
    std::string out;
    for (const char c : text) {
        if (c == '\'') out += "'\\''";
        else if (c == '[' || c == ']' || c == ':' || c == '\\') out += std::string("\\") + c;
        else out += c;
    }
    return out;
}

std::string ZshArgumentSpecs(const std::vector<OptionInfo>& options, const std::string& indent)
{
    std::string specs;
    for (const OptionInfo& option : options) {
        const std::string exclusion = option.names.size() > 1 ? "(" + Joined(option.names) + ")" : "";
        const std::string namePart =
            option.names.size() > 1 ? "'" + exclusion + "'{" + [&] {
                std::string list;
                for (const std::string& name : option.names) list += (list.empty() ? "" : ",") + name;
                return list;
            }() + "}'"
                                    : "'" + option.names.front();
        std::string action;
        if (!option.valueName.empty()) {
            switch (KindOfValue(option)) {
            case ValueKind::File: action = ":" + option.valueName + ":_files"; break;
            case ValueKind::Folder: action = ":" + option.valueName + ":_files -/"; break;
            case ValueKind::Words: action = ":" + option.valueName + ":(" + Joined(option.values) + ")"; break;
            case ValueKind::None: action = ":" + option.valueName + ": "; break;
            }
        }
        specs += indent + namePart + "[" + ZshDescription(option.help) + "]" + action + "' \\\n";
    }
    return specs;
}

} // namespace

std::string ZshCompletion(const CLI::App& app)
{
    std::string script =
        "#compdef rtfconv\n"
        "# Generated by 'rtfconv --generate zsh' from the tool's option definitions; do not edit.\n"
        "_rtfconv() {\n"
        "    local curcontext=$curcontext state line\n"
        "    typeset -A opt_args\n"
        "    _arguments -C \\\n";
    script += ZshArgumentSpecs(NamedOptions(app), "        ");
    script += "        '1:command:->command' \\\n        '*::argument:->argument'\n";
    script += "    case $state in\n    command)\n        local -a commands\n        commands=(\n";
    for (const CLI::App* cmd : Commands(app))
        script += "            '" + cmd->get_name() + ":" + ZshDescription(cmd->get_description()) + "'\n";
    script += "        )\n        _describe command commands ;;\n    argument)\n        case $line[1] in\n";
    for (const CLI::App* cmd : Commands(app)) {
        script += "        " + cmd->get_name() + ")\n            _arguments \\\n";
        script += ZshArgumentSpecs(NamedOptions(*cmd), "                ");
        script += "                '*:FILE:_files' ;;\n";
    }
    script += "        esac ;;\n    esac\n}\n_rtfconv \"$@\"\n";
    return script;
}

} // namespace rtfconv
