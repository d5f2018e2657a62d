// A lock that many threads hold at once, each with a share, or one thread alone. A share costs an addition when it is
// taken and one when it is left, and each block that is translated for plug-ins takes one.
//
// Shares go first: a thread that waits to have the lock alone stops nobody from taking a share. So a thread can take
// several shares, one within the other. Who holds the lock alone must not take a share.
//
// All zeros is a free lock.
#pragma once

#include <atomic>
#include <cstdint>

namespace ceilmeter {

struct shared_lock {
  std::uint32_t word;  // How many shares are held or waited for, and the two bits below. Atomic.
};

inline constexpr std::uint32_t SHARED_LOCK_ALONE = std::uint32_t{1} << 31;  // One thread holds it.
inline constexpr std::uint32_t SHARED_LOCK_HAS_WAITERS = std::uint32_t{1} << 30;

void shared_lock_init(shared_lock* lock);

// What follows the additions below where somebody else has the lock alone, or waits.
void shared_lock_wait_for_share(shared_lock* lock);
void shared_lock_wake_waiters(shared_lock* lock);

inline void shared_lock_take_share(shared_lock* lock) {
  // Acquire: pairs with the release by which the lock was left by the one who had it alone.
  const std::uint32_t before = std::atomic_ref(lock->word).fetch_add(1, std::memory_order_acquire);
  if ((before & SHARED_LOCK_ALONE) != 0) shared_lock_wait_for_share(lock);
}

inline void shared_lock_leave_share(shared_lock* lock) {
  // Release: pairs with the acquire by which shared_lock_take_alone finds no share.
  const std::uint32_t before = std::atomic_ref(lock->word).fetch_sub(1, std::memory_order_release);
  if (before == (SHARED_LOCK_HAS_WAITERS | 1)) shared_lock_wake_waiters(lock);
}

void shared_lock_take_alone(shared_lock* lock);
void shared_lock_leave_alone(shared_lock* lock);

}  // namespace ceilmeter
