// Traces, made by calling the routines that the stubs call: what is in the cache and in the records afterwards.
#include "bi/code/traces.h"

#include <sys/mman.h>

#include "bi/a64/a64.h"
#include "bi/a64/helpers.h"
#include "bi/code/scanner.h"
#include "bi/code/exit_branch.h"
#include "bi/signals/exit_trap.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"
#include "bi/code/trace_check.h"
#include "bi/code/trace_install.h"
#include "engine_fixture.h"
#include "trace_sources.h"

namespace ceilmeter::test {

namespace {

using testing::Each;
using testing::ElementsAre;

class traces : public trace_test {};
using traces_death = traces;

TEST_F(traces, a_loop_to_itself_closes_on_the_traces_entry_and_is_one_fragment) {
  const std::uint64_t entry = make_hot(block_of(path_end));
  EXPECT_EQ(entry, address_of(thread->code_cache) + BB_AREA_SIZE);
  const word_list body = {POP_X0_X1, path_end[0], path_end[1], path_end[2]};
  EXPECT_EQ(words(at(entry), 4), body);
  EXPECT_EQ(leave(path_end), entry);
  EXPECT_EQ(at(entry)[4], branch_word(at(entry) + 4, entry + 4));
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(thread->trace_id, BB_COUNT + 1);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(path_end)), entry);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, a_path_is_laid_out_in_the_order_in_which_it_was_run) {
  build_five_blocks();
  const std::uint32_t* word = at(entry_of_trace);
  EXPECT_EQ(word[0], POP_X0_X1);
  EXPECT_EQ(word[1], skipped_by_eq[0]);
  EXPECT_EQ(a64_decode(word + 2), A64_B_COND);
  EXPECT_EQ(word[3], taken_by_cbnz[0]);
  EXPECT_EQ(a64_decode(word + 4), A64_CBZ);
  EXPECT_EQ(word[5], taken_by_tbz[0]);
  EXPECT_EQ(a64_decode(word + 6), A64_TBZ);
  EXPECT_EQ(word[7], direct[0]);
  EXPECT_EQ(word[8], back_to_head[0]);
  EXPECT_EQ(a64_decode(word + 9), A64_B_COND);
  EXPECT_EQ(word[10], branch_word(word + 10, entry_of_trace + 4));
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, exits_have_no_offset_until_the_trace_is_installed) {
  scan_five_blocks();
  entry_of_trace = make_hot(head);
  leave(taken_by_cbnz);
  EXPECT_EQ(at(entry_of_trace)[2], 0x54000000u);  // b.eq .
  leave(taken_by_tbz);
  EXPECT_EQ(at(entry_of_trace)[4], 0xb4000005u);  // cbz x5, .
  leave(direct);
  EXPECT_EQ(at(entry_of_trace)[6], 0xb7280005u);  // tbnz x5, #37, .
}

TEST_F(traces, a_new_fragment_is_entered_once_by_a_snippet_behind_it) {
  scan_five_blocks();
  entry_of_trace = make_hot(head);
  const std::uint64_t next = leave(taken_by_cbnz);
  const std::uint64_t fragment = meta(BB_COUNT + 1).cache_entry;
  EXPECT_EQ(fragment, entry_of_trace + 12);
  EXPECT_EQ(*at(next), POP_X0_X1);
  EXPECT_EQ(at(next)[1], branch_word(at(next) + 1, fragment));
}

TEST_F(traces, a_path_of_21_fragments_may_come_back_to_its_head) {
  scan_block(thirty_blocks);
  const std::uint64_t entry = make_hot(block_of(thirty_blocks));
  for (int block = 1; block < 21; ++block) leave(thirty_blocks + 2 * block);
  EXPECT_EQ(thread->trace_fragment_count, 21);
  EXPECT_EQ(leave(thirty_blocks), entry);
  EXPECT_EQ(thread->active_trace.exit_count, 21u);
}

