// exit_among_handlers [ROUNDS]: exit while other threads are in signal handlers, asleep with every signal blocked, or
// in a handler that interrupted such a sleep. Each case runs in a process of its own, which must end at once with
// status 42.
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <string.h>
#include <sys/select.h>
#include <time.h>

#include "guard.h"

enum { THREADS = 3 };
enum way {
  LOOPING_HANDLER,
  CALLING_HANDLER,
  SIGSUSPEND,
  HANDLER_OF_SIGSUSPEND,
  HANDLER_OF_PPOLL,
  HANDLER_OF_PSELECT,
  TIMERS,
  STORM,
  WAYS
};
static const char* const ways[] = {
    "handlers that loop",  "handlers that make calls", "sigsuspend", "handlers over sigsuspend",
    "handlers over ppoll", "handlers over pselect",    "timers",     "a storm of signals"};
static enum way way;
static atomic_int started;
static atomic_int handling;
static timer_t timer;
static atomic_long period = 500000;  // Of the timer, in nanoseconds.

static void set_period(long nanoseconds) {
  const struct timespec every = {nanoseconds / 1000000000, nanoseconds % 1000000000};
  const struct itimerspec often = {every, every};
  atomic_store(&period, nanoseconds);
  if (timer_settime(timer, 0, &often, NULL) != 0) abort();
}

static void handle(int number) {
  volatile long steps = number;
  if (way == STORM) return;
  if (atomic_fetch_add(&handling, 1) % 20 == 19 && way == TIMERS) set_period(atomic_load(&period) * 2);
  if (way == TIMERS) return;
  for (;;) steps += way == CALLING_HANDLER ? getppid() : 1;
}

static void* work(void* argument) {
  sigset_t all;
  sigfillset(&all);
  if (way >= SIGSUSPEND && way < TIMERS) pthread_sigmask(SIG_SETMASK, &all, NULL);
  if (way != SIGSUSPEND) sigdelset(&all, SIGUSR1);
  volatile long steps = 0;
  atomic_fetch_add(&started, 1);
  switch (way) {
    case SIGSUSPEND:
    case HANDLER_OF_SIGSUSPEND: sigsuspend(&all); break;
    case HANDLER_OF_PPOLL: ppoll(NULL, 0, NULL, &all); break;
    case HANDLER_OF_PSELECT: pselect(0, NULL, NULL, NULL, NULL, &all); break;
    default:
      for (;;) ++steps;
  }
  return argument;
}

static void in_child(void) {
  struct sigaction action = {.sa_flags = SA_RESTART};
  action.sa_handler = handle;
  sigfillset(&action.sa_mask);
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  pthread_t threads[THREADS];
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_create(&threads[index], NULL, work, NULL) == 0);
  while (atomic_load(&started) < THREADS) usleep(200);
  if (way == TIMERS) {
    struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGUSR1};
    CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0);
    set_period(atomic_load(&period));
    usleep(5000);
  } else if (way == STORM) {
    // Faster than an emulated processor handles them. They are not for this thread, which would not reach its own exit
    // even natively.
    sigset_t storm;
    sigemptyset(&storm);
    sigaddset(&storm, SIGUSR1);
    CHECK(pthread_sigmask(SIG_BLOCK, &storm, NULL) == 0);
    struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGUSR1};
    CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0);
    set_period(20000);
    usleep(2000);
  } else if (way != SIGSUSPEND) {
    for (int index = 0; index < THREADS; ++index) CHECK(pthread_kill(threads[index], SIGUSR1) == 0);
    while (atomic_load(&handling) < THREADS) usleep(200);
  } else {
    usleep(2000);
  }
  exit(42);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (int index = 0; index < WAYS; ++index) {
      if (round > 0 && index % 3 != round % 3) continue;
      way = (enum way)index;
      if (round == 0) printf("exit among %s\n", ways[way]);
      fflush(stdout);
      const pid_t child = fork();
      CHECK(child >= 0);
      if (child == 0) in_child();
      int status = -1;
      CHECK(waitpid(child, &status, 0) == child);
      CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 42);
    }
  }
  return 0;
}
