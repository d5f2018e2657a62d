// The life of the application's threads.
//
// Every thread of the application's, except the process's first, is a pthread of the tool's, so that the tool's C
// library works in it. The pthread's stack is the engine's stack of the thread; rewritten code runs on the
// application's stack. The kernel clears one id word when a thread ends. The application's C library and the tool's
// both need a word of their own cleared: see set_application_tid_word and settle_tid_words.
#include "bi/kernel/threads.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "bi/code/code_cache.h"
#include "bi/code/code_epoch.h"
#include "bi/kernel/ending_threads.h"
#include "bi/plugins/plugin_delivery.h"
#include "bi/kernel/robust_list.h"
#include "bi/kernel/vfork.h"
#include "bi/kernel/vm_ops.h"
#include "bi/signals/application_stack.h"
#include "bi/signals/held_mask.h"
#include "bi/signals/signal_stack.h"
#include "bi/signals/signals.h"
#include "bi/code/stub_layout.h"
#include "bi/code/stubs.h"
#include "common/log.h"

namespace ceilmeter {

namespace {

constexpr engine_log log{"src/bi/threads"};

constexpr std::size_t THREAD_STACK_SIZE = 0x21000;
constexpr std::size_t THREAD_GUARD_SIZE = 0x1000;

// The signals that a C library keeps for itself, below the first one that it gives to programs. The application's C
// library installs handlers for them like any others. The tool's C library does so with the first thread that it makes.
// A process has room for one handler only.
constexpr int FIRST_INTERNAL_SIGNAL = 32;

constexpr int INTERNAL_SIGNALS_MAX = 8;

struct raw_signal_action {
  std::uint64_t words[4];
};

int internal_signal_count() { return std::min(SIGRTMIN - FIRST_INTERNAL_SIGNAL, INTERNAL_SIGNALS_MAX); }

// The number of the index-th internal signal, as an argument of a call.
std::uint64_t internal_signal(int index) { return static_cast<std::uint64_t>(FIRST_INTERNAL_SIGNAL + index); }

void read_internal_actions(raw_signal_action* actions) {
  for (int index = 0; index < internal_signal_count(); ++index) {
    raw_syscall(SYS_rt_sigaction, internal_signal(index), 0, address_of(&actions[index]), KERNEL_SIGSET_SIZE);
  }
}

void write_internal_actions(const raw_signal_action* actions) {
  for (int index = 0; index < internal_signal_count(); ++index) {
    raw_syscall(SYS_rt_sigaction, internal_signal(index), address_of(&actions[index]), 0, KERNEL_SIGSET_SIZE);
  }
}

int create_pthread(void* (*run)(void*), thread_data* child) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setinheritsched(&attributes, PTHREAD_INHERIT_SCHED);
  pthread_attr_setstacksize(&attributes, THREAD_STACK_SIZE);
  pthread_attr_setguardsize(&attributes, THREAD_GUARD_SIZE);
  pthread_t handle{};
  mora_enter_callback();  // It uses the heap as well.
  const int error = pthread_create(&handle, &attributes, run, child);
  mora_leave_callback();
  pthread_attr_destroy(&attributes);
  return error;
}

void store_tid(std::uint64_t address, std::int32_t tid) { *reinterpret_cast<std::int32_t*>(address) = tid; }

}  // namespace

int start_pthread(void* (*run)(void*), thread_data* child) {
  static bool made_one = false;  // Under signal_handlers_lock.
  owned_lock_take(&engine.signal_handlers_lock);
  if (made_one) {
    owned_lock_leave(&engine.signal_handlers_lock);
    return create_pthread(run, child);
  }
  // Keep what the application has set. The lock keeps it from setting anything else meanwhile.
  raw_signal_action actions[INTERNAL_SIGNALS_MAX] = {};
  read_internal_actions(actions);
  const int error = create_pthread(run, child);
  write_internal_actions(actions);
  made_one = true;
  owned_lock_leave(&engine.signal_handlers_lock);
  return error;
}

