// An emitter that reads as assembly: `code.ldr(x20, at(x21))` writes `ldr x20, [x21]` at the cursor and moves the
// cursor past it. It stands on the generated family (bi/a64) and knows which fields a mnemonic has; operands are 64
// bits wide unless the mnemonic's name says otherwise.
//
// Immediates are in bytes, as in assembly, and are cut to their fields: the caller knows that they fit. Nothing here
// reserves space, and nothing clears the instruction cache: both are up to the caller.
#pragma once

#include <cstdint>

#include "bi/a64/family.h"
#include "bi/a64/helpers.h"
#include "bi/code/code_words.h"

namespace ceilmeter {

// A general register where number 31 is the zero register.
struct x_register {
  std::uint32_t number;
};

// A general register where number 31 is the stack pointer: the base of an address, and operands of ADD and SUB with an
// immediate. xzr in such a place does not compile as `sp`, and sp does not compile in any other place.
struct x_or_sp {
  std::uint32_t number;
  constexpr explicit x_or_sp(std::uint32_t of) : number(of) {}
  // Implicit, so that x0 stands in an address as it is.
  constexpr x_or_sp(x_register from) : number(from.number) {}  // NOLINT(google-explicit-constructor)
};

// A vector register, of the size that the mnemonic says.
struct v_register {
  std::uint32_t number;
};

inline constexpr x_register x0{0};
inline constexpr x_register x1{1};
inline constexpr x_register x2{2};
inline constexpr x_register x3{3};
inline constexpr x_register x4{4};
inline constexpr x_register x5{5};
inline constexpr x_register x6{6};
inline constexpr x_register x7{7};
inline constexpr x_register x8{8};
inline constexpr x_register x9{9};
inline constexpr x_register x10{10};
inline constexpr x_register x11{11};
inline constexpr x_register x12{12};
inline constexpr x_register x13{13};
inline constexpr x_register x14{14};
inline constexpr x_register x15{15};
inline constexpr x_register x16{16};
inline constexpr x_register x17{17};
inline constexpr x_register x18{18};
inline constexpr x_register x19{19};
inline constexpr x_register x20{20};
inline constexpr x_register x21{21};
inline constexpr x_register x22{22};
inline constexpr x_register x23{23};
inline constexpr x_register x24{24};
inline constexpr x_register x25{25};
inline constexpr x_register x26{26};
inline constexpr x_register x27{27};
inline constexpr x_register x28{28};
inline constexpr x_register x29{29};
inline constexpr x_register x30{30};
inline constexpr x_register xzr{31};
inline constexpr x_or_sp sp{31};

// [base, #offset], the base register unchanged.
struct offset_address {
  x_or_sp base;
  std::int32_t offset;
};

// [base, #offset]! or [base], #offset: the base register moves, before the access or after it.
struct indexed_address {
  x_or_sp base;
  std::int32_t offset;
  std::uint32_t mode;  // PRE_INDEX or POST_INDEX.
};

constexpr offset_address at(x_or_sp base, std::int32_t offset = 0) { return {base, offset}; }
constexpr indexed_address pre_index(x_or_sp base, std::int32_t offset) { return {base, offset, PRE_INDEX}; }
constexpr indexed_address post_index(x_or_sp base, std::int32_t offset) { return {base, offset, POST_INDEX}; }

// The fields of a logical immediate: N, immr, imms.
struct logical_fields {
  std::uint32_t n;
  std::uint32_t immr;
  std::uint32_t imms;
};

// False for a mask that no logical immediate can hold: 0, all ones, and what is no repeated, rotated run of ones.
constexpr bool encode_logical_immediate(std::uint64_t bits, logical_fields* out) {
  if (bits == 0 || bits == ~std::uint64_t{0}) return false;
  // The mask is an element of 2, 4 ... 64 bits, repeated. The element is a run of ones, rotated.
  std::uint32_t size = 64;
  for (; size > 2; size /= 2) {
    const std::uint32_t half = size / 2;
    const std::uint64_t mask = (std::uint64_t{1} << half) - 1;
    if ((bits & mask) != (bits >> half & mask)) break;
  }
  const std::uint64_t element_mask = ~std::uint64_t{0} >> (64 - size);
  const std::uint64_t element = bits & element_mask;
  const auto ones = static_cast<std::uint32_t>(__builtin_popcountll(element));
  const std::uint64_t run = (std::uint64_t{1} << ones) - 1;  // Fewer than 64 ones: all of 64 bits is no immediate.
  for (std::uint32_t rotation = 0; rotation < size; ++rotation) {
    const std::uint64_t rotated = rotation == 0 ? run : (run >> rotation | run << (size - rotation)) & element_mask;
    if (rotated != element) continue;
    // The leading ones of N:NOT(imms) tell the element's size.
    *out = {size == 64 ? 1U : 0U, rotation, (~(size * 2 - 1) & 0x3f) | (ones - 1)};
    return true;
  }
  return false;
}

// A mask that is known at compile time: one that no instruction can hold does not compile.
struct constant_mask {
  logical_fields fields{};
  consteval constant_mask(std::uint64_t bits) {  // NOLINT(google-explicit-constructor): masks are written plainly.
    if (!encode_logical_immediate(bits, &fields)) __builtin_unreachable();
  }
};

enum shift_kind : std::uint32_t { SHIFT_LSL = 0, SHIFT_LSR = 1, SHIFT_ASR = 2 };

// The register that `mrs` and `msr` name, by the fields of its encoding. `o0` is op0 less 2.
struct system_register {
  std::uint32_t o0;
  std::uint32_t op1;
  std::uint32_t crn;
  std::uint32_t crm;
  std::uint32_t op2;
};

inline constexpr system_register TPIDR_EL0 = {1, 3, 13, 0, 2};
inline constexpr system_register CTR_EL0 = {1, 3, 0, 0, 1};
inline constexpr system_register NZCV = {1, 3, 4, 2, 0};

constexpr bool operator==(const system_register& left, const system_register& right) {
  return left.o0 == right.o0 && left.op1 == right.op1 && left.crn == right.crn && left.crm == right.crm &&
         left.op2 == right.op2;
}

// A place that branches of the same piece of code name, before or after it is bound. Unbound branches hold the distance
// to the branch before them in their own offset fields, so that a label needs no list. All of the code between a branch
// and its label must lie in one piece; the space for it is reserved first.
struct code_label {
  std::uint32_t* place = nullptr;        // Where it is bound; null: not yet.
  std::uint32_t* last_branch = nullptr;  // The last of the branches that wait for it.
};

// Writes at `cursor` and moves it. The cursor belongs to the caller, and several writers may share it.
struct code_writer {
  std::uint32_t*& cursor;

