// A long run of everything that threads do, to show what grows and what gets lost:
//
//   soak SECONDS [THREADS [SEQUENCE [PROCESSES]]]          (defaults: 50, 10000, 500)
//
// SEQUENCE short-lived threads one after another, then PROCESSES children, ten at a time; then, until SECONDS have
// passed since the beginning and five times at least, rounds of THREADS threads at once, which compute, get signals
// from the first thread and from each other, and each make a child of their own. Prints for each stage what memory is
// resident when it is over. Ends with status 1 if memory has grown over the threads in sequence, the first tenth apart,
// or from the second round to the last.
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

#include "guard.h"

enum { MOST_THREADS = 200, AT_ONCE = 10, LEAST_ROUNDS = 5 };
// The heaps of fifty threads settle in the first rounds. A lost thread costs more than all of this.
enum { KIB_FOR_SEQUENCE = 1024, KIB_FOR_ROUNDS = 4096 };

static pthread_t threads[MOST_THREADS];
static int thread_count = 50;
static atomic_int started;
static atomic_int signalled;  // Threads that have had a signal in this round.
static atomic_long signals_handled;
static _Thread_local volatile sig_atomic_t mine;

static void handle(int number) {
  (void)number;
  if (mine++ == 0) atomic_fetch_add(&signalled, 1);
  atomic_fetch_add(&signals_handled, 1);
}

// KiB of the line of /proc/self/status that begins like this.
static long status_value(const char* name) {
  long result = -1;
  char line[256];
  FILE* status = fopen("/proc/self/status", "r");
  CHECK(status);
  while (fgets(line, sizeof line, status)) {
    if (strncmp(line, name, strlen(name)) == 0) result = atol(line + strlen(name));
  }
  fclose(status);
  CHECK(result >= 0);
  return result;
}

static double seconds_now(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

static int wait_for(pid_t child) {
  int status = -1;
  pid_t result;
  while ((result = waitpid(child, &status, 0)) == -1 && errno == EINTR) continue;
  CHECK(result == child && WIFEXITED(status));
  return WEXITSTATUS(status);
}

static long work(long rounds) {
  volatile double value = 1.0;
  for (long round = 0; round < rounds; ++round) value = value * 0.5 + 1.0;
  return value > 1.0 ? rounds : 0;
}

static void* short_life(void* argument) {
  CHECK(work(10) == 10);
  return argument;
}

static void sequence(long count) {
  for (long number = 0; number < count; ++number) {
    if (number % 100 == 0) guard_round((int)(number / 100));
    pthread_t thread;
    void* result = NULL;
    CHECK(pthread_create(&thread, NULL, short_life, (void*)(intptr_t)number) == 0);
    CHECK(pthread_join(thread, &result) == 0 && result == (void*)(intptr_t)number);
  }
}

static pid_t make_child(int status) {
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    work(1000);
    _exit(status);
  }
  return child;
}

static void processes(long count) {
  pid_t children[AT_ONCE];
  for (long number = 0; number < count; number += AT_ONCE) {
    guard_round((int)(1000 + number));
    for (int index = 0; index < AT_ONCE; ++index) children[index] = make_child(index + 10);
    for (int index = 0; index < AT_ONCE; ++index) CHECK(wait_for(children[index]) == index + 10);
  }
}

static void* live(void* argument) {
  const int number = (int)(intptr_t)argument;
  atomic_fetch_add(&started, 1);
  while (atomic_load(&started) < thread_count) work(100);
  // Each thread signals the next one, so that each both sends and receives.
  CHECK(pthread_kill(threads[(number + 1) % thread_count], SIGUSR1) == 0);
  work(20000);
  CHECK(wait_for(make_child(number + 1)) == number + 1);
  while (atomic_load(&signalled) < thread_count) work(100);
  return argument;
}

static void together(void) {
  atomic_store(&started, 0);
  atomic_store(&signalled, 0);
  for (int number = 0; number < thread_count; ++number) {
    CHECK(pthread_create(&threads[number], NULL, live, (void*)(intptr_t)number) == 0);
  }
  for (int number = 0; number < thread_count; ++number) CHECK(pthread_kill(threads[number], SIGUSR1) == 0);
  for (int number = 0; number < thread_count; ++number) {
    void* result = NULL;
    CHECK(pthread_join(threads[number], &result) == 0 && result == (void*)(intptr_t)number);
  }
}

// The kernel takes a joined thread out of its list a little later.
static void expect_one_thread(void) {
  for (int tries = 0; status_value("Threads:") != 1; ++tries) {
    CHECK(tries < 10000);
    usleep(1000);
  }
}

static long report(const char* stage, long number) {
  expect_one_thread();
  const long resident = status_value("VmRSS:");
  printf("%s %ld: resident %ld KiB, peak %ld KiB\n", stage, number, resident, status_value("VmHWM:"));
  fflush(stdout);
  return resident;
}

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? atof(argv[1]) : 10;
  thread_count = argc > 2 ? atoi(argv[2]) : 50;
  const long in_sequence = argc > 3 ? atol(argv[3]) : 10000;
  const long children = argc > 4 ? atol(argv[4]) : 500;
  CHECK(thread_count >= 1 && thread_count <= MOST_THREADS && in_sequence >= 0 && children >= 0);
  const double end = seconds_now() + seconds;
  // The kernel merges pages into huge ones when it finds the time, and counts what it adds: not what is measured here.
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
  guard_begin();
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = handle;
  action.sa_flags = SA_RESTART;
  CHECK(sigaction(SIGUSR1, &action, NULL) == 0);

  sequence(in_sequence / 10);
  const long before = report("threads in sequence", in_sequence / 10);
  sequence(in_sequence - in_sequence / 10);
  const long grown = report("threads in sequence", in_sequence) - before;
  processes(children);
  report("processes", children);
  long rounds = 0;
  long second = 0;
  long last = 0;
  while (rounds < LEAST_ROUNDS || seconds_now() < end) {
    guard_round((int)(100000 + rounds));
    together();
    last = report("round", ++rounds);
    if (rounds == 2) second = last;
  }
  printf(
      "%ld rounds of %d threads, %ld signals; grown by %ld KiB over the threads in sequence, %ld KiB over the rounds\n",
      rounds, thread_count, (long)signals_handled, grown, last - second);
  return grown > KIB_FOR_SEQUENCE || last - second > KIB_FOR_ROUNDS;
}
