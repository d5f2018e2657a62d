// What the tests on a real kernel share: events that the emulated counter unit or the kernel itself really counts, work
// of a known amount, an independent count of it, and children whose log is read back.
//
// Of the processor's own events the emulated unit moves the cycles alone. The sharp tool is the kernel's count of page
// faults: touching N fresh pages makes at least N of them, and the kernel's accounting (getrusage), which is another
// piece of code than its counters, says how many there were at most.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "perfmon/perfmon.h"

namespace ceilmeter::test {

class vm_perfmon : public perfmon {
 public:
  // Cycles as a raw event, page faults and the task's clock as software events.
  explicit vm_perfmon(bool inherit);
  vm_perfmon(bool inherit, perfmon_event_map events) : perfmon(inherit, std::move(events)) {}

  // As start_roofline_events, with the software events in the group as well.
  void start(const std::string& region);
  void stop(const std::string& region) { stop_roofline_events(region); }

  // The calling thread's group of `region`, read while it lives.
  counter_table read(const std::string& region);
  thread_counters& counters(const std::string& region) { return find_or_insert_counters(region); }

  // A counter of `region` after finalisation. Fails the test if there is none.
  std::uint64_t total(const std::string& region, const std::string& counter) const;

  using perfmon::m_counters_per_region_map;
  using perfmon::m_events;
  using perfmon::m_time_intervals_map;
};

// The real event set, with its inside visible.
class real_perfmon : public perfmon {
 public:
  explicit real_perfmon(bool inherit) : perfmon(inherit) {}
  thread_counters& counters(const std::string& region) { return find_or_insert_counters(region); }
  using perfmon::m_counters_per_region_map;
};

inline constexpr char FAULTS[] = "PAGE_FAULTS";
inline constexpr char CYCLES[] = "CPU_CYCLES";
inline constexpr char TASK_CLOCK[] = "TASK_CLOCK";

// Maps `pages` fresh pages, writes to each and unmaps them.
void touch_pages(int pages);

// Runs a dependent chain of `millions` million integer operations.
void burn(int millions);

// Page faults of the process so far, by the kernel's accounting; with those of its children that were waited for.
std::uint64_t faults_of_self();
std::uint64_t faults_of_children();

struct child_result {
  int exit_status = -1;          // -1: it was killed.
  std::vector<std::string> log;  // Its log lines, each reduced to "level message".
  // Of these the warnings of metrics that are 0 for want of an event, which are kept out of `log`: the emulated unit
  // has none of the tool's events.
  std::vector<std::string> silent_metrics;
};

// Runs `work` in a child process whose standard error is kept. A failed test in the child gives exit status 1.
child_result run_in_child(const std::function<void()>& work);

// Forks, runs `work` in the child and waits for it, as the collector does with the application.
void fork_and_wait(const std::function<void()>& work);

// Entries of /proc/self/fd.
int open_descriptors();

// The path of this program, which touches pages and ends when it is called as "<path> --touch N".
inline constexpr char TOUCH_OPTION[] = "--touch";

}  // namespace ceilmeter::test
