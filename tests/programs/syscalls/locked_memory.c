// locked_memory: all memory of the program is locked, and it goes on. Without privileges a limit decides what it may
// lock. Run it as root; it gives its privileges up on the way.
#include <errno.h>
#include <malloc.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "check.h"

static void* touch(void* size) {
  char* memory = malloc((size_t)size);
  CHECK(memory != NULL);
  memset(memory, 1, (size_t)size);
  CHECK(mlock(memory, 4096) == 0);
  free(memory);
  return NULL;
}

static void run_threads(void) {
  pthread_attr_t small;
  CHECK(pthread_attr_init(&small) == 0 && pthread_attr_setstacksize(&small, 262144) == 0);
  for (int round = 0; round < 3; ++round) {
    pthread_t threads[4];
    for (int index = 0; index < 4; ++index) {
      CHECK(pthread_create(&threads[index], &small, touch, (void*)(size_t)(100000 * index + 5000)) == 0);
    }
    for (int index = 0; index < 4; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  }
}

static void set_limit(rlim_t bytes) {
  const struct rlimit limit = {bytes, 1 << 30};
  CHECK(setrlimit(RLIMIT_MEMLOCK, &limit) == 0);
}

static void refused(int flags, int error, const char* what) {
  const int result = mlockall(flags);
  if (result != -1 || errno != error) printf("%s: %d, %s\n", what, result, strerror(errno));
}

int main(void) {
  // One heap. Each further one would reserve 64 MiB, more than the limit below.
  CHECK(mallopt(M_ARENA_MAX, 1) == 1);
  CHECK(mlockall(MCL_CURRENT | MCL_FUTURE) == 0);
  run_threads();
  CHECK(munlockall() == 0);
  refused(0, EINVAL, "no flag");
  refused(8 | MCL_CURRENT, EINVAL, "an unknown flag");
  refused(4, EINVAL, "nothing to lock");
  set_limit(64 << 20);
  CHECK(setuid(65534) == 0);
  CHECK(mlockall(MCL_CURRENT) == 0);
  CHECK(munlockall() == 0);
  CHECK(mlockall(MCL_CURRENT | MCL_FUTURE) == 0);
  run_threads();
  CHECK(munlockall() == 0);
  set_limit(0);
  refused(MCL_CURRENT, EPERM, "no limit left");
  char* much = mmap(NULL, 256 << 20, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(much != MAP_FAILED);
  set_limit(64 << 20);
  refused(MCL_CURRENT, ENOMEM, "more than the limit");
  puts("memory is locked as far as the limit goes");
  return 0;
}
