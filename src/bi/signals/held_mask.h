// While a thread has a signal that was counted and not yet raised, the kernel holds the other ones back: what the
// application handles is blocked. So a timer whose signals take longer than its period does not keep the thread in the
// counting of them, and signals of one number merge in the kernel as they do natively.
//
// The application never sees the wider mask. It knows the one that the kernel had before, and the engine answers, and
// starts threads and processes, with that.
#pragma once

#include <ucontext.h>

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// The handler of a counted signal calls this. It widens the mask in the context that the kernel restores.
void hold_others_back(thread_data* thread, ucontext_t* ucontext);

// The mask that the application has set. On the thread itself.
std::uint64_t application_mask(const thread_data* thread);

// Blocks `signals`, which are all of them or all but the engine's SIGILL, as if a signal had been counted just now. The
// application's code does not run with that mask: a fault whose signal is blocked ends the process.
void hold_all_back(thread_data* thread, std::uint64_t signals);

// The same, for a piece of the application's code: the signals of faults stay as the application has them.
void hold_back_for_turn(thread_data* thread);

// The same mask stays, but the caller sees to it that the application's is put in force.
void end_holding_back(thread_data* thread);

// Puts the application's mask in force. What the kernel has held back may strike before this returns.
void let_through(thread_data* thread);

// Blocks every signal for a clone and returns the mask that the thread or process that is made, and this thread
// afterwards, are to have.
std::uint64_t block_for_clone(thread_data* thread);

// A handler of the application's is entered from the frame with the context: nothing is held back any more, and the
// frame has the application's mask. Gives the mask that is in force for the application, which is `mask` unless that is
// the wider one.
std::uint64_t disclose_mask(thread_data* thread, ucontext_t* ucontext, std::uint64_t mask);

// A handler returns by rt_sigreturn: the kernel puts the mask of the frame with the context in force, and the
// application knows that one from here on. Every signal is blocked until then. One that was counted in between would
// take the handler's mask for the application's.
void return_to_mask(thread_data* thread, const ucontext_t* ucontext);

// rt_sigprocmask while others are held back: reads and changes the mask that the application knows. The result is the
// kernel's.
std::int64_t change_application_mask(thread_data* thread, const std::uint64_t* args);

}  // namespace ceilmeter
