// The list of robust mutexes that a thread of the application's keeps for the kernel. The kernel walks it when the
// thread is truly gone, which is after its joiner has been told; the joiner has to find the owners dead, and may have
// given the memory of the list to another thread by the time the kernel looks. So the engine walks it first.
#pragma once

#include <cstdint>

namespace ceilmeter {

// The list of the calling thread as the kernel knows it; 0: none, or the kernel does not tell.
std::uint64_t find_robust_list();

// Marks what thread `tid` holds of the list at `head` as left by a dead owner, and wakes one waiter of each, as the
// kernel does. Memory that is gone ends the walk. Mutexes with priority inheritance are left to the kernel, which alone
// can hand them over.
void settle_robust_list(std::uint64_t head, std::int32_t tid);

}  // namespace ceilmeter
