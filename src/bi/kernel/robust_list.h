// The list of robust mutexes that a thread of the application's keeps for the kernel. The kernel walks it when the
// thread is truly gone. Under the engine that is after the thread's joiner has been told. But the joiner has to find
// the owners dead, and may give the list's memory to another thread before the kernel looks. So the engine walks the
// list first.
#pragma once

#include <cstdint>

namespace ceilmeter {

// The list of the calling thread as the kernel knows it; 0: none, or the kernel does not tell.
std::uint64_t find_robust_list();

// Marks the mutexes that thread `tid` holds in the list at `head` as left by a dead owner, and wakes one waiter of
// each, as the kernel does. Memory that is gone ends the walk. Mutexes with priority inheritance are left to the
// kernel, because only the kernel can hand them over.
void settle_robust_list(std::uint64_t head, std::int32_t tid);

}  // namespace ceilmeter
