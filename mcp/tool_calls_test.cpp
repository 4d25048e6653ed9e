// mcp/tool_calls_test.cpp: tool calls against a fake browser, through MCPServer::handle.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "catalogue/catalogue.h"
#include "link/launch.h"
#include "link/places.h"
#include "mcp/mcp_server.h"
#include "render/render.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

using testing::FakeBrowser;
using testing::readFile;
using testing::TempDir;

// Records launches and pauses; never starts anything, never sleeps.
class RecordingLaunch : public Launch {
 public:
  void start(const std::string&, const Json&) override { ++starts; }
  void pause(unsigned) override { ++pauses; }
  int starts = 0;
  int pauses = 0;
};

// The fake accepts on its own thread, a moment after connect() returns: wait (up to 10 s)
// until it has seen `count` connections, then tell how many it saw.
int connectionsSeen(const FakeBrowser& fake, int count) {
  for (int i = 0; i < 1000 && fake.connections() < count; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return fake.connections();
}

class ToolCalls : public ::testing::Test {
 protected:
  ToolCalls() : oldHome(std::getenv("HOME")) { setenv("HOME", dir.path().c_str(), 1); }
  ~ToolCalls() override {
    if (oldHome)
      setenv("HOME", oldHome->c_str(), 1);
    else
      unsetenv("HOME");
  }

  // A fake browser with this script, where the server looks for one.
  FakeBrowser& browser(std::vector<std::string> script = {}) {
    fake.reset();
    fake = std::make_unique<FakeBrowser>(testing::At{socket}, std::move(script));
    return *fake;
  }

  // The tool result of one call.
  Json call(const std::string& name, const Json& arguments = Json::object()) {
    Json request = {{"jsonrpc", "2.0"},
                    {"id", ++id},
                    {"method", "tools/call"},
                    {"params", {{"name", name}, {"arguments", arguments}}}};
    auto answer = server->handle(request.dump());
    if (!answer) return "no answer";
    return Json::parse(*answer).at("result");
  }

  // The params of the n-th request the browser received.
  Json sent(size_t n) const {
    auto requests = fake->requests();
    return n < requests.size() ? Json::parse(requests[n]).at("params") : Json("no request");
  }

  static Json text(const std::string& text) {
    return {{"content", {{{"type", "text"}, {"text", text}}}}};
  }
  static Json failed(const std::string& text) {
    return {{"content", {{{"type", "text"}, {"text", text}}}}, {"isError", true}};
  }

  TempDir dir, socketDir;
  // Nothing listens here unless a test says so.
  std::string socket = socketDir.file("agent.sock");
  RecordingLaunch launch;
  std::unique_ptr<MCPServer> server = std::make_unique<MCPServer>(testing::placeAt(socket), launch);
  std::unique_ptr<FakeBrowser> fake;
  int id = 0;

 private:
  std::optional<std::string> oldHome;
};

TEST_F(ToolCalls, UnknownToolNeverConnects) {
  EXPECT_EQ(failed("unknown tool open"), call("open", {{"url", "https://example.com"}}));
  EXPECT_EQ(failed("unknown tool Open_Tab"), call("Open_Tab"));
  EXPECT_EQ(0, launch.starts);
  EXPECT_EQ(0, launch.pauses);
}

TEST_F(ToolCalls, UnknownToolAfterConnectingSendsNothing) {
  auto& fake = browser();
  EXPECT_EQ(text("null"), call("list_tabs"));
  EXPECT_EQ(failed("unknown tool nope"), call("nope"));
  EXPECT_EQ(1u, fake.requests().size());
}

TEST_F(ToolCalls, MissingNameIsAnUnknownToolWithTrailingBlank) {
  for (const char* params : {R"({})", R"({"name":7})", R"({"name":null,"arguments":{}})", R"([])"}) {
    auto answer = server->handle(R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":)" +
                                std::string(params) + "}");
    ASSERT_TRUE(answer) << params;
    EXPECT_EQ(failed("unknown tool "), Json::parse(*answer).at("result")) << params;
  }
  EXPECT_EQ(0, launch.starts);
}

TEST_F(ToolCalls, FailedConnectIsATextAndTheNextCallTriesAgain) {
  EXPECT_EQ(failed("couldn't reach Nurel: is it running?"), call("list_tabs"));
  EXPECT_EQ(1, launch.starts);
  EXPECT_EQ(100, launch.pauses);
  EXPECT_EQ(failed("couldn't reach Nurel: is it running?"), call("list_tabs"));
  EXPECT_EQ(2, launch.starts);
  // Once the browser is up, the next call reaches it.
  browser({R"({"id":$id,"result":"t1"})"});
  EXPECT_EQ(text("t1"), call("list_tabs"));
  EXPECT_EQ(2, launch.starts);
}

TEST_F(ToolCalls, ConnectionMessagesNameTheBrowserByItsDataName) {
  server = std::make_unique<MCPServer>(testing::placeAt(socket, "Nurel Beta"), launch);
  EXPECT_EQ(failed("couldn't reach Nurel Beta: is it running?"), call("snapshot", {{"tab", "t1"}}));
}

TEST_F(ToolCalls, ConnectsBeforeAnArgumentIsFoundMissing) {
  // No browser: the connection is tried before the missing file is noticed.
  EXPECT_EQ(failed("couldn't reach Nurel: is it running?"), call("save_pdf", {{"tab", "t1"}}));
  EXPECT_EQ(1, launch.starts);
  auto& fake = browser();
  EXPECT_EQ(failed("file is missing: where to save the PDF"), call("save_pdf", {{"tab", "t1"}}));
  EXPECT_EQ(1, connectionsSeen(fake, 1));
  EXPECT_TRUE(fake.requests().empty());
}

TEST_F(ToolCalls, ConnectsOnceForManyCalls) {
  auto& fake = browser();
  for (int i = 0; i < 3; ++i) call("list_tabs");
  EXPECT_EQ(1, fake.connections());
  EXPECT_EQ(3u, fake.requests().size());
}

TEST_F(ToolCalls, LostConnectionConnectsAgain) {
  auto& fake = browser({"!close", R"({"id":$id,"result":"t2"})"});
  EXPECT_EQ(failed("Nurel closed the connection"), call("open_tab", {{"url", "a"}}));
  EXPECT_EQ(text("t2"), call("open_tab", {{"url", "a"}}));
  EXPECT_EQ(2, fake.connections());
  EXPECT_EQ(0, launch.starts);
}

TEST_F(ToolCalls, BrowserErrorKeepsTheConnection) {
  auto& fake = browser({R"({"id":$id,"error":"no tab t9"})", R"({"id":$id,"result":"ok"})"});
  EXPECT_EQ(failed("no tab t9"), call("close_tab", {{"tab", "t9"}}));
  EXPECT_EQ(text("ok"), call("close_tab", {{"tab", "t1"}}));
  EXPECT_EQ(1, fake.connections());
}

TEST_F(ToolCalls, UnreadableReplyIsATextAndKeepsTheConnection) {
  auto& fake = browser({"this is not json", R"({"id":$id,"result":"ok"})"});
  Json result = call("describe_page", {{"tab", "t1"}});
  EXPECT_EQ(true, result.value("isError", false));
  EXPECT_TRUE(result["content"][0]["text"].get<std::string>().starts_with(
      "couldn't read a reply from Nurel: "))
      << result;
  EXPECT_EQ(text("ok"), call("describe_page", {{"tab", "t1"}}));
  EXPECT_EQ(1, fake.connections());
}

TEST_F(ToolCalls, UnreadableReplyOfOtherBytesIsStillAnswered) {
  // The reader's message tells the bytes it stopped at, which need not be UTF-8; the answer
  // must still be one that can be written.
  auto& fake = browser({"\xff\xfe", R"({"id":$id,"result":"t1"})"});
  auto answer = server->handle(
      R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"list_tabs"}})");
  ASSERT_TRUE(answer);
  Json result = Json::parse(*answer)["result"];
  EXPECT_EQ(true, result.value("isError", false));
  std::string said = result["content"][0]["text"];
  EXPECT_TRUE(said.starts_with("couldn't read a reply from Nurel: ")) << said;
  EXPECT_EQ(text("t1"), call("list_tabs"));
  EXPECT_EQ(1, fake.connections());
}

