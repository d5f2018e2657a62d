// The rules of scan_rules.h. A rule that needs a register besides the instruction's own pushes it first and pops it
// afterwards.
#include "bi/code/scan_rules.h"

#include <atomic>
#include <cstddef>

#include "a64/classifier_rows.h"
#include "bi/a64/a64.h"
#include "bi/code/code_epoch.h"
#include "bi/code/code_writer.h"
#include "bi/code/spare_stack.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/scan_ahead.h"
#include "bi/code/scanner.h"
#include "bi/code/source_map.h"
#include "bi/code/stubs.h"
#include "bi/code/translated_pages.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/scanner"};  // Not its own name: see the log's units in docs/engine.md.

// How many of the words behind this one belong to the same instruction or sequence.
int following_words(std::uint32_t word) {
  // MOVPRFX makes one instruction with the next. The pair is only defined if nothing comes between the two.
  const bool unpredicated = (word & 0xfffffc00) == 0x0420bc00;  // movprfx Zd, Zn
  const bool predicated = (word & 0xff3ee000) == 0x04102000;    // movprfx Zd.T, Pg/M, Zn.T and Pg/Z
  if (unpredicated || predicated) return 1;
  // The first of the three words of a memory copy (CPYP, CPYFP) or set (SETP, SETGP). If a thread moves to another kind
  // of processor in the middle, the kernel sends it back to the first word and counts back from its pc to find it.
  if ((word & 0x3b200c00) != 0x19000400) return 0;
  const std::uint32_t stage = word >> 22 & 3;
  const bool is_set = stage == 3;
  return (is_set ? word >> 14 & 3 : stage) == 0 ? 2 : 0;
}

// LDR, LDRSW and PRFM of general registers.
void put_general_load(const code_writer& code, std::uint32_t opc, std::uint32_t reg, x_register base) {
  switch (opc) {
    case 0: code.ldr_w(x_register{reg}, at(base)); break;
    case 1: code.ldr(x_register{reg}, at(base)); break;
    case 2: code.ldrsw(x_register{reg}, at(base)); break;
    default: code.prfm(reg, at(base)); break;
  }
}

void put_vector_load(const code_writer& code, std::uint32_t opc, std::uint32_t reg, x_register base) {
  switch (opc) {
    case 0: code.ldr_s(v_register{reg}, at(base)); break;
    case 1: code.ldr_d(v_register{reg}, at(base)); break;
    default: code.ldr_q(v_register{reg}, at(base)); break;
  }
}

// The engine's code saves and restores vectors by instructions that a processor need not have in streaming mode, and
// the C library may use more of them.
void refuse_streaming(const scan_state& state) {
  log(LEVEL_FATAL,
      "the application enters streaming mode of the Scalable Matrix Extension (smstart at %p): it cannot be traced; "
      "build it, or choose its libraries, without SME",
      static_cast<const void*>(state.read));
}

}  // namespace

void mark_inserted_code(scan_state& state) {
  if (state.is_heard) mark_source(state.thread, state.write, MARK_INSERTED);
}

void lower_sp_in_own_block(scan_state& state) {
  if (state.has_sp) a64_hvc(state.write++, TRAP_LOWER_SP);
  state.has_sp = false;
  if (keeps_below_sp(state.thread)) code_writer{state.write}.sub(sp, sp, KEPT_BELOW_SP);
}

void raise_sp_in_own_block(scan_state& state) {
  if (keeps_below_sp(state.thread)) code_writer{state.write}.add(sp, sp, KEPT_BELOW_SP);
}

void give_sp(scan_state& state) {
  if (state.has_sp || !may_use_sp(state.word)) return;
  a64_hvc(state.write++, TRAP_RAISE_SP);
  state.has_sp = true;
}

std::uint64_t branch_target(const std::uint32_t* read, std::uint32_t field, int width) {
  return address_of(read) + static_cast<std::uint64_t>(a64_sign_extend(field, width) * 4);
}

