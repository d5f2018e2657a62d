// The way of a system call past the engine: what is made, what is handled, and how the thread's status shows it.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "bi/kernel/quick_calls.h"
#include "bi/kernel/standard_files.h"
#include "bi/code/stubs.h"
#include "bi/code/translated_pages.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

using syscall_handlers = syscalls_test;

TEST_F(syscall_handlers, a_call_that_the_engine_does_not_know_is_made_as_it_is) {
  expect_made(SYS_write, {1, 2, 3, 4, 5, 6});
  for (std::uint64_t index = 0; index < 6; ++index) EXPECT_EQ(args[index], index + 1);
}

// The handlers of all others would be missed out.
TEST_F(syscall_handlers, every_call_of_the_short_way_is_one_that_is_only_passed_on) {
  closed_standard_files = 7;
  int quick = 0;
  for (std::uint64_t number = 0; number < QUICK_CALL_NUMBERS; ++number) {
    if (!is_passed_on(number)) continue;
    ++quick;
    SCOPED_TRACE(number);
    expect_made(number, {1, 2, 3, 4, 5, 6});
    for (std::uint64_t index = 0; index < 6; ++index) EXPECT_EQ(args[index], index + 1);
    args[0] = 1000000;
    syscall_handler_post(number, args, next_inst, thread);
    EXPECT_EQ(args[0], 1000000u);
    EXPECT_EQ(closed_standard_files, 7u);
  }
  closed_standard_files = 0;
  EXPECT_GT(quick, 400);
  for (const std::uint64_t number : {SYS_read, SYS_write, SYS_futex, SYS_getpid, SYS_clock_gettime, SYS_madvise}) {
    EXPECT_TRUE(is_passed_on(number)) << number;
  }
}

TEST_F(syscall_handlers, no_call_goes_the_short_way_where_a_plug_in_hears_of_calls) {
  const std::uint32_t before = engine.plugin_count;
  engine.plugin_count = 1;
  std::uint64_t& callback = engine.plugins[0][MORA_POST_SYSCALL];
  const std::uint64_t kept = callback;
  callback = 1;
  allow_quick_calls();
  EXPECT_EQ(quick_calls[SYS_read], 0);
  callback = kept;
  engine.plugin_count = 0;
  allow_quick_calls();
  EXPECT_EQ(quick_calls[SYS_read], 1);
  EXPECT_EQ(quick_calls[SYS_mmap], 0);
  engine.plugin_count = before;
}

TEST_F(syscall_handlers, a_call_that_the_short_way_has_begun_is_not_begun_again) {
  thread->status = THREAD_IN_SYSCALL;
  EXPECT_EQ(syscall_handler_pre(SYS_read, args, next_inst, thread), 1u);
  EXPECT_EQ(thread->status, THREAD_IN_SYSCALL);
  EXPECT_EQ(thread->runs_call, 0u);  // The short way has set it.
}

TEST_F(syscall_handlers, a_thread_is_running_again_after_the_call) {
  expect_made(SYS_getppid, {});
  args[0] = 4711;
  syscall_handler_post(SYS_getppid, args, next_inst, thread);
  EXPECT_EQ(thread->status, THREAD_RUNNING);
  EXPECT_EQ(args[0], 4711u);
}

TEST_F(syscall_handlers, a_thread_that_comes_back_while_the_process_ends_goes_no_further) {
  expect_made(SYS_getppid, {});
  engine.exit_flag = 1;
  EXPECT_THROW(syscall_handler_post(SYS_getppid, args, next_inst, thread), thread_abandoned);
}

