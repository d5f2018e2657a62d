// Every link is a branch word that the dispatcher writes over words that the scanner reserved. Links go to a fragment's
// entry plus 4: an arrival through a stub finds the application's x0 and x1 on the stack and enters at the entry word,
// which pops them; an arrival through a link has never pushed them.
//
//   conditional exit after its first link            exit of a CB<cc>, which is not inverted
//   word 0   branch over word 1 to the other side    cb<cc> word 2
//   word 1   the first link                          b  fall-through side, or word 3 while that has no link
//   word 2   the second link, or still the push      b  taken side, or nop while that has no link
//   word 3   the rest of the exit stub               the push, and the rest of the exit stub
//
// A thread patches its own code only, and does so in the engine, outside the code that it patches. The instruction
// cache is cleared over the words written before the thread goes back into the cache, at the end of the visit
// (written_code.h). The clearing ends with the barriers and the context synchronisation that make the new words those
// that are fetched, and no other thread executes them.
#include "bi/code/dispatcher.h"

#include <cstring>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_cache.h"
#include "bi/code/code_epoch.h"
#include "bi/code/code_words.h"
#include "bi/code/code_writer.h"
#include "bi/code/exit_branch.h"
#include "bi/code/spare_stack.h"
#include "bi/code/stubs.h"
#include "bi/code/traces.h"
#include "bi/engine_switches.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/dispatcher"};

void link_direct_exit(thread_data* thread, bb_meta& meta, std::uint64_t entry) {
  a64_branch_and_link(thread, meta.exit_code_addr, entry);
  note_written(thread->written, meta.exit_code_addr, meta.exit_code_addr + 1);
  meta.link_state = LINK_TAKEN_FIRST;
}

void link_second_side(thread_data* thread, bb_meta& meta, std::uint64_t entry) {
  std::uint32_t* place = meta.exit_code_addr + 2;
  // The exit of a CB<cc> has a fixed place for each side.
  if (meta.exit_kind == EXIT_COMPARE && (meta.link_state & LINK_TAKEN_FIRST) != 0) place = meta.exit_code_addr + 1;
  meta.link_state |= LINK_BOTH;
  a64_branch_and_link(thread, place, entry);
  note_written(thread->written, place, place + 1);
}

// `other` is the entry of the other side's fragment, or HASH_MISS: that side then goes on to the exit stub.
void link_first_side_of_compare(thread_data* thread, bb_meta& meta, bool taken, std::uint64_t entry,
                                std::uint64_t other) {
  std::uint32_t* exit = meta.exit_code_addr;
  encode_exit_branch(exit, unpack_exit_branch(meta), address_of(exit + 2));
  std::uint32_t* const place = taken ? exit + 2 : exit + 1;
  std::uint32_t* const other_place = taken ? exit + 1 : exit + 2;
  a64_branch_and_link(thread, place, entry);
  if (other != HASH_MISS) {
    a64_branch_and_link(thread, other_place, other + ENTRY_WORD_SIZE);
    meta.link_state |= LINK_BOTH;
  } else if (taken) {
    a64_branch(other_place, address_of(exit + 3));
  }
  note_written(thread->written, exit, exit + 3);
}

// The branch of the fragment's exit, with this condition, over the word behind it.
void put_exit_branch(const bb_meta& meta, std::uint32_t* place, std::uint32_t condition) {
  exit_branch branch = unpack_exit_branch(meta);
  branch.condition = condition;
  encode_exit_branch(place, branch, address_of(place + 2));
}

void link_first_side(thread_data* thread, bb_meta& meta, std::uint64_t target, std::uint64_t entry) {
  const bool taken = target == meta.taken_source_addr;
  const std::uint64_t other_source = taken ? meta.skipped_source_addr : meta.taken_source_addr;
  const std::uint64_t other = hash_lookup(&thread->entry_table.table, other_source);
  meta.link_state = taken ? LINK_TAKEN_FIRST : LINK_SKIPPED_FIRST;
  if (meta.exit_kind == EXIT_COMPARE) {
    link_first_side_of_compare(thread, meta, taken, entry, other);
    return;
  }
  const auto condition = static_cast<std::uint32_t>(meta.exit_condition);
  std::uint32_t* write = meta.exit_code_addr;
  put_exit_branch(meta, write++, taken ? condition ^ 1 : condition);
  a64_branch_and_link(thread, write++, entry);
  if (other != HASH_MISS) {
    a64_branch_and_link(thread, write++, other + ENTRY_WORD_SIZE);
    meta.link_state |= LINK_BOTH;
  }
  note_written(thread->written, meta.exit_code_addr, write);
}

