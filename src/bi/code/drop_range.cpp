// Fragments are found by their source page: each is a member of one chain, that of the page of its first word. Few
// reach into another page. The chain of a page is also that of other pages.
//
// The caches are maintained over all words written when the range is done, or with the rest of the visit that drops it.
// The thread comes to run them by its way back into the cache, from the engine code that has written them.
#include "bi/code/drop_range.h"

#include <algorithm>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/dispatcher.h"
#include "bi/code/exit_branch.h"
#include "bi/code/spare_stack.h"
#include "bi/code/run_groups.h"
#include "bi/code/scanner.h"
#include "bi/code/traces.h"
#include "bi/plugins/function_watch.h"
#include "bi/signals/exit_trap.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/drop_range"};

constexpr int PAGE_BITS = 12;
constexpr std::int32_t CHAIN_END = -1;

std::uint64_t page_of(std::uint64_t address) { return address >> PAGE_BITS; }

std::int32_t& chain_of(thread_data* thread, std::uint64_t page) {
  return thread->fragment_chains[page % FRAGMENT_CHAINS];
}

std::uint64_t source_end(const bb_meta& meta) { return meta.source_addr + std::uint64_t{4} * meta.source_words; }

// Part of a trace that was dropped.
bool is_dead(const bb_meta& meta) { return meta.source_words == 0; }

bool is_within(const bb_meta& meta, std::uint64_t start, std::uint64_t end) {
  return !is_dead(meta) && meta.exit_kind != EXIT_TRACE && meta.source_addr < end && source_end(meta) > start;
}

std::int32_t& head_mark(thread_data* thread, std::int32_t id) { return thread->trace_heads[id - BB_COUNT]; }

// The index of a chain's first member; 0, as the table begins: none.
std::int32_t first_of(const std::int32_t& head) { return head == 0 ? CHAIN_END : head; }

// Leads a trampoline to a block, without the words that it has copied.
void lead_to_block(thread_data* thread, bb_meta& trampoline, std::uint64_t to) {
  auto* words = reinterpret_cast<std::uint32_t*>(trampoline.cache_entry);
  if (!is_counting_trampoline(trampoline)) {
    words[0] = NOP;
    words[1] = NOP;
    trampoline.exit_code_addr = words + 2;
  }
  a64_branch_and_link(thread, trampoline.exit_code_addr, to);
  trampoline.rejoin_cache_addr = to;
  note_written(thread->written, words, trampoline.exit_code_addr + 1);
}

// Whether it does so already.
bool leads_to_block(const bb_meta& trampoline, std::uint64_t to) {
  if (is_counting_trampoline(trampoline)) {
    return branch_destination(*trampoline.exit_code_addr, trampoline.exit_code_addr) == to;
  }
  const auto* words = reinterpret_cast<const std::uint32_t*>(trampoline.cache_entry);
  return words[0] == NOP && words[1] == NOP && a64_decode(words + 2) == A64_B &&
         branch_destination(words[2], words + 2) == to;
}

// False if the records for links have run out.
bool lead_trampolines_to_block(thread_data* thread, const bb_meta& block) {
  const std::uint64_t to = block.cache_entry + ENTRY_WORD_SIZE;
  for (std::int32_t id = first_of(chain_of(thread, page_of(block.source_addr))); id != CHAIN_END;
       id = thread->chain_next[id]) {
    bb_meta& meta = thread->metas[id];
    if (is_dead(meta) || meta.exit_kind != EXIT_TRACE || meta.source_addr != block.source_addr) continue;
    if (leads_to_block(meta, to)) {
      meta.rejoin_cache_addr = to;  // Led back with the links, and noted already.
      continue;
    }
    if (!has_links_to_spare(thread->cc_link_pool, 1)) return false;
    lead_to_block(thread, meta, to);
  }
  return true;
}

// Leads what was linked to a dropped trace in the head's place back to the head: plain branches alone. A conditional
// exit reaches the head's trampoline, or comes by the trace's entry. Only what leads to the head stays noted.
void lead_links_back(thread_data* thread, bb_meta& block, const bb_meta& trace) {
  const std::uint64_t to = block.cache_entry + ENTRY_WORD_SIZE;
  for (cc_link** slot = &block.linked_from; *slot != nullptr;) {
    auto* place = reinterpret_cast<std::uint32_t*>((*slot)->word);
    std::uint32_t* word = untrapped_word(thread, place);
    const bool is_branch = a64_decode(word) == A64_B;
    if (!is_branch || branch_destination(*word, place) != trace.cache_entry + ENTRY_WORD_SIZE) {
      *slot = (*slot)->next;
      continue;
    }
    *word = redirected_branch(*word, place, to);
    note_written(thread->written, place, place + 1);
    slot = &(*slot)->next;
  }
}

bool forget_block(thread_data* thread, std::int32_t id) {
  log(LEVEL_TRACE, "dropping block %d of 0x%lx", id, thread->metas[id].source_addr);
  make_stub_block(thread, id, thread->metas[id].source_addr);
  enter_block(thread, thread->metas[id].source_addr, id);
  thread->exit_counters[id] = trace_options.hot_mark;
  return lead_trampolines_to_block(thread, thread->metas[id]);
}

bool drop_trace(thread_data* thread, std::int32_t id) {
  while (head_mark(thread, id) == 0) --id;
  const std::int32_t block = head_mark(thread, id);
  if (block < 0) return true;
  log(LEVEL_TRACE, "dropping trace %d of 0x%lx", id, thread->metas[id].source_addr);
  if (!has_links_to_spare(thread->cc_link_pool, 1)) return false;
  head_mark(thread, id) = -block;
  lead_links_back(thread, thread->metas[block], thread->metas[id]);
  auto* word = reinterpret_cast<std::uint32_t*>(thread->metas[id].cache_entry + ENTRY_WORD_SIZE);
  a64_branch_and_link(thread, word, thread->metas[block].cache_entry + ENTRY_WORD_SIZE);
  note_written(thread->written, word, word + 1);
  // Nothing leads to its other fragments and to its trampolines any more.
  std::int32_t dead = id;
  do thread->metas[dead++].source_words = 0;
  while (dead < thread->trace_id && head_mark(thread, dead) == 0);
  return forget_block(thread, block);
}

