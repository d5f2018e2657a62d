// A program with large arrays on its main stack; its argument is their size in MiB.
#include <stddef.h>

#include "check.h"

static unsigned sum_of_array(size_t bytes) {
  volatile unsigned char* array = __builtin_alloca(bytes);
  for (size_t index = 0; index < bytes; index += 4096) array[index] = (unsigned char)(index / 4096);
  unsigned sum = 0;
  for (size_t index = 0; index < bytes; index += 4096) sum += array[index];
  return sum;
}

int main(int argc, char** argv) {
  const int mib = count_or(argc, argv, 60);
  printf("%d MiB of stack: %u\n", mib, sum_of_array((size_t)mib << 20));
  return 0;
}
