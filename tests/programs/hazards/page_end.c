// Code at the very end of its mapping: a block that never reaches the unreadable page behind it, and a block that goes
// on across a page boundary into code of another mapping.
#include "written_code.h"

int main(void) {
  const size_t page = page_bytes();
  char* memory = map_memory(NULL, 2 * page, READ_WRITE, ANYWHERE);
  const unsigned add_1 = 0x91000400, cbnz_w8_plus_8 = 0x35000048, cbz_w8_plus_8 = 0x34000048, b_back_12 = 0x17fffffd;
  for (int round = 0; round < 3; ++round) {
    // mov w0, #5; ret, the last two words.
    write_function(memory + page - 8, 5);
    CHECK(mprotect(memory, page, READ_EXEC) == 0 && mprotect(memory + page, page, PROT_NONE) == 0);
    CHECK(call(memory + page - 8) == 5);
    // A branch back is the last word.
    CHECK(mprotect(memory, page, READ_WRITE) == 0);
    const unsigned back[] = {mov_w0(6), RET, mov_w0(8), b_back_12};
    write_words(memory + page - 16, back, 4);
    CHECK(mprotect(memory, page, READ_EXEC) == 0);
    CHECK(call(memory + page - 8) == 6);
    CHECK(call(memory + page - 4) == 6);
    // Straight across, with an exit just before and just behind the boundary.
    const unsigned across[] = {mov_w0(7), add_1, cbnz_w8_plus_8, add_1, cbz_w8_plus_8, add_1, add_1, RET};
    for (unsigned place = 0; place < 8; ++place) {
      CHECK(mprotect(memory, 2 * page, READ_WRITE) == 0);
      write_words(memory + page - 4 * place, across, 8);
      CHECK(mprotect(memory, page, READ_EXEC) == 0 && mprotect(memory + page, page, READ_EXEC) == 0);
      CHECK(call(memory + page - 4 * place) == 10);  // Whatever w8 is, one addition of four is skipped.
    }
    CHECK(mprotect(memory, 2 * page, READ_WRITE) == 0);
  }
  puts("code ran up to the end of its page and across it");
  return 0;
}
