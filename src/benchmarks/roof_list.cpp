// Which kernel measures which roof, and on how much memory. The sizes are constants: this table does not ask what the
// machine's caches hold. On a machine with other caches a row measures another level than its name says.
#include "benchmarks/roof_list.h"

#include <asm/hwcap.h>
#include <sys/auxv.h>

#include "benchmarks/cachebw.h"
#include "benchmarks/flops.h"
#include "benchmarks/kernels/kernels.h"
#include "benchmarks/row_sizes.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr tool_log log{"src/benchmarks/roof_list"};

constexpr double seconds_per_roof = 1.0;
constexpr std::uint64_t flops_passes_per_call = 1'000'000;

constexpr std::uint64_t elements_of(std::uint64_t bytes) { return bytes / sizeof(float); }

// The row of a kernel whose instructions the processor does not have. It runs nothing, because executing one would end
// the process.
class unavailable_flops final : public flops {
 public:
  unavailable_flops(const char* row_name, std::uint32_t thread_count)
      : flops(row_name, thread_count, flops_passes_per_call, seconds_per_roof, 0, 0) {}
  void operator()() override {}
};

roof_maker compute_roof(const char* name, const std::uint64_t& address_word, const std::uint64_t& flops_per_iteration) {
  return [name, kernel = address_word, operations = flops_per_iteration](std::uint32_t num_threads) {
    return std::make_unique<flops>(name, num_threads, flops_passes_per_call, seconds_per_roof, operations, kernel);
  };
}

// `tells`: this one of the two rows says, when it is made, why they are 0.
roof_maker half_precision_roof(const char* name, const std::uint64_t& address_word,
                               const std::uint64_t& flops_per_iteration, bool is_available, bool tells) {
  if (is_available) return compute_roof(name, address_word, flops_per_iteration);
  return [name, tells](std::uint32_t num_threads) {
    if (tells) log(LEVEL_WARN, "this processor has no half-precision arithmetic: its two roofs are 0");
    return std::make_unique<unavailable_flops>(name, num_threads);
  };
}

roof_maker memory_roof(const char* name, std::uint64_t elements, bool useLocalNuma) {
  return [=](std::uint32_t num_threads) {
    return std::make_unique<cachebw>(name, num_threads, call_load_kernel<cachebw_ldp_256>,
                                     cachebw_ldp_256_bytes_per_iteration, elements, useLocalNuma, seconds_per_roof);
  };
}

}  // namespace

roof_list full_roofs() { return full_roofs((getauxval(AT_HWCAP) & HWCAP_ASIMDHP) != 0); }

roof_list full_roofs(bool has_half_precision) {
  return {
      .measured_once =
          {
              half_precision_roof("f16x8-FADD/FSUB", flops_f16x8_fadd, flops_f16x8_fadd_flops_per_iteration,
                                  has_half_precision, true),
              compute_roof("f32x4-FADD/FSUB", flops_f32x4_fadd, flops_f32x4_fadd_flops_per_iteration),
              compute_roof("f64x2-FADD/FSUB", flops_f64x2_fadd, flops_f64x2_fadd_flops_per_iteration),
              compute_roof("f32x4-FMLA/FMLS", flops_f32x4_fmla, flops_f32x4_fmla_flops_per_iteration),
              compute_roof("f64x2-FMLA/FMLS", flops_f64x2_fmla, flops_f64x2_fmla_flops_per_iteration),
              half_precision_roof("f16x8-FMLA/FMLS", flops_f16x8_fmla, flops_f16x8_fmla_flops_per_iteration,
                                  has_half_precision, false),
              compute_roof("Scalar(SP)-FMADD", flops_sp_fmadd, flops_sp_fmadd_flops_per_iteration),
              compute_roof("Scalar(DP)-FMADD", flops_dp_fmadd, flops_dp_fmadd_flops_per_iteration),
              memory_roof("L1", elements_of(l1_row_bytes), false),
              memory_roof("L2", elements_of(l2_row_bytes), false),
          },
      .measured_each_count =
          {
              memory_roof("L3", elements_of(l3_row_bytes), false),
              memory_roof("DDR", elements_of(ddr_row_bytes), false),
              memory_roof("DDR Numa-local", elements_of(ddr_row_bytes), true),
          },
  };
}

}  // namespace ceilmeter
