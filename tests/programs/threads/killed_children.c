// Children in their parent's memory that are killed wherever they are: the parent and its other threads go on.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "guard.h"
#include "syscalls/check.h"

// In memory that is shared whatever kind of copy a child gets.
static volatile struct {
  int pid;
  int ended;
} * shared;

static void handle(int number) { (void)number; }

// What a child and its parent's threads both do.
static void change_things(void) {
  struct sigaction action = {.sa_handler = handle};
  CHECK(sigaction(SIGUSR2, &action, NULL) == 0);
  void* memory = mmap(NULL, 65536, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(memory != MAP_FAILED);
  CHECK(mprotect(memory, 65536, PROT_READ) == 0);
  CHECK(munmap(memory, 65536) == 0);
}

static void* kill_children(void* unused) {
  unsigned delay = 1;
  while (!shared->ended) {
    const int child = __atomic_exchange_n(&shared->pid, 0, __ATOMIC_SEQ_CST);
    if (child == 0) {
      sched_yield();
      continue;
    }
    delay = delay * 1103515245 + 12345;
    const struct timespec pause = {0, 1000 * (100 + (long)(delay >> 16) % 900)};
    nanosleep(&pause, NULL);
    CHECK(kill(child, SIGKILL) == 0);
  }
  return unused;
}

static void run_child(void) {
  const pid_t child = vfork();
  if (child == 0) {
    shared->pid = getpid();
    for (;;) change_things();
  }
  int status = 0;
  CHECK(waitpid(child, &status, 0) == child && WIFSIGNALED(status));
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 50);
  guard_begin();
  shared = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  CHECK(shared != MAP_FAILED);
  pthread_t killer;
  CHECK(pthread_create(&killer, NULL, kill_children, NULL) == 0);
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    run_child();
    change_things();
  }
  shared->ended = 1;
  CHECK(pthread_join(killer, NULL) == 0);
  puts("all were killed");
  return 0;
}
