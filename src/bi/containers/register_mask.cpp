// Bit scans. A scan returns 32 if it finds nothing or starts outside the mask.
#include "bi/containers/register_mask.h"

#include <bit>

namespace ceilmeter {

std::uint32_t bitmask_next_set(std::uint32_t mask, std::uint32_t start) {
  if (start > 31) return 32;
  const std::uint32_t rest = mask >> start << start;
  return static_cast<std::uint32_t>(std::countr_zero(rest));
}

std::uint32_t bitmask_prev_set(std::uint32_t mask, std::uint32_t start) {
  if (start > 31) return 32;
  const std::uint32_t rest = mask << (31 - start) >> (31 - start);
  return rest != 0 ? 31 - static_cast<std::uint32_t>(std::countl_zero(rest)) : 32;
}

int lowest_bits(std::uint32_t mask, std::uint32_t* out, int n) {
  int found = 0;
  std::uint32_t start = 0;
  for (int index = 0; index < n; ++index) {
    out[index] = bitmask_next_set(mask, start);
    if (out[index] < 32) ++found;
    start = out[index] + 1;
  }
  return found;
}

int highest_bits(std::uint32_t mask, std::uint32_t* out, int n) {
  int found = 0;
  std::uint32_t start = 31;
  for (int index = 0; index < n; ++index) {
    out[index] = bitmask_prev_set(mask, start);
    if (out[index] < 32) ++found;
    // Below bit 0 the subtraction wraps to a number from which no scan finds anything. A scan that has ended must not
    // start again at bit 31.
    start = out[index] < 32 ? out[index] - 1 : 32;
  }
  return found;
}

int popcount32(std::uint32_t mask) { return std::popcount(mask); }

}  // namespace ceilmeter
