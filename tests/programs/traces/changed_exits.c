// A hot path whose side exit leads to code that changes: the path stays, what the exit leads to goes. First the exit
// leads to a block, by a trampoline; later that block is the head of a hot path itself, to which the exit leads
// directly. Behind each change the exit is taken.
#include "../hazards/written_code.h"

enum { HOT = 400, FEW = 3, CHANGES = 6 };

static unsigned branch(size_t from, size_t to) { return 0x14000000 | ((unsigned)((to - from) / 4) & 0x3ffffff); }
static unsigned add_x0(unsigned value) { return 0x91000000 | value << 10; }  // add x0, x0, #value

// The path, in a page of its own: x1 rounds, each of which goes by the other page if x2 is 0.
static void write_path(char* pages, size_t page) {
  const unsigned words[] = {add_x0(1),
                            0xb4000002 | (unsigned)((page - 4) / 4) << 5,  // 4: cbz x2, the other page
                            0xf1000421,                                    // 8: subs x1, x1, #1
                            0x54ffffa1,                                    // b.ne 0
                            RET};
  write_words(pages, words, 5);
}

static void write_side(char* pages, size_t page, unsigned value) {
  const unsigned words[] = {add_x0(value), branch(page + 4, 8)};
  write_words(pages + page, words, 2);
}

static long run_path(void* at, long rounds, long stays) {
  long (*function)(long, long, long) = NULL;
  memcpy(&function, &at, sizeof at);
  return function(0, rounds, stays);
}

int main(void) {
  const size_t page = page_bytes();
  char* pages = map_memory(NULL, 2 * page, READ_WRITE, ANYWHERE);
  write_path(pages, page);
  write_side(pages, page, 1);
  CHECK(mprotect(pages, 2 * page, READ_EXEC) == 0);
  CHECK(run_path(pages, HOT, 1) == HOT);
  for (unsigned change = 1; change <= CHANGES; ++change) {
    const long rounds = change % 3 == 0 ? HOT : FEW;
    CHECK(run_path(pages, rounds, 0) == rounds * (1 + (long)change));
    CHECK(run_path(pages, FEW, 1) == FEW);
    CHECK(mprotect(pages + page, page, READ_WRITE) == 0);
    write_side(pages, page, change + 1);
    CHECK(mprotect(pages + page, page, READ_EXEC) == 0);
  }
  CHECK(run_path(pages, FEW, 0) == FEW * (CHANGES + 2));
  puts("each change was seen");
  return 0;
}
