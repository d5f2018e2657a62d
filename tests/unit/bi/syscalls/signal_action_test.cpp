// The signal actions of the application that the kernel has, and those that the application reads back.
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include "bi/signals/ending_signals.h"
#include "bi/signals/signal_actions.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

struct raw_action {
  std::uint64_t handler;
  std::uint64_t flags;
  std::uint64_t restorer;
  std::uint64_t mask;
};

constexpr std::uint64_t handler = 0x5555001000;
constexpr std::uint64_t sigill_bit = 1u << (SIGILL - 1);

class signal_actions : public syscalls_test {
 protected:
  // Afterwards every signal that a test touches has its default action again.
  ~signal_actions() override {
    for (const int signum : {SIGILL, SIGUSR1, SIGUSR2, SIGSEGV, SIGALRM}) {
      const raw_action standard{};
      set(signum, &standard);
      raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), address_of(&standard), 0, 8);
    }
  }
  std::int64_t set(int signum, const raw_action* act, raw_action* old = nullptr, std::uint64_t size = 8) {
    return handled(SYS_rt_sigaction, {static_cast<std::uint64_t>(signum), address_of(act), address_of(old), size});
  }
  raw_action read_back(int signum) {
    raw_action action{9, 9, 9, 9};
    EXPECT_EQ(set(signum, nullptr, &action), 0);
    return action;
  }
  static raw_action in_kernel(int signum) {
    raw_action action{};
    raw_syscall(SYS_rt_sigaction, static_cast<std::uint64_t>(signum), 0, address_of(&action), 8);
    return action;
  }
  static std::uint64_t entry() { return reinterpret_cast<std::uint64_t>(signal_entry_stub); }
};

TEST_F(signal_actions, the_kernel_has_the_engines_entry_and_the_application_reads_its_own_handler) {
  const raw_action action{handler, SA_RESTART, 0, 1u << (SIGUSR2 - 1)};
  EXPECT_EQ(set(SIGSEGV, &action), 0);
  EXPECT_EQ(in_kernel(SIGSEGV).handler, entry());
  EXPECT_EQ(in_kernel(SIGSEGV).flags, std::uint64_t{SA_RESTART | SA_SIGINFO | SA_ONSTACK});
  EXPECT_EQ(engine.signal_handlers[SIGSEGV], handler);
  const raw_action read = read_back(SIGSEGV);
  EXPECT_EQ(read.handler, handler);
  EXPECT_EQ(read.flags, std::uint64_t{SA_RESTART});
  EXPECT_EQ(read.mask, action.mask);
}

TEST_F(signal_actions, the_old_action_is_told_with_the_new_one) {
  const raw_action first{handler, 0, 0, 0};
  const raw_action second{handler + 4, 0, 0, 0};
  raw_action old{};
  set(SIGUSR1, &first);
  EXPECT_EQ(set(SIGUSR1, &second, &old), 0);
  EXPECT_EQ(old.handler, handler);
  EXPECT_EQ(read_back(SIGUSR1).handler, handler + 4);
}

TEST_F(signal_actions, one_record_may_be_the_new_and_the_old_action) {
  const raw_action first{handler, 0, 0, 0};
  raw_action both{handler + 4, 0, 0, 0};
  set(SIGUSR1, &first);
  EXPECT_EQ(set(SIGUSR1, &both, &both), 0);
  EXPECT_EQ(both.handler, handler);
  EXPECT_EQ(engine.signal_handlers[SIGUSR1], handler + 4);
}

TEST_F(signal_actions, the_applications_record_stays_as_it_is_and_serves_for_another_signal) {
  const raw_action action{handler, 0, 0, sigill_bit};
  raw_action used = action;
  set(SIGUSR1, &used);
  set(SIGUSR2, &used);
  EXPECT_EQ(std::memcmp(&used, &action, sizeof action), 0);
  EXPECT_EQ(engine.signal_handlers[SIGUSR2], handler);
}

