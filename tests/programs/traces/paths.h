// The paths of paths.S, for programs that run many of them, and the means to have them made into traces again.
#pragma once

#include <sys/mman.h>

#include "syscalls/check.h"

#define EVERY_SHORT_PATH(what)                                                                                       \
  what(loop) what(pair) what(row_of_20) what(row_of_21) what(row_of_22) what(exits_21) what(exits_50) what(returns)  \
      what(jumps) what(calls) what(nested) what(phases) what(empty_blocks) what(same_sides) what(borrowed_registers) \
          what(entered_tbz_near) what(entered_cbz_near) what(entered_condition_near)

#define DECLARE_PATH(name) long path_##name(long count);
EVERY_SHORT_PATH(DECLARE_PATH)

struct path {
  const char* name;
  long (*run)(long);
};
#define PATH_ENTRY(name) {#name, path_##name},
static const struct path paths[] = {EVERY_SHORT_PATH(PATH_ENTRY)};
enum { PATHS = sizeof paths / sizeof *paths };

// Unmaps code, which drops all rewritten code of the calling thread: whatever it runs next is rewritten again.
static inline void forget_rewritten_code(void) {
  void* page = mmap(NULL, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(page != MAP_FAILED && munmap(page, 4096) == 0);
}
