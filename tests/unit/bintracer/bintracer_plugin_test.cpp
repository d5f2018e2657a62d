// The callbacks, called as the engine calls them: what they keep, and what they have it write into the code.
#include "bintracer/bintracer_plugin.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "../support/log_capture.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class tracer_callbacks : public ::testing::Test {
 protected:
  void start(std::uint32_t mode) {
    tracer = &start_tracer(mode);
    first.tid = 100;
    engine().deliver(MORA_THREAD_INIT, first);
  }
  ~tracer_callbacks() override {
    if (first.plugin_data != nullptr) engine().deliver(MORA_THREAD_EXIT, first);
  }

  static std::string hex(const void* place) {
    char text[20];
    std::snprintf(text, sizeof text, "%lx", reinterpret_cast<unsigned long>(place));
    return text;
  }

  static bb_record& block(const thread_data& thread, std::uint64_t start) {
    return tracer_thread(thread).blocks.find(start)->record;
  }

  // A module's code at [begin, begin + 0x2000) of the file at `fd`.
  void map_module(std::uint64_t begin, std::int32_t fd) {
    engine().deliver_vm_op(VM_MAP, begin, 0x2000, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0x1000);
  }

  bintracer_t* tracer = nullptr;
  thread_data first;
};

TEST_F(tracer_callbacks, first_thread_gets_its_data_at_its_init) {
  start(MODE_TOTAL);
  ASSERT_NE(first.plugin_data, nullptr);
  EXPECT_EQ(tracer_thread(first).tid, 100U);
  EXPECT_EQ(tracer_thread(first).region, "total");
}

TEST_F(tracer_callbacks, cloned_thread_finds_the_data_that_its_parent_has_made) {
  start(MODE_TOTAL);
  thread_data child;
  engine().deliver_clone(first, child);
  void* made = child.plugin_data;
  ASSERT_NE(made, nullptr);
  child.tid = 101;
  child.next = &first;
  engine().deliver(MORA_THREAD_INIT, child);
  EXPECT_EQ(child.plugin_data, made);
  EXPECT_EQ(tracer_thread(child).tid, 101U);
  EXPECT_EQ(tracer_thread(child).parent_tid, 100U);
  EXPECT_EQ(tracer->first_thread_info()->tid, 101U);
  engine().deliver(MORA_THREAD_EXIT, child);
}

TEST_F(tracer_callbacks, ended_threads_counts_are_kept_in_its_info) {
  start(MODE_TOTAL);
  engine().deliver_block(first, 0x5000, 0x5010);
  block(first, 0x5000).count = 12;
  engine().deliver(MORA_THREAD_EXIT, first);
  first.plugin_data = nullptr;
  const thread_info* info = tracer->first_thread_info();
  ASSERT_EQ(info->regions.size(), 1U);
  ASSERT_EQ(info->regions[0].bbs.size(), 1U);
  EXPECT_EQ(info->regions[0].bbs[0].count, 12U);
  EXPECT_EQ(info->regions[0].bbs[0].start, 0x5000U);
  EXPECT_EQ(info->regions[0].bbs[0].end, 0x5010U);
}

TEST_F(tracer_callbacks, exit_runs_what_the_tracer_was_made_with) {
  start(MODE_TOTAL);
  engine().deliver(MORA_EXIT, first);
  EXPECT_EQ(finishes().calls, 1);
}

