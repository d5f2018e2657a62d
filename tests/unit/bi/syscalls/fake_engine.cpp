// What the handlers call of the engine. Calls are noted, or answered as the test says; threads and memory are real.
#include "fake_engine.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "bi/code/code_cache.h"
#include "bi/code/run_groups.h"
#include "bi/code/drop_range.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signal_stack.h"
#include "bi/signals/signals.h"
#include "bi/signals/turns.h"
#include "bi/code/stubs.h"
#include "bi/kernel/threads.h"

extern "C" {
int __real_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*start)(void*), void* argument);
int __wrap_pthread_create(pthread_t* handle, const pthread_attr_t* attributes, void* (*start)(void*), void* argument) {
  if (attributes != nullptr) {
    auto& given = ceilmeter::test::fake.given_attributes;
    pthread_attr_getstacksize(attributes, &given.stack_size);
    pthread_attr_getguardsize(attributes, &given.guard_size);
    pthread_attr_getdetachstate(attributes, &given.detach_state);
    pthread_attr_getinheritsched(attributes, &given.scheduling);
  }
  if (ceilmeter::test::fake.pthread_create_error != 0) return ceilmeter::test::fake.pthread_create_error;
  return __real_pthread_create(handle, attributes, start, argument);
}
void fake_block();
void fake_thread_body(const std::uint64_t* entry) {
  ceilmeter::test::fake.thread_body(entry);
  std::abort();  // A thread's body ends the thread.
}
}

