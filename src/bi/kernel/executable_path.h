// The names that /proc gives a process's executable. The application runs inside the tool, so the kernel would answer
// them with the tool's file. Under the engine every call that takes such a name means the application's file.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Resolves the application's path, once: before the application can change its folder.
void remember_application_path();

// readlinkat: copies the application's path if the given path names the executable. Returns the number of bytes copied,
// or -1 for any other path and for arguments that the kernel refuses.
std::int64_t readlink_handler(const char* path, char* buffer, std::uint64_t size);

// Before the call `number` (execve, open, stat and their kind) is made with `args`, its save area: replaces a path that
// names the executable by the application's path. A call that asks for the link itself keeps its path. restore_argument
// (call_mask.h) gives the argument back.
void replace_executable_path(thread_data* thread, std::uint64_t number, std::uint64_t* args);

}  // namespace ceilmeter
