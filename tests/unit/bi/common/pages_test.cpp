// Page arithmetic with the three sizes of a page that the architecture knows.
#include "bi/kernel/pages.h"

#include <gtest/gtest.h>

namespace ceilmeter {
namespace {

class pages_test : public testing::TestWithParam<std::uint64_t> {
 protected:
  const std::uint64_t page = GetParam();
  const std::uint64_t start = 0x7000000000 + 3 * GetParam();
};

INSTANTIATE_TEST_SUITE_P(of_4_16_and_64_kib, pages_test, testing::Values(0x1000, 0x4000, 0x10000));

TEST_P(pages_test, an_address_at_the_start_of_a_page_is_its_own_bound_both_ways) {
  EXPECT_EQ(page_down(start, page), start);
  EXPECT_EQ(page_up(start, page), start);
  EXPECT_EQ(page_down(0, page), 0u);
  EXPECT_EQ(page_up(0, page), 0u);
}

TEST_P(pages_test, an_address_within_a_page_lies_between_two_starts) {
  for (const std::uint64_t offset : {std::uint64_t{1}, page / 2, page - 1}) {
    EXPECT_EQ(page_down(start + offset, page), start) << offset;
    EXPECT_EQ(page_up(start + offset, page), start + page) << offset;
  }
}

TEST_P(pages_test, a_range_of_whole_pages_stays_what_it_is) {
  const page_range range = whole_page_range(start, 5 * page, page);
  EXPECT_EQ(range.start, start);
  EXPECT_EQ(range.size, 5 * page);
}

TEST_P(pages_test, a_range_grows_to_the_pages_that_it_touches) {
  const page_range within = whole_page_range(start + 8, 1, page);
  EXPECT_EQ(within.start, start);
  EXPECT_EQ(within.size, page);
  const page_range across = whole_page_range(start + page - 1, 2, page);
  EXPECT_EQ(across.start, start);
  EXPECT_EQ(across.size, 2 * page);
  const page_range up_to_a_boundary = whole_page_range(start + 8, page - 8, page);
  EXPECT_EQ(up_to_a_boundary.start, start);
  EXPECT_EQ(up_to_a_boundary.size, page);
}

TEST_P(pages_test, an_empty_range_at_the_start_of_a_page_has_no_page) {
  EXPECT_EQ(whole_page_range(start, 0, page).size, 0u);
}

}  // namespace
}  // namespace ceilmeter
