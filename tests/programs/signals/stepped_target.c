// What every_instruction stops and signals. Each round makes one getppid, by which the other side finds the round, and
// then runs a loop without calls until its signals have been handled. If told to, the handler of the first signal waits
// for the second. Ends with status 3 if a signal was handled twice.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

static volatile sig_atomic_t first;
static volatile sig_atomic_t second;
static volatile sig_atomic_t waits;

static void on_first(int number) {
  (void)number;
  ++first;
  if (waits) {
    while (second == 0) continue;
  }
}

static void on_second(int number) {
  (void)number;
  ++second;
}

int main(int argc, char** argv) {
  waits = argc > 1 ? atoi(argv[1]) : 0;
  signal(SIGUSR1, on_first);
  signal(SIGUSR2, on_second);
  for (;;) {
    first = second = 0;
    getppid();
    while (first == 0) continue;
    while (waits && second == 0) continue;
    getuid();
    if (first != 1 || second != waits) return 3;
  }
}
