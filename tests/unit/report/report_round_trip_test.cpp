// What is written and read back is the same report, but for what the file settles: the sum of operations of each
// region, and the five metrics.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "../support/log_capture.h"
#include "report_handler.h"
#include "report_text.h"
#include "scratch_file.h"
#include "shared_names.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

collector_report through_a_file(const collector_report& report) {
  const scratch_file file;
  EXPECT_TRUE(write(file.path(), report));
  return read(file.path());
}

// A report of a seeded generator. Every region's `flop` is the sum that the file will have.
collector_report made_up_report(unsigned seed) {
  std::mt19937_64 random(seed);
  collector_report report;
  report.threads = random();
  const std::size_t regions = random() % 5;
  for (std::size_t number = 0; number < regions; ++number) {
    region_metric& region = report.regions.emplace_back();
    region.name = "region " + std::to_string(random());
    region.threads = random();
    const std::size_t blocks = random() % 300;
    for (std::size_t made = 0; made < blocks; ++made) {
      basic_block_record block;
      block.start = random() >> (random() % 64);
      block.end = random();
      block.dump_start = random() >> (random() % 64);
      block.dump_end = random();
      block.flop = static_cast<std::int64_t>(random());
      block.count = static_cast<std::int64_t>(random());
      block.vector_length = static_cast<std::int32_t>(random());
      block.module = "/lib/" + std::to_string(random() % 3) + ".so";
      if (region.bbs.insert(block.start, block).second) {
        region.flop += static_cast<std::uint64_t>(block.flop) * static_cast<std::uint64_t>(block.count);
      }
    }
    for (const std::string& name : roofline_metric_names) region.metrics.insert(name, random());
  }
  const std::size_t counts = random() % 4;
  for (std::size_t number = 0; number < counts; ++number) {
    std::vector<benchmark_result> roofs(random() % 14);
    for (auto& roof : roofs) {
      roof = {"roof " + std::to_string(random()), static_cast<std::int64_t>(random()), "B/s", random() % 2 == 0};
    }
    report.benchmarks.insert(random(), std::move(roofs));
  }
  return report;
}

// Blocks sorted by start: two tables of the same blocks may differ in their order, as it depends on history.
std::string in_sorted_words(const collector_report& report) {
  std::string text = "threads " + std::to_string(report.threads) + "\n";
  for (const region_metric& region : report.regions) {
    std::vector<std::string> blocks;
    for (const auto& [start, block] : region.bbs) blocks.push_back(in_words(block));
    std::sort(blocks.begin(), blocks.end());
    text += region.name + " flop " + std::to_string(region.flop) + " threads " + std::to_string(region.threads) + "\n";
    for (const std::string& block : blocks) text += block + "\n";
    text += in_words(region.metrics);
  }
  std::vector<std::string> roofs;
  for (const auto& [count, list] : report.benchmarks) {
    benchmark_report one;
    one.insert(count, list);
    roofs.push_back(in_words(one));
  }
  std::sort(roofs.begin(), roofs.end());
  for (const std::string& list : roofs) text += list;
  return text;
}

TEST(round_trip, gives_equal_reports) {
  for (unsigned seed = 1; seed <= 30; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    const collector_report report = made_up_report(seed);
    const log_capture log(LEVEL_FATAL);  // A report may lack the roofs of its thread count.
    ASSERT_EQ(in_sorted_words(through_a_file(report)), in_sorted_words(report));
  }
}

TEST(round_trip, sets_the_records_flop_to_the_sum_over_its_blocks) {
  collector_report report;
  region_metric& region = report.regions.emplace_back();
  region.name = "total";
  region.flop = 1;
  region.bbs.insert(16, {16, 20, 0, 4, 3, 7, 1, "/m"});
  EXPECT_EQ(through_a_file(report).regions.at(0).flop, 21u);
}

TEST(round_trip, gives_a_region_without_metrics_five_zeros) {
  collector_report report;
  report.regions.emplace_back().name = "total";
  EXPECT_EQ(in_words(through_a_file(report)),
            "threads 0\nregion total flop 0 threads 0\n"
            "  ddr_bytes 0\n  l2_bytes 0\n  time 0\n  l3_bytes 0\n  l1_bytes 0\n");
}

TEST(round_trip, loses_a_metric_of_another_name) {
  collector_report report;
  region_metric& region = report.regions.emplace_back();
  region.metrics.insert("l4_bytes", 1);
  region.metrics.insert("time", 2);
  const collector_report back = through_a_file(report);
  EXPECT_FALSE(back.regions.at(0).metrics.contains("l4_bytes"));
  EXPECT_EQ(*back.regions.at(0).metrics.find("time"), 2u);
}

TEST(round_trip, ends_at_a_module_path_with_a_quote) {
  collector_report report;
  report.threads = 3;
  region_metric& region = report.regions.emplace_back();
  region.name = "total";
  region.bbs.insert(16, {16, 20, 0, 4, 3, 7, 1, "/tmp/a\"b"});
  const log_capture log(LEVEL_WARN);
  // What the fault is inside of goes with it: the region and all that follows, "threads" too.
  EXPECT_EQ(in_words(through_a_file(report)), "threads 0\n");
  EXPECT_THAT(log.messages(), ElementsAre(::testing::AllOf(HasSubstr("warn failed to parse json from "),
                                                           HasSubstr(" with error Expected ',' or ']' symbols."))));
}

TEST(round_trip, changes_nothing_more_when_repeated) {
  const collector_report report = made_up_report(5);
  ASSERT_FALSE(report.regions.empty());
  const log_capture log(LEVEL_FATAL);
  collector_report back = through_a_file(report);
  for (int round = 0; round < 5; ++round) back = through_a_file(back);
  EXPECT_EQ(in_sorted_words(back), in_sorted_words(report));
}

}  // namespace
}  // namespace ceilmeter
