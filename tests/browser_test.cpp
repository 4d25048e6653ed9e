// tests/browser_test.cpp: nurel and nurel mcp against the real back end and real Chromium, on
// pages served on 127.0.0.1: starting it, loading pages, reading them, and how it holds up.
// The tests share one back end (started through the bundle, as a person's first command
// starts it), each in tabs of its own; the ones that stop, kill or starve a back end run one of
// their own.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <vector>

#include "browser/chromium.h"
#include "link/json.h"
#include "tests/browser_fixture.h"
#include "tests/session.h"

namespace nurel::testing {
namespace {

using namespace std::chrono_literals;

TEST(Browser, StartsThroughTheBundleWhenNothingAnswers) {
  BackEnd place;
  ASSERT_EQ(backEnd(place.socket()), -1);
  Outcome opened = place.nurel({"open", url("/")});
  EXPECT_EQ(opened.status, 0) << opened.err;
  EXPECT_EQ(opened.out, "t1 " + url("/") + " \"Home\"\n");
  EXPECT_GT(backEnd(place.socket()), 0);
  // The socket is the user's alone.
  struct stat socketInfo, folderInfo;
  ASSERT_EQ(stat(place.socket().c_str(), &socketInfo), 0);
  ASSERT_EQ(stat(place.file("run").c_str(), &folderInfo), 0);
  EXPECT_EQ(socketInfo.st_mode & 0777, 0600u);
  EXPECT_EQ(folderInfo.st_mode & 0777, 0700u);
}

TEST(Browser, OpensNavigatesGoesBackAndForwardReloadsAndCloses) {
  std::string tab = shared().open(url("/"));
  ASSERT_EQ(tab.front(), 't');
  EXPECT_EQ(shared().nurel({"navigate", tab, url("/second")}).out,
            tab + " " + url("/second") + " \"Second\"\n");
  EXPECT_EQ(shared().nurel({"back", tab}).out, tab + " " + url("/") + " \"Home\"\n");
  EXPECT_EQ(shared().nurel({"forward", tab}).out, tab + " " + url("/second") + " \"Second\"\n");
  EXPECT_EQ(shared().nurel({"reload", tab, "--hard"}).out, tab + " " + url("/second") + " \"Second\"\n");
  EXPECT_NE(shared().nurel({"tabs"}).out.find(tab + " " + url("/second") + " \"Second\"\n"),
            std::string::npos);
  EXPECT_EQ(shared().nurel({"close", tab}).out, "closed " + tab + "\n");
  Outcome again = shared().nurel({"text", tab});
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.err, "no tab " + tab + "\n");
  EXPECT_EQ(shared().nurel({"tabs"}).out.find(tab + " "), std::string::npos);
}

TEST(Browser, NoHistoryToGoThrough) {
  std::string tab = shared().open(url("/"));
  Outcome back = shared().nurel({"back", tab});
  EXPECT_EQ(back.status, 1);
  EXPECT_EQ(back.err, tab + " has no earlier page\n");
  Outcome forward = shared().nurel({"forward", tab});
  EXPECT_EQ(forward.err, tab + " has no later page\n");
}

TEST(Browser, AnAddressThatRefusesFailsAndLeavesNoTab) {
  std::string address = "http://127.0.0.1:" + std::to_string(closedPort()) + "/";
  std::string before = shared().nurel({"tabs"}).out;
  Outcome opened = shared().nurel({"open", address});
  EXPECT_EQ(opened.status, 1);
  EXPECT_EQ(opened.out, "");
  EXPECT_EQ(opened.err, "couldn't load " + address + ": net::ERR_CONNECTION_REFUSED\n");
  EXPECT_EQ(shared().nurel({"tabs"}).out, before);
}

TEST(Browser, AnHTTPErrorIsNamed) {
  Outcome opened = shared().nurel({"open", url("/missing")});
  EXPECT_EQ(opened.status, 0);
  EXPECT_NE(opened.out.find(url("/missing") + " \"Not here\" (HTTP 404)\n"), std::string::npos);
}

TEST(Browser, APageThatNeverLoadsLeavesAUsableTab) {
  Outcome opened = shared().nurel({"open", url("/never")});
  EXPECT_EQ(opened.status, 0) << opened.err;
  EXPECT_NE(opened.out.find("(still loading " + url("/never") + " after 5 s)"), std::string::npos)
      << opened.out;
  std::string tab = opened.out.substr(0, opened.out.find(' '));
  EXPECT_EQ(shared().nurel({"navigate", tab, url("/second")}).status, 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return document.title"}).out, "Second\n");
}

TEST(Browser, TextIsTheArticleCutAtTwentyThousandCharacters) {
  std::string tab = shared().open(url("/article"));
  Outcome article = shared().nurel({"text", tab});
  EXPECT_EQ(article.status, 0);
  EXPECT_EQ(article.out.rfind("# News\n\n", 0), 0u) << article.out;
  EXPECT_NE(article.out.find("# The headline"), std::string::npos);
  EXPECT_NE(article.out.find("- First point\n- Second point"), std::string::npos) << article.out;
  EXPECT_EQ(article.out.find("Copyright footer"), std::string::npos);
  Outcome all = shared().nurel({"text", tab, "--all"});
  EXPECT_NE(all.out.find("Copyright footer"), std::string::npos);
  EXPECT_NE(all.out.find("Menu item"), std::string::npos);

  std::string longTab = shared().open(url("/long"));
  Outcome cut = shared().nurel({"text", longTab});
  // The last line says where it was cut and how much there was.
  const std::string before = "\n\n[cut at 20000 of ", after = " characters: save it to a file for the whole text]\n";
  size_t note = cut.out.rfind(before);
  ASSERT_NE(note, std::string::npos) << cut.out.substr(cut.out.size() - 200);
  ASSERT_EQ(cut.out.substr(cut.out.size() - after.size()), after);
  size_t total = std::stoul(cut.out.substr(note + before.size()));
  EXPECT_GT(total, 20000u);
  EXPECT_EQ(note, 20000u);  // ASCII: a byte a character
  Outcome saved = shared().nurel({"text", longTab, "--file", shared().file("long.txt")});
  EXPECT_EQ(saved.status, 0) << saved.err;
  std::string whole = fileText(shared().file("long.txt"));
  EXPECT_EQ(whole.size(), total + 1);  // and the line feed that saving adds
  EXPECT_EQ(whole.find("[cut at"), std::string::npos);
}

TEST(Browser, EvalRunsAFunctionBodyAndSurvivesThrowsAndHangs) {
  std::string tab = shared().open(url("/"));
  EXPECT_EQ(shared().nurel({"eval", tab, "const a = await Promise.resolve(20); return {sum: a + 1, t: document.title}"}).out,
            "{\n  \"sum\": 21,\n  \"t\": \"Home\"\n}\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "document.title = 'x'"}).out, "null\n");
  Outcome thrown = shared().nurel({"eval", tab, "throw new Error('boom')"});
  EXPECT_EQ(thrown.status, 1);
  EXPECT_EQ(thrown.err, "the script threw Error: boom\n");
  Outcome waiting = shared().nurel({"eval", tab, "await new Promise(() => {})"});
  EXPECT_EQ(waiting.err, "the script didn't finish in 5 s, and was stopped\n");
  Outcome looping = shared().nurel({"eval", tab, "while (true) {}"});
  EXPECT_EQ(looping.err, "the script didn't finish in 5 s, and was stopped\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return 6 * 7"}).out, "42\n");
}

TEST(Browser, WaitsForEachConditionAndSaysWhatDidNotHappen) {
  std::string tab = shared().open(url("/later"));
  Outcome shown = shared().nurel({"wait", tab, "--text", "Ready now"});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_EQ(shown.out.rfind("the text \"Ready now\" showed (after ", 0), 0u) << shown.out;
  EXPECT_EQ(shared().nurel({"wait", tab, "--gone", "Loading"}).out.rfind("the text \"Loading\" went away", 0), 0u);
  EXPECT_EQ(shared().nurel({"wait", tab, "--url", "step=2"}).out.rfind("the address is " + url("/later?step=2"), 0), 0u);
  Outcome missing = shared().nurel({"wait", tab, "--text", "Never there", "--timeout", "1"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "waited 1.0 s and the text \"Never there\" didn't show\n");
  Outcome address = shared().nurel({"wait", tab, "--url", "elsewhere", "--timeout", "0.5"});
  EXPECT_EQ(address.err, "waited 0.5 s and the address didn't contain \"elsewhere\" (it's " +
                             url("/later?step=2") + ")\n");
  EXPECT_EQ(shared().nurel({"wait", tab, "--seconds", "1"}).out, "waited 1.0 s\n");
  Outcome number = shared().nurel({"wait", tab, "--seconds", "soon"});
  EXPECT_EQ(number.err, "seconds takes a number\n");

  std::string busy = shared().open(url("/busy"));
  Outcome loud = shared().nurel({"wait", busy, "--idle", "--timeout", "0.3"});
  EXPECT_EQ(loud.status, 1);
  EXPECT_EQ(loud.err.rfind("waited 0.3 s and the network didn't go quiet", 0), 0u) << loud.err;
  Outcome quiet = shared().nurel({"wait", busy, "--idle"});
  EXPECT_EQ(quiet.status, 0) << quiet.err << quiet.out;
  EXPECT_EQ(quiet.out.rfind("the network is quiet (after ", 0), 0u);
}

TEST(Browser, ScreenshotsOfTheScreenAndOfTheWholePage) {
  std::string tab = shared().open(url("/tall"));
  ASSERT_EQ(shared().nurel({"screenshot", tab, "--plain", "--file", shared().file("screen.png")}).status, 0);
  auto [width, height] = pngSize(fileText(shared().file("screen.png")));
  EXPECT_EQ(width, 1280u);
  EXPECT_GT(height, 400u);
  EXPECT_LT(height, 3000u);
  Outcome full = shared().nurel({"screenshot", tab, "--full", "--file", shared().file("full.png")});
  EXPECT_EQ(full.out, "saved to " + shared().file("full.png") + "\n");
  auto [fullWidth, fullHeight] = pngSize(fileText(shared().file("full.png")));
  EXPECT_EQ(fullWidth, 1280u);
  EXPECT_EQ(fullHeight, 3000u);
  Outcome pdf = shared().nurel({"pdf", tab, "--file", shared().file("page.pdf")});
  EXPECT_EQ(pdf.status, 0) << pdf.err;
  EXPECT_EQ(fileText(shared().file("page.pdf")).rfind("%PDF-", 0), 0u);
}

TEST(Browser, DescribesThePageInBrief) {
  std::string tab = shared().open(url("/outline"));
  // Chromium moves the focus to an autofocus field when it next draws the page, which may come
  // after the load on a busy machine, or in a tab behind others in a shared remote browser.
  EXPECT_TRUE(eventually([&] {
    return shared().nurel({"eval", tab, "return document.activeElement.name"}).out == "q\n";
  }));
  Outcome described = shared().nurel({"describe", tab});
  std::string expected = "title: \"Outline\"\naddress: " + url("/outline") +
                         "\nlanguage: en\n2 links, 1 buttons, 1 fields\n"
                         "regions: banner, navigation \"Main\", main, form \"Search\", contentinfo\n"
                         "headings:\n  h1 Heading one\n    h2 Heading two\nfocus: input[type=text]\n"
                         "scrolled 0 of 0 px (the screen shows ";
  EXPECT_EQ(described.out.substr(0, expected.size()), expected) << described.out;
}

TEST(Browser, ALongWaitOnOneConnectionHoldsUpNoOther) {
  std::string tab = shared().open(url("/"));
  std::vector<std::string> words = {NUREL_BUNDLED, "wait", tab, "--seconds", "4"};
  pid_t waiter = fork();
  if (waiter == 0) {
    setenv("NUREL_SOCKET", shared().socket().c_str(), 1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execl(NUREL_BUNDLED, NUREL_BUNDLED, "wait", tab.c_str(), "--seconds", "4", nullptr);
    _exit(127);
  }
  std::this_thread::sleep_for(300ms);
  Outcome listed = shared().nurel({"tabs"});
  EXPECT_EQ(listed.status, 0);
  Outcome evaluated = shared().nurel({"eval", tab, "return 1"});
  EXPECT_EQ(evaluated.out, "1\n");
  // Both answered while the wait still runs.
  EXPECT_EQ(waitpid(waiter, nullptr, WNOHANG), 0);
  int status = 0;
  waitpid(waiter, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Browser, BadLinesGetAnAnswerWhenTheyHaveAnIdAndNothingElse) {
  shared().nurel({"tabs"});
  int fd = connectTo(shared().socket());
  ASSERT_GE(fd, 0);
  std::string lines =
      "not json\n[1,2]\n\n{\"id\":5}\n{\"id\":\"six\",\"method\":\"fly\"}\n"
      "{\"id\":7,\"method\":\"downloads\",\"params\":{\"tab\":\"t999999\"}}\n"
      "{\"id\":8,\"method\":\"open\",\"params\":{\"url\":\"file:///etc/passwd\"}}\n"
      "{\"id\":9,\"method\":\"hello\",\"params\":[]}\n";
  ASSERT_EQ(write(fd, lines.data(), lines.size()), ssize_t(lines.size()));
  shutdown(fd, SHUT_WR);
  std::string replies = readWhole(fd);
  close(fd);
  EXPECT_EQ(replies,
            "{\"error\":\"the request has no method\",\"id\":5}\n"
            "{\"error\":\"unknown method fly\",\"id\":\"six\"}\n"
            "{\"error\":\"no tab t999999\",\"id\":7}\n"
            "{\"error\":\"won't open file:///etc/passwd: " +
                std::string(overWebSocket() ? "the browser runs on another machine (NUREL_CDP_URL), "
                                              "whose files nurel can't check against "
                                              "NUREL_ALLOW_FILES"
                                            : "it isn't under a folder of NUREL_ALLOW_FILES") +
                "\",\"id\":8}\n"
            "{\"id\":9,\"result\":{\"name\":\"nurel-browser\",\"version\":\"1\"}}\n");
}

TEST(Browser, ALineOverSixtyFourMiBClosesOnlyItsConnection) {
  shared().nurel({"tabs"});
  int fd = connectTo(shared().socket());
  ASSERT_GE(fd, 0);
  std::string block(1 << 20, 'x');
  bool closed = false;
  for (int i = 0; i < 80 && !closed; ++i)
    closed = send(fd, block.data(), block.size(), MSG_NOSIGNAL) < 0;
  if (!closed) {
    shutdown(fd, SHUT_WR);
    EXPECT_EQ(readWhole(fd), "");
  }
  close(fd);
  EXPECT_EQ(shared().nurel({"hello"}).status, 0);
}

TEST(Browser, ConnectionsFromAnotherUserAreClosed) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
  shared().nurel({"tabs"});
  // Let the other user reach the socket, so that only the back end's own check stands.
  std::string folder = shared().socket().substr(0, shared().socket().rfind('/'));
  std::string root = folder.substr(0, folder.rfind('/'));
  chmod(root.c_str(), 0755);
  chmod(folder.c_str(), 0777);
  chmod(shared().socket().c_str(), 0777);
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  pid_t child = fork();
  if (child == 0) {
    close(pipeFds[0]);
    if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
    int fd = connectTo(shared().socket());
    if (fd < 0) _exit(3);
    std::string line = "{\"id\":1,\"method\":\"tabs\"}\n";
    [[maybe_unused]] ssize_t wrote = write(fd, line.data(), line.size());
    shutdown(fd, SHUT_WR);
    std::string reply = readWhole(fd);
    [[maybe_unused]] ssize_t told = write(pipeFds[1], reply.data(), reply.size());
    _exit(0);
  }
  close(pipeFds[1]);
  std::string reply = readWhole(pipeFds[0]);
  close(pipeFds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  chmod(root.c_str(), 0700);
  chmod(folder.c_str(), 0700);
  chmod(shared().socket().c_str(), 0600);
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(reply, "");
  EXPECT_EQ(shared().nurel({"hello"}).status, 0);
}

TEST(Browser, LocalFilesOnlyFromAllowedFolders) {
  writeTestFile(shared().file("allowed/page.html"), "<title>Local</title><p>From a file</p>");
  std::string address = "file://" + shared().file("allowed/page.html");
  if (overWebSocket()) {
    // The files of a remote browser are another machine's: none are opened.
    EXPECT_EQ(shared().nurel({"open", address}).err,
              "won't open " + address +
                  ": the browser runs on another machine (NUREL_CDP_URL), whose files nurel "
                  "can't check against NUREL_ALLOW_FILES\n");
    return;
  }
  Outcome opened = shared().nurel({"open", address});
  EXPECT_EQ(opened.status, 0) << opened.err;
  EXPECT_NE(opened.out.find(" \"Local\"\n"), std::string::npos);
  writeTestFile(shared().file("secret.html"), "<p>secret</p>");
  Outcome outside = shared().nurel({"open", "file://" + shared().file("allowed/../secret.html")});
  EXPECT_EQ(outside.err, "won't open file://" + shared().file("allowed/../secret.html") +
                             ": it isn't under a folder of NUREL_ALLOW_FILES\n");

  BackEnd closed(Env{{"NUREL_ALLOW_FILES", std::nullopt}});
  Outcome refused = closed.nurel({"open", address});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "won't open " + address +
                             ": local files are off until you allow a folder with "
                             "NUREL_ALLOW_FILES (folders separated by colons) in the environment "
                             "nurel starts from\n");
}

TEST(Browser, TheMCPServerDrivesTheRealBrowser) {
  shared().nurel({"tabs"});
  Session mcp(shared().socket());
  mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"open_tab","arguments":{"url":")" +
           url("/article") + R"("}}})");
  auto opened = mcp.next();
  ASSERT_TRUE(opened);
  Json answer = parseDocument(*opened);
  std::string line = answer["result"]["content"][0]["text"];
  EXPECT_EQ(line.substr(line.find(' ')), " " + url("/article") + " \"News\"");
  std::string tab = line.substr(0, line.find(' '));
  mcp.send(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"get_text","arguments":{"tab":")" + tab + R"("}}})");
  auto text = mcp.next();
  ASSERT_TRUE(text);
  EXPECT_NE(parseDocument(*text)["result"]["content"][0]["text"].get<std::string>().find("# The headline"), std::string::npos);
  mcp.send(R"({"jsonrpc":"2.0","id":3,"method":"tools/call","params":{"name":"screenshot","arguments":{"tab":")" + tab + R"("}}})");
  auto shot = mcp.next();
  ASSERT_TRUE(shot);
  Json image = parseDocument(*shot)["result"]["content"][0];
  EXPECT_EQ(image["type"], "image");
  EXPECT_EQ(image["mimeType"], "image/png");
  EXPECT_GT(image["data"].get<std::string>().size(), 1000u);
  mcp.send(R"({"jsonrpc":"2.0","id":4,"method":"tools/call","params":{"name":"wait_for","arguments":{"tab":")" + tab + R"(","text":"absent","timeout":0.2}}})");
  auto waited = mcp.next();
  ASSERT_TRUE(waited);
  EXPECT_EQ(parseDocument(*waited)["result"],
            Json::parse(R"({"content":[{"type":"text","text":"waited 0.2 s and the text \"absent\" didn't show"}],"isError":true})"));
  EXPECT_EQ(mcp.finish(), 0);
}

