// Whoever executes a program may have closed standard descriptors; the program must find them closed. Tried with each
// set of them, and again with another file in the place of standard output.
#include <fcntl.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

enum { ALL = 8, REPLACED = 8 };

// Which of the three are open, as bits. It is the status of the executed program.
static int open_ones(void) {
  int open_bits = 0;
  for (int fd = 0; fd < 3; ++fd) open_bits |= (fcntl(fd, F_GETFD) != -1) << fd;
  return open_bits;
}

static void become(const char* self, int closed, int replaces) {
  const int other = open("/dev/null", O_WRONLY);
  CHECK(other > 2);
  for (int fd = 0; fd < 3; ++fd) {
    if (closed >> fd & 1) CHECK(close(fd) == 0);
  }
  if (replaces) CHECK(dup2(other, 1) == 1);
  execl("/no/such/program", "none", (char*)NULL);
  execl(self, self, "look", (char*)NULL);
  _exit(99);
}

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "look") == 0) return open_ones();
  for (int what = 0; what < ALL + REPLACED; ++what) {
    fflush(stdout);
    const pid_t child = fork();
    CHECK(child >= 0);
    if (child == 0) become(argv[0], what % ALL, what / ALL);
    int status = 0;
    CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status));
    printf("%d closed%s: %d open\n", what % ALL, what / ALL ? ", 1 replaced" : "", WEXITSTATUS(status));
  }
  return 0;
}
