// browser/server.cpp: listening on the agent socket and answering its lines.
#include "browser/server.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "browser/framing.h"

namespace nurel::browser {

namespace {

// nurel cuts socket paths at 103 bytes, so the back end listens at the same cut path.
constexpr size_t pathBytes = 103;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), pathBytes));
  return address;
}

bool answers(const std::string& path) {
  int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return false;
  sockaddr_un address = addressOf(path);
  bool connected = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(probe);
  return connected;
}

std::string folderOf(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t wrote = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    bytes.remove_prefix(size_t(wrote));
  }
  return true;
}

std::string nonEmpty(std::string text) { return text.empty() ? "failed" : text; }

}  // namespace

void makeFolders(const std::string& path) {
  for (size_t slash = 1; slash != std::string::npos;) {
    slash = path.find('/', slash + 1);
    std::string part = path.substr(0, slash);
    if (part.empty()) continue;
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
      throw std::runtime_error("couldn't make the folder " + part + ": " + std::strerror(errno));
  }
}


std::optional<std::string> respond(const Handler& handler, std::string_view line) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  if (line.find_first_not_of(" \t") == std::string_view::npos) return std::nullopt;
  Json request;
  try {
    request = parseDocument(line);
  } catch (const std::exception&) {
    return std::nullopt;  // no id can be read from it
  }
  if (!request.is_object()) return std::nullopt;
  auto id = request.find("id");
  if (id == request.end()) return std::nullopt;
  Json reply = {{"id", *id}};
  auto method = request.find("method");
  if (method == request.end() || !method->is_string() || method->get_ref<const std::string&>().empty()) {
    reply["error"] = "the request has no method";
  } else {
    auto params = request.find("params");
    static const Json none = Json::object();
    try {
      reply["result"] = handler(method->get<std::string>(),
                                params != request.end() && params->is_object() ? *params : none);
    } catch (const std::exception& error) {
      reply["error"] = nonEmpty(error.what());
    } catch (...) {
      reply["error"] = "failed";
    }
  }
  std::string text = compactRepaired(reply);
  text.push_back('\n');
  return text;
}

Server::Server(Handler handler, std::string socketPath, std::chrono::milliseconds idle)
    : handler(std::move(handler)), socketPath(std::move(socketPath)), idle(idle),
      lastActive(std::chrono::steady_clock::now()) {}

Server::~Server() { close(); }

void Server::close() {
  if (listener >= 0) {
    ::close(listener);
    listener = -1;
    unlink(socketPath.substr(0, pathBytes).c_str());
  }
  if (lock >= 0) {
    ::close(lock);
    lock = -1;
  }
}

void Server::blockSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

void Server::listen() {
  if (socketPath.empty()) throw std::runtime_error("NUREL_SOCKET is empty: no socket to listen on");
  std::string path = socketPath.substr(0, pathBytes);
  std::string folder = folderOf(path);
  struct stat existing;
  bool made = stat(folder.c_str(), &existing) != 0;
  makeFolders(folder);
  if (made) chmod(folder.c_str(), 0700);
  // One back end per socket: the lock is held for the process's life and goes with it, however
  // it ends, so a socket left behind by a killed one is known to be stale.
  std::string lockPath = path + ".lock";
  lock = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock < 0)
    throw std::runtime_error("couldn't open " + lockPath + ": " + std::strerror(errno));
  if (flock(lock, LOCK_EX | LOCK_NB) != 0 || answers(path))
    throw std::runtime_error("another browser already answers on " + path);
  unlink(path.c_str());
  listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) throw std::runtime_error(std::string("couldn't make a socket: ") + std::strerror(errno));
  sockaddr_un address = addressOf(path);
  // Made 0600 from the start: no moment in which another user could connect.
  mode_t old = umask(0177);
  int bound = bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
  umask(old);
  if (bound != 0 || ::listen(listener, 64) != 0) {
    std::string why = std::strerror(errno);
    ::close(listener);
    listener = -1;
    throw std::runtime_error("couldn't listen on " + path + ": " + why);
  }
}

void Server::touch() {
  std::lock_guard<std::mutex> guard(activity);
  lastActive = std::chrono::steady_clock::now();
}

std::string Server::run() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  int signals = signalfd(-1, &set, SFD_CLOEXEC);
  for (;;) {
    pollfd watch[2] = {{listener, POLLIN, 0}, {signals, POLLIN, 0}};
    int ready = poll(watch, 2, 1000);
    if (ready < 0 && errno != EINTR) return std::string("poll failed: ") + std::strerror(errno);
    if (ready > 0 && watch[1].revents) {
      signalfd_siginfo info;
      [[maybe_unused]] ssize_t got = read(signals, &info, sizeof info);
      ::close(signals);
      return "stopped by signal " + std::to_string(info.ssi_signo);
    }
    if (ready > 0 && (watch[0].revents & POLLIN)) {
      int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection >= 0) {
        ucred peer;
        socklen_t size = sizeof peer;
        // Only this user's programs may drive this user's browser.
        if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
            peer.uid != getuid()) {
          ::close(connection);
          continue;
        }
        {
          std::lock_guard<std::mutex> guard(activity);
          ++connections;
          lastActive = std::chrono::steady_clock::now();
        }
        std::thread([this, connection] { serve(connection); }).detach();
      }
    }
    std::lock_guard<std::mutex> guard(activity);
    if (connections == 0 && busy == 0 && std::chrono::steady_clock::now() - lastActive >= idle) {
      ::close(signals);
      return "idle";
    }
  }
}

void Server::serve(int connection) {
  Framing framing('\n', maxRequest);
  std::string block(65536, '\0');
  bool open = true;
  while (open) {
    ssize_t got = recv(connection, block.data(), block.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    bool fits = framing.feed(std::string_view(block.data(), size_t(got)), [&](std::string_view line) {
      if (!open) return;
      {
        std::lock_guard<std::mutex> guard(activity);
        ++busy;
      }
      std::optional<std::string> reply = respond(handler, line);
      {
        std::lock_guard<std::mutex> guard(activity);
        --busy;
        lastActive = std::chrono::steady_clock::now();
      }
      if (reply && !writeAll(connection, *reply)) open = false;
    });
    if (!fits) break;  // a line over the limit: this connection only
  }
  ::close(connection);
  std::lock_guard<std::mutex> guard(activity);
  --connections;
  lastActive = std::chrono::steady_clock::now();
}

}  // namespace nurel::browser
