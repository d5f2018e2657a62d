// The rewriting of application code. Each rule stands in a function of its own; scan_a64 at the end holds the walk.
#include "bi/scanner.h"

#include <cerrno>

#include "a64/classifier_rows.h"
#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code_words.h"
#include "bi/dispatcher.h"
#include "bi/exit_branch.h"
#include "bi/plugin_delivery.h"
#include "bi/stubs.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/scanner"};

// One scan, from its first word to its last.
struct scan_state {
  thread_data* thread;
  std::int32_t bb_id;
  fragment_type type;
  const std::uint32_t* read;      // The source word being read.
  const std::uint32_t* bb_start;  // Start of the block as callbacks know it; moves past each SVC.
  std::uint32_t* write;
  std::uint32_t* limit;
  bool stop;
};

constexpr std::uint32_t PUSH_X1_X30 = 0xa9bf7be1;   // stp x1, x30, [sp, #-16]!
constexpr std::uint32_t POP_X1_X30 = 0xa8c17be1;    // ldp x1, x30, [sp], #16
constexpr std::uint32_t PUSH_X29_X30 = 0xa9bf7bfd;  // stp x29, x30, [sp, #-16]!

// Fields of a load or store with a 9-bit offset.
constexpr std::uint32_t UNSCALED = 0;
constexpr std::uint32_t MINUS_16 = 0x1f0;

constexpr std::uint64_t TWO_NOPS = NOP | std::uint64_t{NOP} << 32;

void put(std::uint32_t** write, std::uint32_t word) { *(*write)++ = word; }

void push_register(std::uint32_t** write, std::uint32_t reg) {
  a64_ldr_str_imm9((*write)++, 3, 0, 0, MINUS_16, PRE_INDEX, SP, reg);
}

void pop_register(std::uint32_t** write, std::uint32_t reg) {
  a64_ldr_str_imm9((*write)++, 3, 0, 1, 16, POST_INDEX, SP, reg);
}

bb_meta& meta_of(scan_state& state) { return state.thread->metas[state.bb_id]; }

// Whether the word can be read. Asked only where a page begins: a block may run past the end of its mapping, behind an
// SVC that does not return for instance, and the word there is not the application's to execute. The kernel looks at
// the set before it finds that the operation is none.
bool is_readable(const std::uint32_t* word) {
  constexpr std::uint64_t nr_rt_sigprocmask = 135;
  constexpr std::uint64_t no_operation = ~std::uint64_t{0};
  constexpr std::uint64_t set_size = 8;
  // The set has eight bytes and may not reach into the next page. A null one would be none, which is no error.
  const std::uint64_t set = address_of(word) & ~(set_size - 1);
  return set != 0 && raw_syscall(nr_rt_sigprocmask, no_operation, set, 0, set_size) != -EFAULT;
}

bool begins_unreadable_page(const std::uint32_t* word) {
  // A page is at least 4 KiB; where it is larger, one question in sixteen would do.
  constexpr std::uint64_t smallest_page = 4096;
  return address_of(word) % smallest_page == 0 && !is_readable(word);
}

// The exit of every kind begins with the words that the dispatcher turns into links.
void begin_exit(scan_state& state, bb_exit_kind kind, std::uint64_t taken, std::uint64_t skipped) {
  bb_meta& meta = meta_of(state);
  meta.exit_kind = kind;
  meta.exit_code_addr = state.write;
  meta.taken_source_addr = taken;
  meta.skipped_source_addr = skipped;
  meta.link_state = LINK_NONE;
}

void put_two_reserved_words(scan_state& state) {
  __builtin_memcpy(state.write, &TWO_NOPS, sizeof TWO_NOPS);
  state.write += 2;
}

void exit_to_dispatcher(scan_state& state) { a64_branch(state.write++, state.thread->dispatcher_stub_addr); }

std::uint64_t branch_target(const std::uint32_t* read, std::uint32_t field, int width) {
  return address_of(read) + static_cast<std::uint64_t>(a64_sign_extend(field, width) * 4);
}

void put_direct_exit(scan_state& state, std::uint64_t target) {
  begin_exit(state, EXIT_DIRECT, target, 0);
  put(&state.write, NOP);
  a64_push_x0_x1(&state.write);
  a64_branch_jump(state.thread, &state.write, target, state.bb_id);
  state.stop = true;
}

