// cli/rules_test.cpp: the command and option rules, in process, and the two number readings.
#include "cli/rules.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>

namespace nurel {
namespace {

// The parameters a command line gives, written compactly with sorted keys: 390 and 390.0
// print differently, so comparing these texts also compares integers against doubles.
std::string sent(const std::string& command, std::vector<std::string> words) {
  return requestParams(*findCommand(command), words).dump();
}

std::string json(const char* text) { return Json::parse(text).dump(); }

// The message of the usage error a command line raises; "(none)" when it raises none.
std::string refusal(const std::string& command, std::vector<std::string> words) {
  try {
    requestParams(*findCommand(command), words);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "(none)";
}

TEST(Numbers, IntegersReadWithAnOptionalSign) {
  const std::pair<const char*, std::int64_t> read[] = {
      {"12", 12}, {"+12", 12}, {"-3", -3}, {"-0", 0}, {"007", 7}};
  for (auto [text, value] : read) EXPECT_EQ(value, readInteger(text)) << text;
}

TEST(Numbers, IntegersCoverSixtyFourBitsAndNoMore) {
  EXPECT_EQ(std::numeric_limits<std::int64_t>::max(), readInteger("9223372036854775807"));
  EXPECT_EQ(std::numeric_limits<std::int64_t>::min(), readInteger("-9223372036854775808"));
  EXPECT_EQ(std::nullopt, readInteger("9223372036854775808"));
  EXPECT_EQ(std::nullopt, readInteger("-9223372036854775809"));
  EXPECT_EQ(std::nullopt, readInteger("+99999999999999999999"));
}

TEST(Numbers, IntegersRefuseAnythingButDigits) {
  for (const char* text : {"", "+", "-", "+-1", "-+1", "++1", "--1", "12abc", "abc", " 12", "12 ",
                           "1.0", "1e3", "0x10", "#12", "1_000", "seven"})
    EXPECT_EQ(std::nullopt, readInteger(text)) << '"' << text << '"';
}

TEST(Numbers, DecimalNumbersRead) {
  const std::pair<const char*, double> read[] = {
      {"390", 390.0}, {"+3", 3.0},     {"-1.5", -1.5},   {".5", 0.5},       {"+.5", 0.5},
      {"5.", 5.0},    {"1e3", 1000.0}, {"1E+3", 1000.0}, {"1.5e-2", 0.015}, {"-1.5e2", -150.0}};
  for (auto [text, value] : read) EXPECT_EQ(value, readNumber(text)) << text;
}

TEST(Numbers, TooSmallForADoubleReadsAsTheNearest) {
  EXPECT_EQ(0.0, readNumber("1e-400"));
  EXPECT_EQ(0.0, readNumber("-1e-400"));
  EXPECT_TRUE(std::signbit(*readNumber("-1e-400")));
  EXPECT_LT(0.0, *readNumber("4e-320"));  // a subnormal double
}

TEST(Numbers, InfinityNanHexadecimalAndEmptyNeverRead) {
  for (const char* text : {"", "inf", "-inf", "+inf", "INF", "infinity", "nan", "NaN", "-nan",
                           "0x10", "0X1A", "0x1p3", "1p3"})
    EXPECT_EQ(std::nullopt, readNumber(text)) << '"' << text << '"';
}

TEST(Numbers, DecimalNumbersMustReadWhole) {
  for (const char* text : {".", "+", "-", "e5", "1e", "1e+", "+-1", "-+1", "++1", " 1", "1 ", "\t1",
                           "1,5", "1.2.3", "1e5e5", "12abc", "1e999", "-1e999"})
    EXPECT_EQ(std::nullopt, readNumber(text)) << '"' << text << '"';
}

TEST(Rules, DialogAcceptsWithTheRestAsText) {
  EXPECT_EQ(json(R"({"tab":"t1","accept":true,"text":"my answer"})"),
            sent("dialog", {"t1", "accept", "my", "answer"}));
  EXPECT_EQ(json(R"({"tab":"t1","accept":false})"), sent("dialog", {"t1", "dismiss"}));
}

TEST(Rules, DialogSplitsAtTheFirstSpaceOnly) {
  EXPECT_EQ(json(R"({"tab":"t1","accept":true,"text":" two  spaces"})"),
            sent("dialog", {"t1", "  accept  two  spaces"}));
  EXPECT_EQ(json(R"({"tab":"t1","accept":true})"), sent("dialog", {"t1", "accept "}));
}

TEST(Rules, DialogRefusesAnyOtherAnswer) {
  EXPECT_EQ("", refusal("dialog", {"t1", "ok"}));
  EXPECT_EQ("", refusal("dialog", {"t1", "Accept"}));
  EXPECT_EQ("", refusal("dialog", {"t1", "accepted"}));
  EXPECT_EQ("", refusal("dialog", {"t1", "accept\tthis"}));
  EXPECT_EQ("", refusal("dialog", {"t1", " "}));
}

TEST(Rules, MediaTakesTabActionAndValue) {
  EXPECT_EQ(json(R"({"tab":"t1"})"), sent("media", {"t1"}));
  EXPECT_EQ(json(R"({"tab":"t1","action":"pause"})"), sent("media", {"t1", "pause"}));
  EXPECT_EQ(json(R"({"tab":"t1","action":"seek","value":"30"})"),
            sent("media", {"t1", "seek", "30"}));
  EXPECT_EQ(json(R"({"tab":"t1","action":"rate","value":"1.5"})"),
            sent("media", {"t1", "rate", "1.5", "and", "more"}));
}

TEST(Rules, ScrollKeepsDistancesAsTypedAndIgnoresMoreWords) {
  EXPECT_EQ(json(R"({"tab":"t1"})"), sent("scroll", {"t1"}));
  EXPECT_EQ(json(R"({"tab":"t1","dy":"-200","dx":"50"})"),
            sent("scroll", {"t1", "-200", "50", "extra", "words"}));
}

TEST(Rules, UploadSendsEveryWordAfterTheRefAsAFile) {
  EXPECT_EQ(json(R"({"tab":"t1","ref":"e2","files":["a.png","b c.png","d.png"]})"),
            sent("upload", {"t1", "e2", "a.png", "b c.png", "d.png"}));
  EXPECT_EQ("", refusal("upload", {"t1", "e2"}));
}

TEST(Rules, BatchTakesAnArrayOfObjects) {
  EXPECT_EQ(json(R"({"tab":"t1","actions":[{"do":"type","text":"hi"},{"do":"press_key"}]})"),
            sent("batch", {"t1", R"([{"do":"type","text":"hi"},)", R"({"do":"press_key"}])"}));
  EXPECT_EQ(json(R"({"tab":"t1","actions":[]})"), sent("batch", {"t1", "[]"}));
}

TEST(Rules, BatchRefusesEverythingElse) {
  for (const char* actions : {R"({"do":"type"})", "[1]", R"([{"do":"type"},"x"])", "[[]]", "[null]",
                              "not json", R"("text")", "", "[", "[{}]]"})
    EXPECT_EQ("batch takes a JSON array of actions", refusal("batch", {"t1", actions})) << actions;
}

TEST(Rules, BatchRefusesArraysNestedTooDeeply) {
  std::string deep = "[{\"a\":" + std::string(600, '[') + std::string(600, ']') + "}]";
  EXPECT_EQ("batch takes a JSON array of actions", refusal("batch", {"t1", deep}));
}

TEST(Rules, DragPointsBecomeDoublesAndOtherTextRefs) {
  EXPECT_EQ(json(R"({"tab":"t1","ref":"e3","to_x":300.0,"to_y":40.0})"),
            sent("drag", {"t1", "e3", "300, 40"}));
  EXPECT_EQ(json(R"({"tab":"t1","from_x":10.0,"from_y":20.0,"to_ref":"1,2,3"})"),
            sent("drag", {"t1", "10,abc,20", "1,2,3"}));
  EXPECT_EQ(json(R"({"tab":"t1","from_x":-1.5,"from_y":2.0,"to_x":0.5,"to_y":1000.0})"),
            sent("drag", {"t1", " \t-1.5 ,\t+2\t", ",.5,,1e3,"}));
}

TEST(Rules, DragRefusesInfinityAndLineBreaksAsNumbers) {
  EXPECT_EQ(json(R"({"tab":"t1","ref":"inf,5","to_ref":"1\n,2"})"),
            sent("drag", {"t1", "inf,5", "1\n,2"}));
  EXPECT_EQ(json(R"({"tab":"t1","ref":"0x10,2","to_ref":"nan,nan"})"),
            sent("drag", {"t1", "0x10,2", "nan,nan"}));
}

TEST(Rules, ClickRightBecomesTheButton) {
  EXPECT_EQ(json(R"({"tab":"t1","ref":"e5","button":"right","double":true})"),
            sent("click", {"t1", "e5", "--right", "--double"}));
}

TEST(Rules, RightIsOnlyAButtonForClick) {
  EXPECT_EQ(json(R"({"tab":"t1","ref":"e5","right":true})"),
            sent("hover", {"t1", "e5", "--right"}));
}

TEST(Rules, ConsoleLevelWarnWinsOverError) {
  EXPECT_EQ(json(R"({"tab":"t1","level":"error"})"), sent("console", {"t1", "--errors"}));
  EXPECT_EQ(json(R"({"tab":"t1","level":"warn"})"),
            sent("console", {"t1", "--warnings", "--errors"}));
}

TEST(Rules, EmulateTheLastChoiceInTheListWins) {
  EXPECT_EQ(json(R"({"tab":"t1","color_scheme":"system","media":"screen"})"),
            sent("emulate", {"t1", "--system", "--dark", "--screen", "--print"}));
  EXPECT_EQ(json(R"({"tab":"t1","color_scheme":"light","media":"print"})"),
            sent("emulate", {"t1", "--light", "--print"}));
}

TEST(Rules, EmulateSizeIsTwoDoubles) {
  EXPECT_EQ(json(R"({"tab":"t1","width":390.0,"height":844.0})"),
            sent("emulate", {"t1", "--size", "390X844"}));
  EXPECT_EQ(json(R"({"tab":"t1","width":1280.5,"height":720.0})"),
            sent("emulate", {"t1", "--size", "xx1280.5xabcx720x"}));
}

TEST(Rules, EmulateSizeRefusesAnythingButTwoNumbers) {
  for (const char* size : {"390 x 844", "x390", "390x", "1x2x3", "390", "", "xxx", "infxnan",
                           "0x1p3", "390*844", "390 844", "390,844"})
    EXPECT_EQ("--size takes <width>x<height>, as 390x844",
              refusal("emulate", {"t1", "--size", size}))
        << size;
}

TEST(Rules, InspectNeedsARef) {
  Scanned scanned;
  scanned.params = {{"tab", "t1"}};
  scanned.positional = {"t1"};
  EXPECT_THROW(applyRules("inspect", scanned), UsageError);
  scanned.params["ref"] = "e5";
  EXPECT_NO_THROW(applyRules("inspect", scanned));
}

// What `<command> t1 --<option> <word>` sends for each word: the option as the integer `read`,
// or only the tab where `read` is empty (the word gives no integer there).
void expectIntegerOption(const std::string& command, const std::string& option,
                         const std::vector<std::pair<std::string, std::string>>& wordsRead) {
  for (const auto& [word, read] : wordsRead) {
    std::string expected =
        read.empty() ? R"({"tab":"t1"})" : R"({"tab":"t1",")" + option + R"(":)" + read + "}";
    EXPECT_EQ(json(expected.c_str()), sent(command, {"t1", "--" + option, word})) << word;
  }
}

TEST(Rules, RequestTrimsHashesThenReadsAnInteger) {
  expectIntegerOption(
      "network", "request",
      {{"#7", "7"}, {"##12##", "12"}, {"-4", "-4"}, {"seven", ""}, {"# 12", ""}, {"###", ""}});
}

TEST(Rules, LimitReadsAnIntegerWithoutTrimming) {
  expectIntegerOption(
      "console", "limit",
      {{"-3", "-3"}, {"+5", "5"}, {"12abc", ""}, {"#12", ""}, {"9223372036854775808", ""}});
}

TEST(Rules, PlainTurnsLabelsOffForAnyCommand) {
  EXPECT_EQ(json(R"({"tab":"t1","labels":false})"), sent("snapshot", {"t1", "--plain"}));
}

TEST(Rules, ValuesTakesAnObject) {
  EXPECT_EQ(json(R"({"tab":"t1","scenario":"log in","values":{"email":"a@b.c","n":2}})"),
            sent("run", {"t1", "log", "in", "--values", R"({"email":"a@b.c","n":2})"}));
  for (const char* values : {"[1]", "[]", "nope", "", "1", R"("x")", "{", "null"})
    EXPECT_EQ("values takes a JSON object", refusal("run", {"t1", "s", "--values", values}))
        << values;
}

TEST(Rules, ValuesAndActionsKeepIntegersBeyond64Bits) {
  // Written as the request will be: every digit as typed; a number that is not an integer is a
  // double as before.
  auto request = [](const std::string& command, std::vector<std::string> words) {
    return compact(requestParams(*findCommand(command), words));
  };
  EXPECT_EQ(R"({"scenario":"s","tab":"t1","values":{"n":-9223372036854775809,"x":1e+300}})",
            request("run", {"t1", "s", "--values", R"({"n":-9223372036854775809,"x":1e300})"}));
  EXPECT_EQ(R"({"actions":[{"do":"scroll","dy":18446744073709551616}],"tab":"t1"})",
            request("batch", {"t1", R"([{"do":"scroll","dy":18446744073709551616}])"}));
}

TEST(Rules, OptionRulesRunAfterTheCommandRules) {
  // The option rules look at what the command rules left: a request given to any command.
  EXPECT_EQ(json(R"({"tab":"t1","level":"warn","limit":3,"request":2,"labels":false})"),
            sent("console", {"t1", "--warnings", "--limit", "3", "--request", "2", "--plain"}));
}

TEST(Rules, OtherCommandsAndOptionsPassUnchanged) {
  EXPECT_EQ(json(R"({"tab":"t1","text":"a","seconds":"5","timeout":"120","idle":true})"),
            sent("wait", {"t1", "--text", "a", "--seconds", "5", "--timeout", "120", "--idle"}));
  EXPECT_EQ(json(R"({"tab":"t1","ref":"e5","styles":"color,font-size"})"),
            sent("inspect", {"t1", "e5", "--styles", "color,font-size"}));
}

}  // namespace
}  // namespace nurel
