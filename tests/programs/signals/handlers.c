// What handlers do: handlers [ROUNDS]. Long ones, ones that another signal interrupts, jumps out of a nest of them,
// masks, signals that wait, signals that are waited for, one-time handlers.
#include <errno.h>
#include <setjmp.h>
#include <string.h>
#include <time.h>
#include <ucontext.h>

#include "guard.h"

static volatile int alarms;
static volatile int users;
static volatile int depth;
static volatile int deepest;
static volatile int mode;
static sigjmp_buf out;

enum { COUNT, WAIT_FOR_ALARM, JUMP };

static void on_alarm(int number) {
  (void)number;
  timer_ticked();
  ++alarms;
  ++depth;
  if (depth > deepest) deepest = depth;
  --depth;
  if (mode == JUMP && depth == 1 && alarms >= 3) siglongjmp(out, 7);  // Off the other handler.
}

static void on_user(int number) {
  (void)number;
  ++users;
  ++depth;
  if (depth > deepest) deepest = depth;
  const int before = alarms;
  if (mode != COUNT)
    while (alarms < before + 3) continue;  // Only a handler on top of this one ends it.
  --depth;
}

static void act(int number, void (*handler)(int), int flags, const sigset_t* mask) {
  struct sigaction action = {.sa_flags = flags};
  action.sa_handler = handler;
  if (mask != NULL) action.sa_mask = *mask;
  CHECK(sigaction(number, &action, NULL) == 0);
}

static void reset(int new_mode) {
  alarms = users = depth = deepest = 0;
  mode = new_mode;
}

static void interrupted_handler(void) {
  reset(WAIT_FOR_ALARM);
  timer_set(1000);
  CHECK(raise(SIGUSR1) == 0);
  timer_set(0);
  CHECK(users == 1 && alarms >= 3 && deepest == 2 && depth == 0);
}

static void jump_out_of_two(void) {
  reset(JUMP);
  const int came = sigsetjmp(out, 1);
  if (came == 0) {
    timer_set(1000);
    CHECK(raise(SIGUSR1) == 0);
    CHECK(!"the handler has returned");
  }
  timer_set(0);
  CHECK(came == 7 && users == 1 && deepest == 2);
  sigset_t now;
  CHECK(sigprocmask(SIG_SETMASK, NULL, &now) == 0);
  CHECK(!sigismember(&now, SIGUSR1) && !sigismember(&now, SIGALRM));
}

// A handler that runs until the next signal waits is not entered again meanwhile.
static volatile int overlaps;
static volatile int running;
static void slow(int number) {
  if (running) ++overlaps;
  if (alarms == 3) return;
  running = 1;
  sigset_t pending;
  do CHECK(sigpending(&pending) == 0);
  while (!sigismember(&pending, number));
  if (++alarms == 3) timer_set(0);
  running = 0;
}

static void slow_handler(void) {
  reset(COUNT);
  act(SIGALRM, slow, 0, NULL);
  timer_set(1000);
  while (alarms < 3) continue;
  CHECK(overlaps == 0);
}

