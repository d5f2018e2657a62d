// The life of blocks in a thread's cache, and the end of the process.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "bi/a64/a64.h"
#include "bi/code/scanner.h"
#include "bi/code/stubs.h"
#include "engine_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);
SOURCE(one_branch);
SOURCE(long_block);

namespace {

using core = engine_test;
using core_death = engine_test;

constexpr std::uint32_t ADD_X1_1 = 0x91000421;  // add x1, x1, #1

// How many of the words ADD_X1_1 are executed from `at` to the first NOP; branches are followed.
std::size_t additions_on_the_way(const std::uint32_t* at) {
  std::size_t count = 0;
  for (std::size_t steps = 0; steps < 4000 && *at != NOP; ++steps) {
    std::uint32_t link = 0;
    std::uint32_t imm26 = 0;
    if (a64_decode(at) == A64_B && (a64_b_decode(at, &link, &imm26), link == 0)) {
      at += a64_sign_extend(imm26, 26);
      continue;
    }
    if (*at == ADD_X1_1) ++count;
    ++at;
  }
  return count;
}

TEST_F(core, starting_without_arguments_logs_and_exits_with_status_1) {
  char* none[] = {nullptr};
  EXPECT_EXIT(mora_run(0, none, none), testing::ExitedWithCode(1), "missing command line arguments");
}

TEST_F(core, blocks_begin_behind_the_stub_text) {
  EXPECT_EQ(thread->next_block, stub_block_count());
  EXPECT_GE(static_cast<std::uint64_t>(stub_block_count()) * BB_SIZE, stub_offset(stub_text_end));
  EXPECT_LT(static_cast<std::uint64_t>(stub_block_count() - 1) * BB_SIZE, stub_offset(stub_text_end));
}

TEST_F(core, the_copy_of_the_stub_text_holds_its_threads_addresses) {
  std::uint64_t word = 0;
  std::memcpy(&word, thread->code_cache + stub_offset(word_thread_data), sizeof word);
  EXPECT_EQ(word, address_of(thread));
  std::memcpy(&word, thread->code_cache + stub_offset(word_pending_signal_count), sizeof word);
  EXPECT_EQ(word, address_of(&thread->pending_signal_count));
}

TEST_F(core, a_scanned_block_is_found_by_its_source_from_then_on) {
  EXPECT_EQ(hash_lookup_entry(thread, address_of(one_ret)), HASH_MISS);
  const std::uint64_t found = scan(thread, address_of(one_ret), 0);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(one_ret)), found);
  const std::int32_t id = cc_addr_to_bb_id(thread, found);
  EXPECT_EQ(meta(id).source_addr, address_of(one_ret));
  EXPECT_EQ(meta(id).cache_entry, found);
  EXPECT_EQ(found, address_of(block(id)));
}

TEST_F(core, a_lookup_scans_once_and_tells_the_second_time_that_the_block_was_there) {
  std::int32_t cached = 7;
  const std::uint64_t first = _lookup_or_scan(thread, address_of(one_ret), &cached);
  EXPECT_EQ(cached, 0);
  EXPECT_EQ(_lookup_or_scan(thread, address_of(one_ret), &cached), first);
  EXPECT_EQ(cached, 1);
  EXPECT_EQ(lookup_or_scan(thread, address_of(one_ret)), first);
}

TEST_F(core, a_stub_block_is_scanned_under_its_own_index_when_it_is_looked_up) {
  const std::uint64_t reserved = lookup_or_stub(thread, address_of(one_ret));
  EXPECT_EQ(lookup_or_stub(thread, address_of(one_ret)), reserved);
  const std::int32_t id = cc_addr_to_bb_id(thread, reserved);
  EXPECT_EQ(meta(id).exit_kind, EXIT_STUB_BLOCK);
  std::int32_t cached = 7;
  EXPECT_EQ(_lookup_or_scan(thread, address_of(one_ret), &cached), reserved);
  EXPECT_EQ(cached, 0);
  EXPECT_EQ(meta(id).exit_kind, EXIT_REGISTER);
  EXPECT_EQ(meta(id).source_addr, address_of(one_ret));
}

TEST_F(core, an_allocation_with_next_block_at_54970_flushes_and_begins_anew) {
  thread->flush_seen = 0;
  thread->next_block = 54970;
  EXPECT_EQ(allocate_bb(thread), stub_block_count());
  EXPECT_EQ(thread->next_block, stub_block_count() + 1);
  EXPECT_EQ(thread->flush_seen, 1u);
}

