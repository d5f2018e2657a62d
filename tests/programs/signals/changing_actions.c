// changing_actions [ROUNDS]: one thread raises a signal while another sets its action to a handler and to "ignore",
// over and over. The action may be another one when a signal that has been counted is looked at again: it is then lost,
// as it may be natively, and is never led to where the handler's address would stand. Once the handler stays, it is
// called. The user-mode emulator itself reads an action that changes, and crashes: this runs on a real kernel.
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

#include "guard.h"

enum { CHANGES = 2000 };

static atomic_long handled;
static atomic_int stopped;

static void on_signal(int number) {
  CHECK(number == SIGUSR1);
  atomic_fetch_add(&handled, 1);
}

static void* raise_signals(void* unused) {
  while (!stopped) raise(SIGUSR1);
  return unused;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 10);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    stopped = 0;
    CHECK(signal(SIGUSR1, SIG_IGN) != SIG_ERR);
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, raise_signals, NULL) == 0);
    for (int i = 0; i < CHANGES; ++i) {
      CHECK(signal(SIGUSR1, on_signal) != SIG_ERR);
      CHECK(signal(SIGUSR1, SIG_IGN) != SIG_ERR);
    }
    CHECK(signal(SIGUSR1, on_signal) != SIG_ERR);
    for (const long before = handled; handled == before;) sched_yield();
    stopped = 1;
    CHECK(pthread_join(thread, NULL) == 0);
  }
  puts("called or ignored");
  return 0;
}
