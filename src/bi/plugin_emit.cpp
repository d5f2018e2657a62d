// The services that write code for a plug-in. They know its place from the context alone: write_p, the limit of the space
// behind it, and whether what is written becomes part of the fragment. The instruction cache is cleared over the whole
// fragment when its translation is over.
#include <asm/hwcap.h>
#include <sys/auxv.h>

#include <cstdint>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code_words.h"
#include "bi/dispatcher.h"
#include "bi/mora.h"
#include "bi/plugin.h"
#include "bi/register_mask.h"
#include "bi/scanner.h"
#include "bi/stubs.h"

namespace ceilmeter {

extern "C" {
thread_local std::uint64_t guarded_return_address = 0;
}

namespace {

// Fields of the load and store classes.
constexpr std::uint32_t STORE = 0;
constexpr std::uint32_t LOAD = 1;
constexpr std::uint32_t SIGNED_OFFSET = 2;
constexpr std::uint32_t SIZE_64 = 3;   // Of a single register.
constexpr std::uint32_t PAIR_64 = 2;   // Of a pair.
constexpr std::int32_t SLOT_PAIR = 16;  // What a push moves sp by.

constexpr std::uint32_t LOAD_CONST_WORDS = 4;

constexpr std::uint32_t ARGUMENT_REGISTERS = 8;
// What a C function's caller has to expect changed of x0 to x8, and the link register. The stub keeps the others.
constexpr std::uint32_t GUARDED_CALL_MASK = 0x400001ff;

// Space for `words` words in one piece. False where no code is allowed.
bool begin_code(mora_context* ctx, std::uint32_t words) {
  return mora_reserve_space(ctx, words * static_cast<std::uint32_t>(sizeof(std::uint32_t))) == 0;
}

// Whether a branch at `from` with an offset field of `bits` bits, counting words, gets to `to`.
bool is_in_reach(const std::uint32_t* from, std::uint64_t to, int bits) {
  const auto offset = static_cast<std::int64_t>(to - address_of(from));
  const std::int64_t reach = std::int64_t{4} << (bits - 1);
  return offset % 4 == 0 && offset >= -reach && offset < reach;
}

bool is_multiple_within(std::int32_t value, std::int32_t unit, std::int32_t low, std::int32_t high) {
  return value % unit == 0 && value >= low && value <= high;
}

void put_single_index(mora_context* ctx, std::uint32_t is_load, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9,
                      std::uint32_t type) {
  emit_ldr_str_imm9(ctx, SIZE_64, 0, is_load, static_cast<std::uint32_t>(imm9) & 0x1ff, type, rn, rt);
}

void put_pair(mora_context* ctx, std::uint32_t is_load, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn,
              std::int32_t imm, std::uint32_t type) {
  emit_ldp_stp(ctx, PAIR_64, 0, type, is_load, static_cast<std::uint32_t>(imm / 8) & 0x7f, rt2, rn, rt);
}

int emit_unsigned_offset(mora_context* ctx, std::uint32_t is_load, std::uint32_t rt, std::uint32_t rn,
                         std::uint32_t imm) {
  if (imm % 8 != 0 || imm / 8 > 0xfff || !begin_code(ctx, 1)) return -1;
  emit_ldr_str_unsigned(ctx, SIZE_64, 0, is_load, imm / 8, rn, rt);
  return 0;
}

int emit_index(mora_context* ctx, std::uint32_t is_load, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9,
               bool post) {
  if (!is_multiple_within(imm9, 1, -256, 255) || !begin_code(ctx, 1)) return -1;
  put_single_index(ctx, is_load, rt, rn, imm9, post ? POST_INDEX : PRE_INDEX);
  return 0;
}

int emit_pair(mora_context* ctx, std::uint32_t is_load, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn,
              std::int32_t imm, std::uint32_t type) {
  if (!is_multiple_within(imm, 8, -512, 504) || !begin_code(ctx, 1)) return -1;
  put_pair(ctx, is_load, rt, rt2, rn, imm, type);
  return 0;
}

int emit_compare_and_branch(mora_context* ctx, std::uint64_t target, std::uint32_t op, std::uint32_t reg) {
  if (!begin_code(ctx, 1) || !is_in_reach(ctx->write_p, target, 19)) return -1;
  a64_cbz_to(ctx->write_p++, op, target, 1, reg);
  return 0;
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

struct logical_fields {
  std::uint32_t n;
  std::uint32_t immr;
  std::uint32_t imms;
};

// A logical immediate is an element of 2, 4 ... 64 bits, repeated; the element is a run of ones, rotated.
bool encode_logical_immediate(std::uint64_t bits, logical_fields* out) {
  if (bits == 0 || bits == ~std::uint64_t{0}) return false;
  std::uint32_t size = 64;
  for (; size > 2; size /= 2) {
    const std::uint32_t half = size / 2;
    const std::uint64_t mask = (std::uint64_t{1} << half) - 1;
    if ((bits & mask) != (bits >> half & mask)) break;
  }
  const std::uint64_t element_mask = ~std::uint64_t{0} >> (64 - size);
  const std::uint64_t element = bits & element_mask;
  const auto ones = static_cast<std::uint32_t>(__builtin_popcountll(element));
  const std::uint64_t run = (std::uint64_t{1} << ones) - 1;  // Not all of a 64-bit element: that is no immediate.
  for (std::uint32_t rotation = 0; rotation < size; ++rotation) {
    const std::uint64_t rotated =
        rotation == 0 ? run : (run >> rotation | run << (size - rotation)) & element_mask;
    if (rotated != element) continue;
    // The size is told by the leading ones of N:NOT(imms).
    out->n = size == 64 ? 1 : 0;
    out->immr = rotation;
    out->imms = (~(size * 2 - 1) & 0x3f) | (ones - 1);
    return true;
  }
  return false;
}

}  // namespace

int mora_emit_save_regs(mora_context* ctx, std::uint32_t mask) {
  constexpr int max_words = 17;
  if (!begin_code(ctx, max_words)) return -1;
  const int count = popcount32(mask);
  ctx->plugin_stack_offset += static_cast<std::uint32_t>(count + count % 2);
  std::uint32_t high = bitmask_prev_set(mask, 31);
  if (count % 2 != 0) {
    put_single_index(ctx, STORE, high, SP, -SLOT_PAIR, PRE_INDEX);
    high = bitmask_prev_set(mask, high - 1);  // Below register 0 there is none: 32.
  }
  while (high < 32) {
    const std::uint32_t low = bitmask_prev_set(mask, high - 1);
    put_pair(ctx, STORE, low, high, SP, -SLOT_PAIR, PRE_INDEX);
    high = bitmask_prev_set(mask, low - 1);
  }
  return 0;
}

int mora_emit_restore_regs(mora_context* ctx, std::uint32_t mask) {
  constexpr int max_words = 17;
  if (!begin_code(ctx, max_words)) return -1;
  const int count = popcount32(mask);
  ctx->plugin_stack_offset -= static_cast<std::uint32_t>(count + count % 2);
  std::uint32_t low = bitmask_next_set(mask, 0);
  for (int pair = 0; pair < count / 2; ++pair) {
    const std::uint32_t high = bitmask_next_set(mask, low + 1);
    put_pair(ctx, LOAD, low, high, SP, SLOT_PAIR, POST_INDEX);
    low = bitmask_next_set(mask, high + 1);
  }
  if (count % 2 != 0) put_single_index(ctx, LOAD, low, SP, SLOT_PAIR, POST_INDEX);
  return 0;
}

int mora_emit_load_const(mora_context* ctx, std::uint32_t reg, std::uint64_t value) {
  if (!begin_code(ctx, LOAD_CONST_WORDS)) return -1;
  a64_load_const(&ctx->write_p, reg, value);
  return 0;
}

int mora_emit_mov(mora_context* ctx, std::uint32_t rd, std::uint32_t rn) {
  if (!begin_code(ctx, 1)) return -1;
  if (rn == SP) {
    emit_add_sub_imm(ctx, 1, 0, 0, 0, 0, rn, rd);
  } else {
    emit_logical_shifted(ctx, 1, 1, 0, 0, rn, 0, XZR, rd);
  }
  return 0;
}

int mora_emit_add_imm(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t imm) {
  if (imm > 0xffffff || imm < -0xffffff) return -1;
  if (imm == 0 && rd != rn) return mora_emit_mov(ctx, rd, rn);
  if (!begin_code(ctx, 2)) return -1;
  const std::uint32_t is_sub = imm < 0 ? 1 : 0;
  const auto magnitude = static_cast<std::uint32_t>(imm < 0 ? -imm : imm);
  const std::uint32_t low = magnitude & 0xfff;
  const std::uint32_t high = magnitude >> 12;
  if (low != 0) emit_add_sub_imm(ctx, 1, is_sub, 0, 0, low, rn, rd);
  if (high != 0) emit_add_sub_imm(ctx, 1, is_sub, 0, 1, high, low != 0 ? rd : rn, rd);
  return 0;
}

int mora_emit_add_shifted_reg(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t rm,
                              std::uint32_t shift, std::uint32_t amount) {
  if (amount > 63 || shift > 2 || rm < -31 || rm > 31 || !begin_code(ctx, 1)) return -1;
  const std::uint32_t is_sub = rm < 0 ? 1 : 0;
  emit_add_sub_shifted(ctx, 1, is_sub, 0, shift, static_cast<std::uint32_t>(rm < 0 ? -rm : rm), amount, rn, rd);
  return 0;
}

int mora_emit_add_reg(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::int32_t rm) {
  return mora_emit_add_shifted_reg(ctx, rd, rn, rm, 0, 0);
}

int mora_emit_ldr(mora_context* ctx, std::uint32_t rt, std::uint32_t rn) {
  return emit_unsigned_offset(ctx, LOAD, rt, rn, 0);
}

int mora_emit_str(mora_context* ctx, std::uint32_t rt, std::uint32_t rn) {
  return emit_unsigned_offset(ctx, STORE, rt, rn, 0);
}

int mora_emit_ldr_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm) {
  return emit_unsigned_offset(ctx, LOAD, rt, rn, imm);
}

int mora_emit_str_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::uint32_t imm) {
  return emit_unsigned_offset(ctx, STORE, rt, rn, imm);
}

