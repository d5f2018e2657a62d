// Asks the plug-in, by getppid, for one signal that comes while a function of the plug-in runs, and waits for the
// signal in a loop that makes no system call. The loop is one block that ends in a register branch. The branch finds
// its target in the cache each time, so nothing in the loop leaves the cache. If the loop ends without the signal after
// many rounds, the signal is lost.
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static volatile int arrived;

static void note(int signum) {
  (void)signum;
  arrived = 1;
}

int main(void) {
  const struct sigaction action = {.sa_handler = note};
  if (sigaction(SIGUSR1, &action, NULL) != 0) return 1;
  getppid();
  long rounds = 100000;
  __asm__ volatile(
      "adr    x3, 1f\n"
      "adr    x4, 2f\n"
      "1: ldr w5, [%1]\n"
      "subs   %0, %0, #1\n"
      "ccmp   w5, #0, #0, ne\n"  // eq: rounds are left, and the signal has not come.
      "csel   x5, x3, x4, eq\n"
      "br     x5\n"
      "2:\n"
      : "+r"(rounds)
      : "r"(&arrived)
      : "x3", "x4", "x5", "cc", "memory");
  puts(rounds > 0 ? "arrived" : "lost");
  return 0;
}
