// A lock that tells who holds it. A child in its parent's memory can be killed while it holds one of the engine's; its
// parent then finds the lock in the name of somebody who is gone, and breaks it. One word holds the owner's thread id,
// written by the step that takes the lock: there is no moment at which a lock is taken by nobody.
//
// Not recursive. All zeros is a free lock. Good in signal handlers, where the interrupted thread does not hold it.
#pragma once

#include <cstdint>

namespace ceilmeter {

struct owned_lock {
  std::uint32_t word;  // The owner's thread id and LOCK_HAS_WAITERS; 0: free. Atomic.
};

// The calling thread's id, as locks have it. Asked of the kernel when it is first needed. A child that shares its
// parent's memory shares this word too: both set it where they begin to run.
void set_lock_owner(std::uint32_t tid);

void owned_lock_init(owned_lock* lock);
void owned_lock_take(owned_lock* lock);
bool owned_lock_try(owned_lock* lock);
void owned_lock_leave(owned_lock* lock);

// Frees the lock if the thread has it. The thread is gone.
void owned_lock_break(owned_lock* lock, std::uint32_t tid);

}  // namespace ceilmeter
