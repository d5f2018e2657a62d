// Closes standard output, which succeeds, and goes on writing through a copy of it.
#include <unistd.h>

#include "../syscalls/check.h"

int main(void) {
  puts("before");
  fflush(stdout);
  const int copy = dup(1);
  CHECK(copy > 2);
  CHECK(close(1) == 0);
  CHECK(dprintf(copy, "after\n") == 6);
  FILE* stream = fdopen(copy, "w");
  CHECK(stream && fputs("and by a stream\n", stream) >= 0 && fclose(stream) == 0);
  return 0;
}
