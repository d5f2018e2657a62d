// A change of the process's ids reaches every thread, wherever the thread is. The C library does it by a signal of its
// own.
#include <pthread.h>
#include <stdatomic.h>
#include <unistd.h>

#include "check.h"

static atomic_int stop;
static atomic_int started;

static void* computes(void* argument) {
  volatile long value = 1;
  atomic_fetch_add(&started, 1);
  while (!atomic_load_explicit(&stop, memory_order_relaxed)) value = value * 7 + 1;
  return argument;
}

static void* sleeps(void* argument) {
  atomic_fetch_add(&started, 1);
  while (!atomic_load(&stop)) usleep(500);
  return argument;
}

int main(int argc, char** argv) {
  const int count = count_or(argc, argv, 20);
  pthread_t threads[4];
  for (int index = 0; index < 4; ++index) {
    CHECK(pthread_create(&threads[index], NULL, index % 2 ? computes : sleeps, NULL) == 0);
  }
  while (atomic_load(&started) < 4) usleep(1000);
  for (int round = 0; round < count; ++round) {
    CHECK(setgid(getgid()) == 0);
    CHECK(setuid(getuid()) == 0);
  }
  atomic_store(&stop, 1);
  for (int index = 0; index < 4; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  printf("set the ids %d times\n", count);
  return 0;
}
