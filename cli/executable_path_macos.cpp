// cli/executable_path_macos.cpp: the executable's path from _NSGetExecutablePath.
#include <mach-o/dyld.h>

#include <cstdint>
#include <vector>

#include "cli/executable_path.h"

namespace nurel {

std::string executablePath(const char* argv0) {
  uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::vector<char> path(size + 1, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return argv0 ? argv0 : "";
  return std::string(path.data());
}

}  // namespace nurel
