// Other code where code was: mapped over it without an unmapping, moved there by mremap, rewritten while the page was
// writable and executable at once, and rewritten by the very block that calls it next.
#include <sys/syscall.h>

#include "written_code.h"

static void* code_page(void* at, int flags, unsigned value) {
  void* page = map_memory(at, page_bytes(), READ_WRITE, flags);
  write_function(page, value);
  CHECK(mprotect(page, page_bytes(), READ_EXEC) == 0);
  return page;
}

static void mapped_over(void) {
  void* page = code_page(NULL, ANYWHERE, 1);
  for (unsigned round = 0; round < 5; ++round) {
    CHECK(call(page) == 1 + (long)round);
    CHECK(code_page(page, ANYWHERE | MAP_FIXED, 2 + round) == page);
  }
  CHECK(munmap(page, page_bytes()) == 0);
}

static void moved_over(void) {
  void* place = code_page(NULL, ANYWHERE, 100);
  void* old = code_page(NULL, ANYWHERE, 101);
  CHECK(call(place) == 100);
  CHECK(call(old) == 101);
  CHECK(mremap(old, page_bytes(), page_bytes(), MREMAP_MAYMOVE | MREMAP_FIXED, place) == place);
  CHECK(call(place) == 101);
  CHECK(code_page(old, ANYWHERE | MAP_FIXED, 102) == old);  // Where it has moved away from.
  CHECK(call(old) == 102);
  CHECK(munmap(place, page_bytes()) == 0);
  CHECK(code_page(place, ANYWHERE | MAP_FIXED, 103) == place);
  CHECK(call(place) == 103);
  CHECK(munmap(place, page_bytes()) == 0 && munmap(old, page_bytes()) == 0);
}

static void writable_and_executable(void) {
  void* page = code_page(NULL, ANYWHERE, 200);
  for (unsigned round = 0; round < 5; ++round) {
    CHECK(call(page) == 200 + (long)round);
    CHECK(mprotect(page, page_bytes(), READ_WRITE | PROT_EXEC) == 0);
    write_function(page, 201 + round);
    CHECK(call(page) == 201 + (long)round);
    CHECK(mprotect(page, page_bytes(), READ_EXEC) == 0);
  }
  CHECK(munmap(page, page_bytes()) == 0);
}

static void* map_file(void* at, int file, int flags) {
  void* page = mmap(at, page_bytes(), READ_EXEC, MAP_PRIVATE | flags, file, 0);
  CHECK(page != MAP_FAILED);
  return page;
}

static void files_at_one_address(void) {
  int files[2];
  for (int index = 0; index < 2; ++index) {
    char name[] = "code-XXXXXX";
    files[index] = mkstemp(name);
    const unsigned words[] = {mov_w0(300 + (unsigned)index), RET};
    CHECK(files[index] >= 0 && write(files[index], words, sizeof words) == sizeof words && unlink(name) == 0);
  }
  void* page = map_file(NULL, files[0], 0);
  for (int round = 0; round < 6; ++round) {
    CHECK(call(page) == 300 + round % 2);
    if (round % 3 != 0) CHECK(munmap(page, page_bytes()) == 0);
    CHECK(map_file(page, files[1 - round % 2], MAP_FIXED) == page);
  }
  CHECK(munmap(page, page_bytes()) == 0 && close(files[0]) == 0 && close(files[1]) == 0);
}

static void many_pages(void) {  // More ranges of code than one would keep a list of.
  enum { PAGES = 540 };
  const size_t page = page_bytes();
  char* pages = map_memory(NULL, 2 * PAGES * page, READ_WRITE, ANYWHERE | MAP_NORESERVE);
  for (unsigned round = 0; round < 2; ++round) {
    for (unsigned index = 0; index < PAGES; ++index) {
      char* at = pages + 2 * index * page;
      CHECK(mprotect(at, page, READ_WRITE) == 0);
      write_function(at, 1000 * round + index);
      CHECK(mprotect(at, page, READ_EXEC) == 0);
      if (index % 10 == 9) CHECK(call(at) == (long)(1000 * round + index));
    }
  }
  CHECK(munmap(pages, 2 * PAGES * page) == 0);
  CHECK(map_memory(pages, 2 * PAGES * page, READ_WRITE | PROT_EXEC, ANYWHERE | MAP_FIXED | MAP_NORESERVE) == pages);
  for (unsigned index = 9; index < PAGES; index += 10) {
    write_function(pages + 2 * index * page, 7);
    CHECK(call(pages + 2 * index * page) == 7);
  }
  CHECK(munmap(pages, 2 * PAGES * page) == 0);
}

// long rewrite_and_call(void* page, long protection_size, unsigned long words, long rounds): makes `page_of_calls`
// writable, writes the two words there, makes the page executable, calls it directly, and repeats this with the
// immediate of the first word one higher. Returns the sum of the results.
long rewrite_and_call(void* page, long size, unsigned long words, long rounds);
extern char page_of_calls[];
asm(".text\n.balign 4\n.globl rewrite_and_call\nrewrite_and_call:\n"
    "  stp x29, x30, [sp, #-16]!\n  mov x9, x0\n  mov x10, x1\n  mov x11, x2\n  mov x12, x3\n  mov x13, #0\n"
    "1: mov x0, x9\n  mov x1, x10\n  mov x2, #3\n  mov x8, #226\n  svc #0\n"
    "  str x11, [x9]\n  dc cvau, x9\n  dsb ish\n  ic ivau, x9\n  dsb ish\n  isb\n"
    "  mov x0, x9\n  mov x1, x10\n  mov x2, #5\n  mov x8, #226\n  svc #0\n"
    "  bl page_of_calls\n  add x13, x13, x0\n  add x11, x11, #32\n  sub x12, x12, #1\n  cbnz x12, 1b\n"
    "  mov x0, x13\n  ldp x29, x30, [sp], #16\n  ret\n"
    ".balign 65536\n.globl page_of_calls\npage_of_calls: mov w0, #0\n ret\n.balign 65536\n");

int main(void) {
  mapped_over();
  moved_over();
  writable_and_executable();
  files_at_one_address();
  many_pages();
  const unsigned long words = mov_w0(500) | (unsigned long)RET << 32;
  CHECK(rewrite_and_call(page_of_calls, 65536, words, 8) == 8 * 500 + 28);
  puts("the newest code ran");
  return 0;
}
