// The tracer from many threads at once: starts, stops, births and ends. ThreadSanitizer judges the accesses, the
// assertions the counts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/on_threads.h"
#include "bintracer/bintracer.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

constexpr int thread_count = 6;

TEST(tracer_under_threads, starts_and_stops_of_shared_and_own_regions_are_all_counted) {
  bintracer_t& tracer = start_tracer(MODE_REGION);
  constexpr int rounds = 300;
  on_threads(thread_count, [&tracer](int number) {
    bintracer_thread thread;
    thread.tid = static_cast<std::uint32_t>(number);
    tracer.init_thread(thread);
    bb_node* node = &thread.blocks.add(0x1000);
    for (int round = 0; round < rounds; ++round) {
      const std::string own = "own " + std::to_string(number) + " " + std::to_string(round);
      for (const std::string& name : {std::string("shared"), own}) {
        tracer.pre_start_roofline_handler(name.c_str(), thread);
        node->record.count += thread.enable_basic_block_count;
        tracer.pre_stop_roofline_handler(name.c_str(), thread);
      }
    }
    tracer.finish_thread(thread);
  });
  std::uint64_t shared = 0;
  int infos = 0;
  for (const thread_info* info = tracer.first_thread_info(); info != nullptr; info = info->next) {
    ++infos;
    for (const region_bbs& region : info->regions) {
      ASSERT_EQ(region.bbs.size(), 1U);
      if (region.name == "shared") {
        shared += region.bbs[0].count;
      } else {
        ASSERT_EQ(region.bbs[0].count, 1U);
        ASSERT_EQ(tracer.max_active_threads(region.name), 1U);
      }
    }
  }
  EXPECT_EQ(infos, thread_count);
  EXPECT_EQ(shared, std::uint64_t{thread_count} * rounds);
  EXPECT_GE(tracer.max_active_threads("shared"), 1U);
  EXPECT_LE(tracer.max_active_threads("shared"), std::uint64_t{thread_count});
}

TEST(tracer_under_threads, every_thread_leaves_its_info_whatever_the_order_of_births_and_ends) {
  bintracer_t& tracer = start_tracer(MODE_TOTAL);
  constexpr int rounds = 200;
  on_threads(thread_count, [&tracer](int number) {
    for (int round = 0; round < rounds; ++round) {
      bintracer_thread thread;
      thread.tid = static_cast<std::uint32_t>(number * rounds + round);
      tracer.init_thread(thread);
      tracer.finish_thread(thread);
    }
  });
  std::vector<bool> seen(std::size_t{thread_count} * rounds);
  for (const thread_info* info = tracer.first_thread_info(); info != nullptr; info = info->next) {
    ASSERT_FALSE(seen[info->tid]) << info->tid;
    seen[info->tid] = true;
  }
  for (std::size_t tid = 0; tid < seen.size(); ++tid) EXPECT_TRUE(seen[tid]) << tid;
}

}  // namespace
}  // namespace ceilmeter::test
