// Which pages the scanner has found readable, so that it asks the kernel once for each page and change of mappings.
// Each thread remembers a few pages of its own; a number that all threads share says since when.
#pragma once

#include <cstdint>

namespace ceilmeter {

// Around a call that may make memory unreadable, under mapping_lock. In between nobody remembers anything.
void begin_mapping_change();
void end_mapping_change();

// Whether the thread has found the page of the address readable since mappings changed last.
bool is_known_readable(std::uint64_t address);

// The kernel was asked, and says that it is. `asked_at` is mapping_state() from before the question.
std::uint64_t mapping_state();
void remember_readable(std::uint64_t address, std::uint64_t asked_at);

}  // namespace ceilmeter