TEST_F(traces, a_path_of_more_than_21_fragments_ends_in_a_branch_to_a_block) {
  make_hot(block_of(thirty_blocks));
  for (int block = 1; block < 21; ++block) leave(thirty_blocks + 2 * block);
  EXPECT_EQ(thread->active_trace.active, 1u);
  const std::uint64_t next = leave(thirty_blocks + 2 * 21);
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(thirty_blocks + 2 * 21)));
  EXPECT_FALSE(is_in_traces(thread, next));
  const bb_meta& last = meta(BB_COUNT + 20);
  EXPECT_EQ(last.exit_code_addr[1], branch_word(last.exit_code_addr + 1, next + 4));
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, next)), ElementsAre(address_of(last.exit_code_addr + 1)));
  EXPECT_EQ(thread->active_trace.exit_count, 21u);  // Never more: no exit is left without a target.
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, one_that_ends_in_a_return_is_installed_before_that_has_run) {
  const std::uint64_t entry = make_hot(block_of(exit_only));
  leave(by_return);
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(exit_only)), entry);
  EXPECT_EQ(meta(BB_COUNT + 1).exit_kind, EXIT_REGISTER);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, the_snippet_of_an_installed_traces_last_fragment_lies_before_its_trampolines) {
  for (int shift = 0; shift < 4; ++shift) {
    flush_code_cache(thread);
    thread->trace_write_cursor += 4 * shift;
    make_hot(block_of(exit_only));
    const std::uint64_t next = leave(by_return);
    EXPECT_EQ(*at(next), POP_X0_X1);
    EXPECT_EQ(at(next)[1], branch_word(at(next) + 1, meta(BB_COUNT + 1).cache_entry));
    EXPECT_GE(meta(meta(BB_COUNT).trampoline).cache_entry, next + 8);
    EXPECT_EQ(addr_to_fragment_id(thread, next + 4), BB_COUNT + 1);
    check_trace_cache(thread, BB_COUNT);
  }
}

TEST_F(traces, a_path_that_comes_to_another_trace_ends_in_a_branch_to_it) {
  const std::uint64_t first = make_hot(block_of(path_end));
  leave(path_end);
  const std::uint64_t second = make_hot(block_of(skipped_by_eq));
  EXPECT_EQ(leave(path_end), first);
  EXPECT_EQ(at(second)[3], branch_word(at(second) + 3, first + 4));
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, a_path_goes_on_through_a_block_that_is_there_already) {
  scan_block(taken_by_cbnz);
  make_hot(block_of(skipped_by_eq));
  leave(taken_by_cbnz);
  EXPECT_EQ(thread->active_trace.active, 1u);
  EXPECT_EQ(thread->trace_fragment_count, 2);
}

TEST_F(traces, an_exit_to_a_block_goes_through_a_trampoline_however_near_the_block_is) {
  thread->next_block = BB_FLUSH_THRESHOLD - 20;  // The blocks lie just below the trace area.
  build_five_blocks();
  const bb_meta& fragment = meta(BB_COUNT);
  const std::uint32_t* exit = fragment.exit_code_addr;
  const std::uint64_t tramp = branch_destination(*exit, exit);
  EXPECT_EQ(tramp, meta(fragment.trampoline).cache_entry);
  EXPECT_EQ(tramp % 16, 0u);
  const std::int32_t block_id = block_of(path_end);
  EXPECT_THAT(links_to(block_id), testing::Contains(address_of(exit)));
}

TEST_F(traces, a_trampoline_begins_with_words_of_its_target_that_mean_the_same_there_and_goes_on_behind_them) {
  block_of(path_end);
  build_five_blocks();
  const bb_meta& record = meta(meta(BB_COUNT).trampoline);
  const std::uint64_t target = hash_lookup_entry(thread, address_of(path_end)) + 4;
  const std::uint32_t* tramp = at(record.cache_entry);
  // The block begins with its hot counter. Of that the push is copied, and the ADRP behind it is not.
  const bool is_near = a64_decode(at(target) + 1) == A64_ADR;
  const std::ptrdiff_t copied = is_near ? 1 : 2;
  EXPECT_EQ(tramp[0], PUSH_X1_X30);
  EXPECT_EQ(words(tramp, static_cast<std::size_t>(copied)), words(at(target), static_cast<std::size_t>(copied)));
  EXPECT_EQ(tramp[copied], branch_word(tramp + copied, target + 4 * static_cast<std::uint64_t>(copied)));
  EXPECT_EQ(tramp[3], NOP);
  EXPECT_EQ(record.exit_kind, EXIT_TRACE);
  EXPECT_EQ(record.exit_code_addr, tramp + copied);
  EXPECT_EQ(record.rejoin_cache_addr, target + 4 * static_cast<std::uint64_t>(copied));
}

