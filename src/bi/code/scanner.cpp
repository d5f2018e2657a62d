// The walk over source words, and the exits that end a fragment. The other rules stand in scan_rules.cpp.
#include "bi/code/scanner.h"

#include <algorithm>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_words.h"
#include "bi/code/code_writer.h"
#include "bi/code/dispatcher.h"
#include "bi/code/exit_branch.h"
#include "bi/plugins/function_watch.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/run_counter.h"
#include "bi/code/run_groups.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/scan_rules.h"
#include "bi/code/source_map.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/scanner"};

constexpr std::uint64_t TWO_NOPS = NOP | std::uint64_t{NOP} << 32;

bb_meta& meta_of(scan_state& state) { return state.thread->metas[state.bb_id]; }

// What a fragment of a trace leaves free besides.
std::uint32_t end_space(const scan_state& state) { return state.type == FRAGMENT_BLOCK ? 0 : TRACE_END_SPACE; }

void reserve_space(scan_state& state, std::uint32_t size) {
  if (address_of(state.limit) > address_of(state.write) + size + end_space(state)) return;
  a64_reserve_block_space(state.thread, &state.write, &state.limit, size);
}

// The exit of every kind begins with the words that the dispatcher turns into links. Returns the fragment's record.
bb_meta& begin_exit(scan_state& state, bb_exit_kind kind, std::uint64_t taken, std::uint64_t skipped) {
  lower_sp(state);
  bb_meta& meta = meta_of(state);
  meta.exit_kind = kind;
  meta.exit_code_addr = state.write;
  meta.taken_source_addr = taken;
  meta.skipped_source_addr = skipped;
  meta.link_state = LINK_NONE;
  return meta;
}

void put_direct_exit(scan_state& state, std::uint64_t target) {
  begin_exit(state, EXIT_DIRECT, target, 0);
  const code_writer code{state.write};
  code.nop();
  code.push(x0, x1);
  a64_branch_jump(state.thread, &state.write, target, state.bb_id);
  state.stop = true;
}

void rewrite_direct_branch(scan_state& state) {
  std::uint32_t link = 0;
  std::uint32_t imm26 = 0;
  a64_b_decode(&state.word, &link, &imm26);
  // The application's link register holds a source address throughout.
  if (link != 0) code_writer{state.write}.load_address(x30, address_of(state.read) + 4);
  put_direct_exit(state, branch_target(state.read, imm26, 26));
}

// The start of every conditional exit. Its branch stands before the words that load x0 and x1, and so tests the
// application's value of any register. Returns where the words behind the two reserved ones go.
inline std::uint32_t* begin_conditional_exit(scan_state& state, const exit_branch& branch, std::uint64_t target) {
  bb_meta& meta = begin_exit(state, static_cast<bb_exit_kind>(branch.kind), target, address_of(state.read) + 4);
  pack_exit_branch(branch, &meta);
  std::uint32_t* const write = state.write;
  __builtin_memcpy(write, &TWO_NOPS, sizeof TWO_NOPS);
  return write + 2;
}

void log_conditional_exit(const scan_state& state, const exit_branch& branch, std::uint64_t target) {
  const void* const read = state.read;
  if (branch.kind == EXIT_B_COND) {
    log(LEVEL_TRACE, "A64 branch: read_addr: %p, target: 0x%lx", read, target);
    return;
  }
  log(LEVEL_TRACE, "A64 [c/t](n)bz: read_addr: %p, target: 0x%lx", read, target);
  log(LEVEL_TRACE, "A64 branch target: 0x%lx", target);
  log(LEVEL_TRACE, "A64 branch target: 0x%lx", address_of(state.read) + 4);
}

// CB<cc> is not inverted: the branch keeps its sense, and the fall-through side comes first. Three words are reserved.
void rewrite_compare_branch(scan_state& state) {
  exit_branch branch{};
  decode_exit_branch(state.word, &branch);
  const std::uint64_t target = branch_destination(state.word, state.read);
  log(LEVEL_TRACE, "A64 cb<cc>: read_addr: %p, target: 0x%lx", static_cast<const void*>(state.read), target);
  a64_reserve_block_space(state.thread, &state.write, &state.limit, COMPARE_EXIT_SPACE);
  state.write = begin_conditional_exit(state, branch, target);
  code_writer{state.write}.nop();
  a64_push_x0_x1(&state.write);
  std::uint32_t* decision = state.write++;
  a64_branch_jump(state.thread, &state.write, meta_of(state).skipped_source_addr, state.bb_id);
  encode_exit_branch(decision, branch, address_of(state.write));
  a64_branch_jump(state.thread, &state.write, target, state.bb_id);
  state.stop = true;
}

