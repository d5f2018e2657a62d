// The load kernels as machine code: what they read, where the cursor goes, what they overwrite, and that the C++ way to
// call them keeps the calling convention that they themselves break.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <setjmp.h>
#include <signal.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "benchmarks/kernels/kernels.h"
#include "guarded_buffer.h"
#include "register_probe.h"

namespace ceilmeter {
namespace {

struct kernel_facts {
  const char* name;
  const load_kernel_text* text;
  load_kernel call;
  const std::uint64_t* data_word;
  std::uint64_t expected_data_word;
  std::uint64_t step;  // Bytes that the cursor moves on in one pass.
  int first_register;  // The vector register that is loaded from the start of the pass.
  std::set<int> vector_registers;
};

std::set<int> range(int first, int last) {
  std::set<int> numbers;
  for (int n = first; n <= last; ++n) numbers.insert(n);
  return numbers;
}

std::set<int> both(std::set<int> numbers, const std::set<int>& more) {
  numbers.insert(more.begin(), more.end());
  return numbers;
}

std::vector<kernel_facts> all_kernels() {
  return {
      {"cachebw_ldp_256", &cachebw_ldp_256, call_load_kernel<cachebw_ldp_256>, &cachebw_ldp_256_bytes_per_iteration,
       256, 256, 0, both(range(0, 7), range(16, 23))},
      {"cachebw_ld1_256", &cachebw_ld1_256, call_load_kernel<cachebw_ld1_256>, &cachebw_ld1_256_bytes_per_iteration,
       256, 256, 0, range(0, 15)},
      {"cachebw_ldp_512", &cachebw_ldp_512, call_load_kernel<cachebw_ldp_512>, &cachebw_ldp_512_bytes_per_iteration,
       512, 512, 0, range(0, 31)},
      {"cachebw_ldr_64", &cachebw_ldr_64, call_load_kernel<cachebw_ldr_64>, &cachebw_ldr_64_bytes_per_iteration, 64, 64,
       27, range(27, 30)},
      {"cachebw_ldp_str", &cachebw_ldp_str, call_load_kernel<cachebw_ldp_str>, &cachebw_ldp_str_bytes_per_iteration,
       384, 256, 0, both(range(0, 7), range(16, 23))},
  };
}

// The four working sets of the memory roofs, in bytes.
constexpr std::uint64_t roof_sizes[] = {4096, 81920, 774144, 4194304};

void fill(float* data, std::uint64_t bytes) {
  for (std::uint64_t i = 0; i < bytes / 4; ++i) data[i] = static_cast<float>(i);
}

register_file run(const kernel_facts& kernel, float* data, std::uint64_t passes, std::uint64_t elements) {
  register_file registers = marked_registers();
  registers.x[0] = reinterpret_cast<std::uint64_t>(data);
  registers.x[1] = passes;
  registers.x[2] = elements;
  probe_registers(kernel.text, &registers);
  return registers;
}

class every_load_kernel : public testing::TestWithParam<kernel_facts> {};

INSTANTIATE_TEST_SUITE_P(kernels, every_load_kernel, testing::ValuesIn(all_kernels()),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

TEST_P(every_load_kernel, has_its_bytes_per_pass_in_its_data_word) {
  EXPECT_EQ(*GetParam().data_word, GetParam().expected_data_word);
}

TEST_P(every_load_kernel, stays_inside_its_buffer_for_every_size_up_to_sixty_four_kilobytes) {
  const kernel_facts& kernel = GetParam();
  for (std::uint64_t bytes = kernel.step; bytes <= 65536; bytes += kernel.step) {
    for (const flush_with side : {flush_with::lower_guard, flush_with::upper_guard}) {
      const guarded_buffer buffer(bytes, side);
      const std::uint64_t passes_per_sweep = bytes / kernel.step;
      kernel.call(buffer.data(), static_cast<std::int32_t>(2 * passes_per_sweep + 1), bytes / 4);
    }
  }
}

TEST_P(every_load_kernel, stays_inside_its_buffer_for_the_sizes_of_the_roofs) {
  const kernel_facts& kernel = GetParam();
  for (const std::uint64_t bytes : roof_sizes) {
    for (const flush_with side : {flush_with::lower_guard, flush_with::upper_guard}) {
      const guarded_buffer buffer(bytes, side);
      kernel.call(buffer.data(), static_cast<std::int32_t>(2 * bytes / kernel.step + 1), bytes / 4);
    }
  }
}

sigjmp_buf before_the_fault;
std::uint64_t fault_address;

// Gives the address at which the kernel faults, or 0 if it comes back.
std::uint64_t fault_of(const kernel_facts& kernel, float* data, std::int32_t passes, std::uint64_t elements) {
  struct sigaction action {};
  struct sigaction previous {};
  action.sa_flags = SA_SIGINFO;
  action.sa_sigaction = [](int, siginfo_t* info, void*) {
    fault_address = reinterpret_cast<std::uint64_t>(info->si_addr);
    siglongjmp(before_the_fault, 1);
  };
  sigaction(SIGSEGV, &action, &previous);
  fault_address = 0;
  if (sigsetjmp(before_the_fault, 1) == 0) kernel.call(data, passes, elements);
  sigaction(SIGSEGV, &previous, nullptr);
  return fault_address;
}

// Also shows that the guard pages of the other tests would catch a kernel that left its buffer.
TEST_P(every_load_kernel, runs_off_the_end_of_a_buffer_that_is_no_multiple_of_its_step) {
  const kernel_facts& kernel = GetParam();
  const std::uint64_t bytes = 8192 - kernel.step / 2;
  const guarded_buffer buffer(bytes, flush_with::upper_guard);
  const std::uint64_t end = reinterpret_cast<std::uint64_t>(buffer.data()) + bytes;
  const std::uint64_t fault = fault_of(kernel, buffer.data(), 100'000, bytes / 4);
  EXPECT_GE(fault, end);
  EXPECT_LT(fault, end + kernel.step);
}

TEST_P(every_load_kernel, does_not_fault_in_the_same_place_with_a_buffer_that_is_a_multiple_of_its_step) {
  const kernel_facts& kernel = GetParam();
  constexpr std::uint64_t bytes = 8192;
  const guarded_buffer buffer(bytes, flush_with::upper_guard);
  EXPECT_EQ(fault_of(kernel, buffer.data(), 100'000, bytes / 4), 0u);
}

TEST_P(every_load_kernel, makes_the_passes_asked_for_and_returns_to_the_start_at_the_end_of_the_buffer) {
  const kernel_facts& kernel = GetParam();
  constexpr std::uint64_t passes_per_sweep = 16;
  const std::uint64_t bytes = passes_per_sweep * kernel.step;
  for (const std::uint64_t passes : {1, 2, 15, 16, 17, 32, 100}) {
    const guarded_buffer buffer(bytes, flush_with::upper_guard);
    fill(buffer.data(), bytes);
    const float first_of_last_pass = buffer.data()[(passes - 1) % passes_per_sweep * kernel.step / 4];
    const register_file after = run(kernel, buffer.data(), passes, bytes / 4);
    EXPECT_EQ(after.x[13], passes);
    EXPECT_EQ(after.x[12] - after.x[0], passes % passes_per_sweep * kernel.step) << "after " << passes << " passes";
    // The storing kernel has put other values there in an earlier sweep.
    if (kernel.text == &cachebw_ldp_str && passes > passes_per_sweep) continue;
    EXPECT_EQ(get_lane<float>(after, kernel.first_register, 0), first_of_last_pass) << "after " << passes << " passes";
  }
}

TEST_P(every_load_kernel, overwrites_its_own_registers_and_no_others) {
  const kernel_facts& kernel = GetParam();
  const std::uint64_t bytes = 4 * kernel.step;
  const guarded_buffer buffer(bytes, flush_with::upper_guard);
  fill(buffer.data(), bytes);
  register_file before = marked_registers();
  before.x[0] = reinterpret_cast<std::uint64_t>(buffer.data());
  before.x[1] = 3;
  before.x[2] = bytes / 4;
  const register_file after = run(kernel, buffer.data(), 3, bytes / 4);
  std::set<int> written;
  for (int n = 0; n < 31; ++n) {
    if (n != 16 && n != 30 && after.x[n] != before.x[n]) written.insert(n);
  }
  EXPECT_THAT(written, testing::ElementsAre(2, 12, 13, 14));
  std::set<int> written_vectors;
  for (int n = 0; n < 32; ++n) {
    if (after.v[n][0] != before.v[n][0] || after.v[n][1] != before.v[n][1]) written_vectors.insert(n);
  }
  EXPECT_EQ(written_vectors, kernel.vector_registers);
  EXPECT_EQ(after.sp_moved, 0u);
}

TEST_P(every_load_kernel, is_called_so_that_the_callers_registers_survive) {
  const kernel_facts& kernel = GetParam();
  const std::uint64_t bytes = 4 * kernel.step;
  const guarded_buffer buffer(bytes, flush_with::upper_guard);
  register_file before = marked_registers();
  before.x[0] = reinterpret_cast<std::uint64_t>(buffer.data());
  before.x[1] = 3;
  before.x[2] = bytes / 4;
  register_file after = before;
  probe_registers(reinterpret_cast<const void*>(kernel.call), &after);
  for (int n = 19; n <= 29; ++n) EXPECT_EQ(after.x[n], before.x[n]) << "x" << n;
  for (int n = 8; n <= 15; ++n) EXPECT_EQ(after.v[n][0], before.v[n][0]) << "d" << n;
  EXPECT_EQ(after.sp_moved, 0u);
}

TEST(cachebw_ldp_str, writes_the_first_sixteen_bytes_of_each_pass_and_nothing_else) {
  constexpr std::uint64_t bytes = 1024;
  const guarded_buffer buffer(bytes, flush_with::upper_guard);
  fill(buffer.data(), bytes);
  std::vector<float> expected(buffer.data(), buffer.data() + bytes / 4);
  // The last store of a pass is the first half of its last pair.
  for (std::uint64_t pass = 0; pass < bytes; pass += 256) {
    for (std::uint64_t i = 0; i < 4; ++i) expected[pass / 4 + i] = expected[(pass + 0xe0) / 4 + i];
  }
  call_load_kernel<cachebw_ldp_str>(buffer.data(), 4, bytes / 4);
  EXPECT_EQ(std::vector<float>(buffer.data(), buffer.data() + bytes / 4), expected);
}

TEST(load_kernels, other_than_the_storing_one_leave_their_buffer_alone) {
  for (const kernel_facts& kernel : all_kernels()) {
    if (kernel.text == &cachebw_ldp_str) continue;
    constexpr std::uint64_t bytes = 4096;
    const guarded_buffer buffer(bytes, flush_with::upper_guard);
    fill(buffer.data(), bytes);
    const std::vector<float> expected(buffer.data(), buffer.data() + bytes / 4);
    kernel.call(buffer.data(), 100, bytes / 4);
    EXPECT_EQ(std::vector<float>(buffer.data(), buffer.data() + bytes / 4), expected) << kernel.name;
  }
}

}  // namespace
}  // namespace ceilmeter