TEST_F(traces, the_other_side_of_an_exit_is_not_scanned_before_it_is_reached) {
  build_five_blocks();
  const std::uint64_t other = hash_lookup_entry(thread, address_of(path_end));
  const std::int32_t id = cc_addr_to_bb_id(thread, other);
  EXPECT_EQ(meta(id).exit_kind, EXIT_STUB_BLOCK);
  EXPECT_EQ(words(at(other), 2), (word_list{POP_X0_X1, PUSH_X0_X1}));
  const word_list leaves = branch_jump(at(other) + 2, address_of(path_end), id);
  EXPECT_EQ(words(at(other) + 2, leaves.size()), leaves);
  const std::uint32_t* tramp = at(meta(meta(BB_COUNT).trampoline).cache_entry);
  EXPECT_EQ(*tramp, branch_word(tramp, other + 4));

  EXPECT_EQ(dispatched(address_of(path_end), id), other);
  EXPECT_EQ(meta(id).exit_kind, EXIT_DIRECT);
  check_trace_cache(thread, BB_COUNT);
  make_hot(id);
  leave(path_end);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, a_side_that_is_reached_late_is_continued_where_the_free_blocks_begin_by_then) {
  const std::uint64_t other = lookup_or_stub(thread, address_of(much));
  const std::int32_t id = cc_addr_to_bb_id(thread, other);
  thread->next_block += 100;
  const std::int32_t first_added = thread->next_block;
  EXPECT_EQ(dispatched(address_of(much), id), other);
  EXPECT_EQ(meta(id).exit_kind, EXIT_DIRECT);
  EXPECT_EQ(meta(first_added).parent_block, id);
  EXPECT_EQ(meta(first_added - 1).exit_kind, EXIT_NOT_SET);
}

TEST_F(traces, a_side_that_is_reached_when_the_blocks_run_out_is_scanned_behind_a_flush) {
  const std::uint64_t other = lookup_or_stub(thread, address_of(six_hundred_words));
  const std::int32_t id = cc_addr_to_bb_id(thread, other);
  thread->next_block = BB_FLUSH_THRESHOLD - 20;  // It would need some more.
  const std::uint64_t next = dispatched(address_of(six_hundred_words), id);
  EXPECT_EQ(thread->flush_seen, 1u);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(six_hundred_words)));
  EXPECT_EQ(cc_addr_to_bb_id(thread, next), stub_block_count());
  EXPECT_EQ(meta(stub_block_count()).exit_kind, EXIT_DIRECT);
  EXPECT_LT(thread->next_block, 100);
}

TEST_F(traces, no_word_of_an_exit_is_copied_into_a_trampoline) {
  // The other side is a block that consists of its exit alone. It is linked later.
  scan_block(one_ret);
  make_hot(block_of(branch_both_kinds));
  leave(branch_both_kinds + 1);
  ASSERT_EQ(thread->active_trace.active, 0u);
  const std::uint32_t* tramp = at(meta(meta(BB_COUNT).trampoline).cache_entry);
  const std::uint64_t target = hash_lookup_entry(thread, address_of(one_ret)) + 4;
  EXPECT_EQ(tramp[0], branch_word(tramp, target));
  EXPECT_THAT(words(tramp + 1, 3), Each(NOP));
}

TEST_F(traces, an_exit_to_the_head_goes_straight_to_the_traces_entry) {
  const std::uint64_t entry = make_hot(block_of(to_itself_or_on));
  leave(to_itself_or_on + 1);
  EXPECT_EQ(thread->active_trace.active, 0u);
  const std::uint32_t* exit = meta(BB_COUNT).exit_code_addr;
  EXPECT_EQ(branch_destination(*exit, exit), entry + 4);
  EXPECT_EQ(meta(BB_COUNT).trampoline, 0);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, the_heads_second_word_becomes_a_trap_and_its_entry_word_stays) {
  build_five_blocks();
  EXPECT_EQ(block(head)[0], POP_X0_X1);
  EXPECT_EQ(block(head)[1], BRK_0);
}

TEST_F(traces, links_of_blocks_to_the_head_are_led_to_the_trace) {
  scan_five_blocks();
  const std::int32_t from = scan_block(back_to_head);
  dispatched(address_of(skipped_by_eq), from);
  build_five_blocks();
  const std::uint32_t* link = meta(from).exit_code_addr + 1;
  EXPECT_EQ(*link, branch_word(link, entry_of_trace + 4));
}

