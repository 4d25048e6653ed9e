/* bench/run.c: runs a program and reports its own peak memory.
 *
 *   nurel_bench_run <program> [<argument>...]
 *
 * Writes "pid <pid>" and, once the program has ended, "end <status> <peak RSS in KiB> <ns>"
 * (ns on the monotonic clock) to descriptor 3, then exits. A child made by vfork or
 * posix_spawn inherits its parent's peak RSS at exec, so the benchmark driver, which holds
 * replies of hundreds of MiB, cannot read a program's own peak from wait4(); this small static
 * program stands between them and is the only parent the measured program ever had. The long
 * MCP session test measures `nurel mcp` through it for the same reason. */
#define _GNU_SOURCE
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  pid_t pid = fork();
  if (pid < 0) return 2;
  if (pid == 0) {
    close(3);
    execv(argv[1], argv + 1);
    _exit(127);
  }
  dprintf(3, "pid %d\n", (int)pid);
  int status = 0;
  struct rusage usage;
  while (wait4(pid, &status, 0, &usage) < 0) {
  }
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  dprintf(3, "end %d %ld %lld\n", status, usage.ru_maxrss,
          (long long)now.tv_sec * 1000000000LL + now.tv_nsec);
  return 0;
}
