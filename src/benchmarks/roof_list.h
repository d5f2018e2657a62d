// The table of the roofs, in the order in which they are measured and reported. The driver sees a list of makers, so
// that it can be given another list.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "benchmarks/benchmark_std.h"

namespace ceilmeter {

// Makes one benchmark for that many threads.
using roof_maker = std::function<std::unique_ptr<benchmark_std>(std::uint32_t num_threads)>;

struct roof_list {
  std::vector<roof_maker> measured_once;        // With the smallest thread count, then scaled to each count.
  std::vector<roof_maker> measured_each_count;  // With each thread count.
};

// The thirteen roofs of the machine: eight floating-point throughputs, then L1 and L2, all measured once, then L3, DDR
// and DDR on the local NUMA node. Each runs for one second. The two of half precision are 0, after one warning, where
// the processor has no such arithmetic.
roof_list full_roofs();
roof_list full_roofs(bool has_half_precision);

// Those that a run measures: full_roofs().
roof_list machine_roofs();

}  // namespace ceilmeter