TEST_F(syscall_handlers, after_a_drop_the_thread_goes_on_in_a_new_block) {
  engine.plugin_count = 0;
  const std::uint64_t page = fake.page;
  void* code = mmap(nullptr, page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mark_translated(address_of(code), address_of(code) + 4);
  args[SYSCALL_CACHE_RETURN / 8] = 77;
  handled(SYS_munmap, {address_of(code), page});
  EXPECT_EQ(fake.flushes, 1);
  EXPECT_EQ(args[SYSCALL_CACHE_RETURN / 8], cache_of(next_inst));
}

TEST_F(syscall_handlers, without_a_flush_the_thread_goes_on_in_its_block) {
  args[SYSCALL_CACHE_RETURN / 8] = 77;
  thread->flush_seen = 1;  // Of an earlier flush.
  handled(SYS_brk, {0});
  EXPECT_EQ(args[SYSCALL_CACHE_RETURN / 8], 77u);
}

TEST_F(syscall_handlers, the_standard_descriptors_stay_open) {
  for (std::uint64_t fd = 0; fd < 3; ++fd) EXPECT_EQ(handled(SYS_close, {fd}), 0);
  for (int fd = 0; fd < 3; ++fd) EXPECT_NE(dup2(fd, 200), -1) << fd;
  close(200);
}

TEST_F(syscall_handlers, a_standard_descriptor_that_was_closed_is_closed_for_another_program) {
  const int flags = fcntl(1, F_GETFD);
  handled(SYS_close, {1});
  EXPECT_EQ(fcntl(1, F_GETFD), FD_CLOEXEC);
  expect_made(SYS_dup3, {2, 1, 0});
  fcntl(1, F_SETFD, flags);
}

// What the application gets for a call whose result was this one.
class closed_descriptors : public syscalls_test {
 protected:
  std::int64_t made(std::uint64_t number, const std::vector<std::uint64_t>& values, std::int64_t result) {
    expect_made(number, values);
    args[0] = static_cast<std::uint64_t>(result);
    syscall_handler_post(number, args, next_inst, thread);
    return static_cast<std::int64_t>(args[0]);
  }
  // A pipe's end that is recognised by the number of bytes that can be read.
  static int new_pipe_end() {
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0 || write(ends[1], "12345", 5) != 5) std::abort();
    return ends[0];
  }
  static bool is_pipe_end(int fd) {
    int bytes = 0;
    return ioctl(fd, FIONREAD, &bytes) == 0 && bytes == 5;
  }
  void forget_closed_numbers() {
    for (std::int64_t fd = 0; fd < 3; ++fd) settle_descriptor(SYS_dup3, args, fd);
  }
  void SetUp() override { forget_closed_numbers(); }
  void TearDown() override {
    forget_closed_numbers();
    if (saved_input >= 0) dup2(saved_input, STDIN_FILENO);
    close(saved_input);
  }
  int saved_input = dup(STDIN_FILENO);
};

TEST_F(closed_descriptors, a_duplicate_takes_the_number_that_was_closed) {
  handled(SYS_close, {0});
  const int copy = new_pipe_end();
  EXPECT_EQ(made(SYS_dup, {static_cast<std::uint64_t>(copy)}, copy), 0);
  EXPECT_TRUE(is_pipe_end(0));
  EXPECT_EQ(fcntl(copy, F_GETFD), -1);  // It has moved.
}

TEST_F(closed_descriptors, of_a_range_the_standard_ones_are_only_noted) {
  constexpr std::uint64_t close_range = 436;
  constexpr std::uint64_t no_such_flag = 0x100;
  const int other = new_pipe_end();
  ASSERT_GT(other, STDERR_FILENO);
  ASSERT_NE(dup2(other, 300), -1);
  EXPECT_EQ(handled(close_range, {0, 300, no_such_flag}), -EINVAL);
  EXPECT_EQ(settle_descriptor(SYS_dup, args, other), other) << "nothing is closed yet";
  EXPECT_EQ(handled(close_range, {0, 0, 0}), 0);
  EXPECT_NE(fcntl(0, F_GETFD), -1);
  EXPECT_TRUE(is_pipe_end(300));
  EXPECT_EQ(made(SYS_dup, {static_cast<std::uint64_t>(other)}, dup(other)), 0);
  expect_made(close_range, {2, 1, 0});
  expect_made(close_range, {3, 3, no_such_flag});
  expect_made(close_range, {0, 300, 4});  // On exec only.
  close(300);
  close(other);
}

TEST_F(closed_descriptors, a_number_is_taken_once) {
  handled(SYS_close, {0});
  const int first = new_pipe_end();
  const int second = new_pipe_end();
  EXPECT_EQ(made(SYS_dup, {static_cast<std::uint64_t>(first)}, first), 0);
  EXPECT_EQ(made(SYS_dup, {static_cast<std::uint64_t>(second)}, second), second);
  close(second);
}

TEST_F(closed_descriptors, a_new_file_takes_the_place_of_standard_input_alone) {
  handled(SYS_close, {1});
  const int file = new_pipe_end();
  EXPECT_EQ(made(SYS_openat, {}, file), file);
  handled(SYS_close, {0});
  EXPECT_EQ(made(SYS_openat, {}, file), 0);
  EXPECT_TRUE(is_pipe_end(0));
}

TEST_F(closed_descriptors, a_duplicate_from_a_number_upwards_takes_none_below_it) {
  handled(SYS_close, {0});
  const int copy = new_pipe_end();
  EXPECT_EQ(made(SYS_fcntl, {0, F_DUPFD, 1}, copy), copy);
  EXPECT_EQ(made(SYS_fcntl, {0, F_GETFD, 0}, copy), copy);
  EXPECT_EQ(made(SYS_fcntl, {0, F_DUPFD, 0}, copy), 0);
}

