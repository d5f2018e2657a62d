// The driver's rules, with a list of benchmarks that take no time: which benchmark is made with how many threads, how
// long it lives, and what the report says of it.
#include "run_benchmarks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "../support/fake_log.h"
#include "benchmarks/roof_list.h"
#include "common/log.h"

namespace ceilmeter {

#if defined(CEILMETER_WITHOUT_KERNELS)
// The machine's own roofs need its kernels; where these are not built, an empty list answers the public entry.
roof_list machine_roofs() { return {}; }
#endif

namespace {

using testing::ElementsAre;

// What the driver did, in order: "make A 2", "run A", "destroy A".
std::vector<std::string> events;

class fake_roof : public benchmark_std {
 public:
  fake_roof(const std::string& benchmark_name, std::uint32_t thread_count, std::uint32_t fixed_result, bool compute)
      : benchmark_std(benchmark_name, thread_count, 0.0, 1), value(fixed_result), compute_roof(compute) {
    events.push_back("make " + name + " " + std::to_string(thread_count));
  }
  ~fake_roof() override { events.push_back("destroy " + name); }
  void operator()() override { events.push_back("run " + name); }
  std::uint32_t result() override { return value; }
  std::string unit() override { return compute_roof ? "GFLOPS" : "GB/s"; }
  bool is_compute() override { return compute_roof; }
  void init_thread(std::uint32_t) override {}
  void run_kernel(std::uint32_t, std::uint64_t) override {}

 private:
  std::uint32_t value;
  bool compute_roof;
};

roof_maker fake(const std::string& name, std::uint32_t result, bool compute = true) {
  return [=](std::uint32_t num_threads) { return std::make_unique<fake_roof>(name, num_threads, result, compute); };
}

// Its result is its thread count, so that a report shows with how many threads a roof was measured.
roof_maker counting_fake(const std::string& name) {
  return [=](std::uint32_t num_threads) { return std::make_unique<fake_roof>(name, num_threads, num_threads, false); };
}

class driver : public testing::Test {
 protected:
  driver() {
    events.clear();
    test::reset_log(LEVEL_WARN);
  }

  benchmark_report run(std::set<std::uint64_t> counts, const roof_list& list, std::uint32_t processors) {
    testing::internal::CaptureStdout();
    benchmark_report report = run_benchmarks(counts, list, processors);
    printed = testing::internal::GetCapturedStdout();
    set_afterwards = counts;
    return report;
  }

  std::int64_t value(const benchmark_report& report, std::uint64_t count, std::size_t row) {
    const std::vector<benchmark_result>* results = report.find(count);
    if (results == nullptr || results->size() <= row) {
      ADD_FAILURE() << "no row " << row << " for " << count << " threads";
      return -1;
    }
    return (*results)[row].value;
  }

