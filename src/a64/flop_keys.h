// The keys of the FLOP table: which of the classifier's pairs of form and format id are floating-point work, and how
// their words are to be read.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// Where precision, class and number of elements stand in a word.
enum class flop_layout : std::uint8_t {
  FP_DATA_PROCESSING,  // Precision in bits 23:22.
  SCALAR_HALF,
  SCALAR_SINGLE_DOUBLE,  // Precision in bit 22.
  VECTOR_HALF,
  VECTOR_SINGLE_DOUBLE,    // Precision in bit 22.
  SCALAR_FIXED_POINT,      // Precision in bits 22:21, the highest set bit of the shift's element size.
  VECTOR_FIXED_POINT,      // The same.
  SCALABLE_HALF,           // The key's count.
  SCALABLE_SINGLE,         // The key's count.
  SCALABLE_DOUBLE,         // The key's count.
  SCALABLE_SINGLE_DOUBLE,  // Precision in bit 22; the key's count for singles, half of it for doubles.
};

struct flop_key {
  std::uint16_t form_id;
  std::uint16_t format_id;
  flop_layout layout;
  std::uint8_t count;       // Elements of a scalable form, otherwise 0.
  std::uint8_t multiplier;  // 0 where the record keeps the multiplier that it has.
};

constexpr std::size_t flop_key_count = 262;

// In ascending order of form_id, then format_id.
extern const std::array<flop_key, flop_key_count> flop_keys;

}  // namespace ceilmeter
