// Makes each of the engine's events happen: a second thread, a function to watch, system calls, and executable memory
// that goes away again.
#include <pthread.h>
#include <stdio.h>
#include <sys/mman.h>

__attribute__((noinline)) long watched_function(long value) {
  __asm__ volatile("" : "+r"(value));
  return value + 1;
}

static void* second(void* argument) {
  *(long*)argument = watched_function(41);
  return NULL;
}

int main(void) {
  long result = 0;
  pthread_t thread;
  if (pthread_create(&thread, NULL, second, &result) != 0 || pthread_join(thread, NULL) != 0) return 1;
  void* code = mmap(NULL, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (code == MAP_FAILED || munmap(code, 4096) != 0) return 1;
  printf("%ld %ld\n", result, watched_function(1));
  return 0;
}
