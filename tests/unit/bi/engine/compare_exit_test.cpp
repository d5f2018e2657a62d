// Exits by compare and branch (CB<cc>). They are not inverted. Their words as scanned, linked, trapped and in traces.
#include <ucontext.h>

#include <csignal>

#include "bi/a64/a64.h"
#include "bi/code/exit_branch.h"
#include "bi/signals/exit_trap.h"
#include "bi/code/stubs.h"
#include "bi/code/trace_check.h"
#include "signal_arrival.h"
#include "trace_sources.h"

namespace ceilmeter::test {

SOURCE(cbgt_w3_63);
SOURCE(cblt_x1_0);
SOURCE(cbhs_x3_x4);
SOURCE(cbbeq_w3_w4);
SOURCE(compare_head);
SOURCE(compare_skipped);
SOURCE(compare_taken);
SOURCE(compare_closes);
SOURCE(compare_end);
SOURCE(compare_before_much);
SOURCE(compare_much);

namespace {

using testing::Each;
using testing::ElementsAre;

constexpr std::uint32_t HVC_149 = 0xd40012a2;

class compare_exits : public trace_test {
 protected:
  compare_exits() { ucontext.uc_mcontext.sp = address_of(stack + 64); }
  mcontext_t& context() { return ucontext.uc_mcontext; }
  std::uint32_t compare_word(const std::uint32_t* place, std::uint32_t source, std::uint64_t to) const {
    return redirected_branch(source, place, to);
  }
  void arrive(int signum, const void* pc) {
    context().pc = address_of(pc);
    siginfo_t info{};
    info.si_signo = signum;
    info.si_code = 1;
    arrive_with(info, ucontext);
  }
  // The source address that the trap at `place` leads to.
  std::uint64_t run_into(const std::uint32_t* place) {
    context().sp = address_of(stack + 64);
    arrive(SIGILL, place);
    EXPECT_EQ(context().pc, address_of(thread->code_cache + stub_offset(redirect_stub)));
    return thread->redirect_target;
  }
  // A path that leaves compare_head by its taken side and returns by compare_closes.
  void build_trace() {
    head = block_of(compare_head);
    entry_of_trace = make_hot(head);
    for (const std::uint32_t* next : {compare_taken, compare_closes, compare_head}) leave(next);
    ASSERT_EQ(thread->active_trace.active, 0u);
  }
  std::uint32_t* exit_of(std::int32_t index) const { return meta(BB_COUNT + index).exit_code_addr; }

  ucontext_t ucontext{};
  alignas(16) std::uint64_t stack[128] = {};
};

TEST_F(compare_exits, one_has_a_counter_three_reserved_words_and_the_branch_in_its_own_sense) {
  for (const std::uint32_t* source : {cbgt_w3_63, cblt_x1_0, cbhs_x3_x4, cbbeq_w3_w4}) {
    const std::int32_t id = scan_block(source);
    const word_list counter = counter_code(id);
    const std::uint32_t* exit = block(id) + 1 + counter.size();
    EXPECT_EQ(words(block(id) + 1, counter.size()), counter);
    ASSERT_EQ(meta(id).exit_code_addr, exit);
    EXPECT_EQ(meta(id).exit_kind, EXIT_COMPARE);
    EXPECT_EQ(meta(id).taken_source_addr, address_of(source + 2));
    EXPECT_EQ(meta(id).skipped_source_addr, address_of(source + 1));
    EXPECT_EQ(words(exit, 4), (word_list{NOP, NOP, NOP, PUSH_X0_X1}));
    const word_list skipped = branch_jump(exit + 5, address_of(source + 1), id);
    const std::uint32_t* taken_part = exit + 5 + skipped.size();
    EXPECT_EQ(exit[4], compare_word(exit + 4, *source, address_of(taken_part)));
    EXPECT_EQ(words(exit + 5, skipped.size()), skipped);
    const word_list taken = branch_jump(taken_part, address_of(source + 2), id);
    EXPECT_EQ(words(taken_part, taken.size()), taken);
  }
}

TEST_F(compare_exits, one_behind_other_words_ends_their_block) {
  const std::int32_t id = scan_block(compare_head);
  EXPECT_EQ(meta(id).exit_kind, EXIT_COMPARE);
  EXPECT_EQ(meta(id).taken_source_addr, address_of(compare_taken));
  EXPECT_EQ(count_source_words(compare_head), 2u);
}

TEST_F(compare_exits, the_taken_side_first_has_its_own_word_and_the_other_one_goes_on_to_the_stub) {
  const std::int32_t id = scan_block(cbgt_w3_63);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t taken = dispatched(address_of(cbgt_w3_63 + 2), id);
  const std::uint32_t branch = compare_word(exit, *cbgt_w3_63, address_of(exit + 2));
  EXPECT_THAT(words(exit, 4), ElementsAre(branch, branch_word(exit + 1, address_of(exit + 3)),
                                          branch_word(exit + 2, taken + 4), PUSH_X0_X1));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, taken)), ElementsAre(address_of(exit + 2)));

  const std::uint64_t skipped = dispatched(address_of(cbgt_w3_63 + 1), id);
  EXPECT_THAT(words(exit, 4),
              ElementsAre(branch, branch_word(exit + 1, skipped + 4), branch_word(exit + 2, taken + 4), PUSH_X0_X1));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST | LINK_BOTH);
  EXPECT_THAT(links_to(cc_addr_to_bb_id(thread, skipped)), ElementsAre(address_of(exit + 1)));
}

