// Which kernel measures which roof, and on how much memory. The sizes are constants: what a machine's caches hold is
// not asked, and on a machine with other caches a row measures another level than its name says.
#include "benchmarks/roof_list.h"

#include "benchmarks/cachebw.h"
#include "benchmarks/flops.h"
#include "benchmarks/kernels/kernels.h"

namespace ceilmeter {

namespace {

constexpr double seconds_per_roof = 1.0;
constexpr std::uint64_t flops_passes_per_call = 1'000'000;

// 32-bit elements per thread: 4 KiB, 80 KiB, 756 KiB, 4 MiB. All are multiples of the 256 bytes of a pass.
constexpr std::uint64_t l1_elements = 1024;
constexpr std::uint64_t l2_elements = 20480;
constexpr std::uint64_t l3_elements = 193536;
constexpr std::uint64_t ddr_elements = 1048576;

roof_maker compute_roof(const char* name, const std::uint64_t& address_word, const std::uint64_t& flops_per_iteration) {
  return [name, kernel = address_word, operations = flops_per_iteration](std::uint32_t num_threads) {
    return std::make_unique<flops>(name, num_threads, flops_passes_per_call, seconds_per_roof, operations, kernel);
  };
}

roof_maker memory_roof(const char* name, std::uint64_t elements, bool useLocalNuma) {
  return [=](std::uint32_t num_threads) {
    return std::make_unique<cachebw>(name, num_threads, call_load_kernel<cachebw_ldp_256>,
                                     cachebw_ldp_256_bytes_per_iteration, elements, useLocalNuma, seconds_per_roof);
  };
}

}  // namespace

roof_list machine_roofs() {
  return {
      .measured_once =
          {
              compute_roof("f16x8-FADD/FSUB", flops_f16x8_fadd, flops_f16x8_fadd_flops_per_iteration),
              compute_roof("f32x4-FADD/FSUB", flops_f32x4_fadd, flops_f32x4_fadd_flops_per_iteration),
              compute_roof("f64x2-FADD/FSUB", flops_f64x2_fadd, flops_f64x2_fadd_flops_per_iteration),
              compute_roof("f32x4-FMLA/FMLS", flops_f32x4_fmla, flops_f32x4_fmla_flops_per_iteration),
              compute_roof("f64x2-FMLA/FMLS", flops_f64x2_fmla, flops_f64x2_fmla_flops_per_iteration),
              compute_roof("f16x8-FMLA/FMLS", flops_f16x8_fmla, flops_f16x8_fmla_flops_per_iteration),
              compute_roof("Scalar(SP)-FMADD", flops_sp_fmadd, flops_sp_fmadd_flops_per_iteration),
              compute_roof("Scalar(DP)-FMADD", flops_dp_fmadd, flops_dp_fmadd_flops_per_iteration),
              memory_roof("L1", l1_elements, false),
              memory_roof("L2", l2_elements, false),
          },
      .measured_each_count =
          {
              memory_roof("L3", l3_elements, false),
              memory_roof("DDR", ddr_elements, false),
              memory_roof("DDR Numa-local", ddr_elements, true),
          },
  };
}

}  // namespace ceilmeter
