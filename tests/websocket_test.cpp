// tests/websocket_test.cpp: nurel-browser driving a Chromium it didn't start, through the
// DevTools WebSocket (NUREL_CDP_URL), as it drives a browser of a pool: by ws:// and by
// http://, through that browser going away and coming back, and addresses that are wrong. These
// run in the ctest browser.websocket, where the rest of the suite runs over a WebSocket too.
#include <gtest/gtest.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "tests/browser_fixture.h"

namespace nurel::testing {
namespace {

using namespace std::chrono_literals;

#define ONLY_OVER_WEBSOCKET()                                                    \
  if (!overWebSocket()) GTEST_SKIP() << "runs in the ctest browser.websocket"

// The ref that a snapshot gives the line holding `what`.
std::string refOf(const std::string& snapshot, const std::string& what) {
  size_t line = snapshot.find(what);
  if (line == std::string::npos) return {};
  size_t ref = snapshot.find("[ref=", line);
  size_t end = snapshot.find(']', ref);
  if (ref == std::string::npos || end == std::string::npos) return {};
  return snapshot.substr(ref + 5, end - ref - 5);
}

bool hasPage(const RemoteChromium& chromium, const std::string& address) {
  auto pages = chromium.pages();
  return std::find(pages.begin(), pages.end(), address) != pages.end();
}

// Takes the requests that come to a port of 127.0.0.1, one connection at a time, and hangs up
// on each without an answer once its head has come.
class Listener {
 public:
  Listener() : fd(listenOnLoopback(port)) {}
  ~Listener() { close(fd); }
  // The head of the next request.
  std::string next() {
    int client = accept(fd, nullptr, nullptr);
    std::string head;
    char block[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
      ssize_t got = read(client, block, sizeof block);
      if (got <= 0) break;
      head.append(block, size_t(got));
      if (head[0] != 'G') break;  // not HTTP: a TLS greeting, say
    }
    close(client);
    return head;
  }
  int port = 0;  // before fd, which sets it
  int fd = -1;
};

TEST(WebSocket, ByWsAndByHttpTheRemoteBrowserIsDrivenAndLeftRunning) {
  ONLY_OVER_WEBSOCKET();
  RemoteChromium chromium;
  servePage("/remote", R"html(<title>Remote</title><h1>Far away</h1>
    <button onclick="document.querySelector('p').textContent = 'Clicked from afar'">Press</button>
    <p>Not yet</p>)html");
  for (const std::string& address : {chromium.webSocketURL(), chromium.httpURL()}) {
    SCOPED_TRACE(address);
    BackEnd place(Env{{"NUREL_CDP_URL", address}});
    std::string tab = place.open(url("/remote"));
    ASSERT_EQ(tab, "t1");
    Outcome snapshot = place.nurel({"snapshot", tab});
    EXPECT_NE(snapshot.out.find("heading \"Far away\""), std::string::npos) << snapshot.out;
    std::string ref = refOf(snapshot.out, "button \"Press\"");
    ASSERT_FALSE(ref.empty()) << snapshot.out;
    Outcome click = place.nurel({"click", tab, ref, "--intent", "Pressing the button"});
    EXPECT_EQ(click.status, 0) << click.err;
    EXPECT_NE(place.nurel({"text", tab}).out.find("Clicked from afar"), std::string::npos);
    Outcome shot = place.nurel({"screenshot", tab, "--file", place.file("remote.png")});
    EXPECT_EQ(shot.status, 0) << shot.err;
    EXPECT_EQ(pngSize(fileText(place.file("remote.png"))).first, 1280u);
    EXPECT_TRUE(hasPage(chromium, url("/remote")));
    // Leaving, the back end closes its tabs there and nothing more.
    pid_t back = backEnd(place.socket());
    ASSERT_GT(back, 0);
    kill(back, SIGTERM);
    EXPECT_TRUE(eventually([&] { return !alive(back); }));
    EXPECT_TRUE(eventually([&] { return !hasPage(chromium, url("/remote")); }));
    EXPECT_TRUE(alive(chromium.pid()));
  }
}

TEST(WebSocket, AScreenshotOfTensOfMiBComesWhole) {
  ONLY_OVER_WEBSOCKET();
  // Noise does not compress: 1280 x 5000 px of it is about 19 MiB of PNG, 26 MiB of base64.
  servePage("/noise", R"html(<title>Noise</title><body style="margin:0">
    <canvas width=1280 height=5000></canvas><script>
    const canvas = document.querySelector('canvas'), context = canvas.getContext('2d');
    const image = context.createImageData(1280, 5000);
    for (let i = 0; i < image.data.length; i++)
      image.data[i] = i % 4 == 3 ? 255 : Math.random() * 256;
    context.putImageData(image, 0, 0);
    </script></body>)html");
  std::string tab = shared().open(url("/noise"));
  Outcome shot = shared().nurel({"screenshot", tab, "--full", "--plain", "--file", shared().file("noise.png")});
  EXPECT_EQ(shot.status, 0) << shot.err;
  std::string png = fileText(shared().file("noise.png"));
  EXPECT_GT(png.size(), size_t(16) << 20);
  EXPECT_EQ(pngSize(png), std::make_pair(1280u, 5000u));
  shared().nurel({"close", tab});
}

TEST(WebSocket, TheRemoteBrowserKilledAndStartedAgainIsSurvived) {
  ONLY_OVER_WEBSOCKET();
  RemoteChromium chromium;
  std::string port = std::to_string(chromium.portNumber());
  // The ws:// address names this Chromium's browser id; the one started again has another.
  BackEnd place(Env{{"NUREL_CDP_URL", chromium.webSocketURL()}});
  std::string tab = place.open(url("/"));
  ASSERT_EQ(tab, "t1");
  auto inFlight = std::async(std::launch::async, [&] {
    return place.nurel({"eval", tab, "document.title = 'waiting'; await new Promise(() => {})"});
  });
  ASSERT_TRUE(eventually([&] {
    return place.nurel({"eval", tab, "return document.title"}).out == "waiting\n";
  }));
  chromium.kill();
  Outcome lost = inFlight.get();
  EXPECT_EQ(lost.status, 1);
  EXPECT_EQ(lost.err.rfind("lost the browser at ws://127.0.0.1:" + port + "/devtools/browser/", 0), 0u)
      << lost.err;
  EXPECT_NE(lost.err.find("the next request connects again"), std::string::npos) << lost.err;
  // While it is away, each request says what was tried and when it is tried again.
  Outcome away = place.nurel({"open", url("/")});
  EXPECT_EQ(away.status, 1);
  EXPECT_EQ(away.err.rfind("couldn't reach the browser at ws://127.0.0.1:" + port + "/devtools/browser/", 0), 0u)
      << away.err;
  EXPECT_NE(away.err.find(": connection refused; trying again in "), std::string::npos) << away.err;
  chromium.start();
  ASSERT_EQ(std::to_string(chromium.portNumber()), port);
  Outcome back;
  EXPECT_TRUE(eventually([&] {
    back = place.nurel({"open", url("/second")});
    return back.status == 0;
  }, 30s)) << back.err;
  EXPECT_EQ(back.out, "t2 " + url("/second") + " \"Second\"\n");
  EXPECT_EQ(place.nurel({"text", tab}).err, "no tab t1\n");
  EXPECT_NE(place.nurel({"snapshot", "t2"}).out.find("The second page"), std::string::npos);
}

TEST(WebSocket, AWrongAddressSaysWhatWasTried) {
  ONLY_OVER_WEBSOCKET();
  std::string nothing = "ws://127.0.0.1:" + std::to_string(closedPort()) + "/devtools/browser/x";
  // The back end tries as it starts, so the first request may find part of the wait gone.
  auto retrying = [](std::string error) {
    size_t again = error.find("; trying again in ");
    if (again != std::string::npos && error.size() > 3 && error.compare(error.size() - 3, 3, " s\n") == 0)
      error = error.substr(0, again) + "; trying again in …\n";
    return error;
  };
  auto errorOf = [&](const Env& env) {
    BackEnd place(env);
    return retrying(place.nurel({"open", url("/")}).err);
  };
  EXPECT_EQ(errorOf({{"NUREL_CDP_URL", nothing}}),
            "couldn't reach the browser at " + nothing + ": connection refused; trying again in …\n");
  EXPECT_EQ(errorOf({{"NUREL_CDP_URL", url("")}}),
            "couldn't reach the browser at " + url("") +
                ": its /json/version answered HTTP 404; trying again in …\n");
  std::string notSocket = "ws" + url("/nowhere").substr(4);
  EXPECT_EQ(errorOf({{"NUREL_CDP_URL", notSocket}}),
            "couldn't reach the browser at " + notSocket +
                ": it answered the WebSocket handshake with HTTP 404; trying again in …\n");
  EXPECT_EQ(errorOf({{"NUREL_CDP_URL", "gopher://127.0.0.1/?token=s3cret"}}),
            "the browser address gopher://127.0.0.1/?… won't do: it isn't a ws://, wss://, http:// "
            "or https:// address\n");
  EXPECT_EQ(errorOf({{"NUREL_CDP_HEADERS", "Authorization Bearer s3cret"}}),
            "NUREL_CDP_HEADERS: line 1 isn't a header (Name: value, one a line)\n");

  // --cdp says the same as NUREL_CDP_URL.
  BackEnd flagged(Env{{"NUREL_CDP_URL", std::nullopt}});
  RunOptions options = flagged.options;
  options.env["NUREL_SOCKET"] = flagged.socket();
  int null = open("/dev/null", O_RDWR);
  pid_t started = startProgram(NUREL_BROWSER_BINARY, {"--cdp", nothing}, options, null, null, null);
  close(null);
  ASSERT_TRUE(eventually([&] { return connectTo(flagged.socket()) >= 0; }));
  EXPECT_EQ(retrying(runProgram(NUREL_BINARY, {"open", url("/")}, options).err),
            "couldn't reach the browser at " + nothing + ": connection refused; trying again in …\n");
  kill(started, SIGTERM);
  waitpid(started, nullptr, 0);
  EXPECT_EQ(runProgram(NUREL_BROWSER_BINARY, {"--cdp"}, options).err,
            "nurel-browser: --cdp needs a browser's DevTools address\n");
}

TEST(WebSocket, WithoutItsModuleTheBackEndSaysSoAndStillAnswers) {
  ONLY_OVER_WEBSOCKET();
  std::string nothing = "ws://127.0.0.1:" + std::to_string(closedPort()) + "/devtools/browser/x";
  BackEnd place;
  // A bundle of nurel-browser alone, its PlugIns folder as each case leaves it.
  std::string bundle = place.file("Nurel.app/Contents"), plugIns = bundle + "/PlugIns";
  std::filesystem::create_directories(bundle + "/MacOS");
  std::filesystem::create_directories(plugIns);
  std::filesystem::copy_file(NUREL_BROWSER_BINARY, bundle + "/MacOS/nurel-browser");
  std::string module = plugIns + "/nurel-websocket.so";
  Dl_info libc{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&::strlen), &libc), 0);
  auto errorOf = [&](const std::function<void()>& prepare) {
    std::filesystem::remove(module);
    prepare();
    RunOptions options = place.options;
    options.env["NUREL_CDP_URL"] = std::nullopt;
    int null = open("/dev/null", O_RDWR);
    pid_t started = startProgram(bundle + "/MacOS/nurel-browser", {"--cdp", nothing}, options,
                                 null, null, null);
    close(null);
    EXPECT_TRUE(eventually([&] { return connectTo(place.socket()) >= 0; }));
    std::string error = runProgram(NUREL_BINARY, {"open", url("/")}, options).err;
    // Not retried: the same again at once, and the back end still answers what needs no browser.
    EXPECT_EQ(runProgram(NUREL_BINARY, {"open", url("/")}, options).err, error);
    EXPECT_EQ(runProgram(NUREL_BINARY, {"tabs"}, options).out, "no tabs\n");
    kill(started, SIGTERM);
    waitpid(started, nullptr, 0);
    return error;
  };
  std::string start = "couldn't reach the browser at " + nothing + ": nurel-browser's WebSocket module ";
  EXPECT_EQ(errorOf([] {}), start + "couldn't be loaded: " + module +
                                ": cannot open shared object file: No such file or directory\n");
  EXPECT_EQ(errorOf([&] { writeTestFile(module, std::string(4096, 'x')); }),
            start + "couldn't be loaded: " + module + ": invalid ELF header\n");
  // A library, but not the module: libc, which is loaded already.
  EXPECT_EQ(errorOf([&] { std::filesystem::create_symlink(libc.dli_fname, module); }),
            start + module + " is of another version\n");
}