void rewrite_direct_branch(scan_state& state) {
  std::uint32_t link = 0;
  std::uint32_t imm26 = 0;
  a64_b_decode(state.read, &link, &imm26);
  // The application's link register holds a source address throughout.
  if (link != 0) a64_load_const(&state.write, LINK_REGISTER, address_of(state.read) + 4);
  put_direct_exit(state, branch_target(state.read, imm26, 26));
}

// The start of every conditional exit. Its branch stands before the words that load x0 and x1, and so tests the
// application's value of any register.
void begin_conditional_exit(scan_state& state, const exit_branch& branch, std::uint64_t target) {
  begin_exit(state, static_cast<bb_exit_kind>(branch.kind), target, address_of(state.read) + 4);
  pack_exit_branch(branch, &meta_of(state));
}

void a64_branch_jump_cond(scan_state& state, std::uint64_t target, std::uint32_t cond) {
  log(LEVEL_TRACE, "A64 branch: read_addr: %p, target: 0x%lx", static_cast<const void*>(state.read), target);
  exit_branch branch = {.kind = EXIT_B_COND, .condition = cond};
  begin_conditional_exit(state, branch, target);
  put_two_reserved_words(state);
  a64_push_x0_x1(&state.write);
  a64_load_const(&state.write, 1, static_cast<std::uint64_t>(state.bb_id));
  std::uint32_t* decision = state.write++;
  a64_load_const(&state.write, 0, target);
  exit_to_dispatcher(state);
  invert_exit_branch(&branch);
  encode_exit_branch(decision, branch, address_of(state.write));
  a64_load_const(&state.write, 0, meta_of(state).skipped_source_addr);
  exit_to_dispatcher(state);
}

// CBZ, CBNZ, TBZ, TBNZ.
void a64_branch_imm_reg(scan_state& state, exit_branch branch, std::uint64_t target) {
  log(LEVEL_TRACE, "A64 [c/t](n)bz: read_addr: %p, target: 0x%lx", static_cast<const void*>(state.read), target);
  begin_conditional_exit(state, branch, target);
  put_two_reserved_words(state);
  a64_push_x0_x1(&state.write);
  std::uint32_t* decision = state.write++;
  a64_branch_jump(state.thread, &state.write, target, state.bb_id);
  invert_exit_branch(&branch);
  encode_exit_branch(decision, branch, address_of(state.write));
  a64_branch_jump(state.thread, &state.write, meta_of(state).skipped_source_addr, state.bb_id);
}

// CB<cc> is not inverted: the branch keeps its sense, and the fall-through side comes first. Three words are reserved.
void put_compare_exit(scan_state& state, const exit_branch& branch, std::uint64_t target) {
  log(LEVEL_TRACE, "A64 cb<cc>: read_addr: %p, target: 0x%lx", static_cast<const void*>(state.read), target);
  a64_reserve_block_space(state.thread, &state.write, &state.limit, COMPARE_EXIT_SPACE);
  begin_conditional_exit(state, branch, target);
  put_two_reserved_words(state);
  put(&state.write, NOP);
  a64_push_x0_x1(&state.write);
  std::uint32_t* decision = state.write++;
  a64_branch_jump(state.thread, &state.write, meta_of(state).skipped_source_addr, state.bb_id);
  encode_exit_branch(decision, branch, address_of(state.write));
  a64_branch_jump(state.thread, &state.write, target, state.bb_id);
}

void rewrite_conditional_branch(scan_state& state) {
  exit_branch branch{};
  decode_exit_branch(*state.read, &branch);
  const std::uint64_t target = branch_destination(*state.read, state.read);
  if (branch.kind == EXIT_B_COND && !is_invertible(branch)) {
    // AL, and NV, which is always taken as well: the branch has one side.
    put_direct_exit(state, target);
    return;
  }
  switch (branch.kind) {
    case EXIT_B_COND: a64_branch_jump_cond(state, target, branch.condition); break;
    case EXIT_COMPARE: put_compare_exit(state, branch, target); break;
    default: a64_branch_imm_reg(state, branch, target); break;
  }
  state.stop = true;
}

void rewrite_register_branch(scan_state& state, int inst) {
  std::uint32_t reg = 0;
  a64_br_decode(state.read, &reg);  // BR, BLR and RET hold the register in the same place.
  a64_reserve_block_space(state.thread, &state.write, &state.limit, REGISTER_BRANCH_SPACE);
  begin_exit(state, EXIT_REGISTER, 0, 0);
  meta_of(state).rn = reg;
  a64_branch_reg(state.thread, state.bb_id, &state.write, state.read, reg, inst == A64_BLR, true);
  state.stop = true;
}