// The child of a fork also ends through the engine, but the result belongs to the process that was started.
TEST_F(tracer_callbacks, exit_in_a_forked_child_runs_nothing) {
  start(MODE_TOTAL);
  const pid_t child = fork();
  if (child == 0) {
    engine().deliver(MORA_EXIT, first);
    _exit(finishes().calls);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(tracer_callbacks, total_mode_counts_every_execution) {
  start(MODE_TOTAL);
  engine().deliver_block(first, 0x5000, 0x5010);
  EXPECT_THAT(engine().emitted, ElementsAre("count " + hex(&block(first, 0x5000).count)));
}

TEST_F(tracer_callbacks, region_mode_adds_the_threads_enable_word) {
  start(MODE_REGION);
  engine().deliver_block(first, 0x5000, 0x5010);
  const std::string counter = hex(&block(first, 0x5000).count);
  EXPECT_THAT(engine().emitted, ElementsAre("save 300000", "x20 = " + counter,
                                            "x21 = " + hex(&tracer_thread(first).enable_basic_block_count),
                                            "ldr x20, [x20]", "ldr x21, [x21]", "add x20, x20, x21", "x21 = " + counter,
                                            "str x20, [x21]", "restore 300000"));
}

// The words of the counter's page stand between what the services write.
TEST_F(tracer_callbacks, region_mode_reaches_a_counter_near_the_code_by_adrp) {
  start(MODE_REGION);
  void* const page = mmap(nullptr, 0x1000, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  engine().code = static_cast<std::uint32_t*>(page);
  engine().deliver_block(first, 0x5000, 0x5010);
  const std::vector<std::uint32_t>& words = engine().words;
  ASSERT_GE(words.size(), 2U);
  EXPECT_EQ(words.front() & 0x9f00001f, 0x90000014U);  // adrp x20, ...
  EXPECT_EQ(words.back() & 0x9f00001f, 0x90000015U);   // adrp x21, ...
  const std::uint64_t counter = reinterpret_cast<std::uint64_t>(&block(first, 0x5000).count);
  for (const std::uint32_t* place : {engine().code, engine().code + words.size() - 1}) {
    const std::uint64_t field = (*place >> 5 & 0x7ffff) << 2 | (*place >> 29 & 3);
    const auto pages = static_cast<std::int64_t>(field << 43) >> 43;
    const std::uint64_t from = reinterpret_cast<std::uint64_t>(place) & ~std::uint64_t{0xfff};
    EXPECT_EQ(from + static_cast<std::uint64_t>(pages * 4096), counter & ~std::uint64_t{0xfff});
  }
  const std::string offset = std::to_string(counter % 4096);
  ASSERT_NE(offset, "0");
  EXPECT_THAT(engine().emitted, ::testing::Contains("ldr x20, [x20, #" + offset + "]"));
  EXPECT_THAT(engine().emitted, ::testing::Contains("add x20, x20, x21"));
  EXPECT_THAT(engine().emitted, ::testing::Contains("str x20, [x21, #" + offset + "]"));
  munmap(page, 0x1000);
}

TEST_F(tracer_callbacks, counter_is_the_first_word_of_a_record_of_five) {
  EXPECT_EQ(sizeof(bb_record), 40U);
  EXPECT_EQ(offsetof(bb_record, count), 0U);
  EXPECT_EQ(offsetof(bb_record, start), 8U);
  EXPECT_EQ(offsetof(bb_record, end), 16U);
  EXPECT_EQ(offsetof(bb_record, map_seg_id), 24U);
  EXPECT_EQ(offsetof(bb_record, code), 32U);
}

TEST_F(tracer_callbacks, block_translated_twice_has_one_record_and_keeps_counting) {
  start(MODE_TOTAL);
  engine().deliver_block(first, 0x5000, 0x5010);
  block(first, 0x5000).count = 12;
  const std::vector<std::string> once = engine().emitted;
  for (std::uint64_t other = 0x6000; other < 0x8000; other += 0x10) engine().deliver_block(first, other, other + 8);
  engine().deliver_block(first, 0x5000, 0x5020);
  EXPECT_EQ(engine().emitted, once);
  EXPECT_EQ(block(first, 0x5000).count, 12U);
  EXPECT_EQ(block(first, 0x5000).end, 0x5020U) << "the last translation's end stands";
  EXPECT_EQ(tracer_thread(first).blocks.size(), 1U + 0x200U);
}

TEST_F(tracer_callbacks, one_block_has_a_counter_for_each_thread) {
  start(MODE_TOTAL);
  thread_data second{nullptr, 101, &first};
  engine().deliver_clone(first, second);
  engine().deliver(MORA_THREAD_INIT, second);
  engine().deliver_block(first, 0x5000, 0x5010);
  engine().deliver_block(second, 0x5000, 0x5010);
  EXPECT_NE(&block(first, 0x5000), &block(second, 0x5000));
  engine().deliver(MORA_THREAD_EXIT, second);
}

TEST_F(tracer_callbacks, block_is_tied_to_the_mapping_that_holds_it_when_it_is_first_seen) {
  start(MODE_TOTAL);
  const int fd = open("/dev/null", O_RDONLY);
  map_module(0x5000, fd);
  engine().deliver_block(first, 0x5100, 0x5110);
  const std::uint64_t id = block(first, 0x5100).map_seg_id;
  EXPECT_EQ(mappings_t::get_segment(id).name, "/dev/null");
  EXPECT_EQ(mappings_t::get_segment(id).offset, 0x1000U);
  map_module(0x5000, fd);
  engine().deliver_block(first, 0x5100, 0x5110);
  EXPECT_EQ(block(first, 0x5100).map_seg_id, id);
  engine().deliver_block(first, 0x5200, 0x5210);
  EXPECT_NE(block(first, 0x5200).map_seg_id, id);
  close(fd);
}

TEST_F(tracer_callbacks, block_outside_every_mapping_is_counted_without_a_segment) {
  start(MODE_TOTAL);
  engine().deliver_block(first, 0x5100, 0x5110);
  EXPECT_EQ(block(first, 0x5100).map_seg_id, 0U);
  EXPECT_FALSE(engine().emitted.empty());
}

TEST_F(tracer_callbacks, block_outside_every_mapping_is_kept_with_its_words) {
  start(MODE_TOTAL);
  engine().memory[0x5100] = {1, 2, 3};
  engine().deliver_block(first, 0x5100, 0x510c);
  ASSERT_NE(block(first, 0x5100).code, nullptr);
  EXPECT_THAT(block(first, 0x5100).code->words, ElementsAre(1, 2, 3));
  EXPECT_EQ(block(first, 0x5100).code->start, 0x5100U);
}

TEST_F(tracer_callbacks, block_of_a_file_is_not_kept) {
  start(MODE_TOTAL);
  const int fd = open("/dev/null", O_RDONLY);
  map_module(0x5000, fd);
  engine().deliver_block(first, 0x5100, 0x5110);
  EXPECT_EQ(block(first, 0x5100).code, nullptr);
  close(fd);
}

TEST_F(tracer_callbacks, code_that_is_written_over_is_a_block_of_its_own_and_the_same_again_is_the_first) {
  start(MODE_TOTAL);
  engine().memory[0x5100] = {1, 2};
  engine().deliver_block(first, 0x5100, 0x5108);
  bb_record& old = block(first, 0x5100);
  engine().memory[0x5100] = {1, 3, 4};
  engine().deliver_block(first, 0x5100, 0x510c);
  bb_record& changed = block(first, 0x5100);
  EXPECT_NE(&changed, &old);
  EXPECT_THAT(old.code->words, ElementsAre(1, 2));
  EXPECT_EQ(old.end, 0x5108U);
  EXPECT_THAT(changed.code->words, ElementsAre(1, 3, 4));
  EXPECT_EQ(changed.code->version, 2U);
  engine().memory[0x5100] = {1, 2};
  engine().deliver_block(first, 0x5100, 0x5108);
  EXPECT_THAT(engine().emitted, ::testing::Contains("count " + hex(&old.count)));
}

TEST_F(tracer_callbacks, place_that_gets_ever_new_code_keeps_one_copy_of_each) {
  start(MODE_TOTAL);
  for (std::uint32_t round = 0; round < 60; ++round) {
    engine().memory[0x5100] = {round % 20};
    engine().deliver_block(first, 0x5100, 0x5104);
    EXPECT_EQ(block(first, 0x5100).code->version, round % 20 + 1);
  }
}

TEST_F(tracer_callbacks, equal_blocks_of_two_threads_share_what_is_kept) {
  start(MODE_TOTAL);
  thread_data second{nullptr, 101, &first};
  engine().deliver_clone(first, second);
  engine().deliver(MORA_THREAD_INIT, second);
  engine().deliver_block(first, 0x5000, 0x5010);
  engine().deliver_block(second, 0x5000, 0x5010);
  EXPECT_EQ(block(first, 0x5000).code, block(second, 0x5000).code);
  engine().deliver(MORA_THREAD_EXIT, second);
}

TEST_F(tracer_callbacks, code_in_the_place_of_an_unmapped_module_is_generated_code) {
  start(MODE_TOTAL);
  const int fd = open("/dev/null", O_RDONLY);
  map_module(0x5000, fd);
  engine().deliver_block(first, 0x5100, 0x5110);
  const bb_record& of_module = block(first, 0x5100);
  engine().deliver_vm_op(VM_MAP, 0x5000, 0x2000, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  engine().deliver_block(first, 0x5100, 0x5110);
  EXPECT_NE(&block(first, 0x5100), &of_module);
  EXPECT_EQ(block(first, 0x5100).map_seg_id, 0U);
  EXPECT_NE(block(first, 0x5100).code, nullptr);
  close(fd);
}

TEST_F(tracer_callbacks, memory_with_a_descriptor_is_no_file) {
  start(MODE_TOTAL);
  const int fd = memfd_create("code", MFD_CLOEXEC);
  ASSERT_GE(fd, 0);
  map_module(0x5000, fd);
  EXPECT_EQ(tracer->search_segment(0x5000), 0U);
  close(fd);
}

TEST_F(tracer_callbacks, blocks_are_logged_at_the_lowest_level) {
  start(MODE_REGION);
  const log_capture log(LEVEL_TRACE);
  engine().deliver_block(first, 0x5100, 0x5110);
  EXPECT_THAT(
      log.messages(),
      ElementsAre("trace pre_bb_cb: region is total, bb start 5100, enable_basic_block_count = 0",
                  "debug addr=5100 is lower that any mapping", "trace For basic_block with start=5100, map_seg_id=0",
                  "trace post_bb_cb: region is total, bb start=5100, bb end=5110"));
}

TEST_F(tracer_callbacks, executable_file_mapping_is_registered_in_whole_pages) {
  start(MODE_TOTAL);
  const std::uint64_t page = getauxval(AT_PAGESZ);
  const int fd = open("/dev/null", O_RDONLY);
  const std::uint64_t begin = 16 * page;
  engine().deliver_vm_op(VM_MAP, begin, page + 1, PROT_EXEC, MAP_PRIVATE, fd, 0x3000);
  const mapping_segment segment = mappings_t::get_segment(tracer->search_segment(begin));
  EXPECT_EQ(segment.begin, begin);
  EXPECT_EQ(segment.end, begin + 2 * page);
  EXPECT_EQ(segment.offset, 0x3000U);
  EXPECT_EQ(segment.name, "/dev/null");
  engine().deliver_vm_op(VM_MAP, begin + 8 * page, page, PROT_EXEC, MAP_PRIVATE, fd, 0);
  EXPECT_EQ(mappings_t::get_segment(tracer->search_segment(begin + 8 * page)).end, begin + 9 * page);
  close(fd);
}

TEST_F(tracer_callbacks, generated_code_and_data_are_never_registered) {
  start(MODE_TOTAL);
  const int fd = open("/dev/null", O_RDONLY);
  engine().deliver_vm_op(VM_MAP, 0x10000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  engine().deliver_vm_op(VM_MAP, 0x20000, 0x1000, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
  engine().deliver_vm_op(VM_PROTECT, 0x30000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
  engine().deliver_vm_op(VM_UNMAP, 0x40000, 0x1000, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
  for (const std::uint64_t address : {0x10000, 0x20000, 0x30000, 0x40000}) {
    EXPECT_EQ(tracer->search_segment(address), 0U) << std::hex << address;
  }
  EXPECT_EQ(tracer->fd_name(fd), "");
  close(fd);
}

TEST_F(tracer_callbacks, mapping_without_a_descriptor_is_registered_without_a_name) {
  start(MODE_TOTAL);
  map_module(0x10000, -1);
  const std::uint64_t id = tracer->search_segment(0x10000);
  ASSERT_NE(id, 0U);
  EXPECT_EQ(mappings_t::get_segment(id).name, "");
}

TEST_F(tracer_callbacks, failed_mapping_leaves_the_descriptors_name_and_no_segment) {
  start(MODE_TOTAL);
  const int fd = open("/dev/null", O_RDONLY);
  const std::uint64_t no_memory = ~std::uint64_t{0} - 11;  // -ENOMEM
  engine().deliver_vm_op(VM_MAP, no_memory, 0x1000, PROT_EXEC, MAP_PRIVATE, fd, 0);
  EXPECT_EQ(tracer->fd_name(fd), "/dev/null");
  EXPECT_EQ(tracer->search_segment(no_memory), 0U);
  close(fd);
}

TEST_F(tracer_callbacks, descriptor_without_a_file_ends_the_run) {
  start(MODE_TOTAL);
  EXPECT_THROW(map_module(0x10000, 987654), std::filesystem::filesystem_error);
}

TEST_F(tracer_callbacks, watched_name_is_watched_at_its_address) {
  start(MODE_REGION);
  engine().deliver_symbol("start_perf_roofline_events", 0x7000);
  engine().deliver_symbol("stop_perf_roofline_events", 0x7100);
  engine().deliver_symbol("main", 0x7200);
  EXPECT_THAT(engine().watched, ElementsAre(0x7000, 0x7100));
  EXPECT_EQ(tracer->find_watched_function(0x7000).pre, pre_start_roofline_cb);
}

TEST_F(tracer_callbacks, versioned_name_is_not_watched) {
  start(MODE_REGION);
  engine().deliver_symbol("start_perf_roofline_events@VERS_1", 0x7000);
  engine().deliver_symbol("start_perf_roofline_events@@VERS_1", 0x7100);
  engine().deliver_symbol("@start_perf_roofline_events", 0x7200);
  EXPECT_THAT(engine().watched, IsEmpty());
}

TEST_F(tracer_callbacks, name_that_a_watched_one_begins_or_ends_is_not_watched) {
  start(MODE_REGION);
  engine().deliver_symbol("start_perf_roofline_events2", 0x7000);
  engine().deliver_symbol("start_perf_roofline_event", 0x7100);
  engine().deliver_symbol("", 0x7200);
  EXPECT_THAT(engine().watched, IsEmpty());
}

TEST_F(tracer_callbacks, address_that_is_known_keeps_its_first_entry) {
  start(MODE_REGION);
  engine().deliver_symbol("start_perf_roofline_events", 0x7000);
  engine().deliver_symbol("stop_perf_roofline_events", 0x7000);
  EXPECT_EQ(tracer->find_watched_function(0x7000).pre, pre_start_roofline_cb);
}

TEST_F(tracer_callbacks, total_mode_leaves_the_region_functions_alone_while_the_dummy_still_tells_the_application) {
  start(MODE_TOTAL);
  engine().deliver_symbol("start_perf_roofline_events", 0x7000);
  engine().deliver_symbol("stop_perf_roofline_events", 0x7100);
  engine().deliver_symbol("dummy_func_to_disable_roofline_events", 0x7200);
  EXPECT_THAT(engine().watched, ElementsAre(0x7200));
  engine().deliver_function(MORA_PRE_FUNCTION, first, 0x7000);
  EXPECT_THAT(engine().emitted, IsEmpty());
  engine().deliver_function(MORA_PRE_FUNCTION, first, 0x7200);
  EXPECT_THAT(engine().emitted, ElementsAre("save 2", "x1 = 1", "str x1, [x0]", "restore 2"));
}

TEST_F(tracer_callbacks, entry_of_a_region_function_calls_its_handler_with_the_name_and_the_threads_data) {
  start(MODE_REGION);
  engine().deliver_symbol("start_perf_roofline_events", 0x7000);
  engine().deliver_symbol("stop_perf_roofline_events", 0x7100);
  using handler = void (*)(const char*, bintracer_thread*);
  const auto handler_at = [this](std::uint64_t address) -> handler {
    engine().deliver_function(MORA_PRE_FUNCTION, first, address);
    EXPECT_EQ(engine().emitted.size(), 4U);
    EXPECT_EQ(engine().emitted[0], "save 3");
    EXPECT_EQ(engine().emitted[1], "x1 = " + hex(&tracer_thread(first)));
    EXPECT_EQ(engine().emitted[3], "restore 3");
    unsigned long function = 0;
    unsigned arguments = 0;
    EXPECT_EQ(std::sscanf(engine().emitted[2].c_str(), "call %lx with %u", &function, &arguments), 2);
    EXPECT_EQ(arguments, 2U);
    return reinterpret_cast<handler>(function);
  };
  const handler start_handler = handler_at(0x7000);
  const handler stop_handler = handler_at(0x7100);
  start_handler("solve", &tracer_thread(first));
  EXPECT_EQ(tracer_thread(first).region, "solve");
  EXPECT_EQ(tracer_thread(first).enable_basic_block_count, 1U);
  stop_handler("solve", &tracer_thread(first));
  EXPECT_EQ(tracer_thread(first).region, "total");
  EXPECT_EQ(tracer->max_active_threads("solve"), 1U);
}

TEST_F(tracer_callbacks, other_functions_and_returns_have_nothing_written) {
  start(MODE_REGION);
  engine().deliver_function(MORA_PRE_FUNCTION, first, 0x7000);
  EXPECT_THAT(engine().emitted, IsEmpty());
  engine().deliver_symbol("start_perf_roofline_events", 0x7000);
  engine().deliver_function(MORA_PRE_FUNCTION, first, 0x7004);
  EXPECT_THAT(engine().emitted, IsEmpty());
  engine().deliver_function(MORA_POST_FUNCTION, first, 0x7000);
  EXPECT_THAT(engine().emitted, IsEmpty());
}

}  // namespace
}  // namespace ceilmeter::test
