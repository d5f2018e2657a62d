// A plain list: few programs have many shared files mapped. If it is full, further mappings are not known, and code in
// them is not followed through another mapping.
#include "bi/code/shared_mappings.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>

#include "bi/code/code_epoch.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/vm_ops"};

struct shared_mapping {
  std::uint64_t start;
  std::uint64_t end;
  std::uint64_t device;
  std::uint64_t inode;
  std::uint64_t offset;
};

constexpr std::size_t MOST_MAPPINGS = 1024;
shared_mapping mappings[MOST_MAPPINGS];
std::size_t mapping_count;

// Two mappings have shared a page, now or earlier. Set under mapping_lock, read without it.
std::uint32_t has_aliases;

bool is_same_file(const shared_mapping& left, const shared_mapping& right) {
  return left.device == right.device && left.inode == right.inode;
}

// The part of `other` that maps the pages that [start, end) of `mapping` maps; empty if none.
void find_alias(const shared_mapping& mapping, std::uint64_t start, std::uint64_t end, const shared_mapping& other,
                std::uint64_t* out_start, std::uint64_t* out_end) {
  const std::uint64_t first = mapping.offset + (start - mapping.start);
  const std::uint64_t last = first + (end - start);
  const std::uint64_t begin = std::max(first, other.offset);
  const std::uint64_t finish = std::min(last, other.offset + (other.end - other.start));
  *out_start = other.start + (begin - other.offset);
  *out_end = begin < finish ? *out_start + (finish - begin) : *out_start;
}

void add(const shared_mapping& mapping) {
  if (mapping.start >= mapping.end) return;
  if (mapping_count == MOST_MAPPINGS) {
    log(LEVEL_DEBUG, "more shared files are mapped than are kept");
    return;
  }
  for (std::size_t index = 0; index < mapping_count; ++index) {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    if (is_same_file(mapping, mappings[index])) {
      find_alias(mapping, mapping.start, mapping.end, mappings[index], &start, &end);
    }
    // Relaxed: whoever writes code by one of the two learns of it after this call.
    if (start < end) std::atomic_ref(has_aliases).store(1, std::memory_order_relaxed);
  }
  mappings[mapping_count++] = mapping;
}

shared_mapping part_of(const shared_mapping& mapping, std::uint64_t start, std::uint64_t end) {
  return {start, end, mapping.device, mapping.inode, mapping.offset + (start - mapping.start)};
}

}  // namespace

void forget_mapping(std::uint64_t start, std::uint64_t end) {
  for (std::size_t index = 0; index < mapping_count;) {
    const shared_mapping known = mappings[index];
    if (known.start >= end || known.end <= start) {
      ++index;
      continue;
    }
    mappings[index] = mappings[--mapping_count];
    // What is left of it does not overlap the range; its parts are looked at again, to no effect.
    if (known.start < start) mappings[mapping_count++] = part_of(known, known.start, start);
    if (known.end > end) add(part_of(known, end, known.end));
  }
}

void note_mapping(std::uint64_t start, std::uint64_t end, std::uint64_t flags, std::int32_t fd, std::uint64_t offset) {
  forget_mapping(start, end);
  const bool is_shared = (flags & MAP_TYPE) == MAP_SHARED || (flags & MAP_TYPE) == MAP_SHARED_VALIDATE;
  if (!is_shared || (flags & MAP_ANONYMOUS) != 0) return;
  struct stat file {};
  if (fstat(fd, &file) != 0) return;
  add({start, end, file.st_dev, file.st_ino, offset});
}

void move_mapping(std::uint64_t from, std::uint64_t old_size, std::uint64_t to, std::uint64_t new_size) {
  shared_mapping moved{};
  for (std::size_t index = 0; index < mapping_count; ++index) {
    if (mappings[index].start <= from && from < mappings[index].end) moved = mappings[index];
  }
  if (old_size != 0) forget_mapping(from, from + old_size);  // 0: a second mapping of the same pages was made.
  forget_mapping(to, to + new_size);
  if (moved.end == 0) return;
  add({to, to + new_size, moved.device, moved.inode, moved.offset + (from - moved.start)});
}

void drop_aliases(thread_data* thread, std::uint64_t start, std::uint64_t end) {
  if (std::atomic_ref(has_aliases).load(std::memory_order_relaxed) == 0) return;
  owned_lock_take(&engine.mapping_lock);
  for (std::size_t index = 0; index < mapping_count; ++index) {
    const shared_mapping& mapping = mappings[index];
    if (mapping.start > start || mapping.end < end) continue;
    for (std::size_t other = 0; other < mapping_count; ++other) {
      std::uint64_t alias_start = 0;
      std::uint64_t alias_end = 0;
      if (other == index || !is_same_file(mapping, mappings[other])) continue;
      find_alias(mapping, start, end, mappings[other], &alias_start, &alias_end);
      if (alias_start < alias_end) drop_code(thread, alias_start, alias_end);
    }
  }
  owned_lock_leave(&engine.mapping_lock);
}

}  // namespace ceilmeter
