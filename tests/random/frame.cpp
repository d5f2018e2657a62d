// A program's beginning, which gives every register a value from the seed, and its end, which writes all registers and
// a hash of the memory to standard output.
#include "bi/a64/a64.h"
#include "generator.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t SP = 31;
constexpr std::uint32_t ZERO = 31;
constexpr std::uint32_t NE = 1;
constexpr std::uint32_t MINUS_2_PAIR = 0x7e;  // -16 as the imm7 of a pair of 64-bit registers.

constexpr std::uint32_t SETFFR = 0x252c9000;
constexpr std::uint32_t RDFFR_P0 = 0x2519f000;

// LDR and STR of a z or p register at base plus index vector lengths; no class of the family has them.
std::uint32_t scalable(bool store, bool predicate, std::uint32_t index, std::uint32_t base, std::uint32_t reg) {
  const std::uint32_t form = (store ? 0xe5800000u : 0x85800000u) | (predicate ? 0u : 0x4000u);
  return form | (index >> 3) << 16 | (index & 7) << 10 | base << 5 | reg;
}

void move_system_register(item& to, bool read, std::uint32_t crn, std::uint32_t crm, std::uint32_t op2,
                          std::uint32_t reg) {
  to.add(a64_mrs_msr, read ? 1 : 0, 1, 3, crn, crm, op2, reg);
}

// Fills [start, end) with numbers of a congruential generator, folded so that low bits are as random as high ones.
void fill(item& to, std::uint64_t start, std::uint64_t end, std::uint64_t seed) {
  to.add_constant(0, start);
  to.add_constant(1, end);
  to.add_constant(2, seed);
  to.add_constant(3, 0x5851f42d4c957f2d);
  to.add_constant(4, 0x14057b7ef767814f);
  to.add(a64_three_sources, 1, 0, 3, 0, 4, 2, 2);          // madd x2, x2, x3, x4
  to.add(a64_logical_shifted, 1, 2, 1, 0, 2, 29, 2, 5);    // eor x5, x2, x2, lsr #29
  to.add(a64_ldr_str_imm9, 3, 0, 0, 8, 1, 0, 5);           // str x5, [x0], #8
  to.add(a64_add_sub_shifted, 1, 1, 1, 0, 1, 0, 0, ZERO);  // cmp x0, x1
  to.add(a64_b_cond, static_cast<std::uint32_t>(-4) & 0x7ffff, NE);
}

// x2 becomes a hash of itself and [start, end).
void hash(item& to, std::uint64_t start, std::uint64_t end) {
  to.add_constant(0, start);
  to.add_constant(1, end);
  to.add_constant(3, 0x9e3779b97f4a7c15);
  to.add(a64_ldr_str_imm9, 3, 0, 1, 8, 1, 0, 5);           // ldr x5, [x0], #8
  to.add(a64_logical_shifted, 1, 2, 3, 0, 2, 17, 5, 2);    // eor x2, x5, x2, ror #17
  to.add(a64_three_sources, 1, 0, 3, 0, ZERO, 2, 2);       // mul x2, x2, x3
  to.add(a64_add_sub_shifted, 1, 1, 1, 0, 1, 0, 0, ZERO);  // cmp x0, x1
  to.add(a64_b_cond, static_cast<std::uint32_t>(-4) & 0x7ffff, NE);
}

}  // namespace

void generator::begin_main() {
  item& beginning = start("beginning");
  beginning.fixed = true;
  beginning.add_constant(0, data_address(STACK_OFFSET));
  beginning.add(a64_add_sub_imm, 1, 0, 0, 0, 0, 0, SP);
  fill(beginning, data_address(MEMORY_OFFSET), data_address(MEMORY_END_OFFSET), random_.next());
  beginning.add_constant(0, data_address(MEMORY_OFFSET) + 16 * random_.below(0x400));
  if (made_.has_sve) {
    for (std::uint32_t i = 0; i < 32; ++i) beginning.words.push_back(scalable(false, false, i, 0, i));
    for (std::uint32_t i = 0; i < 16; ++i) beginning.words.push_back(scalable(false, true, i + 3, 0, i));
    beginning.words.push_back(SETFFR);
  } else {
    for (std::uint32_t i = 0; i < 32; i += 2) beginning.add(a64_ldp_stp, 2, 1, 2, 1, i, i + 1, 0, i);
  }
  beginning.add_constant(0, random_.next() & 0xf0000000);
  move_system_register(beginning, false, 4, 2, 0, 0);
  for (std::uint32_t reg = 0; reg < 31; ++reg) beginning.add_constant(reg, random_.value());
  done();
}

