// The end of counting: groups are read, closed, summed up by region, timed, and turned into metrics.
#include <algorithm>
#include <cerrno>
#include <thread>

#include "perfmon_fixture.h"
#include "shared_names.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class perfmon_finalisation_test : public perfmon_test {
 protected:
  // Starts and stops `region` once for each interval, on one thread, and finalises.
  static void run_intervals(fake_kernel& kernel, perfmon& counted, const std::vector<time_interval>& intervals) {
    for (const auto& [begin, end] : intervals) {
      kernel.clock.push_back(begin);
      kernel.clock.push_back(end);
    }
    for (std::size_t i = 0; i < intervals.size(); ++i) {
      counted.start_roofline_events("r");
      counted.stop_roofline_events("r");
    }
    counted.finalize_roofline_events();
  }

  std::uint64_t active_time(const std::vector<time_interval>& intervals) {
    open_perfmon counted(true);
    run_intervals(kernel, counted, intervals);
    return *counted.m_counters_per_region_map.at("r").find("duration_time");
  }

  static std::vector<std::string> names(const std::vector<perfmon_region>& regions) {
    std::vector<std::string> result;
    for (const perfmon_region& region : regions) result.push_back(region.name);
    return result;
  }
};

TEST_F(perfmon_finalisation_test, overlapping_intervals_count_once_and_gaps_do_not_count) {
  EXPECT_EQ(active_time({{10, 20}, {15, 30}, {40, 50}}), 30u);
}

TEST_F(perfmon_finalisation_test, touching_intervals_are_one) { EXPECT_EQ(active_time({{10, 20}, {20, 30}}), 20u); }

TEST_F(perfmon_finalisation_test, touching_intervals_are_added_in_one_piece) {
  reset_log(LEVEL_DEBUG);
  active_time({{10, 20}, {20, 30}});
  EXPECT_THAT(logged_by("operator()", LEVEL_DEBUG), ElementsAre("0 +=: 20"));
}

TEST_F(perfmon_finalisation_test, an_interval_inside_another_changes_nothing) {
  EXPECT_EQ(active_time({{10, 100}, {20, 30}}), 90u);
}

TEST_F(perfmon_finalisation_test, intervals_are_taken_by_rising_begin_whatever_their_order) {
  EXPECT_EQ(active_time({{40, 50}, {15, 30}, {10, 20}}), 30u);
}

TEST_F(perfmon_finalisation_test, intervals_with_one_begin_count_as_the_longest) {
  EXPECT_EQ(active_time({{10, 12}, {10, 30}, {10, 11}}), 20u);
}

TEST_F(perfmon_finalisation_test, intervals_with_one_begin_stay_in_the_order_of_their_insertion) {
  open_perfmon counted(true);
  run_intervals(kernel, counted, {{10, 12}, {10, 30}, {5, 6}, {10, 11}});
  EXPECT_THAT(counted.m_time_intervals_map.at("r"), ElementsAre(Pair(5, 6), Pair(10, 12), Pair(10, 30), Pair(10, 11)));
}

TEST_F(perfmon_finalisation_test, one_interval_alone_prints_no_time_interval_line_and_one_sum) {
  reset_log(LEVEL_TRACE);
  active_time({{10, 25}});
  EXPECT_THAT(logged_texts(LEVEL_TRACE), IsEmpty());
  EXPECT_THAT(logged_by("operator()", LEVEL_DEBUG), ElementsAre("0 +=: 15"));
}

TEST_F(perfmon_finalisation_test, every_step_of_the_union_is_logged) {
  reset_log(LEVEL_TRACE);
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  kernel.clock = {10, 20, 15, 30, 40, 50};
  for (int i = 0; i < 3; ++i) {
    counted.start_roofline_events("r");
    counted.stop_roofline_events("r");
  }
  kernel.count(fd(0), 1, 77);
  reset_log(LEVEL_TRACE);
  counted.finalize_roofline_events();

  const auto line = [](const std::string& function, int level, const std::string& text) {
    return logged_line{SOURCE, function, level, text};
  };
  std::vector<logged_line> lines = logged_lines();
  ASSERT_EQ(lines.size(), 12u);
  // The last two are the region's counters in the order of the hash table.
  std::sort(lines.end() - 2, lines.end(), [](const auto& left, const auto& right) { return left.text < right.text; });
  EXPECT_THAT(lines,
              ElementsAre(line("finalize_roofline_events", LEVEL_DEBUG, "finalize_roofline_events"),
                          line("finalize_per_thread_map", LEVEL_DEBUG,
                               "finalize_per_thread_map: m_counters_per_thread_map has 1 entries"),
                          line("finalize_roofline_events", LEVEL_DEBUG, "3 time intervals collected for r region"),
                          line("finalize_roofline_events", LEVEL_TRACE, "Time interval: begin 15, end 30"),
                          line("finalize_roofline_events", LEVEL_TRACE, "Total time interval: begin 10, end 30"),
                          line("finalize_roofline_events", LEVEL_TRACE, "Time interval: begin 40, end 50"),
                          line("operator()", LEVEL_DEBUG, "0 +=: 20"),
                          line("finalize_roofline_events", LEVEL_TRACE, "Total time interval: begin 40, end 50"),
                          line("operator()", LEVEL_DEBUG, "20 +=: 10"),
                          line("finalize_roofline_events", LEVEL_DEBUG, "Counters captured for r"),
                          line("finalize_roofline_events", LEVEL_DEBUG, "A\t77"),
                          line("finalize_roofline_events", LEVEL_DEBUG, "duration_time\t30")));
}

