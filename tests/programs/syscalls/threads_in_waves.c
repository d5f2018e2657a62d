// 64 threads at a time, created and joined again and again, each with a stack, an argument and a result of its own.
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>

#include "check.h"

enum { THREADS = 64 };
static atomic_long sum;

static void* work(void* argument) {
  volatile char room[4096];
  const intptr_t number = (intptr_t)argument;
  for (int index = 0; index < (int)sizeof room; index += 64) room[index] = (char)number;
  atomic_fetch_add(&sum, number + room[0] - (char)number);
  return (void*)(number * 3);
}

int main(int argc, char** argv) {
  const int waves = count_or(argc, argv, 5);
  for (int wave = 0; wave < waves; ++wave) {
    pthread_t threads[THREADS];
    for (intptr_t index = 0; index < THREADS; ++index) {
      CHECK(pthread_create(&threads[index], NULL, work, (void*)(index + wave)) == 0);
    }
    for (intptr_t index = 0; index < THREADS; ++index) {
      void* result = NULL;
      CHECK(pthread_join(threads[index], &result) == 0);
      CHECK((intptr_t)result == (index + wave) * 3);
    }
  }
  printf("%d waves of %d threads, sum %ld\n", waves, THREADS, atomic_load(&sum));
  return 0;
}
