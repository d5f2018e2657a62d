// Where the engine's events reach plug-ins. This build has no plug-in interface: every function here delivers to nobody
// and is the one place where its event will join the engine. Callers call them at the documented points all the same.
#pragma once

#include <cstdint>

#include "bi/mora.h"

namespace ceilmeter {

// What report_vm_op tells.
enum vm_op : std::uint32_t { VM_MAP = 0, VM_UNMAP = 1, VM_REMAP = 2, VM_PROTECT = 3 };

// Events of a fragment under translation.
enum scan_event : std::uint32_t {
  SCAN_PRE_INST,
  SCAN_POST_INST,
  SCAN_PRE_BB,
  SCAN_POST_BB,
  SCAN_PRE_FRAGMENT,
  SCAN_POST_FRAGMENT,
};

inline void deliver_thread_init(thread_data*) {}
inline void deliver_thread_exit(thread_data*) {}
inline void deliver_exit(thread_data*) {}
inline void deliver_flush() {}
inline void deliver_clone(thread_data* /*parent*/, thread_data* /*child*/) {}
inline void deliver_elf_load(const char* /*path*/, int /*fd*/) {}
inline void deliver_vm_op(vm_op, std::uint64_t /*addr*/, std::uint64_t /*size*/, std::uint32_t /*prot*/,
                          std::uint32_t /*flags*/, std::int32_t /*fd*/, std::uint64_t /*offset*/,
                          std::uint64_t /*old_addr*/, std::uint64_t /*old_size*/) {}

// An executable mapping of the file `fd` begins at `addr`: where the file's function symbols will be read.
inline void deliver_mapped_file(std::int32_t /*fd*/, std::uint64_t /*addr*/) {}

// True if a plug-in has taken the call over; `*result` is its result then.
inline bool deliver_pre_syscall(thread_data*, std::uint64_t /*number*/, std::uint64_t* /*args*/,
                                std::uint64_t /*next_inst*/, std::uint64_t* /*result*/) {
  return false;
}

// Delivered while a fragment is translated. True if a plug-in has taken the instruction over; `*stop` ends the fragment.
inline bool a64_scanner_deliver_callbacks(thread_data*, scan_event, const std::uint32_t* /*read_address*/, int /*inst*/,
                                          std::uint32_t** /*write*/, std::uint32_t** /*limit*/, std::int32_t /*bb_id*/,
                                          std::uint32_t /*fragment_type*/, bool /*allow_code*/, bool* /*stop*/,
                                          const std::uint32_t* /*end_address*/) {
  return false;
}

// A callback may change `*result`.
inline void deliver_post_syscall(thread_data*, std::uint64_t /*number*/, std::uint64_t /*next_inst*/,
                                 std::uint64_t* /*result*/) {}

}  // namespace ceilmeter
