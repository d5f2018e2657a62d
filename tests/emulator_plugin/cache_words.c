/* The words of the code caches by address space, and the tallies. See cache_coherence.h. */
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "cache_coherence.h"

enum {
  PAGE_SHIFT = 12,
  SLOT_SHIFT = 24,
  PAGE_WORDS = (1 << PAGE_SHIFT) / 4,
  MAX_PAGES = 1 << 18,
  MAX_SPACES = 1 << 16,
  MAX_CACHES = 4096
};

static struct page {
  uint64_t space, number; /* Both 0 in a place that is free. */
  struct word* words;
} * pages; /* Open addressing. */
static size_t page_count;

static struct {
  uint64_t table, space;
} spaces[MAX_SPACES]; /* Open addressing; a table of 0 marks a place that is free. */
static size_t space_count;
static uint64_t last_space;

/* A code cache stands in the places of both stretches of its own size that it touches. Open addressing; what is
   unmapped leaves a place with a space of 0 and a stretch that is not. */
static struct { uint64_t space, slot, address; } caches[MAX_CACHES];
static size_t cache_count;
static uint8_t* watched; /* A bit for each page of 48 bits of address, of all spaces together. */

static void fail(const char* what) {
  fprintf(stderr, "cache_coherence: %s\n", what);
  _exit(2);
}

static size_t hash(uint64_t a, uint64_t b) {
  return (size_t)((a * 0x9e3779b97f4a7c15u ^ b * 0xc2b2ae3d27d4eb4fu) >> 29);
}

