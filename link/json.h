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
/// parser does (a repeated key keeps its last value), but with every byte of `text` read: a NUL
/// byte after the document is an error, where nlohmann stops reading at it. An integer beyond
/// 64 bits becomes a largeInteger(). Throws `JsonError` with a one-line, lower-case reason
/// when `text` is not such a document.
Json parseDocument(std::string_view text);

/// An integer beyond 64 bits (below -2^63 or above 2^64 - 1), held as the characters it was
/// written with (`text`: a JSON integer, "-" and digits), so that it is written back exactly:
/// ids are echoed and arguments reach the browser digit for digit. parseDocument() makes one
/// for every such integer within a double's range (beyond it, as for 1e999, the text is not
/// read); the writers below and printed() write its characters.
///
/// Why a binary value: nlohmann keeps integers in 64 bits and reads longer ones as doubles,
/// and it has no number type that keeps text. Its binary value is the one kind that JSON text
/// never yields (only its CBOR and MessagePack readers make one, and this program uses
/// neither), so holding the characters there, under a subtype of its own, cannot be mistaken
/// for anything read from JSON: a string stays a string, and two such integers are equal
/// exactly when their characters are.
Json largeInteger(std::string_view text);
/// The characters of an integer made by largeInteger(); nothing for any other value.
std::optional<std::string_view> largeIntegerText(const Json& value);

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
