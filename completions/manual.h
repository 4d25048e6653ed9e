// completions/manual.h: the COMMANDS section of the manual page, written from the usage entries.
//
// The page itself (doc/nurel.1.in) is roff written by hand; only the list of commands, with
// their synopses and descriptions as the usage text gives them, is filled in at build time, so
// that the page cannot lose a command or an option that the program has.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cli/usage.h"

namespace nurel {

/// `text` as roff input text: backslashes, hyphens and apostrophes escaped, characters
/// beyond ASCII written as \[uXXXX], and a line that would start with a control character
/// ("." or "'") guarded with \&.
std::string roffText(std::string_view text);

/// Words longer than this many bytes get places to break a line.
inline constexpr size_t longWord = 40;

/// `line` (roff) with a zero-width break point (\:) after each comma of its long words, so
/// that an example such as batch's JSON can wrap on a narrow page instead of overflowing it.
std::string breakable(std::string_view line);

/// A synopsis in roff: command names, literal words and options bold, placeholders italic,
/// brackets and bars roman. Rendered, it reads exactly as `synopsis`.
std::string roffSynopsis(std::string_view synopsis);

/// One tagged paragraph per usage entry: the synopsis, then the description.
std::string manualCommands(const std::vector<UsageEntry>& entries);

/// One tagged paragraph per action a batch can do: its name, then its fields.
std::string manualBatch();

/// A manual page without the line that the commands replace.
class ManualError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// `page` with every line that is exactly "@COMMANDS@" replaced by `manualCommands(entries)`,
/// and every "@BATCH@" by `manualBatch()`.
/// Throws ManualError when the page has no such line.
std::string manualPage(std::string_view page, const std::vector<UsageEntry>& entries);

}  // namespace nurel
