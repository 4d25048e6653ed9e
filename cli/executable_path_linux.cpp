// cli/executable_path_linux.cpp: the executable's path from /proc/self/exe.
#include <unistd.h>

#include <vector>

#include "cli/executable_path.h"

namespace nurel {

std::string executablePath(const char* argv0) {
  std::vector<char> path(4096);
  for (;;) {
    ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    if (length < 0) return argv0 ? argv0 : "";
    if (size_t(length) < path.size()) return std::string(path.data(), size_t(length));
    path.resize(path.size() * 2);
  }
}

}  // namespace nurel
