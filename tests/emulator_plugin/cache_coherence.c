/* A plug-in of the system emulator that judges a program which writes code as a processor would whose instruction cache
   is not coherent with its data cache. The emulator's caches always are: it forgives a missing step. README.md tells
   the option and the form of the file.

   Watched are the words of the engine's code caches, which are known by their mapping. A word that was stored may be
   executed only behind, in this order: a clean of its line (DC CVAU), DSB, an invalidation of its line (IC IVAU), DSB,
   and a context synchronisation of the processor that executes it (ISB or a return from the kernel).

   Words are kept by address space, which the registers TTBR0_EL1 and TTBR1_EL1 tell: a child of a fork has memory of
   its own at the same addresses. What a space has not stored itself came to it by the kernel, whose business its
   maintenance is. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cache_coherence.h"

/* The emulator's interface, version 4, and what of GLib it passes. */
typedef struct {
  char* data;
  unsigned length;
} array;
typedef struct {
  uint8_t* data;
  unsigned length;
} byte_array;
struct qemu_plugin_register;
typedef struct {
  struct qemu_plugin_register* handle;
  const char* name;
  const char* feature;
} register_descriptor;
struct qemu_plugin_tb;
struct qemu_plugin_insn;
typedef uint64_t qemu_plugin_id_t;
enum { NO_REGISTERS = 0, READS_REGISTERS = 1, STORES = 2 };
byte_array* g_byte_array_new(void);
byte_array* g_byte_array_set_size(byte_array*, unsigned);
array* qemu_plugin_get_registers(void);
int qemu_plugin_read_register(struct qemu_plugin_register* handle, byte_array* bytes);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* tb, size_t index);
uint64_t qemu_plugin_tb_vaddr(const struct qemu_plugin_tb* tb);
uint64_t qemu_plugin_insn_vaddr(const struct qemu_plugin_insn* insn);
size_t qemu_plugin_insn_data(const struct qemu_plugin_insn* insn, void* to, size_t length);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* tb, void (*call)(unsigned, void*), int flags, void*);
void qemu_plugin_register_vcpu_insn_exec_cb(struct qemu_plugin_insn* insn, void (*call)(unsigned, void*), int flags,
                                            void* data);
void qemu_plugin_register_vcpu_mem_cb(struct qemu_plugin_insn* insn, void (*call)(unsigned, uint32_t, uint64_t, void*),
                                      int flags, int which, void* data);
unsigned qemu_plugin_mem_size_shift(uint32_t info);
void qemu_plugin_register_vcpu_init_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, unsigned));
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, void*), void* data);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = 4;
EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv);

enum { X_REGISTERS = 31, SP = X_REGISTERS, TTBR0, TTBR1, TPIDR, REGISTERS };

/* One processor. `stale`: a register that names the address space or the thread was written since it was last read. */
static struct processor {
  struct qemu_plugin_register* registers[REGISTERS];
  byte_array* bytes;
  atomic_bool stale;
  uint64_t space, thread;
  uint64_t synchronised, barrier;                                         /* When the last of each was. */
  struct line cleaned[MAX_PENDING_LINES], invalidated[MAX_PENDING_LINES]; /* Since the last DSB. */
  unsigned cleaned_count, invalidated_count;
} processors[MAX_PROCESSORS];

/* A block of the emulator's. `count` is 0 unless it lies in a code cache; then its words are kept, and for whom they
   were looked at. A store to one of them makes the emulator forget the block. */
struct block {
  uint64_t address;
  struct {
    uint64_t space, thread;
  } checked[MAX_PROCESSORS];
  unsigned count;
  uint32_t words[];
};

/* Calls whose return matters: the mapping of a code cache, and a fork. */
static struct call {
  uint64_t space, behind, sp;
  bool is_fork;
} calls[64];
static atomic_uint call_count;

