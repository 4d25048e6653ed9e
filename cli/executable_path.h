// cli/executable_path.h: where the running program is (one implementation per platform).
#pragma once

#include <string>

namespace nurel {

/// The absolute path of the running executable as the system reports it, without resolving
/// symbolic links; `argv0` when the system cannot say. Linux reads /proc/self/exe, macOS asks
/// _NSGetExecutablePath.
std::string executablePath(const char* argv0);

}  // namespace nurel
