// Several threads make traces of the same code at once: shared_paths [ROUNDS]. Each begins with an empty cache, and
// some empty theirs again and again.
#include <pthread.h>

#include "guard.h"
#include "paths.h"

enum { THREADS = 4, COUNT = 1500 };

static long expected[PATHS];
static pthread_barrier_t barrier;
static volatile int wrong;

static void* run_paths(void* argument) {
  const long number = (long)argument;
  pthread_barrier_wait(&barrier);
  for (int repeat = 0; repeat < 2; ++repeat) {
    for (int index = 0; index < PATHS; ++index) {
      if (number % 2 == 1) forget_rewritten_code();
      if (paths[index].run(COUNT) != expected[index]) wrong = 1;
    }
  }
  return NULL;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int index = 0; index < PATHS; ++index) {
    expected[index] = paths[index].run(COUNT);
    printf("%s %lx\n", paths[index].name, expected[index]);
  }
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    pthread_t threads[THREADS];
    CHECK(pthread_barrier_init(&barrier, NULL, THREADS) == 0);
    for (long number = 0; number < THREADS; ++number) {
      CHECK(pthread_create(&threads[number], NULL, run_paths, (void*)number) == 0);
    }
    for (int number = 0; number < THREADS; ++number) CHECK(pthread_join(threads[number], NULL) == 0);
    CHECK(!wrong);
    CHECK(pthread_barrier_destroy(&barrier) == 0);
  }
  printf("all threads the same\n");
  return 0;
}
