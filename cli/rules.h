// cli/rules.h: what some commands and options add to the scanned parameters.
#pragma once

#include <string_view>

#include "cli/scan.h"

namespace nurel {

/// Applies the rules of `command`, then the option rules, to `scanned.params`.
/// Throws UsageError for a mistake (empty message: show the usage text).
void applyRules(std::string_view command, Scanned& scanned);

}  // namespace nurel
