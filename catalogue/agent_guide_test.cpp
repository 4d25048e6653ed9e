// catalogue/agent_guide_test.cpp: the agent guide's exact bytes, and `nurel guide`.
#include "catalogue/agent_guide.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

#include "cli/usage.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

constexpr std::string_view arrow = "\xE2\x80\xBA";  // "›" in UTF-8

TEST(AgentGuide, Is2349BytesHolding2347Characters) {
  const std::string& guide = agentGuide();
  EXPECT_EQ(2349u, guide.size());
  // Every character but the continuation bytes of a UTF-8 sequence starts a new one.
  auto characters = std::count_if(guide.begin(), guide.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  });
  EXPECT_EQ(2347, characters);
}

TEST(AgentGuide, HasSeventeenLinesAndNoFinalLineFeed) {
  const std::string& guide = agentGuide();
  EXPECT_EQ(16, std::count(guide.begin(), guide.end(), '\n'));
  EXPECT_NE('\n', guide.back());
  EXPECT_EQ(std::string::npos, guide.find('\r'));
  EXPECT_EQ(std::string::npos, guide.find("\n\n\n"));
  EXPECT_TRUE(guide.starts_with("Nurel is a Mac browser; these tools drive it. "));
  EXPECT_TRUE(guide.ends_with(" Close your tabs when done."));
}

TEST(AgentGuide, HoldsOneArrowInUtf8AndNoOtherNonAscii) {
  const std::string& guide = agentGuide();
  auto high = std::count_if(guide.begin(), guide.end(),
                            [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
  EXPECT_EQ(3, high);
  auto at = guide.find("(Settings \xE2\x80\xBA Agents)");
  ASSERT_NE(std::string::npos, at);
  EXPECT_EQ(at + 10, guide.find(arrow));
  EXPECT_EQ(std::string::npos, guide.find(arrow, at + 11));
}

// tests/guide.txt is a copy of what `nurel guide` must print, kept apart from the code that
// prints it: the guide, a blank line, the usage text and a line feed.
TEST(Guide, PrintsExactlyTheExpectedText) {
  std::optional<std::string> expected = testing::readFile(NUREL_TEST_DIR "/guide.txt");
  ASSERT_TRUE(expected);
  EXPECT_EQ(2349u + 2 + 4652 + 1, expected->size());
  testing::Outcome outcome = testing::runNurel({"guide"});
  EXPECT_EQ(*expected, outcome.out);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ(*expected, agentGuide() + "\n\n" + usage() + "\n");
}

TEST(Guide, PrintsTheGuideABlankLineAndTheUsageWithoutTheBrowser) {
  testing::FakeBrowser browser;
  testing::RunOptions options;
  options.env["NUREL_SOCKET"] = browser.socket();
  testing::Outcome outcome = testing::runNurel({"guide", "extra", "words"}, options);
  EXPECT_EQ(agentGuide() + "\n\n" + usage() + "\n", outcome.out);
  EXPECT_EQ("", outcome.err);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ(0, browser.connections());
  EXPECT_TRUE(browser.requests().empty());
}

}  // namespace
}  // namespace nurel
