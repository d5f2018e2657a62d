// Threads contend for words by every kind of atomic instruction: exclusive pairs, pairs with acquire and release, those
// of the large system extensions where there are any; a lock made of each guards a sum. atomics [ROUNDS]
#include <pthread.h>
#include <stdatomic.h>
#include <sched.h>
#include <sys/auxv.h>

#include "guard.h"

enum { THREADS = 6, PASSES = 300 };
static long exclusive_word;
static long lse_word;
static atomic_long c_word;
static unsigned lock_word;
static long guarded[8];
static int has_lse;

// The application's own loop. Nothing may be inserted between its two halves that loses the exclusive monitor each
// time.
static void add_exclusive(long* word, long value) {
  long old;
  int failed;
  __asm__ volatile(
      "1: ldxr %0, [%3]\n\t"
      "add %0, %0, %4\n\t"
      "stxr %w1, %0, [%3]\n\t"
      "cbnz %w1, 1b"
      : "=&r"(old), "=&r"(failed), "+m"(*word)
      : "r"(word), "r"(value));
}

__attribute__((target("arch=armv8.1-a"))) static void add_lse(long* word, long value) {
  __asm__ volatile(".arch armv8.1-a\n\tldaddal %1, xzr, [%2]" : "+m"(*word) : "r"(value), "r"(word));
}

static void take(unsigned* word) {
  unsigned old;
  unsigned failed;
  for (;;) {
    __asm__ volatile(
        "1: ldaxr %w0, [%3]\n\t"
        "cbnz %w0, 2f\n\t"
        "stxr %w1, %w4, [%3]\n\t"
        "cbnz %w1, 1b\n"
        "2:"
        : "=&r"(old), "=&r"(failed), "+m"(*word)
        : "r"(word), "r"(1)
        : "memory");
    if (old == 0) return;
    sched_yield();
  }
}

static void give(unsigned* word) { __asm__ volatile("stlr wzr, [%1]" : "+m"(*word) : "r"(word) : "memory"); }

static void* work(void* argument) {
  const long number = *(int*)argument;
  for (int pass = 0; pass < PASSES; ++pass) {
    add_exclusive(&exclusive_word, number);
    if (has_lse) add_lse(&lse_word, number);
    long seen = atomic_load_explicit(&c_word, memory_order_relaxed);
    while (!atomic_compare_exchange_weak(&c_word, &seen, seen + number)) continue;
    take(&lock_word);
    for (int index = 0; index < 8; ++index) guarded[index] += number + index;
    for (int index = 1; index < 8; ++index) CHECK(guarded[index] - guarded[0] >= 0);
    give(&lock_word);
  }
  return NULL;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  has_lse = (getauxval(AT_HWCAP) & HWCAP_ATOMICS) != 0;
  const long sum = THREADS * (THREADS + 1) / 2 * PASSES;
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    exclusive_word = lse_word = 0;
    atomic_store(&c_word, 0);
    for (int index = 0; index < 8; ++index) guarded[index] = 0;
    pthread_t threads[THREADS];
    int numbers[THREADS];
    for (int index = 0; index < THREADS; ++index) {
      numbers[index] = index + 1;
      CHECK(pthread_create(&threads[index], NULL, work, &numbers[index]) == 0);
    }
    for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
    CHECK(exclusive_word == sum && atomic_load(&c_word) == sum);
    CHECK(!has_lse || lse_word == sum);
    for (int index = 0; index < 8; ++index) CHECK(guarded[index] == sum + (long)index * THREADS * PASSES);
  }
  puts("every sum as it should be");
  return 0;
}
