// Starting and stopping of regions on opened groups, with every step that the kernel sees in its order.
#include <functional>
#include <thread>

#include "perfmon_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Runs `work` to its end on a thread of its own.
void on_another_thread(const std::function<void()>& work) { std::thread(work).join(); }

class perfmon_start_test : public perfmon_test {};

TEST_F(perfmon_start_test, the_time_stamp_is_taken_before_the_group_is_enabled) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl 700000 80082407", "clock", "ioctl 700000 2400 1",
                                          "read 700000 4096"));
}

TEST_F(perfmon_start_test, the_group_is_disabled_before_the_closing_time_stamp_is_taken) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl 700000 80082407", "clock", "ioctl 700000 2400 1",
                                          "read 700000 4096", "ioctl 700000 2401 1", "clock"));
}

TEST_F(perfmon_start_test, a_start_opens_an_interval_whose_end_is_its_begin) {
  kernel.clock = {5'000'000'123};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(5'000'000'123, 5'000'000'123)));
}

TEST_F(perfmon_start_test, a_stop_sets_the_end_of_the_last_interval) {
  kernel.clock = {5'000'000'123, 7'999'999'999};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(5'000'000'123, 7'999'999'999)));
}

TEST_F(perfmon_start_test, start_stop_start_stop_opens_one_group_and_yields_two_intervals) {
  kernel.clock = {10, 20, 30, 50};
  open_perfmon counted(true);
  for (int i = 0; i < 2; ++i) {
    counted.start_roofline_events("r");
    counted.stop_roofline_events("r");
  }
  EXPECT_EQ(kernel.opens().size(), 6u);
  EXPECT_EQ(kernel.enables(fd(0)), 2);
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(10, 20), time_interval(30, 50)));
}

TEST_F(perfmon_start_test, a_start_never_resets_the_group) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  kernel.count(fd(0), 4, 40);
  counted.stop_roofline_events("r");
  counted.start_roofline_events("r");
  kernel.count(fd(0), 4, 2);
  counter_table totals;
  counted.read_counters_from_group(counted.counters("r"), totals);
  EXPECT_EQ(*totals.find("L1D_CACHE"), 42u);
}

TEST_F(perfmon_start_test, a_start_of_an_enabled_region_enables_again_and_leaves_the_first_interval_empty) {
  kernel.clock = {10, 20, 30};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_EQ(kernel.enables(fd(0)), 2);
  EXPECT_EQ(kernel.opens().size(), 6u);
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(10, 10), time_interval(20, 30)));
}

TEST_F(perfmon_start_test, two_regions_of_a_thread_have_a_group_each) {
  open_perfmon counted(true);
  counted.start_roofline_events("a");
  counted.start_roofline_events("b");
  EXPECT_EQ(kernel.opens().size(), 12u);
  EXPECT_EQ(counted.counters("a").group_fd, fd(0));
  EXPECT_EQ(counted.counters("b").group_fd, fd(6));
  counted.stop_roofline_events("a");
  EXPECT_FALSE(kernel.enabled(fd(0)));
  EXPECT_TRUE(kernel.enabled(fd(6)));
}

TEST_F(perfmon_start_test, a_group_that_fails_as_a_whole_gives_one_warning_more_and_no_interval) {
  kernel.open_result = -1;
  open_perfmon counted(false, {{4, {{"A", 1, -1}, {"B", 2, -1}}}});
  counted.start_roofline_events("some region");
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("perf_event_open failed with Invalid argument",
                                                    "perf_event_open failed with Invalid argument",
                                                    "failed to perfmon::open_roofline_events for some region region"));
  EXPECT_EQ(logged_by("start_roofline_events", LEVEL_WARN).size(), 1u);
  EXPECT_EQ(counted.counters("some region").group_fd, -1);
  EXPECT_THAT(counted.counters("some region").time_intervals, IsEmpty());
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "open 2 group -1"));
}

TEST_F(perfmon_start_test, after_a_full_failure_the_next_start_tries_again_on_the_same_record) {
  kernel.open_result = -1;
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  const thread_counters* record = &counted.counters("r");
  kernel.open_result.reset();
  counted.start_roofline_events("r");
  EXPECT_EQ(&counted.counters("r"), record);
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 1u);
  EXPECT_EQ(record->group_fd, fd(0));
  EXPECT_EQ(record->events.size(), 6u);
  EXPECT_EQ(record->time_intervals.size(), 1u);
  EXPECT_EQ(kernel.opens().size(), 12u);
  EXPECT_TRUE(kernel.enabled(fd(0)));
}

