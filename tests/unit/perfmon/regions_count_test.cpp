// What regions count and what reaches the report file: several threads, mistaken orders of calls, strange names, an
// earlier report, and a file that cannot be written.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "regions_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class regions_count_test : public regions_test {
 protected:
  static void on_another_thread(const std::function<void()>& work) { std::thread(work).join(); }
};

TEST_F(regions_count_test, one_region_has_its_counters_and_its_time) {
  run_under_tool([this] {
    kernel.clock = {1000, 4500};
    init_perf_roofline_events();
    start_perf_roofline_events("solve");
    int n = 0;
    for (const std::uint64_t code : {0x4, 0x32, 0x33, 0x52, 0x53, 0x600B}) {
      kernel.count(fd(0), code, static_cast<std::uint64_t>(++n));
    }
    stop_perf_roofline_events("solve");
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(region_names(), ElementsAre("solve"));
  EXPECT_EQ(metric("solve", "l1_bytes"), 16u);
  EXPECT_EQ(metric("solve", "l2_bytes"), (4u + 5u + 6u) * 64u);
  EXPECT_EQ(metric("solve", "l3_bytes"), 2u * 64u);
  EXPECT_EQ(metric("solve", "ddr_bytes"), 3u * 64u);
  EXPECT_EQ(metric("solve", "time"), 3500u);
}

TEST_F(regions_count_test, every_counter_is_inherited_by_what_the_thread_starts) {
  run_under_tool([this] {
    start_perf_roofline_events("r");
    for (const open_call& open : kernel.opens()) EXPECT_EQ(open.attr[5] & 2, 2u);  // The flag word, bit `inherit`.
  });
}

TEST_F(regions_count_test, regions_of_two_threads_under_one_name_are_one_with_the_union_of_their_times) {
  run_under_tool([this] {
    kernel.clock = {10, 20, 15, 30, 40, 50};
    init_perf_roofline_events();
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
    on_another_thread([] {
      for (int round = 0; round < 2; ++round) {
        start_perf_roofline_events("r");
        stop_perf_roofline_events("r");
      }
    });
    kernel.count(fd(0), 4, 1);
    kernel.count(fd(6), 4, 10);
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(region_names(), ElementsAre("r"));
  EXPECT_EQ(metric("r", "time"), 30u);
  EXPECT_EQ(metric("r", "l1_bytes"), 11u * 16u);
}

TEST_F(regions_count_test, after_finalize_every_descriptor_of_every_group_is_closed) {
  run_under_tool([this] {
    start_perf_roofline_events("a");
    start_perf_roofline_events("b");
    on_another_thread([] { start_perf_roofline_events("a"); });
    EXPECT_EQ(kernel.open_descriptors(), 18);
    finalize_perf_roofline_events();
    EXPECT_EQ(kernel.open_descriptors(), 0);
  });
}

TEST_F(regions_count_test, a_stop_on_another_thread_warns_and_leaves_the_region_running) {
  const process_traces traces = run_under_tool([this] {
    kernel.clock = {10};
    start_perf_roofline_events("r");
    on_another_thread([] { stop_perf_roofline_events("r"); });
    EXPECT_TRUE(kernel.enabled(fd(0)));
    kernel.count(fd(0), 4, 3);
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(traces.log, ElementsAre("warn roofline events don't exist for r region"));
  EXPECT_EQ(metric("r", "l1_bytes"), 48u);
  EXPECT_EQ(metric("r", "time"), 0u);
}

TEST_F(regions_count_test, a_stop_before_the_first_start_warns_and_the_region_is_counted_later) {
  const process_traces traces = run_under_tool([this] {
    kernel.clock = {10, 30};
    stop_perf_roofline_events("r");
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(traces.log, ElementsAre("warn roofline events don't exist for r region"));
  EXPECT_EQ(metric("r", "time"), 20u);
}

TEST_F(regions_count_test, a_thread_that_ends_inside_a_region_leaves_its_counts_and_no_time) {
  run_under_tool([this] {
    on_another_thread([] { start_perf_roofline_events("r"); });
    kernel.count(fd(0), 4, 7);
    finalize_perf_roofline_events();
  });
  EXPECT_EQ(metric("r", "l1_bytes"), 7u * 16u);
  EXPECT_EQ(metric("r", "time"), 0u);
}

TEST_F(regions_count_test, start_a_start_b_stop_b_stop_a_counts_both) {
  const process_traces traces = run_under_tool([this] {
    kernel.clock = {10, 20, 25, 40};
    start_perf_roofline_events("A");
    start_perf_roofline_events("B");
    EXPECT_TRUE(kernel.enabled(fd(0)));
    EXPECT_TRUE(kernel.enabled(fd(6)));
    stop_perf_roofline_events("B");
    EXPECT_TRUE(kernel.enabled(fd(0)));
    EXPECT_FALSE(kernel.enabled(fd(6)));
    stop_perf_roofline_events("A");
    EXPECT_FALSE(kernel.enabled(fd(0)));
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(traces.log, IsEmpty());
  EXPECT_EQ(metric("A", "time"), 30u);
  EXPECT_EQ(metric("B", "time"), 5u);
}

TEST_F(regions_count_test, a_second_start_loses_the_time_since_the_first_and_no_count) {
  run_under_tool([this] {
    kernel.clock = {10, 100, 130};
    start_perf_roofline_events("r");
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
    kernel.count(fd(0), 4, 2);
    finalize_perf_roofline_events();
    EXPECT_EQ(kernel.opens().size(), 6u);
  });
  EXPECT_EQ(metric("r", "time"), 30u);
  EXPECT_EQ(metric("r", "l1_bytes"), 32u);
}

TEST_F(regions_count_test, the_name_is_copied) {
  run_under_tool([] {
    char name[] = "first";
    start_perf_roofline_events(name);
    name[0] = 'F';
    stop_perf_roofline_events("first");
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(region_names(), ElementsAre("first"));
}

TEST_F(regions_count_test, names_with_blanks_of_4000_characters_and_beyond_ascii_come_back_from_the_file) {
  const std::vector<std::string> names = {
      "two words", " ", "", std::string(4000, 'x'), "Gleichungslöser ∇² 求解器", "a/b", "100 %s", "Solve", "solve"};
  run_under_tool([&names] {
    init_perf_roofline_events();
    for (const std::string& name : names) {
      start_perf_roofline_events(name.c_str());
      stop_perf_roofline_events(name.c_str());
    }
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(region_names(), ::testing::UnorderedElementsAreArray(names));
}

TEST_F(regions_count_test, a_double_quote_in_a_name_makes_the_file_unreadable) {
  // The file holds names unchanged, for readers that look for them. The header warns users.
  run_under_tool([] {
    start_perf_roofline_events("the \"hot\" loop");
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(content_of(report_path()), ::testing::HasSubstr("\"the \"hot\" loop\": {"));
  EXPECT_THAT(region_names(), IsEmpty());
}

TEST_F(regions_count_test, regions_stand_in_the_file_by_ascending_name) {
  run_under_tool([] {
    for (const char* name : {"b", "c", "a"}) {
      start_perf_roofline_events(name);
      stop_perf_roofline_events(name);
    }
    finalize_perf_roofline_events();
  });
  const std::string content = content_of(report_path());
  EXPECT_LT(content.find("\"a\": {"), content.find("\"b\": {"));
  EXPECT_LT(content.find("\"b\": {"), content.find("\"c\": {"));
}

// A report as the other phases leave it: a region with one block, and roofs.
constexpr char traced_report[] = R"({"regions": {
  "r": {"flop": 8, "threads": 3, "bbs": [["400abc", "400ac8", "abc", "ac8", 4, 2, 2, "/bin/app"]], "time": 9},
  "gone": {"flop": 0, "threads": 1, "bbs": []}},
 "threads": 3,
 "roofs_by_num_threads": {"3": [{"name": "L1", "value": 12, "measure": "GB/s", "is_compute": false}]}})";

TEST_F(regions_count_test, an_earlier_report_keeps_blocks_threads_and_roofs_and_gets_new_counters) {
  write_file(report_path(), traced_report);
  run_under_tool([this] {
    kernel.clock = {100, 150};
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
    finalize_perf_roofline_events();
  });
  const region_metric merged = region("r");
  EXPECT_EQ(merged.threads, 3u);
  EXPECT_EQ(merged.bbs.size(), 1u);
  EXPECT_EQ(merged.flop, 8u);
  EXPECT_EQ(metric("r", "time"), 50u);
  EXPECT_THAT(content_of(report_path()), ::testing::HasSubstr("GB/s"));
}

TEST_F(regions_count_test, a_region_of_an_earlier_report_that_did_not_run_is_dropped) {
  write_file(report_path(), traced_report);
  run_under_tool([] {
    start_perf_roofline_events("r");
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(region_names(), ElementsAre("r"));
}

TEST_F(regions_count_test, without_a_region_an_earlier_report_keeps_its_own) {
  write_file(report_path(), traced_report);
  run_under_tool([] {
    init_perf_roofline_events();
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(region_names(), UnorderedElementsAre("r", "gone"));
}

TEST_F(regions_count_test, a_process_that_ends_without_finalize_leaves_no_file) {
  run_under_tool([] {
    init_perf_roofline_events();
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
  });
  EXPECT_NE(access(report_path().c_str(), F_OK), 0);
}

TEST_F(regions_count_test, a_failed_write_gives_the_warning_and_then_the_closing_line) {
  const std::string missing = path("missing/report.json");
  run([this, &missing] {
    setenv("ROOFLINE_REPORT_FILE", missing.c_str(), 1);
    setenv("ROOFLINE_LOG_FILE", path("log").c_str(), 1);
    setenv("ROOFLINE_LOG_LEVEL", "info", 1);
    init_perf_roofline_events();
    finalize_perf_roofline_events();
  });
  std::vector<std::string> lines = log_lines(content_of(path("log")));
  ASSERT_GE(lines.size(), 2u);
  lines.erase(lines.begin(), lines.end() - 2);
  EXPECT_THAT(lines, ElementsAre("warn failed to write roofline events to " + missing + ".",
                                 "info Regions roofline events are written to " + missing));
}

TEST_F(regions_count_test, finalize_closes_the_log) {
  const process_traces traces = run_under_tool([this] {
    setenv("ROOFLINE_LOG_FILE", path("log").c_str(), 1);
    init_perf_roofline_events();
    finalize_perf_roofline_events();
    EXPECT_STREQ(mora_log_get_file(), "stderr");
    stop_perf_roofline_events("r");
  });
  EXPECT_THAT(traces.log, ElementsAre("warn roofline events don't exist for r region"));
}

TEST_F(regions_count_test, at_debug_every_call_is_told_with_its_region) {
  const process_traces traces = run_under_tool([] {
    mora_log_set_level(LEVEL_DEBUG);
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
    finalize_perf_roofline_events();
  });
  const std::vector<std::string> told = {"debug start_perf_roofline_events: region is r",
                                         "debug start_roofline_events: region is r",
                                         "debug stop_perf_roofline_events: region is r",
                                         "info finalize_perf_roofline_events",
                                         "debug 1 regions collected",
                                         "info Regions roofline events are written to " + report_path()};
  EXPECT_THAT(traces.log, ::testing::IsSupersetOf(told));
}

TEST_F(regions_count_test, a_machine_without_counters_leaves_the_application_running_and_the_file_without_regions) {
  const process_traces traces = run_under_tool([this] {
    kernel.open_result = -1;
    init_perf_roofline_events();
    start_perf_roofline_events("r");
    stop_perf_roofline_events("r");
    finalize_perf_roofline_events();
  });
  EXPECT_THAT(traces.log, Contains("warn failed to perfmon::open_roofline_events for r region"));
  EXPECT_THAT(region_names(), IsEmpty());
}

TEST_F(regions_count_test, sixteen_threads_in_changing_regions_lose_no_interval) {
  constexpr int thread_count = 16;
  constexpr int rounds = 50;
  const process_traces traces = run_under_tool([] {
    fake_kernel quiet(fake_kernel::recording::off);
    std::atomic<int> waiting{thread_count};
    std::vector<std::thread> threads;
    for (int n = 0; n < thread_count; ++n) {
      threads.emplace_back([&waiting, n] {
        // The first call makes the instance, whichever call that is.
        waiting.fetch_sub(1, std::memory_order_relaxed);
        while (waiting.load(std::memory_order_relaxed) != 0) std::this_thread::yield();
        const std::string own = "own " + std::to_string(n);
        for (int round = 0; round < rounds; ++round) {
          for (const char* name : {"shared", own.c_str()}) {
            start_perf_roofline_events(name);
            stop_perf_roofline_events(name);
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(quiet.open_descriptors(), thread_count * 2 * 6);
    int enables = 0;
    for (int counter = 0; counter < quiet.open_descriptors(); ++counter) enables += quiet.enables(fd(counter));
    EXPECT_EQ(enables, thread_count * rounds * 2);
    finalize_perf_roofline_events();
    EXPECT_EQ(quiet.open_descriptors(), 0);
  });
  EXPECT_EQ(region_names().size(), static_cast<std::size_t>(thread_count + 1));
  EXPECT_THAT(traces.log, IsEmpty());  // ThreadSanitizer would speak there.
}

}  // namespace
}  // namespace ceilmeter::test
