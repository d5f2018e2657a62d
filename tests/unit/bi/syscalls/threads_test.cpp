// Threads of the application, real ones, from clone to exit. A stand-in for their first block ends them.
#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

#include "bi/code/stubs.h"
#include "bi/kernel/threads.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

// What fake_block stores of the registers that a thread starts with.
enum entry_register { AT_X0, AT_X1, AT_X2, AT_X3, AT_X4, AT_X8, AT_X10, AT_X21, AT_SP };

std::uint64_t seen[9];
thread_data* seen_thread;
std::uint64_t seen_mask;

[[noreturn]] void leave() {
  std::uint64_t exit_args[SYSCALL_AREA_SIZE / 8] = {};
  syscall_handler_pre(SYS_exit, exit_args, 0, current_thread);
  std::abort();
}

std::uint64_t signal_mask() {
  std::uint64_t mask = 0;
  raw_syscall(SYS_rt_sigprocmask, SIG_BLOCK, 0, address_of(&mask), 8);
  return mask;
}

constexpr std::uint64_t pthread_flags = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD |
                                        CLONE_SYSVSEM | CLONE_SETTLS | CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID;

class application_threads : public syscalls_test {
 protected:
  static constexpr std::uint64_t stack_size = 0x20000;

  application_threads()
      : stack(mmap(nullptr, stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)),
        stack_top(address_of(stack) + stack_size) {
    fake.thread_body = [](const std::uint64_t* entry) {
      std::copy_n(entry, 9, seen);
      seen_thread = current_thread;
      seen_mask = signal_mask();
      leave();
    };
    for (std::uint64_t word = 0; word < 26; ++word) args[word] = 0xa000 + word;
  }
  ~application_threads() override { munmap(stack, stack_size); }

  std::int64_t start(std::uint64_t flags, std::uint64_t tls = 0x4444) {
    args[0] = flags;
    args[1] = stack_top;
    args[2] = address_of(&parent_word);
    args[3] = tls;
    args[4] = address_of(&child_word);
    EXPECT_EQ(syscall_handler_pre(SYS_clone, args, next_inst, thread), 2u);
    syscall_clone(SYS_clone, args, next_inst, thread);
    return static_cast<std::int64_t>(args[0]);
  }
  // Joins as a C library does: waits until the word is 0.
  void join() {
    for (std::int32_t value = 0; (value = std::atomic_ref(child_word).load()) != 0;) {
      const timespec second{5, 0};
      syscall(SYS_futex, &child_word, FUTEX_WAIT, value, &second, nullptr, 0);
    }
  }
  void wait_until_alone() const {
    while (live_threads() > others) usleep(1000);
  }

  int others = live_threads();  // An emulator may have threads of its own.
  void* stack;
  std::uint64_t stack_top;
  std::int32_t parent_word = 0;
  std::int32_t child_word = 0;
};

TEST_F(application_threads, a_thread_starts_with_its_parents_registers_a_result_of_0_and_its_own_stack) {
  child_word = 1;
  const std::int64_t tid = start(pthread_flags);
  EXPECT_GT(tid, 0);
  join();
  EXPECT_EQ(seen[AT_X0], 0u);
  EXPECT_EQ(seen[AT_X1], stack_top) << "x1 is the parent's";
  EXPECT_EQ(seen[AT_X2], address_of(&parent_word));
  EXPECT_EQ(seen[AT_X3], 0x4444u);
  EXPECT_EQ(seen[AT_X4], address_of(&child_word));
  EXPECT_EQ(seen[AT_X8], 0xa008u);
  EXPECT_EQ(seen[AT_X10], 0xa00au);
  EXPECT_EQ(seen[AT_X21], 0xa015u);
  EXPECT_EQ(seen[AT_SP], stack_top - KEPT_BELOW_SP) << "its first blocks raise it";
  wait_until_alone();
}

TEST_F(application_threads, the_parent_gets_the_threads_id_and_so_does_the_word_that_it_named) {
  child_word = 1;
  const std::int64_t tid = start(pthread_flags);
  EXPECT_NE(tid, gettid());
  EXPECT_EQ(parent_word, tid);
  join();
  wait_until_alone();
}

TEST_F(application_threads, a_word_of_the_child_gets_its_id_if_asked_for) {
  const std::int64_t tid = start(CLONE_VM | CLONE_SIGHAND | CLONE_THREAD | CLONE_CHILD_SETTID);
  EXPECT_EQ(child_word, tid);
  wait_until_alone();
  EXPECT_EQ(child_word, tid) << "nobody has asked to clear it";
}

