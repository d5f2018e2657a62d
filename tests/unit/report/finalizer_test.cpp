// The join of tracer, counters and an earlier file, on made-up records whose numbers tell where they come from: those
// of the old file begin with 1, the tracer's with 2, the counters' with 3, the benchmarks' with 4.
#include "finalizer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <utility>

#include "../support/log_capture.h"
#include "report_text.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

basic_block_table block_at(std::uint64_t start) {
  basic_block_table blocks;
  basic_block_record block;
  block.start = start;
  block.end = start + 8;
  block.flop = 2;
  block.count = 5;
  block.module = "/bin/made_up";
  blocks.insert(start, block);
  return blocks;
}

metric_table metrics_with_time(std::uint64_t time) {
  metric_table metrics;
  metrics.insert("l1_bytes", time * 10);
  metrics.insert("time", time);
  return metrics;
}

bintracer_region traced(const std::string& name) { return {name, block_at(0x2000), 20, 21}; }

perfmon_region counted(const std::string& name) { return {name, metrics_with_time(30)}; }

region_metric old_region(const std::string& name) { return {name, block_at(0x1000), metrics_with_time(10), 11, 12}; }

benchmark_report roofs_for(std::initializer_list<std::uint64_t> counts, std::int64_t value = 40) {
  benchmark_report benchmarks;
  for (const std::uint64_t count : counts) benchmarks.insert(count, {{"L1", value, "B/s", false}});
  return benchmarks;
}

// What a join starts from; `join` gives what becomes of the report.
struct phases {
  collector_report report;
  bintracer_report tracer_report;
  std::vector<perfmon_region> perfmon_regions;
  benchmark_report benchmarks;

  std::string join() {
    finalize(report, tracer_report, perfmon_regions, benchmarks);
    return in_words(report);
  }
};

std::string in_words_of(collector_report report) { return in_words(report); }

std::vector<std::string> names(const collector_report& report) {
  std::vector<std::string> found;
  for (const region_metric& region : report.regions) found.push_back(region.name);
  return found;
}

// ---- What each selection of phases leaves ----

TEST(finalize, of_a_full_total_run_joins_blocks_and_metrics_in_one_region) {
  phases run;
  run.tracer_report = {{traced("total")}, 22};
  run.perfmon_regions = {counted("total")};
  run.benchmarks = roofs_for({22});
  EXPECT_EQ(run.join(),
            in_words_of({{{"total", block_at(0x2000), metrics_with_time(30), 20, 21}}, roofs_for({22}), 22}));
}

TEST(finalize, of_a_perfmon_run_takes_new_metrics_and_keeps_blocks_flop_and_threads_of_the_file) {
  phases run;
  run.report = {{old_region("total")}, roofs_for({12}), 12};
  run.perfmon_regions = {counted("total")};
  EXPECT_EQ(run.join(),
            in_words_of({{{"total", block_at(0x1000), metrics_with_time(30), 11, 12}}, roofs_for({12}), 12}));
}

TEST(finalize, of_a_bintracer_run_takes_new_blocks_and_keeps_the_metrics_of_the_file) {
  phases run;
  run.report = {{old_region("total")}, {}, 12};
  run.tracer_report = {{traced("total")}, 22};
  EXPECT_EQ(run.join(), in_words_of({{{"total", block_at(0x2000), metrics_with_time(10), 20, 21}}, {}, 22}));
}

TEST(finalize, of_a_benchmarks_run_replaces_the_roofs_and_leaves_the_regions) {
  phases run;
  run.report = {{old_region("total")}, roofs_for({12}, 13), 12};
  run.benchmarks = roofs_for({12});
  EXPECT_EQ(run.join(), in_words_of({{old_region("total")}, roofs_for({12}), 12}));
}

TEST(finalize, of_a_full_region_run_takes_blocks_from_the_tracer_and_metrics_from_the_file) {
  phases run;
  run.report = {{old_region("solve"), old_region("init"), old_region("unseen")}, {}, 0};
  run.tracer_report = {{traced("init"), traced("solve"), traced("uncounted")}, 22};
  run.benchmarks = roofs_for({21, 22});
  EXPECT_EQ(run.join(), in_words_of({{{"init", block_at(0x2000), metrics_with_time(10), 20, 21},
                                      {"solve", block_at(0x2000), metrics_with_time(10), 20, 21},
                                      {"uncounted", block_at(0x2000), {}, 20, 21}},
                                     roofs_for({21, 22}),
                                     22}));
}

TEST(finalize, of_a_region_perfmon_run_leaves_the_regions_as_the_application_wrote_them) {
  phases run;
  run.report = {{old_region("solve"), old_region("init")}, {}, 0};
  EXPECT_EQ(run.join(), in_words_of({{old_region("solve"), old_region("init")}, {}, 0}));
}

TEST(finalize, of_nothing_into_nothing_stays_empty) {
  phases run;
  EXPECT_EQ(run.join(), "threads 0\n");
}

