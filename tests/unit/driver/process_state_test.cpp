// What a traced application leaves behind in the process, and what of it is gone after the restoring.
#include "process_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cfenv>
#include <csignal>
#include <cstdlib>

#include "../support/captured_log.h"
#include "interruption.h"

namespace ceilmeter {
namespace {

using test::captured_log;
using ::testing::IsEmpty;

// Noted once, as in a run.
class left_behind : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { save_process_state(); }
};

TEST_F(left_behind, soft_limit_rises_again_without_a_word) {
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit lowered = {100, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lowered), 0);
  const captured_log captured;
  restore_process_state();
  rlimit after{};
  getrlimit(RLIMIT_FSIZE, &after);
  EXPECT_EQ(after.rlim_cur, before.rlim_cur);
  EXPECT_THAT(captured.lines(), IsEmpty());
}

TEST_F(left_behind, descriptors_are_allowed_as_many_as_may_be) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit lowered = {20, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
  restore_process_state();
  rlimit after{};
  getrlimit(RLIMIT_NOFILE, &after);
  EXPECT_EQ(after.rlim_cur, before.rlim_max);
}

TEST_F(left_behind, rounding_mode_is_the_first_one) {
  ASSERT_EQ(std::fesetround(FE_UPWARD), 0);
  restore_process_state();
  EXPECT_EQ(std::fegetround(), FE_TONEAREST);
}

#ifdef __aarch64__
TEST_F(left_behind, numbers_near_zero_are_not_flushed) {
  constexpr unsigned long flush_to_zero = 1UL << 24;
  unsigned long control = 0;
  asm volatile("mrs %0, fpcr" : "=r"(control));
  asm volatile("msr fpcr, %0" ::"r"(control | flush_to_zero));
  restore_process_state();
  asm volatile("mrs %0, fpcr" : "=r"(control));
  EXPECT_EQ(control & flush_to_zero, 0U);
}
#endif

TEST_F(left_behind, file_mask_is_the_first_one) {
  const mode_t before = umask(0777);
  restore_process_state();
  EXPECT_EQ(umask(before), before);
}

TEST_F(left_behind, signals_of_timers_are_ignored_and_requests_to_end_are_taken) {
  const auto handler = [](int) {};
  for (const int signum : {SIGALRM, SIGUSR1, SIGTERM, SIGRTMIN, SIGSEGV}) std::signal(signum, handler);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, nullptr);
  const itimerval soon = {{0, 1000}, {0, 1000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  restore_process_state();
  itimerval timer{};
  getitimer(ITIMER_REAL, &timer);
  EXPECT_EQ(timer.it_value.tv_usec, 0);
  const auto action = [](int signum) {
    struct sigaction now {};
    sigaction(signum, nullptr, &now);
    return now.sa_handler;
  };
  for (const int signum : {SIGALRM, SIGUSR1, SIGRTMIN}) EXPECT_EQ(action(signum), SIG_IGN) << signum;
  for (const int signum : {SIGTERM, SIGSEGV}) EXPECT_EQ(action(signum), SIG_DFL) << signum;
  sigset_t blocked;
  sigprocmask(SIG_SETMASK, nullptr, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGTERM), 0);
}

TEST_F(left_behind, processors_are_all_there_again) {
  cpu_set_t before;
  ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
  if (CPU_COUNT(&before) < 2) GTEST_SKIP() << "needs two processors";
  cpu_set_t one;
  CPU_ZERO(&one);
  for (int processor = 0; CPU_COUNT(&one) == 0; ++processor) {
    if (CPU_ISSET(processor, &before)) CPU_SET(processor, &one);
  }
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  restore_process_state();
  cpu_set_t after;
  sched_getaffinity(0, sizeof after, &after);
  EXPECT_TRUE(CPU_EQUAL(&before, &after));
}

TEST_F(left_behind, memory_policy_is_the_first_one) {
  constexpr int bind = 2;
  constexpr unsigned long bits = 64;
  const unsigned long first_node = 1;
  if (syscall(SYS_set_mempolicy, bind, &first_node, bits + 1) != 0) GTEST_SKIP() << "no memory policies here";
  int policy = -1;
  ASSERT_EQ(syscall(SYS_get_mempolicy, &policy, nullptr, 0, nullptr, 0), 0);
  ASSERT_EQ(policy, bind);
  restore_process_state();
  ASSERT_EQ(syscall(SYS_get_mempolicy, &policy, nullptr, 0, nullptr, 0), 0);
  EXPECT_EQ(policy, 0);
}

// Each in a process of its own: the signal is noted for good.
using ended_by_signal_death = left_behind;

TEST_F(ended_by_signal_death, repeated_request_is_the_first_one_and_a_failure_ends_by_the_applications_signal) {
  const auto fail = [] {
    note_end_by_signal(SIGTERM);
    restore_process_state();
    raise(SIGTERM);
    raise(SIGINT);
    std::abort();
  };
  EXPECT_EXIT(fail(), testing::KilledBySignal(SIGTERM), "");
}

TEST_F(ended_by_signal_death, second_request_ends_the_process_by_its_own_number) {
  const auto wait_and_ask = [] {
    note_end_by_signal(SIGTERM);
    restore_process_state();
    usleep(700'000);
    raise(SIGINT);
    std::exit(0);
  };
  EXPECT_EXIT(wait_and_ask(), testing::KilledBySignal(SIGINT), "");
}

TEST_F(ended_by_signal_death, request_that_the_caller_ignores_stays_ignored) {
  const auto ask = [] {
    signal(SIGHUP, SIG_IGN);
    save_process_state();
    note_end_by_signal(SIGTERM);
    restore_process_state();
    usleep(700'000);
    raise(SIGHUP);
    std::exit(5);
  };
  EXPECT_EXIT(ask(), testing::ExitedWithCode(5), "");
}

}  // namespace
}  // namespace ceilmeter