TEST_F(core, an_allocation_with_next_block_at_54969_does_not_flush) {
  thread->flush_seen = 0;
  thread->next_block = 54969;
  EXPECT_EQ(allocate_bb(thread), 54969);
  EXPECT_EQ(thread->next_block, 54970);
  EXPECT_EQ(thread->flush_seen, 0u);
}

TEST_F(core, a_flush_forgets_every_block_and_overwrites_none) {
  const std::int32_t id = scan_block(one_branch);
  const std::uint64_t target = scan(thread, address_of(one_ret), 0);
  dispatched(address_of(one_ret), id);
  thread->exit_counters[id] = 9;
  thread->flush_seen = 0;
  const word_list before = words(block(id), BB_SIZE / 4);

  flush_code_cache(thread);

  EXPECT_EQ(words(block(id), BB_SIZE / 4), before);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(one_branch)), HASH_MISS);
  EXPECT_EQ(thread->flush_seen, 1u);
  EXPECT_EQ(thread->next_block, stub_block_count());
  EXPECT_EQ(meta(id).exit_kind, EXIT_NOT_SET);
  EXPECT_EQ(meta(id).link_state, LINK_NONE);
  EXPECT_EQ(thread->exit_counters[id], 0);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, target)), testing::IsEmpty());
  EXPECT_EQ(thread->trace_id, BB_COUNT);
  EXPECT_EQ(thread->trace_write_cursor, thread->code_cache + BB_AREA_SIZE);
}

TEST_F(core, a_flush_in_the_middle_of_a_scan_leaves_a_block_that_can_run_once_and_is_scanned_again) {
  thread->next_block = 54968;
  thread->flush_seen = 0;
  const std::uint64_t first = scan(thread, address_of(long_block), 0);
  EXPECT_EQ(first, address_of(block(54968)));
  EXPECT_EQ(thread->flush_seen, 1u);
  EXPECT_LT(thread->next_block, 100);  // The block goes on at the restarted allocation.
  EXPECT_EQ(additions_on_the_way(block(54968)), 300u);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(long_block)), HASH_MISS);
  const std::uint64_t second = lookup_or_scan(thread, address_of(long_block));
  EXPECT_NE(second, first);
  EXPECT_EQ(additions_on_the_way(reinterpret_cast<std::uint32_t*>(second)), 300u);
}

TEST_F(core, a_long_block_goes_on_in_adjacent_blocks_that_name_the_one_before) {
  const std::int32_t id = scan_block(long_block);
  EXPECT_EQ(additions_on_the_way(block(id)), 300u);
  const std::int32_t last = thread->next_block - 1;
  EXPECT_GE(last - id, 4);
  for (std::int32_t index = id + 1; index <= last; ++index) EXPECT_EQ(meta(index).parent_block, index - 1);
}

TEST_F(core, an_address_of_a_block_continued_twice_gives_the_middle_one) {
  const std::int32_t id = scan_block(long_block);
  EXPECT_EQ(addr_to_fragment_id(thread, address_of(block(id))), id);
  EXPECT_EQ(addr_to_fragment_id(thread, address_of(block(id + 1))), id);
  EXPECT_EQ(addr_to_fragment_id(thread, address_of(block(id + 2))), id + 1);
}

TEST_F(core, the_address_one_past_the_block_area_has_index_55000) {
  const std::uint64_t start = address_of(thread->code_cache);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start), 0);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start + 255), 0);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start + 256), 1);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start + BB_AREA_SIZE - 1), 54999);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start + BB_AREA_SIZE), 55000);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start + BB_AREA_SIZE + 1), -1);
  EXPECT_EQ(cc_addr_to_bb_id(thread, start - 1), -1);
}

TEST_F(core, the_way_back_into_the_cache_stops_at_a_target_that_no_program_has) {
  const word_list stub =
      words(reinterpret_cast<std::uint32_t*>(thread->code_cache + stub_offset(cache_reentry_stub)), 32);
  const word_list stop = {0xd29adb62,   // mov x2, #0xd6db
                          0xeb02001f,   // cmp x0, x2
                          0x54ffffc0};  // b.eq .-8
  EXPECT_NE(std::search(stub.begin(), stub.end(), stop.begin(), stop.end()), stub.end());
}

