// Code written at run time: made executable by mprotect or mapped so, run, unmapped, and other code run at its address.
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "check.h"

// mov w0, #value; ret
static void write_function(unsigned* at, unsigned value) {
  at[0] = 0x52800000 | value << 5;
  at[1] = 0xd65f03c0;
  __builtin___clear_cache((char*)at, (char*)(at + 2));
}

static int call(void* at) {
  int (*function)(void) = NULL;
  memcpy(&function, &at, sizeof at);
  return function();
}

int main(void) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  unsigned* text = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(text != MAP_FAILED);
  write_function(text, 11);
  CHECK(mprotect(text, page, PROT_READ | PROT_EXEC) == 0);
  CHECK(call(text) == 11);
  CHECK(mprotect(text, page, PROT_EXEC) == 0);
  CHECK(call(text) == 11);
  for (unsigned round = 0; round < 10; ++round) {  // In turn writable and executable, never both.
    CHECK(mprotect(text, page, PROT_READ | PROT_WRITE) == 0);
    write_function(text, 20 + round);
    CHECK(mprotect(text, page, PROT_READ | PROT_EXEC) == 0);
    CHECK(call(text) == 20 + (int)round);
  }
  CHECK(munmap(text, page) == 0);

  unsigned* both = mmap(text, page, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  CHECK(both == text);  // Other code where code was.
  for (unsigned index = 0; index < 100; ++index) write_function(both + 2 * index, index + 1000);
  for (unsigned index = 0; index < 100; ++index) CHECK(call(both + 2 * index) == (int)index + 1000);
  for (unsigned round = 0; round < 20; ++round) {
    CHECK(munmap(both, page) == 0);
    unsigned* again =
        mmap(both, page, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    CHECK(again == both);
    write_function(both, 2000 + round);
    CHECK(call(both) == 2000 + (int)round);
  }
  puts("written code ran");
  return 0;
}
