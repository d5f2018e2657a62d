// Regions on the threads of one process: sums, stop and resume, time, groups larger than the counter unit, and many of
// all at once.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <latch>
#include <thread>

#include "common/log.h"
#include "perfmon/perfmon_utils.h"
#include "perfmon/silent_events.h"
#include "vm_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::AnyOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// The union of a region's intervals, computed anew: every instant is counted at the first interval that covers it.
std::int64_t union_length(const time_interval_map& intervals) {
  std::int64_t covered_to = 0;
  std::int64_t length = 0;
  for (const auto& [begin, end] : intervals) {
    const std::int64_t from = std::max(begin, covered_to);
    if (end <= from) continue;
    length += end - from;
    covered_to = end;
  }
  return length;
}

TEST(regions_test, two_threads_of_a_region_add_up) {
  vm_perfmon counted(true);
  std::latch both(2);
  const std::uint64_t before = faults_of_self();
  const auto work = [&](int pages) {
    counted.start("r");
    both.arrive_and_wait();
    touch_pages(pages);
    counted.stop("r");
  };
  std::thread first(work, 700);
  std::thread second(work, 1900);
  first.join();
  second.join();
  const std::uint64_t accounted = faults_of_self() - before;
  counted.finalize_roofline_events();
  std::printf("two threads touch 700 and 1900 pages: counted %lu faults, the accounting has %lu\n",
              counted.total("r", FAULTS), accounted);
  EXPECT_GE(counted.total("r", FAULTS), 2600u);
  EXPECT_LE(counted.total("r", FAULTS), accounted);
  EXPECT_GT(counted.total("r", CYCLES), 0u);
}

TEST(regions_test, nothing_moves_while_a_region_is_stopped_and_a_resume_goes_on_from_there) {
  vm_perfmon counted(true);
  counted.start("r");
  touch_pages(500);
  counted.stop("r");
  const counter_table stopped = counted.read("r");
  touch_pages(1000);
  burn(20);
  const counter_table later = counted.read("r");
  ASSERT_EQ(stopped.size(), 3u);
  for (const auto& [name, value] : stopped) {
    ASSERT_NE(later.find(name), nullptr) << name;
    EXPECT_EQ(*later.find(name), value) << name;
  }
  counted.start("r");
  touch_pages(300);
  counted.stop("r");
  const counter_table resumed = counted.read("r");
  std::printf("faults after 500 pages %lu, stopped for 1000 pages %lu, resumed for 300 pages %lu\n",
              *stopped.find(FAULTS), *later.find(FAULTS), *resumed.find(FAULTS));
  EXPECT_GE(*stopped.find(FAULTS), 500u);
  EXPECT_GE(*resumed.find(FAULTS), *stopped.find(FAULTS) + 300);
  EXPECT_LT(*resumed.find(FAULTS), *stopped.find(FAULTS) + 400);
  EXPECT_GT(*resumed.find(CYCLES), *stopped.find(CYCLES));
  counted.finalize_roofline_events();
}

TEST(regions_test, threads_outside_a_region_are_not_counted) {
  vm_perfmon counted(true);
  std::latch started(1);
  std::latch touched(1);
  std::thread other([&] {
    started.wait();
    touch_pages(3000);
    touched.count_down();
  });
  counted.start("r");
  started.count_down();
  touched.wait();
  counted.stop("r");
  other.join();
  counted.finalize_roofline_events();
  std::printf("another thread touches 3000 pages: counted %lu faults\n", counted.total("r", FAULTS));
  EXPECT_LT(counted.total("r", FAULTS), 1000u);
}

TEST(regions_test, the_time_of_a_region_is_the_union_of_its_threads_intervals) {
  using namespace std::chrono_literals;
  vm_perfmon counted(true);
  const auto stay = [&counted](std::chrono::milliseconds before, std::chrono::milliseconds inside) {
    std::this_thread::sleep_for(before);
    counted.start("r");
    std::this_thread::sleep_for(inside);
    counted.stop("r");
  };
  std::thread first(stay, 0ms, 200ms);
  std::thread second(stay, 100ms, 250ms);
  std::thread third(stay, 700ms, 50ms);
  for (std::thread* thread : {&first, &second, &third}) thread->join();
  counted.finalize_roofline_events();
  const time_interval_map& intervals = counted.m_time_intervals_map.at("r");
  ASSERT_THAT(intervals, SizeIs(3));
  std::int64_t sum = 0;
  for (const auto& [begin, end] : intervals) sum += end - begin;
  const std::uint64_t time = counted.total("r", "duration_time");
  std::printf("intervals of 200, 250 and 50 ms: union %lu ns, sum %ld ns\n", time, sum);
  EXPECT_EQ(time, static_cast<std::uint64_t>(union_length(intervals)));
  EXPECT_GE(time, 300'000'000u);
  EXPECT_LE(time, static_cast<std::uint64_t>(sum));
}

