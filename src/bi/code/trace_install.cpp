// The installation of a trace.
//
//   an exit of the trace, as built   b.!cond .        or the b of an exit that has one (see traces.cpp)
//   installed                        b.!cond target   a trace's entry + 4, if it is in reach, else a trampoline
//
//   a trampoline, 16 bytes           word             up to two words of the target's code,
//                                    word
//                                    b target + 8     and the rest of it
//                                    nop
//   one that counts (run_groups.h)   six words        of the counter; the exit leads here for ever
//                                    b target
//   when a trace replaces the block  nop
//   and is out of                    nop
//   the exit's reach                 b trace + 4
//                                    nop
//
// An exit to a block always goes through a trampoline, however near the block is. A trace may replace the block later
// and be out of the conditional branch's reach. The B of a trampoline reaches any place of the cache. The exit's branch
// is noted in the block's list of links, so that it can be led to that trace.
//
// Each word that was written is cleared from the instruction cache. Then the thread goes back into the cache.
#include "bi/code/trace_install.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/drop_range.h"
#include "bi/code/exit_branch.h"
#include "bi/engine_switches.h"
#include "bi/signals/exit_trap.h"
#include "bi/code/run_counter.h"
#include "bi/code/run_groups.h"
#include "bi/code/scanner.h"
#include "bi/code/trace_check.h"
#include "bi/code/traces.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/traces"};  // Not its own name: see the log's units in docs/engine.md.

constexpr std::uint64_t TRAMPOLINE_ALIGNMENT = 16;
constexpr int TRAMPOLINE_WORDS = 4;
constexpr int COPIED_WORDS = 2;
static_assert(TRACE_TRAMPOLINE_SPACE >= MAX_TRACE_EXITS * TRAMPOLINE_WORDS * 4 + TRAMPOLINE_ALIGNMENT);

// Leads the trampoline of another trace's exit to the new trace.
void move_trampoline(thread_data* thread, std::uint64_t tramp, std::uint64_t to) {
  bb_meta& record = thread->metas[addr_to_fragment_id(thread, tramp)];
  if (record.exit_kind != EXIT_TRACE || record.cache_entry != tramp) {
    log(LEVEL_FATAL, "an exit leads to 0x%lx, which is no trampoline", tramp);
  }
  auto* words = reinterpret_cast<std::uint32_t*>(tramp);
  if (!is_counting_trampoline(record)) {
    words[0] = NOP;
    words[1] = NOP;
    record.exit_code_addr = words + 2;
  }
  a64_branch(record.exit_code_addr, to);
  record.rejoin_cache_addr = to;
  note_written(thread->written, words, record.exit_code_addr + 1);
  count_trace_event(trace_counts.moved_trampolines);
}

// Whether a branch to `to` goes to the head, or to a trampoline that leads there.
bool leads_to_head(const thread_data* thread, std::uint64_t to, const bb_meta& head) {
  if (to == head.cache_entry + ENTRY_WORD_SIZE) return true;
  const std::int32_t id = is_in_traces(thread, to) ? addr_to_fragment_id(thread, to) : -1;
  return id >= BB_COUNT && thread->metas[id].exit_kind == EXIT_TRACE && thread->metas[id].cache_entry == to &&
         thread->metas[id].source_addr == head.source_addr;
}

// Whether the exit leads through a trampoline that counts, and has to go on doing so.
bool leads_to_counter(const thread_data* thread, std::uint64_t to) {
  const std::int32_t id = is_in_traces(thread, to) ? addr_to_fragment_id(thread, to) : -1;
  return id >= BB_COUNT && is_counting_trampoline(thread->metas[id]) && thread->metas[id].cache_entry == to;
}

// A trampoline without copied words whose branch at `place` was led elsewhere.
void note_moved_trampoline(thread_data* thread, const std::uint32_t* place, std::uint64_t to) {
  bb_meta& record = thread->metas[addr_to_fragment_id(thread, address_of(place))];
  if (record.exit_kind == EXIT_TRACE && record.exit_code_addr == place) record.rejoin_cache_addr = to;
}

