// Threads that nobody waits for, linked statically with a small C library: each unmaps its own stack as it ends.
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <unistd.h>

static atomic_int done;

static void* work(void* data) {
  char local[2000];
  snprintf(local, sizeof local, "%p", data);
  atomic_fetch_add(&done, 1);
  return NULL;
}

int main(void) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  for (int index = 0; index < 200; ++index) {
    pthread_t thread;
    if (pthread_create(&thread, &attributes, work, NULL) != 0) return 1;
    while (atomic_load(&done) <= index) usleep(100);
  }
  printf("%d\n", atomic_load(&done));
  return 0;
}
