// The conditional branches that end a fragment: B.cond, CBZ and CBNZ, TBZ and TBNZ, and the compare-and-branch forms
// CB<cc> of newer processors (FEAT_CMPBR). This module alone knows their encodings, their reach, how they are inverted,
// which way they go, and how a fragment's record holds them.
//
// The CB<cc> forms are of no class of the decoder's. They are never inverted: an immediate of 63 (GT, HI) or 0 (LT, LO)
// has no inverse form, and a reach of 1 KiB is too short for most exits. Exits of this kind have shapes of their own,
// which dispatcher.cpp (blocks) and traces.cpp draw.
//
// Nothing here clears the instruction cache. Whoever puts the words where they run does.
#pragma once

#include <cstdint>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/mora.h"

namespace ceilmeter {

// The conditions of CB<cc>. All compare the first register with the second one, or with the immediate.
enum compare_condition : std::uint32_t {
  COMPARE_GT = 0,  // Signed.
  COMPARE_GE = 1,  // Signed; registers alone.
  COMPARE_HI = 2,  // Unsigned.
  COMPARE_HS = 3,  // Unsigned; registers alone.
  COMPARE_LT = 4,  // Signed; immediates alone.
  COMPARE_LO = 5,  // Unsigned; immediates alone.
  COMPARE_EQ = 6,
  COMPARE_NE = 7,
};

// A conditional branch without its offset. A field that the kind does not have is 0.
struct exit_branch {
  std::uint32_t kind = 0;       // EXIT_B_COND, EXIT_CBZ, EXIT_TBZ or EXIT_COMPARE.
  std::uint32_t condition = 0;  // B.cond: the condition code. CBZ, TBZ: 0; CBNZ, TBNZ: 1. CB<cc>: a compare_condition.
  std::uint32_t reg = 0;        // The register that is tested; 31 is zero. Not of B.cond.
  std::uint32_t width = 0;      // How many of its low bits are compared: 32 or 64, of CB<cc> also 8 or 16.
  std::uint32_t bit = 0;        // TBZ: the number of the bit that is tested, 0 to 63.
  std::uint32_t operand = 0;    // CB<cc>: the second register, or the immediate, 0 to 63.
  std::uint32_t is_immediate = 0;

