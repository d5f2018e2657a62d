// From counted blocks to the report, over module files of the tests' own.
#include "bintracer/bintracer_finalizer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "../support/log_capture.h"
#include "../support/scratch_folder.h"
#include "finalizer_fixture.h"

namespace ceilmeter::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

TEST_F(tracer_finalizer, block_has_its_addresses_offsets_count_module_and_work) {
  start(MODE_TOTAL);
  const std::string module = map_module({nop, fadd_double, fmadd_double, nop, fmla_two_doubles}, code, 0x2000);
  instruction_finder finder;
  const basic_block_record block = metrics_of(finder, {77, code + 4, code + 20, tracer->search_segment(code)});
  EXPECT_EQ(block.start, code + 4);
  EXPECT_EQ(block.end, code + 20);
  EXPECT_EQ(block.dump_start, 0x2004U);
  EXPECT_EQ(block.dump_end, 0x2014U);
  EXPECT_EQ(block.count, 77);
  EXPECT_EQ(block.module, module);
  EXPECT_EQ(block.flop, 1 + 2 + 4);
  EXPECT_EQ(block.vector_length, 2);
}

TEST_F(tracer_finalizer, vector_length_is_the_largest_element_count) {
  start(MODE_TOTAL);
  EXPECT_EQ(metrics_of({fadd_double, fadd_four_singles, fmla_two_doubles}).vector_length, 4);
}

TEST_F(tracer_finalizer, block_without_floating_point_work_has_no_vector_length) {
  start(MODE_TOTAL);
  const basic_block_record block = metrics_of({nop, nop});
  EXPECT_EQ(block.flop, 0);
  EXPECT_EQ(block.vector_length, 0);
}

TEST_F(tracer_finalizer, half_precision_counts_like_the_others) {
  start(MODE_TOTAL);
  EXPECT_EQ(metrics_of({fadd_half, fadd_half}).flop, 2);
}

// A scalable instruction has the multiplier of the instruction before it: 2 times 2 and 4 times 2.
TEST_F(tracer_finalizer, scalable_multiply_add_takes_over_the_multiplier_of_the_instruction_before) {
  start(MODE_TOTAL);
  const basic_block_record block = metrics_of({fmla_two_doubles, sve_fmla_doubles});
  EXPECT_EQ(block.flop, 12);
  EXPECT_EQ(block.vector_length, 4);
}

TEST_F(tracer_finalizer, scalable_multiply_after_a_multiply_add_counts_twice_and_after_an_addition_once) {
  start(MODE_TOTAL);
  EXPECT_EQ(metrics_of({fmadd_double, sve_fmul_singles}).flop, 2 + 8);
  EXPECT_EQ(metrics_of({fadd_double, sve_fmul_singles}).flop, 1 + 4);
}

TEST_F(tracer_finalizer, scalable_instruction_at_the_head_of_a_block_counts_once) {
  start(MODE_TOTAL);
  EXPECT_EQ(metrics_of({sve_fmul_singles}).flop, 4);
}

TEST_F(tracer_finalizer, block_of_64_instructions_is_one_part) {
  start(MODE_TOTAL);
  const log_capture log(LEVEL_TRACE);
  EXPECT_EQ(metrics_of(std::vector<std::uint32_t>(64, fadd_double)).flop, 64);
  const std::string path = folder / "module";
  EXPECT_THAT(log.messages(),
              Contains("trace Read basic block from module " + path + ", start_off=0, end_of=100, partial_bb_num=1"));
  EXPECT_THAT(log.messages(), Contains("trace Read partial basic block start_off=0, partial_bb_size=100"));
}

TEST_F(tracer_finalizer, block_of_65_instructions_is_read_in_two_parts) {
  start(MODE_TOTAL);
  const log_capture log(LEVEL_TRACE);
  EXPECT_EQ(metrics_of(std::vector<std::uint32_t>(65, fadd_double)).flop, 65);
  EXPECT_THAT(log.messages(), Contains("trace Read partial basic block start_off=0, partial_bb_size=100"));
  EXPECT_THAT(log.messages(), Contains("trace Read partial basic block start_off=100, partial_bb_size=4"));
}

