// The table that emitted code probes by itself: slots, margin, counters, and the agreement of the two lookups. Small
// tables have 17 slots: homes 0 to 7, the margin to 15, and the last slot, which nothing may fill.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "bi/containers/hash_table.h"
#include "common/log.h"

namespace ceilmeter {
namespace {

using ::testing::Each;

constexpr std::int32_t engine_size = 0x80009;
using engine_table = sized_hash_table<engine_size>;

// A key of the table with 17 slots. `number` distinguishes keys of one home slot.
constexpr std::uint64_t key_at_home(std::uint64_t home, std::uint64_t number = 1) { return (number * 8 + home) * 4; }

class hash_table_test : public ::testing::Test {
 protected:
  hash_table_test() { hash_init(&small.table, 17); }

  std::vector<std::uint64_t> keys() const {
    std::vector<std::uint64_t> result;
    for (const hash_entry& entry : small.entries) result.push_back(entry.key);
    return result;
  }

  sized_hash_table<17> small{};
  hash_table* table = &small.table;
};

TEST_F(hash_table_test, slots_stand_in_line_behind_the_header) {
  EXPECT_EQ(static_cast<void*>(hash_entries(table)), static_cast<void*>(small.entries));
}

TEST_F(hash_table_test, init_sets_the_size_clears_collisions_and_zeroes_every_key) {
  for (hash_entry& entry : small.entries) entry = {7, 7};
  table->collisions = 5;
  hash_init(table, 17);
  EXPECT_EQ(table->size, 17);
  EXPECT_EQ(table->collisions, 0U);
  EXPECT_THAT(keys(), Each(0U));
}

TEST_F(hash_table_test, init_never_resets_count) {
  hash_add(table, key_at_home(1), 1);
  hash_add(table, key_at_home(2), 2);
  hash_init(table, 17);
  EXPECT_EQ(table->count, 2U);
  hash_add(table, key_at_home(1), 1);
  EXPECT_EQ(table->count, 3U);
}

TEST_F(hash_table_test, hash_drops_two_bits_and_masks_with_size_less_ten) {
  const auto large = std::make_unique<engine_table>();
  large->table.size = engine_size;
  EXPECT_EQ(hash_home(&large->table, 0x1ffffc), 0x7ffff);
  EXPECT_EQ(hash_home(&large->table, 0x1fffff), 0x7ffff);
  EXPECT_EQ(hash_home(&large->table, 0x200000), 0);
  EXPECT_EQ(hash_home(&large->table, 0xffffffffffffffff), 0x7ffff);
  EXPECT_EQ(hash_home(&large->table, 0x7000400120), 0x48);
  EXPECT_EQ(hash_home(table, key_at_home(7, 100)), 7);
}

TEST_F(hash_table_test, lookup_in_an_empty_table_is_a_miss) {
  for (std::uint64_t key = 4; key < 400; key += 4) EXPECT_EQ(hash_lookup(table, key), HASH_MISS) << key;
}

TEST_F(hash_table_test, lookup_ends_at_the_first_probe_if_that_slot_is_empty) {
  small.entries[4] = {key_at_home(3), 77};
  EXPECT_EQ(hash_lookup(table, key_at_home(3)), HASH_MISS);
}

TEST_F(hash_table_test, key_zero_is_a_miss_whatever_value_its_empty_slot_holds) {
  small.entries[0].value = 99;
  EXPECT_EQ(hash_lookup(table, 0), HASH_MISS);
}

TEST_F(hash_table_test, key_zero_is_a_miss_behind_occupied_slots) {
  hash_add(table, key_at_home(0, 1), 10);
  hash_add(table, key_at_home(0, 2), 20);
  small.entries[2].value = 99;
  EXPECT_EQ(hash_lookup(table, 0), HASH_MISS);
}

TEST_F(hash_table_test, adding_stores_key_and_value_in_the_home_slot) {
  EXPECT_TRUE(hash_add(table, key_at_home(5), 50));
  EXPECT_EQ(small.entries[5].key, key_at_home(5));
  EXPECT_EQ(small.entries[5].value, 50U);
  EXPECT_EQ(hash_lookup(table, key_at_home(5)), 50U);
  EXPECT_EQ(table->count, 1U);
  EXPECT_EQ(table->collisions, 0U);
}

TEST_F(hash_table_test, adding_the_same_key_twice_replaces_the_value_and_leaves_count_alone) {
  hash_add(table, key_at_home(5), 50);
  EXPECT_TRUE(hash_add(table, key_at_home(5), 51));
  EXPECT_EQ(hash_lookup(table, key_at_home(5)), 51U);
  EXPECT_EQ(table->count, 1U);
}

TEST_F(hash_table_test, keys_that_differ_in_the_two_low_bits_are_different_keys) {
  hash_add(table, key_at_home(5), 50);
  hash_add(table, key_at_home(5) + 1, 60);
  EXPECT_EQ(hash_lookup(table, key_at_home(5)), 50U);
  EXPECT_EQ(hash_lookup(table, key_at_home(5) + 1), 60U);
  EXPECT_EQ(hash_lookup(table, key_at_home(5) + 2), HASH_MISS);
}

TEST_F(hash_table_test, stored_value_is_returned_without_a_test) {
  hash_add(table, key_at_home(5), HASH_MISS);
  EXPECT_EQ(hash_lookup(table, key_at_home(5)), HASH_MISS);
  hash_add(table, key_at_home(6), 0);
  EXPECT_EQ(hash_lookup(table, key_at_home(6)), 0U);
}

TEST_F(hash_table_test, every_step_past_an_occupied_slot_counts_as_a_collision) {
  hash_add(table, key_at_home(2, 1), 1);
  hash_add(table, key_at_home(2, 2), 2);  // 1 step
  hash_add(table, key_at_home(2, 3), 3);  // 2 steps
  EXPECT_EQ(table->collisions, 3U);
  hash_add(table, key_at_home(2, 3), 4);  // 2 steps to replace
  EXPECT_EQ(table->collisions, 5U);
  hash_lookup(table, key_at_home(2, 3));
  EXPECT_EQ(table->collisions, 5U);
}

TEST_F(hash_table_test, probing_past_the_mask_fills_the_margin_and_never_the_last_slot) {
  for (std::uint64_t number = 1; number <= 9; ++number) hash_add(table, key_at_home(7, number), number);
  for (std::uint64_t number = 1; number <= 9; ++number) {
    EXPECT_EQ(small.entries[6 + number].key, key_at_home(7, number));
    EXPECT_EQ(hash_lookup(table, key_at_home(7, number)), number);
  }
  EXPECT_EQ(small.entries[16].key, 0U);
  EXPECT_EQ(small.entries[0].key, 0U) << "probing wrapped";
}

TEST_F(hash_table_test, lookup_through_a_full_run_ends_before_the_last_slot) {
  for (std::uint64_t number = 1; number <= 9; ++number) hash_add(table, key_at_home(7, number), number);
  small.entries[16] = {key_at_home(7, 10), 10};
  EXPECT_EQ(hash_lookup(table, key_at_home(7, 10)), HASH_MISS);
}

TEST_F(hash_table_test, value_in_a_full_run_can_still_be_replaced) {
  for (std::uint64_t number = 1; number <= 9; ++number) hash_add(table, key_at_home(7, number), number);
  EXPECT_TRUE(hash_add(table, key_at_home(7, 9), 90));
  EXPECT_EQ(hash_lookup(table, key_at_home(7, 9)), 90U);
}

using hash_table_death_test = hash_table_test;

TEST_F(hash_table_death_test, run_of_slots_up_to_the_end_ends_the_process_with_a_fatal_line) {
  for (std::uint64_t number = 1; number <= 9; ++number) hash_add(table, key_at_home(7, number), number);
  EXPECT_EXIT(hash_add(table, key_at_home(7, 10), 10), ::testing::KilledBySignal(SIGABRT),
              "common:[0-9]+ +MORA fatal hash table index overflow");
}

TEST_F(hash_table_death_test, run_of_slots_up_to_the_end_is_fatal_whatever_the_threshold) {
  for (std::uint64_t number = 1; number <= 9; ++number) hash_add(table, key_at_home(7, number), number);
  EXPECT_EXIT(
      {
        log_state::engine_log_level = LEVEL_FATAL;
        hash_add(table, key_at_home(7, 10), 10);
      },
      ::testing::KilledBySignal(SIGABRT), "hash table index overflow");
}

TEST_F(hash_table_test, delete_empties_the_home_slot_and_leaves_count_alone) {
  hash_add(table, key_at_home(5), 50);
  hash_delete(table, key_at_home(5));
  EXPECT_EQ(small.entries[5].key, 0U);
  EXPECT_EQ(hash_lookup(table, key_at_home(5)), HASH_MISS);
  EXPECT_EQ(table->count, 1U);
}

TEST_F(hash_table_test, delete_of_a_key_that_is_not_there_changes_nothing) {
  hash_add(table, key_at_home(5), 50);
  const auto before = keys();
  hash_delete(table, key_at_home(5, 2));
  hash_delete(table, key_at_home(4));
  EXPECT_EQ(keys(), before);
}

TEST_F(hash_table_test, delete_steps_with_the_plain_size_as_its_mask) {
  // 17 is 0b10001: from slot 0 the next one is 1, from slot 2 it is (2 + 1) & 17 = 1 and not 3.
  hash_add(table, key_at_home(0, 1), 1);
  hash_add(table, key_at_home(0, 2), 2);
  hash_delete(table, key_at_home(0, 2));
  EXPECT_EQ(small.entries[1].key, 0U);

  hash_add(table, key_at_home(2, 1), 1);
  hash_add(table, key_at_home(2, 2), 2);
  hash_delete(table, key_at_home(2, 2));
  EXPECT_EQ(small.entries[3].key, key_at_home(2, 2)) << "the empty slot 1 should have ended the probe";

  hash_add(table, key_at_home(1, 1), 1);
  small.entries[0].key = key_at_home(2, 3);
  hash_delete(table, key_at_home(2, 3));
  EXPECT_EQ(small.entries[0].key, 0U) << "2, 1, then (1 + 1) & 17 = 0";
}

TEST_F(hash_table_test, delete_ends_when_it_comes_back_to_the_home_slot) {
  hash_add(table, key_at_home(0, 1), 1);
  hash_add(table, key_at_home(0, 2), 2);
  const auto before = keys();
  hash_delete(table, key_at_home(0, 3));  // 0, 1, (1 + 1) & 17 = 0
  EXPECT_EQ(keys(), before);
}

TEST_F(hash_table_test, delete_ends_when_its_circle_never_meets_the_home_slot) {
  hash_add(table, key_at_home(0, 1), 1);
  hash_add(table, key_at_home(1, 1), 1);
  hash_add(table, key_at_home(5, 1), 1);
  const auto before = keys();
  hash_delete(table, key_at_home(5, 2));  // 5, 0, 1, 0, 1, ...
  EXPECT_EQ(keys(), before);
}

// The sequence that a register branch emits, step by step, from the offsets that its generator uses.
std::uint64_t emitted_lookup(const hash_table* table, std::uint64_t target) {
  const char* slot = reinterpret_cast<const char*>(table) + HASH_TABLE_ENTRIES_OFFSET;
  slot += (target & 0x1ffffc) << 2;
  for (;; slot += HASH_ENTRY_BYTES) {
    std::uint64_t key;
    std::memcpy(&key, slot + HASH_ENTRY_KEY_OFFSET, sizeof key);
    if (key == 0) return HASH_MISS;
    if (key != target) continue;
    std::uint64_t value;
    std::memcpy(&value, slot + HASH_ENTRY_VALUE_OFFSET, sizeof value);
    return value;
  }
}

TEST(hash_table_agreement_test, emitted_sequence_finds_what_hash_lookup_finds) {
  const std::uint64_t seed = 0x5eed0001;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  const auto large = std::make_unique<engine_table>();
  hash_init(&large->table, engine_size);
  std::vector<std::uint64_t> probes{0, 4, 0x1ffffc, 0x200000, ~std::uint64_t{3}};
  // Clusters of keys with one home slot, also at the last masked slot, among single keys from the whole range.
  for (int cluster = 0; cluster < 300; ++cluster) {
    const std::uint64_t home = cluster % 3 == 0 ? 0x7ffff : random() % 0x80000;
    for (std::uint64_t number = 0; number < 8; ++number) {
      const std::uint64_t key = (((random() & 0xffff) << 19 | home) << 2);
      if (key == 0) continue;
      probes.push_back(key);
      probes.push_back(key + 4);
      if (cluster % 3 != 0 || cluster == 0) hash_add(&large->table, key, random());
    }
  }
  ASSERT_EQ(large->entries[engine_size - 1].key, 0U);
  std::size_t hits = 0;
  for (const std::uint64_t key : probes) {
    ASSERT_EQ(emitted_lookup(&large->table, key), hash_lookup(&large->table, key)) << std::hex << key;
    if (hash_lookup(&large->table, key) != HASH_MISS) ++hits;
  }
  EXPECT_GT(hits, 1000U);
}

// A plain model: a list of optional pairs, searched from the home slot upwards.
class hash_model {
 public:
  explicit hash_model(std::size_t size) : m_mask(size - 10), m_slots(size - 1) {}

