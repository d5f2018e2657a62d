// neighbours [ROUNDS]: a signal that is not blocked while others are. For each number, a loop waits for that signal
// with every other one blocked that can be. Then a sigsuspend waits for a signal that has come just before, and a
// handler waits for one that its own mask has blocked.
#include <string.h>
#include <time.h>

#include "guard.h"

static volatile sig_atomic_t come;

static void on_signal(int number) {
  come = number;
  timer_ticked();
}

// `number` is the only one that is not blocked, and the loop makes no system call.
static void wait_in_a_loop(int number, timer_t timer) {
  sigset_t others;
  sigset_t before;
  sigfillset(&others);
  sigdelset(&others, number);
  CHECK(sigprocmask(SIG_SETMASK, &others, &before) == 0);
  come = 0;
  const struct itimerspec soon = {{0, 0}, {0, 300000}};
  CHECK(timer_settime(timer, 0, &soon, NULL) == 0);
  while (come == 0) continue;
  CHECK(come == number);
  CHECK(sigprocmask(SIG_SETMASK, &before, NULL) == 0);
}

// False for a number that there is no timer for: an emulator keeps the last two for itself.
static int make_timer(int number, timer_t* timer) {
  struct sigevent event;
  memset(&event, 0, sizeof event);
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = number;
  const int made = timer_create(CLOCK_MONOTONIC, &event, timer) == 0;
  CHECK(made || number >= 63);
  return made;
}

// SIGTERM is blocked. SIGALRM comes in the loop or at the end of it. If it comes at the end it is blocked by then, and
// is waited for.
static void wait_behind_a_loop(int round) {
  sigset_t term;
  sigset_t alarm_too;
  sigset_t term_alone;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  alarm_too = term;
  sigaddset(&alarm_too, SIGALRM);
  term_alone = term;
  CHECK(sigprocmask(SIG_SETMASK, &term, NULL) == 0);
  come = 0;
  const struct itimerval once = {{0, 0}, {0, 200}};
  CHECK(setitimer(ITIMER_REAL, &once, NULL) == 0);
  for (volatile int step = 0; step < round * 997 % 20011; ++step) continue;
  CHECK(sigprocmask(SIG_SETMASK, &alarm_too, NULL) == 0);
  while (come == 0) CHECK(sigsuspend(&term_alone) == -1);
  CHECK(come == SIGALRM);
}

static volatile sig_atomic_t second_come;

static void on_second(int number) {
  (void)number;
  second_come = 1;
}

// Runs with the second signal blocked. That signal comes at the same time as this one, and the handler waits for it.
static void on_first(int number) {
  sigset_t none;
  sigemptyset(&none);
  while (second_come == 0) CHECK(sigsuspend(&none) == -1);
  come = number;
}

static void wait_in_a_handler(timer_t first, timer_t second) {
  second_come = 0;
  come = 0;
  sigset_t two;  // Blocked until both timers run: the first handler waits for the second signal.
  sigset_t before;
  sigemptyset(&two);
  sigaddset(&two, SIGUSR1);
  sigaddset(&two, SIGUSR2);
  CHECK(sigprocmask(SIG_BLOCK, &two, &before) == 0);
  struct timespec now;
  CHECK(clock_gettime(CLOCK_MONOTONIC, &now) == 0);
  const long soon = now.tv_nsec + 300000;
  const struct itimerspec both = {{0, 0}, {now.tv_sec + soon / 1000000000, soon % 1000000000}};
  CHECK(timer_settime(first, TIMER_ABSTIME, &both, NULL) == 0);
  CHECK(timer_settime(second, TIMER_ABSTIME, &both, NULL) == 0);
  CHECK(sigprocmask(SIG_SETMASK, &before, NULL) == 0);
  while (come == 0) continue;
  CHECK(come == SIGUSR1 && second_come == 1);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 20);
  guard_begin();
  CHECK(signal(SIGALRM, on_signal) != SIG_ERR);
  // SIGTERM blocked, and an alarm in a loop.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  CHECK(sigprocmask(SIG_SETMASK, &term, NULL) == 0);
  come = 0;
  alarm(1);
  while (come == 0) continue;
  puts("the alarm has come");
  for (int number = 1; number <= 64; ++number) {
    guard_round(number);
    // Two that nobody handles, and the C library's own.
    if (number == SIGKILL || number == SIGSTOP || (number >= 32 && number < SIGRTMIN)) continue;
    if (signal(number, on_signal) == SIG_ERR) continue;
    timer_t timer;
    if (!make_timer(number, &timer)) continue;
    wait_in_a_loop(number, timer);
    CHECK(timer_delete(timer) == 0);
  }
  puts("each has come while all others were blocked");
  for (int round = 1; round <= rounds; ++round) {
    guard_round(100 + round);
    wait_behind_a_loop(round);
  }
  printf("%d alarms, none slept over\n", rounds);
  struct sigaction action = {.sa_handler = on_first};
  sigaddset(&action.sa_mask, SIGUSR2);
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  CHECK(signal(SIGUSR2, on_second) != SIG_ERR);
  timer_t first;
  timer_t second;
  CHECK(make_timer(SIGUSR1, &first) && make_timer(SIGUSR2, &second));
  for (int round = 1; round <= rounds; ++round) {
    guard_round(100 + rounds + round);
    wait_in_a_handler(first, second);
  }
  printf("%d pairs, none slept over\n", rounds);
  return 0;
}
