// Calls a function that calls itself, and library functions that call back: 1,093 calls of recursive_function, three
// deep trees of seven levels, and a sort whose comparison sorts.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

// One call for itself and those of three subtrees below: (3^7 - 1) / 2 = 1,093 calls in seven levels.
__attribute__((noinline)) long recursive_function(int levels) {
  long calls = 1;
  if (levels == 1) return calls;
  for (int tree = 0; tree < 3; ++tree) calls += recursive_function(levels - 1);
  return calls;
}

static int compare_numbers(const void* a, const void* b) { return *(const int*)a - *(const int*)b; }

static int compare_sorted(const void* a, const void* b) {
  int sorted[2][4];
  memcpy(sorted[0], a, sizeof sorted[0]);
  memcpy(sorted[1], b, sizeof sorted[1]);
  qsort(sorted[0], 4, sizeof(int), compare_numbers);
  qsort(sorted[1], 4, sizeof(int), compare_numbers);
  return memcmp(sorted[0], sorted[1], sizeof sorted[0]);
}

int main(void) {
  printf("%ld calls\n", recursive_function(7));
  int rows[32][4];
  srand(1);
  for (int row = 0; row < 32; ++row) {
    for (int column = 0; column < 4; ++column) rows[row][column] = rand() % 100;
  }
  qsort(rows, 32, sizeof rows[0], compare_sorted);
  char text[64] = "";
  for (int row = 0; row < 3; ++row) sprintf(text + strlen(text), "%d ", rows[row][0]);
  char* copy = strdup(text);
  char* rest = NULL;
  for (char* word = strtok_r(copy, " ", &rest); word != NULL; word = strtok_r(NULL, " ", &rest)) {
    printf("%ld\n", strtol(word, NULL, 10));
  }
  free(copy);
  return 0;
}
