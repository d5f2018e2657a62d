// Moves the program break up and down: by its own call, with odd addresses, and as malloc does it.
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include "check.h"

int main(void) {
  char* start = sbrk(0);
  CHECK(start != (char*)-1);
  CHECK(sbrk(0x100000) == start);
  memset(start, 0x5a, 0x100000);
  CHECK((char*)sbrk(0) == start + 0x100000);
  CHECK(sbrk(-0x80000) == start + 0x100000);
  CHECK(start[0] == 0x5a && start[0x7ffff] == 0x5a);
  CHECK(sbrk(0x80000) == start + 0x80000);
  CHECK(start[0x90000] == 0);  // What comes back is new.
  CHECK(brk(start + 12345) == 0);
  CHECK((char*)sbrk(0) == start + 12345);
  CHECK(brk(start) == 0);
  for (int round = 0; round < 200; ++round) {
    CHECK(brk(start + (round % 50) * 4096 + round) == 0);
    if (round % 50 > 1) start[(round % 50) * 4096 - 1] = 1;
  }
  CHECK(brk(start) == 0);
  CHECK(sbrk((intptr_t)1 << 46) == (void*)-1);  // More than there can be.
  CHECK((char*)sbrk(0) == start);
  puts("the break went up and down");
  return 0;
}