// Copied it would lead out of the cache, and the application would go on where nobody follows it. Its class is none of the
// decoder's: plug-ins are told of a word that is not recognised.
void rewrite_authenticated_branch(scan_state& state, const a64_authenticated_branch& branch) {
  a64_reserve_block_space(state.thread, &state.write, &state.limit, AUTHENTICATED_BRANCH_SPACE);
  begin_exit(state, EXIT_REGISTER, 0, 0);
  a64_branch_authenticated(state.thread, state.bb_id, &state.write, state.read, branch);
  state.stop = true;
}

bool is_compare_and_branch(std::uint32_t word) {
  exit_branch branch{};
  return decode_exit_branch(word, &branch) && branch.kind == EXIT_COMPARE;
}

// A branch of no class of the decoder's that ends a fragment all the same.
bool is_branch_without_class(std::uint32_t word) {
  a64_authenticated_branch branch{};
  return a64_authenticated_branch_decode(word, &branch) || is_compare_and_branch(word);
}

void rewrite_svc(scan_state& state) {
  constexpr std::uint32_t x29 = 29;
  const std::uint32_t* next = state.read + 1;
  put(&state.write, PUSH_X29_X30);
  a64_load_const(&state.write, x29, address_of(next));
  a64_bl(state.write++, state.thread->syscall_wrapper_addr);
  put(&state.write, POP_X0_X1);
  // For callbacks a block ends at each system call, though the fragment goes on.
  a64_scanner_deliver_callbacks(state.thread, MORA_POST_BB, &state.read, -1, &state.write, &state.limit, state.bb_id,
                                state.type, false, &state.stop, next);
  state.bb_start = next;
  a64_scanner_deliver_callbacks(state.thread, MORA_PRE_BB, &state.bb_start, -1, &state.write, &state.limit, state.bb_id,
                                state.type, true, &state.stop, nullptr);
}

// Only the thread pointer, TPIDR_EL0, is rewritten: the register itself is the tool's C library's.
void rewrite_system_register(scan_state& state) {
  std::uint32_t is_read = 0;
  std::uint32_t o0 = 0;
  std::uint32_t op1 = 0;
  std::uint32_t crn = 0;
  std::uint32_t crm = 0;
  std::uint32_t op2 = 0;
  std::uint32_t reg = 0;
  a64_mrs_msr_decode(state.read, &is_read, &o0, &op1, &crn, &crm, &op2, &reg);
  if (!(o0 == 1 && op1 == 3 && crn == 13 && crm == 0 && op2 == 2)) {  // o0 is the low bit of op0, whose high bit is 1.
    put(&state.write, *state.read);
    return;
  }
  const std::uint32_t scratch = reg == 0 ? 1 : 0;
  push_register(&state.write, scratch);
  a64_load_const(&state.write, scratch, reinterpret_cast<std::uint64_t>(&state.thread->tls));
  a64_ldr_str_imm9(state.write++, 3, 0, is_read, 0, UNSCALED, scratch, reg);
  pop_register(&state.write, scratch);
}

void end_before_this_word(scan_state& state) {
  // A direct branch to the word, which its own block begins with. Linked as any other: code that the decoder does not
  // know, SVE code before all, would otherwise pass through the dispatcher at each of its words.
  put_direct_exit(state, address_of(state.read));
}

void rewrite_literal_load(scan_state& state) {
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(state.read, &opc, &is_vector, &imm19, &reg);
  const std::uint64_t target = branch_target(state.read, imm19, 19);
  if (is_vector == 0 && opc < 3) {
    // The register of the result serves as base: what it held is lost anyway.
    constexpr std::uint32_t sizes[] = {2, 3, 2};
    constexpr std::uint32_t operations[] = {1, 1, 2};  // LDR W, LDR X, LDRSW.
    if (reg == 31) {
      // Into the zero register: as a base number 31 would be the stack pointer. The access itself still happens.
      push_register(&state.write, X0);
      a64_load_const(&state.write, X0, target);
      a64_ldr_str_unsigned(state.write++, sizes[opc], 0, operations[opc], 0, X0, reg);
      pop_register(&state.write, X0);
      return;
    }
    a64_load_const(&state.write, reg, target);
    a64_ldr_str_unsigned(state.write++, sizes[opc], 0, operations[opc], 0, reg, reg);
    return;
  }
  if (is_vector != 0 && opc == 3) log(LEVEL_FATAL, "unallocated encoding");
  push_register(&state.write, X0);
  a64_load_const(&state.write, X0, target);
  if (is_vector == 0) {
    a64_ldr_str_unsigned(state.write++, 3, 0, 2, 0, X0, reg);  // PRFM, `reg` being the operation.
  } else {
    constexpr std::uint32_t sizes[] = {2, 3, 0};       // S, D, Q.
    constexpr std::uint32_t operations[] = {1, 1, 3};
    a64_ldr_str_unsigned(state.write++, sizes[opc], 1, operations[opc], 0, X0, reg);
  }
  pop_register(&state.write, X0);
}