// `inst` is the word's class: A64_B_COND, A64_CBZ or A64_TBZ. B.cond tests no register, so both sides share what loads
// x1.
template <int inst>
void rewrite_conditional_branch(scan_state& state) {
  exit_branch branch = exit_branch_of_class(state.word, inst);
  const std::uint64_t target = branch_destination_of_class(state.word, inst, state.read);
  if (!is_invertible(branch)) {
    // AL, and NV, which is always taken as well: the branch has one side.
    put_direct_exit(state, target);
    return;
  }
  if (engine_logs_traces()) log_conditional_exit(state, branch, target);
  // Loaded before the first store.
  const std::uint64_t skipped = address_of(state.read) + 4;
  const std::uint64_t dispatcher = state.thread->dispatcher_stub_addr;
  const auto bb_id = static_cast<std::uint64_t>(state.bb_id);
  std::uint32_t* write = begin_conditional_exit(state, branch, target);
  a64_push_x0_x1(&write);
  if (inst == A64_B_COND) a64_load_const(&write, 1, bb_id);
  std::uint32_t* const decision = write++;
  a64_load_const(&write, 0, target);
  if (inst != A64_B_COND) a64_load_const(&write, 1, bb_id);
  a64_branch(write++, dispatcher);
  invert_exit_branch(&branch);
  encode_exit_branch(decision, branch, address_of(write));
  a64_load_const(&write, 0, skipped);
  if (inst != A64_B_COND) a64_load_const(&write, 1, bb_id);
  a64_branch(write++, dispatcher);
  state.write = write;
  state.stop = true;
}

void rewrite_register_branch(scan_state& state, int inst) {
  std::uint32_t reg = 0;
  a64_br_decode(&state.word, &reg);  // BR, BLR and RET hold the register in the same place.
  reserve_space(state, REGISTER_BRANCH_SPACE);
  begin_exit(state, EXIT_REGISTER, 0, 0);
  meta_of(state).rn = reg;
  a64_branch_reg(state.thread, state.bb_id, &state.write, state.read, reg, inst == A64_BLR, true);
  state.stop = true;
}

// A branch to a signed address. A copy of it would lead out of the cache, and the application would go on outside the
// engine. The decoder has no class for it, so plug-ins are told of a word that is not recognised.
void rewrite_authenticated_branch(scan_state& state, const a64_authenticated_branch& branch) {
  reserve_space(state, AUTHENTICATED_BRANCH_SPACE);
  begin_exit(state, EXIT_REGISTER, 0, 0);
  a64_branch_authenticated(state.thread, state.bb_id, &state.write, state.read, branch);
  state.stop = true;
}

// IC IVAU ends the fragment; see put_invalidation.
void rewrite_invalidation(scan_state& state) {
  reserve_space(state, INVALIDATION_SPACE + EXIT_SPACE);
  put_invalidation(state);
  put_direct_exit(state, address_of(state.read + 1));
}

// Ends the block before the word, which begins a block of its own. The exit is a direct branch to the word, and is
// linked like any other. Otherwise code that the decoder does not know, such as SVE code, would pass through the
// dispatcher at each word.
void end_before_this_word(scan_state& state) {
  mark_source(state.thread, state.write, MARK_SOURCE);
  put_direct_exit(state, address_of(state.read));
}

void leave_to_its_own_block(scan_state& state) {
  end_before_this_word(state);
  if (log_state::engine_log_level < LEVEL_TRACE) return;
  log(LEVEL_TRACE, "deferred scanning because of unknown instruction at: %p, type: %s",
      static_cast<const void*>(state.read), mnemonic_of(state.word));
}

// A word of no class: a branch to a signed address, or the fragment's first word.
void rewrite_unknown(scan_state& state) {
  if (a64_authenticated_branch branch{}; a64_authenticated_branch_decode(state.word, &branch)) {
    rewrite_authenticated_branch(state, branch);
  } else if (is_compare_and_branch(state.word)) {
    rewrite_compare_branch(state);
  } else {
    copy_unknown(state);
  }
}

void put_system_instruction(scan_state& state) {
  if (is_invalidation(state.word)) {
    rewrite_invalidation(state);
  } else {
    *state.write++ = state.word;
  }
}