TEST(Browser, ASecondBackEndForTheSameSocketRefusesToStart) {
  shared().nurel({"tabs"});
  RunOptions options = shared().options;
  options.timeoutSeconds = 20;
  Outcome second = runProgram(NUREL_BROWSER_BINARY, {}, options);
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, "nurel-browser: another browser already answers on " + shared().socket() + "\n");
  EXPECT_EQ(shared().nurel({"hello"}).status, 0);
}

// Agents that each set a socket of their own in one home each get a back end and a Chromium:
// one profile can't serve two. The default socket keeps the profile it always had.
TEST(Browser, TwoSocketsInOneHomeEachRunTheirOwnBrowser) {
  if (overWebSocket()) GTEST_SKIP() << "a remote browser has no profile of the back end's";
  TempDir home;
  Env together{{"XDG_DATA_HOME", home.file("data")}, {"HOME", home.path()}};
  BackEnd first(together), second(together);
  Outcome one = first.nurel({"open", url("/")});
  Outcome two = second.nurel({"open", url("/second")});
  ASSERT_EQ(one.status, 0) << one.err;
  ASSERT_EQ(two.status, 0) << two.err;
  EXPECT_NE(chromiumOf(backEnd(first.socket())), chromiumOf(backEnd(second.socket())));
  std::vector<std::string> profiles;
  for (auto& entry : std::filesystem::directory_iterator(home.file("data/Nurel/profiles")))
    if (entry.is_directory()) profiles.push_back(entry.path().filename());
  std::sort(profiles.begin(), profiles.end());
  ASSERT_EQ(profiles.size(), 2u);
  EXPECT_EQ(profiles[0].find("-run-agent.sock-"), profiles[0].size() - 24) << profiles[0];
  EXPECT_FALSE(std::filesystem::exists(home.file("data/Nurel/profile")));

  // No NUREL_SOCKET: the default socket, and the profile of old.
  RunOptions plain = first.options;
  plain.env["NUREL_SOCKET"] = std::nullopt;
  Outcome opened = runProgram(NUREL_BUNDLED, {"open", url("/")}, plain);
  EXPECT_EQ(opened.status, 0) << opened.err;
  std::string socket = home.file("Library/Application Support/Nurel/agent.sock");
  EXPECT_TRUE(std::filesystem::exists(home.file("data/Nurel/profile")));
  if (pid_t pid = backEnd(socket); pid > 0) {
    kill(pid, SIGTERM);
    EXPECT_TRUE(eventually([&] { return !alive(pid); }));
  }
}