static const char* path;
static uint64_t line_size = 64;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; /* Guards all but what one processor has alone. */
static atomic_uint_least64_t now = 1;
static struct tally tallies[MAX_RUNS];
static atomic_uint run;

static void fail(const char* what) {
  fprintf(stderr, "cache_coherence: %s\n", what);
  _exit(2);
}

static uint64_t read_register(struct processor* processor, unsigned number) {
  uint64_t value = 0;
  g_byte_array_set_size(processor->bytes, 0);
  if (qemu_plugin_read_register(processor->registers[number], processor->bytes) != sizeof value) fail("register");
  memcpy(&value, processor->bytes->data, sizeof value);
  return value;
}

static void on_processor(qemu_plugin_id_t id, unsigned number) {
  (void)id;
  if (number >= MAX_PROCESSORS) fail("too many processors");
  struct processor* processor = &processors[number];
  static const char* const names[] = {[SP] = "sp", [TTBR0] = "TTBR0_EL1", [TTBR1] = "TTBR1_EL1", [TPIDR] = "TPIDR_EL0"};
  const array* list = qemu_plugin_get_registers();
  for (unsigned wanted = 0; wanted < REGISTERS; ++wanted) {
    char name[16];
    snprintf(name, sizeof name, "x%u", wanted);
    for (unsigned index = 0; index < list->length; ++index) {
      const register_descriptor* found = (const register_descriptor*)(const void*)list->data + index;
      if (strcmp(found->name, wanted < X_REGISTERS ? name : names[wanted]) == 0) {
        processor->registers[wanted] = found->handle;
      }
    }
    if (processor->registers[wanted] == NULL) fail("a register is missing");
  }
  processor->bytes = g_byte_array_new();
  processor->stale = true;
}

static void refresh(struct processor* processor) {
  if (!processor->stale) return;
  /* The page of a table is used again when its process has ended. The identifier of the space, which this kernel keeps
     in the other register, is not, until it has given out all of them. Its lowest bit tells user from kernel. */
  const uint64_t identifier = read_register(processor, TTBR1) >> 49 << 49;
  const uint64_t table = identifier | (read_register(processor, TTBR0) & 0xfffffffffffe); /* Without the sharing bit. */
  pthread_mutex_lock(&lock);
  processor->space = space_of(table);
  pthread_mutex_unlock(&lock);
  processor->thread = read_register(processor, TPIDR);
  processor->stale = false;
}

static void on_stale(unsigned number, void* data) {
  (void)data;
  processors[number].stale = true;
}

static void on_store(unsigned number, uint32_t info, uint64_t address, void* data) {
  (void)data;
  if (!is_watched(address)) return;
  struct processor* processor = &processors[number];
  refresh(processor);
  const uint64_t end = address + (1u << qemu_plugin_mem_size_shift(info));
  pthread_mutex_lock(&lock);
  const uint64_t time = ++now;
  const uint64_t cache = cache_of(processor->space, address);
  for (uint64_t place = address & ~3ull; cache != 0 && place < end; place += 4) {
    struct word* word = word_at(processor->space, place, true);
    word->state = STORED;
    word->by = (uint8_t)number;
    word->time = time;
    word->stored = time;
    word->writer = processor->thread;
    ++tallies[run].stores;
  }
  pthread_mutex_unlock(&lock);
}

static void keep_line(struct line* lines, unsigned* count, struct line line) {
  if (*count == MAX_PENDING_LINES) fail("too many lines between two barriers");
  lines[(*count)++] = line;
}

