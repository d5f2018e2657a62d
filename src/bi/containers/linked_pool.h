// A fixed pool of two-word list records. Records are not given back one by one. When all links have become void, the
// owner initialises the pool again. A pool belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/containers/container_offsets.h"

namespace ceilmeter {

struct linked_record {
  linked_record* next;
  std::uint64_t word;  // The owner's.
};

struct alignas(16) linked_pool {
  linked_record* free_head;
  std::uint32_t capacity;
  // Here the records follow: linked_pool_records.
};

static_assert(sizeof(linked_record) == LINKED_RECORD_BYTES);
static_assert(offsetof(linked_record, next) == LINKED_RECORD_NEXT_OFFSET);
static_assert(offsetof(linked_record, word) == LINKED_RECORD_WORD_OFFSET);
static_assert(offsetof(linked_pool, free_head) == LINKED_POOL_FREE_HEAD_OFFSET);
static_assert(offsetof(linked_pool, capacity) == LINKED_POOL_CAPACITY_OFFSET);
static_assert(sizeof(linked_pool) == LINKED_POOL_RECORDS_OFFSET);

inline linked_record* linked_pool_records(linked_pool* pool) { return reinterpret_cast<linked_record*>(pool + 1); }

// The size of the memory that a pool of `capacity` records takes, header included.
constexpr std::size_t linked_pool_bytes(std::uint32_t capacity) {
  return sizeof(linked_pool) + std::size_t{capacity} * sizeof(linked_record);
}

// Makes all records free, in order of their addresses. The caller provides linked_pool_bytes(capacity).
void linked_pool_init(linked_pool* pool, std::uint32_t capacity);

// The same for zeroed memory. It touches the header only, so the pages of a fresh mapping stay unused.
void linked_pool_init_zeroed(linked_pool* pool, std::uint32_t capacity);

// A record with `next` null and `word` as it was, or null when all have been handed out.
inline linked_record* linked_pool_alloc(linked_pool* pool) {
  linked_record* record = pool->free_head;
  if (record == nullptr) return nullptr;
  linked_record* following = record + 1;
  if (record->next != nullptr) {
    pool->free_head = record->next;
  } else {
    // Either the last record, or one that was never threaded. After such a record the free ones lie next to each other.
    pool->free_head = following != linked_pool_records(pool) + pool->capacity ? following : nullptr;
  }
  record->next = nullptr;
  return record;
}

}  // namespace ceilmeter
