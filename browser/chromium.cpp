// browser/chromium.cpp: starting Chromium on a DevTools pipe, and the pipe itself.
#include "browser/chromium.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "browser/framing.h"

extern char** environ;

namespace nurel::browser {

namespace {

bool executable(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string onPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string folders = path ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= folders.size()) {
    size_t colon = folders.find(':', start);
    if (colon == std::string::npos) colon = folders.size();
    std::string folder = folders.substr(start, colon - start);
    if (folder.empty()) folder = ".";
    std::string candidate = folder + "/" + name;
    if (executable(candidate)) return candidate;
    start = colon + 1;
  }
  return {};
}

// Debian's chromium on the PATH is a launcher script: before it starts the browser in
// <prefix>/lib/chromium it runs sixteen programs (uname, grep, find, expr, findmnt, ls, tr…),
// 25 to 50 ms of every start here and more on a busy machine, for switches that don't matter
// to a browser driven over a pipe, but for --disable-dev-shm-usage, which chromiumSwitches
// sets itself. When the program found is such a script, the browser behind it is started.
std::string behindLauncher(const std::string& found) {
  char resolved[PATH_MAX];
  if (!realpath(found.c_str(), resolved)) return found;
  std::string path = resolved;
  const std::string launcher = "/bin/chromium";
  if (path.size() <= launcher.size() ||
      path.compare(path.size() - launcher.size(), launcher.size(), launcher) != 0)
    return found;
  std::string browser = path.substr(0, path.size() - launcher.size()) + "/lib/chromium/chromium";
  char start[2] = {};
  std::ifstream(path, std::ios::binary).read(start, 2);
  bool script = start[0] == '#' && start[1] == '!';
  return script && executable(browser) ? browser : found;
}

// The thread that forks Chromium. A parent-death signal is sent when the thread that forked
// the child ends, not the process: forking from a connection's thread would kill Chromium
// when that connection closes. So every fork happens on this one thread, which lives as long
// as the process.
class Forker {
 public:
  static Forker& shared() {
    static Forker* forker = new Forker;  // never destroyed: the thread runs until exit
    return *forker;
  }

  pid_t run(const std::function<pid_t()>& fork) {
    std::unique_lock<std::mutex> guard(lock);
    job = &fork;
    done = false;
    wake.notify_all();
    finished.wait(guard, [&] { return done; });
    return result;
  }

 private:
  Forker() {
    std::thread([this] {
      std::unique_lock<std::mutex> guard(lock);
      for (;;) {
        wake.wait(guard, [&] { return job != nullptr; });
        result = (*job)();
        job = nullptr;
        done = true;
        finished.notify_all();
      }
    }).detach();
  }

  std::mutex lock;
  std::condition_variable wake, finished;
  const std::function<pid_t()>* job = nullptr;
  bool done = false;
  pid_t result = -1;
};

}  // namespace

std::string findChromium() {
  if (const char* chosen = std::getenv("NUREL_CHROMIUM"); chosen && *chosen) {
    std::string path = chosen;
    if (path.find('/') == std::string::npos) path = onPath(path);
    if (!path.empty() && executable(path)) return path;
    throw StartError("NUREL_CHROMIUM names " + std::string(chosen) +
                     ", which isn't a program that can be run");
  }
  for (const char* name :
       {"chromium", "chromium-headless-shell", "google-chrome-stable", "google-chrome"}) {
    std::string path = onPath(name);
    if (!path.empty()) return behindLauncher(path);
  }
  throw StartError("no Chromium found: install the chromium package or set NUREL_CHROMIUM");
}

