// tests/commands_test.cpp: every command line, run in process the way the program runs it.
// What the fake browser receives is compared exactly (keys present and absent, and the JSON
// type of every value); through the built program, every usage or value error is shown to end
// the run before any connection.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include "cli/run.h"
#include "cli/scan.h"
#include "cli/usage.h"
#include "link/json.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel::testing {
namespace {

// "method {params}": the parameters written compactly with sorted keys, so 390 and 390.0,
// "true" and true, an array and a string all read differently.
std::string request(const std::string& method, const char* params = "{}") {
  return method + " " + Json::parse(params).dump();
}

std::string joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& word : words) out += (out.empty() ? "" : " ") + word;
  return out;
}

// One fake browser serves the whole suite; each run is checked against the newest request.
class Commands : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { browser = new FakeBrowser(); }
  static void TearDownTestSuite() {
    delete browser;
    browser = nullptr;
  }

  // Runs the command `words` (the command first) in process, in `cwd`; the request the
  // browser received from it, as `request` writes one.
  static std::string sent(const std::vector<std::string>& words, const std::string& cwd = "") {
    size_t before = browser->requests().size();
    const Command* command = findCommand(words.at(0));
    if (!command) return "(no command " + words[0] + ")";
    std::filesystem::path home = std::filesystem::current_path();
    if (!cwd.empty()) std::filesystem::current_path(cwd);
    Nurel nurel(placeAt(browser->socket()));
    try {
      std::vector<std::string> arguments(words.begin() + 1, words.end());
      runCommand(nurel, *command, arguments);
    } catch (const std::exception& error) {
      ADD_FAILURE() << joined(words) << ": " << error.what();
    }
    // The program leaves its one connection to its exit; here the next command needs the
    // browser's attention.
    if (nurel.descriptor() >= 0) close(nurel.descriptor());
    std::filesystem::current_path(home);
    std::vector<std::string> requests = browser->requests();
    if (requests.size() != before + 1)
      return "(" + std::to_string(requests.size() - before) + " requests for: " + joined(words) +
             ")";
    Json line = Json::parse(requests.back());
    return line.value("method", "(no method)") + " " + line["params"].dump();
  }

  static FakeBrowser* browser;
};

FakeBrowser* Commands::browser = nullptr;

TEST_F(Commands, EveryCommandCallsItsOwnMethod) {
  // The fewest words each command takes; dialog, batch and upload need particular ones.
  std::map<std::string, std::vector<std::string>> words = {
      {"dialog", {"t1", "accept"}}, {"batch", {"t1", "[]"}}, {"upload", {"t1", "e1", "f"}}};
  TempDir dir;
  browser->setFallback(R"({"id":$id,"result":{"png":"aGk=","pdf":"aGk="}})");
  std::set<std::string> covered;
  for (const Command& command : commands()) {
    if (!command.talksToBrowser()) continue;
    std::string name(command.name);
    std::vector<std::string> line = {name};
    if (words.count(name))
      line.insert(line.end(), words[name].begin(), words[name].end());
    else
      for (size_t i = 0; i < command.fills().size(); ++i) line.push_back(i ? "w" : "t1");
    std::string got = sent(line, dir.path());
    EXPECT_EQ(name + " ", got.substr(0, name.size() + 1));
    covered.insert(name);
  }
  browser->setFallback(R"({"id":$id,"result":null})");
  EXPECT_EQ(37u, covered.size());
  EXPECT_TRUE(covered.count("hello"));
}

// What each command sends, one family at a time.

TEST_F(Commands, TabsScenariosAndHelloSendNothingButAnIntent) {
  EXPECT_EQ(request("tabs"), sent({"tabs"}));
  EXPECT_EQ(request("tabs", R"({"intent":"why"})"), sent({"tabs", "--intent", "why"}));
  EXPECT_EQ(request("scenarios"), sent({"scenarios"}));
  EXPECT_EQ(request("hello"), sent({"hello"}));
  EXPECT_EQ(request("hello", R"({"intent":"hi there"})"), sent({"hello", "--intent", "hi there"}));
}

