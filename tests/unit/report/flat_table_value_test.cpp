// The table of all result records as a value: copies, moves, clearing, erasing, and values that fail.
#include "flat_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "flat_table_model.h"

namespace ceilmeter {

namespace {

using ::testing::ElementsAre;

TEST(flat_table, keeps_capacity_slots_and_distances_in_a_copy) {
  number_table table;
  for (const std::uint64_t key : seeded_keys(9, 500)) table.insert(key, static_cast<int>(key));
  number_table copy(table);
  EXPECT_EQ(copy.capacity(), table.capacity());
  EXPECT_EQ(inspect::log2_capacity(copy), inspect::log2_capacity(table));
  EXPECT_EQ(inspect::allocated(copy), inspect::allocated(table));
  EXPECT_EQ(places(copy), places(table));

  copy.insert(1, 0);
  EXPECT_FALSE(table.contains(1));
}

TEST(flat_table, keeps_the_capacity_in_a_copy_of_a_cleared_table) {
  number_table table;
  for (std::uint64_t key = 0; key < 200; ++key) table.insert(key, 0);
  table.clear();
  number_table copy;
  copy = table;
  EXPECT_EQ(copy.capacity(), 256u);
  EXPECT_TRUE(copy.empty());
  copy.insert(1, 1);
  EXPECT_EQ(copy.capacity(), 256u);
}

TEST(flat_table, keeps_the_generation_and_leaves_stale_records_out_of_a_copy) {
  flat_table<std::uint64_t, std::shared_ptr<int>> table;
  const auto owned = std::make_shared<int>(1);
  table.insert(1, owned);
  table.clear();
  table.insert(2, owned);
  ASSERT_EQ(owned.use_count(), 3);
  const auto copy = table;
  EXPECT_EQ(owned.use_count(), 4);
  EXPECT_EQ(inspect::generation(copy), 2);
  EXPECT_TRUE(copy.contains(2));
  EXPECT_FALSE(copy.contains(1));
}

TEST(flat_table, leaves_an_empty_usable_table_behind_a_move) {
  text_table table;
  table.insert("a", 1);
  text_table moved(std::move(table));
  EXPECT_EQ(*moved.find("a"), 1u);
  // NOLINTBEGIN(bugprone-use-after-move): the state behind a move is what is tested.
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(table.capacity(), 0u);
  EXPECT_EQ(inspect::log2_capacity(table), 6u);
  table.insert("b", 2);
  EXPECT_EQ(table.capacity(), 128u);
  moved = std::move(table);
  EXPECT_FALSE(moved.contains("a"));
  EXPECT_EQ(*moved.find("b"), 2u);
  EXPECT_TRUE(table.empty());
  // NOLINTEND(bugprone-use-after-move)
}

TEST(flat_table, survives_assignment_to_itself) {
  text_table table;
  table.insert("a", 1);
  text_table& same = table;
  table = same;
  EXPECT_EQ(*table.find("a"), 1u);
  table = std::move(same);
  EXPECT_EQ(*table.find("a"), 1u);
}

TEST(flat_table, moves_its_storage_not_its_records) {
  number_table table;
  table.insert(1, 10);
  const int* before = table.find(1);
  const number_table moved(std::move(table));
  EXPECT_EQ(moved.find(1), before);
}

TEST(flat_table, takes_the_slots_of_a_cleared_table_as_free) {
  text_table table;
  table.insert("a", 1);
  table.insert("time", 2);
  table.clear();
  EXPECT_EQ(inspect::generation(table), 2);
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.capacity(), 128u);
  EXPECT_FALSE(table.contains("a"));
  EXPECT_TRUE(table.begin() == table.end());