TEST(Browser, ChromiumKilledMidSessionIsSaidAndReplaced) {
  if (overWebSocket()) GTEST_SKIP() << "the remote browser isn't the back end's to kill (WebSocket.TheRemoteBrowserKilledAndStartedAgainIsSurvived)";
  BackEnd place;
  std::string tab = place.open(url("/"));
  auto [back, chromium] = processesOf(place);
  ASSERT_GT(chromium, 0);
  kill(chromium, SIGKILL);
  Outcome lost = place.nurel({"eval", tab, "return 1"});
  EXPECT_EQ(lost.status, 1);
  EXPECT_TRUE(lost.err == "no tab " + tab + ": it was closed\n" ||
              lost.err.rfind("lost the browser: Chromium killed by signal 9", 0) == 0)
      << lost.err;
  Outcome again = place.nurel({"open", url("/second")});
  EXPECT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(again.out.substr(again.out.find(' ')), " " + url("/second") + " \"Second\"\n");
  EXPECT_NE(chromiumOf(back), chromium);
  EXPECT_EQ(backEnd(place.socket()), back);
}

TEST(Browser, SigtermClosesChromiumAndRemovesTheSocket) {
  if (overWebSocket()) GTEST_SKIP() << "the remote browser stays (WebSocket.ByWsAndByHttpTheRemoteBrowserIsDrivenAndLeftRunning)";
  BackEnd place;
  place.open(url("/"));
  Processes running = processesOf(place);
  ASSERT_GT(running.chromium, 0);
  kill(running.back, SIGTERM);
  expectGone(place, running);
}

