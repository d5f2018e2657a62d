// A large report whose numbers have the lengths of real ones. The same arguments give the same report.
#pragma once

#include <cstdint>
#include <vector>

#include "report.h"

namespace ceilmeter::bench {

// `blocks` blocks, spread evenly over `regions` regions, and 13 roofs for each of the first `thread_counts` counts.
collector_report made_up_report(std::uint64_t blocks, std::uint64_t regions, std::uint64_t thread_counts);

// What a later run with the hardware counters alone would add for these regions.
std::vector<perfmon_region> made_up_counters(std::uint64_t regions);

}  // namespace ceilmeter::bench
