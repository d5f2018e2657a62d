// The phases in order, and the step that ends every collection. A measurement never stops a run: a phase that fails
// leaves an empty contribution, and only a result file that cannot be written is fatal.
#include "collector.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "bintracer/bintracer.h"
#include "checked_build.h"
#include "common/log.h"
#include "finalizer.h"
#include "interruption.h"
#include "memory_reserve.h"
#include "perfmon/perfmon.h"
#include "perfmon/perfmon_utils.h"
#include "perfmon/stale_counters.h"
#include "privileges.h"
#include "process_state.h"
#include "progress.h"
#include "report_handler.h"
#include "result_damage.h"
#include "result_keeper.h"
#include "run_application.h"
#include "run_benchmarks.h"
#include "shared_names.h"
#include "terminal_progress.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/collector"};

// The folders that may take a copy of the result, the likeliest to be looked into first.
std::vector<std::string> copy_folders() { return {start_folder(), start_temporary_folder(), "/tmp"}; }

// What is left of the application must not cost the result, for which it has run so long. Interrupts of the user's end
// the run as before.
void leave_the_application_behind(const collector_config& config) {
  if ((config.phase & PHASE_BINTRACER) != 0) {
    const int signum = config.tracer->get_ending_signal();
    if (signum != 0) note_end_by_signal(signum);
    restore_process_state();
    // The result is the user's file, not the application's. In region mode a relative path stays the application's: its
    // counters are in the file that it has written under that path. The folder may be gone, or out of reach of a user
    // that the application has become: then the path means a file where the application is.
    if (config.mode == MODE_TOTAL && !start_folder().empty()) {
      [[maybe_unused]] const int result = chdir(start_folder().c_str());
    }
  }
  // Nobody may read the closing lines any more, where they go into a pipe.
  ignore_write_signals();
}

// Rights that the tool's file lends are for opening counters. Nothing is run or written with them.
void give_up_rights() {
  if (!give_up_privileges()) log(LEVEL_FATAL, "Cannot give up the rights that the tool's file lends");
}

// The counts at which the roofs are to be measured: those of the regions of this run or, without a traced run, of the
// regions read from the file, and the highest of all.
std::set<std::uint64_t> choose_thread_counts(const collector_config& config, const bintracer_report& tracer_report,
                                             const collector_report& report) {
  std::set<std::uint64_t> counts;
  const auto add = [&counts](std::uint64_t count) {
    log({LEVEL_DEBUG, __builtin_LINE(), "finish_collect"}, "Add thread count = %lu to num_threads_set", count);
    counts.insert(count);
  };
  std::uint64_t highest = config.num_threads_for_bench;
  if (tracer_report.max_thread_count != 0) {
    highest = tracer_report.max_thread_count;
    for (const bintracer_region& region : tracer_report.regions) add(region.threads);
  } else if (report.threads != 0) {
    highest = report.threads;
    for (const region_metric& region : report.regions) add(region.threads);
  }
  add(highest);
  return counts;
}

// Everything is measured anew in a full run over the whole application; any other run adds to an earlier file, and in
// region mode the file holds the counters that the application's process has just written.
bool adds_to_earlier_file(const collector_config& config) {
  return config.phase != PHASE_FULL || config.mode != MODE_TOTAL;
}

// An earlier file that would end whoever reads it stays as it is, and the data go beside it. The region interface does
// the same. Asked before the application runs, and again at the end: it may have written the file.
void avoid_damaged_file(collector_config& config) {
  if (!adds_to_earlier_file(config)) return;
  while (const std::optional<std::string> damage = find_fatal_result_damage(config.output_file_path)) {
    const std::string beside = path_beside(config.output_file_path);
    log({LEVEL_WARN, __builtin_LINE(), "finish_collect"},
        "%s is damaged (%s) and stays as it is: the result goes to %s", config.output_file_path.c_str(),
        damage->c_str(), beside.c_str());
    config.output_file_path = beside;
  }
}