TEST_F(Commands, OpenSendsTheURL) {
  EXPECT_EQ(request("open", R"({"url":"https://example.com/a?b=c"})"),
            sent({"open", "https://example.com/a?b=c"}));
  EXPECT_EQ(request("open", R"({"url":"file:///tmp/a b.html"})"),
            sent({"open", "file:///tmp/a", "b.html"}));
}

TEST_F(Commands, NavigateSendsTabAndURL) {
  EXPECT_EQ(request("navigate", R"({"tab":"t1","url":"https://example.com"})"),
            sent({"navigate", "t1", "https://example.com"}));
}

TEST_F(Commands, TabOnlyCommandsSendTheTab) {
  for (const char* command : {"back", "forward", "describe", "signin", "close"})
    EXPECT_EQ(request(command, R"({"tab":"t1"})"), sent({command, "t1"}));
  EXPECT_EQ(request("close", R"({"tab":"t1 t2"})"), sent({"close", "t1", "t2"}));
}

TEST_F(Commands, ReloadSendsHardAsABoolean) {
  EXPECT_EQ(request("reload", R"({"tab":"t1","hard":true})"), sent({"reload", "t1", "--hard"}));
  EXPECT_EQ(request("reload", R"({"tab":"t1"})"), sent({"reload", "t1"}));
}

TEST_F(Commands, SnapshotSendsItsSwitchesAsBooleans) {
  EXPECT_EQ(request("snapshot", R"({"tab":"t1","interactive":true,"viewport":true,"diff":true})"),
            sent({"snapshot", "--interactive", "t1", "--viewport", "--diff"}));
}

TEST_F(Commands, SnapshotToAFileAsksForTheWholeText) {
  TempDir dir;
  EXPECT_EQ(request("snapshot", R"({"tab":"t1","limit":0})"),
            sent({"snapshot", "t1", "--file", "page.txt"}, dir.path()));
  EXPECT_TRUE(readFile(dir.file("page.txt")));
}

TEST_F(Commands, ClickSendsARefOrAPointAsStrings) {
  EXPECT_EQ(request("click", R"({"tab":"t1","ref":"e5","double":true,"button":"right"})"),
            sent({"click", "t1", "e5", "--double", "--right"}));
  EXPECT_EQ(request("click", R"({"tab":"t1","x":"100","y":"200"})"),
            sent({"click", "t1", "100", "200"}));
}

TEST_F(Commands, ClickRightSendsTheButtonAndNoRight) {
  EXPECT_EQ(request("click", R"({"tab":"t1","ref":"e5","button":"right"})"),
            sent({"click", "t1", "e5", "--right"}));
}

TEST_F(Commands, HoverSendsARefOrAPoint) {
  EXPECT_EQ(request("hover", R"({"tab":"t1","ref":"e5"})"), sent({"hover", "t1", "e5"}));
  EXPECT_EQ(request("hover", R"({"tab":"t1","x":"10.5","y":"-3"})"),
            sent({"hover", "t1", "10.5", "-3"}));
}

TEST_F(Commands, DragSendsRefsOrPointsAsDoubles) {
  EXPECT_EQ(request("drag", R"({"tab":"t1","ref":"e3","to_ref":"e4"})"),
            sent({"drag", "t1", "e3", "e4"}));
  EXPECT_EQ(request("drag", R"({"tab":"t1","from_x":10.0,"from_y":20.0,"to_x":30.5,"to_y":-4.0})"),
            sent({"drag", "t1", "10,20", "30.5,-4"}));
}

TEST_F(Commands, DragFromARefToAPointWithSpaces) {
  EXPECT_EQ(request("drag", R"({"tab":"t1","ref":"e3","to_x":300.0,"to_y":40.0})"),
            sent({"drag", "t1", "e3", "300, 40"}));
}

TEST_F(Commands, DragPointsSkipWordsAndTrimSpacesAndTabs) {
  EXPECT_EQ(request("drag", R"({"tab":"t1","from_x":10.0,"from_y":20.0,"to_ref":"1,2,3"})"),
            sent({"drag", "t1", "10,abc,20", "1,2,3"}));
  EXPECT_EQ(request("drag", R"({"tab":"t1","from_x":1.5,"from_y":2.0,"to_x":3.0,"to_y":4.0})"),
            sent({"drag", "t1", " 1.5 ,\t2\t", "\t+3 , 4e0 "}));
}

TEST_F(Commands, DragNeverReadsInfinityNanOrHexadecimal) {
  EXPECT_EQ(request("drag", R"({"tab":"t1","ref":"inf,1","to_ref":"0x10,nan"})"),
            sent({"drag", "t1", "inf,1", "0x10,nan"}));
}

TEST_F(Commands, FindTakesItsTextFromWordsOrTheOption) {
  EXPECT_EQ(request("find", R"({"tab":"t1","text":"Sign in"})"),
            sent({"find", "t1", "Sign", "in"}));
  EXPECT_EQ(request("find", R"({"tab":"t1","text":"x"})"), sent({"find", "t1", "--text", "x"}));
}

TEST_F(Commands, InspectSendsStylesAsTyped) {
  EXPECT_EQ(request("inspect", R"({"tab":"t1","ref":"e5","styles":"color,font-size"})"),
            sent({"inspect", "t1", "e5", "--styles", "color,font-size"}));
}

TEST_F(Commands, TypeSendsTextRefAndReplace) {
  EXPECT_EQ(request("type", R"({"tab":"t1","text":"hello world","ref":"e3","replace":true})"),
            sent({"type", "t1", "--ref", "e3", "hello", "--replace", "world"}));
}

TEST_F(Commands, ChooseSendsTheOption) {
  EXPECT_EQ(request("choose", R"({"tab":"t1","ref":"e4","option":"Extra large"})"),
            sent({"choose", "t1", "e4", "Extra", "large"}));
}

TEST_F(Commands, KeySendsTheKey) {
  EXPECT_EQ(request("key", R"({"tab":"t1","key":"shift+tab"})"), sent({"key", "t1", "shift+tab"}));
}

TEST_F(Commands, ScrollSendsDistancesAsStrings) {
  EXPECT_EQ(request("scroll", R"({"tab":"t1"})"), sent({"scroll", "t1"}));
  EXPECT_EQ(request("scroll", R"({"tab":"t1","dy":"300"})"), sent({"scroll", "t1", "300"}));
  EXPECT_EQ(request("scroll", R"({"tab":"t1","dy":"-200","dx":"50","ref":"e9"})"),
            sent({"scroll", "t1", "-200", "50", "--ref", "e9"}));
}

TEST_F(Commands, ScrollIgnoresExtraWords) {
  EXPECT_EQ(request("scroll", R"({"tab":"t1","dy":"1","dx":"2"})"),
            sent({"scroll", "t1", "1", "2", "3", "four"}));
}

TEST_F(Commands, TextSendsAll) {
  EXPECT_EQ(request("text", R"({"tab":"t1","all":true})"), sent({"text", "t1", "--all"}));
}

TEST_F(Commands, TextToAFileSendsLimitZeroNotTheGivenLimit) {
  TempDir dir;
  EXPECT_EQ(request("text", R"({"tab":"t1","limit":0})"),
            sent({"text", "t1", "--file", "out.txt", "--limit", "50"}, dir.path()));
  EXPECT_TRUE(readFile(dir.file("out.txt")));
}

TEST_F(Commands, WaitSendsItsOptionsAsStrings) {
  EXPECT_EQ(request("wait", R"({"tab":"t1","text":"Done","gone":"Loading","url":"/done",
                               "idle":true,"seconds":"2","timeout":"120"})"),
            sent({"wait", "t1", "--text", "Done", "--gone", "Loading", "--url", "/done", "--idle",
                  "--seconds", "2", "--timeout", "120"}));
}

TEST_F(Commands, ScreenshotSendsFileLabelsRefAndFull) {
  TempDir dir;
  browser->add(R"({"id":$id,"result":{"png":"aGk="}})");
  EXPECT_EQ(
      request("screenshot", R"({"tab":"t1","file":"s.png","labels":false,"ref":"e2","full":true})"),
      sent({"screenshot", "t1", "--file", "s.png", "--plain", "--ref", "e2", "--full"},
           dir.path()));
  EXPECT_EQ("hi", readFile(dir.file("s.png")));
}

TEST_F(Commands, PdfSendsOnlyTheTab) {
  TempDir dir;
  browser->add(R"({"id":$id,"result":{"pdf":"aGk="}})");
  EXPECT_EQ(request("pdf", R"({"tab":"t1"})"),
            sent({"pdf", "t1", "--file", "p.pdf", "--intent", "why", "--full"}, dir.path()));
  EXPECT_EQ("hi", readFile(dir.file("p.pdf")));
}

TEST_F(Commands, ConsoleSendsLevelClearAndLimitAsAnInteger) {
  EXPECT_EQ(request("console", R"({"tab":"t1","level":"error","clear":true,"limit":20})"),
            sent({"console", "t1", "--errors", "--clear", "--limit", "20"}));
  EXPECT_EQ(request("console", R"({"tab":"t1","level":"warn"})"),
            sent({"console", "t1", "--warnings"}));
}

TEST_F(Commands, ConsoleWithBothLevelsSendsWarn) {
  EXPECT_EQ(request("console", R"({"tab":"t1","level":"warn"})"),
            sent({"console", "t1", "--errors", "--warnings"}));
  EXPECT_EQ(request("console", R"({"tab":"t1","level":"warn"})"),
            sent({"console", "t1", "--warnings", "--errors"}));
}

TEST_F(Commands, EvalJoinsTheScript) {
  EXPECT_EQ(request("eval", R"({"tab":"t1","script":"return document.title"})"),
            sent({"eval", "t1", "return", "document.title"}));
}

TEST_F(Commands, EmulateSendsSchemeMediaAndSizeAsDoubles) {
  EXPECT_EQ(request("emulate", R"({"tab":"t1","color_scheme":"dark","media":"print",
                                  "width":1280.0,"height":720.5})"),
            sent({"emulate", "t1", "--dark", "--print", "--size", "1280x720.5"}));
}

TEST_F(Commands, EmulateLaterChoicesInTheListWin) {
  EXPECT_EQ(
      request("emulate", R"({"tab":"t1","color_scheme":"system","media":"screen",
                                  "width":390.0,"height":844.0})"),
      sent({"emulate", "t1", "--dark", "--system", "--print", "--screen", "--size", "390X844"}));
}