TEST_F(signal_actions, the_record_may_lie_in_memory_that_cannot_be_written) {
  auto* page =
      static_cast<raw_action*>(mmap(nullptr, fake.page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  page->handler = handler;
  mprotect(page, fake.page, PROT_READ);
  EXPECT_EQ(set(SIGUSR1, page), 0);
  EXPECT_EQ(engine.signal_handlers[SIGUSR1], handler);
  munmap(page, fake.page);
}

TEST_F(signal_actions, default_and_ignore_go_to_the_kernel_unchanged) {
  for (const std::uint64_t value : {std::uint64_t{1}, std::uint64_t{0}}) {
    const raw_action action{value, SA_RESTART, 0, sigill_bit};
    EXPECT_EQ(set(SIGUSR1, &action), 0);
    EXPECT_EQ(in_kernel(SIGUSR1).handler, value);
    EXPECT_EQ(in_kernel(SIGUSR1).flags, std::uint64_t{SA_RESTART});
    EXPECT_EQ(engine.signal_handlers[SIGUSR1], value);
    EXPECT_EQ(read_back(SIGUSR1).handler, value);
    EXPECT_EQ(read_back(SIGUSR1).mask, sigill_bit);
  }
}

TEST_F(signal_actions, the_default_action_of_a_signal_that_ends_the_process_is_caught_and_reads_as_it_was_set) {
  engine.process = getpid();
  const raw_action action{0, SA_RESTART, 0, sigill_bit};
  EXPECT_EQ(set(SIGUSR1, &action), 0);
  EXPECT_EQ(in_kernel(SIGUSR1).handler, entry());
  EXPECT_EQ(in_kernel(SIGUSR1).flags, std::uint64_t{SA_RESTART | SA_SIGINFO | SA_ONSTACK});
  EXPECT_EQ(read_back(SIGUSR1).handler, 0u);
  EXPECT_EQ(read_back(SIGUSR1).flags, std::uint64_t{SA_RESTART});
  EXPECT_EQ(read_back(SIGUSR1).mask, sigill_bit);
}

TEST_F(signal_actions, what_does_not_end_the_process_and_what_is_ignored_are_not_caught) {
  engine.process = getpid();
  const raw_action standard{};
  const raw_action ignored{1, 0, 0, 0};
  for (const int signum : {SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGTSTP, SIGTTIN, SIGTTOU}) {
    EXPECT_EQ(set(signum, &standard), 0);
    EXPECT_EQ(in_kernel(signum).handler, 0u) << signum;
  }
  set(SIGUSR1, &ignored);
  EXPECT_EQ(in_kernel(SIGUSR1).handler, 1u);
}

TEST_F(signal_actions, another_process_than_the_one_that_began_catches_no_default_action) {
  engine.process = getpid() + 1;
  const raw_action standard{};
  set(SIGUSR1, &standard);
  EXPECT_EQ(in_kernel(SIGUSR1).handler, 0u);
}

TEST_F(signal_actions, at_the_start_what_the_caller_ignores_stays_ignored) {
  signal(SIGUSR1, SIG_IGN);
  catch_ending_signals();
  EXPECT_EQ(in_kernel(SIGUSR1).handler, 1u);
  EXPECT_EQ(in_kernel(SIGUSR2).handler, entry());
  EXPECT_EQ(read_back(SIGUSR2).flags, 0u);
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    if (in_kernel(signum).handler == entry()) signal(signum, SIG_DFL);
  }
}

TEST_F(signal_actions, a_handler_for_one_time_leaves_its_signal_caught) {
  engine.process = getpid();
  const raw_action action{handler, SA_RESETHAND, 0, 0};
  set(SIGUSR1, &action);
  EXPECT_EQ(take_application_action(SIGUSR1).handler, handler);
  EXPECT_EQ(in_kernel(SIGUSR1).handler, entry());
  EXPECT_EQ(read_back(SIGUSR1).handler, 0u);
}

TEST_F(signal_actions, sigill_is_never_given_up) {
  for (const std::uint64_t value : {std::uint64_t{0}, std::uint64_t{1}, handler}) {
    const raw_action action{value, 0, 0, 0};
    EXPECT_EQ(set(SIGILL, &action), 0);
    EXPECT_EQ(in_kernel(SIGILL).handler, entry());
    EXPECT_EQ(engine.signal_handlers[SIGILL], value);
    EXPECT_EQ(read_back(SIGILL).handler, value);
    EXPECT_EQ(read_back(SIGILL).flags, 0u);
  }
}

TEST_F(signal_actions, the_engines_handler_runs_with_every_signal_blocked_though_the_application_reads_its_own_mask) {
  const std::uint64_t unblockable = 1u << (SIGKILL - 1) | 1u << (SIGSTOP - 1);
  for (const std::uint64_t mask : {std::uint64_t{0}, sigill_bit, ~std::uint64_t{0}}) {
    const raw_action action{handler, 0, 0, mask};
    set(SIGUSR1, &action);
    EXPECT_EQ(in_kernel(SIGUSR1).mask | unblockable, ~std::uint64_t{0});
    EXPECT_EQ(read_back(SIGUSR1).mask, mask & ~unblockable);
  }
}

TEST_F(signal_actions, the_engines_handler_runs_on_the_signal_stack_though_the_application_reads_its_own_flags) {
  for (const std::uint64_t flags : {std::uint64_t{0}, std::uint64_t{SA_ONSTACK}, std::uint64_t{SA_SIGINFO}}) {
    const raw_action action{handler, flags, 0, 0};
    set(SIGUSR1, &action);
    EXPECT_EQ(in_kernel(SIGUSR1).flags, std::uint64_t{SA_ONSTACK | SA_SIGINFO});
    EXPECT_EQ(read_back(SIGUSR1).flags, flags);
    EXPECT_EQ(take_application_action(SIGUSR1).flags, flags);
  }
}

TEST_F(signal_actions, a_handler_for_one_time_is_taken_back_when_it_is_taken_and_not_by_the_kernel) {
  const raw_action action{handler, SA_RESETHAND, 0, 0};
  set(SIGALRM, &action);
  EXPECT_EQ(in_kernel(SIGALRM).flags & SA_RESETHAND, 0u);
  EXPECT_EQ(read_back(SIGALRM).flags, std::uint64_t{SA_RESETHAND});
  EXPECT_EQ(take_application_action(SIGALRM).handler, handler);
  EXPECT_EQ(in_kernel(SIGALRM).handler, 0u);
  EXPECT_EQ(take_application_action(SIGALRM).handler, 0u);
}

TEST_F(signal_actions, a_handler_for_any_time_stays_when_it_is_taken) {
  const raw_action action{handler, 0, 0, 0};
  set(SIGALRM, &action);
  EXPECT_EQ(take_application_action(SIGALRM).handler, handler);
  EXPECT_EQ(take_application_action(SIGALRM).handler, handler);
  EXPECT_EQ(in_kernel(SIGALRM).handler, entry());
}

TEST_F(signal_actions, a_handler_of_sigill_for_one_time_leaves_the_engines_entry_in_force) {
  const raw_action action{handler, SA_RESETHAND, 0, 0};
  set(SIGILL, &action);
  EXPECT_EQ(take_application_action(SIGILL).handler, handler);
  EXPECT_EQ(take_application_action(SIGILL).handler, 0u);
  EXPECT_EQ(in_kernel(SIGILL).handler, entry());
}

TEST_F(signal_actions, a_refused_call_changes_nothing) {
  const raw_action action{handler, 0, 0, 0};
  set(SIGUSR1, &action);
  const raw_action other{handler + 4, 0, 0, 0};
  EXPECT_EQ(set(SIGUSR1, &other, nullptr, 16), -EINVAL);
  EXPECT_EQ(set(SIGKILL, &other), -EINVAL);
  EXPECT_EQ(set(0, &other), -EINVAL);
  EXPECT_EQ(set(65, &other), -EINVAL);
  EXPECT_EQ(engine.signal_handlers[SIGUSR1], handler);
  EXPECT_EQ(engine.signal_handlers[SIGKILL], 0u);
}

TEST_F(signal_actions, an_address_that_cannot_be_used_is_a_fault_of_the_call) {
  const raw_action action{handler, 0, 0, 0};
  EXPECT_EQ(set(SIGUSR1, reinterpret_cast<const raw_action*>(8)), -EFAULT);
  EXPECT_EQ(set(SIGUSR1, &action, reinterpret_cast<raw_action*>(8)), -EFAULT);
  EXPECT_EQ(engine.signal_handlers[SIGUSR1], handler) << "the new action is in force, as in the kernel";
}

TEST_F(signal_actions, the_action_is_set_under_the_lock) {
  owned_lock_take(&engine.signal_handlers_lock);
  std::thread other([this] {
    const raw_action action{handler, 0, 0, 0};
    set(SIGUSR1, &action);
  });
  usleep(50000);
  EXPECT_EQ(in_kernel(SIGUSR1).handler, 0u);
  owned_lock_leave(&engine.signal_handlers_lock);
  other.join();
  EXPECT_EQ(in_kernel(SIGUSR1).handler, entry());
}

class signal_masks : public syscalls_test {
 protected:
  signal_masks() { raw_syscall(SYS_rt_sigprocmask, SIG_BLOCK, 0, address_of(&before), 8); }
  ~signal_masks() override { raw_syscall(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&before), 0, 8); }
  static std::uint64_t now() {
    std::uint64_t mask = 0;
    raw_syscall(SYS_rt_sigprocmask, SIG_BLOCK, 0, address_of(&mask), 8);
    return mask;
  }
  std::uint64_t before = 0;
};

