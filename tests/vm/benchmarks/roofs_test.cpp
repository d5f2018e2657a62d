// The whole phase with the machine's own kernels on four processors. An emulator's roofs say nothing of a machine, but
// names, order, units and scaling are the same everywhere.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/cachebw.h"
#include "benchmarks/flops.h"
#include "benchmarks/kernels/kernels.h"
#include "benchmarks/roof_list.h"
#include "run_benchmarks.h"

namespace ceilmeter {
namespace {

struct timed_report {
  benchmark_report report;
  double seconds;
};

timed_report run(std::set<std::uint64_t> counts, const roof_list& roofs) {
  const auto start = std::chrono::steady_clock::now();
  benchmark_report report = run_benchmarks(counts, roofs, std::thread::hardware_concurrency());
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%zu thread counts, %.3f s\n", counts.size(), elapsed.count());
  return {std::move(report), elapsed.count()};
}

std::vector<std::string> rows_of(const benchmark_report& report, std::uint64_t count) {
  std::vector<std::string> rows;
  if (const std::vector<benchmark_result>* results = report.find(count)) {
    for (const benchmark_result& row : *results) {
      rows.push_back(row.name + ", " + row.measure + (row.is_compute ? ", compute" : ", memory"));
    }
  }
  return rows;
}

const std::vector<std::string> thirteen_rows = {"f16x8-FADD/FSUB, GFLOPS, compute",
                                                "f32x4-FADD/FSUB, GFLOPS, compute",
                                                "f64x2-FADD/FSUB, GFLOPS, compute",
                                                "f32x4-FMLA/FMLS, GFLOPS, compute",
                                                "f64x2-FMLA/FMLS, GFLOPS, compute",
                                                "f16x8-FMLA/FMLS, GFLOPS, compute",
                                                "Scalar(SP)-FMADD, GFLOPS, compute",
                                                "Scalar(DP)-FMADD, GFLOPS, compute",
                                                "L1, GB/s, memory",
                                                "L2, GB/s, memory",
                                                "L3, GB/s, memory",
                                                "DDR, GB/s, memory",
                                                "DDR Numa-local, GB/s, memory"};

TEST(roofs, of_the_machine_are_thirteen_for_each_count_and_scale_from_2_to_4_of_8_threads) {
  ASSERT_EQ(std::thread::hardware_concurrency(), 4u);
  const timed_report timed = run({2, 8}, machine_roofs());
  for (const auto& [count, results] : timed.report) {
    for (const benchmark_result& row : results) {
      std::printf("%4lu threads  %-18s %8ld %s\n", count, row.name.c_str(), row.value, row.measure.c_str());
    }
  }
  EXPECT_EQ(timed.report.size(), 2u);
  EXPECT_EQ(rows_of(timed.report, 2), thirteen_rows);
  EXPECT_EQ(rows_of(timed.report, 8), thirteen_rows);
  ASSERT_FALSE(HasFailure());
  for (std::size_t row = 0; row < 10; ++row) {
    EXPECT_EQ((*timed.report.find(8))[row].value, 2 * (*timed.report.find(2))[row].value) << thirteen_rows[row];
  }
}

TEST(roofs, of_a_set_with_0_and_4_are_those_of_4) {
  std::set<std::uint64_t> counts = {0, 4};
  const benchmark_report report = run_benchmarks(counts);
  EXPECT_THAT(counts, testing::ElementsAre(4u));
  EXPECT_EQ(report.size(), 1u);
  EXPECT_EQ(rows_of(report, 4), thirteen_rows);
}

TEST(roofs, of_a_set_of_0_alone_are_none_and_nothing_is_printed) {
  std::set<std::uint64_t> counts = {0};
  testing::internal::CaptureStdout();
  EXPECT_TRUE(run_benchmarks(counts).empty());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// The machine's list, but with kernel calls of a few microseconds to milliseconds, as on hardware. Otherwise the phase
// would end with a call that takes an emulator seconds.
template <const load_kernel_text& text>
void short_load(float* data, std::int32_t, std::uint64_t elements) {
  call_load_kernel<text>(data, 1000, elements);
}

roof_maker short_compute(const std::uint64_t& kernel, const std::uint64_t& operations) {
  return [&](std::uint32_t num_threads) {
    return std::make_unique<flops>("compute", num_threads, 1000, 1.0, operations, kernel);
  };
}

roof_maker short_memory(std::uint64_t elements, bool local) {
  return [=](std::uint32_t num_threads) {
    return std::make_unique<cachebw>("memory", num_threads, short_load<cachebw_ldp_256>,
                                     cachebw_ldp_256_bytes_per_iteration, elements, local, 1.0);
  };
}

TEST(duration, is_ten_seconds_and_three_for_each_count_and_at_most_a_twentieth_more) {
  const roof_list list = {{short_compute(flops_f16x8_fadd, flops_f16x8_fadd_flops_per_iteration),
                           short_compute(flops_f32x4_fadd, flops_f32x4_fadd_flops_per_iteration),
                           short_compute(flops_f64x2_fadd, flops_f64x2_fadd_flops_per_iteration),
                           short_compute(flops_f32x4_fmla, flops_f32x4_fmla_flops_per_iteration),
                           short_compute(flops_f64x2_fmla, flops_f64x2_fmla_flops_per_iteration),
                           short_compute(flops_f16x8_fmla, flops_f16x8_fmla_flops_per_iteration),
                           short_compute(flops_sp_fmadd, flops_sp_fmadd_flops_per_iteration),
                           short_compute(flops_dp_fmadd, flops_dp_fmadd_flops_per_iteration), short_memory(1024, false),
                           short_memory(20480, false)},
                          {short_memory(193536, false), short_memory(1048576, false), short_memory(1048576, true)}};
  const timed_report timed = run({1, 2}, list);
  EXPECT_GE(timed.seconds, 16.0);
  EXPECT_LE(timed.seconds, 16.0 * 1.05);
}

}  // namespace
}  // namespace ceilmeter
