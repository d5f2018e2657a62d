// What the tests of the A64 family share: words as texts, and the length of random runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

#include "../../support/hex.h"
#include "bi/a64/class_table.h"

namespace ceilmeter::test {

inline std::string class_name(int value) {
  return value >= 0 && value < A64_NOT_RECOGNISED ? a64_classes[value].name : "not recognised";
}

// `usual` rounds, or `many` if a long run was asked for.
inline std::size_t rounds(std::size_t usual, std::size_t many) {
  return std::getenv("CEILMETER_LONG") != nullptr ? many : usual;
}

// A word of the class with random fields and, where the decoder disregards bits, random bits there.
inline std::uint32_t random_word(const a64_class& from, std::mt19937_64& random) {
  return from.base | (static_cast<std::uint32_t>(random()) & ~from.mask);
}

}  // namespace ceilmeter::test
