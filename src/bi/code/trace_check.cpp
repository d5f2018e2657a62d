// The checker reads the words in the cache and compares them with the records and the table. It learns from the words
// alone where a fragment or a link leads. Of the code that has written them it shares only the decoding of branches.
#include "bi/code/trace_check.h"

#include "bi/a64/a64.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/drop_range.h"
#include "bi/code/exit_branch.h"
#include "bi/code/run_groups.h"
#include "bi/code/spare_stack.h"
#include "bi/signals/exit_trap.h"
#include "bi/code/scanner.h"
#include "bi/code/traces.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/trace_check"};

constexpr std::uint32_t HEAD_TRAP = 0xd4200000;  // brk #0
constexpr std::int32_t ALWAYS_WHOLE = 64;        // Traces up to which the whole cache is looked through each time.

const std::uint32_t* words_at(std::uint64_t address) { return reinterpret_cast<const std::uint32_t*>(address); }

void demand(bool holds, const char* what, std::uint64_t where, std::uint64_t value) {
  if (!holds) log(LEVEL_FATAL, "the cache is not what it should be: %s, at 0x%lx, 0x%lx", what, where, value);
}

// A word of an exit; under a trap, the word that the trap has replaced.
std::uint32_t exit_word(thread_data* thread, const std::uint32_t* place) {
  return *untrapped_word(thread, const_cast<std::uint32_t*>(place));
}

bool is_noted(const bb_meta& block, std::uint64_t from) {
  for (const cc_link* link = block.linked_from; link != nullptr; link = link->next) {
    if (link->word == from) return true;
  }
  return false;
}

// Where a link to the source enters: behind the entry word of the fragment that the table has for it.
std::uint64_t entry_of(const thread_data* thread, std::uint64_t source) {
  return hash_lookup_entry(thread, source) + ENTRY_WORD_SIZE;
}

// A branch to a trace that was dropped goes on to the trace's head block.
void follow_dropped_trace(const thread_data* thread, std::uint64_t* from, std::uint64_t* arrives) {
  if (!is_in_traces(thread, *arrives)) return;
  std::int32_t id = addr_to_fragment_id(thread, *arrives);
  demand(id >= BB_COUNT, "a branch into the trace area leads to no fragment", *from, *arrives);
  // The head may be of one word, its entry.
  while (id > BB_COUNT && !is_trace_head(thread, id)) --id;
  const bool is_entry = thread->metas[id].cache_entry + ENTRY_WORD_SIZE == *arrives;
  if (!is_dropped_head(thread, id) || !is_entry) return;
  const std::uint32_t* word = words_at(*arrives);
  demand(a64_decode(word) == A64_B, "a dropped trace does not lead to its head", *from, *arrives);
  *from = *arrives;
  *arrives = branch_destination(*word, word);
}

bool is_link_to(const thread_data* thread, std::uint64_t from, std::uint64_t block) {
  return is_noted(thread->metas[cc_addr_to_bb_id(thread, block)], from);
}

void check_counting_trampoline(const bb_meta& tramp, std::uint64_t from, std::uint64_t to) {
  constexpr std::ptrdiff_t counter_words = 6;
  const std::uint32_t* last = tramp.exit_code_addr;
  demand(tramp.cache_entry == to, "a branch leads into the middle of a trampoline", from, to);
  demand(last - words_at(to) == counter_words, "a trampoline has no counter", from, to);
  demand(a64_decode(last) == A64_B, "a trampoline does not end in a branch", from, to);
  const std::uint64_t rejoins = branch_destination(*last, last);
  demand(rejoins == tramp.rejoin_cache_addr, "a trampoline leads elsewhere than its record says", to, rejoins);
}