int mora_emit_ldr_index(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9, bool post) {
  return emit_index(ctx, LOAD, rt, rn, imm9, post);
}

int mora_emit_str_index(mora_context* ctx, std::uint32_t rt, std::uint32_t rn, std::int32_t imm9, bool post) {
  return emit_index(ctx, STORE, rt, rn, imm9, post);
}

int mora_emit_stp_offset(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn, std::int32_t imm) {
  return emit_pair(ctx, STORE, rt, rt2, rn, imm, SIGNED_OFFSET);
}

int mora_emit_ldp_post(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn, std::int32_t imm) {
  return emit_pair(ctx, LOAD, rt, rt2, rn, imm, POST_INDEX);
}

int mora_emit_push_pair(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn) {
  return emit_pair(ctx, STORE, rt, rt2, rn, -SLOT_PAIR, PRE_INDEX);
}

int mora_emit_pop_pair(mora_context* ctx, std::uint32_t rt, std::uint32_t rt2, std::uint32_t rn) {
  return emit_pair(ctx, LOAD, rt, rt2, rn, SLOT_PAIR, POST_INDEX);
}

int mora_emit_and(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::uint32_t rm) {
  if (!begin_code(ctx, 1)) return -1;
  emit_logical_shifted(ctx, 1, 0, 0, 0, rm, 0, rn, rd);
  return 0;
}

