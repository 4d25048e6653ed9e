// completions/manual_test.cpp: roff escapes and the generated COMMANDS section.
#include "completions/manual.h"

#include <gtest/gtest.h>

#include "cli/usage.h"

namespace nurel {
namespace {

TEST(Manual, EscapesWhatRoffWouldReadDifferently) {
  EXPECT_EQ("prefers\\-color\\-scheme", roffText("prefers-color-scheme"));
  EXPECT_EQ("f1\\[u2013]f12, skip <\\[u00B1]s>", roffText("f1\u2013f12, skip <\u00B1s>"));
  EXPECT_EQ("a \\e b", roffText("a \\ b"));
  EXPECT_EQ("\\(aq[{}]\\(aq", roffText("'[{}]'"));
  EXPECT_EQ("\\&.profile", roffText(".profile"));
}

TEST(Manual, LongWordsMayBreakAfterTheirCommas) {
  EXPECT_EQ("a,b one, two", breakable("a,b one, two"));
  EXPECT_EQ(
      "[{\"do\":\"type\",\\:\"ref\":\"e3\",\\:\"text\":\"hi\"},\\:{\"do\":\"press_key\"}] x",
      breakable("[{\"do\":\"type\",\"ref\":\"e3\",\"text\":\"hi\"},{\"do\":\"press_key\"}] x"));
}

TEST(Manual, SynopsisMarksNamesAndPlaceholders) {
  EXPECT_EQ(
      "\\fBsnapshot\\fR \\fI<tab>\\fR [\\fB\\-\\-diff\\fR] [\\fB\\-\\-file\\fR \\fI<path>\\fR]",
      roffSynopsis("snapshot <tab> [--diff] [--file <path>]"));
  EXPECT_EQ(
      "\\fBemulate\\fR [\\fB\\-\\-dark\\fR|\\fB\\-\\-light\\fR] [\\fB\\-\\-size\\fR "
      "\\fI<w>\\fRx\\fI<h>\\fR]",
      roffSynopsis("emulate [--dark|--light] [--size <w>x<h>]"));
  EXPECT_EQ("\\fBdialog\\fR \\fI<tab>\\fR \\fBaccept\\fR|\\fBdismiss\\fR",
            roffSynopsis("dialog <tab> accept|dismiss"));
  EXPECT_EQ("\\fBupload\\fR \\fI<file>\\fR...", roffSynopsis("upload <file>..."));
}

TEST(Manual, CommandsNameEveryCommandOfTheTable) {
  std::string section = manualCommands(usageEntries());
  for (const Command& row : commands()) {
    bool named = section.find("\\fB" + std::string(row.name) + "\\fR") != std::string::npos;
    EXPECT_EQ(row.name != "hello", named) << row.name;
  }
  EXPECT_NE(std::string::npos, section.find(".TP\n\\fBguide\\fR\nhow agents drive Nurel"));
  EXPECT_NE(std::string::npos, section.find(".TP\n\\fBmcp\\fR\n"));
}

TEST(Manual, PageGetsTheCommandsInPlaceOfItsMarker) {
  std::vector<UsageEntry> entries = {{"list", {"all of them"}, {}}};
  EXPECT_EQ(".SH COMMANDS\n.TP\n\\fBlist\\fR\nall of them\n.SH END\n",
            manualPage(".SH COMMANDS\n@COMMANDS@\n.SH END\n", entries));
  EXPECT_THROW(manualPage(".SH COMMANDS\n", entries), ManualError);
}

}  // namespace
}  // namespace nurel
