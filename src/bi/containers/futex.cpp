#include "bi/containers/futex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace ceilmeter {

void call_futex(std::uint32_t* word, int operation, std::uint32_t value) {
  const int kept = errno;
  syscall(SYS_futex, word, operation | FUTEX_PRIVATE_FLAG, value, nullptr);
  errno = kept;
}

}  // namespace ceilmeter
