// tests/fake_browser.h: a scripted stand-in for the browser, listening on a Unix socket.
//
// It records every request line it receives and answers the n-th request with the n-th
// scripted action. Actions are written as text, one per line, so that the same scripts serve
// unit tests, transcripts and the standalone `nurel_fake_browser` program:
//
//   {"id":$id,"result":"t1"}    a line sent as it stands plus "\n"; $id becomes the request's id
//   !bytes "..."                these bytes exactly (a JSON string: "\n" and friends allowed)
//   !split "..." "..." ...      each piece in a write of its own, 50 ms apart
//   !trickle "..."              one byte per write
//   !close                      hang up without answering (the next request comes on a new
//                               connection)
//   !none                       send nothing, keep reading
//   !exit                       hang up and stop listening
//
// When the script runs out, each request gets {"id":<id>,"result":null}, or the `fallback`.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "link/places.h"

namespace nurel::testing {

/// A fresh, short temporary folder (socket paths are cut at 103 bytes), removed at the end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return dir; }
  std::string file(const std::string& name) const { return dir + "/" + name; }

 private:
  std::string dir;
};

/// The place of a browser that listens on `socket`, outside any bundle.
inline Place placeAt(std::string socket, std::string dataName = "Nurel") {
  Place place;
  place.socketPath = std::move(socket);
  place.dataName = std::move(dataName);
  return place;
}

/// A Unix stream socket bound to `path` (any file there is replaced), not yet listening; -1
/// when it cannot be made.
int boundSocket(const std::string& path);

/// Where a FakeBrowser listens, when the test chooses: `FakeBrowser browser(At{path}, {});`.
struct At {
  std::string socket;
};

class FakeBrowser {
 public:
  /// Listens on `at.socket` (created fresh) and serves on a thread of its own.
  FakeBrowser(At at, std::vector<std::string> script);
  /// Listens on "<dir>/agent.sock" in a fresh temporary folder.
  explicit FakeBrowser(std::vector<std::string> script = {});
  ~FakeBrowser();
  FakeBrowser(const FakeBrowser&) = delete;
  FakeBrowser& operator=(const FakeBrowser&) = delete;

  const std::string& socket() const { return path; }
  /// Appends actions to the script.
  void add(const std::string& action);
  /// The answer to requests beyond the script; "$id" is replaced.
  void setFallback(std::string line);
  /// Every request line received so far, in order, without its line feed.
  std::vector<std::string> requests() const;
  /// Waits (up to 10 s) until `count` requests have arrived; false on time-out.
  bool waitFor(size_t count) const;
  /// Connections accepted so far.
  int connections() const { return accepted; }
  /// Whether a !exit action has ended the service.
  bool finished() const { return exiting; }
  /// Stops listening and joins the thread.
  void stop();

 private:
  void start();
  void serve();
  bool answer(int client, const std::string& request);
  std::string nextAction();

  std::unique_ptr<TempDir> own;
  std::string path;
  int listener = -1;
  int wake[2] = {-1, -1};
  std::thread worker;
  mutable std::mutex lock;
  mutable std::condition_variable arrived;
  std::vector<std::string> script;
  size_t next = 0;
  std::string fallback = R"({"id":$id,"result":null})";
  std::vector<std::string> received;
  std::atomic<int> accepted{0};
  bool stopped = false;
  std::atomic<bool> exiting{false};
};

/// The id of a request line, as text ("7"), or "" when it has none.
std::string requestID(const std::string& line);

}  // namespace nurel::testing
