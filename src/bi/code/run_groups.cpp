#include "bi/code/run_groups.h"

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/run_counter.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/scan_rules.h"
#include "bi/plugins/plugin_delivery.h"

namespace ceilmeter {

namespace {

run_record& record_of(thread_data* thread, std::int32_t id) { return thread->run_records[id - BB_COUNT]; }
const run_record& record_of(const thread_data* thread, std::int32_t id) { return thread->run_records[id - BB_COUNT]; }

// Whether ADRP reaches every record from everywhere in the cache: otherwise trampolines would be too long.
bool records_are_near(const thread_data* thread) {
  constexpr std::uint64_t reach = std::uint64_t{1} << 32;
  const std::uint64_t cache = address_of(thread->code_cache);
  const std::uint64_t first = address_of(thread->run_records);
  const std::uint64_t end = first + sizeof thread->run_records;
  const std::uint64_t low = first < cache ? first : cache;
  const std::uint64_t high = end > cache + CODE_CACHE_SIZE ? end : cache + CODE_CACHE_SIZE;
  constexpr std::uint64_t page = 4096;
  return high - low < reach - page;
}

constexpr std::uint32_t PUSH_X1_X30 = 0xa9bf7be1;  // stp x1, x30, [sp, #-16]!

bool is_clrex(std::uint32_t word) { return (word & 0xfffff0ff) == 0xd503305f; }

bool is_system_call(std::uint32_t word) { return (word & 0xffe0001f) == 0xd4000001; }

// Most words are of none of the kinds that matter to groups.
bool is_exclusive_or_system(std::uint32_t word) {
  const std::uint32_t top = word >> 24;
  return (top & 0x3f) == 0x08 || top == 0xd4 || top == 0xd5;
}

// Settles the records from the index on. A group does not reach over the end of a trace.
void settle_from(thread_data* thread, std::int32_t first) {
  std::uint64_t runs = 0;
  for (std::int32_t id = first; id < thread->run_scan.end; ++id) {
    run_record& record = record_of(thread, id);
    if (record.counter == nullptr) continue;
    if (record.begins_group != 0) {
      runs = record.passes;
      record.passes = 0;
    }
    if (runs != 0) *record.counter += runs;
    const std::int32_t trampoline = thread->metas[id].trampoline;
    if (trampoline == 0) continue;
    runs -= record_of(thread, trampoline).passes;
    record_of(thread, trampoline).passes = 0;
  }
}

}  // namespace

bool count_by_group(scan_state& state, std::uint32_t** write, std::uint64_t* counter) {
  thread_data* thread = state.thread;
  group_scan& scan = thread->run_scan;
  if (state.type == FRAGMENT_BLOCK || scan.counter != nullptr || scan.calls_functions != 0) return false;
  const std::uint32_t* first = thread->trace_fragment_start + (state.type == FRAGMENT_TRACE_HEAD ? 1 : 0);
  if (*write != first || thread->trace_fragment_overflow != 0 || state.starts_behind_store) return false;
  if (registered_plugins() != 1 || hears_of_words(state) || !records_are_near(thread)) return false;
  scan.counter = counter;
  if (scan.may_join == 0) put_run_counter(write, &record_of(thread, state.bb_id).passes);
  scan.behind_count = *write;
  return true;
}

void note_code_behind_count(scan_state& state) {
  group_scan& scan = state.thread->run_scan;
  if (scan.counter != nullptr && state.write != scan.behind_count) scan.ends_group = 1;
}

void look_for_group_end(scan_state& state) {
  thread_data* thread = state.thread;
  group_scan& scan = thread->run_scan;
  const auto count = static_cast<std::size_t>(state.read - state.source.first);
  if (count > state.source.count || thread->return_watch.count != 0) scan.ends_group = 1;
  for (std::size_t index = 0; index < count && index < state.source.count; ++index) {
    const std::uint32_t word = state.source.kept[index];
    if (!is_exclusive_or_system(word)) continue;
    if (is_load_exclusive(word)) scan.is_exclusive = 1;
    if (is_store_exclusive(word) || is_clrex(word)) scan.is_exclusive = 0;
    if (is_invalidation(word) || is_system_call(word)) scan.ends_group = 1;
  }
  // A CB<cc> would not reach far enough.
  const bool reaches = thread->metas[state.bb_id].exit_kind != EXIT_COMPARE;
  if (!reaches || scan.is_exclusive != 0 || scan.calls_functions != 0) scan.ends_group = 1;
}

void begin_groups(thread_data* thread) {
  const std::int32_t first = thread->trace_id;
  const std::int32_t end = thread->run_scan.end;
  settle_from(thread, first);
  for (std::int32_t id = first; id < end; ++id) record_of(thread, id) = {};
  if (end > first) thread->run_scan.end = first;
  thread->run_scan.may_join = 0;
  thread->run_scan.is_exclusive = 0;
}

void join_group(thread_data* thread, std::int32_t id) {
  group_scan& scan = thread->run_scan;
  record_of(thread, id) = {0, scan.counter, scan.counter != nullptr && scan.may_join == 0 ? 1U : 0U};
  if (scan.counter != nullptr && scan.may_join != 0) --*scan.counter;  // Its snippet counts its first run.
  scan.may_join = scan.counter != nullptr && scan.ends_group == 0 ? 1 : 0;
  if (scan.counter != nullptr) scan.end = id + 1;
}

bool is_member(const thread_data* thread, std::int32_t id) {
  const run_record& record = record_of(thread, id);
  return record.counter != nullptr && record.begins_group == 0;
}

std::uint64_t* counter_of_member(const thread_data* thread, std::int32_t id) {
  return is_member(thread, id) ? record_of(thread, id).counter : nullptr;
}

const std::uint64_t* add_trampoline(thread_data* thread, std::int32_t id) {
  record_of(thread, id) = {};
  thread->run_scan.end = id + 1;
  return &record_of(thread, id).passes;
}

void settle_runs(thread_data* thread) { settle_from(thread, BB_COUNT); }

void left_trace(thread_data* thread, std::uint64_t place) {
  if (!is_in_traces(thread, place)) return;
  std::int32_t id = addr_to_fragment_id(thread, place);
  if (id < BB_COUNT) return;
  const std::uint64_t code = thread->metas[id].cache_entry;
  if (thread->metas[id].exit_kind == EXIT_TRACE) {
    // The push of its counter. Behind that it has counted, or will.
    if (!is_counting_trampoline(thread->metas[id]) || place != code) return;
    const std::int32_t trampoline = id--;
    while (id > BB_COUNT && thread->metas[id].trampoline != trampoline) --id;
  } else if (record_of(thread, id).begins_group != 0 && place <= code + ENTRY_WORD_SIZE) {
    // At the push of its counter the leader has not been counted, and the group before it has ended.
    if (*reinterpret_cast<const std::uint32_t*>(place) == PUSH_X1_X30) return;
  }
  for (++id; id < thread->run_scan.end && is_member(thread, id); ++id) --*record_of(thread, id).counter;
}

void forget_runs(thread_data* thread) { thread->run_scan.end = 0; }

bool stop_grouping(thread_data* thread) {
  thread->run_scan.calls_functions = 1;
  return thread->run_scan.end != 0;
}

}  // namespace ceilmeter
