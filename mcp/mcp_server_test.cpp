// mcp/mcp_server_test.cpp: the answers of handle(), and run() on real descriptors.
#include "mcp/mcp_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include "catalogue/agent_guide.h"
#include "catalogue/catalogue.h"
#include "link/places.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

using testing::FakeBrowser;
using testing::readFile;
using testing::TempDir;
using testing::writeTestFile;

Json answered(MCPServer& server, const std::string& line) {
  auto answer = server.handle(line);
  if (!answer) return "no answer";
  EXPECT_EQ(std::string::npos, answer->find('\n')) << "an answer is one line";
  return Json::parse(*answer);
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

TEST(McpServer, InitializeHoldsExactlyFourMembers) {
  MCPServer server{Place()};
  Json answer = answered(server, R"({"jsonrpc":"2.0","id":1,"method":"initialize"})");
  Json expected = {{"protocolVersion", "2025-06-18"},
                   {"capabilities", {{"tools", Json::object()}}},
                   {"serverInfo", {{"name", "nurel"}, {"version", "1"}}},
                   {"instructions", agentGuide()}};
  EXPECT_EQ((Json{{"jsonrpc", "2.0"}, {"id", 1}, {"result", expected}}), answer);
}

TEST(McpServer, InitializeSendsTheGuideByteForByte) {
  MCPServer server{Place()};
  auto answer = server.handle(R"({"jsonrpc":"2.0","id":1,"method":"initialize"})");
  ASSERT_TRUE(answer);
  // The guide's "›" travels as UTF-8, not as an escape.
  EXPECT_NE(std::string::npos, answer->find("Settings \u203a Agents"));
  EXPECT_EQ(agentGuide(), Json::parse(*answer)["result"]["instructions"].get<std::string>());
}

TEST(McpServer, ToolsListCarriesTheCatalogueInOrder) {
  MCPServer server{Place()};
  auto answer = server.handle(R"({"jsonrpc":"2.0","id":"list","method":"tools/list"})");
  ASSERT_TRUE(answer);
  EXPECT_EQ(std::string::npos, answer->find('\n'));
  // Read back in order: the answer lists tools and properties as the catalogue has them.
  OrderedJson read = OrderedJson::parse(*answer);
  EXPECT_EQ("2.0", read["jsonrpc"]);
  EXPECT_EQ("list", read["id"]);
  EXPECT_EQ(tools().dump(), read["result"]["tools"].dump());
  EXPECT_EQ(3u, read.size());
  EXPECT_EQ(1u, read["result"].size());
}

TEST(McpServer, ToolsListEchoesAnyId) {
  MCPServer server{Place()};
  for (const char* id : {"null", "0", "-1", "\"a/b\"", "1.5", "[1]"}) {
    Json answer = answered(
        server, std::string(R"({"jsonrpc":"2.0","method":"tools/list","id":)") + id + "}");
    EXPECT_EQ(Json::parse(id), answer["id"]) << id;
    EXPECT_EQ(36u, answer["result"]["tools"].size()) << id;
  }
}

TEST(McpServer, ParamsThatAreNotAnObjectCountAsEmpty) {
  MCPServer server{Place()};
  for (const char* params : {"[]", "null", "\"x\"", "3"}) {
    Json answer = answered(
        server, std::string(R"({"jsonrpc":"2.0","id":1,"method":"ping","params":)") + params + "}");
    EXPECT_EQ(Json::object(), answer["result"]) << params;
  }
}

TEST(McpServer, UnreadableInputGetsNoAnswer) {
  MCPServer server{Place()};
  for (const char* line :
       {"", " ", "not json", "{", "[]", "[{\"id\":1,\"method\":\"ping\"}]", "{}", "7", "\"ping\"",
        "null", R"({"jsonrpc":"2.0","method":"ping"})", R"({"id":1,"method":"ping"} x)",
        "{\"id\":1,\"method\":\"p\xffng\"}"})
    EXPECT_FALSE(server.handle(line)) << line;
  EXPECT_TRUE(server.handle(R"({"id":1,"method":"ping"})"));
}

TEST(McpServer, ANulByteAfterTheMessageMakesTheLineUnreadable) {
  // A NUL byte is no end of the line: the line is the message and what follows, no JSON.
  FakeBrowser browser;
  MCPServer server(testing::placeAt(browser.socket()));
  const std::string call =
      R"({"jsonrpc":"2.0","id":31,"method":"tools/call","params":{"name":"list_tabs"}})";
  for (const std::string& line :
       {R"({"jsonrpc":"2.0","id":30,"method":"ping"})" + std::string("\0junk", 5),
        R"({"jsonrpc":"2.0","id":30,"method":"ping"})" + std::string("\0", 1),
        R"({"jsonrpc":"2.0","id":30,"method":"ping"} )" + std::string("\0", 1),
        call + std::string("\0junk", 5)})
    EXPECT_FALSE(server.handle(line)) << line;
  EXPECT_TRUE(browser.requests().empty());
  EXPECT_TRUE(server.handle(call));
  EXPECT_EQ(1u, browser.requests().size());
}

TEST(McpServer, IdsBeyond64BitsAreEchoedDigitForDigit) {
  MCPServer server{Place()};
  for (const std::string id :
       {"-9223372036854775809", "18446744073709551616", "123456789012345678901234567890"}) {
    EXPECT_EQ(R"({"id":)" + id + R"(,"jsonrpc":"2.0","result":{}})",
              server.handle(R"({"jsonrpc":"2.0","method":"ping","id":)" + id + "}"));
    std::optional<std::string> tools =
        server.handle(R"({"jsonrpc":"2.0","method":"tools/list","id":)" + id + "}");
    ASSERT_TRUE(tools);
    EXPECT_EQ(0u, tools->find(R"({"jsonrpc":"2.0","id":)" + id + ",")) << tools->substr(0, 60);
  }
}

TEST(McpServer, TooDeeplyNestedInputGetsNoAnswer) {
  MCPServer server{Place()};
  std::string deep = R"({"id":1,"method":"ping","params":)" + std::string(100000, '[') +
                     std::string(100000, ']') + "}";
  EXPECT_FALSE(server.handle(deep));
  EXPECT_TRUE(server.handle(R"({"id":1,"method":"ping"})"));
}

TEST(McpServer, TheJsonrpcMemberIsNotLookedAt) {
  MCPServer server{Place()};
  EXPECT_EQ((Json{{"jsonrpc", "2.0"}, {"id", 1}, {"result", Json::object()}}),
            answered(server, R"({"id":1,"method":"ping","jsonrpc":"1.0"})"));
}

// Runs MCPServer::run() with standard input read from `input` and standard output sent to
// `output` (a descriptor), then puts both back.
void runWith(const std::string& input, int output, Place place = Place()) {
  TempDir dir;
  writeTestFile(dir.file("in"), input);
  int in = open(dir.file("in").c_str(), O_RDONLY | O_CLOEXEC);
  int savedIn = dup(0), savedOut = dup(1);
  fflush(stdout);
  dup2(in, 0);
  dup2(output, 1);
  close(in);
  MCPServer server(std::move(place));
  server.run();
  dup2(savedIn, 0);
  dup2(savedOut, 1);
  close(savedIn);
  close(savedOut);
}

// Runs MCPServer::run() in this process and returns what it wrote.
std::string runOn(const std::string& input) {
  TempDir dir;
  int out = open(dir.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  runWith(input, out);
  close(out);
  return readFile(dir.file("out")).value_or("unreadable");
}

const std::string ping1 = R"({"jsonrpc":"2.0","id":1,"method":"ping"})";
const std::string pong1 = R"({"id":1,"jsonrpc":"2.0","result":{}})";

TEST(McpRun, EndOfInputReturns) {
  EXPECT_EQ("", runOn(""));
  EXPECT_EQ("", runOn("\n\n"));
}

TEST(McpRun, EachAnswerIsOneLine) {
  EXPECT_EQ(pong1 + "\n" + pong1 + "\n", runOn(ping1 + "\n" + ping1 + "\n"));
}

TEST(McpRun, CarriageReturnBeforeLineFeedIsDropped) {
  EXPECT_EQ(pong1 + "\n" + pong1 + "\n", runOn(ping1 + "\r\n\r\n" + ping1 + "\r\n"));
  // "not json\r" and a lone "\r" are as unreadable as ever.
  EXPECT_EQ(pong1 + "\n", runOn("not json\r\n\r\n" + ping1 + "\r\n"));
}

TEST(McpRun, LastLineWithoutLineFeedCounts) {
  EXPECT_EQ(pong1 + "\n", runOn(ping1));
  EXPECT_EQ(pong1 + "\n" + pong1 + "\n", runOn(ping1 + "\n" + ping1 + "\r"));
}

TEST(McpRun, LinesLongerThanAReadAreWhole) {
  std::string padding(300000, 'x');
  std::string big = R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"pad":")" + padding +
                    R"("}})";
  EXPECT_EQ(pong1 + "\n" + pong1 + "\n" + pong1 + "\n",
            runOn(ping1 + "\n" + big + "\n" + ping1 + "\n"));
}

