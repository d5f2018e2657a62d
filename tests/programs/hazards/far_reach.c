// Every kind of direct branch, load of a literal and address at the limits of what it can reach, both ways.
#include "written_code.h"

enum { MIB = 1 << 20 };

static char* middle;  // Of 258 MiB of address space.

static char* code_at(long offset, const unsigned* words, size_t count) {
  char* at = middle + offset;
  char* page = (char*)((unsigned long)at & ~(page_bytes() - 1));
  const size_t size = (size_t)(at - page) + count * sizeof *words;
  CHECK(mprotect(page, size, READ_WRITE) == 0);
  write_words(at, words, count);
  CHECK(mprotect(page, size, READ_EXEC) == 0);
  return at;
}

static unsigned field(long value, int width, int shift) { return (unsigned)(value & ((1l << width) - 1)) << shift; }

// A taken branch to a place that returns `number`. If it is not taken, 0 is returned.
static void branch(const char* name, unsigned word, int width, int shift, long offset) {
  static unsigned number;
  const unsigned there[] = {mov_w0(++number), RET};
  code_at(offset, there, 2);
  const unsigned here[] = {NOP, word | field(offset / 4, width, shift), mov_w0(0), RET};
  char* start = code_at(-4, here, 4);
  for (int round = 0; round < 3; ++round) CHECK(call(start) == number);
  const unsigned gone[] = {mov_w0(60000), RET};
  code_at(offset, gone, 2);
  printf("%s reaches %ld\n", name, offset);
}

// An instruction into x0 whose 21 bits of offset are split like those of ADR.
static void address(const char* name, unsigned word, long distance, unsigned long expected) {
  const unsigned here[] = {word | field(distance, 2, 29) | field(distance >> 2, 19, 5), RET};
  CHECK((unsigned long)call(code_at(0, here, 2)) == expected);
  printf("%s of %ld\n", name, distance);
}

static void literal(long offset) {
  const unsigned value[] = {0x89abcdef, 0x01234567};
  code_at(offset, value, 2);
  const unsigned here[] = {0x58000000 | field(offset / 4, 19, 5), RET};  // ldr x0, literal
  CHECK(call(code_at(0, here, 2)) == 0x0123456789abcdef);
  printf("a literal at %ld\n", offset);
}

int main(void) {
  middle = (char*)map_memory(NULL, 258ul * MIB, PROT_NONE, ANYWHERE | MAP_NORESERVE) + 129 * MIB;
  middle -= (unsigned long)middle % 65536;
  for (int way = -1; way <= 1; way += 2) {
    const long less = way > 0 ? 4 : 0;
    branch("b", 0x14000000, 26, 0, way * 128l * MIB - less);
    branch("b.al", 0x5400000e, 19, 5, way * (long)MIB - less);
    branch("b.ne after a comparison", 0x54000001, 19, 5, way * (long)MIB - less);
    branch("cbz xzr", 0xb400001f, 19, 5, way * (long)MIB - less);
    branch("tbz wzr, #0", 0x3600001f, 14, 5, way * 32768l - less);
    literal(way * (long)MIB - less);
    const long nearly = way > 0 ? 1 : 0;
    address("adr", 0x10000000, way * (long)MIB - nearly,
            (unsigned long)middle + (unsigned long)(way * (long)MIB - nearly));
    address("adrp", 0x90000000, way * (long)MIB - nearly,
            ((unsigned long)middle & ~0xffful) + ((unsigned long)(way * (long)MIB - nearly) << 12));
  }
  return 0;
}
