// Encoding, evaluation and records of conditional branches. The tables of the architecture are behind a64_decode and
// the generated family; CB<cc>, which the family does not have, is encoded here.
//
//   CB<cc> registers    sf 1110100 cc:3 Rm:5 size:2 imm9 Rt:5    size 0: 32 or 64 bits by sf; 2: byte, 3: halfword, sf
//   0 CB<cc> immediate    sf 1110101 cc:3 imm6      0 imm9 Rt:5
#include "bi/code/exit_branch.h"

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/exit_branch"};

// Bit positions in bb_meta::rn, of CB<cc>.
constexpr int RN_OPERAND = 5;
constexpr int RN_WIDTH = 11;
constexpr int RN_IS_IMMEDIATE = 13;

constexpr std::uint32_t CB_REGISTERS = 0x74000000;
constexpr std::uint32_t CB_IMMEDIATE = 0x75000000;
constexpr std::uint32_t CB_MASK = 0x7f000000;
constexpr std::uint32_t CB_SIZE_BYTE = 2;
constexpr std::uint32_t CB_SIZE_HALFWORD = 3;

// Values of the field cc at bit 21. 4 and 5 are not allocated; LT and LO have those of GE and HS.
constexpr int CB_CONDITION = 21;
constexpr std::uint32_t FIELD_GE_OR_LT = 1;
constexpr std::uint32_t FIELD_HS_OR_LO = 3;

bool decode_compare_registers(std::uint32_t word, exit_branch* out) {
  const bool is_64_bits = word >> 31 != 0;
  const std::uint32_t size = word >> 14 & 3;
  if (size == 1 || (size != 0 && is_64_bits)) return false;
  out->width = size == CB_SIZE_BYTE ? 8 : size == CB_SIZE_HALFWORD ? 16 : is_64_bits ? 64 : 32;
  out->operand = word >> 16 & EXIT_REGISTER_MASK;
  return true;
}

bool decode_compare_immediate(std::uint32_t word, exit_branch* out) {
  if ((word >> 14 & 1) != 0) return false;
  out->width = word >> 31 != 0 ? 64 : 32;
  out->operand = word >> 15 & 0x3f;
  out->is_immediate = 1;
  if (out->condition == FIELD_GE_OR_LT) out->condition = COMPARE_LT;
  if (out->condition == FIELD_HS_OR_LO) out->condition = COMPARE_LO;
  return true;
}

bool decode_compare(std::uint32_t word, exit_branch* out) {
  const std::uint32_t form = word & CB_MASK;
  const std::uint32_t condition = word >> CB_CONDITION & 7;
  if ((form != CB_REGISTERS && form != CB_IMMEDIATE) || condition == 4 || condition == 5) return false;
  exit_branch branch = {.kind = EXIT_COMPARE, .condition = condition, .reg = word & EXIT_REGISTER_MASK};
  const bool found =
      form == CB_REGISTERS ? decode_compare_registers(word, &branch) : decode_compare_immediate(word, &branch);
  if (found) *out = branch;
  return found;
}

std::uint32_t compare_word(const exit_branch& branch) {
  std::uint32_t word =
      branch.is_immediate != 0 ? CB_IMMEDIATE | branch.operand << 15 : CB_REGISTERS | branch.operand << 16;
  if (branch.width == 64) word |= std::uint32_t{1} << 31;
  if (branch.width == 16) word |= CB_SIZE_HALFWORD << 14;
  if (branch.width == 8) word |= CB_SIZE_BYTE << 14;
  std::uint32_t condition = branch.condition;
  if (condition == COMPARE_LT) condition = FIELD_GE_OR_LT;
  if (condition == COMPARE_LO) condition = FIELD_HS_OR_LO;
  return word | condition << CB_CONDITION | branch.reg;
}

bool holds(std::uint64_t pstate, std::uint32_t condition) {
  if (condition >= CONDITION_AL) return true;
  const bool n = (pstate >> 31 & 1) != 0;
  const bool z = (pstate >> 30 & 1) != 0;
  const bool c = (pstate >> 29 & 1) != 0;
  const bool v = (pstate >> 28 & 1) != 0;
  bool result = false;
  switch (condition >> 1) {
    case 0: result = z; break;
    case 1: result = c; break;
    case 2: result = n; break;
    case 3: result = v; break;
    case 4: result = c && !z; break;
    case 5: result = n == v; break;
    default: result = n == v && !z; break;
  }
  return result != ((condition & 1) != 0);
}

