// Blocks of one instruction each, side by side up to a multiple of 2 MiB, at several such places. Tables of blocks that
// are indexed by the low bits of an address reach their end here.
#include "written_code.h"

enum { TWO_MIB = 2 << 20, BLOCKS = 40, PLACES = 5 };

int main(void) {
  char* memory = map_memory(NULL, (PLACES + 2) * (size_t)TWO_MIB, READ_WRITE | PROT_EXEC, ANYWHERE | MAP_NORESERVE);
  memory += TWO_MIB - (unsigned long)memory % TWO_MIB;
  for (int place = 1; place <= PLACES; ++place) {
    unsigned words[BLOCKS + 2];
    for (int index = 0; index < BLOCKS; ++index) words[index] = 0x14000001;  // b .+4
    words[BLOCKS] = mov_w0((unsigned)place);
    words[BLOCKS + 1] = RET;
    write_words(memory + place * (long)TWO_MIB - 4 * BLOCKS, words, BLOCKS + 2);
  }
  for (int round = 0; round < 3; ++round) {
    for (int place = 1; place <= PLACES; ++place) CHECK(call(memory + place * (long)TWO_MIB - 4 * BLOCKS) == place);
  }
  puts("dense blocks ran");
  return 0;
}