  void word(std::uint32_t word) const { *cursor++ = word; }
  void nop() const { word(NOP); }

  // Loads and stores of one register.
  void ldr(x_register rt, offset_address from) const { put_unsigned(SIZE_X, LOAD, rt.number, from); }
  void str(x_register rt, offset_address to) const { put_unsigned(SIZE_X, STORE, rt.number, to); }
  void ldr(x_register rt, indexed_address from) const { put_indexed(LOAD, rt, from.base, from.offset, from.mode); }
  void str(x_register rt, indexed_address to) const { put_indexed(STORE, rt, to.base, to.offset, to.mode); }
  void ldur(x_register rt, offset_address from) const { put_indexed(LOAD, rt, from.base, from.offset, UNSCALED); }
  void stur(x_register rt, offset_address to) const { put_indexed(STORE, rt, to.base, to.offset, UNSCALED); }
  void ldr_w(x_register rt, offset_address from) const { put_unsigned(SIZE_W, LOAD, rt.number, from); }
  void ldrsw(x_register rt, offset_address from) const { put_unsigned(SIZE_W, LOAD_SIGNED, rt.number, from); }
  void prfm(std::uint32_t operation, offset_address from) const { put_unsigned(SIZE_X, LOAD_SIGNED, operation, from); }
  void ldr_s(v_register rt, offset_address from) const { put_vector(SIZE_W, LOAD, 4, rt, from); }
  void ldr_d(v_register rt, offset_address from) const { put_vector(SIZE_X, LOAD, 8, rt, from); }
  void ldr_q(v_register rt, offset_address from) const { put_vector(0, LOAD_128, 16, rt, from); }

  // Loads and stores of a pair.
  void ldp(x_register rt, x_register rt2, offset_address from) const {
    put_pair(LOAD, rt, rt2, {from.base, from.offset, SIGNED_OFFSET});
  }
  void stp(x_register rt, x_register rt2, offset_address to) const {
    put_pair(STORE, rt, rt2, {to.base, to.offset, SIGNED_OFFSET});
  }
  void ldp(x_register rt, x_register rt2, indexed_address from) const { put_pair(LOAD, rt, rt2, from); }
  void stp(x_register rt, x_register rt2, indexed_address to) const { put_pair(STORE, rt, rt2, to); }

