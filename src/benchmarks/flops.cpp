// The compute roof: everything but the kernel is the frame's.
#include "benchmarks/flops.h"

#include <utility>

#include "benchmarks/kernels/kernels.h"

namespace ceilmeter {

flops::flops(std::string benchmark_name, std::uint32_t thread_count, std::uint64_t passes, double seconds,
             std::uint64_t operations, std::uint64_t address_word)
    : benchmark_std(std::move(benchmark_name), thread_count, seconds, passes),
      flops_per_iteration(operations),
      kernel(address_word) {}

std::uint32_t flops::result() {
  const std::uint64_t operations = kernel_calls * flops_per_iteration * iterations;
  return cut_to_u32(static_cast<double>(operations) / (duration * 1e9));
}

void flops::run_kernel(std::uint32_t, std::uint64_t passes) { enter_flops_kernel(kernel, passes); }

}  // namespace ceilmeter