void copy_parent_frame(const thread_data* thread, const std::uint64_t* args) {
  const std::uint64_t frame = engine_stack(thread) - SYSCALL_FRAME_SIZE;
  std::memcpy(reinterpret_cast<void*>(frame), args - STUB_SIMD_REGS_SIZE / sizeof *args, SYSCALL_FRAME_SIZE);
}

void leave_clone(thread_data* thread) {
  leave_call(thread);
  follow_code_epoch(thread);
  const std::uint64_t frame = engine_stack(thread) - SYSCALL_FRAME_SIZE;
  auto* area = reinterpret_cast<std::uint64_t*>(frame + STUB_SIMD_REGS_SIZE);
  area[SYSCALL_X0 / 8] = 0;  // clone returns 0 in the child.
  area[3] = thread->clone_x3;
  if (thread->child_stack != 0) {
    thread->untouched_sp = thread->child_stack;
    area[SYSCALL_APP_SP / 8] = thread->child_stack - KEPT_BELOW_SP;
  }
  area[SYSCALL_CACHE_RETURN / 8] = scan(thread, thread->clone_resume_addr, 0);
  start_in_cache(frame, address_of(thread->code_cache) + stub_offset(syscall_leave));
}

namespace {

// Hands signals that were counted for this thread and not yet raised to another thread. With this thread's end they
// would be lost to the process. The caller has all signals blocked, so that they do not come back here.
void hand_over_held_signals(thread_data* thread) {
  const pid_t process = getpid();
  for (int signum = 1; signum < SIGNAL_COUNT; ++signum) {
    for (std::int32_t held = thread->pending_signals[signum]; held > 0; --held) {
      take_held_signal(thread->held, signum, process, getuid());
      const auto to = static_cast<std::uint64_t>(process);
      const auto number = static_cast<std::uint64_t>(signum);
      // The kernel does not let a thread forge another sender. A signal that another process has sent keeps only its
      // number.
      if (raw_syscall(SYS_rt_sigqueueinfo, to, number, address_of(&thread->held.raised)) != 0) {
        raw_syscall(SYS_kill, to, number);
      }
    }
  }
}

}  // namespace

void use_engine_stack(thread_data* thread, std::uint64_t top) {
  *engine_stack_word(thread) = top;
  guarded_engine_stack = top;
}

bool is_ending() { return std::atomic_ref(engine.exit_flag).load(std::memory_order_relaxed) != 0; }

std::uint64_t block_all_signals() {
  const std::uint64_t all = ~std::uint64_t{0};
  std::uint64_t mask = 0;
  raw_syscall(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&all), address_of(&mask), KERNEL_SIGSET_SIZE);
  return mask;
}

void restore_signal_mask(std::uint64_t mask) {
  raw_syscall(SYS_rt_sigprocmask, SIG_SETMASK, address_of(&mask), 0, KERNEL_SIGSET_SIZE);
}

thread_data* make_thread_record() {
  static std::atomic<bool> was_refused{false};
  thread_data* record = nullptr;
  // A new record has nothing on the heap and takes no lock: its maker may be a child in its parent's memory, which may
  // be killed here.
  const char* missing = allocate_thread_data(&record) ? try_init_thread(record) : "thread data";
  const int error = errno;
  if (missing != nullptr && record != nullptr) free_thread_data(record);
  if (missing == nullptr) return record;
  // Relaxed: the flag guards nothing but the number of lines.
  if (!was_refused.exchange(true, std::memory_order_relaxed)) {
    log(LEVEL_WARN, "a new thread has no memory for its %s: %s; clone fails with EAGAIN, later ones without a line; %s",
        missing, std::strerror(error), THREAD_MEMORY_REMEDY);
  }
  return nullptr;
}

