// Thread-local words, keys and their destructors: each thread finds its own values.
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <unistd.h>

#include "check.h"

static _Thread_local long mine = 40;
static _Thread_local char room[3000];
static pthread_key_t key;
static atomic_int destroyed;

static void destroy(void* value) { atomic_fetch_add(&destroyed, (int)(intptr_t)value); }

static void* work(void* argument) {
  const intptr_t number = (intptr_t)argument;
  CHECK(mine == 40);
  CHECK(pthread_setspecific(key, (void*)number) == 0);
  for (int round = 0; round < 200; ++round) {
    mine += number;
    room[round] = (char)number;
    errno = (int)number;
    if (round % 50 == 0) usleep(100);
    CHECK(errno == number || round % 50 == 0);
    CHECK(pthread_getspecific(key) == (void*)number);
  }
  CHECK(mine == 40 + 200 * number);
  CHECK(room[199] == (char)number && room[200] == 0);
  return &mine;
}

int main(void) {
  CHECK(pthread_key_create(&key, destroy) == 0);
  mine = 1;
  pthread_t threads[16];
  for (intptr_t index = 0; index < 16; ++index)
    CHECK(pthread_create(&threads[index], NULL, work, (void*)(index + 1)) == 0);
  for (int index = 0; index < 16; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  CHECK(mine == 1);
  printf("destroyed %d\n", atomic_load(&destroyed));
  return 0;
}
