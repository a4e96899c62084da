// Usage errors, and the man page and shell completion scripts generated from
// the tool's option definitions (rtfconv --generate man|bash|zsh, run by the
// build, so that they stay true to the options as they change).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
} // namespace CLI

namespace rtfconv {

// Reports a failed parse in one line "rtfconv: ...": an unknown command or
// option is named with the nearest known one. Returns the exit status (2).
int ReportUsageError(const CLI::App& app, const CLI::ParseError& e);
int ReportMissingCommand(const CLI::App& app);

// The known name nearest to `given` (habits from other tools first, "-V" for
// "--version", then the fewest edits); empty when `known` is.
std::string NearestName(const std::string& given, const std::vector<std::string>& known);
// Levenshtein distance: insertions, deletions and substitutions.
std::size_t EditDistance(const std::string& a, const std::string& b);

// The man page rtfconv(1), in roff.
std::string ManPage(const CLI::App& app, const std::string& version);
// Completion scripts for bash (sourced; defines _rtfconv and registers it) and
// zsh (an autoloaded _rtfconv function file).
std::string BashCompletion(const CLI::App& app);
std::string ZshCompletion(const CLI::App& app);

} // namespace rtfconv
