// Start and end of an application under the engine, and of the records of its threads.
#include "bi/mora.h"

#include <asm/hwcap.h>
#include <malloc.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/dispatcher.h"
#include "bi/engine_switches.h"
#include "bi/plugins/function_watch.h"
#include "bi/kernel/pages.h"
#include "bi/kernel/quick_calls.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/scanner.h"
#include "bi/signals/ending_signals.h"
#include "bi/signals/last_words.h"
#include "bi/signals/signal_stack.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"
#include "bi/kernel/syscalls.h"
#include "bi/kernel/vfork.h"
#include "bi/code/traces.h"
#include "common/log.h"
#include "elf/elf_loader.h"
#include "elf/initial_stack.h"

namespace ceilmeter {

engine_globals engine;
thread_local thread_data* current_thread = nullptr;

namespace {

constexpr engine_log log{"src/bi/mora"};

constexpr int anonymous = MAP_PRIVATE | MAP_ANONYMOUS;

std::size_t whole_pages(std::size_t size) { return page_up(size, page_size()); }

// Most of what a thread maps is never touched. The kernel would give huge pages to the rest, some 8 MiB for a thread
// that runs little code. The first thread keeps them, because most programs run in it alone: its tables and its code
// need fewer entries of the processor's address translation.
void take_small_pages(void* mapping, std::size_t size) {
  if (engine.thread_list != nullptr) madvise(mapping, size, MADV_NOHUGEPAGE);
}

// The C library gives a thread a heap of its own when it first uses one, and reserves 64 MiB of address space for it,
// which count under a limit (ulimit -v). The engine's threads use the heap as they begin and end and seldom in between.
void use_one_heap() {
#ifdef M_ARENA_MAX
  mallopt(M_ARENA_MAX, 1);
#endif
}

// The word at `place` of the stub text in a thread's copy.
void set_stub_word(thread_data* thread, const std::uint8_t* place, const void* value) {
  const std::uint64_t word = address_of(value);
  std::memcpy(thread->code_cache + stub_offset(place), &word, sizeof word);
}

void set_stub_instruction(thread_data* thread, const std::uint8_t* place, std::uint32_t word) {
  std::memcpy(thread->code_cache + stub_offset(place), &word, sizeof word);
}

std::uint64_t stub_copy(const thread_data* thread, const std::uint8_t* place) {
  return address_of(thread->code_cache) + stub_offset(place);
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

// Maps one page, with the end of the image as a hint. The program break begins where the kernel puts it.
void make_program_break() {
  owned_lock_init(&engine.brk_lock);
  const std::size_t page = page_size();
  void* start = mmap(reinterpret_cast<void*>(engine.brk), page, PROT_READ | PROT_WRITE, anonymous, -1, 0);
  engine.brk = address_of(start);
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

int mora_run(int argc, char** argv, char** envp) {
  if (argc < 1) {
    log(LEVEL_WARN, "missing command line arguments");
    std::exit(EXIT_FAILURE);
  }
  use_one_heap();
  read_engine_switches();
  allow_quick_calls();
  engine.argc = argc;
  engine.argv = argv;
  owned_lock_init(&engine.thread_list_lock);
  interval_map_init(&engine.exec_ranges, EXEC_RANGES_CAPACITY);
  interval_map_init(&engine.attached_segments, EXEC_RANGES_CAPACITY);
  owned_lock_init(&engine.mapping_lock);
  owned_lock_init(&engine.code_epoch_lock);
  owned_lock_init(&engine.signal_handlers_lock);
  install_sigill_handler();
  install_last_words();
  shared_lock_init(&engine.callbacks_lock);
  owned_lock_init(&engine.function_watch_lock);
  robin_map_init(&engine.function_watches, sizeof(function_watch));

  thread_data* thread = nullptr;
  if (!allocate_thread_data(&thread)) {
    log(LEVEL_FATAL, "failed to allocate initial thread data: %s; %s", std::strerror(errno), THREAD_MEMORY_REMEDY);
  }
  current_thread = thread;
  init_thread(thread);
  thread->tid = gettid();
  thread->process = getpid();
  use_signal_stack(thread);
  register_thread(thread, false);
  catch_ending_signals();

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

namespace {

// Zeroed memory of a thread, of which few pages are touched, here and there: of huge pages a thread would take several
// times the memory. A kernel without huge pages refuses the advice, which is as good.
void* map_sparse(std::size_t size, int protection) {
  void* mapping = mmap(nullptr, size, protection, anonymous, -1, 0);
  if (mapping != MAP_FAILED) madvise(mapping, size, MADV_NOHUGEPAGE);
  return mapping;
}

}  // namespace

bool allocate_thread_data(thread_data** out) {
  void* mapping = map_sparse(whole_pages(sizeof(thread_data)), PROT_READ | PROT_WRITE);
  if (mapping == MAP_FAILED) return false;
  take_small_pages(mapping, whole_pages(sizeof(thread_data)));
  *out = static_cast<thread_data*>(mapping);  // The mapping is zeroed, which is every field's first value.
  (*out)->return_stack_top = (*out)->return_stack;
  return true;
}

namespace {

// Maps the code cache, the link pool and the signal stack. Null, or what could not be mapped.
const char* map_thread_memory(thread_data* thread) {
  void* cache = map_sparse(CODE_CACHE_SIZE, PROT_READ | PROT_WRITE | PROT_EXEC);
  if (cache == MAP_FAILED) return "code cache";
  take_small_pages(cache, CODE_CACHE_SIZE);
  thread->code_cache = static_cast<std::uint8_t*>(cache);
  log(LEVEL_TRACE, "Code cache: %p", cache);
  const std::size_t pool_size = whole_pages(linked_pool_bytes(LINK_POOL_CAPACITY));
  void* pool = map_sparse(pool_size, PROT_READ | PROT_WRITE);
  if (pool == MAP_FAILED) return "link pool";
  take_small_pages(pool, pool_size);
  thread->cc_link_pool = static_cast<linked_pool*>(pool);
  return map_signal_stack(thread) ? nullptr : "signal stack";
}

// Copies the stub text and fills the words and instructions in it that differ from thread to thread.
void copy_stubs(thread_data* thread) {
  std::memcpy(thread->code_cache, stub_text, stub_offset(stub_text_end));
  set_stub_word(thread, word_pending_signal_count, &thread->pending_signal_count);
  set_stub_word(thread, word_raised_signal, &thread->held.saved_x3);
  set_stub_word(thread, word_redirect_target, &thread->redirect_target);
  set_stub_word(thread, word_thread_data, thread);
  set_stub_word(thread, word_engine, &engine);
  log(LEVEL_TRACE, "*thread_data in dispatcher at: %p",
      static_cast<void*>(thread->code_cache + stub_offset(word_thread_data)));

  if ((getauxval(AT_HWCAP) & HWCAP_SVE) != 0) {
    // With SVE the vector state is more than q0 to q31: the branches to the shorter routines go.
    set_stub_instruction(thread, save_vector_state, NOP);
    set_stub_instruction(thread, restore_vector_state, NOP);
    set_raise_trap(reinterpret_cast<std::uint32_t*>(thread->code_cache + stub_offset(reentry_raise)));
  }

  thread->hot_counter_stub_addr = stub_copy(thread, hot_counter_stub);
}

}  // namespace

const char* try_init_thread(thread_data* thread) {
  const char* missing = map_thread_memory(thread);
  if (missing != nullptr) return missing;
  // A new record's tables are empty as they are mapped. A flush would touch 15 MiB to find that out, for every thread.
  thread->entry_table.table.size = ENTRY_TABLE_SIZE;
  linked_pool_init_zeroed(thread->cc_link_pool, LINK_POOL_CAPACITY);
  start_without_fragments(thread);
  copy_stubs(thread);
  if (trace_options.hot_mark != 0) {
    std::memset(thread->exit_counters, trace_options.hot_mark, sizeof thread->exit_counters);
  }

  log(LEVEL_TRACE, "Traces start at: %p", static_cast<void*>(thread->trace_write_cursor));
  // The cache holds the copied stubs alone. They are cleared before any thread can branch to them: a new thread's first
  // instruction fetch of them comes after its creation, which synchronises its context.
  clear_instruction_cache(thread->code_cache, block_address(thread, thread->next_block));

  thread->status = THREAD_RUNNING;
  thread->dispatcher_stub_addr = stub_copy(thread, dispatcher_entry_stub);
  thread->syscall_wrapper_addr = stub_copy(thread, syscall_wrapper);
  log(LEVEL_TRACE, "Syscall wrapper addr: 0x%lx", thread->syscall_wrapper_addr);
  return nullptr;
}

void init_thread(thread_data* thread) {
  const char* missing = try_init_thread(thread);
  if (missing == nullptr) return;
  log(LEVEL_FATAL, "allocating %s space failed: %s; %s", missing, std::strerror(errno), THREAD_MEMORY_REMEDY);
}

void register_thread(thread_data* thread, bool lock_held) {
  if (!lock_held) owned_lock_take(&engine.thread_list_lock);
  thread->next = engine.thread_list;
  engine.thread_list = thread;
  deliver_thread_init(thread);
  if (!lock_held) owned_lock_leave(&engine.thread_list_lock);
}

int unregister_thread(thread_data* thread, bool lock_held) {
  int result = -1;
  if (!lock_held) owned_lock_take(&engine.thread_list_lock);
  for (thread_data** link = &engine.thread_list; *link != nullptr; link = &(*link)->next) {
    if (*link != thread) continue;
    *link = thread->next;
    deliver_thread_exit(thread);
    result = 0;
    break;
  }
  if (!lock_held) owned_lock_leave(&engine.thread_list_lock);
  return result;
}

namespace {

// Returns when the calling thread is the last one, all events but MORA_EXIT are delivered, and nobody else ends the
// process. `signum` is the signal that ends it; 0: none does.
void begin_end(thread_data* thread, std::int32_t signum) {
  owned_lock_take(&engine.thread_list_lock);
  const pid_t process = getpid();
  if (std::atomic_ref(engine.exit_flag).load(std::memory_order_relaxed) == 0 && signum != 0) note_ending_signal(signum);
  // Pairs with the loads in signal_dispatcher, deliver_pending_signal and syscall_handler_post: a thread that the
  // signal below reaches must find the flag set.
  if (std::atomic_ref(engine.exit_flag).exchange(1, std::memory_order_seq_cst) != 0) {
    // Another thread ends the process already and waits for this one. Two such threads would wait for each other.
    owned_lock_leave(&engine.thread_list_lock);
    abandon_thread(thread);
  }
  // Pairs with the fence in syscall_handler_post, between its store of the status and its load of the flag: a thread
  // that does not find the flag there is found running here.
  std::atomic_thread_fence(std::memory_order_seq_cst);
  block_handled_signals();
  // Each pause is twice as long as the one before: a thread that takes longer for a signal than the pause lasts would
  // make no progress between two signals.
  constexpr useconds_t longest_pause = 10000;
  useconds_t pause = 100;
  do {
    any_other_running(thread, [process](const thread_data* other) {
      raw_syscall(NR_TGKILL, static_cast<std::uint64_t>(process), static_cast<std::uint64_t>(other->tid), SIGILL);
    });
    owned_lock_leave(&engine.thread_list_lock);
    usleep(pause);
    pause = std::min(2 * pause, longest_pause);
    owned_lock_take(&engine.thread_list_lock);
    if (engine.thread_list == nullptr) break;
  } while (any_other_running(thread, [](const thread_data*) {}));

  for (thread_data* listed = engine.thread_list; listed != nullptr; listed = listed->next) deliver_thread_exit(listed);
  owned_lock_leave(&engine.thread_list_lock);
}

}  // namespace

void mora_terminate(thread_data* thread, std::int32_t status) {
  if (thread->is_vfork_child != 0) end_vfork_child(status);
  log(LEVEL_INFO, "we're done; exiting with status: %d", status);
  begin_end(thread, 0);
  deliver_exit(thread);
  std::exit(status);
}

bool is_process_ending(const thread_data* thread) {
  // The end of its parent's process is not the child's.
  return std::atomic_ref(engine.exit_flag).load(std::memory_order_seq_cst) != 0 && thread->is_vfork_child == 0;
}

void mora_terminate_by_signal(thread_data* thread, std::int32_t signum) {
  log(LEVEL_INFO, "we're done; ending by signal: %d", signum);
  begin_end(thread, signum);
  application_core core{};
  note_application_core(core);  // The tool's last steps go on with limits and in a folder of their own.
  deliver_exit(thread);
  end_by_signal(signum, core);
}

void abandon_thread(thread_data* thread) {
  // Release: pairs with the acquire in mora_terminate, which delivers this thread's thread_exit from another one.
  std::atomic_ref(thread->status).store(THREAD_ABANDONED, std::memory_order_release);
  pthread_exit(nullptr);
}

std::uint64_t* engine_stack_word(const thread_data* thread) {
  return reinterpret_cast<std::uint64_t*>(stub_copy(thread, word_engine_stack));
}

void free_thread_data(thread_data* thread) {
  // A record whose making failed lacks some of what follows.
  if (thread->code_cache != nullptr && munmap(thread->code_cache, whole_pages(CODE_CACHE_SIZE)) != 0) {
    log(LEVEL_FATAL, "Error freeing code cache on exit()");
  }
  if (thread->cc_link_pool != nullptr &&
      munmap(thread->cc_link_pool, whole_pages(linked_pool_bytes(LINK_POOL_CAPACITY))) != 0) {
    log(LEVEL_FATAL, "Error freeing CC link struct on exit()");
  }
  free_signal_stack(thread);
  robin_map_destroy(&thread->return_watch);
  if (munmap(thread, whole_pages(sizeof(thread_data))) != 0) {
    log(LEVEL_FATAL, "Error freeing thread private structure on exit()");
  }
}

}  // namespace ceilmeter
