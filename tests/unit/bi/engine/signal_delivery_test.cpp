// Which of the counted signals are raised again, and which wait.
#include "bi/signals/signal_delivery.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <vector>

#include "bi/kernel/call_mask.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signals.h"
#include "bi/signals/turns.h"
#include "signals_fixture.h"

namespace ceilmeter::test {

SOURCE(one_ret);
SOURCE(loop_to_itself);

namespace {

class signal_delivery : public signals_fixture {
 protected:
  signal_delivery() { set_mask(0); }

  static std::uint64_t set_mask(std::uint64_t mask) {
    std::uint64_t before = 0;
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, &before, sizeof mask);
    return before;
  }

  // The signal that is raised; 0: none. It is then pending and blocked. The stub's next call would put the
  // application's mask in force and so let it strike; here it is taken from the kernel before that.
  int deliver() {
    if (deliver_pending_signal(address_of(one_ret), info) == 0) return 0;
    EXPECT_EQ(info[0], static_cast<std::uint64_t>(SIG_SETMASK));
    EXPECT_EQ(info[2], 0u);
    const std::uint64_t all = ~std::uint64_t{0};  // A C library's set of all lacks those that it keeps for itself.
    if (raises_by_trap(thread)) {
      set_mask(all);  // As the kernel does for the engine's handler.
      arrive(SIGILL, stub(reentry_raise));
    }
    const timespec at_once = {0, 0};
    const auto raised = static_cast<int>(syscall(SYS_rt_sigtimedwait, &all, nullptr, &at_once, sizeof all));
    set_mask(*reinterpret_cast<const std::uint64_t*>(info[1]));
    return raised;
  }

  std::uint64_t frame[REENTRY_SIZE / 8] = {};  // That of cache_reentry_stub.
  std::uint64_t* const info = frame + REENTRY_RESULT / 8;
};

TEST_F(signal_delivery, one_that_is_blocked_stays_counted_until_it_is_not) {
  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &mask, &before);
  thread->pending_signals[SIGUSR1] = 1;
  thread->pending_signal_count = 1;
  EXPECT_EQ(deliver(), 0);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 1);
  EXPECT_EQ(thread->pending_signal_count, 1);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(deliver(), SIGUSR1);
  EXPECT_EQ(thread->pending_signals[SIGUSR1], 0);
}

TEST_F(signal_delivery, each_is_held_back_by_its_own_bit_of_the_mask_and_no_other) {
  int blockable = 0;
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if (signum == SIGKILL || signum == SIGSTOP) continue;  // They cannot be blocked, and never come to be counted.
    if (signum == SIGSEGV || signum == SIGBUS) continue;   // An emulator does not give these two back to sigtimedwait.
    const std::uint64_t own_bit = std::uint64_t{1} << (signum - 1);
    thread->pending_signals[signum] = 1;
    set_mask(own_bit);
    const int held = deliver();
    const bool was_blocked = set_mask(~own_bit) != 0;
    const int raised = held == 0 ? deliver() : held;
    set_mask(0);
    EXPECT_EQ(held == 0, was_blocked) << "signal " << signum;
    // An emulator keeps two signals for itself.
    EXPECT_TRUE(raised == signum || !was_blocked) << "signal " << signum << ", raised " << raised;
    EXPECT_EQ(thread->pending_signals[signum], 0);
    thread->pending_signals[signum] = 0;
    blockable += was_blocked ? 1 : 0;
  }
  EXPECT_GE(blockable, 58);
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
  std::vector<int> order;
  for (int raised = deliver(); raised != 0; raised = deliver()) order.push_back(raised);
  EXPECT_THAT(order, testing::ElementsAre(SIGHUP, SIGHUP, SIGUSR2));
  EXPECT_EQ(thread->pending_signal_count, 0);
}

TEST_F(signal_delivery, how_many_have_been_judged_is_told_when_all_have_to_wait) {
  info[0] = ~std::uint64_t{0};
  thread->pending_signal_count = 7;  // None that may be raised.
  EXPECT_EQ(deliver(), 0);
  EXPECT_EQ(info[0], 7u);
}

