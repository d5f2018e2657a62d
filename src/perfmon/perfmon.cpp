// Groups of kernel counters per region and thread, and what becomes of their values. The arithmetic stands in free
// functions, apart from the system calls.
#include "perfmon/perfmon.h"

#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/log.h"
#include "perfmon/perfmon_utils.h"
#include "shared_names.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/perfmon/perfmon"};

// The pseudo-counter of a region's active time in nanoseconds. No kernel counter feeds it.
constexpr char DURATION_TIME[] = "duration_time";

constexpr int BYTES_PER_L1_ACCESS_SHIFT = 4;  // An L1 access is taken as one of 16 bytes,
constexpr int BYTES_PER_LINE_SHIFT = 6;       // all else as a line of 64, whatever the machine's line length.

constexpr bool by_rising_code(const roofline_event_code& left, const roofline_event_code& right) {
  return left.code < right.code;
}
static_assert(std::is_sorted(roofline_event_codes.begin(), roofline_event_codes.end(), by_rising_code));
static_assert(std::is_sorted(roofline_extra_event_codes.begin(), roofline_extra_event_codes.end(), by_rising_code));

perfmon_event_map roofline_events(bool with_extra_events) {
  perfmon_event_map events;
  std::vector<perfmon_event>& raw_events = events[PERF_TYPE_RAW];
  const auto append = [&raw_events](std::span<const roofline_event_code> codes) {
    for (const roofline_event_code& row : codes) {
      raw_events.push_back({row.name, static_cast<std::uint64_t>(row.code), -1});
    }
  };
  append(roofline_event_codes);
  if (with_extra_events) append(roofline_extra_event_codes);
  return events;
}

std::int32_t thread_id() { return static_cast<std::int32_t>(syscall(SYS_gettid)); }

std::int64_t monotonic_nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

std::uint64_t counter_value(const counter_table& counters, std::string_view name) {
  const std::uint64_t* value = counters.find(name);
  return value == nullptr ? 0 : *value;
}

}  // namespace

group_reading decode_group_reading(std::span<const std::uint64_t> words) {
  constexpr std::size_t header_words = 3;
  if (words.size() < header_words) return {};
  const std::span<const std::uint64_t> delivered = words.subspan(header_words);
  const std::size_t pair_count = std::min<std::uint64_t>(words[0], delivered.size() / 2);
  return {words[1], words[2], delivered.first(2 * pair_count)};
}

bool extend_time_interval(time_interval& running, const time_interval& next) {
  if (next.first > running.second) return false;
  running.second = std::max(running.second, next.second);
  return true;
}

std::uint64_t roofline_metric(const std::string& metric, const counter_table& counters) {
  if (metric == "l1_bytes") return counter_value(counters, "L1D_CACHE") << BYTES_PER_L1_ACCESS_SHIFT;
  if (metric == "l2_bytes") {
    return (counter_value(counters, "LSU_HIT_L2") + counter_value(counters, "L2D_CACHE_REFILL_LD") +
            counter_value(counters, "L2D_CACHE_REFILL_ST"))
           << BYTES_PER_LINE_SHIFT;
  }
  if (metric == "l3_bytes") return counter_value(counters, "LL_CACHE") << BYTES_PER_LINE_SHIFT;
  if (metric == "ddr_bytes") return counter_value(counters, "LL_CACHE_MISS") << BYTES_PER_LINE_SHIFT;
  if (metric == "time") return counter_value(counters, DURATION_TIME);
  return 0;
}

perfmon::perfmon(bool inherit) : perfmon(inherit, roofline_events(mora_log_get_level() > LEVEL_WARN)) {}

perfmon::perfmon(bool inherit, perfmon_event_map events) : m_inherit(inherit), m_events(std::move(events)) {}

