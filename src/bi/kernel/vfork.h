// Children that share their parent's memory while the parent sleeps (CLONE_VM with CLONE_VFORK), as vfork and
// posix_spawn make them. What such a child writes, its parent sees; no lock of the engine's is held while it runs,
// because it may wait for another thread of its parent's.
//
// The child has a record and a code cache of its own, on which it can be stopped at any moment without harm to its
// parent. Its engine's stack is the unused part of its parent's. The thread-local words of the tool's C library are the
// sleeping parent's; the parent sets them again. What natively belongs to the process and not to its memory is kept in
// the child's record (handlers), or not at all (descriptors). Plug-ins hear nothing of the child.
#pragma once

#include <sched.h>

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// A process in its parent's memory while the parent runs on, see hosted_child.h.
inline bool is_hosted_in_memory(std::uint64_t flags) {
  return (flags & CLONE_VM) != 0 && (flags & (CLONE_VFORK | CLONE_THREAD)) == 0;
}

// The signal actions of a child in its parent's memory: the parent's, or a copy of them.
void inherit_actions(thread_data* child, const thread_data* parent, std::uint64_t flags);

// Whether descriptors that the thread closes or replaces are not those of the engine's process.
inline bool has_own_descriptors(const thread_data* thread) {
  return thread->is_vfork_child != 0 && thread->shares_descriptors == 0;
}

// Makes the child and returns, in the parent, once it has ended or become another program: its id, or a negative error
// number. The child goes on at `next_inst` with the state in `args`.
std::int64_t make_vfork_child(thread_data* thread, std::uint64_t* args, std::uint64_t next_inst);

// The end of such a child. Nothing of the tool's is run: it is all the parent's.
[[noreturn]] void end_vfork_child(std::int32_t status);

// In a child of such a child, which has a copy of the memory: the record's own parts become the process's.
void become_process(thread_data* thread);

}  // namespace ceilmeter
