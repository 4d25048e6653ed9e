// tests/http_server.h: a small HTTP server on 127.0.0.1 for the pages the browser tests load.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace nurel::testing {

struct Response {
  int status = 200;
  std::string type = "text/html; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;
  int delayMilliseconds = 0;  // before the answer
  bool hang = false;          // never answer (until the server stops)
};

class HttpServer {
 public:
  /// Serves `route(path)` for every request, where path includes the query.
  explicit HttpServer(std::function<Response(const std::string& path)> route);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  int port() const { return bound; }
  /// "http://127.0.0.1:<port>" + path.
  std::string url(const std::string& path) const;

 private:
  void serve(int connection);

  std::function<Response(const std::string&)> route;
  int listener = -1;
  int bound = 0;
  std::atomic<bool> stopping{false};
  std::mutex lock;
  std::condition_variable stopped;
  std::vector<std::thread> threads;
  std::thread acceptor;
};

/// A socket listening on a free port of 127.0.0.1, which goes in `port`; throws when it can't.
int listenOnLoopback(int& port);

/// A port on 127.0.0.1 on which nothing listens.
int closedPort();

}  // namespace nurel::testing
