// A timer that no machine is too slow for, and a watch over a program that runs in rounds: a process of its own ends
// the program if one round takes far too long, and tells which; so does a failed check. It is no child of the
// program's, which may wait for any child, and it takes no signal.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "syscalls/check.h"

enum { GUARD_SECONDS = 100, GUARD_DONE = -1 };  // For one round. Only a hang takes that long.

static volatile int* guard_word;  // The round; GUARD_DONE once the program has come to its end.

static inline void guard_at_exit(int status, void* owner) {
  if (getpid() != (pid_t)(long)owner) return;  // A child that ends by exit.
  if (status != 0) dprintf(STDERR_FILENO, "in round %d\n", *guard_word);
  *guard_word = GUARD_DONE;
}

static inline void guard_watch(pid_t watched, int handle) {
  for (int round = *guard_word;; round = *guard_word) {
    struct pollfd end = {handle, POLLIN, 0};
    if (poll(&end, 1, GUARD_SECONDS * 1000) != 0) break;
    if (*guard_word != round) continue;
    dprintf(STDERR_FILENO, "round %d hangs\n", round);
    kill(watched, SIGKILL);
    _exit(1);
  }
  if (*guard_word != GUARD_DONE) dprintf(STDERR_FILENO, "ended in round %d\n", *guard_word);
  _exit(0);
}

// Once, before the first round and before any handler and thread.
static inline void guard_begin(void) {
  guard_word = mmap(NULL, sizeof *guard_word, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  CHECK(guard_word != MAP_FAILED);
  const pid_t watched = getpid();
  CHECK(on_exit(guard_at_exit, (void*)(long)watched) == 0);
  const int handle = (int)syscall(SYS_pidfd_open, watched, 0);
  CHECK(handle >= 0);
  const pid_t middle = fork();
  CHECK(middle >= 0);
  if (middle == 0) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, NULL);
    if (fork() == 0) guard_watch(watched, handle);
    _exit(0);
  }
  CHECK(waitpid(middle, NULL, 0) == middle);
  CHECK(close(handle) == 0);
}

static inline void guard_round(int round) { *guard_word = round; }

// Ticks of SIGALRM. On a machine that takes longer for one than the period, the program would never get on: every
// twenty ticks the period doubles. The handler says that it runs by timer_ticked; a period of 0 ends the timer.
static volatile long timer_period;
static volatile int timer_ticks;

static inline void timer_set(long microseconds) {
  timer_period = microseconds;
  timer_ticks = 0;
  const struct timeval period = {microseconds / 1000000, microseconds % 1000000};
  const struct itimerval often = {period, period};
  if (setitimer(ITIMER_REAL, &often, NULL) != 0) abort();
}

static inline void timer_ticked(void) {
  if (++timer_ticks >= 20 && timer_period != 0) timer_set(timer_period * 2);
}
