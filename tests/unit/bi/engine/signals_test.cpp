// Signals at places of rewritten code: what is trapped, counted, undone and run.
#include "bi/signals/signals.h"

#include <unistd.h>

#include <cstring>
#include <thread>

#include "bi/a64/a64.h"
#include "signals_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);
SOURCE(loop_to_itself);
SOURCE(branch_eq);
SOURCE(cbz_x3);
SOURCE(cbz_w3);
SOURCE(tbz_bit_5);
SOURCE(tbnz_bit_37);
SOURCE(ret_x30);
SOURCE(blr_x0);

namespace {

using testing::Each;

using signals = signals_fixture;
using signals_death = signals_fixture;

TEST_F(signals, one_in_a_linked_loop_ends_at_the_next_pass_through_the_exit_and_the_handler_sees_the_loops_source) {
  const std::int32_t id = scan_block(loop_to_itself);
  dispatched(address_of(loop_to_itself), id);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const std::uint32_t link = *exit;
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);

  EXPECT_EQ(arrive(SIGUSR1, block(id) + 2), 0u);
  EXPECT_EQ(*exit, HVC_149);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);

  const std::uint64_t sp = context().sp;
  EXPECT_EQ(arrive(SIGILL, exit), 0u);
  EXPECT_EQ(*exit, link);
  expect_at_dispatcher(address_of(loop_to_itself), sp);

  std::uint64_t area[REENTRY_SIZE / 8] = {};
  std::uint64_t* const info = area + REENTRY_RESULT / 8;
  EXPECT_EQ(deliver_pending_signal(address_of(loop_to_itself), info), 1u);
  EXPECT_EQ(info[0], static_cast<std::uint64_t>(SIG_SETMASK));
  EXPECT_EQ(info[1], address_of(&thread->application_mask));
  EXPECT_EQ(info[2], 0u);
  EXPECT_EQ(thread->held.raised.si_signo, SIGUSR1);
  EXPECT_EQ(thread->pending_signal_count, 0);

  // A thread at the system call of cache_reentry_stub: the application's x2, x8, x0 and x1 are on its stack, and the
  // target is on the engine's.
  const std::uint64_t frame[] = {0xc2, 0xc8, 0xc0, 0xc1};
  std::copy(std::begin(frame), std::end(frame), stack + 34);
  context().sp = address_of(stack + 34);
  alignas(16) static std::uint64_t engine_words[REENTRY_SIZE / 8];
  engine_words[REENTRY_NEXT / 8 + 1] = address_of(loop_to_itself);
  *engine_stack_word(thread) = address_of(std::end(engine_words));
  EXPECT_EQ(arrive(SIGUSR1, stub(reentry_signal_point)), address_of(one_ret));
  EXPECT_EQ(context().pc, address_of(loop_to_itself));
  EXPECT_EQ(context().sp, address_of(stack + 38));
  EXPECT_EQ(context().regs[0], 0xc0u);
  EXPECT_EQ(context().regs[1], 0xc1u);
  EXPECT_EQ(context().regs[2], 0xc2u);
  EXPECT_EQ(context().regs[8], 0xc8u);
}

TEST_F(signals, two_in_one_fragment_trap_it_once_and_are_both_counted) {
  const std::int32_t id = scan_block(loop_to_itself);
  dispatched(address_of(loop_to_itself), id);
  const std::uint32_t link = *meta(id).exit_code_addr;
  arrive(SIGUSR1, block(id) + 2);
  arrive(SIGUSR2, block(id) + 2);
  EXPECT_EQ(meta(id).overwritten_exit[0], link);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
  EXPECT_EQ(thread->pending_signals[SIGUSR2], 1);
  EXPECT_EQ(thread->pending_signal_count, 2);
  arrive(SIGILL, meta(id).exit_code_addr);
  EXPECT_EQ(*meta(id).exit_code_addr, link);
}

TEST_F(signals, an_exit_that_is_not_linked_is_not_trapped) {
  const std::int32_t id = scan_block(loop_to_itself);
  const word_list before = words(block(id), BB_SIZE / 4);
  arrive(SIGUSR1, block(id) + 2);
  EXPECT_EQ(words(block(id), BB_SIZE / 4), before);
  EXPECT_EQ(thread->pending_signal_count, 1);
}

TEST_F(signals, one_behind_the_links_traps_nothing) {
  const std::int32_t id = scan_block(loop_to_itself);
  dispatched(address_of(loop_to_itself), id);
  const word_list before = words(block(id), BB_SIZE / 4);
  arrive(SIGUSR1, meta(id).exit_code_addr + 2);
  EXPECT_EQ(words(block(id), BB_SIZE / 4), before);
  EXPECT_EQ(thread->pending_signal_count, 1);
}

