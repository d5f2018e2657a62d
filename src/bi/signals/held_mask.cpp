// `others_held_back` is set by the engine's handler of signals and cleared with all signals blocked. The handler itself
// runs with all signals blocked.
#include "bi/signals/held_mask.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "bi/kernel/call_mask.h"
#include "bi/kernel/memory_probe.h"
#include "bi/kernel/threads.h"
#include "bi/signals/signal_delivery.h"
#include "bi/signals/signals.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

namespace {

constexpr std::uint64_t unblockable = signal_bit(SIGKILL) | signal_bit(SIGSTOP) | SIGILL_BIT;

bool is_held_back(const thread_data* thread) {
  return std::atomic_ref(const_cast<thread_data*>(thread)->others_held_back).load(std::memory_order_relaxed) != 0;
}

void set_held_back(thread_data* thread, std::uint32_t value) {
  std::atomic_signal_fence(std::memory_order_seq_cst);  // Against this thread's own handlers alone.
  std::atomic_ref(thread->others_held_back).store(value, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

std::uint64_t kernel_mask() {
  std::uint64_t mask = 0;
  raw_syscall(NR_RT_SIGPROCMASK, SIG_BLOCK, 0, address_of(&mask), KERNEL_SIGSET_SIZE);
  return mask;
}

std::uint64_t mask_of(const ucontext_t* ucontext) {
  std::uint64_t mask = 0;
  std::memcpy(&mask, &ucontext->uc_sigmask, sizeof mask);
  return mask;
}

void set_mask(ucontext_t* ucontext, std::uint64_t mask) { std::memcpy(&ucontext->uc_sigmask, &mask, sizeof mask); }

void hold_back(thread_data* thread, std::uint64_t signals) {
  std::uint64_t before = 0;
  raw_syscall(NR_RT_SIGPROCMASK, SIG_BLOCK, address_of(&signals), address_of(&before), KERNEL_SIGSET_SIZE);
  if (is_held_back(thread)) return;
  thread->application_mask = before;
  set_held_back(thread, 1);
}

}  // namespace

void hold_others_back(thread_data* thread, ucontext_t* ucontext) {
  const std::uint64_t before = mask_of(ucontext);
  // If it is set, a signal has struck that was not among those held back.
  if (!is_held_back(thread)) thread->application_mask = before;
  set_held_back(thread, 1);
  set_mask(ucontext, before | handled_signals());
}

std::uint64_t application_mask(const thread_data* thread) {
  // Once the flag is set, only this thread's own code clears it.
  if (is_held_back(thread)) return thread->application_mask;
  // The kernel's first: a signal that strikes behind this line changes it, and then the flag as well.
  const std::uint64_t mask = kernel_mask();
  std::atomic_signal_fence(std::memory_order_seq_cst);
  return is_held_back(thread) ? thread->application_mask : mask;
}

void hold_all_back(thread_data* thread, std::uint64_t signals) { hold_back(thread, signals); }

void hold_back_for_turn(thread_data* thread) { hold_back(thread, ~synchronous_signals()); }

void end_holding_back(thread_data* thread) { set_held_back(thread, 0); }

void let_through(thread_data* thread) {
  if (!is_held_back(thread)) return;
  block_all_signals();  // A handler between the next two lines would take the wider mask for the application's.
  set_held_back(thread, 0);
  restore_signal_mask(thread->application_mask);
}

std::uint64_t block_for_clone(thread_data* thread) {
  const std::uint64_t mask = block_all_signals();
  if (!is_held_back(thread)) return mask;
  set_held_back(thread, 0);
  return thread->application_mask;
}

std::uint64_t disclose_mask(thread_data* thread, ucontext_t* ucontext, std::uint64_t mask) {
  if (!is_held_back(thread)) return mask;
  const std::uint64_t wider = mask_of(ucontext);
  set_held_back(thread, 0);
  set_mask(ucontext, thread->application_mask);
  return mask == wider ? thread->application_mask : mask;  // Else it is a call's own.
}

void return_to_mask(thread_data* thread, const ucontext_t* ucontext) {
  block_all_signals();
  if (is_held_back(thread)) thread->application_mask = mask_of(ucontext) & ~unblockable;
}

std::int64_t change_application_mask(thread_data* thread, const std::uint64_t* args) {
  const std::uint64_t old = thread->application_mask;
  if (args[3] != KERNEL_SIGSET_SIZE) return -EINVAL;
  if (args[1] != 0) {
    std::uint64_t set = 0;
    if (!read_word(args[1], &set)) return -EFAULT;
    std::uint64_t changed = set;
    switch (static_cast<std::uint32_t>(args[0])) {
      case SIG_BLOCK: changed = old | set; break;
      case SIG_UNBLOCK: changed = old & ~set; break;
      case SIG_SETMASK: break;
      default: return -EINVAL;
    }
    thread->application_mask = changed & ~unblockable;
  }
  if (args[2] == 0) return 0;
  if (!is_writable(args[2])) return -EFAULT;
  std::memcpy(reinterpret_cast<void*>(args[2]), &old, sizeof old);
  return 0;
}

}  // namespace ceilmeter