TEST_F(application_threads, the_thread_pointer_is_the_parents_if_none_is_given_and_x3_stays) {
  static std::uint64_t tls;
  fake.thread_body = [](const std::uint64_t*) {
    tls = current_thread->tls;
    leave();
  };
  thread->tls = 0x1111;
  start(CLONE_VM | CLONE_SIGHAND | CLONE_THREAD, 0x2222);
  wait_until_alone();
  EXPECT_EQ(tls, 0x1111u);
  EXPECT_EQ(args[3], 0x2222u);
  start(CLONE_VM | CLONE_SIGHAND | CLONE_THREAD | CLONE_SETTLS, 0x2222);
  wait_until_alone();
  EXPECT_EQ(tls, 0x2222u);
}

TEST_F(application_threads, a_thread_has_the_mask_of_its_parent_and_the_parent_keeps_it) {
  const std::uint64_t mask = 1u << (SIGUSR2 - 1);
  std::uint64_t before = 0;
  raw_syscall(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&mask), address_of(&before), 8);
  child_word = 1;
  start(pthread_flags);
  join();
  EXPECT_EQ(signal_mask(), mask);
  raw_syscall(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&before), 0, 8);
  EXPECT_EQ(seen_mask, mask);
  wait_until_alone();
}

TEST_F(application_threads, a_thread_is_listed_before_its_parent_goes_on) {
  static std::atomic<bool> go;
  go = false;
  fake.thread_body = [](const std::uint64_t*) {
    while (!go) sched_yield();
    leave();
  };
  child_word = 1;
  const std::int64_t tid = start(pthread_flags);
  EXPECT_NE(engine.thread_list, thread);
  EXPECT_EQ(engine.thread_list->tid, tid);
  EXPECT_EQ(engine.thread_list->next, thread);
  EXPECT_EQ(engine.thread_list->clone_resume_addr, next_inst);
  go = true;
  join();
  EXPECT_EQ(engine.thread_list, thread) << "and gone when it is joined";
  EXPECT_EQ(fake.records_freed, 1);
  wait_until_alone();
}

TEST_F(application_threads, the_applications_word_is_cleared_when_the_thread_has_left_the_applications_stack) {
  // Each round unmaps the stack as soon as the word is 0. A thread that still ran on it would end the test.
  for (int round = 0; round < 200; ++round) {
    child_word = 1;
    ASSERT_GT(start(pthread_flags), 0);
    join();
    ASSERT_EQ(munmap(stack, stack_size), 0);
    ASSERT_EQ(mmap(stack, stack_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0), stack);
  }
  wait_until_alone();
}

TEST_F(application_threads, one_waiter_for_the_word_is_woken) {
  static std::atomic<bool> go;
  go = false;
  fake.thread_body = [](const std::uint64_t*) {
    while (!go) sched_yield();
    usleep(20000);
    leave();
  };
  child_word = 1;
  start(pthread_flags);
  go = true;
  const timespec limit{60, 0};
  const long result = syscall(SYS_futex, &child_word, FUTEX_WAIT, 1, &limit, nullptr, 0);
  EXPECT_TRUE(result == 0 || errno == EAGAIN) << "errno " << errno;
  EXPECT_EQ(std::atomic_ref(child_word).load(), 0);
  wait_until_alone();
}

TEST_F(application_threads, a_word_that_the_thread_names_later_is_cleared_and_the_first_one_is_not) {
  static std::int32_t later;
  later = 99;
  fake.thread_body = [](const std::uint64_t*) {
    std::uint64_t set_args[26] = {address_of(&later)};
    // The stub makes the call if the handler tells it to.
    if (syscall_handler_pre(SYS_set_tid_address, set_args, 0, current_thread) != 0) {
      raw_syscall(SYS_set_tid_address, set_args[0]);
      syscall_handler_post(SYS_set_tid_address, set_args, 0, current_thread);
    } else if (static_cast<std::int32_t>(set_args[0]) != gettid()) {
      std::abort();
    }
    leave();
  };
  child_word = 1;
  start(pthread_flags);
  wait_until_alone();
  EXPECT_EQ(later, 0);
  EXPECT_EQ(child_word, 1);
}

TEST_F(application_threads, a_word_in_memory_that_is_gone_does_not_matter) {
  void* gone = mmap(nullptr, fake.page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  munmap(gone, fake.page);
  settle_tid_words(nullptr, static_cast<std::int32_t*>(gone));
  settle_tid_words(nullptr, nullptr);
}

TEST_F(application_threads, a_thread_that_cannot_be_made_is_an_error_of_the_call) {
  fake.pthread_create_error = EAGAIN;
  const std::uint64_t mask = signal_mask();
  EXPECT_EQ(start(pthread_flags), -EAGAIN);
  EXPECT_EQ(fake.records_freed, 1);
  EXPECT_EQ(engine.thread_list, thread);
  EXPECT_EQ(signal_mask(), mask);
}

TEST_F(application_threads, a_thread_without_memory_is_an_error_of_the_call_and_the_first_one_is_logged) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int standard_error = dup(STDERR_FILENO);
  dup2(ends[1], STDERR_FILENO);
  fake.refuses_record = true;
  EXPECT_EQ(start(pthread_flags), -EAGAIN);
  EXPECT_EQ(fake.records_freed, 0);
  fake.refuses_record = false;
  fake.missing_memory = "code cache";
  EXPECT_EQ(start(pthread_flags, 0x2222), -EAGAIN);
  dup2(standard_error, STDERR_FILENO);
  close(standard_error);
  close(ends[1]);
  EXPECT_EQ(fake.records_freed, 1);
  EXPECT_EQ(args[3], 0x2222u);
  EXPECT_EQ(engine.thread_list, thread);
  char text[2048] = "";
  const ssize_t length = read(ends[0], text, sizeof text - 1);
  close(ends[0]);
  ASSERT_GT(length, 0);
  const std::string lines(text, static_cast<std::size_t>(length));
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1) << lines;
  EXPECT_NE(lines.find("warn a new thread has no memory for its thread data: Cannot allocate memory; "),
            std::string::npos)
      << lines;
  EXPECT_NE(lines.find("ulimit -v"), std::string::npos) << lines;
}