// What a lookup pushes at most: x0 and x1, and x2.
constexpr std::uint32_t PUSHED_BYTES = 32;

void put_lookup_miss(const thread_data* thread, std::int32_t bb_id, code_writer code, x_register target,
                     bool x2_is_saved) {
  code.mov(x0, target);
  code.load_const(x1, static_cast<std::uint64_t>(bb_id));
  if (x2_is_saved) code.pop(x2);
  code.b(thread->dispatcher_stub_addr);
}

// Goes to the fragment of the source address in `target`. x0 and x1 are on the stack, and x2 above them if
// `x2_is_saved`. Then the target is in x1, and x2 is the second register that the lookup needs; otherwise x1 is.
void put_inline_lookup(thread_data* thread, std::int32_t bb_id, code_writer code, x_register target, bool x2_is_saved) {
  const x_register scratch = x2_is_saved ? x2 : x1;
  if (uses_spare_stack(thread)) {  // The table has the blocks of everybody.
    put_lookup_miss(thread, bb_id, code, target, x2_is_saved);
    return;
  }
  code.load_address(x0, address_of(thread->entry_table.entries));  // They begin with a page.

  // The mask leaves the bits of the address that the table's hash selects, in place.
  static_assert(ENTRY_TABLE_SIZE - 10 == 0x1ffffc >> 2, "the mask of the inline lookup is that of the hash");
  code.and_(scratch, target, 0x1ffffc);
  code.add(x0, x0, scratch, SHIFT_LSL, 2);

  static_assert(HASH_ENTRY_BYTES == 16 && HASH_ENTRY_KEY_OFFSET == 0 && HASH_ENTRY_VALUE_OFFSET == 8);
  code_label loop;
  code_label miss;
  code.bind(loop);
  code.ldr(scratch, post_index(x0, 16));
  code.cbz(scratch, miss);
  code.sub(scratch, scratch, target);
  code.cbnz(scratch, loop);
  code.ldur(x0, at(x0, -8));
  if (x2_is_saved) code.pop(x2);
  code.br(x0);

  code.bind(miss);
  put_lookup_miss(thread, bb_id, code, target, x2_is_saved);
}

std::uint64_t find_block_and_log(thread_data* thread, std::uint64_t target, std::int32_t source_index) {
  std::int32_t cached = 0;
  const std::uint64_t found = _lookup_or_scan(thread, target, &cached);
  if (cached != 0) {
    log(LEVEL_TRACE, "found block from %d for 0x%lx in cache at 0x%lx", source_index, target, found);
  } else {
    log(LEVEL_TRACE, "scanned at 0x%lx for 0x%lx", found, target);
  }
  return found;
}

inline std::uint64_t find_block(thread_data* thread, std::uint64_t target, std::int32_t source_index) {
  return engine_logs_traces() ? find_block_and_log(thread, target, source_index) : lookup_or_scan(thread, target);
}

// A branch ignores the top byte of an address of the application's half, and `pc` then has none. The inline lookup
// knows the whole address only and misses for a tagged one.
std::uint64_t without_tag(std::uint64_t target) {
  constexpr int sign_bit = 55;  // Selects the half of the address space; the other one is the kernel's.
  return (target >> sign_bit & 1) != 0 ? target : target & ((std::uint64_t{1} << (sign_bit + 1)) - 1);
}

// The application's x0 to x3, which the stub has left on the application's stack at next_addr[2], go up to where they
// lie for any other block.
void end_kept_stack(thread_data* thread, std::uint64_t* next_addr) {
  thread->untouched_sp = 0;
  const std::uint64_t frame = next_addr[2] + KEPT_BELOW_SP;
  std::memmove(reinterpret_cast<void*>(frame), reinterpret_cast<const void*>(next_addr[2]), STUB_APP_FRAME_SIZE);
  next_addr[2] = frame;
}

