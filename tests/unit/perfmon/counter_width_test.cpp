// Groups that the counter unit cannot run, for units of every size in use: what is closed, what stays open, and what is
// logged.
#include <cerrno>
#include <thread>

#include "perfmon/perfmon_utils.h"
#include "perfmon_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string EXTRA_EVENTS = "LDST_SPEC, ASE_SPEC, VFP_SPEC, STREAM_OUT";

std::string extra_closed(int width) {
  return "10 events do not run together on this counter unit of " + std::to_string(width) +
         " counters: " + EXTRA_EVENTS + " are closed again and not counted";
}

std::string none_runs(int width) {
  return "the 6 roofline events cannot run on this counter unit of " + std::to_string(width) +
         " counters: all bytes will be 0, the time is measured";
}

class counter_width_test : public perfmon_test {
 protected:
  std::vector<std::string> opened_names(open_perfmon& counted, const std::string& region) {
    std::vector<std::string> names;
    for (const auto& [id, event] : counted.counters(region).events) names.push_back(event.name);
    return names;
  }
};

TEST_F(counter_width_test, the_width_of_the_unit_is_found_with_counters_that_are_closed_again) {
  for (const int width : {4, 5, 6, 7, 8}) {
    kernel.width = width;
    EXPECT_EQ(perfmon_utils_counter_width(), width);
    EXPECT_EQ(kernel.open_descriptors(), 0);
  }
}

TEST_F(counter_width_test, a_kernel_that_refuses_no_counter_or_all_of_them_leaves_the_width_unknown) {
  EXPECT_EQ(perfmon_utils_counter_width(), 0);
  EXPECT_EQ(kernel.open_descriptors(), 0);
  kernel.refused = {{4, EACCES}};
  EXPECT_EQ(perfmon_utils_counter_width(), 0);
}

TEST_F(counter_width_test, six_events_run_on_six_counters_and_more_without_a_word) {
  for (const int width : {6, 7, 8}) {
    kernel.width = width;
    open_perfmon counted(true);
    counted.start_roofline_events("r");
    EXPECT_EQ(counted.counters("r").events.size(), 6u);
    EXPECT_TRUE(kernel.enabled(counted.counters("r").group_fd)) << width;
  }
  EXPECT_EQ(kernel.opens().size(), 18u);
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(counter_width_test, of_ten_events_the_extra_four_are_closed_where_ten_do_not_run_and_six_do) {
  for (const int width : {6, 7, 8}) {
    reset_log(LEVEL_INFO);
    kernel.width = width;
    open_perfmon counted(true);
    counted.start_roofline_events("r");
    const int leader = counted.counters("r").group_fd;
    EXPECT_THAT(opened_names(counted, "r"),
                ::testing::UnorderedElementsAre("L1D_CACHE", "LL_CACHE", "LL_CACHE_MISS", "L2D_CACHE_REFILL_LD",
                                                "L2D_CACHE_REFILL_ST", "LSU_HIT_L2"));
    EXPECT_TRUE(kernel.enabled(leader));
    EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre(extra_closed(width)));
    counted.stop_roofline_events("r");
    counted.finalize_roofline_events();
    EXPECT_EQ(kernel.open_descriptors(), 0);
  }
}

TEST_F(counter_width_test, ten_events_stay_open_where_they_run) {
  reset_log(LEVEL_INFO);
  kernel.width = 10;
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  EXPECT_EQ(counted.counters("r").events.size(), 10u);
  EXPECT_THAT(logged_texts(LEVEL_WARN), IsEmpty());
}

TEST_F(counter_width_test, a_later_group_is_opened_without_the_extra_events_and_nothing_is_said_again) {
  reset_log(LEVEL_INFO);
  kernel.width = 6;
  open_perfmon counted(true);
  counted.start_roofline_events("a");
  const std::size_t opens = kernel.opens().size();
  counted.start_roofline_events("b");
  std::thread([&counted] { counted.start_roofline_events("a"); }).join();
  EXPECT_EQ(kernel.opens().size(), opens + 12);
  EXPECT_EQ(logged_texts(LEVEL_WARN).size(), 1u);
}

TEST_F(counter_width_test, where_six_do_not_run_it_is_said_once_and_no_group_stays_enabled) {
  for (const int width : {4, 5}) {
    reset_log(LEVEL_WARN);
    kernel.width = width;
    open_perfmon counted(true);
    for (const std::string region : {"a", "b"}) {
      counted.start_roofline_events(region);
      // An enabled group of this size would keep the application from being started.
      EXPECT_FALSE(kernel.enabled(counted.counters(region).group_fd));
      counted.stop_roofline_events(region);
      counted.start_roofline_events(region);
      EXPECT_FALSE(kernel.enabled(counted.counters(region).group_fd));
    }
    EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre(none_runs(width)));
  }
}

