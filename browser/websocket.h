// browser/websocket.h: the DevTools protocol over a WebSocket, to a browser that runs elsewhere
// (a browser pool, a Selenium Grid, a Chromium started with --remote-debugging-port).
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "browser/cdp.h"

namespace nurel::browser {

/// Header lines sent with the handshake (a pool's token, say): name and value.
using Headers = std::vector<std::pair<std::string, std::string>>;

/// Thrown when the browser cannot be reached; the text says what was tried and what went wrong,
/// never a header's value or a query string.
class ConnectError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The address itself is unusable (no ws://, wss://, http:// or https://): trying again won't
/// help.
class BadAddress : public ConnectError {
 public:
  using ConnectError::ConnectError;
};

/// The address to show for `url`: without its query, fragment or user name and password, which
/// may hold a token.
std::string shownAddress(const std::string& url);

/// A transport over one WebSocket: each message one text message. A reader thread runs its
/// input and output (receive()); send() only queues, so it never waits for the network.
class WebSocketTransport : public Transport {
 public:
  /// Connects to `url`: a ws:// or wss:// DevTools address, or an http:// or https:// one whose
  /// /json/version names it. A ws:// address of a browser that has since restarted
  /// (/devtools/browser/<id> refused) is looked up again at its host's /json/version. Throws
  /// ConnectError.
  static std::unique_ptr<WebSocketTransport> connect(const std::string& url,
                                                     const Headers& headers,
                                                     std::chrono::seconds timeout);
  ~WebSocketTransport() override;
  bool send(std::string_view message) override;
  std::string receive(const std::function<void(std::string_view)>& message) override;
  void shut() override;

  /// The WebSocket address connected to, as shown (shownAddress()).
  const std::string& address() const { return connected; }

  struct Socket;

 private:
  explicit WebSocketTransport(std::unique_ptr<Socket> socket, std::string connected);

  std::unique_ptr<Socket> socket;
  std::string connected;
};

}  // namespace nurel::browser
