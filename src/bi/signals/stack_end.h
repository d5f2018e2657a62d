// A thread at the very end of its stack, where what the engine adds to its code finds no room: see code/spare_stack.h.
#pragma once

#include <ucontext.h>

#include "bi/mora.h"

namespace ceilmeter {

// The thread has faulted. If that was at a push of the engine's or of a plug-in's on the application's stack, it goes
// on at the application's instruction with the spare stack, and the application hears of nothing.
bool go_on_at_stack_end(thread_data* thread, ucontext_t* ucontext);

// If the thread stands at a trap in a block that uses the spare stack, gives sp its other value. The block goes on
// behind the trap.
bool move_sp_at_trap(thread_data* thread, mcontext_t& context);

}  // namespace ceilmeter
