// Loops of exclusive loads and stores of every size, with branches and a call between the two, on four threads. A block
// whose exit lies inside such a pair goes through the engine the first times and loses the reservation; the loop then
// goes round again.
#include <pthread.h>
#include <stdint.h>

#include "../syscalls/check.h"

enum { THREADS = 4 };
static int rounds;
static struct {
  uint64_t words[2] __attribute__((aligned(16)));
  uint64_t word;
  uint32_t half;
  uint16_t quarter;
  uint8_t byte;
  uint64_t if_even;
  uint64_t called;
} sums;

#define ADD_ONE(load, store, width, place)                                                                          \
  asm volatile("1: " load " %" width "0, [%1]\n add %w0, %w0, #1\n " store " %w2, %" width "0, [%1]\n cbnz %w2, 1b" \
               : "=&r"(value)                                                                                       \
               : "r"(place), "r"(status)                                                                            \
               : "memory")

static void add_one_each(void) {
  uint64_t value;
  register uint32_t status asm("w9") = 0;
  ADD_ONE("ldxrb", "stxrb", "w", &sums.byte);
  ADD_ONE("ldaxrh", "stlxrh", "w", &sums.quarter);
  ADD_ONE("ldxr", "stlxr", "w", &sums.half);
  asm volatile("1: ldaxr x8, [%0]\n add x8, x8, #1\n stxr w9, x8, [%0]\n cbnz w9, 1b"
               :
               : "r"(&sums.word)
               : "x8", "x9", "memory");
  asm volatile("1: ldxp x8, x10, [%0]\n add x8, x8, #1\n sub x10, x10, #1\n stxp w9, x8, x10, [%0]\n cbnz w9, 1b"
               :
               : "r"(sums.words)
               : "x8", "x9", "x10", "memory");
}

// The value grows by 2 if it is even and by 1 otherwise, so it stays even after its first step.
static void add_with_branches(void) {
  asm volatile(
      "1: ldxr x8, [%0]\n tbz x8, #0, 2f\n b 3f\n2: add x8, x8, #1\n3: add x8, x8, #1\n"
      "  stxr w9, x8, [%0]\n cbz w9, 4f\n b 1b\n4:"
      :
      : "r"(&sums.if_even)
      : "x8", "x9", "memory");
}

static void add_with_call(void) {
  asm volatile(
      "b 2f\n1: add x8, x8, #3\n ret\n2: mov x10, x30\n3: ldaxr x8, [%0]\n bl 1b\n stlxr w9, x8, [%0]\n"
      "  cbnz w9, 3b\n mov x30, x10"
      :
      : "r"(&sums.called)
      : "x8", "x9", "x10", "x30", "memory");
}

static void* work(void* argument) {
  for (int round = 0; round < rounds; ++round) {
    add_one_each();
    add_with_branches();
    add_with_call();
  }
  return argument;
}

int main(int argc, char** argv) {
  rounds = count_or(argc, argv, 1000);
  pthread_t threads[THREADS];
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_create(&threads[index], NULL, work, NULL) == 0);
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  const uint64_t total = (uint64_t)rounds * THREADS;
  CHECK(sums.byte == (uint8_t)total && sums.quarter == (uint16_t)total && sums.half == total && sums.word == total);
  CHECK(sums.words[0] == total && sums.words[1] == -total);
  CHECK(sums.if_even == 2 * total);
  CHECK(sums.called == 3 * total);
  printf("%d threads have added up %lu each\n", THREADS, (unsigned long)rounds);
  return 0;
}
