// Pages of code that are mapped twice: written and made known by the mapping that is writable, or written there and
// made known by the one that runs; in part, moved, and with two offsets of the file. mapped_twice [ROUNDS]
#include <sys/syscall.h>

#include "written_code.h"

static void* map_pages(int file, size_t pages, int protection, size_t offset) {
  void* memory = mmap(NULL, pages * page_bytes(), protection, MAP_SHARED, file, (off_t)offset);
  CHECK(memory != MAP_FAILED);
  return memory;
}

static void write_here_flush_there(void* written, void* flushed, unsigned value) {
  const unsigned words[] = {mov_w0(value), RET};
  memcpy(written, words, sizeof words);
  __builtin___clear_cache((char*)flushed, (char*)flushed + sizeof words);
}

int main(int argc, char** argv) {
  const unsigned rounds = (unsigned)count_or(argc, argv, 40);
  const size_t page = page_bytes();
  const int file = (int)syscall(SYS_memfd_create, "code", 0);
  CHECK(file >= 0 && ftruncate(file, 4 * (off_t)page) == 0);
  char* writable = map_pages(file, 4, READ_WRITE, 0);
  char* runs = map_pages(file, 4, READ_EXEC, 0);
  char* second = map_pages(file, 1, READ_EXEC, page);
  for (unsigned round = 0; round < rounds; ++round) {
    for (size_t place = 0; place < 4 * page; place += page + 128) {
      write_here_flush_there(writable + place, writable + place, round + 1);
      CHECK(call(runs + place) == (long)round + 1);
      write_here_flush_there(writable + place, runs + place, round + 2);
      CHECK(call(runs + place) == (long)round + 2);
    }
    write_here_flush_there(writable + page + 16, writable + page + 16, round + 3);
    CHECK(call(second + 16) == (long)round + 3);
    CHECK(call(runs + page + 16) == (long)round + 3);
    if (round % 8 == 3) {
      void* there = map_memory(NULL, page, READ_WRITE, ANYWHERE);
      CHECK(mremap(second, page, page, MREMAP_MAYMOVE | MREMAP_FIXED, there) == there);
      second = there;
      CHECK(munmap(runs + 3 * page, page) == 0);
      CHECK(mmap(runs + 3 * page, page, READ_EXEC, MAP_SHARED | MAP_FIXED, file, 3 * (off_t)page) != MAP_FAILED);
    }
  }
  puts("both mappings ran the newest code");
  return 0;
}
