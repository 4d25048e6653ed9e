// tests/run_nurel.h: runs the built program as its users do and collects what it did.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace nurel::testing {

struct Outcome {
  std::string out;  // standard output
  std::string err;  // standard error
  int status = -1;  // exit status, or -1 when killed by a signal
  int signal = 0;   // the signal that ended it, if any
};

struct RunOptions {
  /// Environment changes: a value sets the variable, nullopt removes it. NUREL_SOCKET is
  /// removed unless given, so that no test reaches a real browser by accident.
  std::map<std::string, std::optional<std::string>> env;
  std::string input;       // standard input
  bool closeInput = true;  // standard input ends after `input`
  std::string cwd;         // folder to run in, the current one when empty
  int timeoutSeconds = 60;
  bool closeOutput = false;  // run with standard output already closed by the reader
};

/// Options that set one environment variable.
RunOptions withEnv(const std::string& name, const std::string& value);
/// Options that point NUREL_SOCKET at `socket`.
inline RunOptions withSocket(const std::string& socket) { return withEnv("NUREL_SOCKET", socket); }

/// Starts `program` with `arguments`, the environment and folder of `options`, and the
/// descriptors `in`, `out` and `err` as its standard streams (`out` -1: standard output
/// closed). Returns its process id; the caller waits for it.
int startProgram(const std::string& program, const std::vector<std::string>& arguments,
                 const RunOptions& options, int in, int out, int err);

/// Runs `program` with `arguments`. A run that outlives its time-out is killed (status -1).
Outcome runProgram(const std::string& program, const std::vector<std::string>& arguments,
                   const RunOptions& options = {});

/// Runs the built `nurel`.
Outcome runNurel(const std::vector<std::string>& arguments, const RunOptions& options = {});

/// The whole content of a file, or nullopt when it cannot be read.
std::optional<std::string> readFile(const std::string& path);

/// Writes a file (for test inputs).
void writeTestFile(const std::string& path, const std::string& content, bool executable = false);

/// `bytes` in standard base64, padded: a plain encoder for test inputs, and to check the
/// program's decoder against.
std::string encodedBase64(const std::string& bytes);

}  // namespace nurel::testing
