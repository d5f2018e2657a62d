// Taking the lock is an acquire, leaving it a release: who takes it sees what the one before has written under it.
#include "bi/containers/owned_lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "bi/containers/futex.h"

namespace ceilmeter {

namespace {

// Above every thread id. Somebody sleeps, or has slept, until the lock is left.
constexpr std::uint32_t LOCK_HAS_WAITERS = std::uint32_t{1} << 31;

thread_local std::uint32_t own_tid = 0;

std::uint32_t owner_id() {
  if (own_tid == 0) own_tid = static_cast<std::uint32_t>(syscall(SYS_gettid));
  return own_tid;
}

void wake_one(std::uint32_t* word) { call_futex(word, FUTEX_WAKE, 1); }

}  // namespace

void set_lock_owner(std::uint32_t tid) { own_tid = tid; }

void owned_lock_init(owned_lock* lock) { std::atomic_ref(lock->word).store(0, std::memory_order_release); }

bool owned_lock_try(owned_lock* lock) {
  std::uint32_t free = 0;
  return std::atomic_ref(lock->word).compare_exchange_strong(free, owner_id(), std::memory_order_acquire);
}

void owned_lock_take(owned_lock* lock) {
  if (owned_lock_try(lock)) return;
  std::atomic_ref word(lock->word);
  for (;;) {
    std::uint32_t value = word.load(std::memory_order_relaxed);
    // Whoever has slept cannot know whether others still do, and leaves the mark.
    if (value == 0 && word.compare_exchange_weak(value, owner_id() | LOCK_HAS_WAITERS, std::memory_order_acquire)) {
      return;
    }
    if (value == 0) continue;
    const std::uint32_t marked = value | LOCK_HAS_WAITERS;
    if (value != marked && !word.compare_exchange_weak(value, marked, std::memory_order_relaxed)) continue;
    call_futex(&lock->word, FUTEX_WAIT, marked);
  }
}

void owned_lock_leave(owned_lock* lock) {
  const std::uint32_t value = std::atomic_ref(lock->word).exchange(0, std::memory_order_release);
  if ((value & LOCK_HAS_WAITERS) != 0) wake_one(&lock->word);
}

void owned_lock_break(owned_lock* lock, std::uint32_t tid) {
  const std::uint32_t value = std::atomic_ref(lock->word).load(std::memory_order_acquire);
  if ((value & ~LOCK_HAS_WAITERS) == tid) owned_lock_leave(lock);
}

}  // namespace ceilmeter
