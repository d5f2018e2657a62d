// The driver of the roof benchmarks: which of them are measured once and scaled to every thread count, and which are
// measured anew for each. The rule that a newcomer must know: the thread count that keys the report is the one the
// roofs are meant for; the compute, L1 and L2 roofs ran with the smallest count of the set.
#pragma once

#include <cstdint>
#include <set>

#include "report.h"

namespace ceilmeter {

struct roof_list;

// Measures the thirteen roofs of this machine for every thread count of `num_threads_set`; takes ten seconds and three
// more for each count. Removes a 0 from the set; with nothing left it warns and returns an empty report. The limit of
// 4096 threads holds for the roofs that are measured once, not for those that are measured for each count. Prints one
// line on standard output. Call from one thread, with nothing else running on the machine: the roofs are what is left.
// Reports no failure: a roof that could not be measured reads 0. Throws what std::thread throws.
benchmark_report run_benchmarks(std::set<std::uint64_t>& num_threads_set);

// The same over any list of benchmarks, on a machine said to have `hardware_concurrency` processors, 0 if unknown. A
// seam: the rules of the driver can be observed without a clock, a kernel or a machine of the right size.
benchmark_report run_benchmarks(std::set<std::uint64_t>& num_threads_set, const roof_list& roofs,
                                std::uint32_t hardware_concurrency);

}  // namespace ceilmeter
