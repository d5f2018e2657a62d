// Bit numbers of a 32-bit mask. 32 stands for "none". Pure functions.
#pragma once

#include <cstdint>

namespace ceilmeter {

// The lowest set bit at or above `start`. 32 if there is none, and for a `start` above 31.
std::uint32_t bitmask_next_set(std::uint32_t mask, std::uint32_t start);

// The highest set bit at or below `start`. 32 if there is none, and for a `start` above 31: a caller that steps below
// bit 0 arrives there.
std::uint32_t bitmask_prev_set(std::uint32_t mask, std::uint32_t start);

// Fills out[0] to out[n - 1] with the numbers of the lowest set bits, ascending, then with 32. Returns how many are
// real bits. An `n` below 1 writes nothing.
int lowest_bits(std::uint32_t mask, std::uint32_t* out, int n);

// The same for the highest set bits, descending.
int highest_bits(std::uint32_t mask, std::uint32_t* out, int n);

// The number of set bits.
int popcount32(std::uint32_t mask);

}  // namespace ceilmeter