TEST_F(application_threads, making_a_record_touches_no_lock_that_its_maker_could_die_with) {
  shared_lock_init(&engine.callbacks_lock);
  shared_lock_take_alone(&engine.callbacks_lock);
  std::atomic<bool> is_made{false};
  // Whoever asks for a share waits, and then shows in the lock's word.
  std::thread maker([&] {
    thread_data* record = make_thread_record();
    EXPECT_NE(record, nullptr);
    free_thread_data(record);
    is_made = true;
  });
  while (!is_made && std::atomic_ref(engine.callbacks_lock.word).load() == SHARED_LOCK_ALONE) std::this_thread::yield();
  EXPECT_EQ(std::atomic_ref(engine.callbacks_lock.word).load(), SHARED_LOCK_ALONE);
  shared_lock_leave_alone(&engine.callbacks_lock);
  maker.join();
}

TEST_F(application_threads, a_thread_that_would_share_no_memory_or_handlers_is_refused_as_by_the_kernel) {
  EXPECT_EQ(start(CLONE_THREAD), -EINVAL);
  EXPECT_EQ(start(pthread_flags & ~std::uint64_t{CLONE_VM}), -EINVAL);
  EXPECT_EQ(start(pthread_flags & ~std::uint64_t{CLONE_SIGHAND}), -EINVAL);
  EXPECT_EQ(fake.threads_registered, 0);
}

TEST_F(application_threads, a_thread_is_a_detached_pthread_with_a_small_stack_and_its_parents_scheduling) {
  fake.pthread_create_error = EAGAIN;  // What it is asked for is enough.
  start(pthread_flags);
  EXPECT_EQ(fake.given_attributes.stack_size, 0x21000u);
  EXPECT_EQ(fake.given_attributes.guard_size, 0x1000u);
  EXPECT_EQ(fake.given_attributes.detach_state, PTHREAD_CREATE_DETACHED);
  EXPECT_EQ(fake.given_attributes.scheduling, PTHREAD_INHERIT_SCHED);
}

TEST_F(application_threads, a_held_signal_of_a_thread_that_ends_reaches_another_thread) {
  struct sigaction action {};
  static std::atomic<int> caught;
  caught = 0;
  action.sa_handler = [](int) { ++caught; };
  sigaction(SIGUSR1, &action, nullptr);
  fake.thread_body = [](const std::uint64_t*) {
    current_thread->pending_signals[SIGUSR1] = 1;
    current_thread->pending_signal_count = 1;
    leave();
  };
  child_word = 1;
  start(pthread_flags);
  join();
  wait_until_alone();
  EXPECT_EQ(caught, 1);
  signal(SIGUSR1, SIG_DFL);
}

// CEILMETER_TEST_THREADS sets the number, for a longer run.
TEST_F(application_threads, threads_one_after_another_leave_the_memory_where_a_hundred_left_it) {
  const char* number = std::getenv("CEILMETER_TEST_THREADS");
  const int total = number != nullptr ? std::atoi(number) : 2000;
  alarm(300);
  prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0);  // Huge pages come when the kernel finds the time, and are counted.
  const auto run = [this](int count) {
    for (int index = 0; index < count; ++index) {
      child_word = 1;
      ASSERT_GT(start(pthread_flags), 0);
      join();
    }
    wait_until_alone();
  };
  run(100);
  const std::int64_t mapped = mapped_kib();
  const std::int64_t resident = resident_kib();
  run(total - 100);
  // A stack that is not used again is 136 KiB of mapping, and the two pages at least that its thread has touched.
  EXPECT_LE(mapped_kib() - mapped, 1024) << "from " << mapped << " KiB";
  // The emulator's own memory grows by 280 KiB with every thread of any program and is counted with the program's.
  if (!is_emulated()) {
    EXPECT_LE(resident_kib() - resident, 1024) << "from " << resident << " KiB";
  }
}

}  // namespace
}  // namespace ceilmeter::test
