// Which pages the scanner, or who looks at paths, has found readable: the kernel is asked once for each page, and again
// when a change of mappings may have made it unreadable. Each question is a system call of the engine's, which a
// filter of the application's may judge.
//
// Each thread remembers a few pages of its own; numbers that all threads share say since when.
#pragma once

#include <cstdint>

#include "bi/kernel/pages.h"

namespace ceilmeter {

inline constexpr page_range ALL_PAGES = {0, ~std::uint64_t{0}};

// Around a call that may make memory of the range unreadable, under mapping_lock. In between nobody remembers anything
// of it. An empty range changes nothing.
void begin_mapping_change(page_range range);
void end_mapping_change(page_range range);

// Whether the page of the address can be read, which is asked of the kernel unless it is known.
bool is_page_readable(std::uint64_t address);

// Whether the thread has found the page of the address readable since mappings there changed last.
bool is_known_readable(std::uint64_t address);

// The kernel was asked, and says that it is. `asked_at` is mapping_state(address) from before the question.
std::uint64_t mapping_state(std::uint64_t address);
void remember_readable(std::uint64_t address, std::uint64_t asked_at);

}  // namespace ceilmeter