TEST_F(perfmon_finalisation_test, counters_are_logged_in_table_order) {
  reset_log(LEVEL_DEBUG);
  open_perfmon counted(true);
  run_intervals(kernel, counted, {{10, 20}});
  std::vector<std::string> expected;
  for (const auto& [name, value] : counted.m_counters_per_region_map.at("r")) {
    expected.push_back(name + "\t" + std::to_string(value));
  }
  ASSERT_EQ(expected.size(), 11u);  // Ten events and the time.
  const std::vector<std::string> lines = logged_by("finalize_roofline_events", LEVEL_DEBUG);
  ASSERT_GE(lines.size(), 12u);
  EXPECT_EQ(lines[lines.size() - 12], "Counters captured for r");
  EXPECT_EQ(std::vector<std::string>(lines.end() - 11, lines.end()), expected);
}

TEST_F(perfmon_finalisation_test, a_thread_that_never_stopped_adds_an_interval_of_length_0_and_its_counts) {
  kernel.clock = {10};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  kernel.count(fd(0), 4, 3);
  counted.finalize_roofline_events();
  const counter_table& counters = counted.m_counters_per_region_map.at("r");
  EXPECT_EQ(*counters.find("duration_time"), 0u);
  EXPECT_EQ(*counters.find("L1D_CACHE"), 3u);
  EXPECT_THAT(logged_texts(LEVEL_WARN), IsEmpty());
}

TEST_F(perfmon_finalisation_test, two_threads_of_a_region_add_up_and_their_time_is_the_union) {
  kernel.clock = {10, 20, 15, 30};
  open_perfmon counted(true);
  const auto start_and_stop = [&counted] {
    counted.start_roofline_events("r");
    counted.stop_roofline_events("r");
  };
  start_and_stop();
  std::thread(start_and_stop).join();
  EXPECT_EQ(kernel.opens().size(), 12u);
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 2u);
  kernel.count(fd(0), 4, 100);
  kernel.count(fd(6), 4, 11);
  kernel.count(fd(6), 0x33, 5);
  counted.finalize_roofline_events();

  ASSERT_EQ(counted.m_counters_per_region_map.size(), 1u);
  const counter_table& counters = counted.m_counters_per_region_map.at("r");
  EXPECT_EQ(*counters.find("L1D_CACHE"), 111u);
  EXPECT_EQ(*counters.find("LL_CACHE_MISS"), 5u);
  EXPECT_EQ(*counters.find("duration_time"), 20u);
  EXPECT_EQ(kernel.open_descriptors(), 0);
}

TEST_F(perfmon_finalisation_test, regions_are_kept_apart) {
  kernel.clock = {10, 20, 100, 150};
  open_perfmon counted(true);
  for (const std::string region : {"a", "b"}) {
    counted.start_roofline_events(region);
    counted.stop_roofline_events(region);
  }
  kernel.count(fd(0), 4, 1);
  kernel.count(fd(6), 4, 2);
  counted.finalize_roofline_events();
  EXPECT_EQ(*counted.m_counters_per_region_map.at("a").find("L1D_CACHE"), 1u);
  EXPECT_EQ(*counted.m_counters_per_region_map.at("b").find("L1D_CACHE"), 2u);
  EXPECT_EQ(*counted.m_counters_per_region_map.at("a").find("duration_time"), 10u);
  EXPECT_EQ(*counted.m_counters_per_region_map.at("b").find("duration_time"), 50u);
}

