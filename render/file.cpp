// render/file.cpp: writing a file whole, or not at all.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "link/home.h"
#include "render/pipe.h"
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

void waitFor(int fd, short events) {
  pollfd one{fd, events, 0};
  while (poll(&one, 1, -1) < 0 && errno == EINTR) {
  }
}

bool writeAll(int fd, std::string_view bytes) {
  roomForLargeOutput(fd, bytes.size());
  for (size_t done = 0; done < bytes.size();) {
    ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
    if (wrote < 0 && errno == EINTR) continue;
    // A descriptor the other side made non-blocking (a host's pipe can be) is waited on.
    if (wrote < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      waitFor(fd, POLLOUT);
      continue;
    }
    if (wrote < 1) return false;
    done += size_t(wrote);
  }
  return true;
}

std::string writeFile(const std::string& path, std::string_view bytes) {
  std::string shown = absolutePath(path);
  // The system reads a path up to its first NUL byte, so "a.txt\0b" would write a.txt: a file
  // that was not named. No file can be named with one.
  if (shown.find('\0') != std::string::npos) throw failed(shown, EINVAL);
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
  // The temporary name keeps at most 200 bytes of the file's name, cut between characters:
  // some file systems refuse names that are not UTF-8.
  std::string name = target.substr(slash + 1);
  size_t kept = std::min<size_t>(name.size(), 200);
  while (kept > 0 && kept < name.size() && (static_cast<unsigned char>(name[kept]) & 0xC0) == 0x80)
    --kept;
  std::string temporary =
      target.substr(0, slash + 1) + "." + name.substr(0, kept) + ".nurel-XXXXXX";
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
