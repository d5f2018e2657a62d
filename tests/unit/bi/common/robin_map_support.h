// What the tests of robin_map look at: the order list as keys, buckets by index, and keys chosen by their home.
#pragma once

#include <cstring>
#include <stdexcept>
#include <vector>

#include "bi/containers/robin_map.h"

namespace ceilmeter::test {

// Frees the map at its end.
class scratch_robin_map {
 public:
  explicit scratch_robin_map(std::uint32_t value_size = 8) {
    if (!robin_map_init(&map, value_size)) throw std::runtime_error("cannot make a map");
  }
  ~scratch_robin_map() { robin_map_destroy(&map); }
  scratch_robin_map(const scratch_robin_map&) = delete;
  scratch_robin_map& operator=(const scratch_robin_map&) = delete;

  // Inserts with a value of 64 bits.
  robin_insert_result insert(std::uint64_t key, std::uint64_t value = 0) {
    return robin_map_insert(&map, key, &value, nullptr);
  }

  std::vector<std::uint64_t> keys_from_the_tail() {
    std::vector<std::uint64_t> keys;
    for (robin_bucket* bucket = robin_map_oldest(&map); bucket != nullptr; bucket = robin_map_newer(&map, bucket)) {
      keys.push_back(bucket->key);
      if (keys.size() > map.capacity) throw std::runtime_error("the order list has a circle of its own");
    }
    return keys;
  }

  robin_map map{};
};

inline std::uint64_t value_at(const void* block) {
  std::uint64_t value;
  std::memcpy(&value, block, sizeof value);
  return value;
}

// The `number`th key, from 0, whose home is `home` in a map of 64 buckets.
inline std::uint64_t key_with_home(std::uint32_t home, int number = 0) {
  robin_map map{};
  map.mask = 63;
  for (std::uint64_t key = 1;; ++key) {
    if (robin_map_home(&map, key) == home && number-- == 0) return key;
  }
}

}  // namespace ceilmeter::test
