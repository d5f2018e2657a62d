// The table of all result records, slot by slot: what stands where decides the order of blocks and metrics in files.
// Expected hashes come from an independent computation in Python's unbounded integers (the two formulas, each step
// masked to 64 bits); expected slots of the small cases are worked by hand from these hashes; the large cases run
// against the model.
#include "flat_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "flat_table_model.h"

namespace ceilmeter {

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

// Homes in 128 slots, by the Python computation: 131, 311, 441 and 571 in slot 5; 299 in 6; 730 in 7; 113, 210 and
// 275 in 126; 91 in 127.

TEST(flat_table_hash, of_a_number_is_the_64_bit_finaliser) {
  EXPECT_EQ(flat_table_hash(std::uint64_t{0}), 0u);
  EXPECT_EQ(flat_table_hash(std::uint64_t{1}), 0x5692161d100b05e5u);
  EXPECT_EQ(flat_table_hash(std::uint64_t{2}), 0xdbd238973a2b148au);
  EXPECT_EQ(flat_table_hash(std::uint64_t{0x400000}), 0xda03d572bfa059a9u);
  EXPECT_EQ(flat_table_hash(std::uint64_t{0x0123456789abcdef}), 0xb2c058e4ebb5112cu);
  EXPECT_EQ(flat_table_hash(~std::uint64_t{0}), 0xb4d055fcf2cbbd7bu);
}

TEST(flat_table_hash, of_a_text_is_the_64_bit_murmur_hash) {
  EXPECT_EQ(flat_table_hash(""), 0x553e93901e462a6eu);
  EXPECT_EQ(flat_table_hash("a"), 0x454ddee488c1ed6bu);
  EXPECT_EQ(flat_table_hash("time"), 0x2da87e6315fa4350u);
  EXPECT_EQ(flat_table_hash("total"), 0xfe4e9c103af60cd7u);
  EXPECT_EQ(flat_table_hash("l1_bytes"), 0xcf162f4736998560u);
  EXPECT_EQ(flat_table_hash("duration_time_12"), 0x461db9e7d267493eu);
  EXPECT_EQ(flat_table_hash(std::string_view("\xff\x80\0x", 4)), 0x3974fb2210d37d94u);
}

#ifdef __GLIBCXX__
// The C++ library hashes texts by the same function with the same seed, which makes it an oracle for every length.
TEST(flat_table_hash, of_a_text_agrees_with_the_runtime_librarys_at_every_length_and_alignment) {
  std::mt19937 random(7);
  std::string bytes(120, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  for (std::size_t start = 0; start < 16; ++start) {
    for (std::size_t length = 0; length <= 100; ++length) {
      const std::string_view text(bytes.data() + start, length);
      ASSERT_EQ(flat_table_hash(text), std::hash<std::string_view>()(text))
          << "start " << start << " length " << length;
    }
  }
}
#endif

TEST(flat_table, starts_without_slots_at_generation_one) {
  const number_table table;
  EXPECT_EQ(inspect::generation(table), 1);
  EXPECT_EQ(inspect::log2_capacity(table), 6u);
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(table.capacity(), 0u);
  EXPECT_EQ(inspect::load(table), std::pair(std::uint64_t{9}, std::uint64_t{10}));
  EXPECT_EQ(inspect::allocated(table), 0u);
  EXPECT_TRUE(inspect::states(table).empty());
  EXPECT_TRUE(table.empty());
  EXPECT_TRUE(table.begin() == table.end());
}

TEST(flat_table, finds_nothing_before_the_first_insertion) {
  number_table table;
  EXPECT_EQ(table.find(0), nullptr);
  EXPECT_FALSE(table.contains(0));
  EXPECT_FALSE(table.erase(0));
  EXPECT_EQ(table.capacity(), 0u);
}

TEST(flat_table, makes_128_slots_at_the_first_insertion) {
  number_table table;
  table.insert(1, 10);
  EXPECT_EQ(table.capacity(), 128u);
  EXPECT_EQ(inspect::log2_capacity(table), 7u);
  EXPECT_EQ(inspect::allocated(table), 128u);
  EXPECT_EQ(inspect::states(table).size(), 128u);
  EXPECT_EQ(inspect::distances(table).size(), 128u);
  // 0x5692161d100b05e5 & 127 is 101.
  EXPECT_THAT(places(table), ElementsAre(slot_of_key{101, 1, 0}));
}

TEST(flat_table, keeps_the_first_value_of_a_key) {
  number_table table;
  EXPECT_THAT(table.insert(5, 50), Pair(::testing::Pointee(50), true));
  EXPECT_THAT(table.insert(5, 51), Pair(::testing::Pointee(50), false));
  EXPECT_EQ(table.size(), 1u);
}

TEST(flat_table, gives_the_place_of_an_inserted_value_when_others_are_displaced) {
  number_table table;
  table.insert(131, 1);
  table.insert(299, 2);
  const auto [value, inserted] = table.insert(311, 3);
  EXPECT_TRUE(inserted);
  EXPECT_EQ(*value, 3);
  EXPECT_EQ(value, table.find(311));
  EXPECT_EQ(*table.find(299), 2);
}

TEST(flat_table, displaces_a_record_that_stands_nearer_to_its_home) {
  number_table table;
  table.insert(131, 0);  // Home 5.
  table.insert(299, 0);  // Home 6.
  table.insert(730, 0);  // Home 7.
  // Home 5: richer records give way one after the other, and each goes on with its own distance.
  table.insert(311, 0);
  EXPECT_THAT(places(table), ElementsAre(slot_of_key{5, 131, 0}, slot_of_key{6, 311, 1}, slot_of_key{7, 299, 1},
                                         slot_of_key{8, 730, 1}));
}

TEST(flat_table, lets_a_record_stay_that_is_as_far_from_its_home) {
  number_table table;
  table.insert(311, 0);
  table.insert(131, 0);
  table.insert(571, 0);
  table.insert(441, 0);
  EXPECT_THAT(places(table), ElementsAre(slot_of_key{5, 311, 0}, slot_of_key{6, 131, 1}, slot_of_key{7, 571, 2},
                                         slot_of_key{8, 441, 3}));
}

TEST(flat_table, probes_around_the_end_of_the_slots) {
  number_table table;
  table.insert(91, 0);   // Home 127.
  table.insert(113, 0);  // Home 126.
  table.insert(210, 0);  // Home 126: takes 127 from key 91, which goes to slot 0.
  table.insert(0, 0);    // Home 0: finds key 91 there at distance 1.
  EXPECT_THAT(places(table), ElementsAre(slot_of_key{0, 91, 1}, slot_of_key{1, 0, 1}, slot_of_key{126, 113, 0},
                                         slot_of_key{127, 210, 1}));
  for (const std::uint64_t key : {91, 113, 210, 0}) EXPECT_TRUE(table.contains(key)) << key;
}

TEST(flat_table, orders_the_five_metrics_by_their_hashes) {
  text_table table;
  for (const char* name : {"l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"}) table.insert(name, 1);
  // Homes 96, 38, 87, 30, 80.
  EXPECT_THAT(keys_in_order(table), ElementsAre("ddr_bytes", "l2_bytes", "time", "l3_bytes", "l1_bytes"));
}

TEST(flat_table, grows_when_an_insertion_meets_nine_tenths_of_the_slots_live) {
  number_table table;
  // 128 * 9 = 1152 is above 115 * 10 and not above 116 * 10: the 116th key still goes in, the next insertion grows.
  for (std::uint64_t key = 0; key < 116; ++key) table.insert(key, 0);
  EXPECT_EQ(table.capacity(), 128u);
  table.insert(116, 0);
  EXPECT_EQ(table.capacity(), 256u);
  EXPECT_EQ(table.size(), 117u);
  EXPECT_EQ(inspect::log2_capacity(table), 8u);
  EXPECT_EQ(inspect::allocated(table), 256u);
}

TEST(flat_table, grows_even_for_a_key_that_is_there_already) {
  number_table table;
  for (std::uint64_t key = 0; key < 116; ++key) table.insert(key, 7);
  EXPECT_THAT(table.insert(3, 8), Pair(::testing::Pointee(7), false));
  EXPECT_EQ(table.capacity(), 256u);
  EXPECT_EQ(table.size(), 116u);
}

TEST(flat_table, goes_back_to_generation_one_when_it_grows) {
  number_table table;
  table.insert(1, 0);
  table.clear();
  table.clear();
  EXPECT_EQ(inspect::generation(table), 3);
  for (std::uint64_t key = 0; key < 117; ++key) table.insert(key, 0);
  EXPECT_EQ(inspect::generation(table), 1);
  EXPECT_EQ(table.size(), 117u);
}

TEST(flat_table, stands_slot_by_slot_like_the_model_through_growth_and_clearing) {
  for (const unsigned seed : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    number_table table;
    table_model model;
    int value = 0;
    std::size_t step = 0;
    for (const std::uint64_t key : seeded_keys(seed, 3000)) {
      ++value;
      table.insert(key, value);
      model.insert(key, value);
      ASSERT_EQ(table.size(), model.size()) << "after key " << key;
      ASSERT_EQ(table.capacity(), model.capacity()) << "after key " << key;
      if (++step % 97 == 0) {
        ASSERT_EQ(places(table), model.places()) << "after key " << key;
      }
      if (step == 700) {
        table.clear();
        model.clear();
      }
    }
    ASSERT_EQ(places(table), model.places());
    for (const std::uint64_t key : seeded_keys(seed, 3000)) {
      const auto* expected = model.search_everywhere(key);
      const int* found = table.find(key);
      ASSERT_EQ(found != nullptr, expected != nullptr) << "key " << key;
      if (expected != nullptr) {
        ASSERT_EQ(*found, expected->value) << "key " << key;
      }
    }
    for (const std::uint64_t key : seeded_keys(seed + 100, 3000)) {
      ASSERT_EQ(table.contains(key), model.search_everywhere(key) != nullptr) << "key " << key;
    }
  }
}

TEST(flat_table, reaches_runs_longer_than_one_in_the_model_test) {
  // The comparison above is worth something only if displacement took place.
  table_model model;
  for (const std::uint64_t key : seeded_keys(1, 3000)) model.insert(key, 0);
  std::uint32_t farthest = 0;
  for (const auto& place : model.places()) farthest = std::max(farthest, place.distance);
  EXPECT_GE(farthest, 3u);
}

TEST(flat_table, makes_as_much_room_at_once_as_so_many_insertions_would) {
  for (const std::uint64_t count : {0, 1, 115, 116, 117, 231, 232, 5000}) {
    number_table grown;
    for (std::uint64_t key = 0; key < count; ++key) grown.insert(key, 0);
    number_table prepared;
    prepared.reserve(count);
    EXPECT_EQ(prepared.capacity(), grown.capacity()) << count << " keys";
    EXPECT_EQ(inspect::log2_capacity(prepared), inspect::log2_capacity(grown)) << count << " keys";
    for (std::uint64_t key = 0; key < count; ++key) prepared.insert(key, 0);
    EXPECT_EQ(prepared.capacity(), grown.capacity()) << count << " keys";
  }
}

TEST(flat_table, keeps_its_records_and_never_shrinks_when_room_is_made) {
  number_table table;
  for (std::uint64_t key = 0; key < 300; ++key) table.insert(key, 7);
  table.reserve(2);
  EXPECT_EQ(table.capacity(), 512u);
  table.reserve(1000);
  EXPECT_EQ(table.capacity(), 2048u);
  EXPECT_EQ(table.size(), 300u);
  for (std::uint64_t key = 0; key < 300; ++key) EXPECT_TRUE(table.contains(key)) << key;
}

TEST(flat_table, filled_in_another_ones_order_takes_the_same_slots_at_the_same_distances) {
  number_table table;
  for (const std::uint64_t key : seeded_keys(21, 700)) table.insert(key, 0);
  number_table again;
  again.reserve(table.size());
  for (const auto& [key, value] : table) again.insert(key, value);
  EXPECT_EQ(again.capacity(), table.capacity());
  EXPECT_EQ(inspect::states(again), inspect::states(table));
  // Keys of one home may have changed places: their order is history.
  const auto before = places(table);
  const auto after = places(again);
  ASSERT_EQ(after.size(), before.size());
  for (std::size_t number = 0; number < before.size(); ++number) {
    EXPECT_EQ(after[number].slot, before[number].slot);
    EXPECT_EQ(after[number].distance, before[number].distance) << "slot " << before[number].slot;
  }
}

TEST(flat_table, inserts_a_default_value_for_a_key_that_is_asked_for_and_missing) {
  text_table table;
  table.find_or_insert("a") += 3;
  table["a"] += 4;
  EXPECT_EQ(table["b"], 0u);
  EXPECT_EQ(*table.find("a"), 7u);
  EXPECT_EQ(table.size(), 2u);
}

TEST(flat_table, tells_texts_apart_behind_an_inner_nul) {
  text_table table;
  table.insert(std::string("a\0b", 3), 1);
  table.insert(std::string("a\0c", 3), 2);
  EXPECT_EQ(*table.find(std::string_view("a\0c", 3)), 2u);
  EXPECT_FALSE(table.contains("a"));
}

TEST(flat_table, lets_values_be_changed_through_an_iteration) {
  number_table table;
  table.insert(1, 10);
  table.insert(2, 20);
  for (const auto& [key, value] : table) value += static_cast<int>(key);
  EXPECT_EQ(*table.find(1), 11);
  EXPECT_EQ(*table.find(2), 22);
  EXPECT_EQ(table.begin()->key, 2u);  // Slot 10, before key 1 in slot 101.
}

}  // namespace
}  // namespace ceilmeter
