// The end of a trace's construction: links to its head block are led to the trace, and its exits get their targets.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The reach of a conditional branch in bytes, and the mask of its offset, which stands at bit 5 and counts words.
struct cond_branch_attributes {
  std::int64_t largest;
  std::int64_t smallest;
  std::uint32_t mask;
};

// The attributes of the conditional branch at `place`, which decodes to `inst`. Any other word is fatal.
cond_branch_attributes get_cond_branch_attributes(const std::uint32_t* place, int inst);

// Whether the branch `word` of a trace's exit, at `place`, can go to `to`. `word` is a conditional branch or a B.
bool trace_exit_reaches(const std::uint32_t* place, std::uint32_t word, std::uint64_t to);

// Puts the active trace in the place of its head block. The trace's code is complete, up to `write`.
void install_trace(thread_data* thread);

// How many link records one trace may need.
inline constexpr std::uint32_t TRACE_LINKS = MAX_TRACE_EXITS + 1;

}  // namespace ceilmeter
