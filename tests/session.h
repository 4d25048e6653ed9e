// tests/session.h: a running `nurel mcp` (or any program) that a test talks to line by line,
// and a stand-in browser whose every connection the test scripts by hand.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/fake_browser.h"

namespace nurel::testing {

/// A child process with pipes on its standard input and output; standard error goes to a
/// file that `errors()` reads.
class Session {
 public:
  /// Starts `program` with `arguments`, with NUREL_SOCKET set to `socket`.
  Session(const std::string& program, const std::vector<std::string>& arguments,
          const std::string& socket);
  /// Starts the built `nurel mcp` talking to `socket`.
  explicit Session(const std::string& socket);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// Writes `line` and a line feed to the program's standard input.
  void send(const std::string& line);
  /// The next line of standard output, without its line feed; nothing when the output ends or
  /// no line comes within a minute (a hang, not a time limit on the program).
  std::optional<std::string> next();
  /// Closes the reading end of the program's standard output, as a host that goes away does.
  void stopReading();
  /// Ends standard input, reads whatever output is left and waits for the exit status (-1
  /// when a signal ended the program; `signal()` says which).
  int finish();
  int signal() const { return killedBy; }
  /// What the program wrote to standard error.
  std::string errors() const;
  /// What `finish()` read after the last line taken with `next()`.
  const std::string& rest() const { return pending; }

 private:
  TempDir dir;
  pid_t pid = -1;
  int input = -1;
  int output = -1;
  std::string pending;
  int killedBy = 0;
};

/// A browser whose connections the test serves itself: `serve(client, n)` runs on the
/// browser's thread for the n-th accepted connection (from 0), and the connection is closed
/// when it returns.
class HandMadeBrowser {
 public:
  using Serve = std::function<void(int client, int connection)>;
  explicit HandMadeBrowser(Serve serve);
  ~HandMadeBrowser();
  HandMadeBrowser(const HandMadeBrowser&) = delete;
  HandMadeBrowser& operator=(const HandMadeBrowser&) = delete;
  const std::string& socket() const { return path; }

 private:
  TempDir dir;
  std::string path;
  int listener = -1;
  std::thread worker;
};

/// Reads one request line from `fd`, without its line feed ("" when the peer hangs up).
std::string readRequest(int fd);
/// Writes all of `bytes` to `fd`, ignoring a peer that has gone; whether all were written.
bool sendBytes(int fd, std::string_view bytes);
/// The next line from `fd`, without its line feed, through `buffer`, which keeps what was read
/// past the line; nothing when the stream ends or no line comes within `most`.
std::optional<std::string> nextLine(int fd, std::string& buffer, std::chrono::milliseconds most);

/// A JSON-RPC tools/call line.
std::string toolCall(const std::string& id, const std::string& tool, const std::string& arguments);

}  // namespace nurel::testing
