// Starting a program as a child process.
#pragma once

#include <cstdint>
#include <string>

namespace ceilmeter {

// Runs `path` with the vector `argv` (`argc` elements, then null) and this process's environment, and waits for its
// end. Returns its exit status, 0 for a program that a signal ended, -1 if no process could be made. A program that
// cannot be executed is reported on standard error and counts as status 1. Call while the process has one thread. A
// request to end that comes meanwhile is passed to the application and noted (interruption.h): the call still returns.
std::int32_t run_application(const std::string& path, int argc, char** argv);

}  // namespace ceilmeter
