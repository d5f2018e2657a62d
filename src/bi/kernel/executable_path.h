// The names that /proc gives a process's executable. The application runs inside the tool, so the kernel would answer
// them with the tool's file. Under the engine every call that takes such a name means the application's file.
#pragma once

#include <fcntl.h>
#include <sys/syscall.h>

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// Resolves the application's path, once: before the application can change its folder.
void remember_application_path();

// readlinkat: copies the application's path if the given path names the executable. Returns the number of bytes copied,
// or -1 for any other path and for arguments that the kernel refuses.
std::int64_t readlink_handler(const char* path, char* buffer, std::uint64_t size);

// Younger than some C libraries' headers.
inline constexpr std::uint64_t SYS_OPENAT2 = 437;
inline constexpr std::uint64_t SYS_FACCESSAT2 = 439;

// Where a call has its path, and what makes it mean the link in place of the file: flags in an argument, or in a record
// that an argument points to.
inline constexpr std::uint32_t NO_FLAGS = ~std::uint32_t{0};

struct path_place {
  std::uint64_t number;
  std::uint32_t path;
  std::uint32_t flags;
  std::uint64_t means_link;
};

inline constexpr path_place path_places[] = {
    {SYS_statfs, 0, NO_FLAGS, 0},
    {SYS_faccessat, 1, NO_FLAGS, 0},
    {SYS_openat, 1, 2, O_NOFOLLOW},
    {SYS_newfstatat, 1, 3, AT_SYMLINK_NOFOLLOW},
    {SYS_execve, 0, NO_FLAGS, 0},
    {SYS_execveat, 1, 4, AT_SYMLINK_NOFOLLOW},
    {SYS_statx, 1, 2, AT_SYMLINK_NOFOLLOW},
    {SYS_OPENAT2, 1, NO_FLAGS, 0},
    {SYS_FACCESSAT2, 1, 3, AT_SYMLINK_NOFOLLOW},
};

// Before the call `number` (execve, open, stat and their kind) is made with `args`, its save area: replaces a path that
// names the executable by the application's path. A call that asks for the link itself keeps its path. restore_argument
// (call_mask.h) gives the argument back.
void replace_executable_path(thread_data* thread, std::uint64_t number, std::uint64_t* args);

}  // namespace ceilmeter
