// completions/shells_test.cpp: the completion model and what the scripts are made of. The
// scripts' behaviour is tested in their own shells (tests/dist/).
#include "completions/shells.h"

#include <gtest/gtest.h>

#include "cli/usage.h"

namespace nurel {
namespace {

const CompletionModel& model() {
  static const CompletionModel built = completionModel(usageEntries());
  return built;
}

const CompletionCommand& command(std::string_view name) {
  for (const CompletionCommand& command : model().commands)
    if (command.name == name) return command;
  throw std::runtime_error("no command " + std::string(name));
}

TEST(Completion, CommandsComeInTheOrderOfTheUsageText) {
  ASSERT_LT(2u, model().commands.size());
  EXPECT_EQ("guide", model().commands[0].name);
  EXPECT_EQ("mcp", model().commands[1].name);
  EXPECT_EQ("tabs", model().commands[2].name);
  EXPECT_EQ("close", model().commands.back().name);
  EXPECT_EQ("the page as roles and names, with refs to act on", command("snapshot").summary);
}

TEST(Completion, ValuedOptionsAreCollectedOnceInOrder) {
  std::vector<std::string> names;
  for (const CompletionOption& option : model().valued) names.push_back(option.name);
  std::vector<std::string> expected = {"file", "filter",  "gone",    "intent", "limit",
                                       "ref",  "request", "seconds", "size",   "styles",
                                       "text", "timeout", "url",     "values"};
  EXPECT_EQ(expected, names);
  for (const std::string& name : names) EXPECT_TRUE(isValued(name)) << name;
}

TEST(Completion, BashChecksUploadsFilesAndDialogsWords) {
  std::string bash = bashCompletion(model());
  EXPECT_NE(std::string::npos, bash.find("        upload)\n"
                                         "            options='--intent'\n"
                                         "            ((count >= 2)) && files=1\n"
                                         "            required=3 ;;\n"));
  EXPECT_NE(std::string::npos, bash.find("((count == 1)) && choices='accept dismiss'"));
  EXPECT_NE(std::string::npos,
            bash.find("options='--interactive --viewport --diff --file --intent'"));
  EXPECT_TRUE(bash.ends_with("complete -F _nurel nurel\n"));
  EXPECT_EQ(std::string::npos, bash.find("hello"));
}

TEST(Completion, ZshQuotesDescriptions) {
  std::string zsh = zshCompletion(model());
  EXPECT_TRUE(zsh.starts_with("#compdef nurel\n"));
  EXPECT_NE(std::string::npos, zsh.find("'tabs:the agent'\\''s tabs'"));
  EXPECT_NE(std::string::npos, zsh.find("'--size:<w>x<h>'"));
}

TEST(Completion, FishQuotesDescriptions) {
  std::string fish = fishCompletion(model());
  EXPECT_NE(std::string::npos, fish.find("tabs 'the agent\\'s tabs'"));
  EXPECT_NE(std::string::npos, fish.find("--file\\t'<path>'"));
  EXPECT_TRUE(fish.ends_with("complete -c nurel -f -a '(__nurel_complete)'\n"));
}

}  // namespace
}  // namespace nurel
