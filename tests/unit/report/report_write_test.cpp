// The result file as it is printed, byte by byte, and what a failed write tells.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "../support/log_capture.h"
#include "report_handler.h"
#include "scratch_file.h"

namespace ceilmeter {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

std::string printed(const json_token_owner& token) {
  char* text = nullptr;
  EXPECT_EQ(json_to_text(token.get(), &text), JSON_OK);
  std::string copy = text != nullptr ? text : "";
  std::free(text);
  return copy;
}

std::string written(const collector_report& report) {
  const scratch_file file;
  EXPECT_TRUE(write(file.path(), report));
  return file.text();
}

region_metric region_of_blocks(std::initializer_list<basic_block_record> blocks) {
  region_metric region;
  region.name = "total";
  for (const basic_block_record& block : blocks) region.bbs.insert(block.start, block);
  return region;
}

basic_block_record block_of(std::uint64_t start, std::int64_t flop, std::int64_t count) {
  return {start, start + 4, start, start + 4, flop, count, 1, "m"};
}

constexpr const char* empty_file = R"({
  "regions": {
  },
  "bb_keys": [
    "start",
    "end",
    "dump_start",
    "dump_end",
    "flop",
    "count",
    "vector_length",
    "module"
  ],
  "threads": 0
}
)";

constexpr const char* file_with_every_field = R"({
  "regions": {
    "solve": {
      "flop": 100,
      "threads": 3,
      "bbs": [
        [
          "400abc",
          "400ac8",
          "abc",
          "ac8",
          4,
          25,
          2,
          "/usr/bin/solver"
        ]
      ],
      "time": 7,
      "l1_bytes": 7
    }
  },
  "bb_keys": [
    "start",
    "end",
    "dump_start",
    "dump_end",
    "flop",
    "count",
    "vector_length",
    "module"
  ],
  "threads": 4,
  "roofs": [
    {
      "name": "L1",
      "value": 123,
      "measure": "B/s",
      "is_compute": false
    },
    {
      "name": "FP64 FMA",
      "value": 456,
      "measure": "FLOP/s",
      "is_compute": true
    }
  ],
  "roofs_by_num_threads": {
    "4": [
      {
        "name": "L1",
        "value": 123,
        "measure": "B/s",
        "is_compute": false
      },
      {
        "name": "FP64 FMA",
        "value": 456,
        "measure": "FLOP/s",
        "is_compute": true
      }
    ]
  }
}
)";

TEST(write, of_an_empty_report_has_regions_bb_keys_and_threads) { EXPECT_EQ(written({}), empty_file); }

TEST(write, prints_every_field_in_its_place) {
  collector_report report;
  region_metric region;
  region.name = "solve";
  region.flop = 999;  // The record's own field is not what is written.
  region.threads = 3;
  region.bbs.insert(0x400abc, {0x400abc, 0x400ac8, 0xabc, 0xac8, 4, 25, 2, "/usr/bin/solver"});
  for (const char* name : {"l1_bytes", "time"}) region.metrics.insert(name, 7);
  report.regions.push_back(region);
  report.benchmarks.insert(4, {{"L1", 123, "B/s", false}, {"FP64 FMA", 456, "FLOP/s", true}});
  report.threads = 4;
  EXPECT_EQ(written(report), file_with_every_field);
}

TEST(write, replaces_a_longer_file_as_a_whole) {
  const scratch_file file(std::string(100000, 'x'));
  EXPECT_TRUE(write(file.path(), {}));
  EXPECT_EQ(file.text(), empty_file);
}

TEST(write, prints_regions_in_the_order_of_the_report) {
  collector_report report;
  report.regions.resize(2);
  report.regions[0].name = "z";
  report.regions[1].name = "a";
  const std::string text = written(report);
  EXPECT_LT(text.find("\"z\""), text.find("\"a\""));
}

TEST(write, prints_a_module_path_with_a_quote_raw) {
  collector_report report;
  report.regions.push_back(region_of_blocks({{16, 20, 0, 4, 1, 1, 1, "/tmp/a\"b\\c"}}));
  EXPECT_THAT(written(report), HasSubstr("\n          \"/tmp/a\"b\\c\"\n"));
}

TEST(write, prints_percent_signs_of_names_as_they_are) {
  collector_report report;
  report.regions.resize(1);
  report.regions[0].name = "100%s%n";
  EXPECT_THAT(written(report), HasSubstr("    \"100%s%n\": {\n"));
}

TEST(write, without_benchmarks_has_no_roofs) {
  const std::string text = written({{}, {}, 4});
  EXPECT_THAT(text, Not(HasSubstr("roofs")));
  EXPECT_THAT(text, HasSubstr("\"threads\": 4\n}\n"));
}

