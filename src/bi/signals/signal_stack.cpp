#include "bi/signals/signal_stack.h"

#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include "bi/code/stubs.h"
#include "bi/kernel/pages.h"
#include "bi/mora.h"

namespace ceilmeter {

namespace {

// The kernel tells the size of the largest frame that it may write on this machine. An older kernel does not; the
// largest frame with SVE, of vectors of 256 bytes, is below this.
constexpr std::size_t LARGEST_FRAME_UNTOLD = 0x4000;

// For the engine's handler itself. Most of it is for a thread that ends there: pthread_exit may load a library.
constexpr std::size_t HANDLER_BYTES = 0x10000;

// One frame, and a second one where checked_copy has its own handler in the place of the engine's for a moment.
constexpr std::size_t FRAMES = 2;

#ifndef AT_MINSIGSTKSZ
constexpr unsigned long AT_MINSIGSTKSZ = 51;
#endif

std::size_t usable_size() {
  // Set before there is a second thread, as in page_size.
  static const std::size_t size = [] {
    const std::size_t told = getauxval(AT_MINSIGSTKSZ);
    return page_up(FRAMES * (told != 0 ? told : LARGEST_FRAME_UNTOLD) + HANDLER_BYTES, page_size());
  }();
  return size;
}

}  // namespace

std::size_t signal_stack_size() { return usable_size() + page_size(); }

bool map_signal_stack(thread_data* thread) {
  void* stack = mmap(nullptr, signal_stack_size(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (stack == MAP_FAILED) return false;
  thread->signal_stack = static_cast<std::uint8_t*>(stack);
  return mprotect(thread->signal_stack + page_size(), usable_size(), PROT_READ | PROT_WRITE) == 0;
}

void free_signal_stack(thread_data* thread) {
  if (thread->signal_stack != nullptr) munmap(thread->signal_stack, signal_stack_size());
}

stack_t kernel_signal_stack(const thread_data* thread) {
  stack_t stack{};
  stack.ss_sp = thread->signal_stack + page_size();
  stack.ss_size = usable_size();
  // SS_ONSTACK means nothing when it is set. It comes back in signal frames, see application_stack.h.
  stack.ss_flags = SS_ONSTACK;
  return stack;
}

void use_signal_stack(const thread_data* thread) {
  const stack_t stack = kernel_signal_stack(thread);
  raw_syscall(SYS_sigaltstack, address_of(&stack));
}

void leave_signal_stack() {
  stack_t none{};
  none.ss_flags = SS_DISABLE;
  raw_syscall(SYS_sigaltstack, address_of(&none));
}

}  // namespace ceilmeter
