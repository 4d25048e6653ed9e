// link/json_test.cpp: reading and writing JSON the way nlohmann/json does, only faster.
//
// nlohmann/json is the reference: every document read here must give nlohmann's value (with
// its number types) or fail where nlohmann fails, and every text written must be nlohmann's
// dump() byte for byte. Generated and mutated documents cover what single cases miss. Two
// departures keep every byte exact, and have tests of their own: an integer beyond 64 bits
// keeps its characters, where nlohmann makes it a double, and a NUL byte after a document is
// an error, where nlohmann stops reading at it.
#include "link/json.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>

namespace nurel {
namespace {

// The value's dump and the type of every node, so that 1 (unsigned) and -1 (integer) or 1.0
// (double) are told apart even where dump() agrees. A large integer signs as the double that
// nlohmann makes of its characters.
std::string signature(const Json& value) {
  if (auto text = largeIntegerText(value)) return signature(Json::parse(*text));
  std::string out = std::to_string(int(value.type()));
  if (value.is_object()) {
    for (const auto& [key, member] : value.items())
      out += "{" + key + ":" + signature(member) + "}";
  } else if (value.is_array()) {
    for (const auto& item : value) out += "[" + signature(item) + "]";
  } else {
    out += "=" + value.dump();
  }
  return out;
}

// What nlohmann makes of `text`: its signature, or "error". No JSON text holds a NUL byte:
// inside a string it must be escaped, and outside one it is no token.
std::string reference(const std::string& text) {
  if (text.find('\0') != std::string::npos) return "error";
  try {
    Json value = Json::parse(text);
    if (!value.is_object() && !value.is_array()) return "error";
    return signature(value);
  } catch (const nlohmann::json::exception&) {
    return "error";
  }
}

std::string ours(const std::string& text) {
  try {
    return signature(parseDocument(text));
  } catch (const JsonError&) {
    return "error";
  }
}

// Random documents with everything a reply can hold, written with random spacing.
class Generator {
 public:
  explicit Generator(uint32_t seed) : random(seed) {}

  std::string document() {
    std::string out;
    container(out, 0);
    return out;
  }

  std::string text() {
    static const std::vector<std::string> pieces = {
        "a",
        "Z",
        "/",
        "\\\"",
        "\\\\",
        "\\/",
        "\\b",
        "\\f",
        "\\n",
        "\\r",
        "\\t",
        "\\u0000",
        "\\u001f",
        "\\u00e9",
        "\\uD83D\\uDE00",
        "\\ud800\\udc00",
        "é",
        "€",
        "😀",
        "\x7f",
        " ",
        "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef0123456789",
        "\\u20AC",
        "~"};
    std::string out;
    for (int i = pick(6); i > 0; --i) out += pieces[pick(int(pieces.size()))];
    return out;
  }

 private:
  int pick(int n) { return int(random() % uint32_t(n)); }

  void space(std::string& out) {
    static const char* spaces[] = {"", "", "", " ", "\t", "\r\n", "  "};
    out += spaces[pick(7)];
  }

  void container(std::string& out, int depth) {
    bool object = pick(2) == 0;
    out += object ? '{' : '[';
    int count = depth > 4 ? 0 : pick(5);
    for (int i = 0; i < count; ++i) {
      if (i > 0) out += ',';
      space(out);
      if (object) {
        // Few distinct keys, so that repeated keys occur.
        out += '"';
        out += char('a' + pick(4));
        out += '"';
        space(out);
        out += ':';
        space(out);
      }
      value(out, depth + 1);
      space(out);
    }
    out += object ? '}' : ']';
  }

