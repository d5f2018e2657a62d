// handed_code FOLDER [ROUNDS]: one thread changes code and another runs it, in turns. Memory alone makes the order, by
// a flag or a mutex: the running thread makes no system call that would tell it of the change. FOLDER has the libraries
// of ../hazards/dl_cycle.c.
#include <dlfcn.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdint.h>

#include "../hazards/written_code.h"
#include "guard.h"

enum { TURNS = 12 };
static atomic_uint turn;  // Even: the writer's; odd: the runner's.
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned guarded_turn;  // The same, under the lock.
static void* code;
static unsigned argument, expected, wrong;

static void* run_by_flag(void* unused) {
  for (unsigned count = 0; count < TURNS; ++count) {
    while (atomic_load_explicit(&turn, memory_order_acquire) != 2 * count + 1) {
    }
    long (*function)(long) = NULL;
    memcpy(&function, &code, sizeof code);
    wrong += function(argument) != (long)expected;
    atomic_store_explicit(&turn, 2 * count + 2, memory_order_release);
  }
  return unused;
}

static void* run_by_lock(void* unused) {
  for (unsigned count = 0; count < TURNS;) {
    pthread_mutex_lock(&lock);
    if (guarded_turn == 2 * count + 1) {
      long (*function)(long) = NULL;
      memcpy(&function, &code, sizeof code);
      wrong += function(argument) != (long)expected;
      guarded_turn = 2 * ++count;
    }
    pthread_mutex_unlock(&lock);
  }
  return unused;
}

static void in_turns(void (*change)(unsigned count), bool by_lock) {
  pthread_t runner;
  atomic_store(&turn, 0);
  guarded_turn = 0;
  CHECK(pthread_create(&runner, NULL, by_lock ? run_by_lock : run_by_flag, NULL) == 0);
  for (unsigned count = 0; count < TURNS; ++count) {
    change(count);
    if (by_lock) {
      pthread_mutex_lock(&lock);
      guarded_turn = 2 * count + 1;
      pthread_mutex_unlock(&lock);
    } else {
      atomic_store_explicit(&turn, 2 * count + 1, memory_order_release);
    }
    for (;;) {
      pthread_mutex_lock(&lock);
      const bool done = by_lock ? guarded_turn == 2 * count + 2 : atomic_load(&turn) == 2 * count + 2;
      pthread_mutex_unlock(&lock);
      if (done) break;
    }
  }
  CHECK(pthread_join(runner, NULL) == 0);
}

static void protect(unsigned count) {
  if (count == 0) code = map_memory(NULL, page_bytes(), READ_WRITE, ANYWHERE);
  CHECK(mprotect(code, page_bytes(), READ_WRITE) == 0);
  write_function(code, expected = 100 + count);
  CHECK(mprotect(code, page_bytes(), READ_EXEC) == 0);
}

static void map_anew(unsigned count) {
  if (count == 0) {
    code = map_memory(NULL, page_bytes(), READ_WRITE, ANYWHERE);
  } else {
    CHECK(munmap(code, page_bytes()) == 0);
    CHECK(map_memory(code, page_bytes(), READ_WRITE, ANYWHERE | MAP_FIXED) == code);
  }
  write_function(code, expected = 200 + count);
  CHECK(mprotect(code, page_bytes(), READ_EXEC) == 0);
}

static void map_over(unsigned count) {
  void* fresh = map_memory(NULL, page_bytes(), READ_WRITE, ANYWHERE);
  write_function(fresh, expected = 300 + count);
  CHECK(mprotect(fresh, page_bytes(), READ_EXEC) == 0);
  if (count == 0) {
    code = fresh;
  } else {
    CHECK(mremap(fresh, page_bytes(), page_bytes(), MREMAP_MAYMOVE | MREMAP_FIXED, code) == code);
  }
}

static const char* folder;

static void load(unsigned count) {
  static void* library;
  char name[4096];
  if (library != NULL) CHECK(dlclose(library) == 0);
  snprintf(name, sizeof name, "%s/dl_%s.so", folder, count % 2 == 0 ? "one" : "two");
  library = dlopen(name, RTLD_NOW);
  CHECK(library != NULL);
  code = dlsym(library, "work");
  CHECK(code != NULL);
  argument = 20;
  expected = count % 2 == 0 ? 21 : 40;
}

int main(int argc, char** argv) {
  CHECK(argc > 1);
  folder = argv[1];
  const int rounds = argc > 2 ? atoi(argv[2]) : 1;
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    for (int by_lock = 0; by_lock < 2; ++by_lock) {
      in_turns(protect, by_lock);
      in_turns(map_anew, by_lock);
      in_turns(map_over, by_lock);
      in_turns(load, by_lock);
    }
  }
  printf("%u calls ran other code\n", wrong);
  return 0;
}