TEST(Browser, ExitsAfterTheIdleTime) {
  BackEnd place(Env{{"NUREL_IDLE_MINUTES", "0.03"}});  // about two seconds
  place.open(url("/"));
  Processes running = processesOf(place);
  ASSERT_GT(running.back, 0);
  expectGone(place, running, 30s);
}

TEST(Browser, SigninNeedsTheMacBrowser) {
  std::string tab = shared().open(url("/"));
  EXPECT_EQ(shared().nurel({"signin", tab}).err,
            "sign-in with saved logins needs the macOS browser: here, type the login into the "
            "page, or ask the person\n");
}

TEST(Browser, WithoutAChromiumItSaysHowToGetOne) {
  if (overWebSocket()) GTEST_SKIP() << "no Chromium is started (WebSocket.AWrongAddressSaysWhatWasTried)";
  BackEnd missing(Env{{"NUREL_CHROMIUM", "/nonexistent/chromium"}});
  Outcome named = missing.nurel({"open", url("/")});
  EXPECT_EQ(named.status, 1);
  EXPECT_EQ(named.err, "NUREL_CHROMIUM names /nonexistent/chromium, which isn't a program that can be run\n");
  BackEnd broken(Env{{"NUREL_CHROMIUM", "/bin/false"}});
  EXPECT_EQ(broken.nurel({"open", url("/")}).err, "Chromium (/bin/false) didn't start\n");
  // Tabs and hello need no Chromium, and the back end still answers after failing to start one.
  EXPECT_EQ(broken.nurel({"tabs"}).out, "no tabs\n");
  BackEnd none(Env{{"PATH", "/nonexistent"}, {"NUREL_CHROMIUM", std::nullopt}});
  EXPECT_EQ(none.nurel({"open", url("/")}).err,
            "no Chromium found: install the chromium package or set NUREL_CHROMIUM\n");
}

