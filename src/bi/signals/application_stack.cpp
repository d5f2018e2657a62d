#include "bi/signals/application_stack.h"

#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "bi/code/stubs.h"
#include "bi/kernel/memory_probe.h"
#include "bi/kernel/threads.h"
#include "bi/mora.h"
#include "bi/signals/signal_stack.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t AUTODISARM = 1U << 31;  // SS_AUTODISARM, the one flag that is not a mode.

// Frames grow down: the top belongs to the stack, its lowest address does not.
bool is_on_stack(const application_stack& stack, std::uint64_t sp) {
  return (stack.flags & AUTODISARM) == 0 && sp > stack.sp && sp - stack.sp <= stack.size;
}

std::uint32_t use_of_stack(const application_stack& stack, std::uint64_t sp) {
  if (stack.size == 0) return SS_DISABLE;
  return is_on_stack(stack, sp) ? SS_ONSTACK : 0;
}

application_stack as_kept(const stack_t& wanted) {
  const auto flags = static_cast<std::uint32_t>(wanted.ss_flags);
  if ((flags & ~AUTODISARM) == SS_DISABLE) return {0, 0, flags};
  return {address_of(wanted.ss_sp), wanted.ss_size, flags};
}

// Which flags there are and how small a stack may be is the kernel's own affair. It is asked with the engine's stack as
// the address: at the application's address the calling thread might stand already, and then the kernel would refuse
// to take the engine's stack back. No signal may come meanwhile.
std::int64_t ask_kernel(const thread_data* thread, const stack_t& wanted) {
  const stack_t engines = kernel_signal_stack(thread);
  stack_t asked = engines;
  asked.ss_flags = wanted.ss_flags;
  asked.ss_size = std::min(wanted.ss_size, engines.ss_size);
  const std::uint64_t mask = block_all_signals();
  const std::int64_t result = raw_syscall(SYS_sigaltstack, address_of(&asked));
  use_signal_stack(thread);
  restore_signal_mask(mask);
  return result;
}

std::int64_t judge(thread_data* thread, const stack_t& wanted) {
  // A stack as large as the engine's is large enough for the kernel, and these flags are older than all kernels.
  const auto flags = static_cast<std::uint32_t>(wanted.ss_flags);
  if (flags == SS_DISABLE) return 0;
  if ((flags == 0 || flags == SS_ONSTACK) && wanted.ss_size >= kernel_signal_stack(thread).ss_size) return 0;
  application_stack& accepted = thread->accepted_stack;
  if (accepted.size != 0 && wanted.ss_size == accepted.size && flags == accepted.flags) return 0;
  const std::int64_t result = ask_kernel(thread, wanted);
  if (result == 0) accepted = {0, wanted.ss_size, flags};
  return result;
}

std::int64_t set_stack(thread_data* thread, const stack_t& wanted, std::uint64_t sp) {
  if (is_on_stack(thread->own_stack, sp)) return -EPERM;
  const std::int64_t result = judge(thread, wanted);
  if (result == 0) thread->own_stack = as_kept(wanted);
  return result;
}

bool is_usable(std::uint64_t address, bool (*probe)(std::uint64_t)) {
  for (std::uint64_t offset = 0; offset < sizeof(stack_t); offset += sizeof(std::uint64_t)) {
    if (!probe(address + offset)) return false;
  }
  return true;
}

}  // namespace

std::int64_t handle_sigaltstack(thread_data* thread, std::uint64_t wanted, std::uint64_t old, std::uint64_t sp) {
  stack_t asked{};
  if (wanted != 0) {
    if (!is_usable(wanted, is_readable)) return -EFAULT;
    std::memcpy(&asked, reinterpret_cast<const void*>(wanted), sizeof asked);
  }
  const application_stack& kept = thread->own_stack;
  stack_t told;
  std::memset(&told, 0, sizeof told);  // The padding, too: all of it is copied.
  told.ss_sp = reinterpret_cast<void*>(kept.sp);
  told.ss_size = kept.size;
  told.ss_flags = static_cast<int>(use_of_stack(kept, sp) | (kept.flags & AUTODISARM));
  if (wanted != 0) {
    const std::int64_t result = set_stack(thread, asked, sp);
    if (result != 0) return result;
  }
  if (old == 0) return 0;
  // The new stack is in force even if the old one cannot be written, as in the kernel.
  if (!is_usable(old, is_writable)) return -EFAULT;
  std::memcpy(reinterpret_cast<void*>(old), &told, sizeof told);
  return 0;
}

std::uint64_t signal_frame_top(const thread_data* thread, std::uint64_t sp, bool on_stack) {
  const application_stack& stack = thread->own_stack;
  return on_stack && use_of_stack(stack, sp) == 0 ? stack.sp + stack.size : sp;
}

stack_t stack_in_frame(const thread_data* thread, std::uint64_t sp, int kernel_flags) {
  const application_stack& stack = thread->own_stack;
  stack_t told;
  std::memset(&told, 0, sizeof told);
  told.ss_sp = reinterpret_cast<void*>(stack.sp);
  told.ss_size = stack.size;
  // The engine's stack has been set with SS_ONSTACK, and no thread is on it when a signal finds application code.
  const bool as_set = (kernel_flags & SS_ONSTACK) != 0;
  told.ss_flags = static_cast<int>(as_set ? stack.flags : use_of_stack(stack, sp) | (stack.flags & AUTODISARM));
  return told;
}

void disarm_application_stack(thread_data* thread) {
  if ((thread->own_stack.flags & AUTODISARM) != 0) clear_application_stack(thread);
}

void clear_application_stack(thread_data* thread) { thread->own_stack = {0, 0, SS_DISABLE}; }

void restore_application_stack(thread_data* thread, const stack_t& saved, std::uint64_t sp) {
  const application_stack& kept = thread->own_stack;
  if (address_of(saved.ss_sp) == kept.sp && saved.ss_size == kept.size &&
      static_cast<std::uint32_t>(saved.ss_flags) == kept.flags) {
    return;
  }
  set_stack(thread, saved, sp);
}

}  // namespace ceilmeter
