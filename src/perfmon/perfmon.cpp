// Groups of kernel counters per region and thread, and what becomes of their values. The arithmetic stands in free
// functions, apart from the system calls.
#include "perfmon/perfmon.h"

#include <linux/perf_event.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>

#include "common/log.h"
#include "perfmon/descriptor_room.h"
#include "perfmon/perfmon_utils.h"
#include "perfmon/silent_events.h"
#include "shared_names.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/perfmon/perfmon"};

perfmon_event_map roofline_events(bool with_extra_events) {
  perfmon_event_map events;
  std::vector<perfmon_event>& raw_events = events[PERF_TYPE_RAW];
  const auto append = [&raw_events](std::span<const roofline_event_row> codes) {
    for (const roofline_event_row& row : codes) {
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

bool is_extra_event(const std::string& name) {
  return std::any_of(roofline_extra_event_codes.begin(), roofline_extra_event_codes.end(),
                     [&name](const roofline_event_row& row) { return name == row.name; });
}

// Closes the group's extra events, the only ones that no metric uses. Returns their names, joined by commas.
std::string close_extra_events(thread_counters& counters) {
  std::string names;
  for (const roofline_event_row& row : roofline_extra_event_codes) {
    for (auto entry = counters.events.begin(); entry != counters.events.end(); ++entry) {
      if (entry->second.name != row.name || entry->second.fd == counters.group_fd) continue;
      close(entry->second.fd);
      counters.events.erase(entry);
      names += names.empty() ? row.name : std::string(", ") + row.name;
      break;
    }
  }
  return names;
}

std::string width_text(int width) { return width == 0 ? std::string() : " of " + std::to_string(width) + " counters"; }

}  // namespace

bool extend_time_interval(time_interval& running, const time_interval& next) {
  if (next.first > running.second) return false;
  running.second = std::max(running.second, next.second);
  return true;
}

perfmon::perfmon(bool inherit) : perfmon(inherit, roofline_events(mora_log_get_level() > LEVEL_WARN)) {}

perfmon::perfmon(bool inherit, perfmon_event_map events)
    : m_counter_units(counter_unit_folder), m_inherit(inherit), m_events(std::move(events)) {}

void perfmon::start_roofline_events(const std::string& region) {
  log(LEVEL_DEBUG, "start_roofline_events: region is %s", region.c_str());
  thread_counters* counters = find_counters(region);
  const bool is_new = counters == nullptr || counters->group_fd < 0;
  if (is_new) {
    counters = &open_roofline_events(region);
    if (counters->group_fd == -1) {
      // Warn once, because an application may start a region a million times. The number of starts is told at the end.
      if (++counters->uncounted_starts == 1) {
        log(LEVEL_WARN, "failed to perfmon::open_roofline_events for %s region", region.c_str());
      }
      return;
    }
  }

  // Take the stamp before the counters start; the one of the stop is taken after they stop. So the interval holds all
  // that is counted.
  const std::int64_t now = monotonic_nanoseconds();
  counters->time_intervals.emplace_back(now, now);
  if (counters->group_fd < 0) {
    log(LEVEL_WARN, "couldn't start_roofline_events for %s region because group_fd was not set", region.c_str());
    return;
  }
  // A group that cannot run stays disabled: enabled, it would keep the thread from forking.
  if (m_no_group_runs.load(std::memory_order_relaxed)) return;
  ioctl(counters->group_fd, PERF_EVENT_IOC_ENABLE, PERF_IOC_FLAG_GROUP);
  if (is_new) make_group_run(*counters);
}

void perfmon::make_group_run(thread_counters& counters) {
  if (wait_for_group(counters.group_fd).runs) return;

  ioctl(counters.group_fd, PERF_EVENT_IOC_DISABLE, PERF_IOC_FLAG_GROUP);
  const int width = perfmon_utils_counter_width();
  const std::size_t opened = counters.events.size();
  const std::string closed = close_extra_events(counters);
  // The wait is no part of the region.
  const std::int64_t now = monotonic_nanoseconds();
  counters.time_intervals.back() = {now, now};
  ioctl(counters.group_fd, PERF_EVENT_IOC_ENABLE, PERF_IOC_FLAG_GROUP);
  if (!closed.empty()) {
    if (!m_extra_events_refused.exchange(true)) {
      log(LEVEL_WARN, "%lu events do not run together on this counter unit%s: %s are closed again and not counted",
          opened, width_text(width).c_str(), closed.c_str());
    }
    const group_start second = wait_for_group(counters.group_fd);
    counters.waited = second.waited;
    if (second.runs) return;
  }

  const std::size_t left = counters.events.size();
  if (width != 0 && static_cast<std::size_t>(width) >= left) {
    // There are enough counters: somebody else has them, and may give them back.
    log(LEVEL_WARN,
        "the %lu roofline events do not run: another user of the counter unit%s, such as a profiler, holds "
        "counters",
        left, width_text(width).c_str());
    return;
  }
  ioctl(counters.group_fd, PERF_EVENT_IOC_DISABLE, PERF_IOC_FLAG_GROUP);
  if (m_no_group_runs.exchange(true)) return;
  log(LEVEL_WARN,
      "the %lu roofline events cannot run on this counter unit%s: all bytes will be 0, the time is measured", left,
      width_text(width).c_str());
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
    if (counters->told_of_stop) return;
    counters->told_of_stop = true;
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
  // No lock from here on: the kernel needs a while to open a group, and other threads must not wait for it.
  open_events_of_type(PERF_TYPE_RAW, counters);
  return counters;
}

void perfmon::open_events_of_type(std::uint32_t type, thread_counters& counters) {
  constexpr std::int32_t calling_thread = 0;
  constexpr std::int32_t any_cpu = -1;

  const auto events = m_events.find(type);
  if (events == m_events.end()) return;
  if (m_descriptors_apart) reserve_descriptor_room(static_cast<int>(events->second.size()));
  const bool without_extra = m_extra_events_refused.load(std::memory_order_relaxed);
  for (const perfmon_event& event : events->second) {
    if (without_extra && is_extra_event(event.name)) continue;
    const perfmon_event_desc desc{.type = type, .config = event.config, .inherit = m_inherit};
    std::int32_t fd = perfmon_utils_event_open_core(&desc, calling_thread, any_cpu, counters.group_fd,
                                                    PERF_FLAG_FD_CLOEXEC, counters.uncounted_starts != 0);
    if (fd == -1) continue;
    if (m_descriptors_apart) fd = move_to_descriptor_room(fd);
    if (counters.group_fd == -1) counters.group_fd = fd;

    std::uint64_t id = 0;
    ioctl(fd, PERF_EVENT_IOC_ID, &id);
    // A second counter under the same id is dropped, and its descriptor stays open: at the reading it could not be told
    // from the first one.
    counters.events.try_emplace(id, group_event{fd, event.name});
  }
}

group_times perfmon::read_counters_from_group(const thread_counters& counters, counter_table& totals) {
  if (counters.group_fd < 0) return {};

  std::array<std::uint64_t, group_reading_bytes / sizeof(std::uint64_t)> buffer;
  errno = 0;  // A read that delivers nothing sets no error; an old one would be misleading below.
  const ssize_t bytes = read(counters.group_fd, buffer.data(), sizeof buffer);
  if (bytes < 1) {
    log(LEVEL_WARN, "failed to read counter_values for core events with %s", std::strerror(errno));
    return {};
  }

  const group_reading reading =
      decode_group_reading(std::span(buffer).first(static_cast<std::size_t>(bytes) / sizeof(std::uint64_t)));
  // Do not scale by the time ratio: it would make an estimate of a count. The warning tells the user to count less at a
  // time.
  const group_times times{reading.time_enabled - counters.waited, reading.time_running};
  if (times.enabled != times.running) log(LEVEL_WARN, "core counters have multiplexing!");
  for (std::size_t i = 0; i + 1 < reading.pairs.size(); i += 2) {
    const auto event = counters.events.find(reading.pairs[i + 1]);
    if (event == counters.events.end()) continue;
    totals.find_or_insert(event->second.name) += reading.pairs[i];
  }
  return times;
}

void perfmon::finalize_per_thread_map() {
  log(LEVEL_DEBUG, "finalize_per_thread_map: m_counters_per_thread_map has %lu entries",
      m_counters_per_thread_map.size());
  std::map<std::string, std::uint64_t> uncounted_starts;
  for (auto& [key, counters] : m_counters_per_thread_map) {
    // The first one of each thread has its own lines.
    if (counters.uncounted_starts > 1) uncounted_starts[key.region] += counters.uncounted_starts;
    if (counters.group_fd >= 0) {
      const group_times times = read_counters_from_group(counters, m_counters_per_region_map[key.region]);
      m_times_per_region[key.region].enabled += times.enabled;
      m_times_per_region[key.region].running += times.running;
      close(counters.group_fd);
      counters.group_fd = -1;
      // The leader is among the events, so its number is closed a second time. This fails unnoticed, unless another
      // thread was given the number in between. In total mode the tool has no other thread. In region mode nothing
      // counts any more, but an application thread that opens a file at this very moment could lose it.
      for (auto& [id, event] : counters.events) {
        close(event.fd);
        event.fd = -1;
      }
    }
    time_interval_map& intervals = m_time_intervals_map[key.region];
    for (const auto& [begin, end] : counters.time_intervals) intervals.emplace(begin, end);
  }
  for (const auto& [region, starts] : uncounted_starts) {
    log(LEVEL_WARN, "%lu starts of %s region had no counters", starts, region.c_str());
  }
  if (!m_no_group_runs) tell_of_missing_time();
}

void perfmon::tell_of_missing_time() const {
  for (const auto& [region, times] : m_times_per_region) {
    if (times.enabled == times.running) continue;
    const double share = 100.0 * static_cast<double>(times.running) / static_cast<double>(times.enabled);
    if (share < 0.05) {
      log(LEVEL_WARN, "the counters of %s region never ran (0 %% of its time): its bytes are 0", region.c_str());
      continue;
    }
    log(LEVEL_WARN, "the counters of %s region ran for %.1f %% of its time: its bytes are too low", region.c_str(),
        share);
  }
}

void perfmon::tell_of_silent_metrics() const {
  const bool counted = std::any_of(m_times_per_region.begin(), m_times_per_region.end(),
                                   [](const auto& entry) { return entry.second.running != 0; });
  if (!counted) return;
  counter_table totals;
  for (const auto& [region, counters] : m_counters_per_region_map) {
    for (const auto& [name, value] : counters) totals.find_or_insert(name) += value;
  }
  for (const std::string& warning : describe_silent_metrics(totals, read_listed_events(m_counter_units))) {
    log(LEVEL_WARN, "%s", warning.c_str());
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

    // Add the union of the intervals, not their sum: the time in which at least one thread was in the region.
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
  tell_of_silent_metrics();
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
