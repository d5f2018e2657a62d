/* What the plug-in that judges written code keeps: the state of each word, and the tally of each run. cache_coherence.c
   hears of the instructions and decides, cache_words.c keeps and prints. All of it is called with the plug-in's lock
   held, but for `is_watched`. */
#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>

enum {
  MAX_PROCESSORS = 8,
  MAX_RUNS = 512,
  MAX_PENDING_LINES = 1 << 22,
  CACHE_SIZE = 16 << 20, /* Of the engine's code cache, which is one mapping of its own. */
  STUBS_END = 6 * 256,   /* The parts of a code cache: stubs, blocks, traces. */
  BLOCKS_END = 55000 * 256,
};

/* HINT #112, which does nothing: x0 is the number of the run that begins. */
#define MARK_WORD 0xd5032e1f

/* How far a stored word has come, and with that what it lacks. A word that is COMPLETE may lack the synchronisation of
   the processor that executes it. FOREIGN is no state: the kind of fault of a word that another thread has written. */
enum state { NEVER_STORED, STORED, CLEANING, CLEANED, INVALIDATING, COMPLETE, FOREIGN, FAULT_KINDS };

struct word {
  uint64_t time;   /* When it was stored, or became COMPLETE. */
  uint64_t stored; /* When it was stored. */
  uint64_t seen;   /* When it was last looked at because it was executed. */
  uint64_t writer; /* The thread, by its thread pointer. */
  uint32_t value;  /* As it was last executed. */
  uint8_t state, by;
  bool was_executed;
};

struct line {
  uint64_t space, address;
};

enum word_class { NOP_WORD, B_WORD, BL_WORD, CONDITIONAL, TRAP, REGISTER_BRANCH, PUSH, POP, OTHER, WORD_CLASSES };
enum cache_part { STUBS, BLOCKS, TRACES, CACHE_PARTS };

/* A word is patched alone or with few neighbours; a fragment that is written anew is longer. */
enum way { PATCHED, ANEW, WAYS };
enum { LONGEST_PATCH = 3 };

/* What one run of a program did: words stored and checked, lines maintained, faults and transitions. */
struct tally {
  uint64_t caches, forks, stores, cleans, invalidations, barriers, checks;
  struct {
    uint64_t count, address; /* Of the first; of a foreign word its offset in the cache. */
    uint32_t value;
  } faults[FAULT_KINDS];
  uint64_t highest_foreign;
  struct {
    uint64_t count;
    uint32_t old, new; /* Of the first. */
  } transitions[CACHE_PARTS][WAYS][WORD_CLASSES][WORD_CLASSES];
};

void prepare_words(void);

/* The number of the address space with this translation table, and a fresh one for a table that may have been another's
   before: that of a child, with its parent's code caches. */
uint64_t space_of(uint64_t table);
uint64_t renew_space(uint64_t space, uint64_t parent);

/* Notes a new code cache, which has not been stored to, and one that is unmapped. */
void watch_cache(uint64_t space, uint64_t address);
void forget_cache(uint64_t space, uint64_t address);

/* Whether there is a code cache at the address in some space, and where the one of this space begins: 0 for none. */
bool is_watched(uint64_t address);
uint64_t cache_of(uint64_t space, uint64_t address);

/* NULL for a word whose page was not stored to, unless it is to be made. */
struct word* word_at(uint64_t space, uint64_t address, bool make);

void add_fault(struct tally* tally, enum state kind, uint64_t address, uint32_t value);
void add_transition(struct tally* tally, uint64_t offset, enum way way, uint32_t old, uint32_t value);
void print_tally(FILE* file, unsigned number, const struct tally* tally);
