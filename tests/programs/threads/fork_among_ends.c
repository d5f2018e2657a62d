// fork_among_ends [ROUNDS]: threads begin and end all the time while the first thread forks. A thread holds locks while
// it begins or ends, above all a lock of the heap. None of them may stay locked in a child, which starts threads of its
// own.
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "guard.h"

enum { MAKERS = 3, FORKS = 5, CHILD_THREADS = 4 };
static atomic_int stop;

static void* use_heap(void* argument) {
  char* bytes = malloc(100 + (uintptr_t)argument);
  CHECK(bytes != NULL);
  memset(bytes, 1, 100);
  free(bytes);
  return argument;
}

static void* make_threads(void* argument) {
  while (!atomic_load(&stop)) {
    pthread_t thread;
    void* result = NULL;
    CHECK(pthread_create(&thread, NULL, use_heap, argument) == 0 && pthread_join(thread, &result) == 0);
    CHECK(result == argument);
  }
  return NULL;
}

static void in_child(void) {
  pthread_t threads[CHILD_THREADS];
  for (uintptr_t index = 0; index < CHILD_THREADS; ++index) {
    CHECK(pthread_create(&threads[index], NULL, use_heap, (void*)index) == 0);
  }
  for (int index = 0; index < CHILD_THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    atomic_store(&stop, 0);
    pthread_t makers[MAKERS];
    for (uintptr_t index = 0; index < MAKERS; ++index) {
      CHECK(pthread_create(&makers[index], NULL, make_threads, (void*)index) == 0);
    }
    for (int turn = 0; turn < FORKS; ++turn) {
      const pid_t child = fork();
      CHECK(child >= 0);
      if (child == 0) {
        in_child();
        _exit(23);
      }
      int status = 0;
      CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 23);
    }
    atomic_store(&stop, 1);
    for (int index = 0; index < MAKERS; ++index) CHECK(pthread_join(makers[index], NULL) == 0);
  }
  puts("every child went on");
  return 0;
}
