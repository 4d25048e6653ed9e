// browser/server.h: the agent socket: one JSON request per line in, one reply per line out.
//
// Any number of connections at once, each on a thread of its own and answered in order, so
// that a long request on one never holds up another.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "link/json.h"

namespace nurel::browser {

/// Does one request: returns its result or throws (the exception's text is the error).
using Handler = std::function<Json(const std::string& method, const Json& params)>;

/// The reply line (with its line feed) to one request line, or nothing when the line gets no
/// answer: empty, not JSON, or no id to answer to. Never throws.
std::optional<std::string> respond(const Handler& handler, std::string_view line);

/// The longest request line; a longer one closes its connection.
inline constexpr size_t maxRequest = size_t(64) << 20;

class Server {
 public:
  /// `idle`: exit after this long with no connection and no request.
  Server(Handler handler, std::string socketPath, std::chrono::milliseconds idle);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Takes the socket: makes its folder (0700), refuses when another back end serves it,
  /// replaces a stale one. Throws std::runtime_error with the line to show.
  void listen();

  /// Serves until SIGTERM or SIGINT or the idle time; returns what ended it. Those signals must
  /// be blocked in every thread before any is started (blockSignals()).
  std::string run();

  /// Stops listening and removes the socket.
  void close();

  /// Blocks SIGTERM, SIGINT and SIGHUP in the calling thread and the ones it starts later.
  static void blockSignals();

 private:
  void serve(int connection);
  void touch();

  Handler handler;
  std::string socketPath;
  std::chrono::milliseconds idle;
  int listener = -1, lock = -1;

  std::mutex activity;  // guards the three below
  int connections = 0;
  int busy = 0;
  std::chrono::steady_clock::time_point lastActive;
};

/// Makes a folder and those it is in (mode 0700), as `mkdir -p`; throws std::runtime_error
/// naming the one it couldn't make.
void makeFolders(const std::string& path);

}  // namespace nurel::browser