TEST_F(tracer_finalizer, block_of_5000_instructions_is_counted_whole) {
  start(MODE_TOTAL);
  std::vector<std::uint32_t> words(4000, fmadd_double);
  words.resize(5000, fadd_double);
  start(MODE_TOTAL);
  const std::string module = map_module(words);
  tracer->register_mmap(code, code + 0x8000, 0, 5, 2, next_fd - 1);
  instruction_finder finder;
  EXPECT_EQ(metrics_of(finder, {1, code, code + 20000, tracer->search_segment(code)}).flop, 9000);
}

TEST_F(tracer_finalizer, each_counted_instruction_is_logged_with_its_place) {
  start(MODE_TOTAL);
  const log_capture log(LEVEL_TRACE);
  metrics_of({nop, fadd_four_singles});
  EXPECT_THAT(log.messages(),
              Contains("trace instr_off=4, instr_flop.precision=1, instr_flop.fclass=1, instr_flop.count=4"));
}

TEST_F(tracer_finalizer, block_with_less_than_a_word_is_not_read) {
  start(MODE_TOTAL);
  map_module({fadd_double});
  instruction_finder finder;
  const log_capture log(LEVEL_WARN);
  EXPECT_EQ(metrics_of(finder, {1, code, code + 3, tracer->search_segment(code)}).flop, 0);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(tracer_finalizer, block_without_a_segment_keeps_its_addresses_alone) {
  start(MODE_TOTAL);
  instruction_finder finder;
  const log_capture log(LEVEL_DEBUG);
  const basic_block_record block = metrics_of(finder, {5, 0x9000, 0x9010, 0});
  EXPECT_EQ(block.start, 0x9000U);
  EXPECT_EQ(block.end, 0x9010U);
  EXPECT_EQ(block.count, 0);
  EXPECT_EQ(block.flop, 0);
  EXPECT_EQ(block.module, "");
  EXPECT_THAT(log.messages(), ElementsAre("debug Cant find mapping segment at 9000 address", ""));
}

// A position beyond 4 GiB wraps, deliberately.
TEST_F(tracer_finalizer, high_half_of_a_segments_offset_is_not_used) {
  start(MODE_TOTAL);
  map_module({fadd_double}, code, 0x2000);
  tracer->register_mmap(code, code + 0x1000, 0x500002000, 5, 2, next_fd - 1);
  instruction_finder finder;
  const basic_block_record block = metrics_of(finder, {1, code, code + 4, tracer->search_segment(code)});
  EXPECT_EQ(block.dump_start, 0x2000U);
  EXPECT_EQ(block.dump_end, 0x2004U);
  EXPECT_EQ(block.flop, 1);
}

// All 32 bits of the low half are used, the highest one without a sign.
TEST_F(tracer_finalizer, low_half_of_a_segments_offset_is_used_whole) {
  start(MODE_TOTAL);
  const std::string module = map_module({nop});
  std::filesystem::resize_file(module, 0x100000000);  // Nothing but a hole.
  tracer->register_mmap(code, code + 0x1000, 0x1fffff000, 5, 2, next_fd - 1);
  instruction_finder finder;
  EXPECT_EQ(metrics_of(finder, {1, code, code + 4, tracer->search_segment(code)}).dump_start, 0xfffff000U);
}

TEST_F(tracer_finalizer, module_deleted_since_the_run_gives_warnings_and_no_record) {
  start(MODE_TOTAL);
  const std::string module = map_module({fadd_double, fadd_double});
  bintracer_thread& thread = begin_thread();
  run(thread, code, 2, 10);
  tracer->finish_thread(thread);
  std::filesystem::remove(module);
  const log_capture log(LEVEL_WARN);
  const bintracer_report result = report();
  ASSERT_THAT(result.regions, SizeIs(1));
  EXPECT_EQ(result.regions[0].bbs.size(), 0U);
  EXPECT_THAT(log.messages(), ElementsAre("warn Failed to make canonical from " + module, "No such file or directory",
                                          "warn Failed to read basic block from module = " + module +
                                              ", start_offset = 0, end_offset = 8"));
}

TEST_F(tracer_finalizer, module_truncated_since_the_run_keeps_the_work_of_the_parts_before) {
  start(MODE_TOTAL);
  const std::string module = map_module(std::vector<std::uint32_t>(100, fadd_double));
  ASSERT_EQ(truncate(module.c_str(), 4 * 70), 0);
  instruction_finder finder;
  const log_capture log(LEVEL_WARN);
  EXPECT_EQ(metrics_of(finder, {1, code, code + 400, tracer->search_segment(code)}).flop, 64);
  EXPECT_THAT(log.messages(), SizeIs(2));
}

TEST_F(tracer_finalizer, module_whose_path_has_blanks_and_other_letters_is_read) {
  start(MODE_TOTAL);
  const std::string module = map_module({fadd_double}, code, 0, "a möd ule");
  bintracer_thread& thread = begin_thread();
  run(thread, code, 1, 10);
  tracer->finish_thread(thread);
  const bintracer_report result = report();
  ASSERT_NE(result.regions.at(0).bbs.find(code), nullptr);
  EXPECT_EQ(result.regions[0].bbs.find(code)->module, module);
}

TEST_F(tracer_finalizer, same_block_in_two_threads_is_one_record_with_summed_count_and_the_work_of_one_execution) {
  start(MODE_TOTAL);
  map_module({fmadd_double, fadd_double});
  bintracer_thread& first = begin_thread(1);
  bintracer_thread& second = begin_thread(2);
  run(first, code, 2, 10);
  run(second, code, 2, 7);
  tracer->finish_thread(second);
  tracer->finish_thread(first);
  const bintracer_report result = report(2);
  ASSERT_THAT(result.regions, SizeIs(1));
  ASSERT_EQ(result.regions[0].bbs.size(), 1U);
  EXPECT_EQ(result.regions[0].bbs.find(code)->count, 17);
  EXPECT_EQ(result.regions[0].bbs.find(code)->flop, 3);
  EXPECT_EQ(result.regions[0].flop, 0U) << "the product with the counts is taken when the report is written";
}

TEST_F(tracer_finalizer, block_of_many_threads_is_read_once) {
  start(MODE_TOTAL);
  map_module({fmadd_double, fadd_double});
  block_work_table known;
  instruction_finder finder;
  const std::uint64_t segment = tracer->search_segment(code);
  EXPECT_EQ(calculate_bb_metrics(finder, {1, code, code + 8, segment}, known).flop, 3);
  ASSERT_EQ(truncate((folder / "module").c_str(), 0), 0);
  const basic_block_record again = calculate_bb_metrics(finder, {5, code, code + 8, segment}, known);
  EXPECT_EQ(again.flop, 3);
  EXPECT_EQ(again.count, 5);
  EXPECT_EQ(again.vector_length, 1);
  EXPECT_EQ(again.dump_end, 8U);
  EXPECT_EQ(again.module, folder / "module");
}

TEST_F(tracer_finalizer, block_of_the_same_start_with_another_end_or_segment_is_read_anew) {
  start(MODE_TOTAL);
  map_module({fmadd_double, fadd_double});
  block_work_table known;
  instruction_finder finder;
  const std::uint64_t segment = tracer->search_segment(code);
  EXPECT_EQ(calculate_bb_metrics(finder, {1, code, code + 8, segment}, known).flop, 3);
  EXPECT_EQ(calculate_bb_metrics(finder, {1, code, code + 4, segment}, known).flop, 2);
  map_module({nop, fadd_double}, code, 0, "other");
  EXPECT_EQ(calculate_bb_metrics(finder, {1, code, code + 8, tracer->search_segment(code)}, known).flop, 1);
}

TEST_F(tracer_finalizer, block_that_cannot_be_read_is_tried_and_reported_for_each_thread) {
  start(MODE_TOTAL);
  const std::string module = map_module({fmadd_double});
  std::filesystem::remove(module);
  for (std::uint32_t tid = 1; tid <= 3; ++tid) {
    bintracer_thread& thread = begin_thread(tid);
    run(thread, code, 1, 1);
    tracer->finish_thread(thread);
  }
  const log_capture log(LEVEL_WARN);
  report();
  EXPECT_THAT(log.messages(), SizeIs(3 * 3));
}

TEST_F(tracer_finalizer, most_detailed_log_names_the_instructions_of_every_thread) {
  start(MODE_TOTAL);
  map_module({fmadd_double});
  for (std::uint32_t tid = 1; tid <= 3; ++tid) {
    bintracer_thread& thread = begin_thread(tid);
    run(thread, code, 1, 1);
    tracer->finish_thread(thread);
  }
  const log_capture log(LEVEL_TRACE);
  EXPECT_EQ(report().regions.at(0).bbs.find(code)->count, 3);
  const std::vector<std::string> lines = log.messages();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "trace instr_off=0, instr_flop.precision=2, instr_flop.fclass=0, instr_flop.count=1"),
            3);
}

