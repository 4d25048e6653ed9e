// cli/scan.h: the one grammar that turns words into request parameters.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/commands.h"
#include "link/json.h"

namespace nurel {

/// A mistake on the command line. An empty message means "show the usage text".
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message = "") : std::runtime_error(message) {}
};

/// The words after the command, read into parameters.
struct Scanned {
  Json params = Json::object();
  std::vector<std::string> positional;
};

/// Scans `arguments` for `command`: options anywhere ("--name value" for valued options,
/// "--name" true otherwise), then the positional words fill the command's names, the last one
/// taking all remaining words joined by spaces. Throws UsageError for a valued option without
/// a value and for too few positional words.
Scanned scan(const Command& command, std::span<const std::string> arguments);

/// The request a command line asks for: scanning, then the command's and options' own rules.
/// Throws UsageError; never touches the browser.
Json requestParams(const Command& command, std::span<const std::string> arguments);

}  // namespace nurel
