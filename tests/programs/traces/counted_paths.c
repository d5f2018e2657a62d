// counted_paths KIND: runs the code of counted_paths.S, whose blocks are to be counted exactly, and prints where that
// code lies, and where in it the loop of exclusive pairs. The code takes the same way in every run; what comes between
// its blocks does not change how often each of them runs.
//   faults   accesses that fault: their handler repairs the page, skips the access, or jumps out
//   signals  a timer, whose handler does nothing to the code
//   threads  in several threads at once, which end in their own time
//   forks    children that go on from the middle, and end there
//   drops    with code dropped in between, from within the code too
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include "syscalls/check.h"

enum { ROUNDS = 4000, THREADS = 4 };

// Goes round `rounds` times, and reads from bad where the round's number says so.
long counted_loop(long rounds, const char* good, const char* bad);
// The same with exclusive pairs, and with a system call in the middle.
long counted_pairs(long rounds, long* word);
long counted_calls(long rounds, long number, long argument, long length);
extern char counted_code[], counted_code_end[];

static char* good;
static char* bad;
static long page;
static volatile int faults;
static volatile int kind;
static sigjmp_buf out;

static void on_fault(int number, siginfo_t* info, void* context) {
  (void)number;
  (void)info;
  mcontext_t* state = &((ucontext_t*)context)->uc_mcontext;
  ++faults;
  if (kind == 2) siglongjmp(out, 1);
  if (kind == 1) {
    state->pc += 4;
  } else {
    CHECK(mprotect(bad, (size_t)page, PROT_READ) == 0);
  }
}

static void on_tick(int number) { (void)number; }

static void forget(void) {
  void* code = mmap(NULL, (size_t)page, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(code != MAP_FAILED && munmap(code, (size_t)page) == 0);
}

static void run_faults(void) {
  struct sigaction action = {.sa_flags = SA_SIGINFO | SA_NODEFER};
  action.sa_sigaction = on_fault;
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0);
  for (kind = 0; kind < 3; ++kind) {
    for (volatile int time = 0; time < 20; ++time) {
      CHECK(mprotect(bad, (size_t)page, PROT_NONE) == 0);
      if (sigsetjmp(out, 1) == 0) counted_loop(ROUNDS / 8 + time, good, bad);
    }
  }
  CHECK(faults > 40);
}

static void run_all(void) {
  long word = 0;
  counted_loop(ROUNDS, good, good);
  counted_pairs(ROUNDS, &word);
  CHECK(word == 2 * ROUNDS);
  counted_calls(ROUNDS, 172, 0, 0);  // getpid
}

static void run_signals(void) {
  struct sigaction action = {.sa_handler = on_tick, .sa_flags = SA_RESTART};
  CHECK(sigaction(SIGALRM, &action, NULL) == 0);
  for (int time = 0; time < 6; ++time) {
    const struct itimerval every = {{0, 700}, {0, 700}};
    const struct itimerval never = {{0, 0}, {0, 0}};
    CHECK(setitimer(ITIMER_REAL, &every, NULL) == 0);
    counted_loop(20 * ROUNDS, good, good);  // No system call, which a signal may have made again.
    CHECK(setitimer(ITIMER_REAL, &never, NULL) == 0);
    forget();
  }
}

static void* run_thread(void* argument) {
  run_all();
  return argument;
}

static void run_threads(void) {
  pthread_t threads[THREADS];
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_create(&threads[index], NULL, run_thread, NULL) == 0);
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
}

static void run_forks(void) {
  for (int time = 0; time < 4; ++time) {
    run_all();
    const pid_t child = fork();
    CHECK(child >= 0);
    if (child == 0) {
      run_all();
      _exit(0);
    }
    int status = 0;
    CHECK(waitpid(child, &status, 0) == child && status == 0);
  }
}

static void run_drops(void) {
  for (int time = 0; time < 6; ++time) {
    run_all();
    forget();
    // mprotect of the code itself, by the system call in its middle.
    const long start = (long)counted_code & -page;
    const long end = ((long)counted_code_end + page - 1) & -page;
    counted_calls(300 + time, 226, start, end - start);
  }
}

int main(int argc, char** argv) {
  const char* what = argc > 1 ? argv[1] : "";
  page = sysconf(_SC_PAGESIZE);
  good = mmap(NULL, (size_t)page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  bad = mmap(NULL, (size_t)page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(good != MAP_FAILED && bad != MAP_FAILED);
  printf("%lu %lu\n", (unsigned long)counted_code, (unsigned long)counted_code_end);
  printf("%lu %lu\n", (unsigned long)counted_pairs, (unsigned long)counted_calls);
  fflush(stdout);
  if (strcmp(what, "faults") == 0) run_faults();
  if (strcmp(what, "signals") == 0) run_signals();
  if (strcmp(what, "threads") == 0) run_threads();
  if (strcmp(what, "forks") == 0) run_forks();
  if (strcmp(what, "drops") == 0) run_drops();
  return 0;
}
