// link/json.cpp: reading and writing JSON documents with readable, one-line failures.
#include "link/json.h"

#include <string>

namespace nurel {

namespace {

// nlohmann's messages start with "[json.exception.parse_error.101] parse error at line 1,
// column 9: "; people want to know what was wrong, so keep only the reason after the position.
// The reason quotes the input it stopped at, which may be any bytes and any length: keep the
// message one line of valid UTF-8, and short.
std::string reason(const nlohmann::json::exception& error) {
  std::string text = error.what();
  auto colon = text.find(": ");
  if (colon == std::string::npos) colon = text.find("] ");
  if (colon != std::string::npos) text = text.substr(colon + 2);
  constexpr size_t longest = 200;
  std::string out;
  for (unsigned char c : text.substr(0, longest)) {
    if (c == '\n' || c == '\r') {
      out += ' ';
    } else if (c >= 0x80) {
      static const char digits[] = "0123456789abcdef";
      out += "\\x";
      out += digits[c >> 4];
      out += digits[c & 15];
    } else {
      out += char(c);
    }
  }
  if (text.size() > longest) out += "...";
  return out;
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
    throw JsonError(reason(error) + " (at byte " + std::to_string(error.byte) + ")");
  } catch (const nlohmann::json::exception& error) {
    // A number too large for a double ("1e999") is refused as out of range, not as a parse error.
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
