// The arithmetic kernels as machine code: entered through address word and trampoline, with one pass and with many, and
// compared register by register with the same arithmetic in C++.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "benchmarks/flops.h"
#include "benchmarks/kernels/kernels.h"
#include "register_probe.h"

extern "C" const char flops_kernel_trampoline[];

namespace ceilmeter {
namespace {

// Adds the effect of one pass to a register file.
using pass_model = void (*)(register_file& registers);

constexpr int fadd_accumulators[] = {2, 5, 17, 16, 24, 22, 23, 21, 3, 4, 7, 6, 20, 18, 19, 25};
constexpr int fmla_accumulators[] = {7, 16, 5, 4, 19, 21, 20, 22, 17, 18, 6, 3, 23, 24, 25, 26};

// The values of these tests are small whole numbers, on which no width of arithmetic rounds.
template <typename Lane>
void fadd_pass(register_file& registers) {
  for (const int addend : {1, 0}) {
    for (const int accumulator : fadd_accumulators) {
      for (int lane = 0; lane < static_cast<int>(16 / sizeof(Lane)); ++lane) {
        const Lane sum =
            static_cast<Lane>(get_lane<Lane>(registers, accumulator, lane) + get_lane<Lane>(registers, addend, lane));
        set_lane(registers, accumulator, lane, sum);
      }
    }
  }
}

template <typename Lane, int rounds>
void fmla_pass(register_file& registers) {
  for (int round = 0; round < rounds; ++round) {
    for (const int factor : {2, 1}) {
      for (const int accumulator : fmla_accumulators) {
        for (int lane = 0; lane < static_cast<int>(16 / sizeof(Lane)); ++lane) {
          const Lane product =
              static_cast<Lane>(get_lane<Lane>(registers, factor, lane) * get_lane<Lane>(registers, 0, lane));
          set_lane(registers, accumulator, lane,
                   static_cast<Lane>(get_lane<Lane>(registers, accumulator, lane) + product));
        }
      }
    }
  }
}

template <typename Lane>
void fmadd_pass(register_file& registers) {
  for (int n = 0; n < 32; ++n) {
    const Lane result = std::fma(get_lane<Lane>(registers, (n + 1) % 32, 0), get_lane<Lane>(registers, (n + 2) % 32, 0),
                                 get_lane<Lane>(registers, n, 0));
    registers.v[n][0] = registers.v[n][1] = 0;  // A scalar result clears the rest of its register.
    set_lane(registers, n, 0, result);
  }
}

// Small whole numbers in all lanes, other ones in every register.
template <typename Lane>
void fill_whole(register_file& registers) {
  for (int v = 0; v < 32; ++v) {
    for (int lane = 0; lane < static_cast<int>(16 / sizeof(Lane)); ++lane) {
      set_lane(registers, v, lane, static_cast<Lane>(v < 3 ? 1 + v : v + lane));
    }
  }
}

// Fractions, chosen so that a hundred passes neither overflow soon nor leave the values unchanged.
template <typename Lane>
void fill_fractions(register_file& registers) {
  for (int v = 0; v < 32; ++v) set_lane(registers, v, 0, static_cast<Lane>(0.001 * (v + 1)));
}

struct kernel_facts {
  const char* name;
  const std::uint64_t* address_word;
  const std::uint64_t* data_word;
  std::uint64_t expected_data_word;
  pass_model pass;
  void (*fill)(register_file& registers);
  int converted;  // The register whose single-precision value comes back in d0; -1 for none.
  std::set<int> vector_registers;
};

std::set<int> accumulators_and_d0(const int (&accumulators)[16]) {
  std::set<int> registers(accumulators, accumulators + 16);
  registers.insert(0);
  return registers;
}

std::set<int> all_vector_registers() {
  std::set<int> registers;
  for (int n = 0; n < 32; ++n) registers.insert(n);
  return registers;
}

std::vector<kernel_facts> all_kernels() {
  const std::set<int> fadd = accumulators_and_d0(fadd_accumulators);
  const std::set<int> fmla = accumulators_and_d0(fmla_accumulators);
  const std::set<int> all = all_vector_registers();
  return {
      {"flops_f16x8_fadd", &flops_f16x8_fadd, &flops_f16x8_fadd_flops_per_iteration, 256, fadd_pass<__fp16>,
       fill_whole<__fp16>, 0, fadd},
      {"flops_f32x4_fadd", &flops_f32x4_fadd, &flops_f32x4_fadd_flops_per_iteration, 128, fadd_pass<float>,
       fill_whole<float>, 0, fadd},
      {"flops_f64x2_fadd", &flops_f64x2_fadd, &flops_f64x2_fadd_flops_per_iteration, 64, fadd_pass<double>,
       fill_whole<double>, 0, fadd},
      {"flops_f32x4_fmla", &flops_f32x4_fmla, &flops_f32x4_fmla_flops_per_iteration, 256, fmla_pass<float, 1>,
       fill_whole<float>, 0, fmla},
      {"flops_f64x2_fmla", &flops_f64x2_fmla, &flops_f64x2_fmla_flops_per_iteration, 256, fmla_pass<double, 2>,
       fill_whole<double>, 0, fmla},
      {"flops_f16x8_fmla", &flops_f16x8_fmla, &flops_f16x8_fmla_flops_per_iteration, 512, fmla_pass<__fp16, 1>,
       fill_whole<__fp16>, 0, fmla},
      {"flops_sp_fmadd", &flops_sp_fmadd, &flops_sp_fmadd_flops_per_iteration, 64, fmadd_pass<float>,
       fill_fractions<float>, 31, all},
      {"flops_dp_fmadd", &flops_dp_fmadd, &flops_dp_fmadd_flops_per_iteration, 64, fmadd_pass<double>,
       fill_fractions<double>, -1, all},
  };
}

register_file prepared(const kernel_facts& kernel, std::uint64_t passes) {
  register_file registers = marked_registers();
  kernel.fill(registers);
  registers.x[1] = passes;
  registers.x[2] = *kernel.address_word;
  return registers;
}

class every_arithmetic_kernel : public testing::TestWithParam<kernel_facts> {};

INSTANTIATE_TEST_SUITE_P(kernels, every_arithmetic_kernel, testing::ValuesIn(all_kernels()),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(every_arithmetic_kernel, has_its_operations_per_pass_in_its_data_word) {
  EXPECT_EQ(*GetParam().data_word, GetParam().expected_data_word);
}

TEST_P(every_arithmetic_kernel, has_an_address_word_that_holds_its_own_address) {
  EXPECT_EQ(*GetParam().address_word, reinterpret_cast<std::uint64_t>(GetParam().address_word));
}

TEST_P(every_arithmetic_kernel, makes_the_passes_asked_for) {
  const kernel_facts& kernel = GetParam();
  for (const std::uint64_t passes : {1, 2, 7, 100}) {
    register_file expected = prepared(kernel, passes);
    register_file after = expected;
    probe_registers(flops_kernel_trampoline, &after);
    for (std::uint64_t pass = 0; pass < passes; ++pass) kernel.pass(expected);
    if (kernel.converted >= 0) {
      const double converted = get_lane<float>(expected, kernel.converted, 0);
      set_lane(expected, 0, 0, converted);
      expected.v[0][1] = 0;
    }
    EXPECT_EQ(after.x[1], 0u) << "after " << passes << " passes";
    for (int n = 0; n < 32; ++n) {
      EXPECT_EQ(after.v[n][0], expected.v[n][0]) << "v" << n << ", low half, after " << passes << " passes";
      EXPECT_EQ(after.v[n][1], expected.v[n][1]) << "v" << n << ", high half, after " << passes << " passes";
    }
  }
}

TEST_P(every_arithmetic_kernel, overwrites_its_own_registers_and_no_others) {
  const kernel_facts& kernel = GetParam();
  const register_file before = prepared(kernel, 3);
  register_file after = before;
  probe_registers(flops_kernel_trampoline, &after);
  std::set<int> written;
  for (int n = 0; n < 31; ++n) {
    if (n != 16 && n != 30 && after.x[n] != before.x[n]) written.insert(n);
  }
  EXPECT_THAT(written, testing::ElementsAre(1, 2));
  std::set<int> written_vectors;
  for (int n = 0; n < 32; ++n) {
    if (after.v[n][0] != before.v[n][0] || after.v[n][1] != before.v[n][1]) written_vectors.insert(n);
  }
  EXPECT_EQ(written_vectors, kernel.vector_registers);
  EXPECT_EQ(after.sp_moved, 0u);
}

TEST_P(every_arithmetic_kernel, runs_on_infinities_and_nans) {
  const kernel_facts& kernel = GetParam();
  register_file registers = marked_registers();
  for (int n = 0; n < 32; ++n)
    registers.v[n][0] = registers.v[n][1] = n % 2 == 0 ? ~std::uint64_t{0} : 0x7ff0000000000000;
  registers.x[1] = 5;
  registers.x[2] = *kernel.address_word;
  probe_registers(flops_kernel_trampoline, &registers);
  EXPECT_EQ(registers.x[1], 0u);
}

// An object through which the kernel is entered. It makes a field of the frame accessible.
struct open_flops : flops {
  using flops::duration;
  using flops::flops;
  using flops::kernel_calls;
};

void run_kernel_of(flops* roof, std::uint64_t passes) { roof->run_kernel(0, passes); }

TEST_P(every_arithmetic_kernel, is_entered_so_that_the_callers_registers_survive) {
  const kernel_facts& kernel = GetParam();
  flops roof("roof", 1, 3, 0.0, *kernel.data_word, *kernel.address_word);
  register_file before = marked_registers();
  before.x[0] = reinterpret_cast<std::uint64_t>(&roof);
  before.x[1] = 3;
  register_file after = before;
  probe_registers(reinterpret_cast<const void*>(run_kernel_of), &after);
  for (int n = 19; n <= 29; ++n) EXPECT_EQ(after.x[n], before.x[n]) << "x" << n;
  for (int n = 8; n <= 15; ++n) EXPECT_EQ(after.v[n][0], before.v[n][0]) << "d" << n;
  EXPECT_EQ(after.sp_moved, 0u);
}

TEST(flops, counts_a_thousand_calls_of_a_million_passes_of_256_operations_in_a_second_as_256_gflops) {
  open_flops roof("roof", 1, 1'000'000, 1.0, 256, flops_f32x4_fmla);
  roof.kernel_calls = 1'000;
  EXPECT_EQ(roof.result(), 256u);
}

TEST(flops, rounds_down) {
  open_flops roof("roof", 1, 1'000'000, 1.0, 64, flops_f64x2_fadd);
  roof.kernel_calls = 31;  // 1.984 GFLOPS
  EXPECT_EQ(roof.result(), 1u);
}

TEST(flops, gives_0_below_one_gflops) {
  open_flops roof("roof", 1, 1'000'000, 1.0, 64, flops_f64x2_fadd);
  roof.kernel_calls = 15;  // 0.96 GFLOPS
  EXPECT_EQ(roof.result(), 0u);
}

TEST(flops, divides_by_the_measured_seconds) {
  open_flops roof("roof", 1, 1'000'000, 1.0, 256, flops_f32x4_fmla);
  roof.kernel_calls = 1'000;
  roof.duration = 2.0;
  EXPECT_EQ(roof.result(), 128u);
}

TEST(flops, gives_0_when_nothing_was_run_in_no_time) {
  open_flops roof("roof", 0, 1'000'000, 0.0, 256, flops_f32x4_fmla);
  EXPECT_EQ(roof.result(), 0u);
}

TEST(flops, measures_a_kernel_in_the_frame) {
  open_flops roof("roof", 2, 100, 0.05, flops_f32x4_fmla_flops_per_iteration, flops_f32x4_fmla);
  roof();
  EXPECT_GT(roof.kernel_calls, 0u);
  EXPECT_GE(roof.duration, 0.05);
  EXPECT_EQ(roof.unit(), "GFLOPS");
  EXPECT_TRUE(roof.is_compute());
}

}  // namespace
}  // namespace ceilmeter
