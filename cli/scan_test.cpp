// cli/scan_test.cpp: the command table and the scanning of words into parameters.
#include "cli/scan.h"

#include <gtest/gtest.h>

#include "cli/usage.h"

namespace nurel {
namespace {

Json scanned(const std::string& command, std::vector<std::string> words) {
  return scan(*findCommand(command), words).params;
}

TEST(Scan, EveryCommandButHelloIsInTheUsage) {
  for (const Command& command : commands()) {
    bool listed = usage().find("\n  " + std::string(command.name) + " ") != std::string::npos ||
                  usage().find("| " + std::string(command.name) + " ") != std::string::npos;
    EXPECT_EQ(command.name != "hello", listed) << command.name;
  }
}

TEST(Scan, CommandsMatchExactly) {
  EXPECT_EQ(nullptr, findCommand("Tabs"));
  EXPECT_EQ(nullptr, findCommand("GUIDE"));
  EXPECT_EQ(nullptr, findCommand("--intent"));
  EXPECT_NE(nullptr, findCommand("hello"));
}

TEST(Scan, TheseOptionsTakeAValue) {
  for (auto name : {"ref", "file", "text", "gone", "url", "seconds", "timeout", "intent", "filter",
                    "limit", "values", "styles", "size", "request"})
    EXPECT_TRUE(isValued(name)) << name;
  EXPECT_FALSE(isValued("interactive"));
  EXPECT_FALSE(isValued("Ref"));
}

TEST(Scan, PositionalsFillTheNamesInOrder) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"ref", "e5"}, {"intent", "why"}}),
            scanned("click", {"t1", "e5", "--intent", "why"}));
}

TEST(Scan, ThreeWordsMakeAPointForClickAndHover) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"x", "100"}, {"y", "200"}}),
            scanned("click", {"t1", "100", "200"}));
  EXPECT_EQ(Json({{"tab", "t1"}, {"x", "1"}, {"y", "2"}}), scanned("hover", {"t1", "1", "2"}));
  EXPECT_EQ(Json({{"tab", "t1"}, {"ref", "a b c d"}}),
            scanned("hover", {"t1", "a", "b", "c", "d"}));
}

TEST(Scan, TheLastNameTakesTheRestJoinedBySpaces) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"text", "hello world"}}),
            scanned("type", {"t1", "hello", "world"}));
  EXPECT_EQ(Json({{"tab", "t1 t2"}}), scanned("close", {"t1", "t2"}));
  EXPECT_EQ(Json({{"url", "a b"}}), scanned("open", {"a", "b"}));
}

TEST(Scan, SwitchesAreTrueWhateverTheirName) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"interactive", true}, {"interactiv", true}}),
            scanned("snapshot", {"--interactive", "t1", "--interactiv"}));
}

TEST(Scan, AValuedOptionTakesTheNextWordVerbatim) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"text", "--idle"}}), scanned("wait", {"t1", "--text", "--idle"}));
}

TEST(Scan, AValuedOptionAtTheEndIsAUsageError) {
  EXPECT_THROW(scanned("wait", {"t1", "--timeout"}), UsageError);
}

TEST(Scan, TheLaterOfTwoOptionsWins) {
  EXPECT_EQ(Json({{"intent", "second"}}),
            scanned("tabs", {"--intent", "first", "--intent", "second"}));
}

TEST(Scan, DashesAloneAndSingleDashesArePositional) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"text", "-- -5 -x"}}), scanned("type", {"t1", "--", "-5", "-x"}));
}

TEST(Scan, TooFewPositionalsIsAUsageError) {
  EXPECT_THROW(scanned("navigate", {"t1"}), UsageError);
  EXPECT_THROW(scanned("snapshot", {}), UsageError);
  EXPECT_THROW(scanned("type", {"t1", "--text", "x"}), UsageError);
}

TEST(Scan, FindTakesItsTextFromTheOption) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"text", "Sign in"}}),
            scanned("find", {"t1", "--text", "Sign in"}));
  EXPECT_EQ(Json({{"tab", "t1"}, {"text", "Sign in"}}), scanned("find", {"t1", "Sign", "in"}));
  EXPECT_EQ(Json({{"tab", "t1"}, {"text", "a b"}}), scanned("find", {"t1", "a", "--text", "b"}));
}

TEST(Scan, PositionalsOverwriteOptionsOfTheSameName) {
  EXPECT_EQ(Json({{"tab", "t1"}, {"ref", "e5"}}), scanned("click", {"t1", "e5", "--ref", "e7"}));
}

TEST(Scan, CommandsWithoutNamesIgnoreExtraWords) {
  EXPECT_EQ(Json::object(), scanned("tabs", {"extra", "words"}));
  EXPECT_EQ(Json::object(), scanned("hello", {}));
}

}  // namespace
}  // namespace nurel