static void masks(void) {
  reset(COUNT);
  act(SIGUSR1, on_user, 0, NULL);
  sigset_t set;
  sigset_t old;
  sigset_t pending;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigaddset(&set, SIGRTMIN + 1);
  CHECK(sigprocmask(SIG_BLOCK, &set, &old) == 0);
  for (int index = 0; index < 3; ++index) CHECK(kill(getpid(), SIGUSR1) == 0);
  CHECK(sigpending(&pending) == 0 && sigismember(&pending, SIGUSR1));
  CHECK(users == 0);
  CHECK(sigprocmask(SIG_SETMASK, &old, NULL) == 0);
  CHECK(users == 1);  // Those that wait are one.
  CHECK(sigpending(&pending) == 0 && !sigismember(&pending, SIGUSR1));

  CHECK(sigprocmask(SIG_BLOCK, &set, NULL) == 0);
  CHECK(kill(getpid(), SIGUSR1) == 0);
  int number = 0;
  CHECK(sigwait(&set, &number) == 0 && number == SIGUSR1);
  const union sigval value = {.sival_int = 77};
  CHECK(sigqueue(getpid(), SIGRTMIN + 1, value) == 0);
  siginfo_t info;
  CHECK(sigwaitinfo(&set, &info) == SIGRTMIN + 1 && info.si_value.sival_int == 77 && info.si_code == SI_QUEUE);
  const struct timespec soon = {0, 1000000};
  CHECK(sigtimedwait(&set, &info, &soon) == -1 && errno == EAGAIN);

  act(SIGRTMIN + 1, on_user, 0, NULL);
  users = 0;
  for (int index = 0; index < 5; ++index) CHECK(sigqueue(getpid(), SIGRTMIN + 1, value) == 0);
  CHECK(users == 0);
  CHECK(sigprocmask(SIG_SETMASK, &old, NULL) == 0);
  while (users < 5) continue;  // Each of them, since these queue.
  for (int index = 0; index < 10; ++index) getppid();
  CHECK(users == 5);
}

// A handler whose mask has everything: nothing comes between.
static volatile int inner;
static void masked_handler(int number) {
  (void)number;
  CHECK(kill(getpid(), SIGUSR1) == 0);
  for (int index = 0; index < 100; ++index) getppid();
  inner = users;
}
static void handler_mask(void) {
  reset(COUNT);
  sigset_t all;
  sigfillset(&all);
  act(SIGUSR2, masked_handler, 0, &all);
  inner = -1;
  CHECK(raise(SIGUSR2) == 0);
  CHECK(inner == 0 && users == 1);
}

static void one_time(void) {
  reset(COUNT);
  struct sigaction old;
  act(SIGURG, on_user, SA_RESETHAND, NULL);  // Ignored by default.
  CHECK(raise(SIGURG) == 0 && users == 1);
  CHECK(sigaction(SIGURG, NULL, &old) == 0 && old.sa_handler == SIG_DFL);
  CHECK(raise(SIGURG) == 0 && users == 1);
  act(SIGWINCH, on_user, SA_RESTART, NULL);
  CHECK(sigaction(SIGWINCH, NULL, &old) == 0);
  CHECK(old.sa_handler == on_user && (old.sa_flags & (SA_RESTART | SA_SIGINFO | SA_RESETHAND)) == SA_RESTART);
  CHECK(signal(SIGWINCH, SIG_IGN) == on_user);
  CHECK(raise(SIGWINCH) == 0 && users == 1);
}

// The handler's changes to the interrupted registers are what the program goes on with.
static void change_register(int number, siginfo_t* info, void* context) {
  CHECK(info->si_signo == number);
  ucontext_t* state = context;
  if (state->uc_mcontext.regs[19] == 0x1234) state->uc_mcontext.regs[19] = 0x4321;
}
static void changed_context(void) {
  struct sigaction action = {.sa_flags = SA_SIGINFO};
  action.sa_sigaction = change_register;
  CHECK(sigaction(SIGUSR2, &action, NULL) == 0);
  register long kept __asm__("x19") = 0x1234;
  register long x0 __asm__("x0") = getpid();
  register long x1 __asm__("x1") = SIGUSR2;
  register long x8 __asm__("x8") = 129;  // kill
  __asm__ volatile("svc #0" : "+r"(kept), "+r"(x0) : "r"(x1), "r"(x8) : "memory");
  const long seen = kept;
  CHECK(x0 == 0 && seen == 0x4321);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    act(SIGALRM, on_alarm, 0, NULL);
    act(SIGUSR1, on_user, 0, NULL);
    interrupted_handler();
    jump_out_of_two();
    slow_handler();
    masks();
    handler_mask();
    one_time();
    changed_context();
  }
  puts("handlers as they should be");
  return 0;
}