namespace {

// Whether the word may write x8: its lowest bits name that register, or it loads a pair whose second one it is. True of
// some words that do not.
bool may_write_x8(std::uint32_t word) {
  constexpr std::uint32_t register_mask = 31;
  constexpr std::uint32_t pair_mask = 0x3e000000;
  constexpr std::uint32_t pair_class = 0x28000000;
  constexpr int second_shift = 10;
  const bool second_of_pair = (word & pair_mask) == pair_class && (word >> second_shift & register_mask) == 8;
  return (word & register_mask) == 8 || second_of_pair;
}

// Whether the call may be the end of a thread: the fragment does not load another number before it. That the number is
// loaded by the fragment before, or by another instruction than MOVZ, is seldom: the C library's syscall() does it.
bool may_end_thread(scan_state& state) {
  constexpr std::ptrdiff_t looked_at = 16;
  constexpr std::uint32_t size_bit = 0x80000000;
  constexpr std::uint32_t number_mask = 0x1fffe0;
  constexpr std::uint32_t movz_w8 = 0x52800008;
  const auto* first = reinterpret_cast<const std::uint32_t*>(state.thread->metas[state.bb_id].source_addr);
  for (const std::uint32_t* read = state.read; read > first && state.read - read < looked_at;) {
    const std::uint32_t word = word_at(state.source, --read);
    if ((word & ~(size_bit | number_mask)) == movz_w8) return (word & number_mask) == NR_EXIT << 5;
    if (may_write_x8(word)) return true;
  }
  return true;
}

// For the call that ends a thread there is no stack any more: the application may have told others that it is free.
// What the call pushes goes into the thread's record, and the stack pointer beside it. No other register than x8 can be
// borrowed, as a plug-in may answer the call in the kernel's place.
void push_for_last_call(scan_state& state) {
  a64_reserve_block_space(state.thread, &state.write, &state.limit, LAST_CALL_SPACE);
  const code_writer code{state.write};
  code_label other_call;
  code_label pushed;
  code.sub(x8, x8, NR_EXIT);
  code.cbnz_w(x8, other_call);
  code.load_const(x8, address_of(&state.thread->last_call.stack_pointer));
  code.stp(x29, x30, pre_index(x8, -16));
  code.mov_from_sp(x29);
  code.str(x29, at(x8, 16));
  code.add(sp, x8, 0);
  code.movz(x8, NR_EXIT);
  code.b(pushed);
  code.bind(other_call);
  code.add(x8, x8, NR_EXIT);
  code.push(x29, x30);
  code.bind(pushed);
}

}  // namespace

void rewrite_svc(scan_state& state) {
  const code_writer code{state.write};
  const std::uint32_t* next = state.read + 1;
  lower_sp(state);
  if (may_end_thread(state)) {
    push_for_last_call(state);
  } else {
    code.push(x29, x30);
  }
  code.load_const(x29, address_of(next));
  // A block with a key of its own has another sp than the kernel is to find: the wrapper's short way is not for it.
  const std::uint64_t whole_way = stub_offset(syscall_of_own_block) - stub_offset(syscall_wrapper);
  code.bl(state.thread->syscall_wrapper_addr + (has_own_blocks(state.thread) ? whole_way : 0));
  code.pop(x0, x1);
  mark_inserted_code(state);
  deliver_scan_event(state, {MORA_POST_BB, MORA_NO_INST, false, next});
  state.bb_start = next;
  deliver_scan_event(state, {MORA_PRE_BB, MORA_NO_INST, true, nullptr});
  raise_sp(state);
}

