// bad_jumps null|unmapped|unreadable|undefined|undefined_later [caught]: goes to where there is no code. The signal's
// default action ends the program; with `caught`, the program's own handler leaves by siglongjmp, again and again.
#include <setjmp.h>
#include <signal.h>

#include "written_code.h"

static sigjmp_buf back;

static void leave(int number) { siglongjmp(back, number); }

static void catch_each(void* target) {
  struct sigaction action = {.sa_handler = leave};
  CHECK(sigaction(SIGSEGV, &action, NULL) == 0 && sigaction(SIGILL, &action, NULL) == 0);
  for (volatile int round = 0; round < 5; ++round) {
    const int number = sigsetjmp(back, 1);
    if (number == 0) {
      call(target);
      puts("came back");
    } else {
      printf("caught signal %d\n", number);
    }
  }
  exit(0);
}

int main(int argc, char** argv) {
  CHECK(argc >= 2);
  const char* kind = argv[1];
  char* page = map_memory(NULL, page_bytes(), READ_WRITE, ANYWHERE);
  const unsigned words[] = {0xaa0003e1, 0x00000000, RET};  // mov x1, x0; udf; ret
  write_words(page, words, 3);
  CHECK(mprotect(page, page_bytes(), READ_EXEC) == 0);
  printf("goes to %s\n", kind);
  fflush(stdout);
  void* target = strcmp(kind, "null") == 0 ? NULL : page;
  if (strcmp(kind, "undefined") == 0) target = page + 4;
  if (strcmp(kind, "unmapped") == 0) CHECK(munmap(page, page_bytes()) == 0);
  if (strcmp(kind, "unreadable") == 0) CHECK(mprotect(page, page_bytes(), PROT_NONE) == 0);
  if (argc > 2) catch_each(target);
  call(target);
  puts("came back");
  return 1;
}
