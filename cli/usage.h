// cli/usage.h: the usage text, and its entries for the manual page and the completions.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "catalogue/commands.h"

namespace nurel {

/// One entry of the usage text: a synopsis (two commands share one in "back <tab> | forward
/// <tab>") and the lines that describe it.
struct UsageEntry {
  std::string synopsis;
  std::vector<std::string_view> description;
  std::vector<const Command*> commands;
};

/// The entries of the usage text, in order: every command but the hidden ones.
std::vector<UsageEntry> usageEntries();

/// The usage text (UTF-8, no final line feed). Printed by `guide` on standard output and by
/// every usage error on standard error. `hello` is deliberately not in it.
const std::string& usage();

}  // namespace nurel
