// A read bandwidth: each thread sweeps a buffer of its own with a load kernel. Nothing here knows of caches. The size
// of the buffer alone decides which level of the memory hierarchy answers.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "benchmarks/benchmark_std.h"
#include "benchmarks/dataalloc.h"
#include "benchmarks/kernels/kernels.h"

namespace ceilmeter {

// Buffers on the NUMA node of the thread that uses them; or null, with a log line that says why. Loads libnuma on the
// first call in the process and keeps it, or its failure, until the process exits. Call from one thread.
std::unique_ptr<data_alloc_numa> create_numa_data(std::uint32_t num_threads, std::uint64_t elements);

class cachebw : public benchmark_std {
 public:
  // `element_count`: 32-bit elements of each thread's buffer, at least 1; its bytes must be a whole multiple of what a
  // pass of `load` steps over. `bytes_touched`: the kernel's data word. `useLocalNuma`: take the buffers from libnuma;
  // without it plain memory serves, and nothing but a log line tells. `seconds` to measure.
  cachebw(std::string benchmark_name, std::uint32_t thread_count, load_kernel load, std::uint64_t bytes_touched,
          std::uint64_t element_count, bool useLocalNuma, double seconds);

  // Decimal gigabytes per second, rounded down, of all threads together. It counts the bytes that the loads asked for.
  std::uint32_t result() override;
  std::string unit() override { return "GB/s"; }
  bool is_compute() override { return false; }
  void init_thread(std::uint32_t thread_id) override;
  void run_kernel(std::uint32_t thread_id, std::uint64_t passes) override;

 protected:
  std::uint64_t elements;
  load_kernel kernel;
  std::uint64_t bytes_per_iteration;
  std::unique_ptr<data_alloc_base> allocator;
};

}  // namespace ceilmeter