TEST_F(ToolCalls, ArgumentsGoThroughUnchanged) {
  Json arguments = {{"tab", "t1"},
                    {"script", "return 1/2"},
                    {"intent", "why"},
                    {"limit", 3},
                    {"nested", {{"a", {1, 2.5, nullptr, true}}}}};
  browser();
  call("evaluate", arguments);
  EXPECT_EQ(arguments, sent(0));
  EXPECT_EQ("eval", Json::parse(fake->requests()[0])["method"]);
}

TEST_F(ToolCalls, ReplyIsShownAsPrinted) {
  Json reply = {{"b", 1}, {"a", "x/y"}, {"list", {1, 2}}};
  browser({Json{{"id", 1}, {"result", reply}}.dump(), R"({"id":2})", R"({"id":3,"result":12.5})"});
  EXPECT_EQ(text(printed(reply)), call("list_tabs"));
  EXPECT_EQ(text(printed(nullptr)), call("list_tabs"));
  EXPECT_EQ(text(printed(12.5)), call("list_tabs"));
}

TEST_F(ToolCalls, EveryListedToolReachesTheBrowser) {
  auto& fake = browser();
  size_t calls = 0;
  for (auto& tool : tools()) {
    std::string name = tool.at("name");
    Json result = call(name, {{"tab", "t1"}});
    EXPECT_FALSE(result.dump().find("unknown tool") != std::string::npos) << name;
    if (name != "save_pdf") ++calls;
  }
  EXPECT_EQ(calls, fake.requests().size());
}

