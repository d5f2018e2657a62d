// Signals that end the process by their default action. The kernel would end it on the spot, and what plug-ins have
// counted would be gone. The engine therefore catches these signals while the application leaves them to their default
// action: the process ends as after exit_group, with all its events, and then by the signal.
//
// It does so in the process that mora_run was called in. A child that the application has made ends on the spot. The
// first process of a system or of a namespace (process 1) is spared by default actions: there nothing is caught.
#pragma once

#include <csignal>
#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Catches every such signal that has its default action now. Call it when the thread has its record.
void catch_ending_signals();

// In the child of a fork, once its record has its process id: what was caught is caught no more if the child is the
// first process of a namespace.
void spare_first_process(const thread_data* thread);

// Whether the signal ends this process by its default action, and plug-ins are to hear of it first.
bool is_ending_signal(int signum);

// Whether the kernel would have ended the process by the signal, if it had not been caught.
bool is_caught_default(int signum);

// Whether the signal has come to a child of the application's with a caught default action. The child ends on the spot.
bool ends_child(int signum);

// Whether somebody asks for the end of a process that is ending already: a second Ctrl-C. What is sent to a process and
// to its group within half a second, as `timeout` does, is one request.
bool is_second_request(const siginfo_t& info);

// Gives the signal its default action and raises it. It strikes when the calling thread no longer blocks it.
void raise_default(int signum);

// Notes by which signal the process ends, and since when. Under thread_list_lock, before exit_flag is set.
void note_ending_signal(int signum);

// The process ends by the signal: its parent sees the status, and the core flag, that the application would have given
// it. `core_limit` and `folder` (a descriptor) are the application's.
struct application_core {
  std::uint64_t core_limit[2];
  int folder;
};
void note_application_core(application_core& core);
[[noreturn]] void end_by_signal(int signum, const application_core& core);

}  // namespace ceilmeter
