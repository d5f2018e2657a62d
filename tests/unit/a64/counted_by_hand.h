// What counts as floating-point work, a second time: written by hand, by mnemonic and kind of encoding, and independent
// of what the generator makes of the encoding table.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>

#include "a64/classifier_rows.h"

namespace ceilmeter::test {

// The work that a counted instruction should be; multiplier 0 where it should stay what it was.
struct expected_work {
  std::uint32_t precision;
  std::uint32_t fclass;
  std::uint32_t count;
  std::uint32_t multiplier;
  bool operator==(const expected_work&) const = default;
};

std::ostream& operator<<(std::ostream& out, const expected_work& work);

// What a word of this row should count, nothing if it should not count.
std::optional<expected_work> counted_by_hand(const classifier_row& row, std::uint32_t word);

// Whether the list counts encodings of this mnemonic at all.
bool has_counted_encodings(const std::string& mnemonic);

}  // namespace ceilmeter::test