  void value(std::string& out, int depth) {
    static const std::vector<std::string> numbers = {"0",
                                                     "-0",
                                                     "1",
                                                     "-1",
                                                     "42",
                                                     "-0.0",
                                                     "0.5",
                                                     "1e2",
                                                     "1E+2",
                                                     "1.5e-3",
                                                     "-2.25E10",
                                                     "9223372036854775807",
                                                     "9223372036854775808",
                                                     "-9223372036854775808",
                                                     "-9223372036854775809",
                                                     "18446744073709551615",
                                                     "18446744073709551616",
                                                     "123456789012345678901234567890",
                                                     "1e308",
                                                     "2.2250738585072014e-308",
                                                     "4.9e-324",
                                                     "1e-400",
                                                     "0.1",
                                                     "3.141592653589793238462643383279",
                                                     "100000000000000000000.0"};
    switch (pick(6)) {
      case 0:
        container(out, depth);
        break;
      case 1:
      case 2:
        out += "\"" + text() + "\"";
        break;
      case 3:
        out += numbers[pick(int(numbers.size()))];
        break;
      case 4:
        out += pick(2) ? "true" : "false";
        break;
      default:
        out += "null";
    }
  }

  std::mt19937 random;
};

TEST(JsonRead, GeneratedDocumentsReadAsNlohmannReadsThem) {
  Generator generator(1);
  for (int i = 0; i < 3000; ++i) {
    std::string text = generator.document();
    ASSERT_EQ(reference(text), ours(text)) << text;
  }
}

TEST(JsonRead, MutatedDocumentsFailWhereNlohmannFails) {
  Generator generator(2);
  std::mt19937 random(3);
  static const std::string bytes = std::string(
      "{}[]\":,\\ -+.eE0159tfnu\x00\x01\x1f\x7f\x80\xbf\xc0\xc3\xe2\xed\xf0\xf4\xf5\xff", 36);
  for (int i = 0; i < 20000; ++i) {
    std::string text = generator.document();
    for (int edits = 1 + int(random() % 3); edits > 0; --edits) {
      size_t at = random() % (text.size() + 1);
      char byte = bytes[random() % bytes.size()];
      switch (random() % 3) {
        case 0:
          text.insert(text.begin() + long(at), byte);
          break;
        case 1:
          if (at < text.size()) text.erase(at, 1);
          break;
        default:
          if (at < text.size()) text[at] = byte;
      }
    }
    ASSERT_EQ(reference(text), ours(text)) << text;
  }
}

TEST(JsonRead, NumbersKeepNlohmannsTypes) {
  Json value = parseDocument("[7, -7, 18446744073709551615, -9223372036854775808, 7.0, 1e2]");
  EXPECT_TRUE(value[0].is_number_unsigned());
  EXPECT_TRUE(value[1].is_number_integer() && !value[1].is_number_unsigned());
  EXPECT_EQ(18446744073709551615u, value[2].get<uint64_t>());
  EXPECT_EQ(INT64_MIN, value[3].get<int64_t>());
  EXPECT_TRUE(value[4].is_number_float());
  EXPECT_EQ("[7,-7,18446744073709551615,-9223372036854775808,7.0,100.0]", value.dump());
}

// The characters of a large integer, or "(none)" for any other value.
std::string characters(const Json& value) {
  std::optional<std::string_view> text = largeIntegerText(value);
  return text ? std::string(*text) : "(none)";
}

TEST(JsonRead, IntegersBeyond64BitsKeepTheirCharacters) {
  const std::string text =
      "[18446744073709551616, -9223372036854775809, -123456789012345678901234567890,"
      " {\"n\": 99999999999999999999}, 1e20, 123456789012345678901.5, 1.0]";
  // The fast reader, and nlohmann's, to which a byte-order mark sends the text.
  for (const std::string& document : {text, "\xEF\xBB\xBF" + text}) {
    Json value = parseDocument(document);
    EXPECT_EQ("18446744073709551616", characters(value[0]));
    EXPECT_EQ("-9223372036854775809", characters(value[1]));
    EXPECT_EQ("-123456789012345678901234567890", characters(value[2]));
    EXPECT_EQ(largeInteger("99999999999999999999"), value[3]["n"]);
    // Numbers that are not integers are doubles, however long.
    EXPECT_TRUE(value[4].is_number_float());
    EXPECT_TRUE(value[5].is_number_float());
    EXPECT_TRUE(value[6].is_number_float());
    EXPECT_EQ(
        "[18446744073709551616,-9223372036854775809,-123456789012345678901234567890,"
        "{\"n\":99999999999999999999},1e+20,1.2345678901234568e+20,1.0]",
        compact(value));
  }
}

TEST(JsonRead, AnIntegerBeyondADoublesRangeIsRefusedAsNlohmannRefusesIt) {
  // 309 digits are still within a double's range; 310 are not, as 1e999 is not.
  const std::string within = "1" + std::string(308, '0'), beyond = within + "0";
  for (const char* mark : {"", "\xEF\xBB\xBF"}) {
    EXPECT_EQ(within, characters(parseDocument(mark + ("[" + within + "]"))[0]));
    try {
      parseDocument(mark + ("[" + beyond + "]"));
      ADD_FAILURE() << "read";
    } catch (const JsonError& error) {
      EXPECT_EQ(0u, std::string(error.what()).find("number overflow parsing '1000"))
          << error.what();
    }
  }
}

TEST(JsonRead, ALargeIntegerIsItsCharactersAndNothingElse) {
  Json value = parseDocument("[18446744073709551616]")[0];
  EXPECT_EQ(largeInteger("18446744073709551616"), value);
  EXPECT_NE(largeInteger("18446744073709551617"), value);
  EXPECT_NE(Json(18446744073709551616.0), value);
  EXPECT_FALSE(value.is_number());
  // A string of digits, or bytes of any other kind, is not one.
  EXPECT_EQ("(none)", characters(Json("18446744073709551616")));
  EXPECT_EQ("(none)", characters(Json::binary({'1', '2'})));
  EXPECT_EQ("(none)", characters(Json::binary({'1', '2'}, 7)));
  EXPECT_EQ("(none)", characters(Json(12)));
}

TEST(JsonRead, DecimalsReadWholeToTheNearestDouble) {
  bool outOfRange = true;
  EXPECT_EQ(0.1, readDecimal("0.1", outOfRange));
  EXPECT_FALSE(outOfRange);
  EXPECT_EQ(-2.5e-3, readDecimal("-2.5e-3", outOfRange));
  EXPECT_EQ(5.0, readDecimal(".5e1", outOfRange));
  EXPECT_EQ(1e300, readDecimal("1E+300", outOfRange));
  // Longer than the buffer on the stack, and just above halfway: decided by its last digit.
  std::string halfway = "9007199254740993." + std::string(80, '0') + "1";
  EXPECT_EQ(9007199254740994.0, readDecimal(halfway, outOfRange));
  EXPECT_FALSE(outOfRange);
  for (std::string_view text : {"", "-", ".", "e5", "1e", "1.5.2", "1e5e3", "--1", "-+1", "1-2"})
    EXPECT_EQ(std::nullopt, readDecimal(text, outOfRange)) << text;
  // Only the characters given are read, not what follows them in memory.
  EXPECT_EQ(12.0, readDecimal(std::string_view("12345", 2), outOfRange));
  EXPECT_EQ(HUGE_VAL, readDecimal("1e999", outOfRange));
  EXPECT_TRUE(outOfRange);
  EXPECT_EQ(0.0, readDecimal("1e-400", outOfRange));
  EXPECT_TRUE(outOfRange);
}

TEST(JsonRead, ARepeatedKeyKeepsItsLastValue) {
  EXPECT_EQ(Json({{"a", 3}, {"b", 2}}), parseDocument(R"({"a":1,"b":2,"a":3})"));
}

TEST(JsonRead, EscapesAndSurrogatePairsBecomeUtf8) {
  EXPECT_EQ(Json({"\"\\/\b\f\n\r\t\u00e9\U0001F600"}),
            parseDocument(R"(["\"\\\/\b\f\n\r\t\u00E9\ud83d\ude00"])"));
  EXPECT_EQ(std::string("a\0b", 3), parseDocument(R"(["a\u0000b"])")[0].get<std::string>());
}

TEST(JsonRead, BrokenTextGivesOneLowerCaseLine) {
  for (const char* text : {"[1,]", "{\"a\" 1}", "[\"\\ud800\"]", "[1e400]", "[\"\x01\"]",
                           "[\"\xff\"]", "[01]", "[tru]", "[1] x", "  "}) {
    try {
      parseDocument(text);
      ADD_FAILURE() << text << " was read";
    } catch (const JsonError& error) {
      std::string message = error.what();
      EXPECT_FALSE(message.empty());
      EXPECT_EQ(std::string::npos, message.find('\n')) << message;
      EXPECT_TRUE(std::islower(static_cast<unsigned char>(message[0]))) << message;
    }
  }
}

TEST(JsonRead, TheFixedMessagesStay) {
  EXPECT_THROW(
      {
        try {
          parseDocument("");
        } catch (const JsonError& error) {
          EXPECT_STREQ("empty line where JSON was expected", error.what());
          throw;
        }
      },
      JsonError);
  for (const char* scalar : {"12", "\"text\"", "null", " true "}) {
    try {
      parseDocument(scalar);
      ADD_FAILURE() << scalar << " was read";
    } catch (const JsonError& error) {
      EXPECT_STREQ("JSON text that is neither an object nor an array", error.what());
    }
  }
}

TEST(JsonRead, NestingIsLimitedAsNlohmannCountsIt) {
  auto nested = [](int levels, const std::string& inside) {
    return std::string(size_t(levels), '[') + inside + std::string(size_t(levels), ']');
  };
  // 512 levels, the innermost holding a value at depth 512: fine.
  EXPECT_NO_THROW(parseDocument(nested(512, "1")));
  // An empty 513th level opens at depth 512: still fine.
  EXPECT_NO_THROW(parseDocument(nested(513, "")));
  for (const std::string& deep : {nested(513, "1"), nested(514, ""), nested(5000, "")}) {
    try {
      parseDocument(deep);
      ADD_FAILURE() << deep.size() << " bytes deep were read";
    } catch (const JsonError& error) {
      EXPECT_STREQ("JSON nested deeper than 512 levels", error.what());
    }
  }
}

TEST(JsonRead, AByteOrderMarkBeforeADocumentIsAccepted) {
  EXPECT_EQ(Json({1}), parseDocument("\xEF\xBB\xBF[1]"));
}

TEST(JsonRead, ANulByteAfterADocumentIsAnError) {
  // nlohmann stops reading at a NUL byte as at the end of the text; the whole text counts here.
  for (const std::string& text :
       {std::string("[1]\0garbage", 11), std::string("{\"id\":1}\0", 9), std::string("[1] \0", 5),
        std::string("\xEF\xBB\xBF[1]\0x", 8), std::string("[\"a\"]\0[1]", 9)}) {
    try {
      parseDocument(text);
      ADD_FAILURE() << text << " was read";
    } catch (const JsonError& error) {
      EXPECT_EQ(0u, std::string(error.what()).find("syntax error while parsing value")) << text;
    }
  }
  try {
    parseDocument(std::string("[1]\0garbage", 11));
  } catch (const JsonError& error) {
    EXPECT_STREQ(
        "syntax error while parsing value - invalid literal; last read: '<U+0000>'; expected end "
        "of input (at byte 4)",
        error.what());
  }
  // Before or inside the document, nlohmann finds the NUL byte wrong by itself.
  for (const std::string& text : {std::string("\0[1]", 4), std::string("[\"a\0\"]", 6)})
    EXPECT_THROW(parseDocument(text), JsonError) << text;
}

TEST(JsonRead, ALongStringIsReadWhole) {
  std::string big(9 << 20, 'x');
  big[12345] = 'y';
  Json value = parseDocument("{\"png\":\"" + big + "\\n\u00e9\"}");
  EXPECT_EQ(big + "\n\u00e9", value["png"].get<std::string>());
}

// Values with every kind of string, including bytes that are not UTF-8.
Json generatedValue(std::mt19937& random, int depth) {
  static const std::vector<std::string> strings = {"",
                                                   "plain",
                                                   "a/b",
                                                   "quote\"back\\slash",
                                                   std::string("\0\x01\x1f\x7f", 4),
                                                   "\b\f\n\r\t",
                                                   "é€😀",
                                                   "\xff",
                                                   "ok\xc3",
                                                   "\xed\xa0\x80",
                                                   "\xe2\x82",
                                                   "mixed \xc3\xa9 and \xff bad"};
  switch (random() % (depth > 3 ? 5 : 7)) {
    case 0:
      return strings[random() % strings.size()];
    case 1:
      return int64_t(random()) - int64_t(1u << 31);
    case 2:
      return uint64_t(random()) << 33;
    case 3:
      return double(int32_t(random())) / 7.0;
    case 4:
      return random() % 3 == 0 ? Json(nullptr) : Json(random() % 2 == 0);
    case 5: {
      Json array = Json::array();
      for (int i = int(random() % 4); i > 0; --i)
        array.push_back(generatedValue(random, depth + 1));
      return array;
    }
    default: {
      Json object = Json::object();
      for (int i = int(random() % 4); i > 0; --i)
        object[strings[random() % strings.size()]] = generatedValue(random, depth + 1);
      return object;
    }
  }
}

TEST(JsonWrite, CompactTextIsNlohmannsDump) {
  std::mt19937 random(4);
  for (int i = 0; i < 5000; ++i) {
    Json value = generatedValue(random, 0);
    std::string expected;
    try {
      expected = value.dump();
    } catch (const nlohmann::json::type_error&) {
      EXPECT_THROW(compact(value), JsonError)
          << value.dump(-1, ' ', false, Json::error_handler_t::replace);
      continue;
    }
    ASSERT_EQ(expected, compact(value));
  }
}

TEST(JsonWrite, IndentedTextIsNlohmannsDumpWithReplacements) {
  std::mt19937 random(5);
  for (int i = 0; i < 5000; ++i) {
    Json value = generatedValue(random, 0);
    ASSERT_EQ(value.dump(2, ' ', false, Json::error_handler_t::replace), indented(value));
  }
}

TEST(JsonWrite, MembersInInsertionOrderKeepTheirOrder) {
  nlohmann::ordered_json value = {{"zeta", 1}, {"alpha", {{"b", "a/b"}, {"a", {1.5, nullptr}}}}};
  EXPECT_EQ(value.dump(), compactInOrder(value));
  EXPECT_EQ(R"({"zeta":1,"alpha":{"b":"a/b","a":[1.5,null]}})", compactInOrder(value));
}

TEST(JsonWrite, LargeIntegersAreWrittenInTheirOwnCharacters) {
  Json value = {{"id", largeInteger("-9223372036854775809")},
                {"list", {largeInteger("18446744073709551616"), 1}}};
  const std::string text = R"({"id":-9223372036854775809,"list":[18446744073709551616,1]})";
  EXPECT_EQ(text, compact(value));
  EXPECT_EQ(text, compactRepaired(value));
  EXPECT_EQ(
      "{\n  \"id\": -9223372036854775809,\n  \"list\": [\n    18446744073709551616,\n    1\n  ]\n}",
      indented(value));
  EXPECT_EQ("18446744073709551616", compact(largeInteger("18446744073709551616")));
  EXPECT_EQ(value, parseDocument(text));
}

TEST(JsonWrite, NotUtf8CannotBeSent) {
  try {
    compact({{"url", "\xff"}});
    ADD_FAILURE() << "written";
  } catch (const JsonError& error) {
    EXPECT_STREQ("a text that is not valid UTF-8 cannot be sent as JSON", error.what());
  }
}

TEST(JsonWrite, RepairedTextIsNlohmannsCompactDumpWithReplacements) {
  std::mt19937 random(6);
  for (int i = 0; i < 5000; ++i) {
    Json value = generatedValue(random, 0);
    ASSERT_EQ(value.dump(-1, ' ', false, Json::error_handler_t::replace), compactRepaired(value));
  }
  EXPECT_EQ("{\"text\":\"saved to /tmp/bad\xef\xbf\xbd/a.pdf\"}",
            compactRepaired({{"text", "saved to /tmp/bad\xff/a.pdf"}}));
}

TEST(JsonWrite, ALongStringIsWrittenWholeWithRoomForALineFeed) {
  std::string big(9 << 20, 'x');
  big += "\"/\x01\u00e9";
  Json value = {{"png", big}};
  std::string text = compact(value);
  EXPECT_EQ(value.dump(), text);
  EXPECT_GT(text.capacity(), text.size());
}

}  // namespace
}  // namespace nurel