TEST_F(traces, a_link_that_a_trap_stands_in_place_of_is_led_to_the_trace_where_the_trap_keeps_it) {
  const std::int32_t from = scan_block(direct_to_path_end);
  dispatched(address_of(path_end), from);
  std::uint32_t* exit = meta(from).exit_code_addr;
  trap_fragment_exit(thread, from, address_of(block(from)));
  const std::uint32_t trap = *exit;
  ASSERT_EQ(a64_decode(exit), A64_HVC);
  const std::uint64_t entry = make_hot(block_of(path_end));
  leave(path_end);
  EXPECT_EQ(*exit, trap);
  EXPECT_EQ(meta(from).overwritten_exit[0], branch_word(exit, entry + 4));
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, a_noted_link_whose_place_holds_something_else_by_now_is_left_alone) {
  const std::int32_t id = block_of(path_end);
  const std::int32_t other = scan_block(by_return);
  const std::int32_t linked = scan_block(on_to_six_hundred);
  dispatched(address_of(six_hundred_words), linked);
  record_cc_link(thread, address_of(block(other) + 3), address_of(block(id)) + 4);
  record_cc_link(thread, address_of(meta(linked).exit_code_addr), address_of(block(id)) + 4);
  const word_list before = joined({words(block(other), 20), words(block(linked), 20)});
  make_hot(id);
  leave(path_end);
  EXPECT_EQ(joined({words(block(other), 20), words(block(linked), 20)}), before);
}

TEST_F(traces, an_exit_that_reaches_the_trace_in_its_blocks_place_goes_there_itself) {
  build_five_blocks();
  const std::uint64_t second = make_hot(block_of(path_end));
  leave(path_end);
  const std::uint32_t* exit = meta(BB_COUNT).exit_code_addr;
  EXPECT_EQ(branch_destination(*exit, exit), second + 4);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, an_exit_that_does_not_reach_it_goes_there_by_its_trampoline) {
  make_hot(block_of(tbz_before_much));
  leave(much);  // Too long for the exit: the trace ends before it.
  const std::int32_t tramp_id = meta(BB_COUNT).trampoline;
  const std::uint32_t* exit = meta(BB_COUNT).exit_code_addr;
  const std::uint32_t before = *exit;
  thread->trace_write_cursor += 0x9000;
  const std::uint64_t second = make_hot(block_of(path_end));
  leave(path_end);
  EXPECT_EQ(*exit, before);
  const std::uint32_t* tramp = at(meta(tramp_id).cache_entry);
  EXPECT_THAT(words(tramp, 4), ElementsAre(NOP, NOP, branch_word(tramp + 2, second + 4), NOP));
  EXPECT_EQ(meta(tramp_id).rejoin_cache_addr, second + 4);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, a_fragment_that_an_earlier_exit_does_not_reach_over_is_not_taken_in) {
  make_hot(block_of(tbz_before_much));
  const std::uint64_t next = leave(much);
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(much)));
  EXPECT_EQ(thread->trace_fragment_count, 1);
  EXPECT_EQ(thread->trace_id, BB_COUNT + 2);  // The fragment and its trampoline.
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, a_fragment_that_the_exits_do_reach_over_is) {
  make_hot(block_of(cbz_before_much));
  leave(cbz_before_much + 1);
  leave(much);
  EXPECT_EQ(thread->active_trace.active, 1u);
  EXPECT_EQ(thread->trace_fragment_count, 3);
}

TEST_F(traces, a_head_that_finds_the_area_full_flushes_and_is_a_block_again_with_its_counter_at_0) {
  const std::int32_t id = block_of(path_end);
  thread->exit_counters[id] = 0;
  thread->trace_write_cursor = thread->code_cache + TRACE_HIGH_WATER;
  const std::uint64_t next = make_hot(id);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(path_end)));
  EXPECT_FALSE(is_in_traces(thread, next));
  EXPECT_EQ(thread->exit_counters[cc_addr_to_bb_id(thread, next)], 0);
  EXPECT_EQ(thread->trace_write_cursor, thread->code_cache + BB_AREA_SIZE);
  EXPECT_EQ(thread->active_trace.active, 0u);
}

