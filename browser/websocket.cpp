// browser/websocket.cpp: the DevTools protocol over a WebSocket (Boost.Beast), plain or over
// TLS, and the /json/version look-up that names a browser's WebSocket.
#include "browser/websocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <cctype>
#include <deque>
#include <mutex>
#include <optional>
#include <type_traits>

#include "link/json.h"

namespace nurel::browser {

namespace beast = boost::beast;
namespace net = boost::asio;
namespace ssl = boost::asio::ssl;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using tcp = boost::asio::ip::tcp;
using boost::system::error_code;
using Clock = std::chrono::steady_clock;

namespace {

// One step of connecting went wrong: the text says how, for after "couldn't reach …: ".
struct Step : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// The server answered the WebSocket handshake with something other than an upgrade.
struct Declined : Step {
  explicit Declined(unsigned status) : Step("it answered the WebSocket handshake with HTTP " + std::to_string(status)), status(status) {}
  unsigned status;
};

struct Address {
  std::string scheme, host, port, target;  // target: the path and query
  bool secure() const { return scheme == "wss" || scheme == "https"; }
  bool web() const { return scheme == "http" || scheme == "https"; }
  // The Host header: the port only when it isn't the scheme's own.
  std::string hostHeader() const {
    std::string name = host.find(':') != std::string::npos ? "[" + host + "]" : host;
    return port == (secure() ? "443" : "80") ? name : name + ":" + port;
  }
};

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

// Splits a URL; throws Step when it isn't one we can use.
Address parse(const std::string& url) {
  size_t colon = url.find("://");
  Address address;
  if (colon != std::string::npos) address.scheme = lowered(url.substr(0, colon));
  if (address.scheme != "ws" && address.scheme != "wss" && !address.web())
    throw Step("it isn't a ws://, wss://, http:// or https:// address");
  std::string rest = url.substr(colon + 3);
  rest = rest.substr(0, rest.find('#'));
  size_t slash = rest.find_first_of("/?");
  std::string authority = rest.substr(0, slash);
  address.target = slash == std::string::npos ? "/" : rest.substr(slash);
  if (address.target[0] == '?') address.target.insert(0, "/");
  if (authority.find('@') != std::string::npos)
    throw Step("a user name and password go in NUREL_CDP_HEADERS (Authorization: Basic …), "
               "not in the address");
  if (!authority.empty() && authority[0] == '[') {
    size_t close = authority.find(']');
    if (close == std::string::npos) throw Step("its host isn't a whole IPv6 address");
    address.host = authority.substr(1, close - 1);
    if (close + 1 < authority.size()) {
      if (authority[close + 1] != ':') throw Step("it has something after its IPv6 host");
      address.port = authority.substr(close + 2);
    }
  } else {
    size_t portColon = authority.rfind(':');
    address.host = authority.substr(0, portColon);
    if (portColon != std::string::npos) address.port = authority.substr(portColon + 1);
  }
  if (address.host.empty()) throw Step("it names no host");
  if (address.port.empty()) address.port = address.secure() ? "443" : "80";
  if (address.port.find_first_not_of("0123456789") != std::string::npos || address.port.size() > 5)
    throw Step("its port isn't a number");
  return address;
}

// An error code as the end of a line: "connection refused".
std::string told(const error_code& error, std::chrono::seconds timeout) {
  if (error == beast::error::timeout || error == net::error::timed_out)
    return "no answer in " + std::to_string(timeout.count()) + " s";
  std::string text = error.message();
  if (!text.empty()) text[0] = char(std::tolower(static_cast<unsigned char>(text[0])));
  return text;
}

// Runs `io` until `finished`, calling `cancel` (which must end the operation) at `deadline`.
void await(net::io_context& io, const bool& finished, Clock::time_point deadline,
           const std::function<void()>& cancel) {
  io.restart();
  while (!finished) {
    if (io.run_one_until(deadline) > 0) continue;
    if (finished || io.stopped()) break;
    cancel();
    io.restart();
    while (!finished && io.run_one() > 0) {
    }
    break;
  }
}

// Opens `stream` (a TCP stream, or TLS over one) to `address`: name resolved, connected, and
// for TLS the handshake done with the host's certificate checked. Throws Step.
template <class Stream>
void openStream(net::io_context& io, Stream& stream, const Address& address,
                Clock::time_point deadline, std::chrono::seconds timeout) {
  tcp::resolver resolver(io);
  bool finished = false, late = false;
  error_code failed;
  tcp::resolver::results_type found;
  resolver.async_resolve(address.host, address.port,
                         [&](error_code error, tcp::resolver::results_type results) {
                           failed = error;
                           found = std::move(results);
                           finished = true;
                         });
  await(io, finished, deadline, [&] {
    late = true;
    resolver.cancel();
  });
  if (late) throw Step("its name didn't resolve in " + std::to_string(timeout.count()) + " s");
  if (failed) throw Step(told(failed, timeout));
  auto& connection = beast::get_lowest_layer(stream);
  connection.expires_at(deadline);
  finished = false;
  connection.async_connect(found, [&](error_code error, const tcp::endpoint&) {
    failed = error;
    finished = true;
  });
  await(io, finished, Clock::time_point::max(), [] {});
  if (failed) throw Step(told(failed, timeout));
  connection.socket().set_option(tcp::no_delay(true));
  if constexpr (!std::is_same_v<Stream, beast::tcp_stream>) {
    if (!SSL_set_tlsext_host_name(stream.native_handle(), address.host.c_str()))
      throw Step("couldn't name the host for TLS");
    stream.set_verify_mode(ssl::verify_peer);
    stream.set_verify_callback(ssl::host_name_verification(address.host));
    finished = false;
    stream.async_handshake(ssl::stream_base::client, [&](error_code error) {
      failed = error;
      finished = true;
    });
    await(io, finished, Clock::time_point::max(), [] {});
    if (failed) throw Step("TLS: " + told(failed, timeout));
  }
}

ssl::context clientContext() {
  ssl::context context(ssl::context::tls_client);
  context.set_default_verify_paths();
  context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                      ssl::context::no_sslv3 | ssl::context::no_tlsv1 |
                      ssl::context::no_tlsv1_1);
  return context;
}

// The /json/version of an http:// or https:// address, which names the browser's WebSocket.
template <class Stream>
std::string askVersion(Stream& stream, net::io_context& io, const Address& address,
                       const Headers& headers, Clock::time_point deadline,
                       std::chrono::seconds timeout) {
  openStream(io, stream, address, deadline, timeout);
  // The path, with /json/version after it unless it ends so, then the query as it came.
  size_t question = address.target.find('?');
  std::string target = address.target.substr(0, question);
  std::string query = question == std::string::npos ? "" : address.target.substr(question);
  while (!target.empty() && target.back() == '/') target.pop_back();
  if (target.size() < 13 || target.compare(target.size() - 13, 13, "/json/version") != 0)
    target += "/json/version";
  std::string path = target;
  target += query;
  http::request<http::empty_body> request(http::verb::get, target, 11);
  request.set(http::field::host, address.hostHeader());
  request.set(http::field::user_agent, "nurel-browser");
  for (auto& [name, value] : headers) request.set(name, value);
  bool finished = false;
  error_code failed;
  http::async_write(stream, request, [&](error_code error, size_t) {
    failed = error;
    finished = true;
  });
  await(io, finished, Clock::time_point::max(), [] {});
  if (failed) throw Step(told(failed, timeout));
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> response;
  response.body_limit(1 << 20);
  finished = false;
  http::async_read(stream, buffer, response, [&](error_code error, size_t) {
    failed = error;
    finished = true;
  });
  await(io, finished, Clock::time_point::max(), [] {});
  if (failed) throw Step("reading its " + path + ": " + told(failed, timeout));
  auto& answer = response.get();
  if (answer.result_int() != 200)
    throw Step("its " + path + " answered HTTP " + std::to_string(answer.result_int()));
  try {
    Json version = Json::parse(answer.body());
    auto named = version.find("webSocketDebuggerUrl");
    if (named != version.end() && named->is_string() && !named->get<std::string>().empty())
      return named->get<std::string>();
  } catch (const Json::exception&) {
    throw Step("its " + path + " isn't JSON");
  }
  throw Step("its " + path + " names no webSocketDebuggerUrl");
}

std::string lookUp(const Address& address, const Headers& headers, Clock::time_point deadline,
                   std::chrono::seconds timeout) {
  net::io_context io;
  if (address.secure()) {
    ssl::context context = clientContext();
    beast::ssl_stream<beast::tcp_stream> stream(io, context);
    return askVersion(stream, io, address, headers, deadline, timeout);
  }
  beast::tcp_stream stream(io);
  return askVersion(stream, io, address, headers, deadline, timeout);
}

}  // namespace