namespace {

// Goes on to `marked` if something was translated from the line, or perhaps was, and to what follows if not. `a` and
// `b` are free.
void look_for_mark(const code_writer& code, x_register line, x_register a, x_register b, code_label& marked) {
  constexpr std::uint64_t leaf_mask = ((std::uint64_t{1} << (TRANSLATED_ADDRESS_BITS - TRANSLATED_LEAF_BITS)) - 1)
                                      << TRANSLATED_LEAF_BITS;
  constexpr std::uint64_t page_mask = ((std::uint64_t{1} << (TRANSLATED_LEAF_BITS - TRANSLATED_PAGE_BITS)) - 1)
                                      << TRANSLATED_PAGE_BITS;
  constexpr int pointer_bits = 3;
  code_label no_leaf;
  static_assert(offsetof(translated_record, not_enough) == 0 && offsetof(translated_record, leaves) == 8);
  code.load_const(a, address_of(&translated));
  code.ldr(b, post_index(a, offsetof(translated_record, leaves)));
  code.cbnz(b, marked);
  code.and_(b, line, leaf_mask);
  code.add(a, a, b, SHIFT_LSR, TRANSLATED_LEAF_BITS - pointer_bits);
  code.ldr(a, at(a));
  code.cbz(a, no_leaf);
  code.and_(b, line, page_mask);
  code.add(a, a, b, SHIFT_LSR, TRANSLATED_PAGE_BITS - pointer_bits);
  code.ldr(a, at(a));
  code.add(b, xzr, line, SHIFT_LSR, TRANSLATED_LINE_BITS);
  code.lsr(a, a, b);
  code.tbnz(a, 0, marked);
  code.bind(no_leaf);
}

// The same where a drop has begun that not all threads have followed: it may be of this line, without its mark.
void look_for_unsettled_drop(const code_writer& code, x_register a, x_register b, code_label& unsettled) {
  constexpr std::int32_t settled =
      offsetof(engine_globals, settled_code_epoch) - offsetof(engine_globals, begun_code_epoch);
  code.dmb_ishld();  // Pairs with the release in clear_translated: who finds the mark gone finds that it has begun.
  code.load_const(a, address_of(&engine.begun_code_epoch));
  code.ldr(b, at(a));
  code.ldr(a, at(a, settled));
  code.sub(a, a, b);
  code.cbnz(a, unsettled);
}

}  // namespace

void put_invalidation(scan_state& state) {
  const code_writer code{state.write};
  const x_register line{state.word & 31};
  const x_register a = line.number == x0.number ? x2 : x0;
  const x_register b = line.number == x1.number ? x2 : x1;
  code_label leave;
  code_label done;
  code.word(state.word);
  lower_sp(state);
  code.push(a, b);
  code.dmb_ish();  // Pairs with the fence in mark_translated. The application has written its words before.
  if (invalidated_line_bytes() <= TRANSLATED_LINE) {  // A larger one has several marks.
    look_for_mark(code, line, a, b, leave);
    look_for_unsettled_drop(code, a, b, leave);
    code.b(done);
  }
  code.bind(leave);
  static_assert(offsetof(thread_data, invalidates) == offsetof(thread_data, invalidated_address) + 8);
  code.load_const(a, address_of(&state.thread->invalidated_address));
  code.stp(line, a, at(a));
  code.pop(a, b);
  code.push(x0, x1);
  constexpr std::int32_t not_to_be_linked = 0;
  a64_branch_jump(state.thread, &state.write, address_of(state.read + 1), not_to_be_linked);
  code.bind(done);
  code.pop(a, b);
  raise_sp(state);
}

void rewrite_system_register(scan_state& state) {
  const code_writer code{state.write};
  std::uint32_t is_read = 0;
  std::uint32_t reg = 0;
  system_register named{};
  a64_mrs_msr_decode(&state.word, &is_read, &named.o0, &named.op1, &named.crn, &named.crm, &named.op2, &reg);
  if (!(named == TPIDR_EL0)) {
    if (starts_streaming(state.word)) refuse_streaming(state);
    code.word(state.word);
    // Without DIC a program that writes code has to invalidate the lines (IC IVAU). So the engine hears of it.
    constexpr std::uint64_t dic = std::uint64_t{1} << 29;
    if (named == CTR_EL0 && is_read != 0 && reg != xzr.number) code.and_(x_register{reg}, x_register{reg}, ~dic);
    return;
  }
  // TPIDR_EL0 itself always holds the value of the tool's C library.
  const x_register scratch = reg == x0.number ? x1 : x0;
  lower_sp(state);
  code.push(scratch);
  code.load_address(scratch, address_of(&state.thread->tls));
  if (is_read != 0) {
    code.ldur(x_register{reg}, at(scratch));
  } else {
    code.stur(x_register{reg}, at(scratch));
  }
  code.pop(scratch);
  raise_sp(state);
}

