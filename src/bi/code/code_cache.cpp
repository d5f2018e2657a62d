// The life of fragments: allocation, lookup, first scan and flush, and what a cache address belongs to. The scanner
// decides what a fragment contains, the dispatcher how control gets from one to the next.
#include "bi/code/code_cache.h"

#include <algorithm>
#include <cstring>

#include "bi/a64/helpers.h"
#include "bi/code/code_words.h"
#include "bi/code/dispatcher.h"
#include "bi/code/drop_range.h"
#include "bi/plugins/function_watch.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/run_groups.h"
#include "bi/code/scanner.h"
#include "bi/code/source_map.h"
#include "bi/code/stubs.h"
#include "bi/code/traces.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/code_cache"};

}  // namespace

std::int32_t stub_block_count() {
  return static_cast<std::int32_t>((stub_offset(stub_text_end) + BB_SIZE - 1) / BB_SIZE);
}

std::uint8_t* block_address(const thread_data* thread, std::int32_t bb_id) {
  return thread->code_cache + std::size_t{BB_SIZE} * static_cast<std::size_t>(bb_id);
}

void start_without_fragments(thread_data* thread) {
  thread->flush_seen = 1;
  thread->next_block = stub_block_count();
  thread->trace_write_cursor = thread->code_cache + BB_AREA_SIZE;
  thread->trace_id = BB_COUNT;
  thread->active_trace.id = BB_COUNT;
  // A trace under construction is given up: its exits lead to blocks that are forgotten.
  if (thread->active_trace.active != 0) count_trace_event(trace_counts.flushed);
  thread->active_trace.active = 0;
  settle_runs(thread);
  deliver_flush();
}

namespace {

bool has_free_block(const thread_data* thread) { return thread->next_block <= BB_FLUSH_THRESHOLD; }

void flush_full_cache(thread_data* thread) {
  log(LEVEL_TRACE, "code cache full, flushing it");
  flush_code_cache(thread);
}

}  // namespace

std::int32_t allocate_bb(thread_data* thread) {
  if (!has_free_block(thread)) flush_full_cache(thread);
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
  forget_noted_fragments(thread);
  linked_pool_init(thread->cc_link_pool, LINK_POOL_CAPACITY);
  start_without_fragments(thread);
}

std::uint64_t stub_bb(thread_data* thread, std::uint64_t source) {
  // A full table is flushed before the block gets its index; `scan` does the same.
  if (!hash_has_room(&thread->entry_table.table, source)) flush_code_cache(thread);
  const std::int32_t bb_id = allocate_bb(thread);
  const std::uint64_t address = make_stub_block(thread, bb_id, source);
  enter_block(thread, source, bb_id);
  return address;
}

void enter_block(thread_data* thread, std::uint64_t key, std::int32_t bb_id) {
  if (hash_add(&thread->entry_table.table, key, thread->metas[bb_id].cache_entry)) return;
  log(LEVEL_FATAL, "failed to add hash table entry for newly created stub basic block");
}

std::uint64_t make_stub_block(thread_data* thread, std::int32_t bb_id, std::uint64_t source) {
  const std::uint64_t address = address_of(block_address(thread, bb_id));
  if (engine_logs_traces()) log(LEVEL_TRACE, "stub BB: 0x%lx", address);
  auto* write = reinterpret_cast<std::uint32_t*>(address);
  begin_source_marks(thread, write);  // No word of it stands for a source word.
  bb_meta& meta = thread->metas[bb_id];
  meta.source_addr = source;
  meta.cache_entry = address;
  meta.exit_kind = EXIT_STUB_BLOCK;
  meta.exit_code_addr = write + 1;
  meta.link_state = LINK_NONE;
  meta.taken_source_addr = source;
  *write++ = POP_X0_X1;
  a64_push_x0_x1(&write);
  a64_branch_jump(thread, &write, source, bb_id);
  end_source_marks(thread, write);
  note_written(thread->written, reinterpret_cast<std::uint32_t*>(address), write);
  return address;
}

std::uint64_t lookup_or_stub(thread_data* thread, std::uint64_t source) {
  if (engine_logs_traces()) {
    log(LEVEL_TRACE, "stub (0x%lx)", source);
    log(LEVEL_TRACE, "thread_data: %p", static_cast<void*>(thread));
  }
  const std::uint64_t found = hash_lookup_entry(thread, source);
  if (found != HASH_MISS) return found;
  return stub_bb(thread, source);
}

