// Calls that bring a signal mask: sigprocmask, and calls that use a mask for their own time (sigsuspend, ppoll and
// their kind). A handler that interrupts one of the latter runs with that mask. With SIGILL blocked, application code
// could neither be stopped nor be led out by a trap. So the kernel gets a copy of the mask without SIGILL, which stands
// in the thread's record. The application never sees that its argument was replaced for a while.
#pragma once

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The bit of SIGILL in a signal mask of the kernel's. The engine needs the signal unblocked at all times.
inline constexpr std::uint64_t SIGILL_BIT = std::uint64_t{1} << (SIGILL - 1);

// Before the call `number` is made with `args`, its save area.
void replace_call_mask(thread_data* thread, std::uint64_t number, std::uint64_t* args);

// The mask that the call `number` with the save area `args` waits with. `*mask` stays as it is if the call has none.
void read_mask_of_call(std::uint64_t number, const std::uint64_t* args, std::uint64_t* mask);

// After the call, or if it is not made: gives back the argument that was replaced (the mask here, or the path of
// executable_path.h), in the save area or in the registers of a signal's context. An argument below `first` is left
// alone, because the call's result may stand there.
void restore_argument(thread_data* thread, std::uint64_t* registers, std::uint32_t first);

}  // namespace ceilmeter
