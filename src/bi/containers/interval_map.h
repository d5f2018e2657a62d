// A fixed array of address ranges. Each range has a duplicate of a file descriptor, which the map owns. Every operation
// holds the map's lock throughout, so any thread may call any of them except init. Not in a signal handler.
//
// Two ranges overlap if each one's end lies above the other's start; ranges that only touch do not overlap. Live ranges
// never overlap each other, because an added range swallows those that it overlaps.
#pragma once

#include <cstdint>

#include "bi/containers/owned_lock.h"

namespace ceilmeter {

struct interval_entry {
  std::uint64_t start;
  std::uint64_t end;  // Exclusive. Below `start` in a dead entry, which interval_map_delete leaves.
  std::int32_t fd;    // Negative: none.
};

struct interval_map {
  std::int64_t capacity;
  std::int64_t count;
  owned_lock lock;
  interval_entry* entries;  // `capacity` entries on the heap, `count` of them in use, in no order.
};

// Returns 0, or -1 if the array cannot be allocated. The map may not move afterwards.
int interval_map_init(interval_map* map, std::int64_t capacity);

// Adds [start, end) with a duplicate of `fd`; the caller keeps its own. Ranges that it overlaps become one with it, and
// the union keeps the descriptor of one of them. A full map drops the range without an error. Returns 0, or -1 if
// `start` is not below `end`; then no descriptor is duplicated.
int interval_map_add(interval_map* map, std::uint64_t start, std::uint64_t end, std::int32_t fd);

// Takes [start, end) out of the map. An entry that loses its middle becomes two with a descriptor each. Returns the
// number of entries touched, or -1 if `start` is not below `end` or the lock fails.
std::int64_t interval_map_delete(interval_map* map, std::uint64_t start, std::uint64_t end);

// The number of entries that overlap [start, end), or -1 as above.
std::int64_t interval_map_overlapping(interval_map* map, std::uint64_t start, std::uint64_t end);

// The application has closed the descriptors from `first` to `last`, or is about to put its own in their places. The
// map forgets these numbers and will not close them.
void interval_map_forget_descriptors(interval_map* map, std::uint32_t first, std::uint32_t last);

// Whether the map is full. A full map drops the next range that overlaps no entry.
bool interval_map_is_full(interval_map* map);

// 1 and in `*out` a copy of the entry that holds `address`; 0 if there is none; -1 if `out` is null or the lock fails.
// The copy's descriptor stays the map's: another thread's call can close it at any time.
int interval_map_search(interval_map* map, std::uint64_t address, interval_entry* out);

// Logs the map at level trace. The caller holds the lock.
void interval_map_print(const interval_map* map);

}  // namespace ceilmeter