TEST_F(core, the_trace_area_is_the_rest_of_the_cache) {
  const std::uint64_t start = address_of(thread->code_cache);
  EXPECT_FALSE(is_in_traces(thread, start + BB_AREA_SIZE - 1));
  EXPECT_TRUE(is_in_traces(thread, start + BB_AREA_SIZE));
  EXPECT_TRUE(is_in_traces(thread, start + CODE_CACHE_SIZE - 1));
  EXPECT_FALSE(is_in_traces(thread, start + CODE_CACHE_SIZE));
}

TEST_F(core, an_address_in_the_trace_area_belongs_to_the_last_fragment_that_begins_at_or_before_it) {
  const std::uint64_t start = address_of(thread->code_cache) + BB_AREA_SIZE;
  for (std::int32_t index = 0; index < 5; ++index) {
    meta(BB_COUNT + index).cache_entry = start + 64 * static_cast<std::uint64_t>(index + 1);
  }
  thread->active_trace.id = BB_COUNT + 5;
  EXPECT_EQ(addr_to_fragment_id(thread, start + 64), BB_COUNT);
  EXPECT_EQ(addr_to_fragment_id(thread, start + 64 + 63), BB_COUNT);
  EXPECT_EQ(addr_to_fragment_id(thread, start + 3 * 64), BB_COUNT + 2);
  EXPECT_EQ(addr_to_fragment_id(thread, start + 4 * 64 + 4), BB_COUNT + 3);
  EXPECT_EQ(addr_to_fragment_id(thread, start + 5 * 64), BB_COUNT + 4);
  EXPECT_EQ(addr_to_fragment_id(thread, start + 5000), BB_COUNT + 4);
  EXPECT_EQ(addr_to_fragment_id(thread, start + 60), -1);
}

TEST_F(core, an_address_in_the_trace_area_belongs_to_nothing_while_there_are_no_traces) {
  EXPECT_EQ(addr_to_fragment_id(thread, address_of(thread->code_cache) + BB_AREA_SIZE + 64), -1);
}

TEST_F(core, a_link_is_noted_at_its_target_the_newest_first) {
  const std::int32_t id = scan_block(one_ret);
  const std::uint64_t target = address_of(block(id)) + 4;
  record_cc_link(thread, 0x1000, target);
  record_cc_link(thread, 0x2000, target);
  EXPECT_THAT(links_to(id), testing::ElementsAre(0x2000, 0x1000));
}

TEST_F(core, a_link_to_the_trace_area_is_not_noted) {
  const linked_record* before = thread->cc_link_pool->free_head;
  record_cc_link(thread, 0x1000, address_of(thread->code_cache) + BB_AREA_SIZE + 4);
  EXPECT_EQ(thread->cc_link_pool->free_head, before);
}

TEST_F(core, a_thread_is_listed_at_the_head_and_taken_out_wherever_it_stands) {
  thread_data* other = nullptr;
  ASSERT_TRUE(allocate_thread_data(&other));
  register_thread(thread, false);
  register_thread(other, false);
  EXPECT_EQ(engine.thread_list, other);
  EXPECT_EQ(other->next, thread);
  EXPECT_EQ(unregister_thread(thread, false), 0);
  EXPECT_EQ(engine.thread_list, other);
  EXPECT_EQ(other->next, nullptr);
  EXPECT_EQ(unregister_thread(thread, false), -1);
  munmap(other, sizeof *other);
}

TEST_F(core_death, the_end_of_the_process_does_not_wait_for_a_thread_in_a_system_call) {
  thread_data* blocked = nullptr;
  ASSERT_TRUE(allocate_thread_data(&blocked));
  blocked->status = THREAD_IN_SYSCALL;
  register_thread(thread, false);
  register_thread(blocked, false);
  EXPECT_EXIT(mora_terminate(thread, 23), testing::ExitedWithCode(23), "");
  munmap(blocked, sizeof *blocked);
}

TEST_F(core_death, the_end_of_the_process_does_not_wait_for_a_thread_that_has_ended_itself) {
  thread_data* gone = nullptr;
  ASSERT_TRUE(allocate_thread_data(&gone));
  gone->status = THREAD_ABANDONED;
  register_thread(thread, false);
  register_thread(gone, false);
  EXPECT_EXIT(mora_terminate(thread, 0), testing::ExitedWithCode(0), "");
  munmap(gone, sizeof *gone);
}

}  // namespace
}  // namespace ceilmeter::test
