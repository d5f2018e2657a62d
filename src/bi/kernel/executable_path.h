// The names that /proc gives a process's executable. The kernel would answer them with the tool's file, since the
// application runs inside the tool; every call that takes such a name means the application's file here.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Resolves the application's path, once: before the application can change its folder.
void remember_application_path();

// readlinkat: copies the application's path for a path that names the executable. Returns the number of bytes copied,
// or
// -1 for any other path and for arguments that the kernel refuses.
std::int64_t readlink_handler(const char* path, char* buffer, std::uint64_t size);

// Before the call `number` (execve, open, stat and their kind) is made with `args`, its save area: a path that names
// the executable is replaced by the application's. A call that asks for the link itself keeps its path.
// restore_argument (call_mask.h) gives the argument back.
void replace_executable_path(thread_data* thread, std::uint64_t number, std::uint64_t* args);

}  // namespace ceilmeter
