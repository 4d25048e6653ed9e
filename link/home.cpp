// link/home.cpp: the home folder, "~" expansion and absolute paths.
#include "link/home.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace nurel {

namespace {

// The home folder of the user `name`, or of the current user when `name` is null, from the
// password database; empty when it has none.
std::string homeFromPasswords(const char* name) {
  std::vector<char> scratch(16384);
  passwd entry{};
  passwd* found = nullptr;
  int error = name ? getpwnam_r(name, &entry, scratch.data(), scratch.size(), &found)
                   : getpwuid_r(getuid(), &entry, scratch.data(), scratch.size(), &found);
  return error == 0 && found && found->pw_dir ? found->pw_dir : "";
}

}  // namespace

std::string homeDirectory() {
#if !defined(__APPLE__)
  // Linux programs honour $HOME; macOS's file manager reports the password database's folder
  // for an unsandboxed process, whatever $HOME says.
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
#endif
  return homeFromPasswords(nullptr);
}

std::string expandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  auto slash = path.find('/');
  std::string name = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  std::string rest = slash == std::string::npos ? "" : path.substr(slash);
  // A name holding a NUL byte is nobody's, while the system would read it only up to that byte.
  std::string home = name.empty()                           ? homeDirectory()
                     : name.find('\0') == std::string::npos ? homeFromPasswords(name.c_str())
                                                            : std::string();
  if (home.empty()) return path;
  // "~/x" with home "/" must not give "//x".
  if (home.size() > 1 && home.back() == '/' && !rest.empty()) home.pop_back();
  if (home == "/" && !rest.empty()) return rest;
  return home + rest;
}

std::string absolutePath(const std::string& path) {
  std::string full = expandTilde(path);
  if (full.empty() || full[0] != '/') {
    std::vector<char> cwd(4096);
    while (!getcwd(cwd.data(), cwd.size())) {
      if (errno != ERANGE) return full;
      cwd.resize(cwd.size() * 2);
    }
    full = std::string(cwd.data()) + "/" + full;
  }
  std::string out;
  size_t at = 0;
  while (at < full.size()) {
    size_t next = full.find('/', at);
    if (next == std::string::npos) next = full.size();
    std::string_view part(full.data() + at, next - at);
    if (!part.empty() && part != ".") {
      out += '/';
      out += part;
    }
    at = next + 1;
  }
  return out.empty() ? "/" : out;
}

}  // namespace nurel
