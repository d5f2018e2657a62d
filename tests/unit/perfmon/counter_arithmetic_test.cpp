// The arithmetic of the counters, without a kernel: readings taken apart, intervals joined, metrics computed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "perfmon/perfmon.h"
#include "shared_names.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(group_reading_test, a_reading_is_count_times_and_pairs) {
  const std::vector<std::uint64_t> words = {2, 300, 200, 10, 1, 20, 2};
  const group_reading reading = decode_group_reading(words);
  EXPECT_EQ(reading.time_enabled, 300u);
  EXPECT_EQ(reading.time_running, 200u);
  EXPECT_THAT(reading.pairs, ElementsAre(10, 1, 20, 2));
}

TEST(group_reading_test, words_behind_the_counted_pairs_are_left_out) {
  const std::vector<std::uint64_t> words = {1, 300, 200, 10, 1, 20, 2};
  EXPECT_THAT(decode_group_reading(words).pairs, ElementsAre(10, 1));
}

TEST(group_reading_test, a_header_alone_has_no_pairs) {
  const std::vector<std::uint64_t> words = {0, 300, 300};
  EXPECT_THAT(decode_group_reading(words).pairs, IsEmpty());
}

TEST(group_reading_test, a_count_beyond_the_words_is_cut_to_the_whole_pairs) {
  const std::vector<std::uint64_t> words = {std::numeric_limits<std::uint64_t>::max(), 1, 1, 10, 1, 20};
  EXPECT_THAT(decode_group_reading(words).pairs, ElementsAre(10, 1));
}

TEST(group_reading_test, too_few_words_for_the_header_give_an_empty_reading) {
  const std::vector<std::uint64_t> words = {7, 7, 7};
  for (std::size_t count = 0; count < 3; ++count) {
    const group_reading reading = decode_group_reading(std::span(words).first(count));
    EXPECT_EQ(reading.time_enabled, 0u);
    EXPECT_EQ(reading.time_running, 0u);
    EXPECT_THAT(reading.pairs, IsEmpty());
  }
}

TEST(extend_time_interval_test, an_overlapping_interval_extends_the_running_one) {
  time_interval running{10, 20};
  EXPECT_TRUE(extend_time_interval(running, {15, 30}));
  EXPECT_EQ(running, time_interval(10, 30));
}

TEST(extend_time_interval_test, a_touching_interval_extends_the_running_one) {
  time_interval running{10, 20};
  EXPECT_TRUE(extend_time_interval(running, {20, 30}));
  EXPECT_EQ(running, time_interval(10, 30));
}

TEST(extend_time_interval_test, an_interval_inside_changes_nothing) {
  time_interval running{10, 100};
  EXPECT_TRUE(extend_time_interval(running, {20, 30}));
  EXPECT_EQ(running, time_interval(10, 100));
}

TEST(extend_time_interval_test, an_interval_behind_a_gap_leaves_the_running_one_alone) {
  time_interval running{10, 20};
  EXPECT_FALSE(extend_time_interval(running, {21, 30}));
  EXPECT_EQ(running, time_interval(10, 20));
}

TEST(extend_time_interval_test, times_compare_as_signed_numbers) {
  time_interval running{-20, -10};
  EXPECT_FALSE(extend_time_interval(running, {5, 6}));
  EXPECT_TRUE(extend_time_interval(running, {-15, 3}));
  EXPECT_EQ(running, time_interval(-20, 3));
}

counter_table one_to_six() {
  counter_table counters;
  counters.insert("L1D_CACHE", 1);
  counters.insert("LSU_HIT_L2", 2);
  counters.insert("L2D_CACHE_REFILL_LD", 3);
  counters.insert("L2D_CACHE_REFILL_ST", 4);
  counters.insert("LL_CACHE", 5);
  counters.insert("LL_CACHE_MISS", 6);
  counters.insert("duration_time", 7);
  return counters;
}

TEST(roofline_metric_test, counters_of_1_to_6_give_16_576_320_and_384_bytes) {
  const counter_table counters = one_to_six();
  EXPECT_EQ(roofline_metric("l1_bytes", counters), 16u);
  EXPECT_EQ(roofline_metric("l2_bytes", counters), 576u);
  EXPECT_EQ(roofline_metric("l3_bytes", counters), 320u);
  EXPECT_EQ(roofline_metric("ddr_bytes", counters), 384u);
}

TEST(roofline_metric_test, the_time_is_the_active_time_as_it_stands) {
  EXPECT_EQ(roofline_metric("time", one_to_six()), 7u);
}

TEST(roofline_metric_test, missing_counters_count_as_0) {
  const counter_table none;
  for (const std::string& metric : roofline_metric_names) EXPECT_EQ(roofline_metric(metric, none), 0u) << metric;
}

TEST(roofline_metric_test, each_of_the_three_l2_counters_may_be_missing) {
  counter_table counters = one_to_six();
  counters.erase("LSU_HIT_L2");
  EXPECT_EQ(roofline_metric("l2_bytes", counters), 7u * 64);
  counters = one_to_six();
  counters.erase("L2D_CACHE_REFILL_LD");
  EXPECT_EQ(roofline_metric("l2_bytes", counters), 6u * 64);
  counters = one_to_six();
  counters.erase("L2D_CACHE_REFILL_ST");
  EXPECT_EQ(roofline_metric("l2_bytes", counters), 5u * 64);
}

TEST(roofline_metric_test, extra_counters_enter_no_metric) {
  counter_table counters = one_to_six();
  for (const roofline_event_row& extra : roofline_extra_event_codes) counters.insert(extra.name, 1'000'000);
  const counter_table plain = one_to_six();
  for (const std::string& metric : roofline_metric_names) {
    EXPECT_EQ(roofline_metric(metric, counters), roofline_metric(metric, plain)) << metric;
  }
}

TEST(roofline_metric_test, large_counts_wrap_without_a_check) {
  counter_table counters;
  counters.insert("L1D_CACHE", 0x1000000000000001);
  counters.insert("LSU_HIT_L2", 0xFFFFFFFFFFFFFFFF);
  counters.insert("L2D_CACHE_REFILL_LD", 2);
  EXPECT_EQ(roofline_metric("l1_bytes", counters), 16u);
  EXPECT_EQ(roofline_metric("l2_bytes", counters), 64u);
}

TEST(roofline_metric_test, an_unknown_metric_is_0) { EXPECT_EQ(roofline_metric("l4_bytes", one_to_six()), 0u); }

}  // namespace
}  // namespace ceilmeter::test
