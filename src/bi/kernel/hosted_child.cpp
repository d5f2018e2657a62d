#include "bi/kernel/hosted_child.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "bi/code/code_epoch.h"
#include "bi/code/stubs.h"
#include "bi/kernel/fork.h"
#include "bi/kernel/threads.h"
#include "bi/kernel/vfork.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/signals/application_stack.h"
#include "bi/signals/held_mask.h"

namespace ceilmeter {

namespace {

// So that others find its epoch.
void list_child(thread_data* child) {
  owned_lock_take(&engine.thread_list_lock);
  child->next = engine.hosted_children;
  engine.hosted_children = child;
  owned_lock_leave(&engine.thread_list_lock);
}

void unlist_child(const thread_data* child) {
  owned_lock_take(&engine.thread_list_lock);
  for (thread_data** link = &engine.hosted_children; *link != nullptr; link = &(*link)->next) {
    if (*link != child) continue;
    *link = child->next;
    break;
  }
  owned_lock_leave(&engine.thread_list_lock);
}

// Until the child has no part in the memory any more. The child has this thread's thread-local words: nothing here may
// use them, and no call may need more of the stack than clone_in_memory leaves. The kernel clears the word and wakes
// those who wait; it knows nothing of FUTEX_PRIVATE_FLAG there.
void sleep_for(const std::int32_t* child_tid) {
  for (;;) {
    // Acquire: what the child did in its record comes before the kernel's store.
    const std::int32_t tid = std::atomic_ref(*const_cast<std::int32_t*>(child_tid)).load(std::memory_order_acquire);
    if (tid == 0) return;
    raw_syscall(SYS_futex, address_of(child_tid), FUTEX_WAIT, static_cast<std::uint64_t>(tid));
  }
}

// What the host runs, with every signal blocked.
void* host(void* argument) {
  auto* child = static_cast<thread_data*>(argument);
  hosted_words& words = child->hosted;
  // The kernel writes and clears one word of the child's. It is the host's; the child itself writes the application's,
  // and the host clears that.
  constexpr std::uint64_t own_word = CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID;
  const std::uint64_t flags = (child->clone_flags | own_word) & ~std::uint64_t{CLONE_SETTLS};
  words.alive = -1;  // Not 0 before the kernel has written it.
  const std::int64_t result = clone_in_memory(flags, child->clone_args[2], address_of(&words.alive), child);
  if (result > 0) sleep_for(&words.alive);

  current_thread = nullptr;
  set_lock_owner(static_cast<std::uint32_t>(gettid()));
  if (result > 0) break_locks_of(static_cast<std::int32_t>(result));  // It may have been killed in the engine.
  unlist_child(child);
  if (child->application_tid_word != nullptr) settle_tid_words(nullptr, child->application_tid_word);
  // A clone that was refused, or a child that was killed on its first steps, has not answered. Release: as in
  // answer_parent.
  std::int64_t unanswered = 0;
  std::atomic_ref(words.answer).compare_exchange_strong(unanswered, result, std::memory_order_release);
  // Acquire: pairs with the release in make_hosted_child, which does not look at the record afterwards.
  while (std::atomic_ref(words.parent_has_left).load(std::memory_order_acquire) == 0) sched_yield();
  mora_enter_callback();  // Part of a record is on the heap.
  free_thread_data(child);
  mora_leave_callback();
  return nullptr;
}

thread_data* make_child_record(const thread_data* thread, std::uint64_t* args, std::uint64_t next_inst) {
  const std::uint64_t flags = args[0];
  thread_data* child = make_thread_record();
  if (child == nullptr) return nullptr;
  child->is_vfork_child = 1;
  child->is_hosted = 1;
  child->shares_descriptors = (flags & CLONE_FILES) != 0 ? 1 : 0;
  inherit_actions(child, thread, flags);
  child->tls = (flags & CLONE_SETTLS) != 0 ? args[3] : thread->tls;
  clear_application_stack(child);
  child->clone_flags = flags;
  child->clone_x3 = args[3];
  child->child_stack = args[1];
  child->clone_resume_addr = next_inst;
  child->clone_args = args;
  if ((flags & CLONE_CHILD_CLEARTID) != 0) child->application_tid_word = reinterpret_cast<std::int32_t*>(args[4]);
  return child;
}

}  // namespace

void answer_parent(thread_data* child) {
  if ((child->clone_flags & CLONE_CHILD_SETTID) != 0) {
    *reinterpret_cast<std::int32_t*>(child->clone_args[4]) = child->tid;
  }
  // Release: pairs with the acquire in make_hosted_child. The child has read all of its parent's frame.
  std::atomic_ref(child->hosted.answer).store(child->tid, std::memory_order_release);
}

std::int64_t make_hosted_child(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst) {
  thread_data* child = make_child_record(thread, args, next_inst);
  if (child == nullptr) return -EAGAIN;
  enter_call(child);  // Until it runs application code nobody waits for it.
  list_child(child);
  // The host is to have every signal blocked, and its child until it has its record.
  const std::uint64_t mask = block_for_clone(thread);
  child->saved_signal_mask = mask;
  std::int64_t result = -start_pthread(host, child);
  if (result == 0) {
    while ((result = std::atomic_ref(child->hosted.answer).load(std::memory_order_acquire)) == 0) sched_yield();
    // Release: pairs with the acquire in host, which then gives the record back.
    std::atomic_ref(child->hosted.parent_has_left).store(1U, std::memory_order_release);
  } else {
    unlist_child(child);
    mora_enter_callback();
    free_thread_data(child);
    mora_leave_callback();
  }
  restore_signal_mask(mask);
  return result;
}

}  // namespace ceilmeter
