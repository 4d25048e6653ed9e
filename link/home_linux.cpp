// link/home_linux.cpp: the home folder on Linux: $HOME, else the password database.
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "link/home.h"

namespace nurel {

std::string homeDirectory() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  std::vector<char> scratch(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, scratch.data(), scratch.size(), &found) == 0 && found &&
      found->pw_dir)
    return found->pw_dir;
  return "";
}

}  // namespace nurel
