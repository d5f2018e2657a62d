// The free records form a list. If a free record was never handed out and its `next` is null, its neighbour follows it.
#include "bi/containers/linked_pool.h"

namespace ceilmeter {

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
    // Either the last record, or one that was never threaded. After such a record the free ones lie next to each other.
    pool->free_head = following != linked_pool_records(pool) + pool->capacity ? following : nullptr;
  }
  record->next = nullptr;
  return record;
}

}  // namespace ceilmeter
