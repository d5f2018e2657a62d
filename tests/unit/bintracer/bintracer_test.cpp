// The tracer's state: threads, regions and what a flush carries, with counters that the tests set as emitted code
// would.
#include "bintracer/bintracer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "../support/log_capture.h"
#include "bintracer/bintracer_plugin.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class tracer_state : public ::testing::Test {
 protected:
  void start(std::uint32_t mode) { tracer = &start_tracer(mode); }

  // A thread of the application's, with the tracer's data.
  bintracer_thread& begin_thread(std::uint32_t tid) {
    threads.push_back(std::make_unique<bintracer_thread>());
    threads.back()->tid = tid;
    tracer->init_thread(*threads.back());
    return *threads.back();
  }

  // The thread runs the block so many times.
  static void run(bintracer_thread& thread, std::uint64_t start, std::uint64_t times, std::uint64_t end = 0) {
    bb_node* known = thread.blocks.find(start);
    if (known == nullptr) {
      known = &thread.blocks.add(start);
      known->record.end = end != 0 ? end : start + 8;
    }
    known->record.count += times * thread.enable_basic_block_count;
  }

  // "region: start*count ..." of one thread's results.
  static std::vector<std::string> results(const thread_info& info) {
    std::vector<std::string> found;
    for (const region_bbs& region : info.regions) {
      std::string text = region.name + ":";
      for (const bb_record& record : region.bbs) {
        char block[60];
        std::snprintf(block, sizeof block, " %lx*%lu", record.start, record.count);
        text += block;
      }
      found.push_back(text);
    }
    return found;
  }

  bintracer_t* tracer = nullptr;
  std::vector<std::unique_ptr<bintracer_thread>> threads;
};

TEST_F(tracer_state, construction_registers_one_plugin_and_its_events_in_order_after_switching_the_watch_to_manual) {
  start(MODE_TOTAL);
  EXPECT_EQ(engine().plugins, 1);
  EXPECT_THAT(engine().calls, ElementsAre("add_plugin", "manual 1", "event 9", "event 10", "event 17", "event 3",
                                          "event 4", "event 15", "event 11", "event 12", "event 14", "event 13",
                                          "only dummy_func_to_disable_roofline_events"));
}

TEST_F(tracer_state, the_engine_tells_of_the_functions_that_are_watched_by_name_alone) {
  start(MODE_REGION);
  std::vector<std::string> names;
  for (const std::string& call : engine().calls) {
    if (call.rfind("only ", 0) == 0) names.push_back(call.substr(5));
  }
  EXPECT_THAT(names, ElementsAre("dummy_func_to_disable_roofline_events", "start_perf_roofline_events",
                                 "stop_perf_roofline_events"));
}

TEST_F(tracer_state, construction_is_logged) {
  const log_capture log(LEVEL_INFO);
  start(MODE_TOTAL);
  EXPECT_THAT(log.messages(), ElementsAre("info Launch bintracer_ctor"));
}

TEST_F(tracer_state, total_mode_watches_the_dummy_function_alone) {
  start(MODE_TOTAL);
  ASSERT_NE(tracer->find_named_callbacks("dummy_func_to_disable_roofline_events"), nullptr);
  EXPECT_EQ(tracer->find_named_callbacks("dummy_func_to_disable_roofline_events")->pre, pre_dummy_func_cb);
  EXPECT_EQ(tracer->find_named_callbacks("start_perf_roofline_events"), nullptr);
  EXPECT_EQ(tracer->find_named_callbacks("stop_perf_roofline_events"), nullptr);
}

TEST_F(tracer_state, region_mode_watches_start_and_stop_as_well) {
  start(MODE_REGION);
  ASSERT_NE(tracer->find_named_callbacks("dummy_func_to_disable_roofline_events"), nullptr);
  ASSERT_NE(tracer->find_named_callbacks("start_perf_roofline_events"), nullptr);
  ASSERT_NE(tracer->find_named_callbacks("stop_perf_roofline_events"), nullptr);
  EXPECT_EQ(tracer->find_named_callbacks("start_perf_roofline_events")->pre, pre_start_roofline_cb);
  EXPECT_EQ(tracer->find_named_callbacks("stop_perf_roofline_events")->pre, pre_stop_roofline_cb);
  EXPECT_EQ(tracer->find_named_callbacks("start_perf_roofline_events")->post, nullptr);
}

