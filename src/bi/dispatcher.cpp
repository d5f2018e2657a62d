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
// cache is cleared over the words written before the thread goes back into the cache. The clearing ends with the
// barriers and the context synchronisation that make the new words those that are fetched, and no other thread executes
// them.
#include "bi/dispatcher.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code_words.h"
#include "bi/exit_branch.h"
#include "bi/stubs.h"
#include "bi/traces.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/dispatcher"};

void link_direct_exit(thread_data* thread, bb_meta& meta, std::uint64_t entry) {
  a64_branch_and_link(thread, meta.exit_code_addr, entry);
  clear_instruction_cache(meta.exit_code_addr, meta.exit_code_addr + 1);
  meta.link_state = LINK_TAKEN_FIRST;
}

void link_second_side(thread_data* thread, bb_meta& meta, std::uint64_t entry) {
  std::uint32_t* place = meta.exit_code_addr + 2;
  // The exit of a CB<cc> has a fixed place for each side.
  if (meta.exit_kind == EXIT_COMPARE && (meta.link_state & LINK_TAKEN_FIRST) != 0) place = meta.exit_code_addr + 1;
  meta.link_state |= LINK_BOTH;
  a64_branch_and_link(thread, place, entry);
  clear_instruction_cache(place, place + 1);
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
  clear_instruction_cache(exit, exit + 3);
}

void link_first_side(thread_data* thread, bb_meta& meta, std::uint64_t target, std::uint64_t entry) {
  const bool taken = target == meta.taken_source_addr;
  const std::uint64_t other = hash_lookup_entry(thread, taken ? meta.skipped_source_addr : meta.taken_source_addr);
  meta.link_state = taken ? LINK_TAKEN_FIRST : LINK_SKIPPED_FIRST;
  if (meta.exit_kind == EXIT_COMPARE) {
    link_first_side_of_compare(thread, meta, taken, entry, other);
    return;
  }
  const auto condition = static_cast<std::uint32_t>(meta.exit_condition);
  std::uint32_t* write = meta.exit_code_addr;
  insert_cond_exit_branch(meta, &write, taken ? condition ^ 1 : condition);
  a64_branch_and_link(thread, write++, entry);
  if (other != HASH_MISS) {
    a64_branch_and_link(thread, write++, other + ENTRY_WORD_SIZE);
    meta.link_state |= LINK_BOTH;
  }
  clear_instruction_cache(meta.exit_code_addr, write);
}

constexpr std::uint32_t PUSHED_BYTES = 32;  // By a64_push_x0_x1 and push_x2.

void push_x2(std::uint32_t** at) { a64_ldr_str_imm9((*at)++, 3, 0, 0, 0x1f0, 3, SP, X2); }  // str x2, [sp, #-16]!
void pop_x2(std::uint32_t** at) { a64_ldr_str_imm9((*at)++, 3, 0, 1, 16, 1, SP, X2); }      // ldr x2, [sp], #16

void put_move(std::uint32_t** at, std::uint32_t to, std::uint32_t from) {
  a64_logical_shifted((*at)++, 1, 1, 0, 0, from, 0, XZR, to);
}

