// Where the application has mapped files shared, so that code which is written and invalidated by one mapping is
// dropped where it runs, in another mapping of the same pages. Pages are the same if device, inode and offset are.
//
// Under mapping_lock, but for drop_aliases, which takes it.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The range was mapped: of a shared file from `offset` on, or otherwise, which ends what was known of it.
void note_mapping(std::uint64_t start, std::uint64_t end, std::uint64_t flags, std::int32_t fd, std::uint64_t offset);

// The range was unmapped.
void forget_mapping(std::uint64_t start, std::uint64_t end);

// What was known of [from, from + old_size) is at `to` now, with another size.
void move_mapping(std::uint64_t from, std::uint64_t old_size, std::uint64_t to, std::uint64_t new_size);

// Drops, as drop_code does, what was translated from the pages of the range by their other mappings. While no two
// mappings share a page, that is one look; where nothing was translated, it takes no lock. The caller holds none.
void drop_aliases(thread_data* thread, std::uint64_t start, std::uint64_t end);

}  // namespace ceilmeter