TEST(Browser, DebiansLauncherScriptIsPassedOverAndThePersonsSwitchesAreAdded) {
  if (overWebSocket()) GTEST_SKIP() << "no Chromium is started";
  BackEnd place;
  // A prefix laid out as Debian's package is: bin/chromium, a script, starts the browser in
  // lib/chromium. Here the launcher only leaves a mark, and the "browser" starts the real one.
  std::string prefix = place.file("prefix"), mark = place.file("launcher-ran");
  std::filesystem::create_directories(prefix + "/bin");
  std::filesystem::create_directories(prefix + "/lib/chromium");
  writeTestFile(prefix + "/bin/chromium", "#!/bin/sh\ntouch '" + mark + "'\nexit 1\n", true);
  writeTestFile(prefix + "/lib/chromium/chromium",
                "#!/bin/sh\nexec '" + browser::findChromium() + "' \"$@\"\n", true);
  place.options.env["PATH"] = prefix + "/bin:" + std::getenv("PATH");
  // One switch a line, blank lines and the spaces around a switch ignored.
  place.options.env["NUREL_CHROMIUM_FLAGS"] =
      *place.options.env["NUREL_CHROMIUM_FLAGS"] + "\n\n  --user-agent=nurel's test agent \r\n";
  Outcome opened = place.nurel({"open", url("/")});
  EXPECT_EQ(opened.status, 0) << opened.err;
  EXPECT_FALSE(std::filesystem::exists(mark));
  std::string tab = opened.out.substr(0, opened.out.find(' '));
  EXPECT_EQ(place.nurel({"eval", tab, "return navigator.userAgent"}).out, "nurel's test agent\n");
}

