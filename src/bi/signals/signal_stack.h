// The stack that the kernel puts signal frames on. Each thread has one of the engine's own, and every action that the
// engine sets has SA_ONSTACK. So the kernel writes its frame there, whatever `sp` is at that moment: the application's
// stack may be too small for it, and in the engine's own code `sp` is none of the application's business.
//
//   from the mapping's start up                                     signal_stack_size() in all
//   ┌────────────┬──────────────────────────────────────┬─────────────────────────────┐
//   │ guard page │ what the engine's handler needs      │ the kernel's frame          │
//   └────────────┴──────────────────────────────────────┴─────────────────────────────┘
//
// The engine's handler runs with every signal blocked, so one frame is all that there is: the next signal comes when
// the kernel has taken the frame back. A handler of the application's never runs here. Its frame is put where the
// kernel would have put it (signal_frame.h), so that this stack is empty whenever application code runs. A handler may
// then leave by a jump, and nothing is left behind.
#pragma once

#include <csignal>
#include <cstddef>

namespace ceilmeter {

struct thread_data;

// The whole mapping. The same for every thread.
std::size_t signal_stack_size();

// Maps the stack of a new thread's record. False, with errno, if the kernel refuses.
bool map_signal_stack(thread_data* thread);

// Gives it back. The thread that it belongs to must have stopped using it, or be gone.
void free_signal_stack(thread_data* thread);

// Makes it the signal stack of the calling thread, to which the record belongs, and takes it away from the kernel
// again. The child of a fork has its parent's.
void use_signal_stack(const thread_data* thread);
void leave_signal_stack();

// What the kernel is told of it, by sigaltstack or in a frame that it is to return from.
stack_t kernel_signal_stack(const thread_data* thread);

}  // namespace ceilmeter
