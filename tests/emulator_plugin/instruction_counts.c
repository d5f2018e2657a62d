/* A plug-in of the user-mode emulator that counts, exactly, the instructions a program executes: in all, per kind of
   code, per address range, per instruction word and per address. Built for the machine that the emulator runs on, which
   is why the emulator's functions are declared here: distributions ship no header for them. README.md tells the
   options.

   Every instruction is counted where it is executed, none by its block: a fault or a signal in the middle of a block
   changes nothing. What is counted is the triple of address, word and kind, so code that is written anew at its place
   is told from what was there. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The emulator's interface, version 1. */
struct qemu_plugin_tb;
struct qemu_plugin_insn;
typedef uint64_t qemu_plugin_id_t;
enum { CALLBACK_TOUCHES_NO_REGISTERS = 0, INLINE_ADD_U64 = 0 };
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* tb, size_t index);
uint64_t qemu_plugin_insn_vaddr(const struct qemu_plugin_insn* insn);
const void* qemu_plugin_insn_data(const struct qemu_plugin_insn* insn);
void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* tb, void (*call)(unsigned, void*), int flags,
                                          void* data);
void qemu_plugin_register_vcpu_insn_exec_cb(struct qemu_plugin_insn* insn, void (*call)(unsigned, void*), int flags,
                                            void* data);
void qemu_plugin_register_vcpu_insn_exec_inline(struct qemu_plugin_insn* insn, int operation, void* place,
                                                uint64_t value);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_vcpu_syscall_cb(qemu_plugin_id_t id,
                                          void (*call)(qemu_plugin_id_t, unsigned, int64_t, uint64_t, uint64_t,
                                                       uint64_t, uint64_t, uint64_t, uint64_t, uint64_t, uint64_t));
void qemu_plugin_register_vcpu_syscall_ret_cb(qemu_plugin_id_t id,
                                              void (*call)(qemu_plugin_id_t, unsigned, int64_t, int64_t));
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, void*), void* data);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = 1;
EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv);

enum kind { OTHER, CACHE, STUBS, KINDS };
static const char* const kind_names[KINDS] = {"other", "cache", "stubs"};

struct record {
  uint64_t address;
  uint64_t count; /* Written by translated code. */
  uint32_t word;
  uint8_t kind;
};

struct span {
  uint64_t start, end;
};

/* What the emulator translates and runs as a piece: a run of instructions whose last one alone may branch. */
struct piece {
  struct span span;
  enum kind kind;
};

enum { MAX_SPANS = 32, MAX_CACHES = 4096, RECORDS_PER_CHUNK = 8192 };

/* What is asked for. */
static const char *summary_path, *words_path, *addresses_path;
static bool several_threads, branches_too;
static uint64_t stub_bytes;
static struct span ranges[MAX_SPANS];
static size_t range_count;
static uint64_t watched[MAX_SPANS];
static size_t watched_count;

/* What is known. The lock guards all of it but the counts. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct record** table; /* Open addressing; a record never moves, since translated code holds its address. */
static size_t table_size, record_count;
static struct record* chunk;
static size_t chunk_used = RECORDS_PER_CHUNK;
static struct span caches[MAX_CACHES]; /* Those that are mapped. */
static struct span past_caches[MAX_CACHES];
static size_t cache_count, caches_seen;
static bool cache_entered;
static uint64_t before_first_cache_entry;
static pid_t installed_in;
static uint64_t taken[KINDS];                 /* Branches, by the kind of the code that they leave. */
static __thread const struct piece* run_last; /* By this thread; none at its start. */

static void fail(const char* what) {
  fprintf(stderr, "instruction_counts: %s\n", what);
  exit(2);
}

static void* zeroed(size_t count, size_t size) {
  void* place = calloc(count, size);
  if (place == NULL) fail("out of memory");
  return place;
}

static bool holds(const struct span* spans, size_t count, uint64_t address) {
  for (size_t index = 0; index < count; ++index) {
    if (address >= spans[index].start && address < spans[index].end) return true;
  }
  return false;
}

static enum kind kind_of(uint64_t address) {
  for (size_t index = 0; index < cache_count; ++index) {
    if (address < caches[index].start || address >= caches[index].end) continue;
    return address - caches[index].start < stub_bytes ? STUBS : CACHE;
  }
  return OTHER;
}

static size_t place_of(struct record* const* records, size_t size, uint64_t address, uint32_t word, uint8_t kind) {
  size_t place = (address >> 2 ^ (uint64_t)word * 0x9e3779b97f4a7c15u >> 20 ^ kind) & (size - 1);
  while (records[place] != NULL &&
         (records[place]->address != address || records[place]->word != word || records[place]->kind != kind)) {
    place = (place + 1) & (size - 1);
  }
  return place;
}