TEST_F(tracer_finalizer, merged_block_keeps_what_the_newest_thread_has_but_for_the_count) {
  start(MODE_TOTAL);
  map_module({fadd_double, fadd_double});
  bintracer_thread& older = begin_thread(1);
  bintracer_thread& newer = begin_thread(2);
  run(older, code, 2, 10);
  run(newer, code, 1, 7);
  tracer->finish_thread(newer);
  tracer->finish_thread(older);
  const bintracer_report result = report(2);
  const basic_block_record* block = result.regions.at(0).bbs.find(code);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->end, code + 4);
  EXPECT_EQ(block->flop, 1);
  EXPECT_EQ(block->count, 17);
}

TEST_F(tracer_finalizer, same_block_in_two_regions_is_a_record_in_each_with_its_own_count) {
  start(MODE_REGION);
  map_module({fadd_double});
  bintracer_thread& thread = begin_thread();
  tracer->pre_start_roofline_handler("A", thread);
  run(thread, code, 1, 10);
  tracer->pre_stop_roofline_handler("A", thread);
  tracer->pre_start_roofline_handler("B", thread);
  run(thread, code, 1, 7);
  tracer->pre_stop_roofline_handler("B", thread);
  tracer->finish_thread(thread);
  const bintracer_report result = report();
  ASSERT_THAT(result.regions, SizeIs(2));
  EXPECT_EQ(result.regions[0].name, "A");
  EXPECT_EQ(result.regions[0].bbs.find(code)->count, 10);
  EXPECT_EQ(result.regions[1].name, "B");
  EXPECT_EQ(result.regions[1].bbs.find(code)->count, 7);
}

