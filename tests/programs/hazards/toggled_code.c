// toggled_code [TOGGLES]: code is made writable, changed and made executable again, many times. A hot loop runs through
// two pages, of which one or the other changes. So hot paths have parts that stay and parts that are dropped.
#include "written_code.h"

enum { LOOPS = 400, OTHERS = 16 };

static unsigned branch(size_t from, size_t to) { return 0x14000000 | ((unsigned)((to - from) / 4) & 0x3ffffff); }
static unsigned add_x0(unsigned value) { return 0x91000000 | value << 10; }  // add x0, x0, #value

// The loop: from `first` to `second` and back, x1 times; `first_value` and `second_value` are added in each round.
static void write_first(char* pages, size_t page, unsigned value) {
  const unsigned words[] = {add_x0(value), branch(4, page),
                            0xf1000421,  // 8: subs x1, x1, #1
                            0x54ffffa1,  // b.ne 0
                            RET};
  write_words(pages, words, 5);
}

static void write_second(char* pages, size_t page, unsigned value) {
  const unsigned words[] = {add_x0(value), branch(page + 4, 8)};
  write_words(pages + page, words, 2);
}

static long run_loop(void* at, long rounds) {
  long (*function)(long, long) = NULL;
  memcpy(&function, &at, sizeof at);
  return function(0, rounds);
}

int main(int argc, char** argv) {
  const unsigned toggles = (unsigned)count_or(argc, argv, 60);
  const size_t page = page_bytes();
  char* pages = map_memory(NULL, (2 + OTHERS) * page, READ_WRITE, ANYWHERE);
  unsigned values[2] = {1, 2};
  write_first(pages, page, values[0]);
  write_second(pages, page, values[1]);
  for (unsigned other = 0; other < OTHERS; ++other) write_function(pages + (2 + other) * page, other);
  CHECK(mprotect(pages, (2 + OTHERS) * page, READ_EXEC) == 0);
  for (unsigned toggle = 0; toggle < toggles; ++toggle) {
    const long rounds = toggle % 3 == 0 ? LOOPS : 5;
    CHECK(run_loop(pages, rounds) == rounds * (long)(values[0] + values[1]));
    for (unsigned other = 0; other < OTHERS; ++other) CHECK(call(pages + (2 + other) * page) == (long)other);
    const unsigned changed = toggle / 2 % 2;
    char* at = pages + changed * page;
    CHECK(mprotect(at, page, READ_WRITE) == 0);
    values[changed] = toggle % 1000;
    if (changed == 0) {
      write_first(pages, page, values[0]);
    } else {
      write_second(pages, page, values[1]);
    }
    CHECK(mprotect(at, page, READ_EXEC) == 0);
  }
  puts("each change was seen");
  return 0;
}
