// The handlers of the system calls that change the application's memory. Each takes the save area of the call, makes
// the call, keeps the engine's view by report_vm_op, and returns the kernel's result. The arguments stay as they are:
// the application finds its registers unchanged. report_vm_op and brk_handler are declared in syscalls.h.
#pragma once

#include <cstdint>

#include "bi/kernel/pages.h"

namespace ceilmeter {

std::int64_t handle_mmap(const std::uint64_t* args);
std::int64_t handle_mprotect(const std::uint64_t* args);

// A thread may unmap its own stack and then end, by code that needs no stack. What the engine pushes on the way to the
// end needs one: the pages around the stack pointer stay mapped until the thread ends.
std::int64_t handle_munmap(const std::uint64_t* args);

// The end of such a thread: gives the pages back.
void unmap_kept_stack(page_range kept);

std::int64_t handle_mremap(const std::uint64_t* args);
std::int64_t handle_shmat(const std::uint64_t* args);
std::int64_t handle_shmdt(const std::uint64_t* args);

}  // namespace ceilmeter