int mora_emit_and_imm(mora_context* ctx, std::uint32_t rd, std::uint32_t rn, std::uint64_t bits) {
  logical_fields fields{};
  if (!encode_logical_immediate(bits, &fields) || !begin_code(ctx, 1)) return -1;
  emit_logical_imm(ctx, 1, 0, fields.n, fields.immr, fields.imms, rn, rd);
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
  if (!begin_code(ctx, 1) || !is_in_reach(ctx->write_p, target, 26)) return -1;
  a64_branch(ctx->write_p++, target);
  return 0;
}

int mora_emit_branch_cond(mora_context* ctx, std::uint64_t target, std::uint32_t cond) {
  if (!begin_code(ctx, 1) || !is_in_reach(ctx->write_p, target, 19)) return -1;
  a64_b_cond_to(ctx->write_p++, target, cond);
  return 0;
}

int mora_emit_cbz(mora_context* ctx, std::uint64_t target, std::uint32_t reg) {
  return emit_compare_and_branch(ctx, target, 0, reg);
}

int mora_emit_cbnz(mora_context* ctx, std::uint64_t target, std::uint32_t reg) {
  return emit_compare_and_branch(ctx, target, 1, reg);
}

int mora_reserve_branch(mora_context* ctx, mora_branch* out) {
  if (!begin_code(ctx, 1)) return -1;
  out->place = ctx->write_p;
  *ctx->write_p++ = NOP;
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
  if (is_in_reach(ctx->write_p, target, 26)) {
    a64_bl(ctx->write_p++, target);
    return 0;
  }
  a64_load_const(&ctx->write_p, LINK_REGISTER, target);
  emit_blr(ctx, LINK_REGISTER);
  return 0;
}

