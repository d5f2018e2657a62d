// A walk over the two name-sorted lists of new regions, as in the union of two sorted sets. The big tables are moved;
// copies are made only of what the old report lends to a new region.
#include "finalizer.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/finalizer"};

// std::string compares as the file's order wants it: bytes, unsigned, and of two texts with one beginning the shorter
// first. No locale and no case folding: names that differ in case are two regions.
constexpr auto by_name = [](const auto& left, const auto& right) { return left.name < right.name; };

// The old report's regions by name. They stay where they are, in the report, until the new list replaces them.
class old_regions {
 public:
  explicit old_regions(const std::vector<region_metric>& regions) {
    sorted_.reserve(regions.size());
    for (const region_metric& region : regions) sorted_.push_back(&region);
    std::stable_sort(sorted_.begin(), sorted_.end(),
                     [](const region_metric* left, const region_metric* right) { return by_name(*left, *right); });
  }

  // Null if there was no such region.
  const region_metric* find(const std::string& name) const {
    const auto place =
        std::lower_bound(sorted_.begin(), sorted_.end(), name,
                         [](const region_metric* region, const std::string& wanted) { return region->name < wanted; });
    return place != sorted_.end() && (*place)->name == name ? *place : nullptr;
  }

 private:
  std::vector<const region_metric*> sorted_;
};

region_metric from_both(bintracer_region& traced, perfmon_region& counted) {
  region_metric region;
  region.name = std::move(traced.name);
  region.bbs = std::move(traced.bbs);
  region.metrics = std::move(counted.metrics);
  region.flop = traced.flop;
  region.threads = traced.threads;
  return region;
}

region_metric from_tracer(bintracer_region& traced, const region_metric* old) {
  region_metric region;
  region.name = std::move(traced.name);
  region.bbs = std::move(traced.bbs);
  region.flop = traced.flop;
  region.threads = traced.threads;
  if (old != nullptr && !old->metrics.empty()) region.metrics = old->metrics;
  return region;
}

region_metric from_perfmon(perfmon_region& counted, const region_metric* old) {
  region_metric region;
  region.name = std::move(counted.name);
  region.metrics = std::move(counted.metrics);
  if (old != nullptr) {
    if (!old->bbs.empty()) region.bbs = old->bbs;
    region.flop = old->flop;
    region.threads = old->threads;
  }
  return region;
}

}  // namespace

void finalize(collector_report& report, bintracer_report& tracer_report, std::vector<perfmon_region>& perfmon_regions,
              benchmark_report& benchmarks) {
  if (!benchmarks.empty()) {
    log(LEVEL_DEBUG, "New benchmark result added with size = %lu", benchmarks.size());
    if (report.threads == 0) report.threads = benchmarks.begin()->key;
    report.benchmarks = std::move(benchmarks);
  }
  // After the roofs, so that the count that the tracer saw wins over the roofs' first one.
  if (tracer_report.max_thread_count != 0) {
    log(LEVEL_DEBUG, "New max_thread_num=%lu added", tracer_report.max_thread_count);
    report.threads = tracer_report.max_thread_count;
  }

  std::vector<bintracer_region>& traced = tracer_report.regions;
  const old_regions old(report.regions);
  std::vector<region_metric> merged;
  merged.reserve(traced.size() + perfmon_regions.size());
  std::stable_sort(traced.begin(), traced.end(), by_name);
  std::stable_sort(perfmon_regions.begin(), perfmon_regions.end(), by_name);

  std::size_t next_traced = 0;
  std::size_t next_counted = 0;
  while (next_traced < traced.size() || next_counted < perfmon_regions.size()) {
    // Below 0: the tracer's region comes first; above: perfmon's; an exhausted list comes last.
    int order = 0;
    if (next_counted == perfmon_regions.size()) {
      order = -1;
    } else if (next_traced == traced.size()) {
      order = 1;
    } else {
      order = traced[next_traced].name.compare(perfmon_regions[next_counted].name);
    }

    if (order == 0) {
      // Both sides are new: the old region has nothing to add.
      merged.push_back(from_both(traced[next_traced++], perfmon_regions[next_counted++]));
    } else if (order < 0) {
      const region_metric* earlier = old.find(traced[next_traced].name);
      merged.push_back(from_tracer(traced[next_traced++], earlier));
    } else {
      const region_metric* earlier = old.find(perfmon_regions[next_counted].name);
      merged.push_back(from_perfmon(perfmon_regions[next_counted++], earlier));
    }
  }

  if (merged.empty()) return;
  log(LEVEL_DEBUG, "New region metrics added with size = %lu", merged.size());
  report.regions = std::move(merged);
}

}  // namespace ceilmeter