bool may_use_sp(std::uint32_t word) {
  constexpr std::uint32_t number = 31;
  const bool first = (word & number) == number;
  const bool second = (word >> 5 & number) == number;
  switch (word >> 25 & 0xf) {
    case 0x8:
    case 0x9: {  // With immediates: Rd of ADD, SUB, AND, ORR and EOR, which leave the flags, and Rn of the first two.
      const bool is_logical = (word >> 23 & 7) == 4;
      const bool is_sum = (word >> 23 & 7) == 2 || (word >> 23 & 7) == 3;
      const bool sets_flags = is_logical ? (word >> 29 & 3) == 3 : (word >> 29 & 1) != 0;
      return (is_sum && second) || ((is_sum || is_logical) && first && !sets_flags);
    }
    case 0xa:
    case 0xb:  // Hints, which sign the link register with sp among them. No other branch or system instruction.
      return (word & 0xfffff01f) == 0xd503201f;
    case 0x4:
    case 0x6:
    case 0xc:
    case 0xe: return second;  // The base of an access.
    case 0x5:
    case 0xd: {  // Of registers. Logical ones, those with a shift and those under a condition have xzr.
      const bool is_shifted = (word >> 24 & 0x1f) == 0xa || ((word >> 24 & 0x1f) == 0xb && (word >> 21 & 1) == 0);
      const bool is_conditional = (word & 0x1fe00000) == 0x1a800000 || (word & 0x1fe00000) == 0x1a400000;
      return !is_shifted && !is_conditional && (first || second);
    }
    case 0x7:
    case 0xf: return false;  // Of vectors alone.
    default: return true;
  }
}

void rewrite_state_switch(scan_state& state) {
  if (starts_streaming(state.word)) refuse_streaming(state);
  code_writer{state.write}.word(state.word);
}

std::uint32_t borrowed_by_literal_load(const std::uint32_t* source, std::uint32_t word) {
  constexpr std::uint32_t prefetch = 3;  // `opc` of PRFM, whose operation stands in the place of the register.
  constexpr std::uint64_t page_mask = 0xfff;
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(&word, &opc, &is_vector, &imm19, &reg);
  // Number 31 as a base would be the stack pointer. The access of a load into xzr still happens.
  if (is_vector != 0 || opc == prefetch || reg == xzr.number) return x0.number;
  const bool in_one_page = ((address_of(source) ^ branch_target(source, imm19, 19)) & ~page_mask) == 0;
  if (in_one_page) return NOTHING_BORROWED;
  return reg == x0.number ? x1.number : x0.number;
}

void rewrite_literal_load(scan_state& state) {
  const code_writer code{state.write};
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(&state.word, &opc, &is_vector, &imm19, &reg);
  if (is_vector != 0 && opc == 3) log(LEVEL_FATAL, "unallocated encoding");
  const std::uint64_t target = branch_target(state.read, imm19, 19);
  const std::uint32_t borrowed = borrowed_by_literal_load(state.read, state.word);
  const bool borrows = borrowed != NOTHING_BORROWED;
  const x_register base{borrows ? borrowed : reg};
  if (borrows) {
    lower_sp(state);
    code.push(base);
  }
  code.load_address(base, target);
  if (is_vector == 0) {
    put_general_load(code, opc, reg, base);
  } else {
    put_vector_load(code, opc, reg, base);
  }
  if (!borrows) return;
  code.pop(base);
  raise_sp(state);
}

void rewrite_address(scan_state& state) {
  constexpr std::uint64_t page_mask = 0xfff;
  std::uint32_t is_page = 0;
  std::uint32_t low = 0;
  std::uint32_t high = 0;
  std::uint32_t reg = 0;
  a64_adr_decode(&state.word, &is_page, &low, &high, &reg);
  const auto offset = static_cast<std::uint64_t>(a64_sign_extend(high << 2 | low, 21));
  const std::uint64_t here = address_of(state.read);
  const std::uint64_t value = is_page != 0 ? (here & ~page_mask) + (offset << 12) : here + offset;
  code_writer{state.write}.load_address(x_register{reg}, value);
}

