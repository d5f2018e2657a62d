// What is dropped with a range of source addresses, and what stays.
#include "bi/code/drop_range.h"

#include <sys/mman.h>

#include "bi/a64/a64.h"
#include "bi/code/exit_branch.h"
#include "bi/code/trace_check.h"
#include "trace_sources.h"

namespace ceilmeter::test {

namespace {

class dropped_ranges : public trace_test {
 protected:
  bool drop(const std::uint32_t* word) { return drop_fragments(thread, address_of(word), address_of(word + 1)); }
  bool is_unscanned(std::int32_t id) const { return meta(id).exit_kind == EXIT_STUB_BLOCK; }
};

TEST_F(dropped_ranges, nothing_goes_where_nothing_was_translated) {
  const std::int32_t id = scan_block(direct);
  thread->flush_seen = 0;
  EXPECT_FALSE(drop(path_end));
  EXPECT_FALSE(is_unscanned(id));
  EXPECT_EQ(thread->flush_seen, 0u);
}

TEST_F(dropped_ranges, a_block_of_the_range_comes_to_the_dispatcher_and_others_stay) {
  const std::int32_t gone = scan_block(direct);
  const std::int32_t stays = scan_block(path_end);
  EXPECT_TRUE(drop(direct));
  EXPECT_TRUE(is_unscanned(gone));
  EXPECT_FALSE(is_unscanned(stays));
  const std::uint32_t* words = block(gone);
  EXPECT_EQ(words[0], POP_X0_X1);
  EXPECT_EQ(words[1], PUSH_X0_X1);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(direct)), address_of(words));
  EXPECT_EQ(thread->flush_seen, 1u);
}

TEST_F(dropped_ranges, a_dropped_block_is_scanned_again_in_its_place_when_it_is_reached) {
  const std::int32_t id = scan_block(path_end);
  const word_list before(block(id), block(id) + 8);
  drop(path_end);
  EXPECT_EQ(dispatched(address_of(path_end), 0), address_of(block(id)));
  EXPECT_FALSE(is_unscanned(id));
  EXPECT_EQ(word_list(block(id), block(id) + 8), before);
  drop(path_end);  // And is still found after it was scanned again.
  EXPECT_TRUE(is_unscanned(id));
}

TEST_F(dropped_ranges, a_block_whose_later_words_lie_in_the_range_goes_too) {
  const std::int32_t id = scan_block(path_end);
  EXPECT_TRUE(drop(path_end + 2));
  EXPECT_TRUE(is_unscanned(id));
}

TEST_F(dropped_ranges, a_new_threads_block_goes_and_its_own_key_and_that_of_others_lead_where_they_led) {
  thread->untouched_sp = 16;
  const std::int32_t kept = scan_block(path_end);
  thread->untouched_sp = 0;
  const std::int32_t ordinary = scan_block(path_end);
  EXPECT_TRUE(drop(path_end));
  EXPECT_TRUE(is_unscanned(kept));
  EXPECT_TRUE(is_unscanned(ordinary));
  EXPECT_EQ(hash_lookup_entry(thread, address_of(path_end)), meta(ordinary).cache_entry);
  EXPECT_EQ(hash_lookup_entry(thread, address_of(path_end) | 1), meta(kept).cache_entry);
}

TEST_F(dropped_ranges, a_range_of_many_pages_finds_its_blocks) {
  const std::int32_t id = scan_block(path_end);
  EXPECT_TRUE(drop_fragments(thread, address_of(path_end) - (std::uint64_t{1} << 32), address_of(path_end) + 4));
  EXPECT_TRUE(is_unscanned(id));
}

TEST_F(dropped_ranges, a_trace_goes_with_one_of_its_fragments_and_leads_to_its_head) {
  build_five_blocks();
  const std::int32_t head_block = cc_addr_to_bb_id(thread, address_of(block(thread->trace_heads[0])));
  EXPECT_TRUE(drop(taken_by_tbz));
  EXPECT_TRUE(is_dropped_head(thread, BB_COUNT));
  EXPECT_TRUE(is_unscanned(head_block));
  const std::uint64_t entry = meta(head_block).cache_entry;
  EXPECT_EQ(hash_lookup_entry(thread, meta(head_block).source_addr), entry);
  EXPECT_EQ(at(entry_of_trace)[1], branch_word(at(entry_of_trace) + 1, entry + 4));
}

TEST_F(dropped_ranges, the_next_trace_of_the_head_takes_over_what_led_to_the_dropped_one) {
  build_five_blocks();
  const std::int32_t head_block = thread->trace_heads[0];
  drop(taken_by_tbz);
  dispatched(meta(head_block).source_addr, 0);
  const std::uint64_t again = make_hot(head_block);
  leave(taken_by_cbnz);
  leave(taken_by_tbz);
  leave(direct);
  leave(back_to_head);
  leave(skipped_by_eq);
  ASSERT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(hash_lookup_entry(thread, meta(head_block).source_addr), again);
  EXPECT_EQ(at(entry_of_trace)[1], branch_word(at(entry_of_trace) + 1, again + 4));
  trace_options.check = TRACE_CHECK_WHOLE;
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(dropped_ranges, a_trampoline_loses_the_words_that_it_has_copied) {
  build_five_blocks();
  std::int32_t trampoline = BB_COUNT;
  while (trampoline < thread->trace_id && meta(trampoline).exit_kind != EXIT_TRACE) ++trampoline;
  ASSERT_LT(trampoline, thread->trace_id);
  const std::uint64_t source = meta(trampoline).source_addr;
  const std::uint64_t target = hash_lookup_entry(thread, source);
  dispatched(source, 0);  // It was not scanned yet.
  drop_fragments(thread, source, source + 4);
  const std::uint32_t* words = at(meta(trampoline).cache_entry);
  EXPECT_EQ(words[0], NOP);
  EXPECT_EQ(words[1], NOP);
  EXPECT_EQ(words[2], branch_word(words + 2, target + 4));
  EXPECT_EQ(meta(trampoline).rejoin_cache_addr, target + 4);
}

TEST_F(dropped_ranges, an_unfinished_trace_is_given_up_with_one_of_its_fragments) {
  scan_five_blocks();
  entry_of_trace = make_hot(head);
  leave(taken_by_cbnz);
  EXPECT_EQ(thread->active_trace.active, 1u);
  drop(path_end);
  EXPECT_EQ(thread->active_trace.active, 1u);
  drop(taken_by_cbnz);
  EXPECT_EQ(thread->active_trace.active, 0u);
}

TEST_F(dropped_ranges, a_flush_forgets_what_could_be_dropped) {
  scan_block(direct);
  build_five_blocks();
  flush_code_cache(thread);
  EXPECT_FALSE(drop(direct));
  EXPECT_FALSE(drop(taken_by_tbz));
}

}  // namespace
}  // namespace ceilmeter::test
