// The tracer's state and the handlers that change it. Nothing here runs per execution of a block. A flush of the
// counters costs two passes over the thread's blocks and, for each that was counted, a look-up in the region's table.
#include "bintracer/bintracer.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include "bi/plugin.h"
#include "bintracer/bintracer_finalizer.h"
#include "bintracer/bintracer_plugin.h"
#include "collector_config.h"
#include "common/log.h"
#include "instruction_finder.h"
#include "shared_names.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/bintracer/bintracer"};

void raise_to(std::atomic<std::uint64_t>& maximum, std::uint64_t value) {
  std::uint64_t seen = maximum.load(std::memory_order_relaxed);
  while (seen < value && !maximum.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
  }
}

region_bbs* find_region(std::vector<region_bbs>& regions, const std::string& name) {
  for (region_bbs& region : regions) {
    if (region.name == name) return &region;
  }
  return nullptr;
}

// Different blocks may have the same key, but hardly ever do.
std::uint64_t place_key(const bb_record& record) {
  return record.start ^ reinterpret_cast<std::uint64_t>(record.code) << 16;
}

bb_record* find_linearly(std::vector<bb_record>& bbs, const bb_record& record) {
  const auto known =
      std::find_if(bbs.begin(), bbs.end(), [&](const bb_record& one) { return is_same_block(one, record); });
  return known != bbs.end() ? &*known : nullptr;
}

bb_record* find_record(region_bbs& region, const bb_record& record) {
  constexpr std::size_t few = 32;
  if (region.bbs.size() < few) return find_linearly(region.bbs, record);
  for (; region.placed < region.bbs.size(); ++region.placed) {
    region.places.insert(place_key(region.bbs[region.placed]), static_cast<std::uint32_t>(region.placed));
  }
  const std::uint32_t* place = region.places.find(place_key(record));
  if (place == nullptr) return nullptr;
  bb_record& found = region.bbs[*place];
  return is_same_block(found, record) ? &found : find_linearly(region.bbs, record);
}

// If there is a record of the same block, only its count grows: it keeps its end.
void add_record(region_bbs& region, const bb_record& record) {
  if (bb_record* known = find_record(region, record)) {
    known->count += record.count;
  } else {
    region.bbs.push_back(record);
  }
}

}  // namespace

bintracer_t::bintracer_t(exit_callback on_exit, std::uint32_t run_mode) : mode(run_mode) {
  log(LEVEL_INFO, "Launch bintracer_ctor");
  register_callbacks(*this, on_exit);
  watch_by_name("dummy_func_to_disable_roofline_events", {pre_dummy_func_cb, nullptr});
  if (mode == MODE_TOTAL) return;
  watch_by_name("start_perf_roofline_events", {pre_start_roofline_cb, nullptr});
  watch_by_name("stop_perf_roofline_events", {pre_stop_roofline_cb, nullptr});
}

bintracer_t::~bintracer_t() {
  while (thread_infos != nullptr) delete std::exchange(thread_infos, thread_infos->next);
}

void bintracer_t::watch_by_name(std::string name, watch_callbacks callbacks) {
  function_symbol_only(name.c_str());
  if (!named_callbacks.insert(std::move(name), callbacks).second) {
    throw std::runtime_error("register callback on one name was called twice\n");
  }
}

void bintracer_t::add_watched_function(std::uint64_t address, const watch_callbacks& callbacks) {
  const std::unique_lock lock(watched_functions_lock);
  watched_functions.insert(address, callbacks);
}

watch_callbacks bintracer_t::find_watched_function(std::uint64_t address) const {
  const std::shared_lock lock(watched_functions_lock);
  const watch_callbacks* found = watched_functions.find(address);
  return found != nullptr ? *found : watch_callbacks{};
}

void bintracer_t::collect(int argc, char** argv, char** envp) {
  log(LEVEL_INFO, "running application: %s", argv[0]);
  mora_run(argc, argv, envp);
  log(LEVEL_WARN, "Error when run mora_run\n");
  std::terminate();
}

