// Calls that bring a signal mask: sigprocmask, and calls that use a mask for their own time (sigsuspend, ppoll and
// their kind). A handler that interrupts one of the latter runs with that mask. With SIGILL blocked, application code
// could neither be stopped nor be led out by a trap. So the kernel gets a copy of the mask without SIGILL, which stands
// in the thread's record. The application never sees that its argument was replaced for a while.
#pragma once

#include <sys/syscall.h>

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The bit of SIGILL in a signal mask of the kernel's. The engine needs the signal unblocked at all times.
inline constexpr std::uint64_t SIGILL_BIT = std::uint64_t{1} << (SIGILL - 1);

// Where a call has its mask. Some have it behind an address and a size, in a record of their own.
struct mask_place {
  std::uint64_t number;
  std::uint32_t argument;
  bool is_pair;
};

inline constexpr std::uint64_t SYS_EPOLL_PWAIT2 = 441;  // Younger than some C libraries' headers.

inline constexpr mask_place mask_places[] = {
    {SYS_rt_sigsuspend, 0, false}, {SYS_rt_sigprocmask, 1, false}, {SYS_ppoll, 3, false},
    {SYS_epoll_pwait, 4, false},   {SYS_EPOLL_PWAIT2, 4, false},   {SYS_pselect6, 5, true},
    {SYS_io_pgetevents, 5, true},
};

// Before the call `number` is made with `args`, its save area.
void replace_call_mask(thread_data* thread, std::uint64_t number, std::uint64_t* args);

// The mask that the call `number` with the save area `args` waits with. `*mask` stays as it is if the call has none.
void read_mask_of_call(std::uint64_t number, const std::uint64_t* args, std::uint64_t* mask);

// After the call, or if it is not made: gives back the argument that was replaced (the mask here, or the path of
// executable_path.h), in the save area or in the registers of a signal's context. An argument below `first` is left
// alone, because the call's result may stand there.
void restore_replaced_argument(thread_data* thread, std::uint64_t* registers, std::uint32_t first);
inline void restore_argument(thread_data* thread, std::uint64_t* registers, std::uint32_t first) {
  if (thread->replaced_argument != 0) restore_replaced_argument(thread, registers, first);
}

}  // namespace ceilmeter
