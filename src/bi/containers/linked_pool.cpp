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

}  // namespace ceilmeter