  // Pushes and pops keep sp aligned to 16: one register takes as much as two.
  // The engine writes them all the time: whole words are cheaper than calls with eight fields.
  void push(x_register rt) const { word(STR_SP_PRE_16 | rt.number); }
  void pop(x_register rt) const { word(LDR_SP_POST_16 | rt.number); }
  void push(x_register rt, x_register rt2) const { word(STP_SP_PRE_16 | rt2.number << 10 | rt.number); }
  void pop(x_register rt, x_register rt2) const { word(LDP_SP_POST_16 | rt2.number << 10 | rt.number); }

  // Arithmetic. An immediate has 12 bits; `lsl_12` counts it in units of 4096.
  void add(x_or_sp rd, x_or_sp rn, std::uint32_t imm12) const { put_add_sub(0, 0, rd, rn, imm12); }
  void sub(x_or_sp rd, x_or_sp rn, std::uint32_t imm12) const { put_add_sub(1, 0, rd, rn, imm12); }
  void add_lsl_12(x_or_sp rd, x_or_sp rn, std::uint32_t imm12) const { put_add_sub(0, 1, rd, rn, imm12); }
  void sub_lsl_12(x_or_sp rd, x_or_sp rn, std::uint32_t imm12) const { put_add_sub(1, 1, rd, rn, imm12); }
  void add(x_register rd, x_register rn, x_register rm, shift_kind shift = SHIFT_LSL, std::uint32_t amount = 0) const {
    a64_add_sub_shifted(cursor++, 1, 0, 0, shift, rm.number, amount, rn.number, rd.number);
  }
  void sub(x_register rd, x_register rn, x_register rm, shift_kind shift = SHIFT_LSL, std::uint32_t amount = 0) const {
    a64_add_sub_shifted(cursor++, 1, 1, 0, shift, rm.number, amount, rn.number, rd.number);
  }

  // Logic and moves.
  void and_(x_register rd, x_register rn, constant_mask bits) const { and_(rd, rn, bits.fields); }
  void and_(x_register rd, x_register rn, logical_fields bits) const {
    a64_logical_imm(cursor++, 1, 0, bits.n, bits.immr, bits.imms, rn.number, rd.number);
  }
  void and_(x_register rd, x_register rn, x_register rm) const { put_logical(0, rd, rn, rm); }
  void mov(x_register rd, x_register rm) const { put_logical(1, rd, xzr, rm); }
  void lsr(x_register rd, x_register rn, x_register rm) const {
    constexpr std::uint32_t lsrv = 9;
    a64_two_sources(cursor++, 1, rm.number, lsrv, rn.number, rd.number);
  }
  void mov_from_sp(x_or_sp rd) const { add(rd, sp, 0); }
  void movz(x_register rd, std::uint32_t imm16, std::uint32_t lsl = 0) const {
    a64_mov_wide(cursor++, 1, 2, lsl / 16, imm16, rd.number);
  }
  void movk(x_register rd, std::uint32_t imm16, std::uint32_t lsl = 0) const {
    a64_mov_wide(cursor++, 1, 3, lsl / 16, imm16, rd.number);
  }
  // One to four words, by the value.
  void load_const(x_register rd, std::uint64_t value) const { a64_load_const(&cursor, rd.number, value); }
  // The same for an address, by words that depend on their place: see a64_load_address.
  void load_address(x_register rd, std::uint64_t address) const { a64_load_address(&cursor, rd.number, address); }

  // Branches to a cache address in reach.
  void b(std::uint64_t to) const { a64_branch(cursor++, to); }
  void bl(std::uint64_t to) const { a64_bl(cursor++, to); }
  void b_cond(std::uint32_t condition, std::uint64_t to) const { a64_b_cond_to(cursor++, to, condition); }
  void cbz(x_register rt, std::uint64_t to) const { a64_cbz_helper(cursor++, to, 1, rt.number); }
  void cbnz(x_register rt, std::uint64_t to) const { a64_cbnz_helper(cursor++, to, 1, rt.number); }
  void tbz(x_register rt, std::uint32_t bit, std::uint64_t to) const { a64_tbz_to(cursor++, 0, to, rt.number, bit); }
  void tbnz(x_register rt, std::uint32_t bit, std::uint64_t to) const { a64_tbz_to(cursor++, 1, to, rt.number, bit); }

  // Branches to a label, bound already or later.
  void bind(code_label& label) const;
  void b(code_label& to) const { b(next_address(to)); }
  void b_cond(std::uint32_t condition, code_label& to) const { b_cond(condition, next_address(to)); }
  void cbz(x_register rt, code_label& to) const { cbz(rt, next_address(to)); }
  void cbnz(x_register rt, code_label& to) const { cbnz(rt, next_address(to)); }
  void cbnz_w(x_register rt, code_label& to) const {
    const std::uint64_t target = next_address(to);
    a64_cbnz_helper(cursor++, target, 0, rt.number);
  }
  void tbz(x_register rt, std::uint32_t bit, code_label& to) const { tbz(rt, bit, next_address(to)); }
  void tbnz(x_register rt, std::uint32_t bit, code_label& to) const { tbnz(rt, bit, next_address(to)); }

