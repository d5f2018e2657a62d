// The one configuration record of a run. It has static lifetime because the finishing step reaches it after the main
// flow has been given up: under the tracer the process becomes the application and ends through the engine.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "report.h"

namespace ceilmeter {

class bintracer_t;

enum collector_mode : std::uint32_t {
  MODE_REGION = 0,  // The application marks its regions itself.
  MODE_TOTAL = 1,   // The whole application is one region.
};

// A set of bits.
enum collector_phase : std::uint32_t {
  PHASE_PERFMON = 1,
  PHASE_BINTRACER = 2,
  PHASE_BENCHMARKS = 4,
  PHASE_FULL = 7,
};

// Written while the command line is read and by the collector, on one thread; never locked.
struct collector_config {
  std::uint32_t mode = MODE_TOTAL;
  std::uint32_t phase = PHASE_FULL;
  std::string application;  // Path of the program to run, prefixed so that execvp does not search PATH for it.
  std::int32_t argc = 0;    // Number of arguments from the application's name on.
  char** argv = nullptr;    // Into the process's arguments, at the application's name as typed.
  char** envp = nullptr;    // The environment that main received.
  std::uint64_t num_threads_for_bench = 16;  // Thread count of the roofs when no run tells another.
  std::string_view config_version = "1.0";   // Of this record, for whoever looks at it in a debugger.
  std::string output_file_path;
  std::unique_ptr<bintracer_t> tracer;         // Set by the bintracer phase, given up by the finishing step.
  std::vector<perfmon_region> perfmon_report;  // What the perfmon phase returned in MODE_TOTAL.

  collector_config();
  ~collector_config();
  collector_config(const collector_config&) = delete;
  collector_config& operator=(const collector_config&) = delete;
};

// The record of this process, made at the first call and never destroyed.
collector_config& process_config();

}  // namespace ceilmeter
