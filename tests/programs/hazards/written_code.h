// For programs that write code: places for it, and a call of it.
#pragma once

#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../syscalls/check.h"

static const unsigned RET = 0xd65f03c0;
static const unsigned NOP = 0xd503201f;
enum { ANYWHERE = MAP_PRIVATE | MAP_ANONYMOUS, READ_WRITE = PROT_READ | PROT_WRITE, READ_EXEC = PROT_READ | PROT_EXEC };

static inline unsigned mov_w0(unsigned value) { return 0x52800000 | value << 5; }

static inline void write_words(void* at, const unsigned* words, size_t count) {
  memcpy(at, words, count * sizeof *words);
  __builtin___clear_cache((char*)at, (char*)at + count * sizeof *words);
}

// A function that returns a number below 65536.
static inline void write_function(void* at, unsigned value) {
  const unsigned words[] = {mov_w0(value), RET};
  write_words(at, words, 2);
}

static inline long call(void* at) {
  long (*function)(void) = NULL;
  memcpy(&function, &at, sizeof at);
  return function();
}

static inline void* map_memory(void* at, size_t size, int protection, int flags) {
  void* memory = mmap(at, size, protection, flags, -1, 0);
  CHECK(memory != MAP_FAILED);
  return memory;
}

static inline size_t page_bytes(void) { return (size_t)sysconf(_SC_PAGESIZE); }
