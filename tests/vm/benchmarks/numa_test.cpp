// The real libnuma on a machine with two nodes: the pages of each thread's buffer stand on the node of its processor.
// Run with huge pages switched off: neighbouring buffers may share one, and its node is that of whoever touches it
// first.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "benchmarks/cachebw.h"
#include "benchmarks/dataalloc.h"
#include "common/log.h"

namespace ceilmeter {
namespace {

constexpr std::uint64_t elements = 1048576;

int current_node() {
  unsigned node = 0;
  return syscall(SYS_getcpu, nullptr, &node, nullptr) == 0 ? static_cast<int>(node) : -1;
}

// The nodes that hold the pages of a buffer. A negative number is the error of a page whose node could not be found
// out. Only pages that belong entirely to the buffer: the heap's own words in front of a block are touched by whoever
// allocates it.
std::set<int> nodes_of(float* data) {
  const auto page = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  const std::uint64_t start = (reinterpret_cast<std::uint64_t>(data) + page - 1) / page * page;
  std::vector<void*> pages;
  for (std::uint64_t at = start; at + page <= reinterpret_cast<std::uint64_t>(data + elements); at += page) {
    pages.push_back(reinterpret_cast<void*>(at));
  }
  std::vector<int> status(pages.size(), -1000);
  // Without target nodes it moves nothing and tells where each page is.
  if (syscall(SYS_move_pages, 0, pages.size(), pages.data(), nullptr, status.data(), 0) != 0) return {-2000};
  return {status.begin(), status.end()};
}

// Measures nothing: looks at the buffers of each thread after the frame has pinned and prepared it.
class looking_benchmark : public benchmark_std {
 public:
  looking_benchmark(std::unique_ptr<data_alloc_base> buffers, std::uint32_t thread_count)
      : benchmark_std("looking", thread_count, 0.0, 1),
        allocator(std::move(buffers)),
        own_node(thread_count),
        page_nodes(thread_count) {}
  std::uint32_t result() override { return 0; }
  std::string unit() override { return ""; }
  bool is_compute() override { return false; }
  void init_thread(std::uint32_t thread_id) override {
    allocator->init_thread(thread_id);
    own_node[thread_id] = current_node();
    page_nodes[thread_id] = nodes_of(allocator->get_data(thread_id));
  }
  void run_kernel(std::uint32_t, std::uint64_t) override {}

  std::unique_ptr<data_alloc_base> allocator;
  std::vector<int> own_node;
  std::vector<std::set<int>> page_nodes;
};

TEST(libnuma, gives_each_thread_pages_on_its_own_node) {
  mora_log_set_level(LEVEL_DEBUG);
  testing::internal::CaptureStderr();
  std::unique_ptr<data_alloc_numa> allocator = create_numa_data(4, elements);
  const std::string lines = testing::internal::GetCapturedStderr();
  mora_log_set_level(LEVEL_WARN);
  ASSERT_NE(allocator, nullptr) << lines;
  EXPECT_THAT(lines, testing::ContainsRegex("loaded libnuma.so.1 from /.*lib"));
  EXPECT_THAT(lines, testing::HasSubstr("loaded numa_available from libnuma.so.1\n"));
  EXPECT_THAT(lines, testing::HasSubstr("data_alloc_numa is initiated\n"));

  looking_benchmark benchmark(std::move(allocator), 4);
  benchmark();
  EXPECT_THAT(std::set<int>(benchmark.own_node.begin(), benchmark.own_node.end()), testing::ElementsAre(0, 1));
  for (int n = 0; n < 4; ++n) {
    EXPECT_THAT(benchmark.page_nodes[n], testing::ElementsAre(benchmark.own_node[n])) << "thread " << n;
  }
}

// Plain memory that another thread has touched first, as a measure of the query itself.
class touched_elsewhere : public looking_benchmark {
 public:
  explicit touched_elsewhere(std::uint32_t thread_count)
      : looking_benchmark(std::make_unique<data_alloc>(thread_count, elements), thread_count) {
    const auto touch = [this, thread_count] {
      cpu_set_t first;
      CPU_ZERO(&first);
      CPU_SET(0, &first);
      sched_setaffinity(0, sizeof(first), &first);
      for (std::uint32_t thread_id = 0; thread_id < thread_count; ++thread_id) allocator->init_thread(thread_id);
    };
    std::thread(touch).join();
  }
  void init_thread(std::uint32_t thread_id) override {
    own_node[thread_id] = current_node();
    page_nodes[thread_id] = nodes_of(allocator->get_data(thread_id));
  }
};

TEST(plain_memory, stays_on_the_node_of_the_thread_that_touched_it_first) {
  touched_elsewhere benchmark(4);
  benchmark();
  EXPECT_THAT(benchmark.own_node, testing::Contains(1));
  for (int n = 0; n < 4; ++n) EXPECT_THAT(benchmark.page_nodes[n], testing::ElementsAre(0)) << "thread " << n;
}

}  // namespace
}  // namespace ceilmeter
