// mremap grows, shrinks and moves memory, that of code too; big reallocs use it.
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "check.h"

int main(void) {
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  unsigned char* at = mmap(NULL, 4 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(at != MAP_FAILED);
  for (size_t index = 0; index < 4 * page; ++index) at[index] = (unsigned char)(index * 31);
  at = mremap(at, 4 * page, 2 * page, 0);
  CHECK(at != MAP_FAILED);
  at = mremap(at, 2 * page, 64 * page, MREMAP_MAYMOVE);
  CHECK(at != MAP_FAILED);
  for (size_t index = 0; index < 2 * page; ++index) CHECK(at[index] == (unsigned char)(index * 31));
  CHECK(at[2 * page] == 0);
  unsigned char* place = mmap(NULL, 64 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(mremap(at, 64 * page, 64 * page, MREMAP_MAYMOVE | MREMAP_FIXED, place) == place);
  CHECK(place[5] == 155);
  CHECK(mremap(place + 1, page, page, 0) == MAP_FAILED);

  // mov w0, #77; ret
  static const unsigned code[] = {0x528009a0, 0xd65f03c0};
  unsigned char* text = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(text, code, sizeof code);
  CHECK(mprotect(text, page, PROT_READ | PROT_EXEC) == 0);
  int (*function)(void) = NULL;
  memcpy(&function, &text, sizeof text);
  CHECK(function() == 77);
  unsigned char* moved = mremap(text, page, page, MREMAP_MAYMOVE | MREMAP_FIXED, place);
  CHECK(moved == place);
  memcpy(&function, &moved, sizeof moved);
  CHECK(function() == 77);

  char* big = NULL;
  for (size_t size = 1 << 18; size <= (size_t)1 << 25; size *= 2) {
    big = realloc(big, size);
    CHECK(big);
    memset(big + size / 2, (int)(size >> 18), size / 2);
  }
  for (size_t size = 1 << 19; size <= (size_t)1 << 25; size *= 2) CHECK(big[size / 2] == (char)(size >> 18));
  free(big);
  puts("memory moved with its content");
  return 0;
}
