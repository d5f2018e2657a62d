// stepped_paths [NAME]: what every_instruction steps through, and signals, while a trace is made. Each round runs the
// path until it is almost hot, announces that by one getppid, and then runs it until its signal has been handled. Ends
// with status 3 if a signal was handled twice, and with 4 if the path's result is wrong.
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include "paths.h"

enum { ALMOST_HOT = 250, A_FEW = 5 };

static volatile sig_atomic_t first;

static void on_first(int number) {
  (void)number;
  ++first;
}

int main(int argc, char** argv) {
  const struct path* path = paths;
  while (argc > 1 && path < paths + PATHS - 1 && strcmp(path->name, argv[1]) != 0) ++path;
  const long expected = path->run(A_FEW);
  signal(SIGUSR1, on_first);
  for (;;) {
    forget_rewritten_code();
    first = 0;
    path->run(ALMOST_HOT);
    getppid();
    do {
      if (path->run(A_FEW) != expected) return 4;
    } while (first == 0);
    getuid();
    if (first != 1) return 3;
  }
}