namespace {

// Rewrites the code at `source` into the block, which is a new one, or one that was reserved.
std::uint64_t scan_into(thread_data* thread, std::uint64_t source, std::int32_t bb_id, bool is_new) {
  std::uint8_t* block = block_address(thread, bb_id);
  const std::int32_t first_added = thread->next_block;
  const std::uint32_t seen_before = thread->flush_seen;
  thread->flush_seen = 0;
  auto* words = reinterpret_cast<std::uint32_t*>(source);
  const std::uint32_t length = scan_fragment(thread, words, bb_id, FRAGMENT_BLOCK, nullptr);
  const bool flushed = thread->flush_seen != 0;
  thread->flush_seen |= seen_before;
  if (!flushed) note_fragment(thread, bb_id);  // Otherwise it is forgotten, and runs once more.

  // Nothing but the words written is cleared: the rest of the cache has not changed. A block that was continued after a
  // flush inside the scan lies in two ranges, one up to the end of the area and one from its start. A block that was
  // reserved earlier is continued where the free blocks begin now, which may be far from it; after a flush for a
  // function watch, that is right behind it.
  if (!is_new && !flushed) {
    note_written(thread->written, block, block + BB_SIZE);
    note_written(thread->written, block_address(thread, first_added), block_address(thread, thread->next_block));
  } else if (thread->next_block >= bb_id) {
    note_written(thread->written, block, block + length);
  } else {
    note_written(thread->written, block, thread->code_cache + BB_AREA_SIZE);
    note_written(thread->written, block_address(thread, stub_block_count()), block_address(thread, thread->next_block));
  }
  return address_of(block);
}

void set_place(thread_data* thread, std::int32_t bb_id, std::uint64_t source) {
  thread->metas[bb_id].source_addr = source;
  thread->metas[bb_id].cache_entry = address_of(block_address(thread, bb_id));
}

// A flush, and where the key belongs in the empty table.
[[gnu::noinline]] hash_entry* flush_for_slot(thread_data* thread, std::uint64_t key, bool table_is_full) {
  if (table_is_full) {
    flush_code_cache(thread);
  } else {
    flush_full_cache(thread);
  }
  return hash_find_slot(&thread->entry_table.table, key);
}

// Rewrites the code at `source` into a new block. `slot` is what hash_find_slot has found for the block's key.
std::uint64_t scan_new(thread_data* thread, std::uint64_t source, std::uint64_t key, hash_entry* slot) {
  if (engine_logs_traces()) log(LEVEL_TRACE, "scan(%p)", reinterpret_cast<void*>(source));
  // Blocks that lie close together at the end of the range of hashes can fill the table up to its last slot.
  if (slot == nullptr || !has_free_block(thread)) slot = flush_for_slot(thread, key, slot == nullptr);
  const std::int32_t bb_id = thread->next_block++;
  set_place(thread, bb_id, source);
  hash_fill_slot(&thread->entry_table.table, slot, key, thread->metas[bb_id].cache_entry);
  return scan_into(thread, source, bb_id, true);
}

}  // namespace

std::uint64_t scan(thread_data* thread, std::uint64_t source, std::int32_t bb_id) {
  if (bb_id == 0) {
    const std::uint64_t key = block_key(thread, source);
    return scan_new(thread, source, key, hash_find_slot(&thread->entry_table.table, key));
  }
  if (engine_logs_traces()) log(LEVEL_TRACE, "scan(%p)", reinterpret_cast<void*>(source));
  set_place(thread, bb_id, source);
  return scan_into(thread, source, bb_id, false);
}

namespace {

// Scans a block that was reserved, maybe long ago. A flush inside the scan would hand out blocks from the start again
// and could reach this very block. So the flush comes first if the block might need more free blocks than there are; a
// word takes a block at most.
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
  if (engine_logs_traces()) log(LEVEL_TRACE, "thread_data: %p", static_cast<void*>(thread));
  if (out_cached != nullptr) *out_cached = 0;
  const std::uint64_t key = block_key(thread, source);
  hash_entry* const slot = hash_find_slot(&thread->entry_table.table, key);
  if (slot == nullptr || slot->key == 0) return scan_new(thread, source, key, slot);
  const std::uint64_t address = slot->value;
  if (!is_in_traces(thread, address)) {
    const std::int32_t bb_id = cc_addr_to_bb_id(thread, address);
    if (thread->metas[bb_id].exit_kind == EXIT_STUB_BLOCK) return scan_reserved(thread, source, bb_id);
  }
  if (out_cached != nullptr) *out_cached = 1;
  return address;
}

std::uint64_t lookup_or_scan(thread_data* thread, std::uint64_t source) {
  return _lookup_or_scan(thread, source, nullptr);
}

std::uint64_t hash_lookup_entry(const thread_data* thread, std::uint64_t source) {
  return hash_lookup(&thread->entry_table.table, source);
}

bool is_cache_address(const thread_data* thread, std::uint64_t address) {
  const std::uint64_t begin = address_of(thread->code_cache);
  return address >= begin && address < begin + CODE_CACHE_SIZE;
}

bool is_code_address(const thread_data* thread, std::uint64_t address) {
  return is_cache_address(thread, address) && address >= address_of(block_address(thread, stub_block_count()));
}

bool is_in_traces(const thread_data* thread, std::uint64_t address) {
  return is_cache_address(thread, address) && address >= address_of(thread->code_cache) + BB_AREA_SIZE;
}

bool is_in_blocks(const thread_data* thread, std::uint64_t address) {
  return is_cache_address(thread, address) && !is_in_traces(thread, address);
}

std::int32_t cc_addr_to_bb_id(const thread_data* thread, std::uint64_t address) {
  const std::uint64_t begin = address_of(thread->code_cache);
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

namespace {

void add_link(thread_data* thread, std::int32_t bb_id, std::uint64_t from) {
  if (bb_id < 0) return;
  cc_link* link = linked_pool_alloc(thread->cc_link_pool);
  link->word = from;
  link->next = thread->metas[bb_id].linked_from;
  thread->metas[bb_id].linked_from = link;
}

[[gnu::noinline]] void log_and_add_link(thread_data* thread, std::int32_t bb_id, std::uint64_t from, std::uint64_t to) {
  log(LEVEL_TRACE, "Linked 0x%lx (%d) from 0x%lx", to, bb_id, from);
  add_link(thread, bb_id, from);
}

}  // namespace

void record_cc_link(thread_data* thread, std::uint64_t from, std::uint64_t to) {
  const std::int32_t bb_id = cc_addr_to_bb_id(thread, to);
  if (engine_logs_traces()) {
    log_and_add_link(thread, bb_id, from, to);
  } else {
    add_link(thread, bb_id, from);  // Without a frame.
  }
}

}  // namespace ceilmeter
