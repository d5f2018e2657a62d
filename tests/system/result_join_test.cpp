// What a run makes of the result file of an earlier run, by real runs against one file. Where no phase of this run
// could have left the earlier content, it is made by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "report_handler.h"
#include "support/process.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class result_join : public ::testing::Test {
 protected:
  process_result run(const std::vector<std::string>& options, const std::vector<std::string>& application) const {
    std::vector<std::string> words = {tool_path().string(), "-o", result().string()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), application.begin(), application.end());
    return run_process(words, {.folder = folder.path()});
  }

  std::filesystem::path result() const { return folder / "result.json"; }

  static region_metric region_with_blocks(const std::string& name) {
    region_metric region;
    region.name = name;
    region.bbs.insert(0x4000, {0x4000, 0x4020, 0x0, 0x20, 6, 100, 4, "/usr/bin/app"});
    region.bbs.insert(0x5000, {0x5000, 0x5008, 0x1000, 0x1008, 2, 50, 1, "/usr/lib/lib with blank.so"});
    for (const char* metric : {"l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"}) {
      region.metrics.insert(metric, 77);
    }
    region.threads = 3;
    return region;
  }

  // As if a traced run with roofs for 1 and 3 threads had left it.
  void leave_earlier_result(const std::vector<std::string>& names) const {
    collector_report report;
    for (const std::string& name : names) report.regions.push_back(region_with_blocks(name));
    for (const std::uint64_t threads : {1, 3}) {
      report.benchmarks.insert(threads, {{"L1", static_cast<std::int64_t>(100 * threads), "GB/s", false}});
    }
    report.threads = 3;
    ASSERT_TRUE(write(result(), report));
  }

  static std::uint64_t metric(const region_metric& region, const std::string& name) {
    const std::uint64_t* value = region.metrics.find(name);
    return value != nullptr ? *value : ~std::uint64_t{0};
  }

  static void expect_the_blocks(const region_metric& region) {
    EXPECT_EQ(region.bbs.size(), 2U);
    const basic_block_record* block = region.bbs.find(0x5000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->count, 50);
    EXPECT_EQ(block->module, "/usr/lib/lib with blank.so");
    EXPECT_EQ(region.flop, 700U);
    EXPECT_EQ(region.threads, 3U);
  }

  static void expect_the_roofs(const collector_report& report) {
    EXPECT_EQ(report.threads, 3U);
    ASSERT_EQ(report.benchmarks.size(), 2U);
    const std::vector<benchmark_result>* roofs = report.benchmarks.find(3);
    ASSERT_NE(roofs, nullptr);
    ASSERT_EQ(roofs->size(), 1U);
    EXPECT_EQ((*roofs)[0].value, 300);
  }

  temporary_folder folder;
};

TEST_F(result_join, total_perfmon_renews_the_metrics_and_keeps_blocks_threads_and_roofs) {
  leave_earlier_result({"total"});
  const process_result counted = run({"--phase=perfmon"}, {"/bin/sleep", "0.2"});
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(without_silent_metrics(counted.err), "");
  const collector_report report = read(result());
  ASSERT_EQ(report.regions.size(), 1U);
  EXPECT_EQ(report.regions[0].name, "total");
  expect_the_blocks(report.regions[0]);
  expect_the_roofs(report);
  EXPECT_EQ(metric(report.regions[0], "l1_bytes"), 0U);
  EXPECT_GE(metric(report.regions[0], "time"), 200'000'000U);
}

TEST_F(result_join, total_perfmon_drops_regions_of_other_names) {
  leave_earlier_result({"assemble", "solve", "total"});
  run({"--phase=perfmon"}, {"/bin/true"});
  const collector_report report = read(result());
  ASSERT_EQ(report.regions.size(), 1U);
  EXPECT_EQ(report.regions[0].name, "total");
}

TEST_F(result_join, region_perfmon_keeps_the_regions_that_the_application_wrote) {
  leave_earlier_result({"solve", "assemble"});
  const std::string written = content_of(result());
  std::filesystem::rename(result(), folder / "prepared.json");
  // What the region interface does in an application's process, as far as the tool can see it.
  const process_result counted =
      run({"--phase=perfmon", "--mode=region"}, {"/bin/sh", "-c", "cp prepared.json \"$ROOFLINE_REPORT_FILE\""});
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(without_silent_metrics(counted.err), "");
  EXPECT_EQ(content_of(result()), written);
}

TEST_F(result_join, region_perfmon_without_the_region_interface_writes_a_report_without_counters) {
  const process_result counted = run({"--phase=perfmon", "--mode=region"}, {"/bin/true"});
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(counted.out,
            "CEILMETER: Start collection for /bin/true\n"
            "CEILMETER: Launch application to collect performance metrics of /bin/true\n"
            "CEILMETER: Processing all collected data\n"
            "CEILMETER: Result is captured at " +
                result().string() + "\n" + "CEILMETER: Run \"ceilview " + result().string() + "\" to get report.\n");
  EXPECT_THAT(content_of(result()), HasSubstr("\"regions\": {\n  },\n"));
}