TEST_F(ToolCalls, SavePdfSendsOnlyTheTab) {
  browser({R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ=","title":"Example"}})",
           R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ="}})",
           R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ="}})"});
  std::string file = dir.file("a.pdf");
  EXPECT_EQ(text("saved Example to " + file),
            call("save_pdf", {{"tab", "t1"}, {"file", file}, {"intent", "keep"}, {"x", 1}}));
  EXPECT_EQ((Json{{"tab", "t1"}}), sent(0));
  call("save_pdf", {{"file", file}});
  EXPECT_EQ((Json{{"tab", ""}}), sent(1));
  call("save_pdf", {{"tab", 4}, {"file", file}});
  EXPECT_EQ((Json{{"tab", 4}}), sent(2));
  EXPECT_EQ("%PDF-1.4", readFile(file));
}

TEST_F(ToolCalls, SavePdfExpandsTildeAndNamesThePageWithoutTitle) {
  browser({R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ="}})"});
  EXPECT_EQ(text("saved the page to " + dir.file("page.pdf")),
            call("save_pdf", {{"tab", "t1"}, {"file", "~/page.pdf"}}));
  EXPECT_EQ("%PDF-1.4", readFile(dir.file("page.pdf")));
}

TEST_F(ToolCalls, SavePdfTitleInPlainText) {
  browser({R"({"id":$id,"result":{"pdf":"","title":42}})"});
  EXPECT_EQ(text("saved 42 to " + dir.file("a.pdf")),
            call("save_pdf", {{"tab", "t1"}, {"file", dir.file("a.pdf")}}));
  EXPECT_EQ("", readFile(dir.file("a.pdf")));
}