static void grow(void) {
  const size_t new_size = table_size == 0 ? 1 << 16 : table_size * 2;
  struct record** new_table = zeroed(new_size, sizeof *new_table);
  for (size_t index = 0; index < table_size; ++index) {
    struct record* record = table[index];
    if (record != NULL) new_table[place_of(new_table, new_size, record->address, record->word, record->kind)] = record;
  }
  free(table);
  table = new_table;
  table_size = new_size;
}

static struct record* record_of(uint64_t address, uint32_t word, enum kind kind) {
  if (record_count * 2 >= table_size) grow();
  struct record** place = &table[place_of(table, table_size, address, word, (uint8_t)kind)];
  if (*place == NULL) {
    if (chunk_used == RECORDS_PER_CHUNK) {
      chunk = zeroed(RECORDS_PER_CHUNK, sizeof *chunk);
      chunk_used = 0;
    }
    *place = &chunk[chunk_used++];
    **place = (struct record){.address = address, .word = word, .kind = (uint8_t)kind};
    ++record_count;
  }
  return *place;
}

static uint64_t total(bool (*wanted)(const struct record*, const void*), const void* argument) {
  uint64_t sum = 0;
  for (size_t index = 0; index < table_size; ++index) {
    if (table[index] != NULL && (wanted == NULL || wanted(table[index], argument))) sum += table[index]->count;
  }
  return sum;
}

static void count_one(unsigned processor, void* data) {
  (void)processor;
  __atomic_fetch_add(&((struct record*)data)->count, 1, __ATOMIC_RELAXED);
}

/* A piece that does not begin where the last one ended was branched to. Where no branch leads on, as behind a fault and
   into a signal's handler, that counts too. */
static void enter_piece(unsigned processor, void* data) {
  (void)processor;
  const struct piece* piece = data;
  if (run_last != NULL && run_last->span.end != piece->span.start) {
    __atomic_fetch_add(&taken[run_last->kind], 1, __ATOMIC_RELAXED);
  }
  run_last = piece;
}

/* Pieces are never freed, since translated code holds their addresses. */
static void count_branches(struct qemu_plugin_tb* tb, size_t length) {
  struct piece* piece = zeroed(1, sizeof *piece);
  piece->span.start = qemu_plugin_insn_vaddr(qemu_plugin_tb_get_insn(tb, 0));
  piece->span.end = piece->span.start + 4 * length;
  piece->kind = kind_of(piece->span.start);
  qemu_plugin_register_vcpu_tb_exec_cb(tb, enter_piece, CALLBACK_TOUCHES_NO_REGISTERS, piece);
}

/* Called before a block runs for the first time, so that the first block in a code cache finds all that came before. */
static void on_translation(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  pthread_mutex_lock(&lock);
  const size_t count = qemu_plugin_tb_n_insns(tb);
  if (branches_too) count_branches(tb, count);
  for (size_t index = 0; index < count; ++index) {
    struct qemu_plugin_insn* insn = qemu_plugin_tb_get_insn(tb, index);
    const uint64_t address = qemu_plugin_insn_vaddr(insn);
    uint32_t word;
    memcpy(&word, qemu_plugin_insn_data(insn), sizeof word);
    const enum kind kind = kind_of(address);
    if (kind == CACHE && !cache_entered) {
      cache_entered = true;
      before_first_cache_entry = total(NULL, NULL);
    }
    struct record* record = record_of(address, word, kind);
    if (several_threads) {
      qemu_plugin_register_vcpu_insn_exec_cb(insn, count_one, CALLBACK_TOUCHES_NO_REGISTERS, record);
    } else {
      qemu_plugin_register_vcpu_insn_exec_inline(insn, INLINE_ADD_U64, &record->count, 1);
    }
  }
  pthread_mutex_unlock(&lock);
}

/* A code cache is an anonymous, private, executable mapping of exactly this size; nothing else of a program's is. */
enum { CACHE_SIZE = 0x1000000, NR_MUNMAP = 215, NR_MMAP = 222, PROT_ALL = 7, MAP_PRIVATE_ANONYMOUS = 0x22 };
static __thread bool maps_cache;

