// Compare-and-swap whose store-exclusive fails now and then although nobody else writes: failing_pairs ROUNDS FEWEST. A
// return from an interrupt between the two halves gives up the reservation. The branch of the comparison stands between
// them, and the retry is a loop of its own. Ends with an error if fewer stores have failed than FEWEST.
#include <stdint.h>

#include "../syscalls/check.h"

static uint64_t word;

// Returns how often the store has failed.
static uint64_t swap(uint64_t expected) {
  uint64_t seen = 0;
  uint64_t failed = 0;
  uint32_t status = 1;
  __asm__ volatile(
      "1: ldaxr %[seen], [%[word]]\n\t"
      "cmp %[seen], %[expected]\n\t"
      "b.ne 2f\n\t"
      "add %[seen], %[seen], #1\n\t"
      "stlxr %w[status], %[seen], [%[word]]\n\t"
      "cbz %w[status], 2f\n\t"
      "add %[failed], %[failed], #1\n\t"
      "b 1b\n"
      "2:"
      : [seen] "=&r"(seen), [failed] "+&r"(failed), [status] "=&r"(status)
      : [word] "r"(&word), [expected] "r"(expected)
      : "memory", "cc");
  CHECK(seen == expected + 1);
  CHECK(status == 0);
  return failed;
}

int main(int count, char** arguments) {
  const uint64_t rounds = count > 1 ? strtoul(arguments[1], NULL, 10) : 1000;
  const uint64_t fewest = count > 2 ? strtoul(arguments[2], NULL, 10) : 0;
  uint64_t failed = 0;
  for (uint64_t round = 0; round < rounds; ++round) failed += swap(round);
  CHECK(word == rounds);
  if (failed < fewest) fprintf(stderr, "only %lu stores have failed\n", (unsigned long)failed);
  printf("%lu swaps\n", (unsigned long)rounds);
  return failed < fewest;
}
