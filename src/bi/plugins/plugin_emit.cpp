// The services that write code for a plug-in. Only the context tells them where: write_p, the limit of the space behind
// it, and whether what is written becomes part of the fragment. When the translation is over, the engine clears the
// instruction cache over the whole fragment.
//
// Operands come as numbers from plug-ins, so every service tests whether its instruction can hold them.
#include <asm/hwcap.h>
#include <sys/auxv.h>

#include <cstdint>

#include "bi/a64/helpers.h"
#include "bi/code/code_words.h"
#include "bi/code/code_writer.h"
#include "bi/code/dispatcher.h"
#include "bi/code/run_groups.h"
#include "bi/mora.h"
#include "bi/plugin.h"
#include "bi/containers/register_mask.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

extern "C" {
thread_local std::uint64_t guarded_return_address = 0;
thread_local std::uint64_t guarded_engine_stack = 0;
}

namespace {

constexpr std::int32_t SLOT_PAIR = 16;  // The bytes that a push moves sp by.

constexpr std::uint32_t LOAD_CONST_WORDS = 4;

constexpr std::uint32_t ARGUMENT_REGISTERS = 8;
constexpr std::uint32_t x0_bit = 1;
// x0, x8 and the link register: what the stub does not keep. x0 is the result of a call with arguments.
constexpr std::uint32_t GUARDED_CALL_MASK = 0x40000101;

code_writer code_of(mora_context* ctx) { return {ctx->write_p}; }

// Space for `words` words in one piece. False where no code is allowed.
bool begin_code(mora_context* ctx, std::uint32_t words) {
  return mora_reserve_space(ctx, words * static_cast<std::uint32_t>(sizeof(std::uint32_t))) == 0;
}

// Whether a branch at `from` reaches `to` with an offset field of `bits` bits, which counts words.
bool is_in_reach(const std::uint32_t* from, std::uint64_t to, int bits) {
  const auto offset = static_cast<std::int64_t>(to - address_of(from));
  const std::int64_t reach = std::int64_t{4} << (bits - 1);
  return offset % 4 == 0 && offset >= -reach && offset < reach;
}

bool is_multiple_within(std::int32_t value, std::int32_t unit, std::int32_t low, std::int32_t high) {
  return value % unit == 0 && value >= low && value <= high;
}

bool is_doubleword_offset(std::uint32_t imm) { return imm % 8 == 0 && imm / 8 <= 0xfff; }

// A single register's offset before or after the access.
bool is_index(std::int32_t imm9) { return is_multiple_within(imm9, 1, -256, 255); }

// A pair's offset.
bool is_pair_offset(std::int32_t imm) { return is_multiple_within(imm, 8, -512, 504); }

offset_address address_at(std::uint32_t rn, std::uint32_t imm) {
  return at(x_or_sp{rn}, static_cast<std::int32_t>(imm));
}

indexed_address indexed(std::uint32_t rn, std::int32_t imm, bool post) {
  return post ? post_index(x_or_sp{rn}, imm) : pre_index(x_or_sp{rn}, imm);
}

// The branch services share two conditions: one word of space, and a target in reach of `bits` bits.
bool begin_branch(mora_context* ctx, std::uint64_t target, int bits) {
  return begin_code(ctx, 1) && is_in_reach(ctx->write_p, target, bits);
}

int patch_compare_and_branch(mora_context* ctx, const mora_branch* in, std::uint32_t op, std::uint32_t reg) {
  const std::uint64_t target = address_of(ctx->write_p);
  if (!ctx->code_allowed || !is_in_reach(in->place, target, 19)) return -1;
  a64_cbz_to(in->place, op, target, 1, reg);
  return 0;
}

int patch_jump(mora_context* ctx, const mora_branch* in, std::uint32_t link) {
  if (!ctx->code_allowed) return -1;
  a64_b_to(in->place, address_of(ctx->write_p), link);  // Any place of a code cache reaches any other.
  return 0;
}

}  // namespace

int mora_emit_save_regs(mora_context* ctx, std::uint32_t mask) {
  constexpr int max_words = 17;
  if (!begin_code(ctx, max_words)) return -1;
  const code_writer code = code_of(ctx);
  const int count = popcount32(mask);
  ctx->plugin_stack_offset += static_cast<std::uint32_t>(count + count % 2);
  std::uint32_t high = bitmask_prev_set(mask, 31);
  if (count % 2 != 0) {
    code.push(x_register{high});
    high = bitmask_prev_set(mask, high - 1);  // Below register 0 there is none: 32.
  }
  while (high < 32) {
    const std::uint32_t low = bitmask_prev_set(mask, high - 1);
    code.push(x_register{low}, x_register{high});
    high = bitmask_prev_set(mask, low - 1);
  }
  return 0;
}

