// two_timers [PERIOD_IN_MICROSECONDS]: two timers whose handlers interrupt each other, and a handler that faults. After
// any number of signals, each handler has returned to the mask that it interrupted.
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <time.h>
#include <ucontext.h>

#include "guard.h"

enum { ENOUGH = 300 };

static atomic_long alarms;
static atomic_long others;
static atomic_long faults;

static void on_alarm(int number) {
  (void)number;
  atomic_fetch_add(&alarms, 1);
}

static void on_other(int number) {
  (void)number;
  atomic_fetch_add(&others, 1);
}

// Skips the load.
static void on_fault(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  ((ucontext_t*)context)->uc_mcontext.pc += 4;
  atomic_fetch_add(&faults, 1);
}

static void listen_to(int number, void (*handler)(int)) {
  struct sigaction action = {.sa_handler = handler, .sa_flags = SA_RESTART};
  CHECK(sigaction(number, &action, NULL) == 0);
}

static void expect_an_empty_mask(void) {
  sigset_t blocked;
  CHECK(sigprocmask(SIG_SETMASK, NULL, &blocked) == 0);
  for (int number = 1; number < SIGRTMIN; ++number) CHECK(sigismember(&blocked, number) != 1);
}

static timer_t start_timers(long period) {
  const struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGUSR1};
  timer_t timer;
  CHECK(timer_create(CLOCK_MONOTONIC, (struct sigevent*)&event, &timer) == 0);
  const struct itimerspec often = {{0, period * 1300}, {0, period * 1300}};  // Not in step with the other.
  CHECK(timer_settime(timer, 0, &often, NULL) == 0);
  const struct itimerval every = {{0, period}, {0, period}};
  CHECK(setitimer(ITIMER_REAL, &every, NULL) == 0);
  return timer;
}

static void stop_timers(timer_t timer) {
  const struct itimerval never = {{0, 0}, {0, 0}};
  CHECK(setitimer(ITIMER_REAL, &never, NULL) == 0);
  CHECK(timer_delete(timer) == 0);
}

static void load_nothing(void) {
  unsigned long result = 0;
  __asm__ volatile("ldr %0, [%1]" : "=r"(result) : "r"(8L) : "memory");
}

int main(int argc, char** argv) {
  const long period = argc > 1 ? atol(argv[1]) : 200;
  guard_begin();
  listen_to(SIGALRM, on_alarm);
  listen_to(SIGUSR1, on_other);
  struct sigaction action = {.sa_sigaction = on_fault, .sa_flags = SA_SIGINFO};
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  for (unsigned round = 1; round <= 3; ++round) {
    guard_round(round);
    const long alarms_before = atomic_load(&alarms);
    const long others_before = atomic_load(&others);
    const long faults_before = atomic_load(&faults);
    const timer_t timer = start_timers(period);
    long loads = 0;
    while (loads < 3 || atomic_load(&alarms) - alarms_before < ENOUGH ||
           atomic_load(&others) - others_before < ENOUGH) {
      load_nothing();
      ++loads;
    }
    stop_timers(timer);
    CHECK(atomic_load(&faults) - faults_before == loads);
    expect_an_empty_mask();
  }
  puts("each handler returns to the mask that it has interrupted, and a fault finds its handler");
  return 0;
}
