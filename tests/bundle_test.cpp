// tests/bundle_test.cpp: the program inside a browser bundle: finding the bundle's data name,
// starting the browser when nothing answers, and giving up after the attempts.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>

#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel::testing {
namespace {

// A bundle Nurel.app holding a copy of the program and, as its browser, a script that starts
// the fake browser on $NUREL_SOCKET (or only records that it was started).
class Bundle {
 public:
  explicit Bundle(const std::string& dataName = "", bool startsBrowser = true) {
    std::filesystem::create_directories(dir.file("Nurel.app/Contents/MacOS"));
    std::filesystem::copy_file(NUREL_BINARY, program());
    std::string plist =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
        "<key>CFBundleExecutable</key><string>FakeBrowser</string>\n";
    if (!dataName.empty()) plist += "<key>NurelDataName</key><string>" + dataName + "</string>\n";
    writeTestFile(dir.file("Nurel.app/Contents/Info.plist"), plist + "</dict></plist>\n");
    std::string script = "#!/bin/sh\necho $$ > '" + dir.file("browser.pid") + "'\n";
    if (startsBrowser)
      script += "exec '" + std::string(NUREL_FAKE_BROWSER) + "' \"$NUREL_SOCKET\" '" +
                dir.file("script") + "' '" + dir.file("record") + "'\n";
    writeTestFile(dir.file("Nurel.app/Contents/MacOS/FakeBrowser"), script, true);
    writeTestFile(dir.file("script"), "{\"id\":$id,\"result\":\"from the launched browser\"}\n");
  }
  ~Bundle() {
    if (auto pid = readFile(dir.file("browser.pid")); pid && !pid->empty())
      kill(std::stoi(*pid), SIGTERM);
  }
  std::string program() const { return dir.file("Nurel.app/Contents/MacOS/nurel"); }
  // The launched browser records requests a moment after serving them.
  std::string record() const {
    for (int i = 0; i < 500; ++i) {
      auto text = readFile(dir.file("record"));
      if (text && !text->empty() && text->back() == '\n') return *text;
      usleep(20000);
    }
    return "";
  }
  bool launched() const { return std::filesystem::exists(dir.file("browser.pid")); }