TEST_F(Commands, DialogAcceptsWithText) {
  EXPECT_EQ(request("dialog", R"({"tab":"t1","accept":true,"text":"my answer"})"),
            sent({"dialog", "t1", "accept", "my", "answer"}));
  EXPECT_EQ(request("dialog", R"({"tab":"t1","accept":true})"), sent({"dialog", "t1", "accept"}));
}

TEST_F(Commands, DialogDismisses) {
  EXPECT_EQ(request("dialog", R"({"tab":"t1","accept":false})"), sent({"dialog", "t1", "dismiss"}));
  EXPECT_EQ(request("dialog", R"({"tab":"t1","accept":false,"text":"no thanks"})"),
            sent({"dialog", "t1", "dismiss", "no", "thanks"}));
}

TEST_F(Commands, BatchSendsAnArrayOfObjects) {
  EXPECT_EQ(request("batch", R"({"tab":"t1","actions":[{"do":"type","ref":"e3","text":"hi"},
                                                       {"do":"press_key","key":"enter"}]})"),
            sent({"batch", "t1",
                  R"([{"do":"type","ref":"e3","text":"hi"},{"do":"press_key","key":"enter"}])"}));
}

TEST_F(Commands, UploadSendsTheFilesAsAnArray) {
  EXPECT_EQ(request("upload", R"({"tab":"t1","ref":"e2","files":["a.png","b.png"]})"),
            sent({"upload", "t1", "e2", "a.png", "b.png"}));
  EXPECT_EQ(request("upload", R"({"tab":"t1","ref":"e2","files":["one file.txt"]})"),
            sent({"upload", "t1", "e2", "one file.txt"}));
}

