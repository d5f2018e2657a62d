// One thread after another. The process's memory stays where it was after the first hundred threads. (The user-mode
// emulator itself grows by 280 KiB with every thread of any program. The program recognises the emulator by its lack of
// robust lists.)
#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "check.h"

static void* work(void* argument) { return argument; }

// Counts only memory that can be used: the heaps reserve address space in units of 64 MiB.
static long mapped_kib(void) {
  long sum = 0;
  char line[512];
  FILE* maps = fopen("/proc/self/maps", "r");
  CHECK(maps);
  while (fgets(line, sizeof line, maps)) {
    unsigned long start = 0;
    unsigned long end = 0;
    char readable = '-';
    if (sscanf(line, "%lx-%lx %c", &start, &end, &readable) == 3 && readable == 'r')
      sum += (long)((end - start) / 1024);
  }
  fclose(maps);
  return sum;
}

static long resident_kib(void) {
  long result = -1;
  char line[512];
  FILE* status = fopen("/proc/self/status", "r");
  CHECK(status);
  while (fgets(line, sizeof line, status)) {
    if (strncmp(line, "VmRSS:", 6) == 0) result = atol(line + 6);
  }
  fclose(status);
  return result;
}

static void run(int count) {
  for (int index = 0; index < count; ++index) {
    pthread_t thread;
    void* result = NULL;
    CHECK(pthread_create(&thread, NULL, work, &count) == 0);
    CHECK(pthread_join(thread, &result) == 0 && result == &count);
  }
  usleep(200000);  // The last one is joined a little before it is gone.
}

int main(int argc, char** argv) {
  const int count = count_or(argc, argv, 500);
  // The kernel merges pages into huge ones at times of its own choice, and counts what that adds. It is not measured
  // here.
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);
  run(100);
  const long mapped = mapped_kib();
  const long resident = resident_kib();
  run(count - 100);
  const long more_mapped = mapped_kib() - mapped;
  const long more_resident = resident_kib() - resident;
  if (argc > 2) {
    fprintf(stderr, "mapped %ld KiB and %ld more, resident %ld KiB and %ld more\n", mapped, more_mapped, resident,
            more_resident);
  }
  const int emulated = syscall(SYS_set_robust_list, NULL, 0) != 0 && errno == ENOSYS;
  printf("%d threads: mapped memory %s, resident memory %s\n", count, more_mapped <= 1024 ? "steady" : "grows",
         emulated || more_resident <= 1024 ? "steady" : "grows");
  return more_mapped > 1024 || (!emulated && more_resident > 1024);
}
