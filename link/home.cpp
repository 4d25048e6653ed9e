// link/home.cpp: "~" expansion and absolute paths, shared by both platforms.
#include "link/home.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace nurel {

std::string expandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  auto slash = path.find('/');
  std::string name = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  std::string rest = slash == std::string::npos ? "" : path.substr(slash);
  std::string home;
  if (name.empty()) {
    home = homeDirectory();
  } else if (name.find('\0') == std::string::npos) {
    // A name holding a NUL byte is nobody's, while the system would read it only up to that byte.
    std::vector<char> scratch(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(name.c_str(), &entry, scratch.data(), scratch.size(), &found) == 0 && found &&
        found->pw_dir)
      home = found->pw_dir;
  }
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