TEST_F(traces, just_below_the_mark_one_still_begins) {
  thread->trace_write_cursor = thread->code_cache + TRACE_HIGH_WATER - 4;
  const std::uint64_t entry = make_hot(block_of(path_end));
  EXPECT_EQ(entry, address_of(thread->code_cache) + TRACE_HIGH_WATER - 4);
  EXPECT_EQ(leave(path_end), entry);
}

TEST_F(traces, without_indices_for_another_one_the_cache_is_flushed) {
  const std::int32_t id = block_of(path_end);
  thread->trace_id = TRACE_ID_HIGH_WATER;
  EXPECT_FALSE(is_in_traces(thread, make_hot(id)));
  EXPECT_EQ(thread->trace_id, BB_COUNT);
}

TEST_F(traces, without_records_for_its_links_the_cache_is_flushed) {
  const std::int32_t id = block_of(path_end);
  while (has_links_to_spare(thread->cc_link_pool, TRACE_LINKS)) linked_pool_alloc(thread->cc_link_pool);
  EXPECT_FALSE(is_in_traces(thread, make_hot(id)));
  EXPECT_TRUE(has_links_to_spare(thread->cc_link_pool, LINK_POOL_CAPACITY));
}

TEST_F(traces, a_head_that_outgrows_the_area_flushes_and_is_a_block_again) {
  thread->trace_write_cursor = thread->code_cache + TRACE_HIGH_WATER - 4;
  thread->trace_id = BB_COUNT + 100;
  const std::int32_t id = block_of(six_hundred_words);
  const word_list behind = words(at(address_of(thread->code_cache) + BB_AREA_SIZE), 8);
  const std::uint64_t next = make_hot(id);
  EXPECT_FALSE(is_in_traces(thread, next));
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(six_hundred_words)));
  EXPECT_EQ(thread->trace_id, BB_COUNT);
  EXPECT_EQ(words(at(address_of(thread->code_cache) + BB_AREA_SIZE), 8), behind);
}

TEST_F(traces, a_fragment_that_outgrows_the_area_is_not_taken_in) {
  thread->trace_write_cursor = thread->code_cache + TRACE_HIGH_WATER - 4;
  make_hot(block_of(on_to_six_hundred));
  const std::uint64_t next = leave(six_hundred_words);
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(six_hundred_words)));
  EXPECT_FALSE(is_in_traces(thread, next));
  EXPECT_EQ(thread->trace_fragment_count, 1);
}

TEST_F(traces, a_flush_in_the_search_for_an_exits_other_side_gives_the_trace_up) {
  make_hot(block_of(skipped_by_eq));
  thread->next_block = BB_FLUSH_THRESHOLD + 1;
  const std::uint64_t next = leave(taken_by_cbnz);
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(taken_by_cbnz)));
  EXPECT_EQ(hash_lookup_entry(thread, address_of(skipped_by_eq)), HASH_MISS);
  EXPECT_EQ(thread->trace_id, BB_COUNT);
}

TEST_F(traces, a_flush_in_the_search_for_the_block_that_it_would_end_in_gives_it_up) {
  make_hot(block_of(thirty_blocks));
  scan_block(path_end);
  for (int block = 1; block < 21; ++block) leave(thirty_blocks + 2 * block);
  thread->next_block = BB_FLUSH_THRESHOLD + 1;
  const std::uint64_t next = leave(thirty_blocks + 2 * 21);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(thirty_blocks + 2 * 21)));
  EXPECT_EQ(hash_lookup_entry(thread, address_of(thirty_blocks)), HASH_MISS);
  EXPECT_EQ(thread->trace_id, BB_COUNT);
}

TEST_F(traces, a_fragment_of_one_that_a_flush_has_ended_goes_on_to_a_block) {
  make_hot(block_of(skipped_by_eq));
  flush_code_cache(thread);
  const std::uint32_t* exit = meta(BB_COUNT).exit_code_addr;
  const word_list before = words(exit, 8);
  std::uint64_t next = 0;
  trace_dispatcher(address_of(taken_by_cbnz), &next, BB_COUNT, thread);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(taken_by_cbnz)));
  EXPECT_EQ(words(exit, 8), before);
  EXPECT_EQ(thread->active_trace.active, 0u);
}

