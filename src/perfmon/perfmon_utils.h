// The only place that creates a kernel performance counter, and the two environment helpers that the counter code
// shares with the collector. Stateless: nothing here knows of regions, threads or event names, and nothing is kept
// after a call. A failure is told by the log and the return value, never by an exception.
#pragma once

#include <cstdint>
#include <string>

namespace ceilmeter {

// What a caller says about one counter.
struct perfmon_event_desc {
  std::uint32_t type = 0;     // A PERF_TYPE_* value.
  std::uint64_t config = 0;   // The raw event code if `type` is PERF_TYPE_RAW.
  std::uint32_t inherit = 0;  // Bit 0 alone counts: 1 extends the counter to what the counted task starts.
};

// Creates a stopped counter of the user-mode work of task `pid` on `cpu`, as a member of the group of `group_fd` (-1:
// as a leader), readable as a group. Returns the descriptor, which the caller owns, or -1 after a warning with the
// kernel's reason; where the caller has been told the reason before, `repeated`, the warning becomes a debug line. Any
// thread.
std::int32_t perfmon_utils_event_open_core(const perfmon_event_desc* event, std::int32_t pid, std::int32_t cpu,
                                           std::int32_t group_fd, std::uint64_t flags, bool repeated = false);

// How many counters the processor's counter unit has for raw events, the one for cycles alone aside; 0 if the kernel
// does not say. Found out with counters that are opened for it and closed again: the kernel refuses one counter too
// many in a group, but only while it is asked for running ones. Not cheap. Any thread.
int perfmon_utils_counter_width();

// The same for a counter that no task is tied to: everything that happens on `cpu`, the kernel's work included, read
// singly. Nothing calls it while all roofline events belong to the cores.
std::int32_t perfmon_utils_event_open_uncore(const perfmon_event_desc* event, std::int32_t cpu, std::int32_t group_fd,
                                             std::uint64_t flags);

// The variable's value; empty if it is unset. Not beside a thread that changes the environment.
std::string perfmon_utils_get_env(const std::string& name);

// Sets the variable, replacing an earlier value. Returns 0, or setenv's result after a warning. Not beside a thread
// that reads or changes the environment.
int perfmon_utils_set_env(const std::string& name, const std::string& value);

}  // namespace ceilmeter