TEST_F(closed_descriptors, a_descriptor_that_is_closed_on_exec_stays_so) {
  handled(SYS_close, {0});
  const int copy = new_pipe_end();
  fcntl(copy, F_SETFD, FD_CLOEXEC);
  EXPECT_EQ(made(SYS_fcntl, {0, F_DUPFD_CLOEXEC, 0}, copy), 0);
  EXPECT_EQ(fcntl(0, F_GETFD), FD_CLOEXEC);
}

TEST_F(closed_descriptors, a_failed_call_and_one_that_makes_no_descriptor_take_none) {
  handled(SYS_close, {0});
  EXPECT_EQ(made(SYS_dup, {}, -EMFILE), -EMFILE);
  EXPECT_EQ(made(SYS_getpid, {}, 4711), 4711);
  const int copy = new_pipe_end();
  EXPECT_EQ(made(SYS_dup, {}, copy), 0);
}

TEST_F(closed_descriptors, a_number_that_was_given_by_name_is_not_given_again) {
  handled(SYS_close, {0});
  EXPECT_EQ(made(SYS_dup3, {}, 0), 0);
  const int copy = new_pipe_end();
  EXPECT_EQ(made(SYS_dup, {}, copy), copy);
  close(copy);
}

constexpr std::uint64_t high_half = 0x500000000;

TEST_F(syscall_handlers, the_high_half_of_a_calls_number_is_not_read) {
  EXPECT_EQ(handled(high_half | SYS_rseq, {}), -ENOSYS);
  EXPECT_EQ(handled(high_half | SYS_brk, {0}), static_cast<std::int64_t>(engine.brk));
  EXPECT_THROW(syscall_handler_pre(high_half | SYS_exit_group, with_args({3}), next_inst, thread), process_ended);
}

TEST_F(syscall_handlers, a_signal_return_with_a_high_half_in_its_number_is_one_for_the_stub_too) {
  alignas(16) static std::uint8_t stack[sizeof(siginfo_t) + sizeof(ucontext_t)];
  args[SYSCALL_APP_SP / 8] = address_of(stack);
  EXPECT_EQ(syscall_handler_pre(high_half | SYS_rt_sigreturn, args, next_inst, thread), 1u);
  EXPECT_EQ(fake.redirect_context, stack + sizeof(siginfo_t));
}

TEST_F(closed_descriptors, the_high_half_of_a_descriptor_and_of_a_command_is_not_read) {
  EXPECT_EQ(handled(SYS_close, {high_half | 0}), 0);
  const int copy = new_pipe_end();
  EXPECT_EQ(made(SYS_fcntl, {0, high_half | F_DUPFD, high_half | 0}, copy), 0);
}

TEST_F(syscall_handlers, every_other_descriptor_is_closed) {
  expect_made(SYS_close, {3});
  expect_made(SYS_close, {~std::uint64_t{0}});
}

TEST_F(syscall_handlers, a_descriptor_that_the_application_takes_by_its_number_is_not_the_engines_any_more) {
  constexpr std::uint64_t close_range = 436;
  constexpr std::uint64_t close_on_exec_alone = 4;
  const auto kept = [] { return engine.exec_ranges.entries[0].fd; };
  const auto add = [] {
    interval_map_delete(&engine.exec_ranges, 0x1000, 0x2000);
    interval_map_add(&engine.exec_ranges, 0x1000, 0x2000, STDERR_FILENO);
    return static_cast<std::uint64_t>(engine.exec_ranges.entries[0].fd);
  };
  const std::uint64_t first = add();
  ASSERT_GT(first, std::uint64_t{STDERR_FILENO});
  expect_made(SYS_close, {first + 1});
  expect_made(SYS_dup3, {first, first + 1, 0});
  expect_made(close_range, {first, ~0u, close_on_exec_alone});
  EXPECT_EQ(kept(), static_cast<int>(first));
  expect_made(SYS_close, {first});
  EXPECT_EQ(kept(), -1);
  expect_made(SYS_dup3, {0, add(), 0});
  EXPECT_EQ(kept(), -1);
  add();
  expect_made(close_range, {3, ~0u, 0});
  EXPECT_EQ(kept(), -1);
}

TEST_F(syscall_handlers, clone3_is_not_there) { EXPECT_EQ(handled(SYS_clone3, {1, 2}), -ENOSYS); }

