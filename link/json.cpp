// link/json.cpp: reading and writing JSON documents with readable, one-line failures.
#include "link/json.h"

#include <string>

namespace nurel {

namespace {

// nlohmann's messages start with "[json.exception.parse_error.101] parse error at line 1,
// column 9: "; people want to know what was wrong, so keep only the reason after the position.
std::string reason(const nlohmann::json::parse_error& error) {
  std::string text = error.what();
  auto colon = text.find(": ");
  if (colon != std::string::npos) text = text.substr(colon + 2);
  std::string out;
  for (char c : text) out += (c == '\n' || c == '\r') ? ' ' : c;
  return out + " (at byte " + std::to_string(error.byte) + ")";
}

}  // namespace

Json parseDocument(std::string_view text) {
  if (text.empty()) throw JsonError("empty line where JSON was expected");
  bool tooDeep = false;
  auto guard = [&tooDeep](int depth, nlohmann::json::parse_event_t, Json&) {
    if (depth > maxDepth) tooDeep = true;
    return true;
  };
  Json value;
  try {
    value = Json::parse(text.begin(), text.end(), guard);
  } catch (const nlohmann::json::parse_error& error) {
    throw JsonError(reason(error));
  }
  if (tooDeep) throw JsonError("JSON nested deeper than " + std::to_string(maxDepth) + " levels");
  if (!value.is_object() && !value.is_array())
    throw JsonError("JSON text that is neither an object nor an array");
  return value;
}

std::string compact(const Json& value) {
  try {
    return value.dump();
  } catch (const nlohmann::json::type_error&) {
    throw JsonError("a text that is not valid UTF-8 cannot be sent as JSON");
  }
}

}  // namespace nurel
