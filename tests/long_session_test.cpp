// tests/long_session_test.cpp: one `nurel mcp` fed 100,000 mixed lines: every request with an
// id is answered exactly once, in order, and nothing else is written; its peak memory after
// 100,000 requests is about what it was after 1,000.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

#include "tests/fake_browser.h"
#include "tests/run_nurel.h"
#include "tests/session.h"

extern char** environ;

namespace nurel::testing {
namespace {

using nlohmann::json;

struct Stream {
  std::string input;
  std::vector<json> ids;  // the ids that must be answered, in order
};

// `count` lines that cycle through every kind of message a host may send: requests the server
// answers from its own data, tool calls the browser answers, notifications, lines that are not
// JSON or not requests, and requests for methods it does not know.
Stream mixed(size_t count) {
  Stream stream;
  for (size_t i = 0; i < count; ++i) {
    json id = i % 3 == 0 ? json("r" + std::to_string(i)) : json(i);
    std::string line;
    switch (i % 20) {
      case 0: line = json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "ping"}}.dump(); break;
      case 1:
        // The whole list is large; one in a hundred lines asks for it.
        line = json{{"jsonrpc", "2.0"}, {"id", id}, {"method", i % 100 == 1 ? "tools/list" : "ping"}}
                   .dump();
        break;
      case 2: line = R"({"jsonrpc":"2.0","method":"notifications/initialized"})"; break;
      case 3: line = "this is not json"; break;
      case 4: line = R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])"; break;
      case 5: line = "{}"; break;
      case 6: line = ""; break;
      case 7:
        line = json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "initialize"}, {"params", json::object()}}
                   .dump();
        break;
      case 8: line = json{{"jsonrpc", "2.0"}, {"id", id}, {"method", "resources/list"}}.dump(); break;
      case 9: line = json{{"jsonrpc", "2.0"}, {"id", id}}.dump(); break;
      case 10: line = toolCall(id.dump(), "no_such_tool", "{}"); break;
      default:
        line = toolCall(id.dump(), i % 2 ? "list_tabs" : "snapshot",
                        json{{"tab", "t" + std::to_string(i)}, {"intent", "check"}}.dump());
        break;
    }
    stream.input += line + "\n";
    json parsed = json::parse(line, nullptr, false);
    if (parsed.is_object() && parsed.contains("id")) stream.ids.push_back(id);
  }
  return stream;
}

struct Served {
  std::string out;
  std::string err;
  int status = -1;
  long peakKiB = 0;
};

// Runs `nurel mcp` with files as its standard streams and measures its own peak resident
// memory. The kernel hands a process its parent's peak at exec, and this test process holds
// the whole stream, so `nurel mcp` is started by the small runner, which reports the figure
// on descriptor 3: "end <wait status> <peak KiB> <ns>".
Served serve(const std::string& input, const std::string& socket) {
  TempDir dir;
  writeTestFile(dir.file("in"), input);
  std::vector<std::string> env{"NUREL_SOCKET=" + socket};
  std::string asan = "ASAN_OPTIONS=";
  for (char** entry = environ; *entry; ++entry) {
    if (std::strncmp(*entry, "NUREL_SOCKET=", 13) == 0) continue;
    if (std::strncmp(*entry, "ASAN_OPTIONS=", 13) == 0)
      asan = std::string(*entry) + ":";
    else
      env.emplace_back(*entry);
  }
  // Under AddressSanitizer freed blocks wait in a quarantine of up to 256 MiB before reuse;
  // that is the sanitizer's memory, not the program's, so keep it small here.
  env.push_back(asan + "quarantine_size_mb=1");
  std::vector<char*> envp;
  for (auto& pair : env) envp.push_back(pair.data());
  envp.push_back(nullptr);
  std::string in = dir.file("in"), out = dir.file("out"), err = dir.file("err");
  std::string report = dir.file("report");
  pid_t pid = fork();
  if (pid == 0) {
    dup2(open(in.c_str(), O_RDONLY), 0);
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
    dup2(open(report.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 3);
    char* argv[] = {const_cast<char*>(NUREL_PEAK_RUN), const_cast<char*>(NUREL_BINARY),
                    const_cast<char*>("mcp"), nullptr};
    execve(NUREL_PEAK_RUN, argv, envp.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  Served served;
  std::string figures = readFile(report).value_or("");
  auto end = figures.find("end ");
  int waitStatus = -1;
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && end != std::string::npos &&
      std::sscanf(figures.c_str() + end, "end %d %ld", &waitStatus, &served.peakKiB) == 2)
    served.status = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
  served.out = readFile(out).value_or("");
  served.err = readFile(err).value_or("");
  return served;
}

// Every answer is one line of JSON-RPC 2.0, in the order of the requests, one per id.
void expectAnswered(const Stream& stream, const std::string& out) {
  size_t next = 0, at = 0;
  for (size_t end; (end = out.find('\n', at)) != std::string::npos; at = end + 1, ++next) {
    json answer = json::parse(out.substr(at, end - at), nullptr, false);
    ASSERT_TRUE(answer.is_object()) << "answer " << next;
    ASSERT_LT(next, stream.ids.size()) << "more answers than requests with an id";
    ASSERT_EQ(stream.ids[next], answer.value("id", json())) << "answer " << next;
    ASSERT_EQ("2.0", answer.value("jsonrpc", json()));
    ASSERT_NE(answer.contains("result"), answer.contains("error")) << "answer " << next;
  }
  EXPECT_EQ(out.size(), at) << "the output ends inside a line";
  EXPECT_EQ(stream.ids.size(), next) << "requests with an id that got no answer";
}

// Serves the 1,000-line and the 100,000-line streams; both must be answered exactly.
std::pair<Served, Served> serveBoth() {
  FakeBrowser browser;
  browser.setFallback(R"({"id":$id,"result":{"tabs":[{"id":"t1","title":"Example"}]}})");
  Stream small = mixed(1000);
  Served first = serve(small.input, browser.socket());
  EXPECT_EQ(0, first.status);
  EXPECT_EQ("", first.err);
  expectAnswered(small, first.out);

  Stream large = mixed(100000);
  Served second = serve(large.input, browser.socket());
  EXPECT_EQ(0, second.status);
  EXPECT_EQ("", second.err);
  expectAnswered(large, second.out);

  // Every tool call with a known name reached the browser, each once.
  size_t calls = 0;
  for (size_t i = 0; i < 1000; ++i) calls += i % 20 >= 11;
  for (size_t i = 0; i < 100000; ++i) calls += i % 20 >= 11;
  EXPECT_EQ(calls, browser.requests().size());
  std::cout << "peak RSS of nurel mcp: " << first.peakKiB << " KiB after 1,000 requests, "
            << second.peakKiB << " KiB after 100,000\n";
  return {first, second};
}

TEST(LongSession, EveryRequestIsAnsweredOnceInOrderSlow) { serveBoth(); }

TEST(LongSession, MemoryStaysFlatSlow) {
  auto [first, second] = serveBoth();
  // Memory, not time: a generous bound that a leak of even a few dozen bytes per request
  // would break (100,000 requests x 64 bytes is 6 MiB).
  EXPECT_LT(second.peakKiB, 2 * first.peakKiB + 4096);
  EXPECT_LT(second.peakKiB - first.peakKiB, 6 * 1024);
}

}  // namespace
}  // namespace nurel::testing
