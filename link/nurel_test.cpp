// link/nurel_test.cpp: connecting, launching and the request/reply exchange, in process.
#include "link/nurel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <optional>
#include <string>

#include "link/places.h"
#include "tests/fake_browser.h"

namespace nurel {
namespace {

using testing::FakeBrowser;
using testing::TempDir;

// Records launches and pauses instead of starting anything or sleeping; can bring a fake
// browser up on a given pause, as a browser that takes a while to start would.
class RecordingLaunch : public Launch {
 public:
  void start(const std::string& bundle, const Json& info) override {
    starts.push_back(bundle);
    infos.push_back(info);
  }
  void pause(unsigned microseconds) override {
    pauses.push_back(microseconds);
    if (pauses.size() == upOnPause)
      browser = std::make_unique<FakeBrowser>(testing::At{upAt}, std::vector<std::string>{});
  }
  std::vector<std::string> starts;
  std::vector<Json> infos;
  std::vector<unsigned> pauses;
  size_t upOnPause = 0;
  std::string upAt;
  std::unique_ptr<FakeBrowser> browser;
};

// The link error that a call ends with; nothing when it ends any other way.
std::optional<NurelError> callFailure(Nurel& nurel) {
  try {
    nurel.call("tabs");
  } catch (const NurelError& error) {
    return error;
  }
  return std::nullopt;
}

class LinkTest : public ::testing::Test {
 protected:
  void SetUp() override { place.bundlePath = "/Applications/Nurel.app"; }
  Place place;
  RecordingLaunch launch;

