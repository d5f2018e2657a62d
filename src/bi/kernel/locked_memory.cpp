#include "bi/kernel/locked_memory.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "bi/code/stubs.h"
#include "bi/mora.h"

namespace ceilmeter {

namespace {

constexpr std::uint32_t LOCK_ON_FAULT = 4;  // MCL_ONFAULT, younger than some C libraries' headers.

std::int64_t lock_all_in_kernel(std::uint32_t flags) { return raw_syscall(SYS_mlockall, flags); }

// In a namespace of users the kernel may not accept the capability; it then refuses for want of memory.
bool may_lock_memory() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (raw_syscall(SYS_capget, address_of(&header), address_of(data)) != 0) return false;
  return (data[CAP_IPC_LOCK / 32].effective >> CAP_IPC_LOCK % 32 & 1) != 0;
}

// All that is mapped in the process, in bytes; 0 if it is not known.
std::uint64_t mapped_bytes() {
  char text[64] = {};
  const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (file < 0) return 0;
  const ssize_t size = read(file, text, sizeof text - 1);
  close(file);
  return size > 0 ? std::strtoull(text, nullptr, 10) * page_size() : 0;
}

// What the tool has mapped for itself and reserved for the application.
std::uint64_t own_bytes() {
  std::uint64_t threads = 0;
  owned_lock_take(&engine.thread_list_lock);
  for (const thread_data* thread = engine.thread_list; thread != nullptr; thread = thread->next) ++threads;
  owned_lock_leave(&engine.thread_list_lock);
  return engine.first_size + (threads - 1) * THREAD_ADDRESS_SPACE;
}

}  // namespace

bool fits_lock_limit(std::uint64_t mapped, std::uint64_t own, std::uint64_t limit) {
  return mapped <= own || mapped - own <= limit;
}

std::int64_t handle_mlockall(std::uint64_t wide_flags) {
  constexpr std::uint32_t known = MCL_CURRENT | MCL_FUTURE | LOCK_ON_FAULT;
  const auto flags = static_cast<std::uint32_t>(wide_flags);
  rlimit limit{};
  const bool is_wrong = (flags & ~known) != 0 || (flags & (MCL_CURRENT | MCL_FUTURE)) == 0;
  if (is_wrong || getrlimit(RLIMIT_MEMLOCK, &limit) != 0) return lock_all_in_kernel(flags);
  if (limit.rlim_cur == RLIM_INFINITY || may_lock_memory()) {
    const std::int64_t result = lock_all_in_kernel(flags | LOCK_ON_FAULT);
    if (result != -ENOMEM) return result;
  }
  if (limit.rlim_cur == 0) return -EPERM;
  const bool fits = (flags & MCL_CURRENT) == 0 || fits_lock_limit(mapped_bytes(), own_bytes(), limit.rlim_cur);
  return fits ? 0 : -ENOMEM;
}

}  // namespace ceilmeter