TEST(finalize, phase_by_phase_in_any_order_ends_in_the_report_of_a_full_run) {
  std::vector<int> order = {0, 1, 2};
  const std::string full =
      in_words_of({{{"total", block_at(0x2000), metrics_with_time(30), 20, 21}}, roofs_for({22}), 22});
  do {
    SCOPED_TRACE(::testing::PrintToString(order));
    collector_report report;
    for (const int phase : order) {
      phases run;
      run.report = std::move(report);
      if (phase == 0) run.perfmon_regions = {counted("total")};
      if (phase == 1) run.tracer_report = {{traced("total")}, 22};
      if (phase == 2) run.benchmarks = roofs_for({22});
      run.join();
      report = std::move(run.report);
    }
    EXPECT_EQ(in_words(report), full);
  } while (std::next_permutation(order.begin(), order.end()));
}

// ---- Regions ----

TEST(finalize, takes_names_that_differ_in_case_as_two_regions) {
  phases run;
  run.tracer_report = {{traced("Total")}, 22};
  run.perfmon_regions = {counted("total")};
  EXPECT_EQ(
      run.join(),
      in_words_of({{{"Total", block_at(0x2000), {}, 20, 21}, {"total", {}, metrics_with_time(30), 0, 0}}, {}, 22}));
}

TEST(finalize, lets_nothing_of_an_old_region_survive_when_both_phases_have_it) {
  phases run;
  run.report = {{old_region("total")}, {}, 12};
  run.tracer_report.regions = {{"total", {}, 0, 0}};
  run.perfmon_regions = {{"total", {}}};
  EXPECT_EQ(run.join(), "threads 12\nregion total flop 0 threads 0\n");
}

TEST(finalize, keeps_a_counted_regions_zeros_where_the_old_region_has_nothing) {
  phases run;
  run.report = {{{"total", {}, metrics_with_time(10), 0, 0}}, {}, 0};
  run.perfmon_regions = {counted("total")};
  EXPECT_EQ(run.join(), in_words_of({{{"total", {}, metrics_with_time(30), 0, 0}}, {}, 0}));
}

TEST(finalize, leaves_a_traced_region_without_metrics_where_the_old_region_has_none) {
  phases run;
  run.report = {{{"total", block_at(0x1000), {}, 11, 12}}, {}, 0};
  run.tracer_report.regions = {traced("total")};
  EXPECT_EQ(run.join(), in_words_of({{{"total", block_at(0x2000), {}, 20, 21}}, {}, 0}));
}

TEST(finalize, keeps_zeros_of_a_traced_region_against_an_old_one) {
  phases run;
  run.report = {{old_region("total")}, {}, 0};
  run.tracer_report.regions = {{"total", {}, 0, 0}};
  EXPECT_EQ(run.join(), in_words_of({{{"total", {}, metrics_with_time(10), 0, 0}}, {}, 0}));
}

TEST(finalize, drops_old_regions_that_neither_phase_has) {
  phases run;
  run.report = {{old_region("gone"), old_region("total"), old_region("also_gone")}, {}, 0};
  run.perfmon_regions = {counted("total")};
  run.join();
  EXPECT_THAT(names(run.report), ElementsAre("total"));
}

TEST(finalize, merges_the_two_lists_in_ascending_order_of_name) {
  phases run;
  run.report.regions = {old_region("z"), old_region("b"), old_region("e")};
  run.tracer_report.regions = {traced("d"), traced("b"), traced("f")};
  run.perfmon_regions = {counted("e"), counted("d"), counted("a"), counted("z")};
  EXPECT_EQ(run.join(), in_words_of({{{"a", {}, metrics_with_time(30), 0, 0},
                                      {"b", block_at(0x2000), metrics_with_time(10), 20, 21},
                                      {"d", block_at(0x2000), metrics_with_time(30), 20, 21},
                                      {"e", block_at(0x1000), metrics_with_time(30), 11, 12},
                                      {"f", block_at(0x2000), {}, 20, 21},
                                      {"z", block_at(0x1000), metrics_with_time(30), 11, 12}},
                                     {},
                                     0}));
}

TEST(finalize, orders_names_by_unsigned_bytes_and_the_shorter_first) {
  phases run;
  run.tracer_report.regions = {traced("\xc3\xa9"), traced("ab"), traced("z"), traced(std::string("a\0", 2))};
  run.perfmon_regions = {counted("a"), counted(""), counted("B")};
  run.join();
  EXPECT_THAT(names(run.report), ElementsAre("", "B", "a", std::string("a\0", 2), "ab", "z", "\xc3\xa9"));
}

TEST(finalize, lends_an_old_region_to_every_new_one_of_its_name) {
  phases run;
  run.report.regions = {old_region("twice")};
  run.tracer_report.regions = {traced("twice"), traced("twice")};
  EXPECT_EQ(run.join(), in_words_of({{{"twice", block_at(0x2000), metrics_with_time(10), 20, 21},
                                      {"twice", block_at(0x2000), metrics_with_time(10), 20, 21}},
                                     {},
                                     0}));
}

