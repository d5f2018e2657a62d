// The metrics' arithmetic: a walk over the table of events.
#include "perfmon/roofline_metrics.h"

#include <algorithm>

namespace ceilmeter {

namespace {

constexpr bool by_rising_code(const roofline_event_row& left, const roofline_event_row& right) {
  return left.code < right.code;
}
static_assert(std::is_sorted(roofline_event_codes.begin(), roofline_event_codes.end(), by_rising_code));
static_assert(std::is_sorted(roofline_extra_event_codes.begin(), roofline_extra_event_codes.end(), by_rising_code));

std::uint64_t counter_value(const counter_table& counters, std::string_view name) {
  const std::uint64_t* value = counters.find(name);
  return value == nullptr ? 0 : *value;
}

}  // namespace

std::uint64_t roofline_metric(const std::string& metric, const counter_table& counters) {
  if (metric == "time") return counter_value(counters, DURATION_TIME);
  std::uint64_t bytes = 0;
  for (const roofline_event_row& row : roofline_event_codes) {
    if (row.metric == metric) bytes += counter_value(counters, row.name) * row.bytes_per_count;
  }
  return bytes;
}

}  // namespace ceilmeter