TEST_F(signals, one_in_the_engine_is_only_counted) {
  EXPECT_EQ(arrive(SIGUSR1, reinterpret_cast<const void*>(&lookup_or_scan)), 0u);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
  EXPECT_EQ(thread->pending_signal_count, 1);
}

TEST_F(signals, one_in_a_continued_block_traps_the_exit_of_the_whole) {
  // Five blocks long. The exit stands in the last block and belongs to the record of the first.
  alignas(8) static std::uint32_t source[301];
  std::fill(std::begin(source), std::end(source) - 1, NOP);
  source[300] = 0x14000000;  // b to itself
  const std::int32_t id = scan_block(source);
  dispatched(address_of(source + 300), id);
  const std::uint32_t* exit = meta(id).exit_code_addr;
  EXPECT_GT(exit, block(id + 3));
  arrive(SIGUSR1, block(id + 3));
  EXPECT_EQ(*exit, HVC_149);
}

TEST_F(signals, a_trapped_condition_goes_the_way_of_the_contexts_flags) {
  const std::uint64_t taken = address_of(one_ret);
  const std::uint64_t skipped = address_of(branch_eq) + 4;
  context().pstate = 1ULL << 30;  // Z
  EXPECT_EQ(through_trap(branch_eq, taken), taken);
  context().pstate = 0;
  EXPECT_EQ(through_trap(branch_eq, taken), skipped);
}

TEST_F(signals, every_condition_is_that_of_the_architecture) {
  const auto holds = [](std::uint32_t cond, bool n, bool z, bool c, bool v) {
    switch (cond) {
      case 0: return z;
      case 1: return !z;
      case 2: return c;
      case 3: return !c;
      case 4: return n;
      case 5: return !n;
      case 6: return v;
      case 7: return !v;
      case 8: return c && !z;
      case 9: return !c || z;
      case 10: return n == v;
      case 11: return n != v;
      case 12: return !z && n == v;
      case 13: return z || n != v;
      default: return true;
    }
  };
  const std::int32_t id = scan_block(branch_eq);
  dispatched(address_of(one_ret), id);
  for (std::uint32_t cond = 0; cond < 16; ++cond) {
    meta(id).exit_condition = cond;
    for (std::uint64_t flags = 0; flags < 16; ++flags) {
      context().sp = address_of(stack + 64);
      context().regs[0] = 5;
      context().pstate = flags << 28;
      arrive(SIGUSR1, block(id) + 1);
      arrive(SIGILL, meta(id).exit_code_addr);
      const bool expected = holds(cond, (flags & 8) != 0, (flags & 4) != 0, (flags & 2) != 0, (flags & 1) != 0);
      EXPECT_EQ(thread->redirect_target, expected ? address_of(one_ret) : address_of(branch_eq) + 4)
          << "condition " << cond << ", flags " << flags;
    }
  }
}

TEST_F(signals, a_trapped_cbz_tests_the_width_of_its_form) {
  const std::uint64_t taken = address_of(one_ret);
  context().regs[3] = 0;
  EXPECT_EQ(through_trap(cbz_x3, taken), taken);
  EXPECT_EQ(through_trap(cbz_w3, taken), taken);
  context().regs[3] = 1;
  EXPECT_EQ(through_trap(cbz_x3, taken), address_of(cbz_x3) + 4);
  EXPECT_EQ(through_trap(cbz_w3, taken), address_of(cbz_w3) + 4);
  context().regs[3] = 1ULL << 32;
  EXPECT_EQ(through_trap(cbz_x3, taken), address_of(cbz_x3) + 4);
  EXPECT_EQ(through_trap(cbz_w3, taken), taken);
}

TEST_F(signals, a_trapped_tbz_tests_its_bit_alone) {
  const std::uint64_t taken = address_of(one_ret);
  context().regs[3] = ~(1ULL << 5);
  EXPECT_EQ(through_trap(tbz_bit_5, taken), taken);
  context().regs[3] = 1ULL << 5;
  EXPECT_EQ(through_trap(tbz_bit_5, taken), address_of(tbz_bit_5) + 4);
  context().regs[1] = ~(1ULL << 37);
  EXPECT_EQ(through_trap(tbnz_bit_37, taken), address_of(tbnz_bit_37) + 4);
  context().regs[1] = 1ULL << 37;
  EXPECT_EQ(through_trap(tbnz_bit_37, taken), taken);
}

