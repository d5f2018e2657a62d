// The bandwidth benchmark's arithmetic and the plain allocator, with kernels that load nothing.
#include "benchmarks/cachebw.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "../support/fake_log.h"
#include "benchmarks/dataalloc.h"
#include "common/log.h"

namespace {
bool no_memory = false;
std::size_t bytes_asked_for = 0;
}  // namespace

extern "C" void* __real_malloc(std::size_t bytes);
extern "C" void* __wrap_malloc(std::size_t bytes) {
  bytes_asked_for = bytes;
  return no_memory ? nullptr : __real_malloc(bytes);
}

namespace ceilmeter {
namespace {

struct kernel_call {
  float* data;
  std::int32_t iterations;
  std::uint64_t elements;
};
std::vector<kernel_call> kernel_calls_seen;

void noting_kernel(float* data, std::int32_t iterations, std::uint64_t elements) {
  kernel_calls_seen.push_back({data, iterations, elements});
}

void idle_kernel(float*, std::int32_t, std::uint64_t) {}

struct open_cachebw : cachebw {
  using cachebw::cachebw;
  using cachebw::duration;
  using cachebw::iterations;
  using cachebw::kernel_calls;
};

class bandwidth : public testing::Test {
 protected:
  bandwidth() {
    test::reset_log(LEVEL_DEBUG);
    no_memory = false;
    kernel_calls_seen.clear();
  }
  ~bandwidth() override { no_memory = false; }
};

std::uint64_t passes_for(std::uint64_t elements) {
  return open_cachebw("roof", 1, idle_kernel, 256, elements, false, 1.0).iterations;
}

TEST_F(bandwidth, makes_the_greatest_multiple_of_the_elements_that_is_no_more_than_a_million_passes_a_call) {
  EXPECT_EQ(passes_for(1024), 999'424u);
  EXPECT_EQ(passes_for(20480), 983'040u);
  EXPECT_EQ(passes_for(193536), 967'680u);
  EXPECT_EQ(passes_for(1), 1'000'000u);
  EXPECT_EQ(passes_for(999'999), 999'999u);
}

TEST_F(bandwidth, makes_as_many_passes_as_elements_from_a_million_elements_on) {
  EXPECT_EQ(passes_for(1'000'000), 1'000'000u);
  EXPECT_EQ(passes_for(1'048'576), 1'048'576u);
}

TEST_F(bandwidth, makes_whole_sweeps_of_the_buffers_of_the_roofs) {
  const auto sweeps = [](std::uint64_t elements) {
    EXPECT_EQ(passes_for(elements) * 256 % (elements * 4), 0u) << elements;
    return passes_for(elements) * 256 / (elements * 4);
  };
  EXPECT_EQ(sweeps(1024), 62'464u);
  EXPECT_EQ(sweeps(20480), 3'072u);
  EXPECT_EQ(sweeps(193536), 320u);
  EXPECT_EQ(sweeps(1048576), 64u);
}

std::uint32_t result_of(std::uint64_t bytes_per_pass, std::uint64_t passes, std::uint64_t calls, double seconds) {
  open_cachebw roof("roof", 1, idle_kernel, bytes_per_pass, 1024, false, seconds);
  roof.iterations = passes;
  roof.kernel_calls = calls;
  return roof.result();
}

TEST_F(bandwidth, of_a_million_calls_of_a_thousand_passes_of_256_bytes_in_a_second_is_256) {
  EXPECT_EQ(result_of(256, 1'000, 1'000'000, 1.0), 256u);
}

TEST_F(bandwidth, is_rounded_down) {
  EXPECT_EQ(result_of(256, 1'000, 7'812, 1.0), 1u);  // 1.999 GB/s
  EXPECT_EQ(result_of(250, 1'000, 8'000, 1.0), 2u);
}

TEST_F(bandwidth, below_one_gigabyte_a_second_is_0) { EXPECT_EQ(result_of(256, 1'000, 3'906, 1.0), 0u); }

TEST_F(bandwidth, is_divided_by_the_measured_seconds) { EXPECT_EQ(result_of(256, 1'000, 1'000'000, 2.0), 128u); }

TEST_F(bandwidth, counts_its_bytes_in_sixty_four_bits) {
  EXPECT_EQ(result_of(256, 1'000'000, 20'000'000, 10.0), 512'000u);
}

TEST_F(bandwidth, of_nothing_in_no_time_is_0) { EXPECT_EQ(result_of(256, 1'000, 0, 0.0), 0u); }

TEST_F(bandwidth, is_in_gigabytes_a_second_and_no_compute_roof) {
  open_cachebw roof("L7", 1, idle_kernel, 256, 1024, false, 1.0);
  EXPECT_EQ(roof.name, "L7");
  EXPECT_EQ(roof.unit(), "GB/s");
  EXPECT_FALSE(roof.is_compute());
}

TEST_F(bandwidth, hands_the_threads_own_buffer_to_the_kernel) {
  open_cachebw roof("roof", 3, noting_kernel, 256, 64, false, 1.0);
  for (std::uint32_t thread_id = 0; thread_id < 3; ++thread_id) {
    roof.init_thread(thread_id);
    roof.run_kernel(thread_id, 1000 + thread_id);
  }
  ASSERT_EQ(kernel_calls_seen.size(), 3u);
  for (int n = 0; n < 3; ++n) {
    EXPECT_EQ(kernel_calls_seen[n].data, kernel_calls_seen[0].data + 64 * n);
    EXPECT_EQ(kernel_calls_seen[n].iterations, 1000 + n);
    EXPECT_EQ(kernel_calls_seen[n].elements, 64u);
    EXPECT_EQ(kernel_calls_seen[n].data[63], 63.0f);
  }
}

TEST_F(bandwidth, is_measured_in_the_frame) {
  // On a busy machine the threads of a short box may get no time. The box is then made longer.
  std::uint64_t calls = 0;
  std::uint32_t result = 0;
  for (double seconds = 0.05; seconds < 10.0 && calls == 0; seconds *= 3) {
    open_cachebw roof("roof", 2, idle_kernel, 256, 1024, false, seconds);
    roof();
    calls = roof.kernel_calls;
    result = roof.result();
  }
  EXPECT_GT(calls, 0u);
  EXPECT_GT(result, 0u);
}

TEST_F(bandwidth, logs_whether_it_wants_local_memory) {
  open_cachebw("roof", 1, idle_kernel, 256, 1024, false, 1.0);
  EXPECT_THAT(
      test::logged_lines(),
      testing::ElementsAre(
          test::logged_line{"src/benchmarks/cachebw", "cachebw", LEVEL_DEBUG, "useLocalNuma is 0"},
          test::logged_line{"src/benchmarks/dataalloc", "data_alloc", LEVEL_DEBUG, "data_alloc is initiated."}));
}

TEST_F(bandwidth, asks_for_four_bytes_an_element_and_thread) {
  data_alloc allocator(3, 1000);
  EXPECT_EQ(bytes_asked_for, 12'000u);
}

TEST_F(bandwidth, asks_for_more_than_four_gigabytes_without_wrapping) {
  no_memory = true;
  data_alloc allocator(5000, 1048576);
  EXPECT_EQ(bytes_asked_for, std::size_t{5000} * 1048576 * 4);
}

TEST_F(bandwidth, fills_element_i_with_i_on_each_thread_at_once) {
  constexpr std::uint64_t elements = 10'000;
  data_alloc allocator(4, elements);
  std::vector<std::thread> threads;
  for (std::uint32_t thread_id = 0; thread_id < 4; ++thread_id) {
    threads.emplace_back([&allocator, thread_id] { allocator.init_thread(thread_id); });
  }
  for (std::thread& thread : threads) thread.join();
  for (std::uint32_t thread_id = 0; thread_id < 4; ++thread_id) {
    const float* data = allocator.get_data(thread_id);
    for (std::uint64_t i = 0; i < elements; ++i) ASSERT_EQ(data[i], static_cast<float>(i)) << thread_id << ", " << i;
  }
}

TEST_F(bandwidth, logs_an_allocation_that_fails_and_goes_on) {
  no_memory = true;
  data_alloc allocator(1, 1024);
  EXPECT_EQ(allocator.get_data(0), nullptr);
  EXPECT_THAT(test::logged_lines(), testing::Contains(test::logged_line{"src/benchmarks/dataalloc", "data_alloc",
                                                                        LEVEL_WARN, "failed to allocate data."}));
}

TEST_F(bandwidth, faults_on_the_first_thread_after_an_allocation_that_failed) {
  EXPECT_DEATH(
      {
        no_memory = true;
        data_alloc allocator(1, 1024);
        allocator.init_thread(0);
      },
      "");
}

}  // namespace
}  // namespace ceilmeter