void perfmon::start_roofline_events(const std::string& region) {
  log(LEVEL_DEBUG, "start_roofline_events: region is %s", region.c_str());
  thread_counters* counters = find_counters(region);
  if (counters == nullptr || counters->group_fd < 0) {
    counters = &open_roofline_events(region);
    if (counters->group_fd == -1) {
      log(LEVEL_WARN, "failed to perfmon::open_roofline_events for %s region", region.c_str());
      return;
    }
  }

  // The stamp comes before the counters start, as the one of the stop comes after they stop: the interval holds all
  // that is counted.
  const std::int64_t now = monotonic_nanoseconds();
  counters->time_intervals.emplace_back(now, now);
  if (counters->group_fd < 0) {
    log(LEVEL_WARN, "couldn't start_roofline_events for %s region because group_fd was not set", region.c_str());
    return;
  }
  ioctl(counters->group_fd, PERF_EVENT_IOC_ENABLE, PERF_IOC_FLAG_GROUP);
}

void perfmon::stop_roofline_events(const std::string& region) {
  log(LEVEL_DEBUG, "stop_roofline_events: region is %s", region.c_str());
  thread_counters* counters = nullptr;
  {
    const std::lock_guard guard(m_mutex);
    const auto found = m_counters_per_thread_map.find({region, thread_id()});
    if (found == m_counters_per_thread_map.end()) {
      log(LEVEL_WARN, "roofline events don't exist for %s region", region.c_str());
      return;
    }
    counters = &found->second;
  }
  if (counters->group_fd < 0) {
    log(LEVEL_WARN, "couldn't stop_roofline_events for %s region because group_fd was not set", region.c_str());
    return;
  }

  ioctl(counters->group_fd, PERF_EVENT_IOC_DISABLE, PERF_IOC_FLAG_GROUP);
  if (counters->time_intervals.empty()) {
    log(LEVEL_WARN, "start timestamp was not set for %s region", region.c_str());
    return;
  }
  counters->time_intervals.back().second = monotonic_nanoseconds();
}

thread_counters* perfmon::find_counters(const std::string& region) {
  const std::lock_guard guard(m_mutex);
  const auto found = m_counters_per_thread_map.find({region, thread_id()});
  return found == m_counters_per_thread_map.end() ? nullptr : &found->second;
}

thread_counters& perfmon::find_or_insert_counters(const std::string& region) {
  const std::lock_guard guard(m_mutex);
  return m_counters_per_thread_map.try_emplace({region, thread_id()}).first->second;
}

thread_counters& perfmon::open_roofline_events(const std::string& region) {
  log(LEVEL_DEBUG, "open_roofline_events: region is %s", region.c_str());
  thread_counters& counters = find_or_insert_counters(region);
  // Opening a group takes the kernel a while, and other threads must not wait for it: no lock from here on.
  open_events_of_type(PERF_TYPE_RAW, counters);
  return counters;
}

void perfmon::open_events_of_type(std::uint32_t type, thread_counters& counters) {
  constexpr std::int32_t calling_thread = 0;
  constexpr std::int32_t any_cpu = -1;

  const auto events = m_events.find(type);
  if (events == m_events.end()) return;
  for (const perfmon_event& event : events->second) {
    const perfmon_event_desc desc{.type = type, .config = event.config, .inherit = m_inherit};
    const std::int32_t fd =
        perfmon_utils_event_open_core(&desc, calling_thread, any_cpu, counters.group_fd, PERF_FLAG_FD_CLOEXEC);
    if (fd == -1) continue;
    if (counters.group_fd == -1) counters.group_fd = fd;

    std::uint64_t id = 0;
    ioctl(fd, PERF_EVENT_IOC_ID, &id);
    // A second counter under the same id is dropped and its descriptor stays open: it could not be told from the first
    // when the group is read.
    counters.events.try_emplace(id, group_event{fd, event.name});
  }
}