static void on_system_call(qemu_plugin_id_t id, unsigned processor, int64_t number, uint64_t address, uint64_t length,
                           uint64_t prot, uint64_t flags, uint64_t a5, uint64_t a6, uint64_t a7, uint64_t a8) {
  (void)id, (void)processor, (void)a5, (void)a6, (void)a7, (void)a8;
  maps_cache = number == NR_MMAP && length == CACHE_SIZE && prot == PROT_ALL && flags == MAP_PRIVATE_ANONYMOUS;
  if (number != NR_MUNMAP || length != CACHE_SIZE) return;
  pthread_mutex_lock(&lock);
  for (size_t index = 0; index < cache_count; ++index) {
    if (caches[index].start == address) caches[index] = caches[--cache_count];
  }
  pthread_mutex_unlock(&lock);
}

static void on_system_call_return(qemu_plugin_id_t id, unsigned processor, int64_t number, int64_t result) {
  (void)id, (void)processor;
  if (number != NR_MMAP || !maps_cache) return;
  maps_cache = false;
  if (result < 0 && result >= -4095) return;
  pthread_mutex_lock(&lock);
  if (cache_count == MAX_CACHES) fail("too many code caches");
  const struct span cache = {(uint64_t)result, (uint64_t)result + CACHE_SIZE};
  caches[cache_count++] = cache;
  if (caches_seen < MAX_CACHES) past_caches[caches_seen] = cache;
  ++caches_seen;
  pthread_mutex_unlock(&lock);
}

/* A child of a fork ends here too: its own counts go on from its parent's, into files of its own. */
static FILE* open_output(const char* path) {
  char name[4096];
  const pid_t self = getpid();
  const int length = self == installed_in ? snprintf(name, sizeof name, "%s", path)
                                          : snprintf(name, sizeof name, "%s.%d", path, (int)self);
  FILE* file = length < (int)sizeof name ? fopen(name, "w") : NULL;
  if (file == NULL) fail("cannot write an output file");
  return file;
}

static void close_output(FILE* file) {
  if (fclose(file) != 0) fail("cannot write an output file");
}

static bool is_of_kind(const struct record* record, const void* kind) {
  return record->kind == *(const enum kind*)kind;
}

static bool is_in_span(const struct record* record, const void* span) { return holds(span, 1, record->address); }

static bool is_at(const struct record* record, const void* address) {
  return record->address == *(const uint64_t*)address;
}

static bool is_listed(const struct record* record) {
  return record->count != 0 && (range_count == 0 || holds(ranges, range_count, record->address));
}

static void write_summary(void) {
  FILE* file = open_output(summary_path);
  fprintf(file, "total %lu\n", total(NULL, NULL));
  for (enum kind kind = OTHER; kind < KINDS; ++kind) {
    fprintf(file, "%s %lu\n", kind_names[kind], total(is_of_kind, &kind));
  }
  fprintf(file, "caches %zu\nstart %lu\n", caches_seen, before_first_cache_entry);
  for (enum kind kind = OTHER; branches_too && kind < KINDS; ++kind) {
    fprintf(file, "taken %s %lu\n", kind_names[kind], taken[kind]);
  }
  for (size_t index = 0; index < range_count; ++index) {
    fprintf(file, "range %#lx %#lx %lu\n", ranges[index].start, ranges[index].end, total(is_in_span, &ranges[index]));
  }
  for (size_t index = 0; index < watched_count; ++index) {
    fprintf(file, "at %#lx %lu\n", watched[index], total(is_at, &watched[index]));
  }
  close_output(file);
}

static int by_word(const void* a, const void* b) {
  const uint32_t left = (*(struct record*const*)a)->word, right = (*(struct record*const*)b)->word;
  return (left > right) - (left < right);
}

static int by_address(const void* a, const void* b) {
  const struct record *left = *(struct record*const*)a, *right = *(struct record*const*)b;
  if (left->address != right->address) return left->address > right->address ? 1 : -1;
  return by_word(a, b);
}

static struct record** listed_records(size_t* count, int (*order)(const void*, const void*)) {
  struct record** records = zeroed(record_count + 1, sizeof(struct record*));
  *count = 0;
  for (size_t index = 0; index < table_size; ++index) {
    if (table[index] != NULL && is_listed(table[index])) records[(*count)++] = table[index];
  }
  qsort(records, *count, sizeof(struct record*), order);
  return records;
}

static void write_words(void) {
  FILE* file = open_output(words_path);
  size_t count;
  struct record** records = listed_records(&count, by_word);
  for (size_t index = 0; index < count;) {
    const uint32_t word = records[index]->word;
    uint64_t executed = 0;
    for (; index < count && records[index]->word == word; ++index) executed += records[index]->count;
    fprintf(file, "%08x %lu\n", word, executed);
  }
  free(records);
  close_output(file);
}

