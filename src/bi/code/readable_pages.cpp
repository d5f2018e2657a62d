// A place remembers one page of the many that share it. It is void when the state has moved on.
#include "bi/code/readable_pages.h"

#include <atomic>

namespace ceilmeter {

namespace {

constexpr int PAGE_BITS = 12;  // A page is at least 4 KiB.
constexpr std::uint64_t REMEMBERED = 64;

struct readable_page {
  std::uint64_t page;
  std::uint64_t state;
};

// Even; odd while mappings change. It begins above 0, the state of a place that remembers nothing.
std::uint64_t state = 2;

thread_local readable_page pages[REMEMBERED];

}  // namespace

void begin_mapping_change() { std::atomic_ref(state).fetch_add(1, std::memory_order_acq_rel); }
void end_mapping_change() { std::atomic_ref(state).fetch_add(1, std::memory_order_acq_rel); }

std::uint64_t mapping_state() { return std::atomic_ref(state).load(std::memory_order_acquire); }

bool is_known_readable(std::uint64_t address) {
  const std::uint64_t page = address >> PAGE_BITS;
  const readable_page& place = pages[page % REMEMBERED];
  return place.page == page && place.state == mapping_state();
}

void remember_readable(std::uint64_t address, std::uint64_t asked_at) {
  if (asked_at % 2 != 0) return;
  const std::uint64_t page = address >> PAGE_BITS;
  pages[page % REMEMBERED] = {page, asked_at};
}

}  // namespace ceilmeter
