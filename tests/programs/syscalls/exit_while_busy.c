// exit while other threads compute, sleep in a call, or hold a lock: exit_while_busy KIND. Status 42, at once.
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "check.h"

enum { THREADS = 6 };
static const char* kind;
static atomic_int started;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int pipe_ends[2];
static int word;

static long step(long value) { return value * 6364136223846793005 + 1442695040888963407; }
static long (*volatile indirect)(long) = step;

static void* work(void* argument) {
  volatile long value = (intptr_t)argument;
  if (strcmp(kind, "masked") == 0) {  // Computes with every signal blocked.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, NULL);
  }
  atomic_fetch_add(&started, 1);
  if (strcmp(kind, "read") == 0) return (void*)(intptr_t)read(pipe_ends[0], (void*)&value, 1);
  if (strcmp(kind, "futex") == 0) return (void*)syscall(SYS_futex, &word, FUTEX_WAIT, 0, NULL, NULL, 0);
  if (strcmp(kind, "sleep") == 0) {
    const struct timespec day = {86400, 0};
    return (void*)(intptr_t)nanosleep(&day, NULL);
  }
  for (;;) {
    if (strcmp(kind, "lock") == 0) {
      pthread_mutex_lock(&lock);
      value = step(value);
      if (argument == NULL) pause();  // One of them never gives it back.
      pthread_mutex_unlock(&lock);
    } else if (strcmp(kind, "calls") == 0) {
      value += getppid();
    } else if (strcmp(kind, "indirect") == 0) {
      for (;;) value = indirect(value);
    } else {
      for (;;) value = step(value);
    }
  }
}

static void* end_it(void* argument) { exit((int)(intptr_t)argument); }

int main(int argc, char** argv) {
  kind = argc > 1 ? argv[1] : "compute";
  CHECK(pipe(pipe_ends) == 0);
  for (intptr_t index = 0; index < THREADS; ++index) {
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, work, (void*)index) == 0);
  }
  while (atomic_load(&started) < THREADS) usleep(1000);
  usleep(20000);
  printf("%d threads busy: %s\n", THREADS, kind);
  if (argc > 2) {  // Another thread than the first one ends the process, and several at once.
    fflush(stdout);
    for (int index = 0; index < 3; ++index) {
      pthread_t thread;
      CHECK(pthread_create(&thread, NULL, end_it, (void*)42) == 0);
    }
    for (;;) pause();
  }
  exit(42);
}
