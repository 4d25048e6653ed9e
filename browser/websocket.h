// browser/websocket.h: the DevTools protocol over a WebSocket, to a browser that runs elsewhere.
// Built into the WebSocket module (websocket_module.cpp), never into the back end itself.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "browser/cdp.h"
#include "browser/remote.h"

namespace nurel::browser {

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
