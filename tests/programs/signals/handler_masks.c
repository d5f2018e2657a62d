// handler_masks: what a handler blocks, and what its frame says was blocked before. Some calls wait with a mask of
// their own. Then that mask is in force in the handler, and the thread's mask is in the frame.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <ucontext.h>
#include <unistd.h>

#include "syscalls/check.h"

static volatile uint64_t in_handler;
static volatile uint64_t in_frame;
static volatile int seen;

static uint64_t mask_now(void) {
  uint64_t mask = 0;
  syscall(SYS_rt_sigprocmask, SIG_BLOCK, NULL, &mask, sizeof mask);
  return mask;
}

static void look(int number, siginfo_t* info, void* context) {
  (void)info;
  in_handler = mask_now();
  memcpy((void*)&in_frame, &((ucontext_t*)context)->uc_sigmask, sizeof in_frame);
  seen = number;
}

static void tell(const char* what, int result, int error) {
  printf("%s: signal %d, %d, %d, handler %lx, frame %lx, after it %lx\n", what, seen, result, error,
         (unsigned long)in_handler, (unsigned long)in_frame, (unsigned long)mask_now());
  seen = 0;
}

static sigset_t set_of(int first, int second) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, first);
  sigaddset(&set, second);
  return set;
}

int main(void) {
  const int kinds[] = {0, SA_NODEFER, SA_RESTART};
  const sigset_t usual = set_of(SIGALRM, SIGHUP);
  const sigset_t waiting = set_of(SIGUSR2, SIGTERM);
  const struct itimerval soon = {{0, 0}, {0, 20000}};
  const struct timespec long_time = {50, 0};
  const int epoll = epoll_create1(0);
  CHECK(epoll >= 0);
  for (size_t kind = 0; kind < sizeof kinds / sizeof *kinds; ++kind) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = look;
    action.sa_flags = SA_SIGINFO | kinds[kind];
    sigaddset(&action.sa_mask, SIGINT);
    CHECK(sigaction(SIGALRM, &action, NULL) == 0);
    CHECK(sigprocmask(SIG_SETMASK, &usual, NULL) == 0);
    printf("flags %x\n", (unsigned)kinds[kind]);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    int result = sigsuspend(&waiting);
    tell("sigsuspend", result, errno);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    result = ppoll(NULL, 0, &long_time, &waiting);
    tell("ppoll", result, errno);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    result = pselect(0, NULL, NULL, NULL, &long_time, &waiting);
    tell("pselect", result, errno);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    struct epoll_event event;
    result = epoll_pwait(epoll, &event, 1, 50000, &waiting);
    tell("epoll_pwait", result, errno);
    CHECK(sigprocmask(SIG_UNBLOCK, &usual, NULL) == 0 && sigprocmask(SIG_BLOCK, &waiting, NULL) == 0);
    raise(SIGALRM);
    tell("raise", 0, 0);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    while (seen == 0) {
    }
    tell("a loop", 0, 0);
    CHECK(setitimer(ITIMER_REAL, &soon, NULL) == 0);
    while (seen == 0) getppid();
    tell("calls", 0, 0);
  }
  return 0;
}