int mora_emit_guarded_call(mora_context* ctx, std::uint64_t fn, std::uint32_t nargs) {
  if (nargs > ARGUMENT_REGISTERS) return -1;
  constexpr std::uint32_t x8 = 8;
  const std::uint32_t mask = GUARDED_CALL_MASK & ~((std::uint32_t{1} << nargs) - 1);
  if (mora_emit_save_regs(ctx, mask) != 0) return -1;
  mora_emit_load_const(ctx, x8, fn);
  // With SVE a function can change more of the vector state than q0 to q31.
  const bool has_sve = (getauxval(AT_HWCAP) & HWCAP_SVE) != 0;
  mora_emit_call(ctx, reinterpret_cast<std::uint64_t>(has_sve ? &guarded_call_stub_sve : &guarded_call_stub));
  return mora_emit_restore_regs(ctx, mask);
}

int mora_emit_guarded_call_values(mora_context* ctx, std::uint64_t fn, std::uint32_t nargs,
                                  const std::uint64_t* values) {
  if (nargs > ARGUMENT_REGISTERS) return -1;
  if (nargs == 0) return mora_emit_guarded_call(ctx, fn, 0);
  const std::uint32_t mask = (std::uint32_t{1} << nargs) - 1;
  if (mora_emit_save_regs(ctx, mask) != 0) return -1;
  for (std::uint32_t reg = 0; reg < nargs; ++reg) mora_emit_load_const(ctx, reg, values[reg]);
  mora_emit_guarded_call(ctx, fn, nargs);
  return mora_emit_restore_regs(ctx, mask);
}

int mora_emit_indirect_branch(mora_context* ctx, std::uint32_t reg) {
  if (mora_reserve_space(ctx, REGISTER_BRANCH_SPACE) != 0) return -1;
  a64_branch_reg(ctx->thread_data, 0, &ctx->write_p, ctx->read_address, reg, false, false);
  return 0;
}

int mora_emit_counter_add(mora_context* ctx, std::uint64_t address, std::uint32_t imm) {
  if (imm > 0xfff || !begin_code(ctx, LOAD_CONST_WORDS + 5)) return -1;
  a64_push_x0_x1(&ctx->write_p);
  a64_load_const(&ctx->write_p, X0, address);
  mora_emit_ldr(ctx, X1, X0);
  emit_add_sub_imm(ctx, 1, 0, 0, 0, imm, X1, X1);
  mora_emit_str(ctx, X1, X0);
  return mora_emit_pop_pair(ctx, X0, X1, SP);
}

}  // namespace ceilmeter