TEST(regions_test, all_descriptors_are_closed_after_finalisation) {
  vm_perfmon counted(true);
  const int before = open_descriptors();
  for (const char* region : {"a", "b", "c"}) {
    counted.start(region);
    counted.stop(region);
  }
  EXPECT_EQ(open_descriptors(), before + 9);
  counted.finalize_roofline_events();
  EXPECT_EQ(open_descriptors(), before);
}

TEST(regions_test, every_descriptor_of_a_group_is_close_on_exec) {
  vm_perfmon counted(true);
  counted.start("r");
  ASSERT_EQ(counted.counters("r").events.size(), 3u);
  for (const auto& [id, event] : counted.counters("r").events) {
    EXPECT_EQ(fcntl(event.fd, F_GETFD), FD_CLOEXEC) << event.name;
  }
  counted.finalize_roofline_events();
}

TEST(regions_test, the_six_roofline_events_open_and_are_read_as_one_group_without_a_warning) {
  const child_result child = run_in_child([] {
    real_perfmon counted(true);
    counted.start_roofline_events("total");
    fork_and_wait([] { burn(20); });
    counted.stop_roofline_events("total");
    EXPECT_EQ(counted.counters("total").events.size(), 6u);
    counted.finalize_roofline_events();
    EXPECT_EQ(counted.m_counters_per_region_map.at("total").size(), 7u);  // With the time.
    const std::vector<perfmon_region> regions = counted.get_roofline_events();
    ASSERT_EQ(regions.size(), 1u);
    EXPECT_EQ(regions[0].name, "total");
    ASSERT_EQ(regions[0].metrics.size(), 5u);
    for (const auto& [name, value] : regions[0].metrics) std::printf("%s %lu\n", name.c_str(), value);
    EXPECT_GT(*regions[0].metrics.find("time"), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, IsEmpty());
}

TEST(regions_test, of_the_ten_events_of_a_talkative_log_those_that_do_not_fit_are_closed_and_a_child_can_be_made) {
  const child_result child = run_in_child([] {
    mora_log_set_level(LEVEL_INFO);
    real_perfmon counted(true);
    counted.start_roofline_events("r");
    const int width = perfmon_utils_counter_width();
    std::printf("the unit has %d counters\n", width);
    EXPECT_EQ(counted.counters("r").events.size(), width == 0 || width >= 10 ? 10u : 6u);
    fork_and_wait([] { burn(20); });
    counted.stop_roofline_events("r");
    counted.finalize_roofline_events();
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, AnyOf(IsEmpty(), ElementsAre("warn 10 events do not run together on this counter unit of 6 "
                                                      "counters: LDST_SPEC, ASE_SPEC, VFP_SPEC, STREAM_OUT are closed "
                                                      "again and not counted")));
}

TEST(regions_test, metrics_whose_events_the_kernel_does_not_list_are_named) {
  // Replaces the machine's own units by one that has all events except that of the last-level cache.
  const child_result child = run_in_child([] {
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", counter_unit_folder, "tmpfs", 0, nullptr), 0);
    const std::string unit = std::string(counter_unit_folder) + "/armv8_pmuv3";
    std::filesystem::create_directories(unit + "/events");
    for (const char* file : {"/cpus", "/events/l1d_cache", "/events/ll_cache_miss"}) std::ofstream(unit + file) << "0";
    real_perfmon counted(true);
    counted.start_roofline_events("r");
    burn(5);
    counted.stop_roofline_events("r");
    counted.finalize_roofline_events();
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, IsEmpty());
  // Where the unit really counts, there may be L3 traffic all the same.
  if (!child.silent_metrics.empty()) {
    EXPECT_THAT(child.silent_metrics,
                Each(::testing::StartsWith("warn l3_bytes is 0 in all regions: LL_CACHE (0x32) did not count, and the "
                                           "kernel does not list it for this processor")));
  }
  std::printf("%zu metrics named\n", child.silent_metrics.size());
}

TEST(regions_test,
     a_group_larger_than_any_counter_unit_opens_and_is_stopped_with_a_warning_so_that_a_child_can_be_made) {
  // The kernel checks the size of a group only when the group is to run. Members are created stopped.
  const child_result child = run_in_child([] {
    perfmon_event_map events;
    for (int i = 0; i < 40; ++i) events[4].push_back({"CYCLES " + std::to_string(i), 0x11, -1});
    vm_perfmon counted(true, std::move(events));
    counted.start_roofline_events("r");
    EXPECT_EQ(counted.counters("r").events.size(), 40u);
    fork_and_wait([] { burn(20); });
    counted.stop_roofline_events("r");
    counted.finalize_roofline_events();
    EXPECT_EQ(counted.m_counters_per_region_map.at("r").size(), 41u);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(counted.total("r", "CYCLES " + std::to_string(i)), 0u);
    EXPECT_GT(counted.total("r", "duration_time"), 0u);
  });
  EXPECT_EQ(child.exit_status, 0);
  EXPECT_THAT(child.log, ElementsAre(::testing::MatchesRegex("warn the 40 roofline events cannot run on this counter "
                                                             "unit of [0-9]+ counters: all bytes will be 0, the time "
                                                             "is measured"),
                                     "warn core counters have multiplexing!"));
}

TEST(regions_test, nested_regions_that_exceed_the_counter_unit_share_it_and_say_so) {
  const child_result child = run_in_child([] {
    real_perfmon counted(true);
    for (const char* region : {"a", "b", "c"}) counted.start_roofline_events(region);
    // Takes long enough for the kernel to hand the unit from group to group.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (std::chrono::steady_clock::now() < end) burn(1);
    for (const char* region : {"c", "b", "a"}) counted.stop_roofline_events(region);
    counted.finalize_roofline_events();
    EXPECT_EQ(counted.get_roofline_events().size(), 3u);
  });
  EXPECT_EQ(child.exit_status, 0);
  std::printf("three groups of six: %zu multiplexing warnings\n", child.log.size());
  EXPECT_THAT(child.log, Each(AnyOf("warn core counters have multiplexing!",
                                    ::testing::MatchesRegex("warn the counters of [abc] region ran for [0-9.]+ % of "
                                                            "its time: its bytes are too low"))));
  EXPECT_GE(child.log.size(), 2u);
}

TEST(regions_test, many_threads_count_many_regions_at_once) {
  constexpr int thread_count = 8;
  constexpr int region_count = 20;
  constexpr int rounds = 5;
  constexpr int pages = 20;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const int descriptors = open_descriptors();

  vm_perfmon counted(true);
  std::latch all(thread_count);
  std::vector<std::thread> threads;
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < thread_count; ++i) {
    threads.emplace_back([&counted, &all, i] {
      all.arrive_and_wait();
      for (int round = 0; round < rounds; ++round) {
        for (int j = 0; j < region_count; ++j) {
          const std::string region = "region " + std::to_string((i * 3 + j) % region_count);
          counted.start(region);
          touch_pages(pages);
          counted.stop(region);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(open_descriptors(), descriptors + 3 * thread_count * region_count);
  counted.finalize_roofline_events();
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;

  EXPECT_EQ(open_descriptors(), descriptors);
  ASSERT_THAT(counted.m_counters_per_region_map, SizeIs(region_count));
  std::uint64_t least = ~0ul;
  std::uint64_t most = 0;
  for (const auto& [region, counters] : counted.m_counters_per_region_map) {
    least = std::min(least, counted.total(region, FAULTS));
    most = std::max(most, counted.total(region, FAULTS));
    EXPECT_EQ(counted.m_time_intervals_map.at(region).size(), static_cast<std::size_t>(thread_count * rounds))
        << region;
    EXPECT_EQ(counted.total(region, "duration_time"),
              static_cast<std::uint64_t>(union_length(counted.m_time_intervals_map.at(region))))
        << region;
  }
  std::printf("%d threads, %d regions, %d rounds of %d pages: %lu to %lu faults a region, %.2f s\n", thread_count,
              region_count, rounds, pages, least, most, seconds.count());
  EXPECT_GE(least, static_cast<std::uint64_t>(thread_count * rounds * pages));
  EXPECT_LT(seconds.count(), 60);
}

}  // namespace
}  // namespace ceilmeter::test
