// The lock that many hold with shares, or one alone.
#include "bi/containers/shared_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace ceilmeter::test {
namespace {

constexpr auto a_while = std::chrono::milliseconds(50);

TEST(shared_lock, counts_its_shares) {
  shared_lock lock{};
  shared_lock_take_share(&lock);
  shared_lock_take_share(&lock);
  EXPECT_EQ(lock.word, 2U);
  shared_lock_leave_share(&lock);
  shared_lock_leave_share(&lock);
  EXPECT_EQ(lock.word, 0U);
}

TEST(shared_lock, is_held_alone_by_one) {
  shared_lock lock{};
  shared_lock_take_alone(&lock);
  EXPECT_EQ(lock.word, SHARED_LOCK_ALONE);
  shared_lock_leave_alone(&lock);
  EXPECT_EQ(lock.word, 0U);
}

TEST(shared_lock, gives_no_share_while_one_has_it_alone) {
  shared_lock lock{};
  shared_lock_take_alone(&lock);
  std::atomic<bool> has_share{false};
  std::thread other([&] {
    shared_lock_take_share(&lock);
    has_share = true;
    shared_lock_leave_share(&lock);
  });
  std::this_thread::sleep_for(a_while);
  EXPECT_FALSE(has_share);
  shared_lock_leave_alone(&lock);
  other.join();
  EXPECT_TRUE(has_share);
  EXPECT_EQ(lock.word, 0U);
}

TEST(shared_lock, gives_a_second_share_although_somebody_waits_to_be_alone) {
  shared_lock lock{};
  shared_lock_take_share(&lock);
  std::atomic<bool> is_alone{false};
  std::thread other([&] {
    shared_lock_take_alone(&lock);
    is_alone = true;
    shared_lock_leave_alone(&lock);
  });
  while (std::atomic_ref(lock.word).load() == 1) std::this_thread::yield();  // Until it says that it waits.
  shared_lock_take_share(&lock);
  shared_lock_leave_share(&lock);
  std::this_thread::sleep_for(a_while);
  EXPECT_FALSE(is_alone);
  shared_lock_leave_share(&lock);
  other.join();
  EXPECT_TRUE(is_alone);
  EXPECT_EQ(lock.word, 0U);
}

// Those alone count without atomics; those with shares see that nobody counts.
TEST(shared_lock, keeps_shares_and_those_alone_apart) {
  constexpr int threads = 4;
  constexpr int rounds = 20000;
  shared_lock lock{};
  int first = 0;
  int second = 0;
  std::atomic<int> torn{0};
  std::vector<std::thread> others;
  for (int thread = 0; thread < threads; ++thread) {
    others.emplace_back([&, thread] {
      for (int round = 0; round < rounds; ++round) {
        if ((round + thread) % 8 == 0) {
          shared_lock_take_alone(&lock);
          ++first;
          ++second;
          shared_lock_leave_alone(&lock);
        } else {
          shared_lock_take_share(&lock);
          shared_lock_take_share(&lock);
          if (first != second) ++torn;
          shared_lock_leave_share(&lock);
          shared_lock_leave_share(&lock);
        }
      }
    });
  }
  for (std::thread& other : others) other.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(first, threads * rounds / 8);
  EXPECT_EQ(second, first);
  EXPECT_EQ(lock.word, 0U);
}

}  // namespace
}  // namespace ceilmeter::test