TEST_F(tracer_finalizer, regions_stand_in_the_order_of_the_newest_thread_that_has_them) {
  start(MODE_REGION);
  map_module({fadd_double});
  for (std::uint32_t tid = 1; tid <= 2; ++tid) {
    bintracer_thread& thread = begin_thread(tid);
    for (const char* name : tid == 1 ? std::vector<const char*>{"C", "A"} : std::vector<const char*>{"B", "A"}) {
      tracer->pre_start_roofline_handler(name, thread);
      run(thread, code, 1, 1);
      tracer->pre_stop_roofline_handler(name, thread);
    }
    tracer->finish_thread(thread);
  }
  std::vector<std::string> names;
  for (const bintracer_region& region : report().regions) names.push_back(region.name);
  EXPECT_THAT(names, ElementsAre("B", "A", "C"));
}

TEST_F(tracer_finalizer, total_region_has_the_highest_thread_count_of_the_run) {
  start(MODE_TOTAL);
  map_module({fadd_double});
  bintracer_thread& thread = begin_thread();
  run(thread, code, 1, 1);
  tracer->finish_thread(thread);
  const bintracer_report result = report(6);
  ASSERT_THAT(result.regions, SizeIs(1));
  EXPECT_EQ(result.regions[0].name, "total");
  EXPECT_EQ(result.regions[0].threads, 6U);
  EXPECT_EQ(result.max_thread_count, 6U);
}

