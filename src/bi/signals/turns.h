// Progress under a flood of signals. A signal under the engine takes longer than natively. Where it takes longer than a
// timer's period, the next one is there before the application has gone on by a single instruction, each time. So the
// engine counts signals that are delivered at the very place that the last handler has returned to. From some number
// on the application gets a turn between two of them: it runs one block, and makes the system call that stands in it.
//
// The number is higher than what programs collect while they block signals: those all arrive before the application
// goes on, as natively.
//
// A signal of a timer, of the kernel or of another process that comes a second time at the same place waits for a turn
// at once: it was sent later than the first, and might as well have come a block later. Otherwise two floods would go
// on and on, because each one's handler is a place where the other has to be delivered so often first. For this the
// thread remembers places by their stack pointer as well: those of the handlers, and of what they have interrupted.
#pragma once

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// A handler has returned to `source`.
void note_handler_return(thread_data* thread, std::uint64_t source);

// A signal has found the thread in the application's code.
void note_progress(thread_data* thread);

// Where the application is about to go on.
struct application_place {
  std::uint64_t source;
  std::uint64_t sp;
  std::uint64_t cache;
};

// The signal is about to be delivered at the place; `sent` is what was sent with it, null if that is not known. True if
// it has to wait for the end of the place's block: its exit is trapped, and nothing else strikes before.
bool give_turn(thread_data* thread, int signum, const siginfo_t* sent, const application_place& place);

// Whether the system call `number` is made in a turn, with signals held back. It may sleep, so a timer of the engine's
// interrupts it over and over until end_interruption.
bool begin_call_in_turn(thread_data* thread, std::uint64_t number);
void delete_interrupter(thread_data* thread);
inline void end_interruption(thread_data* thread) {
  if (thread->interrupter != 0) delete_interrupter(thread);
}

// Whether a signal is of that timer.
bool is_interruption(const thread_data* thread, int signum, const void* siginfo);

// Such a signal has interrupted the call, and the kernel would make it again. True if it has to be undone, for a held
// signal whose action has SA_RESTART. Otherwise the call has come back, with EINTR, or simply goes on.
bool interrupt_call(thread_data* thread, void* ucontext);

}  // namespace ceilmeter
