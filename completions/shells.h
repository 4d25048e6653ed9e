// completions/shells.h: completion scripts for bash, zsh and fish, written from the usage text.
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

#include "completions/usage_model.h"

namespace nurel {

/// What completing one command needs.
struct CompletionCommand {
  std::string name;
  std::string summary;               // the first line of its description
  std::vector<UsageOption> options;  // in the order of its usage line, action options last
  std::vector<UsageWord> words;      // its positional words
};

/// What completing any command line of nurel needs.
struct CompletionModel {
  std::vector<CompletionCommand> commands;  // in the order of the usage text
  std::vector<UsageOption> valued;          // every option that takes a value, sorted by name
};

/// The completion model of a usage text. `isBrowserCommand` says which commands take the
/// action options (--intent).
CompletionModel completionModel(const UsageModel& usage, const IsBrowserCommand& isBrowserCommand);

/// The bash completion script: a function `_nurel` registered with `complete -F`.
std::string bashCompletion(const CompletionModel& model);

/// The zsh completion function `_nurel` (#compdef nurel), for fpath or for sourcing.
std::string zshCompletion(const CompletionModel& model);

/// The fish completions, for a vendor_completions.d folder or for sourcing.
std::string fishCompletion(const CompletionModel& model);

}  // namespace nurel
