// Clones that make a child process: what the kernel gets, and what the child forgets.
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "bi/kernel/fork.h"
#include "bi/plugin.h"
#include "bi/code/stubs.h"
#include "fake_engine.h"

namespace ceilmeter::test {
namespace {

class fork_like_clone : public syscalls_test {
 protected:
  fork_like_clone() { thread->tls = 0x7777; }

  // What the stub would hand to the kernel. The parent then goes on as after a failed call.
  void prepare(const std::vector<std::uint64_t>& values) {
    expect_made(SYS_clone, values);
    made_flags = args[0];
    made_stack = args[1];
    args[0] = static_cast<std::uint64_t>(-EAGAIN);
    syscall_handler_post(SYS_clone, args, next_inst, thread);
  }
  // Makes a real child through both handlers. Runs `check` in the child and returns its exit status.
  template <typename checks>
  int run_child(const checks& check) {
    return run_child(check, [] {});
  }
  // The same; `change` alters the save area as if the call had been made with it.
  template <typename checks, typename changes>
  int run_child(const checks& check, const changes& change) {
    expect_made(SYS_clone, {SIGCHLD, 0, 0, 0, 0});
    const std::int64_t pid = raw_syscall(SYS_clone, args[0], args[1], args[2], args[3], args[4]);
    change();
    args[0] = static_cast<std::uint64_t>(pid);
    syscall_handler_post(SYS_clone, args, next_inst, thread);
    if (pid == 0) _exit(check());
    int status = -1;
    waitpid(static_cast<pid_t>(pid), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  static std::uint64_t signal_mask() {
    std::uint64_t mask = 0;
    raw_syscall(SYS_rt_sigprocmask, SIG_BLOCK, 0, address_of(&mask), 8);
    return mask;
  }
  static bool is_free(owned_lock* lock) {
    if (!owned_lock_try(lock)) return false;
    owned_lock_leave(lock);
    return true;
  }
  static bool all_locks_are_free() {
    return is_free(&engine.thread_list_lock) && is_free(&engine.signal_handlers_lock) && is_free(&engine.brk_lock) &&
           is_free(&engine.function_watch_lock) && is_free(&engine.exec_ranges.lock) && is_free(&engine.mapping_lock);
  }

  std::uint64_t made_flags = 0;
  std::uint64_t made_stack = 0;
};

TEST_F(fork_like_clone, a_fork_reaches_the_kernel_as_it_is) {
  prepare({CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID | SIGCHLD, 0, 0, 0, 0x1234});
  EXPECT_EQ(made_flags, std::uint64_t{CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID | SIGCHLD});
  EXPECT_EQ(made_stack, 0u);
  EXPECT_EQ(args[4], 0x1234u);
  EXPECT_EQ(thread->child_tls, 0x7777u);
}

TEST_F(fork_like_clone, a_child_whose_parent_sleeps_in_the_same_memory_is_not_left_to_the_stub) {
  with_args({CLONE_VM | CLONE_VFORK | SIGCHLD});
  EXPECT_EQ(syscall_handler_pre(SYS_clone, args, next_inst, thread), 2u);
  EXPECT_EQ(args[0], std::uint64_t{CLONE_VM | CLONE_VFORK | SIGCHLD});
  EXPECT_EQ(thread->status, THREAD_RUNNING);
}

TEST_F(fork_like_clone, a_child_in_its_parents_memory_has_a_record_of_its_own_and_no_lock_is_held) {
  static thread_data* parent;
  parent = thread;
  thread->tls = 0x7777;
  thread->pending_signals[SIGALRM] = 1;
  engine.exit_flag = 0;
  alignas(16) static std::uint8_t stack[0x4000];
  fake.thread_body = [](const std::uint64_t*) {
    thread_data* own = current_thread;
    int failed = 0;
    if (own == parent || own->is_vfork_child != 1) failed = 1;
    if (own->tls != 0x7777 || own->tid != gettid() || own->pending_signals[SIGALRM] != 0) failed = 2;
    if (!all_locks_are_free() || engine.callbacks_lock.word != 0) failed = 3;
    if (application_handlers() == engine.signal_handlers || plugins_listen()) failed = 4;
    _exit(failed);
  };
  engine.plugin_count = 1;
  with_args({CLONE_VM | CLONE_VFORK | SIGCHLD, address_of(stack + sizeof stack)});
  ASSERT_EQ(syscall_handler_pre(SYS_clone, args, next_inst, thread), 2u);
  syscall_clone(SYS_clone, args, next_inst, thread);
  int status = -1;
  EXPECT_EQ(waitpid(static_cast<pid_t>(args[0]), &status, 0), static_cast<pid_t>(args[0]));
  EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 0);
  EXPECT_EQ(current_thread, thread);
  EXPECT_EQ(thread->status, THREAD_RUNNING);
  EXPECT_EQ(fake.records_freed, 1);
  EXPECT_EQ(args[1], address_of(stack + sizeof stack)) << "the caller's x1";
}

TEST_F(fork_like_clone, a_child_that_shares_memory_while_its_parent_runs_on_is_not_left_to_the_stub) {
  with_args({CLONE_VM | CLONE_SIGHAND | SIGCHLD});
  EXPECT_EQ(syscall_handler_pre(SYS_clone, args, next_inst, thread), 2u);
  EXPECT_EQ(args[0], std::uint64_t{CLONE_VM | CLONE_SIGHAND | SIGCHLD});
}

// A name space of mounts and a shared file system exclude each other on every kernel.
TEST_F(fork_like_clone, a_refused_child_beside_its_parent_leaves_nothing_behind) {
  engine.exit_flag = 0;
  with_args({CLONE_VM | CLONE_FS | CLONE_NEWNS | SIGCHLD, 0x12340});
  ASSERT_EQ(syscall_handler_pre(SYS_clone, args, next_inst, thread), 2u);
  syscall_clone(SYS_clone, args, next_inst, thread);
  EXPECT_EQ(static_cast<std::int64_t>(args[0]), -EINVAL);
  EXPECT_EQ(engine.hosted_children, nullptr);
  EXPECT_TRUE(all_locks_are_free());
  EXPECT_EQ(current_thread, thread);
  EXPECT_EQ(args[1], 0x12340u) << "the caller's x1";
}

TEST_F(fork_like_clone, the_childs_thread_pointer_is_kept_for_it_and_not_given_to_the_kernel) {
  prepare({CLONE_SETTLS | SIGCHLD, 0, 0, 0x9999});
  EXPECT_EQ(made_flags, std::uint64_t{SIGCHLD});
  EXPECT_EQ(thread->child_tls, 0x9999u);
}

TEST_F(fork_like_clone, the_kernel_gets_the_stack_as_it_is) {
  prepare({SIGCHLD, 0x12340});
  EXPECT_EQ(made_stack, 0x12340u);
  EXPECT_EQ(args[1], 0x12340u);
}

TEST_F(fork_like_clone, a_child_on_another_stack_goes_on_there_and_its_parent_where_it_was) {
  args[SYSCALL_APP_SP / 8] = 0x5550;
  const int failed = run_child([&] { return args[SYSCALL_APP_SP / 8] == 0x12340 ? 0 : 1; }, [&] { args[1] = 0x12340; });
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(args[SYSCALL_APP_SP / 8], 0x5550u);
}

TEST_F(fork_like_clone, signals_and_locks_are_held_over_the_call_and_given_back_after_it) {
  const std::uint64_t before = signal_mask();
  expect_made(SYS_clone, {SIGCHLD});
  // The standard signals, except the two that cannot be blocked. An emulator may keep a real-time one for itself.
  EXPECT_EQ((signal_mask() | 1u << (SIGKILL - 1) | 1u << (SIGSTOP - 1)) & 0x7fffffff, 0x7fffffffu);
  EXPECT_FALSE(is_free(&engine.thread_list_lock));
  EXPECT_FALSE(is_free(&engine.exec_ranges.lock));
  args[0] = 12345;
  syscall_handler_post(SYS_clone, args, next_inst, thread);
  EXPECT_EQ(signal_mask(), before);
  EXPECT_TRUE(all_locks_are_free());
  EXPECT_EQ(args[0], 12345u);
}

TEST_F(fork_like_clone, no_lock_is_held_while_the_parent_of_a_copy_sleeps) {
  expect_made(SYS_clone, {CLONE_VFORK | SIGCHLD});
  EXPECT_TRUE(all_locks_are_free());
  args[0] = 12345;
  syscall_handler_post(SYS_clone, args, next_inst, thread);
  EXPECT_TRUE(all_locks_are_free());
}

TEST_F(fork_like_clone, callbacks_of_plug_ins_wait_until_the_child_is_made) {
  engine.plugin_count = 1;
  expect_made(SYS_clone, {SIGCHLD});
  EXPECT_EQ(engine.callbacks_lock.word, SHARED_LOCK_ALONE);
  args[0] = 12345;
  syscall_handler_post(SYS_clone, args, next_inst, thread);
  EXPECT_EQ(engine.callbacks_lock.word, 0U);
}

TEST_F(fork_like_clone, callbacks_of_plug_ins_wait_until_a_copy_that_its_parent_waits_for_has_gone) {
  engine.plugin_count = 1;
  expect_made(SYS_clone, {CLONE_VFORK | SIGCHLD});
  EXPECT_TRUE(all_locks_are_free());
  EXPECT_EQ(engine.callbacks_lock.word, SHARED_LOCK_ALONE);
  args[0] = 12345;
  syscall_handler_post(SYS_clone, args, next_inst, thread);
  EXPECT_EQ(engine.callbacks_lock.word, 0U);
}

TEST_F(fork_like_clone, a_fork_waits_for_a_callback_that_runs) {
  engine.plugin_count = 1;
  mora_enter_callback();
  mora_enter_callback();
  std::atomic<bool> made{false};
  std::thread forker([&] {
    current_thread = thread;
    expect_made(SYS_clone, {SIGCHLD});
    made = true;
    args[0] = 12345;
    syscall_handler_post(SYS_clone, args, next_inst, thread);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(made);  // A forker that does not wait shows here, if it is quick; that it goes on shows below.
  mora_leave_callback();
  mora_leave_callback();
  forker.join();
  EXPECT_TRUE(made);
}

TEST_F(fork_like_clone, no_child_is_made_once_the_process_ends) {
  engine.exit_flag = 1;
  const std::uint64_t before = signal_mask();
  EXPECT_THROW(syscall_handler_pre(SYS_clone, with_args({SIGCHLD}), next_inst, thread), thread_abandoned);
  EXPECT_TRUE(all_locks_are_free());
  EXPECT_EQ(signal_mask(), before);
}

TEST_F(fork_like_clone, the_child_knows_only_its_own_thread) {
  thread_data* others[3];
  for (thread_data*& other : others) {
    allocate_thread_data(&other);
    register_thread(other, false);
  }
  const int freed = fake.records_freed;
  const int failed = run_child([&] {
    if (engine.thread_list != thread || thread->next != nullptr) return 1;
    if (fake.records_freed != freed + 3) return 2;
    if (thread->tid != gettid()) return 3;
    if (current_thread != thread) return 4;
    if (!all_locks_are_free()) return 5;
    if (thread->status != THREAD_RUNNING) return 6;
    return 0;
  });
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(engine.thread_list, others[2]) << "the parent's list is its own";
}

TEST_F(fork_like_clone, the_child_takes_the_thread_pointer_that_was_kept_for_it) {
  const int failed = run_child([&] { return thread->tls == 0x7777 ? 0 : 1; });
  EXPECT_EQ(failed, 0);
}

TEST_F(fork_like_clone, signals_that_were_counted_in_the_parent_are_not_the_childs) {
  thread->pending_signals[SIGALRM] = 2;
  thread->pending_signal_count = 2;
  const int failed =
      run_child([&] { return thread->pending_signals[SIGALRM] == 0 && thread->pending_signal_count == 0 ? 0 : 1; });
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(thread->pending_signal_count, 2) << "the parent's";
}

TEST_F(fork_like_clone, the_childs_first_thread_ends_like_a_process_and_not_like_a_pthread) {
  std::int32_t words[2] = {};
  thread->engine_sp = 0x1000;
  thread->library_tid_word = &words[0];
  thread->application_tid_word = &words[1];
  const int failed = run_child([&] {
    return thread->engine_sp == 0 && thread->library_tid_word == nullptr && thread->application_tid_word == nullptr ? 0
                                                                                                                    : 1;
  });
  EXPECT_EQ(failed, 0);
}

TEST_F(fork_like_clone, what_the_tool_has_not_written_yet_is_written_by_the_parent_alone) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int output = dup(STDOUT_FILENO);
  std::fflush(stdout);
  dup2(ends[1], STDOUT_FILENO);
  std::fputs("once ", stdout);
  const int failed = run_child([&] {
    std::fputs("child ", stdout);
    std::fflush(stdout);
    return 0;
  });
  std::fflush(stdout);
  dup2(output, STDOUT_FILENO);
  close(output);
  close(ends[1]);
  char text[64] = {};
  std::size_t length = 0;
  for (ssize_t got = 0; (got = read(ends[0], text + length, sizeof text - 1 - length)) > 0;)
    length += static_cast<std::size_t>(got);
  close(ends[0]);
  EXPECT_EQ(failed, 0);
  EXPECT_STREQ(text, "child once ");
}

}  // namespace
}  // namespace ceilmeter::test
