// cli/rules.cpp: the rules particular to some commands and options.
//
// Each rule is a small function over the scanned parameters; two tables say which run, the
// command's own first, then every option rule whatever the command.
#include "cli/rules.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace nurel {

namespace {

// Removes `key` from `params` and gives back what it held.
std::optional<Json> take(Json& params, const char* key) {
  auto it = params.find(key);
  if (it == params.end()) return std::nullopt;
  Json value = std::move(*it);
  params.erase(it);
  return value;
}

// Removes `key`; its text when it held a string.
std::optional<std::string> takeString(Json& params, const char* key) {
  std::optional<Json> value = take(params, key);
  if (!value || !value->is_string()) return std::nullopt;
  return value->get<std::string>();
}

// The pieces of `text` between separators, empty pieces dropped.
std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (size_t start = 0; start <= text.size();) {
    size_t end = std::min(text.find(separator, start), text.size());
    if (end > start) pieces.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return pieces;
}

// Spaces and tabs off both ends; line breaks stay.
std::string_view trimmed(std::string_view text, std::string_view blanks = " \t") {
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Text handed over by the user, parsed as a JSON object or array; nothing if it is neither.
std::optional<Json> document(const Json& text) {
  if (!text.is_string()) return std::nullopt;
  try {
    return parseDocument(text.get_ref<const std::string&>());
  } catch (const JsonError&) {
    return std::nullopt;
  }
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// "accept" or "dismiss", then optionally the text to type into a prompt, as typed.
void dialogAnswer(Scanned& scanned) {
  std::optional<std::string> answer = takeString(scanned.params, "answer");
  if (!answer) return;
  size_t start = answer->find_first_not_of(' ');
  if (start == std::string::npos) throw UsageError();
  size_t end = std::min(answer->find(' ', start), answer->size());
  std::string first = answer->substr(start, end - start);
  if (first != "accept" && first != "dismiss") throw UsageError();
  scanned.params["accept"] = first == "accept";
  if (end + 1 < answer->size()) scanned.params["text"] = answer->substr(end + 1);
}

// tab [action [value]]; further words are ignored.
void mediaWords(Scanned& scanned) {
  const std::vector<std::string>& words = scanned.positional;
  if (words.size() >= 2) {
    scanned.params["tab"] = words[0];
    scanned.params["action"] = words[1];
  }
  if (words.size() >= 3) scanned.params["value"] = words[2];
}

// tab [dy [dx]], kept as typed; further words are ignored.
void scrollWords(Scanned& scanned) {
  const std::vector<std::string>& words = scanned.positional;
  if (words.size() >= 1) scanned.params["tab"] = words[0];
  if (words.size() >= 2) scanned.params["dy"] = words[1];
  if (words.size() >= 3) scanned.params["dx"] = words[2];
}

// tab ref file...: every word after the ref is one file path.
void uploadFiles(Scanned& scanned) {
  const std::vector<std::string>& words = scanned.positional;
  if (words.size() < 3) throw UsageError();
  scanned.params["ref"] = words[1];
  scanned.params["files"] = std::vector<std::string>(words.begin() + 2, words.end());
}

void batchActions(Scanned& scanned) {
  auto actions = scanned.params.find("actions");
  std::optional<Json> parsed;
  if (actions != scanned.params.end()) parsed = document(*actions);
  bool objects = parsed && parsed->is_array();
  for (size_t i = 0; objects && i < parsed->size(); ++i) objects = (*parsed)[i].is_object();
  if (!objects) throw UsageError("batch takes a JSON array of actions");
  *actions = std::move(*parsed);
}

// Two numbers among the comma-separated pieces make a point; anything else is a ref. Pieces
// that are not numbers are passed over, so "10,abc,20" is still the point (10, 20).
void dragEnd(Json& params, const char* key, const char* x, const char* y, const char* ref) {
  std::optional<std::string> text = takeString(params, key);
  if (!text) return;
  std::vector<double> numbers;
  for (std::string_view piece : split(*text, ','))
    if (std::optional<double> number = readNumber(trimmed(piece))) numbers.push_back(*number);
  if (numbers.size() == 2) {
    params[x] = numbers[0];
    params[y] = numbers[1];
  } else {
    params[ref] = *text;
  }
}

void dragEnds(Scanned& scanned) {
  dragEnd(scanned.params, "from", "from_x", "from_y", "ref");
  dragEnd(scanned.params, "to", "to_x", "to_y", "to_ref");
}

void clickButton(Scanned& scanned) {
  if (take(scanned.params, "right")) scanned.params["button"] = "right";
}

// With both switches the later rule, "warn", wins.
void consoleLevel(Scanned& scanned) {
  if (take(scanned.params, "errors")) scanned.params["level"] = "error";
  if (take(scanned.params, "warnings")) scanned.params["level"] = "warn";
}

// Switches that pick one value of `key`; the last present in `names` wins.
void choice(Json& params, std::initializer_list<const char*> names, const char* key) {
  for (const char* name : names)
    if (take(params, name)) params[key] = name;
}

void emulateChoices(Scanned& scanned) {
  choice(scanned.params, {"dark", "light", "system"}, "color_scheme");
  choice(scanned.params, {"print", "screen"}, "media");
  std::optional<std::string> size = takeString(scanned.params, "size");
  if (!size) return;
  for (char& c : *size)
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  // The pieces are read as they are: "390 x 844" has no number in it.
  std::vector<double> numbers;
  for (std::string_view piece : split(*size, 'x'))
    if (std::optional<double> number = readNumber(piece)) numbers.push_back(*number);
  if (numbers.size() != 2) throw UsageError("--size takes <width>x<height>, as 390x844");
  scanned.params["width"] = numbers[0];
  scanned.params["height"] = numbers[1];
}

void inspectRef(Scanned& scanned) {
  if (!scanned.params.contains("ref")) throw UsageError();
}

// An option whose text is an integer becomes that integer; any other text drops it.
void integerOption(Json& params, const char* key, std::string_view ends = "") {
  std::optional<std::string> text = takeString(params, key);
  if (!text) return;
  if (std::optional<std::int64_t> number = readInteger(trimmed(*text, ends))) params[key] = *number;
}

// "#12" and "12" name the same request, as the network listing shows them.
void requestNumber(Scanned& scanned) { integerOption(scanned.params, "request", "#"); }

void limitNumber(Scanned& scanned) { integerOption(scanned.params, "limit"); }

void plainLabels(Scanned& scanned) {
  if (take(scanned.params, "plain")) scanned.params["labels"] = false;
}

void valuesObject(Scanned& scanned) {
  auto values = scanned.params.find("values");
  if (values == scanned.params.end()) return;
  std::optional<Json> parsed = document(*values);
  if (!parsed || !parsed->is_object()) throw UsageError("values takes a JSON object");
  *values = std::move(*parsed);
}

using Rule = void (*)(Scanned&);

struct CommandRule {
  std::string_view command;
  Rule rule;
};

// clang-format off
constexpr CommandRule commandRules[] = {
    {"dialog",  dialogAnswer},
    {"media",   mediaWords},
    {"scroll",  scrollWords},
    {"upload",  uploadFiles},
    {"batch",   batchActions},
    {"drag",    dragEnds},
    {"click",   clickButton},
    {"console", consoleLevel},
    {"emulate", emulateChoices},
    {"inspect", inspectRef},
};

constexpr Rule optionRules[] = {
    requestNumber,
    plainLabels,
    limitNumber,
    valuesObject,
};
// clang-format on

}  // namespace

void applyRules(std::string_view command, Scanned& scanned) {
  for (const CommandRule& row : commandRules)
    if (row.command == command) row.rule(scanned);
  for (Rule rule : optionRules) rule(scanned);
}

std::optional<std::int64_t> readInteger(std::string_view text) {
  // from_chars refuses a leading "+"; take it off, but only before a digit, so "+-1" stays out.
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.empty() || !isDigit(text.front())) return std::nullopt;
  }
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  auto [stop, error] = std::from_chars(text.data(), end, value, 10);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

std::optional<double> readNumber(std::string_view text) {
  // Only the characters of a decimal number may pass: no "inf", "nan", hexadecimal or spaces.
  if (text.find_first_not_of("0123456789.eE+-") != std::string_view::npos) return std::nullopt;
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.empty() || !(isDigit(text.front()) || text.front() == '.')) return std::nullopt;
  }
  // A sign left at the front is the number's own; a second one ("+-1", "--1") does not read.
  bool outOfRange = false;
  std::optional<double> value = readDecimal(text, outOfRange);
  // A value too small to hold (1e-400) is as good as zero, while one too large (1e999) has no
  // JSON form and does not read.
  if (!value || !std::isfinite(*value)) return std::nullopt;
  return value;
}

}  // namespace nurel
