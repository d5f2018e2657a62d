// The functions of the A64 family behind one signature each, indexed by the class's value. Fields stand in an array in
// the order of the function's parameters.
#pragma once

#include <cstdint>

#include "bi/a64/instructions.h"

namespace ceilmeter {

// The smallest context that emit_X accepts.
struct code_context {
  std::uint32_t* write_p;
};

struct family_call {
  void (*encode)(std::uint32_t* write, const std::uint32_t* fields);
  void (*decode)(const std::uint32_t* word_address, std::uint32_t* fields);
  void (*emit)(code_context* context, const std::uint32_t* fields);  // Null: the class has no emit_X.
};

extern const family_call family_calls[A64_NOT_RECOGNISED];

}  // namespace ceilmeter