TEST_F(signal_delivery, while_one_is_held_the_kernel_holds_back_the_others_and_the_application_has_its_own_mask) {
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  engine.signal_handlers[SIGALRM] = address_of(one_ret);
  const std::uint64_t own = signal_bit(SIGHUP);
  std::memcpy(&ucontext.uc_sigmask, &own, sizeof own);
  arrive(SIGALRM, stub(cache_reentry_stub));
  std::uint64_t wider = 0;
  std::memcpy(&wider, &ucontext.uc_sigmask, sizeof wider);
  EXPECT_EQ(wider, own | signal_bit(SIGUSR1) | signal_bit(SIGALRM));
  EXPECT_EQ(application_mask(thread), own);
  set_mask(wider);
  EXPECT_EQ(deliver(), SIGALRM);
  EXPECT_EQ(set_mask(0), own);
}

TEST_F(signal_delivery, one_that_is_not_among_those_held_back_leaves_the_applications_mask_alone) {
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  const std::uint64_t own = signal_bit(SIGHUP);
  std::memcpy(&ucontext.uc_sigmask, &own, sizeof own);
  arrive(SIGALRM, stub(cache_reentry_stub));
  arrive(SIGUSR2, reinterpret_cast<const void*>(&lookup_or_scan));
  EXPECT_EQ(application_mask(thread), own);
}

TEST_F(signal_delivery, a_handler_is_entered_with_the_applications_mask_in_its_frame_and_nothing_held_back) {
  engine.signal_handlers[SIGUSR1] = address_of(one_ret);
  const std::uint64_t own = signal_bit(SIGHUP);
  std::memcpy(&ucontext.uc_sigmask, &own, sizeof own);
  arrive(SIGALRM, stub(cache_reentry_stub));
  std::uint64_t wider = 0;
  std::memcpy(&wider, &ucontext.uc_sigmask, sizeof wider);
  const std::uint64_t of_a_call = signal_bit(SIGUSR2);
  EXPECT_EQ(disclose_mask(thread, &ucontext, wider), own);
  std::uint64_t shown = 0;
  std::memcpy(&shown, &ucontext.uc_sigmask, sizeof shown);
  EXPECT_EQ(shown, own);
  EXPECT_EQ(disclose_mask(thread, &ucontext, of_a_call), of_a_call) << "nothing is held back";
}

TEST_F(signal_delivery, a_handler_returns_to_the_mask_of_its_frame_whatever_is_held_back) {
  engine.signal_handlers[SIGALRM] = address_of(one_ret);
  const std::uint64_t of_the_handler = signal_bit(SIGUSR1);
  std::memcpy(&ucontext.uc_sigmask, &of_the_handler, sizeof of_the_handler);
  arrive(SIGALRM, stub(cache_reentry_stub));
  EXPECT_EQ(application_mask(thread), of_the_handler);
  ucontext_t returned{};
  const std::uint64_t of_the_frame = signal_bit(SIGHUP);
  std::memcpy(&returned.uc_sigmask, &of_the_frame, sizeof of_the_frame);
  return_to_mask(thread, &returned);
  EXPECT_EQ(application_mask(thread), of_the_frame);
  const std::uint64_t in_between = set_mask(0);
  EXPECT_NE(in_between & signal_bit(SIGUSR2), 0u) << "nothing strikes before the kernel restores the frame";
}

class floods : public signal_delivery {
 protected:
  void SetUp() override {
    signal_delivery::SetUp();
    id = scan_block(loop_to_itself);
    dispatched(address_of(loop_to_itself), id);
    frame[REENTRY_NEXT / 8] = address_of(block(id));
  }

  // Whether the signal, which has found the place where the last handler has returned to, waits for a turn.
  bool waits_behind_handler(int signum, const siginfo_t* sent, std::uint64_t sp = 0x8000) {
    note_handler_return(thread, address_of(loop_to_itself));
    return waits(signum, sent, sp);
  }
  bool waits(int signum, const siginfo_t* sent, std::uint64_t sp = 0x8000) {
    return give_turn(thread, signum, sent, {address_of(loop_to_itself), sp, address_of(block(id))});
  }

  static siginfo_t sent_by(int signum, int code, pid_t sender) {
    siginfo_t info{};
    info.si_signo = signum;
    info.si_code = code;
    info.si_pid = sender;
    return info;
  }

  std::int32_t id = 0;
};