// Leads a link of another trace to the new trace: a closing branch, or an exit. The record is stale if the trace was
// dropped and its first word is a branch to its own head now, or if the exit leads to a trace that was dropped: that
// one's word is noted too.
void patch_trace_branches(thread_data* thread, const bb_meta& head, std::uint32_t* place, std::uint64_t to) {
  std::uint32_t* word = untrapped_word(thread, place);
  const int inst = a64_decode(word);
  exit_branch branch{};
  if (find_branch_offset(*word).width != 0 && !leads_to_head(thread, branch_destination(*word, place), head)) {
    count_trace_event(trace_counts.stale_links);
    return;
  }
  if (inst == A64_B) {
    *word = redirected_branch(*word, place, to);
    note_moved_trampoline(thread, place, to);
    count_trace_event(trace_counts.moved_branches);
  } else if (!decode_exit_branch(*word, &branch)) {
    log(LEVEL_FATAL, "[install_trace] Linking instruction unknown at %p instruction %d", static_cast<void*>(place),
        inst);
  } else if (trace_exit_reaches(place, *word, to) && !leads_to_counter(thread, branch_destination(*word, place))) {
    *word = redirected_branch(*word, place, to);
    count_trace_event(trace_counts.moved_exits);
  } else {
    move_trampoline(thread, branch_destination(*word, place), to);
  }
  if (word != place) count_trace_event(trace_counts.moved_under_trap);
}

// Leads a link of a block to the new trace. A flush during a scan leaves a stale link record: the forgotten block is
// run once more and linked, and its place may have become another block's since. Ignore the record unless the word
// still branches to the head.
void patch_block_branch(thread_data* thread, std::uint32_t* place, std::uint64_t old_to, std::uint64_t to) {
  std::uint32_t* word = untrapped_word(thread, place);
  if (a64_decode(word) != A64_B || branch_destination(*word, place) != old_to) {
    count_trace_event(trace_counts.stale_links);
    return;
  }
  *word = redirected_branch(*word, place, to);
  count_trace_event(trace_counts.moved_branches);
  if (word != place) count_trace_event(trace_counts.moved_under_trap);
}

void move_links(thread_data* thread, const bb_meta& head) {
  const std::uint64_t to = thread->active_trace.entry_addr + ENTRY_WORD_SIZE;
  for (const cc_link* link = head.linked_from; link != nullptr; link = link->next) {
    log(LEVEL_TRACE, "Link from: 0x%lx, update to: 0x%lx", link->word, to);
    auto* place = reinterpret_cast<std::uint32_t*>(link->word);
    if (is_in_traces(thread, link->word)) {
      patch_trace_branches(thread, head, place, to);
    } else {
      patch_block_branch(thread, place, head.cache_entry + ENTRY_WORD_SIZE, to);
    }
    note_written(thread->written, place, place + 1);
  }
}

// Whether a word of a fragment's code may be copied into a trampoline. Three kinds may not: words whose meaning depends
// on their place, words of the exit, which a link changes, and traps.
bool is_copyable(const std::uint32_t* word, const bb_meta& owner) {
  if (word >= owner.exit_code_addr && word < owner.exit_code_addr + 3) return false;
  const int inst = a64_decode(word);
  return inst != A64_HVC && inst != A64_BRK && !a64_is_branch_class(inst);
}

// Writes the trampoline of one exit. Returns the word behind it.
std::uint32_t* make_trampoline(thread_data* thread, const trace_exit& exit, std::uint32_t* tramp) {
  // Before there is a record of the trampoline's own: addresses are looked for among all records that there are.
  const bb_meta& target = thread->metas[exit_owner(thread, exit.to)];
  const std::int32_t id = thread->active_trace.id++;
  bb_meta& record = thread->metas[id];
  const auto* from = reinterpret_cast<const std::uint32_t*>(exit.to);
  record.source_addr = target.source_addr;
  record.source_words = 1;
  record.cache_entry = address_of(tramp);
  record.exit_kind = EXIT_TRACE;
  record.link_state = LINK_TAKEN_FIRST;
  record.trampoline = 0;
  thread->metas[exit.fragment_id].trampoline = id;

  std::uint32_t* write = tramp;
  if (is_member(thread, exit.fragment_id + 1)) {
    record.link_state |= LINK_COUNTS;
    put_run_counter(&write, add_trampoline(thread, id));
  } else {
    for (int count = 0; count < COPIED_WORDS && is_copyable(from, target); ++count) *write++ = *from++;
  }
  record.exit_code_addr = write;
  record.rejoin_cache_addr = address_of(from);
  a64_branch(write++, address_of(from));
  // Always four words: move_trampoline may write as many here later.
  while (write < tramp + TRAMPOLINE_WORDS) *write++ = NOP;
  note_written(thread->written, tramp, write);
  count_trace_event(trace_counts.trampolines);
  return write;
}

