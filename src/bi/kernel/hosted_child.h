// Children that share their parent's memory while the parent runs on (CLONE_VM without CLONE_VFORK and CLONE_THREAD).
// Checkers make them, to stop all threads of their parent and to look at its memory.
//
// The child needs an engine's stack and thread-local words of the tool's C library, and its parent goes on with its
// own. So a pthread of the tool's, the host, makes the clone and sleeps until the child has ended or become another
// program. The child uses the host's stack and words. The kernel's view is the application's: a child belongs to the
// process of the thread that has made it. In all else the child is like one that its parent waits for, see vfork.h.
//
// The host sleeps in a futex, not in the clone: a thread that sleeps in a clone cannot be stopped by ptrace, and the
// child may want to stop every thread of its parent's. All signals are blocked in it.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Makes the child and returns its id at once, or a negative error number. The child goes on at `next_inst` with the
// state in `args`.
std::int64_t make_hosted_child(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst);

// In a child, on its way into the application: its parent may go on.
void answer_parent(thread_data* child);

}  // namespace ceilmeter