TEST_F(result_join, region_mode_hands_the_application_report_log_level_and_log_file) {
  const std::vector<std::string> application = {
      "/bin/sh", "-c", "echo \"$ROOFLINE_REPORT_FILE|$ROOFLINE_LOG_LEVEL|$ROOFLINE_LOG_FILE\""};
  EXPECT_THAT(run({"--phase=perfmon", "--mode=region"}, application).out,
              HasSubstr(result().string() + "|warn|stderr\n"));
  EXPECT_THAT(run({"--phase=perfmon", "--mode=region", "-l", "none", "--log-file=stdout"}, application).out,
              HasSubstr(result().string() + "|fatal|stdout\n"));
  EXPECT_THAT(run({"--phase=perfmon", "--mode=region", "-l", "trace-data", "--log-file=t.log"}, application).out,
              HasSubstr(result().string() + "|trace-data|t.log\n"));
}

TEST_F(result_join, region_mode_opens_no_counter_in_the_tool) {
  const process_result counted = run({"--phase=perfmon", "--mode=region", "-l", "debug"}, {"/bin/true"});
  EXPECT_THAT(counted.err, ::testing::Not(HasSubstr("perf_event_open")));
  EXPECT_THAT(log_lines_of_level(counted.err, "debug"),
              ElementsAre("collector debug Successfully set environment variable ROOFLINE_REPORT_FILE to " +
                              result().string() + " for roofline events.",
                          "collector debug Successfully set environment variable ROOFLINE_LOG_LEVEL to debug for "
                          "roofline events.",
                          "collector debug Successfully set environment variable ROOFLINE_LOG_FILE to stderr for "
                          "roofline events.",
                          "report_handler debug failed to open " + result().string() + " for reading"));
}

TEST_F(result_join, total_bintracer_renews_the_blocks_and_threads_and_keeps_metrics_and_roofs) {
  leave_earlier_result({"total"});
  const process_result traced = run({"--phase=bintracer"}, {program_path("tracer/long_block").string()});
  EXPECT_EQ(traced.status, 0);
  EXPECT_EQ(traced.err, "");
  const collector_report report = read(result());
  ASSERT_EQ(report.regions.size(), 1U);
  EXPECT_EQ(report.regions[0].bbs.find(0x4000), nullptr) << "a block of the earlier result";
  EXPECT_EQ(report.regions[0].flop, 21000U);
  EXPECT_EQ(report.regions[0].threads, 1U);
  for (const char* name : {"l1_bytes", "l2_bytes", "l3_bytes", "ddr_bytes", "time"}) {
    EXPECT_EQ(metric(report.regions[0], name), 77U) << name;
  }
  EXPECT_EQ(report.threads, 1U);
  EXPECT_EQ(report.benchmarks.size(), 2U);
}

TEST_F(result_join, region_bintracer_of_a_program_without_regions_leaves_the_file_as_it_was) {
  leave_earlier_result({"solve", "total"});
  const std::string before = content_of(result());
  const process_result traced = run({"--phase=bintracer", "--mode=region"}, {"/bin/true"});
  EXPECT_EQ(traced.status, 0);
  EXPECT_THAT(log_lines(traced.err), ElementsAre("bintracer_finalizer warn No flop in regions collected!"));
  EXPECT_EQ(content_of(result()), before);
}

TEST_F(result_join, perfmon_and_bintracer_one_after_the_other_give_what_both_in_one_run_give) {
  const std::string program = program_path("tracer/long_block").string();
  EXPECT_EQ(run({"--phase=perfmon"}, {program}).status, 0);
  EXPECT_EQ(run({"--phase=bintracer"}, {program}).status, 0);
  const collector_report apart = read(result());
  std::filesystem::remove(result());
  EXPECT_EQ(run({"--phase=~benchmarks"}, {program}).status, 0);
  const collector_report together = read(result());
  for (const collector_report& report : {apart, together}) {
    ASSERT_EQ(report.regions.size(), 1U);
    EXPECT_EQ(report.regions[0].name, "total");
    EXPECT_EQ(report.regions[0].flop, 21000U);
    EXPECT_EQ(report.regions[0].threads, 1U);
    EXPECT_NE(metric(report.regions[0], "time"), ~std::uint64_t{0});
    EXPECT_GT(metric(report.regions[0], "time"), 0U);
    EXPECT_EQ(report.threads, 1U);
  }
}

TEST_F(result_join, broken_earlier_file_is_reported_and_replaced) {
  write_file(result(), "{\"regions\": {\"total\": {\"flop\": 5, \"threads\": 2");
  const process_result counted = run({"--phase=perfmon"}, {"/bin/true"});
  EXPECT_EQ(counted.status, 0);
  EXPECT_THAT(log_lines(without_silent_metrics(counted.err)),
              ElementsAre("report_handler warn failed to parse json from " + result().string() +
                          " with error Unexpected end of stream."));
  EXPECT_EQ(read(result()).regions.size(), 1U);
}

TEST_F(result_join, earlier_file_that_is_an_array_counts_as_empty_without_a_warning) {
  write_file(result(), "[1, 2]");
  const process_result counted = run({"--phase=perfmon"}, {"/bin/true"});
  EXPECT_EQ(without_silent_metrics(counted.err), "");
  EXPECT_EQ(read(result()).regions.size(), 1U);
}

}  // namespace
}  // namespace ceilmeter::test
