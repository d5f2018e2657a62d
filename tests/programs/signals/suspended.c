// suspended [ROUNDS]: a signal comes while everything is being blocked. It must be handled before the block is in force
// or in the sigsuspend that follows; the sigsuspend must never sleep on. Another process sends one signal in each
// round, at about that moment.
#include <sched.h>
#include <sys/prctl.h>

#include "guard.h"

static volatile sig_atomic_t come;
static volatile int* begun;  // The round that the other process sends its signal for.

static void on_signal(int number) {
  (void)number;
  ++come;
}

static void pass_time(int steps) {
  for (volatile int step = 0; step < steps; ++step) continue;
}

static void send_in_each(int rounds, pid_t to) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (int round = 1; round <= rounds; ++round) {
    while (*begun != round) sched_yield();
    pass_time(round * 13 % 97);
    kill(to, SIGALRM);
  }
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 10000);
  guard_begin();
  begun = mmap(NULL, sizeof *begun, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  CHECK(begun != MAP_FAILED);
  CHECK(signal(SIGALRM, on_signal) != SIG_ERR);
  const pid_t self = getpid();
  const pid_t sender = fork();
  CHECK(sender >= 0);
  if (sender == 0) {
    send_in_each(rounds, self);
    _exit(0);
  }
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  for (int round = 1; round <= rounds; ++round) {
    guard_round(round);
    come = 0;
    *begun = round;
    pass_time(round * 37 % 997);
    CHECK(sigprocmask(SIG_BLOCK, &all, &before) == 0);
    while (come == 0) CHECK(sigsuspend(&before) == -1);
    CHECK(sigprocmask(SIG_SETMASK, &before, NULL) == 0);
    CHECK(come == 1);
  }
  CHECK(waitpid(sender, NULL, 0) == sender);
  printf("%d signals, none slept over\n", rounds);
  return 0;
}
