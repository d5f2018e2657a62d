// The state of the machine as state.inc's assembly loads and stores it, and a row of its table.
#pragma once

#include "../syscalls/check.h"

enum {
  STATE_NZCV_WORD = 31,  // Below: x0 to x30.
  STATE_FPCR_WORD = 32,
  STATE_FPSR_WORD = 33,
  STATE_Q_WORD = 34,  // Two words for each of q0 to q31.
  STATE_WORDS = 98,
};
#define STATE_PATTERN 0x0123456789abcd00u

struct state {
  unsigned long words[STATE_WORDS];
} __attribute__((aligned(16)));

struct state_test {
  const char* name;
  void (*run)(const struct state* before, struct state* after);
  long word1;  // What the code changes: an index, or -1 for nothing.
  unsigned long value1;
  long word2;
  unsigned long value2;
};
