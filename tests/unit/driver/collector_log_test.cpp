// What the collector tells in its log, step by step: one table, a row for each thing that a run can do.
#include "collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "../support/captured_log.h"
#include "../support/scratch_folder.h"
#include "common/log.h"
#include "shared_names.h"

namespace ceilmeter {
namespace {

using test::captured_descriptor;
using test::captured_log;

// A finishing step for rows that end before it.
std::uint64_t finish_nothing(std::uint64_t, std::uint64_t) { return 0; }
std::uint64_t finish_all(std::uint64_t, std::uint64_t) {
  finish_collect(process_config());
  return 0;
}

void run_true(std::uint32_t mode, const std::string& result) {
  static char name[] = "true";
  static char* words[] = {name, nullptr};
  collector_config& config = process_config();
  config.mode = mode;
  config.phase = PHASE_PERFMON;
  config.application = "/bin/true";
  config.argc = 1;
  config.argv = words;
  config.output_file_path = result;
  start_collect(config, finish_nothing);
}

struct row {
  const char* what;
  std::function<void(const std::string& result)> act;
  std::vector<std::string> lines;  // All of the collector's lines, in order.
};

const std::vector<row>& rows() {
  static const std::vector<row> table = {
      {"application under the counters",
       [](const std::string& result) { run_true(MODE_TOTAL, result); },
       {"info Start roofline events in total mode", "info Launch application /bin/true in total mode",
        "info Stop roofline events in total mode", "info Finish phase Perfmon"}},
      {"application that marks its regions",
       [](const std::string& result) { run_true(MODE_REGION, result); },
       {"info Launch application /bin/true in region mode", "info Finish phase Perfmon"}},
      {"regions without a file for them",
       [](const std::string&) { run_true(MODE_REGION, ""); },
       {"info Launch application /bin/true in region mode",
        "warn Couldn't set environment variable ROOFLINE_REPORT_FILE to empty value for roofline events.",
        "info Launch application /bin/true in region mode failed because couldn't set environment variable for report "
        "output file",
        "info Finish phase Perfmon"}},
      {"mode that there is not",
       [](const std::string& result) { run_true(7, result); },
       {"warn Wrong mode parameter in collector config.mode", "", "info Finish phase Perfmon"}},
      {"variable that no environment takes",
       [](const std::string&) { EXPECT_FALSE(set_env_for_region_mode("A=B", "value")); },
       {"warn Couldn't set environment variable A=B to value for roofline events."}},
      {"variable that is set",
       [](const std::string&) {
         mora_log_set_level(LEVEL_DEBUG);
         EXPECT_TRUE(set_env_for_region_mode("CEILMETER_TEST_VALUE", "a b"));
         EXPECT_STREQ(std::getenv("CEILMETER_TEST_VALUE"), "a b");
       },
       {"debug Successfully set environment variable CEILMETER_TEST_VALUE to a b for roofline events."}},
      {"roofs alone",
       [](const std::string& result) {
         collector_config& config = process_config();
         config.phase = PHASE_BENCHMARKS;
         config.num_threads_for_bench = 2;
         config.application = "ceilmeter_benchmarks";
         config.output_file_path = result;
         mora_log_set_level(LEVEL_DEBUG);
         start_collect(config, finish_all);
       },
       {"debug Add thread count = 2 to num_threads_set", "info Finish phase benchmarks with benchmark_report size=1",
        "info Finishing collection for ceilmeter_benchmarks"}},
  };
  return table;
}

// The lines of src/collector, but for those of a benchmark's result, which hold a measured number.
std::vector<std::string> collectors_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  bool is_message = false;
  for (std::string line; std::getline(stream, line);) {
    const bool has_header = line.find(" MORA ") != std::string::npos;
    // A line without a header goes on with the message before it.
    if (has_header)
      is_message = line.find(" collector:") != std::string::npos && line.find(" result: ") == std::string::npos;
    if (is_message) lines.push_back(line.empty() ? line : test::log_lines(line).front());
  }
  return lines;
}

// A child that an application has forked under the tracer ends by exit. It must not take the tracer apart.
TEST(process_config, is_not_destroyed_when_a_process_ends) {
  const pid_t pid = fork();
  if (pid == 0) {
    // Runs after a destructor that the first call of process_config() would register.
    std::atexit([] { _exit(process_config().output_file_path == std::string(100, 'x') ? 0 : 1); });
    process_config().output_file_path = std::string(100, 'x');
    std::exit(2);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
}

class collector_log : public ::testing::TestWithParam<row> {};

// Each in a process of its own: the configuration is the process's.
TEST_P(collector_log, tells_each_step) {
  const test::scratch_folder folder;
  const captured_log captured;
  const captured_descriptor out(STDOUT_FILENO);
  const pid_t pid = fork();
  if (pid == 0) {
    mora_log_set_level(LEVEL_INFO);
    GetParam().act(folder / "result.json");
    _exit(::testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(collectors_lines(captured.text()), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(of, collector_log, ::testing::ValuesIn(rows()), [](const auto& one) {
  std::string name = one.param.what;
  for (char& letter : name) letter = letter == ' ' ? '_' : letter;
  return name;
});

}  // namespace
}  // namespace ceilmeter
