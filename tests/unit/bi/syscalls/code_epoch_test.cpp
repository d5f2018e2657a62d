// What threads tell each other of dropped code. The caches are stand-ins that count flushes.
#include "bi/code/code_epoch.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>

#include "bi/code/translated_pages.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

class code_epoch : public syscalls_test {
 protected:
  code_epoch() : other(nullptr) {
    allocate_thread_data(&other);
    other->tid = thread->tid;
    other->process = getpid();
    thread->next = other;
    signal(SIGILL, SIG_IGN);  // The signals that are sent here reach this very thread; each test answers them itself.
  }
  ~code_epoch() override {
    signal(SIGILL, SIG_DFL);
    munmap(other, sizeof(thread_data));
  }

  // Some code that some thread has translated.
  static void drop(thread_data* by) {
    mark_translated(code, code + 4);
    drop_code(by, code, code + 4096);
  }
  static constexpr std::uint64_t code = 0x123456000;

  siginfo_t visit() const {
    siginfo_t info{};
    info.si_signo = SIGILL;
    info.si_code = SI_QUEUE;
    info.si_value.sival_ptr = &engine;
    return info;
  }

  thread_data* other;
};

TEST_F(code_epoch, a_thread_that_nobody_has_dropped_for_follows_nothing) {
  EXPECT_FALSE(follow_code_epoch(thread));
  EXPECT_EQ(fake.flushes, 0);
}

TEST_F(code_epoch, what_a_thread_drops_itself_it_drops_once) {
  drop(thread);
  EXPECT_FALSE(follow_code_epoch(thread));
  EXPECT_EQ(fake.flushes, 1);
  EXPECT_EQ(fake.flushed, thread);
}

TEST_F(code_epoch, what_a_thread_drops_another_one_drops_once_later) {
  drop(thread);
  EXPECT_TRUE(follow_code_epoch(other));
  EXPECT_EQ(fake.flushes, 2);
  EXPECT_EQ(fake.flushed, other);
  EXPECT_FALSE(follow_code_epoch(other));
}

TEST_F(code_epoch, a_thread_that_drops_follows_what_it_has_missed_before) {
  drop(other);
  EXPECT_EQ(fake.flushes, 1);
  drop(thread);
  EXPECT_EQ(fake.flushes, 3);
  EXPECT_FALSE(follow_code_epoch(thread));
}

TEST_F(code_epoch, what_nobody_has_translated_begins_no_epoch) {
  drop_code(thread, code + 0x10000, code + 0x20000);
  EXPECT_EQ(engine.code_epoch, 0u);
}

TEST_F(code_epoch, a_thread_that_has_missed_more_than_is_kept_drops_everything_once) {
  for (int round = 0; round < 300; ++round) drop(thread);
  fake.flushes = 0;
  EXPECT_TRUE(follow_code_epoch(other));
  EXPECT_EQ(fake.flushes, 1);
}

TEST_F(code_epoch, a_thread_in_a_call_is_not_waited_for_and_not_signalled) {
  enter_call(other);
  drop(thread);
  settle_code_epoch(thread);
  EXPECT_EQ(other->visit_wanted, 0u);
  EXPECT_EQ(engine.settled_code_epoch, engine.code_epoch);
  leave_call(other);
  EXPECT_TRUE(follow_code_epoch(other));
}