TEST_F(tracer_state, name_registered_twice_throws) {
  start(MODE_TOTAL);
  tracer->watch_by_name("some_function", {});
  try {
    tracer->watch_by_name("some_function", {});
    FAIL() << "the second registration was taken";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "register callback on one name was called twice\n");
  }
}

TEST_F(tracer_state, return_from_the_engine_terminates_with_a_warning) {
  start(MODE_TOTAL);
  char name[] = "./app";
  char* argv[2] = {};
  argv[0] = name;
  EXPECT_DEATH(tracer->collect(1, argv, argv), "Error when run mora_run");
}

TEST_F(tracer_state, thread_counts_from_its_start_in_total_mode) {
  start(MODE_TOTAL);
  const bintracer_thread& thread = begin_thread(7);
  EXPECT_EQ(thread.region, "total");
  EXPECT_EQ(thread.enable_basic_block_count, 1U);
  ASSERT_NE(tracer->first_thread_info(), nullptr);
  EXPECT_EQ(thread.info, tracer->first_thread_info());
  EXPECT_EQ(thread.info->tid, 7U);
}

TEST_F(tracer_state, thread_counts_nothing_at_its_start_in_region_mode) {
  start(MODE_REGION);
  bintracer_thread& creator = begin_thread(1);
  tracer->pre_start_roofline_handler("A", creator);
  const bintracer_thread& thread = begin_thread(2);
  EXPECT_EQ(thread.region, "total");
  EXPECT_EQ(thread.enable_basic_block_count, 0U);
}

TEST_F(tracer_state, threads_stand_newest_first) {
  start(MODE_TOTAL);
  begin_thread(1);
  begin_thread(2);
  begin_thread(3);
  std::vector<std::uint32_t> tids;
  for (const thread_info* info = tracer->first_thread_info(); info != nullptr; info = info->next) {
    tids.push_back(info->tid);
  }
  EXPECT_THAT(tids, ElementsAre(3, 2, 1));
}

TEST_F(tracer_state, thread_start_and_end_are_logged_with_the_counts) {
  start(MODE_TOTAL);
  bintracer_thread& first = begin_thread(1);
  const log_capture log(LEVEL_INFO);
  bintracer_thread& second = begin_thread(2);
  tracer->finish_thread(second);
  tracer->finish_thread(first);
  EXPECT_THAT(log.messages(),
              ElementsAre("info init_thread, thread_count is 2", "info finish_thread, max_thread_count is 0",
                          "info finish_thread, max_thread_count is 2"));
}

TEST_F(tracer_state, total_mode_has_the_single_region_total_in_every_thread) {
  start(MODE_TOTAL);
  for (std::uint32_t tid = 1; tid <= 3; ++tid) {
    bintracer_thread& thread = begin_thread(tid);
    run(thread, 0x1000, tid);
    tracer->finish_thread(thread);
    EXPECT_THAT(results(*thread.info), ElementsAre("total: 1000*" + std::to_string(tid)));
  }
}

TEST_F(tracer_state, blocks_that_did_not_run_are_left_out_of_a_flush) {
  start(MODE_TOTAL);
  bintracer_thread& thread = begin_thread(1);
  run(thread, 0x1000, 5);
  run(thread, 0x2000, 0);
  run(thread, 0x3000, 6);
  tracer->finish_thread(thread);
  EXPECT_THAT(results(*thread.info), ElementsAre("total: 3000*6 1000*5"));
}

TEST_F(tracer_state, thread_without_a_counted_block_leaves_no_region) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  run(thread, 0x1000, 5);
  tracer->finish_thread(thread);
  EXPECT_THAT(thread.info->regions, IsEmpty());
}

TEST_F(tracer_state, region_without_a_counted_block_leaves_its_activity_and_no_blocks) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  tracer->pre_start_roofline_handler("A", thread);
  tracer->pre_stop_roofline_handler("A", thread);
  tracer->finish_thread(thread);
  EXPECT_THAT(thread.info->regions, IsEmpty());
  EXPECT_EQ(tracer->max_active_threads("A"), 1U);
}

TEST_F(tracer_state, blocks_between_start_and_stop_belong_to_the_region) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  run(thread, 0x1000, 100);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3);
  tracer->pre_stop_roofline_handler("A", thread);
  run(thread, 0x1000, 100);
  tracer->pre_start_roofline_handler("B", thread);
  run(thread, 0x1000, 4);
  run(thread, 0x2000, 1);
  tracer->pre_stop_roofline_handler("B", thread);
  tracer->finish_thread(thread);
  EXPECT_THAT(results(*thread.info), ElementsAre("A: 1000*3", "B: 2000*1 1000*4"));
}

