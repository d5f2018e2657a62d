// robust_mutex [ROUNDS]: a thread ends while it holds robust mutexes. Whoever has joined the thread finds at once that
// the mutexes' owner is dead.
#include <errno.h>
#include <pthread.h>

#include "check.h"

enum { MUTEXES = 3 };
static pthread_mutex_t mutexes[MUTEXES];
static pthread_mutex_t free_one;

static void* end_with_all(void* argument) {
  CHECK(pthread_mutex_lock(&free_one) == 0);
  for (int index = 0; index < MUTEXES; ++index) CHECK(pthread_mutex_lock(&mutexes[index]) == 0);
  CHECK(pthread_mutex_unlock(&free_one) == 0);
  return argument;
}

static void* wait_for_first(void* argument) {
  CHECK(pthread_mutex_lock(&mutexes[0]) == EOWNERDEAD);
  CHECK(pthread_mutex_consistent(&mutexes[0]) == 0);
  CHECK(pthread_mutex_unlock(&mutexes[0]) == 0);
  return argument;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 100);
  for (int round = 0; round < rounds; ++round) {
    pthread_mutexattr_t robust;
    CHECK(pthread_mutexattr_init(&robust) == 0);
    CHECK(pthread_mutexattr_setrobust(&robust, PTHREAD_MUTEX_ROBUST) == 0);
    for (int index = 0; index < MUTEXES; ++index) CHECK(pthread_mutex_init(&mutexes[index], &robust) == 0);
    CHECK(pthread_mutex_init(&free_one, &robust) == 0);
    pthread_t owner;
    pthread_t waiter;
    CHECK(pthread_create(&owner, NULL, end_with_all, NULL) == 0);
    CHECK(pthread_join(owner, NULL) == 0);
    CHECK(pthread_mutex_trylock(&free_one) == 0);
    CHECK(pthread_mutex_unlock(&free_one) == 0);
    CHECK(pthread_create(&waiter, NULL, wait_for_first, NULL) == 0);
    for (int index = 1; index < MUTEXES; ++index) CHECK(pthread_mutex_trylock(&mutexes[index]) == EOWNERDEAD);
    CHECK(pthread_join(waiter, NULL) == 0);
  }
  puts("owners found dead");
  return 0;
}
