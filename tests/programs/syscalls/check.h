// What the programs of this folder share: a check that ends the program with the place that failed.
#pragma once

#include <stdio.h>
#include <stdlib.h>

static inline void check_at(int holds, const char* what, int line) {
  if (holds) return;
  fprintf(stderr, "line %d: not so: %s\n", line, what);
  exit(99);
}
#define CHECK(condition) check_at((condition) != 0, #condition, __LINE__)

// The first argument as a number, or the value for a run without one.
static inline int count_or(int argc, char** argv, int value) { return argc > 1 ? atoi(argv[1]) : value; }