// The connection, whatever it runs over; its input and output run on `io`, in the thread that
// runs receive().
struct WebSocketTransport::Socket {
  virtual ~Socket() = default;
  virtual void read(std::function<void(error_code)> done) = 0;
  virtual void write(const std::string& message, std::function<void(error_code)> done) = 0;
  virtual void close(std::function<void(error_code)> done) = 0;
  // Closes the TCP connection at once: every operation on it ends.
  virtual void drop() = 0;

  void writeNext() {
    writing = true;
    write(queue.front(), [this](error_code error) {
      queue.pop_front();
      if (error) {
        queue.clear();
        writing = false;
        drop();
      } else if (queue.empty()) {
        writing = false;
      } else {
        writeNext();
      }
    });
  }

  net::io_context io;
  beast::flat_buffer buffer;
  std::deque<std::string> queue;  // messages to write, on io's thread only
  bool writing = false;
  bool closing = false;  // shut() asked for the end
  std::optional<net::steady_timer> closeTimer;
  std::mutex lock;  // guards live
  bool live = true;  // false once receive() has ended
};

namespace {

template <class Next>
struct SocketOver : WebSocketTransport::Socket {
  SocketOver() : ws(io) {}
  explicit SocketOver(ssl::context&& context) : tls(std::move(context)), ws(io, *tls) {}
  ~SocketOver() override {
    // Ends what is still under way, so that no handler outlives the stream.
    drop();
    io.restart();
    io.run();
  }

