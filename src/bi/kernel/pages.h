// Arithmetic of memory pages. A page has the size that the kernel gives it, 4, 16 or 64 KiB on this architecture: it is
// an argument here, and page_size() (bi/mora.h) is the one value that belongs in its place.
#pragma once

#include <cstdint>

namespace ceilmeter {

// The start of the page that holds the address, and the first start of a page at or after it. `page` is a power of two.
constexpr std::uint64_t page_down(std::uint64_t address, std::uint64_t page) { return address & ~(page - 1); }
constexpr std::uint64_t page_up(std::uint64_t address, std::uint64_t page) {
  return page_down(address + page - 1, page);
}

struct page_range {
  std::uint64_t start;
  std::uint64_t size;
};

// The whole pages that [address, address + length) touches. A length that wraps gives a range that does.
constexpr page_range whole_page_range(std::uint64_t address, std::uint64_t length, std::uint64_t page) {
  const std::uint64_t start = page_down(address, page);
  return {start, page_up(address - start + length, page)};
}

}  // namespace ceilmeter
