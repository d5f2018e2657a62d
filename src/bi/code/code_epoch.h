// What one thread drops of translated code, the others drop before they run application code again. Each drop, of a
// range of source addresses, begins a new code epoch. A thread compares the epoch with its own wherever it is in the
// engine, and drops what it has missed. A thread that runs in its cache does not look: it is sent a signal, whose
// handler traps the thread's next exit.
//
//   the dropping thread                         another thread, in its cache
//   changes the mapping, or flushes a line
//   drops its own fragments, code_epoch + 1
//   releases its locks
//   signals who runs application code           handler: traps the exit, acknowledges the epoch
//   waits for the acknowledgements              ends its basic block at most, and comes to the engine
//   returns to the application                  drops, and looks up where it goes on
//
// So when the dropping call returns, no other thread begins a block of the old code any more. A thread in a system call
// is not signalled, since a signal would interrupt the call; it looks at the epoch when it returns.
//
// A child in its parent's memory (kernel/vfork.h) is like any other thread, though it is in no list: it is found by the
// record of its parent.
#pragma once

#include <atomic>
#include <csignal>

#include "bi/mora.h"

namespace ceilmeter {

// Drops what the thread has translated of the range, and makes every other thread do so. The other threads may still
// run it until settle_code_epoch has returned. Nothing is done if no thread has translated any of it.
void drop_code(thread_data* thread, std::uint64_t start, std::uint64_t end);

// Returns when no other thread can begin a block that was dropped before the call. The caller holds no lock: another
// thread may need one before it comes to its next look at the epoch.
void settle_code_epoch(thread_data* thread);

// The bytes of a line that IC IVAU invalidates.
std::uint64_t invalidated_line_bytes();

// The application has invalidated the line of the address (IC IVAU), and something was perhaps translated from it.
void invalidate_line(thread_data* thread, std::uint64_t address);

// Drops what other threads have dropped. Returns whether this thread had any of it; what the caller knows of fragments
// is void then. Not in the middle of a scan.
bool apply_code_epoch(thread_data* thread);
inline bool is_behind_code_epoch(const thread_data* thread) {
  // Acquire: pairs with the release in drop_code. What is translated from here on is read from memory as it is behind
  // the drop.
  return std::atomic_ref(engine.code_epoch).load(std::memory_order_acquire) != thread->code_epoch;
}
inline bool follow_code_epoch(thread_data* thread) { return is_behind_code_epoch(thread) && apply_code_epoch(thread); }

// Around the handling of a system call. In between the thread runs no application code and needs no signal.
void wait_for_visit(thread_data* thread);
inline void enter_call(thread_data* thread) {
  std::atomic_ref(thread->runs_call).store(1, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_seq_cst);
  // The signal is on its way, or the wish will be taken back: its sender waits for nobody in between.
  if (std::atomic_ref(thread->visit_wanted).load(std::memory_order_acquire) != 0) wait_for_visit(thread);
}
inline void leave_call(thread_data* thread) {
  std::atomic_ref(thread->runs_call).store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_seq_cst);
}

// The handler of SIGILL asks: was the signal sent by settle_code_epoch?
bool is_visit(const siginfo_t& info);

// Whether the kernel has merged such a signal with the one that is being handled, which may be of a trap, of a timer or
// of the application's. The kernel keeps one signal of a number at a time.
bool visit_was_merged(thread_data* thread);

// Counts a visit if another thread wants one of this thread. Returns false if none does.
bool answer_visit(thread_data* thread);

// Call this after answer_visit, when the thread's next exit is trapped. The thread that waits for the visit goes on.
void acknowledge_visit(thread_data* thread);

// Takes the visits off the count of held signals. The thread must look at the epoch after this call, because a visit
// that is counted from here on may be for a later epoch.
void take_visits(thread_data* thread);

// In the child of a fork: the other threads, and what they have asked for, are gone.
void forget_visits(thread_data* thread);

}  // namespace ceilmeter
