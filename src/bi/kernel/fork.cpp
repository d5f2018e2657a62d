// Clones that make a child process. The child is a copy of the parent with one thread. A lock that another thread held
// in the parent stays locked in the copy for ever. So the forking thread holds the engine's locks when the copy is
// made.
#include "bi/kernel/fork.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "bi/code/code_epoch.h"
#include "bi/kernel/checked_copy.h"
#include "bi/kernel/ending_threads.h"
#include "bi/signals/ending_signals.h"
#include "bi/signals/held_mask.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/code/stub_layout.h"
#include "bi/kernel/threads.h"
#include "bi/kernel/vfork.h"

namespace ceilmeter {

namespace {

// Streams for the next child, made in the parent. The child may find the heap locked for ever by a thread that it does
// not have, and could not make its own then. Written under the lock; a child has them to itself.
struct spare_streams {
  pthread_mutex_t lock;
  std::FILE* out;
  std::FILE* err;
};

spare_streams spare = {PTHREAD_MUTEX_INITIALIZER, nullptr, nullptr};

void make_spare_streams() {
  mora_enter_callback();  // They come from the heap, and another thread's fork must not find that locked.
  pthread_mutex_lock(&spare.lock);
  // Open for writing, not for appending. With "a" fdopen would set O_APPEND on the open file, and the parent and
  // everyone else who has the file would find it set.
  if (spare.out == nullptr) spare.out = fdopen(STDOUT_FILENO, "w");
  if (spare.err == nullptr) spare.err = fdopen(STDERR_FILENO, "w");
  pthread_mutex_unlock(&spare.lock);
  mora_leave_callback();
}

// Replaces the parent's streams, and with them what they hold unwritten and any lock that another thread had on them. A
// descriptor that was closed gives no stream; the old stream stays then.
void take_spare_streams() {
  if (spare.out != nullptr) stdout = spare.out;
  if (spare.err != nullptr) stderr = spare.err;
  spare.out = nullptr;
  spare.err = nullptr;
}

// Calls `act` with each of the engine's locks, in the order in which they are taken where more than one is held.
template <typename action>
void for_each_lock(action act) {
  act(engine.thread_list_lock);
  act(engine.signal_handlers_lock);
  act(engine.brk_lock);
  act(engine.mapping_lock);
  act(engine.callbacks_lock);
  act(engine.function_watch_lock);
  act(engine.exec_ranges.lock);
  act(engine.code_epoch_lock);
}

struct take_lock {
  void operator()(owned_lock& lock) const { owned_lock_take(&lock); }
  void operator()(shared_lock& lock) const { shared_lock_take_alone(&lock); }
};

struct release_lock {
  void operator()(owned_lock& lock) const { owned_lock_leave(&lock); }
  void operator()(shared_lock& lock) const { shared_lock_leave_alone(&lock); }
};

struct renew_lock {
  void operator()(owned_lock& lock) const { owned_lock_init(&lock); }
  void operator()(shared_lock& lock) const { shared_lock_init(&lock); }
};

// Breaks a lock of a thread that is gone. Of callbacks_lock that thread had a share at most, and nobody can tell.
struct break_lock_of {
  std::uint32_t owner;
  void operator()(owned_lock& lock) const { owned_lock_break(&lock, owner); }
  void operator()(shared_lock& /*lock*/) const {}
};

void lock_all() { for_each_lock(take_lock{}); }

void unlock_all() { for_each_lock(release_lock{}); }

// In a child, where the thread that held a lock may not exist.
void init_all_locks() {
  for_each_lock(renew_lock{});
  renew_lock{}(engine.attached_segments.lock);  // Used under mapping_lock alone.
  pthread_mutex_init(&spare.lock, nullptr);
}

}  // namespace

void break_locks_of(std::int32_t tid) {
  const break_lock_of act = {static_cast<std::uint32_t>(tid)};
  for_each_lock(act);
  act(engine.attached_segments.lock);
  break_copy_lock(act.owner);
}

namespace {

// Frees what the other threads of the parent have left in the copy of its memory.
void free_other_threads(const thread_data* survivor) {
  for (thread_data* thread = engine.thread_list; thread != nullptr;) {
    thread_data* next = thread->next;
    if (thread != survivor) {
      // Leave its buckets where they are: they are on the heap, and the heap may be locked for ever.
      thread->return_watch.buckets = nullptr;
      free_thread_data(thread);
    }
    thread = next;
  }
}

}  // namespace

void prepare_fork(thread_data* thread, std::uint64_t* args) {
  thread->clone_shares_vm = 0;
  std::uint64_t flags = args[0];
  // Children in their parent's memory do not come here, see vfork.h and hosted_child.h.
  thread->child_tls = (flags & CLONE_SETTLS) != 0 ? args[3] : thread->tls;
  flags &= ~std::uint64_t{CLONE_SETTLS};  // The register itself is the tool's C library's, in the child too.
  args[0] = flags;

  make_spare_streams();
  // Block all signals: one that interrupted the call as it returns would bypass syscall_handler_post, and so
  // finish_fork.
  thread->saved_signal_mask = block_for_clone(thread);
  // While this thread holds the engine's locks, nothing of the engine is half changed in the copy. A clone that has its
  // parent wait for a child with memory of its own does without them: to get to its end the child may need the parent's
  // other threads. Plug-ins hear of that child and of its code, so their lock alone is held: a thread of the parent
  // that reaches new code waits until the child has gone.
  thread->clone_holds_locks = (flags & CLONE_VFORK) == 0 ? 1 : 0;
  if (thread->clone_holds_locks == 0) {
    if (plugins_listen()) {
      shared_lock_take_alone(&engine.callbacks_lock);
      wait_for_ending_threads(0);
    }
    return;
  }
  lock_all();
  wait_for_ending_threads(0);
  if (!is_ending()) return;
  // Natively no child would be made any more.
  unlock_all();
  restore_signal_mask(thread->saved_signal_mask);
  abandon_thread(thread);
}

void finish_fork(thread_data* thread, std::uint64_t* args) {
  if (args[0] == 0) {
    // The child has a copy of the engine's stack with the wrapper's frame; only the application's stack is another.
    if (args[1] != 0) args[SYSCALL_APP_SP / 8] = args[1];
    thread->tls = thread->child_tls;
    reinit_after_fork(thread);
  } else if (thread->clone_holds_locks != 0) {
    unlock_all();
  } else if (plugins_listen()) {
    shared_lock_leave_alone(&engine.callbacks_lock);
  }
  restore_signal_mask(thread->saved_signal_mask);
}

void reinit_after_fork(thread_data* thread) {
  set_lock_owner(static_cast<std::uint32_t>(gettid()));
  init_all_locks();
  if (thread->is_vfork_child != 0) become_process(thread);
  std::atomic_ref(engine.exit_flag).store(0, std::memory_order_relaxed);  // The parent's end is not the child's.
  engine.ending_signal = 0;
  current_thread = thread;
  thread->tid = gettid();
  thread->process = getpid();
  spare_first_process(thread);
  // The thread is now the process's first one and no pthread of the C library any more. It ends as the parent's first
  // thread does, and the clone itself has told the kernel which word to clear then.
  thread->engine_sp = 0;
  thread->library_tid_word = nullptr;
  thread->application_tid_word = nullptr;
  // A child starts without pending signals. Signals that were counted stay the parent's.
  std::memset(thread->pending_signals, 0, sizeof thread->pending_signals);
  thread->pending_signal_count = 0;
  forget_held_signals(thread->held);
  forget_visits(thread);
  thread->has_turn = 0;
  free_other_threads(thread);
  engine.thread_list = thread;
  engine.hosted_children = nullptr;  // They are the parent's, or this process itself.
  thread->next = nullptr;
  reset_ending_threads();
  take_spare_streams();
  deliver_thread_init(thread);
}

}  // namespace ceilmeter
