// Each mnemonic against the word that the assembler makes of the same line, and labels in both directions.
#include "bi/code/code_writer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "../../support/hex.h"

namespace ceilmeter {
namespace {

using test::hex;
using words = std::vector<std::uint32_t>;

// What `write` writes.
template <typename function_t>
words written(function_t write) {
  std::uint32_t memory[64] = {};
  std::uint32_t* cursor = memory;
  write(code_writer{cursor});
  return {memory, cursor};
}

std::vector<std::string> texts(const words& from) {
  std::vector<std::string> out;
  for (const std::uint32_t word : from) out.push_back(hex(word));
  return out;
}

// The assembler's words for `text`, which stand in this program's text and are branched over.
#define ASSEMBLED(text)                                                                        \
  [] {                                                                                         \
    const std::uint32_t* begin = nullptr;                                                      \
    const std::uint32_t* end = nullptr;                                                        \
    asm("adr %0, 80f\n\tadr %1, 81f\n\tb 81f\n80:\n\t" text "\n81:" : "=r"(begin), "=r"(end)); \
    return words{begin, end};                                                                  \
  }()

#define EXPECT_CODE(text, statements) \
  EXPECT_EQ(texts(written([](code_writer code) { statements; })), texts(ASSEMBLED(text))) << (text)

TEST(code_writer, loads_and_stores_with_an_offset) {
  EXPECT_CODE("ldr x20, [x21]", code.ldr(x20, at(x21)));
  EXPECT_CODE("str x3, [sp, #32760]", code.str(x3, at(sp, 32760)));
  EXPECT_CODE("ldr xzr, [x0, #8]", code.ldr(xzr, at(x0, 8)));
  EXPECT_CODE("ldur x4, [x5, #-8]", code.ldur(x4, at(x5, -8)));
  EXPECT_CODE("ldur x4, [x5, #-256]", code.ldur(x4, at(x5, -256)));
  EXPECT_CODE("stur x4, [x5, #255]", code.stur(x4, at(x5, 255)));
}

TEST(code_writer, loads_and_stores_that_move_their_base) {
  EXPECT_CODE("ldr x0, [sp], #16", code.ldr(x0, post_index(sp, 16)));
  EXPECT_CODE("str x30, [x0, #8]!", code.str(x30, pre_index(x0, 8)));
  EXPECT_CODE("ldr x30, [x0], #-8", code.ldr(x30, post_index(x0, -8)));
  EXPECT_CODE("str x2, [sp, #-16]!", code.str(x2, pre_index(sp, -16)));
}

TEST(code_writer, loads_of_other_sizes) {
  EXPECT_CODE("ldr w7, [x8, #4]", code.ldr_w(x7, at(x8, 4)));
  EXPECT_CODE("ldrsw x7, [x8, #4]", code.ldrsw(x7, at(x8, 4)));
  EXPECT_CODE("prfm pldl2strm, [x8, #16]", code.prfm(3, at(x8, 16)));
  EXPECT_CODE("ldr s9, [x10, #4]", code.ldr_s(v_register{9}, at(x10, 4)));
  EXPECT_CODE("ldr d9, [x10, #8]", code.ldr_d(v_register{9}, at(x10, 8)));
  EXPECT_CODE("ldr q9, [x10, #16]", code.ldr_q(v_register{9}, at(x10, 16)));
}

TEST(code_writer, pairs) {
  EXPECT_CODE("ldp x1, x2, [x3, #504]", code.ldp(x1, x2, at(x3, 504)));
  EXPECT_CODE("stp x1, x2, [x3, #-512]", code.stp(x1, x2, at(x3, -512)));
  EXPECT_CODE("ldp x0, x1, [sp], #16", code.ldp(x0, x1, post_index(sp, 16)));
  EXPECT_CODE("stp x29, x30, [sp, #-16]!", code.stp(x29, x30, pre_index(sp, -16)));
}

TEST(code_writer, pushes_and_pops_that_keep_the_stack_pointer_aligned) {
  EXPECT_CODE("str x2, [sp, #-16]!", code.push(x2));
  EXPECT_CODE("ldr x2, [sp], #16", code.pop(x2));
  EXPECT_CODE("stp x1, x30, [sp, #-16]!", code.push(x1, x30));
  EXPECT_CODE("ldp x1, x30, [sp], #16", code.pop(x1, x30));
}

TEST(code_writer, sums_and_differences) {
  EXPECT_CODE("add x2, sp, #32", code.add(x2, sp, 32));
  EXPECT_CODE("add sp, sp, #4095", code.add(sp, sp, 4095));
  EXPECT_CODE("sub sp, x3, #16", code.sub(sp, x3, 16));
  EXPECT_CODE("add x4, x5, #3, lsl #12", code.add_lsl_12(x4, x5, 3));
  EXPECT_CODE("sub x4, x5, #3, lsl #12", code.sub_lsl_12(x4, x5, 3));
  EXPECT_CODE("add x0, x0, x1, lsl #2", code.add(x0, x0, x1, SHIFT_LSL, 2));
  EXPECT_CODE("sub x6, x7, x28", code.sub(x6, x7, x28));
  EXPECT_CODE("sub x6, x7, x28, asr #63", code.sub(x6, x7, x28, SHIFT_ASR, 63));
  EXPECT_CODE("add x6, xzr, x28, lsr #1", code.add(x6, xzr, x28, SHIFT_LSR, 1));
}

TEST(code_writer, masks) {
  EXPECT_CODE("and x1, x2, #0x1ffffc", code.and_(x1, x2, 0x1ffffc));
  EXPECT_CODE("and x1, x2, #1", code.and_(x1, x2, 1));
  EXPECT_CODE("and x1, x2, #0x8000000000000001", code.and_(x1, x2, 0x8000000000000001));
  EXPECT_CODE("and x1, x2, #0xfffffffffffffff0", code.and_(x1, x2, 0xfffffffffffffff0));
  EXPECT_CODE("and x1, x2, #0x5555555555555555", code.and_(x1, x2, 0x5555555555555555));
  EXPECT_CODE("and x1, x2, #0xe3e3e3e3e3e3e3e3", code.and_(x1, x2, 0xe3e3e3e3e3e3e3e3));
  EXPECT_CODE("and x1, x2, x3", code.and_(x1, x2, x3));
}

TEST(code_writer, masks_that_no_instruction_can_hold_are_refused) {
  logical_fields fields{};
  for (const std::uint64_t bits : {std::uint64_t{0}, ~std::uint64_t{0}, std::uint64_t{0x5}, std::uint64_t{0x1234}}) {
    EXPECT_FALSE(encode_logical_immediate(bits, &fields)) << bits;
  }
}

TEST(code_writer, moves_and_constants) {
  EXPECT_CODE("mov x11, x12", code.mov(x11, x12));
  EXPECT_CODE("mov x11, xzr", code.mov(x11, xzr));
  EXPECT_CODE("mov x13, sp", code.mov_from_sp(x13));
  EXPECT_CODE("movz x14, #0xffff, lsl #48", code.movz(x14, 0xffff, 48));
  EXPECT_CODE("movk x14, #0x1234, lsl #16", code.movk(x14, 0x1234, 16));
  EXPECT_CODE("movz x15, #0x1230\n\tmovk x15, #0x5678, lsl #32", code.load_const(x15, 0x567800001230));
}

TEST(code_writer, branches_to_registers) {
  EXPECT_CODE("br x16", code.br(x16));
  EXPECT_CODE("blr x17", code.blr(x17));
  EXPECT_CODE("ret", code.ret());
  EXPECT_CODE("ret x18", code.ret(x18));
}

TEST(code_writer, branches_to_addresses_and_to_bound_labels) {
  EXPECT_CODE("b .", code.b(reinterpret_cast<std::uint64_t>(code.cursor)));
  EXPECT_CODE("bl . + 8", code.bl(reinterpret_cast<std::uint64_t>(code.cursor + 2)));
  EXPECT_CODE("nop\n\tb.ne . - 4", code.nop(); code.b_cond(1, reinterpret_cast<std::uint64_t>(code.cursor - 1)));
  EXPECT_CODE("1:nop\n\tb 1b\n\tb.lt 1b\n\tcbz x19, 1b\n\tcbnz x22, 1b\n\ttbz x23, #63, 1b\n\ttbnz w24, #5, 1b",
              code_label start;
              code.bind(start); code.nop(); code.b(start); code.b_cond(11, start); code.cbz(x19, start);
              code.cbnz(x22, start); code.tbz(x23, 63, start); code.tbnz(x24, 5, start));
}

TEST(code_writer, branches_to_labels_that_are_bound_later) {
  EXPECT_CODE("b 1f\n\tb.lt 1f\n\tcbz x19, 1f\n\tnop\n\tcbnz x22, 1f\n\ttbz x23, #63, 1f\n\ttbnz w24, #5, 1f\n1:nop",
              code_label end;
              code.b(end); code.b_cond(11, end); code.cbz(x19, end); code.nop(); code.cbnz(x22, end);
              code.tbz(x23, 63, end); code.tbnz(x24, 5, end); code.bind(end); code.nop());
}

TEST(code_writer, two_labels_at_once_keep_their_branches_apart) {
  EXPECT_CODE("cbz x0, 1f\n\tcbz x1, 2f\n\tcbz x2, 1f\n\tcbz x3, 2f\n1:nop\n2:nop", code_label first; code_label second;
              code.cbz(x0, first); code.cbz(x1, second); code.cbz(x2, first); code.cbz(x3, second); code.bind(first);
              code.nop(); code.bind(second); code.nop());
}

TEST(code_writer, a_label_that_nothing_branches_to_changes_nothing) {
  EXPECT_CODE("nop", code_label unused; code.bind(unused); code.nop());
}

TEST(code_writer, system_registers_and_traps) {
  EXPECT_CODE("mrs x25, tpidr_el0", code.mrs(x25, TPIDR_EL0));
  EXPECT_CODE("msr tpidr_el0, x26", code.msr(TPIDR_EL0, x26));
  EXPECT_CODE("mrs x27, nzcv", code.mrs(x27, NZCV));
  EXPECT_CODE("svc #0", code.svc(0));
  EXPECT_CODE("hvc #3", code.hvc(3));
  EXPECT_CODE("brk #0xffff", code.brk(0xffff));
}

TEST(code_writer, authentication) {
  EXPECT_CODE(".arch armv8.3-a\n\tautia x1, sp\n\t.arch armv8-a", code.aut(0, x1, sp));
  EXPECT_CODE(".arch armv8.3-a\n\tautib x1, x2\n\t.arch armv8-a", code.aut(1, x1, x2));
  EXPECT_CODE(".arch armv8.3-a\n\tautiza x3\n\t.arch armv8-a", code.aut_zero(0, x3));
  EXPECT_CODE(".arch armv8.3-a\n\tautizb x3\n\t.arch armv8-a", code.aut_zero(1, x3));
}

}  // namespace
}  // namespace ceilmeter