TEST(finalize, pairs_regions_of_one_name_one_by_one) {
  phases run;
  run.tracer_report.regions = {traced("twice"), traced("twice")};
  run.perfmon_regions = {counted("twice")};
  EXPECT_EQ(run.join(), in_words_of({{{"twice", block_at(0x2000), metrics_with_time(30), 20, 21},
                                      {"twice", block_at(0x2000), {}, 20, 21}},
                                     {},
                                     0}));
}

TEST(finalize, moves_the_storage_of_the_big_tables) {
  phases run;
  run.tracer_report.regions = {traced("total")};
  run.perfmon_regions = {counted("total")};
  run.benchmarks = roofs_for({8});
  const auto* block = run.tracer_report.regions[0].bbs.find(0x2000);
  const auto* time = run.perfmon_regions[0].metrics.find("time");
  const auto* roofs = run.benchmarks.find(8);
  run.join();
  EXPECT_EQ(run.report.regions.at(0).bbs.find(0x2000), block);
  EXPECT_EQ(run.report.regions.at(0).metrics.find("time"), time);
  EXPECT_EQ(run.report.benchmarks.find(8), roofs);
  EXPECT_TRUE(run.tracer_report.regions[0].bbs.empty());
  EXPECT_TRUE(run.perfmon_regions[0].metrics.empty());
  EXPECT_TRUE(run.benchmarks.empty());
}

// ---- Roofs and the thread count ----

TEST(finalize, replaces_older_roofs_as_a_whole) {
  phases run;
  run.report.benchmarks = roofs_for({1, 2, 4}, 13);
  run.benchmarks = roofs_for({2});
  EXPECT_EQ(run.join(), in_words_of({{}, roofs_for({2}), 2}));
}

TEST(finalize, keeps_older_roofs_when_none_were_measured) {
  phases run;
  run.report = {{}, roofs_for({1, 2}, 13), 2};
  run.perfmon_regions = {counted("total")};
  EXPECT_EQ(run.join(), in_words_of({{{"total", {}, metrics_with_time(30), 0, 0}}, roofs_for({1, 2}, 13), 2}));
}

TEST(finalize, takes_the_one_measured_count_as_threads_on_a_fresh_path) {
  phases run;
  run.benchmarks = roofs_for({8});
  EXPECT_EQ(run.join(), in_words_of({{}, roofs_for({8}), 8}));
}

TEST(finalize, takes_the_count_in_the_first_live_slot_as_threads) {
  phases run;
  run.benchmarks = roofs_for({1, 2});  // Slots 101 and 10.
  run.join();
  EXPECT_EQ(run.report.threads, 2u);
}

TEST(finalize, keeps_the_threads_of_the_file_when_new_roofs_come) {
  phases run;
  run.report = {{old_region("total")}, {}, 4};
  run.benchmarks = roofs_for({4, 2});
  ASSERT_EQ(run.benchmarks.begin()->key, 2u);
  run.join();
  EXPECT_EQ(run.report.threads, 4u);
}

TEST(finalize, lets_the_tracers_count_win_over_the_roofs_and_the_file) {
  phases run;
  run.benchmarks = roofs_for({8});
  run.tracer_report.max_thread_count = 22;
  run.join();
  EXPECT_EQ(run.report.threads, 22u);

  phases later;
  later.report.threads = 12;
  later.tracer_report.max_thread_count = 22;
  later.join();
  EXPECT_EQ(later.report.threads, 22u);
}

TEST(finalize, takes_the_tracers_count_even_without_regions) {
  phases run;
  run.report = {{old_region("total")}, {}, 12};
  run.tracer_report.max_thread_count = 22;
  EXPECT_EQ(run.join(), in_words_of({{old_region("total")}, {}, 22}));
}

// ---- The log ----

TEST(finalize, logs_at_debug_what_it_adds) {
  phases run;
  run.tracer_report = {{traced("a"), traced("b")}, 22};
  run.perfmon_regions = {counted("b"), counted("c")};
  run.benchmarks = roofs_for({1, 8});
  const log_capture log;
  run.join();
  EXPECT_THAT(log.messages(),
              ElementsAre("debug New benchmark result added with size = 2", "debug New max_thread_num=22 added",
                          "debug New region metrics added with size = 3"));
  EXPECT_THAT(log.lines(), ::testing::Each(::testing::HasSubstr(" finalizer:")));
}

TEST(finalize, logs_nothing_when_nothing_is_added) {
  phases run;
  run.report = {{old_region("total")}, roofs_for({12}), 12};
  const log_capture log;
  run.join();
  EXPECT_THAT(log.messages(), IsEmpty());
}

}  // namespace
}  // namespace ceilmeter