// What is copied by its class (copied_classes) has no case here.
void rewrite(scan_state& state, int inst) {
  switch (inst) {
    case A64_CBZ: rewrite_conditional_branch<A64_CBZ>(state); break;
    case A64_TBZ: rewrite_conditional_branch<A64_TBZ>(state); break;
    case A64_B_COND: rewrite_conditional_branch<A64_B_COND>(state); break;
    case A64_SVC: rewrite_svc(state); break;
    case A64_MRS_MSR: rewrite_system_register(state); break;
    case A64_B: rewrite_direct_branch(state); break;
    case A64_BR:
    case A64_BLR:
    case A64_RET: rewrite_register_branch(state, inst); break;
    case A64_LDR_LITERAL: rewrite_literal_load(state); break;
    case A64_ADR: rewrite_address(state); break;
    case A64_NOT_RECOGNISED: rewrite_unknown(state); break;
    case A64_MSR_IMM: rewrite_state_switch(state); break;
    case A64_SYS: put_system_instruction(state); break;
    default: *state.write++ = state.word; break;
  }
}

// The caller tests the level first. Otherwise three suppressed calls for each word would still pass their arguments.
void log_word(const scan_state& state, int inst) {
  log(LEVEL_TRACE, "A64 scan read_address: %p, w: : %p, bb: %d", static_cast<const void*>(state.read),
      static_cast<void*>(state.write), state.bb_id);
  log(LEVEL_TRACE, "  instruction enum: %d", inst);
  log(LEVEL_TRACE, "  instruction word: 0x%x", state.word);
}

// Behind a rewritten word: leaves room for an exit.
inline void leave_room(scan_state& state, int inst) {
  if (state.write >= state.limit) {
    log(LEVEL_FATAL, "%d, inst: %p, :write: %p", inst, static_cast<void*>(state.limit),
        static_cast<void*>(state.write));
  }
  if (!state.stop) reserve_space(state, EXIT_SPACE);
}

void scan_word(scan_state& state, int inst) {
  const std::uint32_t* const read = state.read;
  if (engine_logs_traces()) log_word(state, inst);
  mark_source(state.thread, state.write, MARK_SOURCE);
  const bool lends_sp = uses_spare_stack(state.thread) && hears_of_words(state);
  if (lends_sp) lower_sp(state);
  const bool replaced = deliver_scan_event(state, {MORA_PRE_INST, inst, true, nullptr});
  if (state.read != read) state.word = word_at(state.source, state.read);  // A plug-in has gone elsewhere.
  if (!replaced) {
    if (uses_spare_stack(state.thread)) give_sp(state);
    rewrite(state, inst);
  }
  leave_room(state, inst);
  if (state.is_heard && is_event_bound(MORA_POST_INST)) {  // Otherwise nothing is put here.
    mark_inserted_code(state);
    if (lends_sp) lower_sp(state);
    deliver_scan_event(state, {MORA_POST_INST, inst, !state.stop, nullptr});
  }
  ++state.read;
}

// At the place in the fragment where the code of plug-ins for its start goes.
void deliver_start(scan_state& state, const std::uint32_t* first, bool allow_code) {
  if (!state.is_heard) return;
  const std::uint32_t* const next = state.read;
  state.read = first;
  deliver_scan_event(state, {MORA_PRE_FRAGMENT, MORA_NO_INST, allow_code, nullptr});
  state.read = next;
  deliver_scan_event(state, {MORA_PRE_BB, MORA_NO_INST, allow_code, nullptr});
}

// Behind a word of a fragment that begins between a load-exclusive and its store-exclusive. Code in front of the store
// that touches memory may make it fail, on some processors each time, and the pair would go round for ever. A plug-in
// that has ended the fragment before the store is still told of its start.
void deliver_late_start(scan_state& state, const std::uint32_t* first) {
  if (!state.stop && !is_store_exclusive(state.word)) return;
  state.starts_behind_store = false;
  if (state.stop) {
    deliver_start(state, first, false);
    return;
  }
  mark_source(state.thread, state.write, MARK_INSERTED);  // The store has been made.
  lower_sp(state);
  deliver_start(state, first, true);
  raise_sp(state);
}

// Whether nobody hears of single instructions: neither plug-ins nor the log.
bool copies_unseen(const scan_state& state) {
  return !hears_of_words(state) && !engine_logs_traces() && !state.starts_behind_store &&
         !uses_spare_stack(state.thread);
}

