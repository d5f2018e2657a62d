// The application's own signal stack. The kernel never hears of it, because its frames go to the engine's stack
// (signal_stack.h). What sigaltstack sets is kept as data of the thread, and the rules of the kernel are followed by
// that data: whether a thread is on its stack, where a frame begins, what a frame tells, what a return restores.
#pragma once

#include <csignal>
#include <cstdint>

namespace ceilmeter {

struct thread_data;

// A signal stack as the kernel records it. A thread has no stack if the size is 0.
struct application_stack {
  std::uint64_t sp;  // The lowest address.
  std::uint64_t size;
  std::uint32_t flags;  // As they were set; SS_DISABLE in a new thread.
};

// sigaltstack(wanted, old), called with the application's stack pointer at `sp`: the kernel's result.
std::int64_t handle_sigaltstack(thread_data* thread, std::uint64_t wanted, std::uint64_t old, std::uint64_t sp);

// Where the frame of a signal that interrupts `sp` begins, from the top down. `on_stack`: its action has SA_ONSTACK.
std::uint64_t signal_frame_top(const thread_data* thread, std::uint64_t sp, bool on_stack);

// What a frame of a signal that interrupted `sp` says of the stack. `kernel_flags` are those of the engine's own stack
// in the frame that the kernel has written: kernels of today write there the flags as they were set, others how the
// stack is used, as sigaltstack reports it.
stack_t stack_in_frame(const thread_data* thread, std::uint64_t sp, int kernel_flags);

// A frame has been put in place: a stack with SS_AUTODISARM is none any more.
void disarm_application_stack(thread_data* thread);

// Leaves the thread without a signal stack, as a new thread is.
void clear_application_stack(thread_data* thread);

// A handler returns to `sp` from a frame that says `saved`. Errors change nothing and are told to nobody.
void restore_application_stack(thread_data* thread, const stack_t& saved, std::uint64_t sp);

}  // namespace ceilmeter
