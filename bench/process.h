// bench/process.h: starting the measured programs and talking to them through pipes.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// How a program is started.
struct Launch {
  std::vector<std::string> argv;
  /// "NAME=value" pairs added to (or replacing in) the driver's own environment.
  std::vector<std::string> env;
  /// Pipes on standard input and output; otherwise both are /dev/null.
  bool pipes = false;
  /// Started through nurel_bench_run, which reports the program's own peak memory.
  std::string runner;
};

/// A started program. Standard error always goes to /dev/null.
class Child {
 public:
  explicit Child(const Launch& launch);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// Writes all of `text` to the program's standard input; false when it is gone.
  bool send(std::string_view text);
  /// Closes the program's standard input.
  void closeInput();
  /// Reads the next line of the program's output. Keeps its first `keep` bytes in `head` and
  /// its last `keep` bytes in `tail`; returns its length without the line feed, or -1 at the
  /// end of the output.
  int64_t line(std::string* head = nullptr, std::string* tail = nullptr, size_t keep = 256);
  /// Waits for the end (killing it after `graceSeconds`). Returns the wait status.
  int wait(double graceSeconds = 30);
  /// When the program was started, on the monotonic clock.
  int64_t startedAt() const { return started; }
  /// The program's peak resident memory in KiB (started through the runner only).
  long peakKiB() const { return peak; }
  /// When the runner saw the program end, on the monotonic clock (runner only).
  int64_t endedAt() const { return ended; }

 private:
  bool readReport(int timeoutMs);

  pid_t pid = -1;      // the program (under the runner: the runner)
  pid_t program = -1;  // the program itself
  int input = -1, output = -1, report = -1;
  std::vector<char> block = std::vector<char>(1 << 20);
  size_t begin = 0, end = 0;
  std::string reportText;
  int status = -1;
  long peak = -1;
  int64_t ended = 0;
  int64_t started = 0;
};

/// Starts `launch` with standard input and output on /dev/null, waits for its end and returns
/// the nanoseconds from just before the start to just after the reaping; -1 when it failed.
int64_t timeRun(const Launch& launch);

}  // namespace bench