// Copies words that stay as they are, as far as they lie one behind the other and leave room for an exit behind each:
// `known` words of the fragment from the window's first have been looked at. What scan_word does with such words, in
// one go. The mark of the word behind them, whose code comes next, is set along.
void copy_words(scan_state& state, std::size_t known) {
  const auto first = static_cast<std::size_t>(state.read - state.source.first);
  const std::uint64_t needed = address_of(state.write) + EXIT_SPACE + end_space(state);
  if (address_of(state.limit) <= needed + sizeof(std::uint32_t)) {
    mark_source(state.thread, state.write, MARK_SOURCE);
    return;
  }
  const std::size_t room = (address_of(state.limit) - needed) / sizeof(std::uint32_t) - 1;
  const std::size_t end = std::min(known, first + room);
  std::size_t index = first;
  std::uint32_t* write = state.write;
  const std::uint32_t* const kept = state.source.kept;
  // Each word by a store of its own: memcpy may use scalable vectors, and after such a store the emulator of a machine
  // still runs what it has translated of the words before. A processor would not, behind the maintenance.
  const std::size_t plain = std::min(end, state.source.plain);
  for (; index < plain; ++index) __atomic_store_n(write++, kept[index], __ATOMIC_RELAXED);
  for (; index < end && copied_classes[state.source.classes[index]]; ++index) *write++ = kept[index];
  mark_source_words(state.thread, state.write, index - first + 1);
  state.write = write;
  state.read += index - first;
}

// `known`: how many words of the fragment have been looked at already. They can be read, and none but the first begins
// a block of its own.
void scan_words(scan_state& state, std::size_t known) {
  const std::uint32_t* const first = state.read;
  const bool copies = copies_unseen(state);
  while (!state.stop) {
    const bool unseen = copies && state.thread->return_watch.count == 0;
    if (unseen) copy_words(state, known);
    if (const auto index = static_cast<std::size_t>(state.read - first); index < known) {
      const int inst = state.source.classes[index];
      state.word = state.source.kept[index];
      if (unseen) {  // What scan_word does then. The word has its mark.
        rewrite(state, inst);
        leave_room(state, inst);
        ++state.read;
        continue;
      }
      scan_word(state, inst);
      if (state.starts_behind_store) deliver_late_start(state, first);
      continue;
    }
    if (state.read != first && begins_unreadable_page(state.read)) {
      end_before_this_word(state);
      continue;
    }
    state.word = word_at(state.source, state.read);
    if (state.read != first && begins_its_own_block(state.word)) {
      leave_to_its_own_block(state);  // Before its events: plug-ins are told of the word in the block that it begins.
    } else {
      scan_word(state, a64_decode(&state.word));
      if (state.starts_behind_store) deliver_late_start(state, first);
    }
  }
}

// The code in front of the fragment's first word.
void put_start(scan_state& state, const std::uint32_t* first, const fragment_end& end) {
  bool is_put_later = false;
  if (state.thread->resumed.source == address_of(first)) {
    // One that began elsewhere.
    deliver_start(state, reinterpret_cast<const std::uint32_t*>(state.thread->resumed.first),
                  state.thread->resumed.counts != 0);
    return;
  }
  // The code at a watched function's entry has to see the registers as they are there.
  state.starts_behind_store =
      end.has_store_exclusive && begins_between_exclusives(state.source, first) && !is_watched_function(first);
  if (!state.starts_behind_store) {
    const bool counts = state.type == FRAGMENT_BLOCK && !has_own_blocks(state.thread) && end.is_direct_branch;
    if (counts) {
      state.counter.first = state.write;
      is_put_later = may_be_plugins_counter(state);
      if (is_put_later) {
        state.write += HOT_COUNTER_WORDS;
      } else {
        put_hot_counter(state);
      }
      state.counter.end = state.write;
    }
    deliver_start(state, first, true);
    if (is_put_later && !state.counter.is_plugins) put_left_out_counter(state);
    note_code_behind_count(state);
  }
  // No hot counter for the others: where it is the store has been made, and a trace would begin with making it again.
  raise_sp(state);
}

// A block that cannot be a trace's head does not count. Its end is not the one that was looked for ahead if a plug-in
// has gone elsewhere, or if another thread has changed it behind what is kept of the source.
void leave_out_counter(const scan_state& state, const bb_meta& meta) {
  const counter_words& counter = state.counter;
  if (counter.first == nullptr || meta.exit_kind == EXIT_NOT_SET || is_direct_exit(meta.exit_kind)) return;
  if (counter.is_plugins) {
    stop_asking(state.thread, meta);
  } else {
    a64_branch(counter.first, address_of(counter.end));
  }
}

