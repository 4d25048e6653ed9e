// browser/remote.h: a browser that runs elsewhere (a browser pool, a Selenium Grid, a Chromium
// started with --remote-debugging-port), reached through its DevTools WebSocket.
//
// The WebSocket code, with Boost.Beast and OpenSSL, is a module of its own (nurel-websocket.so
// in the bundle's PlugIns), loaded the first time a remote browser is asked for: a back end that
// starts its own Chromium never maps OpenSSL, which would cost it about 1.7 MiB resident.
#pragma once

#include <chrono>
#include <memory>
#include <stdexcept>
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

/// Trying again won't help: the address itself is unusable (no ws://, wss://, http:// or
/// https://), or the WebSocket module can't be loaded.
class BadAddress : public ConnectError {
 public:
  using ConnectError::ConnectError;
};

/// The address to show for `url`: without its query, fragment or user name and password, which
/// may hold a token.
std::string shownAddress(const std::string& url);

/// A connection to a remote browser, and the WebSocket address it reached, as shown.
struct Remote {
  std::unique_ptr<Transport> transport;
  std::string address;
};

/// Connects to `url`: a ws:// or wss:// DevTools address, or an http:// or https:// one whose
/// /json/version names it, with the WebSocket module at `modulePath`. Throws ConnectError, or
/// BadAddress.
Remote openRemote(const std::string& url, const Headers& headers, std::chrono::seconds timeout,
                  const std::string& modulePath);

}  // namespace nurel::browser
