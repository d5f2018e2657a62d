// The growing table behind the function watches. Every change of a bucket's content goes through fill_bucket or
// clear_bucket. These two keep the order list: a bucket is in the list exactly while its distance is not negative.
#include "bi/containers/robin_map.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace ceilmeter {
namespace {

constexpr std::uint32_t initial_capacity = 64;
constexpr std::uint32_t initial_chunk_blocks = 16384;  // Doubled before the first chunk is mapped.

// A chunk begins with the link to the chunk before it (8 bytes) and its own length (4 bytes); blocks follow at once.
constexpr std::size_t chunk_length_offset = 8;
constexpr std::size_t chunk_blocks_offset = 12;
constexpr std::size_t chunk_overhead = 16;

// What moves from bucket to bucket.
struct robin_record {
  std::uint64_t key;
  std::int32_t distance;
  void* value;
};

// Links inside chunks and blocks stand at addresses that are no multiple of eight.
void* load_link(const void* place) {
  void* link;
  std::memcpy(&link, place, sizeof link);
  return link;
}

void store_link(void* place, void* link) { std::memcpy(place, &link, sizeof link); }

void* pool_take(block_pool* pool) {
  void* block = pool->free_list;
  if (block == nullptr) return pool_grow(pool);
  pool->free_list = load_link(block);
  return block;
}

void pool_give(block_pool* pool, void* block) {
  store_link(block, pool->free_list);
  pool->free_list = block;
}

void pool_destroy(block_pool* pool) {
  for (void* chunk = pool->chunks; chunk != nullptr;) {
    void* previous = load_link(chunk);
    std::uint32_t length;
    std::memcpy(&length, static_cast<char*>(chunk) + chunk_length_offset, sizeof length);
    munmap(chunk, length);
    chunk = previous;
  }
  pool->chunks = nullptr;
  pool->free_list = nullptr;
}

robin_bucket* bucket_of(robin_link* link) {
  return reinterpret_cast<robin_bucket*>(reinterpret_cast<char*>(link) - offsetof(robin_bucket, order));
}

void unlink_bucket(robin_bucket* bucket) {
  bucket->order.prev->next = bucket->order.next;
  bucket->order.next->prev = bucket->order.prev;
}

void fill_bucket(robin_map* map, robin_bucket* bucket, const robin_record& record) {
  if (bucket->distance >= 0) unlink_bucket(bucket);
  bucket->key = record.key;
  bucket->distance = record.distance;
  bucket->value = record.value;
  bucket->order = {map->order_head.next, &map->order_head};
  map->order_head.next->prev = &bucket->order;
  map->order_head.next = &bucket->order;
}

void clear_bucket(robin_bucket* bucket) {
  unlink_bucket(bucket);
  bucket->distance = -1;
}

robin_record record_in(const robin_bucket& bucket) { return {bucket.key, bucket.distance, bucket.value}; }

robin_bucket* next_bucket(const robin_map* map, const robin_bucket* bucket) {
  return &map->buckets[(bucket - map->buckets + 1) & map->mask];
}

robin_bucket* find_bucket(const robin_map* map, std::uint64_t key) {
  robin_bucket* bucket = &map->buckets[robin_map_home(map, key)];
  // The walk ends where the key would have displaced the record. An empty bucket's distance of -1 ends it in the same
  // way.
  for (std::int32_t distance = 0; distance <= bucket->distance; ++distance) {
    if (bucket->key == key) return bucket;
    bucket = next_bucket(map, bucket);
  }
  return nullptr;
}

bool needs_growth(const robin_map* map) { return std::uint64_t{map->capacity} * 9 < std::uint64_t{map->count} * 10; }

// Places a key that is not in the map. The map has an empty bucket.
void place_key(robin_map* map, std::uint64_t key, void* value) {
  robin_record carried{key, 0, value};
  robin_bucket* bucket = &map->buckets[robin_map_home(map, key)];
  for (; bucket->distance >= 0; bucket = next_bucket(map, bucket), ++carried.distance) {
    if (bucket->distance >= carried.distance) continue;
    const robin_record displaced = record_in(*bucket);
    fill_bucket(map, bucket, carried);
    carried = displaced;
  }
  fill_bucket(map, bucket, carried);
  ++map->count;
}

bool allocate_buckets(robin_map* map, std::uint32_t capacity) {
  map->buckets = static_cast<robin_bucket*>(std::calloc(capacity, sizeof(robin_bucket)));
  if (map->buckets == nullptr) return false;
  for (std::uint32_t index = 0; index < capacity; ++index) map->buckets[index].distance = -1;
  map->capacity = capacity;
  map->mask = capacity - 1;
  map->count = 0;
  map->order_head = {&map->order_head, &map->order_head};
  return true;
}

}  // namespace

std::uint32_t robin_map_home(const robin_map* map, std::uint64_t key) {
  key = (key ^ (key >> 30)) * 0xbf58476d1ce4e5b9;
  key = (key ^ (key >> 27)) * 0x94d049bb133111eb;
  key = key ^ (key >> 31);
  return static_cast<std::uint32_t>(key) & map->mask;
}

bool robin_map_init(robin_map* map, std::uint32_t value_size) {
  map->value_size = value_size;
  map->pool = {std::max<std::uint32_t>(value_size, sizeof(void*)), initial_chunk_blocks, nullptr, nullptr};
  return allocate_buckets(map, initial_capacity);
}

