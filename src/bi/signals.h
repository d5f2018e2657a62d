// Signals of the application under the engine. One that arrives in rewritten code is only counted; the thread is led to
// cache_reentry_stub, where it is raised again at a point with a known state. A synchronous one runs its handler at once.
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

// For the thread that ends the process. No handler of the application's will run any more, and a signal that is only
// counted would keep the thread from its work: one that comes faster than it can be counted, for ever. What the
// application has left to its default action still ends the process.
void block_handled_signals();

// Puts the trap into a thread's copy of the stub text that raises a held signal without giving up the state of SVE.
void set_raise_trap(std::uint32_t* place);

// Makes a context look like an exit that is about to enter the dispatcher with `target`.
void context_redirect_to_dispatcher(thread_data* thread, void* ucontext, std::uint64_t target);

// Whether the thread's next way back into the cache would raise a signal that has been counted, or end the thread.
bool has_deliverable_signal(thread_data* thread);

// Makes sure that the fragment's next pass through its exit comes to the engine. `pc` is where the thread stands.
void trap_fragment_exit(thread_data* thread, std::int32_t fragment_id, std::uint64_t pc);

// Where the word of an exit at `place` is kept: there, or, while a trap stands in its place, in its fragment's record.
// To be read, and changed, in a trap's stead: the trap itself has to stay until the thread passes it.
std::uint32_t* untrapped_word(thread_data* thread, std::uint32_t* place);

}  // namespace ceilmeter
