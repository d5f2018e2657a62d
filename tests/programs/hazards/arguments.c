// Prints how many arguments and variables it has got, their sizes and a sum over them.
#include <string.h>

#include "../syscalls/check.h"

extern char** environ;

static unsigned long sum_of(char** strings, int* count, size_t* bytes) {
  unsigned long sum = 5381;
  for (*count = 0, *bytes = 0; strings[*count]; ++*count) {
    *bytes += strlen(strings[*count]) + 1;
    for (const char* at = strings[*count]; *at; ++at) sum = sum * 33 + (unsigned char)*at;
  }
  return sum;
}

int main(int argc, char** argv) {
  int count = 0;
  size_t bytes = 0;
  const unsigned long argument_sum = sum_of(argv + 1, &count, &bytes);
  CHECK(count == argc - 1);
  printf("%d arguments, %zu bytes, %lu\n", count, bytes, argument_sum);
  if (!getenv("COUNT_VARIABLES")) return 0;
  const unsigned long variable_sum = sum_of(environ, &count, &bytes);
  printf("%d variables, %zu bytes, %lu\n", count, bytes, variable_sum);
  return 0;
}
