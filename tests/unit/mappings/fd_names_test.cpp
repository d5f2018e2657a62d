// The descriptor table against a plain map, also far beyond its first size.
#include "fd_names.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <string>

namespace ceilmeter {
namespace {

TEST(fd_names, unknown_descriptor_has_an_empty_name) {
  const fd_name_table table;
  EXPECT_EQ(table.find(0), "");
  EXPECT_EQ(table.find(-1), "");
}

TEST(fd_names, name_is_found_again) {
  fd_name_table table;
  table.insert_or_assign(3, "/lib/a name longer than the string's own room");
  EXPECT_EQ(table.find(3), "/lib/a name longer than the string's own room");
  EXPECT_EQ(table.find(4), "");
}

TEST(fd_names, second_name_replaces_the_first) {
  fd_name_table table;
  table.insert_or_assign(3, "first");
  table.insert_or_assign(3, "second");
  EXPECT_EQ(table.find(3), "second");
}

TEST(fd_names, negative_and_extreme_descriptors_are_keys_like_others) {
  fd_name_table table;
  for (const std::int32_t fd :
       {-1, -100, 0, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()}) {
    table.insert_or_assign(fd, std::to_string(fd));
  }
  EXPECT_EQ(table.find(-1), "-1");
  EXPECT_EQ(table.find(0), "0");
  EXPECT_EQ(table.find(std::numeric_limits<std::int32_t>::min()), "-2147483648");
  EXPECT_EQ(table.find(std::numeric_limits<std::int32_t>::max()), "2147483647");
}

TEST(fd_names, starts_with_256_buckets_of_4_slots_and_65536_locks) {
  const fd_name_table table;
  EXPECT_EQ(table.bucket_count(), 256U);
  EXPECT_EQ(fd_name_table::slots_per_bucket, 4U);
  EXPECT_EQ(fd_name_table::lock_count, 65536U);
}

TEST(fd_names, displacement_fills_the_first_table_to_nine_tenths_before_it_grows) {
  fd_name_table table;
  for (std::int32_t fd = 0; fd < 921; ++fd) table.insert_or_assign(fd, "x");
  EXPECT_EQ(table.bucket_count(), 256U);
}

TEST(fd_names, twenty_thousand_descriptors_are_found_after_the_table_has_grown) {
  constexpr std::int32_t count = 20000;
  fd_name_table table;
  for (std::int32_t fd = 0; fd < count; ++fd) table.insert_or_assign(fd, "/fd/" + std::to_string(fd));
  EXPECT_GE(table.bucket_count() * fd_name_table::slots_per_bucket, std::size_t{count});
  for (std::int32_t fd = 0; fd < count; ++fd) ASSERT_EQ(table.find(fd), "/fd/" + std::to_string(fd));
  EXPECT_EQ(table.find(count), "");
}

TEST(fd_names, random_inserts_and_look_ups_agree_with_a_plain_map) {
  constexpr unsigned seed = 20240607;
  std::mt19937 random(seed);
  std::map<std::int32_t, std::string> expected;
  fd_name_table table;
  for (int round = 0; round < 50000; ++round) {
    const auto fd = static_cast<std::int32_t>(random() % 4000) - 100;
    if (random() % 2 == 0) {
      expected[fd] = std::to_string(random());
      table.insert_or_assign(fd, expected[fd]);
    } else {
      const auto known = expected.find(fd);
      ASSERT_EQ(table.find(fd), known != expected.end() ? known->second : "") << "round " << round << ", seed " << seed;
    }
  }
}

}  // namespace
}  // namespace ceilmeter
