// fuzz/browser_checks.cpp: the properties the back end's own surfaces are held to: its request
// lines, and what it makes of the snapshot text a page hands it.
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <vector>

#include "browser/browser.h"
#include "browser/server.h"
#include "fuzz/checks.h"
#include "link/json.h"

namespace nurel::fuzz {

namespace {

// A back end that can never start Chromium: NUREL_CHROMIUM names no program, so every method
// that needs one fails at once, and those that don't (hello, tabs) answer as they would. Its
// folder stays empty, and goes at exit.
struct Unstarted {
  std::string folder;
  std::unique_ptr<browser::Browser> browser;
  Unstarted() {
    char pattern[] = "/tmp/nurel-fuzz-browser.XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    folder = pattern;
    setenv("NUREL_CHROMIUM", "/proc/nurel-fuzz/chromium", 1);
    browser::Settings settings;
    settings.dataFolder = folder + "/data";
    settings.allowedFolders = {folder};
    browser = std::make_unique<browser::Browser>(settings);
  }
  ~Unstarted() { rmdir(folder.c_str()); }
  Unstarted(const Unstarted&) = delete;
  Unstarted& operator=(const Unstarted&) = delete;
};

browser::Browser& browserWithoutChromium() {
  static Unstarted unstarted;
  return *unstarted.browser;
}

}  // namespace

std::string checkRequestLines(const uint8_t* data, size_t size) {
  browser::Browser& browser = browserWithoutChromium();
  browser::Handler handler = [&browser](const std::string& method, const Json& params) {
    return browser.handle(method, params);
  };
  std::string_view input(reinterpret_cast<const char*>(data), size);
  for (std::string_view line : splitAtLineFeeds(input)) {
    std::optional<std::string> answer;
    try {
      answer = browser::respond(handler, line);
    } catch (const std::exception& error) {
      return std::string("respond threw: ") + error.what();
    } catch (...) {
      return "respond threw something that is not a std::exception";
    }
    // What respond reads: the line without a carriage return at its end, as JSON.
    std::string_view bare = line;
    if (!bare.empty() && bare.back() == '\r') bare.remove_suffix(1);
    Json request;
    bool readable = true;
    try {
      request = parseDocument(bare);
    } catch (const std::exception&) {
      readable = false;
    }
    bool wanted = readable && request.is_object() && request.contains("id");
    if (!wanted) {
      if (answer) return "an answer to a line that wants none: " + shortened(*answer);
      continue;
    }
    if (!answer) return "no answer to a request with an id: " + shortened(line);
    if (answer->empty() || answer->back() != '\n' ||
        answer->find('\n') != answer->size() - 1)
      return "an answer that is not one line: " + shortened(*answer);
    if (!validUtf8(*answer)) return "an answer that is not valid UTF-8";
    Json reply;
    try {
      reply = parseDocument(*answer);
    } catch (const std::exception&) {
      return "an answer this program cannot read: " + shortened(*answer);
    }
    if (!reply.is_object() || reply.size() != 2 || !reply.contains("id"))
      return "an answer that is not {id, result or error}: " + shortened(*answer);
    if (reply["id"] != request["id"]) return "an answer with another id: " + shortened(*answer);
    if (reply.contains("error")) {
      if (!reply["error"].is_string() || reply["error"].get_ref<const std::string&>().empty())
        return "an error that is not a line of text: " + shortened(*answer);
    } else if (!reply.contains("result")) {
      return "an answer with neither result nor error: " + shortened(*answer);
    }
  }
  if (browser.running()) return "a request started Chromium";
  return "";
}

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::stringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

size_t characters(const std::string& text) {
  size_t count = 0;
  for (char c : text) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

// Whether `part`, in order, is a subsequence of `whole`.
bool subsequence(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
  size_t at = 0;
  for (const std::string& line : whole)
    if (at < part.size() && part[at] == line) ++at;
  return at == part.size();
}

size_t longestCommon(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  std::vector<size_t> row(b.size() + 1), next(b.size() + 1);
  for (size_t i = a.size(); i-- > 0;) {
    for (size_t j = b.size(); j-- > 0;)
      row[j] = a[i] == b[j] ? next[j + 1] + 1 : std::max(next[j], row[j + 1]);
    std::swap(row, next);
  }
  return next[0];
}

// The diff's promises: a count of lines added and removed that is right and the least there
// could be, each line taken from its side in order.
std::string checkDifference(const std::string& before, const std::string& now,
                            const std::string& diff) {
  std::vector<std::string> a = linesOf(before), b = linesOf(now);
  if (diff == "nothing changed since the last snapshot")
    return a == b ? "" : "\"nothing changed\" for snapshots that differ";
  if (a == b) return "a difference between snapshots with the same lines: " + shortened(diff);
  size_t newline = diff.find('\n');
  if (newline == std::string::npos) return "a difference without lines: " + shortened(diff);
  std::vector<std::string> added, removed;
  for (const std::string& line : linesOf(diff.substr(newline + 1))) {
    if (line.empty() || (line[0] != '+' && line[0] != '-'))
      return "a line of the difference that is neither + nor -: " + shortened(line);
    (line[0] == '+' ? added : removed).push_back(line.substr(1));
  }
  std::string header = std::to_string(added.size()) + " lines added (+), " +
                       std::to_string(removed.size()) + " removed (-) since the last snapshot:";
  if (diff.substr(0, newline) != header)
    return "a difference whose count is wrong: " + shortened(diff.substr(0, newline)) +
           " for " + header;
  if (!subsequence(removed, a)) return "removed lines that were not in the last snapshot in order";
  if (!subsequence(added, b)) return "added lines that are not in the snapshot in order";
  if (a.size() - removed.size() + added.size() != b.size())
    return "a difference that doesn't add up to the new snapshot";
  if (a.size() * b.size() <= 4'000'000 && removed.size() != a.size() - longestCommon(a, b))
    return "a difference longer than it needs to be";
  return "";
}

}  // namespace

std::string checkSnapshotAnswer(const uint8_t* data, size_t size) {
  if (size < 3) return "";
  // The first byte: diff or not, and the limit; the next two: where the last snapshot ends.
  static const double limits[] = {0, -1, 1, 2, 3, 7, 10, 40, 100, 1000, 40000, 1e12, 1e300, 0.5};
  bool diff = data[0] & 1;
  double limit = limits[(data[0] >> 1) % std::size(limits)];
  std::string rest(reinterpret_cast<const char*>(data) + 3, size - 3);
  size_t split = (size_t(data[1]) << 8 | data[2]) % (rest.size() + 1);
  std::string last = rest.substr(0, split), text = rest.substr(split);
  bool valid = validUtf8(last) && validUtf8(text);
  std::string whole, answer;
  try {
    whole = browser::snapshotAnswer(text, diff ? &last : nullptr, 0);
    answer = browser::snapshotAnswer(text, diff ? &last : nullptr, limit);
  } catch (const std::exception& error) {
    return std::string("snapshotAnswer threw: ") + error.what();
  }
  if (valid && !validUtf8(answer)) return "an answer that is not valid UTF-8";
  if (!diff && whole != text) return "a snapshot changed without diff or limit";
  if (diff && valid) {
    std::string problem = checkDifference(last, text, whole);
    if (!problem.empty()) return problem;
  }
  if (limit <= 0 || characters(whole) <= limit) {
    if (answer != whole) return "a snapshot within its limit that was changed anyway";
    return "";
  }
  std::string note = "\n[cut at " + std::to_string(size_t(limit)) + " of " +
                     std::to_string(characters(whole)) +
                     " characters: take it interactive or viewport for less, or save it to a "
                     "file for all of it]";
  if (answer.size() < note.size() || answer.compare(answer.size() - note.size(), note.size(), note) != 0)
    return "a cut snapshot without its note: " + shortened(answer);
  std::string kept = answer.substr(0, answer.size() - note.size());
  if (whole.compare(0, kept.size(), kept) != 0) return "a cut snapshot that isn't its start";
  if (characters(kept) > limit) return "a cut snapshot longer than its limit";
  // Cut at the end of a line when there is one before the limit.
  if (kept.size() < whole.size() && whole[kept.size()] != '\n' &&
      whole.substr(0, kept.size()).find('\n') != std::string::npos)
    return "a snapshot cut in the middle of a line";
  return "";
}

}  // namespace nurel::fuzz
