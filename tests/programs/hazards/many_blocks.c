// Executes more blocks than the code cache holds, again and again, so the cache is flushed while blocks are being made.
// There are also more links between blocks than the engine keeps.
#include "../syscalls/check.h"

long all_blocks(long value);
long linked_blocks(long value);

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 3);
  long value = 0;
  for (int round = 0; round < rounds; ++round) {
    value = all_blocks(value);
    printf("round %d: %ld\n", round, value);
  }
  CHECK(value == 60500L * rounds);
  CHECK(linked_blocks(0) == 54000);
  CHECK(linked_blocks(0) == 54000);
  puts("and as many links");
  return 0;
}
