// link/json.cpp: reading and writing JSON documents with readable, one-line failures.
//
// Replies can hold screenshots of hundreds of MiB in one string, so both directions have a
// fast path that moves long runs of plain characters many bytes at a time. nlohmann/json stays
// the reference: the fast reader hands everything unusual (any error, a number out of range,
// deep nesting) to nlohmann's parser, and the writer hands it strings that are not valid UTF-8,
// so results and messages are nlohmann's own, with two exceptions that keep every byte exact:
// an integer beyond 64 bits keeps its characters, and a NUL byte does not end the text.
#include "link/json.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "link/large_memory.h"

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

// Marks a binary value as the characters of a largeInteger(); any other subtype is not one.
constexpr std::uint64_t integerText = 0x6e756d;  // "num"

template <typename Value>
std::optional<std::string_view> integerCharacters(const Value& value) {
  if (!value.is_binary()) return std::nullopt;
  const auto& bytes = value.get_binary();
  if (!bytes.has_subtype() || bytes.subtype() != integerText) return std::nullopt;
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// Builds the value from nlohmann's parser events: nlohmann's own values would hold an integer
// beyond 64 bits as a double, while its event for such a number still carries the characters.
// Nesting is counted as nlohmann's parser callbacks count it: the arrays and objects around.
class Builder : public nlohmann::json_sax<Json> {
 public:
  Json root;
  bool tooDeep = false;
  std::optional<JsonError> error;

  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(number_integer_t value) override { return put(value); }
  bool number_unsigned(number_unsigned_t value) override { return put(value); }
  bool number_float(number_float_t value, const string_t& text) override {
    bool integral = text.find_first_of(".eE") == string_t::npos;
    return put(integral ? largeInteger(text) : Json(value));
  }
  bool string(string_t& value) override { return put(std::move(value)); }
  bool binary(binary_t&) override { return false; }  // JSON text has none
  bool start_object(std::size_t) override { return open(Json::object()); }
  bool start_array(std::size_t) override { return open(Json::array()); }
  bool key(string_t& name) override {
    deeper();
    pendingKey = std::move(name);
    return true;
  }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }
  bool parse_error(std::size_t, const std::string&, const Json::exception& failure) override {
    // A number too large for a double ("1e999") is refused as out of range, not as a parse error.
    auto* syntax = dynamic_cast<const Json::parse_error*>(&failure);
    error = JsonError(syntax ? reason(failure) + " (at byte " + std::to_string(syntax->byte) + ")"
                             : reason(failure));
    return false;
  }

 private:
  void deeper() {
    if (stack.size() > size_t(maxDepth)) tooDeep = true;
  }
  // Places `value` where the parser is, and gives its address there.
  Json* place(Json value) {
    deeper();
    if (stack.empty()) {
      root = std::move(value);
      return &root;
    }
    Json& parent = *stack.back();
    if (parent.is_array()) {
      auto& items = parent.get_ref<Json::array_t&>();
      items.push_back(std::move(value));
      return &items.back();
    }
    // A repeated key keeps its last value, as nlohmann does.
    auto& members = parent.get_ref<Json::object_t&>();
    return &members.insert_or_assign(std::move(pendingKey), std::move(value)).first->second;
  }
  bool put(Json value) {
    place(std::move(value));
    return true;
  }
  bool open(Json container) {
    stack.push_back(place(std::move(container)));
    return true;
  }
  bool close() {
    stack.pop_back();
    return true;
  }

  // The open arrays and objects, outermost first; each stays where it is while it is open.
  std::vector<Json*> stack;
  std::string pendingKey;
};