void perfmon::read_counters_from_group(const thread_counters& counters, counter_table& totals) {
  if (counters.group_fd < 0) return;

  std::array<std::uint64_t, 4096 / sizeof(std::uint64_t)> buffer;
  errno = 0;  // A read that delivers nothing sets no error; an old one would be misleading below.
  const ssize_t bytes = read(counters.group_fd, buffer.data(), sizeof buffer);
  if (bytes < 1) {
    log(LEVEL_WARN, "failed to read counter_values for core events with %s", std::strerror(errno));
    return;
  }

  const group_reading reading =
      decode_group_reading(std::span(buffer).first(static_cast<std::size_t>(bytes) / sizeof(std::uint64_t)));
  // Scaling by the time ratio would make an estimate of a count. The warning tells the user to count less at a time.
  if (reading.time_enabled != reading.time_running) log(LEVEL_WARN, "core counters have multiplexing!");
  for (std::size_t i = 0; i + 1 < reading.pairs.size(); i += 2) {
    const auto event = counters.events.find(reading.pairs[i + 1]);
    if (event == counters.events.end()) continue;
    totals.find_or_insert(event->second.name) += reading.pairs[i];
  }
}

void perfmon::finalize_per_thread_map() {
  log(LEVEL_DEBUG, "finalize_per_thread_map: m_counters_per_thread_map has %lu entries",
      m_counters_per_thread_map.size());
  for (auto& [key, counters] : m_counters_per_thread_map) {
    if (counters.group_fd >= 0) {
      read_counters_from_group(counters, m_counters_per_region_map[key.region]);
      close(counters.group_fd);
      counters.group_fd = -1;
      // The leader is among the events, so its number is closed a second time. That fails unnoticed unless another
      // thread was given the number in between. In total mode the tool has no other thread; in region mode nothing
      // counts any more, but an application thread that opens a file in this very moment could lose it.
      for (auto& [id, event] : counters.events) {
        close(event.fd);
        event.fd = -1;
      }
    }
    time_interval_map& intervals = m_time_intervals_map[key.region];
    for (const auto& [begin, end] : counters.time_intervals) intervals.emplace(begin, end);
  }
}

void perfmon::finalize_roofline_events() {
  log(LEVEL_DEBUG, "finalize_roofline_events");
  finalize_per_thread_map();

  for (auto& [region, counters] : m_counters_per_region_map) {
    const time_interval_map& intervals = m_time_intervals_map[region];
    if (intervals.empty()) {
      log(LEVEL_WARN, "No time interval collected for %s region", region.c_str());
      continue;
    }
    log(LEVEL_DEBUG, "%lu time intervals collected for %s region", intervals.size(), region.c_str());

    // The union of the intervals, not their sum: time in which at least one thread was in the region.
    std::uint64_t& duration = counters.find_or_insert(DURATION_TIME);
    const auto add = [&duration](const time_interval& complete) {
      const std::int64_t length = complete.second - complete.first;
      log(LEVEL_DEBUG, "%lu +=: %ld", duration, length);
      duration += static_cast<std::uint64_t>(length);
    };
    auto next = intervals.begin();
    time_interval running = *next;
    for (++next; next != intervals.end(); ++next) {
      log(LEVEL_TRACE, "Time interval: begin %ld, end %ld", next->first, next->second);
      if (!extend_time_interval(running, *next)) {
        add(running);
        running = *next;
      }
      log(LEVEL_TRACE, "Total time interval: begin %ld, end %ld", running.first, running.second);
    }
    add(running);

    log(LEVEL_DEBUG, "Counters captured for %s", region.c_str());
    for (const auto& [name, value] : counters) log(LEVEL_DEBUG, "%s\t%lu", name.c_str(), value);
  }
}

std::vector<perfmon_region> perfmon::get_roofline_events() {
  log(LEVEL_DEBUG, "get_roofline_events");
  std::vector<perfmon_region> regions;
  for (const auto& [region, counters] : m_counters_per_region_map) {
    metric_table metrics;
    for (const std::string& metric : roofline_metric_names) {
      metrics.insert(metric, roofline_metric(metric, counters));
    }
    regions.push_back({region, std::move(metrics)});
  }
  return regions;
}

}  // namespace ceilmeter