std::uint32_t* aligned(std::uint32_t* place) {
  return reinterpret_cast<std::uint32_t*>((address_of(place) + TRAMPOLINE_ALIGNMENT - 1) & ~(TRAMPOLINE_ALIGNMENT - 1));
}

// Gives each exit its target. Returns the word behind the last trampoline.
std::uint32_t* patch_exits(thread_data* thread) {
  trace_state& trace = thread->active_trace;
  std::uint32_t* next = trace.write;
  for (std::uint32_t index = 0; index < trace.exit_count; ++index) {
    const trace_exit& exit = trace.exits[index];
    auto* place = reinterpret_cast<std::uint32_t*>(exit.from);
    std::uint32_t* tramp = aligned(next);
    std::uint64_t to = exit.to;
    const bool to_block = is_in_blocks(thread, to);
    if (to_block) record_cc_link(thread, exit.from, to);
    if (to_block || is_member(thread, exit.fragment_id + 1) || !trace_exit_reaches(place, *place, to)) {
      next = make_trampoline(thread, exit, tramp);
      to = address_of(tramp);
      if (!trace_exit_reaches(place, *place, to)) {
        log(LEVEL_FATAL, "the exit at %p does not reach its trampoline", static_cast<void*>(place));
      }
    }
    *place = redirected_branch(*place, place, to);
    note_written(thread->written, place, place + 1);
  }
  return next;
}

// Writes a trap over the head block's second word. Nothing leads to the block any more, and a branch that still does
// fails at once. The entry word stays.
void bar_head(thread_data* thread, const bb_meta& head) {
  auto* word = reinterpret_cast<std::uint32_t*>(head.cache_entry + ENTRY_WORD_SIZE);
  a64_brk(word, 0);
  note_written(thread->written, word, word + 1);
}

}  // namespace

cond_branch_attributes get_cond_branch_attributes(const std::uint32_t* place, int inst) {
  if (inst == A64_B) log(LEVEL_FATAL, "direct branch (B or BL). (Not allowed)");
  exit_branch branch{};
  if (!decode_exit_branch(*place, &branch)) {
    log(LEVEL_FATAL, "linking instruction unknown at %p instruction %d", static_cast<const void*>(place), inst);
  }
  const int width = find_branch_offset(*place).width;
  const std::int64_t furthest = std::int64_t{1} << (width + 1);  // Half of the range, in bytes.
  return {furthest - 3, -furthest, (std::uint32_t{1} << width) - 1};
}

bool trace_exit_reaches(const std::uint32_t* place, std::uint32_t word, std::uint64_t to) {
  const int inst = a64_decode(&word);
  if (inst == A64_B) return true;  // From any place of the cache to any other.
  const cond_branch_attributes reach = get_cond_branch_attributes(&word, inst);
  const auto offset = static_cast<std::int64_t>(to - address_of(place));
  return offset >= reach.smallest && offset < reach.largest;
}

void install_trace(thread_data* thread) {
  trace_state& trace = thread->active_trace;
  trace.active = 0;
  const bb_meta& head = thread->metas[trace.source_bb];
  move_links(thread, head);
  if (!hash_add(&thread->entry_table.table, head.source_addr, trace.entry_addr)) {
    log(LEVEL_FATAL, "failed to put the trace of 0x%lx into the hash table", head.source_addr);
  }
  const std::int32_t first = thread->trace_id;
  std::uint32_t* end = patch_exits(thread);
  thread->trace_id = trace.id;
  thread->trace_write_cursor = reinterpret_cast<std::uint8_t*>(end);
  trace.write = end;
  note_trace(thread, first, trace.source_bb);
  bar_head(thread, head);

  count_trace_event(trace_counts.installed);
  count_trace_event(trace_counts.fragments, static_cast<std::uint64_t>(thread->trace_fragment_count));
  count_trace_event(trace_counts.exits, trace.exit_count);
  raise_trace_record(trace_counts.most_fragments, static_cast<std::uint64_t>(thread->trace_fragment_count));
  raise_trace_record(trace_counts.most_exits, trace.exit_count);
  if (trace_options.check != TRACE_CHECK_NONE) check_trace_cache(thread, first);
  note_installed_trace(thread, first);
}

}  // namespace ceilmeter
