// The registry of mappings: from which file, and at which offset, the code at an address came. The question is asked
// long after the mapping may have gone or been replaced. So whoever meets an address while it is mapped keeps the id of
// its segment. The id is the address of a record that never changes and lives as long as the registry.
//
// The records have two views. `segments` is what is mapped now; every new mapping changes it. `all_segments` is every
// record ever made; it only grows, and owns the records.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <shared_mutex>
#include <string>

#include "fd_names.h"

namespace ceilmeter {

// One mapping of a file. Never changed after it is made.
struct mapping_segment {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;     // Behind the last byte, a whole number of pages.
  std::uint64_t offset = 0;  // Of `begin` in the file. For a segment that was cut: of its first beginning.
  std::string name;          // The file's path, empty if its descriptor had no name.
};

// What a look-up has found, for the next one of the same thread. Blocks that are translated one after the other mostly
// lie in one segment.
struct recent_segment {
  std::uint64_t begin = 0;  // The addresses that the segment holds.
  std::uint64_t end = 0;
  std::uint64_t id = 0;
  std::uint64_t changes = 0;  // Of the registry, when it was looked up.
};

// Holds a lock, and so is neither copied nor moved.
class mappings_t {
 public:
  ~mappings_t();

  // The path behind a descriptor, for mappings made of it later. Any thread.
  void register_fd_name(std::int32_t fd, std::string path);

  // A copy; empty if the descriptor has no name. Any thread.
  std::string fd_name(std::int32_t fd) const;

  // Records the mapping [begin, end), both whole pages, of the file at `fd` from `offset` on. It replaces what was
  // mapped at or behind `begin`. The flags are for the log. Any thread.
  void register_mmap(std::uint64_t begin, std::uint64_t end, std::uint64_t offset, std::int64_t prot_flags,
                     std::int64_t map_flags, std::int32_t fd);

  // Records that [begin, end), both whole pages, holds something else now than code of a file: data, or memory without
  // a file, in which a program may generate code. Any thread; costs a look-up where no segment is concerned.
  void register_replaced(std::uint64_t begin, std::uint64_t end);

  // The id of the segment that holds `address` now; 0 for none. Any thread; look-ups do not wait for each other.
  std::uint64_t search_segment(std::uint64_t address) const;

  // The same, by way of what the thread's last look-up has found: without a lock if that still holds the address.
  std::uint64_t search_segment(std::uint64_t address, recent_segment& recent) const {
    // Acquire: pairs with the release of a change, so that the mapping whose code the caller has met is known.
    const bool is_known =
        address - recent.begin < recent.end - recent.begin && recent.changes == changes.load(std::memory_order_acquire);
    return is_known ? recent.id : search_segment_anew(address, recent);
  }

  // A copy of the record; all zero, with an empty name, for id 0. Any thread.
  static mapping_segment get_segment(std::uint64_t id);

  // The record itself; null for id 0. It lives as long as the registry. Any thread.
  static const mapping_segment* find_segment(std::uint64_t id) { return reinterpret_cast<const mapping_segment*>(id); }

 private:
  struct node {
    std::atomic<node*> next{nullptr};
    const mapping_segment* segment = nullptr;
  };

  // Whether a segment reaches into [begin, end), under the lock.
  bool is_overlapped(std::uint64_t begin, std::uint64_t end) const;

  std::uint64_t search_segment_anew(std::uint64_t address, recent_segment& recent) const;

  // Makes a record and enters it in all_segments. No lock is needed.
  const mapping_segment* make_segment(mapping_segment segment);

  fd_name_table fd_names;
  std::map<std::uint64_t, const mapping_segment*> segments;
  mutable std::shared_mutex segments_lock;  // Guards `segments`.
  std::atomic<std::uint64_t> changes{0};    // Of `segments`. Goes up under the lock.
  std::atomic<node*> all_segments{nullptr};
  std::atomic<std::atomic<node*>*> all_segments_tail{&all_segments};  // The last `next` word.
};

}  // namespace ceilmeter
