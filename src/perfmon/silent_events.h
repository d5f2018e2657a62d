// Finds events that opened and never counted. The kernel takes any raw code. A code that the processor does not have
// reads 0, which looks like an event that did not happen.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "perfmon/roofline_metrics.h"

namespace ceilmeter {

// Where the kernel describes its counter units.
inline constexpr char counter_unit_folder[] = "/sys/bus/event_source/devices";

// Names of the events that the kernel lists for the processor's counter units, as it writes them ("ll_cache"). Nothing
// if there is no such unit or it lists none: the lists then say nothing about any event.
std::optional<std::set<std::string>> read_listed_events(const std::string& folder);

// One warning for each metric that is 0 although its events were opened, in two cases: the L1 events show that there
// was work enough for more, or none of the metric's events is in the kernel's list. `totals` are the counters of all
// regions together. Events outside the range of codes that the kernel lists are judged by the counts alone.
std::vector<std::string> describe_silent_metrics(const counter_table& totals,
                                                 const std::optional<std::set<std::string>>& listed);

}  // namespace ceilmeter
