// Threads map code, run it and unmap it all the time. The kernel gives the place that one has left to the next one.
// Each piece of code returns a number of its own, and no thread may get the number of another.
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../syscalls/check.h"

enum { THREADS = 4 };

static int rounds;
static int wrong;

static void* map_and_run(void* argument) {
  const unsigned thread = (unsigned)(size_t)argument;
  const size_t page = (size_t)sysconf(_SC_PAGESIZE);
  for (int round = 0; round < rounds; ++round) {
    const unsigned value = thread << 12 | ((unsigned)round & 0xfff);
    const unsigned code[] = {0x52800000 | value << 5, 0xd65f03c0};  // mov w0, #value; ret
    char* text = mmap(NULL, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    CHECK(text != MAP_FAILED);
    memcpy(text, code, sizeof code);
    CHECK(mprotect(text, page, PROT_READ | PROT_EXEC) == 0);
    __builtin___clear_cache(text, text + sizeof code);
    unsigned (*function)(void) = NULL;
    memcpy(&function, &text, sizeof text);
    if (function() != value) __atomic_add_fetch(&wrong, 1, __ATOMIC_RELAXED);
    CHECK(munmap(text, page) == 0);
  }
  return NULL;
}

int main(int argc, char** argv) {
  rounds = count_or(argc, argv, 25);
  pthread_t threads[THREADS];
  for (size_t index = 0; index < THREADS; ++index) {
    CHECK(pthread_create(&threads[index], NULL, map_and_run, (void*)index) == 0);
  }
  for (size_t index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  printf("%d pieces of code were another's\n", wrong);
  return 0;
}
