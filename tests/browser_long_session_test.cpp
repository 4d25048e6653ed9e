// tests/browser_long_session_test.cpp: a long session against one back end: thousands of
// actions on pages opened and closed, after which the back end holds no more memory than it
// did early on, no more descriptors, and Chromium no more tabs. A ctest of its own (slow);
// NUREL_LONG_SESSION_ACTIONS sets how many actions (a few hundred unless told).
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "link/json.h"
#include "tests/browser_fixture.h"

namespace nurel::testing {
namespace {

using namespace std::chrono_literals;

size_t descriptors(pid_t pid) {
  size_t count = 0;
  for ([[maybe_unused]] auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd"))
    ++count;
  return count;
}

// A line of /proc/<pid>/status in KiB ("VmRSS", "VmHWM").
long statusKiB(pid_t pid, const std::string& name) {
  std::string status = fileText("/proc/" + std::to_string(pid) + "/status");
  size_t at = status.find(name + ":");
  return at == std::string::npos ? -1 : std::atol(status.c_str() + at + name.size() + 1);
}

// Chromium's renderers: one or more a site with pages open, and one kept spare.
size_t renderers(pid_t chromium) {
  size_t count = 0;
  for (auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string command = fileText(entry.path() / "cmdline");
    if (command.find("--type=renderer") == std::string::npos) continue;
    // A child of Chromium's (through its zygote): the same user data folder.
    std::string profile = fileText("/proc/" + std::to_string(chromium) + "/cmdline");
    size_t at = profile.find("--user-data-dir=");
    if (at != std::string::npos &&
        command.find(profile.substr(at, profile.find('\0', at) - at)) != std::string::npos)
      ++count;
  }
  return count;
}

class Line {
 public:
  explicit Line(const std::string& socket) : fd(connectTo(socket)) {}
  ~Line() {
    if (fd >= 0) close(fd);
  }
  bool connected() const { return fd >= 0; }
  Json ask(const std::string& method, const Json& params) {
    std::string line = compact(Json{{"id", ++id}, {"method", method}, {"params", params}}) + "\n";
    if (write(fd, line.data(), line.size()) != ssize_t(line.size())) return Json("couldn't write");
    for (;;) {
      size_t newline = buffer.find('\n');
      if (newline != std::string::npos) {
        Json answer = parseDocument(buffer.substr(0, newline));
        buffer.erase(0, newline + 1);
        if (answer.value("id", 0) != id) return Json("an answer to another request");
        return answer;
      }
      char block[65536];
      ssize_t got = read(fd, block, sizeof block);
      if (got <= 0) return Json("the connection ended");
      buffer.append(block, size_t(got));
    }
  }

 private:
  int fd;
  int id = 0;
  std::string buffer;
};

TEST(BrowserLongSession, ThousandsOfActionsLeaveNoMemoryDescriptorsOrTabsBehind) {
  size_t actions = 400;
  if (const char* given = std::getenv("NUREL_LONG_SESSION_ACTIONS"); given && std::atol(given) > 0)
    actions = size_t(std::atol(given));
  servePage("/session", R"html(<title>Session</title>
<label>Name <input id=name></label><button onclick="out.textContent = 'Hello ' + name.value">Greet</button>
<p id=out></p><a href=/second>Elsewhere</a>)html");

  // The back end runs under the small parent, which says when it ended and the peak memory of
  // it and what it reaped.
  BackEnd place;
  int report[2];
  ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
  pid_t runner = fork();
  if (runner == 0) {
    for (auto& [name, value] : place.options.env) {
      if (value) setenv(name.c_str(), value->c_str(), 1);
      else unsetenv(name.c_str());
    }
    // AddressSanitizer's quarantine of freed blocks is its memory, not the back end's.
    setenv("ASAN_OPTIONS", (std::string(getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "") +
                            ":quarantine_size_mb=1").c_str(), 1);
    dup2(report[1], 3);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
    execl(NUREL_PEAK_RUN, NUREL_PEAK_RUN, NUREL_BROWSER_BINARY, nullptr);
    _exit(127);
  }
  close(report[1]);
  FILE* figures = fdopen(report[0], "r");
  int back = -1;
  ASSERT_EQ(std::fscanf(figures, "pid %d", &back), 1);
  ASSERT_TRUE(eventually([&] { return alive(back) && std::filesystem::exists(place.socket()); }));

  Line line(place.socket());
  ASSERT_TRUE(line.connected());
  size_t done = 0, warmUp = std::max<size_t>(actions / 10, 40);
  size_t fdsBefore = 0, renderersBefore = 0;
  long rssBefore = 0, peakBefore = 0;
  pid_t chromium = -1;
  std::string problem;
  auto act = [&](const std::string& method, const Json& params) {
    Json answer = line.ask(method, params);
    ++done;
    if (!answer.is_object() || !answer.contains("result")) {
      if (problem.empty()) problem = method + " " + params.dump() + ": " + answer.dump();
      return Json();
    }
    return answer["result"];
  };
  auto started = std::chrono::steady_clock::now();
  bool measured = false;
  while (done < actions && problem.empty()) {
    Json opened = act("open", {{"url", url("/session")}});
    if (!opened.is_string()) break;
    std::string tab = opened.get<std::string>().substr(0, opened.get<std::string>().find(' '));
    std::string snapshot = act("snapshot", {{"tab", tab}}).get<std::string>();
    // The refs of this page: the field, the button, the link, in that order.
    auto refAfter = [&](const std::string& name) {
      size_t at = snapshot.find(name);
      at = snapshot.find("[ref=", at);
      return at == std::string::npos ? std::string("e0")
                                     : snapshot.substr(at + 5, snapshot.find(']', at) - at - 5);
    };
    act("type", {{"tab", tab}, {"ref", refAfter("Name")}, {"text", "visitor " + std::to_string(done)}});
    act("click", {{"tab", tab}, {"ref", refAfter("Greet")}});
    act("eval", {{"tab", tab}, {"script", "return out.textContent"}});
    act("snapshot", {{"tab", tab}, {"diff", true}});
    act("text", {{"tab", tab}});
    act("close", {{"tab", tab}});
    if (!measured && done >= warmUp) {
      measured = true;
      chromium = chromiumOf(back);
      fdsBefore = descriptors(back);
      renderersBefore = renderers(chromium);
      rssBefore = statusKiB(back, "VmRSS");
      peakBefore = statusKiB(back, "VmHWM");
    }
  }
  EXPECT_EQ(problem, "");
  EXPECT_GE(done, actions);
  double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_EQ(line.ask("tabs", Json::object()).value("result", ""), "no tabs");
  // A closed tab's renderer may take a moment to go.
  size_t renderersAfter = 0;
  eventually([&] { return (renderersAfter = renderers(chromium)) <= renderersBefore; }, 10s);
  size_t fdsAfter = descriptors(back);
  long rssAfter = statusKiB(back, "VmRSS");
  // Its own peak since it started: the parent's figure (wait4) also takes in the children it
  // reaped, and the back end reaps Chromium.
  long ownPeak = statusKiB(back, "VmHWM");
  kill(back, SIGTERM);
  int status = -1;
  long peak = -1;
  EXPECT_EQ(std::fscanf(figures, " end %d %ld", &status, &peak), 2);
  fclose(figures);
  waitpid(runner, nullptr, 0);
  std::cout << "[ figures  ] " << done << " actions on " << done / 8 << " pages in " << took
            << " s; the back end's RSS " << rssBefore << " KiB after " << warmUp << " actions, "
            << rssAfter << " KiB at the end; its peak " << peakBefore << " KiB then, " << ownPeak
            << " KiB over the whole run (" << peak << " KiB with Chromium's); descriptors " << fdsBefore << " then, " << fdsAfter
            << " at the end; Chromium's renderers " << renderersBefore << " then, "
            << renderersAfter << " at the end\n";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(fdsAfter, fdsBefore);
  EXPECT_LE(renderersAfter, renderersBefore);
  // Memory, not time: a bound that a leak of a few KiB a page would break over thousands of them.
  EXPECT_LT(ownPeak, peakBefore + 16 * 1024);
}

}  // namespace
}  // namespace nurel::testing