TEST_F(signals, an_exit_linked_on_both_sides_is_trapped_with_both_links) {
  const std::int32_t id = scan_block(branch_eq);
  dispatched(address_of(one_ret), id);
  dispatched(address_of(branch_eq) + 4, id);
  const word_list before = words(meta(id).exit_code_addr, 3);
  ASSERT_EQ(meta(id).link_state, LINK_TAKEN_FIRST | LINK_BOTH);
  arrive(SIGUSR1, block(id) + 1);
  EXPECT_THAT(words(meta(id).exit_code_addr, 3), Each(HVC_149));
  arrive(SIGILL, meta(id).exit_code_addr);
  EXPECT_EQ(words(meta(id).exit_code_addr, 3), before);
}

TEST_F(signals, a_second_link_made_behind_the_trap_stays_when_the_trap_is_undone) {
  const std::int32_t id = scan_block(branch_eq);
  dispatched(address_of(one_ret), id);
  std::uint32_t* exit = meta(id).exit_code_addr;
  const word_list first_link = words(exit, 2);
  arrive(SIGUSR1, block(id) + 1);
  EXPECT_THAT(words(exit, 2), Each(HVC_149));
  dispatched(address_of(branch_eq) + 4, id);  // The thread stood in the stub behind the trapped words.
  const std::uint32_t second_link = exit[2];
  ASSERT_NE(second_link, PUSH_X0_X1);
  arrive(SIGILL, exit);
  EXPECT_EQ(words(exit, 2), first_link);
  EXPECT_EQ(exit[2], second_link);
}

TEST_F(signals, a_register_branch_is_trapped_at_its_last_word_and_goes_on_to_its_target) {
  const std::int32_t id = scan_block(ret_x30);
  arrive(SIGUSR1, block(id) + 1);
  std::uint32_t* trap = meta(id).exit_code_addr;
  while (*trap != HVC_148) ASSERT_LT(++trap, block(id + 1));

  context().sp = address_of(stack + 32);
  stack[32] = 0xa0;  // What the lookup has pushed.
  stack[33] = 0xa1;
  context().regs[30] = address_of(one_ret);
  EXPECT_EQ(arrive(SIGILL, trap), 0u);
  EXPECT_EQ(*trap, BR_X0);
  expect_at_dispatcher(address_of(one_ret), address_of(stack + 34));
  EXPECT_EQ(stack[32], 0xa0u);
  EXPECT_EQ(stack[33], 0xa1u);
}

TEST_F(signals, a_register_branch_by_x0_has_its_target_in_x1_at_the_trap) {
  const std::int32_t id = scan_block(blr_x0);
  arrive(SIGUSR1, block(id) + 1);
  std::uint32_t* trap = meta(id).exit_code_addr;
  while (*trap != HVC_148) ASSERT_LT(++trap, block(id + 1));
  context().sp = address_of(stack + 32);
  context().regs[1] = address_of(one_ret);
  arrive(SIGILL, trap);
  expect_at_dispatcher(address_of(one_ret), address_of(stack + 34));
}

TEST_F(signals, six_are_faults_that_run_their_handler_at_once_and_no_other_is) {
  const std::int32_t id = scan_block(loop_to_itself);
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    engine.signal_handlers[signum] = address_of(one_ret);
    const bool is_fault = signum == SIGILL || signum == SIGTRAP || signum == SIGBUS || signum == SIGFPE ||
                          signum == SIGSEGV || signum == SIGSYS;
    EXPECT_EQ(arrive(signum, block(id) + 2), is_fault ? address_of(one_ret) : 0) << "signal " << signum;
    EXPECT_EQ(thread->pending_signals[signum], is_fault ? 0 : 1) << "signal " << signum;
  }
}

TEST_F(signals, a_fault_without_a_handler_happens_again_under_the_default_action) {
  struct sigaction before {};
  sigaction(SIGSEGV, nullptr, &before);
  const std::int32_t id = scan_block(loop_to_itself);
  EXPECT_EQ(arrive(SIGSEGV, block(id) + 2), 0u);
  EXPECT_EQ(context().pc, address_of(block(id) + 2));
  struct sigaction now {};
  sigaction(SIGSEGV, &before, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL);
}

TEST_F(signals_death, a_fault_in_the_engine_itself_aborts_the_process) {
  EXPECT_EXIT(arrive(SIGSEGV, reinterpret_cast<const void*>(&lookup_or_scan)), testing::KilledBySignal(SIGABRT),
              "synchronous signal outside the code cache");
}

TEST_F(signals, an_illegal_instruction_in_a_blocks_body_is_the_applications) {
  const std::int32_t id = scan_block(loop_to_itself);
  engine.signal_handlers[SIGILL] = address_of(one_ret);
  EXPECT_EQ(arrive(SIGILL, block(id) + 2), address_of(one_ret));
}