TEST_F(ToolCalls, SavePdfRelativePathIsTakenFromTheCurrentFolder) {
  browser({R"({"id":$id,"result":{"pdf":"JVBERi0xLjQ=","title":"T"}})"});
  auto old = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  Json result = call("save_pdf", {{"tab", "t1"}, {"file", "page.pdf"}});
  std::filesystem::current_path(old);
  EXPECT_EQ(text("saved T to " + dir.file("page.pdf")), result);
  EXPECT_EQ("%PDF-1.4", readFile(dir.file("page.pdf")));
}

TEST_F(ToolCalls, SavePdfWithoutUsablePdfIsNoPdf) {
  auto& fake = browser({R"({"id":$id,"result":{"title":"T"}})",
                        R"({"id":$id,"result":{"pdf":"not base64!"}})",
                        R"({"id":$id,"result":{"pdf":7}})", R"({"id":$id,"result":"JVBERi0="})",
                        R"({"id":$id})"});
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(failed("no PDF"), call("save_pdf", {{"tab", "t1"}, {"file", dir.file("a.pdf")}}));
  EXPECT_EQ(5u, fake.requests().size());
  EXPECT_FALSE(std::filesystem::exists(dir.file("a.pdf")));
}

TEST_F(ToolCalls, SavePdfWithEmptyOrOtherFileIsMissing) {
  auto& fake = browser();
  for (Json file : {Json(""), Json(5), Json(nullptr)})
    EXPECT_EQ(failed("file is missing: where to save the PDF"),
              call("save_pdf", {{"tab", "t1"}, {"file", file}}));
  EXPECT_TRUE(fake.requests().empty());
}

TEST_F(ToolCalls, FileThatCannotBeWrittenIsAnError) {
  browser({R"({"id":$id,"result":{"pdf":"JVBERi0="}})", R"({"id":$id,"result":{"png":"UE5HIQ=="}})",
           R"({"id":$id,"result":"text"})"});
  std::string missing = dir.file("missing");
  for (auto [name, file] : {std::pair{"save_pdf", "/a.pdf"}, std::pair{"screenshot", "/a.png"},
                            std::pair{"get_text", "/a.txt"}})
    EXPECT_EQ(failed("couldn't write " + missing + file + ": no such file or directory"),
              call(name, {{"tab", "t1"}, {"file", missing + file}}));
  EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(ToolCalls, ScreenshotInlineIsAnImageThenRefs) {
  browser({R"({"id":$id,"result":{"png":"UE5HIQ==","refs":"e1 button \"OK\""}})",
           R"({"id":$id,"result":{"png":"UE5HIQ==","refs":""}})",
           R"({"id":$id,"result":{"png":"UE5HIQ==","refs":3}})"});
  Json image = {{"type", "image"}, {"data", "UE5HIQ=="}, {"mimeType", "image/png"}};
  Json refs = {{"type", "text"}, {"text", "e1 button \"OK\""}};
  EXPECT_EQ((Json{{"content", {image, refs}}}), call("screenshot", {{"tab", "t1"}}));
  EXPECT_EQ((Json{{"content", {image}}}), call("screenshot", {{"tab", "t1"}}));
  EXPECT_EQ((Json{{"content", {image}}}), call("screenshot", {{"tab", "t1"}}));
}

TEST_F(ToolCalls, ScreenshotInlineWithoutImageIsNotAnError) {
  browser({R"({"id":$id,"result":{"refs":"e1"}})", R"({"id":$id,"result":"x"})",
           R"({"id":$id,"result":{"png":"%%%"}})"});
  Json empty = {{"type", "image"}, {"data", ""}, {"mimeType", "image/png"}};
  EXPECT_EQ((Json{{"content", {empty, {{"type", "text"}, {"text", "e1"}}}}}),
            call("screenshot", {{"tab", "t1"}}));
  EXPECT_EQ((Json{{"content", {empty}}}), call("screenshot", {{"tab", "t1"}}));
  // Inline data is passed on as the browser sent it, unchecked.
  EXPECT_EQ((Json{{"content", {{{"type", "image"}, {"data", "%%%"}, {"mimeType", "image/png"}}}}}),
            call("screenshot", {{"tab", "t1"}}));
}