  EXPECT_TRUE(table.insert("a", 3).second);
  EXPECT_THAT(keys_in_order(table), ElementsAre("a"));
  EXPECT_EQ(*table.find("a"), 3u);
}

TEST(flat_table, stops_a_look_up_at_a_stale_slot) {
  number_table table;
  table.insert(131, 0);
  table.insert(311, 0);
  table.clear();
  table.insert(299, 0);  // Slot 6, where the stale 311 stood; slot 5 holds the stale 131.
  EXPECT_FALSE(table.contains(131));
  EXPECT_FALSE(table.contains(311));
  table.insert(311, 1);
  EXPECT_THAT(places(table), ElementsAre(slot_of_key{5, 311, 0}, slot_of_key{6, 299, 0}));
}

TEST(flat_table, keeps_what_a_stale_record_owns_until_it_is_assigned_over) {
  flat_table<std::uint64_t, std::shared_ptr<int>> table;
  const auto owned = std::make_shared<int>(1);
  table.insert(1, owned);
  table.clear();
  EXPECT_EQ(owned.use_count(), 2);
  table.insert(1, nullptr);
  EXPECT_EQ(owned.use_count(), 1);
}

TEST(flat_table, forgets_old_records_for_good_when_the_generations_are_used_up) {
  flat_table<std::uint64_t, std::shared_ptr<int>> table;
  const auto owned = std::make_shared<int>(1);
  table.insert(1, owned);
  for (int round = 0; round < 65535; ++round) table.clear();
  EXPECT_EQ(inspect::generation(table), 1);
  EXPECT_EQ(owned.use_count(), 1);
  EXPECT_FALSE(table.contains(1));
  EXPECT_TRUE(table.insert(1, owned).second);
  EXPECT_EQ(table.size(), 1u);
}

TEST(flat_table, destroys_live_and_stale_records_with_itself) {
  const auto owned = std::make_shared<int>(1);
  {
    flat_table<std::uint64_t, std::shared_ptr<int>> table;
    for (std::uint64_t key = 0; key < 20; ++key) table.insert(key, owned);
    table.clear();
    for (std::uint64_t key = 10; key < 30; ++key) table.insert(key, owned);
    EXPECT_GT(owned.use_count(), 21);
  }
  EXPECT_EQ(owned.use_count(), 1);
}

TEST(flat_table, moves_the_rest_of_a_run_back_when_a_record_is_erased) {
  number_table table;
  for (const std::uint64_t key : {131, 311, 441, 299, 1000}) table.insert(key, 0);
  ASSERT_THAT(places(table), ::testing::IsSupersetOf({slot_of_key{5, 131, 0}, slot_of_key{6, 311, 1},
                                                      slot_of_key{7, 441, 2}, slot_of_key{8, 299, 2}}));
  EXPECT_TRUE(table.erase(311));
  EXPECT_THAT(places(table),
              ::testing::IsSupersetOf({slot_of_key{5, 131, 0}, slot_of_key{6, 441, 1}, slot_of_key{7, 299, 1}}));
  EXPECT_EQ(table.size(), 4u);
  EXPECT_FALSE(table.contains(311));
  EXPECT_TRUE(table.contains(1000));
  EXPECT_FALSE(table.erase(311));
}

TEST(flat_table, leaves_a_record_in_its_home_slot_when_its_neighbour_is_erased) {
  number_table table;
  table.insert(131, 0);
  table.insert(299, 0);
  EXPECT_TRUE(table.erase(131));
  EXPECT_THAT(places(table), ElementsAre(slot_of_key{6, 299, 0}));
}

TEST(flat_table, finds_what_it_should_after_random_insertions_and_erasures) {
  std::mt19937_64 random(11);
  number_table table;
  std::vector<bool> held(400, false);
  std::size_t count = 0;
  for (int step = 0; step < 20000; ++step) {
    const std::uint64_t key = random() % held.size();
    if (random() % 2 == 0) {
      ASSERT_EQ(table.insert(key, 0).second, !held[key]) << "step " << step << " key " << key;
      count += held[key] ? 0 : 1;
      held[key] = true;
    } else {
      ASSERT_EQ(table.erase(key), static_cast<bool>(held[key])) << "step " << step << " key " << key;
      count -= held[key] ? 1 : 0;
      held[key] = false;
    }
    ASSERT_EQ(table.size(), count);
  }
  for (std::uint64_t key = 0; key < held.size(); ++key) ASSERT_EQ(table.contains(key), held[key]) << "key " << key;
}

// A value that can be moved only by its own code, as one of atomics is.
struct counters {
  std::atomic<std::uint64_t> active{0};

  counters() = default;
  counters(counters&& other) noexcept : active(other.active.load()) {}
  counters& operator=(counters&& other) noexcept {
    active = other.active.load();
    return *this;
  }
};

TEST(flat_table, holds_values_that_cannot_be_copied) {
  flat_table<std::string, counters> table;
  for (int number = 0; number < 300; ++number) table.find_or_insert(std::to_string(number)).active = number;
  for (int number = 0; number < 300; ++number) EXPECT_EQ(table.find(std::to_string(number))->active, number);
}

// A value whose copy fails at a chosen moment.
struct fragile {
  static inline int copies_left = 0;

  std::shared_ptr<int> owned;

  fragile() = default;
  explicit fragile(std::shared_ptr<int> share) : owned(std::move(share)) {}
  fragile(const fragile& other) : owned(other.owned) {
    if (copies_left-- == 0) throw std::bad_alloc();
  }
  fragile(fragile&&) noexcept = default;
  fragile& operator=(const fragile&) = default;
  fragile& operator=(fragile&&) noexcept = default;
};

TEST(flat_table, leaks_nothing_and_keeps_the_target_when_a_copy_fails_half_way) {
  const auto owned = std::make_shared<int>(1);
  flat_table<std::uint64_t, fragile> table;
  for (std::uint64_t key = 0; key < 50; ++key) table.insert(key, fragile(owned));
  flat_table<std::uint64_t, fragile> target;
  target.insert(1000, fragile());
  fragile::copies_left = 20;
  EXPECT_THROW(target = table, std::bad_alloc);
  EXPECT_EQ(owned.use_count(), 51);
  EXPECT_TRUE(target.contains(1000));
  EXPECT_EQ(target.size(), 1u);
}

}  // namespace
}  // namespace ceilmeter
