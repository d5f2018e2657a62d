// Runs the blocks of long_blocks.S and prints what they have added up.
#include "../syscalls/check.h"

typedef long function(long);
extern function plain_100, plain_6000, plain_6000_b, plain_7000_tbz, plain_7000_cond, plain_7000_br, plain_7000_blr;
extern function growing_1500, with_calls;
extern function* const lengths[32];

static void show(const char* name, function* run, long expected) {
  for (int round = 0; round < 3; ++round) CHECK(run(1000) - 1000 == expected);
  printf("%s adds %ld\n", name, expected);
}

int main(void) {
  show("plain_100", plain_100, 100);
  show("plain_6000", plain_6000, 6000);
  show("plain_6000_b", plain_6000_b, 6000);
  show("plain_7000_tbz", plain_7000_tbz, 7000);
  show("plain_7000_cond", plain_7000_cond, 7000);
  show("plain_7000_br", plain_7000_br, 7000);
  show("plain_7000_blr", plain_7000_blr, 7100);
  show("growing_1500", growing_1500, 1500 * (2 + 1));
  show("with_calls", with_calls, 200 * 38);
  for (int count = 40; count < 72; ++count) {
    CHECK(lengths[count - 40](1) == 1 + count + 100);
    CHECK(lengths[count - 40](-count) == 0);
  }
  puts("blocks of 40 to 71 instructions end well");
  return 0;
}
