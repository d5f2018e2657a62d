// A place remembers one page of the many that share it. It is void when the state of the page's region has moved on.
#include "bi/code/readable_pages.h"

#include <atomic>

#include "bi/kernel/memory_probe.h"

namespace ceilmeter {

namespace {

constexpr int PAGE_BITS = 12;  // A page is at least 4 KiB.
constexpr std::uint64_t REMEMBERED = 64;

// What the application maps and unmaps elsewhere leaves its code known. Many regions share a state. A long range counts
// as all regions, by a number of its own.
constexpr int REGION_BITS = 16;
constexpr std::uint64_t STATES = 256;
constexpr std::uint64_t MOST_REGIONS = 64;

struct readable_page {
  std::uint64_t page;
  std::uint64_t changes;
};

// How often each state has changed. One of them is odd while mappings change, which is one change at a time.
std::uint64_t changes[STATES];
std::uint64_t changes_of_all;

// `changes` is one more than what mapping_state was, so that a place begins by remembering nothing.
thread_local readable_page pages[REMEMBERED];

void count_one(std::uint64_t& number) { std::atomic_ref(number).fetch_add(1, std::memory_order_acq_rel); }

void count_change(page_range range) {
  if (range.size == 0) return;
  const std::uint64_t first = range.start >> REGION_BITS;
  const std::uint64_t last = (range.start + (range.size - 1)) >> REGION_BITS;
  // A range that wraps is the application's own, and wrong.
  if (last < first || last - first >= MOST_REGIONS) {
    count_one(changes_of_all);
    return;
  }
  for (std::uint64_t region = first; region <= last; ++region) count_one(changes[region % STATES]);
}

}  // namespace

void begin_mapping_change(page_range range) { count_change(range); }
void end_mapping_change(page_range range) { count_change(range); }

// Both numbers only grow. So their sum is the same again only if neither has changed.
std::uint64_t mapping_state(std::uint64_t address) {
  const std::uint64_t of_region =
      std::atomic_ref(changes[(address >> REGION_BITS) % STATES]).load(std::memory_order_acquire);
  return of_region + std::atomic_ref(changes_of_all).load(std::memory_order_acquire);
}

namespace {

// The eight bytes that are asked for must not reach into the next page.
[[gnu::noinline]] bool ask_of_page(std::uint64_t address) {
  const std::uint64_t asked_at = mapping_state(address);
  if (!is_readable(address & ~std::uint64_t{7})) return false;
  remember_readable(address, asked_at);
  return true;
}

}  // namespace

// Mostly known, which is found out without a frame.
bool is_page_readable(std::uint64_t address) { return is_known_readable(address) || ask_of_page(address); }

bool is_known_readable(std::uint64_t address) {
  const std::uint64_t page = address >> PAGE_BITS;
  const readable_page& place = pages[page % REMEMBERED];
  return place.page == page && place.changes == mapping_state(address) + 1;
}

void remember_readable(std::uint64_t address, std::uint64_t asked_at) {
  if (asked_at % 2 != 0) return;
  const std::uint64_t page = address >> PAGE_BITS;
  pages[page % REMEMBERED] = {page, asked_at + 1};
}

}  // namespace ceilmeter