TEST_F(tracer_finalizer, named_region_has_the_most_threads_that_it_had_at_a_stop) {
  start(MODE_REGION);
  map_module({fadd_double});
  bintracer_thread& first = begin_thread(1);
  bintracer_thread& second = begin_thread(2);
  tracer->pre_start_roofline_handler("A", first);
  tracer->pre_start_roofline_handler("A", second);
  run(first, code, 1, 1);
  tracer->pre_stop_roofline_handler("A", first);
  tracer->pre_stop_roofline_handler("A", second);
  tracer->pre_start_roofline_handler("B", first);
  run(first, code, 1, 1);
  tracer->finish_thread(first);
  tracer->finish_thread(second);
  const bintracer_report result = report(9);
  ASSERT_THAT(result.regions, SizeIs(2));
  EXPECT_EQ(result.regions[0].threads, 2U);
  EXPECT_EQ(result.regions[1].name, "B");
  EXPECT_EQ(result.regions[1].threads, 0U) << "nobody has stopped it";
}

TEST_F(tracer_finalizer, region_whose_blocks_have_no_floating_point_work_stays_without_blocks) {
  start(MODE_TOTAL);
  map_module({nop});
  bintracer_thread& thread = begin_thread();
  run(thread, code, 1, 1);
  tracer->finish_thread(thread);
  const bintracer_report result = report();
  ASSERT_THAT(result.regions, SizeIs(1));
  EXPECT_EQ(result.regions[0].bbs.size(), 0U);
  EXPECT_EQ(result.max_thread_count, 1U);
}

TEST_F(tracer_finalizer, region_mode_without_a_region_gives_an_empty_report_with_a_warning) {
  start(MODE_REGION);
  bintracer_thread& thread = begin_thread();
  tracer->finish_thread(thread);
  const log_capture log(LEVEL_WARN);
  const bintracer_report result = report(1);
  EXPECT_THAT(result.regions, IsEmpty());
  EXPECT_EQ(result.max_thread_count, 0U);
  EXPECT_THAT(log.messages(), ElementsAre("warn No flop in regions collected!"));
}

TEST_F(tracer_finalizer, thread_that_ends_outside_all_regions_adds_nothing) {
  start(MODE_REGION);
  map_module({fadd_double});
  bintracer_thread& inside = begin_thread(1);
  bintracer_thread& outside = begin_thread(2);
  tracer->pre_start_roofline_handler("A", inside);
  run(inside, code, 1, 3);
  tracer->pre_stop_roofline_handler("A", inside);
  run(outside, code, 1, 0);
  tracer->finish_thread(outside);
  tracer->finish_thread(inside);
  const bintracer_report result = report(2);
  ASSERT_THAT(result.regions, SizeIs(1));
  EXPECT_EQ(result.regions[0].bbs.find(code)->count, 3);
}

TEST_F(tracer_finalizer, blocks_with_and_without_work_are_counted_in_the_log) {
  start(MODE_TOTAL);
  map_module({fadd_double, nop, fadd_double});
  bintracer_thread& thread = begin_thread();
  for (std::uint64_t index = 0; index < 3; ++index) run(thread, code + 4 * index, 1, 1);
  tracer->finish_thread(thread);
  const log_capture log(LEVEL_DEBUG);
  report();
  EXPECT_THAT(log.messages(), Contains("debug 3 bbs collected for region total"));
  EXPECT_THAT(log.messages(), Contains("debug 2 bbs with flop collected for region total"));
}

TEST_F(tracer_finalizer, module_of_many_blocks_is_opened_once) {
  start(MODE_TOTAL);
  const std::string module = map_module(std::vector<std::uint32_t>(1000, fadd_double));
  for (std::uint32_t tid = 1; tid <= 3; ++tid) {
    bintracer_thread& thread = begin_thread(tid);
    for (std::uint64_t index = 0; index < 100; ++index) run(thread, code + 40 * index, 10, 1);
    tracer->finish_thread(thread);
  }
  const log_capture log(LEVEL_DEBUG);
  const bintracer_report result = report();
  EXPECT_EQ(result.regions.at(0).bbs.size(), 100U);
  const std::vector<std::string> lines = log.messages();
  EXPECT_EQ(
      std::count(lines.begin(), lines.end(), "debug Try to open file " + std::filesystem::canonical(module).string()),
      1);
}

}  // namespace
}  // namespace ceilmeter::test
