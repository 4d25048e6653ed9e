// bench/process.cpp: spawning programs, feeding them and reading their lines.
#include "bench/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "bench/browser.h"

extern char** environ;

namespace bench {

namespace {

int devNull() {
  static int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  return fd;
}

// Descriptors well above 0..3, so that dup2 onto 0, 1 and 3 never meets itself.
int high(int fd) {
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 64);
  close(fd);
  return moved;
}

struct Prepared {
  std::vector<std::string> argv, env;
  std::vector<char*> argvp, envp;

  explicit Prepared(const Launch& launch) {
    if (!launch.runner.empty()) argv.push_back(launch.runner);
    argv.insert(argv.end(), launch.argv.begin(), launch.argv.end());
    for (char** entry = environ; *entry; ++entry) {
      std::string pair = *entry;
      bool replaced = false;
      for (auto& added : launch.env)
        replaced |= pair.compare(0, added.find('=') + 1, added, 0, added.find('=') + 1) == 0;
      if (!replaced) env.push_back(pair);
    }
    env.insert(env.end(), launch.env.begin(), launch.env.end());
    for (auto& text : argv) argvp.push_back(text.data());
    argvp.push_back(nullptr);
    for (auto& text : env) envp.push_back(text.data());
    envp.push_back(nullptr);
  }
};

pid_t spawn(Prepared& prepared, int in, int out, int report) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in, 0);
  posix_spawn_file_actions_adddup2(&actions, out, 1);
  posix_spawn_file_actions_adddup2(&actions, devNull(), 2);
  if (report >= 0) posix_spawn_file_actions_adddup2(&actions, report, 3);
  pid_t pid = -1;
  int error = posix_spawn(&pid, prepared.argvp[0], &actions, nullptr, prepared.argvp.data(),
                          prepared.envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) throw std::runtime_error("cannot start " + prepared.argv[0]);
  return pid;
}

}  // namespace

int64_t timeRun(const Launch& launch) {
  Prepared prepared(launch);
  int64_t start = now();
  pid_t pid = spawn(prepared, devNull(), devNull(), -1);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  int64_t stop = now();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? stop - start : -1;
}

Child::Child(const Launch& launch) {
  Prepared prepared(launch);
  int in[2] = {devNull(), -1}, out[2] = {-1, devNull()}, rep[2] = {-1, -1};
  if (launch.pipes) {
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC)) throw std::runtime_error("pipe");
    in[0] = high(in[0]);
    out[1] = high(out[1]);
    input = in[1];
    output = out[0];
  }
  if (!launch.runner.empty()) {
    if (pipe2(rep, O_CLOEXEC)) throw std::runtime_error("pipe");
    rep[1] = high(rep[1]);
    report = rep[0];
  }
  started = now();
  pid = program = spawn(prepared, in[0], out[1], rep[1]);
  if (launch.pipes) {
    close(in[0]);
    close(out[1]);
  }
  if (report >= 0) {
    close(rep[1]);
    // The runner names the program first, so that it can be stopped directly.
    if (!readReport(10000) || reportText.rfind("pid ", 0) != 0)
      throw std::runtime_error("the runner did not start " + launch.argv[0]);
    program = std::stoi(reportText.substr(4));
  }
}

Child::~Child() {
  if (input >= 0) close(input);
  if (output >= 0) close(output);
  if (report >= 0) close(report);
  if (status == -1 && pid > 0) {
    kill(program, SIGKILL);
    wait(0);
  }
}

bool Child::send(std::string_view text) {
  for (size_t done = 0; done < text.size();) {
    ssize_t wrote = write(input, text.data() + done, text.size() - done);
    if (wrote < 1) return false;
    done += size_t(wrote);
  }
  return true;
}

void Child::closeInput() {
  if (input >= 0) close(input);
  input = -1;
}

int64_t Child::line(std::string* head, std::string* tail, size_t keep) {
  if (head) head->clear();
  if (tail) tail->clear();
  int64_t length = 0;
  for (;;) {
    if (begin == end) {
      ssize_t got = read(output, block.data(), block.size());
      if (got < 1) return -1;
      begin = 0;
      end = size_t(got);
    }
    auto* from = block.data() + begin;
    auto* newline = static_cast<char*>(std::memchr(from, '\n', end - begin));
    size_t take = newline ? size_t(newline - from) : end - begin;
    if (head && head->size() < keep) head->append(from, std::min(take, keep - head->size()));
    if (tail) {
      tail->append(from + (take > keep ? take - keep : 0), std::min(take, keep));
      if (tail->size() > keep) tail->erase(0, tail->size() - keep);
    }
    length += int64_t(take);
    begin += take;
    if (newline) {
      ++begin;
      return length;
    }
  }
}

bool Child::readReport(int timeoutMs) {
  reportText.clear();
  int64_t deadline = now() + int64_t(timeoutMs) * 1000000;
  for (;;) {
    char byte;
    pollfd polled{report, POLLIN, 0};
    int left = int((deadline - now()) / 1000000);
    if (left < 0 || poll(&polled, 1, left) < 1) return false;
    if (read(report, &byte, 1) != 1) return false;
    if (byte == '\n') return true;
    reportText += byte;
  }
}

int Child::wait(double graceSeconds) {
  if (status != -1) return status;
  closeInput();
  if (report >= 0) {
    if (!readReport(int(graceSeconds * 1000))) {
      kill(program, SIGTERM);
      if (!readReport(2000)) {
        kill(program, SIGKILL);
        readReport(10000);
      }
    }
    int programStatus = 0;
    long long at = 0;
    if (std::sscanf(reportText.c_str(), "end %d %ld %lld", &programStatus, &peak, &at) == 3)
      ended = at;
    while (waitpid(pid, &status, 0) < 0) {
    }
    status = programStatus;
    return status;
  }
  int64_t deadline = now() + int64_t(graceSeconds * 1e9);
  int signal = SIGTERM;
  for (;;) {
    int result = 0;
    if (waitpid(pid, &result, WNOHANG) == pid) return status = result;
    if (now() > deadline) {
      kill(pid, signal);
      signal = SIGKILL;
      deadline = now() + 2000000000;
    }
    usleep(1000);
  }
}

}  // namespace bench
