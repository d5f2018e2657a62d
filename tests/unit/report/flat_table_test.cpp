// The table of all result records, slot by slot: what stands where decides the order of blocks and metrics in files.
// Expected hashes come from an independent computation in Python's unbounded integers (the two formulas, each step
// masked to 64 bits); expected slots of the small cases are worked by hand from these hashes; the large cases run
// against `table_model` below, a plain transcription of the rules that shares no code with the table.
#include "flat_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace ceilmeter {

// A friend of the table: its slots as they are.
struct flat_table_inspector {
  template <typename Key, typename Value>
  static auto generation(const flat_table<Key, Value>& table) { return table.generation_; }
  template <typename Key, typename Value>
  static auto log2_capacity(const flat_table<Key, Value>& table) { return table.log2_capacity_; }
  template <typename Key, typename Value>
  static auto allocated(const flat_table<Key, Value>& table) { return table.allocated_; }
  template <typename Key, typename Value>
  static auto load(const flat_table<Key, Value>& table) {
    return std::pair(table.load_numerator_, table.load_denominator_);
  }
  template <typename Key, typename Value>
  static const auto& states(const flat_table<Key, Value>& table) { return table.states_; }
  template <typename Key, typename Value>
  static const auto& distances(const flat_table<Key, Value>& table) { return table.distances_; }
  template <typename Key, typename Value>
  static std::optional<Key> key_at(const flat_table<Key, Value>& table, std::uint64_t slot) {
    if (table.states_[slot] != table.generation_) return std::nullopt;
    return table.slots_[slot].key;
  }
};

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
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

void PrintTo(const slot_of_key& place, std::ostream* out) {
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
std::vector<std::uint64_t> seeded_keys(unsigned seed, std::size_t count) {
  std::mt19937_64 random(seed);
  std::vector<std::uint64_t> keys(count);
  for (auto& key : keys) key = (random() & 1) != 0 ? random() : 0x400000 + (random() % 4096) * 4;
  return keys;
}

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
  EXPECT_THAT(places(table), ::testing::IsSupersetOf({slot_of_key{5, 131, 0}, slot_of_key{6, 441, 1},
                                                      slot_of_key{7, 299, 1}}));
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