TEST_F(perfmon_finalisation_test, a_group_is_read_then_its_leader_closed_then_every_event_with_the_leader_once_more) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}, {"B", 2, -1}}}});
  counted.start_roofline_events("r");
  const std::size_t before = kernel.calls().size();
  counted.finalize_per_thread_map();
  std::vector<std::string> calls = kernel.calls();
  calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
  ASSERT_EQ(calls.size(), 4u);
  EXPECT_EQ(calls[0], "read 700000 4096");
  EXPECT_EQ(calls[1], "close 700000");
  EXPECT_THAT((std::vector<std::string>(calls.begin() + 2, calls.end())),
              UnorderedElementsAre("close 700000 fails", "close 700001"));
  EXPECT_THAT(logged_lines(), IsEmpty());
}

TEST_F(perfmon_finalisation_test, a_closed_record_has_no_descriptors_and_keeps_its_intervals) {
  kernel.clock = {10, 20};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  counted.finalize_per_thread_map();
  const thread_counters& counters = counted.counters("r");
  EXPECT_EQ(counters.group_fd, -1);
  EXPECT_EQ(counters.events.size(), 6u);
  for (const auto& [id, event] : counters.events) EXPECT_EQ(event.fd, -1) << event.name;
  EXPECT_THAT(counters.time_intervals, ElementsAre(time_interval(10, 20)));
  EXPECT_EQ(kernel.open_descriptors(), 0);
}

TEST_F(perfmon_finalisation_test, a_group_that_cannot_be_read_is_closed_and_keeps_its_time) {
  kernel.clock = {10, 20};
  kernel.read_error = EIO;
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  counted.finalize_roofline_events();
  EXPECT_THAT(logged_texts(LEVEL_WARN),
              ElementsAre("failed to read counter_values for core events with Input/output error"));
  EXPECT_EQ(kernel.open_descriptors(), 0);
  const std::vector<perfmon_region> regions = counted.get_roofline_events();
  ASSERT_EQ(regions.size(), 1u);
  EXPECT_EQ(*regions[0].metrics.find("time"), 10u);
  EXPECT_EQ(*regions[0].metrics.find("l1_bytes"), 0u);
}

TEST_F(perfmon_finalisation_test, a_region_all_of_whose_groups_failed_is_absent) {
  kernel.open_result = -1;
  open_perfmon counted(true);
  counted.start_roofline_events("failed");
  kernel.open_result.reset();
  counted.start_roofline_events("counted");
  counted.finalize_roofline_events();
  EXPECT_THAT(names(counted.get_roofline_events()), ElementsAre("counted"));
  // Its list of intervals exists all the same, and is empty.
  EXPECT_THAT(counted.m_time_intervals_map.at("failed"), IsEmpty());
}

TEST_F(perfmon_finalisation_test, a_region_with_a_failed_group_on_one_of_two_threads_has_the_other_threads_counts) {
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  kernel.count(fd(0), 4, 9);
  kernel.open_result = -1;
  std::thread([&counted] { counted.start_roofline_events("r"); }).join();
  counted.finalize_roofline_events();
  ASSERT_EQ(counted.get_roofline_events().size(), 1u);
  EXPECT_EQ(*counted.m_counters_per_region_map.at("r").find("L1D_CACHE"), 9u);
}

TEST_F(perfmon_finalisation_test, a_region_without_an_interval_gets_its_warning_and_a_time_of_0) {
  open_perfmon counted(true);
  counted.open_roofline_events("some region");
  kernel.count(fd(0), 4, 2);
  counted.finalize_roofline_events();
  EXPECT_THAT(logged_lines(), ElementsAre(logged_line{SOURCE, "finalize_roofline_events", LEVEL_WARN,
                                                      "No time interval collected for some region region"}));
  EXPECT_FALSE(counted.m_counters_per_region_map.at("some region").contains("duration_time"));
  const std::vector<perfmon_region> regions = counted.get_roofline_events();
  ASSERT_EQ(regions.size(), 1u);
  EXPECT_EQ(*regions[0].metrics.find("time"), 0u);
  EXPECT_EQ(*regions[0].metrics.find("l1_bytes"), 32u);
}

TEST_F(perfmon_finalisation_test, a_region_without_an_interval_does_not_keep_others_from_being_timed) {
  kernel.clock = {10, 20};
  open_perfmon counted(true);
  counted.open_roofline_events("a");
  counted.open_roofline_events("c");
  counted.start_roofline_events("b");
  counted.stop_roofline_events("b");
  counted.finalize_roofline_events();
  EXPECT_EQ(*counted.m_counters_per_region_map.at("b").find("duration_time"), 10u);
  EXPECT_EQ(logged_texts(LEVEL_WARN).size(), 2u);
}

