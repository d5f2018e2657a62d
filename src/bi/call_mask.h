// Calls that bring a signal mask: sigprocmask, and those that bring one for their own time, sigsuspend, ppoll and their
// kind. A handler that interrupts one of these runs with that mask, and application code with SIGILL blocked could
// neither be stopped nor be led out by a trap. The kernel gets a copy without SIGILL, in the thread's record; the
// application never sees that its argument was another for a while.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Before the call `number` is made with `args`, its save area.
void replace_call_mask(thread_data* thread, std::uint64_t number, std::uint64_t* args);

// After it, or in its place: gives the argument back, in the save area or in the registers of a signal's context. Not
// one below `first`, where the call's result may stand.
void restore_call_mask(thread_data* thread, std::uint64_t* registers, std::uint32_t first);

}  // namespace ceilmeter