TEST_F(Commands, NetworkSendsFilterSwitchesAndRequestAsAnInteger) {
  EXPECT_EQ(
      request("network", R"({"tab":"t1","filter":"api","failed":true,"clear":true,"request":12})"),
      sent({"network", "t1", "--filter", "api", "--failed", "--clear", "--request", "12"}));
}

TEST_F(Commands, RequestReadsPastHashesLimitKeepsSignsAndNonNumbersAreDropped) {
  for (const auto& [words, params] : std::vector<std::pair<std::vector<std::string>, const char*>>{
           {{"network", "t1", "--request", "#7"}, R"({"tab":"t1","request":7})"},
           {{"network", "t1", "--request", "##12##"}, R"({"tab":"t1","request":12})"},
           {{"network", "t1", "--request", "seven"}, R"({"tab":"t1"})"},
           {{"network", "t1", "--request", "99999999999999999999"}, R"({"tab":"t1"})"},
           {{"console", "t1", "--limit", "12abc"}, R"({"tab":"t1"})"},
           {{"console", "t1", "--limit", "-3"}, R"({"tab":"t1","limit":-3})"},
           {{"console", "t1", "--limit", "+4"}, R"({"tab":"t1","limit":4})"}})
    EXPECT_EQ(request(words[0], params), sent(words));
}