static void on_clean(unsigned number, void* data) {
  struct processor* processor = &processors[number];
  const uint64_t address = read_register(processor, (unsigned)(uintptr_t)data) & ~(line_size - 1);
  if (!is_watched(address)) return;
  refresh(processor);
  pthread_mutex_lock(&lock);
  if (cache_of(processor->space, address) != 0) ++tallies[run].cleans;
  for (uint64_t place = address; place < address + line_size; place += 4) {
    struct word* word = word_at(processor->space, place, false);
    if (word == NULL || word->state != STORED) continue;
    /* A store of this processor comes before; one of another's only if that one has waited for it. */
    if (word->by != number && processors[word->by].barrier < word->time) continue;
    word->state = CLEANING;
    word->by = (uint8_t)number;
  }
  keep_line(processor->cleaned, &processor->cleaned_count, (struct line){processor->space, address});
  pthread_mutex_unlock(&lock);
}

static void on_invalidation(unsigned number, void* data) {
  struct processor* processor = &processors[number];
  const uint64_t address = read_register(processor, (unsigned)(uintptr_t)data) & ~(line_size - 1);
  if (!is_watched(address)) return;
  refresh(processor);
  pthread_mutex_lock(&lock);
  if (cache_of(processor->space, address) != 0) ++tallies[run].invalidations;
  for (uint64_t place = address; place < address + line_size; place += 4) {
    struct word* word = word_at(processor->space, place, false);
    if (word == NULL || word->state != CLEANED) continue;
    word->state = INVALIDATING;
    word->by = (uint8_t)number;
  }
  keep_line(processor->invalidated, &processor->invalidated_count, (struct line){processor->space, address});
  pthread_mutex_unlock(&lock);
}

/* Moves the words of `lines` that processor `number` has brought into state `from` on. */
static void complete(unsigned number, const struct line* lines, unsigned* count, enum state from, enum state to) {
  for (unsigned index = 0; index < *count; ++index) {
    for (uint64_t place = lines[index].address; place < lines[index].address + line_size; place += 4) {
      struct word* word = word_at(lines[index].space, place, false);
      if (word == NULL || word->state != from || word->by != number) continue;
      word->state = (uint8_t)to;
      word->time = now;
    }
  }
  *count = 0;
}

static void on_barrier(unsigned number, void* data) {
  (void)data;
  struct processor* processor = &processors[number];
  if (processor->cleaned_count + processor->invalidated_count == 0) {
    processor->barrier = ++now;
    return;
  }
  pthread_mutex_lock(&lock);
  ++tallies[run].barriers;
  processor->barrier = ++now;
  complete(number, processor->cleaned, &processor->cleaned_count, CLEANING, CLEANED);
  complete(number, processor->invalidated, &processor->invalidated_count, INVALIDATING, COMPLETE);
  pthread_mutex_unlock(&lock);
}

static void on_synchronisation(unsigned number, void* data) {
  (void)data;
  processors[number].synchronised = ++now;
}

/* Whether the word at `address`, which was stored since it was last seen, was stored alone or with few neighbours. */
static enum way way_of(uint64_t space, uint64_t address, const struct word* changed) {
  unsigned length = 1;
  for (int direction = -4; direction <= 4; direction += 8) {
    for (uint64_t place = address + (uint64_t)direction; length <= LONGEST_PATCH; place += (uint64_t)direction) {
      const struct word* word = word_at(space, place, false);
      if (word == NULL || word->stored <= changed->seen) break;
      ++length;
    }
  }
  return length <= LONGEST_PATCH ? PATCHED : ANEW;
}

static void check_word(struct tally* tally, const struct processor* processor, uint64_t address, uint32_t value) {
  struct word* word = word_at(processor->space, address, false);
  if (word == NULL || word->state == NEVER_STORED) return;
  const uint64_t offset = address - cache_of(processor->space, address);
  ++tally->checks;
  if (word->state != COMPLETE) {
    add_fault(tally, word->state, address, value);
  } else if (processor->synchronised < word->time) {
    add_fault(tally, COMPLETE, address, value);
  }
  if (word->writer != processor->thread) add_fault(tally, FOREIGN, offset, value);
  if (word->was_executed && word->value != value) {
    add_transition(tally, offset, way_of(processor->space, address, word), word->value, value);
  }
  word->was_executed = true;
  word->seen = now;
  word->value = value;
}