void prepare_words(void) {
  const size_t bytes = (size_t)1 << (48 - PAGE_SHIFT - 3);
  watched = mmap(NULL, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  pages = calloc(MAX_PAGES, sizeof *pages);
  if (watched == MAP_FAILED || pages == NULL) fail("out of memory");
}

static size_t place_of_table(uint64_t table) {
  size_t place = hash(table, 1) % MAX_SPACES;
  while (spaces[place].table != 0 && spaces[place].table != table) place = (place + 1) % MAX_SPACES;
  if (spaces[place].table == 0) {
    if (++space_count > MAX_SPACES / 2) fail("too many address spaces");
    spaces[place].table = table;
    spaces[place].space = ++last_space;
  }
  return place;
}

uint64_t space_of(uint64_t table) { return spaces[place_of_table(table)].space; }

static void enter_cache(uint64_t space, uint64_t address) {
  for (uint64_t slot = address >> SLOT_SHIFT; slot <= (address + CACHE_SIZE - 1) >> SLOT_SHIFT; ++slot) {
    size_t place = hash(space, slot) % MAX_CACHES;
    while (caches[place].slot != 0 && caches[place].space != 0) place = (place + 1) % MAX_CACHES;
    if (++cache_count > MAX_CACHES / 2) fail("too many code caches");
    caches[place].space = space;
    caches[place].slot = slot;
    caches[place].address = address;
  }
}

uint64_t renew_space(uint64_t space, uint64_t parent) {
  const uint64_t fresh = ++last_space;
  size_t place = 0;
  while (place < MAX_SPACES && (spaces[place].table == 0 || spaces[place].space != space)) ++place;
  if (place == MAX_SPACES) fail("an address space is not known");
  spaces[place].space = fresh;
  static uint64_t found[MAX_CACHES];
  size_t count = 0;
  for (size_t index = 0; index < MAX_CACHES; ++index) {
    const bool is_first = caches[index].slot == caches[index].address >> SLOT_SHIFT;
    if (caches[index].space == parent && caches[index].slot != 0 && is_first) found[count++] = caches[index].address;
  }
  while (count > 0) enter_cache(fresh, found[--count]);
  return fresh;
}

static bool is_bit(uint64_t number) { return (watched[number >> 3] >> (number & 7) & 1) != 0; }

bool is_watched(uint64_t address) { return address >> 48 == 0 && is_bit(address >> PAGE_SHIFT); }

uint64_t cache_of(uint64_t space, uint64_t address) {
  const uint64_t slot = address >> SLOT_SHIFT;
  for (size_t place = hash(space, slot) % MAX_CACHES; caches[place].slot != 0; place = (place + 1) % MAX_CACHES) {
    if (caches[place].space != space || caches[place].slot != slot) continue;
    if (address - caches[place].address < CACHE_SIZE) return caches[place].address;
  }
  return 0;
}

void watch_cache(uint64_t space, uint64_t address) {
  enter_cache(space, address);
  for (uint64_t place = address; place < address + CACHE_SIZE; place += (uint64_t)1 << PAGE_SHIFT) {
    const uint64_t number = place >> PAGE_SHIFT;
    watched[number >> 3] |= (uint8_t)(1u << (number & 7));
    struct word* first = word_at(space, place, false);
    if (first != NULL) memset(first, 0, PAGE_WORDS * sizeof *first);
  }
}

void forget_cache(uint64_t space, uint64_t address) {
  for (size_t place = 0; place < MAX_CACHES; ++place) {
    if (caches[place].space != space || caches[place].address != address) continue;
    caches[place].space = 0;
    --cache_count;
  }
}

struct word* word_at(uint64_t space, uint64_t address, bool make) {
  const uint64_t number = address >> PAGE_SHIFT;
  size_t place = hash(space, number) % MAX_PAGES;
  while (pages[place].words != NULL && (pages[place].space != space || pages[place].number != number)) {
    place = (place + 1) % MAX_PAGES;
  }
  if (pages[place].words == NULL) {
    if (!make) return NULL;
    if (++page_count > MAX_PAGES / 2) fail("too many pages of code");
    pages[place] = (struct page){space, number, calloc(PAGE_WORDS, sizeof(struct word))};
    if (pages[place].words == NULL) fail("out of memory");
  }
  return &pages[place].words[address / 4 % PAGE_WORDS];
}

static enum word_class class_of(uint32_t word) {
  if (word == 0xd503201f) return NOP_WORD;
  if ((word & 0xfc000000) == 0x14000000) return B_WORD;
  if ((word & 0xfc000000) == 0x94000000) return BL_WORD;
  if ((word & 0xff000010) == 0x54000000 || (word & 0x7c000000) == 0x34000000) return CONDITIONAL;
  if ((word & 0xffe0001f) == 0xd4000002) return TRAP;
  if ((word & 0xfe000000) == 0xd6000000) return REGISTER_BRANCH;
  if ((word & 0xffff83ff) == 0xa9bf03e0) return PUSH;
  if ((word & 0xffff83ff) == 0xa8c103e0) return POP;
  return OTHER;
}

void add_fault(struct tally* tally, enum state kind, uint64_t address, uint32_t value) {
  if (tally->faults[kind].count++ == 0) {
    tally->faults[kind].address = address;
    tally->faults[kind].value = value;
  }
  if (kind == FOREIGN && address > tally->highest_foreign) tally->highest_foreign = address;
}

void add_transition(struct tally* tally, uint64_t offset, enum way way, uint32_t old, uint32_t value) {
  const enum word_class from = class_of(old), to = class_of(value);
  const enum cache_part part = offset < STUBS_END ? STUBS : offset < BLOCKS_END ? BLOCKS : TRACES;
  if (tally->transitions[part][way][from][to].count++ != 0) return;
  tally->transitions[part][way][from][to].old = old;
  tally->transitions[part][way][from][to].new = value;
}

static void print_transitions(FILE* file, unsigned number, const struct tally* tally) {
  static const char* const parts[] = {"stubs", "blocks", "traces"};
  static const char* const ways[] = {"patched", "anew"};
  static const char* const classes[] = {"nop",  "b",   "bl",   "conditional", "trap", "register_branch",
                                        "push", "pop", "other"};
  for (unsigned place = 0; place < CACHE_PARTS * WAYS * WORD_CLASSES * WORD_CLASSES; ++place) {
    const unsigned part = place / (WAYS * WORD_CLASSES * WORD_CLASSES);
    const unsigned way = place / (WORD_CLASSES * WORD_CLASSES) % WAYS;
    const unsigned from = place / WORD_CLASSES % WORD_CLASSES, to = place % WORD_CLASSES;
    if (tally->transitions[part][way][from][to].count == 0) continue;
    fprintf(file, "transition %u %s %s %s %s %lu %08x %08x\n", number, parts[part], ways[way], classes[from],
            classes[to], tally->transitions[part][way][from][to].count, tally->transitions[part][way][from][to].old,
            tally->transitions[part][way][from][to].new);
  }
}

void print_tally(FILE* file, unsigned number, const struct tally* tally) {
  static const char* const faults[] = {
      [STORED] = "not_cleaned",        [CLEANING] = "no_barrier_behind_clean",
      [CLEANED] = "not_invalidated",   [INVALIDATING] = "no_barrier_behind_invalidation",
      [COMPLETE] = "not_synchronised", [FOREIGN] = "foreign"};
  if (tally->stores + tally->checks == 0) return;
  fprintf(file, "run %u caches %lu forks %lu stores %lu cleans %lu invalidations %lu barriers %lu checks %lu\n", number,
          tally->caches, tally->forks, tally->stores, tally->cleans, tally->invalidations, tally->barriers,
          tally->checks);
  for (unsigned kind = STORED; kind < FAULT_KINDS; ++kind) {
    if (tally->faults[kind].count == 0) continue;
    fprintf(file, "fault %u %s %lu %#lx %08x\n", number, faults[kind], tally->faults[kind].count,
            kind == FOREIGN ? tally->highest_foreign : tally->faults[kind].address, tally->faults[kind].value);
  }
  print_transitions(file, number, tally);
}
