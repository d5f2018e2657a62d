// `ceilmeter --phase=perfmon` on real programs and a real kernel: closing lines, result file, log and status. The
// emulated counter unit opens the tool's events but moves none of them, so the byte metrics are 0 here and only the
// time can be checked. That counts reach the file is shown with events of the tests' own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <regex>
#include <string>
#include <vector>

#include "report_handler.h"
#include "support/process.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

// The whole file of a run under counters that read 0; `time` is what the file itself says.
std::string file_with_metrics(std::uint64_t time) {
  // The metrics stand in the order of their hashes.
  return "{\n"
         "  \"regions\": {\n"
         "    \"total\": {\n"
         "      \"flop\": 0,\n"
         "      \"threads\": 0,\n"
         "      \"bbs\": [\n"
         "      ],\n"
         "      \"ddr_bytes\": 0,\n"
         "      \"l2_bytes\": 0,\n"
         "      \"time\": " +
         std::to_string(time) +
         ",\n"
         "      \"l3_bytes\": 0,\n"
         "      \"l1_bytes\": 0\n"
         "    }\n"
         "  },\n"
         "  \"bb_keys\": [\n"
         "    \"start\",\n"
         "    \"end\",\n"
         "    \"dump_start\",\n"
         "    \"dump_end\",\n"
         "    \"flop\",\n"
         "    \"count\",\n"
         "    \"vector_length\",\n"
         "    \"module\"\n"
         "  ],\n"
         "  \"threads\": 0\n"
         "}\n";
}

constexpr char file_without_metrics[] =
    "{\n"
    "  \"regions\": {\n"
    "  },\n"
    "  \"bb_keys\": [\n"
    "    \"start\",\n"
    "    \"end\",\n"
    "    \"dump_start\",\n"
    "    \"dump_end\",\n"
    "    \"flop\",\n"
    "    \"count\",\n"
    "    \"vector_length\",\n"
    "    \"module\"\n"
    "  ],\n"
    "  \"threads\": 0\n"
    "}\n";

class perfmon_run : public ::testing::Test {
 protected:
  // The tool with --phase=perfmon, writing to result().
  process_result run(std::vector<std::string> options, const std::vector<std::string>& application,
                     process_options how = {}) const {
    std::vector<std::string> words = {tool_path().string(), "--phase=perfmon", "-o", result().string()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), application.begin(), application.end());
    if (how.folder.empty()) how.folder = folder.path();
    process_result done = run_process(words, how);
    done.err = without_silent_metrics(done.err);
    return done;
  }

  std::filesystem::path result() const { return folder / "result.json"; }

  std::string lines_before(const std::string& application) const {
    return "CEILMETER: Start collection for " + application +
           "\nCEILMETER: Launch application to collect performance metrics of " + application + "\n";
  }
  std::string lines_after() const {
    return "CEILMETER: Processing all collected data\nCEILMETER: Result is captured at " + result().string() +
           "\nCEILMETER: Run \"ceilview " + result().string() + "\" to get report.\n";
  }

  std::uint64_t time_of_result() const {
    const collector_report report = read(result());
    if (report.regions.size() != 1) return 0;
    const std::uint64_t* time = report.regions[0].metrics.find("time");
    return time != nullptr ? *time : 0;
  }

  // What every run of a healthy application must show: its own output between the tool's lines, nothing in the log,
  // the exact file, and a time that is neither shorter than the application took by its own clock nor longer than
  // the tool's whole run.
  void expect_plain_run(const std::vector<std::string>& application, const std::string& application_output) const {
    const std::string timed = program_path("timed").string();
    std::vector<std::string> words = {timed, (folder / "duration").string()};
    words.insert(words.end(), application.begin(), application.end());
    const process_result native = run_process(words, {.folder = folder.path()});
    ASSERT_EQ(native.status, 0) << native.err;
    ASSERT_EQ(native.out, application_output);

    const process_result counted = run({}, words);
    EXPECT_EQ(counted.out, lines_before(timed) + application_output + lines_after());
    EXPECT_EQ(counted.err, "");
    EXPECT_EQ(counted.status, 0);
    const std::uint64_t time = time_of_result();
    EXPECT_EQ(content_of(result()), file_with_metrics(time));
    const std::uint64_t within = std::stoull(content_of(folder / "duration"));
    const auto without = static_cast<std::uint64_t>(counted.seconds * 1e9);
    EXPECT_GE(time, within);
    EXPECT_LE(time, without);
    std::printf("%s: %.3f s by its own clock, %.3f s in the file, %.3f s of the whole run\n", application[0].c_str(),
                static_cast<double>(within) / 1e9, static_cast<double>(time) / 1e9, counted.seconds);
  }

  temporary_folder folder;
};