std::int64_t mora_create_thread(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst) {
  // The kernel would refuse this too; it is not asked. A pthread shares both.
  constexpr std::uint64_t shared = CLONE_VM | CLONE_SIGHAND;
  if ((args[0] & shared) != shared) return -EINVAL;
  const std::uint64_t application_x3 = args[3];
  if ((args[0] & CLONE_SETTLS) == 0) args[3] = thread->tls;
  std::int32_t child_tid_word = 0;
  thread->clone_shares_vm = 1;
  thread_data* child = make_thread_record();
  if (child == nullptr) {
    args[3] = application_x3;
    return -EAGAIN;
  }
  clear_application_stack(child);
  child->clone_resume_addr = next_inst;
  child->set_tid = &child_tid_word;
  child->clone_args = args;
  child->clone_x3 = application_x3;
  deliver_clone(thread, child);

  // Block all signals, because a pthread starts with the mask of its creator: a signal that reached the new thread
  // before it has a record would find none.
  const std::uint64_t mask = block_for_clone(thread);
  child->saved_signal_mask = mask;
  std::int64_t result = -start_pthread(thread_start_stub, child);
  if (result == 0) {
    // Acquire: pairs with the release in thread_start. The child has read all of `args` by then, and what it wrote for
    // the application, its thread id above all, is there.
    while ((result = std::atomic_ref(child_tid_word).load(std::memory_order_acquire)) == 0) sched_yield();
  } else {
    free_thread_data(child);  // The kernel's answer to too many threads reaches the application.
  }
  restore_signal_mask(mask);
  args[3] = application_x3;
  return result;
}

extern "C" void thread_start(thread_data* thread, std::uint64_t engine_sp) {
  const std::uint64_t* args = thread->clone_args;
  current_thread = thread;
  use_signal_stack(thread);  // All signals are blocked until it is there.
  thread->child_stack = args[1];
  thread->engine_sp = engine_sp;
  use_engine_stack(thread, engine_sp);
  thread->tid = gettid();
  set_lock_owner(static_cast<std::uint32_t>(thread->tid));
  thread->process = getpid();
  forget_ending_thread(thread->tid);
  if ((args[0] & CLONE_PARENT_SETTID) != 0) store_tid(args[2], thread->tid);
  if ((args[0] & CLONE_CHILD_SETTID) != 0) store_tid(args[4], thread->tid);
  if ((args[0] & CLONE_CHILD_CLEARTID) != 0) {
    auto* word = reinterpret_cast<std::int32_t*>(args[4]);
    if (set_application_tid_word(thread, word)) raw_syscall(SYS_set_tid_address, args[4]);
  }
  thread->tls = args[3];
  copy_parent_frame(thread, args);

  // Enter the list before the parent goes on. Otherwise a parent that ends at once would take itself for the last
  // thread and end the process. Do not enter it if the process is ending: mora_terminate may already have looked
  // through the list.
  enter_call(thread);  // With all signals blocked nobody may wait for it.
  owned_lock_take(&engine.thread_list_lock);
  const bool too_late = is_ending();
  if (!too_late) register_thread(thread, true);
  owned_lock_leave(&engine.thread_list_lock);

  // Release: pairs with the acquire in mora_create_thread. After this store `args` and set_tid, which lie on the
  // parent's engine stack, are gone.
  std::atomic_ref(*thread->set_tid).store(thread->tid, std::memory_order_release);
  if (too_late) abandon_thread(thread);

  // From here on a signal is counted; it is raised on the first way into the cache.
  restore_signal_mask(thread->saved_signal_mask);
  leave_clone(thread);
}

