// What a process is started with and what an application that runs in it may change for good: limits, signals, masks,
// scheduling, memory policy, arithmetic. The finishing step of a traced run begins where the application has ended, in
// the same process, and must not inherit any of it.
#pragma once

#include <string>

namespace ceilmeter {

// Notes the state of the process and of the calling thread. Call once, before there are other threads.
void save_process_state();

// Sets everything but the folder back to what was noted, on the calling thread, and stops the timers. Whatever the
// application has given up for good, such as a hard limit that it has lowered, stays as it is, with a warning. The
// signals that would end the process are ignored from then on, but for faults and for those by which a user ends a
// program. All limits on descriptors are lifted as far as possible, because the application's are still open; if it
// has used them up all the same, some of its own are closed. Harmless without a note.
void restore_process_state();

// Ends nobody by a closed pipe or a limit on file sizes any more: the call that meets it fails instead.
void ignore_write_signals();

// The folder in which the process was started; empty if it is not known. TMPDIR as it was; empty if it was not set.
const std::string& start_folder();
const std::string& start_temporary_folder();

}  // namespace ceilmeter