// For a thread whose blocks keep what is below its stack pointer: whether the next one is to be such a block again. A
// thread that runs long without a stack becomes like any other after a while: such blocks are slow.
bool still_keeps_below_sp(thread_data* thread, std::uint64_t* next_addr) {
  constexpr std::uint32_t most_visits = 100000;
  const std::uint64_t stack_pointer = next_addr[2] + STUB_APP_FRAME_SIZE + KEPT_BELOW_SP;
  if (stack_pointer == thread->untouched_sp && ++thread->untouched_visits < most_visits) return true;
  end_kept_stack(thread, next_addr);
  return false;
}

// The next block of a thread at the end of its stack. If it has room now, the application's x0 to x3 go to where they
// lie for any other block.
std::uint64_t find_block_at_end(thread_data* thread, std::uint64_t target, std::int32_t source_index,
                                std::uint64_t* next_addr) {
  thread->resumed.entry = 0;
  if (thread->resumed.source != target && !still_needs_spare_stack(thread)) {
    const std::uint64_t frame = thread->spare_for_sp - STUB_APP_FRAME_SIZE;
    std::memcpy(reinterpret_cast<void*>(frame), reinterpret_cast<const void*>(next_addr[2]), STUB_APP_FRAME_SIZE);
    next_addr[2] = frame;
    leave_own_blocks(thread);
    return find_block(thread, target, source_index);
  }
  const std::uint64_t found = find_block(thread, target, source_index);
  if (thread->resumed.source == target) thread->resumed.entry = found;
  thread->resumed.source = 0;
  return found;
}

// Where the thread goes on behind a block that has a key of its own. No link is made.
std::uint64_t find_behind_own_block(thread_data* thread, std::uint64_t target, std::int32_t source_index,
                                    std::uint64_t* next_addr) {
  if (uses_spare_stack(thread)) return find_block_at_end(thread, target, source_index, next_addr);
  const bool keeps = still_keeps_below_sp(thread, next_addr);
  log(LEVEL_TRACE, "a new thread's block, which is not linked; the next one: %d", keeps);
  return find_block(thread, target, source_index);
}

// The exit of the block leads to the fragment at `entry`, behind its entry word, from now on.
void link_exit(thread_data* thread, bb_meta& meta, std::uint64_t target, std::uint64_t entry) {
  if (meta.exit_kind == EXIT_DIRECT) {
    link_direct_exit(thread, meta, entry);
  } else if (meta.link_state != LINK_NONE) {
    link_second_side(thread, meta, entry);
  } else {
    link_first_side(thread, meta, target, entry);
  }
}

void dispatch(std::uint64_t target, std::int32_t source_index, std::uint64_t* next_addr, thread_data* thread) {
  if (const std::uint64_t stripped = without_tag(target); stripped != target) {
    target = stripped;
    next_addr[1] = stripped;  // Held signals find it as their pc.
  }
  if (engine_logs_traces()) log(LEVEL_TRACE, "source block index: %d", source_index);
  if (thread->invalidates != 0) {
    thread->invalidates = 0;
    invalidate_line(thread, without_tag(thread->invalidated_address));
  }
  if (follow_code_epoch(thread)) source_index = 0;  // The fragment that was left may be gone: it gets no link.
  if (has_own_blocks(thread)) {
    *next_addr = find_behind_own_block(thread, target, source_index, next_addr);
    return;
  }
  if (source_index >= BB_COUNT) {
    trace_dispatcher(target, next_addr, source_index, thread);
    return;
  }
  bb_meta& meta = thread->metas[source_index];
  const std::uint32_t exit_kind = meta.exit_kind;  // Read now: the search below may flush it away.
  if (engine_logs_traces()) {
    log(LEVEL_TRACE, "reached the dispatcher, target: 0x%lx, ret: %p, src: %d thr: %p", target,
        static_cast<void*>(next_addr), source_index, static_cast<void*>(thread));
  }
  thread->flush_seen = 0;
  if (!has_links_to_spare(thread->cc_link_pool, 2)) flush_code_cache(thread);  // One call may need two.
  const std::uint64_t found = find_block(thread, target, source_index);
  *next_addr = found;
  // A register branch looks its target up by itself each time; a block that was not scanned yet has become the target.
  if (source_index == 0 || thread->flush_seen != 0 || !is_direct_exit(exit_kind)) return;
  std::uint64_t number = 0;
  if (!may_link(&number)) return;

  link_exit(thread, meta, target, found + ENTRY_WORD_SIZE);
  if (number != 0) note_link(thread, source_index, number);
}

}  // namespace

