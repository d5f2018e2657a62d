/* A plug-in of the user-mode emulator that watches what a program executes between a load-exclusive and its
   store-exclusive: instructions, loads, stores and cache maintenance. On a processor each of the last three may make
   the store fail; the emulator forgives them. README.md tells the option and the form of the file.

   A pair is known by the addresses of its two instructions. Each thread has at most one open; another load-exclusive,
   CLREX and a system call close it. Nothing is said about the store's success, which a plug-in cannot see. */
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
enum { CALLBACK_TOUCHES_NO_REGISTERS = 0, LOADS_AND_STORES = 3 };
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
struct qemu_plugin_insn* qemu_plugin_tb_get_insn(const struct qemu_plugin_tb* tb, size_t index);
uint64_t qemu_plugin_insn_vaddr(const struct qemu_plugin_insn* insn);
const void* qemu_plugin_insn_data(const struct qemu_plugin_insn* insn);
void qemu_plugin_register_vcpu_insn_exec_cb(struct qemu_plugin_insn* insn, void (*call)(unsigned, void*), int flags,
                                            void* data);
void qemu_plugin_register_vcpu_mem_cb(struct qemu_plugin_insn* insn, void (*call)(unsigned, uint32_t, uint64_t, void*),
                                      int flags, int which, void* data);
bool qemu_plugin_mem_is_store(uint32_t info);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, struct qemu_plugin_tb*));
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, void (*call)(qemu_plugin_id_t, void*), void* data);

#define EXPORTED __attribute__((visibility("default")))
EXPORTED int qemu_plugin_version = 1;
EXPORTED int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv);

struct between {
  uint64_t instructions, loads, stores, maintenance;
};

struct pair {
  uint64_t load, store;
  uint64_t rounds, touched, late; /* `touched`: with an access in between; `late`: those but for the first round. */
  struct between sum;
};

enum { MAX_PAIRS = 1 << 16 };

static const char* path;
static pid_t installed_in;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; /* Guards the pairs. */
static struct pair pairs[MAX_PAIRS];                     /* Open addressing; `store` is not 0 in a used one. */
static size_t pair_count;

static __thread bool is_open;
static __thread uint64_t open_load;
static __thread struct between now;

static void fail(const char* what) {
  fprintf(stderr, "exclusive_pairs: %s\n", what);
  exit(2);
}

static struct pair* pair_of(uint64_t load, uint64_t store) {
  size_t place = (load >> 2 ^ (store >> 2) * 0x9e3779b97f4a7c15u >> 32) % MAX_PAIRS;
  while (pairs[place].store != 0 && (pairs[place].load != load || pairs[place].store != store)) {
    place = (place + 1) % MAX_PAIRS;
  }
  if (pairs[place].store == 0) {
    if (++pair_count > MAX_PAIRS / 2) fail("too many pairs");
    pairs[place] = (struct pair){.load = load, .store = store};
  }
  return &pairs[place];
}

static void on_instruction(unsigned processor, void* data) {
  (void)processor, (void)data;
  if (is_open) ++now.instructions;
}

static void on_access(unsigned processor, uint32_t info, uint64_t address, void* data) {
  (void)processor, (void)address, (void)data;
  if (!is_open) return;
  if (qemu_plugin_mem_is_store(info)) {
    ++now.stores;
  } else {
    ++now.loads;
  }
}

static void on_maintenance(unsigned processor, void* data) {
  on_instruction(processor, data);
  if (is_open) ++now.maintenance;
}

static void on_load(unsigned processor, void* data) {
  (void)processor;
  is_open = true;
  open_load = (uint64_t)(uintptr_t)data;
  now = (struct between){0};
}

static void on_end(unsigned processor, void* data) {
  (void)processor, (void)data;
  is_open = false;
}