void end_thread(thread_data* thread, std::int32_t status) {
  log(LEVEL_TRACE, "thread exit");
  if (thread->is_vfork_child != 0) end_vfork_child(status);  // It has this one thread.
  // Block all signals: the record goes away below, and a signal must not find the thread without one.
  const std::uint64_t mask = block_all_signals();
  owned_lock_take(&engine.thread_list_lock);
  if (engine.thread_list == thread && thread->next == nullptr) {
    // The end of the last thread is the end of the process. It goes the engine's way, with its events, as in
    // exit_group.
    owned_lock_leave(&engine.thread_list_lock);
    restore_signal_mask(mask);
    mora_terminate(thread, status);
  }
  unregister_thread(thread, true);
  owned_lock_leave(&engine.thread_list_lock);
  hand_over_held_signals(thread);

  const std::uint64_t engine_sp = thread->engine_sp;
  if (thread->kept_stack.size != 0) unmap_kept_stack(thread->kept_stack);
  // Settle the list before the thread's joiner is told, as the kernel does; see robust_list.h. For the first thread the
  // kernel alone does it.
  if (engine_sp != 0) settle_robust_list(find_robust_list(), thread->tid);
  std::int32_t* library_tid_word = thread->library_tid_word;
  std::int32_t* application_tid_word = thread->application_tid_word;
  current_thread = nullptr;
  leave_signal_stack();
  mora_enter_callback();
  free_thread_data(thread);
  if (engine_sp != 0) note_ending_thread(gettid());
  mora_leave_callback();
  // The process's first thread has no frame of the C library to return through. Its function is the tool's main, which
  // must not return while other threads run. The kernel clears the application's word, the only one that it knows of.
  if (engine_sp == 0) raw_syscall(SYS_exit, static_cast<std::uint64_t>(status));
  leave_thread(engine_sp, library_tid_word, application_tid_word);
  log(LEVEL_FATAL, "unexpected return to completed thread");
  __builtin_unreachable();
}

// The kernel can be told of one word only. Two cases follow. If the kernel says which word it knows (PR_GET_TID_ADDRESS
// needs a kernel with checkpoint support), that is the C library's: the engine keeps it, and the kernel gets the
// application's. Otherwise the kernel keeps the C library's word. settle_tid_words clears the application's word in
// both cases, and in the second nobody else does. For the process's first thread there is no word that the C library
// waits for: the kernel simply gets the application's.
//
// For a child in its running parent's memory the kernel has a word of its host's.
bool set_application_tid_word(thread_data* thread, std::int32_t* word) {
  if (thread->is_hosted != 0) {
    thread->application_tid_word = word;
    return false;
  }
  if (thread->engine_sp == 0) return true;
  thread->application_tid_word = word;
  if (thread->library_tid_word != nullptr) return true;
  std::int32_t* known = nullptr;
  if (raw_syscall(SYS_prctl, PR_GET_TID_ADDRESS, address_of(&known)) != 0) return false;
  thread->library_tid_word = known;
  return known != nullptr;
}

// Runs when the thread has no record any more. It first gives the C library's word back to
// the kernel, which clears it when the thread is truly gone; only then may the library use the stack again. Then it
// clears the application's word, which nobody else will clear. With that, whoever joins the thread goes on and may give
// its stack and its word to a new thread.
//
// One futex operation does what the kernel does at a thread's end: it stores 0 and wakes one waiter, and it does not
// mind if the memory is gone. It compares with a thread id below 0. This never holds, so no second waiter is woken.
extern "C" void settle_tid_words(std::int32_t* library_tid_word, std::int32_t* application_tid_word) {
  if (library_tid_word != nullptr) raw_syscall(SYS_set_tid_address, address_of(library_tid_word));
  if (application_tid_word == nullptr) return;
  constexpr std::uint64_t one_waiter = 1;
  constexpr std::uint64_t store_zero = FUTEX_OP(FUTEX_OP_SET, 0, FUTEX_OP_CMP_LT, 0);
  const std::uint64_t word = address_of(application_tid_word);
  raw_syscall(SYS_futex, word, FUTEX_WAKE_OP, one_waiter, 0, word, store_zero);
}

}  // namespace ceilmeter