// The reference reader: nlohmann's parser, with the depth limit, one-line messages, large
// integers kept, and every byte read.
Json parseSlowly(std::string_view text) {
  Builder builder;
  if (!Json::sax_parse(text.begin(), text.end(), &builder)) {
    if (builder.error) throw *builder.error;
    throw JsonError("unreadable JSON");
  }
  // nlohmann's reader ends the text at a NUL byte; here the whole text must be the document,
  // and a NUL byte, inside a string or out, is never part of one.
  if (auto* nul = static_cast<const char*>(std::memchr(text.data(), 0, text.size())))
    throw JsonError(
        "syntax error while parsing value - invalid literal; last read: '<U+0000>'; expected end "
        "of input (at byte " +
        std::to_string(nul - text.data() + 1) + ")");
  if (builder.tooDeep)
    throw JsonError("JSON nested deeper than " + std::to_string(maxDepth) + " levels");
  return std::move(builder.root);
}

// Sixteen bytes looked at together; GCC and Clang turn the operations into SSE2 or NEON.
using Block = unsigned char __attribute__((vector_size(16)));

// The first byte at or after `p` that a JSON string cannot hold as it stands: a quote, a
// backslash, a control character or the start of a multi-byte character.
const char* plainEnd(const char* p, const char* end) {
  while (end - p >= 64) {
    Block a, b, c, d;
    std::memcpy(&a, p, 16);
    std::memcpy(&b, p + 16, 16);
    std::memcpy(&c, p + 32, 16);
    std::memcpy(&d, p + 48, 16);
    auto special = [](Block v) { return (v == '"') | (v == '\\') | (v < 0x20) | (v >= 0x80); };
    auto any = special(a) | special(b) | special(c) | special(d);
    uint64_t halves[2];
    std::memcpy(halves, &any, 16);
    if (halves[0] | halves[1]) break;
    p += 64;
  }
  for (; p < end; ++p) {
    auto c = static_cast<unsigned char>(*p);
    if (c == '"' || c == '\\' || c < 0x20 || c >= 0x80) return p;
  }
  return end;
}

// The length of the well-formed UTF-8 character at `p` (RFC 3629, as nlohmann checks it), or
// 0 for a byte sequence that is not one.
size_t characterLength(const char* p, const char* end) {
  auto byte = [&](size_t i) { return p + i < end ? static_cast<unsigned char>(p[i]) : 0u; };
  auto within = [&](size_t i, unsigned low, unsigned high) {
    return byte(i) >= low && byte(i) <= high;
  };
  unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return within(1, 0x80, 0xBF) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    unsigned low = lead == 0xE0 ? 0xA0 : 0x80, high = lead == 0xED ? 0x9F : 0xBF;
    return within(1, low, high) && within(2, 0x80, 0xBF) ? 3 : 0;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    unsigned low = lead == 0xF0 ? 0x90 : 0x80, high = lead == 0xF4 ? 0x8F : 0xBF;
    return within(1, low, high) && within(2, 0x80, 0xBF) && within(3, 0x80, 0xBF) ? 4 : 0;
  }
  return 0;
}