  // The slot of `key` or the first empty one in its probe; none if the probe runs out of the table.
  std::optional<std::size_t> find(std::uint64_t key) const {
    for (std::size_t slot = (key / 4) & m_mask; slot < m_slots.size(); ++slot) {
      if (!m_slots[slot] || m_slots[slot]->first == key) return slot;
    }
    return std::nullopt;
  }
  bool can_add(std::uint64_t key) const { return find(key).has_value(); }
  void add(std::uint64_t key, std::uint64_t value) {
    const std::size_t slot = *find(key);
    collisions += slot - ((key / 4) & m_mask);
    if (!m_slots[slot]) ++count;
    m_slots[slot] = {key, value};
  }
  std::uint64_t lookup(std::uint64_t key) const {
    const auto slot = find(key);
    return slot && m_slots[*slot] ? m_slots[*slot]->second : HASH_MISS;
  }
  const auto& slots() const { return m_slots; }

  std::uint64_t collisions = 0;
  std::uint64_t count = 0;

 private:
  std::uint64_t m_mask;
  std::vector<std::optional<std::pair<std::uint64_t, std::uint64_t>>> m_slots;
};

TEST(hash_table_model_test, random_additions_and_lookups_agree_with_a_naive_model) {
  constexpr std::int32_t size = 256 + 9;
  int refused = 0;
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937_64 random(seed);
    sized_hash_table<size> storage{};
    hash_init(&storage.table, size);
    hash_model model(size);
    const std::uint64_t range = seed % 2 == 0 ? 1200 : 300;  // Sparse keys, then dense ones, up to a full table.
    for (int step = 0; step < 600; ++step) {
      const std::uint64_t key = (1 + random() % range) * 4 + (random() % 8 == 0 ? random() % 4 : 0);
      const std::uint64_t value = random();
      if (model.can_add(key)) {
        model.add(key, value);
        ASSERT_TRUE(hash_add(&storage.table, key, value));
      } else {
        ++refused;
      }
      const std::uint64_t probe = (random() % range) * 4;
      if (probe != 0) {
        ASSERT_EQ(hash_lookup(&storage.table, probe), model.lookup(probe)) << "step " << step << " key " << probe;
      }
      ASSERT_EQ(storage.table.count, model.count) << "step " << step;
      ASSERT_EQ(storage.table.collisions, model.collisions) << "step " << step;
    }
    for (std::size_t slot = 0; slot < model.slots().size(); ++slot) {
      const auto expected = model.slots()[slot].value_or(std::pair<std::uint64_t, std::uint64_t>{0, 0});
      ASSERT_EQ(storage.entries[slot].key, expected.first) << "slot " << slot;
      ASSERT_EQ(storage.entries[slot].value, expected.second) << "slot " << slot;
    }
    ASSERT_EQ(storage.entries[size - 1].key, 0U);
  }
  EXPECT_GT(refused, 0) << "no run came to the end of the table: the keys are too sparse to test it";
}

TEST_F(hash_table_test, there_is_room_for_a_key_until_the_slots_from_its_home_to_the_last_but_one_are_taken) {
  constexpr std::uint64_t home = 7;  // The last of the small table's: nine slots up to the one that stays empty.
  for (std::uint64_t number = 1; number <= 9; ++number) {
    EXPECT_TRUE(hash_has_room(table, key_at_home(home, number))) << number;
    hash_add(table, key_at_home(home, number), number);
  }
  EXPECT_FALSE(hash_has_room(table, key_at_home(home, 10)));
  EXPECT_TRUE(hash_has_room(table, key_at_home(home, 9))) << "a key that is there takes no slot";
  EXPECT_TRUE(hash_has_room(table, key_at_home(home - 1)));
  hash_add(table, key_at_home(home - 1), 1);
  EXPECT_FALSE(hash_has_room(table, key_at_home(home - 1, 2)));
}

TEST_F(hash_table_test, slot_of_a_key_is_its_own_or_the_free_one_that_it_would_get) {
  const std::uint64_t first = key_at_home(2);
  const std::uint64_t second = key_at_home(2, 2);
  hash_entry* const slot = hash_find_slot(table, first);
  ASSERT_EQ(slot, small.entries + 2);
  EXPECT_EQ(slot->key, 0U);
  hash_fill_slot(table, slot, first, 7);
  EXPECT_EQ(hash_find_slot(table, first), slot);
  EXPECT_EQ(hash_lookup(table, first), 7U);
  ASSERT_EQ(hash_find_slot(table, second), slot + 1);
  EXPECT_EQ(table->collisions, 0U) << "looking is not counted";
  hash_fill_slot(table, slot + 1, second, 8);
  EXPECT_EQ(table->collisions, 1U);
  EXPECT_EQ(table->count, 2U);
  hash_fill_slot(table, slot, first, 9);
  EXPECT_EQ(table->count, 2U) << "the key was there";
}

}  // namespace
}  // namespace ceilmeter
