// The actions that the application sets for its signals, and what the kernel gets in their place.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// rt_sigaction with the arguments of the save area: the kernel's result.
std::int64_t handle_rt_sigaction(const std::uint64_t* args);

// Catches the signal if it has its default action, so that the process can end in order (see ending_signals.h). The
// application goes on reading the default action.
void catch_default_action(int signum);

// The application's handler for a signal that is about to run it. A handler that was installed for a single time
// (SA_RESETHAND) is taken back. Only where application code was interrupted: takes signal_handlers_lock.
std::uint64_t take_application_handler(int signum);

}  // namespace ceilmeter
