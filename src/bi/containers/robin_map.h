// A growing Robin Hood table from a 64-bit key to a value of fixed size; and the block pool that its values live in. A
// list links the buckets; growth and walkers follow it. The order of this list is part of the contract. It is almost
// the order of insertion; these rules say where it differs.
//
//   insertion   Linear probing. The record nearer to its home gives way to the one further from it. Every bucket that
//               is filled, or whose record changes, goes to the head of the list. So a new key that displaces old ones
//               is followed, towards the head, by what it displaced.
//   removal     The records behind shift back by one, up to an empty bucket or a record at home; each goes to the head.
//   growth      Beyond nine tenths. 64 buckets hold 58 entries; the next insertion, even of a key that is there,
//               doubles them first. Records are inserted again from the list's tail, by the same rules.
//
// Bucket pointers become void with any insertion or removal. Value pointers hold until their key is removed. A map
// belongs to one thread, or to whoever holds its owner's lock.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// Blocks of one size, out of chunks that double. Blocks begin 12 bytes into a page-aligned chunk and are only 4-byte
// aligned. Read and write 64-bit fields of a value with memcpy or through a packed record.
struct block_pool {
  std::uint32_t block_size;    // At least 8, the size of the link of a free block.
  std::uint32_t chunk_blocks;  // Blocks of the last chunk; the next one has twice as many.
  void* free_list;             // The first free block; its first eight bytes point at the next.
  void* chunks;                // The last chunk; each begins with the link to the one before.
};

struct robin_link {
  robin_link* next;
  robin_link* prev;
};

struct robin_bucket {
  std::uint64_t key;
  std::int32_t distance;  // From the key's home bucket. -1: the bucket is empty, and the rest means nothing.
  void* value;            // A block of the pool.
  robin_link order;       // `next` leads towards older entries, `prev` towards the head.
};

struct robin_map {
  std::uint32_t capacity;  // A power of two.
  std::uint32_t count;
  std::uint32_t mask;
  std::uint32_t value_size;  // Bytes that an insertion copies.
  block_pool pool;
  robin_link order_head;  // The list's sentinel: `next` is the head, `prev` the tail, both itself in an empty map.
  robin_bucket* buckets;
};

static_assert(offsetof(robin_map, pool) == 16 && offsetof(robin_map, order_head) == 40 &&
              offsetof(robin_map, buckets) == 56 && sizeof(robin_bucket) == 40);

enum robin_insert_result : int {
  ROBIN_FAILED = -1,  // No memory. The map holds what it held.
  ROBIN_EXISTS = 0,   // The key was there; its value is as it was.
  ROBIN_ADDED = 1,
};

// Makes an empty map of 64 buckets. False if they could not be allocated; there is nothing to free then. The map must
// not move while it lives, because its list ends in the map itself.
bool robin_map_init(robin_map* map, std::uint32_t value_size);

// Frees the buckets and all values. The map is to be initialised again before any other use.
void robin_map_destroy(robin_map* map);

// Inserts `key` with a copy of the value_size bytes at `value`, not null. `*stored`, unless `stored` is null, is then
// the key's value, new or found; null after a failure.
robin_insert_result robin_map_insert(robin_map* map, std::uint64_t key, const void* value, void** stored);

// The key's value, or null for a miss.
void* robin_map_lookup(const robin_map* map, std::uint64_t key);

// Removes the key and gives its block back. False if it was not there.
bool robin_map_remove(robin_map* map, std::uint64_t key);

// Doubles the buckets. False, with the map as it was, if there is no memory for them.
bool robin_map_grow(robin_map* map);

// 1 if the order list and the buckets agree: the list visits every filled bucket and no other, its links match in both
// directions, and `count` is their number. 0 otherwise. Reads nothing outside the map even if they do not agree.
int robin_map_check(const robin_map* map);

// The walk from the tail, oldest first: the tail's bucket, and the bucket next towards the head. Null at the end. A
// removal moves buckets, so a walk that removes the bucket that it stands on starts again at the tail.
robin_bucket* robin_map_oldest(robin_map* map);
robin_bucket* robin_map_newer(robin_map* map, robin_bucket* bucket);

// The bucket index where the search for `key` begins.
std::uint32_t robin_map_home(const robin_map* map, std::uint64_t key);

// Maps another chunk and returns its first block, already taken off the free list; the others go to the list's front.
// Null, with the pool as it was, if the chunk cannot be mapped or is too long for its 32-bit length.
void* pool_grow(block_pool* pool);

}  // namespace ceilmeter