TEST_F(Commands, DownloadsSendsWait) {
  EXPECT_EQ(request("downloads", R"({"tab":"t1","wait":true})"),
            sent({"downloads", "t1", "--wait"}));
}

TEST_F(Commands, StorageSendsClear) {
  EXPECT_EQ(request("storage", R"({"tab":"t1","clear":true})"), sent({"storage", "t1", "--clear"}));
}

TEST_F(Commands, AskSendsTheMessageAndTimeoutAsAString) {
  EXPECT_EQ(request("ask", R"({"tab":"t1","message":"please sign in","timeout":"5"})"),
            sent({"ask", "t1", "please", "sign", "in", "--timeout", "5"}));
}

TEST_F(Commands, RunSendsTheScenarioAndValuesAsAnObject) {
  EXPECT_EQ(request("run", R"({"tab":"t1","scenario":"log in","values":{"email":"a@b.c"}})"),
            sent({"run", "t1", "log", "in", "--values", R"({"email":"a@b.c"})"}));
}

TEST_F(Commands, MediaWithOneTwoThreeAndFiveWords) {
  EXPECT_EQ(request("media", R"({"tab":"t1"})"), sent({"media", "t1"}));
  EXPECT_EQ(request("media", R"({"tab":"t1","action":"play"})"), sent({"media", "t1", "play"}));
  EXPECT_EQ(request("media", R"({"tab":"t1","action":"seek","value":"30"})"),
            sent({"media", "t1", "seek", "30"}));
  EXPECT_EQ(request("media", R"({"tab":"t1","action":"volume","value":"0.5"})"),
            sent({"media", "t1", "volume", "0.5", "and", "more"}));
}

TEST_F(Commands, PlainSendsLabelsFalseForAnyCommand) {
  EXPECT_EQ(request("snapshot", R"({"tab":"t1","labels":false})"),
            sent({"snapshot", "t1", "--plain"}));
}

TEST_F(Commands, UnknownSwitchesAreSentAsBooleans) {
  EXPECT_EQ(request("snapshot", R"({"tab":"t1","interactve":true})"),
            sent({"snapshot", "t1", "--interactve"}));
}

TEST_F(Commands, AnyCommandButPdfCarriesTheIntent) {
  EXPECT_EQ(request("click", R"({"tab":"t1","ref":"e5","intent":"open the menu"})"),
            sent({"click", "t1", "e5", "--intent", "open the menu"}));
  EXPECT_EQ(request("media", R"({"tab":"t1","action":"pause","intent":"quiet"})"),
            sent({"media", "t1", "pause", "--intent", "quiet"}));
}

