// What was sent with each signal that a thread has counted and not yet delivered: who sent it, its code and its value.
// The application's handler gets all of it when the signal is raised again.
//
// A thread's own signal handlers fill the records, and the thread empties them on its way back into the cache. A signal
// can strike between any two instructions of either, on the same thread. Nobody else touches them.
#pragma once

#include <csignal>
#include <cstddef>
#include <cstdint>

namespace ceilmeter {

// A thread collects fewer between two looks at its count, except in a flood of queued signals. A signal without a
// record is delivered with the process itself as its sender and with the code of tgkill.
inline constexpr std::size_t HELD_SIGNALS = 64;

// The largest siginfo_t that the kernel writes or reads.
inline constexpr std::size_t SIGINFO_SIZE = 128;
static_assert(sizeof(siginfo_t) == SIGINFO_SIZE);

struct held_signal {
  std::uint64_t order;  // 0: free. 1: being written or read. Else the place in the order of arrival, from 2 up.
  siginfo_t info;
};

struct held_signals {
  std::uint64_t arrivals;
  held_signal records[HELD_SIGNALS];
  // For the signal that is being raised. The stub text keeps the application's x3 in the first word meanwhile, and
  // hands the address of the second to the kernel.
  std::uint64_t saved_x3;
  siginfo_t raised;
};

static_assert(offsetof(held_signals, raised) == offsetof(held_signals, saved_x3) + 8,
              "stubs.S steps from one to the other");

// Keeps what was sent with a signal. False if no record is free. In a signal handler.
bool hold_signal(held_signals& held, const siginfo_t& info);

// Moves what was sent with the signal `signum` that has waited longest to `raised`. False if it has no record. On the
// thread's own way back into the cache.
bool take_held_record(held_signals& held, int signum);

// The same. A signal without a record becomes one of tgkill, sent by this process `pid` of user `uid`.
void take_held_signal(held_signals& held, int signum, int pid, unsigned uid);

// What was sent with that signal; null if it has no record. Valid until it is taken.
const siginfo_t* find_held_signal(held_signals& held, int signum);

// Empties all records, as in the child of a fork, which starts without pending signals. No signal may strike meanwhile.
void forget_held_signals(held_signals& held);

}  // namespace ceilmeter
