// The region interface before anything is counted: outside the tool, under the tracer, the environment that the tool
// sets, and programs that leave out a call.
#include <cstdint>
#include <stdexcept>

#include "regions_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class regions_start_test : public regions_test {};

void whole_interface() {
  init_perf_roofline_events();
  start_perf_roofline_events("r");
  stop_perf_roofline_events("r");
  finalize_perf_roofline_events();
}

TEST_F(regions_start_test, outside_the_tool_nothing_is_counted_and_nothing_is_printed) {
  const process_traces traces = run([this] {
    whole_interface();
    EXPECT_THAT(kernel.calls(), IsEmpty());
  });
  EXPECT_EQ(traces.out, "");
  EXPECT_THAT(traces.log, IsEmpty());
}

TEST_F(regions_start_test, outside_the_tool_one_line_at_info_tells_why) {
  const process_traces traces = run([] {
    mora_log_set_level(LEVEL_TRACE);
    whole_interface();
  });
  EXPECT_THAT(traces.log,
              ElementsAre("info Region API was disabled(ROOFLINE_REPORT_FILE environment variable is empty)"));
}

TEST_F(regions_start_test, an_empty_report_file_is_as_good_as_none) {
  const process_traces traces = run([this] {
    setenv("ROOFLINE_REPORT_FILE", "", 1);
    whole_interface();
    EXPECT_THAT(kernel.calls(), IsEmpty());
  });
  EXPECT_EQ(traces.out, "");
}

TEST_F(regions_start_test, once_disabled_it_stays_so_for_the_rest_of_the_process) {
  const process_traces traces = run([this] {
    init_perf_roofline_events();
    setenv("ROOFLINE_REPORT_FILE", report_path().c_str(), 1);
    whole_interface();
    EXPECT_THAT(kernel.calls(), IsEmpty());
  });
  EXPECT_EQ(traces.out, "");
  EXPECT_EQ(content_of(report_path()), "");
}

TEST_F(regions_start_test, under_the_tracer_no_counter_is_opened_and_nothing_is_written) {
  const process_traces traces = run_under_tool([this] {
    mora_log_set_level(LEVEL_INFO);
    act_as_tracer();
    whole_interface();
    EXPECT_THAT(kernel.calls(), IsEmpty());
  });
  EXPECT_EQ(traces.out, "");
  EXPECT_THAT(traces.log, ElementsAre("info Region API was disabled by bintracer"));
  EXPECT_EQ(content_of(report_path()), "");
}

TEST_F(regions_start_test, under_the_tracer_an_earlier_report_stays_as_it_is) {
  write_file(report_path(), "the perfmon phase's");
  run_under_tool([] {
    act_as_tracer();
    whole_interface();
  });
  EXPECT_EQ(content_of(report_path()), "the perfmon phase's");
}

TEST_F(regions_start_test, the_tracer_is_given_eight_aligned_bytes) {
  run([] {
    act_as_tracer();
    init_perf_roofline_events();
    EXPECT_NE(address_of_flag(), nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(address_of_flag()) % 8, 0u);
  });
}

TEST_F(regions_start_test, without_the_tracer_its_function_leaves_the_flag_alone) {
  run_under_tool([this] {
    whole_interface();
    EXPECT_EQ(kernel.opens().size(), 6u);
  });
}

TEST_F(regions_start_test, init_under_the_tool_prints_its_line_and_flushes_it) {
  const process_traces traces = run_under_tool([] { init_perf_roofline_events(); });
  EXPECT_EQ(traces.out, "ROOFLINE_EVENTS are initialized.\n");
  EXPECT_THAT(traces.log, IsEmpty());
}

TEST_F(regions_start_test, init_opens_no_counter) {
  run_under_tool([this] {
    init_perf_roofline_events();
    EXPECT_THAT(kernel.calls(), IsEmpty());
  });
}

TEST_F(regions_start_test, the_named_log_file_is_appended_to) {
  write_file(path("log"), "the tool's line\n");
  const process_traces traces = run_under_tool([this] {
    setenv("ROOFLINE_LOG_FILE", path("log").c_str(), 1);
    setenv("ROOFLINE_LOG_LEVEL", "info", 1);
    init_perf_roofline_events();
  });
  EXPECT_THAT(log_lines(content_of(path("log"))), ElementsAre("the tool's line", "info init_perf_roofline_events"));
  EXPECT_THAT(traces.log, IsEmpty());
}

TEST_F(regions_start_test, without_a_log_file_the_log_stays_on_standard_error_and_does_not_append) {
  const process_traces traces = run_under_tool([] {
    setenv("ROOFLINE_LOG_LEVEL", "info", 1);
    init_perf_roofline_events();
    EXPECT_EQ(mora_log_get_append(), 0);
    EXPECT_STREQ(mora_log_get_file(), "stderr");
  });
  EXPECT_THAT(traces.log, ElementsAre("info init_perf_roofline_events"));
}

TEST_F(regions_start_test, the_log_can_go_to_standard_output) {
  const process_traces traces = run_under_tool([] {
    setenv("ROOFLINE_LOG_FILE", "stdout", 1);
    setenv("ROOFLINE_LOG_LEVEL", "info", 1);
    init_perf_roofline_events();
  });
  EXPECT_THAT(log_lines(traces.out), ElementsAre("info init_perf_roofline_events", "ROOFLINE_EVENTS are initialized."));
}

