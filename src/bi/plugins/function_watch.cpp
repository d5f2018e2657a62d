// The table of watched functions and the code that the scanner writes for them.
#include "bi/plugins/function_watch.h"

#include <libelf.h>

#include <algorithm>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/code_writer.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/scanner.h"
#include "common/log.h"
#include "elf/symbol_parser.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/function_watch"};

constexpr std::uint32_t RET_X30 = 0xd65f03c0;

std::uint64_t watch_of_function(std::uint64_t function) {
  if (!are_functions_watched()) return 0;
  owned_lock_take(&engine.function_watch_lock);
  const void* watch = robin_map_lookup(&engine.function_watches, function);
  owned_lock_leave(&engine.function_watch_lock);
  return address_of(watch);
}

// Pushes x0 and x1, and loads x1 with the address of return_stack_top and x0 with its value.
void begin_return_stack(thread_data* thread, code_writer code) {
  code.push(x0, x1);
  code.load_const(x1, address_of(&thread->return_stack_top));
  code.ldr(x0, at(x1));
}

void end_return_stack(code_writer code) {
  code.str(x0, at(x1));
  code.pop(x0, x1);
}

void put_entry_code(thread_data* thread, code_writer code, std::uint64_t watch) {
  begin_return_stack(thread, code);
  code.str(x30, pre_index(x0, 8));
  end_return_stack(code);
  code.load_const(x30, watch);
}

void put_return_code(thread_data* thread, code_writer code) {
  begin_return_stack(thread, code);
  code.ldr(x30, post_index(x0, -8));
  end_return_stack(code);
}

return_watch load(const void* value) {
  return_watch loaded;
  std::memcpy(&loaded, value, sizeof loaded);
  return loaded;
}

void store(void* value, const return_watch& changed) { std::memcpy(value, &changed, sizeof changed); }

void skip_entry_code(const return_watch& watch) {
  auto* word = reinterpret_cast<std::uint32_t*>(watch.entry_begin);
  std::uint32_t* branch = word;
  code_writer{branch}.b(watch.entry_end);
  // Only this word changes. Only this thread runs it, and the thread is in the scanner, outside the cache.
  clear_instruction_cache(word, word + 1);
}

// The map's buckets are on the heap. A thread that meets no watched function, as a child in its parent's memory never
// does, has none.
robin_insert_result note_return(thread_data* thread, std::uint64_t watch, const return_watch& entry, void** value) {
  mora_enter_callback();
  robin_map& map = thread->return_watch;
  const bool is_there = map.buckets != nullptr || robin_map_init(&map, sizeof(return_watch));
  const robin_insert_result result = is_there ? robin_map_insert(&map, watch, &entry, value) : ROBIN_FAILED;
  mora_leave_callback();
  return result;
}

void reserve_exit_space(scan_state& state) {
  a64_reserve_block_space(state.thread, &state.write, &state.limit, EXIT_SPACE);
}

// A flush in the middle of a scan hands blocks out from the start again. The block that is being scanned still has to
// run once and may lie there. So the next blocks come behind the place that the scan has reached. A trace's fragment
// lies in no block.
void flush_during_scan(scan_state& state) {
  flush_code_cache(state.thread);
  if (state.type != FRAGMENT_BLOCK) return;
  const std::int32_t current = cc_addr_to_bb_id(state.thread, address_of(state.limit) - 1);
  state.thread->next_block = std::max(state.thread->next_block, current + 1);
}

}  // namespace

int function_watch_add_named(std::uint64_t address, const char* name) {
  function_watch record{};
  record.code = RET_X30;
  if (name != nullptr) std::strncpy(record.name, name, sizeof record.name - 1);

  owned_lock_take(&engine.function_watch_lock);
  void* stored = nullptr;
  const robin_insert_result result = robin_map_insert(&engine.function_watches, address, &record, &stored);
  if (result == ROBIN_FAILED) log(LEVEL_FATAL, "no memory left for the watch of the function at 0x%lx", address);
  ++static_cast<function_watch*>(stored)->refcount;
  owned_lock_leave(&engine.function_watch_lock);
  return result == ROBIN_ADDED ? 1 : 0;
}

int function_watch_add(std::uint64_t address) { return function_watch_add_named(address, nullptr); }

void tell_plugins_of_mapped_file(std::int32_t fd, std::uint64_t addr) {
  mora_enter_callback();  // The ELF library is on the heap as plug-ins are.
  if (Elf* elf = elf_begin(fd, ELF_C_READ, nullptr); elf != nullptr) {
    function_watch_parse_elf(elf, addr);
    elf_end(elf);
  }
  mora_leave_callback();
}

bool is_watched_function(const std::uint32_t* read_address) {
  if (!is_event_bound(MORA_PRE_FUNCTION) && !is_event_bound(MORA_POST_FUNCTION)) return false;
  return watch_of_function(address_of(read_address)) != 0;
}

void put_function_entry(scan_state& state, const std::uint32_t* read_address) {
  // If nobody is told of returns, leave the return address alone: code that looks at it then finds the true one.
  const bool returns_are_watched = is_event_bound(MORA_POST_FUNCTION);
  if (!returns_are_watched && !is_event_bound(MORA_PRE_FUNCTION)) return;
  const std::uint64_t function = address_of(read_address);
  const std::uint64_t watch = watch_of_function(function);
  if (watch == 0) return;
  deliver_function_event(state, MORA_PRE_FUNCTION, function);
  if (!returns_are_watched) return;

  return_watch entry = {function, 0, 0};
  void* value = nullptr;
  const robin_insert_result result = note_return(state.thread, watch, entry, &value);
  if (result == ROBIN_FAILED) return;
  // The record served another function before, which has been unmapped since, and the block that was made of the record
  // served it too.
  if (result == ROBIN_EXISTS && load(value).function != function) flush_during_scan(state);

  reserve_exit_space(state);
  entry.entry_begin = address_of(state.write);
  put_entry_code(state.thread, code_writer{state.write}, watch);
  entry.entry_end = address_of(state.write);
  // A trace's copy is not noted. A trace that is never finished leaves its place to another trace, and skip_entry_code
  // would write its branch into that trace's code.
  if (state.type == FRAGMENT_BLOCK) store(value, entry);
  reserve_exit_space(state);
}

void put_function_return(scan_state& state, const std::uint32_t* read_address) {
  if (state.thread->return_watch.count == 0) return;
  void* value = robin_map_lookup(&state.thread->return_watch, address_of(read_address));
  if (value == nullptr) return;

  put_return_code(state.thread, code_writer{state.write});
  reserve_exit_space(state);
  const std::uint32_t* before = state.write;
  deliver_function_event(state, MORA_POST_FUNCTION, load(value).function);
  return_watch watch = load(value);
  if (state.write != before || watch.entry_begin == 0) return;
  skip_entry_code(watch);
  watch.entry_begin = 0;
  store(value, watch);
}

void forget_function_entries(thread_data* thread) {
  if (thread->return_watch.count == 0) return;
  for (robin_bucket* bucket = robin_map_oldest(&thread->return_watch); bucket != nullptr;
       bucket = robin_map_newer(&thread->return_watch, bucket)) {
    return_watch watch = load(bucket->value);
    watch.entry_begin = 0;
    store(bucket->value, watch);
  }
}

}  // namespace ceilmeter