namespace ceilmeter {

engine_globals engine;
thread_local thread_data* current_thread = nullptr;

using test::fake;

std::uint64_t page_size() { return fake.page; }

namespace {

constexpr std::size_t STUBS_SIZE = 0x2000;

// A copy of the stubs, through which a new thread leaves its parent's call.
std::uint8_t* make_stubs(const thread_data* record) {
  void* mapping = mmap(nullptr, STUBS_SIZE, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto* stubs = static_cast<std::uint8_t*>(mapping);
  std::memcpy(stubs, stub_text, stub_offset(stub_text_end));
  const std::uint64_t counter = address_of(&record->pending_signal_count);
  std::memcpy(stubs + stub_offset(word_pending_signal_count), &counter, sizeof counter);
  __builtin___clear_cache(reinterpret_cast<char*>(stubs), reinterpret_cast<char*>(stubs + STUBS_SIZE));
  return stubs;
}

}  // namespace

bool allocate_thread_data(thread_data** out) {
  if (fake.refuses_record) {
    errno = ENOMEM;
    return false;
  }
  void* mapping = mmap(nullptr, sizeof(thread_data), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return false;
  *out = static_cast<thread_data*>(mapping);
  (*out)->code_cache = make_stubs(*out);
  return true;
}

std::uint64_t* engine_stack_word(const thread_data* thread) {
  return reinterpret_cast<std::uint64_t*>(thread->code_cache + stub_offset(word_engine_stack));
}

bool is_process_ending(const thread_data*) { return engine.exit_flag != 0; }

const char* try_init_thread(thread_data* thread) {
  if (fake.missing_memory == nullptr && map_signal_stack(thread)) return nullptr;
  errno = EACCES;
  return fake.missing_memory;
}

void free_thread_data(thread_data* thread) {
  ++fake.records_freed;
  munmap(thread->code_cache, STUBS_SIZE);
  free_signal_stack(thread);
  munmap(thread, sizeof(thread_data));
}

void register_thread(thread_data* thread, bool lock_held) {
  if (!lock_held) owned_lock_take(&engine.thread_list_lock);
  thread->next = engine.thread_list;
  engine.thread_list = thread;
  ++fake.threads_registered;
  if (!lock_held) owned_lock_leave(&engine.thread_list_lock);
}

int unregister_thread(thread_data* thread, bool lock_held) {
  if (!lock_held) owned_lock_take(&engine.thread_list_lock);
  for (thread_data** link = &engine.thread_list; *link != nullptr; link = &(*link)->next) {
    if (*link != thread) continue;
    *link = thread->next;
    break;
  }
  if (!lock_held) owned_lock_leave(&engine.thread_list_lock);
  return 0;
}

bool drop_fragments(thread_data* thread, std::uint64_t, std::uint64_t) {
  flush_code_cache(thread);
  return true;
}

void settle_runs(thread_data*) {}
void forget_runs(thread_data*) {}

void flush_code_cache(thread_data* thread) {
  ++fake.flushes;
  thread->flush_seen = 1;
  fake.flushed = thread;
}

std::uint64_t scan(thread_data*, std::uint64_t, std::int32_t) {
  return reinterpret_cast<std::uint64_t>(reinterpret_cast<void*>(fake_block));
}

std::uint64_t lookup_or_scan(thread_data*, std::uint64_t source) { return test::cache_of(source); }

std::uint64_t hash_lookup_entry(const thread_data*, std::uint64_t) { return HASH_MISS; }

void tell_plugins_of_mapped_file(std::int32_t, std::uint64_t) {}

// No signals are held back here, and no thread waits for a turn.
std::uint64_t block_for_clone(thread_data*) { return block_all_signals(); }
void return_to_mask(thread_data*, const ucontext_t*) {}
std::int64_t change_application_mask(thread_data*, const std::uint64_t*) { std::abort(); }
void note_handler_return(thread_data*, std::uint64_t) {}
bool begin_call_in_turn(thread_data*, std::uint64_t) { return false; }
void delete_interrupter(thread_data*) {}
bool has_to_visit_engine(thread_data*) { return false; }

bool has_deliverable_signal(thread_data*) { return fake.signal_is_deliverable; }

void mora_terminate(thread_data*, std::int32_t status) { throw test::process_ended{status}; }
void abandon_thread(thread_data*) { throw test::thread_abandoned{}; }

void context_redirect_to_dispatcher(thread_data*, void* ucontext, std::uint64_t target) {
  fake.redirect_context = ucontext;
  fake.redirect_target = target;
}

extern "C" {
thread_local std::uint64_t guarded_return_address = 0;
thread_local std::uint64_t guarded_engine_stack = 0;
void dispatcher(std::uint64_t, std::int32_t, std::uint64_t*, thread_data*) { std::abort(); }
void create_trace(thread_data*, std::int32_t, std::uint64_t*) { std::abort(); }
std::uint64_t deliver_pending_signal(std::uint64_t, std::uint64_t*) { std::abort(); }
void signal_dispatcher(signal_frame*, std::uint64_t, std::uint64_t) { std::abort(); }
}

namespace test {

fake_engine_state fake;

syscalls_test::syscalls_test()
    : frame{}, args(reinterpret_cast<std::uint64_t*>(frame + STUB_SIMD_REGS_SIZE)), thread(nullptr) {
  fake = {};
  fake.page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  engine = {};
  owned_lock_init(&engine.thread_list_lock);
  owned_lock_init(&engine.signal_handlers_lock);
  owned_lock_init(&engine.brk_lock);
  owned_lock_init(&engine.function_watch_lock);
  interval_map_init(&engine.exec_ranges, EXEC_RANGES_CAPACITY);
  owned_lock_init(&engine.code_epoch_lock);
  interval_map_init(&engine.attached_segments, EXEC_RANGES_CAPACITY);
  owned_lock_init(&engine.mapping_lock);
  robin_map_init(&engine.function_watches, 264);
  allocate_thread_data(&thread);
  map_signal_stack(thread);
  thread->tid = gettid();
  engine.thread_list = thread;
  current_thread = thread;
  alarm(120);  // A handler that waits for a lock for ever ends the test.
}

syscalls_test::~syscalls_test() {
  alarm(0);
  current_thread = nullptr;
  munmap(thread->code_cache, STUBS_SIZE);
  leave_signal_stack();
  free_signal_stack(thread);
  munmap(thread, sizeof(thread_data));
  robin_map_destroy(&engine.function_watches);
  interval_map_delete(&engine.exec_ranges, 0, ~std::uint64_t{0});
}

std::uint64_t* syscalls_test::with_args(const std::vector<std::uint64_t>& values) {
  for (std::size_t index = 0; index < 8; ++index) args[index] = index < values.size() ? values[index] : 0;
  return args;
}

std::int64_t syscalls_test::handled(std::uint64_t number, const std::vector<std::uint64_t>& values) {
  thread->status = THREAD_RUNNING;  // Whatever call was made before has come back.
  EXPECT_EQ(syscall_handler_pre(number, with_args(values), next_inst, thread), 0u)
      << "call " << number << " is to be made";
  EXPECT_EQ(thread->status, THREAD_RUNNING);
  return static_cast<std::int64_t>(args[0]);
}

void syscalls_test::expect_made(std::uint64_t number, const std::vector<std::uint64_t>& values) {
  thread->status = THREAD_RUNNING;  // Whatever call was made before has come back.
  EXPECT_EQ(syscall_handler_pre(number, with_args(values), next_inst, thread), 1u)
      << "call " << number << " is handled";
  EXPECT_EQ(thread->status, THREAD_IN_SYSCALL);
}

bool is_readable_memory(std::uint64_t address) {
  int ends[2];
  if (pipe(ends) != 0) return false;
  const bool readable = write(ends[1], reinterpret_cast<const void*>(address), 1) == 1;
  close(ends[0]);
  close(ends[1]);
  return readable;
}

std::string permissions_at(std::uint64_t address) {
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    unsigned long start = 0;
    unsigned long end = 0;
    char permissions[8] = "";
    if (std::sscanf(line.c_str(), "%lx-%lx %7s", &start, &end, permissions) == 3 && address >= start && address < end) {
      return permissions;
    }
  }
  return "";
}

std::int64_t resident_kib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

std::int64_t mapped_kib() {
  std::ifstream maps("/proc/self/maps");
  std::uint64_t bytes = 0;
  for (std::string line; std::getline(maps, line);) {
    unsigned long start = 0;
    unsigned long end = 0;
    char readable = '-';
    if (std::sscanf(line.c_str(), "%lx-%lx %c", &start, &end, &readable) == 3 && readable == 'r') bytes += end - start;
  }
  return static_cast<std::int64_t>(bytes / 1024);
}

bool is_emulated() { return raw_syscall(SYS_set_robust_list, 0, 0) == -ENOSYS; }

int open_descriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

int live_threads() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

}  // namespace test
}  // namespace ceilmeter
