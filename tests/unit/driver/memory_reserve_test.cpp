// That the reserve helps an application without memory is a matter of kept_results_test, on a kernel that knows limits.
#include "memory_reserve.h"

#include <gtest/gtest.h>

#include <new>

namespace ceilmeter {
namespace {

TEST(memory_reserve, is_given_away_at_the_first_failure_and_the_next_one_is_the_callers) {
  keep_memory_reserve();
  const std::new_handler handler = std::get_new_handler();
  ASSERT_NE(handler, nullptr);
  handler();
  EXPECT_EQ(std::get_new_handler(), handler);  // `new` tries again, and comes back here if that was not enough.
  handler();
  EXPECT_EQ(std::get_new_handler(), nullptr);
}

TEST(memory_reserve, is_kept_once_however_often_it_is_asked_for) {
  keep_memory_reserve();
  keep_memory_reserve();
  std::get_new_handler()();
  std::get_new_handler()();
  EXPECT_EQ(std::get_new_handler(), nullptr);
}

}  // namespace
}  // namespace ceilmeter
