// The first thread ends by pthread_exit. Other threads join it, go on, and make more threads. The end of the last
// thread is the end of the process.
#include <pthread.h>
#include <unistd.h>

#include "check.h"

static pthread_t first;

static void* grandchild(void* argument) {
  puts("a thread of a thread");
  return argument;
}

static void* work(void* argument) {
  void* result = NULL;
  CHECK(pthread_join(first, &result) == 0);
  printf("joined the first thread: %s\n", (const char*)result);
  usleep(20000);
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, grandchild, NULL) == 0);
  CHECK(pthread_join(thread, NULL) == 0);
  puts("last thread ends");
  return argument;
}

int main(void) {
  first = pthread_self();
  pthread_t thread;
  CHECK(pthread_create(&thread, NULL, work, NULL) == 0);
  pthread_exit("its result");
}
