// mapped_beside [ROUNDS]: one thread maps and unmaps plain memory all the time, and another one maps code, runs it and
// unmaps it. The kernel gives the place that one has left to the other. A third thread runs the code too.
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>

#include "../hazards/written_code.h"
#include "guard.h"

enum { PIECES = 40 };
static atomic_bool done;
static _Atomic(void*) published;
static atomic_uint wanted, ran;
static atomic_uint wrong;

static void* map_plain(void* unused) {
  while (!atomic_load(&done)) {
    char* memory = map_memory(NULL, page_bytes(), READ_WRITE, ANYWHERE);
    memory[0] = 1;
    CHECK(munmap(memory, page_bytes()) == 0);
  }
  return unused;
}

static void* run_too(void* unused) {
  unsigned seen = 0;
  while (!atomic_load(&done)) {
    const unsigned value = atomic_load_explicit(&wanted, memory_order_acquire);
    if (value == seen) continue;
    if (call(atomic_load(&published)) != (long)value) atomic_fetch_add(&wrong, 1);
    seen = value;
    atomic_store(&ran, value);
  }
  return unused;
}

static void map_code(unsigned first) {
  for (unsigned value = first; value < first + PIECES; ++value) {
    void* text = map_memory(NULL, page_bytes(), READ_WRITE, ANYWHERE);
    write_function(text, value);
    CHECK(mprotect(text, page_bytes(), READ_EXEC) == 0);
    atomic_store(&published, text);
    atomic_store_explicit(&wanted, value, memory_order_release);
    if (call(text) != (long)value) atomic_fetch_add(&wrong, 1);
    while (atomic_load(&ran) != value) {
    }
    CHECK(munmap(text, page_bytes()) == 0);
  }
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    pthread_t plain, runner;
    atomic_store(&done, false);
    atomic_store(&wanted, 0);
    atomic_store(&ran, 0);
    CHECK(pthread_create(&plain, NULL, map_plain, NULL) == 0);
    CHECK(pthread_create(&runner, NULL, run_too, NULL) == 0);
    map_code(1 + (unsigned)round % 1000 * PIECES);
    atomic_store(&done, true);
    CHECK(pthread_join(plain, NULL) == 0 && pthread_join(runner, NULL) == 0);
  }
  printf("%u calls ran other code\n", atomic_load(&wrong));
  return 0;
}
