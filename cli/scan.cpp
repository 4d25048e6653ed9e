// cli/scan.cpp: the command table and the argument scanning.
#include "cli/scan.h"

#include <algorithm>
#include <array>

#include "cli/rules.h"

namespace nurel {

std::span<const Command> requests() {
  // clang-format off
  static const Command table[] = {
      {"tabs", "tabs", {}},
      {"open", "open", {"url"}},
      {"navigate", "navigate", {"tab", "url"}},
      {"snapshot", "snapshot", {"tab"}},
      {"click", "click", {"tab", "ref"}},
      {"type", "type", {"tab", "text"}},
      {"choose", "choose", {"tab", "ref", "option"}},
      {"key", "key", {"tab", "key"}},
      {"scroll", "scroll", {"tab"}},
      {"text", "text", {"tab"}},
      {"close", "close", {"tab"}},
      {"hello", "hello", {}},
      {"describe", "describe", {"tab"}},
      {"wait", "wait", {"tab"}},
      {"screenshot", "screenshot", {"tab"}},
      {"dialog", "dialog", {"tab", "answer"}},
      {"media", "media", {"tab"}},
      {"batch", "batch", {"tab", "actions"}},
      {"upload", "upload", {"tab", "ref"}},
      {"signin", "signin", {"tab"}},
      {"network", "network", {"tab"}},
      {"scenarios", "scenarios", {}},
      {"run", "run", {"tab", "scenario"}},
      {"hover", "hover", {"tab", "ref"}},
      {"drag", "drag", {"tab", "from", "to"}},
      {"back", "back", {"tab"}},
      {"forward", "forward", {"tab"}},
      {"reload", "reload", {"tab"}},
      {"find", "find", {"tab", "text"}},
      {"inspect", "inspect", {"tab", "ref"}},
      {"console", "console", {"tab"}},
      {"eval", "eval", {"tab", "script"}},
      {"emulate", "emulate", {"tab"}},
      {"pdf", "pdf", {"tab"}},
      {"downloads", "downloads", {"tab"}},
      {"storage", "storage", {"tab"}},
      {"ask", "ask", {"tab", "message"}},
  };
  // clang-format on
  return table;
}

const Command* findCommand(std::string_view name) {
  for (const Command& command : requests())
    if (command.name == name) return &command;
  return nullptr;
}

bool isValued(std::string_view name) {
  static constexpr std::array<std::string_view, 14> valued = {
      "ref",    "file",   "text",  "gone",   "url",    "seconds", "timeout",
      "intent", "filter", "limit", "values", "styles", "size",    "request"};
  return std::find(valued.begin(), valued.end(), name) != valued.end();
}

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

  std::vector<std::string_view> names = command.names;
  if ((command.name == "click" || command.name == "hover") && out.positional.size() == 3)
    names = {"tab", "x", "y"};
  if (command.name == "find") {
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