TEST_F(perfmon_finalisation_test, a_region_whose_l2_hit_counter_failed_has_l2_bytes_from_the_refills_alone) {
  kernel.refused = {{0x600B, ENOENT}};
  open_perfmon counted(true);
  counted.start_roofline_events("r");
  kernel.count(fd(0), 0x52, 3);
  kernel.count(fd(0), 0x53, 4);
  counted.finalize_roofline_events();
  const std::vector<perfmon_region> regions = counted.get_roofline_events();
  ASSERT_EQ(regions.size(), 1u);
  EXPECT_EQ(*regions[0].metrics.find("l2_bytes"), 448u);
}

TEST_F(perfmon_finalisation_test, counters_of_1_to_6_reach_the_metrics_of_their_region) {
  kernel.clock = {10, 25};
  open_perfmon counted(true);
  counted.start_roofline_events("total");
  counted.stop_roofline_events("total");
  kernel.count(fd(0), 0x4, 1);
  kernel.count(fd(0), 0x600B, 2);
  kernel.count(fd(0), 0x52, 3);
  kernel.count(fd(0), 0x53, 4);
  kernel.count(fd(0), 0x32, 5);
  kernel.count(fd(0), 0x33, 6);
  counted.finalize_roofline_events();
  const std::vector<perfmon_region> regions = counted.get_roofline_events();
  ASSERT_EQ(regions.size(), 1u);
  EXPECT_EQ(regions[0].name, "total");
  EXPECT_EQ(regions[0].metrics.size(), 5u);
  EXPECT_EQ(*regions[0].metrics.find("l1_bytes"), 16u);
  EXPECT_EQ(*regions[0].metrics.find("l2_bytes"), 576u);
  EXPECT_EQ(*regions[0].metrics.find("l3_bytes"), 320u);
  EXPECT_EQ(*regions[0].metrics.find("ddr_bytes"), 384u);
  EXPECT_EQ(*regions[0].metrics.find("time"), 15u);
}

TEST_F(perfmon_finalisation_test, the_regions_come_in_the_order_of_the_hash_map) {
  open_perfmon counted(false, {{4, {{"A", 1, -1}}}});
  for (int i = 0; i < 40; ++i) counted.start_roofline_events("region " + std::to_string(i));
  counted.finalize_roofline_events();
  std::vector<std::string> expected;
  for (const auto& [name, counters] : counted.m_counters_per_region_map) expected.push_back(name);
  const std::vector<std::string> regions = names(counted.get_roofline_events());
  EXPECT_EQ(regions, expected);
  EXPECT_EQ(regions.size(), 40u);
  EXPECT_FALSE(std::is_sorted(regions.begin(), regions.end()));
}

TEST_F(perfmon_finalisation_test, the_metrics_may_be_taken_any_number_of_times) {
  kernel.clock = {10, 25};
  open_perfmon counted(true);
  run_intervals(kernel, counted, {});
  EXPECT_THAT(counted.get_roofline_events(), IsEmpty());
  counted.start_roofline_events("r");
  counted.stop_roofline_events("r");
  counted.finalize_roofline_events();
  for (int i = 0; i < 3; ++i) {
    const std::vector<perfmon_region> regions = counted.get_roofline_events();
    ASSERT_EQ(regions.size(), 1u);
    EXPECT_EQ(*regions[0].metrics.find("time"), 15u);
  }
}

TEST_F(perfmon_finalisation_test, taking_the_metrics_is_logged_at_debug) {
  open_perfmon counted(true);
  reset_log(LEVEL_DEBUG);
  counted.get_roofline_events();
  EXPECT_THAT(logged_lines(),
              ElementsAre(logged_line{SOURCE, "get_roofline_events", LEVEL_DEBUG, "get_roofline_events"}));
}

TEST_F(perfmon_finalisation_test, a_second_finalisation_adds_the_time_again_and_closes_nothing) {
  open_perfmon counted(true);
  run_intervals(kernel, counted, {{10, 20}, {40, 70}});
  counted.finalize_roofline_events();
  EXPECT_EQ(counted.m_time_intervals_map.at("r").size(), 4u);
  EXPECT_EQ(*counted.m_counters_per_region_map.at("r").find("duration_time"), 80u);
  for (const std::string& call : kernel.calls()) EXPECT_NE(call, "close -1 fails");
}

TEST_F(perfmon_finalisation_test, finalising_without_a_region_logs_its_two_lines_and_gives_no_region) {
  reset_log(LEVEL_TRACE);
  open_perfmon counted(true);
  counted.finalize_roofline_events();
  EXPECT_THAT(
      logged_texts(LEVEL_DEBUG),
      ElementsAre("finalize_roofline_events", "finalize_per_thread_map: m_counters_per_thread_map has 0 entries"));
  EXPECT_THAT(counted.get_roofline_events(), IsEmpty());
  EXPECT_THAT(kernel.calls(), IsEmpty());
}

}  // namespace
}  // namespace ceilmeter::test
