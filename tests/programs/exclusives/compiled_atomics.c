// Atomics as the compiler makes them, by one thread or more: compare and swap of four widths, the minimum that stands
// on it, and a lock that is taken by an exchange.
//
// compiled_atomics [THREADS [ROUNDS]]
#include <pthread.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static unsigned long rounds = 2000;
static unsigned long thread_count = 1;
static uint8_t byte;
static uint16_t half;
static uint32_t word;
static uint64_t sum;
static uint64_t highest;
static double guarded;
static int locked;

#define ADD_ONE(place)                                                                                           \
  do {                                                                                                           \
    __typeof__(place) seen = __atomic_load_n(&(place), __ATOMIC_RELAXED);                                        \
    while (!__atomic_compare_exchange_n(&(place), &seen, (__typeof__(place))(seen + 1), false, __ATOMIC_ACQ_REL, \
                                        __ATOMIC_RELAXED)) {                                                     \
    }                                                                                                            \
  } while (0)

static void raise_to(uint64_t value) {
  uint64_t seen = __atomic_load_n(&highest, __ATOMIC_RELAXED);
  while (seen < value &&
         !__atomic_compare_exchange_n(&highest, &seen, value, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
  }
}

static void* work(void* argument) {
  for (unsigned long round = 0; round < rounds; ++round) {
    ADD_ONE(byte);
    ADD_ONE(half);
    ADD_ONE(word);
    ADD_ONE(sum);
    raise_to(round * 3);
    int expected = 0;
    while (!__atomic_compare_exchange_n(&locked, &expected, 1, true, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) expected = 0;
    guarded += 1.5;
    __atomic_store_n(&locked, 0, __ATOMIC_RELEASE);
  }
  return argument;
}

int main(int argc, char** argv) {
  if (argc > 1) thread_count = strtoul(argv[1], NULL, 0);
  if (argc > 2) rounds = strtoul(argv[2], NULL, 0);
  pthread_t threads[16];
  if (thread_count > 16) return 2;
  for (unsigned long index = 1; index < thread_count; ++index) pthread_create(&threads[index], NULL, work, NULL);
  work(NULL);
  for (unsigned long index = 1; index < thread_count; ++index) pthread_join(threads[index], NULL);
  const uint64_t total = thread_count * rounds;
  if (byte != (uint8_t)total || half != (uint16_t)total || word != (uint32_t)total || sum != total) return 1;
  if (highest != (rounds - 1) * 3) return 1;
  printf("%lu: %.1f\n", (unsigned long)sum, guarded);
  return 0;
}
