// exit_raw [threads]: the last thread ends by the exit call that ends one thread. The call's status is the process's.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "check.h"

static void* work(void* argument) {
  usleep(10000);
  return argument;
}

int main(int argc, char** argv) {
  for (int index = 0; index < count_or(argc, argv, 0); ++index) {
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, work, NULL) == 0);
    CHECK(pthread_join(thread, NULL) == 0);
  }
  usleep(50000);
  puts("ends");
  fflush(stdout);
  syscall(SYS_exit, 5);
  return 0;
}