  void br(x_register rn) const { a64_br(cursor++, rn.number); }
  void blr(x_register rn) const { a64_blr(cursor++, rn.number); }
  void ret(x_register rn = x30) const { a64_ret(cursor++, rn.number); }

  // System registers, barriers and traps.
  void dmb_ish() const { word(0xd5033bbf); }    // dmb ish
  void dmb_ishld() const { word(0xd50339bf); }  // dmb ishld
  void mrs(x_register rt, system_register from) const { put_system(1, rt, from); }
  void msr(system_register to, x_register rt) const { put_system(0, rt, to); }
  void svc(std::uint32_t imm16) const { a64_svc(cursor++, imm16); }
  void hvc(std::uint32_t imm16) const { a64_hvc(cursor++, imm16); }
  void brk(std::uint32_t imm16) const { a64_brk(cursor++, imm16); }

  // Address authentication with key A (0) or B (1).
  void aut(std::uint32_t key, x_register rd, x_or_sp modifier) const {
    a64_authenticate(cursor++, key, 0, modifier.number, rd.number);
  }
  void aut_zero(std::uint32_t key, x_register rd) const { a64_authenticate(cursor++, key, 1, 0, rd.number); }

  // What the mnemonics share. Pushes and pops of x0, and of x0 and x0:
  static constexpr std::uint32_t STR_SP_PRE_16 = 0xf81f0fe0;   // str x0, [sp, #-16]!
  static constexpr std::uint32_t LDR_SP_POST_16 = 0xf84107e0;  // ldr x0, [sp], #16
  static constexpr std::uint32_t STP_SP_PRE_16 = 0xa9bf03e0;   // stp x0, x0, [sp, #-16]!
  static constexpr std::uint32_t LDP_SP_POST_16 = 0xa8c103e0;  // ldp x0, x0, [sp], #16
  // Fields of the load and store classes:
  enum operation_field : std::uint32_t { STORE = 0, LOAD = 1, LOAD_SIGNED = 2, LOAD_128 = 3 };  // 2 of 64 bits: PRFM.
  enum size_field : std::uint32_t { SIZE_W = 2, SIZE_X = 3, PAIR_OF_X = 2 };
  enum mode_field : std::uint32_t { UNSCALED = 0, SIGNED_OFFSET = 2 };

  void put_unsigned(std::uint32_t size, std::uint32_t operation, std::uint32_t rt, offset_address place) const {
    a64_ldr_str_unsigned(cursor++, size, 0, operation, static_cast<std::uint32_t>(place.offset) >> size,
                         place.base.number, rt);
  }
  void put_vector(std::uint32_t size, std::uint32_t operation, std::uint32_t bytes, v_register rt,
                  offset_address place) const {
    a64_ldr_str_unsigned(cursor++, size, 1, operation, static_cast<std::uint32_t>(place.offset) / bytes,
                         place.base.number, rt.number);
  }
  void put_indexed(std::uint32_t operation, x_register rt, x_or_sp base, std::int32_t offset,
                   std::uint32_t mode) const {
    a64_ldr_str_imm9(cursor++, SIZE_X, 0, operation, static_cast<std::uint32_t>(offset), mode, base.number, rt.number);
  }
  void put_pair(std::uint32_t operation, x_register rt, x_register rt2, indexed_address place) const {
    a64_ldp_stp(cursor++, PAIR_OF_X, 0, place.mode, operation, static_cast<std::uint32_t>(place.offset / 8), rt2.number,
                place.base.number, rt.number);
  }
  void put_add_sub(std::uint32_t is_sub, std::uint32_t shift, x_or_sp rd, x_or_sp rn, std::uint32_t imm12) const {
    a64_add_sub_imm(cursor++, 1, is_sub, 0, shift, imm12, rn.number, rd.number);
  }
  void put_logical(std::uint32_t opc, x_register rd, x_register rn, x_register rm) const {
    a64_logical_shifted(cursor++, 1, opc, 0, 0, rm.number, 0, rn.number, rd.number);
  }
  void put_system(std::uint32_t is_read, x_register rt, system_register named) const {
    a64_mrs_msr(cursor++, is_read, named.o0, named.op1, named.crn, named.crm, named.op2, rt.number);
  }
  std::uint64_t next_address(code_label& to) const;
};

}  // namespace ceilmeter