std::vector<perfmon_region> run_in_region_mode(const collector_config& config) {
  give_up_rights();
  log(LEVEL_INFO, "Launch application %s in region mode", config.application.c_str());
  if (!set_env_for_region_mode(ROOFLINE_REPORT_FILE, config.output_file_path)) {
    log(LEVEL_INFO,
        "Launch application %s in region mode failed because couldn't set environment variable for report output file",
        config.application.c_str());
    return {};
  }
  set_env_for_region_mode(ROOFLINE_LOG_LEVEL, mora_log_get_level_name());
  const char* log_file = mora_log_get_file();
  set_env_for_region_mode(ROOFLINE_LOG_FILE, log_file != nullptr ? log_file : "");
  note_result_before_run(config.output_file_path);
  run_application(config.application, config.argc, config.argv);
  return {};
}

std::vector<perfmon_region> run_in_total_mode(const collector_config& config) {
  // Counters that are opened here, on the tool's thread, follow the application by inheritance.
  perfmon counters(true);
  log(LEVEL_INFO, "Start roofline events in total mode");
  use_counting_privilege();
  counters.start_roofline_events(total_region_name);
  give_up_rights();
  log(LEVEL_INFO, "Launch application %s in total mode", config.application.c_str());
  run_application(config.application, config.argc, config.argv);
  log(LEVEL_INFO, "Stop roofline events in total mode");
  counters.stop_roofline_events(total_region_name);
  counters.finalize_roofline_events();
  return counters.get_roofline_events();
}

// The counters go into the result file before the tracer makes this process the application, which may end it. The file
// is then as after a run of the perfmon phase alone. A process of its own does this, because an earlier file that is
// damaged can end whoever reads it. The final step reads the file again, and tells what is to be told.
void keep_counters(const collector_config& config) {
  if (config.perfmon_report.empty()) return;
  const pid_t child = fork();
  if (child < 0) return;
  if (child > 0) {
    waitpid(child, nullptr, 0);
    return;
  }
  ignore_write_signals();
  // What is wrong with an earlier file is of interest unless the run replaces it unread.
  const int level = adds_to_earlier_file(config) ? LEVEL_WARN : LEVEL_FATAL;
  mora_log_set_level(std::min(mora_log_get_level(), level));
  collector_report report = read(config.output_file_path);
  std::vector<perfmon_region> counters = config.perfmon_report;
  bintracer_report no_tracer_report;
  benchmark_report no_benchmarks;
  finalize(report, no_tracer_report, counters, no_benchmarks);
  result_keeper(config.output_file_path, copy_folders()).keep(report);
  _exit(0);
}

// The join in two steps is the join in one: the second finds nothing but roofs to add, because the inputs of the first
// are spent.
void keep_before_benchmarks(collector_config& config, collector_report& report, bintracer_report& tracer_report,
                            result_keeper& keeper) {
  benchmark_report none_yet;
  finalize(report, tracer_report, config.perfmon_report, none_yet);
  tracer_report = {};
  config.perfmon_report.clear();
  keeper.keep(report);
}

// What was counted before the run was stopped is its result.
void drop_phases(collector_config& config, std::uint32_t phases) {
  log(LEVEL_WARN, "Stopped by signal %d (%s): the report holds what was counted before", interrupting_signal(),
      strsignal(interrupting_signal()));
  config.phase &= ~phases;
}

}  // namespace

// Both are defined where bintracer_t is complete.
collector_config::collector_config() = default;
collector_config::~collector_config() = default;

collector_config& process_config() {
  // Never destroyed. A child that the application has forked under the tracer ends by exit as well, and would take the
  // tracer apart, while a thread that the child does not have may hold the heap's lock for ever.
  static auto* const config = new collector_config;
  return *config;
}

std::uint64_t start_collect(collector_config& config, finish_function finish) {
  avoid_damaged_file(config);
  if ((config.phase & PHASE_PERFMON) != 0) {
    config.perfmon_report = run_app_with_perfmon(config);
    log(LEVEL_INFO, "Finish phase Perfmon");
    // The other phases would start the application again, or take as long.
    if (interrupting_signal() != 0) drop_phases(config, PHASE_BINTRACER | PHASE_BENCHMARKS);
  }
  if ((config.phase & PHASE_BINTRACER) != 0) {
    keep_counters(config);
    run_app_with_bintracer(config, finish);
  }
  return finish(0, config.phase);
}