int mora_emit_restore_regs(mora_context* ctx, std::uint32_t mask) {
  constexpr int max_words = 17;
  if (!begin_code(ctx, max_words)) return -1;
  const code_writer code = code_of(ctx);
  const int count = popcount32(mask);
  ctx->plugin_stack_offset -= static_cast<std::uint32_t>(count + count % 2);
  std::uint32_t low = bitmask_next_set(mask, 0);
  for (int pair = 0; pair < count / 2; ++pair) {
    const std::uint32_t high = bitmask_next_set(mask, low + 1);
    code.pop(x_register{low}, x_register{high});
    low = bitmask_next_set(mask, high + 1);
  }
  if (count % 2 != 0) code.pop(x_register{low});
  return 0;
}

int mora_emit_load_const(mora_context* ctx, std::uint32_t reg, std::uint64_t value) {
  if (!begin_code(ctx, LOAD_CONST_WORDS)) return -1;
  code_of(ctx).load_const(x_register{reg}, value);
  return 0;
}

int mora_emit_mov(mora_context* ctx, std::uint32_t rd, std::uint32_t rn) {
  if (!begin_code(ctx, 1)) return -1;
  if (rn == sp.number) {
    code_of(ctx).mov_from_sp(x_or_sp{rd});
  } else {
    code_of(ctx).mov(x_register{rd}, x_register{rn});
  }
  return 0;
}

int mora_emit_add_imm(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t imm) {
  if (imm > 0xffffff || imm < -0xffffff) return -1;
  if (imm == 0 && rd != rn) return mora_emit_mov(ctx, rd, rn);
  if (!begin_code(ctx, 2)) return -1;
  const code_writer code = code_of(ctx);
  const x_or_sp to{rd};
  const x_or_sp from{rn};
  const auto magnitude = static_cast<std::uint32_t>(imm < 0 ? -imm : imm);
  const std::uint32_t low = magnitude & 0xfff;
  const std::uint32_t high = magnitude >> 12;
  if (imm < 0) {
    if (low != 0) code.sub(to, from, low);
    if (high != 0) code.sub_lsl_12(to, low != 0 ? to : from, high);
  } else {
    if (low != 0) code.add(to, from, low);
    if (high != 0) code.add_lsl_12(to, low != 0 ? to : from, high);
  }
  return 0;
}

int mora_emit_add_shifted_reg(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t rm,
                              std::uint32_t shift, std::uint32_t amount) {
  if (amount > 63 || shift > 2 || rm < -31 || rm > 31 || !begin_code(ctx, 1)) return -1;
  const code_writer code = code_of(ctx);
  const auto kind = static_cast<shift_kind>(shift);
  if (rm < 0) {
    code.sub(x_register{rd}, x_register{rn}, x_register{static_cast<std::uint32_t>(-rm)}, kind, amount);
  } else {
    code.add(x_register{rd}, x_register{rn}, x_register{static_cast<std::uint32_t>(rm)}, kind, amount);
  }
  return 0;
}

int mora_emit_add_reg(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t rm) {
  return mora_emit_add_shifted_reg(ctx, rd, rn, rm, 0, 0);
}

int mora_emit_ldr(mora_context* ctx, std::uint32_t rt, std::uint32_t rn) {
  return mora_emit_ldr_offset(ctx, rt, rn, 0);
}

int mora_emit_str(mora_context* ctx, std::uint32_t rt, std::uint32_t rn) {
  return mora_emit_str_offset(ctx, rt, rn, 0);
}

int mora_emit_ldr_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm) {
  if (!is_doubleword_offset(imm) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).ldr(x_register{rt}, address_at(rn, imm));
  return 0;
}

int mora_emit_str_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm) {
  if (!is_doubleword_offset(imm) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).str(x_register{rt}, address_at(rn, imm));
  return 0;
}

int mora_emit_ldr_index(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9, bool post) {
  if (!is_index(imm9) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).ldr(x_register{rt}, indexed(rn, imm9, post));
  return 0;
}

int mora_emit_str_index(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9, bool post) {
  if (!is_index(imm9) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).str(x_register{rt}, indexed(rn, imm9, post));
  return 0;
}