void appendUtf8(std::string& out, uint32_t code) {
  if (code < 0x80) {
    out += char(code);
  } else if (code < 0x800) {
    out += char(0xC0 | code >> 6);
    out += char(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += char(0xE0 | code >> 12);
    out += char(0x80 | (code >> 6 & 0x3F));
    out += char(0x80 | (code & 0x3F));
  } else {
    out += char(0xF0 | code >> 18);
    out += char(0x80 | (code >> 12 & 0x3F));
    out += char(0x80 | (code >> 6 & 0x3F));
    out += char(0x80 | (code & 0x3F));
  }
}

// A reader for well-formed documents, in one pass, building the value as it goes. It gives
// up (returns false) at anything it does not expect, and the caller then asks nlohmann.
class FastReader {
 public:
  explicit FastReader(std::string_view text) : at(text.data()), end(text.data() + text.size()) {}

  bool document(Json& out) {
    skipSpace();
    if (!value(out, 0)) return false;
    skipSpace();
    return at == end;
  }

 private:
  void skipSpace() {
    while (at < end && (*at == ' ' || *at == '\n' || *at == '\r' || *at == '\t')) ++at;
  }
  bool next(char c) {
    skipSpace();
    if (at == end || *at != c) return false;
    ++at;
    return true;
  }

  // `depth` counts the enclosing arrays and objects, as nlohmann's depth does.
  bool value(Json& out, int depth) {
    if (at == end || depth > maxDepth) return false;
    switch (*at) {
      case '{':
        return object(out, depth);
      case '[':
        return array(out, depth);
      case '"':
        out = std::string();
        return string(out.get_ref<std::string&>());
      case 't':
        return literal("true", true, out);
      case 'f':
        return literal("false", false, out);
      case 'n':
        return literal("null", nullptr, out);
      default:
        return number(out);
    }
  }

  // The members of an object or the items of an array, from its opening bracket to `close`,
  // separated by commas; `one` reads each.
  template <class One>
  bool listed(char close, One one) {
    ++at;
    if (next(close)) return true;
    for (;;) {
      skipSpace();
      if (!one()) return false;
      if (next(close)) return true;
      if (!next(',')) return false;
    }
  }

  bool object(Json& out, int depth) {
    out = Json::object();
    auto& members = out.get_ref<Json::object_t&>();
    return listed('}', [&] {
      std::string key;
      Json member;
      if (at == end || *at != '"' || !string(key) || !next(':')) return false;
      skipSpace();
      if (!value(member, depth + 1)) return false;
      // A repeated key keeps its last value, as nlohmann does.
      members.insert_or_assign(std::move(key), std::move(member));
      return true;
    });
  }

  bool array(Json& out, int depth) {
    out = Json::array();
    auto& items = out.get_ref<Json::array_t&>();
    return listed(']', [&] {
      items.emplace_back();
      return value(items.back(), depth + 1);
    });
  }

  bool literal(std::string_view word, Json meaning, Json& out) {
    if (size_t(end - at) < word.size() || std::string_view(at, word.size()) != word) return false;
    at += word.size();
    out = std::move(meaning);
    return true;
  }

  // At the opening quote; appends the unescaped text to `out`.
  bool string(std::string& out) {
    ++at;
    for (;;) {
      const char* plain = plainEnd(at, end);
      if (out.empty() && size_t(plain - at) >= largeBlock) {
        out.reserve(size_t(plain - at));
        adviseLarge(out.data(), size_t(plain - at), true);
      }
      out.append(at, plain);
      at = plain;
      if (at == end) return false;
      auto c = static_cast<unsigned char>(*at);
      if (c == '"') {
        ++at;
        return true;
      }
      if (c < 0x20) return false;
      if (c == '\\') {
        if (!escape(out)) return false;
        continue;
      }
      size_t length = characterLength(at, end);
      if (length == 0) return false;
      out.append(at, length);
      at += length;
    }
  }

  bool hex4(uint32_t& code) {
    if (end - at < 4) return false;
    code = 0;
    for (int i = 0; i < 4; ++i) {
      char c = *at++;
      int digit = c >= '0' && c <= '9'   ? c - '0'
                  : c >= 'a' && c <= 'f' ? c - 'a' + 10
                  : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                         : -1;
      if (digit < 0) return false;
      code = code << 4 | uint32_t(digit);
    }
    return true;
  }

  // At a backslash.
  bool escape(std::string& out) {
    if (end - at < 2) return false;
    char kind = at[1];
    at += 2;
    static constexpr std::string_view named = "\"\\/bfnrt", meaning = "\"\\/\b\f\n\r\t";
    if (auto index = named.find(kind); kind != 'u') {
      if (index == std::string_view::npos) return false;
      out += meaning[index];
      return true;
    }
    uint32_t code;
    if (!hex4(code) || (code >= 0xDC00 && code <= 0xDFFF)) return false;
    if (code >= 0xD800 && code <= 0xDBFF) {
      uint32_t low;
      if (end - at < 2 || at[0] != '\\' || at[1] != 'u') return false;
      at += 2;
      if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    appendUtf8(out, code);
    return true;
  }

  // Numbers as nlohmann reads them: an integer without a minus sign is unsigned, one with it
  // signed, anything else a double; but an integer beyond 64 bits is a largeInteger().
  bool number(Json& out) {
    const char* start = at;
    auto digits = [this] {
      const char* first = at;
      while (at < end && *at >= '0' && *at <= '9') ++at;
      return at > first;
    };
    bool negative = at < end && *at == '-';
    if (negative) ++at;
    if (at < end && *at == '0') {
      ++at;
    } else if (!digits()) {
      return false;
    }
    bool integral = true;
    if (at < end && *at == '.') {
      ++at;
      if (!digits()) return false;
      integral = false;
    }
    if (at < end && (*at == 'e' || *at == 'E')) {
      ++at;
      if (at < end && (*at == '+' || *at == '-')) ++at;
      if (!digits()) return false;
      integral = false;
    }
    if (integral && negative) {
      int64_t n;
      if (std::from_chars(start, at, n).ec == std::errc()) return out = n, true;
    } else if (integral) {
      uint64_t n;
      if (std::from_chars(start, at, n).ec == std::errc()) return out = n, true;
    }
    // Out of range either way (1e999, 1e-999) is nlohmann's to judge; so is an integer beyond
    // even a double's range, which nlohmann refuses as it refuses 1e999.
    std::string_view text(start, size_t(at - start));
    bool outOfRange = false;
    std::optional<double> d = readDecimal(text, outOfRange);
    if (!d || outOfRange) return false;
    // Any other integer beyond 64 bits keeps its characters.
    if (integral) {
      out = largeInteger(text);
    } else {
      out = *d;
    }
    return true;
  }

  const char* at;
  const char* end;
};

// Writes JSON as nlohmann's dump() does: compact, or indented; "/" and non-ASCII as they are.
// `Value` is Json, or nlohmann's ordered_json, which the tool catalogue is built with.
template <typename Value>
class Writer {
 public:
  Writer(std::string& out, int indent, bool strict) : out(out), indent(indent), strict(strict) {}

  void value(const Value& v, int level) {
    switch (v.type()) {
      case Json::value_t::object:
        return object(v.template get_ref<const typename Value::object_t&>(), level);
      case Json::value_t::array:
        return array(v.template get_ref<const typename Value::array_t&>(), level);
      case Json::value_t::string:
        return string(v.template get_ref<const std::string&>());
      case Json::value_t::boolean:
        out += v.template get<bool>() ? "true" : "false";
        return;
      case Json::value_t::null:
        out += "null";
        return;
      case Json::value_t::number_integer:
        return integer(v.template get<int64_t>());
      case Json::value_t::number_unsigned:
        return integer(v.template get<uint64_t>());
      case Json::value_t::binary:
        if (auto text = integerCharacters(v)) {
          out += *text;
          return;
        }
        [[fallthrough]];
      default:
        // Doubles, whose shortest form is nlohmann's business, and binary values.
        out += v.dump();
    }
  }

 private:
  template <typename Number>
  void integer(Number n) {
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, n).ptr);
  }

  void newline(int level) {
    if (indent < 0) return;
    out += '\n';
    out.append(size_t(indent) * size_t(level), ' ');
  }

  void object(const typename Value::object_t& members, int level) {
    if (members.empty()) {
      out += "{}";
      return;
    }
    out += '{';
    bool first = true;
    for (const auto& [key, member] : members) {
      if (!first) out += ',';
      first = false;
      newline(level + 1);
      string(key);
      out += indent < 0 ? ":" : ": ";
      value(member, level + 1);
    }
    newline(level);
    out += '}';
  }

  void array(const typename Value::array_t& items, int level) {
    if (items.empty()) {
      out += "[]";
      return;
    }
    out += '[';
    for (size_t i = 0; i < items.size(); ++i) {
      if (i > 0) out += ',';
      newline(level + 1);
      value(items[i], level + 1);
    }
    newline(level);
    out += ']';
  }

  void string(const std::string& text) {
    size_t start = out.size();
    out += '"';
    const char* at = text.data();
    const char* end = at + text.size();
    for (;;) {
      const char* plain = plainEnd(at, end);
      out.append(at, plain);
      at = plain;
      if (at == end) break;
      auto c = static_cast<unsigned char>(*at);
      if (c >= 0x80) {
        size_t length = characterLength(at, end);
        if (length == 0) return invalid(text, start);
        out.append(at, length);
        at += length;
        continue;
      }
      escape(c);
      ++at;
    }
    out += '"';
  }

  void escape(unsigned char c) {
    static constexpr std::string_view plain = "\"\\\b\f\n\r\t", named = "\"\\bfnrt";
    static const char hex[] = "0123456789abcdef";
    out += '\\';
    if (auto index = plain.find(char(c)); index != std::string_view::npos) {
      out += named[index];
      return;
    }
    out += "u00";
    out += hex[c >> 4];
    out += hex[c & 15];
  }

  // A string that is not valid UTF-8: refused, or written with nlohmann's replacements.
  void invalid(const std::string& text, size_t start) {
    if (strict) throw JsonError("a text that is not valid UTF-8 cannot be sent as JSON");
    out.resize(start);
    out += Value(text).dump(-1, ' ', false, Json::error_handler_t::replace);
  }

  std::string& out;
  int indent;
  bool strict;
};