TEST_F(ToolCalls, ScreenshotNeverSendsTheFile) {
  browser();
  Json rest = {{"tab", "t1"}, {"intent", "look"}, {"full", true}, {"ref", "e4"}};
  for (Json file : {Json(""), Json(5), Json(nullptr)}) {
    Json arguments = rest;
    arguments["file"] = file;
    Json result = call("screenshot", arguments);
    EXPECT_EQ("image", result["content"][0]["type"]) << file;
  }
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(rest, sent(i));
}

TEST_F(ToolCalls, ScreenshotToFileSaysWhere) {
  browser({R"({"id":$id,"result":{"png":"iVBORw==","refs":"e1 link"}})",
           R"({"id":$id,"result":{"png":"UE5HIQ==","refs":""}})",
           R"({"id":$id,"result":{"png":"UE5HIQ=="}})"});
  std::string file = dir.file("shot.png");
  EXPECT_EQ(text("e1 link\nsaved to " + file),
            call("screenshot", {{"tab", "t1"}, {"file", file}, {"full", true}}));
  EXPECT_EQ((Json{{"tab", "t1"}, {"full", true}}), sent(0));
  EXPECT_EQ("\x89PNG", readFile(file));
  EXPECT_EQ(text("saved to " + file), call("screenshot", {{"tab", "t1"}, {"file", file}}));
  EXPECT_EQ(text("saved to " + dir.file("b.png")),
            call("screenshot", {{"tab", "t1"}, {"file", "~/b.png"}}));
  EXPECT_EQ("PNG!", readFile(file));
}

TEST_F(ToolCalls, ScreenshotToFileWithoutUsableImageIsNoScreenshot) {
  browser({R"({"id":$id,"result":{"refs":"e1"}})", R"({"id":$id,"result":{"png":"a b"}})",
           R"({"id":$id,"result":[1]})"});
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(failed("no screenshot"),
              call("screenshot", {{"tab", "t1"}, {"file", dir.file("s.png")}}));
  EXPECT_FALSE(std::filesystem::exists(dir.file("s.png")));
}

TEST_F(ToolCalls, TextToFileAsksForEverythingAndSaves) {
  browser({R"({"id":$id,"result":"a\n\nb\n"})"});
  std::string file = dir.file("page.txt");
  EXPECT_EQ(text("saved 2 lines to " + file),
            call("get_text", {{"tab", "t1"}, {"file", file}, {"limit", 50}, {"all", true}}));
  EXPECT_EQ((Json{{"tab", "t1"}, {"limit", 0}, {"all", true}}), sent(0));
  EXPECT_EQ("a\n\nb\n\n", readFile(file));
}

TEST_F(ToolCalls, EmptyOrOtherFileGoesToTheBrowserUntouched) {
  browser({R"({"id":$id,"result":"all of it"})"});
  for (Json file : {Json(""), Json(3), Json({{"p", "x"}})}) {
    Json arguments = {{"tab", "t1"}, {"file", file}};
    EXPECT_EQ(text(file == "" ? "all of it" : "null"), call("get_text", arguments));
    EXPECT_EQ(arguments, sent(size_t(id - 1)));
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(ToolCalls, AnyToolWithAFileSaves) {
  browser({R"({"id":$id,"result":{"nodes":["a/b"]}})"});
  std::string file = dir.file("snap.json");
  Json result = call("snapshot", {{"tab", "t1"}, {"file", file}});
  std::string saved = printed(Json{{"nodes", {"a/b"}}});
  EXPECT_EQ(text("saved " + std::to_string(std::count(saved.begin(), saved.end(), '\n') + 1) +
                 " lines to " + file),
            result);
  EXPECT_EQ(saved + "\n", readFile(file));
  EXPECT_EQ((Json{{"tab", "t1"}, {"limit", 0}}), sent(0));
}

}  // namespace
}  // namespace nurel