  std::string printed;
  std::set<std::uint64_t> set_afterwards;
};

TEST_F(driver, measures_nothing_for_a_set_of_0_alone_and_prints_nothing) {
  const benchmark_report report = run({0}, {{fake("A", 1)}, {fake("B", 1)}}, 4);
  EXPECT_TRUE(report.empty());
  EXPECT_EQ(printed, "");
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(set_afterwards.empty());
  EXPECT_THAT(test::logged_lines(), ElementsAre(test::logged_line{"src/collector", "run_benchmarks", LEVEL_WARN,
                                                                  "Cannot run benchmarks for zero thread"}));
}

TEST_F(driver, measures_nothing_for_an_empty_set) {
  EXPECT_TRUE(run({}, {{fake("A", 1)}, {fake("B", 1)}}, 4).empty());
  EXPECT_THAT(test::logged_texts(LEVEL_WARN), ElementsAre("Cannot run benchmarks for zero thread"));
}

TEST_F(driver, drops_a_0_from_the_set_and_runs_for_the_rest) {
  const benchmark_report report = run({0, 4}, {{fake("A", 10)}, {counting_fake("B")}}, 4);
  EXPECT_THAT(set_afterwards, ElementsAre(4u));
  EXPECT_EQ(report.size(), 1u);
  EXPECT_EQ(value(report, 4, 0), 10);
  EXPECT_EQ(value(report, 4, 1), 4);
  EXPECT_TRUE(test::logged_lines().empty());
}

TEST_F(driver, tells_the_user_once_that_it_begins) {
  run({1, 2, 3}, {}, 4);
  EXPECT_EQ(printed, "CEILMETER: Launch benchmarks for measuring roofs\n");
}

TEST_F(driver, runs_the_first_list_once_and_makes_the_second_anew_for_each_count) {
  run({8, 2}, {{fake("A", 1), fake("B", 1)}, {fake("C", 1), fake("D", 1)}}, 4);
  EXPECT_THAT(events, ElementsAre("make A 2", "make B 2", "run A", "run B",                            //
                                  "make C 2", "make D 2", "run C", "run D", "destroy C", "destroy D",  //
                                  "make C 8", "make D 8", "run C", "run D", "destroy C", "destroy D",  //
                                  "destroy A", "destroy B"));
}

TEST_F(driver, scales_with_the_thread_count_up_to_the_processors) {
  const benchmark_report report = run({2, 8}, {{fake("A", 100)}, {counting_fake("B")}}, 4);
  EXPECT_EQ(value(report, 2, 0), 100);
  EXPECT_EQ(value(report, 8, 0), 200);
  EXPECT_EQ(value(report, 2, 1), 2);
  EXPECT_EQ(value(report, 8, 1), 8);
}

TEST_F(driver, does_not_scale_below_the_processors_if_even_the_first_count_is_above_them) {
  const benchmark_report report = run({8, 16}, {{fake("A", 100)}, {}}, 4);
  EXPECT_EQ(value(report, 8, 0), 100);
  EXPECT_EQ(value(report, 16, 0), 100);
}

TEST_F(driver, cuts_a_scaled_value_and_never_rounds_it) {
  const benchmark_report report = run({2, 3}, {{fake("A", 33)}, {}}, 4);
  EXPECT_EQ(value(report, 3, 0), 49);
}

TEST_F(driver, leaves_the_values_of_the_second_list_unscaled) {
  const benchmark_report report = run({1, 4}, {{}, {fake("B", 7)}}, 4);
  EXPECT_EQ(value(report, 1, 0), 7);
  EXPECT_EQ(value(report, 4, 0), 7);
}

TEST_F(driver, scales_beyond_thirty_two_bits) {
  const benchmark_report report = run({1, 4}, {{fake("A", 4'000'000'000)}, {}}, 4);
  EXPECT_EQ(value(report, 4, 0), 16'000'000'000);
}

TEST_F(driver, computes_with_16_processors_if_their_number_is_unknown) {
  const benchmark_report report = run({2, 64}, {{fake("A", 10)}, {}}, 0);
  EXPECT_EQ(value(report, 64, 0), 80);
  EXPECT_THAT(test::logged_lines(),
              ElementsAre(test::logged_line{"src/collector", "run_benchmarks", LEVEL_WARN,
                                            "Cannot determine number of maximum number of concurrent threads"}));
}

TEST_F(driver, limits_the_first_count_to_4096_and_the_others_not_at_all) {
  const benchmark_report report = run({5000}, {{counting_fake("A")}, {counting_fake("B")}}, 8192);
  EXPECT_THAT(events, ElementsAre("make A 4096", "run A", "make B 5000", "run B", "destroy B", "destroy A"));
  // 5000 / 4096 times 4096.
  EXPECT_EQ(value(report, 5000, 0), 5000);
  EXPECT_EQ(value(report, 5000, 1), 5000);
  EXPECT_THAT(test::logged_lines(),
              ElementsAre(test::logged_line{"src/collector", "run_benchmarks", LEVEL_WARN,
                                            "To many threads for run benchmark, fallback to limit value = 4096"}));
}

TEST_F(driver, does_not_warn_of_a_first_count_of_4096_nor_of_a_later_one_above) {
  run({4096, 5000}, {{counting_fake("A")}, {}}, 4);
  EXPECT_THAT(events, testing::Contains("make A 4096"));
  EXPECT_TRUE(test::logged_lines().empty());
}

TEST_F(driver, reports_name_unit_and_kind_in_the_order_of_the_lists) {
  const benchmark_report report = run({3}, {{fake("A", 1, true), fake("B", 2, false)}, {fake("C", 3, false)}}, 4);
  const std::vector<benchmark_result>* results = report.find(3);
  ASSERT_NE(results, nullptr);
  std::vector<std::string> rows;
  for (const benchmark_result& row : *results) {
    rows.push_back(row.name + " " + std::to_string(row.value) + " " + row.measure + (row.is_compute ? " compute" : ""));
  }
  EXPECT_THAT(rows, ElementsAre("A 1 GFLOPS compute", "B 2 GB/s", "C 3 GB/s"));
}

TEST_F(driver, logs_each_value_at_debug_as_it_is_reported) {
  test::reset_log(LEVEL_DEBUG);
  run({1, 2}, {{fake("A", 21)}, {fake("B", 7, false)}}, 4);
  EXPECT_THAT(
      test::logged_texts(LEVEL_DEBUG),
      ElementsAre("A benchmark for num_thread=1 result: 21 GFLOPS", "B benchmark for num_thread=1 result: 7 GB/s",
                  "A benchmark for num_thread=2 result: 42 GFLOPS", "B benchmark for num_thread=2 result: 7 GB/s"));
  for (const test::logged_line& line : test::logged_lines()) {
    EXPECT_EQ(line.source, "src/collector");
    EXPECT_EQ(line.function, "run_benchmarks");
  }
}

#if defined(CEILMETER_WITHOUT_KERNELS)
TEST_F(driver, asks_for_the_machines_own_roofs_at_its_public_entry) {
  std::set<std::uint64_t> counts = {2};
  testing::internal::CaptureStdout();
  const benchmark_report report = run_benchmarks(counts);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "CEILMETER: Launch benchmarks for measuring roofs\n");
  ASSERT_NE(report.find(2), nullptr);
  EXPECT_TRUE(report.find(2)->empty());
}
#endif

}  // namespace
}  // namespace ceilmeter