// The wrapper makes this call, not the handler: a signal that was counted before the call has to be raised before the
// call blocks that signal. Otherwise a sigsuspend behind it would sleep over the signal for ever.
TEST_F(signal_masks, a_mask_with_sigill_reaches_the_kernel_without_it_by_a_call_that_the_wrapper_makes) {
  const std::uint64_t usr1 = 1u << (SIGUSR1 - 1);
  for (const std::uint64_t how : {std::uint64_t{SIG_BLOCK}, std::uint64_t{SIG_SETMASK}}) {
    const std::uint64_t set = sigill_bit | usr1;
    std::uint64_t old = 77;
    const std::uint64_t given[] = {how, address_of(&set), address_of(&old), 8};
    std::copy(given, given + 4, args);
    ASSERT_EQ(syscall_handler_pre(SYS_rt_sigprocmask, args, next_inst, thread), 1u);
    EXPECT_EQ(now(), before) << "no mask changes before the wrapper makes the call";
    args[0] = static_cast<std::uint64_t>(raw_syscall(SYS_rt_sigprocmask, args[0], args[1], args[2], args[3]));
    syscall_handler_post(SYS_rt_sigprocmask, args, next_inst, thread);
    EXPECT_EQ(args[0], 0u);
    EXPECT_EQ(args[1], given[1]);
    EXPECT_EQ(now() & (sigill_bit | usr1), usr1);
    EXPECT_EQ(set, sigill_bit | usr1);
    EXPECT_EQ(old & sigill_bit, 0u);
    raw_syscall(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&before), 0, 8);
  }
}

TEST_F(signal_masks, every_other_call_goes_to_the_kernel_as_it_is) {
  const std::uint64_t usr1 = 1u << (SIGUSR1 - 1);
  const std::uint64_t both = usr1 | sigill_bit;
  expect_made(SYS_rt_sigprocmask, {SIG_BLOCK, address_of(&usr1), 0, 8});
  expect_made(SYS_rt_sigprocmask, {SIG_UNBLOCK, address_of(&both), 0, 8});
  expect_made(SYS_rt_sigprocmask, {SIG_BLOCK, 0, 0, 8});
  expect_made(SYS_rt_sigprocmask, {SIG_BLOCK, address_of(&both), 0, 4});
  expect_made(SYS_rt_sigprocmask, {SIG_BLOCK, 8, 0, 8});
  EXPECT_EQ(now(), before);
}

}  // namespace
}  // namespace ceilmeter::test
