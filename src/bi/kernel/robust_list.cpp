// The kernel defines the layout of the list (struct robust_list_head): the first entry's address, the distance from an
// entry to its futex word, and the entry that is being added or removed. An entry holds the address of the next one,
// and the last entry's leads back to the head. Bit 0 of an address marks a mutex with priority inheritance.
#include "bi/kernel/robust_list.h"

#include <linux/futex.h>
#include <sys/syscall.h>

#include <atomic>

#include "bi/kernel/memory_probe.h"
#include "bi/mora.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t HEAD_OFFSET = 8;
constexpr std::uint64_t HEAD_PENDING = 16;
constexpr std::uint64_t PRIORITY_BIT = 1;
constexpr int MOST_ENTRIES = 2048;  // A list that is a circle ends here, as in the kernel.

void wake_one(std::uint64_t futex) { raw_syscall(SYS_futex, futex, FUTEX_WAKE, 1); }

void leave_futex(std::uint64_t address, std::int32_t tid, bool is_pending) {
  if (address % sizeof(std::uint32_t) != 0 || !is_readable(address & ~std::uint64_t{7})) return;
  std::atomic_ref futex(*reinterpret_cast<std::uint32_t*>(address));
  std::uint32_t value = futex.load(std::memory_order_relaxed);
  if (is_pending && value == 0) {
    wake_one(address);  // It was freed, but its waiter was not woken any more.
    return;
  }
  do {
    if ((value & FUTEX_TID_MASK) != static_cast<std::uint32_t>(tid)) return;
    // Release: the next owner sees what this thread wrote under the mutex, as behind an unlock.
  } while (!futex.compare_exchange_weak(value, (value & FUTEX_WAITERS) | FUTEX_OWNER_DIED, std::memory_order_release,
                                        std::memory_order_relaxed));
  if ((value & FUTEX_WAITERS) != 0) wake_one(address);
}

void leave_entry(std::uint64_t entry, std::uint64_t offset, std::int32_t tid, bool is_pending) {
  if ((entry & PRIORITY_BIT) == 0) leave_futex(entry + offset, tid, is_pending);
}

}  // namespace

std::uint64_t find_robust_list() {
  constexpr std::uint64_t calling_thread = 0;
  std::uint64_t head = 0;
  std::uint64_t size = 0;
  const std::int64_t result = raw_syscall(SYS_get_robust_list, calling_thread, address_of(&head), address_of(&size));
  return result == 0 ? head : 0;
}

void settle_robust_list(std::uint64_t head, std::int32_t tid) {
  std::uint64_t entry = 0;
  std::uint64_t offset = 0;
  std::uint64_t pending = 0;
  if (!read_word(head, &entry) || !read_word(head + HEAD_OFFSET, &offset)) return;
  if (!read_word(head + HEAD_PENDING, &pending)) return;
  for (int count = 0; (entry & ~PRIORITY_BIT) != head && count < MOST_ENTRIES; ++count) {
    // Read first: when its futex is free, the entry may belong to anybody.
    std::uint64_t next = 0;
    const bool goes_on = read_word(entry & ~PRIORITY_BIT, &next);
    if ((entry & ~PRIORITY_BIT) != (pending & ~PRIORITY_BIT)) leave_entry(entry, offset, tid, false);
    if (!goes_on) break;
    entry = next;
  }
  if ((pending & ~PRIORITY_BIT) != 0) leave_entry(pending, offset, tid, true);
}

}  // namespace ceilmeter