void robin_map_destroy(robin_map* map) {
  pool_destroy(&map->pool);
  std::free(map->buckets);
  map->buckets = nullptr;
  map->capacity = 0;
  map->count = 0;
  map->mask = 0;
  map->order_head = {&map->order_head, &map->order_head};
}

robin_insert_result robin_map_insert(robin_map* map, std::uint64_t key, const void* value, void** stored) {
  if (stored != nullptr) *stored = nullptr;
  // Grow before looking for the key. So the memory that an insertion costs does not depend on whether the key is there.
  if (needs_growth(map) && !robin_map_grow(map)) return ROBIN_FAILED;
  if (const robin_bucket* found = find_bucket(map, key)) {
    if (stored != nullptr) *stored = found->value;
    return ROBIN_EXISTS;
  }
  void* block = pool_take(&map->pool);
  if (block == nullptr) return ROBIN_FAILED;
  std::memcpy(block, value, map->value_size);
  place_key(map, key, block);
  if (stored != nullptr) *stored = block;
  return ROBIN_ADDED;
}

void* robin_map_lookup(const robin_map* map, std::uint64_t key) {
  const robin_bucket* bucket = find_bucket(map, key);
  return bucket != nullptr ? bucket->value : nullptr;
}

bool robin_map_remove(robin_map* map, std::uint64_t key) {
  robin_bucket* hole = find_bucket(map, key);
  if (hole == nullptr) return false;
  pool_give(&map->pool, hole->value);
  clear_bucket(hole);
  for (robin_bucket* next = next_bucket(map, hole); next->distance > 0; next = next_bucket(map, next)) {
    robin_record record = record_in(*next);
    --record.distance;
    clear_bucket(next);
    fill_bucket(map, hole, record);
    hole = next;
  }
  --map->count;
  return true;
}

bool robin_map_grow(robin_map* map) {
  if (map->capacity > UINT32_MAX / 2) return false;
  // The values stay where they are: `grown` never touches a pool.
  robin_map grown{};
  if (!allocate_buckets(&grown, map->capacity * 2)) return false;
  for (robin_bucket* bucket = robin_map_oldest(map); bucket != nullptr; bucket = robin_map_newer(map, bucket)) {
    if (needs_growth(&grown) && !robin_map_grow(&grown)) {
      std::free(grown.buckets);
      return false;
    }
    place_key(&grown, bucket->key, bucket->value);
  }
  std::free(map->buckets);
  map->buckets = grown.buckets;
  map->capacity = grown.capacity;
  map->mask = grown.mask;
  map->count = grown.count;
  map->order_head = {&map->order_head, &map->order_head};
  if (grown.count != 0) {
    map->order_head = grown.order_head;
    map->order_head.next->prev = &map->order_head;
    map->order_head.prev->next = &map->order_head;
  }
  return true;
}

int robin_map_check(const robin_map* map) {
  std::uint32_t filled = 0;
  for (std::uint32_t index = 0; index < map->capacity; ++index) {
    if (map->buckets[index].distance >= 0) ++filled;
  }
  if (filled != map->count) return 0;

  // Follow a link only when it is known to be the link of a bucket of this map.
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(map->buckets) + offsetof(robin_bucket, order);
  const robin_link* link = &map->order_head;
  for (std::uint32_t visited = 0; visited <= filled; ++visited) {
    const robin_link* next = link->next;
    if (next != &map->order_head) {
      const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(next) - first;
      if (offset % sizeof(robin_bucket) != 0 || offset / sizeof(robin_bucket) >= map->capacity) return 0;
      if (map->buckets[offset / sizeof(robin_bucket)].distance < 0) return 0;
    }
    if (next->prev != link) return 0;
    if (next == &map->order_head) return visited == filled ? 1 : 0;
    link = next;
  }
  return 0;
}

robin_bucket* robin_map_oldest(robin_map* map) {
  robin_link* link = map->order_head.prev;
  return link != &map->order_head ? bucket_of(link) : nullptr;
}

robin_bucket* robin_map_newer(robin_map* map, robin_bucket* bucket) {
  robin_link* link = bucket->order.prev;
  return link != &map->order_head ? bucket_of(link) : nullptr;
}

void* pool_grow(block_pool* pool) {
  const std::uint64_t blocks = std::uint64_t{pool->chunk_blocks} * 2;
  if (blocks > UINT32_MAX) return nullptr;
  const std::uint64_t length = blocks * pool->block_size + chunk_overhead;
  if (length > UINT32_MAX) return nullptr;
  void* mapping = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return nullptr;

  auto* chunk = static_cast<char*>(mapping);
  const auto short_length = static_cast<std::uint32_t>(length);
  store_link(chunk, pool->chunks);
  std::memcpy(chunk + chunk_length_offset, &short_length, sizeof short_length);
  pool->chunks = chunk;
  pool->chunk_blocks = static_cast<std::uint32_t>(blocks);

  char* const block = chunk + chunk_blocks_offset;
  char* const last = block + (blocks - 1) * pool->block_size;
  for (char* place = block; place != last; place += pool->block_size) store_link(place, place + pool->block_size);
  store_link(last, pool->free_list);
  pool->free_list = load_link(block);
  return block;
}

}  // namespace ceilmeter