bool drop_block(thread_data* thread, std::int32_t id) {
  const bb_meta& meta = thread->metas[id];
  if (meta.exit_kind == EXIT_STUB_BLOCK) return true;
  // Its key leads to it still. No link and no trace does.
  if (has_own_key(thread, meta)) {
    make_stub_block(thread, id, meta.source_addr);
    return true;
  }
  const std::uint64_t found = hash_lookup_entry(thread, meta.source_addr);
  if (found != HASH_MISS && is_in_traces(thread, found)) return drop_trace(thread, addr_to_fragment_id(thread, found));
  return forget_block(thread, id);
}

// A trace under construction is given up if one of its fragments goes. They are not noted yet.
void drop_unfinished_trace(thread_data* thread, std::uint64_t start, std::uint64_t end) {
  if (thread->active_trace.active == 0) return;
  for (std::int32_t id = thread->trace_id; id < thread->active_trace.id; ++id) {
    if (!is_within(thread->metas[id], start, end)) continue;
    count_trace_event(trace_counts.flushed);
    thread->active_trace.active = 0;
    thread->flush_seen = 1;
    return;
  }
}

struct drop_state {
  std::uint64_t start;
  std::uint64_t end;
  bool found;
};

// False if the records for links have run out.
bool drop_members(thread_data* thread, std::int32_t first, drop_state& drop) {
  for (std::int32_t id = first; id != CHAIN_END; id = thread->chain_next[id]) {
    const bb_meta& meta = thread->metas[id];
    if (!is_within(meta, drop.start, drop.end) || meta.exit_kind == EXIT_STUB_BLOCK) continue;
    if (id >= BB_COUNT ? !drop_trace(thread, id) : !drop_block(thread, id)) return false;
    drop.found = true;
  }
  return true;
}

void take_out_dead(thread_data* thread, std::int32_t* slot) {
  while (first_of(*slot) != CHAIN_END) {
    const std::int32_t id = *slot;
    if (is_dead(thread->metas[id])) {
      *slot = thread->chain_next[id];
    } else {
      slot = &thread->chain_next[id];
    }
  }
}

bool drop_chains(thread_data* thread, drop_state& drop) {
  const std::uint64_t first = page_of(drop.start) - std::min(page_of(drop.start), thread->longest_fragment_pages);
  const std::uint64_t last = page_of(drop.end - 1);
  const std::uint64_t chains = std::min<std::uint64_t>(last - first + 1, FRAGMENT_CHAINS);
  for (std::uint64_t chain = 0; chain < chains; ++chain) {
    if (!drop_members(thread, first_of(chain_of(thread, first + chain)), drop)) return false;
  }
  for (std::uint64_t chain = 0; drop.found && chain < chains; ++chain) {
    take_out_dead(thread, &chain_of(thread, first + chain));
  }
  return true;
}

bool drop_range(thread_data* thread, std::uint64_t start, std::uint64_t end) {
  drop_state drop = {start, end, false};
  drop_unfinished_trace(thread, start, end);
  if (!drop_chains(thread, drop)) {
    flush_code_cache(thread);
    return true;
  }
  if (drop.found) {
    thread->flush_seen = 1;
    forget_function_entries(thread);
  }
  return drop.found;
}

}  // namespace

bool drop_fragments(thread_data* thread, std::uint64_t start, std::uint64_t end) {
  if (start >= end) return false;
  if (thread->written.defers != 0) return drop_range(thread, start, end);
  begin_deferring(thread->written);
  const bool found = drop_range(thread, start, end);
  finish_written(thread->written);
  return found;
}

void note_fragment(thread_data* thread, std::int32_t id) {
  const bb_meta& meta = thread->metas[id];
  thread->longest_fragment_pages =
      std::max(thread->longest_fragment_pages, page_of(source_end(meta) - 1) - page_of(meta.source_addr));
  if (thread->chain_next[id] != 0) return;  // A block that was scanned again in its place.
  std::int32_t& chain = chain_of(thread, page_of(meta.source_addr));
  thread->chain_next[id] = first_of(chain);
  chain = id;
}

void note_trace(thread_data* thread, std::int32_t head, std::int32_t head_block) {
  head_mark(thread, head) = head_block;
  for (std::int32_t id = head; id < thread->trace_id; ++id) note_fragment(thread, id);
}

bool is_trace_head(const thread_data* thread, std::int32_t id) { return thread->trace_heads[id - BB_COUNT] != 0; }

bool is_dropped_head(const thread_data* thread, std::int32_t id) { return thread->trace_heads[id - BB_COUNT] < 0; }

void forget_noted_fragments(thread_data* thread) {
  std::memset(thread->fragment_chains, 0, sizeof thread->fragment_chains);
  const auto blocks = static_cast<std::size_t>(std::min(thread->next_block, BB_COUNT));
  std::memset(thread->chain_next, 0, blocks * sizeof *thread->chain_next);
  const auto fragments = static_cast<std::size_t>(thread->trace_id - BB_COUNT);
  std::memset(thread->chain_next + BB_COUNT, 0, fragments * sizeof *thread->chain_next);
  std::memset(thread->trace_heads, 0, fragments * sizeof *thread->trace_heads);
  thread->longest_fragment_pages = 0;
}

}  // namespace ceilmeter
