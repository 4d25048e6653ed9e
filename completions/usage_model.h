// completions/usage_model.h: the commands, words and options of the usage text, read from the
// text itself.
//
// The usage text is the one place where the command line is described. Shell completions and
// the manual page are generated from what this reads out of it at build time, so they follow
// the text wherever it changes instead of being three or four lists kept by hand.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace nurel {

/// An option as a usage line shows it: `--file <path>` (name "file", value "<path>") or
/// `--interactive` (no value).
struct UsageOption {
  std::string name;   // without the leading "--"
  std::string value;  // the placeholder of its value, empty for a switch
  bool operator==(const UsageOption&) const = default;
};

/// A positional word: a placeholder such as `<tab>`, or the literal words it may be
/// (`accept|dismiss`).
struct UsageWord {
  std::string placeholder;           // "<tab>", "<file>", or "accept|dismiss"
  std::vector<std::string> choices;  // the literal words, empty for a placeholder
  bool optional = false;             // written inside [ ]
  bool repeats = false;              // written with "..." after it
};

/// One command with the words and options its usage line shows.
struct UsageCommand {
  std::string name;
  std::string synopsis;  // "snapshot <tab> [--interactive] [--viewport] [--diff] [--file <path>]"
  std::vector<UsageWord> words;
  std::vector<UsageOption> options;
};

/// One entry of the usage text: a synopsis (which may name two commands, as "back <tab> |
/// forward <tab>") and the lines that describe it.
struct UsageEntry {
  std::string synopsis;
  std::vector<std::string> description;  // the lines after the synopsis, trimmed
  std::vector<UsageCommand> commands;
};

/// The usage text read: the options its first line gives every action (`--intent <why>`) and
/// its entries in order.
struct UsageModel {
  std::vector<UsageOption> actionOptions;
  std::vector<UsageEntry> entries;
};

/// A usage text that does not read as synopses and descriptions.
class UsageFormatError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads `usage`. An entry starts on a line indented by two spaces, with the command's name;
/// its synopsis runs while the words are placeholders (`<x>`, `<x>...`), bracketed groups
/// (`[...]`, nested), alternatives (`a|b`) or a `|` and a further command; the rest of the
/// line and the lines indented further describe it. Throws UsageFormatError on an unbalanced
/// bracket or a missing first line.
UsageModel readUsage(std::string_view usage);

/// Whether a placeholder names a file: `<file>` and `<path>`.
bool namesFile(std::string_view placeholder);

/// The commands of `model` in order, each once.
std::vector<const UsageCommand*> commandsOf(const UsageModel& model);

/// Whether `name` is a command that talks to the browser and so takes the action options.
using IsBrowserCommand = std::function<bool(std::string_view name)>;

/// The options `command` takes: those of its usage line, then the action options when it is a
/// browser command (unless its line already shows them).
std::vector<UsageOption> optionsOf(const UsageModel& model, const UsageCommand& command,
                                   const IsBrowserCommand& isBrowserCommand);

}  // namespace nurel