bintracer_report bintracer_t::get_report() {
  static bool has_run = false;
  if (has_run) {
    log(LEVEL_WARN, "Bintracer's get_report method was called early, it is forbidden to call this method twice");
    return {};
  }
  has_run = true;
  instruction_finder finder;
  return finalize(finder, *this, max_thread_count.load(std::memory_order_relaxed));
}

void bintracer_t::init_thread(bintracer_thread& thread) {
  thread.tracer = this;
  // In region mode a thread counts nothing before it starts a region itself, even if its creator is in one.
  if (mode == MODE_TOTAL) thread.enable_basic_block_count = 1;
  thread.region = total_region_name;
  {
    auto info = std::make_unique<thread_info>();
    info->tid = thread.tid;
    const std::lock_guard lock(thread_infos_lock);
    info->next = thread_infos;
    thread.info = thread_infos = info.release();
  }
  const std::uint64_t count = thread_count.fetch_add(1, std::memory_order_relaxed) + 1;
  log(LEVEL_INFO, "init_thread, thread_count is %lu", count);
}

void bintracer_t::finish_thread(bintracer_thread& thread) {
  log(LEVEL_INFO, "finish_thread, max_thread_count is %lu", max_thread_count.load(std::memory_order_relaxed));
  flush_counters(thread);
  const std::uint64_t alive = thread_count.fetch_sub(1, std::memory_order_relaxed);
  raise_to(max_thread_count, static_cast<std::uint32_t>(alive));
}

void bintracer_t::flush_counters(bintracer_thread& thread) {
  std::size_t count = 0;
  thread.blocks.for_each([&count](const bb_record& record) { count += record.count != 0 ? 1 : 0; });
  if (count == 0) return;
  std::vector<bb_record> counted;
  counted.reserve(count);
  thread.blocks.for_each([&counted](bb_record& record) {
    if (record.count == 0) return;
    counted.push_back(record);
    record.count = 0;
  });
  region_bbs* region = find_region(thread.info->regions, thread.region);
  if (region == nullptr) {
    thread.info->regions.push_back({thread.region, std::move(counted), {}, 0});
    return;
  }
  for (const bb_record& record : counted) add_record(*region, record);
}

void bintracer_t::pre_start_roofline_handler(const char* name, bintracer_thread& thread) {
  {
    std::shared_lock lock(region_threads_lock);
    region_activity* activity = region_threads.find(name);
    if (activity == nullptr) {
      lock.unlock();
      {
        const std::unique_lock insertion(region_threads_lock);
        region_threads.insert(name, {});
      }
      lock.lock();
      activity = region_threads.find(name);
    }
    activity->active.fetch_add(1, std::memory_order_relaxed);
  }
  log(LEVEL_INFO, "pre_start_roofline_handler: %s", name);
  // No flush is needed: a counter holds only what was counted since the last stop.
  thread.region = name;
  thread.enable_basic_block_count = 1;
}

void bintracer_t::pre_stop_roofline_handler(const char* name, bintracer_thread& thread) {
  log(LEVEL_INFO, "pre_stop_roofline_handler: %s", name);
  if (thread.region != name) {
    log(LEVEL_WARN, "pre_stop_roofline_handler: current region %s doesn't match %s", thread.region.c_str(), name);
  }
  {
    const std::shared_lock lock(region_threads_lock);
    // A stop without a start finds no entry.
    if (region_activity* activity = region_threads.find(thread.region)) {
      raise_to(activity->max_active, activity->active.fetch_sub(1, std::memory_order_relaxed));
    }
  }
  flush_counters(thread);
  thread.region = total_region_name;
  thread.enable_basic_block_count = 0;
}

std::uint64_t bintracer_t::max_active_threads(std::string_view region) const {
  const region_activity* activity = region_threads.find(region);
  return activity != nullptr ? activity->max_active.load(std::memory_order_relaxed) : 0;
}

}  // namespace ceilmeter
