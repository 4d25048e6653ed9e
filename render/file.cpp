// render/file.cpp: writing a file whole, or not at all.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "link/home.h"
#include "render/render.h"

namespace nurel {

namespace {

FileError failed(const std::string& path, int error) {
  std::string reason = std::strerror(error);
  if (!reason.empty()) reason[0] = char(std::tolower(static_cast<unsigned char>(reason[0])));
  return FileError("couldn't write " + path + ": " + reason);
}

mode_t newFileMode() {
  mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Devices and pipes (/dev/stdout, a FIFO) cannot be replaced by renaming; they are written.
void writeInPlace(const std::string& shown, const std::string& target, std::string_view bytes) {
  int fd = open(target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0) throw failed(shown, errno);
  bool ok = writeAll(fd, bytes);
  int error = errno;
  close(fd);
  if (!ok) throw failed(shown, error);
}

}  // namespace

bool writeAll(int fd, std::string_view bytes) {
  for (size_t done = 0; done < bytes.size();) {
    ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 1) return false;
    done += size_t(wrote);
  }
  return true;
}

std::string writeFile(const std::string& path, std::string_view bytes) {
  std::string shown = absolutePath(path);
  std::string target = shown;
  struct stat info {};
  bool exists = lstat(target.c_str(), &info) == 0;
  if (exists && S_ISLNK(info.st_mode)) {
    // Replace what the link points at, not the link itself.
    if (char* resolved = realpath(target.c_str(), nullptr)) {
      target = resolved;
      free(resolved);
      exists = stat(target.c_str(), &info) == 0;
    } else {
      exists = false;
    }
  }
  if (exists && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
    writeInPlace(shown, target, bytes);
    return shown;
  }
  auto slash = target.rfind('/');
  std::string temporary =
      target.substr(0, slash + 1) + "." + target.substr(slash + 1, 200) + ".nurel-XXXXXX";
  int fd = mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) throw failed(shown, errno);
  fchmod(fd, exists && S_ISREG(info.st_mode) ? info.st_mode & 07777 : newFileMode());
  bool ok = writeAll(fd, bytes);
  int error = errno;
  if (close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && rename(temporary.c_str(), target.c_str()) != 0) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    unlink(temporary.c_str());
    throw failed(shown, error);
  }
  return shown;
}

}  // namespace nurel
