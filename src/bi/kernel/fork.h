// The application's child processes: what a fork-like clone needs before the kernel makes it, and what the child
// forgets of its parent. On the thread that makes the call.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Any clone without CLONE_THREAD and CLONE_VM, before the kernel makes it: rewrites the arguments in `args` so that the
// child comes back through the caller's frame. finish_fork has to follow in the parent and in the child, with the
// call's result in word 0. It gives back the arguments that the application finds in its registers.
void prepare_fork(thread_data* thread, std::uint64_t* args);
void finish_fork(thread_data* thread, std::uint64_t* args);

// Makes the calling thread, which `thread` describes, the only one that the engine of a new process knows.
void reinit_after_fork(thread_data* thread);

// Frees the engine's locks that a child in the caller's memory had when it was killed.
void break_locks_of(std::int32_t tid);

}  // namespace ceilmeter
