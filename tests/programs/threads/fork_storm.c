// fork_storm [ROUNDS]: several threads make processes at once, by fork, vfork, posix_spawn and system. A child of fork
// starts threads of its own. A child that a thread has forked ends when another of its threads returns.
#include <errno.h>
#include <pthread.h>
#include <spawn.h>
#include <stdatomic.h>
#include <stdint.h>

#include "guard.h"

enum { THREADS = 4 };
extern char** environ;
static _Thread_local int mine;

static int status_of(pid_t child) {
  int status = -1;
  pid_t result;
  while ((result = waitpid(child, &status, 0)) == -1 && errno == EINTR) continue;
  CHECK(result == child && WIFEXITED(status));
  return WEXITSTATUS(status);
}

static void* in_child(void* argument) {
  mine += 3;
  return (void*)((intptr_t)argument * mine);
}

static void by_fork(int number) {
  const pid_t child = fork();
  CHECK(child >= 0);
  if (child == 0) {
    pthread_t threads[2];
    for (intptr_t index = 0; index < 2; ++index) {
      CHECK(pthread_create(&threads[index], NULL, in_child, (void*)(index + 1)) == 0);
    }
    intptr_t sum = 0;
    for (int index = 0; index < 2; ++index) {
      void* result = NULL;
      CHECK(pthread_join(threads[index], &result) == 0);
      sum += (intptr_t)result;
    }
    CHECK(sum == 9 && mine == number);
    _exit(number + 20);
  }
  CHECK(status_of(child) == number + 20);
}

static void by_vfork(int number) {
  char* const arguments[] = {"sh", "-c", "exit 7", NULL};
  const pid_t child = vfork();
  if (child == 0) {
    execve("/bin/sh", arguments, environ);
    _exit(127);
  }
  CHECK(child > 0 && status_of(child) == 7 && mine == number);
}

static void by_spawn(void) {
  char* const arguments[] = {"sh", "-c", "exit 9", NULL};
  pid_t child = -1;
  CHECK(posix_spawn(&child, "/bin/sh", NULL, NULL, arguments, environ) == 0);
  CHECK(status_of(child) == 9);
}

static void* work(void* argument) {
  mine = (int)(intptr_t)argument;
  for (int turn = 0; turn < 4; ++turn) {
    switch ((mine + turn) % 4) {
      case 0: by_fork(mine); break;
      case 1: by_vfork(mine); break;
      case 2: by_spawn(); break;
      default: CHECK(system("exit 3") == 3 << 8); break;
    }
  }
  return argument;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    pthread_t threads[THREADS];
    for (intptr_t index = 0; index < THREADS; ++index) {
      CHECK(pthread_create(&threads[index], NULL, work, (void*)index) == 0);
    }
    for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  }
  puts("every child as it should be");
  return 0;
}
