// pthread_cancel of threads that sleep in a call, wait for a condition, and compute; their cleanup handlers run.
#include <pthread.h>
#include <stdatomic.h>
#include <unistd.h>

#include "check.h"

static atomic_int cleaned;
static atomic_int started;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t never = PTHREAD_COND_INITIALIZER;
static int pipe_ends[2];

static void clean(void* argument) { atomic_fetch_add(&cleaned, *(int*)argument); }
static void unlock(void* argument) { pthread_mutex_unlock(argument); }

static void* sleeps(void* argument) {
  int one = 1;
  char byte;
  pthread_cleanup_push(clean, &one);
  atomic_fetch_add(&started, 1);
  CHECK(read(pipe_ends[0], &byte, 1) == 1);
  pthread_cleanup_pop(0);
  return argument;
}

static void* waits(void* argument) {
  int ten = 10;
  pthread_cleanup_push(clean, &ten);
  pthread_mutex_lock(&lock);
  pthread_cleanup_push(unlock, &lock);
  atomic_fetch_add(&started, 1);
  for (;;) pthread_cond_wait(&never, &lock);
  pthread_cleanup_pop(1);
  pthread_cleanup_pop(0);
  return argument;
}

static void* computes(void* argument) {
  static int hundred = 100;
  volatile long value = 1;
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, NULL);
  pthread_cleanup_push(clean, &hundred);
  atomic_fetch_add(&started, 1);
  for (;;) value = value * 7 + 1;
  pthread_cleanup_pop(0);
  return argument;
}

int main(void) {
  void* (*const kinds[])(void*) = {sleeps, waits, computes};
  const char* const names[] = {"in a call", "at a condition", "computing"};
  CHECK(pipe(pipe_ends) == 0);
  for (int kind = 0; kind < 3; ++kind) {
    pthread_t threads[4];
    atomic_store(&started, 0);
    for (int index = 0; index < 4; ++index) CHECK(pthread_create(&threads[index], NULL, kinds[kind], NULL) == 0);
    while (atomic_load(&started) < 4) usleep(1000);
    usleep(20000);
    for (int index = 0; index < 4; ++index) CHECK(pthread_cancel(threads[index]) == 0);
    for (int index = 0; index < 4; ++index) {
      void* result = NULL;
      CHECK(pthread_join(threads[index], &result) == 0);
      CHECK(result == PTHREAD_CANCELED);
    }
    printf("cancelled %s, cleaned %d\n", names[kind], atomic_load(&cleaned));
  }
  return 0;
}
