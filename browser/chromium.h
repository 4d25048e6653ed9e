// browser/chromium.h: finding Chromium and running it with the DevTools protocol on a pipe.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "browser/cdp.h"

namespace nurel::browser {

/// Thrown when Chromium cannot be found or started; the text is for the agent.
class StartError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The Chromium to run: $NUREL_CHROMIUM when set, else the first of chromium,
/// chromium-headless-shell, google-chrome-stable and google-chrome on PATH (for Debian's
/// launcher script, the browser it starts). Throws StartError.
std::string findChromium();

/// The switches for a quiet, deterministic browser: no first run, no background networking,
/// no updates or sync, headless unless `headed`, --no-sandbox when running as root,
/// --disable-dev-shm-usage when /dev/shm is small.
std::vector<std::string> chromiumSwitches(const std::string& profile, bool headed);

/// A transport over two descriptors: NUL-ended messages written to one and read from the other.
/// Owns both.
class PipeTransport : public Transport {
 public:
  PipeTransport(int toBrowser, int fromBrowser);
  ~PipeTransport() override;
  bool send(std::string_view message) override;
  std::string receive(const std::function<void(std::string_view)>& message) override;
  void shut() override;

 private:
  int toBrowser, fromBrowser;
  int wake[2] = {-1, -1};
};

/// One Chromium process, in a process group of its own that dies with it and with us.
class Chromium {
 public:
  /// Starts `program` with `switches`, the pipe on descriptors 3 and 4 and its standard error
  /// in `logPath`. Throws StartError.
  Chromium(const std::string& program, const std::vector<std::string>& switches,
           const std::string& logPath);
  /// Kills the whole group and reaps it.
  ~Chromium();
  Chromium(const Chromium&) = delete;
  Chromium& operator=(const Chromium&) = delete;

  /// The pipe, to hand to a Cdp once.
  std::unique_ptr<Transport> takeTransport() { return std::move(transport); }
  pid_t pid() const { return child; }
  /// How it ended, once it has ("killed by signal 9"), or empty while it runs.
  std::string ending();
  /// Kills the whole group and reaps it.
  void stop();

 private:
  std::mutex lock;  // guards reaped and status
  pid_t child = -1;
  bool reaped = false;
  int status = 0;
  std::unique_ptr<Transport> transport;
};

}  // namespace nurel::browser