TEST_F(perfmon_run, python_sums) {
  expect_plain_run({"/usr/bin/python3", "-c", "print(sum(i * i for i in range(300000)))"}, "8999955000050000\n");
}

TEST_F(perfmon_run, sqlite_queries) {
  expect_plain_run({"/usr/bin/sqlite3", ":memory:",
                    "with recursive n(x) as (select 1 union all select x + 1 from n where x < 100000) "
                    "select count(*), sum(x) from n;"},
                   "100000|5000050000\n");
}

TEST_F(perfmon_run, xz_with_two_threads) {
  std::string content;
  for (int line = 0; line < 60000; ++line) content += std::to_string(line * 7919) + "\n";
  write_file(folder / "input", content);
  expect_plain_run({"/bin/sh", "-c", "xz -T2 --block-size=65536 -c input | xz -dc | cksum"},
                   run_process({"/bin/sh", "-c", "cksum < input"}, {.folder = folder.path()}).out);
}

TEST_F(perfmon_run, application_that_forks) {
  expect_plain_run({program_path("forks").string(), "4"}, "children: 4, sum: 1999998000000\n");
}

TEST_F(perfmon_run, time_covers_an_application_that_sleeps) {
  expect_plain_run({"/bin/sleep", "1"}, "");
  EXPECT_GE(time_of_result(), 1'000'000'000U);
}

TEST_F(perfmon_run, debug_log_shows_the_six_and_the_extra_four_events_opened) {
  const process_result counted = run({"-l", "debug"}, {"/bin/true"});
  const std::regex open_line(R"(perfmon_utils debug perf_event_open: type 4, config ([0-9a-f]+), inherit: 1, cpu -1, )"
                             R"(group_fd (-?[0-9]+), flags 8, ret ([0-9]+))");
  std::vector<std::string> codes;
  std::string leader;
  for (const std::string& line : log_lines(counted.err)) {
    std::smatch parts;
    if (!std::regex_match(line, parts, open_line)) continue;
    EXPECT_EQ(parts[2].str(), leader.empty() ? "-1" : leader);
    if (leader.empty()) leader = parts[3].str();
    codes.push_back(parts[1].str());
  }
  EXPECT_THAT(codes, ElementsAre("4", "32", "33", "52", "53", "600b", "72", "74", "75", "5023"));
  EXPECT_EQ(counted.status, 0);
}

TEST_F(perfmon_run, group_holds_six_events_at_warn) {
  // The application looks at the tool's open counters while they count it.
  const std::vector<std::string> application = {"/bin/sh", "-c", "ls -l /proc/$PPID/fd | grep -c perf_event"};
  for (const std::string level : {"none", "warn"}) {
    EXPECT_EQ(run({"-l", level}, application).out, lines_before("/bin/sh") + "6\n" + lines_after()) << level;
  }
}

// The emulated unit has room for six counters, not for ten. A kernel refuses to make a child that would inherit a group
// that its unit cannot hold. So from level info on, the extra four are closed again before the application starts.
TEST_F(perfmon_run, of_ten_events_that_the_unit_cannot_hold_four_are_closed_and_the_application_runs) {
  for (const std::string level : {"info", "debug", "trace"}) {
    const process_result counted = run({"-l", level}, {"/bin/echo", "ran"});
    EXPECT_EQ(counted.out, lines_before("/bin/echo") + "ran\n" + lines_after()) << level;
    EXPECT_THAT(log_lines_of_level(counted.err, "warn"),
                ElementsAre("perfmon warn 10 events do not run together on this counter unit of 6 counters: LDST_SPEC, "
                            "ASE_SPEC, VFP_SPEC, STREAM_OUT are closed again and not counted"))
        << level;
    EXPECT_EQ(counted.status, 0) << level;
  }
}

TEST_F(perfmon_run, application_keeps_its_status_to_itself_but_for_one_warning) {
  const process_result counted = run({}, {"/bin/sh", "-c", "exit 3"});
  EXPECT_EQ(counted.status, 0);
  EXPECT_THAT(log_lines(counted.err), ElementsAre("run_application warn Application exit status is 3!", ""));
  EXPECT_EQ(content_of(result()), file_with_metrics(time_of_result()));
}

TEST_F(perfmon_run, application_that_a_signal_ends_counts_as_status_0) {
  const process_result counted = run({}, {"/bin/sh", "-c", "kill -SEGV $$"});
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(counted.err, "");
  EXPECT_EQ(content_of(result()), file_with_metrics(time_of_result()));
}

TEST_F(perfmon_run, application_that_cannot_be_executed_is_reported_and_the_file_still_written) {
  write_file(folder / "data", "no program");
  const std::string path = (folder / "data").string();
  const process_result counted = run({}, {path});
  EXPECT_EQ(counted.out, lines_before(path) + lines_after());
  // The bare newline is the last thing that the child writes to the log.
  EXPECT_THAT(log_lines(counted.err), ElementsAre("Error: Failed to start " + path, "Permission denied", "",
                                                  "run_application warn Application exit status is 1!", ""));
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(content_of(result()), file_with_metrics(time_of_result()));
}

TEST_F(perfmon_run, application_gets_the_tools_environment) {
  process_options how;
  how.environment["CEILMETER_TEST_VALUE"] = "a b";
  const process_result counted = run({}, {"/bin/sh", "-c", "echo \"$CEILMETER_TEST_VALUE\""}, how);
  EXPECT_EQ(counted.out, lines_before("/bin/sh") + "a b\n" + lines_after());
}

TEST_F(perfmon_run, only_the_standard_descriptors_reach_the_application) {
  const process_result counted = run({"--log-file=tool.log"}, {"/bin/sh", "-c", "ls /proc/$$/fd"});
  EXPECT_EQ(counted.out, lines_before("/bin/sh") + "0\n1\n2\n" + lines_after());
}

TEST_F(perfmon_run, ordinary_user_without_counters_gets_warnings_and_a_report_without_metrics) {
  const std::string earlier = content_of("/proc/sys/kernel/perf_event_paranoid");
  write_file("/proc/sys/kernel/perf_event_paranoid", "3");
  process_options how;
  how.user = 1000;
  const process_result counted = run({}, {"/bin/echo", "ran"}, how);
  write_file("/proc/sys/kernel/perf_event_paranoid", earlier);
  EXPECT_EQ(counted.out, lines_before("/bin/echo") + "ran\n" + lines_after());
  std::vector<std::string> expected(6, "perfmon_utils warn perf_event_open failed with Permission denied");
  expected.push_back("perfmon warn failed to perfmon::open_roofline_events for total region");
  expected.push_back("perfmon warn couldn't stop_roofline_events for total region because group_fd was not set");
  EXPECT_EQ(log_lines(counted.err), expected);
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(content_of(result()), file_without_metrics);
}

TEST_F(perfmon_run, descriptor_limit_of_8_costs_the_sixth_event_and_two_warnings) {
  process_options how;
  how.descriptor_limit = 8;
  const process_result counted = run({}, {"/bin/true"}, how);
  EXPECT_THAT(
      log_lines(counted.err),
      ElementsAre("perfmon_utils warn perf_event_open failed with Too many open files",
                  "perfmon_utils warn Hit the upper limit of files it's allowed to open, usually 1,024. Please "
                  "temporarily increase the limit to, for example, 2,048 files, with the command \"ulimit -n 2048\""));
  EXPECT_EQ(counted.status, 0);
  EXPECT_EQ(content_of(result()), file_with_metrics(time_of_result()));
}

TEST_F(perfmon_run, result_in_a_missing_folder_is_fatal_after_the_run) {
  const std::string path = (folder / "missing/result.json").string();
  const process_result counted =
      run_process({tool_path().string(), "--phase=perfmon", "-o", path, "/bin/echo", "ran"}, {.folder = folder.path()});
  EXPECT_EQ(counted.out, lines_before("/bin/echo") + "ran\nCEILMETER: Processing all collected data\n");
  const std::string copy = (folder / "ceilmeter.").string();
  EXPECT_THAT(
      log_lines(without_silent_metrics(counted.err)),
      ElementsAre(StartsWith("result_keeper warn Report cannot be written to " + path + ", a copy is saved as " + copy),
                  "collector fatal Error when trying to write report:", "No such file or directory"));
  EXPECT_EQ(counted.status, 128 + SIGABRT);
}

TEST_F(perfmon_run, interrupted_run_leaves_an_earlier_result_alone) {
  write_file(result(), "earlier");
  process_options how;
  how.seconds_allowed = 3;
  const process_result counted = run({}, {"/bin/sleep", "600"}, how);
  EXPECT_EQ(counted.status, 128 + SIGKILL);
  EXPECT_EQ(content_of(result()), "earlier");
}

TEST_F(perfmon_run, metrics_that_are_0_for_want_of_an_event_are_named_once_each) {
  const std::vector<std::string> words = {tool_path().string(), "--phase=perfmon", "-o", result().string(),
                                          "/bin/true"};
  const process_result counted = run_process(words, {.folder = folder.path()});
  std::vector<std::string> metrics;
  for (const std::string& line : log_lines(counted.err)) metrics.push_back(line.substr(0, line.find(" did not")));
  EXPECT_THAT(metrics, ElementsAre("perfmon warn l1_bytes is 0 in all regions: L1D_CACHE (0x4)",
                                   "perfmon warn l3_bytes is 0 in all regions: LL_CACHE (0x32)",
                                   "perfmon warn ddr_bytes is 0 in all regions: LL_CACHE_MISS (0x33)"));
}

}  // namespace
}  // namespace ceilmeter::test