void rewrite_address(scan_state& state) {
  std::uint32_t is_page = 0;
  std::uint32_t low = 0;
  std::uint32_t high = 0;
  std::uint32_t reg = 0;
  a64_adr_decode(state.read, &is_page, &low, &high, &reg);
  const std::int64_t offset = a64_sign_extend(high << 2 | low, 21);
  std::uint64_t base = address_of(state.read);
  std::uint64_t value = base + static_cast<std::uint64_t>(offset);
  if (is_page != 0) {
    base &= ~std::uint64_t{0xfff};
    value = base + (static_cast<std::uint64_t>(offset) << 12);
  }
  a64_load_const(&state.write, reg, value);
}

// For the log. Row by row: the classifier's index lies on the heap, which a fork's child does not touch.
const char* mnemonic_of(std::uint32_t word) {
  const classifier_row* row = find_classifier_row_linearly(word);
  return row != nullptr ? mnemonic_names[row->mnemonic_id] : "unknown";
}

// How many words behind this one have to stay with it.
int words_of_its_own(std::uint32_t word) {
  // MOVPRFX makes one instruction with the next. What the pair does is only defined if nothing comes between the two.
  const bool unpredicated = (word & 0xfffffc00) == 0x0420bc00;  // movprfx Zd, Zn
  const bool predicated = (word & 0xff3ee000) == 0x04102000;    // movprfx Zd.T, Pg/M, Zn.T and Pg/Z
  if (unpredicated || predicated) return 1;
  // The first of the three words of a memory copy (CPYP, CPYFP) or set (SETP, SETGP). A thread that comes to another kind of
  // processor in the midst of one is sent back by the kernel, to the first word, by counting back from where it is.
  if ((word & 0x3b200c00) != 0x19000400) return 0;
  const std::uint32_t stage = word >> 22 & 3;
  const bool is_set = stage == 3;
  return (is_set ? word >> 14 & 3 : stage) == 0 ? 2 : 0;
}

// Words that a block begins with or ends before: those that nobody here knows, and the one that is fatal. Behind a
// system call that does not return stands anything, data included: it is fatal only if it is to be executed.
bool begins_its_own_block(const std::uint32_t* word) {
  const int inst = a64_decode(word);
  if (inst != A64_LDR_LITERAL) return inst == A64_NOT_RECOGNISED && !is_branch_without_class(*word);
  std::uint32_t opc = 0;
  std::uint32_t is_vector = 0;
  std::uint32_t imm19 = 0;
  std::uint32_t reg = 0;
  a64_ldr_literal_decode(word, &opc, &is_vector, &imm19, &reg);
  return is_vector != 0 && opc == 3;
}

void leave_to_its_own_block(scan_state& state) {
  end_before_this_word(state);
  if (log_state::engine_log_level < LEVEL_TRACE) return;
  log(LEVEL_TRACE, "deferred scanning because of unknown instruction at: %p, type: %s",
      static_cast<const void*>(state.read), mnemonic_of(*state.read));
}

// The fragment's first word, or a branch that ends it.
void rewrite_unknown(scan_state& state) {
  if (a64_authenticated_branch branch{}; a64_authenticated_branch_decode(*state.read, &branch)) {
    rewrite_authenticated_branch(state, branch);
    return;
  }
  if (is_compare_and_branch(*state.read)) {
    rewrite_conditional_branch(state);
    return;
  }
  if (log_state::engine_log_level >= LEVEL_DEBUG) {
    log(LEVEL_DEBUG, "MORA: Unknown A64 instruction: %d (0x%x) at %p, %s", A64_NOT_RECOGNISED, *state.read,
        static_cast<const void*>(state.read), mnemonic_of(*state.read));
    log(LEVEL_DEBUG, "Copying it unmodified, but future problems are possible");
  }
  put(&state.write, *state.read);
  // No end of a block and no code of a plug-in's may come between such words, though an emulator may not mind: those behind
  // the first are copied with it, unseen by events for single instructions.
  for (int left = words_of_its_own(*state.read); left > 0; --left) {
    const std::uint32_t* next = state.read + 1;
    if (begins_unreadable_page(next) || a64_decode(next) != A64_NOT_RECOGNISED || is_branch_without_class(*next)) break;
    put(&state.write, *++state.read);
  }
}

