// link/json.h: the one JSON value type of the program.
//
// Replies from the browser, request parameters, MCP messages and tool results are all held
// as `Json`: objects keep their keys sorted bytewise, which is the order `printed` shows.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

#include "link/text_error.h"

namespace nurel {

using Json = nlohmann::json;

/// The deepest nesting of arrays and objects the program reads from outside; deeper input is
/// refused as unreadable, so that a hostile document cannot exhaust the stack.
inline constexpr int maxDepth = 512;

/// Parses `text` as a JSON document whose top level is an object or an array, as nlohmann's
/// parser does (a repeated key keeps its last value). Throws `JsonError` with a one-line,
/// lower-case reason when it is not one.
Json parseDocument(std::string_view text);

/// Reads all of `text`, the characters of a decimal number (digits, ".", "e", signs; the caller
/// keeps other characters out), into the nearest double. Empty when it is not one number.
/// `outOfRange` tells whether the value lay beyond a double's range, either way: an overflow
/// reads as infinity, an underflow as zero or a subnormal.
std::optional<double> readDecimal(std::string_view text, bool& outOfRange);

/// Serialises `value` compactly (no spaces, "/" unescaped), as nlohmann's dump() does. Throws
/// `JsonError` for a string that is not valid UTF-8. The text has room for one more byte, so a
/// caller can add a line feed without copying it.
std::string compact(const Json& value);
/// compact(), but a string that is not valid UTF-8 (a path named by bytes of another encoding)
/// gets U+FFFD in place of its invalid bytes instead of failing. Never throws JsonError.
std::string compactRepaired(const Json& value);
/// compact() for a value whose objects keep their members in insertion order.
std::string compactInOrder(const nlohmann::ordered_json& value);

/// Serialises `value` indented by two spaces, "/" unescaped, as nlohmann's dump(2) does;
/// strings that are not valid UTF-8 get U+FFFD in place of their invalid bytes. Never throws
/// JsonError.
std::string indented(const Json& value);

/// A JSON text that could not be read or written; `text()` is one lower-case line.
class JsonError : public TextError {
 public:
  using TextError::TextError;
};

}  // namespace nurel
