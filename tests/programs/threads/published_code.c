// published_code [ROUNDS]: one thread writes code, others run it. Each round's code is in new memory, which is made
// executable before its address is published. A thread that sees the address must also see the code.
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdint.h>

#include "guard.h"

enum { THREADS = 3, FUNCTIONS = 20 };
typedef unsigned (*function)(void);
static _Atomic(uintptr_t) published;
static atomic_int taken;
static atomic_uint serial;

static unsigned* write_code(unsigned value) {
  const size_t size = (size_t)sysconf(_SC_PAGESIZE);
  unsigned* text = mmap(NULL, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  CHECK(text != MAP_FAILED);
  text[0] = 0x52800000u | (value & 0xffff) << 5;  // mov w0, #value
  text[1] = 0xd65f03c0u;                          // ret
  __builtin___clear_cache((char*)text, (char*)(text + 2));
  CHECK(mprotect(text, size, PROT_READ | PROT_EXEC) == 0);
  return text;
}

static void* run(void* argument) {
  unsigned seen = 0;
  for (unsigned count = 0; count < FUNCTIONS; ++count) {
    while (atomic_load_explicit(&serial, memory_order_acquire) == seen) sched_yield();
    seen = atomic_load_explicit(&serial, memory_order_acquire);
    const uintptr_t address = atomic_load_explicit(&published, memory_order_acquire);
    CHECK(((function)address)() == (seen & 0xffff));
    atomic_fetch_add(&taken, 1);
  }
  return argument;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    pthread_t threads[THREADS];
    atomic_store(&serial, 0);
    for (int index = 0; index < THREADS; ++index) CHECK(pthread_create(&threads[index], NULL, run, NULL) == 0);
    for (unsigned count = 1; count <= FUNCTIONS; ++count) {
      atomic_store(&taken, 0);
      unsigned* text = write_code(count);
      atomic_store_explicit(&published, (uintptr_t)text, memory_order_release);
      atomic_store_explicit(&serial, count, memory_order_release);
      while (atomic_load(&taken) < THREADS) sched_yield();
    }
    for (int index = 0; index < THREADS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
  }
  puts("each thread has run what was written");
  return 0;
}
