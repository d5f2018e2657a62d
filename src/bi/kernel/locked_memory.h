// mlockall of the application.
//
// The kernel locks all of a process, and here most of the process is the tool's: code caches, records, and the room
// that the application's stack may grow into, which can be as large as the machine's memory. Natively locked memory is
// touched at once, and all of it counts under RLIMIT_MEMLOCK. So the engine asks the kernel to lock pages as they are
// touched. A process that is bound by the limit could not have that either, with its tool in it: the answer is the one
// that the application would get alone, and its pages stay unlocked. Nothing but the paging of a machine that is short
// of memory tells the difference.
#pragma once

#include <cstdint>

namespace ceilmeter {

// The result of mlockall(flags).
std::int64_t handle_mlockall(std::uint64_t flags);

// Whether an application may lock all that is mapped: `mapped` bytes in the process, of which `own` are the tool's.
// `own` is known to some MiB only, and may be more than `mapped`.
bool fits_lock_limit(std::uint64_t mapped, std::uint64_t own, std::uint64_t limit);

}  // namespace ceilmeter
