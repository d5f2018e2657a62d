// The short sequences that the engine writes all the time: constants, the push of x0 and x1, branches from one place to
// another. A branch's `from` is where its word goes and what its offset counts from. Offsets are cut to their field and
// no range is tested: that a target is in reach is for the caller to know.
//
// As with the rest of bi/a64, the instruction cache is the caller's affair.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Register number 31 is one or the other by the instruction and the operand's place.
inline constexpr std::uint32_t SP = 31;
inline constexpr std::uint32_t XZR = 31;

// How a load or store moves its base register, in the field of the classes for pairs and for offsets of 9 bits.
inline constexpr std::uint32_t POST_INDEX = 1;
inline constexpr std::uint32_t PRE_INDEX = 3;

// MOVK of the 16 bits of `value` from bit 16 * part on into register `reg`, unless they are 0. Returns where the next
// word goes.
inline std::uint32_t* a64_put_movk(std::uint32_t* at, std::uint32_t reg, std::uint64_t value, std::uint32_t part) {
  constexpr std::uint32_t MOVK_X0 = 0xf2800000;  // movk x0, #0
  constexpr int IMM16 = 5;
  constexpr int HW = 21;
  const auto bits = static_cast<std::uint32_t>(value >> 16 * part & 0xffff);
  if (bits != 0) *at++ = MOVK_X0 | part << HW | bits << IMM16 | reg;
  return at;
}

// Loads `value` into register `reg`: MOVZ of the low 16 bits, then MOVK for each higher 16 bits that are not zero. One
// to four words, without padding; *write moves past them.
//
// This and the next ones are written for every block, so they are whole words here and not calls of the encoders. A
// loop over the parts would cost twice as much.
inline void a64_load_const(std::uint32_t** write, std::uint32_t reg, std::uint64_t value) {
  constexpr std::uint32_t MOVZ_X0 = 0xd2800000;  // movz x0, #0
  constexpr int IMM16 = 5;
  std::uint32_t* at = *write;
  *at++ = MOVZ_X0 | static_cast<std::uint32_t>(value & 0xffff) << IMM16 | reg;
  if (value >> 16 != 0) {
    at = a64_put_movk(at, reg, value, 1);
    if (value >> 32 != 0) at = a64_put_movk(a64_put_movk(at, reg, value, 2), reg, value, 3);
  }
  *write = at;
}

// Whether ADRP at the place reaches the 4 KiB that the address lies in.
inline bool a64_page_in_reach(const std::uint32_t* place, std::uint64_t address) {
  constexpr int PAGE_BITS = 12;
  constexpr std::int64_t REACH = 1 << 20;  // In pages.
  const auto pages =
      static_cast<std::int64_t>((address >> PAGE_BITS) - (reinterpret_cast<std::uintptr_t>(place) >> PAGE_BITS));
  return pages >= -REACH && pages < REACH;
}

// Loads the address of the 4 KiB that `address` lies in into register `reg`, 0 to 30, by ADRP if it reaches from
// *write; else `address` itself, as a64_load_const does. Returns what is left to add.
inline std::uint32_t a64_load_page(std::uint32_t** write, std::uint32_t reg, std::uint64_t address) {
  constexpr std::uint32_t ADRP_X0 = 0x90000000;  // adrp x0, .
  constexpr int PAGE_BITS = 12;
  constexpr std::int64_t REACH = 1 << 20;  // In pages.
  std::uint32_t* at = *write;
  const auto pages =
      static_cast<std::int64_t>((address >> PAGE_BITS) - (reinterpret_cast<std::uintptr_t>(at) >> PAGE_BITS));
  if (reg >= XZR || pages < -REACH || pages >= REACH) {
    a64_load_const(write, reg, address);
    return 0;
  }
  const auto bits = static_cast<std::uint32_t>(pages);
  *at++ = ADRP_X0 | (bits & 3) << 29 | (bits >> 2 & 0x7ffff) << 5 | reg;
  *write = at;
  return static_cast<std::uint32_t>(address & 0xfff);
}

// Loads an address of code or of the engine's records into register `reg`, 0 to 30: ADRP, and ADD of the place in the
// page where that is not 0, if ADRP reaches the page from *write; else as a64_load_const does. So it takes one or two
// words in the place of three where the code caches, the records and the application's code lie within 4 GiB, as
// mappings of the kernel's choice mostly do. The words mean something else in another place: they are not copied.
inline void a64_load_address(std::uint32_t** write, std::uint32_t reg, std::uint64_t address) {
  constexpr std::uint32_t ADD_X0_X0 = 0x91000000;  // add x0, x0, #0
  const std::uint32_t place = a64_load_page(write, reg, address);
  if (place != 0) *(*write)++ = ADD_X0_X0 | place << 10 | reg << 5 | reg;
}