TEST_F(signals_death, a_trap_of_an_unknown_number_is_fatal) {
  const std::int32_t id = scan_block(loop_to_itself);
  a64_hvc(meta(id).exit_code_addr, 150);
  EXPECT_EXIT(arrive(SIGILL, meta(id).exit_code_addr), testing::KilledBySignal(SIGABRT), "unknown trap code");
}

TEST_F(signals, the_end_of_the_process_traps_a_thread_in_a_block_and_ends_it_on_its_way_back_into_the_cache) {
  std::thread([this] {
    current_thread = thread;
    const std::int32_t id = scan_block(loop_to_itself);
    dispatched(address_of(loop_to_itself), id);
    engine.exit_flag = 1;
    EXPECT_EQ(arrive(SIGILL, block(id) + 2), 0u);
    EXPECT_EQ(*meta(id).exit_code_addr, HVC_149);
    EXPECT_EQ(thread->pending_signal_count, 1);
    std::uint64_t info[4] = {};
    deliver_pending_signal(address_of(loop_to_itself), info);
    ADD_FAILURE() << "the thread has come back";
  }).join();
  EXPECT_EQ(thread->status, THREAD_ABANDONED);
}

TEST_F(signals, the_end_of_the_process_holds_back_what_the_application_handles_but_no_fault_and_no_default_action) {
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  engine.signal_handlers[SIGSEGV] = address_of(one_ret);
  engine.signal_handlers[SIGTERM] = 0;
  engine.exit_flag = 1;
  sigaddset(&ucontext.uc_sigmask, SIGHUP);
  EXPECT_EQ(arrive(SIGUSR1, stub(dispatcher_entry_stub)), 0u);
  std::uint64_t mask = 0;
  std::memcpy(&mask, &ucontext.uc_sigmask, sizeof mask);
  EXPECT_EQ(mask, std::uint64_t{1} << (SIGUSR1 - 1) | std::uint64_t{1} << (SIGHUP - 1));
}

TEST_F(signals, the_end_of_the_process_ends_a_thread_in_an_exit_where_it_stands) {
  std::thread([this] {
    current_thread = thread;
    const std::int32_t id = scan_block(loop_to_itself);
    engine.exit_flag = 1;
    arrive(SIGILL, meta(id).exit_code_addr);
    ADD_FAILURE() << "the thread has come back";
  }).join();
  EXPECT_EQ(thread->status, THREAD_ABANDONED);
}

TEST_F(signals, the_end_of_the_process_ends_a_thread_that_faults_in_a_block) {
  std::thread([this] {
    current_thread = thread;
    const std::int32_t id = scan_block(loop_to_itself);
    engine.exit_flag = 1;
    arrive(SIGSEGV, block(id) + 2);
    ADD_FAILURE() << "the thread has come back";
  }).join();
  EXPECT_EQ(thread->status, THREAD_ABANDONED);
}

TEST_F(signals, the_end_of_the_process_ends_a_thread_at_the_trap_that_raises_a_held_signal) {
  std::thread([this] {
    current_thread = thread;
    engine.exit_flag = 1;
    arrive(SIGILL, stub(reentry_raise));
    ADD_FAILURE() << "the thread has come back";
  }).join();
  EXPECT_EQ(thread->status, THREAD_ABANDONED);
}

TEST_F(signals_death, a_fault_in_the_engine_aborts_the_process_even_at_its_end) {
  engine.exit_flag = 1;
  EXPECT_DEATH(arrive(SIGSEGV, &engine), "synchronous signal outside the code cache");
}

TEST_F(signals, a_fault_signal_that_somebody_has_sent_is_counted_wherever_it_arrives) {
  const std::int32_t id = scan_block(one_ret);
  engine.signal_handlers[SIGSEGV] = address_of(one_ret);
  EXPECT_EQ(arrive(SIGSEGV, block(id) + 1, SI_TKILL), 0u);
  EXPECT_EQ(arrive(SIGILL, meta(id).exit_code_addr, SI_USER), 0u);
  EXPECT_EQ(arrive(SIGTRAP, reinterpret_cast<const void*>(&lookup_or_scan), SI_QUEUE), 0u);
  EXPECT_EQ(thread->pending_signals[SIGSEGV], 1);
  EXPECT_EQ(thread->pending_signals[SIGILL], 1);
  EXPECT_EQ(thread->pending_signals[SIGTRAP], 1);
  EXPECT_EQ(thread->pending_signal_count, 3);
}

}  // namespace
}  // namespace ceilmeter::test
