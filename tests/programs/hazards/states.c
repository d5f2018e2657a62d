// Runs the tests of an assembly file of state.inc, several times each, and compares the machine's state before and
// after each. Only the words that a test names may differ, and they must have the values that the test gives.
#include <string.h>
#include <sys/auxv.h>

#include "state.h"

extern const struct state_test tests[];  // From the start of the section of rows to its end.
extern const struct state_test tests_end[];
extern const unsigned long needed_hwcap __attribute__((weak));  // What a file of tests needs of the processor.

static void fill(struct state* state) {
  for (unsigned index = 0; index < 31; ++index) state->words[index] = STATE_PATTERN + index;
  state->words[STATE_NZCV_WORD] = 0xa0000000;  // N and C.
  state->words[STATE_FPCR_WORD] = 0x03400000;  // Rounds up, flushes to zero, default NaN.
  state->words[STATE_FPSR_WORD] = 0x0800000d;
  for (unsigned index = STATE_Q_WORD; index < STATE_WORDS; ++index)
    state->words[index] = ~(index * 0x0101010101010101u);
}

static int differs(const struct state_test* test, const struct state* before, const struct state* after, int round) {
  int count = 0;
  for (int index = 0; index < STATE_WORDS; ++index) {
    unsigned long expected = before->words[index];
    if (index == test->word1) expected = test->value1;
    if (index == test->word2) expected = test->value2;
    if (after->words[index] == expected) continue;
    ++count;
    printf("%s, run %d: word %d is %#lx, not %#lx\n", test->name, round, index, after->words[index], expected);
  }
  return count;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 3);
  int wrong = 0;
  int count = 0;
  if (&needed_hwcap != NULL && (getauxval(AT_HWCAP) & needed_hwcap) == 0) {
    puts("not for this processor");
    return 0;
  }
  static struct state before;
  static struct state after;
  fill(&before);
  for (const struct state_test* test = tests; test < tests_end; ++test, ++count) {
    for (int round = 0; round < rounds; ++round) {
      memset(&after, 0x77, sizeof after);
      test->run(&before, &after);
      wrong += differs(test, &before, &after, round);
    }
  }
  printf("%d tests run %d times, %d words wrong\n", count, rounds, wrong);
  return wrong != 0 || count == 0;
}