TEST_F(syscall_handlers, shadow_call_stacks_are_not_there_and_other_process_controls_are_made) {
  for (const std::uint64_t operation : {74, 75, 76}) {
    EXPECT_EQ(handled(SYS_prctl, {0xffffffff00000000 | operation, 1}), -EINVAL) << operation;
  }
  expect_made(SYS_prctl, {73, 1});
  expect_made(SYS_prctl, {77, 1});
}

TEST_F(syscall_handlers, restartable_sequences_are_not_there) {
  EXPECT_EQ(handled(SYS_rseq, {4096, 32, 0, 1}), -ENOSYS);
}

TEST_F(syscall_handlers, exit_group_ends_the_process_with_the_low_bits_of_its_status) {
  try {
    syscall_handler_pre(SYS_exit_group, with_args({0x100000007}), next_inst, thread);
    FAIL() << "it came back";
  } catch (const process_ended& end) {
    EXPECT_EQ(end.status, 7);
  }
}

TEST_F(syscall_handlers, the_last_threads_exit_ends_the_process) {
  try {
    syscall_handler_pre(SYS_exit, with_args({3}), next_inst, thread);
    FAIL() << "it came back";
  } catch (const process_ended& end) {
    EXPECT_EQ(end.status, 3);
  }
  EXPECT_TRUE(owned_lock_try(&engine.thread_list_lock));
  owned_lock_leave(&engine.thread_list_lock);
}

TEST_F(syscall_handlers, the_first_threads_id_word_is_the_kernels_matter) {
  std::int32_t word = 0;
  expect_made(SYS_set_tid_address, {address_of(&word)});
  EXPECT_EQ(thread->application_tid_word, nullptr);
}

TEST_F(syscall_handlers, a_signal_return_is_led_to_the_dispatcher_with_the_address_that_it_returns_to) {
  // The layout is the kernel's: the application's stack pointer points at a siginfo, and the context follows.
  alignas(16) static std::uint8_t stack[sizeof(siginfo_t) + sizeof(ucontext_t)];
  auto* context = reinterpret_cast<ucontext_t*>(stack + sizeof(siginfo_t));
  context->uc_mcontext.pc = 0x5555123450;
  args[SYSCALL_APP_SP / 8] = address_of(stack);
  EXPECT_EQ(syscall_handler_pre(SYS_rt_sigreturn, args, next_inst, thread), 1u);
  EXPECT_EQ(fake.redirect_context, context);
  EXPECT_EQ(fake.redirect_target, 0x5555123450u);
  EXPECT_EQ(thread->status, THREAD_RUNNING) << "the call does not come back to set it again";
}

class held_signals : public syscalls_test {
 protected:
  held_signals() {
    for (std::uint64_t word = 0; word < 26; ++word) args[word] = 0xb000 + word;
    thread->pending_signal_count = 3;
  }
  std::uint64_t judge(std::uint64_t number) {
    thread->status = THREAD_IN_SYSCALL;
    return syscall_held_signals(number, args, next_inst, thread);
  }
};

TEST_F(held_signals, a_call_goes_back_to_its_own_instruction_if_one_can_be_raised) {
  fake.signal_is_deliverable = true;
  EXPECT_EQ(judge(SYS_read), 0u);
  EXPECT_EQ(args[SYSCALL_CACHE_RETURN / 8], cache_of(next_inst - 4));
  EXPECT_EQ(args[SYSCALL_NEXT_SOURCE / 8], next_inst - 4);
  EXPECT_EQ(thread->status, THREAD_RUNNING);
  for (std::uint64_t word = 0; word < 22; ++word) EXPECT_EQ(args[word], 0xb000 + word) << "register " << word;
}

TEST_F(held_signals, a_call_is_made_if_all_have_to_wait_and_their_number_is_told) {
  EXPECT_EQ(judge(SYS_read), 4u);
  EXPECT_EQ(args[SYSCALL_NEXT_SOURCE / 8], 0xb000u + SYSCALL_NEXT_SOURCE / 8);
  EXPECT_EQ(thread->status, THREAD_IN_SYSCALL);
}

TEST_F(held_signals, a_call_whose_arguments_have_been_rewritten_is_never_made_anew) {
  fake.signal_is_deliverable = true;
  EXPECT_EQ(judge(SYS_clone), 4u);
  EXPECT_EQ(judge(SYS_rt_sigreturn), 4u);
}

TEST_F(held_signals, a_thread_that_would_make_its_call_anew_while_the_process_ends_goes_no_further) {
  fake.signal_is_deliverable = true;
  engine.exit_flag = 1;
  EXPECT_THROW(judge(SYS_read), thread_abandoned);
}

}  // namespace
}  // namespace ceilmeter::test
