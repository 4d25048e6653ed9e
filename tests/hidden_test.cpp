// tests/hidden_test.cpp: what a person can't see of a page never reaches the agent. The page
// tests/pages/hidden.html hides a marker word (HIDDENnn) each way a page can hide a text, and
// shows others (KEPTnn) in ways that must stay, one of them under a bar fixed to the window
// (scrolling moves it from under the bar): each reading path says every kept one it would
// show, none of the hidden, and ends with how many texts it left out.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/browser_fixture.h"

namespace nurel::testing {
namespace {

std::string page(const std::string& name) { return fileText(NUREL_TEST_DIR "/pages/" + name); }

// Every hidden marker of the page.
std::vector<std::string> hiddenMarkers() {
  std::vector<std::string> markers;
  for (int i = 1; i <= 35; ++i) markers.push_back((i < 10 ? "HIDDEN0" : "HIDDEN") + std::to_string(i));
  return markers;
}
// The ones that aren't drawn at all (display: none and the like): left out without a word.
const std::set<std::string> undrawn = {"HIDDEN01", "HIDDEN02", "HIDDEN03", "HIDDEN04", "HIDDEN05",
                                       "HIDDEN24", "HIDDEN25", "HIDDEN26", "HIDDEN32", "HIDDEN34"};
// The texts drawn but hidden that a full snapshot of the page meets (all but the undrawn ones).
constexpr int drawnHidden = 25;
// The texts that stay as text (KEPT06 and KEPT07 stay only as the names of their controls).
const std::vector<std::string> keptAsText = {"KEPT01", "KEPT02", "KEPT03", "KEPT04", "KEPT05",
                                             "KEPT08", "KEPT09", "KEPT10", "KEPT11", "KEPT12",
                                             "KEPT13", "KEPT14", "KEPT15"};

std::string lastLine(const std::string& out) {
  std::string text = out;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text.substr(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
}

std::string leftOutLine(int count) {
  return "(" + std::to_string(count) + (count == 1 ? " hidden text" : " hidden texts") + " left out)";
}

void expectNothingHidden(const std::string& out, const std::string& path) {
  for (const std::string& marker : hiddenMarkers())
    EXPECT_EQ(out.find(marker), std::string::npos) << path << " shows " << marker << ":\n" << out;
}

void expectKept(const std::string& out, const std::vector<std::string>& markers, const std::string& path) {
  for (const std::string& marker : markers)
    EXPECT_NE(out.find(marker), std::string::npos) << path << " lost " << marker << ":\n" << out;
}

std::string openHidden() {
  servePage("/hidden", page("hidden.html"));
  return shared().open(url("/hidden"));
}

TEST(Hidden, SnapshotsShowOnlyWhatAPersonSees) {
  std::string tab = openHidden();
  Outcome full = shared().nurel({"snapshot", tab});
  ASSERT_EQ(full.status, 0) << full.err;
  expectNothingHidden(full.out, "snapshot");
  expectKept(full.out, keptAsText,
             "snapshot");
  // A visually hidden text that names a control stays as its name, and only there.
  EXPECT_NE(full.out.find("- button \"KEPT06 Close the notes\" [ref="), std::string::npos) << full.out;
  EXPECT_NE(full.out.find("- textbox \"KEPT07 Search the notes\" [ref="), std::string::npos) << full.out;
  EXPECT_EQ(full.out.find("text: KEPT06"), std::string::npos) << full.out;
  EXPECT_EQ(full.out.find("text: KEPT07"), std::string::npos) << full.out;
  EXPECT_EQ(lastLine(full.out), leftOutLine(drawnHidden)) << full.out;

  Outcome interactive = shared().nurel({"snapshot", tab, "--interactive"});
  expectNothingHidden(interactive.out, "snapshot --interactive");
  expectKept(interactive.out, {"KEPT06", "KEPT07", "KEPT08", "KEPT13"}, "snapshot --interactive");
  // Of what it reads, only the heading white on white was hidden.
  EXPECT_EQ(lastLine(interactive.out), leftOutLine(1)) << interactive.out;

  Outcome screen = shared().nurel({"snapshot", tab, "--viewport"});
  expectNothingHidden(screen.out, "snapshot --viewport");
  expectKept(screen.out, {"KEPT01", "KEPT02", "KEPT03", "KEPT04", "KEPT05", "KEPT06", "KEPT07", "KEPT08",
                          "KEPT09", "KEPT10", "KEPT11", "KEPT12", "KEPT13", "KEPT14", "KEPT15"},
             "snapshot --viewport");
  // The texts moved off the screen aren't on it to be left out.
  EXPECT_EQ(lastLine(screen.out), leftOutLine(drawnHidden - 5)) << screen.out;

  // A diff says what changed, and still what was left out.
  ASSERT_EQ(shared().nurel({"eval", tab, "document.querySelector('h2').textContent = 'KEPT16 Notes'; return 1"}).out, "1\n");
  Outcome diff = shared().nurel({"snapshot", tab, "--diff"});
  expectNothingHidden(diff.out, "snapshot --diff");
  EXPECT_NE(diff.out.find("+    - heading \"KEPT16 Notes\""), std::string::npos) << diff.out;
  EXPECT_EQ(lastLine(diff.out), leftOutLine(drawnHidden)) << diff.out;
}

TEST(Hidden, TextReadsOnlyWhatAPersonSees) {
  std::string tab = openHidden();
  Outcome article = shared().nurel({"text", tab});
  ASSERT_EQ(article.status, 0) << article.err;
  expectNothingHidden(article.out, "text");
  // The article as Readability takes it: its own text, without the page's frames and shadow
  // roots, which it doesn't read.
  EXPECT_EQ(article.out.rfind("# Field notes\n", 0), 0u) << article.out;
  expectKept(article.out, {"KEPT01", "KEPT02", "KEPT09", "KEPT12", "KEPT13"}, "text");
  EXPECT_NE(lastLine(article.out).find(" hidden texts left out)"), std::string::npos) << article.out;

  Outcome all = shared().nurel({"text", tab, "--all"});
  expectNothingHidden(all.out, "text --all");
  expectKept(all.out, keptAsText,
             "text --all");
  // The names of controls aren't text.
  EXPECT_EQ(all.out.find("KEPT06"), std::string::npos) << all.out;
  EXPECT_EQ(all.out.find("KEPT07"), std::string::npos) << all.out;
  EXPECT_EQ(lastLine(all.out), leftOutLine(drawnHidden)) << all.out;
}

TEST(Hidden, FindAndDescribeSeeWhatAPersonSees) {
  std::string tab = openHidden();
  for (const std::string& marker : hiddenMarkers()) {
    Outcome found = shared().nurel({"find", tab, marker});
    EXPECT_EQ(found.out.rfind("nothing on the page says \"" + marker + "\"", 0), 0u) << found.out;
    // What was drawn but can't be seen is said to be there; what isn't drawn at all isn't.
    if (undrawn.count(marker))
      EXPECT_EQ(found.out.find("left out"), std::string::npos) << found.out;
    else
      EXPECT_EQ(lastLine(found.out), leftOutLine(1)) << marker << ": " << found.out;
  }
  for (const char* marker : {"KEPT01", "KEPT02", "KEPT03", "KEPT04", "KEPT05", "KEPT06", "KEPT07", "KEPT08",
                             "KEPT09", "KEPT10", "KEPT11", "KEPT12", "KEPT13", "KEPT14", "KEPT15"}) {
    Outcome found = shared().nurel({"find", tab, marker});
    EXPECT_EQ(found.out.rfind("- ", 0), 0u) << marker << ": " << found.out;
    EXPECT_EQ(found.out.find("left out"), std::string::npos) << found.out;
  }
  EXPECT_EQ(shared().nurel({"find", tab, "KEPT06"}).out.rfind("- button \"KEPT06 Close the notes\"", 0), 0u);

  Outcome described = shared().nurel({"describe", tab});
  expectNothingHidden(described.out, "describe");
  expectKept(described.out, {"KEPT13"}, "describe");
  EXPECT_EQ(lastLine(described.out), leftOutLine(1)) << described.out;
}

}  // namespace
}  // namespace nurel::testing
