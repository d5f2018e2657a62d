// The engine's fixed containers and its register-mask helpers: hash_table, linked_pool, interval_map. Nothing here
// allocates after its init, and emitted code reads hash_table's slots itself: their layout and their hash are a
// contract with the inline lookup. The growing table stands in bi/robin_map.h, the fault-tolerant copy in
// bi/checked_copy.h; this header brings both.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "bi/checked_copy.h"
#include "bi/container_offsets.h"
#include "bi/robin_map.h"

namespace ceilmeter {

// hash_table ---------------------------------------------------------------------------------------------------------
//
// Open addressing, upward probing, no growth. A header and, in line behind it, `size` slots, so that one 64-bit
// constant in emitted code addresses the whole table:
//
//   home slot   0 ............................ size - 10 | size - 9 ....... size - 2 | size - 1
//               2^k slots that a hash can select         | margin: by probing only   | never filled
//
// `size` is 2^k + 9. The hash masks with `size - 10`, not `size - 1`: the nine slots past the mask are the overflow
// margin of a probe that starts at the top. The last of them stays empty for ever: emitted code probes without a bound
// and comes to its end there.
//
// A table belongs to one thread. There is no lock.

struct hash_entry {
  std::uint64_t key;  // 0 marks an empty slot; 0 is never a key.
  std::uint64_t value;
};

struct alignas(16) hash_table {
  std::int32_t size;
  std::uint32_t collisions;  // Probes past an occupied slot, in hash_add.
  std::uint32_t count;       // Insertions into empty slots since the memory was zeroed: hash_init leaves it alone.
  // Here the slots follow: hash_entries.
};

// A table with its slots, for a record that holds one in line.
template <std::int32_t slots>
struct sized_hash_table {
  hash_table table;
  hash_entry entries[slots];
};

static_assert(sizeof(hash_entry) == HASH_ENTRY_BYTES);
static_assert(offsetof(hash_entry, key) == HASH_ENTRY_KEY_OFFSET);
static_assert(offsetof(hash_entry, value) == HASH_ENTRY_VALUE_OFFSET);
static_assert(offsetof(hash_table, size) == HASH_TABLE_SIZE_OFFSET);
static_assert(offsetof(hash_table, collisions) == HASH_TABLE_COLLISIONS_OFFSET);
static_assert(offsetof(hash_table, count) == HASH_TABLE_COUNT_OFFSET);
static_assert(sizeof(hash_table) == HASH_TABLE_ENTRIES_OFFSET);
static_assert(offsetof(sized_hash_table<17>, entries) == HASH_TABLE_ENTRIES_OFFSET);

// What hash_lookup returns for a miss: -1, which is no address of anything.
inline constexpr std::uint64_t HASH_MISS = ~std::uint64_t{0};

inline hash_entry* hash_entries(hash_table* table) { return reinterpret_cast<hash_entry*>(table + 1); }
inline const hash_entry* hash_entries(const hash_table* table) {
  return reinterpret_cast<const hash_entry*>(table + 1);
}

// The index of the slot where the search for `key` begins. The two low bits of an instruction's address are 0.
inline std::int32_t hash_home(const hash_table* table, std::uint64_t key) {
  return static_cast<std::int32_t>((key >> 2) & static_cast<std::uint64_t>(table->size - 10));
}

// Empties the table. `size` is 2^k + 9 with k of at least 3, and there is room for that many slots behind the header.
// `count` keeps what it was, so that it counts over all flushes.
void hash_init(hash_table* table, std::int32_t size);

// The value stored with `key`, or HASH_MISS. Key 0 is always a miss.
std::uint64_t hash_lookup(const hash_table* table, std::uint64_t key);

// Whether hash_add would find a place for `key`: not if every slot from its home to the table's end is taken.
bool hash_has_room(const hash_table* table, std::uint64_t key);

// Stores the pair, or a new value with a key that is there. Returns true. A run of occupied slots that reaches the
// table's end is fatal: a table without room for a block would scan that block again at each visit.
bool hash_add(hash_table* table, std::uint64_t key, std::uint64_t value);

// Empties the slot of `key`, if it is found. For callers outside the engine's own paths: its probe is not hash_add's
// (see the definition), and an emptied slot cuts the probes that led over it.
void hash_delete(hash_table* table, std::uint64_t key);

// linked_pool --------------------------------------------------------------------------------------------------------
//
// A fixed pool of two-word list records. Records are not given back one by one: the owner initialises the pool again
// when all that was linked has become void. A pool belongs to one thread.

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

// The same for memory that is zeroed, of which only the header is touched: a fresh mapping stays without memory.
void linked_pool_init_zeroed(linked_pool* pool, std::uint32_t capacity);

// A record with `next` null and `word` as it was, or null when all have been handed out.
linked_record* linked_pool_alloc(linked_pool* pool);

// interval_map -------------------------------------------------------------------------------------------------------
//
// A fixed array of address ranges, each with the duplicate of a file descriptor, which the map owns. Every operation
// holds the map's lock throughout, so that any thread may call any of them but init. Not in a signal handler.
//
// Two ranges overlap if each one's end lies above the other's start: touching is not overlapping. Live ranges never
// overlap each other, since an added range swallows what it overlaps.

struct interval_entry {
  std::uint64_t start;
  std::uint64_t end;  // Exclusive. Below `start` in a dead entry, which interval_map_delete leaves.
  std::int32_t fd;    // Negative: none.
};

struct interval_map {
  std::int64_t capacity;
  std::int64_t count;
  pthread_mutex_t lock;
  interval_entry* entries;  // `capacity` entries on the heap, `count` of them in use, in no order.
};

// Returns 0, or -1 if the array cannot be allocated or the lock fails. The map may not move afterwards.
int interval_map_init(interval_map* map, std::int64_t capacity);

// Adds [start, end) with a duplicate of `fd`; the caller keeps its own. Ranges that it overlaps become one with it, and
// the union keeps the descriptor of one of them. A full map drops the range without an error. Returns 0, or -1 if
// `start` is not below `end` or the lock fails; then no descriptor is duplicated.
int interval_map_add(interval_map* map, std::uint64_t start, std::uint64_t end, std::int32_t fd);

// Takes [start, end) out of the map. An entry that loses its middle becomes two with a descriptor each. Returns the
// number of entries touched, or -1 if `start` is not below `end` or the lock fails.
std::int64_t interval_map_delete(interval_map* map, std::uint64_t start, std::uint64_t end);

// The number of entries that overlap [start, end), or -1 as above.
std::int64_t interval_map_overlapping(interval_map* map, std::uint64_t start, std::uint64_t end);

// The application has closed the descriptors from `first` to `last`, or is about to put its own in their places: the map has
// none of these numbers any more, and will not close them.
void interval_map_forget_descriptors(interval_map* map, std::uint32_t first, std::uint32_t last);

// Whether the map holds as many entries as it can, so that it drops the next one that meets none of them.
bool interval_map_is_full(interval_map* map);

// 1 and in `*out` a copy of the entry that holds `address`; 0 if there is none; -1 if `out` is null or the lock fails.
// The copy's descriptor stays the map's: another thread's call can close it at any time.
int interval_map_search(interval_map* map, std::uint64_t address, interval_entry* out);

// Logs the map at level trace. The caller holds the lock.
void interval_map_print(const interval_map* map);

// Register masks -----------------------------------------------------------------------------------------------------
//
// Bit numbers of a 32-bit mask. 32 stands for "none". Pure functions.

// The lowest set bit at or above `start`. 32 if there is none, and for a `start` above 31.
std::uint32_t bitmask_next_set(std::uint32_t mask, std::uint32_t start);

// The highest set bit at or below `start`. 32 if there is none, and for a `start` above 31, which is where a scan
// arrives that steps below bit 0.
std::uint32_t bitmask_prev_set(std::uint32_t mask, std::uint32_t start);

// Fills out[0] to out[n - 1] with the numbers of the lowest set bits, ascending, then with 32. Returns how many are
// real bits. An `n` below 1 writes nothing.
int lowest_bits(std::uint32_t mask, std::uint32_t* out, int n);

// The same for the highest set bits, descending.
int highest_bits(std::uint32_t mask, std::uint32_t* out, int n);

// The number of set bits.
int popcount32(std::uint32_t mask);

}  // namespace ceilmeter
