// Bit numbers of register masks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "bi/containers/register_mask.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;

struct bits {
  int found;
  std::vector<std::uint32_t> out;
};

// One element more than may be written, which must stay unchanged.
bits lowest(std::uint32_t mask, int n) {
  std::vector<std::uint32_t> out(static_cast<std::size_t>(n) + 1, 777);
  const int found = lowest_bits(mask, out.data(), n);
  EXPECT_EQ(out.back(), 777U);
  out.pop_back();
  return {found, out};
}

bits highest(std::uint32_t mask, int n) {
  std::vector<std::uint32_t> out(static_cast<std::size_t>(n) + 1, 777);
  const int found = highest_bits(mask, out.data(), n);
  EXPECT_EQ(out.back(), 777U);
  out.pop_back();
  return {found, out};
}

TEST(bitmask_test, next_set_finds_the_bit_at_its_start_and_above) {
  EXPECT_EQ(bitmask_next_set(0x80000110, 0), 4U);
  EXPECT_EQ(bitmask_next_set(0x80000110, 4), 4U);
  EXPECT_EQ(bitmask_next_set(0x80000110, 5), 8U);
  EXPECT_EQ(bitmask_next_set(0x80000110, 9), 31U);
  EXPECT_EQ(bitmask_next_set(0x80000110, 31), 31U);
}

TEST(bitmask_test, next_set_returns_32_when_the_mask_runs_out) {
  EXPECT_EQ(bitmask_next_set(0, 0), 32U);
  EXPECT_EQ(bitmask_next_set(0x110, 9), 32U);
  EXPECT_EQ(bitmask_next_set(0x7fffffff, 31), 32U);
}

TEST(bitmask_test, next_set_with_a_start_above_31_returns_32) {
  for (const std::uint32_t start : {32U, 33U, 64U, 0xffffffffU}) EXPECT_EQ(bitmask_next_set(0xffffffff, start), 32U);
}

TEST(bitmask_test, prev_set_finds_the_bit_at_its_start_and_below) {
  EXPECT_EQ(bitmask_prev_set(0x80000111, 31), 31U);
  EXPECT_EQ(bitmask_prev_set(0x80000111, 30), 8U);
  EXPECT_EQ(bitmask_prev_set(0x80000111, 8), 8U);
  EXPECT_EQ(bitmask_prev_set(0x80000111, 7), 4U);
  EXPECT_EQ(bitmask_prev_set(0x80000111, 0), 0U);
}

TEST(bitmask_test, prev_set_returns_32_when_the_mask_runs_out) {
  EXPECT_EQ(bitmask_prev_set(0, 31), 32U);
  EXPECT_EQ(bitmask_prev_set(0xfffffffe, 0), 32U);
}

TEST(bitmask_test, prev_set_with_a_start_above_31_returns_32) {
  for (const std::uint32_t start : {32U, 33U, 0xffffffffU}) EXPECT_EQ(bitmask_prev_set(0xffffffff, start), 32U);
}

TEST(bitmask_test, lowest_bits_are_numbered_upwards) {
  const bits result = lowest(0x40008021, 3);
  EXPECT_THAT(result.out, ElementsAre(0, 5, 15));
  EXPECT_EQ(result.found, 3);
}

TEST(bitmask_test, lowest_bits_fill_up_with_32_and_count_real_bits_only) {
  const bits result = lowest(0x80000001, 5);
  EXPECT_THAT(result.out, ElementsAre(0, 31, 32, 32, 32));
  EXPECT_EQ(result.found, 2);
}

TEST(bitmask_test, highest_bits_are_numbered_downwards) {
  const bits result = highest(0x40008021, 3);
  EXPECT_THAT(result.out, ElementsAre(30, 15, 5));
  EXPECT_EQ(result.found, 3);
}

TEST(bitmask_test, highest_bits_fill_up_with_32_and_count_real_bits_only) {
  const bits result = highest(0x80000001, 5);
  EXPECT_THAT(result.out, ElementsAre(31, 0, 32, 32, 32));
  EXPECT_EQ(result.found, 2);
}

TEST(bitmask_test, no_bits_are_found_in_an_empty_mask) {
  EXPECT_THAT(lowest(0, 2).out, ElementsAre(32, 32));
  EXPECT_EQ(lowest(0, 2).found, 0);
  EXPECT_THAT(highest(0, 2).out, ElementsAre(32, 32));
  EXPECT_EQ(highest(0, 2).found, 0);
}

TEST(bitmask_test, asking_for_no_bits_writes_nothing) {
  EXPECT_EQ(lowest(0xffffffff, 0).found, 0);
  EXPECT_EQ(highest(0xffffffff, 0).found, 0);
  EXPECT_EQ(lowest_bits(0xffffffff, nullptr, -1), 0);
  EXPECT_EQ(highest_bits(0xffffffff, nullptr, -1), 0);
}

TEST(bitmask_test, full_mask_gives_all_32_bits_and_then_32) {
  const bits up = lowest(0xffffffff, 33);
  const bits down = highest(0xffffffff, 33);
  EXPECT_EQ(up.found, 32);
  EXPECT_EQ(down.found, 32);
  for (std::uint32_t bit = 0; bit < 32; ++bit) {
    EXPECT_EQ(up.out[bit], bit);
    EXPECT_EQ(down.out[bit], 31 - bit);
  }
  EXPECT_EQ(up.out[32], 32U);
  EXPECT_EQ(down.out[32], 32U);
}

TEST(bitmask_test, popcount_counts_set_bits) {
  EXPECT_EQ(popcount32(0), 0);
  EXPECT_EQ(popcount32(0x80000001), 2);
  EXPECT_EQ(popcount32(0xffffffff), 32);
}

TEST(bitmask_test, random_masks_agree_with_a_bit_by_bit_scan) {
  const std::uint32_t seed = 4711;
  SCOPED_TRACE(::testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const std::uint32_t mask = random() & random() & (round % 2 == 0 ? 0xffffffff : random());
    std::vector<std::uint32_t> set;
    for (std::uint32_t bit = 0; bit < 32; ++bit) {
      if ((mask >> bit & 1) != 0) set.push_back(bit);
    }
    ASSERT_EQ(popcount32(mask), static_cast<int>(set.size()));
    const int n = static_cast<int>(random() % 34);
    const bits up = lowest(mask, n);
    const bits down = highest(mask, n);
    const int expected = std::min(n, static_cast<int>(set.size()));
    ASSERT_EQ(up.found, expected) << std::hex << mask << " n " << n;
    ASSERT_EQ(down.found, expected) << std::hex << mask << " n " << n;
    for (std::size_t index = 0; index < static_cast<std::size_t>(n); ++index) {
      const bool real = index < set.size();
      ASSERT_EQ(up.out[index], real ? set[index] : 32) << std::hex << mask;
      ASSERT_EQ(down.out[index], real ? set[set.size() - 1 - index] : 32) << std::hex << mask;
    }
  }
}

}  // namespace
}  // namespace ceilmeter
