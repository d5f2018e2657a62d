// Signals that nobody handles: defaults [ROUNDS]. What a parent learns of children that are killed, by themselves or
// from outside, while they compute, sleep, and in a thread; what is ignored; stopping and going on.
#include <pthread.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include "guard.h"

enum way { RAISE, COMPUTING, SLEEPING, BY_THREAD, WAYS };
static const char* const ways[] = {"raise", "computing", "sleeping", "by a thread"};

static void* kill_all(void* number) {
  kill(getpid(), (int)(intptr_t)number);
  return NULL;
}

static void child(int number, enum way way, int ready) {
  const struct rlimit none = {0, 0};
  setrlimit(RLIMIT_CORE, &none);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  volatile long steps = 0;
  pthread_t thread;
  if (way == RAISE) raise(number);
  if (way == BY_THREAD) pthread_create(&thread, NULL, kill_all, (void*)(intptr_t)number);
  if (write(ready, "r", 1) != 1) _exit(2);
  if (way == RAISE) _exit(5);
  if (way == SLEEPING)
    for (;;) pause();
  for (;;) ++steps;
}

static int status_of(int number, enum way way) {
  int ends[2];
  char byte = 0;
  CHECK(pipe(ends) == 0);
  const pid_t pid = fork();
  CHECK(pid >= 0);
  if (pid == 0) child(number, way, ends[1]);
  CHECK(close(ends[1]) == 0);
  if (way == COMPUTING || way == SLEEPING) {
    CHECK(read(ends[0], &byte, 1) == 1);
    CHECK(kill(pid, number) == 0);
  }
  int status = 0;
  CHECK(waitpid(pid, &status, 0) == pid);
  CHECK(close(ends[0]) == 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

static int fault_status(int kind) {
  const pid_t pid = fork();
  CHECK(pid >= 0);
  if (pid == 0) {
    const struct rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    volatile int* volatile null = NULL;
    switch (kind) {
      case 0: *null = 1; break;
      case 1: __asm__ volatile("b 1f\n1: udf #0"); break;
      case 2: __asm__ volatile("brk #0"); break;
      case 3: abort();
      case 4: ((void (*)(void))(uintptr_t)0x1000)(); break;
      case 5:
        signal(SIGSEGV, SIG_IGN);
        *null = 1;
        break;  // A fault cannot be ignored.
      default: break;
    }
    _exit(5);
  }
  int status = 0;
  CHECK(waitpid(pid, &status, 0) == pid);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

static void stop_and_go(void) {
  int ends[2];
  char byte = 0;
  CHECK(pipe(ends) == 0);
  const pid_t pid = fork();
  CHECK(pid >= 0);
  if (pid == 0) child(SIGTERM, COMPUTING, ends[1]);
  CHECK(read(ends[0], &byte, 1) == 1);
  int status = 0;
  CHECK(kill(pid, SIGSTOP) == 0 && waitpid(pid, &status, WUNTRACED) == pid);
  CHECK(WIFSTOPPED(status) && WSTOPSIG(status) == SIGSTOP);
  CHECK(kill(pid, SIGCONT) == 0 && waitpid(pid, &status, WCONTINUED) == pid);
  CHECK(WIFCONTINUED(status));
  CHECK(kill(pid, SIGTERM) == 0 && waitpid(pid, &status, 0) == pid);
  CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  CHECK(close(ends[0]) == 0 && close(ends[1]) == 0);
}

static void ignored(void) {
  CHECK(signal(SIGUSR1, SIG_IGN) == SIG_DFL && signal(SIGILL, SIG_IGN) == SIG_DFL);
  CHECK(signal(SIGPIPE, SIG_IGN) == SIG_DFL);
  CHECK(raise(SIGUSR1) == 0 && raise(SIGILL) == 0 && raise(SIGCHLD) == 0);
  int ends[2];
  CHECK(pipe(ends) == 0 && close(ends[0]) == 0);
  CHECK(write(ends[1], "x", 1) == -1);
  CHECK(close(ends[1]) == 0);
  CHECK(signal(SIGUSR1, SIG_DFL) == SIG_IGN && signal(SIGILL, SIG_DFL) == SIG_IGN);
  CHECK(signal(SIGPIPE, SIG_DFL) == SIG_IGN);
}

int main(int argc, char** argv) {
  static const int numbers[] = {SIGHUP,  SIGILL,  SIGTRAP, SIGABRT, SIGBUS,  SIGFPE,
                                SIGKILL, SIGSEGV, SIGSYS,  SIGTERM, SIGUSR1, 40};
  static const char* const faults[] = {"null", "undefined word", "brk", "abort", "jump to nothing", "null, ignored"};
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (unsigned index = 0; index < sizeof numbers / sizeof *numbers; ++index) {
      if (round > 0 && index % 4 != (unsigned)round % 4) continue;
      for (int way = 0; way < WAYS; ++way) {
        const int status = status_of(numbers[index], (enum way)way);
        if (round == 0) printf("%d %s: %d\n", numbers[index], ways[way], status);
        CHECK(status == 128 + numbers[index]);
      }
    }
    for (int kind = 0; kind < 6; ++kind) {
      const int status = fault_status(kind);
      if (round == 0) printf("%s: %d\n", faults[kind], status);
      CHECK(status > 128);
    }
    stop_and_go();
    ignored();
  }
  fflush(stdout);
  return 0;
}
