// completions/usage_model_test.cpp: what is read out of the usage text, and that it agrees
// with the command table and the scanner.
#include "completions/usage_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "cli/scan.h"
#include "cli/usage.h"

namespace nurel {
namespace {

const UsageModel& model() {
  static const UsageModel read = readUsage(usage());
  return read;
}

const UsageCommand& command(std::string_view name) {
  for (const UsageCommand* command : commandsOf(model()))
    if (command->name == name) return *command;
  throw std::runtime_error("no command " + std::string(name));
}

std::vector<std::string> optionNames(const std::vector<UsageOption>& options) {
  std::vector<std::string> out;
  for (const UsageOption& option : options) out.push_back(option.name);
  return out;
}

std::vector<std::string> placeholders(const UsageCommand& command) {
  std::vector<std::string> out;
  for (const UsageWord& word : command.words) out.push_back(word.placeholder);
  return out;
}

bool isBrowserCommand(std::string_view name) { return findCommand(name) != nullptr; }

TEST(UsageModel, HasEveryCommandOfTheTableButHelloAndGuideAndMcp) {
  std::set<std::string> expected = {"guide", "mcp"};
  for (const Command& row : requests())
    if (row.name != "hello") expected.insert(std::string(row.name));
  std::set<std::string> read;
  for (const UsageCommand* command : commandsOf(model())) read.insert(command->name);
  EXPECT_EQ(expected, read);
  EXPECT_EQ(38u, commandsOf(model()).size());
}

TEST(UsageModel, ReadsTheActionOptionsFromTheFirstLine) {
  EXPECT_EQ(std::vector<UsageOption>{UsageOption({"intent", "<why>"})}, model().actionOptions);
}

TEST(UsageModel, SnapshotShowsItsSwitchesAndFile) {
  const UsageCommand& snapshot = command("snapshot");
  EXPECT_EQ("snapshot <tab> [--interactive] [--viewport] [--diff] [--file <path>]",
            snapshot.synopsis);
  std::vector<UsageOption> expected = {
      {"interactive", ""}, {"viewport", ""}, {"diff", ""}, {"file", "<path>"}};
  EXPECT_EQ(expected, snapshot.options);
  EXPECT_EQ(std::vector<std::string>{"<tab>"}, placeholders(snapshot));
}

TEST(UsageModel, EmulateShowsColourMediaAndSize) {
  std::vector<UsageOption> expected = {{"dark", ""},  {"light", ""},  {"system", ""},
                                       {"print", ""}, {"screen", ""}, {"size", "<w>x<h>"}};
  EXPECT_EQ(expected, command("emulate").options);
}

TEST(UsageModel, UploadTakesRepeatedFiles) {
  const UsageCommand& upload = command("upload");
  ASSERT_EQ(3u, upload.words.size());
  EXPECT_EQ("<file>", upload.words[2].placeholder);
  EXPECT_TRUE(upload.words[2].repeats);
  EXPECT_FALSE(upload.words[1].repeats);
  EXPECT_TRUE(namesFile(upload.words[2].placeholder));
  EXPECT_FALSE(namesFile(upload.words[1].placeholder));
}

TEST(UsageModel, DialogAnswerIsOneOfItsWords) {
  const UsageCommand& dialog = command("dialog");
  ASSERT_EQ(3u, dialog.words.size());
  EXPECT_EQ((std::vector<std::string>{"accept", "dismiss"}), dialog.words[1].choices);
  EXPECT_FALSE(dialog.words[1].optional);
  EXPECT_TRUE(dialog.words[2].optional);
}

TEST(UsageModel, NestedOptionalWordsAreOptional) {
  const UsageCommand& scroll = command("scroll");
  EXPECT_EQ((std::vector<std::string>{"<tab>", "<dy>", "<dx>"}), placeholders(scroll));
  EXPECT_FALSE(scroll.words[0].optional);
  EXPECT_TRUE(scroll.words[1].optional);
  EXPECT_TRUE(scroll.words[2].optional);
  EXPECT_EQ(std::vector<UsageOption>{UsageOption({"ref", "<ref>"})}, scroll.options);
}

TEST(UsageModel, BackAndForwardShareOneEntry) {
  auto shared = std::find_if(model().entries.begin(), model().entries.end(),
                             [](const UsageEntry& e) { return e.commands.size() == 2; });
  ASSERT_NE(model().entries.end(), shared);
  EXPECT_EQ("back <tab> | forward <tab>", shared->synopsis);
  EXPECT_EQ("back <tab>", shared->commands[0].synopsis);
  EXPECT_EQ("forward", shared->commands[1].name);
  EXPECT_EQ("forward <tab>", shared->commands[1].synopsis);
  EXPECT_EQ(std::vector<std::string>{"through the tab's history"}, shared->description);
}

TEST(UsageModel, DescriptionsKeepTheirLines) {
  auto key = std::find_if(model().entries.begin(), model().entries.end(),
                          [](const UsageEntry& e) { return e.synopsis == "key <tab> <key>"; });
  ASSERT_NE(model().entries.end(), key);
  std::vector<std::string> expected = {
      "enter, tab, space, escape, backspace, delete, arrows, home, end,",
      "pageup, pagedown, f1\u2013f12 or a character, with modifiers:",
      "shift+tab, cmd+a, ctrl+enter"};
  EXPECT_EQ(expected, key->description);
  EXPECT_EQ(37u, model().entries.size());
}

TEST(UsageModel, SynopsisEndsWhereTheDescriptionStarts) {
  EXPECT_EQ("upload <tab> <ref> <file>...", command("upload").synopsis);
  EXPECT_EQ("mcp", command("mcp").synopsis);
  EXPECT_EQ("open <url>", command("open").synopsis);
  EXPECT_EQ("pdf <tab> [--file <path>]", command("pdf").synopsis);
}

TEST(UsageModel, ValuedOptionsAreTheScannersOwn) {
  size_t valued = 0;
  for (const UsageCommand* command : commandsOf(model()))
    for (const UsageOption& option : optionsOf(model(), *command, isBrowserCommand)) {
      EXPECT_EQ(!option.value.empty(), isValued(option.name)) << "--" << option.name;
      valued += !option.value.empty();
    }
  EXPECT_LT(0u, valued);
}

TEST(UsageModel, IntentIsForEveryBrowserCommandOnly) {
  for (const UsageCommand* command : commandsOf(model())) {
    std::vector<std::string> names = optionNames(optionsOf(model(), *command, isBrowserCommand));
    bool intent = std::find(names.begin(), names.end(), "intent") != names.end();
    EXPECT_EQ(isBrowserCommand(command->name), intent) << command->name;
  }
  EXPECT_TRUE(optionsOf(model(), command("guide"), isBrowserCommand).empty());
  EXPECT_EQ((std::vector<std::string>{"filter", "failed", "clear", "request", "intent"}),
            optionNames(optionsOf(model(), command("network"), isBrowserCommand)));
}

TEST(UsageModel, RefusesAnUnbalancedBracket) {
  EXPECT_THROW(readUsage("Usage: x\n  snapshot <tab> [--diff\n"), UsageFormatError);
  EXPECT_THROW(readUsage("Usage: x\n  open <url\n"), UsageFormatError);
}

TEST(UsageModel, RefusesATextWithoutItsFirstLine) {
  EXPECT_THROW(readUsage("  tabs   the agent's tabs"), UsageFormatError);
  EXPECT_THROW(readUsage("Usage: x\n                  a description first"), UsageFormatError);
}

TEST(UsageModel, RefusesAWordThatMixesOptionsAndWords) {
  EXPECT_THROW(readUsage("Usage: x\n  emulate <tab> [--dark|light]\n"), UsageFormatError);
}

TEST(UsageModel, ReadsAnotherText) {
  UsageModel other = readUsage(
      "Usage: tool <command>   (every one takes --why <reason> and --loud <level>)\n"
      "  copy <from> <to>... [--force]   copies\n"
      "                                  files\n"
      "  list\n");
  EXPECT_EQ((std::vector<UsageOption>{{"why", "<reason>"}, {"loud", "<level>"}}),
            other.actionOptions);
  ASSERT_EQ(2u, other.entries.size());
  EXPECT_EQ("copy <from> <to>... [--force]", other.entries[0].synopsis);
  EXPECT_EQ((std::vector<std::string>{"copies", "files"}), other.entries[0].description);
  EXPECT_TRUE(other.entries[1].description.empty());
  EXPECT_EQ("list", other.entries[1].commands[0].name);
}

}  // namespace
}  // namespace nurel
