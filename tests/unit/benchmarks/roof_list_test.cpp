// The table of the machine's roofs: thirteen, in order, with the names, units and kinds that stand in the result file,
// and each with its own kernel or size.
#include "benchmarks/roof_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "benchmarks/cachebw.h"
#include "benchmarks/flops.h"
#include "benchmarks/kernels/kernels.h"
#include "common/log.h"

namespace ceilmeter {
namespace {

using testing::ElementsAre;

// Makes the fields of a roof accessible that other code has made.
struct open_frame : benchmark_std {
  static std::uint64_t iterations_of(benchmark_std& roof) { return roof.*(&open_frame::iterations); }
  static double duration_of(benchmark_std& roof) { return roof.*(&open_frame::duration); }
  static std::uint32_t threads_of(benchmark_std& roof) { return roof.*(&open_frame::num_threads); }
};

struct open_flops : flops {
  static std::uint64_t kernel_of(benchmark_std& roof) { return dynamic_cast<flops&>(roof).*(&open_flops::kernel); }
  static std::uint64_t work_of(benchmark_std& roof) {
    return dynamic_cast<flops&>(roof).*(&open_flops::flops_per_iteration);
  }
};

struct open_cachebw : cachebw {
  static load_kernel kernel_of(benchmark_std& roof) { return dynamic_cast<cachebw&>(roof).*(&open_cachebw::kernel); }
  static std::uint64_t work_of(benchmark_std& roof) {
    return dynamic_cast<cachebw&>(roof).*(&open_cachebw::bytes_per_iteration);
  }
  static std::uint64_t elements_of(benchmark_std& roof) {
    return dynamic_cast<cachebw&>(roof).*(&open_cachebw::elements);
  }
};

using made_roofs = std::vector<std::unique_ptr<benchmark_std>>;

made_roofs make_all(const std::vector<roof_maker>& makers, std::uint32_t num_threads = 1) {
  made_roofs roofs;
  for (const roof_maker& make : makers) roofs.push_back(make(num_threads));
  return roofs;
}

std::vector<std::string> describe(const std::vector<roof_maker>& makers) {
  std::vector<std::string> rows;
  for (const auto& roof : make_all(makers)) {
    rows.push_back(roof->name + ", " + roof->unit() + (roof->is_compute() ? ", compute" : ", memory"));
  }
  return rows;
}

TEST(machine_roofs, that_are_measured_once_are_eight_compute_roofs_and_the_two_inner_caches) {
  EXPECT_THAT(describe(machine_roofs().measured_once),
              ElementsAre("f16x8-FADD/FSUB, GFLOPS, compute", "f32x4-FADD/FSUB, GFLOPS, compute",
                          "f64x2-FADD/FSUB, GFLOPS, compute", "f32x4-FMLA/FMLS, GFLOPS, compute",
                          "f64x2-FMLA/FMLS, GFLOPS, compute", "f16x8-FMLA/FMLS, GFLOPS, compute",
                          "Scalar(SP)-FMADD, GFLOPS, compute", "Scalar(DP)-FMADD, GFLOPS, compute", "L1, GB/s, memory",
                          "L2, GB/s, memory"));
}

TEST(machine_roofs, that_are_measured_for_each_count_are_l3_and_memory_with_and_without_local_pages) {
  EXPECT_THAT(describe(machine_roofs().measured_each_count),
              ElementsAre("L3, GB/s, memory", "DDR, GB/s, memory", "DDR Numa-local, GB/s, memory"));
}

TEST(machine_roofs, of_arithmetic_have_each_its_own_kernel_and_its_operations_per_pass) {
  const made_roofs roofs = make_all(full_roofs(true).measured_once);
  std::vector<const std::uint64_t*> kernels;
  std::vector<std::uint64_t> operations;
  for (std::size_t row = 0; row < 8; ++row) {
    kernels.push_back(reinterpret_cast<const std::uint64_t*>(open_flops::kernel_of(*roofs[row])));
    operations.push_back(open_flops::work_of(*roofs[row]));
  }
  EXPECT_THAT(kernels, ElementsAre(&flops_f16x8_fadd, &flops_f32x4_fadd, &flops_f64x2_fadd, &flops_f32x4_fmla,
                                   &flops_f64x2_fmla, &flops_f16x8_fmla, &flops_sp_fmadd, &flops_dp_fmadd));
  EXPECT_THAT(operations, ElementsAre(256u, 128u, 64u, 256u, 256u, 512u, 64u, 64u));
}

TEST(machine_roofs, of_arithmetic_make_a_million_passes_a_call) {
  const made_roofs roofs = make_all(machine_roofs().measured_once);
  for (std::size_t row = 0; row < 8; ++row) EXPECT_EQ(open_frame::iterations_of(*roofs[row]), 1'000'000u) << row;
}

TEST(machine_roofs, of_memory_use_the_pair_loads_on_four_sizes) {
  std::vector<std::uint64_t> sizes;
  const roof_list list = machine_roofs();
  const made_roofs inner = make_all({list.measured_once[8], list.measured_once[9]});
  const made_roofs outer = make_all(list.measured_each_count);
  for (const made_roofs* roofs : {&inner, &outer}) {
    for (const auto& roof : *roofs) {
      sizes.push_back(open_cachebw::elements_of(*roof));
      EXPECT_EQ(open_cachebw::kernel_of(*roof), load_kernel{call_load_kernel<cachebw_ldp_256>}) << roof->name;
      EXPECT_EQ(open_cachebw::work_of(*roof), 256u) << roof->name;
    }
  }
  EXPECT_THAT(sizes, ElementsAre(1024u, 20480u, 193536u, 1048576u, 1048576u));
}

TEST(machine_roofs, ask_for_local_memory_in_the_last_row_alone) {
  const int level = mora_log_get_level();
  mora_log_set_level(LEVEL_DEBUG);
  testing::internal::CaptureStderr();
  const roof_list list = machine_roofs();
  make_all(list.measured_once);
  make_all(list.measured_each_count);
  const std::string lines = testing::internal::GetCapturedStderr();
  mora_log_set_level(level);
  const std::string words = "useLocalNuma is ";
  std::string asked;
  for (std::size_t at = lines.find(words); at != std::string::npos; at = lines.find(words, at + 1)) {
    asked += lines[at + words.size()];
  }
  EXPECT_EQ(asked, "00001");
}

TEST(machine_roofs, run_for_one_second_with_the_threads_asked_for) {
  const roof_list list = machine_roofs();
  for (const auto* makers : {&list.measured_once, &list.measured_each_count}) {
    for (const auto& roof : make_all(*makers, 3)) {
      EXPECT_EQ(open_frame::duration_of(*roof), 1.0) << roof->name;
      EXPECT_EQ(open_frame::threads_of(*roof), 3u) << roof->name;
    }
  }
}

TEST(machine_roofs, without_half_precision_are_the_same_rows_and_warn_once) {
  testing::internal::CaptureStderr();
  const roof_list list = full_roofs(false);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  const std::vector<std::string> rows = describe(list.measured_once);
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_EQ(rows, describe(full_roofs(true).measured_once));
  EXPECT_THAT(line,
              testing::EndsWith(" MORA warn this processor has no half-precision arithmetic: its two roofs are 0\n"));
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
}

TEST(machine_roofs, of_half_precision_are_0_and_run_no_kernel_where_there_is_none) {
  const made_roofs roofs = make_all(full_roofs(false).measured_once);
  for (const std::size_t row : {0U, 5U}) {
    EXPECT_EQ(open_flops::kernel_of(*roofs[row]), 0U);  // A call would end the test.
    (*roofs[row])();
    EXPECT_EQ(roofs[row]->result(), 0U);
  }
  EXPECT_EQ(open_flops::kernel_of(*roofs[1]), reinterpret_cast<std::uint64_t>(&flops_f32x4_fadd));
}

}  // namespace
}  // namespace ceilmeter