int mora_emit_stp_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn, std::int32_t imm) {
  if (!is_pair_offset(imm) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).stp(x_register{rt}, x_register{rt2}, at(x_or_sp{rn}, imm));
  return 0;
}

int mora_emit_ldp_post(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn, std::int32_t imm) {
  if (!is_pair_offset(imm) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).ldp(x_register{rt}, x_register{rt2}, post_index(x_or_sp{rn}, imm));
  return 0;
}

int mora_emit_push_pair(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn) {
  if (!begin_code(ctx, 1)) return -1;
  code_of(ctx).stp(x_register{rt}, x_register{rt2}, pre_index(x_or_sp{rn}, -SLOT_PAIR));
  return 0;
}

int mora_emit_pop_pair(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn) {
  return mora_emit_ldp_post(ctx, rt, rt2, rn, SLOT_PAIR);
}

int mora_emit_and(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::uint32_t rm) {
  if (!begin_code(ctx, 1)) return -1;
  code_of(ctx).and_(x_register{rd}, x_register{rn}, x_register{rm});
  return 0;
}

int mora_emit_and_imm(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::uint64_t bits) {
  logical_fields fields{};
  if (!encode_logical_immediate(bits, &fields) || !begin_code(ctx, 1)) return -1;
  code_of(ctx).and_(x_register{rd}, x_register{rn}, fields);
  return 0;
}

int mora_emit_tbz_at(mora_context* ctx, std::uint32_t* place, std::uint32_t rt, std::uint32_t bit,
                     std::int32_t offset) {
  if (!ctx->code_allowed || bit > 63 || !is_multiple_within(offset, 4, -0x8000, 0x7ffc)) return -1;
  a64_tbz_to(place, 0, address_of(place) + static_cast<std::uint64_t>(std::int64_t{offset}), rt, bit);
  return 0;
}

int mora_emit_tbz(mora_context* ctx, std::uint32_t rt, std::uint32_t bit, std::int32_t offset) {
  if (!begin_code(ctx, 1) || mora_emit_tbz_at(ctx, ctx->write_p, rt, bit, offset) != 0) return -1;
  ++ctx->write_p;
  return 0;
}

int mora_emit_branch(mora_context* ctx, std::uint64_t target) {
  if (!begin_branch(ctx, target, 26)) return -1;
  code_of(ctx).b(target);
  return 0;
}

int mora_emit_branch_cond(mora_context* ctx, std::uint64_t target, std::uint32_t cond) {
  if (!begin_branch(ctx, target, 19)) return -1;
  code_of(ctx).b_cond(cond, target);
  return 0;
}

int mora_emit_cbz(mora_context* ctx, std::uint64_t target, std::uint32_t reg) {
  if (!begin_branch(ctx, target, 19)) return -1;
  code_of(ctx).cbz(x_register{reg}, target);
  return 0;
}

int mora_emit_cbnz(mora_context* ctx, std::uint64_t target, std::uint32_t reg) {
  if (!begin_branch(ctx, target, 19)) return -1;
  code_of(ctx).cbnz(x_register{reg}, target);
  return 0;
}

int mora_reserve_branch(mora_context* ctx, mora_branch* out) {
  if (!begin_code(ctx, 1)) return -1;
  out->place = ctx->write_p;
  code_of(ctx).nop();
  return 0;
}

int mora_patch_branch(mora_context* ctx, const mora_branch* in, std::uint32_t cond) {
  const std::uint64_t target = address_of(ctx->write_p);
  if (!ctx->code_allowed || !is_in_reach(in->place, target, 19)) return -1;
  a64_b_cond_to(in->place, target, cond);
  return 0;
}

int mora_patch_b(mora_context* ctx, const mora_branch* in) { return patch_jump(ctx, in, 0); }

int mora_patch_bl(mora_context* ctx, const mora_branch* in) { return patch_jump(ctx, in, 1); }

int mora_patch_cbz(mora_context* ctx, const mora_branch* in, std::uint32_t reg) {
  return patch_compare_and_branch(ctx, in, 0, reg);
}

int mora_patch_cbnz(mora_context* ctx, const mora_branch* in, std::uint32_t reg) {
  return patch_compare_and_branch(ctx, in, 1, reg);
}

