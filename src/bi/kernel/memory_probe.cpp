// Both questions are calls of rt_sigprocmask that change no mask: one has an invalid operation, which the kernel judges
// after it has read the new mask; the other asks for the present mask, which the kernel writes. Address 0 means to both
// that there is no mask.
#include "bi/kernel/memory_probe.h"

#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "bi/signals/signals.h"
#include "bi/code/stubs.h"

namespace ceilmeter {

bool is_readable(std::uint64_t address) {
  constexpr std::uint64_t no_operation = ~std::uint64_t{0};
  return address != 0 && raw_syscall(SYS_rt_sigprocmask, no_operation, address, 0, KERNEL_SIGSET_SIZE) != -EFAULT;
}

bool is_writable(std::uint64_t address) {
  return address != 0 && raw_syscall(SYS_rt_sigprocmask, SIG_BLOCK, 0, address, KERNEL_SIGSET_SIZE) != -EFAULT;
}

bool read_word(std::uint64_t address, std::uint64_t* word) {
  if (!is_readable(address)) return false;
  std::memcpy(word, reinterpret_cast<const void*>(address), sizeof *word);
  return true;
}

}  // namespace ceilmeter
