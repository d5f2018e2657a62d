// The application's system calls under the engine, and with them its threads, its children and its memory. The handlers
// around a call, syscall_handler_pre and syscall_handler_post, are declared in stubs.h: only the stub calls them.
#pragma once

#include <cstdint>

#include "bi/mora.h"
#include "bi/plugin.h"

namespace ceilmeter {

// Marks of the engine's own in the `flags` of report_vm_op. The first: the mapping is a segment of the application's
// file. The second: it is a segment of the interpreter's file, whose symbols are of no interest.
inline constexpr std::uint32_t VM_FLAG_APPLICATION = 0x20000000;
inline constexpr std::uint32_t VM_FLAG_INTERPRETER = 0x40000000;

// Keeps the engine's view of the application's memory: tells plug-ins, keeps exec_ranges, and drops what was translated
// of memory that goes away. `addr` and `size` are whole pages.
void report_vm_op(vm_op op, std::uint64_t addr, std::uint64_t size, std::uint32_t prot, std::uint32_t flags,
                  std::int32_t fd, std::uint64_t offset, std::uint64_t old_addr, std::uint64_t old_size);

// A thread whose call was in the kernel, or was about to be made, is in application or engine code again. Does not
// return if the process is ending.
void leave_syscall(thread_data* thread);

// The emulated program break: 0 asks for it; returns the break after the call, moved or not.
std::uint64_t brk_handler(std::uint64_t addr);

}  // namespace ceilmeter