// About the size of `value` written compactly, so the text is allocated once: long strings
// are the bulk of large documents.
template <typename Value>
size_t sizeGuess(const Value& value) {
  switch (value.type()) {
    case Json::value_t::object: {
      size_t size = 2;
      for (const auto& [key, member] : value.template get_ref<const typename Value::object_t&>())
        size += key.size() + 4 + sizeGuess(member);
      return size;
    }
    case Json::value_t::array: {
      size_t size = 2;
      for (const auto& item : value.template get_ref<const typename Value::array_t&>())
        size += 1 + sizeGuess(item);
      return size;
    }
    case Json::value_t::string:
      return value.template get_ref<const std::string&>().size() + 2;
    default:
      return 8;
  }
}

template <typename Value>
std::string written(const Value& value, int indent, bool strict) {
  std::string out;
  // One byte more, for the line feed that callers add to a message.
  size_t guess = sizeGuess(value) + 1;
  out.reserve(guess);
  adviseLarge(out.data(), guess, true);
  Writer<Value>(out, indent, strict).value(value, 0);
  return out;
}

}  // namespace

// strtod rather than std::from_chars: libstdc++'s from_chars for doubles asks libm for the
// rounding mode, and libm is a shared library every command would then load at start-up for
// nothing else. glibc's strtod rounds correctly too, and reads "." as the decimal point because
// this program never sets a locale. It wants a terminated string, hence the copy.
std::optional<double> readDecimal(std::string_view text, bool& outOfRange) {
  outOfRange = false;
  if (text.empty()) return std::nullopt;
  char small[64];
  std::string large;
  const char* terminated;
  if (text.size() < sizeof small) {
    std::memcpy(small, text.data(), text.size());
    small[text.size()] = '\0';
    terminated = small;
  } else {
    large = text;
    terminated = large.c_str();
  }
  char* stop = nullptr;
  errno = 0;
  double value = std::strtod(terminated, &stop);
  if (stop != terminated + text.size()) return std::nullopt;
  outOfRange = errno == ERANGE;
  return value;
}

Json largeInteger(std::string_view text) {
  return Json::binary(Json::binary_t::container_type(text.begin(), text.end()), integerText);
}

std::optional<std::string_view> largeIntegerText(const Json& value) {
  return integerCharacters(value);
}

Json parseDocument(std::string_view text) {
  if (text.empty()) throw JsonError("empty line where JSON was expected");
  Json value;
  if (!FastReader(text).document(value)) value = parseSlowly(text);
  if (!value.is_object() && !value.is_array())
    throw JsonError("JSON text that is neither an object nor an array");
  return value;
}

std::string compact(const Json& value) { return written(value, -1, true); }

std::string compactRepaired(const Json& value) { return written(value, -1, false); }

std::string compactInOrder(const nlohmann::ordered_json& value) { return written(value, -1, true); }

std::string indented(const Json& value) { return written(value, 2, false); }

}  // namespace nurel