// Goes to the fragment of the source address in `target`, with x0 and x1 on the stack, and x2 above them if it is saved. Then
// the target is in x1, and x2 serves as the second register; x1 does otherwise.
void put_inline_lookup(thread_data* thread, std::int32_t bb_id, std::uint32_t** write, std::uint32_t target, bool x2_is_saved) {
  const std::uint32_t scratch = x2_is_saved ? X2 : X1;
  std::uint32_t* at = *write;
  a64_load_const(&at, X0, reinterpret_cast<std::uint64_t>(thread->entry_table.entries));

  // and scratch, target, #0x1ffffc: the bits of the address that the table's hash selects, in place. 19 ones, rotated
  // left by 2.
  static_assert(ENTRY_TABLE_SIZE - 10 == 0x7ffff, "the mask of the inline lookup is that of the hash");
  a64_logical_imm(at++, 1, 0, 1, 62, 18, target, scratch);
  a64_add_sub_shifted(at++, 1, 0, 0, 0, scratch, 2, X0, X0);  // add x0, x0, scratch, lsl #2
  static_assert(HASH_ENTRY_BYTES == 16 && HASH_ENTRY_KEY_OFFSET == 0 && HASH_ENTRY_VALUE_OFFSET == 8);
  std::uint32_t* loop = at;
  a64_ldr_str_imm9(at++, 3, 0, 1, 16, 1, X0, scratch);  // ldr scratch, [x0], #16
  std::uint32_t* to_miss = at++;
  a64_add_sub_shifted(at++, 1, 1, 0, 0, target, 0, scratch, scratch);  // sub scratch, scratch, target
  a64_cbnz_helper(at, reinterpret_cast<std::uint64_t>(loop), 1, scratch);
  ++at;
  a64_ldr_str_imm9(at++, 3, 0, 1, 0x1f8, 0, X0, X0);  // ldur x0, [x0, #-8]
  if (x2_is_saved) pop_x2(&at);
  a64_br(at++, X0);

  a64_cbz_helper(to_miss, reinterpret_cast<std::uint64_t>(at), 1, scratch);
  put_move(&at, X0, target);
  a64_load_const(&at, X1, static_cast<std::uint64_t>(bb_id));
  if (x2_is_saved) pop_x2(&at);
  a64_branch(at++, thread->dispatcher_stub_addr);
  *write = at;
}

std::uint64_t find_block(thread_data* thread, std::uint64_t target, std::int32_t source_index) {
  if (log_state::engine_log_level < LEVEL_TRACE) return lookup_or_scan(thread, target);
  std::int32_t cached = 0;
  const std::uint64_t found = _lookup_or_scan(thread, target, &cached);
  if (cached != 0) {
    log(LEVEL_TRACE, "found block from %d for 0x%lx in cache at 0x%lx", source_index, target, found);
  } else {
    log(LEVEL_TRACE, "scanned at 0x%lx for 0x%lx", found, target);
  }
  return found;
}

// A branch ignores the top byte of an address of the application's half, and `pc` then has none. The inline lookup
// knows the whole address only and misses for a tagged one.
std::uint64_t without_tag(std::uint64_t target) {
  constexpr int sign_bit = 55;  // Selects the half of the address space; the other one is the kernel's.
  return (target >> sign_bit & 1) != 0 ? target : target & ((std::uint64_t{1} << (sign_bit + 1)) - 1);
}

}  // namespace

extern "C" void dispatcher(std::uint64_t target, std::int32_t source_index, std::uint64_t* next_addr,
                           thread_data* thread) {
  if (const std::uint64_t stripped = without_tag(target); stripped != target) {
    target = stripped;
    next_addr[1] = stripped;  // Held signals find it as their pc.
  }
  log(LEVEL_TRACE, "source block index: %d", source_index);
  if (source_index >= BB_COUNT) {
    trace_dispatcher(target, next_addr, source_index, thread);
    return;
  }
  bb_meta& meta = thread->metas[source_index];
  const std::uint32_t exit_kind = meta.exit_kind;  // Read now: the search below may flush it away.
  log(LEVEL_TRACE, "reached the dispatcher, target: 0x%lx, ret: %p, src: %d thr: %p", target,
      static_cast<void*>(next_addr), source_index, static_cast<void*>(thread));
  thread->flush_seen = 0;
  if (!has_links_to_spare(thread->cc_link_pool, 2)) flush_code_cache(thread);  // One call may need two.
  const std::uint64_t found = find_block(thread, target, source_index);
  *next_addr = found;
  if (source_index == 0 || thread->flush_seen != 0) return;

  const std::uint64_t entry = found + ENTRY_WORD_SIZE;
  switch (exit_kind) {
    case EXIT_DIRECT: link_direct_exit(thread, meta, entry); break;
    case EXIT_B_COND:
    case EXIT_CBZ:
    case EXIT_TBZ:
    case EXIT_COMPARE:
      if (meta.link_state != LINK_NONE) {
        link_second_side(thread, meta, entry);
      } else {
        link_first_side(thread, meta, target, entry);
      }
      break;
    // A register branch looks its target up by itself each time; a block that was not scanned yet has become the
    // target.
    default: break;
  }
}