// STP x0, x1, [sp, #-16]!; *write moves past it.
inline void a64_push_x0_x1(std::uint32_t** write) {
  constexpr std::uint32_t PUSH_X0_X1 = 0xa9bf07e0;  // stp x0, x1, [sp, #-16]!
  *(*write)++ = PUSH_X0_X1;
}

// The offset from a word to an address, in words, with its sign.
inline std::uint32_t a64_word_offset(const std::uint32_t* from, std::uint64_t to) {
  const std::uint64_t offset = to - reinterpret_cast<std::uintptr_t>(from);
  return static_cast<std::uint32_t>(static_cast<std::int64_t>(offset) >> 2);
}

// B (link 0) or BL (link 1) to the address `to`, which is a multiple of 4.
inline void a64_b_to(std::uint32_t* from, std::uint64_t to, std::uint32_t link) {
  constexpr std::uint32_t B = 0x14000000;  // b .
  *from = B | link << 31 | (a64_word_offset(from, to) & 0x3ffffff);
}
inline void a64_branch(std::uint32_t* from, std::uint64_t to) { a64_b_to(from, to, 0); }
inline void a64_bl(std::uint32_t* from, std::uint64_t to) { a64_b_to(from, to, 1); }

inline void a64_b_cond_to(std::uint32_t* from, std::uint64_t to, std::uint32_t cond) {
  constexpr std::uint32_t B_EQ = 0x54000000;  // b.eq .
  *from = B_EQ | (a64_word_offset(from, to) & 0x7ffff) << 5 | (cond & 15);
}

// CBZ (op 0) or CBNZ (op 1) of register rt, 64 bits of it with sf 1. 0, or -1 with nothing written if the offset is not
// a multiple of 4.
inline int a64_cbz_to(std::uint32_t* from, std::uint32_t op, std::uint64_t to, std::uint32_t sf, std::uint32_t rt) {
  constexpr std::uint32_t CBZ_W0 = 0x34000000;  // cbz w0, .
  if (((to - reinterpret_cast<std::uintptr_t>(from)) & 3) != 0) return -1;
  *from = CBZ_W0 | (sf & 1) << 31 | (op & 1) << 24 | (a64_word_offset(from, to) & 0x7ffff) << 5 | (rt & 31);
  return 0;
}
int a64_cbz_helper(std::uint32_t* from, std::uint64_t to, std::uint32_t sf, std::uint32_t rt);
int a64_cbnz_helper(std::uint32_t* from, std::uint64_t to, std::uint32_t sf, std::uint32_t rt);

// TBZ (op 0) or TBNZ (op 1) of one bit, 0 to 63, of register rt.
inline void a64_tbz_to(std::uint32_t* from, std::uint32_t op, std::uint64_t to, std::uint32_t rt, std::uint32_t bit) {
  constexpr std::uint32_t TBZ_W0 = 0x36000000;  // tbz w0, #0, .
  *from = TBZ_W0 | (bit >> 5 & 1) << 31 | (op & 1) << 24 | (bit & 31) << 19 |
          (a64_word_offset(from, to) & 0x3fff) << 5 | (rt & 31);
}

// A branch to a signed address that it authenticates: BRAA, BLRAA, RETAA and the like, which are in no class of the
// family. Those whose modifier is a place in the code (RETAASPPC) are not among them.
struct a64_authenticated_branch {
  std::uint32_t link;           // 1: BLRAA and its kind.
  std::uint32_t key;            // 0: A, 1: B.
  std::uint32_t zero_modifier;  // 1: the modifier is 0, and the field below has no meaning.
  std::uint32_t modifier;       // The register with the modifier; 31: sp.
  std::uint32_t target;         // The register with the signed address; 31: xzr.
};

// False for any other word, with *out as it was.
bool a64_authenticated_branch_decode(std::uint32_t word, a64_authenticated_branch* out);

// AUTIA or AUTIB of register rd with the modifier in rn, 31: sp; AUTIZA or AUTIZB, without rn, if zero_modifier is 1.
void a64_authenticate(std::uint32_t* at, std::uint32_t key, std::uint32_t zero_modifier, std::uint32_t rn,
                      std::uint32_t rd);

}  // namespace ceilmeter
