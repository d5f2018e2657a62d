// Counts hardware events per region and thread. A region is a name; each pair of region and thread that starts counting
// gets one group of kernel counters, opened on that thread at the first start, enabled and disabled as one unit, and
// read only once, at finalisation. Between enable and disable the class keeps time stamps.
//
// One lock guards the map of groups and nothing else: the key holds the thread id, so that a group has one thread, and
// a thread works on its own group outside the lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "flat_table.h"
#include "report.h"

namespace ceilmeter {

struct roofline_event_code {
  std::int32_t code;  // Raw event code of the processor's counter unit.
  const char* name;
};

// Always counted, by rising code. The first one that opens leads the group. The set is the same on every processor: a
// code that a machine does not know fails to open, and what needs it counts it as 0.
inline constexpr std::array<roofline_event_code, 6> roofline_event_codes = {{
    {0x4, "L1D_CACHE"},
    {0x32, "LL_CACHE"},
    {0x33, "LL_CACHE_MISS"},
    {0x52, "L2D_CACHE_REFILL_LD"},
    {0x53, "L2D_CACHE_REFILL_ST"},
    {0x600B, "LSU_HIT_L2"},
}};

// Counted as well while the log is talkative, for its lines alone: no metric uses them.
inline constexpr std::array<roofline_event_code, 4> roofline_extra_event_codes = {{
    {0x72, "LDST_SPEC"},
    {0x74, "ASE_SPEC"},
    {0x75, "VFP_SPEC"},
    {0x5023, "STREAM_OUT"},
}};

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
};

// Counter name to the sum of its values.
using counter_table = flat_table<std::string, std::uint64_t>;

// Intervals of all threads of a region, begin to end, by rising begin.
using time_interval_map = std::multimap<std::int64_t, std::int64_t>;

// What one read of a group leader delivered.
struct group_reading {
  std::uint64_t time_enabled = 0;
  std::uint64_t time_running = 0;           // Less than `time_enabled` if the group had to share the counter unit.
  std::span<const std::uint64_t> pairs;     // Value and id by turns, as many as were really delivered.
};

// Takes a group reading apart. `words` is what was read, without a partial last word; the result points into it. Too
// few words for the header give a reading without pairs, and a count of pairs beyond `words` is cut.
group_reading decode_group_reading(std::span<const std::uint64_t> words);

// Joins `next`, whose begin is not before that of `running`, to `running` if the two overlap or touch. False, with
// `running` unchanged, if there is a gap between them.
bool extend_time_interval(time_interval& running, const time_interval& next);

// A metric of `roofline_metric_names` from a region's counters. A missing counter counts as 0, and so does an unknown
// metric. Unsigned 64-bit arithmetic that wraps.
std::uint64_t roofline_metric(const std::string& metric, const counter_table& counters);

// The order of a life: construct, start and stop regions on any threads, finalise once when no thread is between start
// and stop any more, take the metrics. No failure of the kernel raises an exception: what could not be counted is
// missing, and the log says so.
class perfmon {
 public:
  // `inherit`: the counters also follow threads and processes that a counting thread starts. Whether the extra events
  // are counted is settled here by the log level: it has to be set before.
  explicit perfmon(bool inherit);

  perfmon(const perfmon&) = delete;
  perfmon& operator=(const perfmon&) = delete;

  // Closes no descriptor: that is finalisation's work.
  ~perfmon() = default;

  // Begins or resumes the counting of `region` on the calling thread. The counters go on from where they stood; an
  // enabled region is enabled again and gets one more interval. Any thread.
  void start_roofline_events(const std::string& region);

  // Suspends it. On the thread that started it: another one finds nothing to stop. Any thread.
  void stop_roofline_events(const std::string& region);

  // Reads and closes all groups, sums them up by region and adds each region's active time. Once: a second call would
  // add the time again. Not beside a start or stop.
  void finalize_roofline_events();

  // The metrics of every region that had a group, in no particular order. After finalisation, as often as wanted.
  std::vector<perfmon_region> get_roofline_events();

 protected:
  // For an event set of one's own. Tests need it: an emulated counter unit counts next to nothing of the real set.
  perfmon(bool inherit, perfmon_event_map events);

  // The calling thread's group of `region`, opened as far as possible: an event that fails to open is left out. Its
  // `group_fd` is -1 if all failed; a later call tries again.
  thread_counters& open_roofline_events(const std::string& region);

  // The calling thread's record of `region`, made if there is none.
  thread_counters& find_or_insert_counters(const std::string& region);

  // Opens the events of one type of `m_events` into `counters`, whose thread has to be the caller.
  void open_events_of_type(std::uint32_t type, thread_counters& counters);

  // Adds the group's current values to `totals`, unscaled, and leaves `totals` alone if there is none to read.
  void read_counters_from_group(const thread_counters& counters, counter_table& totals);

  void finalize_per_thread_map();

  bool m_inherit;
  perfmon_event_map m_events;
  std::mutex m_mutex;  // Guards look-ups in and insertions into the next member, whose records never move.
  std::unordered_map<thread_region_key, thread_counters, thread_region_key_hash> m_counters_per_thread_map;
  std::unordered_map<std::string, counter_table> m_counters_per_region_map;
  std::unordered_map<std::string, time_interval_map> m_time_intervals_map;

 private:
  thread_counters* find_counters(const std::string& region);
};

}  // namespace ceilmeter