  // The message of the JSON error that a call ends with, against a browser that sends `reply`;
  // empty when it ends any other way.
  std::string unreadable(const std::string& reply) {
    FakeBrowser browser({reply});
    place.socketPath = browser.socket();
    Nurel nurel(place, launch);
    nurel.connect();
    try {
      nurel.call("tabs");
    } catch (const JsonError& error) {
      return error.what();
    }
    return "";
  }
};

Json params(const std::string& line) { return Json::parse(line).at("params"); }

TEST_F(LinkTest, FirstAttemptSucceedsWithoutLaunching) {
  FakeBrowser browser({R"({"id":$id,"result":"t1"})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json("t1"), nurel.call("open", {{"url", "https://example.com"}}));
  EXPECT_TRUE(launch.starts.empty());
  EXPECT_TRUE(launch.pauses.empty());
}

TEST_F(LinkTest, LaunchesThenPollsUntilTheBrowserAnswers) {
  TempDir dir;
  place.socketPath = dir.file("late.sock");
  launch.upOnPause = 3;
  launch.upAt = place.socketPath;
  Nurel nurel(place, launch);
  nurel.connect();
  ASSERT_EQ(1u, launch.starts.size());
  EXPECT_EQ("/Applications/Nurel.app", launch.starts[0]);
  EXPECT_EQ(std::vector<unsigned>(3, 200000), launch.pauses);
  EXPECT_EQ(Json(nullptr), nurel.call("tabs"));
  EXPECT_TRUE(launch.browser->waitFor(1));
}

TEST_F(LinkTest, GivesUpAfterAHundredAttempts) {
  TempDir dir;
  place.socketPath = dir.file("nobody.sock");
  Nurel nurel(place, launch);
  try {
    nurel.connect();
    FAIL() << "connect() succeeded with nothing listening";
  } catch (const NurelError& error) {
    EXPECT_TRUE(error.isLost());
    EXPECT_EQ("couldn't reach Nurel: is it running?", error.text());
  }
  EXPECT_EQ(1u, launch.starts.size());
  EXPECT_EQ(100u, launch.pauses.size());
}

TEST_F(LinkTest, TheMessageNamesTheDataName) {
  TempDir dir;
  place.socketPath = dir.file("nobody.sock");
  place.dataName = "Nurel Beta";
  Nurel nurel(place, launch);
  try {
    nurel.connect();
    FAIL();
  } catch (const NurelError& error) {
    EXPECT_EQ("couldn't reach Nurel Beta: is it running?", error.text());
  }
}

TEST_F(LinkTest, TheLaunchIsGivenTheBundleAndItsInfo) {
  TempDir dir;
  place.socketPath = dir.file("nobody.sock");
  place.info = {{"CFBundleExecutable", "Nurel"}};
  Nurel nurel(place, launch);
  EXPECT_THROW(nurel.connect(), NurelError);
  ASSERT_EQ(1u, launch.infos.size());
  EXPECT_EQ(place.info, launch.infos[0]);
}

TEST_F(LinkTest, AnEmptySocketPathIsUsedAsItIs) {
  place.socketPath = "";
  Nurel nurel(place, launch);
  EXPECT_THROW(nurel.connect(), NurelError);
  EXPECT_EQ(1u, launch.starts.size());
  EXPECT_EQ(100u, launch.pauses.size());
}

// A socket path of `stem` (102 bytes), then `rest`, reaches the browser listening on its first
// 103 bytes, at once.
void expectCutAt103Bytes(Place place, RecordingLaunch& launch, const std::string& stem,
                         const std::string& rest) {
  ASSERT_EQ(102u, stem.size());
  FakeBrowser browser(testing::At{stem + rest.substr(0, 1)}, {});
  place.socketPath = stem + rest;
  Nurel nurel(place, launch);
  nurel.connect();
  nurel.call("tabs");
  EXPECT_TRUE(browser.waitFor(1));
  EXPECT_TRUE(launch.starts.empty());
}

std::string stemIn(const TempDir& dir) {
  std::string stem = dir.path() + "/";
  return stem + std::string(102 - stem.size(), 's');
}

TEST_F(LinkTest, LongSocketPathsAreCutAt103Bytes) {
  TempDir dir;
  expectCutAt103Bytes(place, launch, stemIn(dir), "s-and-more-bytes-beyond");
}

TEST_F(LinkTest, TheCutMayFallInsideACharacter) {
  TempDir dir;
  // "\xc3\xa9" is one character; its first byte is the 103rd of the path.
  expectCutAt103Bytes(place, launch, stemIn(dir), "\xc3\xa9-and-more");
}

TEST_F(LinkTest, ReconnectingClosesTheOldDescriptorAndDropsBufferedBytes) {
  // The first reply carries a second line after it, which stays buffered.
  FakeBrowser browser(
      {R"(!bytes "{\"id\":1,\"result\":\"first\"}\n{\"id\":2,\"result\":\"stale\"}\n")",
       R"({"id":$id,"result":"fresh"})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  int old = nurel.descriptor();
  struct stat before {};
  ASSERT_EQ(0, fstat(old, &before));
  EXPECT_EQ(Json("first"), nurel.call("tabs"));
  nurel.connect();
  EXPECT_NE(-1, nurel.descriptor());
  // The number may have been reused since (the fake browser shares this process), but not
  // for the old socket.
  struct stat after {};
  EXPECT_TRUE(fstat(old, &after) != 0 || after.st_ino != before.st_ino)
      << "the old descriptor is still open";
  EXPECT_EQ(Json("fresh"), nurel.call("tabs"));
  EXPECT_EQ(2, browser.connections());
}

TEST_F(LinkTest, AFailedConnectKeepsTheDescriptorAndTheBufferedBytes) {
  // The first reply carries a second line after it, which stays buffered.
  FakeBrowser browser(
      {R"(!bytes "{\"id\":1,\"result\":\"first\"}\n{\"id\":2,\"result\":\"buffered\"}\n")",
       R"({"id":$id,"result":"read afresh"})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  int old = nurel.descriptor();
  EXPECT_EQ(Json("first"), nurel.call("tabs"));
  // Nothing new reaches the browser once its socket is gone from the folder.
  ASSERT_EQ(0, unlink(browser.socket().c_str()));
  EXPECT_THROW(nurel.connect(), NurelError);
  EXPECT_EQ(100u, launch.pauses.size());
  EXPECT_EQ(old, nurel.descriptor());
  // The old connection still carries requests, and the buffered line answers the next one.
  EXPECT_EQ(Json("buffered"), nurel.call("tabs"));
  EXPECT_TRUE(browser.waitFor(2));
  EXPECT_EQ(1, browser.connections());
}

TEST_F(LinkTest, DestroyingALinkLeavesItsDescriptorOpen) {
  FakeBrowser browser;
  place.socketPath = browser.socket();
  int fd = -1;
  {
    Nurel nurel(place, launch);
    nurel.connect();
    fd = nurel.descriptor();
  }
  EXPECT_NE(-1, fcntl(fd, F_GETFD));
  close(fd);
}

TEST_F(LinkTest, IdsCountFromOneAndAreUsedUpByFailedCalls) {
  FakeBrowser browser({R"({"id":$id,"error":"no such tab"})", R"({"id":$id,"result":2})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_THROW(nurel.call("close", {{"tab", "t9"}}), NurelError);
  EXPECT_EQ(Json(2), nurel.call("tabs"));
  auto requests = browser.requests();
  ASSERT_EQ(2u, requests.size());
  EXPECT_EQ(1, Json::parse(requests[0])["id"]);
  EXPECT_EQ(2, Json::parse(requests[1])["id"]);
}

TEST_F(LinkTest, RequestsAreCompactLinesWithMethodAndParams) {
  FakeBrowser browser;
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  nurel.call("click", {{"tab", "t1"}, {"ref", "e5"}});
  nurel.call("tabs");
  auto requests = browser.requests();
  ASSERT_EQ(2u, requests.size());
  EXPECT_EQ(R"({"id":1,"method":"click","params":{"ref":"e5","tab":"t1"}})", requests[0]);
  EXPECT_EQ(Json::object(), params(requests[1]));
}

TEST_F(LinkTest, AReplySplitAcrossReadsIsReassembled) {
  FakeBrowser browser({R"(!split "{\"id\":1,\"res" "ult\":{\"a\":" "[1,2]}}\n")"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json({{"a", {1, 2}}}), nurel.call("tabs"));
}

TEST_F(LinkTest, TwoRepliesInOneReadAreBothKept) {
  FakeBrowser browser(
      {R"(!bytes "{\"id\":1,\"result\":\"one\"}\n{\"id\":2,\"result\":\"two\"}\n")", "!none"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json("one"), nurel.call("tabs"));
  EXPECT_EQ(Json("two"), nurel.call("tabs"));
}

TEST_F(LinkTest, AnErrorLineForAnyIdEndsTheCall) {
  FakeBrowser browser({R"({"id":1,"result":"late"})", R"({"id":7,"error":"stale trouble"})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  nurel.call("tabs");
  std::optional<NurelError> error = callFailure(nurel);
  ASSERT_TRUE(error);
  EXPECT_FALSE(error->isLost());
  EXPECT_EQ("stale trouble", error->text());
}

TEST_F(LinkTest, ANonStringErrorIsNotAnError) {
  FakeBrowser browser({R"({"id":$id,"error":{"code":1},"result":"fine"})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json("fine"), nurel.call("tabs"));
}

TEST_F(LinkTest, NoResultAndNullResultBothGiveNull) {
  FakeBrowser browser({R"({"id":$id})", R"({"id":$id,"result":null})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_TRUE(nurel.call("tabs").is_null());
  EXPECT_TRUE(nurel.call("tabs").is_null());
}

TEST_F(LinkTest, ArraysStaleIdsAndStringIdsAreSkipped) {
  FakeBrowser browser(
      {R"(!bytes "[1,2]\n{\"id\":\"1\",\"result\":\"string id\"}\n{\"id\":5,\"result\":\"stale\"}\n{\"result\":\"no id\"}\n{\"id\":1.5,\"result\":\"x\"}\n{\"id\":1,\"result\":\"mine\"}\n")"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json("mine"), nurel.call("tabs"));
}

TEST_F(LinkTest, AnEmptyLineIsADecodingError) {
  EXPECT_EQ(std::string("couldn't read a reply from Nurel: empty line where JSON was expected"),
            unreadable(R"(!bytes "\n{\"id\":1,\"result\":1}\n")"));
}

TEST_F(LinkTest, ABareNumberLineIsADecodingError) {
  EXPECT_EQ(std::string("couldn't read a reply from Nurel: JSON text that is neither an "
                        "object nor an array"),
            unreadable(R"(!bytes "42\n")"));
}

TEST_F(LinkTest, ALineThatIsNotJsonIsADecodingError) {
  std::string text = unreadable("hello there");
  EXPECT_EQ(0u, text.find("couldn't read a reply from Nurel: ")) << text;
  EXPECT_EQ(std::string::npos, text.find('\n'));
  EXPECT_EQ(std::string::npos, text.find("json.exception"));
}

TEST_F(LinkTest, ANulByteAfterTheReplyMakesTheLineUnreadable) {
  // A NUL byte does not end the line: what follows it is part of the line, and no JSON.
  EXPECT_EQ(std::string("couldn't read a reply from Nurel: syntax error while parsing value - "
                        "invalid literal; last read: '<U+0000>'; expected end of input (at byte "
                        "24)"),
            unreadable(R"(!bytes "{\"id\":1,\"result\":\"nul\"}\u0000junk\n")"));
}

TEST_F(LinkTest, TheBrowsersErrorTextKeepsItsNulBytes) {
  FakeBrowser browser({R"({"id":$id,"error":"a\u0000b"})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  std::optional<NurelError> error = callFailure(nurel);
  ASSERT_TRUE(error);
  EXPECT_EQ(std::string("a\0b", 3), error->text());
}

TEST_F(LinkTest, IntegersBeyond64BitsGoBothWaysDigitForDigit) {
  FakeBrowser browser(
      {R"(!bytes "{\"id\":18446744073709551617,\"result\":\"not mine\"}\n{\"id\":1,\"result\":{\"n\":-123456789012345678901234567890}}\n")"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  Json sent = {{"values", {{"n", largeInteger("18446744073709551616")}}}};
  EXPECT_EQ(Json({{"n", largeInteger("-123456789012345678901234567890")}}),
            nurel.call("run", sent));
  EXPECT_EQ(R"({"id":1,"method":"run","params":{"values":{"n":18446744073709551616}}})",
            browser.requests().at(0));
}

TEST_F(LinkTest, ClosingBeforeTheReplyIsALostConnection) {
  FakeBrowser browser({"!close"});
  place.socketPath = browser.socket();
  place.dataName = "Nurel Beta";
  Nurel nurel(place, launch);
  nurel.connect();
  std::optional<NurelError> error = callFailure(nurel);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->isLost());
  EXPECT_EQ("Nurel Beta closed the connection", error->text());
}

TEST_F(LinkTest, CallingWithoutConnectingFailsAtTheWrite) {
  Nurel nurel(place, launch);
  std::optional<NurelError> error = callFailure(nurel);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->isLost());
  EXPECT_EQ("lost the connection to Nurel", error->text());
}

TEST_F(LinkTest, WritingToABrowserThatHasGoneNamesTheDataName) {
  std::signal(SIGPIPE, SIG_IGN);  // as the program does at start-up
  FakeBrowser browser({"!close"});
  place.socketPath = browser.socket();
  place.dataName = "Nurel Beta";
  Nurel nurel(place, launch);
  nurel.connect();
  // The browser hangs up without answering; the next request has nobody to go to.
  EXPECT_THROW(nurel.call("tabs"), NurelError);
  std::optional<NurelError> error = callFailure(nurel);
  ASSERT_TRUE(error);
  EXPECT_TRUE(error->isLost());
  EXPECT_EQ("lost the connection to Nurel Beta", error->text());
}

TEST_F(LinkTest, CallingWithoutConnectingNamesTheDataName) {
  place.dataName = "Nurel Beta";
  Nurel nurel(place, launch);
  std::optional<NurelError> error = callFailure(nurel);
  ASSERT_TRUE(error);
  EXPECT_EQ("lost the connection to Nurel Beta", error->text());
}

TEST_F(LinkTest, AnUnreadableReplyNamesTheDataName) {
  place.dataName = "Nurel Beta";
  EXPECT_EQ(std::string("couldn't read a reply from Nurel Beta: JSON text that is neither an "
                        "object nor an array"),
            unreadable(R"(!bytes "42\n")"));
}

TEST_F(LinkTest, ParametersThatAreNotUtf8CannotBeSent) {
  FakeBrowser browser;
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_THROW(nurel.call("open", {{"url", "\xff"}}), JsonError);
  EXPECT_EQ(Json(nullptr), nurel.call("tabs"));
  ASSERT_TRUE(browser.waitFor(1));
  EXPECT_EQ(2, Json::parse(browser.requests()[0])["id"]) << "nothing was written for id 1";
}

TEST_F(LinkTest, ALongReplyArrivingInManyReadsIsOneLine) {
  std::string big(3 * 65536 + 17, 'x');
  FakeBrowser browser({R"({"id":$id,"result":")" + big + R"("})"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json(big), nurel.call("text"));
}

TEST_F(LinkTest, ALargeReplyAndTheLineAfterItAreBothKept) {
  std::string big(5 * 65536 + 3, 'x');
  std::string bytes = R"({"id":1,"result":")" + big + "\"}\n" + R"({"id":2,"result":"two"})" + "\n";
  FakeBrowser browser({"!bytes " + Json(bytes).dump(), "!none"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json(big), nurel.call("text"));
  EXPECT_EQ(Json("two"), nurel.call("tabs"));
}

TEST_F(LinkTest, AnUnreadableLargeLineIsDroppedWithItsError) {
  std::string big(5 * 65536, 'x');
  FakeBrowser browser(
      {"!bytes " + Json("[\"" + big + "\n" + R"({"id":2,"result":"two"})" + "\n").dump(), "!none"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_THROW(nurel.call("text"), JsonError);
  EXPECT_EQ(Json("two"), nurel.call("tabs"));
}

TEST_F(LinkTest, ATrickledReplyIsReassembled) {
  FakeBrowser browser({R"(!trickle "{\"id\":1,\"result\":[\"slow\"]}\n")"});
  place.socketPath = browser.socket();
  Nurel nurel(place, launch);
  nurel.connect();
  EXPECT_EQ(Json({"slow"}), nurel.call("tabs"));
}

}  // namespace
}  // namespace nurel