void generator::end_main() {
  item& end = start("end");
  end.fixed = true;
  end.add(a64_ldp_stp, 2, 0, 3, 0, MINUS_2_PAIR, 1, SP, 0);
  end.add_constant(0, data_address(RESULT_OFFSET));
  for (std::uint32_t reg = 2; reg < 30; reg += 2) end.add(a64_ldp_stp, 2, 0, 2, 0, reg, reg + 1, 0, reg);
  end.add(a64_ldr_str_unsigned, 3, 0, 0, 30, 0, 30);
  end.add(a64_ldp_stp, 2, 0, 1, 1, 2, 3, SP, 2);
  end.add(a64_ldp_stp, 2, 0, 2, 0, 0, 3, 0, 2);
  end.add(a64_add_sub_imm, 1, 0, 0, 0, 0, SP, 1);
  end.add(a64_ldr_str_unsigned, 3, 0, 0, RESULT_SP / 8, 0, 1);
  struct {
    std::uint32_t crn, crm, op2, place;
  } constexpr registers[] = {
      {4, 2, 0, RESULT_NZCV}, {4, 4, 0, RESULT_FPCR}, {4, 4, 1, RESULT_FPSR}, {13, 0, 2, RESULT_TPIDR}};
  for (const auto& one : registers) {
    move_system_register(end, true, one.crn, one.crm, one.op2, 1);
    end.add(a64_ldr_str_unsigned, 3, 0, 0, one.place / 8, 0, 1);
  }
  end.add(a64_add_sub_imm, 1, 0, 0, 0, RESULT_VECTORS, 0, 1);
  for (std::uint32_t i = 0; i < 32; i += 2) end.add(a64_ldp_stp, 2, 1, 2, 0, i, i + 1, 1, i);
  if (made_.has_sve) {
    end.add_constant(1, data_address(RESULT_OFFSET) + RESULT_Z);
    for (std::uint32_t i = 0; i < 32; ++i) end.words.push_back(scalable(true, false, i, 1, i));
    end.add_constant(1, data_address(RESULT_OFFSET) + RESULT_P);
    for (std::uint32_t i = 0; i < 16; ++i) end.words.push_back(scalable(true, true, i, 1, i));
    end.words.push_back(RDFFR_P0);
    end.words.push_back(scalable(true, true, 16, 1, 0));
  }
  const std::uint32_t result_size = made_.has_sve ? RESULT_SIZE_SVE : RESULT_SIZE;
  end.add_constant(2, 0);
  hash(end, data_address(TABLE_OFFSET), data_address(MEMORY_END_OFFSET));
  if (made_.records != 0) {
    hash(end, data_address(RECORD_OFFSET), data_address(RECORD_OFFSET + RECORD_SIZE * made_.records));
  }
  hash(end, data_address(STACK_OFFSET), data_address(STACK_END_OFFSET));
  end.add_constant(0, data_address(RESULT_OFFSET));
  end.add(a64_ldr_str_unsigned, 3, 0, 0, RESULT_HASH / 8, 0, 2);
  end.add(a64_logical_shifted, 1, 2, 1, 0, 2, 32, 2, 19);  // eor x19, x2, x2, lsr #32
  end.add_constant(0, 1);
  end.add_constant(1, data_address(RESULT_OFFSET));
  end.add_constant(2, result_size);
  end.add_constant(8, 64);  // write
  end.add(a64_svc, 0);
  end.add(a64_logical_imm, 1, 0, 1, 0, 5, 19, 0);  // and x0, x19, #0x3f
  end.add_constant(8, 94);                         // exit_group
  end.add(a64_svc, 0);
  done();
}

}  // namespace ceilmeter
