// tests/session.cpp: a program driven line by line, and a browser scripted by hand.
#include "tests/session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tests/run_nurel.h"

extern char** environ;

namespace nurel::testing {

Session::Session(const std::string& program, const std::vector<std::string>& arguments,
                 const std::string& socket) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  int err = open(dir.file("stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (err < 0) throw std::runtime_error("cannot open the file for standard error");
  pid = startProgram(program, arguments, withSocket(socket), in[0], out[1], err);
  close(err);
  close(in[0]);
  close(out[1]);
  input = in[1];
  output = out[0];
}

Session::Session(const std::string& socket) : Session(NUREL_BINARY, {"mcp"}, socket) {}

Session::~Session() {
  if (pid > 0) {
    kill(pid, SIGKILL);
    finish();
  }
}

void Session::send(const std::string& line) {
  std::string bytes = line + "\n";
  for (size_t done = 0; done < bytes.size();) {
    ssize_t wrote = write(input, bytes.data() + done, bytes.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 1) return;
    done += size_t(wrote);
  }
}

std::optional<std::string> Session::next() {
  if (output < 0) return std::nullopt;
  return nextLine(output, pending, std::chrono::minutes(1));
}

void Session::stopReading() {
  if (output >= 0) close(output);
  output = -1;
}

int Session::finish() {
  if (input >= 0) close(input);
  input = -1;
  if (output >= 0) {
    char block[65536];
    for (ssize_t got; (got = read(output, block, sizeof block)) != 0;) {
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) break;
      pending.append(block, size_t(got));
    }
    close(output);
    output = -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  pid = -1;
  if (WIFSIGNALED(status)) killedBy = WTERMSIG(status);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Session::errors() const { return readFile(dir.file("stderr")).value_or(""); }

HandMadeBrowser::HandMadeBrowser(Serve serve) : path(dir.file("agent.sock")) {
  listener = boundSocket(path);
  if (listener < 0 || listen(listener, 4) != 0)
    throw std::runtime_error("cannot listen on " + path);
  worker = std::thread([this, serve = std::move(serve)] {
    for (int connection = 0;; ++connection) {
      int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;  // the listener was shut down
      serve(client, connection);
      close(client);
    }
  });
}

HandMadeBrowser::~HandMadeBrowser() {
  // Shutting a listening socket down wakes the accept() that waits on it.
  shutdown(listener, SHUT_RDWR);
  worker.join();
  close(listener);
}

std::string readRequest(int fd) {
  std::string line;
  char c;
  while (read(fd, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

bool sendBytes(int fd, std::string_view bytes) {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t wrote = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 1) return false;
    done += size_t(wrote);
  }
  return true;
}

std::optional<std::string> nextLine(int fd, std::string& buffer, std::chrono::milliseconds most) {
  auto end = std::chrono::steady_clock::now() + most;
  for (;;) {
    size_t newline = buffer.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffer.substr(0, newline);
      buffer.erase(0, newline + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd watch{fd, POLLIN, 0};
    if (poll(&watch, 1, int(left.count())) <= 0) continue;
    char block[65536];
    ssize_t got = read(fd, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    buffer.append(block, size_t(got));
  }
}

std::string toolCall(const std::string& id, const std::string& tool, const std::string& arguments) {
  return R"({"jsonrpc":"2.0","id":)" + id + R"(,"method":"tools/call","params":{"name":")" + tool +
         R"(","arguments":)" + arguments + "}}";
}

}  // namespace nurel::testing
