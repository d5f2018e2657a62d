// Which of the counted signals are raised again, and which wait.
#include "bi/signals/signal_delivery.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <vector>

#include "bi/signals/signals.h"
#include "signals_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);

namespace {

using signal_delivery = signals_fixture;

TEST_F(signal_delivery, one_that_is_blocked_stays_counted_until_it_is_not) {
  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &mask, &before);
  thread->pending_signals[SIGUSR1] = 1;
  thread->pending_signal_count = 1;
  std::uint64_t info[4] = {};
  EXPECT_EQ(deliver_pending_signal(address_of(one_ret), info), 0u);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
  EXPECT_EQ(thread->pending_signal_count, 1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(deliver_pending_signal(address_of(one_ret), info), 1u);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 0);
}

TEST_F(signal_delivery, each_is_held_back_by_its_own_bit_of_the_mask_and_no_other) {
  const auto set_mask = [](std::uint64_t mask) {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, &mask, sizeof mask);
    return mask;
  };
  int blockable = 0;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    const std::uint64_t own_bit = std::uint64_t{1} << (signum - 1);
    thread->pending_signals[signum] = 1;
    std::uint64_t info[4] = {};
    const std::uint64_t before = set_mask(own_bit);
    const bool held = deliver_pending_signal(address_of(one_ret), info) == 0;
    const bool was_blocked = set_mask(~own_bit) != 0;
    const bool raised = !held || deliver_pending_signal(address_of(one_ret), info) == 1;
    set_mask(before);
    EXPECT_EQ(held, was_blocked) << "signal " << signum;
    EXPECT_TRUE(raised) << "signal " << signum;
    EXPECT_EQ(info[2], static_cast<std::uint64_t>(signum));
    EXPECT_EQ(thread->pending_signals[signum], 0);
    thread->pending_signals[signum] = 0;
    blockable += was_blocked ? 1 : 0;
  }
  EXPECT_GE(blockable, 60);  // Not SIGKILL and SIGSTOP; and an emulator keeps two for itself.
}

TEST_F(signal_delivery, one_that_is_blocked_is_pending_in_the_kernel_before_a_call_is_made) {
  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &mask, &before);
  thread->pending_signals[SIGUSR1] = 2;
  thread->pending_signal_count = 2;
  EXPECT_FALSE(has_deliverable_signal(thread));
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 0);
  EXPECT_EQ(thread->pending_signal_count, 0);
  const timespec at_once = {0, 0};
  EXPECT_EQ(sigtimedwait(&mask, nullptr, &at_once), SIGUSR1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(signal_delivery, one_that_is_not_blocked_has_to_be_raised_before_a_call_and_stays_counted) {
  thread->pending_signals[SIGUSR1] = 1;
  thread->pending_signal_count = 1;
  EXPECT_TRUE(has_deliverable_signal(thread));
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
  EXPECT_EQ(thread->pending_signal_count, 1);
}

TEST_F(signal_delivery, the_lowest_counted_one_comes_first) {
  thread->pending_signals[SIGUSR2] = 1;
  thread->pending_signals[SIGHUP] = 2;
  thread->pending_signal_count = 3;
  std::uint64_t info[4] = {};
  std::vector<std::uint64_t> order;
  while (deliver_pending_signal(address_of(one_ret), info) == 1) order.push_back(info[2]);
  EXPECT_THAT(order, testing::ElementsAre(SIGHUP, SIGHUP, SIGUSR2));
  EXPECT_EQ(thread->pending_signal_count, 0);
}

TEST_F(signal_delivery, how_many_have_been_judged_is_told_when_all_have_to_wait) {
  std::uint64_t info[4] = {~std::uint64_t{0}};
  thread->pending_signal_count = 7;  // None that may be raised.
  EXPECT_EQ(deliver_pending_signal(address_of(one_ret), info), 0u);
  EXPECT_EQ(info[0], 7u);
}

}  // namespace
}  // namespace ceilmeter::test