static void on_call(unsigned number, void* data) {
  enum { UNMAP = 215, CLONE = 220, MAP = 222, SHARES_MEMORY = 0x100 };
  struct processor* processor = &processors[number];
  refresh(processor);
  const uint64_t call = read_register(processor, 8) & 0xffffffff;
  const bool is_fork = call == CLONE && (read_register(processor, 0) & SHARES_MEMORY) == 0;
  const bool is_map =
      call == MAP && read_register(processor, 1) == CACHE_SIZE && (read_register(processor, 2) & 7) == 7;
  if (call == UNMAP && read_register(processor, 1) == CACHE_SIZE) {
    pthread_mutex_lock(&lock);
    forget_cache(processor->space, read_register(processor, 0));
    pthread_mutex_unlock(&lock);
  }
  if (!is_fork && !is_map) return;
  uint64_t sp = is_fork ? read_register(processor, 1) : 0;
  if (sp == 0) sp = read_register(processor, SP);
  pthread_mutex_lock(&lock);
  if (call_count == sizeof calls / sizeof *calls) fail("too many calls at once");
  calls[call_count++] = (struct call){processor->space, (uint64_t)(uintptr_t)data + 4, sp, is_fork};
  pthread_mutex_unlock(&lock);
}

/* Behind a system call. The parent of a fork has its own space, the child another one. */
static void find_return(struct processor* processor, uint64_t address) {
  const uint64_t sp = read_register(processor, SP);
  const uint64_t result = read_register(processor, 0);
  pthread_mutex_lock(&lock);
  for (unsigned index = 0; index < call_count; ++index) {
    const struct call call = calls[index];
    if (call.behind != address || call.sp != sp) continue;
    if (call.is_fork ? result != 0 || call.space == processor->space : call.space != processor->space) continue;
    calls[index] = calls[call_count - 1];
    --call_count;
    if (call.is_fork) {
      processor->space = renew_space(processor->space, call.space);
      for (unsigned other = 0; other < MAX_PROCESSORS; ++other) processors[other].stale = true;
      ++tallies[run].forks;
    } else if ((int64_t)result > 0) {
      watch_cache(processor->space, result);
      ++tallies[run].caches;
    }
    break;
  }
  pthread_mutex_unlock(&lock);
}

static void on_block(unsigned number, void* data) {
  struct processor* processor = &processors[number];
  struct block* block = data;
  refresh(processor);
  if (call_count != 0) find_return(processor, block->address);
  if (block->count == 0) return;
  if (block->checked[number].space == processor->space && block->checked[number].thread == processor->thread) return;
  pthread_mutex_lock(&lock);
  for (unsigned index = 0; index < block->count; ++index) {
    check_word(&tallies[run], processor, block->address + 4 * index, block->words[index]);
  }
  block->checked[number].space = processor->space;
  block->checked[number].thread = processor->thread;
  pthread_mutex_unlock(&lock);
}

static void on_mark(unsigned number, void* data) {
  (void)data;
  const uint64_t value = read_register(&processors[number], 0);
  if (value >= MAX_RUNS) fail("the number of a run is too high");
  run = (unsigned)value;
}

static void watch_user_instruction(struct qemu_plugin_insn* insn, uint32_t word) {
  void* const address = (void*)(uintptr_t)qemu_plugin_insn_vaddr(insn);
  void* const operand = (void*)(uintptr_t)(word & 31);
  if ((word & 0xffffffe0) == 0xd50b7b20 && operand != (void*)31) { /* DC CVAU */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_clean, READS_REGISTERS, operand);
  } else if ((word & 0xffffffe0) == 0xd50b7520 && operand != (void*)31) { /* IC IVAU */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_invalidation, READS_REGISTERS, operand);
  } else if (word == 0xd5033fdf) { /* ISB */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_synchronisation, NO_REGISTERS, NULL);
  } else if (word == 0xd4000001) { /* SVC */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_call, READS_REGISTERS, address);
  } else if ((word & 0xffffffe0) == 0xd51bd040) { /* MSR TPIDR_EL0 */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_stale, NO_REGISTERS, NULL);
  } else if (word == MARK_WORD) {
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_mark, READS_REGISTERS, NULL);
  } else {
    qemu_plugin_register_vcpu_mem_cb(insn, on_store, READS_REGISTERS, STORES, NULL);
  }
}