// The low `width` bits of a register as an instruction reads it: number 31 is zero.
std::uint64_t low_bits_of(const std::uint64_t* registers, std::uint32_t reg, std::uint32_t width) {
  const std::uint64_t value = reg == XZR ? 0 : registers[reg];
  return value & ~std::uint64_t{0} >> (64 - width);
}

bool compares(const exit_branch& branch, const std::uint64_t* registers) {
  const auto width = static_cast<int>(branch.width);
  const std::uint64_t left = low_bits_of(registers, branch.reg, branch.width);
  const std::uint64_t right =
      branch.is_immediate != 0 ? branch.operand : low_bits_of(registers, branch.operand, branch.width);
  const std::int64_t signed_left = a64_sign_extend(left, width);
  const std::int64_t signed_right = a64_sign_extend(right, width);
  switch (branch.condition) {
    case COMPARE_GT: return signed_left > signed_right;
    case COMPARE_GE: return signed_left >= signed_right;
    case COMPARE_HI: return left > right;
    case COMPARE_HS: return left >= right;
    case COMPARE_LT: return signed_left < signed_right;
    case COMPARE_LO: return left < right;
    case COMPARE_EQ: return left == right;
    default: return left != right;
  }
}

std::uint32_t log2_of_bytes(std::uint32_t width) { return width == 8 ? 0 : width == 16 ? 1 : width == 32 ? 2 : 3; }

}  // namespace

bool decode_exit_branch(std::uint32_t word, exit_branch* out) {
  switch (const int inst = a64_decode(&word)) {
    case A64_B_COND:
    case A64_CBZ:
    case A64_TBZ: *out = exit_branch_of_class(word, inst); return true;
    case A64_NOT_RECOGNISED: return decode_compare(word, out);
    default: return false;
  }
}

void encode_compare_branch(std::uint32_t* place, exit_branch branch, std::uint64_t to) {
  if (branch.kind != EXIT_COMPARE) log(LEVEL_FATAL, "no conditional branch: %d", static_cast<int>(branch.kind));
  *place = redirected_branch(compare_word(branch), place, to);
}

void pack_compare_branch(exit_branch branch, bb_meta* meta) {
  meta->rn |=
      branch.operand << RN_OPERAND | log2_of_bytes(branch.width) << RN_WIDTH | branch.is_immediate << RN_IS_IMMEDIATE;
}

exit_branch unpack_compare_branch(const bb_meta& meta) {
  return {.kind = EXIT_COMPARE,
          .condition = static_cast<std::uint32_t>(meta.exit_condition),
          .reg = meta.rn & EXIT_REGISTER_MASK,
          .width = std::uint32_t{8} << (meta.rn >> RN_WIDTH & 3),
          .operand = meta.rn >> RN_OPERAND & 0x3f,
          .is_immediate = meta.rn >> RN_IS_IMMEDIATE & 1};
}

bool is_taken(const exit_branch& branch, const std::uint64_t* registers, std::uint64_t pstate) {
  switch (branch.kind) {
    case EXIT_B_COND: return holds(pstate, branch.condition);
    case EXIT_CBZ: return (low_bits_of(registers, branch.reg, branch.width) == 0) == (branch.condition == 0);
    case EXIT_TBZ: return (low_bits_of(registers, branch.reg, 64) >> branch.bit & 1) == branch.condition;
    default: return compares(branch, registers);
  }
}

branch_offset_field find_branch_offset(std::uint32_t word) {
  exit_branch compare{};
  switch (a64_decode(&word)) {
    case A64_B: return {26, 0};
    case A64_B_COND:
    case A64_CBZ: return {19, 5};
    case A64_TBZ: return {14, 5};
    default: return {decode_compare(word, &compare) ? 9 : 0, 5};
  }
}

std::uint64_t branch_destination(std::uint32_t word, const std::uint32_t* place) {
  const branch_offset_field field = find_branch_offset(word);
  const std::uint32_t offset = word >> field.lowest_bit & ((std::uint32_t{1} << field.width) - 1);
  return address_of(place) + static_cast<std::uint64_t>(a64_sign_extend(offset, field.width) * 4);
}

std::uint32_t redirected_branch(std::uint32_t word, const std::uint32_t* place, std::uint64_t to) {
  const branch_offset_field field = find_branch_offset(word);
  const std::uint32_t mask = (std::uint32_t{1} << field.width) - 1;
  const std::uint32_t offset = static_cast<std::uint32_t>((to - address_of(place)) >> 2) & mask;
  return (word & ~(mask << field.lowest_bit)) | offset << field.lowest_bit;
}

}  // namespace ceilmeter