TEST(McpRun, ManyLinesInOneReadAreAnsweredInOrder) {
  std::string input, expected;
  for (int i = 0; i < 5000; ++i) {
    input += R"({"jsonrpc":"2.0","method":"ping","id":)" + std::to_string(i) + "}\n";
    expected += R"({"id":)" + std::to_string(i) + R"(,"jsonrpc":"2.0","result":{}})" + "\n";
  }
  EXPECT_EQ(expected, runOn(input));
}

TEST(McpRun, KeepsReadingWhenTheHostStopsReading) {
  std::signal(SIGPIPE, SIG_IGN);  // as the program does at start-up
  FakeBrowser browser;
  int pipe[2];
  ASSERT_EQ(0, ::pipe2(pipe, O_CLOEXEC));
  close(pipe[0]);  // nobody reads the answers
  std::string call =
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_tabs"}})";
  runWith(ping1 + "\n" + call + "\n" + ping1 + "\n" + call + "\n", pipe[1],
          testing::placeAt(browser.socket()));
  close(pipe[1]);
  EXPECT_EQ(2u, browser.requests().size());
}

TEST(McpRun, LargeAnswerIsWrittenWhole) {
  // An answer far larger than a pipe holds comes out whole, through the real program.
  std::string text(3 << 20, 'a');
  for (size_t i = 0; i < text.size(); i += 1000) text[i] = '/';
  FakeBrowser browser(std::vector<std::string>{Json{{"id", 1}, {"result", text}}.dump()});
  testing::RunOptions options;
  options.env["NUREL_SOCKET"] = browser.socket();
  options.input =
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"get_text","arguments":{"tab":"t1"}}})"
      "\n" +
      ping1 + "\n";
  auto outcome = testing::runNurel({"mcp"}, options);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.err);
  auto got = lines(outcome.out);
  ASSERT_EQ(2u, got.size());
  EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","result":{"content":[{"text":")" + text +
                R"(","type":"text"}]}})",
            got[0]);
  EXPECT_EQ(pong1, got[1]);
}