// Checks that the branch from `from` to `to` leads to the fragment of `source`.
void check_way(const thread_data* thread, std::uint64_t from, std::uint64_t to, std::uint64_t source) {
  std::uint64_t arrives = to;
  if (is_in_traces(thread, to)) {
    const std::int32_t id = addr_to_fragment_id(thread, to);
    demand(id >= BB_COUNT, "a branch into the trace area leads to no fragment", from, to);
    const bb_meta& tramp = thread->metas[id];
    if (is_counting_trampoline(tramp)) {
      check_counting_trampoline(tramp, from, to);
      demand(tramp.source_addr == source, "a trampoline's record has another source", from, tramp.source_addr);
      arrives = tramp.rejoin_cache_addr;
      // When it was led to the block, its branch was noted.
      if (is_in_blocks(thread, arrives) && !is_link_to(thread, from, arrives)) from = address_of(tramp.exit_code_addr);
    } else if (tramp.exit_kind == EXIT_TRACE) {
      demand(tramp.cache_entry == to, "a branch leads into the middle of a trampoline", from, to);
      const std::uint32_t* last = tramp.exit_code_addr;
      const auto copied = static_cast<std::uint64_t>(last - words_at(to));
      demand(copied <= 2 && a64_decode(last) == A64_B, "a trampoline does not end in a branch", from, to);
      const std::uint64_t rejoins = branch_destination(*last, last);
      demand(rejoins == tramp.rejoin_cache_addr, "a trampoline leads elsewhere than its record says", to, rejoins);
      const std::uint32_t* original = words_at(rejoins) - copied;
      bool same = true;
      for (std::uint64_t word = 0; word < copied; ++word) same = same && words_at(to)[word] == original[word];
      const bool blank = copied == 2 && words_at(to)[0] == NOP && words_at(to)[1] == NOP;
      const bool moved = blank && is_in_traces(thread, rejoins);
      demand(same || blank, "a trampoline's words are not those that it stands for", to, rejoins);
      arrives = moved && rejoins == entry_of(thread, source) ? rejoins : address_of(original);
      if (blank && rejoins == entry_of(thread, source)) {
        arrives = rejoins;
        from = address_of(last);
      }
    }
  }
  follow_dropped_trace(thread, &from, &arrives);
  demand(arrives == entry_of(thread, source), "a branch does not lead where the application goes", from, source);
  if (!is_in_traces(thread, arrives)) {
    const std::int32_t block = cc_addr_to_bb_id(thread, arrives);
    demand(block >= stub_block_count() && block < thread->next_block, "a branch leads to no block", from, arrives);
    demand(is_noted(thread->metas[block], from), "a link is not noted", from, arrives);
    demand(*words_at(arrives) != HEAD_TRAP, "a branch leads to a block that a trace has replaced", from, arrives);
  }
}

// Branches that the scanner and plug-ins have written stay in their fragment, or go to the stub text.
void check_inner_branches(const thread_data* thread, const bb_meta& fragment, const std::uint32_t* end) {
  const std::uint64_t stubs = address_of(thread->code_cache);
  const std::uint64_t stubs_end = stubs + static_cast<std::uint64_t>(stub_block_count()) * BB_SIZE;
  for (const std::uint32_t* word = words_at(fragment.cache_entry); word < end; ++word) {
    if (find_branch_offset(*word).width == 0) continue;
    const std::uint64_t to = branch_destination(*word, word);
    const bool to_stub = a64_decode(word) == A64_B && to >= stubs && to < stubs_end;
    const bool inside = to >= fragment.cache_entry && to <= address_of(end);
    demand(to_stub || inside, "a branch leads out of its fragment", address_of(word), to);
  }
}

// The first word of a linked conditional exit tests what the application's branch tests, inverted if `inverted`.
void check_branch(const bb_meta& fragment, std::uint32_t word, bool inverted) {
  exit_branch expected = unpack_exit_branch(fragment);
  if (inverted) invert_exit_branch(&expected);
  exit_branch found{};
  const std::uint64_t where = address_of(fragment.exit_code_addr);
  const bool same_kind = decode_exit_branch(word, &found) && found.kind == expected.kind;
  demand(same_kind, "an exit is of another kind than its fragment", where, word);
  demand(found.condition == expected.condition, "an exit has the wrong sense", where, word);
  demand(found == expected, "an exit tests something else", where, word);
}

