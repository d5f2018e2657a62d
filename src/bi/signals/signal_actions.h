// The actions that the application sets for its signals, and what the kernel gets in their place.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// rt_sigaction with the arguments of the save area: the kernel's result.
std::int64_t handle_rt_sigaction(const std::uint64_t* args);

// The application's action for a signal that is about to run its handler. A handler that was installed for a single
// time (SA_RESETHAND) is taken back. Only where application code was interrupted: takes signal_handlers_lock.
application_action take_application_action(int signum);

// Gives the kernel an action of the engine's own: signal_entry_stub on the engine's signal stack.
void set_engine_action(int signum);

// Catches the signal if it has its default action, so that the process can end in order (see ending_signals.h). The
// application goes on reading the default action.
void catch_default_action(int signum);

// Fills the table of a child that shares memory, but not its signal actions, with the calling thread's process. A child
// of that one, which has a copy of the memory, makes them its process's.
void copy_actions(action_table* table);
void take_copied_actions(const action_table* table);

}  // namespace ceilmeter