TEST(write, without_the_roofs_of_its_thread_count_warns_and_has_the_others) {
  collector_report report;
  report.threads = 2;
  report.benchmarks.insert(1, {{"L1", 1, "B/s", false}});
  report.benchmarks.insert(4, {{"L1", 4, "B/s", false}});
  std::string text;
  std::vector<std::string> messages;
  {
    const log_capture log(LEVEL_WARN);
    text = written(report);
    messages = log.messages();
  }
  EXPECT_THAT(messages, ElementsAre("warn No benchmark result for max parallel threads"));
  EXPECT_THAT(text, Not(HasSubstr("\"roofs\"")));
  EXPECT_THAT(text, HasSubstr("\"roofs_by_num_threads\": {\n"));
  EXPECT_THAT(text, HasSubstr("    \"1\": [\n"));
  EXPECT_THAT(text, HasSubstr("    \"4\": [\n"));
}

TEST(write, prints_thread_counts_in_table_order_as_unsigned_decimals) {
  benchmark_report benchmarks;
  const std::vector<std::uint64_t> counts = {1, 2, ~std::uint64_t{0}};
  for (const std::uint64_t count : counts) benchmarks.insert(count, {});
  const std::string text = printed(fill_json({}, benchmarks, 1));
  // Slots 101, 10 and 123.
  EXPECT_THAT(text, HasSubstr("\"roofs_by_num_threads\": {\n    \"2\": [\n    ],\n    \"1\": [\n    ],\n"
                              "    \"18446744073709551615\": [\n    ]\n  }"));
}

TEST(write, of_a_region_without_blocks_has_flop_0_and_an_empty_list) {
  region_metric region;
  region.flop = 5;
  EXPECT_EQ(printed(fill_json_per_region(region)), "{\n  \"flop\": 0,\n  \"threads\": 0,\n  \"bbs\": [\n  ]\n}\n");
}

TEST(write, sums_flop_times_count_over_the_blocks) {
  const region_metric region = region_of_blocks({block_of(16, 3, 100), block_of(32, 5, 7), block_of(48, 0, 9)});
  EXPECT_THAT(printed(fill_json_per_region(region)), HasSubstr("\"flop\": 335,"));
}

TEST(write, lets_the_sum_of_operations_wrap) {
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  // 2^63 - 1 twice is -2 in 64 bits, and 2^62 times 4 is 0.
  const region_metric region =
      region_of_blocks({block_of(16, most, 1), block_of(32, most, 1), block_of(48, std::int64_t{1} << 62, 4)});
  EXPECT_THAT(printed(fill_json_per_region(region)), HasSubstr("\"flop\": -2,"));
}

TEST(write, prints_blocks_in_the_tables_order) {
  const region_metric region = region_of_blocks({block_of(1, 1, 1), block_of(2, 1, 1)});
  const std::string text = printed(fill_json_per_region(region));
  // Slots 101 and 10.
  EXPECT_LT(text.find("\"2\",\n      \"6\""), text.find("\"1\",\n      \"5\""));
}

TEST(write, prints_addresses_in_lower_case_hexadecimal_without_prefix) {
  const region_metric region = region_of_blocks({{0, ~std::uint64_t{0}, 0xABCDEF, 0x10, 0, 0, 0, ""}});
  EXPECT_THAT(printed(fill_json_per_region(region)),
              HasSubstr("\"0\",\n      \"ffffffffffffffff\",\n      \"abcdef\",\n      \"10\",\n"
                        "      0,\n      0,\n      0,\n      \"\"\n"));
}

TEST(write, prints_numbers_beyond_the_signed_range_as_negative_ones) {
  region_metric region;
  region.threads = ~std::uint64_t{0};
  region.metrics.insert("time", std::uint64_t{1} << 63);
  const std::string text = printed(fill_json_per_region(region));
  EXPECT_THAT(text, HasSubstr("\"threads\": -1,"));
  EXPECT_THAT(text, HasSubstr("\"time\": -9223372036854775808"));
}

TEST(write, logs_each_region_at_debug) {
  collector_report report;
  report.regions.push_back(region_of_blocks({block_of(16, 1, 1), block_of(32, 1, 1)}));
  report.regions.back().metrics.insert("time", 1);
  const log_capture log;
  fill_json(report.regions, report.benchmarks, report.threads);
  EXPECT_THAT(log.messages(), ElementsAre("debug region total has 2 bbs and 1 perf events"));
  EXPECT_THAT(log.lines(), ElementsAre(HasSubstr(" report_handler:")));
}

TEST(write, into_a_missing_directory_fails_with_the_opens_error) {
  const log_capture log;
  errno = 0;
  EXPECT_FALSE(write("/nonexistent/directory/report.json", {}));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(write, onto_a_directory_fails_with_the_opens_error) {
  EXPECT_FALSE(write("/tmp", {}));
  EXPECT_EQ(errno, EISDIR);
}

TEST(write, onto_a_full_device_fails) {
  collector_report report;
  for (std::uint64_t start = 0; start < 1000; ++start) {
    if (report.regions.empty()) report.regions.resize(1);
    report.regions[0].bbs.insert(start, block_of(start, 1, 1));
  }
  EXPECT_FALSE(write("/dev/full", report));
  EXPECT_EQ(errno, ENOSPC);
}

}  // namespace
}  // namespace ceilmeter
