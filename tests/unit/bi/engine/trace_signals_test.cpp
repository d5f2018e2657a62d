// Signals in traces: which words of which fragment are trapped, and where a trap leads.
#include <ucontext.h>

#include <csignal>

#include "bi/a64/a64.h"
#include "bi/code/exit_branch.h"
#include "bi/signals/exit_trap.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"
#include "bi/code/trace_check.h"
#include "bi/code/trace_install.h"
#include "signal_arrival.h"
#include "trace_sources.h"

namespace ceilmeter::test {

namespace {

constexpr std::uint32_t HVC_149 = 0xd40012a2;
constexpr std::uint64_t ZERO_FLAG = 1U << 30;

class trace_signals : public trace_test {
 protected:
  trace_signals() {
    build_five_blocks();
    ucontext.uc_mcontext.sp = address_of(stack + 64);
  }
  std::uint32_t* exit_of(std::int32_t index) const { return meta(BB_COUNT + index).exit_code_addr; }
  void arrive(int signum, std::uint64_t pc) {
    ucontext.uc_mcontext.pc = pc;
    siginfo_t info{};
    info.si_signo = signum;
    info.si_code = 1;
    arrive_with(info, ucontext);
  }
  // The source address that the trap at `place` leads to.
  std::uint64_t run_into(const std::uint32_t* place) {
    arrive(SIGILL, address_of(place));
    EXPECT_EQ(ucontext.uc_mcontext.pc, address_of(thread->code_cache + stub_offset(redirect_stub)));
    return thread->redirect_target;
  }
  // The words of the trace that are traps.
  std::vector<std::ptrdiff_t> trapped() const {
    std::vector<std::ptrdiff_t> places;
    for (const std::uint32_t* word = at(entry_of_trace); word < at(entry_of_trace) + 40; ++word) {
      if (*word == HVC_149) places.push_back(word - at(entry_of_trace));
    }
    return places;
  }

  ucontext_t ucontext{};
  alignas(16) std::uint64_t stack[128] = {};
};

using testing::ElementsAre;

TEST_F(trace_signals, in_the_middle_of_a_trace_only_the_branch_that_leaves_it_is_trapped) {
  arrive(SIGUSR1, meta(BB_COUNT + 1).cache_entry);
  EXPECT_THAT(trapped(), ElementsAre(4));
}

TEST_F(trace_signals, in_the_last_fragment_the_exit_and_the_closing_branch_are) {
  arrive(SIGUSR1, meta(BB_COUNT + 4).cache_entry);
  EXPECT_THAT(trapped(), ElementsAre(9, 10));
}

TEST_F(trace_signals, at_the_closing_branch_it_is_trapped_as_well) {
  arrive(SIGUSR1, address_of(exit_of(4) + 1));
  EXPECT_THAT(trapped(), ElementsAre(9, 10));
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
}

TEST_F(trace_signals, in_a_fragment_that_just_goes_on_the_next_ones_exit_is_trapped) {
  arrive(SIGUSR1, meta(BB_COUNT + 3).cache_entry);
  EXPECT_THAT(trapped(), ElementsAre(9, 10));
}

TEST_F(trace_signals, in_a_last_fragment_without_a_condition_the_closing_branch_alone_is_trapped) {
  const std::uint64_t loop = make_hot(block_of(path_end));
  leave(path_end);
  const std::int32_t id = addr_to_fragment_id(thread, loop);
  make_hot(block_of(exit_only));
  leave(by_return);
  const word_list next_trace = words(at(meta(id + 1).cache_entry), 30);
  arrive(SIGUSR1, loop + 4);
  EXPECT_EQ(*meta(id).exit_code_addr, HVC_149);
  EXPECT_EQ(words(at(meta(id + 1).cache_entry), 30), next_trace);
  EXPECT_EQ(run_into(meta(id).exit_code_addr), address_of(path_end));
  EXPECT_EQ(*meta(id).exit_code_addr, branch_word(meta(id).exit_code_addr, loop + 4));
}

TEST_F(trace_signals, a_trapped_exit_leads_where_the_application_goes_and_is_put_back) {
  const word_list before = words(at(entry_of_trace), 12);
  arrive(SIGUSR1, meta(BB_COUNT).cache_entry);
  ASSERT_THAT(trapped(), ElementsAre(2));
  ucontext.uc_mcontext.pstate = ZERO_FLAG;
  EXPECT_EQ(run_into(exit_of(0)), address_of(path_end));
  EXPECT_EQ(words(at(entry_of_trace), 12), before);

  arrive(SIGUSR1, meta(BB_COUNT).cache_entry);
  ucontext.uc_mcontext.pstate = 0;
  EXPECT_EQ(run_into(exit_of(0)), address_of(taken_by_cbnz));
  EXPECT_EQ(words(at(entry_of_trace), 12), before);
  check_trace_cache(thread, BB_COUNT);
}

TEST_F(trace_signals, in_a_trampoline_the_exit_of_the_block_that_it_leads_to_is_trapped) {
  const std::int32_t target = block_of(path_end);
  dispatched(address_of(by_return), target);  // Whatever it is linked to.
  const std::int32_t tramp = meta(BB_COUNT).trampoline;
  arrive(SIGUSR1, meta(tramp).cache_entry);
  EXPECT_EQ(*meta(target).exit_code_addr, HVC_149);
  EXPECT_TRUE(trapped().empty());
}

TEST_F(trace_signals, in_a_trampoline_that_leads_to_a_trace_the_exit_of_that_trace_is_trapped) {
  // A trace whose head continues in a second fragment, which is out of reach of the exit.
  thread->trace_write_cursor += 0x200000;
  const std::uint64_t second = make_hot(block_of(path_end));
  leave(exit_only);
  leave(by_return);
  const std::int32_t tramp = meta(BB_COUNT).trampoline;
  ASSERT_EQ(meta(tramp).rejoin_cache_addr, second + 4);
  arrive(SIGUSR1, meta(tramp).cache_entry + 8);
  const std::int32_t next = addr_to_fragment_id(thread, second) + 1;
  EXPECT_EQ(*meta(next).exit_code_addr, HVC_149);
}

TEST_F(trace_signals, while_a_trace_is_built_its_newest_fragment_comes_to_the_engine_by_itself) {
  const std::uint64_t entry = make_hot(block_of(path_end));
  const word_list before = words(at(entry), 10);
  arrive(SIGUSR1, entry + 4);
  EXPECT_EQ(words(at(entry), 10), before);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
}

TEST_F(trace_signals, an_exit_that_is_trapped_is_led_to_a_new_trace_where_the_trap_keeps_it) {
  arrive(SIGUSR1, meta(BB_COUNT).cache_entry);
  ASSERT_THAT(trapped(), ElementsAre(2));
  const std::uint64_t second = make_hot(block_of(path_end));
  leave(path_end);
  EXPECT_EQ(*exit_of(0), HVC_149);
  EXPECT_EQ(branch_destination(meta(BB_COUNT).overwritten_exit[0], exit_of(0)), second + 4);
  ucontext.uc_mcontext.pstate = 0;
  run_into(exit_of(0));
  EXPECT_EQ(branch_destination(*exit_of(0), exit_of(0)), second + 4);
  check_trace_cache(thread, BB_COUNT);
}

}  // namespace
}  // namespace ceilmeter::test
