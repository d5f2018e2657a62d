#include "bi/signals/held_signals.h"

#include <atomic>
#include <cstring>

namespace ceilmeter {

namespace {

constexpr std::uint64_t FREE = 0;
constexpr std::uint64_t BUSY = 1;
constexpr std::uint64_t FIRST_ORDER = 2;

// Between a thread and its own signal handlers the compiler's order is all that counts: they run on one processor at a
// time.
std::uint64_t order_of(held_signal& record) { return std::atomic_ref(record.order).load(std::memory_order_relaxed); }

bool claim(held_signal& record, std::uint64_t expected) {
  const bool claimed = std::atomic_ref(record.order).compare_exchange_strong(expected, BUSY, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_acquire);
  return claimed;
}

void release(held_signal& record, std::uint64_t order) {
  std::atomic_signal_fence(std::memory_order_release);
  std::atomic_ref(record.order).store(order, std::memory_order_relaxed);
}

held_signal* longest_waiting(held_signals& held, int signum) {
  held_signal* found = nullptr;
  for (held_signal& record : held.records) {
    if (order_of(record) < FIRST_ORDER || record.info.si_signo != signum) continue;
    if (found == nullptr || order_of(record) < order_of(*found)) found = &record;
  }
  return found;
}

}  // namespace

bool hold_signal(held_signals& held, const siginfo_t& info) {
  for (held_signal& record : held.records) {
    if (!claim(record, FREE)) continue;
    std::memcpy(&record.info, &info, sizeof info);
    release(record, FIRST_ORDER + std::atomic_ref(held.arrivals).fetch_add(1, std::memory_order_relaxed));
    return true;
  }
  return false;
}

void forget_held_signals(held_signals& held) {
  for (held_signal& record : held.records) release(record, FREE);
}

const siginfo_t* find_held_signal(held_signals& held, int signum) {
  const held_signal* record = longest_waiting(held, signum);
  return record == nullptr ? nullptr : &record->info;
}

bool take_held_record(held_signals& held, int signum) {
  // Only the thread itself empties records, so that the one found stays as it is.
  held_signal* record = longest_waiting(held, signum);
  if (record == nullptr || !claim(*record, order_of(*record))) return false;
  std::memcpy(&held.raised, &record->info, sizeof held.raised);
  release(*record, FREE);
  return true;
}

void take_held_signal(held_signals& held, int signum, int pid, unsigned uid) {
  if (take_held_record(held, signum)) return;
  std::memset(&held.raised, 0, sizeof held.raised);
  held.raised.si_signo = signum;
  held.raised.si_code = SI_TKILL;
  held.raised.si_pid = pid;
  held.raised.si_uid = uid;
}

}  // namespace ceilmeter
