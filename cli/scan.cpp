// cli/scan.cpp: the argument scanning.
#include "cli/scan.h"

#include "cli/rules.h"

namespace nurel {

Scanned scan(const Command& command, std::span<const std::string> arguments) {
  Scanned out;
  for (size_t index = 0; index < arguments.size(); ++index) {
    const std::string& word = arguments[index];
    if (word.size() >= 3 && word.starts_with("--")) {
      std::string name = word.substr(2);
      if (isValued(name)) {
        if (index + 1 >= arguments.size()) throw UsageError();
        out.params[name] = arguments[++index];  // verbatim, even when it starts with "--"
      } else {
        out.params[name] = true;  // any switch, known or not, goes to the browser
      }
    } else {
      out.positional.push_back(word);
    }
  }

  std::vector<std::string_view> names = command.fills();
  if (command.orPoint && out.positional.size() == 3) names = {"tab", "x", "y"};
  if (command.textOption) {
    auto text = out.params.find("text");
    if (text != out.params.end()) {
      if (text->is_string()) out.positional.push_back(text->get<std::string>());
      out.params.erase(text);
    }
  }
  if (out.positional.size() < names.size()) throw UsageError();
  for (size_t j = 0; j < names.size(); ++j) {
    std::string value = out.positional[j];
    if (j + 1 == names.size())
      for (size_t k = j + 1; k < out.positional.size(); ++k) value += " " + out.positional[k];
    out.params[std::string(names[j])] = value;
  }
  return out;
}

Json requestParams(const Command& command, std::span<const std::string> arguments) {
  Scanned scanned = scan(command, arguments);
  applyRules(command.name, scanned);
  return std::move(scanned.params);
}

}  // namespace nurel