int mora_emit_call(mora_context* ctx, std::uint64_t target) {
  if (!begin_code(ctx, LOAD_CONST_WORDS + 1)) return -1;
  const code_writer code = code_of(ctx);
  if (is_in_reach(ctx->write_p, target, 26)) {
    code.bl(target);
    return 0;
  }
  code.load_const(x30, target);
  code.blr(x30);
  return 0;
}

namespace {

void emit_stub_call(mora_context* ctx, std::uint64_t fn) {
  mora_emit_load_const(ctx, x8.number, fn);
  // With SVE a function can change more of the vector state than q0 to q31.
  const bool has_sve = (getauxval(AT_HWCAP) & HWCAP_SVE) != 0;
  mora_emit_call(ctx, reinterpret_cast<std::uint64_t>(has_sve ? &guarded_call_stub_sve : &guarded_call_stub));
}

// Keeps the application's first registers in the thread's record, or takes them back from there, by way of x8: eight of
// them are more than may lie below the application's stack pointer.
void emit_arguments_move(mora_context* ctx, std::uint32_t nargs, bool store) {
  mora_emit_load_const(ctx, x8.number, address_of(ctx->thread_data->guarded_arguments));
  if (!begin_code(ctx, ARGUMENT_REGISTERS / 2)) return;
  const code_writer code = code_of(ctx);
  for (std::uint32_t reg = 0; reg < nargs; reg += 2) {
    const auto place = at(x8, static_cast<std::int32_t>(reg * sizeof(std::uint64_t)));
    const x_register first{reg};
    const x_register second{reg + 1 < nargs ? reg + 1 : xzr.number};
    store ? code.stp(first, second, place) : code.ldp(first, second, place);
  }
}

}  // namespace

namespace {

void settle_runs_of_caller() { settle_runs(current_thread); }

// The function may look at what is counted for its plug-in.
int emit_settling(mora_context* ctx) {
  if (!ctx->code_allowed || !stop_grouping(ctx->thread_data)) return 0;
  if (mora_emit_save_regs(ctx, GUARDED_CALL_MASK) != 0) return -1;
  emit_stub_call(ctx, address_of(reinterpret_cast<const void*>(settle_runs_of_caller)));
  return mora_emit_restore_regs(ctx, GUARDED_CALL_MASK);
}

}  // namespace

int mora_emit_guarded_call(mora_context* ctx, std::uint64_t fn, std::uint32_t nargs) {
  if (nargs > ARGUMENT_REGISTERS || emit_settling(ctx) != 0) return -1;
  const std::uint32_t mask = nargs == 0 ? GUARDED_CALL_MASK : GUARDED_CALL_MASK & ~x0_bit;
  if (mora_emit_save_regs(ctx, mask) != 0) return -1;
  emit_stub_call(ctx, fn);
  return mora_emit_restore_regs(ctx, mask);
}

int mora_emit_guarded_call_values(mora_context* ctx, std::uint64_t fn, std::uint32_t nargs,
                                  const std::uint64_t* values) {
  if (nargs > ARGUMENT_REGISTERS) return -1;
  if (nargs == 0) return mora_emit_guarded_call(ctx, fn, 0);
  if (emit_settling(ctx) != 0) return -1;
  constexpr std::uint32_t mask = GUARDED_CALL_MASK & ~x0_bit;
  if (mora_emit_save_regs(ctx, mask) != 0) return -1;
  emit_arguments_move(ctx, nargs, true);
  for (std::uint32_t reg = 0; reg < nargs; ++reg) mora_emit_load_const(ctx, reg, values[reg]);
  emit_stub_call(ctx, fn);
  emit_arguments_move(ctx, nargs, false);
  return mora_emit_restore_regs(ctx, mask);
}

int mora_emit_indirect_branch(mora_context* ctx, std::uint32_t reg) {
  if (mora_reserve_space(ctx, REGISTER_BRANCH_SPACE) != 0) return -1;
  a64_branch_reg(ctx->thread_data, 0, &ctx->write_p, ctx->read_address, reg, false, false);
  return 0;
}

int mora_emit_counter_add(mora_context* ctx, std::uint64_t address, std::uint32_t imm) {
  if (imm > 0xfff || !begin_code(ctx, LOAD_CONST_WORDS + 5)) return -1;
  const code_writer code = code_of(ctx);
  code.push(x0, x1);
  code.load_const(x0, address);
  code.ldr(x1, at(x0));
  code.add(x1, x1, imm);
  code.str(x1, at(x0));
  code.pop(x0, x1);
  return 0;
}

}  // namespace ceilmeter
