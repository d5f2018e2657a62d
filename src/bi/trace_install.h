// The end of a trace's construction: what led to its head block is led to the trace, and its exits get their targets.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// A conditional branch word's reach and the mask of its offset, which stands at bit 5 and counts words.
struct cond_branch_attributes {
  std::int64_t largest;
  std::int64_t smallest;
  std::uint32_t mask;
};

// Of the word at `place`, a decoded value `inst`. Fatal for anything that is no conditional branch.
cond_branch_attributes get_cond_branch_attributes(const std::uint32_t* place, int inst);

// Where the branch word of class `inst`, if it stood at `place`, goes to.
std::uint64_t branch_destination(std::uint32_t word, int inst, const std::uint32_t* place);

// Puts the active trace in the place of its head block. The code behind its last exit is complete, `write` is behind
// it.
void install_trace(thread_data* thread);

// The records of links that one trace may need.
inline constexpr std::uint32_t TRACE_LINKS = MAX_TRACE_EXITS + 1;

}  // namespace ceilmeter