static void on_store(unsigned processor, void* data) {
  (void)processor;
  if (!is_open) return;
  is_open = false;
  pthread_mutex_lock(&lock);
  struct pair* pair = pair_of(open_load, (uint64_t)(uintptr_t)data);
  if (now.loads + now.stores + now.maintenance != 0) {
    ++pair->touched;
    if (pair->rounds != 0) ++pair->late;
  }
  ++pair->rounds;
  pair->sum.instructions += now.instructions;
  pair->sum.loads += now.loads;
  pair->sum.stores += now.stores;
  pair->sum.maintenance += now.maintenance;
  pthread_mutex_unlock(&lock);
}

static bool is_exclusive(uint32_t word, uint32_t is_load) {
  const uint32_t kind = is_load << 22;
  return (word & 0x3fe00000) == (0x08000000 | kind) || (word & 0xbfe00000) == (0x88200000 | kind);
}

static void on_translation(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  const size_t count = qemu_plugin_tb_n_insns(tb);
  for (size_t index = 0; index < count; ++index) {
    struct qemu_plugin_insn* insn = qemu_plugin_tb_get_insn(tb, index);
    void* address = (void*)(uintptr_t)qemu_plugin_insn_vaddr(insn);
    uint32_t word;
    memcpy(&word, qemu_plugin_insn_data(insn), sizeof word);
    void (*call)(unsigned, void*) = on_instruction;
    if (is_exclusive(word, 1)) {
      call = on_load;
    } else if (is_exclusive(word, 0)) {
      call = on_store;
    } else if ((word & 0xfffff0ff) == 0xd503305f || (word & 0xffe0001f) == 0xd4000001) { /* CLREX, SVC */
      call = on_end;
    } else if ((word & 0xfffff000) == 0xd50b7000) { /* IC and DC, as programs can have them. */
      call = on_maintenance;
    } else {
      qemu_plugin_register_vcpu_mem_cb(insn, on_access, CALLBACK_TOUCHES_NO_REGISTERS, LOADS_AND_STORES, NULL);
    }
    qemu_plugin_register_vcpu_insn_exec_cb(insn, call, CALLBACK_TOUCHES_NO_REGISTERS, address);
  }
}

static int by_address(const void* a, const void* b) {
  const struct pair *left = *(struct pair*const*)a, *right = *(struct pair*const*)b;
  if (left->load != right->load) return left->load > right->load ? 1 : -1;
  return (left->store > right->store) - (left->store < right->store);
}

/* A child of a fork ends here too, with its parent's pairs and its own, in a file of its own. */
static void on_exit_of_program(qemu_plugin_id_t id, void* data) {
  (void)id, (void)data;
  char name[4096];
  const pid_t self = getpid();
  const int length = self == installed_in ? snprintf(name, sizeof name, "%s", path)
                                          : snprintf(name, sizeof name, "%s.%d", path, (int)self);
  FILE* file = length < (int)sizeof name ? fopen(name, "w") : NULL;
  if (file == NULL) fail("cannot write the output file");
  pthread_mutex_lock(&lock);
  struct pair** used = calloc(pair_count + 1, sizeof *used);
  if (used == NULL) fail("out of memory");
  size_t count = 0;
  for (size_t index = 0; index < MAX_PAIRS; ++index) {
    if (pairs[index].store != 0) used[count++] = &pairs[index];
  }
  qsort(used, count, sizeof *used, by_address);
  for (size_t index = 0; index < count; ++index) {
    const struct pair* pair = used[index];
    fprintf(file, "%#lx %#lx %lu %lu %lu %lu %lu %lu %lu\n", pair->load, pair->store, pair->rounds, pair->touched,
            pair->late, pair->sum.instructions, pair->sum.loads, pair->sum.stores, pair->sum.maintenance);
  }
  pthread_mutex_unlock(&lock);
  free(used);
  if (fclose(file) != 0) fail("cannot write the output file");
}

int qemu_plugin_install(qemu_plugin_id_t id, const void* info, int argc, char** argv) {
  (void)info;
  if (argc != 1 || strncmp(argv[0], "pairs=", 6) != 0) fail("one option is expected: pairs=FILE");
  path = strdup(argv[0] + 6);
  installed_in = getpid();
  qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
  qemu_plugin_register_atexit_cb(id, on_exit_of_program, NULL);
  return 0;
}
