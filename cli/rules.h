// cli/rules.h: what some commands and options add to the scanned parameters, and the two
// strict number readings they use.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "cli/scan.h"

namespace nurel {

/// Applies the rules of `command`, then the option rules, to `scanned.params`.
/// Throws UsageError for a mistake (empty message: show the usage text).
void applyRules(std::string_view command, Scanned& scanned);

/// `text` read whole as a base-10 signed integer: an optional "+" or "-", then digits only.
/// Nothing when it does not read, or does not fit in 64 bits.
std::optional<std::int64_t> readInteger(std::string_view text);

/// `text` read whole as a decimal floating-point number: an optional sign, digits with an
/// optional point, an optional exponent. Nothing for anything else: "inf", "nan",
/// hexadecimal, surrounding white space, an empty text, or a value too large for a double. A
/// value too small for one reads as the nearest double (1e-400 as 0).
std::optional<double> readNumber(std::string_view text);

}  // namespace nurel