TEST(McpRun, TheProgramReadsEveryByteOfALine) {
  // Through the real program: a NUL byte and what follows it belong to the line, so the line
  // is unreadable and dropped; an id beyond 64 bits comes back as it was sent.
  FakeBrowser browser;
  testing::RunOptions options;
  options.env["NUREL_SOCKET"] = browser.socket();
  options.input =
      R"({"jsonrpc":"2.0","id":30,"method":"ping"})" + std::string("\0junk\n", 6) +
      R"({"jsonrpc":"2.0","id":31,"method":"tools/call","params":{"name":"list_tabs"}})" +
      std::string("\0junk\n", 6) +
      R"({"jsonrpc":"2.0","id":-9223372036854775809,"method":"ping"})" + "\n";
  auto outcome = testing::runNurel({"mcp"}, options);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.err);
  EXPECT_EQ(R"({"id":-9223372036854775809,"jsonrpc":"2.0","result":{}})"
            "\n",
            outcome.out);
  EXPECT_TRUE(browser.requests().empty());
}

TEST(McpRun, ProgramEndsWithStatusZeroAtEndOfInput) {
  auto outcome = testing::runNurel({"mcp"}, {});
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.out);
  EXPECT_EQ("", outcome.err);
  testing::RunOptions options;
  options.input = ping1 + "\r\n" + ping1;  // CRLF, and no line feed at the very end
  outcome = testing::runNurel({"mcp"}, options);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ(pong1 + "\n" + pong1 + "\n", outcome.out);
  EXPECT_EQ("", outcome.err);
}

#if defined(__SANITIZE_ADDRESS__)
#define NUREL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NUREL_ASAN 1
#endif
#endif

TEST(McpRun, LineTooLongToHoldIsDroppedAndTheNextIsAnswered) {
#ifdef NUREL_ASAN
  GTEST_SKIP() << "AddressSanitizer needs more address space than the limit leaves";
#endif
  // With 60 MB of address space, a line of 100 MB cannot be held; it is dropped like any
  // unreadable line instead of ending the server.
  testing::RunOptions options;
  options.input = ping1 + "\n" + std::string(100 << 20, 'x') + "\n" + ping1;
  auto outcome = testing::runProgram(
      "/bin/sh", {"-c", "ulimit -v 60000 && exec \"$0\" mcp", NUREL_BINARY}, options);
  EXPECT_EQ(0, outcome.status) << outcome.err;
  EXPECT_EQ(pong1 + "\n" + pong1 + "\n", outcome.out);
  EXPECT_EQ("", outcome.err);
}

TEST(McpRun, ClosedOutputNeitherStopsTheServerNorReachesTheBrowser) {
  FakeBrowser browser;
  testing::RunOptions options;
  options.env["NUREL_SOCKET"] = browser.socket();
  options.closeOutput = true;
  std::string call =
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_tabs"}})";
  options.input = ping1 + "\n" + call + "\n" + ping1 + "\n" + call + "\n";
  auto outcome = testing::runNurel({"mcp"}, options);
  EXPECT_EQ(0, outcome.status);
  EXPECT_EQ("", outcome.err);
  auto requests = browser.requests();
  ASSERT_EQ(2u, requests.size());
  for (auto& request : requests) EXPECT_EQ("tabs", Json::parse(request)["method"]) << request;
}

}  // namespace
}  // namespace nurel
