// link/launch_linux.cpp: starting the browser on Linux, where there are no application
// bundles to open: run the bundle's own executable, detached, and never a desktop opener.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "link/launch.h"

extern char** environ;

namespace nurel {

namespace {

// The grandchild becomes the browser; the child (the launcher) exits at once and is reaped,
// so nothing is left waiting on us and the browser outlives this process.
void startDetached(const std::string& program) {
  pid_t launcher = fork();
  if (launcher < 0) return;
  if (launcher == 0) {
    if (setsid() < 0) _exit(1);
    pid_t browser = fork();
    if (browser != 0) _exit(browser < 0 ? 1 : 0);
    int null = open("/dev/null", O_RDWR);
    if (null >= 0) {
      dup2(null, 0);
      dup2(null, 1);
      dup2(null, 2);
      if (null > 2) close(null);
    }
    char* argv[] = {const_cast<char*>(program.c_str()), nullptr};
    execve(program.c_str(), argv, environ);
    _exit(127);
  }
  while (waitpid(launcher, nullptr, 0) < 0 && errno == EINTR) {
  }
}

class LinuxLaunch : public Launch {
 public:
  void start(const std::string& bundle, const Json& info) override {
    auto name = info.find("CFBundleExecutable");
    if (name == info.end() || !name->is_string()) return;
    const auto& file = name->get_ref<const std::string&>();
    if (file.empty() || file.find('/') != std::string::npos) return;
    std::string program = bundle + "/Contents/MacOS/" + file;
    if (access(program.c_str(), X_OK) != 0) return;
    startDetached(program);
  }
  void pause(unsigned microseconds) override { usleep(microseconds); }
};

}  // namespace

Launch& systemLaunch() {
  static LinuxLaunch launch;
  return launch;
}

}  // namespace nurel
