// Start and end of an application under the engine, and the life of fragments. What a fragment contains is the scanner's
// matter, how control gets from one to the next the dispatcher's.
#include "bi/mora.h"

#include <asm/hwcap.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code_words.h"
#include "bi/dispatcher.h"
#include "bi/function_watch.h"
#include "bi/pages.h"
#include "bi/plugin_delivery.h"
#include "bi/scanner.h"
#include "bi/signals.h"
#include "bi/stubs.h"
#include "bi/syscalls.h"
#include "bi/traces.h"
#include "common/log.h"
#include "elf/elf_loader.h"

namespace ceilmeter {

engine_globals engine;
thread_local thread_data* current_thread = nullptr;

namespace {

constexpr engine_log log{"src/bi/mora"};

constexpr int anonymous = MAP_PRIVATE | MAP_ANONYMOUS;

std::size_t whole_pages(std::size_t size) { return page_up(size, page_size()); }

// The word at `place` of the stub text in a thread's copy.
void set_stub_word(thread_data* thread, const std::uint8_t* place, const void* value) {
  const auto word = reinterpret_cast<std::uint64_t>(value);
  std::memcpy(thread->code_cache + stub_offset(place), &word, sizeof word);
}

void set_stub_instruction(thread_data* thread, const std::uint8_t* place, std::uint32_t word) {
  std::memcpy(thread->code_cache + stub_offset(place), &word, sizeof word);
}

std::uint64_t stub_copy(const thread_data* thread, const std::uint8_t* place) {
  return reinterpret_cast<std::uint64_t>(thread->code_cache) + stub_offset(place);
}

std::uint8_t* block_address(const thread_data* thread, std::int32_t bb_id) {
  return thread->code_cache + std::size_t{BB_SIZE} * static_cast<std::size_t>(bb_id);
}

// Whether another thread of the list may still be in the code cache. The caller holds thread_list_lock.
template <typename visitor>
bool any_other_running(const thread_data* self, const visitor& visit) {
  bool found = false;
  for (thread_data* thread = engine.thread_list; thread != nullptr; thread = thread->next) {
    // Acquire: pairs with the release with which the thread has left its running state. What it counted is read next.
    if (thread == self || std::atomic_ref(thread->status).load(std::memory_order_acquire) != THREAD_RUNNING) continue;
    found = true;
    visit(thread);
  }
  return found;
}

// What a flush leaves behind, beside the tables that it has emptied.
void start_without_fragments(thread_data* thread) {
  thread->flush_seen = 1;
  thread->next_block = stub_block_count();
  thread->trace_write_cursor = thread->code_cache + BB_AREA_SIZE;
  thread->trace_id = BB_COUNT;
  thread->active_trace.id = BB_COUNT;
  // A trace under construction is given up: its exits lead to blocks that are forgotten.
  if (thread->active_trace.active != 0) count_trace_event(trace_counts.flushed);
  thread->active_trace.active = 0;
  deliver_flush();
}

// One page behind the image, as a hint only: whatever comes instead is the program break.
void make_program_break() {
  pthread_mutex_init(&engine.brk_lock, nullptr);
  const std::size_t page = page_size();
  void* start = mmap(reinterpret_cast<void*>(engine.brk), page, PROT_READ | PROT_WRITE, anonymous, -1, 0);
  engine.brk = reinterpret_cast<std::uint64_t>(start);
  engine.initial_brk = engine.brk;
  report_vm_op(VM_MAP, engine.brk, page, PROT_READ | PROT_WRITE, anonymous, -1, 0, 0, 0);
  engine.brk += page;
}

}  // namespace

std::uint64_t page_size() {
  // Set before there is a second thread, and without a lock from then on: a child of a fork could find one taken.
  static const std::uint64_t size = getauxval(AT_PAGESZ);
  return size;
}

std::int32_t stub_block_count() {
  return static_cast<std::int32_t>((stub_offset(stub_text_end) + BB_SIZE - 1) / BB_SIZE);
}

int mora_run(int argc, char** argv, char** envp) {
  if (argc < 1) {
    log(LEVEL_WARN, "missing command line arguments");
    std::exit(EXIT_FAILURE);
  }
  engine.argc = argc;
  engine.argv = argv;
  pthread_mutex_init(&engine.thread_list_lock, nullptr);
  interval_map_init(&engine.exec_ranges, EXEC_RANGES_CAPACITY);
  interval_map_init(&engine.protected_ranges, EXEC_RANGES_CAPACITY);
  pthread_mutex_init(&engine.signal_handlers_lock, nullptr);
  install_sigill_handler();
  pthread_rwlock_init(&engine.callbacks_lock, nullptr);
  pthread_mutex_init(&engine.function_watch_lock, nullptr);
  robin_map_init(&engine.function_watches, sizeof(function_watch));

  thread_data* thread = nullptr;
  if (!allocate_thread_data(&thread)) log(LEVEL_FATAL, "failed to allocate initial thread data");
  current_thread = thread;
  init_thread(thread);
  thread->tid = gettid();
  register_thread(thread, false);

  engine.brk = 0;
  Elf* elf = nullptr;
  elf_aux_values aux{};
  std::uint64_t entry = 0;
  load_elf(argv[0], &elf, &aux, &entry, 0);
  log(LEVEL_TRACE, "entry address: 0x%lx", entry);
  make_program_break();

  const std::uint64_t block = scan(thread, entry, 0);
  log(LEVEL_TRACE, "Address of first basic block is: 0x%lx", block);
  elf_run(block, argv[0], argc - 1, argv + 1, envp, &aux);
}

bool allocate_thread_data(thread_data** out) {
  void* mapping = mmap(nullptr, whole_pages(sizeof(thread_data)), PROT_READ | PROT_WRITE, anonymous, -1, 0);
  if (mapping == MAP_FAILED) return false;
  *out = static_cast<thread_data*>(mapping);  // The mapping is zeroed, which is every field's first value.
  (*out)->return_stack_top = (*out)->return_stack;
  return true;
}

void init_thread(thread_data* thread) {
  void* cache = mmap(nullptr, CODE_CACHE_SIZE, PROT_READ | PROT_WRITE | PROT_EXEC, anonymous, -1, 0);
  if (cache == MAP_FAILED) log(LEVEL_FATAL, "allocating code cache space failed");
  thread->code_cache = static_cast<std::uint8_t*>(cache);
  log(LEVEL_TRACE, "Code cache: %p", cache);

  void* pool = mmap(nullptr, whole_pages(linked_pool_bytes(LINK_POOL_CAPACITY)), PROT_READ | PROT_WRITE, anonymous, -1, 0);
  if (pool == MAP_FAILED) log(LEVEL_FATAL, "allocating link pool space failed");
  thread->cc_link_pool = static_cast<linked_pool*>(pool);
  // A new record's tables are empty as they are mapped. A flush would touch 15 MiB to find that out, for every thread.
  thread->entry_table.table.size = ENTRY_TABLE_SIZE;
  linked_pool_init_zeroed(thread->cc_link_pool, LINK_POOL_CAPACITY);
  start_without_fragments(thread);
  robin_map_init(&thread->return_watch, sizeof(return_watch));

  std::memcpy(thread->code_cache, stub_text, stub_offset(stub_text_end));
  set_stub_word(thread, word_pending_signal_count, &thread->pending_signal_count);
  set_stub_word(thread, word_thread_data, thread);
  log(LEVEL_TRACE, "*thread_data in dispatcher at: %p", static_cast<void*>(thread->code_cache + stub_offset(word_thread_data)));

  if ((getauxval(AT_HWCAP) & HWCAP_SVE) != 0) {
    // The vector state is more than q0 to q31 here: the branches to the shorter routines go.
    set_stub_instruction(thread, save_vector_state, NOP);
    set_stub_instruction(thread, restore_vector_state, NOP);
    set_raise_trap(reinterpret_cast<std::uint32_t*>(thread->code_cache + stub_offset(reentry_raise)));
  }

  thread->hot_counter_stub_addr = stub_copy(thread, hot_counter_stub);
  auto* slots = reinterpret_cast<std::uint32_t*>(thread->code_cache + stub_offset(hot_counter_slots));
  constexpr std::uint32_t x2 = 2;
  a64_load_const(&slots, x2, reinterpret_cast<std::uint64_t>(thread->exit_counters));
  if (trace_options.hot_mark != 0) std::memset(thread->exit_counters, trace_options.hot_mark, sizeof thread->exit_counters);

  log(LEVEL_TRACE, "Traces start at: %p", static_cast<void*>(thread->trace_write_cursor));
  // The copied stubs are the only code that the cache holds yet. Cleared here, before any thread can branch to them: the
  // new thread's own first instruction fetch of them comes after its creation, which synchronises its context.
  clear_instruction_cache(thread->code_cache, block_address(thread, thread->next_block));

  thread->status = THREAD_RUNNING;
  thread->dispatcher_stub_addr = stub_copy(thread, dispatcher_entry_stub);
  thread->syscall_wrapper_addr = stub_copy(thread, syscall_wrapper);
  log(LEVEL_TRACE, "Syscall wrapper addr: 0x%lx", thread->syscall_wrapper_addr);
}

void register_thread(thread_data* thread, bool lock_held) {
  if (!lock_held) pthread_mutex_lock(&engine.thread_list_lock);
  thread->next = engine.thread_list;
  engine.thread_list = thread;
  deliver_thread_init(thread);
  if (!lock_held) pthread_mutex_unlock(&engine.thread_list_lock);
}

int unregister_thread(thread_data* thread, bool lock_held) {
  int result = -1;
  if (!lock_held) pthread_mutex_lock(&engine.thread_list_lock);
  for (thread_data** link = &engine.thread_list; *link != nullptr; link = &(*link)->next) {
    if (*link != thread) continue;
    *link = thread->next;
    deliver_thread_exit(thread);
    result = 0;
    break;
  }
  if (!lock_held) pthread_mutex_unlock(&engine.thread_list_lock);
  return result;
}

std::int32_t allocate_bb(thread_data* thread) {
  if (thread->next_block > BB_FLUSH_THRESHOLD) {
    log(LEVEL_TRACE, "code cache full, flushing it");
    flush_code_cache(thread);
  }
  return thread->next_block++;
}

void flush_code_cache(thread_data* thread) {
  hash_init(&thread->entry_table.table, ENTRY_TABLE_SIZE);
  for (std::int32_t index = 0; index < BB_COUNT; ++index) {
    bb_meta& meta = thread->metas[index];
    // Read before written, as in the tables: pages that no block has reached yet stay without memory.
    if ((meta.exit_kind | meta.link_state) == 0 && meta.parent_block == 0 && meta.linked_from == nullptr) continue;
    meta.exit_kind = EXIT_NOT_SET;
    meta.parent_block = 0;
    meta.link_state = LINK_NONE;
    meta.linked_from = nullptr;
  }
  std::memset(thread->exit_counters, trace_options.hot_mark, sizeof thread->exit_counters);
  forget_function_entries(thread);
  linked_pool_init(thread->cc_link_pool, LINK_POOL_CAPACITY);
  start_without_fragments(thread);
}

std::uint64_t stub_bb(thread_data* thread, std::uint64_t source) {
  // As for a block that is scanned.
  if (!hash_has_room(&thread->entry_table.table, source)) flush_code_cache(thread);
  const std::int32_t bb_id = allocate_bb(thread);
  const auto address = reinterpret_cast<std::uint64_t>(block_address(thread, bb_id));
  log(LEVEL_TRACE, "stub BB: 0x%lx", address);
  auto* write = reinterpret_cast<std::uint32_t*>(address);
  bb_meta& meta = thread->metas[bb_id];
  meta.source_addr = source;
  meta.cache_entry = address;
  meta.exit_kind = EXIT_STUB_BLOCK;
  meta.exit_code_addr = write + 1;
  meta.taken_source_addr = source;
  *write++ = POP_X0_X1;
  a64_push_x0_x1(&write);
  a64_branch_jump(thread, &write, source, bb_id);
  if (!hash_add(&thread->entry_table.table, source, address)) {
    log(LEVEL_FATAL, "failed to add hash table entry for newly created stub basic block");
  }
  return address;
}

std::uint64_t lookup_or_stub(thread_data* thread, std::uint64_t source) {
  log(LEVEL_TRACE, "stub (0x%lx)", source);
  log(LEVEL_TRACE, "thread_data: %p", static_cast<void*>(thread));
  const std::uint64_t found = hash_lookup_entry(thread, source);
  if (found != HASH_MISS) return found;
  const std::uint64_t address = stub_bb(thread, source);
  auto* block = reinterpret_cast<std::uint8_t*>(address);
  clear_instruction_cache(block, block + BB_SIZE + 1);
  return address;
}

std::uint64_t scan(thread_data* thread, std::uint64_t source, std::int32_t bb_id) {
  log(LEVEL_TRACE, "scan(%p)", reinterpret_cast<void*>(source));
  const bool is_new = bb_id == 0;
  // Blocks that lie close together where the low bits of their addresses are highest can fill the table up to its end.
  if (is_new && !hash_has_room(&thread->entry_table.table, source)) flush_code_cache(thread);
  if (is_new) bb_id = allocate_bb(thread);
  std::uint8_t* block = block_address(thread, bb_id);
  const auto address = reinterpret_cast<std::uint64_t>(block);
  thread->metas[bb_id].source_addr = source;
  thread->metas[bb_id].cache_entry = address;
  if (is_new && !hash_add(&thread->entry_table.table, source, address)) {
    log(LEVEL_FATAL, "failed to add hash table entry for newly created basic block");
  }

  const std::int32_t first_added = thread->next_block;
  const std::uint32_t seen_before = thread->flush_seen;
  thread->flush_seen = 0;
  const std::uint32_t length = scan_fragment(thread, reinterpret_cast<std::uint32_t*>(source), bb_id, FRAGMENT_BLOCK, nullptr);
  const bool flushed = thread->flush_seen != 0;
  thread->flush_seen |= seen_before;

  // Exactly the words written have to be cleared: nothing else of the cache has changed. A block that was continued
  // after a flush inside the scan lies in two ranges, one up to the end of the area and one from its start. One that
  // was reserved earlier is continued where the free blocks begin by now, which may be far from it; behind a flush for a
  // function watch, that is right behind it.
  if (!is_new && !flushed) {
    clear_instruction_cache(block, block + BB_SIZE);
    clear_instruction_cache(block_address(thread, first_added), block_address(thread, thread->next_block));
  } else if (thread->next_block >= bb_id) {
    clear_instruction_cache(block, block + length);
  } else {
    clear_instruction_cache(block, thread->code_cache + BB_AREA_SIZE);
    clear_instruction_cache(block_address(thread, stub_block_count()), block_address(thread, thread->next_block));
  }
  return address;
}

namespace {

// Scans a block that was reserved, which may have been long ago. A flush in the midst of that would begin to hand out
// blocks from the start again and could come to this very one: it comes before, if at all. Hardly a word takes a block
// for itself.
std::uint64_t scan_reserved(thread_data* thread, std::uint64_t source, std::int32_t bb_id) {
  const std::uint64_t most = count_source_words(reinterpret_cast<const std::uint32_t*>(source));
  if (static_cast<std::uint64_t>(thread->next_block) + most <= static_cast<std::uint64_t>(BB_FLUSH_THRESHOLD)) {
    return scan(thread, source, bb_id);
  }
  flush_code_cache(thread);
  return scan(thread, source, 0);
}

}  // namespace

std::uint64_t _lookup_or_scan(thread_data* thread, std::uint64_t source, std::int32_t* out_cached) {
  log(LEVEL_TRACE, "thread_data: %p", static_cast<void*>(thread));
  std::uint64_t address = hash_lookup_entry(thread, source);
  std::int32_t cached = 0;
  if (address == HASH_MISS) {
    address = scan(thread, source, 0);
  } else if (is_in_traces(thread, address)) {
    cached = 1;
  } else {
    const std::int32_t bb_id = cc_addr_to_bb_id(thread, address);
    if (thread->metas[bb_id].exit_kind == EXIT_STUB_BLOCK) {
      address = scan_reserved(thread, source, bb_id);
    } else {
      cached = 1;
    }
  }
  if (out_cached != nullptr) *out_cached = cached;
  return address;
}

std::uint64_t lookup_or_scan(thread_data* thread, std::uint64_t source) {
  return _lookup_or_scan(thread, source, nullptr);
}

std::uint64_t hash_lookup_entry(const thread_data* thread, std::uint64_t source) {
  return hash_lookup(&thread->entry_table.table, source);
}

bool is_in_traces(const thread_data* thread, std::uint64_t address) {
  const auto begin = reinterpret_cast<std::uint64_t>(thread->code_cache);
  return address >= begin + BB_AREA_SIZE && address < begin + CODE_CACHE_SIZE;
}

std::int32_t cc_addr_to_bb_id(const thread_data* thread, std::uint64_t address) {
  const auto begin = reinterpret_cast<std::uint64_t>(thread->code_cache);
  // The bound is inclusive: the first address past the area counts as index BB_COUNT, that of the first trace fragment.
  if (address < begin || address > begin + BB_AREA_SIZE) return -1;
  return static_cast<std::int32_t>((address - begin) / BB_SIZE);
}

std::int32_t addr_to_fragment_id(const thread_data* thread, std::uint64_t address) {
  const std::int32_t bb_id = cc_addr_to_bb_id(thread, address);
  if (bb_id >= 0 && bb_id < BB_COUNT) {
    const std::int32_t parent = thread->metas[bb_id].parent_block;
    return parent != 0 ? parent : bb_id;
  }
  std::int32_t low = BB_COUNT;
  std::int32_t high = thread->active_trace.id - 1;  // The last fragment there is.
  if (high < low) return -1;
  if (thread->metas[high].cache_entry <= address) return high;
  while (low < high) {
    const std::int32_t middle = low + (high - low) / 2;
    if (thread->metas[middle].cache_entry > address) {
      high = middle;
    } else if (thread->metas[middle + 1].cache_entry > address) {
      return middle;
    } else {
      low = middle + 1;
    }
  }
  return -1;
}

std::int32_t exit_owner(const thread_data* thread, std::uint64_t pc) {
  std::int32_t id = addr_to_fragment_id(thread, pc);
  while (id > 0 && id < BB_COUNT && thread->metas[id].parent_block != 0) id = thread->metas[id].parent_block;
  return id;
}

void record_cc_link(thread_data* thread, std::uint64_t from, std::uint64_t to) {
  const std::int32_t bb_id = cc_addr_to_bb_id(thread, to);
  log(LEVEL_TRACE, "Linked 0x%lx (%d) from 0x%lx", to, bb_id, from);
  if (bb_id < 0) return;
  cc_link* link = linked_pool_alloc(thread->cc_link_pool);
  link->word = from;
  link->next = thread->metas[bb_id].linked_from;
  thread->metas[bb_id].linked_from = link;
}

void mora_terminate(thread_data* thread, std::int32_t status) {
  log(LEVEL_INFO, "we're done; exiting with status: %d", status);
  pthread_mutex_lock(&engine.thread_list_lock);
  const pid_t process = getpid();
  // Pairs with the loads in signal_dispatcher, deliver_pending_signal and syscall_handler_post: a thread that the signal
  // below reaches must find the flag set.
  if (std::atomic_ref(engine.exit_flag).exchange(1, std::memory_order_seq_cst) != 0) {
    // Another thread ends the process already and waits for this one: each would wait for the other.
    pthread_mutex_unlock(&engine.thread_list_lock);
    abandon_thread(thread);
  }
  // Pairs with the fence in syscall_handler_post, between its store of the status and its load of the flag: a thread that
  // does not find the flag there is found running here.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  block_handled_signals();
  // Each time twice as long: a thread that takes longer for one signal than the next one takes to come would make no step
  // between them.
  constexpr useconds_t longest_pause = 10000;
  useconds_t pause = 100;
  do {
    any_other_running(thread, [process](const thread_data* other) {
      raw_syscall(NR_TGKILL, static_cast<std::uint64_t>(process), static_cast<std::uint64_t>(other->tid), SIGILL);
    });
    pthread_mutex_unlock(&engine.thread_list_lock);
    usleep(pause);
    pause = std::min(2 * pause, longest_pause);
    pthread_mutex_lock(&engine.thread_list_lock);
    if (engine.thread_list == nullptr) break;
  } while (any_other_running(thread, [](const thread_data*) {}));

  for (thread_data* listed = engine.thread_list; listed != nullptr; listed = listed->next) deliver_thread_exit(listed);
  pthread_mutex_unlock(&engine.thread_list_lock);
  deliver_exit(thread);
  std::exit(status);
}

void abandon_thread(thread_data* thread) {
  // Release: pairs with the acquire in mora_terminate, which delivers this thread's thread_exit from another one.
  std::atomic_ref(thread->status).store(THREAD_ABANDONED, std::memory_order_release);
  pthread_exit(nullptr);
}

void free_thread_data(thread_data* thread) {
  if (munmap(thread->code_cache, whole_pages(CODE_CACHE_SIZE)) != 0) {
    log(LEVEL_FATAL, "Error freeing code cache on exit()");
  }
  if (munmap(thread->cc_link_pool, whole_pages(linked_pool_bytes(LINK_POOL_CAPACITY))) != 0) {
    log(LEVEL_FATAL, "Error freeing CC link struct on exit()");
  }
  robin_map_destroy(&thread->return_watch);
  if (munmap(thread, whole_pages(sizeof(thread_data))) != 0) {
    log(LEVEL_FATAL, "Error freeing thread private structure on exit()");
  }
}

}  // namespace ceilmeter