// The application has gone where it may not: it gets its fault, by a load from that place in its name.
void put_fault(scan_state& state) {
  a64_load_const(&state.write, X0, address_of(state.read));
  a64_ldr_str_unsigned(state.write++, 2, 0, 1, 0, X0, X0);
  state.stop = true;
}

void rewrite(scan_state& state, int inst) {
  switch (inst) {
    case A64_CBZ:
    case A64_TBZ:
    case A64_B_COND: rewrite_conditional_branch(state); break;
    case A64_SVC: rewrite_svc(state); break;
    case A64_MRS_MSR: rewrite_system_register(state); break;
    case A64_B: rewrite_direct_branch(state); break;
    case A64_BR:
    case A64_BLR:
    case A64_RET: rewrite_register_branch(state, inst); break;
    case A64_LDR_LITERAL: rewrite_literal_load(state); break;
    case A64_ADR: rewrite_address(state); break;
    case A64_NOT_RECOGNISED: rewrite_unknown(state); break;
    default: put(&state.write, *state.read); break;
  }
}

// Where the fragment at `read` ends: at its branch, or before a word that cannot be part of it. SVC is walked past.
struct fragment_end {
  const std::uint32_t* word;
  bool is_direct_branch;  // The fragment can become the head of a trace.
};

fragment_end find_end(const std::uint32_t* read) {
  for (;; ++read) {
    if (begins_unreadable_page(read) || begins_its_own_block(read)) return {read, false};
    switch (a64_decode(read)) {
      case A64_CBZ:
      case A64_B_COND:
      case A64_TBZ:
      case A64_B: return {read, true};
      case A64_BR:
      case A64_BLR:
      case A64_RET: return {read, false};
      case A64_NOT_RECOGNISED:  // A branch without a class: other words of none begin blocks of their own.
        return {read, is_compare_and_branch(*read)};
      default: break;
    }
  }
}

void put_hot_counter(scan_state& state) {
  put(&state.write, PUSH_X1_X30);
  a64_load_const(&state.write, 1, static_cast<std::uint64_t>(state.bb_id));
  a64_bl(state.write++, state.thread->hot_counter_stub_addr);
  put(&state.write, POP_X1_X30);
}

// Called under the threshold's own test: a suppressed call still passes its arguments, and these are three for each word.
void log_word(const scan_state& state, int inst) {
  log(LEVEL_TRACE, "A64 scan read_address: %p, w: : %p, bb: %d", static_cast<const void*>(state.read),
      static_cast<void*>(state.write), state.bb_id);
  log(LEVEL_TRACE, "  instruction enum: %d", inst);
  log(LEVEL_TRACE, "  instruction word: 0x%x", *state.read);
}

void scan_word(scan_state& state) {
  const int inst = a64_decode(state.read);
  if (log_state::engine_log_level >= LEVEL_TRACE) log_word(state, inst);
  const bool replaced = a64_scanner_deliver_callbacks(state.thread, MORA_PRE_INST, &state.read, inst, &state.write,
                                                      &state.limit, state.bb_id, state.type, true, &state.stop, nullptr);
  if (!replaced) rewrite(state, inst);
  if (state.write >= state.limit) {
    log(LEVEL_FATAL, "%d, inst: %p, :write: %p", inst, static_cast<void*>(state.limit), static_cast<void*>(state.write));
  }
  if (!state.stop) a64_reserve_block_space(state.thread, &state.write, &state.limit, EXIT_SPACE);
  a64_scanner_deliver_callbacks(state.thread, MORA_POST_INST, &state.read, inst, &state.write, &state.limit, state.bb_id,
                                state.type, !state.stop, &state.stop, nullptr);
  ++state.read;
}

}  // namespace

std::uint64_t count_source_words(const std::uint32_t* read_address) {
  if (!is_readable(read_address)) return 0;
  // An unknown word at the start does not end it.
  const std::uint32_t* end = find_end(begins_its_own_block(read_address) ? read_address + 1 : read_address).word;
  return static_cast<std::uint64_t>(end - read_address) + 1;
}