TEST(WebSocket, HeadersGoWithEveryHandshakeAndAreNeverShown) {
  ONLY_OVER_WEBSOCKET();
  Listener listener;
  std::string at = "127.0.0.1:" + std::to_string(listener.port);
  Env env = {{"NUREL_CDP_HEADERS", "Authorization: Bearer s3cret-token\n\nX-Pool:  blue \n"}};
  for (std::string scheme : {"http", "ws", "wss"}) {
    SCOPED_TRACE(scheme);
    env["NUREL_CDP_URL"] = scheme + "://" + at + "/chromium?token=s3cret-query";
    BackEnd place(env);
    auto answer = std::async(std::launch::async, [&] { return place.nurel({"open", url("/")}); });
    std::string head = listener.next();
    Outcome failed = answer.get();
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err.find("s3cret"), std::string::npos) << failed.err;
    EXPECT_EQ(failed.err.rfind("couldn't reach the browser at " + scheme + "://" + at + "/chromium?…: ", 0), 0u)
        << failed.err;
    if (scheme == "wss") {
      EXPECT_NE(failed.err.find(": TLS: "), std::string::npos) << failed.err;
      continue;  // what came was a TLS greeting
    }
    EXPECT_NE(head.find("\r\nAuthorization: Bearer s3cret-token\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find("\r\nX-Pool: blue\r\n"), std::string::npos) << head;
    EXPECT_NE(head.find(scheme == "http" ? "GET /chromium/json/version?token=s3cret-query HTTP/1.1\r\n"
                                         : "GET /chromium?token=s3cret-query HTTP/1.1\r\n"),
              std::string::npos)
        << head;
  }
}

}  // namespace
}  // namespace nurel::testing
