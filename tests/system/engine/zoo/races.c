// Threads for a checker of races: without one, and, with any argument, with one.
#include <pthread.h>
#include <stdio.h>

static int counter;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void* count(void* locked) {
  for (int step = 0; step < 1000; ++step) {
    if (locked != NULL) pthread_mutex_lock(&lock);
    ++counter;
    if (locked != NULL) pthread_mutex_unlock(&lock);
  }
  return NULL;
}

int main(int argc, char** argv) {
  (void)argv;
  pthread_t threads[4];
  for (int index = 0; index < 4; ++index) pthread_create(&threads[index], NULL, count, argc == 1 ? &lock : NULL);
  for (int index = 0; index < 4; ++index) pthread_join(threads[index], NULL);
  if (argc == 1) printf("%d\n", counter);
  return 0;
}
