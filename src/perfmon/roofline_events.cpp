// The region interface: what an application calls, inside its own process, to have its regions counted by name. The
// tool only sets three environment variables and waits; the metrics go into the report file from here.
//
// Nothing that happens here may stop the application, and outside the tool nothing may be seen of it.
#include <roofline_events.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "common/log.h"
#include "finalizer.h"
#include "perfmon/perfmon.h"
#include "perfmon/perfmon_utils.h"
#include "perfmon/region_result.h"
#include "result_damage.h"
#include "perfmon/tracer_switch.h"
#include "report_handler.h"
#include "shared_names.h"

namespace ceilmeter {

namespace {

// Not `log`: the interface's functions stand in the global namespace, where the mathematical one is.
constexpr tool_log region_log{"src/perfmon/roofline_events"};

// The tracer sets the flag by a store of 64 bits, so the seven bytes behind it have to be this module's own.
struct alignas(8) wide_flag {
  bool disabled = false;
  char overwritten[7] = {};
};
static_assert(sizeof(wide_flag) == 8);
static_assert(alignof(wide_flag) == 8);

// Only init writes it, and the application calls init before it starts regions. So it is a plain word: a disabled call
// costs a load and a test.
wide_flag storage;
bool& region_api_disabled = storage.disabled;

// Whichever function needs it first makes it, because a program that never calls init is counted, too.
perfmon& region_counters() {
  static perfmon& counters = []() -> perfmon& {
    static perfmon made(true);
    made.keep_descriptors_apart();
    return made;
  }();
  return counters;
}

// Merges the regions with what the result file holds and writes it back, or writes beside a file that can't be read.
void write_regions(const std::string& report_file, std::vector<perfmon_region>& regions) {
  constexpr const char* caller = "finalize_perf_roofline_events";
  const result_lock lock(report_file);
  std::string target = report_file;
  collector_report report;
  if (const std::optional<std::string> damage = find_result_damage(report_file)) {
    target = path_beside(report_file);
    region_log({LEVEL_WARN, __builtin_LINE(), caller}, "%s is damaged (%s) and stays as it is: the counters go to %s",
               report_file.c_str(), damage->c_str(), target.c_str());
  } else {
    report = read(report_file);
  }
  bintracer_report no_tracer_report;
  benchmark_report no_benchmarks;
  finalize(report, no_tracer_report, regions, no_benchmarks);
  if (!write(target, report)) {
    region_log({LEVEL_WARN, __builtin_LINE(), caller}, "failed to write roofline events to %s.", target.c_str());
  }
  // This line is deliberately logged after a failed write, too: it closes the account of the run, and the line before
  // says how the write went.
  region_log({LEVEL_INFO, __builtin_LINE(), caller}, "Regions roofline events are written to %s", target.c_str());
}

void take_log_settings(const std::string& file, const std::string& level) {
  if (!file.empty()) {
    // The tool has the file open and has perhaps written to it.
    mora_log_set_file(file.c_str());
    mora_log_set_append(1);
  }
  if (!level.empty()) mora_log_set_level_name(level.c_str());
  mora_log_init();
}

// The two functions that count are apart from the functions that the application calls, so that a disabled call saves
// no register: load, test, return. Their log lines bear the callers' names.
[[gnu::noinline]] void start_counting(const char* region) {
  region_log({LEVEL_DEBUG, __builtin_LINE(), "start_perf_roofline_events"}, "start_perf_roofline_events: region is %s",
             region);
  region_counters().start_roofline_events(region);
}

[[gnu::noinline]] void stop_counting(const char* region) {
  region_log({LEVEL_DEBUG, __builtin_LINE(), "stop_perf_roofline_events"}, "stop_perf_roofline_events: region is %s",
             region);
  region_counters().stop_roofline_events(region);
}

}  // namespace

}  // namespace ceilmeter

using namespace ceilmeter;

void init_perf_roofline_events() {
  dummy_func_to_disable_roofline_events(&region_api_disabled);
  if (region_api_disabled) {
    region_log(LEVEL_INFO, "Region API was disabled by bintracer");
    return;
  }
  const std::string report_file = perfmon_utils_get_env(ROOFLINE_REPORT_FILE);
  if (report_file.empty()) {
    region_api_disabled = true;
    region_log(LEVEL_INFO, "Region API was disabled(%s environment variable is empty)", ROOFLINE_REPORT_FILE.c_str());
    return;
  }

  const std::string log_file = perfmon_utils_get_env(ROOFLINE_LOG_FILE);
  const std::string log_level = perfmon_utils_get_env(ROOFLINE_LOG_LEVEL);
  take_log_settings(log_file, log_level);
  region_log(LEVEL_INFO, "init_perf_roofline_events");
  region_log(LEVEL_DEBUG, "Report file for Region API is set to %s.", report_file.c_str());
  region_log(LEVEL_DEBUG, "Log file for Region API is set to %s.", log_file.c_str());
  region_log(LEVEL_DEBUG, "Log level for Region API is set to %s.", log_level.c_str());

  region_counters();  // Only now: the log level decides what it counts.
  std::puts("ROOFLINE_EVENTS are initialized.");
  std::fflush(stdout);
}

void start_perf_roofline_events(const char* region) {
  if (region_api_disabled) return;
  start_counting(region);
}

void stop_perf_roofline_events(const char* region) {
  if (region_api_disabled) return;
  stop_counting(region);
}

void finalize_perf_roofline_events() {
  if (region_api_disabled) return;
  region_log(LEVEL_INFO, "finalize_perf_roofline_events");
  perfmon& counters = region_counters();
  counters.finalize_roofline_events();
  std::vector<perfmon_region> regions = counters.get_roofline_events();
  region_log(LEVEL_DEBUG, "%ld regions collected", static_cast<long>(regions.size()));

  const std::string report_file = perfmon_utils_get_env(ROOFLINE_REPORT_FILE);
  if (report_file.empty()) {
    // The log stays open: regions may go on being counted, and what they say is wanted.
    region_log(LEVEL_WARN, "roofline events are not going to be written. Filename is empty");
    return;
  }
  write_regions(report_file, regions);
  mora_log_fini();
}
