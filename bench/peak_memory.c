/* The peak of a program's memory:
 *
 *   peak_memory FILE COMMAND [ARGUMENT]...
 *
 * runs the command with this program's own streams and writes one line to FILE: the most that it, or a child that it
 * waited for, had in memory at one time in KiB, and the seconds that it took. Ends with the command's status, or 128
 * and the number of the signal that ended it.
 *
 * In C and small on purpose: the kernel counts what a process had before it became the command as well, so that no
 * figure is below this program's own. */
#include <errno.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

extern char** environ;

static double now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: peak_memory FILE COMMAND [ARGUMENT]...\n");
    return 2;
  }
  const double start = now();
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, argv[2], NULL, NULL, argv + 2, environ);
  if (error != 0) {
    fprintf(stderr, "peak_memory: %s: %s\n", argv[2], strerror(error));
    return 127;
  }
  int status = 0;
  struct rusage usage;
  while (wait4(pid, &status, 0, &usage) < 0) {
    if (errno != EINTR) return 125;
  }
  FILE* file = fopen(argv[1], "we");
  if (file == NULL) {
    fprintf(stderr, "peak_memory: %s: %s\n", argv[1], strerror(errno));
    return 125;
  }
  fprintf(file, "%ld %.3f\n", usage.ru_maxrss, now() - start);
  if (fclose(file) != 0) return 125;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
