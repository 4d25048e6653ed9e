// tests/http_server.cpp: the test pages' HTTP server.
#include "tests/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace nurel::testing {

int listenOnLoopback(int& port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error("socket failed");
  int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 64) != 0)
    throw std::runtime_error("couldn't listen on 127.0.0.1");
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  port = ntohs(address.sin_port);
  return fd;
}

namespace {

const char* reason(int status) {
  switch (status) {
    case 200: return "OK";
    case 204: return "No Content";
    case 302: return "Found";
    case 404: return "Not Found";
    case 500: return "Internal Server Error";
    default: return "Status";
  }
}

}  // namespace

HttpServer::HttpServer(std::function<Response(const std::string&)> route) : route(std::move(route)) {
  listener = listenOnLoopback(bound);
  acceptor = std::thread([this] {
    while (!stopping) {
      pollfd watch{listener, POLLIN, 0};
      if (poll(&watch, 1, 100) <= 0) continue;
      int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) continue;
      std::lock_guard<std::mutex> guard(lock);
      threads.emplace_back([this, connection] { serve(connection); });
    }
  });
}

HttpServer::~HttpServer() {
  stopping = true;
  stopped.notify_all();
  acceptor.join();
  std::vector<std::thread> running;
  {
    std::lock_guard<std::mutex> guard(lock);
    running.swap(threads);
  }
  for (auto& thread : running) thread.join();
  close(listener);
}

std::string HttpServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(bound) + path;
}

void HttpServer::serve(int connection) {
  // One request per connection, then close: enough for a browser's page loads.
  std::string head;
  char block[4096];
  while (head.find("\r\n\r\n") == std::string::npos && !stopping) {
    pollfd watch{connection, POLLIN, 0};
    if (poll(&watch, 1, 100) <= 0) continue;
    ssize_t got = read(connection, block, sizeof block);
    if (got <= 0) break;
    head.append(block, size_t(got));
  }
  size_t space = head.find(' ');
  size_t second = space == std::string::npos ? space : head.find(' ', space + 1);
  if (second == std::string::npos) {
    close(connection);
    return;
  }
  Response response = route(head.substr(space + 1, second - space - 1));
  std::unique_lock<std::mutex> guard(lock);
  if (response.hang) {
    stopped.wait(guard, [&] { return stopping.load(); });
  } else if (response.delayMilliseconds > 0) {
    stopped.wait_for(guard, std::chrono::milliseconds(response.delayMilliseconds),
                     [&] { return stopping.load(); });
  }
  guard.unlock();
  if (!response.hang) {
    std::string reply = "HTTP/1.1 " + std::to_string(response.status) + " " +
                        reason(response.status) + "\r\nContent-Type: " + response.type +
                        "\r\nContent-Length: " + std::to_string(response.body.size()) +
                        "\r\nCache-Control: no-store\r\nConnection: close\r\n";
    for (auto& [name, value] : response.headers) reply += name + ": " + value + "\r\n";
    reply += "\r\n" + response.body;
    size_t done = 0;
    while (done < reply.size()) {
      ssize_t wrote = send(connection, reply.data() + done, reply.size() - done, MSG_NOSIGNAL);
      if (wrote <= 0) break;
      done += size_t(wrote);
    }
  }
  // Closing with unread bytes would reset the connection and could cut the answer short: say
  // we are done, then wait for the browser to close its end.
  shutdown(connection, SHUT_WR);
  for (int waits = 0; waits < 50 && !stopping; ++waits) {
    pollfd watch{connection, POLLIN, 0};
    if (poll(&watch, 1, 100) == 0) continue;
    if (read(connection, block, sizeof block) <= 0) break;
  }
  close(connection);
}

int closedPort() {
  int port = 0;
  int fd = listenOnLoopback(port);
  close(fd);
  return port;
}

}  // namespace nurel::testing