TEST_F(tracer_state, same_region_twice_in_a_thread_is_one_with_counts_summed_by_start) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3);
  tracer->pre_stop_roofline_handler("A", thread);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x2000, 1);
  run(thread, 0x1000, 4);
  tracer->pre_stop_roofline_handler("A", thread);
  EXPECT_THAT(results(*thread.info), ElementsAre("A: 1000*7 2000*1"));
}

TEST_F(tracer_state, two_records_of_one_start_become_one_that_keeps_the_first_ones_end) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3, 0x1010);
  tracer->pre_stop_roofline_handler("A", thread);
  thread.blocks.find(0x1000)->record.end = 0x1040;
  thread.blocks.find(0x1000)->record.map_seg_id = 99;
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3);
  tracer->pre_stop_roofline_handler("A", thread);
  ASSERT_THAT(thread.info->regions, SizeIs(1));
  ASSERT_THAT(thread.info->regions[0].bbs, SizeIs(1));
  EXPECT_EQ(thread.info->regions[0].bbs[0].count, 6U);
  EXPECT_EQ(thread.info->regions[0].bbs[0].end, 0x1010U);
  EXPECT_EQ(thread.info->regions[0].bbs[0].map_seg_id, 0U);
}

// More blocks than are searched one by one, new ones and known ones in each round.
TEST_F(tracer_state, region_of_many_blocks_that_is_left_often_has_each_block_once_with_its_sum) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  constexpr std::uint64_t rounds = 30;
  for (std::uint64_t round = 1; round <= rounds; ++round) {
    tracer->pre_start_roofline_handler("A", thread);
    for (std::uint64_t block = 0; block < round * 5; ++block) run(thread, 0x1000 + 4 * block, round);
    tracer->pre_stop_roofline_handler("A", thread);
  }
  ASSERT_THAT(thread.info->regions, SizeIs(1));
  const std::vector<bb_record>& bbs = thread.info->regions[0].bbs;
  ASSERT_THAT(bbs, SizeIs(5 * rounds));
  for (const bb_record& record : bbs) {
    const std::uint64_t first_round = (record.start - 0x1000) / 4 / 5 + 1;
    EXPECT_EQ(record.count, rounds * (rounds + 1) / 2 - first_round * (first_round - 1) / 2)
        << std::hex << record.start;
  }
}

TEST_F(tracer_state, generated_code_of_one_start_stays_apart_in_a_region_that_is_left_often) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  for (std::uint64_t block = 0; block < 40; ++block) {
    const auto word = static_cast<std::uint32_t>(block);
    thread.blocks.add(0x1000).record.code = tracer->keep_code(0x1000, &word, 1);
  }
  for (int round = 0; round < 3; ++round) {
    tracer->pre_start_roofline_handler("A", thread);
    thread.blocks.for_each([](bb_record& record) { record.count = record.code->version; });
    tracer->pre_stop_roofline_handler("A", thread);
  }
  ASSERT_THAT(thread.info->regions[0].bbs, SizeIs(40));
  for (const bb_record& record : thread.info->regions[0].bbs) EXPECT_EQ(record.count, 3 * record.code->version);
}

TEST_F(tracer_state, start_inside_a_region_gives_all_since_the_first_start_to_the_second_name) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  const log_capture log(LEVEL_WARN);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3);
  tracer->pre_start_roofline_handler("B", thread);
  run(thread, 0x2000, 4);
  tracer->pre_stop_roofline_handler("B", thread);
  run(thread, 0x3000, 5);
  tracer->pre_stop_roofline_handler("A", thread);
  tracer->finish_thread(thread);
  EXPECT_THAT(results(*thread.info), ElementsAre("B: 2000*4 1000*3"));
  EXPECT_THAT(log.messages(), ElementsAre("warn pre_stop_roofline_handler: current region total doesn't match A"));
}

TEST_F(tracer_state, stop_of_another_name_closes_the_threads_own_region) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  const log_capture log(LEVEL_INFO);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3);
  tracer->pre_stop_roofline_handler("B", thread);
  EXPECT_THAT(log.messages(), ElementsAre("info pre_start_roofline_handler: A", "info pre_stop_roofline_handler: B",
                                          "warn pre_stop_roofline_handler: current region A doesn't match B"));
  EXPECT_THAT(results(*thread.info), ElementsAre("A: 1000*3"));
  EXPECT_EQ(tracer->max_active_threads("A"), 1U);
  EXPECT_EQ(tracer->max_active_threads("B"), 0U);
  EXPECT_EQ(thread.region, "total");
  EXPECT_EQ(thread.enable_basic_block_count, 0U);
}