static void watch_kernel_instruction(struct qemu_plugin_insn* insn, uint32_t word) {
  if ((word & 0xffffffe0) == 0xd5182000 || (word & 0xffffffe0) == 0xd51bd040) { /* MSR TTBR0_EL1, MSR TPIDR_EL0 */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_stale, NO_REGISTERS, NULL);
  } else if (word == 0xd69f03e0) { /* ERET */
    qemu_plugin_register_vcpu_insn_exec_cb(insn, on_synchronisation, NO_REGISTERS, NULL);
  }
}

static struct block* new_block(const struct qemu_plugin_tb* tb) {
  const uint64_t address = qemu_plugin_tb_vaddr(tb);
  const size_t count = is_watched(address) ? qemu_plugin_tb_n_insns(tb) : 0;
  struct block* block = calloc(1, sizeof *block + count * sizeof(uint32_t));
  if (block == NULL) fail("out of memory");
  block->address = address;
  block->count = (unsigned)count;
  for (size_t index = 0; index < count; ++index) {
    qemu_plugin_insn_data(qemu_plugin_tb_get_insn(tb, index), &block->words[index], sizeof(uint32_t));
  }
  return block;
}

static void on_translation(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  const bool is_user = qemu_plugin_tb_vaddr(tb) >> 48 == 0;
  const size_t count = qemu_plugin_tb_n_insns(tb);
  if (is_user) {
    qemu_plugin_register_vcpu_tb_exec_cb(tb, on_block, READS_REGISTERS, new_block(tb));
  }
  for (size_t index = 0; index < count; ++index) {
    struct qemu_plugin_insn* insn = qemu_plugin_tb_get_insn(tb, index);
    uint32_t word;
    if (qemu_plugin_insn_data(insn, &word, sizeof word) != sizeof word) continue;
    if ((word & 0xfffffbff) == 0xd5033b9f) { /* DSB ISH, DSB SY: those that wait for maintenance as well. */
      qemu_plugin_register_vcpu_insn_exec_cb(insn, on_barrier, NO_REGISTERS, NULL);
    } else if (is_user) {
      watch_user_instruction(insn, word);
    } else {
      watch_kernel_instruction(insn, word);
    }
  }
}

static void on_end(qemu_plugin_id_t id, void* data) {
  (void)id, (void)data;
  FILE* file = fopen(path, "w");
  if (file == NULL) fail("cannot write the output file");
  pthread_mutex_lock(&lock);
  for (unsigned number = 0; number < MAX_RUNS; ++number) print_tally(file, number, &tallies[number]);
  pthread_mutex_unlock(&lock);
  if (fclose(file) != 0) fail("cannot write the output file");
}

int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv) {
  (void)info;
  for (int index = 0; index < argc; ++index) {
    if (strncmp(argv[index], "account=", 8) == 0) path = strdup(argv[index] + 8);
    if (strncmp(argv[index], "line=", 5) == 0) line_size = strtoul(argv[index] + 5, NULL, 10);
  }
  if (path == NULL) fail("an option is expected: account=FILE");
  if (line_size < 4 || line_size > 2048 || (line_size & (line_size - 1)) != 0) fail("line=BYTES: a power of two");
  prepare_words();
  qemu_plugin_register_vcpu_init_cb(id, on_processor);
  qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
  qemu_plugin_register_atexit_cb(id, on_end, NULL);
  return 0;
}
