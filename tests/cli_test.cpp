// tests/cli_test.cpp: the program as people meet it on the command line: the real binary
// against the fake browser.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "catalogue/agent_guide.h"
#include "cli/usage.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel::testing {
namespace {

const std::string usageLine = usage() + "\n";

RunOptions at(const FakeBrowser& browser) { return withSocket(browser.socket()); }

// The same, run in `dir`.
RunOptions at(const FakeBrowser& browser, const TempDir& dir) {
  RunOptions options = at(browser);
  options.cwd = dir.path();
  return options;
}

nlohmann::json params(const std::string& line) { return nlohmann::json::parse(line).at("params"); }
std::string method(const std::string& line) { return nlohmann::json::parse(line).at("method"); }

// A socket path where nothing listens.
struct NoBrowser {
  TempDir dir;
  RunOptions options() const { return withSocket(dir.file("none.sock")); }
};

TEST(Cli, NoArgumentsPrintsTheUsageAndFails) {
  Outcome run = runNurel({});
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(usageLine, run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, GuidePrintsTheGuideABlankLineAndTheUsage) {
  Outcome run = runNurel({"guide", "extra", "words"});
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(agentGuide() + "\n\n" + usage() + "\n", run.out);
  EXPECT_EQ("", run.err);
}

TEST(Cli, McpIgnoresTheWordsAfterIt) {
  NoBrowser none;
  RunOptions options = none.options();
  options.input = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\"}\n";
  Outcome run = runNurel({"mcp", "--anything", "extra"}, options);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("", run.err);
  ASSERT_FALSE(run.out.empty());
  EXPECT_EQ('\n', run.out.back());
  EXPECT_EQ(nlohmann::json({{"jsonrpc", "2.0"}, {"id", 1}, {"result", nlohmann::json::object()}}),
            nlohmann::json::parse(run.out));
}

TEST(Cli, CommandsAreCaseSensitive) {
  for (const char* name : {"GUIDE", "Tabs", "help", "--help"}) {
    Outcome run = runNurel({name});
    EXPECT_EQ(1, run.status) << name;
    EXPECT_EQ(usageLine, run.err) << name;
  }
}

TEST(Cli, AnOptionBeforeTheCommandIsAUsageError) {
  FakeBrowser browser;
  Outcome run = runNurel({"--intent", "why", "tabs"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(usageLine, run.err);
  EXPECT_TRUE(browser.requests().empty());
}

TEST(Cli, IntentAfterTheCommandIsSent) {
  FakeBrowser browser({R"({"id":$id,"result":[{"id":"t1","title":"Example"}]})"});
  Outcome run = runNurel({"tabs", "--intent", "why"}, at(browser));
  EXPECT_EQ(0, run.status);
  ASSERT_EQ(1u, browser.requests().size());
  EXPECT_EQ(R"({"id":1,"method":"tabs","params":{"intent":"why"}})", browser.requests()[0]);
  EXPECT_EQ("[\n  {\n    \"id\": \"t1\",\n    \"title\": \"Example\"\n  }\n]\n", run.out);
  EXPECT_EQ("", run.err);
}

TEST(Cli, HelloIsAcceptedThoughNotListed) {
  FakeBrowser browser({R"({"id":$id,"result":"hi"})"});
  Outcome run = runNurel({"hello"}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("hi\n", run.out);
  ASSERT_EQ(1u, browser.requests().size());
  EXPECT_EQ("hello", method(browser.requests()[0]));
  EXPECT_EQ(nlohmann::json::object(), params(browser.requests()[0]));
}

TEST(Cli, ClickSendsTabRefAndIntent) {
  FakeBrowser browser({R"({"id":$id,"result":{"changed":"a dialog opened"}})"});
  Outcome run = runNurel({"click", "t1", "e5", "--intent", "why"}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ(nlohmann::json({{"tab", "t1"}, {"ref", "e5"}, {"intent", "why"}}),
            params(browser.requests().at(0)));
  EXPECT_EQ("{\n  \"changed\": \"a dialog opened\"\n}\n", run.out);
}

TEST(Cli, AReplyWithoutResultPrintsNull) {
  FakeBrowser browser({R"({"id":$id})"});
  Outcome run = runNurel({"close", "t1"}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("null\n", run.out);
}

TEST(Cli, TheBrowsersErrorGoesToStandardError) {
  FakeBrowser browser({R"({"id":$id,"error":"no tab t9: open one with open_tab"})"});
  Outcome run = runNurel({"snapshot", "t9"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("no tab t9: open one with open_tab\n", run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, ABrowserThatHangsUpIsReported) {
  FakeBrowser browser({"!close"});
  Outcome run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("Nurel closed the connection\n", run.err);
}

TEST(Cli, AReplyThatIsABareNumberFailsToDecode) {
  FakeBrowser browser({R"(!bytes "42\n")"});
  Outcome run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("couldn't read a reply from Nurel: JSON text that is neither an object nor an array\n",
            run.err);
}

TEST(Cli, ANulByteAfterTheReplyFailsToDecode) {
  // The NUL byte does not end the line: the line is the reply and what follows it, no JSON.
  FakeBrowser browser({R"(!bytes "{\"id\":1,\"result\":\"nul\"}\u0000junk\n")"});
  Outcome run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(
      "couldn't read a reply from Nurel: syntax error while parsing value - invalid literal; "
      "last read: '<U+0000>'; expected end of input (at byte 24)\n",
      run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, TheBrowsersErrorReachesStandardErrorWithItsNulBytes) {
  FakeBrowser browser({R"({"id":$id,"error":"a\u0000b"})"});
  Outcome run = runNurel({"snapshot", "t1"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(std::string("a\0b\n", 4), run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, ValuesAndBatchSendIntegersBeyond64BitsDigitForDigit) {
  FakeBrowser browser;
  std::vector<std::string> run{"run", "t1", "s", "--values", R"({"n":-9223372036854775809})"};
  std::vector<std::string> batch{"batch", "t1", R"([{"do":"scroll","dy":18446744073709551616}])"};
  EXPECT_EQ(0, runNurel(run, at(browser)).status);
  EXPECT_EQ(0, runNurel(batch, at(browser)).status);
  auto requests = browser.requests();
  ASSERT_EQ(2u, requests.size());
  EXPECT_EQ(
      R"({"id":1,"method":"run","params":{"scenario":"s","tab":"t1","values":{"n":-9223372036854775809}}})",
      requests[0]);
  EXPECT_EQ(
      R"({"id":1,"method":"batch","params":{"actions":[{"do":"scroll","dy":18446744073709551616}],"tab":"t1"}})",
      requests[1]);
}

TEST(Cli, RepliesShowIntegersBeyond64BitsDigitForDigit) {
  FakeBrowser browser({R"({"id":$id,"result":{"n":123456789012345678901234567890}})",
                       R"({"id":$id,"result":-123456789012345678901234567890})"});
  Outcome run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("{\n  \"n\": 123456789012345678901234567890\n}\n", run.out);
  run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("-123456789012345678901234567890\n", run.out);
}

TEST(Cli, AnEmptyLineBeforeTheReplyFailsToDecode) {
  FakeBrowser browser({R"(!bytes "\n{\"id\":1,\"result\":\"t1\"}\n")"});
  Outcome run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("couldn't read a reply from Nurel: empty line where JSON was expected\n", run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, AStaleErrorLineEndsTheCommand) {
  FakeBrowser browser(
      {R"(!bytes "{\"id\":7,\"error\":\"stale\"}\n{\"id\":1,\"result\":\"t1\"}\n")"});
  Outcome run = runNurel({"tabs"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("stale\n", run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, AnArrayLineIsSkipped) {
  FakeBrowser browser({R"(!bytes "[\"not for you\"]\n{\"id\":1,\"result\":\"t1\"}\n")"});
  Outcome run = runNurel({"open", "https://example.com"}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("t1\n", run.out);
}

TEST(Cli, ArgumentsThatAreNotUtf8CannotBeSent) {
  FakeBrowser browser;
  Outcome run = runNurel({"open", "\xff"}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("a text that is not valid UTF-8 cannot be sent as JSON\n", run.err);
  EXPECT_TRUE(browser.requests().empty());
}

TEST(Cli, FileSavesTheWholeTextInsteadOfALimitedOne) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":"first line\n\nsecond line"})"});
  Outcome run = runNurel({"text", "t1", "--file", "out.txt", "--limit", "50"}, at(browser, dir));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("saved 2 lines to " + dir.file("out.txt") + "\n", run.out);
  EXPECT_EQ("first line\n\nsecond line\n", readFile(dir.file("out.txt")).value());
  nlohmann::json sent = params(browser.requests().at(0));
  EXPECT_EQ(0, sent["limit"]);
  EXPECT_TRUE(sent["limit"].is_number_integer());
  EXPECT_FALSE(sent.contains("file"));
}

TEST(Cli, FileSavesATextHoldingNulBytesWhole) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":"a\u0000b\n\u0000"})"});
  Outcome run = runNurel({"text", "t1", "--file", dir.file("nul.txt")}, at(browser));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("saved 2 lines to " + dir.file("nul.txt") + "\n", run.out);
  EXPECT_EQ(std::string("a\0b\n\0\n", 6), readFile(dir.file("nul.txt")).value());
}

TEST(Cli, FileSavesJsonRepliesAsPrinted) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":{"b":1,"a":"x/y"}})"});
  Outcome run = runNurel({"snapshot", "t1", "--file", dir.file("s.json")}, at(browser));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("saved 4 lines to " + dir.file("s.json") + "\n", run.out);
  EXPECT_EQ("{\n  \"a\": \"x/y\",\n  \"b\": 1\n}\n", readFile(dir.file("s.json")).value());
}

TEST(Cli, AFileInAMissingFolderFailsWithOneLine) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":"text"})"});
  Outcome run = runNurel({"text", "t1", "--file", dir.file("no/such/out.txt")}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("couldn't write " + dir.file("no/such/out.txt") + ": no such file or directory\n",
            run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, PdfSendsOnlyTheTabAndWritesUnderHome) {
  TempDir home;
  FakeBrowser browser({R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ=","title":"Example"}})"});
  RunOptions options = at(browser);
  options.env["HOME"] = home.path();
  Outcome run = runNurel({"pdf", "t1", "--file", "~/a.pdf", "--intent", "x"}, options);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(R"({"id":1,"method":"pdf","params":{"tab":"t1"}})", browser.requests().at(0));
  EXPECT_EQ("saved to " + home.file("a.pdf") + "\n", run.out);
  EXPECT_EQ("%PDF-1.4", readFile(home.file("a.pdf")).value());
}

TEST(Cli, PdfWithoutFileIsNamedForTheTab) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ="}})"});
  Outcome run = runNurel({"pdf", "t1"}, at(browser, dir));
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("saved to " + dir.file("t1.pdf") + "\n", run.out);
  EXPECT_TRUE(std::filesystem::exists(dir.file("t1.pdf")));
}

TEST(Cli, PdfWithoutUsableBase64IsNoPdf) {
  for (const char* reply :
       {R"({"id":$id,"result":{"pdf":"not base64!"}})", R"({"id":$id,"result":{"pdf":42}})",
        R"({"id":$id,"result":"pdf"})", R"({"id":$id})"}) {
    TempDir dir;
    FakeBrowser browser({reply});
    Outcome run = runNurel({"pdf", "t1"}, at(browser, dir));
    EXPECT_EQ(1, run.status) << reply;
    EXPECT_EQ("no PDF\n", run.err) << reply;
    EXPECT_EQ("", run.out);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path())) << reply;
  }
}

TEST(Cli, ScreenshotWithoutFileWritesTabPngHere) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":{"png":"iVBORw0KGgo="}})"});
  Outcome run = runNurel({"screenshot", "t1"}, at(browser, dir));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("saved to " + dir.file("t1.png") + "\n", run.out);
  EXPECT_EQ(std::string("\x89PNG\r\n\x1a\n"), readFile(dir.file("t1.png")).value());
}

TEST(Cli, ScreenshotSendsEverythingAndPrintsRefsFirst) {
  TempDir dir;
  FakeBrowser browser(
      {R"({"id":$id,"result":{"png":"iVBORw0KGgo=","refs":"e1 button \"OK\"\ne2 link"}})"});
  Outcome run = runNurel(
      {"screenshot", "t1", "--file", dir.file("s.png"), "--full", "--ref", "e2", "--intent", "i"},
      at(browser));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(nlohmann::json({{"tab", "t1"},
                            {"file", dir.file("s.png")},
                            {"full", true},
                            {"ref", "e2"},
                            {"intent", "i"}}),
            params(browser.requests().at(0)));
  EXPECT_EQ("e1 button \"OK\"\ne2 link\nsaved to " + dir.file("s.png") + "\n", run.out);
}

TEST(Cli, ScreenshotWithEmptyRefsPrintsOnlyWhereItSaved) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":{"png":"iVBORw0KGgo=","refs":""}})"});
  Outcome run = runNurel({"screenshot", "t1", "--file", dir.file("s.png")}, at(browser));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("saved to " + dir.file("s.png") + "\n", run.out);
  EXPECT_EQ("", run.err);
}

TEST(Cli, AScreenshotThatCannotBeWrittenPrintsNoRefs) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":{"png":"iVBORw0KGgo=","refs":"e1 button \"OK\""}})"});
  Outcome run = runNurel({"screenshot", "t1", "--file", dir.file("no/such/s.png")}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_EQ("couldn't write " + dir.file("no/such/s.png") + ": no such file or directory\n",
            run.err);
}

TEST(Cli, ScreenshotWithoutPngIsNoScreenshot) {
  TempDir dir;
  FakeBrowser browser({R"({"id":$id,"result":{"refs":"e1"}})"});
  Outcome run = runNurel({"screenshot", "t1"}, at(browser, dir));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("no screenshot\n", run.err);
  EXPECT_EQ("", run.out);
}

TEST(Cli, AFailedWriteKeepsTheOldFile) {
  TempDir dir;
  std::filesystem::create_directories(dir.file("shots"));
  FakeBrowser browser({R"({"id":$id,"result":{"png":"iVBORw0KGgo="}})"});
  // A folder where the file should go: the write fails and the folder stays.
  Outcome run = runNurel({"screenshot", "t1", "--file", dir.file("shots")}, at(browser));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("couldn't write " + dir.file("shots") + ": is a directory\n", run.err);
  EXPECT_TRUE(std::filesystem::is_directory(dir.file("shots")));
  EXPECT_TRUE(std::filesystem::is_empty(dir.file("shots")));
}

TEST(Cli, UsageErrorsComeBeforeAnyConnection) {
  NoBrowser none;
  for (std::vector<std::string> words : {std::vector<std::string>{"navigate", "t1"},
                                         {"wait", "t1", "--timeout"},
                                         {"snapshot"},
                                         {"type", "t1", "--text", "x"}}) {
    Outcome run = runNurel(words, none.options());
    EXPECT_EQ(1, run.status) << words[0];
    EXPECT_EQ(usageLine, run.err) << words[0];
  }
}

TEST(Cli, ThePointOfAClickIsStrings) {
  FakeBrowser browser;
  runNurel({"click", "t1", "100", "200"}, at(browser));
  EXPECT_EQ(R"({"id":1,"method":"click","params":{"tab":"t1","x":"100","y":"200"}})",
            browser.requests().at(0));
}

TEST(Cli, MultiWordPositionalsAreJoined) {
  FakeBrowser browser;
  runNurel({"type", "t1", "hello", "world"}, at(browser));
  runNurel({"close", "t1", "t2"}, at(browser));
  ASSERT_TRUE(browser.waitFor(2));
  EXPECT_EQ(nlohmann::json({{"tab", "t1"}, {"text", "hello world"}}),
            params(browser.requests()[0]));
  EXPECT_EQ(nlohmann::json({{"tab", "t1 t2"}}), params(browser.requests()[1]));
}

TEST(Cli, StdoutClosedByTheReaderStillSucceeds) {
  FakeBrowser browser({R"({"id":$id,"result":"t1"})"});
  RunOptions options = at(browser);
  options.closeOutput = true;
  Outcome run = runNurel({"tabs"}, options);
  EXPECT_EQ(0, run.signal);
  EXPECT_EQ(0, run.status);
}

}  // namespace
}  // namespace nurel::testing
