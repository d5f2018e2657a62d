// The file's identity, size and times, before and after.
#include "perfmon/stale_counters.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <optional>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/perfmon/stale_counters"};

std::optional<struct stat> noted;

bool is_same_time(const timespec& left, const timespec& right) {
  return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool is_unchanged(const struct stat& before, const struct stat& now) {
  return before.st_dev == now.st_dev && before.st_ino == now.st_ino && before.st_size == now.st_size &&
         is_same_time(before.st_mtim, now.st_mtim) && is_same_time(before.st_ctim, now.st_ctim);
}

bool has_counters(const region_metric& region) {
  return std::any_of(region.metrics.begin(), region.metrics.end(), [](const auto& entry) { return entry.value != 0; });
}

}  // namespace

void note_result_before_run(const std::string& path) {
  noted.reset();
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return;
  noted = status;
  // The kernel stamps files by a clock that moves every few milliseconds: a second write within one step would show the
  // time of the first.
  constexpr int longest_step_milliseconds = 20;
  for (int waited = 0; waited < longest_step_milliseconds; ++waited) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (!is_same_time(now, status.st_mtim)) return;
    const timespec millisecond{0, 1'000'000};
    nanosleep(&millisecond, nullptr);
  }
}

void warn_of_stale_counters(const std::string& path, const collector_report& report) {
  if (!noted) return;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !is_unchanged(*noted, status)) return;
  if (!std::any_of(report.regions.begin(), report.regions.end(), has_counters)) return;
  log(LEVEL_WARN,
      "the application has written no counters: bytes and time of the regions in %s are those of an earlier run",
      path.c_str());
}

}  // namespace ceilmeter
