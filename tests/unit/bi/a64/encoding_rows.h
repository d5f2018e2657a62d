// Every encoding of the architecture, with the class to which its words belong by their group and not by their bits.
// The decoder is compared with these rows.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/a64/instructions.h"

namespace ceilmeter {

struct encoding_row {
  const char* name;
  std::uint32_t mask;  // A word w is this encoding when (w & mask) == value,
  std::uint32_t value;
  std::uint32_t one_set;  // and, unless this is 0, at least one of these bits is set.
  a64_instruction instruction;
};

extern const encoding_row encoding_rows[];
extern const std::size_t encoding_row_count;

}  // namespace ceilmeter
