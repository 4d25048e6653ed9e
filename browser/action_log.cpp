// browser/action_log.cpp: the action log, appended atomically and rotated past a size.
#include "browser/action_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>

#include "browser/secrets.h"

namespace nurel::browser {

namespace {

std::string now() {
  auto time = std::chrono::system_clock::now();
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, int(millis));
  return text;
}

}  // namespace

ActionLog::ActionLog(std::string path, size_t most) : path(std::move(path)), most(most) {}

void ActionLog::record(const std::string& tab, const std::string& address,
                       const std::string& method, const std::string& ref,
                       const std::string& intent, const std::string& outcome, bool failed) {
  Json line = {{"time", now()}, {"method", method}};
  if (!tab.empty()) line["tab"] = tab;
  if (!address.empty()) line["address"] = maskedAddress(address);
  if (!ref.empty()) line["ref"] = ref;
  if (!intent.empty()) line["intent"] = intent;
  // An answer is one or two lines; a batch's or a scenario's has one per step.
  std::string said = maskedText(outcome.substr(0, 4000));
  if (outcome.size() > 4000) said += "…";
  line[failed ? "error" : "outcome"] = said;
  std::string text = compactRepaired(line) + "\n";

  std::lock_guard<std::mutex> guard(lock);
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && size_t(status.st_size) + text.size() > most) {
    std::string older = path;
    if (older.size() > 6 && older.compare(older.size() - 6, 6, ".jsonl") == 0) older.resize(older.size() - 6);
    std::rename(path.c_str(), (older + ".1.jsonl").c_str());
  }
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return;
  // O_APPEND puts the whole line at the end in one step; a short write (a full disk) is
  // undone so that no half line is left for the next one to run into.
  ssize_t wrote = ::write(fd, text.data(), text.size());
  if (wrote > 0 && size_t(wrote) < text.size()) {
    struct stat after {};
    if (fstat(fd, &after) == 0 && after.st_size >= wrote)
      [[maybe_unused]] int undone = ftruncate(fd, after.st_size - wrote);
  }
  ::close(fd);
}

}  // namespace nurel::browser
