// The table of the machine's roofs: thirteen, in order, with the names, units and kinds that stand in the result file.
#include "benchmarks/roof_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ceilmeter {
namespace {

std::vector<std::string> describe(const std::vector<roof_maker>& makers) {
  std::vector<std::string> rows;
  for (const roof_maker& make : makers) {
    const std::unique_ptr<benchmark_std> roof = make(1);
    rows.push_back(roof->name + ", " + roof->unit() + (roof->is_compute() ? ", compute" : ", memory"));
  }
  return rows;
}

TEST(machine_roofs, that_are_measured_once_are_eight_compute_roofs_and_the_two_inner_caches) {
  EXPECT_THAT(describe(machine_roofs().measured_once),
              testing::ElementsAre("f16x8-FADD/FSUB, GFLOPS, compute", "f32x4-FADD/FSUB, GFLOPS, compute",
                                   "f64x2-FADD/FSUB, GFLOPS, compute", "f32x4-FMLA/FMLS, GFLOPS, compute",
                                   "f64x2-FMLA/FMLS, GFLOPS, compute", "f16x8-FMLA/FMLS, GFLOPS, compute",
                                   "Scalar(SP)-FMADD, GFLOPS, compute", "Scalar(DP)-FMADD, GFLOPS, compute",
                                   "L1, GB/s, memory", "L2, GB/s, memory"));
}

TEST(machine_roofs, that_are_measured_for_each_count_are_l3_and_memory_with_and_without_local_pages) {
  EXPECT_THAT(describe(machine_roofs().measured_each_count),
              testing::ElementsAre("L3, GB/s, memory", "DDR, GB/s, memory", "DDR Numa-local, GB/s, memory"));
}

}  // namespace
}  // namespace ceilmeter
