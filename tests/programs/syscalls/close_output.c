// Closes its standard descriptors, which succeeds, and ends normally. It prints its results before.
#include <unistd.h>

#include "check.h"

int main(void) {
  puts("said before the end");
  fflush(stdout);
  const int copy = dup(2);
  CHECK(close(1) == 0);
  CHECK(close(2) == 0);
  CHECK(close(0) == 0);
  CHECK(close(copy) == 0);
  CHECK(close(copy) == -1);
  return 6;
}
