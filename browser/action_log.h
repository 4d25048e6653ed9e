// browser/action_log.h: one JSON line per request that changed something, for the person to
// read afterwards: when, which tab, on what address, what was done, why, and how it went.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>

#include "link/json.h"

namespace nurel::browser {

class ActionLog {
 public:
  /// Lines go to `path`; past `most` bytes the file moves to `<path minus .jsonl>.1.jsonl`
  /// (replacing the one before) and a new one starts.
  explicit ActionLog(std::string path, size_t most = 8 << 20);

  /// Appends one line: the whole line in one write, so that it lands whole or not at all.
  /// The address and the outcome have their secrets masked here. Never throws: a log that
  /// can't be written must not stop the agent.
  void record(const std::string& tab, const std::string& address, const std::string& method,
              const std::string& ref, const std::string& intent, const std::string& outcome,
              bool failed);

  const std::string& file() const { return path; }

 private:
  std::string path;
  size_t most;
  std::mutex lock;
};

}  // namespace nurel::browser
