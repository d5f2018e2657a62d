// Pairs of every width with a branch between the two, some of which fail: CLREX comes between them. Floating-point work
// stands before and behind the stores. Each operation adds 1 to the sum, a multiply-add 2, so that the program knows
// how many there were: a wrong count of a block that begins between the two shows.
//
// pair_shapes [ROUNDS]    writes the number of operations, a double in hexadecimal, to $WORK_FILE
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "../syscalls/check.h"

// 0 if the place held what was expected and now holds what was wanted. `fail` stores fail before. The block of the
// store begins behind a branch. `work` grows in it before and behind the store, and in the retry.
#define COMPARE_AND_SWAP(name, type, loaded, stored, width, load, store, compare)                                \
  static uint32_t name(type* place, uint64_t expected, uint64_t wanted, uint64_t fail, double* work) {           \
    double sum = *work;                                                                                          \
    const double one = 1.0;                                                                                      \
    const double two = 2.0;                                                                                      \
    uint32_t status = 1;                                                                                         \
    uint64_t seen;                                                                                               \
    uint64_t other;                                                                                              \
    asm volatile(                                                                                                \
        "1: cbz %[fail], 5f\n"                                                                                   \
        "   sub %[fail], %[fail], #1\n"                                                                          \
        "   " load " " loaded                                                                                    \
        ", [%[place]]\n"                                                                                         \
        "   clrex\n"                                                                                             \
        "   b 2f\n"                                                                                              \
        "5: " load " " loaded                                                                                    \
        ", [%[place]]\n"                                                                                         \
        "   cmp %" width "[seen], %" width "[expected]\n" compare                                                \
        "   b.ne 4f\n"                                                                                           \
        "2: fmadd %d[sum], %d[one], %d[two], %d[sum]\n"                                                          \
        "   " store " %w[status], " stored                                                                       \
        ", [%[place]]\n"                                                                                         \
        "   fadd %d[sum], %d[sum], %d[one]\n"                                                                    \
        "   cbz %w[status], 4f\n"                                                                                \
        "   fadd %d[sum], %d[sum], %d[one]\n"                                                                    \
        "   b 1b\n"                                                                                              \
        "4:\n"                                                                                                   \
        : [seen] "=&r"(seen), [other] "=&r"(other), [status] "+&r"(status), [fail] "+&r"(fail), [sum] "+&w"(sum) \
        : [place] "r"(place), [expected] "r"(expected), [wanted] "r"(wanted), [one] "w"(one), [two] "w"(two)     \
        : "cc", "memory");                                                                                       \
    *work = sum;                                                                                                 \
    return status;                                                                                               \
  }

#define ONE_REGISTER(name, type, width, load, store) \
  COMPARE_AND_SWAP(name, type, "%" width "[seen]", "%" width "[wanted]", width, load, store, "")
ONE_REGISTER(swap_byte, uint8_t, "w", "ldxrb", "stxrb")
ONE_REGISTER(swap_half, uint16_t, "w", "ldaxrh", "stlxrh")
ONE_REGISTER(swap_word, uint32_t, "w", "ldxr", "stlxr")
ONE_REGISTER(swap_long, uint64_t, "x", "ldaxr", "stxr")

// Both words are expected and wanted to be the same.
#define TWO_REGISTERS(name, type, width, load, store)                                                                  \
  COMPARE_AND_SWAP(name, type, "%" width "[seen], %" width "[other]", "%" width "[wanted], %" width "[wanted]", width, \
                   load, store, "   ccmp %" width "[other], %" width "[expected], #0, eq\n")
TWO_REGISTERS(swap_words, uint32_t, "w", "ldxp", "stlxp")
TWO_REGISTERS(swap_longs, uint64_t, "x", "ldaxp", "stxp")

// A minimum: the block between the two ends in a branch, and both its sides make the store.
static void lower(uint64_t* place, uint64_t value, double* work) {
  double sum = *work;
  const double one = 1.0;
  uint64_t seen;
  uint32_t status;
  asm volatile(
      "1: ldxr %[seen], [%[place]]\n"
      "   cmp %[seen], %[value]\n"
      "   b.ls 2f\n"
      "   mov %[seen], %[value]\n"
      "2: stxr %w[status], %[seen], [%[place]]\n"
      "   fadd %d[sum], %d[sum], %d[one]\n"
      "   cbnz %w[status], 1b\n"
      : [seen] "=&r"(seen), [status] "=&r"(status), [sum] "+&w"(sum)
      : [place] "r"(place), [value] "r"(value), [one] "w"(one)
      : "cc", "memory");
  *work = sum;
}

int main(int argc, char** argv) {
  const uint64_t rounds = argc > 1 ? strtoull(argv[1], NULL, 0) : 3000;
  static struct {
    uint8_t byte;
    uint16_t half;
    uint32_t word;
    uint64_t one;
    uint32_t words[2] __attribute__((aligned(8)));
    uint64_t longs[2] __attribute__((aligned(16)));
    uint64_t lowest;
  } cells;
  double work = 0;
  cells.lowest = rounds;
  for (uint64_t round = 0; round < rounds; ++round) {
    // None, one or two failures; never in step with 256, at which a block becomes hot.
    const uint64_t fail = round % 7 < 4 ? 0 : round % 7 - 4;
    CHECK(swap_byte(&cells.byte, (uint8_t)round, (uint8_t)(round + 1), fail, &work) == 0);
    CHECK(swap_half(&cells.half, (uint16_t)round, (uint16_t)(round + 1), fail, &work) == 0);
    CHECK(swap_word(&cells.word, round, round + 1, fail, &work) == 0);
    CHECK(swap_long(&cells.one, round, round + 1, fail, &work) == 0);
    CHECK(swap_words(cells.words, round, round + 1, fail, &work) == 0);
    CHECK(swap_longs(cells.longs, round, round + 1, fail, &work) == 0);
    CHECK(swap_long(&cells.one, round, 0, 0, &work) == 1);  // Not what is expected: no store.
    lower(&cells.lowest, round % 3 == 0 ? rounds - round : rounds, &work);
  }
  CHECK(cells.byte == (uint8_t)rounds && cells.half == (uint16_t)rounds && cells.word == rounds);
  CHECK(cells.one == rounds && cells.words[0] == rounds && cells.words[1] == rounds);
  CHECK(cells.longs[0] == rounds && cells.longs[1] == rounds);
  CHECK(cells.lowest < 4);
  // A store may fail without a reason, too, and the work is then done again: the sum is that of this run.
  // It is told as it stands in memory: its conversion would be an operation, too.
  uint64_t bits;
  memcpy(&bits, &work, sizeof bits);
  FILE* told = getenv("WORK_FILE") != NULL ? fopen(getenv("WORK_FILE"), "w") : NULL;
  if (told != NULL) fprintf(told, "%016lx\n", (unsigned long)bits);
  printf("%lu rounds\n", (unsigned long)rounds);
  return 0;
}
