// tests/browser_fixture.h: what the tests against real Chromium share: one HTTP server for
// their pages on 127.0.0.1, one back end started through the bundle, and ways to find a back
// end's processes.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/fake_browser.h"
#include "tests/http_server.h"
#include "tests/run_nurel.h"

namespace nurel::testing {

using Env = std::map<std::string, std::optional<std::string>>;

/// A back end: a socket, a data folder, and the environment nurel starts it with. The first
/// command through it starts the back end; the destructor stops it.
class BackEnd {
 public:
  explicit BackEnd(const Env& extra = {});
  ~BackEnd();
  BackEnd(const BackEnd&) = delete;
  BackEnd& operator=(const BackEnd&) = delete;

  std::string socket() const { return dir.file("run/agent.sock"); }
  std::string file(const std::string& name) const { return dir.file(name); }
  /// Runs the bundled nurel with this back end's environment.
  Outcome nurel(const std::vector<std::string>& arguments) const;
  /// The tab id that `open` answered (its first word).
  std::string open(const std::string& url) const;

  RunOptions options;

 private:
  TempDir dir;
};

/// A Chromium with its DevTools on a port of 127.0.0.1, as a browser pool runs one, with the
/// switches and the name rules of the back ends' own. Started by the constructor.
class RemoteChromium {
 public:
  RemoteChromium();
  ~RemoteChromium();
  RemoteChromium(const RemoteChromium&) = delete;
  RemoteChromium& operator=(const RemoteChromium&) = delete;

  /// "ws://127.0.0.1:<port>/devtools/browser/<id>", as its DevToolsActivePort says.
  std::string webSocketURL() const { return "ws://127.0.0.1:" + std::to_string(port) + path; }
  /// "http://127.0.0.1:<port>", whose /json/version names the WebSocket.
  std::string httpURL() const { return "http://127.0.0.1:" + std::to_string(port); }
  int portNumber() const { return port; }
  pid_t pid() const { return child; }
  /// Kills it and its helpers.
  void kill();
  /// Starts it (again): on any free port the first time, then on the same one.
  void start();
  /// Its targets of type page, as /json/list gives them (a few words each, for messages).
  std::vector<std::string> pages() const;

 private:
  TempDir dir;
  pid_t child = -1;
  int port = 0;
  std::string path;
};

/// True when the tests run over the WebSocket transport (NUREL_TEST_TRANSPORT=websocket, the
/// ctest browser.websocket): every back end then drives one shared RemoteChromium through
/// NUREL_CDP_URL instead of starting its own Chromium.
bool overWebSocket();
/// The shared remote Chromium, when overWebSocket().
RemoteChromium& sharedRemote();

/// The back end the tests share, each in tabs of its own.
BackEnd& shared();
/// The address of a test page: "http://127.0.0.1:<port>" + path.
std::string url(const std::string& path);
/// The same pages from another origin of the same site ("http://127.0.0.1:<another port>"),
/// which Chromium keeps in the page's process...
std::string otherOrigin(const std::string& path);
/// ...and from another site ("http://localhost:<port>"), which it puts in a process of its own.
std::string otherSite(const std::string& path);
/// Serves `html` at `path` (before the built-in pages), for the rest of the run.
void servePage(const std::string& path, const std::string& html);
/// Serves `response` at `path`, likewise.
void serve(const std::string& path, const Response& response);

/// The ref on the snapshot line that holds `part`, or "".
std::string refOn(const std::string& snapshot, const std::string& part);

std::string fileText(const std::string& path);
std::string readWhole(int fd);
int connectTo(const std::string& path);
/// Width and height of a PNG, from its header.
std::pair<uint32_t, uint32_t> pngSize(const std::string& png);
/// The nurel-browser serving `socket`, or -1.
pid_t backEnd(const std::string& socket);
/// The Chromium a back end started, or -1.
pid_t chromiumOf(pid_t backEndPid);
bool alive(pid_t pid);

/// What runs for a back end that has served a command: the nurel-browser, and the Chromium it
/// started (-1 when it drives a remote browser).
struct Processes {
  pid_t back = -1;
  pid_t chromium = -1;
};
Processes processesOf(const BackEnd& place);
/// Expects the back end of `running` gone within `most`, then its Chromium, and the socket of
/// `place` with them.
void expectGone(const BackEnd& place, const Processes& running,
                std::chrono::milliseconds most = std::chrono::seconds(20));

/// Waits for a condition up to `most` (a guard against hanging, not a speed test).
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds most = std::chrono::seconds(20)) {
  auto end = std::chrono::steady_clock::now() + most;
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

}  // namespace nurel::testing