TEST(Browser, ACrashedPageIsSaidAndReloadBringsItBack) {
  std::string tab = shared().open(url("/"));
  Outcome crashed = shared().nurel({"navigate", tab, "chrome://crash"});
  EXPECT_EQ(crashed.err, "the page in " + tab + " crashed: reload it\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return 1"}).err, "the page in " + tab + " crashed: reload it\n");
  EXPECT_EQ(shared().nurel({"reload", tab}).status, 0);
  EXPECT_EQ(shared().nurel({"eval", tab, "return document.title"}).out, "Home\n");
  // Other tabs never noticed.
  EXPECT_EQ(shared().nurel({"hello"}).status, 0);
}

TEST(Browser, AScriptThatOpensADialogSaysSoAtOnce) {
  std::string tab = shared().open(url("/"));
  Outcome waiting = shared().nurel({"eval", tab, "alert('stop'); return 2"});
  EXPECT_EQ(waiting.err, "the script is waiting on a dialog (alert \"stop\"): answer it with dialog "
                         "(accept or dismiss)\n");
  EXPECT_EQ(shared().nurel({"dialog", tab, "accept"}).out, "accepted alert \"stop\"\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return 3"}).out, "3\n");
}

TEST(Browser, ConsoleKeepsWhatThePageLoggedByLevelUntilCleared) {
  servePage("/console-page", "<title>Logs</title><p>quiet</p>");
  std::string tab = shared().open(url("/console-page"));
  EXPECT_EQ(shared().nurel({"console", tab}).out, "nothing logged since the page loaded\n");
  shared().nurel({"eval", tab, "console.log('hello', 42, {a: 1}); console.warn('careful'); "
                               "console.error('bad'); setTimeout(() => { throw new Error('boom') }, 0); "
                               "await new Promise((r) => setTimeout(r, 50))"});
  EXPECT_EQ(shared().nurel({"console", tab}).out,
            "log: hello 42 Object\nwarn: careful\nerror: bad\nerror: Uncaught Error: boom\n");
  EXPECT_EQ(shared().nurel({"console", tab, "--warnings"}).out,
            "warn: careful\nerror: bad\nerror: Uncaught Error: boom\n");
  EXPECT_EQ(shared().nurel({"console", tab, "--errors", "--limit", "1"}).out,
            "(1 earlier lines left out by the limit)\nerror: Uncaught Error: boom\n");
  EXPECT_EQ(shared().nurel({"console", tab, "--clear"}).status, 0);
  EXPECT_EQ(shared().nurel({"console", tab, "--errors"}).out, "no errors since the page loaded\n");
  // A page that logs without end costs a bounded number of lines, and says how many went.
  shared().nurel({"eval", tab, "for (let i = 0; i < 2500; ++i) console.log('line', i); "
                               "await new Promise((r) => setTimeout(r, 200))"});
  Outcome many = shared().nurel({"console", tab});
  EXPECT_EQ(many.out.substr(0, many.out.find('\n')), "(500 older lines were dropped)");
  EXPECT_EQ(many.out.substr(many.out.size() - 15), "log: line 2499\n");
  // A new page starts a new log.
  shared().nurel({"reload", tab});
  EXPECT_EQ(shared().nurel({"console", tab}).out, "nothing logged since the page loaded\n");
}

