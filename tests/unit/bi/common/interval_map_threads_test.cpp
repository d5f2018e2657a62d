// The map of ranges under threads. Every operation holds the map's lock from start to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "interval_map_support.h"

namespace ceilmeter {
namespace {

using test::file_of;
using test::range;
using test::scratch_descriptor;
using test::scratch_interval_map;

constexpr int thread_count = 6;

TEST(interval_map_threads_test, threads_on_ranges_of_their_own_see_only_their_own_changes) {
  const scratch_descriptor file;
  scratch_interval_map scratch(512);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < thread_count; ++number) {
    threads.emplace_back([&, number] {
      const std::uint64_t base = 0x100000 * static_cast<std::uint64_t>(number + 1);
      for (int round = 0; round < 300; ++round) {
        interval_entry found{};
        if (interval_map_add(&scratch.map, base, base + 0x3000, file.fd()) != 0) ++wrong;
        if (interval_map_search(&scratch.map, base + 0x1800, &found) != 1 || found.start != base) ++wrong;
        if (interval_map_delete(&scratch.map, base + 0x1000, base + 0x2000) != 1) ++wrong;
        if (interval_map_search(&scratch.map, base + 0x1800, &found) != 0) ++wrong;
        if (interval_map_overlapping(&scratch.map, base, base + 0x3000) != 2) ++wrong;
        if (interval_map_delete(&scratch.map, base, base + 0x3000) != 2) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(scratch.map.count, 0);
  EXPECT_EQ(scratch.opened(), 0);
}

TEST(interval_map_threads_test, threads_on_the_same_ranges_leave_live_ranges_apart_and_every_descriptor_open) {
  const scratch_descriptor file;
  for (int round = 0; round < 20; ++round) {
    SCOPED_TRACE(::testing::Message() << "round " << round);
    scratch_interval_map scratch(64);
    std::vector<std::thread> threads;
    for (int number = 0; number < thread_count; ++number) {
      threads.emplace_back([&, number] {
        std::uint64_t state = static_cast<std::uint64_t>(round * thread_count + number + 1) * 0x9e3779b97f4a7c15;
        for (int step = 0; step < 60; ++step) {
          state = state * 6364136223846793005 + 1442695040888963407;
          const std::uint64_t start = state >> 58;
          const std::uint64_t end = start + 1 + (state >> 40) % 8;
          interval_entry found{};
          switch ((state >> 30) % 3) {
            case 0: interval_map_add(&scratch.map, start, end, file.fd()); break;
            case 1: interval_map_delete(&scratch.map, start, end); break;
            default: interval_map_search(&scratch.map, start, &found);
          }
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    std::vector<range> live;
    for (const range& entry : scratch.ranges()) {
      if (entry.first < entry.second) live.push_back(entry);
    }
    std::sort(live.begin(), live.end());
    for (std::size_t index = 1; index < live.size(); ++index) {
      ASSERT_LE(live[index - 1].second, live[index].first) << "ranges overlap";
    }
    for (std::int64_t index = 0; index < scratch.map.count; ++index) {
      ASSERT_EQ(file_of(scratch.map.entries[index].fd), file_of(file.fd())) << "entry " << index;
    }
  }
}

}  // namespace
}  // namespace ceilmeter
