// The join of a collection: basic blocks from the tracer and counters from perfmon meet here, region by region, by
// region name, on top of what an earlier run left in the file. Nothing is computed here, and it is the same join
// for the tool's finishing step and for the region interface inside the application's process.
#pragma once

#include <vector>

#include "report.h"

namespace ceilmeter {

// Folds the phases' results into `report`. The other three are consumed: sorted in place and their contents moved out.
//
// New roofs replace the old ones as a whole. Once a phase has brought regions, the report has exactly these regions,
// by ascending name, each keeping of the region of that name in the old report only what no phase has brought anew:
// so a user can run the phases one by one against one file, in any order. Without new regions the old ones stay.
void finalize(collector_report& report, bintracer_report& tracer_report, std::vector<perfmon_region>& perfmon_regions,
              benchmark_report& benchmarks);

}  // namespace ceilmeter
