// The pool of link records, whose size is fixed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "bi/containers/linked_pool.h"

namespace ceilmeter {
namespace {

class linked_pool_test : public ::testing::Test {
 protected:
  static constexpr std::uint32_t capacity = 5;

  linked_pool_test() : pool(static_cast<linked_pool*>(std::aligned_alloc(16, linked_pool_bytes(capacity)))) {
    linked_pool_init(pool, capacity);
  }
  ~linked_pool_test() override { std::free(pool); }

  linked_pool* pool;
};

TEST_F(linked_pool_test, bytes_are_header_and_records) {
  EXPECT_EQ(linked_pool_bytes(0), 16U);
  EXPECT_EQ(linked_pool_bytes(100000), 16U + 100000U * 16U);
}

TEST_F(linked_pool_test, init_threads_all_records_onto_the_free_list_with_a_null_at_the_end) {
  EXPECT_EQ(pool->capacity, capacity);
  const linked_record* record = pool->free_head;
  for (std::uint32_t index = 0; index < capacity; ++index) {
    ASSERT_EQ(record, linked_pool_records(pool) + index);
    record = record->next;
  }
  EXPECT_EQ(record, nullptr);
}

TEST_F(linked_pool_test, alloc_clears_next_and_leaves_the_word_alone) {
  linked_pool_records(pool)->word = 0xabc;
  linked_record* record = linked_pool_alloc(pool);
  EXPECT_EQ(record, linked_pool_records(pool));
  EXPECT_EQ(record->next, nullptr);
  EXPECT_EQ(record->word, 0xabcU);
  EXPECT_EQ(pool->free_head, linked_pool_records(pool) + 1);
}

TEST_F(linked_pool_test, alloc_returns_null_once_all_records_are_handed_out) {
  for (std::uint32_t index = 0; index < capacity; ++index) {
    ASSERT_EQ(linked_pool_alloc(pool), linked_pool_records(pool) + index);
  }
  EXPECT_EQ(linked_pool_alloc(pool), nullptr);
  EXPECT_EQ(linked_pool_alloc(pool), nullptr);
}

TEST_F(linked_pool_test, init_makes_linked_records_free_again) {
  linked_record* first = linked_pool_alloc(pool);
  linked_record* second = linked_pool_alloc(pool);
  second->next = first;
  linked_pool_init(pool, capacity);
  for (std::uint32_t index = 0; index < capacity; ++index) {
    linked_record* record = linked_pool_alloc(pool);
    ASSERT_EQ(record, linked_pool_records(pool) + index);
    EXPECT_EQ(record->next, nullptr);
  }
  EXPECT_EQ(linked_pool_alloc(pool), nullptr);
}

TEST_F(linked_pool_test, zeroed_memory_hands_out_the_same_records_in_the_same_order) {
  std::memset(linked_pool_records(pool), 0, capacity * sizeof(linked_record));
  linked_pool_init_zeroed(pool, capacity);
  for (std::uint32_t index = 0; index < capacity; ++index) {
    linked_record* record = linked_pool_alloc(pool);
    ASSERT_EQ(record, linked_pool_records(pool) + index);
    EXPECT_EQ(record->next, nullptr);
    record->next = record;  // What the owner links does not lead the pool astray.
  }
  EXPECT_EQ(linked_pool_alloc(pool), nullptr);
}

TEST_F(linked_pool_test, init_of_zeroed_memory_writes_no_record) {
  std::memset(linked_pool_records(pool), 0, capacity * sizeof(linked_record));
  linked_pool_init_zeroed(pool, capacity);
  for (std::uint32_t index = 0; index < capacity; ++index) {
    EXPECT_EQ(linked_pool_records(pool)[index].next, nullptr) << "record " << index;
  }
}

TEST_F(linked_pool_test, zeroed_pool_without_records_is_exhausted_at_once) {
  linked_pool_init_zeroed(pool, 0);
  EXPECT_EQ(linked_pool_alloc(pool), nullptr);
}

TEST_F(linked_pool_test, pool_without_records_is_exhausted_at_once) {
  linked_pool_init(pool, 0);
  EXPECT_EQ(linked_pool_alloc(pool), nullptr);
}

}  // namespace
}  // namespace ceilmeter
