// Code that is written piece by piece, as a compiler at run time does it. A branch of a hot path leads to a place that
// has no code until the path has run a thousand times. The rest of the page is filled with a word that no processor
// executes.
#include <stdint.h>
#include <sys/mman.h>

#include "syscalls/check.h"

enum { WORDS = 1024, LATE = 64 };
static const uint32_t UNALLOCATED = 0xdc000000;

int main(void) {
  uint32_t* code = mmap(NULL, WORDS * 4, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(code != MAP_FAILED);
  for (int word = 0; word < WORDS; ++word) code[word] = UNALLOCATED;
  const uint32_t path[] = {
      0xd2800001,                    // mov x1, #0
      0xb4000000 | (LATE - 1) << 5,  // 1: cbz x0, the late place
      0xf1000400,                    // subs x0, x0, #1
      0x91000821,                    // add x1, x1, #2
      0xf100001f,                    // cmp x0, #0
      0x54ffff81,                    // b.ne 1b
      0xaa0103e0,                    // mov x0, x1
      0xd65f03c0,                    // ret
  };
  for (unsigned word = 0; word < sizeof path / 4; ++word) code[word] = path[word];
  __builtin___clear_cache((char*)code, (char*)(code + WORDS));
  long (*run)(long) = (long (*)(long))(uintptr_t)code;
  printf("hot: %ld\n", run(1000));
  code[LATE] = 0xd2800540;      // mov x0, #42
  code[LATE + 1] = 0xd65f03c0;  // ret
  __builtin___clear_cache((char*)(code + LATE), (char*)(code + LATE + 2));
  printf("late: %ld\n", run(0));
  for (int count = 0; count < 1000; ++count) CHECK(run(0) == 42);
  printf("hot again: %ld\n", run(1000));
  return 0;
}