TEST(Browser, EmulationStaysOnTheTabAndThePageSeesIt) {
  std::string tab = shared().open(url("/"));
  EXPECT_EQ(shared().nurel({"emulate", tab, "--dark", "--size", "390x844"}).out,
            "in force: color scheme dark, media screen, screen 390x844 px\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return [matchMedia('(prefers-color-scheme: dark)').matches, "
                                         "innerWidth, innerHeight]"}).out,
            "[\n  true,\n  390,\n  844\n]\n");
  EXPECT_EQ(shared().nurel({"emulate", tab, "--print"}).out,
            "in force: color scheme dark, media print, screen 390x844 px\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return matchMedia('print').matches"}).out, "true\n");
  shared().nurel({"reload", tab});
  EXPECT_EQ(shared().nurel({"eval", tab, "return [matchMedia('print').matches, innerWidth]"}).out,
            "[\n  true,\n  390\n]\n");
  EXPECT_EQ(shared().nurel({"emulate", tab, "--light", "--screen"}).out,
            "in force: color scheme light, media screen, screen 390x844 px\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return matchMedia('(prefers-color-scheme: light)').matches"}).out,
            "true\n");
}

TEST(Browser, StorageListsNamesAndSizesNeverValuesAndClears) {
  servePage("/storage", "<title>S</title><script>localStorage.setItem('token', 'secret-value-123'); "
                        "sessionStorage.setItem('step', '2'); document.cookie = 'theme=dark-secret; path=/'</script>");
  std::string tab = shared().open(url("/storage"));
  std::string origin = url("");
  Outcome listed = shared().nurel({"storage", tab});
  EXPECT_EQ(listed.out, "cookies for " + url("/storage") + ":\n  theme: domain 127.0.0.1, path /, until "
                        "the browser closes\nlocalStorage of " + origin + ": token (16 characters)\n"
                        "sessionStorage: step (1 characters)\n");
  EXPECT_EQ(listed.out.find("secret"), std::string::npos);
  EXPECT_EQ(shared().nurel({"storage", tab, "--clear"}).out,
            "removed 1 cookies, 1 localStorage keys and 1 sessionStorage keys of " + origin + "\n");
  EXPECT_EQ(shared().nurel({"storage", tab}).out, "cookies for " + url("/storage") + ": none\nlocalStorage of " +
                                                      origin + ": none\nsessionStorage: none\n");
  EXPECT_EQ(shared().nurel({"eval", tab, "return [document.cookie, localStorage.length]"}).out,
            "[\n  \"\",\n  0\n]\n");
}

