/* bench/relay.c: the baseline of the data-path figures: bytes moved between standard
 * input/output and a Unix socket with plain reads and writes, nothing parsed.
 *
 *   nurel_bench_relay <socket>
 *
 * Copies standard input to the socket and the socket to standard output in blocks of
 * 65,536 bytes, the size the program reads its replies in, until the socket ends. */
#define _GNU_SOURCE
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static int writeAll(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    ssize_t wrote = write(fd, bytes, size);
    if (wrote < 1) return 0;
    bytes += wrote;
    size -= (size_t)wrote;
  }
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
  if (fd < 0 || connect(fd, (struct sockaddr*)&address, sizeof address) != 0) return 1;
  static char block[65536];
  struct pollfd polled[2] = {{0, POLLIN, 0}, {fd, POLLIN, 0}};
  for (;;) {
    if (poll(polled, 2, -1) < 0) continue;
    if (polled[0].revents) {
      ssize_t got = read(0, block, sizeof block);
      if (got < 1) {
        shutdown(fd, SHUT_WR);
        polled[0].fd = -1;
      } else if (!writeAll(fd, block, (size_t)got)) {
        return 1;
      }
    }
    if (polled[1].revents) {
      ssize_t got = read(fd, block, sizeof block);
      if (got < 1) return 0;
      if (!writeAll(1, block, (size_t)got)) return 1;
    }
  }
}
