// What the tests of the table share: a look at its slots, and `table_model`, a plain transcription of the rules that
// shares no code with the table.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "flat_table.h"

namespace ceilmeter {

// A friend of the table: its slots as they are.
struct flat_table_inspector {
  template <typename Key, typename Value>
  static auto generation(const flat_table<Key, Value>& table) {
    return table.generation_;
  }
  template <typename Key, typename Value>
  static auto log2_capacity(const flat_table<Key, Value>& table) {
    return table.log2_capacity_;
  }
  template <typename Key, typename Value>
  static auto allocated(const flat_table<Key, Value>& table) {
    return table.allocated_;
  }
  template <typename Key, typename Value>
  static auto load(const flat_table<Key, Value>& table) {
    return std::pair(table.load_numerator_, table.load_denominator_);
  }
  template <typename Key, typename Value>
  static const auto& states(const flat_table<Key, Value>& table) {
    return table.states_;
  }
  template <typename Key, typename Value>
  static const auto& distances(const flat_table<Key, Value>& table) {
    return table.distances_;
  }
  template <typename Key, typename Value>
  static std::optional<Key> key_at(const flat_table<Key, Value>& table, std::uint64_t slot) {
    if (table.states_[slot] != table.generation_) return std::nullopt;
    return table.slots_[slot].key;
  }
};

using inspect = flat_table_inspector;
using number_table = flat_table<std::uint64_t, int>;
using text_table = flat_table<std::string, std::uint64_t>;

template <typename Table>
std::vector<typename Table::key_type> keys_in_order(const Table& table) {
  std::vector<typename Table::key_type> keys;
  for (const auto& [key, value] : table) keys.push_back(key);
  return keys;
}

struct slot_of_key {
  std::uint64_t slot;
  std::uint64_t key;
  std::uint32_t distance;

  bool operator==(const slot_of_key&) const = default;
};

inline void PrintTo(const slot_of_key& place, std::ostream* out) {
  *out << "{slot " << place.slot << ", key " << place.key << ", distance " << place.distance << "}";
}

template <typename Value>
std::vector<slot_of_key> places(const flat_table<std::uint64_t, Value>& table) {
  std::vector<slot_of_key> found;
  for (std::uint64_t slot = 0; slot < table.capacity(); ++slot) {
    if (const auto key = inspect::key_at(table, slot)) {
      found.push_back({slot, *key, inspect::distances(table)[slot]});
    }
  }
  return found;
}

// The rules, on a vector of optional cells, without any of the table's short cuts.
class table_model {
 public:
  struct cell {
    std::uint64_t key;
    int value;
    std::uint32_t distance;
  };

  void insert(std::uint64_t key, int value) {
    if (!(cells_.size() * 9 > size_ * 10)) grow();
    place({key, value, 0});
  }

  void clear() {
    cells_.assign(cells_.size(), std::nullopt);
    size_ = 0;
  }

  std::vector<slot_of_key> places() const {
    std::vector<slot_of_key> found;
    for (std::size_t slot = 0; slot < cells_.size(); ++slot) {
      if (cells_[slot]) found.push_back({slot, cells_[slot]->key, cells_[slot]->distance});
    }
    return found;
  }

  const cell* search_everywhere(std::uint64_t key) const {
    for (const auto& candidate : cells_) {
      if (candidate && candidate->key == key) return &*candidate;
    }
    return nullptr;
  }

  std::size_t capacity() const { return cells_.size(); }
  std::size_t size() const { return size_; }

 private:
  static std::uint64_t hash(std::uint64_t x) {
    x = (x ^ (x >> 30)) * 13787848793156543929u;
    x = (x ^ (x >> 27)) * 10723151780598845931u;
    return x ^ (x >> 31);
  }

  void place(cell in_hand) {
    std::size_t slot = hash(in_hand.key) % cells_.size();
    in_hand.distance = 0;
    while (cells_[slot]) {
      if (cells_[slot]->key == in_hand.key) return;
      if (cells_[slot]->distance < in_hand.distance) std::swap(*cells_[slot], in_hand);
      ++in_hand.distance;
      slot = (slot + 1) % cells_.size();
    }
    cells_[slot] = in_hand;
    ++size_;
  }

  void grow() {
    ++log2_capacity_;
    std::vector<std::optional<cell>> old(std::size_t{1} << log2_capacity_);
    old.swap(cells_);
    size_ = 0;
    for (const auto& moved : old) {
      if (moved) place(*moved);
    }
  }

  std::vector<std::optional<cell>> cells_;
  std::size_t size_ = 0;
  int log2_capacity_ = 6;
};

// 1000 keys of a seeded generator, dense enough in places that runs and displacements occur.
inline std::vector<std::uint64_t> seeded_keys(unsigned seed, std::size_t count) {
  std::mt19937_64 random(seed);
  std::vector<std::uint64_t> keys(count);
  for (auto& key : keys) key = (random() & 1) != 0 ? random() : 0x400000 + (random() % 4096) * 4;
  return keys;
}

}  // namespace ceilmeter
