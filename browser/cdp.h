// browser/cdp.h: the DevTools protocol over one transport: commands matched to their replies by
// id, events handed on with the session they belong to.
//
// Any thread may call(); one reader thread takes messages off the transport. An event is given
// to the listener on the reader thread, so listeners only record and wake, never call().
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include "link/json.h"

namespace nurel::browser {

/// Where DevTools messages come from and go to: a pipe to a child Chromium (PipeTransport), or
/// a WebSocket to a browser elsewhere (WebSocketTransport).
class Transport {
 public:
  virtual ~Transport() = default;
  /// Sends one whole message; false when the other end is gone. Called under a lock: one
  /// message at a time.
  virtual bool send(std::string_view message) = 0;
  /// Reads until the other end goes away, handing on each whole message in order; returns
  /// what ended it ("Chromium closed the pipe").
  virtual std::string receive(const std::function<void(std::string_view)>& message) = 0;
  /// Makes receive() return soon, from any thread.
  virtual void shut() = 0;

  /// Messages larger than this end the transport: a full-page screenshot of a long page is the
  /// largest thing Chromium sends.
  static constexpr size_t maxMessage = size_t(1) << 30;
};

/// An error the browser answered a command with ("No node with given id found").
class CdpError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The browser went away, or did not answer in time; the text says which, for the agent.
class BrowserLost : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// No answer came in the time allowed; the browser may still be there.
class NoAnswer : public BrowserLost {
 public:
  using BrowserLost::BrowserLost;
};

class Cdp {
 public:
  /// `event(method, params, sessionId)` for each event; `closed(reason)` once, when the
  /// transport ends. Both run on the reader thread.
  using EventListener = std::function<void(const std::string&, const Json&, const std::string&)>;
  using ClosedListener = std::function<void(const std::string&)>;

  Cdp(std::unique_ptr<Transport> transport, EventListener event, ClosedListener closed);
  ~Cdp();
  Cdp(const Cdp&) = delete;
  Cdp& operator=(const Cdp&) = delete;

  /// Sends a command (to the session, when one is named) and waits for its result. Throws
  /// CdpError with the browser's message, BrowserLost when the transport ends first or no
  /// answer comes within `timeout`.
  Json call(const std::string& method, const Json& params = Json::object(),
            const std::string& session = {},
            std::chrono::milliseconds timeout = std::chrono::seconds(30));

  /// Sends the commands one after another without waiting, then waits for all their answers
  /// (one round trip for them all, where call() pays one each): their results, in order.
  /// Throws as call() does, for the first that failed; `timeout` is for them all.
  using Command = std::pair<std::string, Json>;
  std::vector<Json> callAll(const std::vector<Command>& commands, const std::string& session = {},
                            std::chrono::milliseconds timeout = std::chrono::seconds(30));

  /// Sends a command and forgets it: its answer is dropped.
  void post(const std::string& method, const Json& params = Json::object(),
            const std::string& session = {});

  /// False once the transport has ended.
  bool alive() const { return open.load(); }
  /// What ended the transport ("the browser closed the connection"), empty while it runs.
  std::string ending();
  /// Shuts the transport and waits for its reader to finish; calls in flight end BrowserLost.
  void end();

  struct Pending;
  /// Sends a command whose answer is waited for with wait(), for a caller that may stop
  /// waiting early. Throws BrowserLost.
  std::shared_ptr<Pending> start(const std::string& method, const Json& params = Json::object(),
                                 const std::string& session = {});
  /// True once the command is answered (throwing CdpError or BrowserLost for a failure), false
  /// when `most` ran out first.
  bool wait(const std::shared_ptr<Pending>& pending, std::chrono::milliseconds most);
  /// No longer waits for that answer.
  void forget(const std::shared_ptr<Pending>& pending);

  struct Pending {
    int64_t id = 0;
    bool done = false;
    bool refused = false;  // the browser answered with an error
    bool lost = false;     // the transport ended first
    Json result;
    std::string error;
  };

 private:
  int64_t send(const std::string& method, const Json& params, const std::string& session,
               std::shared_ptr<Pending> pending);
  void dispatch(std::string_view message);
  void read();

  std::unique_ptr<Transport> transport;
  EventListener event;
  ClosedListener closed;
  std::atomic<bool> open{true};
  std::string endedBy;

  std::mutex lock;  // guards pending, nextID, endedBy and the transport's send()
  std::condition_variable answered;
  std::map<int64_t, std::shared_ptr<Pending>> pending;
  int64_t nextID = 1;
  std::thread reader;
};

}  // namespace nurel::browser
