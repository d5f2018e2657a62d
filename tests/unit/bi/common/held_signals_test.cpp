// What was sent with signals that wait. It is kept in the order of arrival, separately for each number, and a signal
// that strikes in the middle never mixes it up.
#include "bi/signals/held_signals.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <memory>

namespace ceilmeter {
namespace {

siginfo_t queued(int signum, int value) {
  siginfo_t info{};
  info.si_signo = signum;
  info.si_code = SI_QUEUE;
  info.si_value.sival_int = value;
  return info;
}

class held_signals_test : public testing::Test {
 protected:
  bool hold(int signum, int value) { return hold_signal(*held, queued(signum, value)); }
  const siginfo_t& take(int signum) {
    take_held_signal(*held, signum, 1234, 56);
    return held->raised;
  }
  int taken_value(int signum) { return take(signum).si_code == SI_QUEUE ? held->raised.si_value.sival_int : -1; }

  std::unique_ptr<held_signals> held = std::make_unique<held_signals>();
};

TEST_F(held_signals_test, give_the_one_that_has_waited_longest_of_a_number) {
  EXPECT_TRUE(hold(SIGRTMIN, 1));
  EXPECT_TRUE(hold(SIGUSR1, 2));
  EXPECT_TRUE(hold(SIGRTMIN, 3));
  EXPECT_EQ(taken_value(SIGRTMIN), 1);
  EXPECT_TRUE(hold(SIGRTMIN, 4));  // Into the record that has become free, before the others.
  EXPECT_EQ(taken_value(SIGRTMIN), 3);
  EXPECT_EQ(taken_value(SIGRTMIN), 4);
  EXPECT_EQ(taken_value(SIGUSR1), 2);
}

TEST_F(held_signals_test, keep_every_byte_of_what_was_sent) {
  siginfo_t sent;
  auto* bytes = reinterpret_cast<unsigned char*>(&sent);
  for (std::size_t at = 0; at < sizeof sent; ++at) bytes[at] = static_cast<unsigned char>(at * 7 + 1);
  sent.si_signo = SIGALRM;
  EXPECT_TRUE(hold_signal(*held, sent));
  EXPECT_EQ(std::memcmp(&take(SIGALRM), &sent, sizeof sent), 0);
}

TEST_F(held_signals_test, give_a_thread_signal_of_the_process_where_nothing_was_kept) {
  EXPECT_TRUE(hold(SIGUSR1, 1));
  const siginfo_t& info = take(SIGUSR2);
  EXPECT_EQ(info.si_signo, SIGUSR2);
  EXPECT_EQ(info.si_code, SI_TKILL);
  EXPECT_EQ(info.si_pid, 1234);
  EXPECT_EQ(info.si_uid, 56u);
  EXPECT_EQ(taken_value(SIGUSR1), 1);
}

TEST_F(held_signals_test, refuse_what_there_is_no_record_for_and_lose_no_other) {
  for (std::size_t index = 0; index < HELD_SIGNALS; ++index) EXPECT_TRUE(hold(SIGUSR1, static_cast<int>(index)));
  EXPECT_FALSE(hold(SIGUSR1, 1000));
  for (std::size_t index = 0; index < HELD_SIGNALS; ++index) EXPECT_EQ(taken_value(SIGUSR1), static_cast<int>(index));
  EXPECT_EQ(taken_value(SIGUSR1), -1);
  EXPECT_TRUE(hold(SIGUSR1, 1000));
}

// A real signal of this thread strikes again and again at places that nobody chooses, while the thread takes what it
// holds.
held_signals* struck;
std::atomic<int> strikes;

void strike(int) {
  const int number = strikes.load(std::memory_order_relaxed);
  if (hold_signal(*struck, queued(SIGUSR1, number))) strikes.store(number + 1, std::memory_order_relaxed);
}

TEST_F(held_signals_test, survive_a_signal_in_the_middle_of_everything) {
  struck = held.get();
  struct sigaction action {};
  struct sigaction before {};
  action.sa_handler = strike;
  ASSERT_EQ(sigaction(SIGVTALRM, &action, &before), 0);
  timer_t timer{};
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGVTALRM;
  ASSERT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer), 0);
  const itimerspec often = {{0, 200000}, {0, 200000}};
  ASSERT_EQ(timer_settime(timer, 0, &often, nullptr), 0);
  int next = 0;
  int others = 0;
  while (next < 1000) {
    hold_signal(*held, queued(SIGUSR2, others));
    ASSERT_EQ(taken_value(SIGUSR2), others++);
    const int value = taken_value(SIGUSR1);
    if (value < 0) continue;
    ASSERT_EQ(value, next++);
  }
  timer_delete(timer);
  sigaction(SIGVTALRM, &before, nullptr);
}

}  // namespace
}  // namespace ceilmeter
