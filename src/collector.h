// The orchestrator of a run: the phases in their fixed order (perfmon, bintracer, finishing step). The benchmarks
// belong to the finishing step, because the thread counts to measure are known only when the application has run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "collector_config.h"
#include "report.h"

namespace ceilmeter {

// What ends a collection. Called on the main flow without the tracer, and by the engine at the application's end
// with it. The arguments carry nothing: all it needs stands in the configuration record.
using finish_function = std::uint64_t (*)(std::uint64_t, std::uint64_t);

// Runs the selected phases. Returns the result of `finish`, which is called once; with the bintracer phase it does not
// return, and `finish` runs when the application ends. A phase that cannot run leaves an empty contribution.
std::uint64_t start_collect(collector_config& config, finish_function finish);

// Runs the application as a child. MODE_TOTAL: under an inherited counter group; returns the one region "total", or
// nothing if no counter could be opened. MODE_REGION: with the environment of the region interface; returns nothing,
// the application's process writes into the result file itself.
std::vector<perfmon_region> run_app_with_perfmon(const collector_config& config);

// Turns this process into the application under the tracer. Does not return.
[[noreturn]] void run_app_with_bintracer(collector_config& config, finish_function finish);

// Sets a variable for the application, over an older value. False, and a warning, if `value` is empty or the
// environment cannot take it.
bool set_env_for_region_mode(const std::string& name, const std::string& value);

// Gathers what the phases left, measures the roofs if they are selected, joins everything with an earlier result file,
// writes the file and tells where it is. Once per process. Aborts, after a fatal line, if the file cannot be written.
void finish_collect(collector_config& config);

}  // namespace ceilmeter
