// Signals of the application under the engine. A signal that arrives in rewritten code is only counted. The thread is
// led to cache_reentry_stub, where the signal is raised again at a point with a known state (signal_delivery.cpp). A
// fault runs its handler at once.
#pragma once

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// What the kernel's sigset_t is: a C library's is larger.
inline constexpr std::uint64_t KERNEL_SIGSET_SIZE = 8;

// Installs signal_entry_stub for SIGILL, the one signal that the engine catches from the start: mora_terminate stops
// threads by it, and the traps that it plants raise it.
void install_sigill_handler();

// Blocks the signals that the application handles, for the thread that ends the process. No handler of the
// application's will run any more, and a signal that comes faster than it can be counted would keep the thread from its
// work for ever. A signal that the application has left to its default action still ends the process.
void block_handled_signals();

// Writes a trap in place of the call that raises a held signal, into a thread's copy of the stub text. The call is then
// made in the trap's handler: a system call made by the stub itself would lose the application's SVE state.
void set_raise_trap(std::uint32_t* place);
bool raises_by_trap(const thread_data* thread);

// Makes a context look like an exit that is about to enter the dispatcher with `target`.
void context_redirect_to_dispatcher(thread_data* thread, void* ucontext, std::uint64_t target);

// Whether the thread's next way back into the cache would raise a signal that has been counted, or end the thread.
// Asked before a system call is made: if not, counted signals that the thread blocks are pending in the kernel
// afterwards, and the call can wait for them.
bool has_deliverable_signal(thread_data* thread);

}  // namespace ceilmeter