  void read(std::function<void(error_code)> done) override {
    ws.async_read(buffer, [done = std::move(done)](error_code error, size_t) { done(error); });
  }
  void write(const std::string& message, std::function<void(error_code)> done) override {
    ws.async_write(net::buffer(message),
                   [done = std::move(done)](error_code error, size_t) { done(error); });
  }
  void close(std::function<void(error_code)> done) override {
    ws.async_close(websocket::close_code::normal, std::move(done));
  }
  void drop() override {
    if (closeTimer) closeTimer->cancel();
    error_code ignored;
    auto& socket = beast::get_lowest_layer(ws).socket();
    if (socket.is_open()) {
      socket.shutdown(tcp::socket::shutdown_both, ignored);
      socket.close(ignored);
    }
  }

  // Connects and shakes hands; throws Step (Declined when the server answers with a status).
  void open(const Address& address, const Headers& headers, Clock::time_point deadline,
            std::chrono::seconds timeout) {
    openStream(io, ws.next_layer(), address, deadline, timeout);
    ws.set_option(websocket::stream_base::decorator([headers](websocket::request_type& request) {
      request.set(http::field::user_agent, "nurel-browser");
      for (auto& [name, value] : headers) request.set(name, value);
    }));
    ws.read_message_max(maxMessageSize);
    ws.auto_fragment(false);
    ws.text(true);
    websocket::response_type response;
    bool finished = false;
    error_code failed;
    ws.async_handshake(response, address.hostHeader(), address.target, [&](error_code error) {
      failed = error;
      finished = true;
    });
    await(io, finished, Clock::time_point::max(), [] {});
    if (failed == websocket::error::upgrade_declined) throw Declined(response.result_int());
    if (failed) throw Step(told(failed, timeout));
    // From here on the connection has no deadline; a peer that vanishes without a word is
    // found by TCP keep-alive within about half a minute.
    auto& connection = beast::get_lowest_layer(ws);
    connection.expires_never();
    auto& socket = connection.socket();
    error_code ignored;
    socket.set_option(net::socket_base::keep_alive(true), ignored);
    int idle = 15, interval = 5, count = 3;
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof idle);
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof interval);
    setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_KEEPCNT, &count, sizeof count);
  }

  static constexpr size_t maxMessageSize = Transport::maxMessage;
  std::optional<ssl::context> tls;
  websocket::stream<Next> ws;
};

std::unique_ptr<WebSocketTransport::Socket> openSocket(const Address& address,
                                                       const Headers& headers,
                                                       Clock::time_point deadline,
                                                       std::chrono::seconds timeout) {
  if (address.secure()) {
    auto socket = std::make_unique<SocketOver<beast::ssl_stream<beast::tcp_stream>>>(clientContext());
    socket->open(address, headers, deadline, timeout);
    return socket;
  }
  auto socket = std::make_unique<SocketOver<beast::tcp_stream>>();
  socket->open(address, headers, deadline, timeout);
  return socket;
}

}  // namespace