TEST_F(counter_width_test, where_neither_ten_nor_six_run_both_are_said) {
  for (const int width : {4, 5}) {
    reset_log(LEVEL_INFO);
    kernel.width = width;
    open_perfmon counted(true);
    counted.start_roofline_events("r");
    EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre(extra_closed(width), none_runs(width)));
    EXPECT_FALSE(kernel.enabled(counted.counters("r").group_fd));
  }
}

TEST_F(counter_width_test, a_region_that_cannot_count_keeps_its_time) {
  kernel.width = 4;
  kernel.clock = {10, 5000, 5040};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  counted.finalize_roofline_events();
  const std::vector<perfmon_region> regions = counted.get_roofline_events();
  ASSERT_EQ(regions.size(), 1u);
  EXPECT_EQ(*regions[0].metrics.find("l1_bytes"), 0u);
  EXPECT_EQ(*regions[0].metrics.find("time"), 40u);
}

TEST_F(counter_width_test, a_group_that_others_keep_from_running_stays_enabled_and_they_are_named) {
  kernel.width = 6;
  kernel.starved_readings = 100;
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  EXPECT_TRUE(kernel.enabled(counted.counters("r").group_fd));
  EXPECT_THAT(logged_texts(LEVEL_WARN),
              ElementsAre("the 6 roofline events do not run: another user of the counter unit of 6 counters, such as a "
                          "profiler, holds counters"));
}

TEST_F(counter_width_test, a_group_that_gets_its_turn_within_a_short_wait_is_left_alone) {
  kernel.width = 6;
  kernel.starved_readings = 2;  // Of ten milliseconds each.
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  EXPECT_TRUE(kernel.enabled(counted.counters("r").group_fd));
  EXPECT_EQ(kernel.opens().size(), 6u);
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(counter_width_test, the_wait_for_the_smaller_group_is_neither_multiplexing_nor_time_of_the_region) {
  reset_log(LEVEL_INFO);
  kernel.width = 6;
  kernel.clock = {10, 5000, 5040};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  reset_log(LEVEL_WARN);
  counted.finalize_roofline_events();
  EXPECT_THAT(logged_lines(), IsEmpty());
  EXPECT_EQ(*counted.m_counters_per_region_map.at("r").find("duration_time"), 40u);
}

class multiplexing_share_test : public perfmon_test {
 protected:
  std::vector<std::string> lines_for(std::uint64_t enabled, std::uint64_t running) {
    reset_log(LEVEL_WARN);
    open_perfmon counted(true);
    counted.start_roofline_events("r");
    counted.stop_roofline_events("r");
    kernel.time_enabled = enabled;
    kernel.time_running = running;
    counted.finalize_roofline_events();
    kernel.time_enabled = kernel.time_running = 100;
    return logged_texts(LEVEL_WARN);
  }
};

TEST_F(multiplexing_share_test, the_share_of_the_time_in_which_the_counters_ran_is_told) {
  EXPECT_THAT(lines_for(800, 100),
              ElementsAre("core counters have multiplexing!",
                          "the counters of r region ran for 12.5 % of its time: its bytes are too low"));
}

TEST_F(multiplexing_share_test, counters_that_never_ran_have_a_line_of_their_own) {
  // Attempts to start a group leave a little time in it.
  EXPECT_THAT(lines_for(1'000'000, 400),
              ElementsAre("core counters have multiplexing!",
                          "the counters of r region never ran (0 % of its time): its bytes are 0"));
}

TEST_F(multiplexing_share_test, the_share_is_that_of_all_threads_of_the_region) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  std::thread([&counted] { counted.start_roofline_events("r"); }).join();
  kernel.time_enabled = 400;
  kernel.time_running = 100;
  counted.finalize_roofline_events();
  const std::string read = "core counters have multiplexing!";
  EXPECT_THAT(logged_texts(LEVEL_WARN),
              ElementsAre(read, read, "the counters of r region ran for 25.0 % of its time: its bytes are too low"));
}

class uncounted_starts_test : public perfmon_test {};

TEST_F(uncounted_starts_test, a_region_without_counters_has_its_lines_once_for_each_thread_and_a_number_at_the_end) {
  kernel.refused = {{1, EACCES}};
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  const auto pairs = [&counted] {
    for (int pair = 0; pair < 100; ++pair) {
      counted.start_roofline_events("r");
      counted.stop_roofline_events("r");
    }
  };
  pairs();
  const std::vector<std::string> of_a_thread = {
      "perf_event_open failed with Permission denied", "failed to perfmon::open_roofline_events for r region",
      "couldn't stop_roofline_events for r region because group_fd was not set"};
  EXPECT_EQ(logged_texts(LEVEL_WARN), of_a_thread);
  reset_log(LEVEL_WARN);
  std::thread(pairs).join();
  EXPECT_EQ(logged_texts(LEVEL_WARN), of_a_thread);
  reset_log(LEVEL_WARN);
  counted.finalize_roofline_events();
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("200 starts of r region had no counters"));
  EXPECT_EQ(kernel.opens().size(), 200u);  // Each start still tries.
}

}  // namespace
}  // namespace ceilmeter::test
