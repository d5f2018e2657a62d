// Metrics that are 0 because the processor lacks their events, told from those that are 0 because nothing happened.
#include "perfmon/silent_events.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "../support/scratch_folder.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using event_names = std::set<std::string>;

counter_table counters(std::initializer_list<std::pair<const char*, std::uint64_t>> values) {
  counter_table table;
  for (const auto& [name, value] : values) table.insert(name, value);
  return table;
}

TEST(silent_events_test, a_metric_that_stays_0_while_l1_moves_is_named_with_its_event) {
  EXPECT_THAT(
      describe_silent_metrics(counters({{"L1D_CACHE", 10'000}, {"LL_CACHE", 0}}), std::nullopt),
      ElementsAre("l3_bytes is 0 in all regions: LL_CACHE (0x32) did not count while L1D_CACHE counted 10000. The "
                  "processor may lack the event; do not read this 0 as no traffic"));
}

TEST(silent_events_test, a_metric_of_three_events_names_all_that_were_opened) {
  const auto warnings = describe_silent_metrics(
      counters({{"L1D_CACHE", 20'000}, {"L2D_CACHE_REFILL_LD", 0}, {"LSU_HIT_L2", 0}}), std::nullopt);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_THAT(warnings[0], HasSubstr("l2_bytes is 0 in all regions: L2D_CACHE_REFILL_LD (0x52), LSU_HIT_L2 (0x600b) "));
}

TEST(silent_events_test, one_event_of_a_metric_that_moves_is_enough) {
  EXPECT_THAT(describe_silent_metrics(counters({{"L1D_CACHE", 20'000}, {"L2D_CACHE_REFILL_LD", 1}, {"LSU_HIT_L2", 0}}),
                                      std::nullopt),
              IsEmpty());
}

TEST(silent_events_test, little_work_that_the_first_level_cache_may_have_held_is_no_reason) {
  EXPECT_THAT(describe_silent_metrics(counters({{"L1D_CACHE", 9'999}, {"LL_CACHE", 0}}), std::nullopt), IsEmpty());
}

TEST(silent_events_test, an_event_that_failed_to_open_has_had_its_line) {
  EXPECT_THAT(describe_silent_metrics(counters({{"L1D_CACHE", 20'000}}), std::nullopt), IsEmpty());
}

TEST(silent_events_test, an_event_that_the_kernel_does_not_list_is_named_whatever_the_work) {
  EXPECT_THAT(
      describe_silent_metrics(counters({{"L1D_CACHE", 0}, {"LL_CACHE", 0}, {"LL_CACHE_MISS", 0}}),
                              event_names{"l1d_cache", "ll_cache_miss", "ll_cache_rd"}),
      ElementsAre("l3_bytes is 0 in all regions: LL_CACHE (0x32) did not count, and the kernel does not list it "
                  "for this processor. The processor may lack the event; do not read this 0 as no traffic"));
}

TEST(silent_events_test, codes_that_the_kernel_never_lists_are_judged_by_the_counts_alone) {
  EXPECT_THAT(
      describe_silent_metrics(counters({{"L1D_CACHE", 0}, {"L2D_CACHE_REFILL_LD", 0}}), event_names{"l1d_cache"}),
      IsEmpty());
}

TEST(silent_events_test, an_unlisted_event_that_counts_is_no_reason) {
  EXPECT_THAT(describe_silent_metrics(counters({{"L1D_CACHE", 5}, {"LL_CACHE", 1}}), event_names{"cpu_cycles"}),
              IsEmpty());
}

class listed_events_test : public ::testing::Test {
 protected:
  void add(const std::string& path) {
    const std::string file = folder_ / path;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file) << "event=0x32\n";
  }
  std::string root() const { return folder_ / ""; }

  const scratch_folder folder_;
};

TEST_F(listed_events_test, the_events_of_all_units_of_processors_are_listed) {
  add("armv8_cortex_a53/cpus");
  add("armv8_cortex_a53/events/l1d_cache");
  add("armv8_cortex_a76/cpus");
  add("armv8_cortex_a76/events/ll_cache");
  EXPECT_EQ(read_listed_events(root()), (event_names{"l1d_cache", "ll_cache"}));
}

TEST_F(listed_events_test, units_of_interconnects_do_not_count) {
  add("arm_dsu_0/cpumask");
  add("arm_dsu_0/events/ll_cache");
  EXPECT_EQ(read_listed_events(root()), std::nullopt);
}

TEST_F(listed_events_test, a_folder_that_is_not_there_says_nothing) {
  EXPECT_EQ(read_listed_events(folder_ / "missing"), std::nullopt);
}

}  // namespace
}  // namespace ceilmeter::test
