#include "bi/kernel/locked_memory.h"

#include <gtest/gtest.h>

namespace ceilmeter::test {
namespace {

constexpr std::uint64_t MIB = std::uint64_t{1} << 20;

TEST(limit_of_locked_memory, counts_what_is_not_the_tools) {
  EXPECT_TRUE(fits_lock_limit(300 * MIB, 292 * MIB, 8 * MIB));
  EXPECT_FALSE(fits_lock_limit(300 * MIB + 1, 292 * MIB, 8 * MIB));
}

TEST(limit_of_locked_memory, is_kept_by_an_application_that_has_given_back_more_than_it_maps) {
  EXPECT_TRUE(fits_lock_limit(200 * MIB, 292 * MIB, 4096));
}

TEST(limit_of_locked_memory, of_nothing_allows_nothing) { EXPECT_FALSE(fits_lock_limit(293 * MIB, 292 * MIB, 0)); }

}  // namespace
}  // namespace ceilmeter::test
