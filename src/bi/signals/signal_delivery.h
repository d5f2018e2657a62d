// Signals that have been counted and wait to be raised again, and the mask that decides whether they may be.
#pragma once

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// A 64-bit mask as the kernel keeps it: signal n is bit n - 1.
constexpr std::uint64_t signal_bit(int signum) { return std::uint64_t{1} << (signum - 1); }

// From here on each signal that is sent arrives. One below that is pending merges with the next of its number.
inline constexpr int FIRST_QUEUED_SIGNAL = 32;

// Counts a signal, to be raised again on the thread's next way back into the cache. Called in the signal's handler.
void count_signal(thread_data* thread, const siginfo_t& info);

// Counts none, but makes the thread's next way back into the cache come to deliver_pending_signal.
void count_visit(thread_data* thread);

// Whether the thread has to come by the engine before it runs application code again: all that the way through the
// dispatcher and cache_reentry_stub looks at.
bool has_to_visit_engine(thread_data* thread);

// Makes the signal that take_held_signal has chosen pending for this thread. All signals are blocked.
void raise_in_kernel(const thread_data* thread);

// The lowest counted signal that the application does not block; -1: none.
int find_deliverable_signal(const thread_data* thread);

// The signals that the application handles, but for faults, as a mask.
std::uint64_t handled_signals();

// Whether the kernel raises a signal for a fault of the running code: SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV, SIGSYS.
bool is_synchronous(int signum);
std::uint64_t synchronous_signals();

}  // namespace ceilmeter
