// The actions that the application sets for its signals, and what the kernel gets in their place.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// rt_sigaction with the arguments of the save area: the kernel's result.
std::int64_t handle_rt_sigaction(const std::uint64_t* args);

// The application's handler for a signal that is about to run it. A handler that was installed for a single time
// (SA_RESETHAND) is taken back. Only where application code was interrupted: takes signal_handlers_lock.
std::uint64_t take_application_handler(int signum);

// From now on the engine handles the faults that the application leaves to their default action, to report them before
// they end it (log_crash). The application reads back the default action as before. For developers: the process shows
// more handled signals in /proc, and a fault for which there is no room on the stack is not reported. Called before the
// application starts.
void report_crashes();

// Whether the engine's handler stays in the kernel under the signal's default action.
bool handles_default_action(int signum);

}  // namespace ceilmeter