bool has_links_to_spare(linked_pool* pool, std::uint32_t count) {
  // Records are handed out in the order of their addresses, and none is ever given back alone.
  const linked_record* end = linked_pool_records(pool) + pool->capacity;
  return pool->free_head != nullptr && end - pool->free_head >= static_cast<std::ptrdiff_t>(count);
}

void a64_branch_and_link(thread_data* thread, std::uint32_t* from, std::uint64_t to) {
  a64_branch(from, to);
  record_cc_link(thread, reinterpret_cast<std::uint64_t>(from), to);
}

void insert_cond_exit_branch(const bb_meta& meta, std::uint32_t** write, std::uint32_t condition) {
  if (meta.exit_kind == EXIT_DIRECT) return;
  if (!is_conditional_exit(meta.exit_kind)) log(LEVEL_FATAL, "insert_cond_exit_branch(): unknown branch type");
  exit_branch branch = unpack_exit_branch(meta);
  branch.condition = condition;
  encode_exit_branch(*write, branch, address_of(*write + 2));
  ++*write;
}

void a64_branch_reg(thread_data* thread, std::int32_t bb_id, std::uint32_t** write, const std::uint32_t* read_address,
                    std::uint32_t reg, bool link, bool set_meta) {
  std::uint32_t* at = *write;
  // The lookup needs x0 and one more register, and the target must survive both, and the loading of x30.
  const bool needs_x2 = reg == X0 || reg == X1 || (link && reg == LINK_REGISTER);
  const std::uint32_t target = needs_x2 ? X1 : reg;
  a64_push_x0_x1(&at);
  if (needs_x2) {
    push_x2(&at);
    if (reg != X1) put_move(&at, X1, reg);
  }
  if (set_meta) thread->metas[bb_id].rn = target;
  if (link) a64_load_const(&at, LINK_REGISTER, reinterpret_cast<std::uint64_t>(read_address) + 4);
  put_inline_lookup(thread, bb_id, &at, target, needs_x2);
  *write = at;
}

void a64_branch_authenticated(thread_data* thread, std::int32_t bb_id, std::uint32_t** write,
                              const std::uint32_t* read_address, const a64_authenticated_branch& branch) {
  std::uint32_t* at = *write;
  a64_push_x0_x1(&at);
  push_x2(&at);
  std::uint32_t modifier = X2;
  if (branch.zero_modifier == 0) {
    // Before x1 is written, and not into the register that x1 is about to be copied from: either may be either.
    if (branch.target == X2) modifier = X0;
    if (branch.modifier == SP) {
      a64_add_sub_imm(at++, 1, 0, 0, 0, PUSHED_BYTES, SP, modifier);  // add modifier, sp, #32: sp as it was.
    } else if (branch.modifier != modifier) {
      put_move(&at, modifier, branch.modifier);
    }
  }
  if (branch.target != X1) put_move(&at, X1, branch.target);
  a64_authenticate(at++, branch.key, branch.zero_modifier, modifier, X1);
  thread->metas[bb_id].rn = X1;
  if (branch.link != 0) a64_load_const(&at, LINK_REGISTER, reinterpret_cast<std::uint64_t>(read_address) + 4);
  put_inline_lookup(thread, bb_id, &at, X1, true);
  *write = at;
}

}  // namespace ceilmeter
