// link/launch_macos.cpp: starting the browser on macOS: "/usr/bin/open -g <bundle>" opens
// the application in the background without raising it; we wait for `open` itself to exit.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "link/launch.h"

extern char** environ;

namespace nurel {

namespace {

class MacLaunch : public Launch {
 public:
  void start(const std::string& bundle, const Json&) override {
    const char* argv[] = {"/usr/bin/open", "-g", bundle.c_str(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0)
      return;
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  void pause(unsigned microseconds) override { usleep(microseconds); }
};

}  // namespace

Launch& systemLaunch() {
  static MacLaunch launch;
  return launch;
}

}  // namespace nurel