TEST(Browser, NetworkListsTheTabsRequestsWithSecretsMasked) {
  std::string tab = shared().open(url("/second"));
  shared().nurel({"eval", tab, "await (await fetch('/missing?token=abc123&page=2', {headers: "
                               "{Authorization: 'Bearer zzz'}})).text(); return 1"});
  Outcome all = shared().nurel({"network", tab});
  EXPECT_EQ(all.out.rfind("#1 GET 200 document ", 0), 0u) << all.out;
  EXPECT_NE(all.out.find(" " + url("/second") + "\n"), std::string::npos);
  EXPECT_NE(all.out.find(url("/missing?token=•••&page=2")), std::string::npos) << all.out;
  EXPECT_EQ(all.out.find("abc123"), std::string::npos);
  Outcome failed = shared().nurel({"network", tab, "--failed", "--filter", "missing"});
  std::string line = failed.out.substr(0, failed.out.find('\n'));
  EXPECT_NE(line.find(" GET 404 fetch "), std::string::npos) << failed.out;
  std::string number = line.substr(1, line.find(' ') - 1);
  Json detail = parseDocument(shared().nurel({"network", tab, "--request", number}).out);
  EXPECT_EQ(detail["status"], 404);
  EXPECT_EQ(detail["request headers"]["Authorization"], "•••");
  EXPECT_EQ(shared().nurel({"network", tab, "--request", "9999"}).err, "no request 9999 in " + tab + "\n");
  shared().nurel({"network", tab, "--clear"});
  EXPECT_EQ(shared().nurel({"network", tab}).out, "no requests\n");
}

TEST(Browser, AskingThePersonHeadlessSaysNoOneIsWatching) {
  std::string tab = shared().open(url("/"));
  if (overWebSocket()) {
    EXPECT_EQ(shared().nurel({"ask", tab, "Please", "solve", "it"}).err,
              "asking the person isn't available when the browser runs elsewhere "
              "(NUREL_CDP_URL)\n");
    return;
  }
  EXPECT_EQ(shared().nurel({"ask", tab, "Please", "solve", "it"}).err,
            "no one is watching this browser: it runs without a window. Start it with one "
            "(NUREL_HEADED=1, with a display) for a person to answer\n");
}

}  // namespace
}  // namespace nurel::testing
