// catalogue/commands_test.cpp: the command table and what is read out of it.
#include "catalogue/commands.h"

#include <gtest/gtest.h>

#include <set>

#include "catalogue/catalogue.h"

namespace nurel {
namespace {

std::string synopsis(std::string_view name) {
  for (const Command& command : commands())
    if (command.name == name) return command.synopsis();
  return "no command " + std::string(name);
}

TEST(CommandTable, SynopsesShowWordsAndOptionsInTheirOrder) {
  EXPECT_EQ("tabs", synopsis("tabs"));
  EXPECT_EQ("type <tab> [--ref <ref>] [--replace] <text>", synopsis("type"));
  EXPECT_EQ("upload <tab> <ref> <file>...", synopsis("upload"));
  EXPECT_EQ("dialog <tab> accept|dismiss [<text>]", synopsis("dialog"));
}

TEST(CommandTable, DeeperOptionalWordsNestTheirBrackets) {
  EXPECT_EQ("scroll <tab> [<dy> [<dx>]] [--ref <ref>]", synopsis("scroll"));
  EXPECT_EQ("media <tab> [<action> [<value>]]", synopsis("media"));
}

TEST(CommandTable, AlternativeSwitchesShareTheirBrackets) {
  EXPECT_EQ("emulate <tab> [--dark|--light|--system] [--print|--screen] [--size <w>x<h>]",
            synopsis("emulate"));
}

TEST(CommandTable, RequiredWordsFillTheirParameters) {
  using Names = std::vector<std::string_view>;
  EXPECT_EQ(Names({"tab", "actions"}), findCommand("batch")->fills());
  EXPECT_EQ(Names({"tab", "answer"}), findCommand("dialog")->fills());
  // the files and the optional words are the commands' own rules to read
  EXPECT_EQ(Names({"tab", "ref"}), findCommand("upload")->fills());
  EXPECT_EQ(Names({"tab"}), findCommand("scroll")->fills());
  EXPECT_EQ(Names(), findCommand("hello")->fills());
}

TEST(CommandTable, AWordOfLiteralWordsShowsThemAll) {
  const Command& dialog = *findCommand("dialog");
  EXPECT_EQ("accept|dismiss", dialog.parts[1].wordShown());
  EXPECT_EQ("<tab>", dialog.parts[0].wordShown());
}

TEST(CommandTable, GuideAndMcpAreNotBrowserCommands) {
  EXPECT_EQ(nullptr, findCommand("guide"));
  EXPECT_EQ(nullptr, findCommand("mcp"));
  EXPECT_NE(nullptr, findCommand("hello"));
}

TEST(CommandTable, ToolsCallTheirCommandsMethod) {
  EXPECT_EQ("open", findTool("open_tab")->name);
  EXPECT_EQ("eval", findTool("evaluate")->name);
  EXPECT_EQ("ask", findTool("ask_person")->name);
  EXPECT_EQ("pdf", findTool("save_pdf")->name);
  EXPECT_EQ(nullptr, findTool("open"));
  EXPECT_EQ(nullptr, findTool(""));
}

TEST(CommandTable, EveryListedToolHasACommandAndEveryCommandButHelloATool) {
  std::set<std::string> listed, backed;
  for (const auto& tool : tools()) {
    listed.insert(tool["name"].get<std::string>());
    EXPECT_NE(nullptr, findTool(tool["name"].get<std::string>())) << tool["name"];
  }
  for (const Command& command : commands())
    if (command.talksToBrowser() && command.name != "hello") backed.insert(std::string(command.tool));
  EXPECT_EQ(listed, backed);
}

}  // namespace
}  // namespace nurel