TEST_F(traces, another_hot_head_takes_the_place_of_an_unfinished_one) {
  const std::uint64_t first = make_hot(block_of(skipped_by_eq));
  leave(taken_by_cbnz);
  const std::uint64_t second = make_hot(block_of(path_end));
  EXPECT_EQ(second, first);
  EXPECT_EQ(leave(path_end), second);
  EXPECT_EQ(thread->trace_id, BB_COUNT + 1);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(traces, an_old_register_branch_that_has_missed_leaves_the_active_trace_alone) {
  make_hot(block_of(exit_only));
  leave(by_return);
  make_hot(block_of(path_end));
  std::uint64_t next = 0;
  trace_dispatcher(address_of(direct), &next, BB_COUNT + 1, thread);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(direct)));
  EXPECT_EQ(thread->active_trace.active, 1u);
}

TEST_F(traces, an_exit_that_is_not_the_newest_fragments_leaves_the_active_trace_alone) {
  make_hot(block_of(skipped_by_eq));
  leave(taken_by_cbnz);
  std::uint64_t next = 0;
  trace_dispatcher(address_of(direct), &next, BB_COUNT, thread);
  EXPECT_EQ(next, hash_lookup_entry(thread, address_of(direct)));
  EXPECT_EQ(thread->trace_fragment_count, 2);
  EXPECT_EQ(thread->active_trace.exit_count, 1u);
}

TEST_F(traces, a_head_whose_code_has_changed_to_a_return_goes_on_as_a_block) {
  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto* code = static_cast<std::uint32_t*>(page);
  code[0] = 0x14000000;  // b .
  const std::int32_t id = block_of(code);
  code[0] = RET;
  EXPECT_EQ(make_hot(id), address_of(block(id)));
  EXPECT_EQ(thread->active_trace.active, 0u);
  munmap(page, 4096);
}

TEST_F(traces, they_can_be_switched_off) {
  trace_options.off = true;
  const std::int32_t id = block_of(path_end);
  EXPECT_EQ(make_hot(id), address_of(block(id)));
  trace_options.off = false;
}

TEST_F(traces_death, a_head_of_another_kind_is_fatal) {
  const std::int32_t id = block_of(by_return);
  std::uint64_t ret[2] = {};
  EXPECT_DEATH(create_trace(thread, id, ret), "unknown exit branch type in trace head: 4");
}

TEST_F(traces_death, a_noted_place_in_the_trace_area_that_holds_no_branch_is_fatal) {
  const std::int32_t id = block_of(path_end);
  std::uint32_t* place = at(address_of(thread->code_cache) + BB_AREA_SIZE + 0x1000);
  *place = NOP;
  record_cc_link(thread, address_of(place), address_of(block(id)) + 4);
  make_hot(id);
  EXPECT_DEATH(leave(path_end), "Linking instruction unknown at");
}

TEST(cond_branch_attributes, are_the_reach_and_the_field_of_each_kind) {
  const std::uint32_t tbz = 0x36000000;
  EXPECT_EQ(get_cond_branch_attributes(&tbz, A64_TBZ).largest, 32765);
  EXPECT_EQ(get_cond_branch_attributes(&tbz, A64_TBZ).smallest, -32768);
  EXPECT_EQ(get_cond_branch_attributes(&tbz, A64_TBZ).mask, 16383u);
  for (const std::uint32_t word : {0x34000000U, 0x54000000U}) {
    EXPECT_EQ(get_cond_branch_attributes(&word, a64_decode(&word)).largest, 0xffffd);
    EXPECT_EQ(get_cond_branch_attributes(&word, a64_decode(&word)).smallest, -0x100000);
    EXPECT_EQ(get_cond_branch_attributes(&word, a64_decode(&word)).mask, 0x7ffffu);
  }
  const std::uint32_t compare = 0x74000000;
  EXPECT_EQ(get_cond_branch_attributes(&compare, A64_NOT_RECOGNISED).largest, 1021);
  EXPECT_EQ(get_cond_branch_attributes(&compare, A64_NOT_RECOGNISED).smallest, -1024);
  EXPECT_EQ(get_cond_branch_attributes(&compare, A64_NOT_RECOGNISED).mask, 511u);
  const std::uint32_t direct = 0x14000000;
  EXPECT_DEATH(get_cond_branch_attributes(&direct, A64_B), "direct branch \\(B or BL\\). \\(Not allowed\\)");
  const std::uint32_t ret = 0xd65f03c0;
  EXPECT_DEATH(get_cond_branch_attributes(&ret, A64_RET), "linking instruction unknown at");
}

}  // namespace
}  // namespace ceilmeter::test
