// timed_paths [ROUNDS]: signals while paths become traces. In each round every path is rewritten anew, and runs under a
// timer at 1 kHz and a second thread that sends one signal after another. The path must return what it returns without
// signals, and each signal of the thread must be handled exactly once.
#include <pthread.h>
#include <signal.h>

#include "guard.h"
#include "paths.h"

enum { COUNT = 3000 };

static pthread_t main_thread;
static volatile long sent;
static volatile long handled;
static volatile int done;
static volatile long spun;

static void tick(int number) {
  (void)number;
  timer_ticked();
  for (int index = 0; index < 3; ++index) spun = spun + index;
}

static void on_signal(int number) {
  (void)number;
  ++handled;
}

static void* send_signals(void* argument) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, NULL);
  for (unsigned delay = 1; !done; delay = delay * 5 % 499) {
    ++sent;
    if (pthread_kill(main_thread, SIGUSR1) != 0) abort();
    while (handled != sent && !done) usleep(20);
    usleep(delay);
  }
  return argument;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  long expected[PATHS];
  for (int index = 0; index < PATHS; ++index) expected[index] = paths[index].run(COUNT);
  main_thread = pthread_self();
  CHECK(signal(SIGALRM, tick) != SIG_ERR);
  CHECK(signal(SIGUSR1, on_signal) != SIG_ERR);
  pthread_t sender;
  CHECK(pthread_create(&sender, NULL, send_signals, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (int index = 0; index < PATHS; ++index) {
      forget_rewritten_code();
      timer_set(1000);
      const long result = paths[index].run(COUNT);
      timer_set(0);
      if (result != expected[index]) fprintf(stderr, "%s: %lx, not %lx\n", paths[index].name, result, expected[index]);
      CHECK(result == expected[index]);
    }
  }
  done = 1;
  CHECK(pthread_join(sender, NULL) == 0);
  while (handled != sent) continue;
  for (int index = 0; index < PATHS; ++index) printf("%s the same\n", paths[index].name);
  return 0;
}
