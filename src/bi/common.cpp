// The engine's fixed containers. They do little and must do exactly that: emitted code probes the hash table by the same
// rules, and the oddities of the interval map decide which unmappings flush a code cache. Each stands at its place.
#include "bi/common.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdlib>

#include "common/log.h"

namespace ceilmeter {
namespace {

constexpr engine_log log{"src/bi/common"};

}  // namespace

// hash_table ---------------------------------------------------------------------------------------------------------

void hash_init(hash_table* table, std::int32_t size) {
  table->size = size;
  table->collisions = 0;
  hash_entry* entries = hash_entries(table);
  for (std::int32_t index = 0; index < size; ++index) {
    // Read before written: a page of a fresh mapping that holds nothing stays the kernel's shared page of zeroes, and
    // a thread pays memory only for the slots that it uses.
    if (entries[index].key != 0) entries[index].key = 0;
  }
}

std::uint64_t hash_lookup(const hash_table* table, std::uint64_t key) {
  const hash_entry* entries = hash_entries(table);
  const std::int32_t last = table->size - 1;
  for (std::int32_t index = hash_home(table, key); index < last; ++index) {
    // The empty slot first, as in emitted code: the other way round key 0 would be found in it.
    if (entries[index].key == 0) return HASH_MISS;
    if (entries[index].key == key) return entries[index].value;
  }
  return HASH_MISS;
}

bool hash_has_room(const hash_table* table, std::uint64_t key) {
  const hash_entry* entries = hash_entries(table);
  const std::int32_t last = table->size - 1;
  std::int32_t index = hash_home(table, key);
  while (index < last && entries[index].key != 0 && entries[index].key != key) ++index;
  return index < last;
}

bool hash_add(hash_table* table, std::uint64_t key, std::uint64_t value) {
  hash_entry* entries = hash_entries(table);
  std::int32_t index = hash_home(table, key);
  while (entries[index].key != 0 && entries[index].key != key) {
    ++index;
    if (index == table->size - 1) log(LEVEL_FATAL, "hash table index overflow");
    ++table->collisions;
  }
  if (entries[index].key == 0) ++table->count;
  entries[index] = {key, value};
  return true;
}

void hash_delete(hash_table* table, std::uint64_t key) {
  hash_entry* entries = hash_entries(table);
  const std::int32_t home = hash_home(table, key);
  std::int32_t index = home;
  // The wrap masks with the plain size, 2^k + 9, and so knows only the slots whose index is made of that number's bits:
  // beyond its home a key is found by chance. Left as it is, since no path of the engine deletes. Such a probe can also
  // circle without meeting home again: after as many steps as there are slots it has seen all that it ever will.
  for (std::int32_t step = 0; step < table->size; ++step) {
    if (entries[index].key == 0) return;
    if (entries[index].key == key) {
      entries[index].key = 0;
      return;
    }
    index = (index + 1) & table->size;
    if (index == home) return;
  }
}

// linked_pool --------------------------------------------------------------------------------------------------------

void linked_pool_init(linked_pool* pool, std::uint32_t capacity) {
  linked_record* records = linked_pool_records(pool);
  for (std::uint32_t index = 0; index < capacity; ++index) {
    records[index].next = index + 1 < capacity ? &records[index + 1] : nullptr;
  }
  pool->free_head = capacity != 0 ? records : nullptr;
  pool->capacity = capacity;
}

void linked_pool_init_zeroed(linked_pool* pool, std::uint32_t capacity) {
  pool->free_head = capacity != 0 ? linked_pool_records(pool) : nullptr;
  pool->capacity = capacity;
}

linked_record* linked_pool_alloc(linked_pool* pool) {
  linked_record* record = pool->free_head;
  if (record == nullptr) return nullptr;
  linked_record* following = record + 1;
  if (record->next != nullptr) {
    pool->free_head = record->next;
  } else {
    // The last record, or one that has never been threaded: the free ones follow each other then.
    pool->free_head = following != linked_pool_records(pool) + pool->capacity ? following : nullptr;
  }
  record->next = nullptr;
  return record;
}

// interval_map -------------------------------------------------------------------------------------------------------

namespace {

// A dead entry passes this test too if the range encloses both its ends; the range then counts and swallows it.
bool overlaps(const interval_entry& entry, std::uint64_t start, std::uint64_t end) {
  return entry.end > start && entry.start < end;
}

void close_descriptor(std::int32_t fd) {
  if (fd >= 0) close(fd);
}

// The application may start programs, which are not to find the map's descriptors open.
std::int32_t duplicate_descriptor(std::int32_t fd) { return fd >= 0 ? fcntl(fd, F_DUPFD_CLOEXEC, 0) : fd; }

// The last entry takes the place of the removed one. The walks below run downwards and have seen it already.
void remove_entry(interval_map* map, std::int64_t index) {
  close_descriptor(map->entries[index].fd);
  --map->count;
  map->entries[index] = map->entries[map->count];
}

// Adds a range that is not empty. The lock is held; `fd` is the map's from here on.
void add_range(interval_map* map, std::uint64_t start, std::uint64_t end, std::int32_t fd) {
  std::int64_t kept = -1;
  for (std::int64_t index = map->count - 1; index >= 0; --index) {
    const interval_entry entry = map->entries[index];
    if (!overlaps(entry, start, end)) continue;
    start = std::min(start, entry.start);
    end = std::max(end, entry.end);
    if (kept < 0) {
      kept = index;
    } else {
      remove_entry(map, index);
    }
    // `kept` is not corrected when the removal has moved the kept entry, which was then the last one: the widening goes
    // to the slot that it left, beyond the live ones, and the kept entry lacks what this removed one alone covered.
    // Left so on purpose: which ranges a map holds decides when code caches are flushed.
    map->entries[kept].start = start;
    map->entries[kept].end = end;
  }
  if (kept < 0) {
    if (map->count < map->capacity) {
      map->entries[map->count++] = {start, end, fd};
    } else {
      close_descriptor(fd);  // A full map drops the range, and its descriptor with it.
    }
  }
  // Where ranges merged, `fd` stays open and belongs to nobody: the union goes on with the kept entry's.
  log(LEVEL_TRACE, "imap added: %lx %lx", start, end);
  interval_map_print(map);
}

// Takes the part of an overlapping entry that lies in [start, end) out of it.
void cut_entry(interval_map* map, std::int64_t index, std::uint64_t start, std::uint64_t end) {
  interval_entry& entry = map->entries[index];
  if (entry.start >= start && entry.end <= end) {
    remove_entry(map, index);
  } else if (entry.start == start && entry.end > end) {
    entry.start = end;
  } else if (entry.start < start && entry.end == end) {
    entry.end = start;
  } else {
    // One treatment for three cases. An entry around the range is split. One that ends inside it loses its upper part,
    // and the second half, being empty, is refused. One that starts inside it goes on as the second half, and leaves
    // behind a dead entry whose end lies below its start: that still holds a slot and a descriptor, and overlaps
    // nothing but a range around both its ends, which swallows it.
    const std::uint64_t old_end = entry.end;
    entry.end = start;
    if (end < old_end) add_range(map, end, old_end, duplicate_descriptor(entry.fd));
  }
}

}  // namespace

int interval_map_init(interval_map* map, std::int64_t capacity) {
  map->capacity = capacity;
  map->count = 0;
  map->entries = nullptr;
  if (capacity < 0) return -1;
  map->entries = static_cast<interval_entry*>(std::calloc(static_cast<std::size_t>(capacity), sizeof(interval_entry)));
  if (map->entries == nullptr) return -1;
  if (pthread_mutex_init(&map->lock, nullptr) != 0) {
    std::free(map->entries);
    map->entries = nullptr;
    return -1;
  }
  return 0;
}

int interval_map_add(interval_map* map, std::uint64_t start, std::uint64_t end, std::int32_t fd) {
  if (start >= end) return -1;
  const std::int32_t duplicate = duplicate_descriptor(fd);
  if (pthread_mutex_lock(&map->lock) != 0) {
    close_descriptor(duplicate);
    return -1;
  }
  add_range(map, start, end, duplicate);
  pthread_mutex_unlock(&map->lock);
  return 0;
}

std::int64_t interval_map_delete(interval_map* map, std::uint64_t start, std::uint64_t end) {
  if (start >= end || pthread_mutex_lock(&map->lock) != 0) return -1;
  std::int64_t touched = 0;
  for (std::int64_t index = map->count - 1; index >= 0; --index) {
    if (!overlaps(map->entries[index], start, end)) continue;
    ++touched;
    cut_entry(map, index, start, end);
  }
  if (touched > 0) {
    log(LEVEL_TRACE, "imap deleted: %lx %lx", start, end);
    interval_map_print(map);
  }
  pthread_mutex_unlock(&map->lock);
  return touched;
}

std::int64_t interval_map_overlapping(interval_map* map, std::uint64_t start, std::uint64_t end) {
  if (start >= end || pthread_mutex_lock(&map->lock) != 0) return -1;
  const std::int64_t found = std::count_if(map->entries, map->entries + map->count,
                                           [=](const interval_entry& entry) { return overlaps(entry, start, end); });
  pthread_mutex_unlock(&map->lock);
  return found;
}

void interval_map_forget_descriptors(interval_map* map, std::uint32_t first, std::uint32_t last) {
  if (pthread_mutex_lock(&map->lock) != 0) return;
  for (std::int64_t index = 0; index < map->count; ++index) {
    std::int32_t& fd = map->entries[index].fd;
    if (fd >= 0 && static_cast<std::uint32_t>(fd) >= first && static_cast<std::uint32_t>(fd) <= last) fd = -1;
  }
  pthread_mutex_unlock(&map->lock);
}

bool interval_map_is_full(interval_map* map) {
  if (pthread_mutex_lock(&map->lock) != 0) return true;
  const bool full = map->count >= map->capacity;
  pthread_mutex_unlock(&map->lock);
  return full;
}

int interval_map_search(interval_map* map, std::uint64_t address, interval_entry* out) {
  if (out == nullptr || pthread_mutex_lock(&map->lock) != 0) return -1;
  int found = 0;
  for (std::int64_t index = map->count - 1; index >= 0 && found == 0; --index) {
    const interval_entry& entry = map->entries[index];
    if (entry.start <= address && entry.end > address) {
      *out = entry;
      found = 1;
    }
  }
  pthread_mutex_unlock(&map->lock);
  return found;
}

void interval_map_print(const interval_map* map) {
  if (log_state::engine_log_level <= LEVEL_DEBUG) return;
  log(LEVEL_TRACE, "imap %p:", static_cast<const void*>(map));
  for (std::int64_t index = 0; index < map->count; ++index) {
    log(LEVEL_TRACE, "  %lx - %lx", map->entries[index].start, map->entries[index].end);
  }
}

// Register masks -----------------------------------------------------------------------------------------------------

std::uint32_t bitmask_next_set(std::uint32_t mask, std::uint32_t start) {
  if (start > 31) return 32;
  const std::uint32_t rest = mask >> start << start;
  return static_cast<std::uint32_t>(std::countr_zero(rest));
}

std::uint32_t bitmask_prev_set(std::uint32_t mask, std::uint32_t start) {
  if (start > 31) return 32;
  const std::uint32_t rest = mask << (31 - start) >> (31 - start);
  return rest != 0 ? 31 - static_cast<std::uint32_t>(std::countl_zero(rest)) : 32;
}

int lowest_bits(std::uint32_t mask, std::uint32_t* out, int n) {
  int found = 0;
  std::uint32_t start = 0;
  for (int index = 0; index < n; ++index) {
    out[index] = bitmask_next_set(mask, start);
    if (out[index] < 32) ++found;
    start = out[index] + 1;
  }
  return found;
}

int highest_bits(std::uint32_t mask, std::uint32_t* out, int n) {
  int found = 0;
  std::uint32_t start = 31;
  for (int index = 0; index < n; ++index) {
    out[index] = bitmask_prev_set(mask, start);
    if (out[index] < 32) ++found;
    // Below bit 0 the subtraction wraps to what no scan starts at. A scan that ended may not start again at bit 31.
    start = out[index] < 32 ? out[index] - 1 : 32;
  }
  return found;
}

int popcount32(std::uint32_t mask) { return std::popcount(mask); }

}  // namespace ceilmeter
