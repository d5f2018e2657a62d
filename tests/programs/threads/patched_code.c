// One thread patches a word that others are running, by the instructions that the architecture allows for that:
// patched_code [ROUNDS [unjudged]]. The runners synchronise their contexts before each call, and see the patch that was
// made known before, or a later one.
//
// "unjudged" is for a native run under an emulator. A processor of the emulator that translates the word while another
// writes it may keep the old translation until the next write. The run then has wrong calls for which the program and
// the engine are not to blame, so they are not told.
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <string.h>

#include "../hazards/written_code.h"
#include "guard.h"

enum { RUNNERS = 2, WAYS = 4, PATCHES = 25 };
static char* code;
static atomic_uint patches;  // How many were made known.
static atomic_uint seen[RUNNERS];
static atomic_bool done;
static atomic_uint wrong;

static unsigned way_word(unsigned way) { return way == 0 ? NOP : 0x14000000 | (1 + 2 * way); }

static void make_code(void) {
  code = map_memory(NULL, page_bytes(), PROT_READ | PROT_WRITE | PROT_EXEC, ANYWHERE);
  unsigned words[1 + 2 * WAYS];
  words[0] = way_word(0);  // Goes on to the first way, or branches to another.
  for (unsigned way = 0; way < WAYS; ++way) {
    words[1 + 2 * way] = mov_w0(way);
    words[2 + 2 * way] = RET;
  }
  write_words(code, words, 1 + 2 * WAYS);
}

static void* run(void* argument) {
  const size_t index = (size_t)argument;
  while (!atomic_load(&done)) {
    const unsigned before = atomic_load_explicit(&patches, memory_order_acquire);
    __asm__ volatile("isb" ::: "memory");
    const unsigned way = (unsigned)call(code);
    const unsigned after = atomic_load_explicit(&patches, memory_order_acquire);
    bool allowed = false;  // The patch behind `after` may be there already, and not be made known yet.
    for (unsigned patch = before; patch <= after + 1; ++patch) allowed = allowed || patch % WAYS == way;
    if (!allowed) atomic_fetch_add(&wrong, 1);
    atomic_store(&seen[index], before);
  }
  return NULL;
}

int main(int argc, char** argv) {
  const int rounds = count_or(argc, argv, 1);
  const bool judged = argc < 3 || strcmp(argv[2], "unjudged") != 0;
  guard_begin();
  for (int round = 0; round < rounds; ++round) {
    guard_round(round);
    make_code();
    atomic_store(&patches, 0);
    atomic_store(&done, false);
    pthread_t threads[RUNNERS];
    for (size_t index = 0; index < RUNNERS; ++index) {
      atomic_store(&seen[index], 0);
      CHECK(pthread_create(&threads[index], NULL, run, (void*)index) == 0);
    }
    for (unsigned patch = 1; patch <= PATCHES; ++patch) {
      const unsigned word = way_word(patch % WAYS);
      __atomic_store_n((unsigned*)code, word, __ATOMIC_RELAXED);
      __builtin___clear_cache(code, code + sizeof word);
      atomic_store_explicit(&patches, patch, memory_order_release);
      for (size_t index = 0; index < RUNNERS; ++index) {
        while (atomic_load(&seen[index]) < patch) {
        }
      }
    }
    atomic_store(&done, true);
    for (size_t index = 0; index < RUNNERS; ++index) CHECK(pthread_join(threads[index], NULL) == 0);
    CHECK(munmap(code, page_bytes()) == 0);
  }
  printf("%u calls went a way that was patched away\n", judged ? atomic_load(&wrong) : 0);
  return 0;
}
