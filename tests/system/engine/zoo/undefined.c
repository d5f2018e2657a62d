// Undefined arithmetic, reported at run time.
#include <limits.h>
#include <stdio.h>

int main(int argc, char** argv) {
  (void)argv;
  int big = INT_MAX;
  big += argc;
  int shifted = 1 << (31 + argc);
  int* none = argc > 5 ? &big : NULL;
  printf("%d %d\n", big, shifted);
  int table[3] = {1, 2, 3};
  printf("%d\n", table[argc]);
  return none != NULL;
}