std::vector<perfmon_region> run_app_with_perfmon(const collector_config& config) {
  print_progress("Launch application to collect performance metrics of " + config.application);
  switch (config.mode) {
    case MODE_REGION: return run_in_region_mode(config);
    case MODE_TOTAL: return run_in_total_mode(config);
    default: log(LEVEL_WARN, "Wrong mode parameter in collector config.mode\n"); return {};
  }
}

void run_app_with_bintracer(collector_config& config, finish_function finish) {
  print_progress("Launch application to do binary instrumentation of " + config.application);
  give_up_rights();
  if (const std::string rights = rights_lent_by(config.application); !rights.empty()) {
    log(LEVEL_WARN, "%s has %s: under the tracer it runs with the rights of the caller alone",
        config.application.c_str(), rights.c_str());
  }
  if (const std::string fate = fate_of_checked_build(config.application); !fate.empty()) {
    log(LEVEL_WARN, "%s is built with %s", config.application.c_str(), fate.c_str());
  }
  hide_privileged_start(config.envp);
  keep_memory_reserve();
  config.tracer = std::make_unique<bintracer_t>(finish, config.mode);
  config.tracer->collect(config.argc, config.argv, config.envp);
}

bool set_env_for_region_mode(const std::string& name, const std::string& value) {
  if (value.empty()) {
    log(LEVEL_WARN, "Couldn't set environment variable %s to empty value for roofline events.", name.c_str());
    return false;
  }
  if (perfmon_utils_set_env(name, value) != 0) {
    log(LEVEL_WARN, "Couldn't set environment variable %s to %s for roofline events.", name.c_str(), value.c_str());
    return false;
  }
  log(LEVEL_DEBUG, "Successfully set environment variable %s to %s for roofline events.", name.c_str(), value.c_str());
  return true;
}

void finish_collect(collector_config& config) {
  leave_the_application_behind(config);
  give_up_rights();
  // The roofs would take longer than the process is given, and they can be measured in a run of their own.
  if ((config.phase & PHASE_BINTRACER) != 0 && interrupting_signal() != 0) drop_phases(config, PHASE_BENCHMARKS);
  terminal_progress progress;
  bintracer_report tracer_report;
  if ((config.phase & PHASE_BINTRACER) != 0) {
    progress.show("evaluating the counts of the blocks");
    // Given up without its destructor: the engine's structures, which the tracer's blocks belong to, are still in use
    // until the process ends.
    bintracer_t* tracer = config.tracer.release();
    tracer_report = tracer->get_report();
    log(LEVEL_INFO, "Finish phase bintracer");
  }

  avoid_damaged_file(config);
  const std::string output_file_path = config.output_file_path;
  result_keeper keeper(output_file_path, copy_folders());
  collector_report report;
  if (adds_to_earlier_file(config)) report = read(output_file_path);
  warn_of_stale_counters(output_file_path, report);

  benchmark_report benchmarks;
  if ((config.phase & PHASE_BENCHMARKS) != 0) {
    std::set<std::uint64_t> num_threads_set = choose_thread_counts(config, tracer_report, report);
    if (config.phase != PHASE_BENCHMARKS) {
      progress.show("writing what was counted");
      keep_before_benchmarks(config, report, tracer_report, keeper);
    }
    benchmarks = run_benchmarks(num_threads_set);
    log(LEVEL_INFO, "Finish phase benchmarks with benchmark_report size=%lu", benchmarks.size());
  }

  print_progress("Processing all collected data");
  progress.show("writing the result");
  finalize(report, tracer_report, config.perfmon_report, benchmarks);
  if (!keeper.finish(report)) {
    log(LEVEL_FATAL, "Error when trying to write report:\n%s", std::strerror(errno));
  }
  progress.clear();
  print_progress("Result is captured at " + output_file_path);
  print_progress("Run \"ceilview " + output_file_path + "\" to get report.");
  log(LEVEL_INFO, "Finishing collection for %s", config.application.c_str());
}

}  // namespace ceilmeter
