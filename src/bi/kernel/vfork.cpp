// The parent makes the call in engine code, with its own frames above the stack pointer that the child gets: nothing of
// the parent's has to be saved from the child.
#include "bi/kernel/vfork.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "bi/code/code_epoch.h"
#include "bi/code/stubs.h"
#include "bi/kernel/fork.h"
#include "bi/kernel/hosted_child.h"
#include "bi/kernel/standard_files.h"
#include "bi/kernel/syscalls.h"
#include "bi/kernel/threads.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signal_actions.h"
#include "bi/signals/signal_stack.h"

namespace ceilmeter {

namespace {

// So that others find its epoch.
void note_vfork_child(thread_data* thread, thread_data* child) {
  owned_lock_take(&engine.thread_list_lock);
  thread->vfork_child = child;
  owned_lock_leave(&engine.thread_list_lock);
}

}  // namespace

void inherit_actions(thread_data* child, const thread_data* parent, std::uint64_t flags) {
  child->own_actions = parent->own_actions;
  if ((flags & CLONE_SIGHAND) != 0) return;
  copy_actions(&child->own_action_table);
  child->own_actions = &child->own_action_table;
}

// In the child, on its part of the engine's stack.
extern "C" void vfork_child_start(thread_data* child, std::uint64_t engine_stack_top) {
  current_thread = child;
  use_signal_stack(child);
  use_engine_stack(child, engine_stack_top);
  child->tid = gettid();
  set_lock_owner(static_cast<std::uint32_t>(child->tid));
  child->process = child->tid;
  copy_parent_frame(child, child->clone_args);
  if (child->is_hosted != 0) answer_parent(child);
  if (has_own_descriptors(child)) close_noted_files();
  restore_signal_mask(child->saved_signal_mask);
  leave_clone(child);
}

std::int64_t make_vfork_child(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst) {
  const std::uint64_t flags = args[0];
  thread_data* child = make_thread_record();
  if (child == nullptr) return -EAGAIN;
  child->is_vfork_child = 1;
  child->shares_descriptors = (flags & CLONE_FILES) != 0 ? 1 : 0;
  inherit_actions(child, thread, flags);
  child->tls = (flags & CLONE_SETTLS) != 0 ? args[3] : thread->tls;
  child->own_stack = thread->own_stack;
  child->accepted_stack = thread->accepted_stack;
  child->clone_x3 = args[3];
  child->child_stack = args[1];
  child->clone_resume_addr = next_inst;
  child->clone_args = args;

  enter_call(child);  // Until it runs application code nobody waits for it.
  note_vfork_child(thread, child);
  // A signal that reached the child before it has a record would find its parent's.
  child->saved_signal_mask = block_for_clone(thread);
  // The parent is in the kernel for as long as the child runs, so its status is the one of a call that is let through.
  // Release: pairs with the acquire in mora_terminate.
  std::atomic_ref(thread->status).store(THREAD_IN_SYSCALL, std::memory_order_release);
  // The register with the thread pointer is the tool's C library's, in the child too.
  const std::int64_t result = clone_in_memory(flags & ~std::uint64_t{CLONE_SETTLS}, args[2], args[4], child);
  current_thread = thread;
  set_lock_owner(static_cast<std::uint32_t>(thread->tid));
  if (child->tid != 0) break_locks_of(child->tid);  // It may have been killed in the engine.
  guarded_return_address = 0;
  guarded_engine_stack = engine_stack(thread);
  leave_syscall(thread);
  note_vfork_child(thread, nullptr);
  const std::uint64_t mask = child->saved_signal_mask;
  free_thread_data(child);  // It has heard of no watched function: nothing of it is on the heap.
  restore_signal_mask(mask);
  return result;
}

void end_vfork_child(std::int32_t status) {
  for (;;) raw_syscall(SYS_exit_group, static_cast<std::uint64_t>(status));
}

void become_process(thread_data* thread) {
  if (thread->own_actions != nullptr) {
    take_copied_actions(thread->own_actions);
    thread->own_actions = nullptr;
  }
  if (has_own_descriptors(thread)) forget_noted_files();
  thread->is_vfork_child = 0;
  thread->is_hosted = 0;
}

}  // namespace ceilmeter
