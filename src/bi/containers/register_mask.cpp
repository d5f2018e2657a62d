// Bit scans. A scan returns 32 if it finds nothing or starts outside the mask.
#include "bi/containers/register_mask.h"

#include <bit>

namespace ceilmeter {

namespace {

// Fills `out` with the bits that `scan` finds from `start` on, each of which is taken out of the mask, and then
// with 32.
int take_bits(std::uint32_t mask, std::uint32_t* out, int n, std::uint32_t (*scan)(std::uint32_t, std::uint32_t),
              std::uint32_t start) {
  int found = 0;
  for (int index = 0; index < n; ++index) {
    out[index] = scan(mask, start);
    if (out[index] > 31) continue;
    mask &= ~(std::uint32_t{1} << out[index]);
    ++found;
  }
  return found;
}

}  // namespace

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

int lowest_bits(std::uint32_t mask, std::uint32_t* out, int n) { return take_bits(mask, out, n, bitmask_next_set, 0); }

int highest_bits(std::uint32_t mask, std::uint32_t* out, int n) {
  return take_bits(mask, out, n, bitmask_prev_set, 31);
}

int popcount32(std::uint32_t mask) { return std::popcount(mask); }

}  // namespace ceilmeter
