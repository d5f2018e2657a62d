// The only place that creates a kernel performance counter, and the two environment helpers that the counter code
// shares with the collector. Stateless: nothing here knows of regions, threads or event names, and nothing is kept
// after a call. The log and the return value tell of a failure, never an exception.
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
// as a leader), readable as a group. Returns the descriptor, which the caller owns. On failure it returns -1 after a
// warning with the kernel's reason. `repeated`: the caller has been told the reason before, and the warning becomes a
// debug line. Any thread.
std::int32_t perfmon_utils_event_open_core(const perfmon_event_desc* event, std::int32_t pid, std::int32_t cpu,
                                           std::int32_t group_fd, std::uint64_t flags, bool repeated = false);

// How many counters the processor's counter unit has for raw events, without the one that counts cycles alone. 0 if the
// kernel does not say. It is found out with counters that are opened and closed again: the kernel refuses one counter
// too many in a group, but only if running ones are asked for. Not cheap. Any thread.
int perfmon_utils_counter_width();

// Like perfmon_utils_event_open_core, but the counter belongs to no task. It counts everything that happens on `cpu`,
// including the kernel's work, and is read singly. Nothing calls it while all roofline events belong to the cores.
std::int32_t perfmon_utils_event_open_uncore(const perfmon_event_desc* event, std::int32_t cpu, std::int32_t group_fd,
                                             std::uint64_t flags);

// The variable's value; empty if it is unset. Not beside a thread that changes the environment.
std::string perfmon_utils_get_env(const std::string& name);

// Sets the variable, replacing an earlier value. Returns 0, or setenv's result after a warning. Not beside a thread
// that reads or changes the environment.
int perfmon_utils_set_env(const std::string& name, const std::string& value);

}  // namespace ceilmeter