/* Of the program, that is to say: the emulator's own files are mapped beside it. */
static bool is_aarch64_elf(const char* path) {
  enum { MACHINE_OFFSET = 18, EM_AARCH64 = 183 };
  unsigned char header[20] = {0};
  FILE* file = fopen(path, "rb");
  if (file == NULL) return false;
  const size_t read = fread(header, 1, sizeof header, file);
  fclose(file);
  return read == sizeof header && memcmp(header, "\177ELF", 4) == 0 && header[MACHINE_OFFSET] == EM_AARCH64 &&
         header[MACHINE_OFFSET + 1] == 0;
}

/* The program's mapped files, for whoever wants to tell functions of shared libraries by address. The emulator maps the
   program's addresses as they are. */
static void write_mapped_files(FILE* file) {
  FILE* maps = fopen("/proc/self/maps", "r");
  if (maps == NULL) return;
  char line[4608];
  while (fgets(line, sizeof line, maps) != NULL) {
    unsigned long start, end, offset;
    int path = 0;
    if (sscanf(line, "%lx-%lx %*s %lx %*s %*s %n", &start, &end, &offset, &path) != 3 || line[path] != '/') continue;
    line[strcspn(line, "\n")] = '\0';
    if (is_aarch64_elf(line + path)) fprintf(file, "map %#lx %#lx %#lx %s\n", start, end, offset, line + path);
  }
  fclose(maps);
}

static void write_addresses(void) {
  FILE* file = open_output(addresses_path);
  write_mapped_files(file);
  for (size_t index = 0; index < caches_seen && index < MAX_CACHES; ++index) {
    fprintf(file, "cache %#lx %#lx\n", past_caches[index].start, past_caches[index].end);
  }
  size_t count;
  struct record** records = listed_records(&count, by_address);
  for (size_t index = 0; index < count; ++index) {
    const struct record* record = records[index];
    fprintf(file, "%#lx %08x %s %lu\n", record->address, record->word, kind_names[record->kind], record->count);
  }
  free(records);
  close_output(file);
}

static void on_exit_of_program(qemu_plugin_id_t id, void* data) {
  (void)id, (void)data;
  pthread_mutex_lock(&lock);
  if (summary_path != NULL) write_summary();
  if (words_path != NULL) write_words();
  if (addresses_path != NULL) write_addresses();
  pthread_mutex_unlock(&lock);
}

static uint64_t number_in(const char* text, char end) {
  char* rest;
  const uint64_t value = strtoull(text, &rest, 0);
  if (rest == text || *rest != end) fail("a number was expected in an option");
  return value;
}

static void read_option(const char* option) {
  const char* equals = strchr(option, '=');
  const size_t length = equals != NULL ? (size_t)(equals - option) : 0;
  const char* value = equals != NULL ? equals + 1 : "";
  if (length == 7 && strncmp(option, "summary", length) == 0) {
    summary_path = value;
  } else if (length == 5 && strncmp(option, "words", length) == 0) {
    words_path = value;
  } else if (length == 9 && strncmp(option, "addresses", length) == 0) {
    addresses_path = value;
  } else if (length == 7 && strncmp(option, "threads", length) == 0) {
    several_threads = strcmp(value, "on") == 0;
  } else if (length == 8 && strncmp(option, "branches", length) == 0) {
    branches_too = strcmp(value, "on") == 0;
  } else if (length == 5 && strncmp(option, "stubs", length) == 0) {
    stub_bytes = number_in(value, '\0');
  } else if (length == 5 && strncmp(option, "range", length) == 0 && range_count < MAX_SPANS) {
    const char* minus = strchr(value, '-');
    if (minus == NULL) fail("range=START-END was expected");
    ranges[range_count++] = (struct span){number_in(value, '-'), number_in(minus + 1, '\0')};
  } else if (length == 2 && strncmp(option, "at", length) == 0 && watched_count < MAX_SPANS) {
    watched[watched_count++] = number_in(value, '\0');
  } else {
    fprintf(stderr, "instruction_counts: unknown option, or one too many: %s\n", option);
    exit(2);
  }
}

int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv) {
  (void)info;
  for (int index = 0; index < argc; ++index) read_option(strdup(argv[index]));
  if (summary_path == NULL && words_path == NULL && addresses_path == NULL) fail("no output file was asked for");
  installed_in = getpid();
  qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
  qemu_plugin_register_vcpu_syscall_cb(id, on_system_call);
  qemu_plugin_register_vcpu_syscall_ret_cb(id, on_system_call_return);
  qemu_plugin_register_atexit_cb(id, on_exit_of_program, NULL);
  return 0;
}