// The conditional exit of a trace's fragment. Returns the word behind it.
const std::uint32_t* check_trace_exit(thread_data* thread, const bb_meta& fragment, bool follows_taken) {
  const std::uint32_t* exit = fragment.exit_code_addr;
  const std::uint32_t word = exit_word(thread, exit);
  const std::uint64_t other = follows_taken ? fragment.skipped_source_addr : fragment.taken_source_addr;
  if (!follows_taken || is_invertible(unpack_exit_branch(fragment))) {
    check_branch(fragment, word, follows_taken);
    check_way(thread, address_of(exit), branch_destination(word, exit), other);
    return exit + 1;
  }
  check_branch(fragment, word, false);
  demand(branch_destination(word, exit) == address_of(exit + 2), "an exit does not skip its way out", address_of(exit),
         word);
  const std::uint32_t way_out = exit_word(thread, exit + 1);
  demand(a64_decode(&way_out) == A64_B, "an exit has no way out", address_of(exit + 1), way_out);
  check_way(thread, address_of(exit + 1), branch_destination(way_out, exit + 1), other);
  return exit + 2;
}

// The end of a register branch: the miss's way to the dispatcher.
const std::uint32_t* end_of_register_branch(const thread_data* thread, const bb_meta& fragment) {
  const std::uint32_t* word = fragment.exit_code_addr;
  for (; word < fragment.exit_code_addr + AUTHENTICATED_BRANCH_SPACE / 4; ++word) {
    const bool is_branch = a64_decode(word) == A64_B;
    if (is_branch && branch_destination(*word, word) == thread->dispatcher_stub_addr) return word + 1;
  }
  demand(false, "a register branch has no way to the dispatcher", address_of(fragment.exit_code_addr), 0);
  return word;
}

// The closing branch of a trace, or the fragment that follows, at `behind`.
void check_path(thread_data* thread, std::int32_t id, const std::uint32_t* behind, std::uint64_t path) {
  const bb_meta& fragment = thread->metas[id];
  if ((fragment.link_state & LINK_CLOSES_TRACE) != 0) {
    const std::uint32_t word = exit_word(thread, behind);
    demand(a64_decode(&word) == A64_B, "a trace has no closing branch", address_of(behind), word);
    check_way(thread, address_of(behind), branch_destination(word, behind), path);
    return;
  }
  const bb_meta& next = thread->metas[id + 1];
  demand(next.cache_entry == address_of(behind), "a fragment does not follow the one before", next.cache_entry,
         address_of(fragment.exit_code_addr));
  demand(next.source_addr == path, "a trace does not follow the application's path", next.cache_entry, path);
}

// One fragment of a trace. Whether it is the trace's last one.
bool check_trace_fragment(thread_data* thread, std::int32_t id) {
  const bb_meta& fragment = thread->metas[id];
  const std::uint32_t* exit = fragment.exit_code_addr;
  const std::uint64_t where = address_of(exit);
  demand(where >= fragment.cache_entry && is_in_traces(thread, where), "a fragment's exit lies outside", where, 0);
  if (fragment.exit_kind == EXIT_REGISTER) {
    check_inner_branches(thread, fragment, end_of_register_branch(thread, fragment));
    return true;
  }
  check_inner_branches(thread, fragment, exit);
  const bool follows_taken = (fragment.link_state & LINK_TAKEN_FIRST) != 0;
  const std::uint64_t path = follows_taken ? fragment.taken_source_addr : fragment.skipped_source_addr;
  if (is_conditional_exit(fragment.exit_kind)) {
    check_path(thread, id, check_trace_exit(thread, fragment, follows_taken), path);
  } else {
    demand(fragment.exit_kind == EXIT_DIRECT && follows_taken, "a fragment of a trace does not go on", where,
           fragment.exit_kind);
    check_path(thread, id, exit, path);
  }
  return (fragment.link_state & LINK_CLOSES_TRACE) != 0;
}

// One trace, from its head on. Returns the first index behind it and its trampolines.
std::int32_t check_trace(thread_data* thread, std::int32_t first) {
  const bb_meta& head = thread->metas[first];
  demand(is_trace_head(thread, first), "a trace begins without a head", head.cache_entry, 0);
  if (is_dropped_head(thread, first)) {
    std::int32_t behind = first + 1;
    while (behind < thread->trace_id && !is_trace_head(thread, behind)) ++behind;
    return behind;
  }
  demand(*words_at(head.cache_entry) == POP_X0_X1, "a trace has no entry word", head.cache_entry, 0);
  demand(hash_lookup_entry(thread, head.source_addr) == head.cache_entry, "the table does not find a trace",
         head.cache_entry, head.source_addr);
  std::int32_t id = first;
  for (bool last = false; !last; ++id) {
    const bool may_be = id < thread->trace_id && id - first < MAX_TRACE_FRAGMENTS;
    demand(may_be, "a trace has no end", thread->metas[id].cache_entry, address_of(thread->metas[id].exit_code_addr));
    last = check_trace_fragment(thread, id);
  }
  for (; id < thread->trace_id && thread->metas[id].exit_kind == EXIT_TRACE; ++id) {
    demand(thread->metas[id].cache_entry > thread->metas[id - 1].cache_entry, "trampolines are out of order",
           thread->metas[id].cache_entry, 0);
  }
  return id;
}

