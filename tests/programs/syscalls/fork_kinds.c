// fork from one thread and among many; the child's own threads; its memory, its ids, its streams; nested forks.
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "check.h"

static atomic_int stop;
static atomic_long steps;
static _Thread_local int mine = 7;

static void* busy(void* argument) {
  while (!atomic_load(&stop)) {
    atomic_fetch_add(&steps, 1);
    if (atomic_load(&steps) % 4096 == 0) free(malloc(100));
  }
  return argument;
}

static void* in_child(void* argument) {
  mine += 5;
  return (void*)(long)(mine + *(int*)argument);
}

static int status_of(pid_t child) {
  int status = -1;
  CHECK(waitpid(child, &status, 0) == child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void child_with_threads(int round) {
  CHECK(mine == 8);
  CHECK(getpid() == (pid_t)syscall(SYS_gettid));
  int given = round;
  for (int index = 0; index < 3; ++index) {
    pthread_t thread;
    void* result = NULL;
    CHECK(pthread_create(&thread, NULL, in_child, &given) == 0);
    CHECK(pthread_join(thread, &result) == 0);
    CHECK((long)result == 12 + round);
  }
}

static void rounds(int count) {
  for (int round = 0; round < count; ++round) {
    const pid_t child = fork();
    CHECK(child >= 0);
    if (child == 0) {
      child_with_threads(round);
      const pid_t grandchild = fork();
      if (grandchild == 0) _exit(round + 1);
      _exit(status_of(grandchild) + 10);
    }
    CHECK(status_of(child) == round + 11);
  }
}

int main(int argc, char** argv) {
  const int count = count_or(argc, argv, 5);
  mine = 8;
  printf("unwritten at the fork; ");
  rounds(count);
  puts("forked from a process of one thread");
  pthread_t threads[4];
  for (int index = 0; index < 4; ++index) CHECK(pthread_create(&threads[index], NULL, busy, NULL) == 0);
  rounds(count);
  puts("forked among busy threads");
  const pid_t killed = fork();
  if (killed == 0) {
    for (;;) atomic_fetch_add(&steps, 1);
  }
  usleep(20000);
  CHECK(kill(killed, SIGTERM) == 0);
  CHECK(status_of(killed) == 128 + SIGTERM);
  puts("killed a child that computes");
  atomic_store(&stop, 1);
  for (int index = 0; index < 4; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  return 0;
}