  TempDir dir;
};

TEST(Bundle, StartsTheBrowserWhenNothingAnswersThenConnects) {
  Bundle bundle;
  RunOptions options = withSocket(bundle.dir.file("agent.sock"));
  Outcome run = runProgram(bundle.program(), {"tabs", "--intent", "launch"}, options);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("from the launched browser\n", run.out);
  EXPECT_TRUE(bundle.launched());
  EXPECT_EQ("{\"id\":1,\"method\":\"tabs\",\"params\":{\"intent\":\"launch\"}}\n",
            bundle.record());
}

TEST(Bundle, ARunningBrowserIsNotStartedAgain) {
  Bundle bundle;
  FakeBrowser browser({R"({"id":$id,"result":"already up"})"});
  Outcome run = runProgram(bundle.program(), {"tabs"}, withSocket(browser.socket()));
  EXPECT_EQ("already up\n", run.out);
  EXPECT_FALSE(bundle.launched());
}

TEST(Bundle, TheDataNameChoosesTheDefaultSocket) {
  Bundle bundle("Nurel Beta");
  std::string home = bundle.dir.file("home");
  std::string folder = home + "/Library/Application Support/Nurel Beta";
  std::filesystem::create_directories(folder);
  FakeBrowser browser(At{folder + "/agent.sock"}, {R"({"id":$id,"result":"beta"})"});
  RunOptions options = withEnv("HOME", home);
  Outcome run = runProgram(bundle.program(), {"tabs"}, options);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("beta\n", run.out);
  EXPECT_FALSE(bundle.launched());
}

#ifdef __linux__
// The property-list library is loaded to read an Info.plist, and not by a program that has none
// beside it: glibc's loader names each library it loads when LD_DEBUG=files.
TEST(Bundle, ThePropertyListLibraryIsLoadedOnlyToReadTheInfoPlist) {
  Bundle bundle("Nurel Beta");
  FakeBrowser browser({R"({"id":$id,"result":"up"})", R"({"id":$id,"result":"up"})"});
  RunOptions options = withSocket(browser.socket());
  options.env["LD_DEBUG"] = "files";
  Outcome installed = runNurel({"tabs"}, options);
  EXPECT_EQ("up\n", installed.out);
  EXPECT_NE(std::string::npos, installed.err.find("libc.so")) << installed.err;
  EXPECT_EQ(std::string::npos, installed.err.find("libplist")) << installed.err;
  Outcome bundled = runProgram(bundle.program(), {"tabs"}, options);
  EXPECT_EQ("up\n", bundled.out);
  EXPECT_NE(std::string::npos, bundled.err.find("libplist")) << bundled.err;
}
#endif

TEST(Bundle, ASymbolicLinkElsewhereStillLeadsIntoTheBundle) {
  Bundle bundle("Nurel Beta");
  std::filesystem::create_directories(bundle.dir.file("bin"));
  std::filesystem::create_symlink(bundle.program(), bundle.dir.file("bin/nurel"));
  std::string home = bundle.dir.file("home");
  std::string folder = home + "/Library/Application Support/Nurel Beta";
  std::filesystem::create_directories(folder);
  FakeBrowser browser(At{folder + "/agent.sock"}, {R"({"id":$id,"result":"through the link"})"});
  Outcome run = runProgram(bundle.dir.file("bin/nurel"), {"tabs"}, withEnv("HOME", home));
  EXPECT_EQ("through the link\n", run.out) << run.err;
}

TEST(Bundle, SocketPathsAreCutAt103Bytes) {
  TempDir dir;
  std::string cut = dir.path() + "/";
  cut += std::string(103 - cut.size(), 'c');
  FakeBrowser browser(At{cut}, {R"({"id":$id,"result":"cut"})"});
  Outcome run = runNurel({"tabs"}, withSocket(cut + "ut-off-here"));
  EXPECT_EQ("cut\n", run.out) << run.err;
}

TEST(Bundle, SocketPathsAreCutInsideACharacter) {
  TempDir dir;
  std::string before = dir.path() + "/";
  before += std::string(102 - before.size(), 'c');
  // The 103rd byte is the first of the two that make "\xc3\xa9".
  FakeBrowser browser(At{before + "\xc3"}, {R"({"id":$id,"result":"cut"})"});
  Outcome run = runNurel({"tabs"}, withSocket(before + "\xc3\xa9t\xc3\xa9"));
  EXPECT_EQ("cut\n", run.out) << run.err;
}

TEST(Bundle, AnUnreadableReplyNamesTheDataName) {
  Bundle bundle("Nurel Beta");
  FakeBrowser browser({R"(!bytes "42\n")"});
  Outcome run = runProgram(bundle.program(), {"tabs"}, withSocket(browser.socket()));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(
      "couldn't read a reply from Nurel Beta: JSON text that is neither an object nor an "
      "array\n",
      run.err);
  EXPECT_FALSE(bundle.launched());
}

TEST(Bundle, AnEmptySocketPathIsTriedStartsTheBrowserAndGivesUpSlow) {
  Bundle bundle("", false);
  Outcome run = runProgram(bundle.program(), {"tabs"}, withSocket(""));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("couldn't reach Nurel: is it running?\n", run.err);
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(bundle.launched());
}

TEST(Bundle, TheFinalMessageNamesTheDataNameSlow) {
  Bundle bundle("Nurel Beta", false);
  Outcome run =
      runProgram(bundle.program(), {"snapshot", "t1"}, withSocket(bundle.dir.file("none.sock")));
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("couldn't reach Nurel Beta: is it running?\n", run.err);
}

}  // namespace
}  // namespace nurel::testing
