// THREADS pthreads do the same fixed work and are all alive when the first of them ends. The instructions of their
// waiting differ from run to run; their arithmetic does not.
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>

static pthread_barrier_t all_working;
static atomic_int rounds_done;

static void* work(void* seed) {
  volatile double value = *(int*)seed;
  for (int round = 0; round < 1000; ++round) value = value * 0.5 + 1.0;
  atomic_fetch_add(&rounds_done, 1000);
  pthread_barrier_wait(&all_working);
  return NULL;
}

int main(int argc, char** argv) {
  enum { most = 64 };
  const int threads = argc > 1 ? atoi(argv[1]) : 2;
  if (threads < 1 || threads > most) return 2;
  pthread_t handles[most];
  int seeds[most];
  pthread_barrier_init(&all_working, NULL, (unsigned)threads);
  for (int index = 0; index < threads; ++index) {
    seeds[index] = index;
    if (pthread_create(&handles[index], NULL, work, &seeds[index]) != 0) return 3;
  }
  for (int index = 0; index < threads; ++index) pthread_join(handles[index], NULL);
  printf("%d\n", atomic_load(&rounds_done));
  return 0;
}
