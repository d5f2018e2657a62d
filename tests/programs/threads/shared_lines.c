// Two threads write functions that share a line of memory, and each has a thread of its own that runs what it has
// written: shared_lines [ROUNDS]. One thread's IC IVAU may find that the other's has just begun to drop the line's
// code. When it is done, its function is new all the same.
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>

#include "../hazards/written_code.h"
#include "guard.h"

enum { PAIRS = 2, TURNS = 40, LINE = 64 };
static char* code;
static atomic_uint turns[PAIRS];  // Even: the writer's; odd: the runner's.
static atomic_uint wrong;

static char* function_of(size_t pair) { return code + pair * LINE / PAIRS; }

static void wait_for(size_t pair, unsigned turn) {
  while (atomic_load_explicit(&turns[pair], memory_order_acquire) != turn) {
  }
}

static void* write_functions(void* argument) {
  const size_t pair = (size_t)argument;
  for (unsigned turn = 0; turn < TURNS; ++turn) {
    wait_for(pair, 2 * turn);
    write_function(function_of(pair), 1000 * (unsigned)pair + turn);
    atomic_store_explicit(&turns[pair], 2 * turn + 1, memory_order_release);
  }
  return NULL;
}

static void* run_functions(void* argument) {
  const size_t pair = (size_t)argument;
  for (unsigned turn = 0; turn < TURNS; ++turn) {
    wait_for(pair, 2 * turn + 1);
    __asm__ volatile("isb" ::: "memory");
    if (call(function_of(pair)) != 1000 * (long)pair + (long)turn) atomic_fetch_add(&wrong, 1);
    atomic_store_explicit(&turns[pair], 2 * turn + 2, memory_order_release);
  }
  return NULL;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    code = map_memory(NULL, page_bytes(), PROT_READ | PROT_WRITE | PROT_EXEC, ANYWHERE);
    pthread_t threads[2 * PAIRS];
    for (size_t pair = 0; pair < PAIRS; ++pair) {
      atomic_store(&turns[pair], 0);
      CHECK(pthread_create(&threads[2 * pair], NULL, write_functions, (void*)pair) == 0);
      CHECK(pthread_create(&threads[2 * pair + 1], NULL, run_functions, (void*)pair) == 0);
    }
    for (size_t thread = 0; thread < 2 * PAIRS; ++thread) CHECK(pthread_join(threads[thread], NULL) == 0);
    CHECK(munmap(code, page_bytes()) == 0);
  }
  if (argc > 2 && strcmp(argv[2], "unjudged") == 0) atomic_store(&wrong, 0);
  printf("%u calls ran an older function\n", atomic_load(&wrong));
  return 0;
}
