// The classes of A64 instructions as data, for what walks them: tests and the generator of random programs. The decoder
// and the encoders do not read it; they are generated from the same list.
#pragma once

#include <cstdint>

#include "bi/a64/class_sizes.h"
#include "bi/a64/instructions.h"

namespace ceilmeter {

struct a64_field {
  const char* name;  // The architecture's.
  std::uint8_t low;  // The lowest bit.
  std::uint8_t width;
};

// A word w has the class's constant bits when (w & mask) == base. Of several classes that a word fits, its class is the
// one with the most bits in mask. Bits in neither mask nor fields are disregarded.
struct a64_class {
  const char* name;
  std::uint32_t base;
  std::uint32_t mask;
  std::uint32_t field_count;
  a64_field fields[A64_MOST_FIELDS];  // The highest bit first, as the encoder takes them.
};

// Words within a class that are not recognised nevertheless.
struct a64_pattern {
  std::uint32_t mask;
  std::uint32_t base;
};

extern const a64_class a64_classes[A64_NOT_RECOGNISED];  // By value.
extern const a64_pattern a64_refused[A64_REFUSED_COUNT];

}  // namespace ceilmeter
