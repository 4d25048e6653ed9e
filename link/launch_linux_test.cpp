// link/launch_linux_test.cpp: what the Linux launch starts, and when it starts nothing.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "link/launch.h"
#include "tests/fake_browser.h"
#include "tests/run_nurel.h"

namespace nurel {
namespace {

using testing::readFile;
using testing::TempDir;
using testing::writeTestFile;

// A bundle whose Contents/MacOS holds stand-ins for the browser: each only appends its own
// name to "<dir>/started" and exits.
class Bundle {
 public:
  Bundle() { std::filesystem::create_directories(dir.file("Nurel.app/Contents/MacOS")); }
  void program(const std::string& name, bool executable = true) {
    writeTestFile(dir.file("Nurel.app/Contents/MacOS/" + name),
                  "#!/bin/sh\necho '" + name + "' >> '" + dir.file("started") + "'\n", executable);
  }
  std::string path() const { return dir.file("Nurel.app"); }
  std::string started() const { return readFile(dir.file("started")).value_or(""); }

  TempDir dir;
};

// Runs the launch in a child process that adopts whatever the launch leaves behind (the
// browser is detached from its launcher, so it would otherwise go to init), waits for all of
// it, and returns how many processes there were: 0 when nothing was started.
int processesStarted(const Bundle& bundle, const Json& info) {
  pid_t child = fork();
  if (child == 0) {
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) _exit(100);
    try {
      systemLaunch().start(bundle.path(), info);
    } catch (...) {
      _exit(101);
    }
    int count = 0;
    while (waitpid(-1, nullptr, 0) > 0) ++count;
    _exit(count);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(LinuxLaunch, StartsTheBundlesExecutable) {
  Bundle bundle;
  bundle.program("Nurel");
  bundle.program("Other");
  EXPECT_EQ(1, processesStarted(bundle, {{"CFBundleExecutable", "Nurel"}}));
  EXPECT_EQ("Nurel\n", bundle.started());
}

TEST(LinuxLaunch, NoExecutableNamedStartsNothing) {
  Bundle bundle;
  bundle.program("Nurel");
  for (const Json& info : {Json::object(), Json{{"CFBundleName", "Nurel"}}}) {
    EXPECT_EQ(0, processesStarted(bundle, info)) << info;
    EXPECT_EQ("", bundle.started()) << info;
  }
}

TEST(LinuxLaunch, ANameThatIsNotAStringStartsNothing) {
  Bundle bundle;
  // Programs named as the values would read if they were taken as text.
  bundle.program("7");
  bundle.program("Nurel");
  bundle.program("null");
  for (const Json& info :
       {Json{{"CFBundleExecutable", 7}}, Json{{"CFBundleExecutable", Json::array({"Nurel"})}},
        Json{{"CFBundleExecutable", nullptr}}}) {
    EXPECT_EQ(0, processesStarted(bundle, info)) << info;
    EXPECT_EQ("", bundle.started()) << info;
  }
}

TEST(LinuxLaunch, AMissingProgramStartsNothing) {
  Bundle bundle;
  bundle.program("Nurel");
  EXPECT_EQ(0, processesStarted(bundle, {{"CFBundleExecutable", "Missing"}}));
  EXPECT_EQ("", bundle.started());
}

TEST(LinuxLaunch, AProgramThatIsNotExecutableStartsNothing) {
  Bundle bundle;
  bundle.program("Nurel", false);
  EXPECT_EQ(0, processesStarted(bundle, {{"CFBundleExecutable", "Nurel"}}));
  EXPECT_EQ("", bundle.started());
}

}  // namespace
}  // namespace nurel
