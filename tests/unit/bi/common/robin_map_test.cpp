// The growing table, case by case: the places of records, the order list, and when it grows. The expected homes were
// computed with the mixing function in Python's unbounded integers. Keys with a wanted home are found by trial.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>

#include "robin_map_support.h"

namespace ceilmeter {
namespace {

using test::key_with_home;
using test::scratch_robin_map;
using test::value_at;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class robin_map_test : public ::testing::Test {
 protected:
  const robin_bucket& bucket(std::uint32_t index) const { return map->buckets[index]; }
  void fill_to(std::uint32_t count) {
    for (std::uint64_t key = 1; map->count < count; ++key) scratch.insert(0x400000 + key * 4, key);
  }

  scratch_robin_map scratch;
  robin_map* map = &scratch.map;
};

TEST_F(robin_map_test, init_makes_64_empty_buckets_and_a_list_that_ends_in_itself) {
  EXPECT_EQ(map->capacity, 64U);
  EXPECT_EQ(map->count, 0U);
  EXPECT_EQ(map->mask, 63U);
  EXPECT_EQ(map->value_size, 8U);
  EXPECT_EQ(map->pool.block_size, 8U);
  EXPECT_EQ(map->pool.chunk_blocks, 16384U);
  EXPECT_EQ(map->pool.free_list, nullptr);
  EXPECT_EQ(map->pool.chunks, nullptr);
  EXPECT_EQ(map->order_head.next, &map->order_head);
  EXPECT_EQ(map->order_head.prev, &map->order_head);
  for (std::uint32_t index = 0; index < 64; ++index) EXPECT_EQ(bucket(index).distance, -1) << index;
  EXPECT_EQ(robin_map_check(map), 1);
}

TEST_F(robin_map_test, home_is_the_masked_low_half_of_the_mixed_key) {
  map->mask = 0xffffffff;
  EXPECT_EQ(robin_map_home(map, 0), 0U);
  EXPECT_EQ(robin_map_home(map, 1), 0x100b05e5U);
  EXPECT_EQ(robin_map_home(map, 2), 0x3a2b148aU);
  EXPECT_EQ(robin_map_home(map, 0x1000), 0x5d06b780U);
  EXPECT_EQ(robin_map_home(map, 0x7000000000), 0x7e4fc5b2U);
  EXPECT_EQ(robin_map_home(map, 0x123456789abcdef0), 0x8ec5b906U);
  EXPECT_EQ(robin_map_home(map, 0xffffffffffffffff), 0xf2cbbd7bU);
  map->mask = 63;
  EXPECT_EQ(robin_map_home(map, 0x400000), 41U);
  map->mask = 127;
  EXPECT_EQ(robin_map_home(map, 1), 101U);
}

TEST_F(robin_map_test, empty_home_bucket_is_a_miss) {
  EXPECT_EQ(robin_map_lookup(map, 1), nullptr);
  scratch.insert(key_with_home(11), 1);
  EXPECT_EQ(robin_map_lookup(map, key_with_home(10)), nullptr);
}

TEST_F(robin_map_test, key_zero_is_a_key_like_any_other) {
  EXPECT_EQ(robin_map_lookup(map, 0), nullptr);
  EXPECT_EQ(scratch.insert(0, 5), ROBIN_ADDED);
  EXPECT_EQ(value_at(robin_map_lookup(map, 0)), 5U);
}

TEST_F(robin_map_test, insertion_into_an_empty_home_has_distance_zero_and_heads_the_list) {
  const std::uint64_t first = key_with_home(10), second = key_with_home(3);
  EXPECT_EQ(scratch.insert(first, 1), ROBIN_ADDED);
  EXPECT_EQ(scratch.insert(second, 2), ROBIN_ADDED);
  EXPECT_EQ(bucket(10).key, first);
  EXPECT_EQ(bucket(10).distance, 0);
  EXPECT_EQ(map->count, 2U);
  EXPECT_EQ(map->order_head.next, &bucket(3).order);
  EXPECT_EQ(map->order_head.prev, &bucket(10).order);
}

TEST_F(robin_map_test, insertion_of_a_key_that_is_there_finds_its_value_and_changes_nothing) {
  const std::uint64_t value = 1, other = 2;
  void* stored = nullptr;
  void* found = nullptr;
  ASSERT_EQ(robin_map_insert(map, 77, &value, &stored), ROBIN_ADDED);
  scratch.insert(78);
  EXPECT_EQ(robin_map_insert(map, 77, &other, &found), ROBIN_EXISTS);
  EXPECT_EQ(found, stored);
  EXPECT_EQ(value_at(found), 1U);
  EXPECT_EQ(map->count, 2U);
  EXPECT_THAT(scratch.keys_from_the_tail(), ElementsAre(77, 78));
}

TEST_F(robin_map_test, key_that_exists_away_from_its_home_is_found_by_an_insertion) {
  scratch.insert(key_with_home(10, 0));
  scratch.insert(key_with_home(10, 1));
  EXPECT_EQ(scratch.insert(key_with_home(10, 1)), ROBIN_EXISTS);
  EXPECT_EQ(map->count, 2U);
}

TEST_F(robin_map_test, record_nearer_to_its_home_gives_way_and_both_go_to_the_lists_head) {
  const std::uint64_t a = key_with_home(10, 0), b = key_with_home(10, 1), c = key_with_home(11),
                      d = key_with_home(10, 2);
  const std::uint64_t elsewhere = key_with_home(40);
  scratch.insert(a);
  scratch.insert(b);  // 11, distance 1
  scratch.insert(c);  // 12, distance 1
  scratch.insert(elsewhere);
  scratch.insert(d);  // takes 12 with distance 2; c goes on to 13
  EXPECT_EQ(bucket(12).key, d);
  EXPECT_EQ(bucket(12).distance, 2);
  EXPECT_EQ(bucket(13).key, c);
  EXPECT_EQ(bucket(13).distance, 2);
  EXPECT_THAT(scratch.keys_from_the_tail(), ElementsAre(a, b, elsewhere, d, c));
  EXPECT_EQ(robin_map_check(map), 1);
}

TEST_F(robin_map_test, record_as_far_from_its_home_as_the_carried_one_keeps_its_bucket) {
  const std::uint64_t a = key_with_home(10, 0), b = key_with_home(10, 1), c = key_with_home(11);
  scratch.insert(a);
  scratch.insert(b);
  scratch.insert(c);
  EXPECT_EQ(bucket(11).key, b);
  EXPECT_EQ(bucket(12).key, c);
  EXPECT_EQ(bucket(12).distance, 1);
}

TEST_F(robin_map_test, displaced_records_keep_their_values) {
  scratch.insert(key_with_home(10, 0), 100);
  scratch.insert(key_with_home(10, 1), 101);
  scratch.insert(key_with_home(11), 110);
  scratch.insert(key_with_home(10, 2), 102);
  EXPECT_EQ(value_at(robin_map_lookup(map, key_with_home(11))), 110U);
  EXPECT_EQ(value_at(robin_map_lookup(map, key_with_home(10, 2))), 102U);
}

TEST_F(robin_map_test, probing_wraps_at_the_last_bucket) {
  scratch.insert(key_with_home(63, 0), 1);
  scratch.insert(key_with_home(63, 1), 2);
  scratch.insert(key_with_home(63, 2), 3);
  EXPECT_EQ(bucket(0).key, key_with_home(63, 1));
  EXPECT_EQ(bucket(1).distance, 2);
  EXPECT_EQ(value_at(robin_map_lookup(map, key_with_home(63, 2))), 3U);
  EXPECT_EQ(robin_map_lookup(map, key_with_home(63, 3)), nullptr);
  EXPECT_TRUE(robin_map_remove(map, key_with_home(63, 0)));
  EXPECT_EQ(bucket(63).key, key_with_home(63, 1));
  EXPECT_EQ(bucket(0).key, key_with_home(63, 2));
  EXPECT_EQ(bucket(1).distance, -1);
}

TEST_F(robin_map_test, removal_shifts_back_what_follows_and_relinks_it_at_the_lists_head) {
  const std::uint64_t a = key_with_home(10, 0), b = key_with_home(10, 1), c = key_with_home(11),
                      at_home = key_with_home(13);
  const std::uint64_t elsewhere = key_with_home(40);
  for (const std::uint64_t key : {a, b, c, at_home, elsewhere}) scratch.insert(key);
  EXPECT_TRUE(robin_map_remove(map, a));
  EXPECT_EQ(bucket(10).key, b);
  EXPECT_EQ(bucket(10).distance, 0);
  EXPECT_EQ(bucket(11).key, c);
  EXPECT_EQ(bucket(11).distance, 0);
  EXPECT_EQ(bucket(12).distance, -1);
  EXPECT_EQ(bucket(13).key, at_home) << "a record at home does not shift";
  EXPECT_THAT(scratch.keys_from_the_tail(), ElementsAre(at_home, elsewhere, b, c));
  EXPECT_EQ(map->count, 4U);
  EXPECT_EQ(robin_map_check(map), 1);
}

TEST_F(robin_map_test, removal_of_a_key_that_is_not_there_changes_nothing) {
  scratch.insert(1);
  EXPECT_FALSE(robin_map_remove(map, 2));
  EXPECT_EQ(map->count, 1U);
  EXPECT_EQ(robin_map_check(map), 1);
}

TEST_F(robin_map_test, removed_values_block_is_the_next_one_given) {
  scratch.insert(1, 11);
  scratch.insert(2, 22);
  void* freed = robin_map_lookup(map, 1);
  robin_map_remove(map, 1);
  EXPECT_EQ(robin_map_lookup(map, 1), nullptr);
  scratch.insert(3, 33);
  EXPECT_EQ(robin_map_lookup(map, 3), freed);
  EXPECT_EQ(value_at(robin_map_lookup(map, 2)), 22U);
}

TEST_F(robin_map_test, last_key_removed_leaves_a_list_that_ends_in_itself) {
  scratch.insert(1);
  robin_map_remove(map, 1);
  EXPECT_EQ(map->order_head.next, &map->order_head);
  EXPECT_EQ(map->order_head.prev, &map->order_head);
  EXPECT_THAT(scratch.keys_from_the_tail(), IsEmpty());
}

TEST_F(robin_map_test, insertion_at_57_entries_does_not_grow) {
  fill_to(58);
  EXPECT_EQ(map->capacity, 64U);
}

TEST_F(robin_map_test, next_insertion_at_58_of_64_grows) {
  fill_to(58);
  EXPECT_EQ(scratch.insert(1), ROBIN_ADDED);
  EXPECT_EQ(map->capacity, 128U);
  EXPECT_EQ(map->mask, 127U);
  EXPECT_EQ(map->count, 59U);
  EXPECT_EQ(robin_map_check(map), 1);
}

TEST_F(robin_map_test, insertion_of_a_key_that_is_there_grows_at_58_of_64_too) {
  fill_to(58);
  EXPECT_EQ(scratch.insert(0x400004), ROBIN_EXISTS);
  EXPECT_EQ(map->capacity, 128U);
  EXPECT_EQ(map->count, 58U);
}

TEST_F(robin_map_test, growth_moves_pointers_and_no_values) {
  fill_to(58);
  std::vector<std::pair<std::uint64_t, void*>> before;
  for (const std::uint64_t key : scratch.keys_from_the_tail()) before.emplace_back(key, robin_map_lookup(map, key));
  ASSERT_TRUE(robin_map_grow(map));
  for (const auto& [key, value] : before) EXPECT_EQ(robin_map_lookup(map, key), value) << key;
}

TEST_F(robin_map_test, growth_keeps_the_order_of_records_that_displace_none) {
  // Homes that are 0 or 1 apart in 64 buckets and never meet in 128.
  std::vector<std::uint64_t> keys;
  robin_map wide{};
  wide.mask = 127;
  std::array<bool, 128> taken{};
  for (std::uint64_t key = 1; keys.size() < 40; ++key) {
    const std::uint32_t home = robin_map_home(&wide, key);
    if (taken[home]) continue;
    taken[home] = true;
    keys.push_back(key);
    scratch.insert(key);
  }
  const auto before = scratch.keys_from_the_tail();
  ASSERT_TRUE(robin_map_grow(map));
  EXPECT_EQ(scratch.keys_from_the_tail(), before);
}

TEST_F(robin_map_test, growth_of_an_empty_map_leaves_a_list_that_ends_in_itself) {
  ASSERT_TRUE(robin_map_grow(map));
  EXPECT_EQ(map->capacity, 128U);
  EXPECT_EQ(map->order_head.next, &map->order_head);
  EXPECT_EQ(robin_map_check(map), 1);
  scratch.insert(1, 5);
  EXPECT_EQ(value_at(robin_map_lookup(map, 1)), 5U);
}

TEST_F(robin_map_test, growth_beyond_the_32_bit_capacity_is_refused) {
  const std::uint32_t capacity = map->capacity;
  map->capacity = 0x80000000;
  EXPECT_FALSE(robin_map_grow(map));
  map->capacity = capacity;
}

TEST_F(robin_map_test, only_value_size_bytes_are_copied) {
  scratch_robin_map narrow(3);
  EXPECT_EQ(narrow.map.pool.block_size, 8U);
  const std::array<unsigned char, 8> value{1, 2, 3, 4, 5, 6, 7, 8};
  void* stored = nullptr;
  ASSERT_EQ(robin_map_insert(&narrow.map, 1, value.data(), &stored), ROBIN_ADDED);
  EXPECT_EQ(std::memcmp(stored, value.data(), 3), 0);
  EXPECT_NE(static_cast<unsigned char*>(stored)[3], 4);
}

TEST_F(robin_map_test, values_of_the_engines_two_sizes_come_back_whole) {
  for (const std::uint32_t size : {24U, 264U}) {
    scratch_robin_map wide(size);
    for (std::uint64_t key = 1; key <= 300; ++key) {
      const std::vector<unsigned char> value(size, static_cast<unsigned char>(key));
      ASSERT_EQ(robin_map_insert(&wide.map, key * 4, value.data(), nullptr), ROBIN_ADDED);
    }
    for (std::uint64_t key = 1; key <= 300; ++key) {
      const auto* value = static_cast<const unsigned char*>(robin_map_lookup(&wide.map, key * 4));
      ASSERT_NE(value, nullptr);
      for (std::uint32_t byte = 0; byte < size; ++byte) ASSERT_EQ(value[byte], static_cast<unsigned char>(key));
    }
  }
}

TEST_F(robin_map_test, walk_that_removes_and_starts_again_at_the_tail_removes_all_that_it_should) {
  fill_to(50);
  for (robin_bucket* bucket = robin_map_oldest(map); bucket != nullptr;) {
    if (bucket->key % 8 == 0) {
      robin_map_remove(map, bucket->key);
      bucket = robin_map_oldest(map);
    } else {
      bucket = robin_map_newer(map, bucket);
    }
  }
  EXPECT_EQ(map->count, 25U);
  EXPECT_EQ(robin_map_check(map), 1);
  for (const std::uint64_t key : scratch.keys_from_the_tail()) EXPECT_EQ(key % 8, 4U);
}

class robin_map_check_test : public robin_map_test {
 protected:
  robin_map_check_test() {
    for (const std::uint32_t home : {5U, 20U, 30U}) scratch.insert(key_with_home(home));
  }
};

TEST_F(robin_map_check_test, count_other_than_the_filled_buckets_is_found) {
  ++map->count;
  EXPECT_EQ(robin_map_check(map), 0);
  --map->count;
  EXPECT_EQ(robin_map_check(map), 1);
}

TEST_F(robin_map_check_test, empty_bucket_in_the_list_is_found) {
  map->buckets[20].distance = -1;
  map->buckets[40].distance = 0;
  EXPECT_EQ(robin_map_check(map), 0);
  map->buckets[20].distance = 0;
  map->buckets[40].distance = -1;
}

TEST_F(robin_map_check_test, filled_bucket_outside_the_list_is_found) {
  map->buckets[40].distance = 0;
  ++map->count;
  EXPECT_EQ(robin_map_check(map), 0);
  map->buckets[40].distance = -1;
  --map->count;
}

TEST_F(robin_map_check_test, links_that_differ_in_the_two_directions_are_found) {
  robin_link* const prev = map->buckets[20].order.prev;
  map->buckets[20].order.prev = &map->order_head;
  EXPECT_EQ(robin_map_check(map), 0);
  map->buckets[20].order.prev = prev;
}

TEST_F(robin_map_check_test, link_to_something_that_is_no_bucket_is_found_and_not_followed) {
  robin_link* const next = map->buckets[20].order.next;
  for (const std::uintptr_t wild :
       {std::uintptr_t{0}, std::uintptr_t{0x1000}, reinterpret_cast<std::uintptr_t>(next) + 1,
        reinterpret_cast<std::uintptr_t>(&map->buckets[64].order)}) {
    map->buckets[20].order.next = reinterpret_cast<robin_link*>(wild);
    EXPECT_EQ(robin_map_check(map), 0) << std::hex << wild;
  }
  map->buckets[20].order.next = next;
}

TEST_F(robin_map_check_test, circle_that_leaves_the_sentinel_out_is_found) {
  robin_bucket& newest = map->buckets[30];
  robin_bucket& oldest = map->buckets[5];
  oldest.order.next = &newest.order;
  EXPECT_EQ(robin_map_check(map), 0);
  oldest.order.next = &map->order_head;
}

}  // namespace
}  // namespace ceilmeter