  bool operator==(const exit_branch&) const = default;
};

inline constexpr std::uint32_t CONDITION_AL = 14;  // AL; NV, 15, is always taken as well.
inline constexpr std::uint32_t EXIT_REGISTER_MASK = 0x1f;
inline constexpr int RN_SIZE_OR_BIT = 5;  // The lowest bit behind the register in bb_meta::rn, see pack_exit_branch.

// Whether a fragment with an exit of this kind (bb_exit_kind) ends in a conditional branch.
inline bool is_conditional_exit(std::uint32_t kind) {
  return kind == EXIT_B_COND || kind == EXIT_CBZ || kind == EXIT_TBZ || kind == EXIT_COMPARE;
}

// Whether it ends in a branch that can be linked: a conditional one, B or BL.
inline bool is_direct_exit(std::uint32_t kind) { return kind == EXIT_DIRECT || is_conditional_exit(kind); }

// False for a word that is no conditional branch, with *out as it was. B.cond with AL or NV is one, and always taken.
bool decode_exit_branch(std::uint32_t word, exit_branch* out);

// What follows is done for every block, so all but the rare CB<cc> stands here. What is done for CB<cc> takes and gives
// branches by value: so those of the other kinds stay in registers.

// The same for a word whose class is known: A64_B_COND, A64_CBZ or A64_TBZ. Bit 24 of CBZ and TBZ is the sense.
inline exit_branch exit_branch_of_class(std::uint32_t word, int inst) {
  const std::uint32_t sense = word >> 24 & 1;
  const std::uint32_t reg = word & EXIT_REGISTER_MASK;
  if (inst == A64_B_COND) return {.kind = EXIT_B_COND, .condition = word & 15};
  if (inst == A64_CBZ) return {.kind = EXIT_CBZ, .condition = sense, .reg = reg, .width = word >> 31 != 0 ? 64U : 32U};
  return {.kind = EXIT_TBZ, .condition = sense, .reg = reg, .bit = (word >> 26 & 0x20) | (word >> 19 & 0x1f)};
}

// Writes the branch at `place`. `to` is in its reach and a multiple of 4. Fatal for a kind that is no conditional
// branch.
void encode_compare_branch(std::uint32_t* place, exit_branch branch, std::uint64_t to);
inline void encode_exit_branch(std::uint32_t* place, const exit_branch& branch, std::uint64_t to) {
  switch (branch.kind) {
    case EXIT_B_COND: a64_b_cond_to(place, to, branch.condition); break;
    case EXIT_CBZ: a64_cbz_to(place, branch.condition, to, branch.width == 64 ? 1 : 0, branch.reg); break;
    case EXIT_TBZ: a64_tbz_to(place, branch.condition, to, branch.reg, branch.bit); break;
    default: encode_compare_branch(place, branch, to); break;
  }
}

// Whether the branch can be inverted.
inline bool is_invertible(const exit_branch& branch) {
  const bool always = branch.kind == EXIT_B_COND && branch.condition >= CONDITION_AL;
  return !always && branch.kind != EXIT_COMPARE;
}

// Turns the branch into the one that is taken exactly when it is not. False, with the branch as it was, if there is
// none: for AL, NV and CB<cc>.
inline bool invert_exit_branch(exit_branch* branch) {
  if (!is_invertible(*branch)) return false;
  branch->condition ^= 1;
  return true;
}

// Whether the processor takes the branch with these 31 general registers and this PSTATE.
bool is_taken(const exit_branch& branch, const std::uint64_t* registers, std::uint64_t pstate);

// The branch to and from a fragment's record: exit_kind; exit_condition holds the condition; rn the register in its low
// five bits, and the rest above:
//   CBZ, CBNZ    bit 5: 1 for the 64-bit form
//   TBZ, TBNZ    bits 5 to 10: the number of the bit
//   CB<cc>       bits 5 to 10: the second register or the immediate; bits 11 and 12: the binary logarithm of the width
//                in bytes; bit 13: whether there is an immediate
void pack_compare_branch(exit_branch branch, bb_meta* meta);
exit_branch unpack_compare_branch(const bb_meta& meta);
inline void pack_exit_branch(const exit_branch& branch, bb_meta* meta) {
  meta->exit_kind = branch.kind;
  meta->exit_condition = branch.condition;
  meta->rn = branch.reg;
  if (branch.kind == EXIT_CBZ && branch.width == 64) meta->rn |= std::uint32_t{1} << RN_SIZE_OR_BIT;
  if (branch.kind == EXIT_TBZ) meta->rn |= branch.bit << RN_SIZE_OR_BIT;
  if (branch.kind == EXIT_COMPARE) pack_compare_branch(branch, meta);
}
inline exit_branch unpack_exit_branch(const bb_meta& meta) {
  if (meta.exit_kind == EXIT_COMPARE) return unpack_compare_branch(meta);
  exit_branch branch = {.kind = meta.exit_kind, .condition = static_cast<std::uint32_t>(meta.exit_condition)};
  if (branch.kind != EXIT_B_COND) branch.reg = meta.rn & EXIT_REGISTER_MASK;
  if (branch.kind == EXIT_CBZ) branch.width = (meta.rn >> RN_SIZE_OR_BIT & 1) != 0 ? 64 : 32;
  if (branch.kind == EXIT_TBZ) branch.bit = meta.rn >> RN_SIZE_OR_BIT & 0x3f;
  return branch;
}

// The offset field of B, BL and the conditional branches. It counts words. `width` 0: the word is none of these.
struct branch_offset_field {
  int width;
  int lowest_bit;
};
branch_offset_field find_branch_offset(std::uint32_t word);

// Where the branch `word`, if it stood at `place`, goes to.
std::uint64_t branch_destination(std::uint32_t word, const std::uint32_t* place);

// The same for a word whose class is known: A64_B_COND, A64_CBZ or A64_TBZ.
inline std::uint64_t branch_destination_of_class(std::uint32_t word, int inst, const std::uint32_t* place) {
  const int width = inst == A64_TBZ ? 14 : 19;
  const std::uint32_t offset = word >> 5 & ((std::uint32_t{1} << width) - 1);
  return address_of(place) + static_cast<std::uint64_t>(a64_sign_extend(offset, width) * 4);
}

// The branch `word` with another destination, for `place`. The destination is in its reach.
std::uint32_t redirected_branch(std::uint32_t word, const std::uint32_t* place, std::uint64_t to);

}  // namespace ceilmeter
