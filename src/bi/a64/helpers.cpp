// Constants, the push of x0 and x1, and branches, on top of the generated encoders; the two questions about decoded
// words that are answered by arithmetic.
#include "bi/a64/helpers.h"

#include "bi/a64/a64.h"

namespace ceilmeter {

namespace {

// The classes of position-dependent instructions, by value: 0, 1, 19 to 23, 27 and 52.
constexpr std::uint64_t BRANCH_CLASSES = 0x10000008f80003;
constexpr int LAST_BRANCH_CLASS = A64_ADR;

constexpr std::uint64_t bit_of(a64_instruction instruction) { return std::uint64_t{1} << instruction; }
static_assert(BRANCH_CLASSES ==
              (bit_of(A64_CBZ) | bit_of(A64_B_COND) | bit_of(A64_TBZ) | bit_of(A64_B) | bit_of(A64_BR) |
               bit_of(A64_BLR) | bit_of(A64_RET) | bit_of(A64_LDR_LITERAL) | bit_of(A64_ADR)));

}  // namespace

bool a64_is_branch_class(int instruction) {
  return instruction >= 0 && instruction <= LAST_BRANCH_CLASS && ((BRANCH_CLASSES >> instruction) & 1) != 0;
}

int a64_cbz_helper(std::uint32_t* from, std::uint64_t to, std::uint32_t sf, std::uint32_t rt) {
  return a64_cbz_to(from, 0, to, sf, rt);
}

int a64_cbnz_helper(std::uint32_t* from, std::uint64_t to, std::uint32_t sf, std::uint32_t rt) {
  return a64_cbz_to(from, 1, to, sf, rt);
}

bool a64_authenticated_branch_decode(std::uint32_t word, a64_authenticated_branch* out) {
  constexpr std::uint32_t KEY_B = 1 << 10;
  constexpr std::uint32_t LINK = 1 << 21;
  constexpr std::uint32_t WITH_MODIFIER = 1 << 24;
  const std::uint32_t rn = word >> 5 & 0x1f;
  const std::uint32_t low = word & 0x1f;
  const std::uint32_t key = (word & KEY_B) != 0 ? 1 : 0;
  if ((word & ~KEY_B) == 0xd65f0bff) {  // RETAA
    *out = {0, key, 0, SP, 30};
    return true;
  }
  if ((word & 0xfedff800) != 0xd61f0800) return false;  // BRAA and BLRAA, with a modifier or without.
  const bool has_modifier = (word & WITH_MODIFIER) != 0;
  if (!has_modifier && low != 0x1f) return false;
  *out = {(word & LINK) != 0 ? 1U : 0U, key, has_modifier ? 0U : 1U, has_modifier ? low : 0U, rn};
  return true;
}

void a64_authenticate(std::uint32_t* at, std::uint32_t key, std::uint32_t zero_modifier, std::uint32_t rn,
                      std::uint32_t rd) {
  *at = 0xdac11000 | zero_modifier << 13 | key << 10 | (zero_modifier != 0 ? 0x1f : rn & 0x1f) << 5 | (rd & 0x1f);
}

}  // namespace ceilmeter
