// The actions that the application sets for its signals, and what the kernel gets in their place.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// rt_sigaction with the arguments of the save area: the kernel's result.
std::int64_t handle_rt_sigaction(const std::uint64_t* args);

// An action as the application has set it, in the kernel's form.
struct application_action {
  std::uint64_t handler;
  std::uint64_t flags;
  std::uint64_t restorer;
  std::uint64_t mask;
};

// The application's action for a signal that is about to run its handler. A handler that was installed for a single
// time (SA_RESETHAND) is taken back. Only where application code was interrupted: takes signal_handlers_lock.
application_action take_application_action(int signum);

// Gives the kernel an action of the engine's own: signal_entry_stub on the engine's signal stack.
void set_engine_action(int signum);

// Fills the handlers of a child that shares memory, but not its signal actions, with the calling thread's process. A
// child of that one, which has a copy of the memory, makes them its process's.
void copy_actions(std::uint64_t* handlers);
void take_copied_actions(const std::uint64_t* handlers);

}  // namespace ceilmeter
