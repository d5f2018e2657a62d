// Whoever sleeps has set SHARED_LOCK_HAS_WAITERS, and sleeps on the very value that has it. Who takes the bit away
// wakes all of them; who goes on waiting sets it again. A wake that comes before the sleep is not lost: the value is
// another one then.
//
//   a share is waited for   its one is in the word already: nobody else gets the lock alone behind the one who has it
//   alone is waited for     until the word has neither a share nor the bit of another thread that is alone
#include "bi/containers/shared_lock.h"

#include <linux/futex.h>

#include <climits>

#include "bi/containers/futex.h"

namespace ceilmeter {

namespace {

// Sleeps until the word is another one than `value`, or for no reason.
void sleep_on(shared_lock* lock, std::uint32_t value) {
  const std::uint32_t marked = value | SHARED_LOCK_HAS_WAITERS;
  std::atomic_ref word(lock->word);
  // Relaxed: what the lock guards is seen by the load that ends the waiting.
  if (value != marked && !word.compare_exchange_strong(value, marked, std::memory_order_relaxed)) return;
  call_futex(&lock->word, FUTEX_WAIT, marked);
}

}  // namespace

void shared_lock_init(shared_lock* lock) { std::atomic_ref(lock->word).store(0, std::memory_order_release); }

void shared_lock_wait_for_share(shared_lock* lock) {
  for (;;) {
    const std::uint32_t value = std::atomic_ref(lock->word).load(std::memory_order_acquire);
    if ((value & SHARED_LOCK_ALONE) == 0) return;
    sleep_on(lock, value);
  }
}

void shared_lock_wake_waiters(shared_lock* lock) {
  std::atomic_ref(lock->word).fetch_and(~SHARED_LOCK_HAS_WAITERS, std::memory_order_relaxed);
  call_futex(&lock->word, FUTEX_WAKE, INT_MAX);
}

void shared_lock_take_alone(shared_lock* lock) {
  std::atomic_ref word(lock->word);
  for (;;) {
    std::uint32_t value = word.load(std::memory_order_relaxed);
    if ((value & ~SHARED_LOCK_HAS_WAITERS) != 0) {
      sleep_on(lock, value);
    } else if (word.compare_exchange_weak(value, value | SHARED_LOCK_ALONE, std::memory_order_acquire)) {
      return;
    }
  }
}

void shared_lock_leave_alone(shared_lock* lock) {
  constexpr std::uint32_t both = SHARED_LOCK_ALONE | SHARED_LOCK_HAS_WAITERS;
  const std::uint32_t before = std::atomic_ref(lock->word).fetch_and(~both, std::memory_order_release);
  if ((before & SHARED_LOCK_HAS_WAITERS) != 0) call_futex(&lock->word, FUTEX_WAKE, INT_MAX);
}

}  // namespace ceilmeter
