// The frame on a real kernel with four processors: where each thread may run, and where it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/benchmark_std.h"

namespace ceilmeter {
namespace {

std::set<int> allowed_processors() {
  cpu_set_t set;
  CPU_ZERO(&set);
  std::set<int> processors;
  if (sched_getaffinity(0, sizeof(set), &set) != 0) return processors;
  for (int n = 0; n < CPU_SETSIZE; ++n) {
    if (CPU_ISSET(n, &set)) processors.insert(n);
  }
  return processors;
}

class looking_benchmark : public benchmark_std {
 public:
  explicit looking_benchmark(std::uint32_t thread_count)
      : benchmark_std("looking", thread_count, 0.5, 1), allowed(thread_count), seen(thread_count) {}
  std::uint32_t result() override { return 0; }
  std::string unit() override { return ""; }
  bool is_compute() override { return false; }
  void init_thread(std::uint32_t thread_id) override { allowed[thread_id] = allowed_processors(); }
  void run_kernel(std::uint32_t thread_id, std::uint64_t) override { seen[thread_id].insert(sched_getcpu()); }

  std::vector<std::set<int>> allowed;  // In the preparation.
  std::vector<std::set<int>> seen;     // While the kernel runs.
};

TEST(pinning, puts_thread_n_on_processor_n_and_leaves_the_threads_beyond_the_processors_free) {
  ASSERT_EQ(std::thread::hardware_concurrency(), 4u);
  looking_benchmark benchmark(6);
  benchmark();
  for (int n = 0; n < 4; ++n) {
    EXPECT_THAT(benchmark.allowed[n], testing::ElementsAre(n)) << "thread " << n;
    EXPECT_THAT(benchmark.seen[n], testing::IsSubsetOf({n})) << "thread " << n;
  }
  for (int n = 4; n < 6; ++n) {
    EXPECT_THAT(benchmark.allowed[n], testing::ElementsAre(0, 1, 2, 3)) << "thread " << n;
  }
}

TEST(pinning, leaves_the_calling_thread_free) {
  looking_benchmark benchmark(4);
  benchmark();
  EXPECT_THAT(allowed_processors(), testing::ElementsAre(0, 1, 2, 3));
}

}  // namespace
}  // namespace ceilmeter