TEST_F(compare_exits, the_fall_through_side_first_leaves_the_taken_one_to_the_stub) {
  const std::int32_t id = scan_block(cbhs_x3_x4);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t skipped = dispatched(address_of(cbhs_x3_x4 + 1), id);
  const std::uint32_t branch = compare_word(exit, *cbhs_x3_x4, address_of(exit + 2));
  EXPECT_THAT(words(exit, 4), ElementsAre(branch, branch_word(exit + 1, skipped + 4), NOP, PUSH_X0_X1));
  EXPECT_EQ(meta(id).link_state, LINK_SKIPPED_FIRST);

  const std::uint64_t taken = dispatched(address_of(cbhs_x3_x4 + 2), id);
  EXPECT_THAT(words(exit, 4),
              ElementsAre(branch, branch_word(exit + 1, skipped + 4), branch_word(exit + 2, taken + 4), PUSH_X0_X1));
  EXPECT_EQ(meta(id).link_state, LINK_SKIPPED_FIRST | LINK_BOTH);
}

TEST_F(compare_exits, a_side_whose_block_is_there_is_linked_along_with_the_first_one) {
  const std::int32_t id = scan_block(cblt_x1_0);
  const std::uint64_t skipped = scan(thread, address_of(cblt_x1_0 + 1), 0);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint64_t taken = dispatched(address_of(cblt_x1_0 + 2), id);
  EXPECT_THAT(words(exit + 1, 2), ElementsAre(branch_word(exit + 1, skipped + 4), branch_word(exit + 2, taken + 4)));
  EXPECT_EQ(meta(id).link_state, LINK_TAKEN_FIRST | LINK_BOTH);
}

TEST_F(compare_exits, a_trap_leads_where_the_comparison_does_and_is_put_back) {
  const std::int32_t id = scan_block(cbgt_w3_63);
  std::uint32_t* exit = meta(id).exit_code_addr;
  dispatched(address_of(cbgt_w3_63 + 2), id);
  const word_list linked = words(exit, 4);
  const std::pair<std::uint64_t, int> values[] = {{63, 1},         {64, 2},         {0x7fffffff, 2},
                                                  {0x80000000, 1}, {1ULL << 32, 1}, {~0ULL, 1}};
  for (const auto& [value, side] : values) {
    arrive(SIGUSR1, block(id) + 1);
    EXPECT_THAT(words(exit, 3), Each(HVC_149));
    context().regs[3] = value;
    EXPECT_EQ(run_into(exit), address_of(cbgt_w3_63 + side)) << value;
    EXPECT_EQ(words(exit, 4), linked);
  }
}

TEST_F(compare_exits, a_trap_found_behind_the_branch_leads_the_same_way) {
  const std::int32_t id = scan_block(cbbeq_w3_w4);
  std::uint32_t* exit = meta(id).exit_code_addr;
  dispatched(address_of(cbbeq_w3_w4 + 2), id);
  context().regs[3] = 0x1ff;
  context().regs[4] = 0x2ff;
  arrive(SIGUSR1, exit + 2);  // The thread has taken the branch, and stands at the link.
  EXPECT_EQ(run_into(exit + 2), address_of(cbbeq_w3_w4 + 2));
}

TEST_F(compare_exits, a_second_link_made_behind_the_trap_stays_when_the_trap_is_undone) {
  const std::int32_t id = scan_block(cbgt_w3_63);
  std::uint32_t* exit = meta(id).exit_code_addr;
  dispatched(address_of(cbgt_w3_63 + 2), id);
  const word_list linked = words(exit, 3);
  arrive(SIGUSR1, block(id) + 1);
  const std::uint64_t skipped = dispatched(address_of(cbgt_w3_63 + 1), id);  // The thread stood in the stub.
  run_into(exit);
  EXPECT_THAT(words(exit, 3), ElementsAre(linked[0], branch_word(exit + 1, skipped + 4), linked[2]));
}

