// A tool that was installed with file capabilities or with a set-user-ID bit runs with more rights than its caller has.
// These are for opening counters; the application, which is the caller's own code, must not get them.
#pragma once

#include <string>

namespace ceilmeter {

// Gives up all that the executable's file has lent, but for the rights to open counters (CAP_PERFMON, and
// CAP_SYS_ADMIN, which some kernels want instead), and takes effect off those. User and group become the caller's.
// False if that fails: the run must not go on then. Nothing happens to a process that its file has lent nothing, root's
// for instance. Call first in main.
bool keep_counting_privilege_alone();

// Puts the rights to open counters into effect. Call right before counters are opened.
void use_counting_privilege();

// Gives up the rest, for good; the process can no longer be told from one without any of it. False if that fails. Later
// calls do nothing. Call before the application runs, in this process or in a child, and before a result is written.
bool give_up_privileges();

// Makes the auxiliary vector behind the environment `envp` that of an unprivileged start. The application's loader
// reads a copy of it, and would leave out variables that it heeds natively. Call before the tracer, after
// give_up_privileges.
void hide_privileged_start(char** envp);

// What the file of a program would lend it, in words; empty: nothing that the caller does not have. Under the tracer
// the program runs in the tool's process, which the kernel has not given that.
std::string rights_lent_by(const std::string& path);

}  // namespace ceilmeter
