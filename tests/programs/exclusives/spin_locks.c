// Locks and counters as a C library without outlined atomics has them: load and store of a pair are functions of their
// own that are inlined, and C stands between them. Static, so that nothing else loads or stores exclusively.
//
// spin_locks [ROUNDS]
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static inline int load_linked(volatile int* place) {
  int value;
  __asm__ __volatile__("ldaxr %w0, %1" : "=r"(value) : "Q"(*place));
  return value;
}

static inline int store_conditional(volatile int* place, int value) {
  int failed;
  __asm__ __volatile__("stlxr %w0, %w2, %1" : "=&r"(failed), "=Q"(*place) : "r"(value) : "memory");
  return !failed;
}

static inline void full_barrier(void) { __asm__ __volatile__("dmb ish" : : : "memory"); }

static int compare_and_swap(volatile int* place, int expected, int value) {
  int old;
  do {
    old = load_linked(place);
    if (old != expected) {
      full_barrier();
      break;
    }
  } while (!store_conditional(place, value));
  return old;
}

static int fetch_and_add(volatile int* place, int by) {
  int old;
  do old = load_linked(place);
  while (!store_conditional(place, old + by));
  return old;
}

static volatile int lock_word;
static volatile int arrivals;
static int rounds = 2000;
static double guarded;

static void* work(void* argument) {
  for (int round = 0; round < rounds; ++round) {
    while (compare_and_swap(&lock_word, 0, 1) != 0) {
    }
    guarded += 0.25;
    __atomic_store_n(&lock_word, 0, __ATOMIC_RELEASE);
    fetch_and_add(&arrivals, 1);
  }
  return argument;
}

int main(int argc, char** argv) {
  if (argc > 1) rounds = atoi(argv[1]);
  pthread_t other;
  pthread_create(&other, NULL, work, NULL);
  work(NULL);
  pthread_join(other, NULL);
  printf("%d %.2f\n", arrivals, guarded);
  return arrivals != 2 * rounds;
}
