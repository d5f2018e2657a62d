// The record of what has been translated, which all threads share. Each test uses a place of its own, because the
// process has one record.
#include "bi/code/translated_pages.h"

#include <gtest/gtest.h>

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t gib = std::uint64_t{1} << 30;

TEST(translated_pages, nothing_is_marked_where_nothing_was_translated) {
  EXPECT_FALSE(has_translated(5 * gib, 5 * gib + 4096));
  EXPECT_FALSE(has_translated(0, 1000 * gib));
  EXPECT_FALSE(has_translated(6 * gib, 6 * gib));
}

TEST(translated_pages, a_mark_is_found_in_its_line_and_in_no_other) {
  const std::uint64_t place = 2000 * gib + 0x1040;
  mark_translated(place + 4, place + 8);
  EXPECT_TRUE(has_translated(place, place + 4));
  EXPECT_TRUE(has_translated(place + 60, place + 64));
  EXPECT_FALSE(has_translated(place - 64, place));
  EXPECT_FALSE(has_translated(place + 64, place + 4096));
}

TEST(translated_pages, a_mark_is_found_in_a_large_range_around_it) {
  const std::uint64_t place = 2100 * gib + 0x7ffff040;
  mark_translated(place, place + 4);
  EXPECT_TRUE(has_translated(2050 * gib, 2200 * gib));
  EXPECT_TRUE(has_translated(place - gib, place + 1));
  EXPECT_FALSE(has_translated(2050 * gib, place));
  EXPECT_FALSE(has_translated(place + 64, 2200 * gib));
}

TEST(translated_pages, a_range_is_marked_over_pages_and_leaves) {
  const std::uint64_t start = 2300 * gib - 0x2000;
  mark_translated(start + 0x40, start + 0x4000);
  EXPECT_FALSE(has_translated(start, start + 0x40));
  for (std::uint64_t line = start + 0x40; line < start + 0x4000; line += 64)
    EXPECT_TRUE(has_translated(line, line + 1));
  EXPECT_FALSE(has_translated(start + 0x4000, start + 0x5000));
}

TEST(translated_pages, lines_that_are_cleared_only_in_part_stay_marked) {
  const std::uint64_t start = 2400 * gib;
  mark_translated(start, start + 0x3000);
  clear_translated(start + 0x20, start + 0x2020);
  EXPECT_TRUE(has_translated(start, start + 0x40));
  EXPECT_FALSE(has_translated(start + 0x40, start + 0x2000));
  EXPECT_TRUE(has_translated(start + 0x2000, start + 0x2040));
  clear_translated(start, start + 0x3000);
  EXPECT_FALSE(has_translated(start, start + 0x3000));
}

TEST(translated_pages, a_line_is_found_again_after_it_was_cleared) {
  const std::uint64_t start = 2500 * gib;
  mark_translated(start, start + 4);
  clear_translated(start, start + 0x1000);
  mark_translated(start, start + 4);
  EXPECT_TRUE(has_translated(start - gib, start + gib));
}

}  // namespace
}  // namespace ceilmeter::test
