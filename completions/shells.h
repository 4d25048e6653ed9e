// completions/shells.h: completion scripts for bash, zsh and fish, written from the command
// table.
//
// All three read the words before the cursor as nurel itself scans them: a valued option takes
// the next word whatever it is, any other "--word" is a switch, everything else is positional.
// From that they offer the commands, a command's options (those of its usage line, and
// --intent for every command that talks to the browser), file names after an option whose
// value is a <path> and at a <file> word (upload's files), and the literal words a usage line
// lists (dialog's accept|dismiss). Tab ids and refs are not guessed: completing them would
// mean asking, or even starting, the browser.
#pragma once

#include <string>
#include <vector>

#include "cli/usage.h"

namespace nurel {

/// An option as completed: `--file <path>` (name "file", value "<path>") or `--interactive`
/// (no value).
struct CompletionOption {
  std::string name;   // without the leading "--"
  std::string value;  // the placeholder of its value, empty for a switch
};

/// A positional word: a placeholder such as `<tab>`, or the literal words it may be.
struct CompletionWord {
  std::string placeholder;           // "<tab>", "<file>", or "accept|dismiss"
  std::vector<std::string> choices;  // the literal words, empty for a placeholder
  bool optional = false;             // written inside [ ]
  bool repeats = false;              // written with "..." after it
};

/// What completing one command needs.
struct CompletionCommand {
  std::string name;
  std::string summary;                    // its description, on one line
  std::vector<CompletionOption> options;  // in the order of its synopsis, --intent last
  std::vector<CompletionWord> words;      // its positional words
};

/// What completing any command line of nurel needs.
struct CompletionModel {
  std::vector<CompletionCommand> commands;  // in the order of the usage text
  std::vector<CompletionOption> valued;     // every option that takes a value, sorted by name
};

/// Whether a placeholder names a file: `<file>` and `<path>`.
bool namesFile(std::string_view placeholder);

/// The completion model of the usage entries: the commands of the usage text, each with the
/// options of its synopsis and, when it talks to the browser, the action option (--intent).
CompletionModel completionModel(const std::vector<UsageEntry>& entries);

/// The bash completion script: a function `_nurel` registered with `complete -F`.
std::string bashCompletion(const CompletionModel& model);

/// The zsh completion function `_nurel` (#compdef nurel), for fpath or for sourcing.
std::string zshCompletion(const CompletionModel& model);

/// The fish completions, for a vendor_completions.d folder or for sourcing.
std::string fishCompletion(const CompletionModel& model);

}  // namespace nurel