TEST_F(tracer_state, stop_without_a_start_changes_nothing) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  const log_capture log(LEVEL_WARN);
  tracer->pre_stop_roofline_handler("A", thread);
  EXPECT_THAT(thread.info->regions, IsEmpty());
  EXPECT_EQ(tracer->max_active_threads("A"), 0U);
  EXPECT_EQ(tracer->max_active_threads("total"), 0U);
}

TEST_F(tracer_state, most_threads_of_a_region_are_counted_when_one_leaves_it) {
  start(MODE_REGION);
  for (std::uint32_t tid = 1; tid <= 3; ++tid) tracer->pre_start_roofline_handler("A", begin_thread(tid));
  EXPECT_EQ(tracer->max_active_threads("A"), 0U);
  tracer->pre_stop_roofline_handler("A", *threads[0]);
  EXPECT_EQ(tracer->max_active_threads("A"), 3U);
  tracer->pre_stop_roofline_handler("A", *threads[1]);
  tracer->pre_start_roofline_handler("A", *threads[1]);
  tracer->pre_stop_roofline_handler("A", *threads[1]);
  EXPECT_EQ(tracer->max_active_threads("A"), 3U);
}

TEST_F(tracer_state, thread_that_ends_inside_a_region_is_counted_there_and_leaves_its_activity_alone) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread(1);
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, 0x1000, 3);
  tracer->finish_thread(thread);
  EXPECT_THAT(results(*thread.info), ElementsAre("A: 1000*3"));
  EXPECT_EQ(tracer->max_active_threads("A"), 0U);
}

TEST_F(tracer_state, many_regions_keep_their_activity_apart) {
  start(MODE_REGION);
  bintracer_thread& first = begin_thread(1);
  bintracer_thread& second = begin_thread(2);
  tracer->pre_start_roofline_handler("region 7", second);
  for (int index = 0; index < 1000; ++index) {
    const std::string name = "region " + std::to_string(index);
    tracer->pre_start_roofline_handler(name.c_str(), first);
    tracer->pre_stop_roofline_handler(name.c_str(), first);
  }
  EXPECT_EQ(tracer->max_active_threads("region 7"), 2U);
  EXPECT_EQ(tracer->max_active_threads("region 8"), 1U);
  EXPECT_EQ(tracer->max_active_threads("region 999"), 1U);
}

// If more threads end than begin, the count goes below 0. It is then cut to the 32 bits that a thread id has.
TEST_F(tracer_state, count_of_threads_is_reduced_to_its_low_32_bits_before_it_becomes_the_highest) {
  start(MODE_TOTAL);
  bintracer_thread& thread = begin_thread(1);
  const log_capture log(LEVEL_INFO);
  for (int end = 0; end < 4; ++end) tracer->finish_thread(thread);
  EXPECT_THAT(
      log.messages(),
      ElementsAre("info finish_thread, max_thread_count is 0", "info finish_thread, max_thread_count is 1",
                  "info finish_thread, max_thread_count is 1", "info finish_thread, max_thread_count is 4294967295"));
}

// A process has one report: get_report remembers for the process's life that it has run.
TEST_F(tracer_state, second_report_is_empty_with_a_warning) {
  start(MODE_TOTAL);
  bintracer_thread& first = begin_thread(1);
  bintracer_thread& second = begin_thread(2);
  run(first, 0x1000, 3);
  tracer->finish_thread(second);
  tracer->finish_thread(first);
  const bintracer_report report = tracer->get_report();
  ASSERT_THAT(report.regions, SizeIs(1));
  EXPECT_EQ(report.regions[0].name, "total");
  EXPECT_EQ(report.regions[0].threads, 2U);
  EXPECT_EQ(report.max_thread_count, 2U);

  const log_capture log(LEVEL_WARN);
  const bintracer_report again = tracer->get_report();
  EXPECT_THAT(again.regions, IsEmpty());
  EXPECT_EQ(again.max_thread_count, 0U);
  EXPECT_THAT(log.messages(),
              ElementsAre("warn Bintracer's get_report method was called early, it is forbidden to call "
                          "this method twice"));
}

}  // namespace
}  // namespace ceilmeter::test
