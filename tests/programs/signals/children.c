// SIGCHLD with many children: children [ROUNDS]. A handler that waits for whoever has ended finds every one of them.
#include <errno.h>

#include "guard.h"

enum { CHILDREN = 12 };
static volatile int reaped;
static volatile int sum;
static volatile int calls;

static void reap(int number) {
  const int kept = errno;
  int status = 0;
  ++calls;
  while (waitpid(-1, &status, WNOHANG) > 0) {
    ++reaped;
    sum += WIFEXITED(status) ? WEXITSTATUS(status) : 1000 * (number == SIGCHLD);
  }
  errno = kept;
}

static void run(int sleep_too) {
  reaped = sum = calls = 0;
  sigset_t chld;
  sigset_t old;
  sigemptyset(&chld);
  sigaddset(&chld, SIGCHLD);
  volatile long steps = 0;
  for (int index = 0; index < CHILDREN; ++index) {
    const pid_t pid = fork();
    CHECK(pid >= 0);
    if (pid == 0) _exit(index + 1);
    for (int step = 0; step < 1000; ++step) ++steps;
  }
  if (sleep_too) {
    CHECK(sigprocmask(SIG_BLOCK, &chld, &old) == 0);
    while (reaped < CHILDREN) CHECK(sigsuspend(&old) == -1 && errno == EINTR);
    CHECK(sigprocmask(SIG_SETMASK, &old, NULL) == 0);
  } else {
    while (reaped < CHILDREN) ++steps;
  }
  CHECK(reaped == CHILDREN && sum == CHILDREN * (CHILDREN + 1) / 2 && calls <= CHILDREN);
  CHECK(waitpid(-1, NULL, WNOHANG) == -1 && errno == ECHILD);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  struct sigaction action = {.sa_flags = SA_RESTART | SA_NOCLDSTOP};
  action.sa_handler = reap;
  CHECK(sigaction(SIGCHLD, &action, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    run(0);
    run(1);
  }
  puts("every child is waited for");
  return 0;
}
