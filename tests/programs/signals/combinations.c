// combinations [ROUNDS]: {handler returns, siglongjmps} x {its signal blocked meanwhile, SA_NODEFER} x {timer, kill by
// this process, kill by another}. Every signal of a kill is handled exactly once.
#include <setjmp.h>
#include <stdatomic.h>
#include <sys/prctl.h>
#include <time.h>

#include "guard.h"

enum source { TIMER, OWN_KILL, OTHER_KILL };
enum { SIGNALS = 8 };

static atomic_int* handled;  // Shared with the process that sends.
static volatile int jumps;
static volatile int depth;
static sigjmp_buf out;
static timer_t timer;
static volatile long period;  // Of the timer, in nanoseconds; 0: it is not used.

static void set_period(long nanoseconds) {
  const struct timespec every = {nanoseconds / 1000000000, nanoseconds % 1000000000};
  const struct itimerspec often = {every, every};
  period = nanoseconds;
  if (timer_settime(timer, 0, &often, NULL) != 0) abort();
}

static void handle(int number) {
  ++depth;
  // With a shorter period a slow machine would never get on between two signals.
  if (atomic_fetch_add(handled, 1) % 20 == 19 && period != 0) set_period(period * 2);
  if (jumps && number == SIGUSR1) {
    depth = 0;  // All of them are left.
    siglongjmp(out, 1);
  }
  --depth;
}

// Sends the next signal when the last one has been handled.
__attribute__((noinline)) static pid_t start_sender(void) {
  const pid_t target = getpid();
  const pid_t sender = fork();
  CHECK(sender >= 0);
  if (sender != 0) return sender;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int sent = 0; sent < SIGNALS; ++sent) {
    while (atomic_load(handled) != sent) {
      if (atomic_load(handled) > sent) _exit(1);  // One of them has come twice.
      usleep(100);
    }
    if (kill(target, SIGUSR1) != 0) _exit(2);
  }
  _exit(0);
}

static void run(enum source source, int nodefer) {
  struct sigaction action = {.sa_flags = nodefer ? SA_NODEFER : 0};
  action.sa_handler = handle;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);
  // A signal of the timer, sent under the number of the other one, for the same handler.
  struct sigevent event = {.sigev_notify = SIGEV_SIGNAL, .sigev_signo = SIGUSR1};
  period = 0;
  CHECK(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0);
  atomic_store(handled, 0);
  depth = 0;
  volatile int sent = 0;
  volatile long steps = 0;
  volatile pid_t sender = 0;
  volatile int begun = 0;

  sigsetjmp(out, 1);
  if (!begun) {  // Once there is a place to jump to.
    begun = 1;
    sigset_t user;  // No jump between the call and the assignment.
    sigemptyset(&user);
    sigaddset(&user, SIGUSR1);
    CHECK(sigprocmask(SIG_BLOCK, &user, NULL) == 0);
    if (source == OTHER_KILL) sender = start_sender();
    CHECK(sigprocmask(SIG_UNBLOCK, &user, NULL) == 0);
    if (source == TIMER) set_period(1000000);
  }
  CHECK(depth == 0);
  while (atomic_load(handled) < SIGNALS) {
    if (source == OWN_KILL) {
      const int before = atomic_load(handled);
      CHECK(before == sent);
      ++sent;
      CHECK(kill(getpid(), SIGUSR1) == 0);
      CHECK(atomic_load(handled) == sent);  // Before kill returns: there is one thread only.
    } else {
      for (int step = 0; step < 100; ++step) ++steps;
    }
  }
  jumps = 0;  // Nothing below is left by a jump.
  period = 0;
  CHECK(timer_delete(timer) == 0);
  if (source != TIMER) {
    for (int wait = 0; wait < 20; ++wait) steps += getppid();
    CHECK(atomic_load(handled) == SIGNALS);
  }
  int status = 0;
  if (source == OTHER_KILL) CHECK(waitpid(sender, &status, 0) == sender && status == 0);
  // A signal of the timer's may still be on its way.
  CHECK(signal(SIGUSR1, SIG_IGN) != SIG_ERR);
  sigset_t now;
  CHECK(sigprocmask(SIG_SETMASK, NULL, &now) == 0 && sigismember(&now, SIGUSR1) == 0);
}

int main(int argc, char** argv) {
  static const char* const sources[] = {"timer", "own kill", "another's kill"};
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  handled = mmap(NULL, sizeof *handled, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  CHECK(handled != MAP_FAILED);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (int combination = 0; combination < 12; ++combination) {
      const enum source source = (enum source)(combination / 4);
      const int nodefer = combination % 2;
      jumps = combination / 2 % 2;
      run(source, nodefer);
      if (round > 0) continue;
      printf("%s, %s, %s\n", sources[source], combination / 2 % 2 ? "jumps" : "returns", nodefer ? "free" : "blocked");
    }
  }
  return 0;
}
