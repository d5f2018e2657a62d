// Counts hardware events per region and thread. A region is a name. Each pair of region and thread that starts counting
// gets one group of kernel counters. The group is opened on that thread at the first start, enabled and disabled as one
// unit, and read only once, at finalisation. The class keeps time stamps of each enable and disable.
//
// One lock guards the map of groups and nothing else. The key holds the thread id, so a group has one thread, and a
// thread works on its own group outside the lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "perfmon/counter_group.h"
#include "perfmon/roofline_metrics.h"
#include "report.h"

namespace ceilmeter {

// One event to count.
struct perfmon_event {
  std::string name;
  std::uint64_t config = 0;
  std::int32_t fd = -1;  // Stays -1: one event has a descriptor per region and thread, in `thread_counters`.
};

// What to count, by PERF_TYPE_* value, each type's events in the order in which they are opened.
using perfmon_event_map = std::unordered_map<std::uint32_t, std::vector<perfmon_event>>;

struct thread_region_key {
  std::string region;
  std::int32_t tid = 0;  // The kernel's thread id.

  bool operator==(const thread_region_key&) const = default;
};

struct thread_region_key_hash {
  std::size_t operator()(const thread_region_key& key) const {
    return std::hash<std::string>{}(key.region) ^ (static_cast<std::size_t>(key.tid) << 1);
  }
};

// One open counter.
struct group_event {
  std::int32_t fd = -1;
  std::string name;
};

// Nanoseconds of the monotonic clock, (begin, end).
using time_interval = std::pair<std::int64_t, std::int64_t>;

// The group of one region on one thread. Belongs to that thread until finalisation.
struct thread_counters {
  std::unordered_map<std::uint64_t, group_event> events;  // By the kernel's id of the counter, the leader included.
  std::int32_t group_fd = -1;                             // The leader; -1 without an open counter.
  std::vector<time_interval> time_intervals;              // One per start; end equals begin until the stop.
  std::uint64_t waited = 0;            // Enabled nanoseconds before the group was made small enough to run.
  std::uint64_t uncounted_starts = 0;  // Starts for which no counter could be opened.
  bool told_of_stop = false;           // The warning of a stop without a group is out.
};

// For how long groups were enabled, and for how long of that they counted, in nanoseconds.
struct group_times {
  std::uint64_t enabled = 0;
  std::uint64_t running = 0;
};

// Intervals of all threads of a region, begin to end, by rising begin.
using time_interval_map = std::multimap<std::int64_t, std::int64_t>;

// Joins `next`, whose begin is not before that of `running`, to `running` if the two overlap or touch. False, with
// `running` unchanged, if there is a gap between them.
bool extend_time_interval(time_interval& running, const time_interval& next);

// The order of calls: construct; start and stop regions on any threads; finalise once, when no thread is between start
// and stop any more; take the metrics. No failure of the kernel raises an exception: what could not be counted is
// missing, and the log says so.
class perfmon {
 public:
  // `inherit`: the counters also follow threads and processes that a counting thread starts. The log level decides here
  // whether the extra events are counted, so set it before.
  explicit perfmon(bool inherit);

  perfmon(const perfmon&) = delete;
  perfmon& operator=(const perfmon&) = delete;

  // Closes no descriptor: that is finalisation's work.
  ~perfmon() = default;

  // Keeps the counters' descriptors out of the numbers that the rest of the process uses. Before the first start.
  void keep_descriptors_apart() { m_descriptors_apart = true; }

  // Begins or resumes the counting of `region` on the calling thread. The counters continue from their values. A region
  // that is enabled already is enabled again and gets one more interval. A new group is looked at before the call
  // returns. If it cannot run on this counter unit, the extra events are closed again; if that is not enough, the
  // region has its time alone. Any thread.
  void start_roofline_events(const std::string& region);

  // Suspends the counting. Call it on the thread that started it: another thread finds nothing to stop. Any thread.
  void stop_roofline_events(const std::string& region);

  // Reads and closes all groups, sums them up by region and adds each region's active time. Call it once: a second call
  // would add the time again. Not while a start or stop runs.
  void finalize_roofline_events();

  // The metrics of every region that had a group, in no particular order. After finalisation, as often as wanted.
  std::vector<perfmon_region> get_roofline_events();

 protected:
  // With another set of events. Tests need it, because an emulated counter unit counts next to nothing of the real set.
  perfmon(bool inherit, perfmon_event_map events);

  // The calling thread's group of `region`, opened as far as possible: an event that fails to open is left out. Its
  // `group_fd` is -1 if all failed; a later call tries again.
  thread_counters& open_roofline_events(const std::string& region);

  // The calling thread's record of `region`, made if there is none.
  thread_counters& find_or_insert_counters(const std::string& region);

  // Opens the events of one type of `m_events` into `counters`, whose thread has to be the caller.
  void open_events_of_type(std::uint32_t type, thread_counters& counters);

  // Adds the group's current values to `totals`, unscaled, and leaves `totals` alone if there is none to read. Returns
  // the group's times.
  group_times read_counters_from_group(const thread_counters& counters, counter_table& totals);

  void finalize_per_thread_map();

  // The kernel's folder of counter units. Tests have another.
  std::string m_counter_units;

  bool m_inherit;
  bool m_descriptors_apart = false;
  perfmon_event_map m_events;
  std::mutex m_mutex;  // Guards look-ups in and insertions into the next member, whose records never move.
  std::unordered_map<thread_region_key, thread_counters, thread_region_key_hash> m_counters_per_thread_map;
  std::unordered_map<std::string, counter_table> m_counters_per_region_map;
  std::unordered_map<std::string, time_interval_map> m_time_intervals_map;

 private:
  thread_counters* find_counters(const std::string& region);
  void make_group_run(thread_counters& counters);
  void tell_of_missing_time() const;
  void tell_of_silent_metrics() const;

  // What the first groups have shown. A group that was opened in the meantime finds it out for itself.
  std::atomic<bool> m_extra_events_refused = false;
  std::atomic<bool> m_no_group_runs = false;
  // By region, filled by finalisation.
  std::map<std::string, group_times> m_times_per_region;
};

}  // namespace ceilmeter