TEST_F(regions_start_test, a_log_file_that_cannot_be_opened_costs_a_warning_and_nothing_else) {
  const process_traces traces = run_under_tool([this] {
    setenv("ROOFLINE_LOG_FILE", path("missing/log").c_str(), 1);
    whole_interface();
  });
  ASSERT_EQ(traces.log.size(), 1u);
  EXPECT_THAT(traces.log[0], StartsWith("warn failed to create log file " + path("missing/log")));
  EXPECT_THAT(region_names(), ElementsAre("r"));
}

TEST_F(regions_start_test, at_debug_init_tells_the_three_values_that_it_read) {
  const process_traces traces = run_under_tool([] {
    setenv("ROOFLINE_LOG_FILE", "stderr", 1);
    setenv("ROOFLINE_LOG_LEVEL", "debug", 1);
    init_perf_roofline_events();
  });
  EXPECT_THAT(traces.log, ElementsAre("info init_perf_roofline_events",
                                      "debug Report file for Region API is set to " + report_path() + ".",
                                      "debug Log file for Region API is set to stderr.",
                                      "debug Log level for Region API is set to debug."));
}

TEST_F(regions_start_test, an_unknown_log_level_leaves_the_level) {
  const process_traces traces = run_under_tool([] {
    setenv("ROOFLINE_LOG_LEVEL", "loud", 1);
    init_perf_roofline_events();
    EXPECT_EQ(mora_log_get_level(), LEVEL_WARN);
  });
  EXPECT_THAT(traces.log, IsEmpty());
}

TEST_F(regions_start_test, the_log_level_is_set_before_it_decides_what_is_counted) {
  run_under_tool([this] {
    setenv("ROOFLINE_LOG_LEVEL", "info", 1);
    init_perf_roofline_events();
    start_perf_roofline_events("r");
    EXPECT_EQ(kernel.opens().size(), 10u);
  });
}

TEST_F(regions_start_test, what_is_counted_is_settled_by_init_and_not_by_the_first_region) {
  run_under_tool([this] {
    init_perf_roofline_events();
    mora_log_set_level(LEVEL_INFO);
    start_perf_roofline_events("r");
    EXPECT_EQ(kernel.opens().size(), 6u);
  });
}

TEST_F(regions_start_test, start_without_init_counts) {
  run_under_tool([this] {
    start_perf_roofline_events("r");
    EXPECT_TRUE(kernel.enabled(fd(0)));
    kernel.count(fd(0), 4, 5);
    stop_perf_roofline_events("r");
    finalize_perf_roofline_events();
  });
  EXPECT_EQ(metric("r", "l1_bytes"), 80u);
}

TEST_F(regions_start_test, start_without_init_counts_outside_the_tool_too) {
  run([this] {
    start_perf_roofline_events("r");
    EXPECT_TRUE(kernel.enabled(fd(0)));
  });
}

TEST_F(regions_start_test, stop_without_init_and_start_leaves_a_warning) {
  const process_traces traces = run_under_tool([] { stop_perf_roofline_events("r"); });
  EXPECT_THAT(traces.log, ElementsAre("warn roofline events don't exist for r region"));
}

TEST_F(regions_start_test, finalize_without_init_writes_the_report) {
  const process_traces traces = run_under_tool([] { finalize_perf_roofline_events(); });
  EXPECT_THAT(content_of(report_path()), StartsWith("{\n  \"regions\": {\n  },\n"));
  EXPECT_EQ(traces.out, "");
  EXPECT_THAT(traces.log, IsEmpty());
}

TEST_F(regions_start_test, finalize_without_init_and_report_file_warns_and_leaves_the_log_open) {
  run([this] {
    mora_log_set_file(path("log").c_str());
    mora_log_init();
    finalize_perf_roofline_events();
    EXPECT_EQ(mora_log_get_file(), path("log"));
  });
  EXPECT_THAT(log_lines(content_of(path("log"))),
              ElementsAre("warn roofline events are not going to be written. Filename is empty"));
}

TEST_F(regions_start_test, init_twice_prints_its_line_twice_and_counts_once) {
  const process_traces traces = run_under_tool([this] {
    init_perf_roofline_events();
    whole_interface();
    EXPECT_EQ(kernel.opens().size(), 6u);
  });
  EXPECT_EQ(traces.out, "ROOFLINE_EVENTS are initialized.\nROOFLINE_EVENTS are initialized.\n");
}

TEST_F(regions_start_test, a_null_region_raises_the_string_exception) {
  run_under_tool([] {
    init_perf_roofline_events();
    EXPECT_THROW(start_perf_roofline_events(nullptr), std::logic_error);
    EXPECT_THROW(stop_perf_roofline_events(nullptr), std::logic_error);
  });
}

TEST_F(regions_start_test, a_null_region_is_not_looked_at_outside_the_tool) {
  run([] {
    init_perf_roofline_events();
    start_perf_roofline_events(nullptr);
    stop_perf_roofline_events(nullptr);
  });
}

}  // namespace
}  // namespace ceilmeter::test