// A copy of nurel inside a bundle whose browser, if it were ever started, leaves a mark and
// then serves as the fake browser. NUREL_SOCKET points where nothing listens, so a run that
// reached for the browser would start it and be seen.
class BeforeConnecting : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = new TempDir();
    std::string macos = dir->file("N.app/Contents/MacOS");
    std::filesystem::create_directories(macos);
    std::filesystem::copy_file(NUREL_BINARY, macos + "/nurel");
    writeTestFile(dir->file("N.app/Contents/Info.plist"), R"(<?xml version="1.0"?>
<plist version="1.0"><dict><key>CFBundleExecutable</key><string>browser</string></dict></plist>
)");
    writeTestFile(dir->file("script"), "{\"id\":$id,\"result\":\"up\"}\n");
    writeTestFile(macos + "/browser",
                  "#!/bin/sh\necho $$ > '" + dir->file("pid") + "'\n: > '" + mark() + "'\nexec '" +
                      NUREL_FAKE_BROWSER + "' '" + socket() + "' '" + dir->file("script") + "'\n",
                  true);
  }
  static void TearDownTestSuite() {
    stopBrowser();
    delete dir;
    dir = nullptr;
  }

  // The browser outlives the run that started it; end it by its own id, and clear its mark.
  static void stopBrowser() {
    if (std::optional<std::string> pid = readFile(dir->file("pid")))
      if (int id = std::atoi(pid->c_str()); id > 0) kill(id, SIGTERM);
    std::filesystem::remove(dir->file("pid"));
    std::filesystem::remove(mark());
  }

  static std::string mark() { return dir->file("started"); }
  static std::string socket() { return dir->file("agent.sock"); }

  static Outcome run(const std::vector<std::string>& words) {
    RunOptions options;
    options.env["NUREL_SOCKET"] = socket();
    // Well under the 20 s a run spends waiting for a browser that does not come.
    options.timeoutSeconds = 10;
    return runProgram(dir->file("N.app/Contents/MacOS/nurel"), words, options);
  }

  // Checks that `words` fail at once with `message`, without starting the browser.
  static void expectRefused(const std::vector<std::string>& words, const std::string& message) {
    Outcome outcome = run(words);
    EXPECT_EQ(1, outcome.status) << joined(words);
    EXPECT_EQ(message + "\n", outcome.err) << joined(words);
    EXPECT_EQ("", outcome.out) << joined(words);
    EXPECT_FALSE(std::filesystem::exists(mark())) << joined(words);
  }

  static TempDir* dir;
};

TempDir* BeforeConnecting::dir = nullptr;

TEST_F(BeforeConnecting, UsageErrorsEndTheRunWithTheUsage) {
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"wait", "t1", "--timeout"},
           {"tabs", "--intent"},
           {"type", "t1", "--text", "x"},
           {"navigate", "t1"},
           {"open"},
           {"click", "t1"},
           {"dialog", "t1", "ok"},
           {"dialog", "t1", "Accept", "it"},
           {"upload", "t1", "e2"},
           {"inspect", "t1"},
           {"inspect", "t1", "--ref", "e5"},
       })
    expectRefused(words, usage());
}

TEST_F(BeforeConnecting, BatchErrorsEndTheRunWithTheirMessage) {
  for (const char* actions :
       {R"({"do":"type"})", R"([{"do":"type"},"press"])", "[1]", "[", "do type"})
    expectRefused({"batch", "t1", actions}, "batch takes a JSON array of actions");
}

TEST_F(BeforeConnecting, SizeErrorsEndTheRunWithTheirMessage) {
  for (const char* size : {"390 x 844", "x390", "390x", "1x2x3", "infxnan", "0x1p3"})
    expectRefused({"emulate", "t1", "--size", size}, "--size takes <width>x<height>, as 390x844");
}

TEST_F(BeforeConnecting, ValuesErrorsEndTheRunWithTheirMessage) {
  expectRefused({"run", "t1", "s", "--values", "[1]"}, "values takes a JSON object");
  expectRefused({"run", "t1", "s", "--values", "email=a"}, "values takes a JSON object");
  expectRefused({"tabs", "--values", "\"x\""}, "values takes a JSON object");
}

TEST_F(BeforeConnecting, AValidCommandWouldStartTheBrowser) {
  // The other tests of this suite mean something only if a run that connects is seen.
  ASSERT_FALSE(std::filesystem::exists(mark()));
  Outcome outcome = run({"tabs"});
  EXPECT_EQ(0, outcome.status) << outcome.err;
  EXPECT_EQ("up\n", outcome.out);
  EXPECT_TRUE(std::filesystem::exists(mark()));
  stopBrowser();
}

}  // namespace
}  // namespace nurel::testing
