// The checker of the trace area finds words and records that the test has spoilt.
#include "bi/code/trace_check.h"

#include "bi/a64/a64.h"
#include "bi/code/dispatcher.h"
#include "engine_fixture.h"
#include "trace_sources.h"

namespace ceilmeter::test {

namespace {

class trace_checker_death : public trace_test {
 protected:
  trace_checker_death() {
    block_of(path_end);
    build_five_blocks();
    check_trace_cache(thread, BB_COUNT);
  }
};

TEST_F(trace_checker_death, tells_an_exit_that_leads_one_word_too_far) {
  *meta(BB_COUNT).exit_code_addr += 1U << 5;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "middle of a trampoline");
}

TEST_F(trace_checker_death, tells_an_exit_without_an_offset) {
  *meta(BB_COUNT).exit_code_addr &= ~(0x7ffffU << 5);
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "not lead where the application goes");
}

TEST_F(trace_checker_death, tells_an_exit_of_the_wrong_sense) {
  *meta(BB_COUNT).exit_code_addr ^= 1;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "wrong sense");
}

TEST_F(trace_checker_death, tells_a_closing_branch_that_leads_elsewhere) {
  std::uint32_t* closing = meta(BB_COUNT + 4).exit_code_addr + 1;
  *closing += 1;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "not lead where the application goes");
}

TEST_F(trace_checker_death, tells_a_trampoline_whose_words_are_not_its_targets) {
  ++*at(meta(meta(BB_COUNT).trampoline).cache_entry);
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "words are not those");
}

TEST_F(trace_checker_death, tells_a_head_without_its_trap) {
  block(head)[1] = NOP;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "no trap");
}

TEST_F(trace_checker_death, tells_a_link_that_is_not_noted) {
  const std::int32_t id = block_of(path_end);
  meta(id).linked_from = nullptr;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "not noted");
}

TEST_F(trace_checker_death, tells_a_blocks_link_to_a_head_that_was_replaced) {
  const std::int32_t from = scan_block(back_to_head);
  dispatched(address_of(skipped_by_eq), from);
  std::uint32_t* link = meta(from).exit_code_addr + 1;
  a64_branch(link, address_of(block(head)) + 4);
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "not lead where the application goes");
}

TEST_F(trace_checker_death, tells_a_trace_that_the_table_does_not_find) {
  hash_add(&thread->entry_table.table, address_of(skipped_by_eq), address_of(block(head)));
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "table does not find");
}

TEST_F(trace_checker_death, tells_a_branch_in_a_fragments_words_that_leads_out_of_it) {
  a64_branch(at(entry_of_trace) + 1, entry_of_trace + 400);
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "out of its fragment");
}

}  // namespace
}  // namespace ceilmeter::test