// Makes the record one without an exit. A signal may come before the fragment's exit is written, and must not take the
// exit of an earlier fragment for this one's.
void clear_exit(bb_meta& meta, std::uint32_t* cache_end) {
  meta.exit_kind = EXIT_NOT_SET;
  meta.exit_code_addr = cache_end;
  meta.link_state = LINK_NONE;
}

}  // namespace

void a64_branch_jump(thread_data* thread, std::uint32_t** write, std::uint64_t target, std::int32_t bb_id) {
  if (engine_logs_traces()) log(LEVEL_TRACE, "A64 branch target: 0x%lx", target);
  const code_writer code{*write};
  code.load_const(x0, target);
  code.load_const(x1, static_cast<std::uint64_t>(bb_id));
  code.b(thread->dispatcher_stub_addr);
}

void a64_reserve_block_space(thread_data* thread, std::uint32_t** write, std::uint32_t** limit, std::uint32_t size) {
  if (address_of(*limit) == address_of(thread->code_cache) + CODE_CACHE_SIZE) {
    // A fragment of a trace cannot go on in another block. If it does not fit, its scan still goes on to its end, over
    // its own first words: plug-ins hear where the fragment ends, and that must not depend on the room. Nothing runs
    // these words.
    if (address_of(*limit) > address_of(*write) + size + TRACE_END_SPACE) return;
    thread->trace_fragment_overflow = 1;
    *write = thread->trace_fragment_start;
    begin_source_marks(thread, *write);
    return;
  }
  while (address_of(*limit) <= address_of(*write) + size) {
    const std::int32_t current = cc_addr_to_bb_id(thread, address_of(*limit) - 1);
    const std::int32_t added = allocate_bb(thread);
    thread->metas[added].parent_block = current;
    std::uint32_t* block = block_words(thread, added);
    // Blocks are handed out in rising order, so the new one is adjacent unless a flush has come between.
    if (block != *limit) {
      std::uint32_t* branch = *write;
      code_writer{*write}.b(address_of(block));
      continue_source_marks(thread, branch, block);
      *write = block;
    }
    *limit = block + BB_SIZE / sizeof(std::uint32_t);
  }
}

std::uint32_t scan_fragment(thread_data* thread, const std::uint32_t* read_address, std::int32_t bb_id,
                            fragment_type type, std::uint32_t* write) {
  auto* cache_end = reinterpret_cast<std::uint32_t*>(thread->code_cache + CODE_CACHE_SIZE);
  std::uint32_t* const start = write != nullptr ? write : block_words(thread, bb_id);
  scan_state state = {};
  state.thread = thread;
  state.bb_id = bb_id;
  state.type = type;
  state.read = read_address;
  state.bb_start = read_address;
  state.write = start;
  state.limit = cache_end;
  state.source = {read_address, thread->scan_words, SCAN_WORDS, thread->scan_classes};
  bb_meta& meta = meta_of(state);
  if (type == FRAGMENT_BLOCK) {
    state.limit = start + BB_SIZE / sizeof(std::uint32_t);
  } else {
    meta.trampoline = 0;
    thread->trace_fragment_start = start;
    thread->trace_fragment_overflow = 0;
    thread->run_scan.counter = nullptr;
    thread->run_scan.ends_group = 0;
  }
  if (type != FRAGMENT_TRACE) code_writer{state.write}.pop(x0, x1);
  clear_exit(meta, cache_end);
  begin_source_marks(thread, start);

  mark_before_load(state.source, read_address);  // Before the question: who maps something there finds the mark.
  if (!is_source_readable(read_address)) {
    put_fault(state);
    meta.source_words = 1;
    end_source_marks(thread, state.write);
    return static_cast<std::uint32_t>(state.write - start) * 4;
  }
  const fragment_end end = find_end(state.source, read_address);
  begin_scan_events(state);
  put_start(state, read_address, end);
  const auto known = static_cast<std::size_t>(end.word - read_address) + (end.is_inside ? 1 : 0);
  scan_words(state, std::min(known, SCAN_WORDS));
  deliver_scan_event(state, {MORA_POST_BB, MORA_NO_INST, false, state.read});
  deliver_scan_event(state, {MORA_POST_FRAGMENT, MORA_NO_INST, false, nullptr});
  end_scan_events(state);
  if (type != FRAGMENT_BLOCK && state.is_heard) look_for_group_end(state);
  meta.source_words = static_cast<std::uint32_t>(state.read - read_address) + 1;
  leave_out_counter(state, meta);
  end_source_marks(thread, state.write);
  return static_cast<std::uint32_t>(state.write - start) * 4;
}

}  // namespace ceilmeter
