// The driver and the frame with thousands of real threads, once. The kernels do nothing. The preparation holds each
// thread asleep until all exist: the frame's own waiting spins, so a small machine would have no time to make the next
// thread.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "benchmarks/roof_list.h"
#include "run_benchmarks.h"

namespace ceilmeter {
namespace {

class crowd : public benchmark_std {
 public:
  crowd(const std::string& benchmark_name, std::uint32_t thread_count)
      : benchmark_std(benchmark_name, thread_count, 0.01, 1) {}
  std::uint32_t result() override { return prepared.load(); }
  std::string unit() override { return "threads"; }
  bool is_compute() override { return false; }
  void init_thread(std::uint32_t) override {
    if (prepared.fetch_add(1) + 1 == num_threads) {
      complete = true;
      complete.notify_all();
    } else {
      complete.wait(false);
    }
  }
  void run_kernel(std::uint32_t, std::uint64_t) override {}

 private:
  std::atomic<std::uint32_t> prepared = 0;
  std::atomic<bool> complete = false;
};

TEST(driver, really_runs_4096_threads_once_and_5000_for_the_count_of_5000) {
  const auto make = [](const char* name) {
    return [name](std::uint32_t num_threads) { return std::make_unique<crowd>(name, num_threads); };
  };
  std::set<std::uint64_t> counts = {5000};
  const benchmark_report report = run_benchmarks(counts, {{make("A")}, {make("B")}}, 2);
  const std::vector<benchmark_result>* results = report.find(5000);
  ASSERT_NE(results, nullptr);
  ASSERT_EQ(results->size(), 2u);
  EXPECT_EQ((*results)[0].value, 4096);
  EXPECT_EQ((*results)[1].value, 5000);
}

}  // namespace
}  // namespace ceilmeter
