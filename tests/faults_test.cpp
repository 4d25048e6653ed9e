// tests/faults_test.cpp: the real binary against a browser that misbehaves, a host that goes
// away, and files that cannot be written. Each case ends with its message and exit status, or
// with a tool result, and never with a crash or a hang.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "tests/fake_browser.h"
#include "tests/run_nurel.h"
#include "tests/session.h"

namespace nurel::testing {
namespace {

using nlohmann::json;

// One line of standard error, and nothing on standard output: how every failure ends.
void expectFailure(const Outcome& run, const std::string& message) {
  EXPECT_EQ(1, run.status);
  EXPECT_EQ(0, run.signal);
  EXPECT_EQ("", run.out);
  EXPECT_EQ(message + "\n", run.err);
}

// The text of a tool result, and whether it is an error.
struct ToolResult {
  std::string text;
  bool isError = false;
};

ToolResult toolResult(const std::optional<std::string>& line, const std::string& id) {
  if (!line) {
    ADD_FAILURE() << "no answer to request " << id;
    return {};
  }
  json answer = json::parse(*line);
  EXPECT_EQ(json::parse(id), answer.at("id"));
  const json& result = answer.at("result");
  return {result.at("content").at(0).at("text").get<std::string>(),
          result.value("isError", false)};
}

// Files in `folder` other than `keep`: a temporary file left behind would show here.
std::vector<std::string> othersIn(const std::string& folder, const std::string& keep = "") {
  std::vector<std::string> out;
  for (auto& entry : std::filesystem::directory_iterator(folder))
    if (entry.path().filename() != keep) out.push_back(entry.path().filename());
  return out;
}

// ---- the browser misbehaves ----

TEST(Faults, BrowserClosesMidReply) {
  HandMadeBrowser browser([](int client, int) {
    readRequest(client);
    sendBytes(client, R"({"id":1,"result":"half a rep)");
  });
  expectFailure(runNurel({"tabs"}, withSocket(browser.socket())), "Nurel closed the connection");
}

TEST(Faults, BrowserClosesMidReplyThenTheNextToolCallReconnects) {
  HandMadeBrowser browser([](int client, int connection) {
    for (std::string request; !(request = readRequest(client)).empty();) {
      std::string id = requestID(request);
      if (connection == 0) {
        sendBytes(client, R"({"id":)" + id + R"(,"result":"half a rep)");
        return;
      }
      sendBytes(client, R"({"id":)" + id + R"(,"result":"t1"})" "\n");
    }
  });
  Session mcp(browser.socket());
  mcp.send(toolCall("1", "list_tabs", "{}"));
  ToolResult lost = toolResult(mcp.next(), "1");
  EXPECT_EQ("Nurel closed the connection", lost.text);
  EXPECT_TRUE(lost.isError);
  mcp.send(toolCall("2", "list_tabs", "{}"));
  ToolResult again = toolResult(mcp.next(), "2");
  EXPECT_EQ("t1", again.text);
  EXPECT_FALSE(again.isError);
  EXPECT_EQ(0, mcp.finish());
  EXPECT_EQ("", mcp.rest());
  EXPECT_EQ("", mcp.errors());
}

TEST(Faults, AReplyTrickledOneByteAtATimeIsReassembled) {
  HandMadeBrowser browser([](int client, int) {
    readRequest(client);
    for (char c : std::string(R"({"id":1,"result":{"b":[1,2],"a":"x/y"}})" "\n")) {
      sendBytes(client, std::string(1, c));
      // A pause between bytes makes each one arrive in a read of its own.
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  Outcome run = runNurel({"tabs"}, withSocket(browser.socket()));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("{\n  \"a\": \"x/y\",\n  \"b\": [\n    1,\n    2\n  ]\n}\n", run.out);
}

TEST(Faults, OneReplyLineOf256MiB) {
  constexpr size_t size = size_t(256) << 20;
  HandMadeBrowser browser([](int client, int) {
    readRequest(client);
    std::string reply = R"({"id":1,"result":")";
    reply.append(size, 'a');
    reply += "\"}\n";
    sendBytes(client, reply);
  });
  TempDir dir;
  Outcome run =
      runNurel({"text", "t1", "--file", dir.file("big.txt")}, withSocket(browser.socket()));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("saved 1 lines to " + dir.file("big.txt") + "\n", run.out);
  EXPECT_EQ(size + 1, std::filesystem::file_size(dir.file("big.txt")));
  EXPECT_EQ(std::vector<std::string>{}, othersIn(dir.path(), "big.txt"));
}

// A call that failed, on one line, because the browser's reply could not be read.
void expectUnreadableReply(const Outcome& run) {
  EXPECT_EQ(1, run.status);
  EXPECT_EQ("", run.out);
  EXPECT_TRUE(run.err.starts_with("couldn't read a reply from Nurel: ")) << run.err;
  EXPECT_EQ(1, std::count(run.err.begin(), run.err.end(), '\n')) << run.err;
}

TEST(Faults, InvalidUtf8InAReplyIsAnUnreadableReply) {
  HandMadeBrowser browser([](int client, int) {
    readRequest(client);
    sendBytes(client, "{\"id\":1,\"result\":\"caf\xff\xfe\"}\n");
  });
  expectUnreadableReply(runNurel({"tabs"}, withSocket(browser.socket())));
}

TEST(Faults, InvalidUtf8InAReplyIsAnErrorResultInMcp) {
  HandMadeBrowser browser([](int client, int) {
    for (std::string request; !(request = readRequest(client)).empty();) {
      std::string id = requestID(request);
      if (id == "1")
        sendBytes(client, "{\"id\":1,\"result\":\"caf\xff\xfe\"}\n");
      else
        sendBytes(client, R"({"id":)" + id + R"(,"result":"t1"})" "\n");
    }
  });
  Session mcp(browser.socket());
  mcp.send(toolCall("1", "list_tabs", "{}"));
  std::optional<std::string> line = mcp.next();
  ToolResult bad = toolResult(line, "1");
  EXPECT_TRUE(bad.isError);
  EXPECT_TRUE(bad.text.starts_with("couldn't read a reply from Nurel: ")) << bad.text;
  // The answer itself is readable JSON, whatever bytes the browser sent.
  EXPECT_FALSE(json::parse(*line, nullptr, false).is_discarded());
  mcp.send(toolCall("2", "list_tabs", "{}"));
  EXPECT_EQ("t1", toolResult(mcp.next(), "2").text);
  EXPECT_EQ(0, mcp.finish());
  EXPECT_EQ("", mcp.errors());
}

TEST(Faults, ALineThatIsNotJsonEndsTheCall) {
  FakeBrowser browser({"this is not json"});
  expectUnreadableReply(runNurel({"tabs"}, withSocket(browser.socket())));
}

TEST(Faults, JsonThatIsNotAReplyIsSkipped) {
  FakeBrowser browser(
      {R"!(!bytes "[1,2]\n{\"id\":\"1\"}\n{\"id\":1.5}\n{\"id\":1,\"result\":\"t1\"}\n")!"});
  Outcome run = runNurel({"tabs"}, withSocket(browser.socket()));
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("t1\n", run.out);
}

TEST(Faults, ABrowserThatDiesBetweenToolCallsIsReconnectedTo) {
  TempDir dir;
  std::string socket = dir.file("agent.sock");
  auto first = std::make_unique<FakeBrowser>(At{socket}, std::vector<std::string>{});
  first->setFallback(R"({"id":$id,"result":"first"})");
  Session mcp(socket);
  mcp.send(toolCall("1", "list_tabs", "{}"));
  EXPECT_EQ("first", toolResult(mcp.next(), "1").text);
  first.reset();  // the browser quits, and is started again
  FakeBrowser second(At{socket}, {});
  second.setFallback(R"({"id":$id,"result":"second"})");
  // The server learns that the connection went only when it uses it: that call reports it,
  // and the next one connects again.
  mcp.send(toolCall("2", "list_tabs", "{}"));
  ToolResult lost = toolResult(mcp.next(), "2");
  EXPECT_TRUE(lost.isError);
  EXPECT_TRUE(lost.text == "lost the connection to Nurel" ||
              lost.text == "Nurel closed the connection")
      << lost.text;
  mcp.send(toolCall("3", "list_tabs", "{}"));
  ToolResult back = toolResult(mcp.next(), "3");
  EXPECT_EQ("second", back.text);
  EXPECT_FALSE(back.isError);
  EXPECT_EQ(1, second.connections());
  // Request ids go on counting on the one link: the lost call used up id 2.
  EXPECT_EQ(R"({"id":3,"method":"tabs","params":{}})", second.requests().at(0));
  EXPECT_EQ(0, mcp.finish());
  EXPECT_EQ("", mcp.errors());
}

TEST(Faults, ABrowserThatRefusesForFiveSecondsIsFoundByPolling) {
  TempDir dir;
  std::string socket = dir.file("agent.sock");
  // A socket that is bound but not listening refuses every connection.
  int refusing = boundSocket(socket);
  ASSERT_LE(0, refusing);
  std::unique_ptr<FakeBrowser> browser;
  std::thread later([&] {
    std::this_thread::sleep_for(std::chrono::seconds(5));
    close(refusing);
    browser = std::make_unique<FakeBrowser>(At{socket},
                                            std::vector<std::string>{R"({"id":$id,"result":"t1"})"});
  });
  Outcome run = runNurel({"tabs"}, withSocket(socket));
  later.join();
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ("t1\n", run.out);
  EXPECT_EQ(1, browser->connections());
}

// ---- the host goes away ----

std::string mixedRequests() {
  return R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{}})"
         "\n"
         R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
         "\n" +
         toolCall("2", "list_tabs", "{}") + "\n" +
         R"({"jsonrpc":"2.0","id":3,"method":"tools/list"})"
         "\n"
         R"({"jsonrpc":"2.0","id":4,"method":"ping"})"
         "\n";
}

TEST(Faults, McpWithStandardOutputClosedExitsAtTheEndOfInput) {
  FakeBrowser browser;
  RunOptions options = withSocket(browser.socket());
  options.closeOutput = true;
  options.input = mixedRequests();
  Outcome run = runNurel({"mcp"}, options);
  EXPECT_EQ(0, run.signal);
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.err);
  // The tool call still reached the browser, on its own socket.
  ASSERT_EQ(1u, browser.requests().size());
  EXPECT_EQ(R"({"id":1,"method":"tabs","params":{}})", browser.requests()[0]);
}

TEST(Faults, McpWhoseHostStopsReadingDoesNotDieOfSigpipe) {
  FakeBrowser browser;
  Session mcp(browser.socket());
  mcp.send(R"({"jsonrpc":"2.0","id":0,"method":"ping"})");
  ASSERT_TRUE(mcp.next());
  mcp.stopReading();
  for (int i = 0; i < 50; ++i) mcp.send(R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})");
  mcp.send(toolCall("2", "list_tabs", "{}"));
  EXPECT_EQ(0, mcp.finish());
  EXPECT_EQ(0, mcp.signal());
  EXPECT_EQ("", mcp.errors());
  EXPECT_TRUE(browser.waitFor(1));
}

// A host may hand over pipes it made non-blocking: the server waits for input on them instead
// of taking "try again" for the end of input, and writes its answers whole.
TEST(Faults, McpOnNonBlockingPipesWaitsForInputAndWritesWholeAnswers) {
  FakeBrowser browser;
  // A server that gave up early must fail the test, not end it with SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  int in[2], out[2];
  ASSERT_EQ(0, pipe(in));
  ASSERT_EQ(0, pipe(out));
  fcntl(in[0], F_SETFL, O_NONBLOCK);
  fcntl(out[1], F_SETFL, O_NONBLOCK);
#ifdef F_SETPIPE_SZ
  fcntl(out[1], F_SETPIPE_SZ, 4096);
#endif
  std::string socket = "NUREL_SOCKET=" + browser.socket();
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in[0], 0);
    dup2(out[1], 1);
    for (int fd : {in[0], in[1], out[0], out[1]}) close(fd);
    char* argv[] = {const_cast<char*>(NUREL_BINARY), const_cast<char*>("mcp"), nullptr};
    char* envp[] = {socket.data(), nullptr};
    execve(NUREL_BINARY, argv, envp);
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  // The answer to tools/list is larger than this pipe holds, and nothing reads it until the
  // input has ended, so the server meets a full pipe too.
  std::string first = R"({"jsonrpc":"2.0","id":1,"method":"tools/list"})" "\n";
  ASSERT_EQ(ssize_t(first.size()), write(in[1], first.data(), first.size()));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  std::string second = R"({"jsonrpc":"2.0","id":2,"method":"ping"})" "\n";
  ASSERT_EQ(ssize_t(second.size()), write(in[1], second.data(), second.size()));
  close(in[1]);
  std::string answers;
  char block[65536];
  for (ssize_t got; (got = read(out[0], block, sizeof block)) > 0;) answers.append(block, got);
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  auto newline = answers.find('\n');
  ASSERT_NE(std::string::npos, newline);
  json list = json::parse(answers.substr(0, newline));
  EXPECT_EQ(36u, list.at("result").at("tools").size());
  EXPECT_EQ(R"({"id":2,"jsonrpc":"2.0","result":{}})",
            json::parse(answers.substr(newline + 1)).dump());
}

// ---- files that cannot be written ----

// Runs nurel with a limit of one block on the size of files it writes, and SIGXFSZ ignored, so
// that a write past the limit fails with EFBIG instead of killing the process.
Outcome runWithFileSizeLimit(const std::vector<std::string>& arguments, RunOptions options) {
  std::vector<std::string> words{"-c", "ulimit -f 1 && trap '' XFSZ && exec \"$0\" \"$@\"",
                                 NUREL_BINARY};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return runProgram("/bin/sh", words, options);
}

const std::string longText = std::string(20000, 'x');

TEST(Faults, AFailedWriteKeepsTheOldFileAndLeavesNoTemporaryFile) {
  TempDir dir;
  writeTestFile(dir.file("out.txt"), "old content\n");
  FakeBrowser browser({R"({"id":$id,"result":")" + longText + R"("})"});
  Outcome run = runWithFileSizeLimit({"text", "t1", "--file", dir.file("out.txt")},
                                     withSocket(browser.socket()));
  expectFailure(run, "couldn't write " + dir.file("out.txt") + ": file too large");
  EXPECT_EQ("old content\n", readFile(dir.file("out.txt")).value());
  EXPECT_EQ(std::vector<std::string>{}, othersIn(dir.path(), "out.txt"));
}

TEST(Faults, AFailedWriteInMcpIsAnErrorResultAndKeepsTheOldFile) {
  TempDir dir;
  writeTestFile(dir.file("out.txt"), "old content\n");
  FakeBrowser browser({R"({"id":$id,"result":")" + longText + R"("})"});
  RunOptions options = withSocket(browser.socket());
  options.input =
      toolCall("1", "get_text", json{{"tab", "t1"}, {"file", dir.file("out.txt")}}.dump()) + "\n";
  Outcome run = runWithFileSizeLimit({"mcp"}, options);
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("", run.err);
  ToolResult result = toolResult(run.out.substr(0, run.out.find('\n')), "1");
  EXPECT_TRUE(result.isError);
  EXPECT_EQ("couldn't write " + dir.file("out.txt") + ": file too large", result.text);
  EXPECT_EQ("old content\n", readFile(dir.file("out.txt")).value());
  EXPECT_EQ(std::vector<std::string>{}, othersIn(dir.path(), "out.txt"));
}

// Saves a page's text to `path` through the command line, then through the MCP server; both
// must fail with "couldn't write <path>: <why>".
void expectBothFrontEndsFailToWrite(const std::string& path, const std::string& why) {
  FakeBrowser browser({R"({"id":$id,"result":"text"})", R"({"id":$id,"result":"text"})"});
  expectFailure(runNurel({"text", "t1", "--file", path}, withSocket(browser.socket())),
                "couldn't write " + path + ": " + why);
  RunOptions options = withSocket(browser.socket());
  options.input = toolCall("1", "get_text", json{{"tab", "t1"}, {"file", path}}.dump()) + "\n";
  Outcome mcp = runNurel({"mcp"}, options);
  ToolResult result = toolResult(mcp.out.substr(0, mcp.out.find('\n')), "1");
  EXPECT_TRUE(result.isError);
  EXPECT_EQ("couldn't write " + path + ": " + why, result.text);
}

TEST(Faults, AMissingFolderFailsInBothFrontEndsAndCreatesNothing) {
  TempDir dir;
  std::string path = dir.file("missing/out.txt");
  expectBothFrontEndsFailToWrite(path, "no such file or directory");
  EXPECT_EQ(std::vector<std::string>{}, othersIn(dir.path()));
}

TEST(Faults, APathThatIsNotUtf8IsAnsweredWithReplacementCharacters) {
  TempDir dir;
  std::string folder = dir.file("bad\xff");
  std::filesystem::create_directory(folder);
  FakeBrowser browser({R"({"id":$id,"result":{"pdf":"JVBERg=="}})", R"({"id":$id,"result":"a"})"});
  RunOptions options = withSocket(browser.socket());
  options.cwd = folder;
  options.input = toolCall("1", "save_pdf", R"({"tab":"t1","file":"a.pdf"})") + "\n" +
                  toolCall("2", "get_text", R"({"tab":"t1","file":"a.txt"})") + "\n" +
                  R"({"jsonrpc":"2.0","id":3,"method":"ping"})" + "\n";
  Outcome run = runNurel({"mcp"}, options);
  EXPECT_EQ(0, run.status);
  std::string shown = dir.file("bad\xef\xbf\xbd");
  std::istringstream lines(run.out);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ("saved the page to " + shown + "/a.pdf", toolResult(line, "1").text);
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ("saved 1 lines to " + shown + "/a.txt", toolResult(line, "2").text);
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(R"({"id":3,"jsonrpc":"2.0","result":{}})", json::parse(line).dump());
  EXPECT_EQ("%PDF", readFile(folder + "/a.pdf").value());
  EXPECT_EQ("a\n", readFile(folder + "/a.txt").value());
}

// A folder where nothing may be created. Folder permissions do not stop root, so as root the
// test uses sysfs, which refuses new files to everyone.
std::optional<std::string> readOnlyFolder(const TempDir& dir) {
  if (geteuid() != 0) {
    std::filesystem::create_directory(dir.file("ro"));
    chmod(dir.file("ro").c_str(), 0555);
    return dir.file("ro");
  }
  std::string probe = "/sys/nurel-probe";
  int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  if (fd >= 0) {
    close(fd);
    unlink(probe.c_str());
    return std::nullopt;
  }
  return errno == EACCES ? std::optional<std::string>("/sys") : std::nullopt;
}

TEST(Faults, AReadOnlyFolderFailsInBothFrontEnds) {
  TempDir dir;
  std::optional<std::string> folder = readOnlyFolder(dir);
  if (!folder) GTEST_SKIP() << "running as root without a folder that refuses new files";
  std::string path = *folder + "/out.txt";
  expectBothFrontEndsFailToWrite(path, "permission denied");
  EXPECT_FALSE(std::filesystem::exists(path));
  if (*folder != "/sys") {
    EXPECT_EQ(std::vector<std::string>{}, othersIn(*folder));
  }
  chmod(folder->c_str(), 0755);
}

}  // namespace
}  // namespace nurel::testing