TEST_F(floods, a_signal_without_a_queue_that_waits_merges_with_the_next_of_its_number) {
  const siginfo_t first = sent_by(SIGALRM, SI_KERNEL, 1);
  const siginfo_t second = sent_by(SIGALRM, SI_KERNEL, 2);
  count_signal(thread, first);
  count_signal(thread, second);
  EXPECT_EQ(thread->pending_signals[SIGALRM], 1);
  EXPECT_EQ(thread->pending_signal_count, 1);
  EXPECT_EQ(find_held_signal(thread->held, SIGALRM)->si_pid, 1);
  const siginfo_t queued = sent_by(40, SI_QUEUE, 3);
  count_signal(thread, queued);
  count_signal(thread, queued);
  EXPECT_EQ(thread->pending_signals[40], 2);
}

TEST_F(floods, a_handlers_return_is_no_turn_of_the_code_that_it_has_interrupted) {
  const siginfo_t alarm = sent_by(SIGALRM, SI_KERNEL, 0);
  EXPECT_FALSE(waits(SIGALRM, &alarm));
  thread->has_turn = 1;  // The handler returns in it.
  EXPECT_TRUE(waits_behind_handler(SIGALRM, &alarm));
}

TEST_F(floods, a_flood_at_one_place_gives_the_application_a_turn_of_one_block) {
  int delivered = 0;
  for (bool waiting = false; !waiting && delivered < 1000; ++delivered) waiting = waits_behind_handler(40, nullptr);
  EXPECT_GT(delivered, 65);  // All that there are may come at once.
  EXPECT_LT(delivered, 1000);
  EXPECT_EQ(*meta(id).exit_code_addr, HVC_149);
  const std::uint64_t held_back = set_mask(0);
  EXPECT_EQ(held_back & (SIGILL_BIT | signal_bit(SIGSEGV) | signal_bit(SIGFPE)), 0u) << "the block may fault";
  EXPECT_EQ(~held_back & (signal_bit(SIGALRM) | signal_bit(SIGTERM) | signal_bit(40)), 0u);
  EXPECT_FALSE(waits(40, nullptr)) << "the end of the block";
  EXPECT_TRUE(waits_behind_handler(40, nullptr)) << "the flood goes on";
  waits(40, nullptr);
  note_progress(thread);
  EXPECT_FALSE(waits_behind_handler(40, nullptr)) << "the flood is over";
}

TEST_F(floods, a_timers_signal_that_comes_again_at_its_place_waits_for_a_turn_at_once) {
  const siginfo_t alarm = sent_by(SIGALRM, SI_KERNEL, 0);
  const siginfo_t timer = sent_by(SIGUSR1, SI_TIMER, 0);
  const siginfo_t neighbour = sent_by(SIGUSR2, SI_USER, getpid() + 1);
  EXPECT_FALSE(waits(SIGALRM, &alarm));
  EXPECT_FALSE(waits_behind_handler(SIGUSR1, &timer)) << "another signal, which may have come with the first";
  EXPECT_FALSE(waits_behind_handler(SIGUSR2, &neighbour));
  // The handlers are interrupted by floods of their own.
  EXPECT_FALSE(waits(SIGALRM, &alarm, 0x7000));
  note_progress(thread);
  EXPECT_TRUE(waits_behind_handler(SIGUSR1, &timer));
  EXPECT_FALSE(waits(SIGUSR1, &timer)) << "the end of the block";
  EXPECT_TRUE(waits_behind_handler(SIGUSR1, &timer)) << "the next block";
  waits(SIGUSR1, &timer);
  EXPECT_FALSE(waits_behind_handler(SIGUSR2, &neighbour));
  EXPECT_TRUE(waits_behind_handler(SIGUSR2, &neighbour));
}

TEST_F(floods, what_the_process_sends_itself_and_what_is_queued_arrives_before_the_application_goes_on) {
  const siginfo_t raised = sent_by(SIGUSR1, SI_TKILL, getpid());
  const siginfo_t queued = sent_by(40, SI_QUEUE, getpid() + 1);
  for (int round = 0; round < 40; ++round) {
    EXPECT_FALSE(waits_behind_handler(SIGUSR1, &raised));
    EXPECT_FALSE(waits_behind_handler(40, &queued));
  }
}

}  // namespace
}  // namespace ceilmeter::test
