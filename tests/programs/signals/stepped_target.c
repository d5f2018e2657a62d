// What every_instruction stops and signals. Each round makes one getppid, by which the other side finds the round, and
// then runs a loop without calls until its signals have been handled. With 1 as its argument the handler of the first
// signal waits for the second. With 2 it reads in place of the loop, what the handler writes: a signal that the call
// misses leaves it there for ever. Ends with status 3 if a signal was handled twice.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

static volatile sig_atomic_t first;
static volatile sig_atomic_t second;
static volatile sig_atomic_t waits;
static volatile sig_atomic_t reads;
static int ends[2];

static void on_first(int number) {
  (void)number;
  ++first;
  if (reads && write(ends[1], "", 1) != 1) _exit(4);
  if (waits) {
    while (second == 0) continue;
  }
}

static void on_second(int number) {
  (void)number;
  ++second;
}

int main(int argc, char** argv) {
  const int way = argc > 1 ? atoi(argv[1]) : 0;
  waits = way == 1;
  reads = way == 2;
  if (pipe(ends) != 0) return 4;
  signal(SIGUSR1, on_first);
  signal(SIGUSR2, on_second);
  for (;;) {
    first = second = 0;
    getppid();
    char byte = 1;
    if (reads && (read(ends[0], &byte, 1) != 1 || byte != 0)) return 4;
    while (first == 0) continue;
    while (waits && second == 0) continue;
    getuid();
    if (first != 1 || second != waits) return 3;
  }
}
