// Counts 100 signals of a timer in a loop that makes no system call and has no exit that is not linked.
#include <signal.h>
#include <stdio.h>
#include <sys/time.h>

static volatile sig_atomic_t signals;

static void count(int signum) {
  (void)signum;
  ++signals;
}

int main(void) {
  struct sigaction action = {.sa_handler = count};
  const struct itimerval timer = {{0, 2000}, {0, 2000}};
  const struct itimerval none = {{0, 0}, {0, 0}};
  if (sigaction(SIGALRM, &action, NULL) != 0 || setitimer(ITIMER_REAL, &timer, NULL) != 0) return 1;
  while (signals < 100) {
  }
  if (setitimer(ITIMER_REAL, &none, NULL) != 0) return 1;
  printf("%s signals\n", signals >= 100 ? "100" : "fewer");
  return 0;
}