TEST_F(code_epoch, a_thread_that_runs_is_waited_for_until_it_acknowledges) {
  drop(thread);
  std::atomic<bool> settled{false};
  std::thread waiting([&] {
    settle_code_epoch(thread);
    settled = true;
  });
  while (std::atomic_ref(other->visit_wanted).load() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(settled);
  EXPECT_TRUE(answer_visit(other));
  EXPECT_FALSE(settled);
  acknowledge_visit(other);
  waiting.join();
  EXPECT_TRUE(settled);
  EXPECT_EQ(other->pending_signal_count, 1);
  EXPECT_TRUE(follow_code_epoch(other));
  EXPECT_EQ(other->pending_signal_count, 0);
}

TEST_F(code_epoch, a_child_in_its_parents_memory_is_waited_for_though_its_parent_sleeps) {
  thread_data* parent = nullptr;
  allocate_thread_data(&parent);
  enter_call(parent);
  parent->vfork_child = other;
  thread->next = parent;
  drop(thread);
  std::atomic<bool> settled{false};
  std::thread waiting([&] {
    settle_code_epoch(thread);
    settled = true;
  });
  while (std::atomic_ref(other->visit_wanted).load() == 0) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(settled);
  EXPECT_EQ(parent->visit_wanted, 0u);
  EXPECT_TRUE(answer_visit(other));
  acknowledge_visit(other);
  waiting.join();
  EXPECT_TRUE(settled);
  munmap(parent, sizeof(thread_data));
}

TEST_F(code_epoch, one_that_no_signal_reaches_is_not_waited_for) {
  other->process = other->tid = 0x7fffffff;  // No process has this number.
  drop(thread);
  settle_code_epoch(thread);
  EXPECT_EQ(other->visit_wanted, 0u);
  EXPECT_EQ(engine.settled_code_epoch, engine.code_epoch);
}

TEST_F(code_epoch, what_is_settled_asks_nobody_again) {
  enter_call(other);
  drop(thread);
  settle_code_epoch(thread);
  leave_call(other);
  settle_code_epoch(thread);
  EXPECT_EQ(other->visit_wanted, 0u);
}

TEST_F(code_epoch, a_signal_that_nobody_asked_for_is_no_visit) {
  EXPECT_FALSE(answer_visit(thread));
  EXPECT_FALSE(visit_was_merged(thread));
  EXPECT_EQ(thread->pending_signal_count, 0);
}

TEST_F(code_epoch, an_acknowledgement_is_never_taken_back) {
  drop(thread);
  std::atomic_ref(other->acknowledged_epoch).store(engine.code_epoch + 1);  // The handler saw a later drop begin.
  EXPECT_TRUE(apply_code_epoch(other));
  EXPECT_EQ(other->acknowledged_epoch, engine.code_epoch + 1);
}

TEST_F(code_epoch, a_call_waits_for_no_visit_while_the_process_ends) {
  thread->visit_wanted = 1;  // The handler of its signal has led the thread out.
  engine.exit_flag = 1;
  enter_call(thread);
  EXPECT_EQ(thread->runs_call, 1u);
  engine.exit_flag = 0;
}

TEST_F(code_epoch, a_visit_tells_itself_from_other_signals_of_its_number) {
  siginfo_t info = visit();
  EXPECT_TRUE(is_visit(info));
  info.si_code = SI_TKILL;
  EXPECT_FALSE(is_visit(info));
}

// The test's own process has the engine's state: the visit is a real signal, which stays pending while it is blocked.
TEST_F(code_epoch, a_visit_whose_signal_was_merged_with_another_one_is_found) {
  sigset_t sigill;
  sigemptyset(&sigill);
  sigaddset(&sigill, SIGILL);
  sigset_t before;
  pthread_sigmask(SIG_BLOCK, &sigill, &before);
  other->process = getpid();
  other->tid = gettid();
  drop(thread);
  std::thread waiting([&] { settle_code_epoch(thread); });
  EXPECT_FALSE(visit_was_merged(other));  // Whether it is wanted yet or not.
  while (std::atomic_ref(other->visit_wanted).load() == 0) std::this_thread::yield();
  EXPECT_FALSE(visit_was_merged(other)) << "its signal is still to come";
  siginfo_t taken{};
  EXPECT_EQ(sigwaitinfo(&sigill, &taken), SIGILL);
  EXPECT_TRUE(is_visit(taken));
  EXPECT_TRUE(visit_was_merged(other)) << "no signal is pending, and nobody has answered";
  EXPECT_TRUE(answer_visit(other));
  EXPECT_FALSE(visit_was_merged(other));
  acknowledge_visit(other);
  waiting.join();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(code_epoch, a_call_begins_when_the_signal_that_is_on_its_way_has_come) {
  thread->visit_wanted = 1;
  std::atomic<bool> entered{false};
  std::thread entering([&] {
    enter_call(thread);
    entered = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(entered);
  EXPECT_TRUE(answer_visit(thread));
  entering.join();
  EXPECT_EQ(thread->runs_call, 1u);
}

}  // namespace
}  // namespace ceilmeter::test
