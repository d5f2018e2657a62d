// flushed_code [ROUNDS]: code that is overwritten in place and made visible by cache maintenance alone, without a
// system call. In memory that is writable and executable; on the stack; in a ring of many small functions; and by the
// block that runs it next.
#include "written_code.h"

enum { READ_WRITE_EXEC = PROT_READ | PROT_WRITE | PROT_EXEC };

static void in_place(unsigned rounds) {
  char* page = map_memory(NULL, page_bytes(), READ_WRITE_EXEC, ANYWHERE);
  for (unsigned round = 0; round < rounds; ++round) {
    write_function(page, round % 5000);
    write_function(page + 256, round % 3000);
    for (int again = 0; again < 3; ++again) {
      CHECK(call(page) == (long)(round % 5000));
      CHECK(call(page + 256) == (long)(round % 3000));
    }
  }
  CHECK(munmap(page, page_bytes()) == 0);
}

// The number is a literal behind the code: data, which needs no maintenance.
static void literal(unsigned rounds) {
  char* page = map_memory(NULL, page_bytes(), READ_WRITE_EXEC, ANYWHERE);
  const unsigned words[] = {0x18000040, RET, 0};  // ldr w0, +8
  write_words(page, words, 3);
  for (unsigned round = 0; round < rounds; ++round) {
    memcpy(page + 8, &round, sizeof round);
    CHECK(call(page) == (long)round);
  }
  CHECK(munmap(page, page_bytes()) == 0);
}

static void on_the_stack(unsigned rounds) {
  char room[3 * 65536];
  const size_t page = page_bytes();
  char* place = (char*)(((size_t)room + page - 1) & ~(page - 1));
  CHECK(mprotect(place, page, READ_WRITE_EXEC) == 0);
  for (unsigned round = 0; round < rounds; ++round) {
    write_function(place + 64, round);
    CHECK(call(place + 64) == (long)round);
  }
  CHECK(mprotect(place, page, READ_WRITE) == 0);
}

static void ring(unsigned rounds) {
  enum { SIZE = 65536, STEP = 32 };
  char* memory = map_memory(NULL, SIZE, READ_WRITE_EXEC, ANYWHERE);
  for (unsigned index = 0; index < rounds * 20; ++index) {
    char* at = memory + (size_t)index * STEP % SIZE;
    write_function(at, index % 60000);
    CHECK(call(at) == (long)(index % 60000));
  }
  CHECK(munmap(memory, SIZE) == 0);
}

// long change_itself(void): writes the word in w1 over the word behind the isb, which belongs to the same block, and
// then runs it. Returns what that word has made of 0.
static const unsigned change_itself[] = {
    0x52800000,  //  0: mov w0, #0
    0x10000102,  //  4: adr x2, 36
    0xb9000041,  //  8: str w1, [x2]
    0xd50b7b22,  // 12: dc cvau, x2
    0xd5033b9f,  // 16: dsb ish
    0xd50b7522,  // 20: ic ivau, x2
    0xd5033b9f,  // 24: dsb ish
    0xd5033fdf,  // 28: isb
    0xd503201f,  // 32: nop
    0xd503201f,  // 36: nop, written over
    0xd65f03c0,  // 40: ret
};

static void by_itself(unsigned rounds) {
  char* page = map_memory(NULL, page_bytes(), READ_WRITE_EXEC, ANYWHERE);
  write_words(page, change_itself, sizeof change_itself / sizeof *change_itself);
  long (*function)(long, unsigned) = NULL;
  memcpy(&function, &page, sizeof page);
  for (unsigned round = 0; round < rounds; ++round) CHECK(function(0, mov_w0(round % 9000)) == (long)(round % 9000));
  CHECK(munmap(page, page_bytes()) == 0);
}

int main(int argc, char** argv) {
  const unsigned rounds = (unsigned)count_or(argc, argv, 300);
  in_place(rounds);
  literal(rounds);
  on_the_stack(rounds);
  ring(rounds);
  by_itself(rounds);
  puts("the newest code ran");
  return 0;
}
