// Threads under a limit of address space: refused_threads [tell]. Those that can be made run, the others fail with
// EAGAIN, and when all have ended there is room again. With `tell`, how many could be made at once, on standard error.
#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include "check.h"

enum { MOST = 64, TIMES = 3, STACK = 131072 };

static pthread_mutex_t gate = PTHREAD_MUTEX_INITIALIZER;

static void* pass(void* count) {
  pthread_mutex_lock(&gate);
  ++*(int*)count;
  pthread_mutex_unlock(&gate);
  return NULL;
}

// As many as there is room for, all waiting at the gate.
static int fill(const pthread_attr_t* attributes) {
  pthread_t threads[MOST];
  int made = 0;
  int passed = 0;
  pthread_mutex_lock(&gate);
  for (int error = 0; made < MOST && error == 0;) {
    error = pthread_create(&threads[made], attributes, pass, &passed);
    if (error == 0) ++made;
    if (error != 0 && error != EAGAIN) printf("a thread cannot be made: error %d\n", error);
  }
  pthread_mutex_unlock(&gate);
  for (int index = 0; index < made; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  if (passed != made) printf("%d of %d threads have run\n", passed, made);
  return made;
}

int main(int argc, char** argv) {
  (void)argv;
  pthread_attr_t attributes;
  CHECK(pthread_attr_init(&attributes) == 0 && pthread_attr_setstacksize(&attributes, STACK) == 0);
  int made[TIMES];
  for (int time = 0; time < TIMES; ++time) made[time] = fill(&attributes);
  if (argc > 1) fprintf(stderr, "%d %d %d\n", made[0], made[1], made[2]);
  // What a thread leaves behind for the next one is not lost: there is no less room the last time.
  printf("some run: %d; as many again: %d\n", made[0] >= 4, made[TIMES - 1] + 1 >= made[1]);
  int passed = 0;
  pthread_t last;
  CHECK(pthread_create(&last, &attributes, pass, &passed) == 0);
  CHECK(pthread_join(last, NULL) == 0);
  printf("another one runs: %d\n", passed);
  return 0;
}
