// bench/browser.cpp: the benchmarks' fake browser.
#include "bench/browser.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace bench {

int64_t now() {
  timespec at{};
  clock_gettime(CLOCK_MONOTONIC, &at);
  return int64_t(at.tv_sec) * 1000000000 + at.tv_nsec;
}

Browser::Browser(std::string socket) : path(std::move(socket)) {
  rest = std::make_shared<const std::string>(",\"result\":null}\n");
  listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long");
  std::memcpy(address.sun_path, path.c_str(), path.size());
  unlink(path.c_str());
  if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) ||
      listen(listener, 64))
    throw std::runtime_error("cannot listen on " + path);
  worker = std::thread([this] { serve(); });
}

Browser::~Browser() {
  stopping = true;
  shutdown(listener, SHUT_RDWR);
  worker.join();
  stopClients();
  close(listener);
  unlink(path.c_str());
}

void Browser::stopClients() {
  std::unique_lock<std::mutex> guard(lock);
  for (int client : clients) shutdown(client, SHUT_RDWR);
  ended.wait(guard, [this] { return clients.empty(); });
}

void Browser::answerWith(std::string text) {
  auto fresh = std::make_shared<const std::string>(std::move(text));
  std::lock_guard<std::mutex> guard(lock);
  rest = std::move(fresh);
}

void Browser::serve() {
  while (!stopping) {
    int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (stopping) return;
      continue;
    }
    std::lock_guard<std::mutex> guard(lock);
    clients.push_back(client);
    std::thread([this, client] {
      converse(client);
      std::lock_guard<std::mutex> guard(lock);
      std::erase(clients, client);
      close(client);
      ended.notify_all();
    }).detach();
  }
}

void Browser::converse(int client) {
  std::vector<char> block(65536);
  std::string pending;
  for (;;) {
    ssize_t got = read(client, block.data(), block.size());
    if (got < 1) return;
    pending.append(block.data(), size_t(got));
    size_t start = 0;
    for (size_t newline; (newline = pending.find('\n', start)) != std::string::npos;
         start = newline + 1)
      if (!reply(client, std::string_view(pending).substr(start, newline - start))) return;
    pending.erase(0, start);
  }
}

bool Browser::reply(int client, std::string_view request) {
  // Requests are compact JSON objects, so the id is the number after the first "id":.
  std::string id = "null";
  if (auto at = request.find("\"id\":"); at != std::string_view::npos) {
    size_t end = at + 5;
    while (end < request.size() &&
           (request[end] == '-' || (request[end] >= '0' && request[end] <= '9')))
      ++end;
    id = std::string(request.substr(at + 5, end - at - 5));
  }
  std::shared_ptr<const std::string> text;
  {
    std::lock_guard<std::mutex> guard(lock);
    text = rest;
  }
  std::string head = "{\"id\":" + id;
  iovec pieces[2] = {{head.data(), head.size()}, {const_cast<char*>(text->data()), text->size()}};
  replyStart = now();
  size_t total = head.size() + text->size();
  int index = 0;
  for (size_t sent = 0; sent < total;) {
    ssize_t wrote = writev(client, pieces + index, 2 - index);
    if (wrote < 1) return false;
    sent += size_t(wrote);
    for (size_t left = size_t(wrote); left > 0 && index < 2;) {
      size_t take = std::min(left, pieces[index].iov_len);
      pieces[index].iov_base = static_cast<char*>(pieces[index].iov_base) + take;
      pieces[index].iov_len -= take;
      left -= take;
      if (pieces[index].iov_len == 0) ++index;
    }
  }
  ++count;
  return true;
}

}  // namespace bench
