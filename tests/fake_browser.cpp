// tests/fake_browser.cpp: the scripted fake browser.
#include "tests/fake_browser.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace nurel::testing {

namespace {

void sendAll(int fd, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t wrote = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (wrote < 1) return;
    done += size_t(wrote);
  }
}

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

// The JSON strings, separated by blanks, after a "!word " prefix.
std::vector<std::string> pieces(const std::string& rest) {
  std::vector<std::string> out;
  std::istringstream in(rest);
  while ((in >> std::ws).peek() != EOF) {
    nlohmann::json piece;
    in >> piece;
    out.push_back(piece.get<std::string>());
  }
  return out;
}

void pauseMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

}  // namespace

TempDir::TempDir() {
  char pattern[] = "/tmp/nt.XXXXXX";
  if (!mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
  dir = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
}

std::string requestID(const std::string& line) {
  auto request = nlohmann::json::parse(line, nullptr, false);
  if (!request.is_object() || !request.contains("id")) return "";
  return request["id"].dump();
}

FakeBrowser::FakeBrowser(std::vector<std::string> script)
    : own(std::make_unique<TempDir>()), path(own->file("agent.sock")), script(std::move(script)) {
  start();
}

FakeBrowser::FakeBrowser(At at, std::vector<std::string> script)
    : path(std::move(at.socket)), script(std::move(script)) {
  start();
}

int boundSocket(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  unlink(path.c_str());
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

void FakeBrowser::start() {
  listener = boundSocket(path);
  if (listener < 0 || listen(listener, 16) != 0 || pipe(wake) != 0)
    throw std::runtime_error("fake browser cannot listen on " + path);
  worker = std::thread([this] { serve(); });
}

FakeBrowser::~FakeBrowser() { stop(); }

void FakeBrowser::stop() {
  {
    std::lock_guard guard(lock);
    if (stopped) return;
    stopped = true;
  }
  if (write(wake[1], "x", 1) < 0) {
  }
  if (worker.joinable()) worker.join();
  close(listener);
  close(wake[0]);
  close(wake[1]);
  unlink(path.c_str());
}

void FakeBrowser::add(const std::string& action) {
  std::lock_guard guard(lock);
  script.push_back(action);
}

void FakeBrowser::setFallback(std::string line) {
  std::lock_guard guard(lock);
  fallback = std::move(line);
}

std::vector<std::string> FakeBrowser::requests() const {
  std::lock_guard guard(lock);
  return received;
}

bool FakeBrowser::waitFor(size_t count) const {
  std::unique_lock guard(lock);
  return arrived.wait_for(guard, std::chrono::seconds(10),
                          [&] { return received.size() >= count; });
}

std::string FakeBrowser::nextAction() {
  std::lock_guard guard(lock);
  return next < script.size() ? script[next++] : fallback;
}

// Returns false when the connection is to be closed.
bool FakeBrowser::answer(int client, const std::string& request) {
  {
    std::lock_guard guard(lock);
    received.push_back(request);
  }
  arrived.notify_all();
  std::string action = nextAction();
  replaceAll(action, "$id", requestID(request));
  if (action == "!close") return false;
  if (action == "!none") return true;
  if (action == "!exit") {
    exiting = true;
    return false;
  }
  if (action.starts_with("!bytes ")) {
    for (auto& piece : pieces(action.substr(7))) sendAll(client, piece);
  } else if (action.starts_with("!split ")) {
    bool first = true;
    for (auto& piece : pieces(action.substr(7))) {
      if (!first) pauseMs(50);
      first = false;
      sendAll(client, piece);
    }
  } else if (action.starts_with("!trickle ")) {
    for (auto& piece : pieces(action.substr(9)))
      for (char c : piece) sendAll(client, std::string(1, c));
  } else {
    sendAll(client, action + "\n");
  }
  return true;
}

void FakeBrowser::serve() {
  for (;;) {
    {
      std::lock_guard guard(lock);
      if (stopped) return;
    }
    pollfd waiting[2] = {{listener, POLLIN, 0}, {wake[0], POLLIN, 0}};
    if (poll(waiting, 2, -1) < 0) continue;
    if (waiting[1].revents) return;
    int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    ++accepted;
    std::string pending;
    bool open = true;
    while (open) {
      pollfd reading[2] = {{client, POLLIN, 0}, {wake[0], POLLIN, 0}};
      if (poll(reading, 2, -1) < 0) continue;
      if (reading[1].revents) {
        close(client);
        return;
      }
      char block[65536];
      ssize_t got = read(client, block, sizeof block);
      if (got <= 0) break;
      pending.append(block, size_t(got));
      size_t newline;
      while (open && (newline = pending.find('\n')) != std::string::npos) {
        std::string line = pending.substr(0, newline);
        pending.erase(0, newline + 1);
        open = answer(client, line);
      }
    }
    close(client);
    if (exiting) return;
  }
}

}  // namespace nurel::testing
