// render/pipe_linux.cpp: pipes grow with F_SETPIPE_SZ, up to /proc/sys/fs/pipe-max-size (1 MiB
// by default) for a process without privileges.
#include <fcntl.h>

#include "render/pipe.h"

namespace nurel {

void roomForLargeOutput(int fd, size_t size) {
  if (size < largeOutput) return;
  // F_GETPIPE_SZ fails on anything that is not a pipe: files, terminals, sockets.
  int now = fcntl(fd, F_GETPIPE_SZ);
  if (now >= 0 && size_t(now) < largeOutput) fcntl(fd, F_SETPIPE_SZ, int(largeOutput));
}

}  // namespace nurel
