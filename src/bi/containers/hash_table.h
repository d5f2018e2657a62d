// Open addressing, upward probing, no growth. The slots follow the header in line, so that one 64-bit constant in
// emitted code addresses the whole table:
//
//   home slot   0 ............................ size - 10 | size - 9 ....... size - 2 | size - 1
//               2^k slots that a hash can select         | margin: by probing only   | never filled
//
// `size` is 2^k + 9. The hash masks with `size - 10`, not `size - 1`: the nine slots past the mask are the overflow
// margin of a probe that starts at the top. The last of them always stays empty, because emitted code probes without a
// bound and must end there.
//
// A table belongs to one thread. There is no lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "bi/containers/container_offsets.h"

namespace ceilmeter {

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
inline std::uint64_t hash_lookup(const hash_table* table, std::uint64_t key) {
  const hash_entry* entry = hash_entries(table) + hash_home(table, key);
  const hash_entry* const last = hash_entries(table) + (table->size - 1);
  for (; entry < last; ++entry) {
    // Test for the empty slot first, as emitted code does. In the other order key 0 would be found in an empty slot.
    if (entry->key == 0) return HASH_MISS;
    if (entry->key == key) return entry->value;
  }
  return HASH_MISS;
}

// The slot of `key`, or the free one that it would get, whose key is 0. Null if there is neither: every slot from the
// home slot to the table's end is taken. The slot is good until the table changes.
inline hash_entry* hash_find_slot(hash_table* table, std::uint64_t key) {
  hash_entry* entry = hash_entries(table) + hash_home(table, key);
  const hash_entry* const last = hash_entries(table) + (table->size - 1);
  while (entry < last && entry->key != 0 && entry->key != key) ++entry;
  return entry < last ? entry : nullptr;
}

// Whether hash_add would find a place for `key`.
inline bool hash_has_room(hash_table* table, std::uint64_t key) { return hash_find_slot(table, key) != nullptr; }

// Stores the pair in the slot that hash_find_slot has found for the key.
inline void hash_fill_slot(hash_table* table, hash_entry* slot, std::uint64_t key, std::uint64_t value) {
  table->collisions += static_cast<std::uint32_t>(slot - (hash_entries(table) + hash_home(table, key)));
  if (slot->key == 0) ++table->count;
  *slot = {key, value};
}

// Stores the pair; a key that is there gets the new value. Returns true. A run of occupied slots that reaches the
// table's end is fatal: a table without room for a block would scan that block again at each visit.
[[noreturn]] void refuse_full_table();
inline bool hash_add(hash_table* table, std::uint64_t key, std::uint64_t value) {
  hash_entry* const slot = hash_find_slot(table, key);
  if (slot == nullptr) refuse_full_table();
  hash_fill_slot(table, slot, key, value);
  return true;
}

// Empties the slot of `key`, if it finds the slot. Not for the engine's own paths: its probe differs from hash_add's
// (see the definition), and an emptied slot cuts the probes that led over it.
void hash_delete(hash_table* table, std::uint64_t key);

}  // namespace ceilmeter
