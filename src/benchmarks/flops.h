// The floating-point throughput of one instruction class and element type: a kernel of register arithmetic, without
// data. On a processor without half-precision arithmetic the two f16x8 kernels raise SIGILL; the list of roofs keeps
// them from being run there.
#pragma once

#include <cstdint>
#include <string>

#include "benchmarks/benchmark_std.h"

namespace ceilmeter {

class flops : public benchmark_std {
 public:
  // `passes` of the kernel's loop per call, at least 1; `seconds` to measure; `operations` per pass, the kernel's data
  // word; `address_word` the value of the kernel's address word.
  flops(std::string benchmark_name, std::uint32_t thread_count, std::uint64_t passes, double seconds,
        std::uint64_t operations, std::uint64_t address_word);

  // Decimal GFLOPS, rounded down, of all threads together.
  std::uint32_t result() override;
  std::string unit() override { return "GFLOPS"; }
  bool is_compute() override { return true; }
  void init_thread(std::uint32_t) override {}
  void run_kernel(std::uint32_t thread_id, std::uint64_t passes) override;

 protected:
  std::uint64_t flops_per_iteration;
  std::uint64_t kernel;
};

}  // namespace ceilmeter
