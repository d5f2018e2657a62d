// The tracer counts how often each basic block of the application ran, per region and thread. It runs the application
// in this process under the instrumentation engine and plants a counter in every block that the engine translates (see
// bintracer_plugin.h). It does not look at instructions. When the application has ended, the finalizer finds out from
// the module files which of the counted blocks were floating-point work. Of code that the application has generated,
// which is in no file, the instructions are kept.
//
// A region is a name that the application gives by start_perf_roofline_events, or "total". A process has one tracer,
// and the callbacks find it as their plug-in's data.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

#include "flat_table.h"
#include "bintracer/block_store.h"
#include "bintracer/generated_code.h"
#include "mappings.h"
#include "report.h"

namespace ceilmeter {

struct mora_context;

// What was counted in one region by one thread. A block is in `bbs` once.
struct region_bbs {
  std::string name;
  std::vector<bb_record> bbs;
  // Where in `bbs` each block is, for a region that the thread has left more than once and that has many. The first
  // `placed` of them are entered.
  flat_table<std::uint64_t, std::uint32_t> places;
  std::size_t placed = 0;
};

// What a thread leaves behind. `regions` is in order of first flush.
struct thread_info {
  thread_info* next = nullptr;
  std::uint32_t tid = 0;
  std::vector<region_bbs> regions;
};

class bintracer_t;

// A thread's data while it lives. It belongs to its thread alone. Only the thread's own code cache holds the addresses
// of `enable_basic_block_count` and of the counters, so plain words are enough.
struct bintracer_thread {
  std::uint32_t parent_tid = 0;  // For whoever looks at it in a debugger.
  std::uint32_t tid = 0;
  std::string region;                          // "total" when the thread is in none.
  std::uint64_t enable_basic_block_count = 0;  // 0 or 1: what an execution of a block adds to its counter.
  block_store blocks;                          // Every block that the thread has translated.
  bb_record* current_bb = nullptr;             // The block under translation.
  recent_segment segment;                      // Of the latest block of a file.
  thread_info* info = nullptr;
  bintracer_t* tracer = nullptr;  // For the handlers of the region interface, which have no context.
};

// What to do at a watched function. Called while the function's entry is translated; `post` is the other member.
struct watch_callbacks {
  using callback = int (*)(mora_context* ctx, const watch_callbacks& watched);
  callback pre = nullptr;
  callback post = nullptr;
};

// How many threads are in a region. The counters change under the read side of region_threads_lock. The record itself
// moves with the table's other records, under the write side.
struct region_activity {
  std::atomic<std::uint64_t> active{0};
  std::atomic<std::uint64_t> max_active{0};  // Highest value of `active` at a stop.

  region_activity() = default;
  region_activity(region_activity&& other) noexcept { take(other); }
  region_activity& operator=(region_activity&& other) noexcept {
    take(other);
    return *this;
  }

 private:
  void take(const region_activity& other) {
    active.store(other.active.load(std::memory_order_relaxed), std::memory_order_relaxed);
    max_active.store(other.max_active.load(std::memory_order_relaxed), std::memory_order_relaxed);
  }
};

class alignas(64) bintracer_t : public mappings_t {
 public:
  using exit_callback = std::uint64_t (*)(std::uint64_t, std::uint64_t);

  // Registers with the engine. `mode` is MODE_REGION or MODE_TOTAL. When all threads of the application have ended,
  // `on_exit` runs once, on the thread that ends it.
  bintracer_t(exit_callback on_exit, std::uint32_t mode);
  ~bintracer_t();

  // Runs the application in this process. Does not return: the process ends with the application's status.
  [[noreturn]] void collect(int argc, char** argv, char** envp);

  // What was counted, per region. Call it once, when all threads have ended. A second call warns and gives an empty
  // report.
  bintracer_report get_report();

  // A thread's beginning and end, on the thread itself. The second also runs on the thread that ends the process, for
  // the threads that are left. Neither waits for an application thread, because the engine's thread list is locked
  // around them.
  void init_thread(bintracer_thread& thread);
  void finish_thread(bintracer_thread& thread);

  // The thread enters or leaves the region `name`. Regions don't nest. After two starts, everything since the first one
  // belongs to the second name, and the next stop, whatever its name, closes it.
  void pre_start_roofline_handler(const char* name, bintracer_thread& thread);
  void pre_stop_roofline_handler(const char* name, bintracer_thread& thread);

  // The record of a block of generated code. Any thread.
  const generated_code* keep_code(std::uint64_t start, const std::uint32_t* words, std::size_t count) {
    return kept_code.keep(start, words, count);
  }

  // Has functions of this name watched. Before the engine runs. Throws std::runtime_error if the name is known already.
  void watch_by_name(std::string name, watch_callbacks callbacks);

  // What a function of this name is to be watched for; null if it is not.
  const watch_callbacks* find_named_callbacks(std::string_view name) const { return named_callbacks.find(name); }
  // From now on the function at `address` is watched. An address that is known already keeps what it has.
  // Any thread.
  void add_watched_function(std::uint64_t address, const watch_callbacks& callbacks);
  // A copy, without callbacks if the function is not watched: another thread's insertion may move the table's records.
  // Any thread.
  watch_callbacks find_watched_function(std::uint64_t address) const;

  std::uint32_t get_mode() const { return mode; }

  // Highest number of threads that a region had at a stop; 0 for a name that was never started.
  std::uint64_t max_active_threads(std::string_view region) const;

  // The signal by which the application has ended; 0: it has exited.
  void note_ending_signal(std::int32_t signum) { ending_signal = signum; }
  std::int32_t get_ending_signal() const { return ending_signal; }

  // What the threads have left behind, newest thread first. Call it when all have ended.
  const thread_info* first_thread_info() const { return thread_infos; }

 private:
  static void flush_counters(bintracer_thread& thread);

  generated_code_store kept_code;
  mutable std::shared_mutex region_threads_lock;
  flat_table<std::string, region_activity> region_threads;
  flat_table<std::string, watch_callbacks> named_callbacks;  // Only read when the application runs.
  // Written when a thread maps a module, while others translate the entries of functions.
  mutable std::shared_mutex watched_functions_lock;
  flat_table<std::uint64_t, watch_callbacks> watched_functions;  // Under it.
  std::atomic<std::uint64_t> thread_count{0};                    // Application threads alive now.
  std::atomic<std::uint64_t> max_thread_count{0};  // Highest of those that were alive when one of them ended.
  thread_info* thread_infos = nullptr;             // Owned.
  std::mutex thread_infos_lock;                    // Guards the push onto thread_infos.
  std::int32_t ending_signal = 0;
  std::uint32_t mode;
};

}  // namespace ceilmeter
