// Many threads start and stop many regions at once. The fake kernel makes no order between threads here. So under
// ThreadSanitizer the test checks the object's own lock; elsewhere the sums show a lost record.
#include <atomic>
#include <thread>

#include "perfmon_fixture.h"

namespace ceilmeter::test {
namespace {

class perfmon_threads_test : public ::testing::Test {
 protected:
  perfmon_threads_test() { reset_log(LEVEL_WARN); }

  // Runs `work` with 0 to count-1, each on a thread of its own, all released at once.
  template <typename Work>
  static void on_threads(int count, Work work) {
    std::atomic<int> waiting{count};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([&waiting, work, i] {
        waiting.fetch_sub(1, std::memory_order_relaxed);
        while (waiting.load(std::memory_order_relaxed) != 0) std::this_thread::yield();
        work(i);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  fake_kernel kernel{fake_kernel::recording::off};
};

TEST_F(perfmon_threads_test, many_threads_start_and_stop_many_regions_at_once) {
  constexpr int thread_count = 8;
  constexpr int region_count = 60;
  constexpr int rounds = 3;
  open_perfmon counted(true, {{4, {{"A", 1, -1}, {"B", 2, -1}}}});
  on_threads(thread_count, [&counted](int thread) {
    for (int round = 0; round < rounds; ++round) {
      for (int i = 0; i < region_count; ++i) {
        // Every thread begins at another region, so that equal names meet and new names make the map grow.
        const std::string region = "region " + std::to_string((i + thread * 7) % region_count);
        counted.start_roofline_events(region);
        counted.stop_roofline_events(region);
      }
    }
  });

  EXPECT_EQ(logged_lines().size(), 0u);
  ASSERT_EQ(counted.m_counters_per_thread_map.size(), static_cast<std::size_t>(thread_count * region_count));
  for (const auto& [key, counters] : counted.m_counters_per_thread_map) {
    EXPECT_EQ(counters.events.size(), 2u) << key.region;
    EXPECT_EQ(counters.time_intervals.size(), static_cast<std::size_t>(rounds)) << key.region;
    EXPECT_EQ(kernel.enables(counters.group_fd), rounds) << key.region;
    EXPECT_FALSE(kernel.enabled(counters.group_fd)) << key.region;
    kernel.count(counters.group_fd, 1, 10);
    kernel.count(counters.group_fd, 2, 1);
  }
  counted.finalize_roofline_events();
  ASSERT_EQ(counted.m_counters_per_region_map.size(), static_cast<std::size_t>(region_count));
  for (const auto& [region, counters] : counted.m_counters_per_region_map) {
    EXPECT_EQ(*counters.find("A"), 10u * thread_count) << region;
    EXPECT_EQ(*counters.find("B"), 1u * thread_count) << region;
    EXPECT_EQ(counted.m_time_intervals_map.at(region).size(), static_cast<std::size_t>(thread_count * rounds))
        << region;
  }
  EXPECT_EQ(kernel.open_descriptors(), 0);
}

TEST_F(perfmon_threads_test, nested_regions_of_many_threads_keep_their_own_groups) {
  open_perfmon counted(true, {{4, {{"A", 1, -1}}}});
  on_threads(6, [&counted](int) {
    for (int round = 0; round < 50; ++round) {
      counted.start_roofline_events("outer");
      counted.start_roofline_events("inner");
      counted.stop_roofline_events("inner");
      counted.stop_roofline_events("outer");
    }
  });
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 12u);
  for (const auto& [key, counters] : counted.m_counters_per_thread_map) {
    EXPECT_EQ(counters.time_intervals.size(), 50u) << key.region;
  }
}

TEST_F(perfmon_threads_test, threads_stop_what_they_have_not_started_while_others_count) {
  open_perfmon counted(true, {{4, {{"A", 1, -1}}}});
  on_threads(6, [&counted](int thread) {
    for (int i = 0; i < 40; ++i) {
      if (thread % 2 == 0) {
        counted.start_roofline_events("region " + std::to_string(i));
      } else {
        counted.stop_roofline_events("region " + std::to_string(i));
      }
    }
  });
  EXPECT_EQ(counted.m_counters_per_thread_map.size(), 120u);
  for (const auto& [key, counters] : counted.m_counters_per_thread_map) {
    EXPECT_TRUE(kernel.enabled(counters.group_fd)) << key.region;
  }
  EXPECT_EQ(logged_texts(LEVEL_WARN).size(), 120u);
}

}  // namespace
}  // namespace ceilmeter::test
