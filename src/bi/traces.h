// Where hot paths will join the engine. This build makes no traces: a block that has become hot goes on as it is, and
// pays for its counter each time.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// From the dispatcher, for an exit of a fragment beyond the basic blocks. There are none yet.
void trace_dispatcher(std::uint64_t target, std::uint64_t* next_addr, std::int32_t source_index, thread_data* thread);

}  // namespace ceilmeter