void check_link(thread_data* thread, const std::uint32_t* place, std::uint64_t source) {
  const std::uint32_t word = exit_word(thread, place);
  demand(a64_decode(&word) == A64_B, "a link is no branch", address_of(place), word);
  check_way(thread, address_of(place), branch_destination(word, place), source);
}

// The linked exit of a block with a conditional branch.
void check_linked_sides(thread_data* thread, const bb_meta& block) {
  const std::uint32_t* exit = block.exit_code_addr;
  const bool taken_first = (block.link_state & LINK_TAKEN_FIRST) != 0;
  const bool both = (block.link_state & LINK_BOTH) != 0;
  const std::uint32_t word = exit_word(thread, exit);
  const bool has_fixed_sides = block.exit_kind == EXIT_COMPARE;
  check_branch(block, word, taken_first && !has_fixed_sides);
  demand(branch_destination(word, exit) == address_of(exit + 2), "a block's exit does not skip its link",
         address_of(exit), word);
  if (has_fixed_sides) {
    if (both || taken_first) check_link(thread, exit + 2, block.taken_source_addr);
    if (both || !taken_first) check_link(thread, exit + 1, block.skipped_source_addr);
    return;
  }
  check_link(thread, exit + 1, taken_first ? block.taken_source_addr : block.skipped_source_addr);
  if (both) check_link(thread, exit + 2, taken_first ? block.skipped_source_addr : block.taken_source_addr);
}

void check_block(thread_data* thread, std::int32_t id) {
  const bb_meta& block = thread->metas[id];
  if (!is_direct_exit(block.exit_kind) || block.parent_block != 0) return;
  const std::uint64_t found = hash_lookup_entry(thread, block.source_addr);
  if (is_in_traces(thread, found)) {
    // What replaces the block of the plain key leaves the others alone.
    const bool is_barred = words_at(block.cache_entry)[1] == HEAD_TRAP || has_own_key(thread, block);
    demand(is_barred, "a replaced block has no trap", block.cache_entry, found);
    return;
  }
  // A flush during a block's scan leaves the block outside the table. Its links are from before the flush.
  if (found != block.cache_entry || block.link_state == LINK_NONE) return;
  if (block.exit_kind == EXIT_DIRECT) {
    check_link(thread, block.exit_code_addr, block.taken_source_addr);
    return;
  }
  check_linked_sides(thread, block);
}

void check_whole_cache(thread_data* thread) {
  for (std::int32_t id = BB_COUNT; id < thread->trace_id;) id = check_trace(thread, id);
  for (std::int32_t id = stub_block_count(); id < thread->next_block; ++id) check_block(thread, id);
  thread->traces_checked = thread->trace_id - BB_COUNT;
}

}  // namespace

void check_trace_cache(thread_data* thread, std::int32_t first) {
  count_trace_event(trace_counts.checks);
  // A large cache is checked as a whole each time it has grown by an eighth. In between, only what has changed is.
  const std::int32_t fragments = thread->trace_id - BB_COUNT;
  if (thread->traces_checked > fragments) thread->traces_checked = 0;  // Those were before a flush.
  const bool whole = trace_options.check == TRACE_CHECK_WHOLE || fragments <= ALWAYS_WHOLE ||
                     fragments >= thread->traces_checked + thread->traces_checked / 8;
  if (whole) {
    check_whole_cache(thread);
    return;
  }
  check_trace(thread, first);
  check_block(thread, thread->active_trace.source_bb);
  const bb_meta& head = thread->metas[thread->active_trace.source_bb];
  for (const cc_link* link = head.linked_from; link != nullptr; link = link->next) {
    const std::int32_t from = exit_owner(thread, link->word);
    if (from >= 0 && from < BB_COUNT) check_block(thread, from);
  }
}

}  // namespace ceilmeter
