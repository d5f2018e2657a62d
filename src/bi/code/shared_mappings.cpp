// A plain list: few programs have many shared files mapped. If it is full, further mappings are not known, and code in
// them is not followed through another mapping. It is read without the lock to see that nothing has to be done; its
// version tells whether it has changed meanwhile, and then the lock decides.
#include "bi/code/shared_mappings.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>

#include "bi/code/code_epoch.h"
#include "bi/code/translated_pages.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/shared_mappings"};

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

// Odd while the list changes. Under mapping_lock; read without it.
std::uint64_t list_version;

// Around each change of the list.
struct list_change {
  list_change() {
    std::atomic_ref(list_version).fetch_add(1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);  // Pairs with the fence behind the look: the entries follow.
  }
  ~list_change() { std::atomic_ref(list_version).fetch_add(1, std::memory_order_release); }
  list_change(const list_change&) = delete;
  list_change& operator=(const list_change&) = delete;
};

std::size_t count() { return std::atomic_ref(mapping_count).load(std::memory_order_relaxed); }

shared_mapping entry(std::size_t index) {
  shared_mapping& from = mappings[index];
  const auto load = [](std::uint64_t& word) { return std::atomic_ref(word).load(std::memory_order_relaxed); };
  return {load(from.start), load(from.end), load(from.device), load(from.inode), load(from.offset)};
}

void set_entry(std::size_t index, const shared_mapping& value) {
  shared_mapping& to = mappings[index];
  const auto store = [](std::uint64_t& word, std::uint64_t bits) {
    std::atomic_ref(word).store(bits, std::memory_order_relaxed);
  };
  store(to.start, value.start);
  store(to.end, value.end);
  store(to.device, value.device);
  store(to.inode, value.inode);
  store(to.offset, value.offset);
}

void set_count(std::size_t number) { std::atomic_ref(mapping_count).store(number, std::memory_order_relaxed); }

void append(const shared_mapping& mapping) {
  set_entry(count(), mapping);
  set_count(count() + 1);
}

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
  if (count() == MOST_MAPPINGS) {
    log(LEVEL_DEBUG, "more shared files are mapped than are kept");
    return;
  }
  for (std::size_t index = 0; index < count(); ++index) {
    const shared_mapping known = entry(index);
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    if (is_same_file(mapping, known)) find_alias(mapping, mapping.start, mapping.end, known, &start, &end);
    if (start < end) note_marks_are_not_enough(MARKS_HAVE_ALIASES);
  }
  append(mapping);
}

shared_mapping part_of(const shared_mapping& mapping, std::uint64_t start, std::uint64_t end) {
  return {start, end, mapping.device, mapping.inode, mapping.offset + (start - mapping.start)};
}

void forget(std::uint64_t start, std::uint64_t end) {
  for (std::size_t index = 0; index < count();) {
    const shared_mapping known = entry(index);
    if (known.start >= end || known.end <= start) {
      ++index;
      continue;
    }
    set_count(count() - 1);
    set_entry(index, entry(count()));
    // What is left of it does not overlap the range; its parts are looked at again, to no effect.
    if (known.start < start) append(part_of(known, known.start, start));
    if (known.end > end) add(part_of(known, end, known.end));
  }
}

// Calls `act` with each other place of the pages of [start, end), until it says that it is done.
template <typename action>
void for_each_alias(std::uint64_t start, std::uint64_t end, const action& act) {
  for (std::size_t index = 0; index < count(); ++index) {
    const shared_mapping mapping = entry(index);
    if (mapping.start > start || mapping.end < end) continue;
    for (std::size_t other = 0; other < count(); ++other) {
      const shared_mapping second = entry(other);
      std::uint64_t alias_start = 0;
      std::uint64_t alias_end = 0;
      if (other == index || !is_same_file(mapping, second)) continue;
      find_alias(mapping, start, end, second, &alias_start, &alias_end);
      if (alias_start < alias_end && act(alias_start, alias_end)) return;
    }
  }
}

// Whether nothing was translated from the pages of the range by their other mappings, as far as can be told without the
// lock: false if the list changes meanwhile.
bool has_no_translated_alias(std::uint64_t start, std::uint64_t end) {
  const std::uint64_t version = std::atomic_ref(list_version).load(std::memory_order_acquire);
  bool found = false;
  for_each_alias(start, end, [&](std::uint64_t alias_start, std::uint64_t alias_end) {
    found = has_translated(alias_start, alias_end);
    return found;
  });
  std::atomic_thread_fence(std::memory_order_acquire);  // Pairs with the fence of list_change.
  const bool is_whole = version % 2 == 0 && std::atomic_ref(list_version).load(std::memory_order_relaxed) == version;
  return is_whole && !found;
}

}  // namespace

void forget_mapping(std::uint64_t start, std::uint64_t end) {
  if (count() == 0) return;
  const list_change change;
  forget(start, end);
}

void note_mapping(std::uint64_t start, std::uint64_t end, std::uint64_t flags, std::int32_t fd, std::uint64_t offset) {
  forget_mapping(start, end);
  const bool is_shared = (flags & MAP_TYPE) == MAP_SHARED || (flags & MAP_TYPE) == MAP_SHARED_VALIDATE;
  if (!is_shared || (flags & MAP_ANONYMOUS) != 0) return;
  struct stat file {};
  if (fstat(fd, &file) != 0) return;
  const list_change change;
  add({start, end, file.st_dev, file.st_ino, offset});
}

void move_mapping(std::uint64_t from, std::uint64_t old_size, std::uint64_t to, std::uint64_t new_size) {
  const list_change change;
  shared_mapping moved{};
  for (std::size_t index = 0; index < count(); ++index) {
    const shared_mapping known = entry(index);
    if (known.start <= from && from < known.end) moved = known;
  }
  if (old_size != 0) forget(from, from + old_size);  // 0: a second mapping of the same pages was made.
  forget(to, to + new_size);
  if (moved.end == 0) return;
  add({to, to + new_size, moved.device, moved.inode, moved.offset + (from - moved.start)});
}

void drop_aliases(thread_data* thread, std::uint64_t start, std::uint64_t end) {
  if (!marks_are_not_enough(MARKS_HAVE_ALIASES) || has_no_translated_alias(start, end)) return;
  owned_lock_take(&engine.mapping_lock);
  for_each_alias(start, end, [&](std::uint64_t alias_start, std::uint64_t alias_end) {
    drop_code(thread, alias_start, alias_end);
    return false;
  });
  owned_lock_leave(&engine.mapping_lock);
}

}  // namespace ceilmeter
