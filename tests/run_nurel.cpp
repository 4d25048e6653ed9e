// tests/run_nurel.cpp: spawning the program with pipes on its three standard streams.
#include "tests/run_nurel.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <stdexcept>

extern char** environ;

namespace nurel::testing {

namespace {

std::vector<std::string> environmentFor(const RunOptions& options) {
  std::map<std::string, std::optional<std::string>> env;
  for (char** entry = environ; *entry; ++entry) {
    std::string pair = *entry;
    auto equals = pair.find('=');
    if (equals != std::string::npos) env[pair.substr(0, equals)] = pair.substr(equals + 1);
  }
  env.erase("NUREL_SOCKET");
  for (auto& [name, value] : options.env) env[name] = value;
  std::vector<std::string> out;
  for (auto& [name, value] : env)
    if (value) out.push_back(name + "=" + *value);
  return out;
}

}  // namespace

int startProgram(const std::string& program, const std::vector<std::string>& arguments,
                 const RunOptions& options, int in, int out, int err) {
  std::vector<std::string> env = environmentFor(options);
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& pair : env) envp.push_back(pair.data());
  envp.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in, 0);
    if (out < 0)
      close(1);
    else
      dup2(out, 1);
    dup2(err, 2);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

Outcome runProgram(const std::string& program, const std::vector<std::string>& arguments,
                   const RunOptions& options) {
  int in[2], out[2], err[2];
  if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
    throw std::runtime_error("pipe failed");
  pid_t pid =
      startProgram(program, arguments, options, in[0], options.closeOutput ? -1 : out[1], err[1]);
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (options.closeOutput) close(out[0]);

  Outcome outcome;
  size_t fed = 0;
  int input = in[1];
  if (options.input.empty() && options.closeInput) {
    close(input);
    input = -1;
  }
  fcntl(in[1], F_SETFL, O_NONBLOCK);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options.timeoutSeconds);
  int outFd = options.closeOutput ? -1 : out[0];
  int errFd = err[0];
  bool killed = false;
  while (outFd >= 0 || errFd >= 0) {
    pollfd fds[3] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}, {input, POLLOUT, 0}};
    int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(
                       deadline - std::chrono::steady_clock::now())
                       .count());
    if (left <= 0) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
    poll(fds, 3, std::min(left, 1000));
    char block[65536];
    for (int i = 0; i < 2; ++i) {
      int& fd = i == 0 ? outFd : errFd;
      if (fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      ssize_t got = read(fd, block, sizeof block);
      if (got <= 0) {
        close(fd);
        fd = -1;
      } else {
        (i == 0 ? outcome.out : outcome.err).append(block, size_t(got));
      }
    }
    if (input >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t wrote = fed < options.input.size()
                          ? write(input, options.input.data() + fed, options.input.size() - fed)
                          : 0;
      if (wrote > 0) fed += size_t(wrote);
      if (wrote < 0 || fed >= options.input.size()) {
        if (options.closeInput || wrote < 0) {
          close(input);
          input = -1;
        }
      }
    }
  }
  if (input >= 0) close(input);
  if (outFd >= 0) close(outFd);
  if (errFd >= 0) close(errFd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (killed) outcome.err += "[killed after time-out]";
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  return outcome;
}

RunOptions withEnv(const std::string& name, const std::string& value) {
  RunOptions options;
  options.env[name] = value;
  return options;
}

Outcome runNurel(const std::vector<std::string>& arguments, const RunOptions& options) {
  return runProgram(NUREL_BINARY, arguments, options);
}

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void writeTestFile(const std::string& path, const std::string& content, bool executable) {
  std::ofstream(path, std::ios::binary) << content;
  if (executable) chmod(path.c_str(), 0755);
}

std::string encodedBase64(const std::string& bytes) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t bits = uint32_t(static_cast<unsigned char>(bytes[i])) << 16;
    if (i + 1 < bytes.size()) bits |= uint32_t(static_cast<unsigned char>(bytes[i + 1])) << 8;
    if (i + 2 < bytes.size()) bits |= static_cast<unsigned char>(bytes[i + 2]);
    out += alphabet[bits >> 18 & 63];
    out += alphabet[bits >> 12 & 63];
    out += i + 1 < bytes.size() ? alphabet[bits >> 6 & 63] : '=';
    out += i + 2 < bytes.size() ? alphabet[bits & 63] : '=';
  }
  return out;
}

}  // namespace nurel::testing