TEST_F(compare_exits, a_trace_by_the_taken_side_leaves_by_a_word_of_its_own_and_one_by_the_other_side_by_the_branch) {
  build_trace();
  const std::uint32_t* first = exit_of(0);
  EXPECT_EQ(first[0], compare_word(first, compare_head[1], address_of(first + 2)));
  EXPECT_EQ(a64_decode(first + 1), A64_B);
  EXPECT_EQ(branch_destination(first[1], first + 1), meta(meta(BB_COUNT).trampoline).cache_entry);
  EXPECT_EQ(meta(BB_COUNT + 1).cache_entry, address_of(first + 2));
  const std::uint32_t* second = exit_of(1);
  EXPECT_EQ(second[0], compare_word(second, compare_taken[1], meta(meta(BB_COUNT + 1).trampoline).cache_entry));
  EXPECT_EQ(meta(BB_COUNT + 2).cache_entry, address_of(second + 1));
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(compare_exits, an_exit_word_of_its_own_reaches_a_trace_at_any_distance) {
  build_trace();
  thread->trace_write_cursor += 0x200000;
  const std::uint64_t second = make_hot(block_of(compare_skipped));
  leave(compare_head);
  EXPECT_EQ(branch_destination(exit_of(0)[1], exit_of(0) + 1), second + 4);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(compare_exits, an_exit_that_is_the_branch_itself_goes_to_a_distant_trace_by_its_trampoline) {
  build_trace();
  thread->trace_write_cursor += 0x1000;
  const std::uint64_t second = make_hot(block_of(compare_end));
  leave(compare_head);
  EXPECT_EQ(branch_destination(*exit_of(1), exit_of(1)), meta(meta(BB_COUNT + 1).trampoline).cache_entry);
  EXPECT_EQ(meta(meta(BB_COUNT + 1).trampoline).rejoin_cache_addr, second + 4);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(compare_exits, a_fragment_that_the_branch_does_not_reach_over_is_not_taken_in) {
  const std::int32_t id = block_of(compare_before_much);
  make_hot(id);
  leave(compare_much);
  EXPECT_EQ(thread->active_trace.active, 0u);
  EXPECT_EQ(thread->trace_fragment_count, 1);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(compare_exits, in_a_trace_the_words_that_leave_it_are_trapped_and_no_more) {
  build_trace();
  const word_list before = words(at(entry_of_trace), 16);
  arrive(SIGUSR1, at(meta(BB_COUNT).cache_entry));
  EXPECT_THAT(words(exit_of(0), 2), Each(HVC_149));
  EXPECT_EQ(exit_of(0)[2], before[static_cast<std::size_t>(exit_of(0) + 2 - at(entry_of_trace))]);
  context().regs[3] = 64;
  EXPECT_EQ(run_into(exit_of(0)), address_of(compare_taken));
  EXPECT_EQ(words(at(entry_of_trace), 16), before);

  arrive(SIGUSR1, at(meta(BB_COUNT).cache_entry));
  context().regs[3] = 63;
  EXPECT_EQ(run_into(exit_of(0)), address_of(compare_skipped));
  EXPECT_EQ(words(at(entry_of_trace), 16), before);

  arrive(SIGUSR1, at(meta(BB_COUNT + 1).cache_entry));
  EXPECT_EQ(*exit_of(1), HVC_149);
  EXPECT_NE(exit_of(1)[1], HVC_149);
  context().regs[4] = 63;
  EXPECT_EQ(run_into(exit_of(1)), address_of(compare_end));
  EXPECT_EQ(words(at(entry_of_trace), 16), before);
}

TEST_F(compare_exits, the_last_one_of_a_trace_is_trapped_with_the_branch_that_closes_it) {
  head = block_of(compare_end);
  entry_of_trace = make_hot(head);
  for (const std::uint32_t* next : {compare_head, compare_taken, compare_end}) leave(next);
  ASSERT_EQ(thread->active_trace.active, 0u);
  const word_list before = words(exit_of(2), 3);
  arrive(SIGUSR1, at(meta(BB_COUNT + 2).cache_entry));
  EXPECT_THAT(words(exit_of(2), 3), Each(HVC_149));
  context().regs[3] = context().regs[4] = 5;
  EXPECT_EQ(run_into(exit_of(2)), address_of(compare_end));
  EXPECT_EQ(words(exit_of(2), 3), before);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(compare_exits, the_checker_tells_one_that_compares_something_else) {
  build_trace();
  exit_of(0)[0] ^= 1;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "an exit tests something else");
  exit_of(0)[0] ^= 1;
  exit_of(0)[1] += 1;
  EXPECT_DEATH(check_trace_cache(thread, BB_COUNT), "the cache is not what it should be");
}

}  // namespace
}  // namespace ceilmeter::test