void a64_branch_jump(thread_data* thread, std::uint32_t** write, std::uint64_t target, std::int32_t bb_id) {
  log(LEVEL_TRACE, "A64 branch target: 0x%lx", target);
  a64_load_const(write, 0, target);
  a64_load_const(write, 1, static_cast<std::uint64_t>(bb_id));
  a64_branch((*write)++, thread->dispatcher_stub_addr);
}

void a64_reserve_block_space(thread_data* thread, std::uint32_t** write, std::uint32_t** limit, std::uint32_t size) {
  if (address_of(*limit) == reinterpret_cast<std::uint64_t>(thread->code_cache) + CODE_CACHE_SIZE) {
    // A fragment of a trace has no further block to go on in. One that does not fit is scanned to its end all the same,
    // over its own first words: plug-ins are told where it ends, and that must not depend on where it lies. Nobody runs
    // it.
    if (address_of(*limit) > address_of(*write) + size + TRACE_END_SPACE) return;
    thread->trace_fragment_overflow = 1;
    *write = thread->trace_fragment_start;
    return;
  }
  while (address_of(*limit) <= address_of(*write) + size) {
    const std::int32_t current = cc_addr_to_bb_id(thread, address_of(*limit) - 1);
    const std::int32_t added = allocate_bb(thread);
    thread->metas[added].parent_block = current;
    auto* block = reinterpret_cast<std::uint32_t*>(thread->code_cache + std::size_t{BB_SIZE} * static_cast<std::size_t>(added));
    // Not adjacent only when a flush has come between: blocks are handed out in rising order.
    if (block != *limit) {
      a64_branch(*write, address_of(block));
      *write = block;
    }
    *limit = block + BB_SIZE / sizeof(std::uint32_t);
  }
}

std::uint32_t scan_a64(thread_data* thread, const std::uint32_t* read_address, std::int32_t bb_id, fragment_type type,
                       std::uint32_t* write) {
  auto* cache_end = reinterpret_cast<std::uint32_t*>(thread->code_cache + CODE_CACHE_SIZE);
  if (write == nullptr) {
    write = reinterpret_cast<std::uint32_t*>(thread->code_cache + std::size_t{BB_SIZE} * static_cast<std::size_t>(bb_id));
  }
  std::uint32_t* const start = write;
  scan_state state = {thread, bb_id, type, read_address, read_address, write, cache_end, false};
  if (type == FRAGMENT_BLOCK) {
    state.limit = write + BB_SIZE / sizeof(std::uint32_t);
  } else {
    meta_of(state).trampoline = 0;
    thread->trace_fragment_start = write;
    thread->trace_fragment_overflow = 0;
  }
  if (type != FRAGMENT_TRACE) put(&state.write, POP_X0_X1);

  // No exit yet: until one is written, a signal that finds the fragment must not take an older one for its own.
  meta_of(state).exit_kind = EXIT_NOT_SET;
  meta_of(state).exit_code_addr = cache_end;
  meta_of(state).link_state = LINK_NONE;

  if (!is_readable(read_address)) {
    put_fault(state);
    return static_cast<std::uint32_t>(state.write - start + 1) * 4;
  }
  if (type == FRAGMENT_BLOCK && find_end(read_address).is_direct_branch) put_hot_counter(state);

  a64_scanner_deliver_callbacks(thread, MORA_PRE_FRAGMENT, &state.read, -1, &state.write, &state.limit, bb_id, type, true,
                                &state.stop, nullptr);
  a64_scanner_deliver_callbacks(thread, MORA_PRE_BB, &state.bb_start, -1, &state.write, &state.limit, bb_id, type, true,
                                &state.stop, nullptr);
  while (!state.stop) {
    if (state.read != read_address && begins_unreadable_page(state.read)) {
      end_before_this_word(state);
    } else if (state.read != read_address && begins_its_own_block(state.read)) {
      leave_to_its_own_block(state);  // Before its events: plug-ins are told of it in the block that it begins.
    } else {
      scan_word(state);
    }
  }
  a64_scanner_deliver_callbacks(thread, MORA_POST_BB, &state.read, -1, &state.write, &state.limit, bb_id, type, false,
                                &state.stop, state.read);
  a64_scanner_deliver_callbacks(thread, MORA_POST_FRAGMENT, &state.read, -1, &state.write, &state.limit, bb_id, type,
                                false, &state.stop, state.read);
  return static_cast<std::uint32_t>(state.write - start + 1) * 4;
}

}  // namespace ceilmeter