TEST_F(perfmon_start_test, without_an_event_to_open_the_start_fails_with_its_warning) {
  open_perfmon counted(false, {});
  counted.start_roofline_events("r");
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("failed to perfmon::open_roofline_events for r region"));
}

TEST_F(perfmon_start_test, a_negative_leader_other_than_minus_1_gets_an_interval_and_a_warning_in_place_of_the_enable) {
  kernel.open_result = -2;
  kernel.clock = {10};
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "start_roofline_events", LEVEL_WARN,
                                      "couldn't start_roofline_events for r region because group_fd was not set"}));
  EXPECT_THAT(counted.counters("r").time_intervals, ElementsAre(time_interval(10, 10)));
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl -2 80082407", "clock"));
}

TEST_F(perfmon_start_test, a_start_is_logged_at_debug_ahead_of_the_open) {
  reset_log(LEVEL_DEBUG);
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("some region");
  EXPECT_THAT(logged_texts(LEVEL_DEBUG),
              ElementsAre("start_roofline_events: region is some region", "open_roofline_events: region is some region",
                          "perf_event_open: type 4, config 1, inherit: 0, cpu -1, group_fd -1, flags 8, ret 700000"));
  EXPECT_THAT(logged_by("start_roofline_events", LEVEL_DEBUG),
              ElementsAre("start_roofline_events: region is some region"));
}

TEST_F(perfmon_start_test, start_and_stop_log_nothing_at_level_warn) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_start_test, a_start_after_finalisation_opens_a_new_group_on_the_same_record) {
  kernel.clock = {10, 20, 30};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  counted.finalize_roofline_events();
  const thread_counters* record = &counted.counters("r");
  counted.start_roofline_events("r");
  EXPECT_EQ(&counted.counters("r"), record);
  EXPECT_EQ(record->group_fd, fd(6));
  EXPECT_EQ(record->time_intervals.size(), 2u);
  EXPECT_TRUE(kernel.enabled(fd(6)));
}

class perfmon_stop_test : public perfmon_test {};

TEST_F(perfmon_stop_test, a_stop_without_a_start_gives_its_warning_and_changes_nothing) {
  open_perfmon counted(true);
  counted.stop_roofline_events("some region");
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "stop_roofline_events", LEVEL_WARN,
                                                      "roofline events don't exist for some region region"}));
  EXPECT_THAT(counted.m_counters_per_thread_map, IsEmpty());
  EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(perfmon_stop_test, a_stop_of_another_region_leaves_the_running_one_enabled) {
  open_perfmon counted(true);
  counted.start_roofline_events("a");
  counted.stop_roofline_events("b");
  EXPECT_TRUE(kernel.enabled(fd(0)));
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("roofline events don't exist for b region"));
}

TEST_F(perfmon_stop_test, a_stop_on_another_thread_than_the_start_leaves_the_group_enabled) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  on_another_thread([&] { counted.stop_roofline_events("r"); });
  EXPECT_TRUE(kernel.enabled(fd(0)));
  EXPECT_THAT(logged_texts(LEVEL_WARN), ElementsAre("roofline events don't exist for r region"));
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 1u);
}

TEST_F(perfmon_stop_test, the_lock_is_free_again_after_a_stop_without_a_start) {
  open_perfmon counted(true);
  counted.stop_roofline_events("r");
  counted.start_roofline_events("r");
  EXPECT_TRUE(kernel.enabled(fd(0)));
}

TEST_F(perfmon_stop_test, a_stop_of_a_region_whose_group_failed_gives_its_warning) {
  kernel.open_result = -1;
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("r");
  reset_log(LEVEL_WARN);
  counted.stop_roofline_events("r");
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "stop_roofline_events", LEVEL_WARN,
                                      "couldn't stop_roofline_events for r region because group_fd was not set"}));
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1"));
}

TEST_F(perfmon_stop_test, a_stop_of_a_group_that_was_opened_but_never_started_disables_it_and_warns) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.open_roofline_events("r");
  counted.stop_roofline_events("r");
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "stop_roofline_events", LEVEL_WARN,
                                                      "start timestamp was not set for r region"}));
  EXPECT_THAT(kernel.calls(), ElementsAre("open 1 group -1", "ioctl 700000 80082407", "ioctl 700000 2401 1"));
}

TEST_F(perfmon_stop_test, a_stop_is_logged_at_debug) {
  reset_log(LEVEL_DEBUG);
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  counted.start_roofline_events("some region");
  counted.stop_roofline_events("some region");
  EXPECT_THAT(logged_by("stop_roofline_events", LEVEL_DEBUG),
              ElementsAre("stop_roofline_events: region is some region"));
}

}  // namespace
}  // namespace ceilmeter::test
