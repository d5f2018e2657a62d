// Asks the plug-in (getppid) for one signal that comes while a function of the plug-in's runs, and looks for it in a
// loop that makes no system call. Its one block ends in a register branch, which finds its target in the cache each
// time: nothing in it leads out of the cache. A loop of so many rounds without the signal has lost it.
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
