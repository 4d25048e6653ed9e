// link/home_macos.cpp: the home folder on macOS, from the password database as the system's
// file manager reports it for an unsandboxed process.
#include <pwd.h>
#include <unistd.h>

#include <vector>

#include "link/home.h"

namespace nurel {

std::string homeDirectory() {
  std::vector<char> scratch(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, scratch.data(), scratch.size(), &found) == 0 && found &&
      found->pw_dir)
    return found->pw_dir;
  return "";
}

}  // namespace nurel