std::vector<std::string> chromiumSwitches(const std::string& profile, bool headed) {
  std::vector<std::string> switches = {
      "--remote-debugging-pipe",
      "--user-data-dir=" + profile,
      "--no-first-run",
      "--no-default-browser-check",
      "--no-startup-window",
      "--disable-background-networking",
      "--disable-component-update",
      "--disable-sync",
      "--disable-default-apps",
      "--disable-extensions",
      "--disable-breakpad",
      "--disable-crash-reporter",
      "--disable-domain-reliability",
      "--disable-client-side-phishing-detection",
      "--disable-background-timer-throttling",
      "--disable-backgrounding-occluded-windows",
      "--disable-renderer-backgrounding",
      "--disable-back-forward-cache",
      "--disable-hang-monitor",
      "--disable-ipc-flooding-protection",
      "--disable-popup-blocking",
      "--disable-prompt-on-repost",
      "--disable-search-engine-choice-screen",
      // The omnibox's pop-ups are web pages of Chromium's own, loaded at start in a renderer
      // of theirs (150 MiB resident here) even headless, where no omnibox is ever shown.
      "--disable-features=Translate,MediaRouter,OptimizationHints,AutofillServerCommunication,"
      "CertificateTransparencyComponentUpdater,DialMediaRouteProvider,InterestFeedContentSuggestions,"
      "WebUIOmniboxPopup,WebUIOmniboxAimPopup,WebUIOmniboxFullPopup",
      "--metrics-recording-only",
      "--password-store=basic",
      "--use-mock-keychain",
      "--no-service-autorun",
      "--no-pings",
      "--force-color-profile=srgb",
      "--window-size=1280,800",
  };
  if (!headed) {
    switches.push_back("--headless");
    switches.push_back("--hide-scrollbars");
    switches.push_back("--mute-audio");
  }
  // Renderers share memory with the browser through /dev/shm. Where that is small (64 MiB in a
  // container unless told otherwise) a large page crashes its renderer: Chromium then uses
  // files under /tmp instead. The threshold is Debian's launcher's.
  struct statvfs shm;
  if (statvfs("/dev/shm", &shm) != 0 || uint64_t(shm.f_bavail) * shm.f_frsize < 4'080'218'931)
    switches.push_back("--disable-dev-shm-usage");
  // Chromium refuses to run as root with its sandbox on.
  if (geteuid() == 0) switches.push_back("--no-sandbox");
  return switches;
}

PipeTransport::PipeTransport(int toBrowser, int fromBrowser)
    : toBrowser(toBrowser), fromBrowser(fromBrowser) {
  if (pipe2(wake, O_CLOEXEC) != 0) wake[0] = wake[1] = -1;
}

PipeTransport::~PipeTransport() {
  for (int fd : {toBrowser, fromBrowser, wake[0], wake[1]})
    if (fd >= 0) close(fd);
}

bool PipeTransport::send(std::string_view message) {
  // The message and its NUL go in one piece where they fit; a short write goes on from there.
  std::string framed;
  framed.reserve(message.size() + 1);
  framed.append(message);
  framed.push_back('\0');
  size_t done = 0;
  while (done < framed.size()) {
    ssize_t wrote = write(toBrowser, framed.data() + done, framed.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote <= 0) return false;
    done += size_t(wrote);
  }
  return true;
}

std::string PipeTransport::receive(const std::function<void(std::string_view)>& message) {
  Framing framing('\0', maxMessage);
  // A pipe holds 64 KiB, so no read returns more: a larger block would only be resident.
  std::string block(64 << 10, '\0');
  for (;;) {
    pollfd watch[2] = {{fromBrowser, POLLIN, 0}, {wake[0], POLLIN, 0}};
    if (poll(watch, wake[0] >= 0 ? 2 : 1, -1) < 0) {
      if (errno == EINTR) continue;
      return "lost the pipe to Chromium";
    }
    if (watch[1].revents) return "the back end stopped Chromium";
    ssize_t got = read(fromBrowser, block.data(), block.size());
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) return "Chromium closed the pipe";
    if (!framing.feed(std::string_view(block.data(), size_t(got)), message))
      return "Chromium sent a message over 1 GiB";
  }
}

void PipeTransport::shut() {
  if (wake[1] >= 0) {
    char byte = 1;
    [[maybe_unused]] ssize_t ignored = write(wake[1], &byte, 1);
  }
}

Chromium::Chromium(const std::string& program, const std::vector<std::string>& switches,
                   const std::string& logPath) {
  int toBrowser[2], fromBrowser[2];
  if (pipe2(toBrowser, O_CLOEXEC) != 0) throw StartError("couldn't make a pipe for Chromium");
  if (pipe2(fromBrowser, O_CLOEXEC) != 0) {
    close(toBrowser[0]);
    close(toBrowser[1]);
    throw StartError("couldn't make a pipe for Chromium");
  }
  std::vector<std::string> words = {program};
  words.insert(words.end(), switches.begin(), switches.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  pid_t parent = getpid();

  std::function<pid_t()> start = [&]() -> pid_t {
    pid_t pid = fork();
    if (pid != 0) return pid;
    // The child: a group of its own (so that its helpers die with it), killed with us.
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    int null = open("/dev/null", O_RDWR);
    // Move everything clear of 0 to 4 before putting each in its place.
    int in = fcntl(toBrowser[0], F_DUPFD, 10), out = fcntl(fromBrowser[1], F_DUPFD, 10);
    int err = log >= 0 ? fcntl(log, F_DUPFD, 10) : fcntl(null, F_DUPFD, 10);
    int nothing = fcntl(null, F_DUPFD, 10);
    if (in < 0 || out < 0 || err < 0 || nothing < 0) _exit(127);
    dup2(nothing, 0);
    dup2(nothing, 1);
    dup2(err, 2);
    dup2(in, 3);
    dup2(out, 4);
    for (int fd = 5; fd < 1024; ++fd) close(fd);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    execve(program.c_str(), argv.data(), environ);
    _exit(127);
  };
  child = Forker::shared().run(start);
  close(toBrowser[0]);
  close(fromBrowser[1]);
  if (log >= 0) close(log);
  if (child < 0) {
    close(toBrowser[1]);
    close(fromBrowser[0]);
    throw StartError("couldn't start " + program + ": " + std::strerror(errno));
  }
  transport = std::make_unique<PipeTransport>(toBrowser[1], fromBrowser[0]);
}

Chromium::~Chromium() { stop(); }

void Chromium::stop() {
  if (child <= 0) return;
  std::lock_guard<std::mutex> guard(lock);
  kill(-child, SIGKILL);
  if (reaped) return;
  kill(child, SIGKILL);
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  reaped = true;
}

std::string Chromium::ending() {
  std::lock_guard<std::mutex> guard(lock);
  if (!reaped) {
    pid_t got = waitpid(child, &status, WNOHANG);
    if (got != child) return {};
    reaped = true;
  }
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exited with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace nurel::browser
