// Mutexes, condition variables, barriers and read-write locks under contention, with sums that must come out.
#include <pthread.h>
#include <stdatomic.h>

#include "check.h"

enum { THREADS = 8 };
static int rounds;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t turn_came = PTHREAD_COND_INITIALIZER;
static pthread_rwlock_t table_lock = PTHREAD_RWLOCK_INITIALIZER;
static pthread_barrier_t barrier;
static long plain;
static long table[8];
static atomic_long atomic_sum;
static int turn;

static void* work(void* argument) {
  const int number = *(int*)argument;
  for (int round = 0; round < rounds; ++round) {
    pthread_mutex_lock(&lock);
    ++plain;
    pthread_mutex_unlock(&lock);
    atomic_fetch_add_explicit(&atomic_sum, number, memory_order_relaxed);
    if (round % 8 == 0) {
      pthread_rwlock_wrlock(&table_lock);
      for (int index = 0; index < 8; ++index) ++table[index];
      pthread_rwlock_unlock(&table_lock);
    } else {
      pthread_rwlock_rdlock(&table_lock);
      for (int index = 1; index < 8; ++index) CHECK(table[index] == table[0]);
      pthread_rwlock_unlock(&table_lock);
    }
  }
  pthread_barrier_wait(&barrier);
  for (int round = 0; round < 50; ++round) {  // In turn, by a condition variable.
    pthread_mutex_lock(&lock);
    while (turn % THREADS != number) pthread_cond_wait(&turn_came, &lock);
    ++turn;
    pthread_cond_broadcast(&turn_came);
    pthread_mutex_unlock(&lock);
  }
  return NULL;
}

int main(int argc, char** argv) {
  rounds = count_or(argc, argv, 2000);
  pthread_barrier_init(&barrier, NULL, THREADS);
  pthread_t threads[THREADS];
  int numbers[THREADS];
  for (int index = 0; index < THREADS; ++index) {
    numbers[index] = index;
    CHECK(pthread_create(&threads[index], NULL, work, &numbers[index]) == 0);
  }
  for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  printf("%ld %ld %ld %d\n", plain, atomic_load(&atomic_sum), table[3], turn);
  return 0;
}