extern "C" void dispatcher(std::uint64_t target, std::int32_t source_index, std::uint64_t* next_addr,
                           thread_data* thread) {
  begin_deferring(thread->written);
  dispatch(target, source_index, next_addr, thread);
  finish_written(thread->written);
}

bool has_links_to_spare(linked_pool* pool, std::uint32_t count) {
  // Records are handed out in the order of their addresses, and none is ever given back alone.
  const linked_record* end = linked_pool_records(pool) + pool->capacity;
  return pool->free_head != nullptr && end - pool->free_head >= static_cast<std::ptrdiff_t>(count);
}

void a64_branch_and_link(thread_data* thread, std::uint32_t* from, std::uint64_t to) {
  a64_branch(from, to);
  record_cc_link(thread, address_of(from), to);
}

void insert_cond_exit_branch(const bb_meta& meta, std::uint32_t** write, std::uint32_t condition) {
  if (meta.exit_kind == EXIT_DIRECT) return;
  if (!is_conditional_exit(meta.exit_kind)) log(LEVEL_FATAL, "insert_cond_exit_branch(): unknown branch type");
  put_exit_branch(meta, (*write)++, condition);
}

void a64_branch_reg(thread_data* thread, std::int32_t bb_id, std::uint32_t** write, const std::uint32_t* read_address,
                    std::uint32_t reg, bool link, bool set_meta) {
  const code_writer code{*write};
  // The lookup needs x0 and one more register. The target must survive both, and the loading of x30.
  const bool needs_x2 = reg == x0.number || reg == x1.number || (link && reg == x30.number);
  const x_register target = needs_x2 ? x1 : x_register{reg};
  code.push(x0, x1);
  if (needs_x2) {
    code.push(x2);
    if (reg != x1.number) code.mov(x1, x_register{reg});
  }
  if (set_meta) thread->metas[bb_id].rn = target.number;
  if (link) code.load_address(x30, address_of(read_address) + 4);
  put_inline_lookup(thread, bb_id, code, target, needs_x2);
}

void a64_branch_authenticated(thread_data* thread, std::int32_t bb_id, std::uint32_t** write,
                              const std::uint32_t* read_address, const a64_authenticated_branch& branch) {
  const code_writer code{*write};
  code.push(x0, x1);
  code.push(x2);
  x_register modifier = x2;
  if (branch.zero_modifier == 0) {
    // The modifier is copied first: x1 is written below. It must not overwrite the register that x1 is copied from.
    if (branch.target == x2.number) modifier = x0;
    if (branch.modifier == sp.number && uses_spare_stack(thread)) {
      code.load_const(modifier, address_of(&thread->spare_for_sp));
      code.ldr(modifier, at(modifier));
    } else if (branch.modifier == sp.number) {
      // sp as it was before the exit.
      code.add(modifier, sp, PUSHED_BYTES + static_cast<std::uint32_t>(kept_below_sp(thread)));
    } else if (branch.modifier != modifier.number) {
      code.mov(modifier, x_register{branch.modifier});
    }
  }
  if (branch.target != x1.number) code.mov(x1, x_register{branch.target});
  if (branch.zero_modifier != 0) {
    code.aut_zero(branch.key, x1);
  } else {
    code.aut(branch.key, x1, modifier);
  }
  thread->metas[bb_id].rn = x1.number;
  if (branch.link != 0) code.load_address(x30, address_of(read_address) + 4);
  put_inline_lookup(thread, bb_id, code, x1, true);
}

}  // namespace ceilmeter
