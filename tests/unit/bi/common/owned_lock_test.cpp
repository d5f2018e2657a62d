// The lock that tells who holds it.
#include "bi/containers/owned_lock.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

namespace ceilmeter::test {
namespace {

std::uint32_t own_tid() { return static_cast<std::uint32_t>(syscall(SYS_gettid)); }

TEST(owned_lock, holds_the_id_of_the_thread_that_has_taken_it) {
  owned_lock lock{};
  owned_lock_take(&lock);
  EXPECT_EQ(lock.word, own_tid());
  EXPECT_FALSE(owned_lock_try(&lock));
  owned_lock_leave(&lock);
  EXPECT_EQ(lock.word, 0U);
  EXPECT_TRUE(owned_lock_try(&lock));
  owned_lock_leave(&lock);
}

TEST(owned_lock, lets_one_thread_in_at_a_time) {
  constexpr int threads = 4;
  constexpr int rounds = 20000;
  owned_lock lock{};
  int counter = 0;
  std::vector<std::thread> others;
  for (int thread = 0; thread < threads; ++thread) {
    others.emplace_back([&] {
      for (int round = 0; round < rounds; ++round) {
        owned_lock_take(&lock);
        ++counter;
        owned_lock_leave(&lock);
      }
    });
  }
  for (std::thread& other : others) other.join();
  EXPECT_EQ(counter, threads * rounds);
  EXPECT_EQ(lock.word, 0U);
}

TEST(owned_lock, is_broken_only_in_the_name_of_its_owner) {
  owned_lock lock{};
  owned_lock_take(&lock);
  owned_lock_break(&lock, own_tid() + 1);
  EXPECT_EQ(lock.word, own_tid());
  owned_lock_break(&lock, own_tid());
  EXPECT_EQ(lock.word, 0U);
}

TEST(owned_lock, wakes_a_waiter_when_it_is_broken) {
  owned_lock lock{};
  owned_lock_take(&lock);
  std::atomic<bool> got_it{false};
  std::thread waiter([&] {
    owned_lock_take(&lock);
    got_it = true;
    owned_lock_leave(&lock);
  });
  usleep(20000);
  EXPECT_FALSE(got_it);
  owned_lock_break(&lock, own_tid());
  waiter.join();
  EXPECT_TRUE(got_it);
}

}  // namespace
}  // namespace ceilmeter::test
