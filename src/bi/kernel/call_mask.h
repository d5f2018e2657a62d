// Calls that bring a signal mask: sigprocmask, and those that bring one for their own time, sigsuspend, ppoll and their
// kind. A handler that interrupts one of these runs with that mask, and application code with SIGILL blocked could
// neither be stopped nor be led out by a trap. The kernel gets a copy without SIGILL, in the thread's record; the
// application never sees that its argument was another for a while.
#pragma once

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The bit of SIGILL in a signal mask of the kernel's. The engine needs the signal unblocked at all times.
inline constexpr std::uint64_t SIGILL_BIT = std::uint64_t{1} << (SIGILL - 1);

// Before the call `number` is made with `args`, its save area.
void replace_call_mask(thread_data* thread, std::uint64_t number, std::uint64_t* args);

// After the call, or when it is not made: gives back the argument that was replaced, the mask here or the path in
// executable_path.h, in the save area or in the registers of a signal's context. An argument below `first` is left,
// since the call's result may stand there.
void restore_argument(thread_data* thread, std::uint64_t* registers, std::uint32_t first);

}  // namespace ceilmeter