WebSocketTransport::WebSocketTransport(std::unique_ptr<Socket> socket, std::string connected)
    : socket(std::move(socket)), connected(std::move(connected)) {}

WebSocketTransport::~WebSocketTransport() = default;

std::unique_ptr<WebSocketTransport> WebSocketTransport::connect(const std::string& url,
                                                                const Headers& headers,
                                                                std::chrono::seconds timeout) {
  auto deadline = Clock::now() + timeout;
  std::string tried = shownAddress(url);
  auto failure = [&](const std::string& why) {
    return ConnectError("couldn't reach the browser at " + tried + ": " + why);
  };
  Address address;
  try {
    address = parse(url);
  } catch (const Step& why) {
    throw BadAddress("the browser address " + tried + " won't do: " + why.what());
  }
  std::string socketURL = url;
  try {
    if (address.web()) {
      socketURL = lookUp(address, headers, deadline, timeout);
      tried = shownAddress(socketURL) + " (named by " + tried + ")";
      address = parse(socketURL);
      if (address.web()) throw Step("that isn't a WebSocket address");
    }
    try {
      return std::unique_ptr<WebSocketTransport>(new WebSocketTransport(
          openSocket(address, headers, deadline, timeout), shownAddress(socketURL)));
    } catch (const Declined& declined) {
      // A Chromium started again on the same port has a new browser id: its host's
      // /json/version names it.
      if (declined.status != 404 || address.target.rfind("/devtools/browser/", 0) != 0) throw;
      Address version = address;
      version.scheme = address.secure() ? "https" : "http";
      version.target = "/json/version";
      std::string fresh;
      try {
        fresh = lookUp(version, headers, deadline, timeout);
      } catch (const Step&) {
        throw declined;
      }
      tried += " (then " + shownAddress(fresh) + ", which its host's /json/version names)";
      address = parse(fresh);
      if (address.web()) throw Step("that isn't a WebSocket address");
      return std::unique_ptr<WebSocketTransport>(new WebSocketTransport(
          openSocket(address, headers, deadline, timeout), shownAddress(fresh)));
    }
  } catch (const Step& why) {
    throw failure(why.what());
  }
}

bool WebSocketTransport::send(std::string_view message) {
  {
    std::lock_guard<std::mutex> guard(socket->lock);
    if (!socket->live) return false;
  }
  net::post(socket->io, [connection = socket.get(), text = std::string(message)]() mutable {
    connection->queue.push_back(std::move(text));
    if (!connection->writing) connection->writeNext();
  });
  return true;
}

std::string WebSocketTransport::receive(const std::function<void(std::string_view)>& message) {
  std::string ended;
  Socket& connection = *socket;
  std::function<void()> readNext = [&] {
    connection.read([&](error_code error) {
      if (error) {
        if (connection.closing)
          ended = "the back end closed the connection";
        else if (error == websocket::error::closed || error == net::error::eof)
          ended = "the browser closed the connection";
        else if (error == websocket::error::message_too_big)
          ended = "the browser sent a message over 1 GiB";
        else
          ended = "the connection to the browser broke: " + told(error, std::chrono::seconds(0));
        connection.drop();
        return;
      }
      auto data = connection.buffer.cdata();
      message(std::string_view(static_cast<const char*>(data.data()), data.size()));
      connection.buffer.consume(connection.buffer.size());
      // A screenshot's tens of MiB are not kept for the next small message.
      if (connection.buffer.capacity() > (size_t(8) << 20)) connection.buffer.shrink_to_fit();
      readNext();
    });
  };
  readNext();
  connection.io.restart();
  connection.io.run();
  std::lock_guard<std::mutex> guard(connection.lock);
  connection.live = false;
  return ended;
}

void WebSocketTransport::shut() {
  {
    std::lock_guard<std::mutex> guard(socket->lock);
    if (!socket->live) return;
  }
  net::post(socket->io, [connection = socket.get()] {
    if (connection->closing) return;
    connection->closing = true;
    // A close handshake, as the protocol asks; a browser that doesn't answer it in a second
    // is cut off.
    connection->closeTimer.emplace(connection->io, std::chrono::seconds(1));
    connection->closeTimer->async_wait([connection](error_code error) {
      if (!error) connection->drop();
    });
    connection->close([connection](error_code error) {
      if (error) connection->drop();
    });
  });
}

}  // namespace nurel::browser