namespace {

// Once in the process, and before it goes wrong.
void warn_of_signed_places(std::uint32_t word) {
  const std::uint32_t any_key = word & ~std::uint32_t{0x400};
  if (any_key != 0xdac183fe && any_key != 0xdac1a3fe) return;  // pacnbiasppc, pacnbibsppc; paciasppc, pacibsppc
  static std::atomic<bool> told{false};
  // Relaxed: the flag guards nothing but the number of lines.
  if (told.exchange(true, std::memory_order_relaxed)) return;
  log(LEVEL_WARN,
      "the application signs return addresses with their place in the code (FEAT_PAuth_LR), which is not supported: "
      "build it without");
}

}  // namespace

void copy_unknown(scan_state& state) {
  const code_writer code{state.write};
  warn_of_signed_places(state.word);
  if (log_state::engine_log_level >= LEVEL_DEBUG) {
    log(LEVEL_DEBUG, "MORA: Unknown A64 instruction: %d (0x%x) at %p, %s", A64_NOT_RECOGNISED, state.word,
        static_cast<const void*>(state.read), mnemonic_of(state.word));
    log(LEVEL_DEBUG, "Copying it unmodified, but future problems are possible");
  }
  code.word(state.word);
  // Neither the end of a block nor a plug-in's code may come between words that belong together, even if an emulator
  // does not mind. The words behind the first are copied here and have no events of their own.
  for (int left = following_words(state.word); left > 0; --left) {
    const std::uint32_t* next = state.read + 1;
    if (begins_unreadable_page(next)) break;
    const std::uint32_t word = word_at(state.source, next);
    if (a64_decode(&word) != A64_NOT_RECOGNISED || is_branch_without_class(word)) break;
    mark_source(state.thread, state.write, MARK_SOURCE);
    code.word(word);
    state.read = next;
    state.word = word;
  }
}

void put_fault(scan_state& state) {
  const code_writer code{state.write};
  code.push(x0);  // sp is still lowered. The handler of the fault gets the application's x0 back from here.
  code.load_const(x0, address_of(state.read));
  code.ldr_w(x0, at(x0));
  state.stop = true;
}

// The stub finds the block's index by the place that it is called from, in the block's first words.
void put_hot_counter(scan_state& state) {
  constexpr std::uint32_t push_x1_x30 = 0xa9bf7be1;   // stp x1, x30, [sp, #-16]!
  constexpr std::uint32_t load_count = 0x3940003e;    // ldrb w30, [x1]
  constexpr std::uint32_t count_down = 0x510007de;    // sub w30, w30, #1
  constexpr std::uint32_t store_count = 0x3900003e;   // strb w30, [x1]
  constexpr std::uint32_t skip_if_cold = 0x3500005e;  // cbnz w30, .+8
  constexpr std::uint32_t pop_x1_x30 = 0xa8c17be1;    // ldp x1, x30, [sp], #16
  constexpr int offset_shift = 10;
  const std::uint64_t counter = address_of(&state.thread->exit_counters[state.bb_id]);
  std::uint32_t* write = state.write;
  *write++ = push_x1_x30;
  const std::uint32_t offset = a64_load_page(&write, x1.number, counter) << offset_shift;
  *write++ = load_count | offset;
  *write++ = count_down;
  *write++ = store_count | offset;
  *write++ = skip_if_cold;
  a64_bl(write++, state.thread->hot_counter_stub_addr);
  *write++ = pop_x1_x30;
  state.write = write;
}

bool may_be_plugins_counter(const scan_state& state) {
  return state.is_heard && is_event_bound(MORA_PRE_BB) &&
         a64_page_in_reach(state.write + 1, address_of(&state.thread->exit_counters[state.bb_id]));
}

void put_left_out_counter(scan_state& state) {
  std::uint32_t* const behind = state.write;
  state.write = state.counter.first;
  put_hot_counter(state);
  if (state.write != state.counter.end) log(LEVEL_FATAL, "a hot counter is not as long as its place");
  state.write = behind;
}

const char* mnemonic_of(std::uint32_t word) {
  const classifier_row* row = find_classifier_row(word);
  return row != nullptr ? mnemonic_names[row->mnemonic_id] : "unknown";
}

}  // namespace ceilmeter
